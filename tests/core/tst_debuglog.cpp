#include <QtTest>

#include <QLoggingCategory>

#include "DebugLog.h"
#include "LogCapture.h"

class TestDebugLog : public QObject
{
    Q_OBJECT

private slots:
    void lineIsWrittenExactly();
    void labelAndTextAreJoined();
    void bytesAreReadAsUtf8UpToFirstZeroByte();
    void nothingIsWrittenWhileDebugOutputIsOff();
};

void TestDebugLog::lineIsWrittenExactly()
{
    LogCapture log;
    comm::debugLine(QStringLiteral("no '[' 'R' "));
    QCOMPARE(log.lines(), QStringList{"no '[' 'R' "});
}

void TestDebugLog::labelAndTextAreJoined()
{
    LogCapture log;
    comm::debugLine(QStringLiteral("host ip:"), QStringLiteral("127.0.0.1"));
    QCOMPARE(log.lines(), QStringList{"host ip:127.0.0.1"});
}

void TestDebugLog::bytesAreReadAsUtf8UpToFirstZeroByte()
{
    LogCapture log;
    comm::debugLine(QStringLiteral("Send data:"), QByteArray("[A]\xC3\xA9\0tail", 10));
    comm::debugLine(QStringLiteral("Recv data:"), QByteArray());
    QCOMPARE(log.lines(), (QStringList{QString::fromUtf8("Send data:[A]\xC3\xA9"), "Recv data:"}));
}

void TestDebugLog::nothingIsWrittenWhileDebugOutputIsOff()
{
    LogCapture log;
    QLoggingCategory::setFilterRules(QStringLiteral("default.debug=false"));
    comm::debugLine(QStringLiteral("Send successful"));
    comm::debugLine(QStringLiteral("host ip:"), QStringLiteral("127.0.0.1"));
    comm::debugLine(QStringLiteral("Recv data:"), QByteArray("x"));
    QLoggingCategory::setFilterRules(QString());
    QVERIFY(log.lines().isEmpty());
    comm::debugLine(QStringLiteral("Send successful"));
    QCOMPARE(log.lines(), QStringList{"Send successful"});
}

QTEST_GUILESS_MAIN(TestDebugLog)
#include "tst_debuglog.moc"
