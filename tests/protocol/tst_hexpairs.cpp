#include <QtTest>

#include <random>

#include "HexPairs.h"

namespace {
// The reading as text, pair by pair, without any fast path.
void referenceRead(const QByteArray &digits, int values[comm::kReplyPairs])
{
    const QString text = QString::fromLocal8Bit(digits.constData(), int(qstrnlen(digits.constData(), 16)));
    for (int i = 0; i < comm::kReplyPairs; ++i)
        values[i] = text.mid(2 * i, 2).toInt(nullptr, 16);
}

QVector<int> read(const QByteArray &digits)
{
    QVector<int> values(comm::kReplyPairs, 12345);
    comm::readHexPairs(digits.constData(), values.data());
    return values;
}
} // namespace

class TestHexPairs : public QObject
{
    Q_OBJECT

private slots:
    void upperAndLowerCaseDigitsReadAlike();
    void pairThatDoesNotConvertGivesZero();
    void signedPairKeepsItsSign();
    void zeroByteEndsTheText();
    void pairCutShortByZeroByteReadsRemainingDigit();
    void matchesTextReadingOnRandomInput();
};

void TestHexPairs::upperAndLowerCaseDigitsReadAlike()
{
    QCOMPARE(read("5A0102030405066F"), read("5a0102030405066f"));
    QCOMPARE(read("5A0102030405066F"), (QVector<int>{0x5A, 1, 2, 3, 4, 5, 6, 0x6F}));
}

void TestHexPairs::pairThatDoesNotConvertGivesZero()
{
    QCOMPARE(read("zz01GG0304050607"), (QVector<int>{0, 1, 0, 3, 4, 5, 6, 7}));
}

void TestHexPairs::signedPairKeepsItsSign()
{
    QCOMPARE(read("-1+f000000000000").mid(0, 2), (QVector<int>{-1, 15}));
}

void TestHexPairs::zeroByteEndsTheText()
{
    QCOMPARE(read(QByteArray("0102\0"
                             "04050607ff0",
                             16)),
             (QVector<int>{1, 2, 0, 0, 0, 0, 0, 0}));
}

void TestHexPairs::pairCutShortByZeroByteReadsRemainingDigit()
{
    QCOMPARE(read(QByteArray("01020F\0", 7) + QByteArray(9, '1')).mid(0, 4), (QVector<int>{1, 2, 0xF, 0}));
    QCOMPARE(read(QByteArray("01020f0\0", 8) + QByteArray(8, '1')).mid(0, 5), (QVector<int>{1, 2, 0xF, 0, 0}));
    QCOMPARE(read(QByteArray("010203B\0", 8) + QByteArray(8, '1')).mid(0, 5), (QVector<int>{1, 2, 3, 0xB, 0}));
}

void TestHexPairs::matchesTextReadingOnRandomInput()
{
    const char alphabet[] = "0123456789abcdefABCDEF-+ xXg\x00\x80\xc3\xa9\xff";
    std::mt19937 random(20261120);
    std::uniform_int_distribution<int> pick(0, int(sizeof(alphabet)) - 2);
    for (int round = 0; round < 20000; ++round) {
        QByteArray digits(16, '0');
        const int changes = round % 6;
        for (int c = 0; c < changes; ++c)
            digits[int(random() % 16)] = alphabet[pick(random)];
        int expected[comm::kReplyPairs];
        referenceRead(digits, expected);
        const QVector<int> actual = read(digits);
        for (int i = 0; i < comm::kReplyPairs; ++i) {
            if (actual[i] != expected[i])
                QFAIL(qPrintable(QStringLiteral("pair %1 of %2: %3 instead of %4")
                                     .arg(i)
                                     .arg(QString::fromLatin1(digits.toHex()))
                                     .arg(actual[i])
                                     .arg(expected[i])));
        }
    }
}

QTEST_GUILESS_MAIN(TestHexPairs)
#include "tst_hexpairs.moc"
