#include <QtTest>

#include "FrameHexText.h"

class TestFrameHexText : public QObject
{
    Q_OBJECT

private slots:
    void emptyInputYieldsBracketsAndLetter();
    void nibblesWrittenLowerCaseWithoutSeparators();
    void highBytesWrittenFromUnsignedValue();
    void everyByteValueHasTwoDigits();
};

void TestFrameHexText::emptyInputYieldsBracketsAndLetter()
{
    QCOMPARE(comm::frameHexText(QByteArray()), QByteArray("[A]"));
}

void TestFrameHexText::nibblesWrittenLowerCaseWithoutSeparators()
{
    QCOMPARE(comm::frameHexText(QByteArray("\x00\x0f\xf0\xff", 4)), QByteArray("[A000ff0ff]"));
}

void TestFrameHexText::highBytesWrittenFromUnsignedValue()
{
    QCOMPARE(comm::frameHexText(QByteArray("\x9c", 1)), QByteArray("[A9c]"));
    QCOMPARE(comm::frameHexText(QByteArray("\x80", 1)), QByteArray("[A80]"));
}

void TestFrameHexText::everyByteValueHasTwoDigits()
{
    QByteArray all;
    QByteArray expected("[A");
    for (int value = 0; value < 256; ++value) {
        all.append(char(value));
        expected.append(QByteArray::number(value, 16).rightJustified(2, '0'));
    }
    expected.append(']');
    const QByteArray text = comm::frameHexText(all);
    QCOMPARE(text.size(), 3 + 2 * 256);
    QCOMPARE(text, expected);
}

QTEST_GUILESS_MAIN(TestFrameHexText)
#include "tst_framehextext.moc"
