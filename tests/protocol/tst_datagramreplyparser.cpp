#include <QtTest>

#include <atomic>
#include <random>

#include "CmdDealModule.h"
#include "DatagramReplyParser.h"
#include "LogCapture.h"
#include "ReceiveQueue.h"
#include "ReplyDatagrams.h"
#include "ReceiveQueueSink.h"
#include "RecordingSink.h"

Q_DECLARE_METATYPE(comm::ReplyAction)

namespace {
const QString kSizeLine = QStringLiteral("datagram.size()!=19 return");
const QString kMarkerLine = QStringLiteral("no '[' 'R' ");
const QString kChecksumLine = QStringLiteral("CHKSUM Wrong return");
const QList<quint8> kNoParams{0, 0, 0, 0, 0, 0};

// A parser over buffers of its own, as the transport keeps them.
struct ParserFixture
{
    QByteArray lastDatagram;
    QByteArray pendingStdReply;
    QByteArray blockBuffer;
    std::mutex lock;
    RecordingSink sink;
    comm::DatagramReplyParser parser{{lastDatagram, pendingStdReply, blockBuffer, lock}, sink};

    void take(const QByteArray &datagram) { parser.takeDatagram(datagram, QStringLiteral("10.1.2.3"), kDeviceType); }

    static constexpr ModulelEnum::DeviceType kDeviceType = static_cast<ModulelEnum::DeviceType>(42);
};

QList<quint8> params(const ProtocolData &record)
{
    return QList<quint8>(std::begin(record.paramBytes), std::end(record.paramBytes));
}

// Drops debug lines while it exists, for tests that parse thousands of datagrams.
class QuietLog
{
public:
    QuietLog() { m_previous = qInstallMessageHandler(&QuietLog::drop); }
    ~QuietLog() { qInstallMessageHandler(m_previous); }

private:
    static void drop(QtMsgType, const QMessageLogContext &, const QString &) {}
    QtMessageHandler m_previous = nullptr;
};
} // namespace

class TestDatagramReplyParser : public QObject
{
    Q_OBJECT

private slots:
    void init() { testqueue::reset(); }
    void cleanupTestCase() { testqueue::reset(); }

    // One datagram
    void validReplyGivesFieldsAndComputedCheckByte();
    void replyWithZeroParametersAndCheckOneIsCommandOne();
    void upperCaseDigitsAreRead();
    void closingByteIsNeverExamined();
    void wrongSizeLogsAndClearsFields_data();
    void wrongSizeLogsAndClearsFields();
    void missingMarkersLogAndClearFields_data();
    void missingMarkersLogAndClearFields();
    void wrongCheckByteLogsAndZeroesFieldsOnly();
    void zeroByteAmongDigitsEndsTheText();
    void combineTwoByteIsSigned16Bit_data();
    void combineTwoByteIsSigned16Bit();
    void senderTextCutsIpv4MappedPrefix_data();
    void senderTextCutsIpv4MappedPrefix();

    // Dispatch
    void dispatchTable_data();
    void dispatchTable();
    void rejectedDatagramsAreBlockData();

    // Combination
    void fixedRowsTakeTheirPayloadLength_data();
    void fixedRowsTakeTheirPayloadLength();
    void fixedRowTakesShorterBlockAsItComes();
    void announcedLengthTakesFirstBytes();
    void announcedLengthNotReachedGivesNothing();
    void zeroLengthGivesNothing();
    void negativeLengthGivesNothing();
    void emptyHeldReplyOrBlockGivesNothing();
    void combinedRecordKeepsFreshSenderAndDeviceType();
    void combinedRecordIsQueuedAndRaisesFlag();
    void combinedRecordWithDealFlagFalseIsDropped();
    void combineWithoutRecordRaisesFlagWhateverTheDealFlag();
    void queueSinkCombinesOnDetachedThread();

    // The parser
    void logsReceivedBytesThenSender();
    void receivedBytesAreLoggedUpToFirstZeroByte();
    void recordCarriesSenderLinkAndDeviceType();
    void everyDatagramBecomesLastDatagram();
    void queueRowIsQueued();
    void deliverRowIsDeliveredAtOnce();
    void holdRowIsHeldWithoutTouchingBlockData();
    void heldReplyWaitsForAnnouncedBytesThenCombines();
    void longFixedRowCombinesOnceAnnouncedLengthIsIn();
    void zeroLengthHeldReplyCompletesOnFirstBlock();
    void negativeLengthHeldReplyCompletesOnFirstBlock();
    void secondHeldReplyReplacesFirstAndKeepsGatheredBytes();
    void rejectedBlockDatagramsLogThreeLinesInOrder_data();
    void rejectedBlockDatagramsLogThreeLinesInOrder();
    void strayBlockWhileIdleIsCombinedWithEmptyHeldReply();
    void randomDatagramsKeepHeldStateConsistent();
};

void TestDatagramReplyParser::validReplyGivesFieldsAndComputedCheckByte()
{
    LogCapture log;
    const ProtocolData record = comm::parseReplyDatagram(replies::reply(0x5A, 0x01, 0x8B, 0x09, 0x04, 0x81, 0xF0));
    QCOMPARE(record.commandByte, quint8(0x5A));
    QCOMPARE(params(record), (QList<quint8>{0x01, 0x8B, 0x09, 0x04, 0x81, 0xF0}));
    QCOMPARE(record.checksumByte, quint8((0x5A + 0x01 + 0x8B + 0x09 + 0x04 + 0x81 + 0xF0) & 0xFF));
    QVERIFY(log.lines().isEmpty());
}

void TestDatagramReplyParser::replyWithZeroParametersAndCheckOneIsCommandOne()
{
    const ProtocolData record = comm::parseReplyDatagram("[R0100000000000001]");
    QCOMPARE(record.commandByte, quint8(1));
    QCOMPARE(record.checksumByte, quint8(1));
    QCOMPARE(params(record), kNoParams);
    QCOMPARE(comm::replyAction(record), comm::ReplyAction::Queue);
}

void TestDatagramReplyParser::upperCaseDigitsAreRead()
{
    const ProtocolData record = comm::parseReplyDatagram("[RAB00FF00000000AA]");
    QCOMPARE(record.commandByte, quint8(0xAB));
    QCOMPARE(record.paramBytes[1], quint8(0xFF));
    QCOMPARE(record.checksumByte, quint8(0xAA));
}

void TestDatagramReplyParser::closingByteIsNeverExamined()
{
    LogCapture log;
    for (char closing : {']', 'x', '\0', '\xFF'}) {
        const ProtocolData record = comm::parseReplyDatagram(replies::datagram({0x10, {1, 2, 3, 4, 5, 6}}, closing));
        QCOMPARE(record.commandByte, quint8(0x10));
        QCOMPARE(record.paramBytes[5], quint8(6));
    }
    QVERIFY(log.lines().isEmpty());
}

void TestDatagramReplyParser::wrongSizeLogsAndClearsFields_data()
{
    QTest::addColumn<QByteArray>("datagram");
    QTest::newRow("empty") << QByteArray();
    QTest::newRow("18") << QByteArray("[R0100000000000001");
    QTest::newRow("20") << QByteArray("[R0100000000000001]]");
    QTest::newRow("block") << replies::blockBytes(100);
}

void TestDatagramReplyParser::wrongSizeLogsAndClearsFields()
{
    QFETCH(QByteArray, datagram);
    LogCapture log;
    const ProtocolData record = comm::parseReplyDatagram(datagram);
    QCOMPARE(log.lines(), QStringList{kSizeLine});
    QCOMPARE(record.commandByte, quint8(0));
    QCOMPARE(params(record), kNoParams);
    QCOMPARE(record.checksumByte, quint8(0));
    QVERIFY(record.payload.isEmpty());
    QVERIFY(record.infoText.isEmpty());
    QVERIFY(!record.infoText.isNull());
}

void TestDatagramReplyParser::missingMarkersLogAndClearFields_data()
{
    QTest::addColumn<QByteArray>("datagram");
    QTest::newRow("no [") << QByteArray("(R0100000000000001]");
    QTest::newRow("no R") << QByteArray("[A0100000000000001]");
    QTest::newRow("r") << QByteArray("[r0100000000000001]");
}

void TestDatagramReplyParser::missingMarkersLogAndClearFields()
{
    QFETCH(QByteArray, datagram);
    LogCapture log;
    const ProtocolData record = comm::parseReplyDatagram(datagram);
    QCOMPARE(log.lines(), QStringList{kMarkerLine});
    QCOMPARE(record.commandByte, quint8(0));
    QCOMPARE(record.checksumByte, quint8(0));
    QVERIFY(record.payload.isEmpty());
    QVERIFY(!record.infoText.isNull());
    QVERIFY(record.infoText.isEmpty());
}

void TestDatagramReplyParser::wrongCheckByteLogsAndZeroesFieldsOnly()
{
    LogCapture log;
    const ProtocolData record = comm::parseReplyDatagram("[R0100000000000002]");
    QCOMPARE(log.lines(), QStringList{kChecksumLine});
    QCOMPARE(record.commandByte, quint8(0));
    QCOMPARE(params(record), kNoParams);
    QCOMPARE(record.checksumByte, quint8(0));
    // Text members stay as constructed.
    QVERIFY(record.infoText.isNull());
    QCOMPARE(comm::replyAction(record), comm::ReplyAction::BlockData);
}

void TestDatagramReplyParser::zeroByteAmongDigitsEndsTheText()
{
    // The text is "ff01": C = 0xFF, P1 = 1, every pair behind the zero byte
    // (the check byte among them) is 0, and 0xFF + 1 wraps to that 0.
    QByteArray datagram("[Rff01.999999999999]");
    datagram.remove(datagram.size() - 1, 1);
    datagram[6] = '\0';
    QCOMPARE(datagram.size(), 19);
    LogCapture log;
    const ProtocolData record = comm::parseReplyDatagram(datagram);
    QVERIFY(log.lines().isEmpty());
    QCOMPARE(record.commandByte, quint8(0xFF));
    QCOMPARE(params(record), (QList<quint8>{1, 0, 0, 0, 0, 0}));
    QCOMPARE(record.checksumByte, quint8(0));
}

void TestDatagramReplyParser::combineTwoByteIsSigned16Bit_data()
{
    QTest::addColumn<int>("low");
    QTest::addColumn<int>("high");
    QTest::addColumn<int>("value");
    QTest::newRow("0") << 0x00 << 0x00 << 0;
    QTest::newRow("129") << 0x81 << 0x00 << 129;
    QTest::newRow("256") << 0x00 << 0x01 << 256;
    QTest::newRow("max") << 0xFF << 0x7F << 32767;
    QTest::newRow("min") << 0x00 << 0x80 << -32768;
    QTest::newRow("-1") << 0xFF << 0xFF << -1;
}

void TestDatagramReplyParser::combineTwoByteIsSigned16Bit()
{
    QFETCH(int, low);
    QFETCH(int, high);
    QFETCH(int, value);
    QCOMPARE(comm::combineTwoByte(static_cast<unsigned char>(low), static_cast<unsigned char>(high)), value);
}

void TestDatagramReplyParser::senderTextCutsIpv4MappedPrefix_data()
{
    QTest::addColumn<QString>("address");
    QTest::addColumn<QString>("text");
    QTest::newRow("mapped") << "::ffff:127.0.0.1"
                            << "127.0.0.1";
    QTest::newRow("mapped other") << "::ffff:192.168.1.20"
                                  << "192.168.1.20";
    QTest::newRow("ipv4") << "127.0.0.1"
                          << "127.0.0.1";
    QTest::newRow("ipv6") << "::1"
                          << "::1";
    QTest::newRow("empty") << ""
                           << "";
}

void TestDatagramReplyParser::senderTextCutsIpv4MappedPrefix()
{
    QFETCH(QString, address);
    QFETCH(QString, text);
    QCOMPARE(comm::senderText(address), text);
}

void TestDatagramReplyParser::dispatchTable_data()
{
    using A = comm::ReplyAction;
    QTest::addColumn<int>("p1");
    QTest::addColumn<int>("p2");
    QTest::addColumn<int>("p3");
    QTest::addColumn<int>("p5");
    QTest::addColumn<int>("p6");
    QTest::addColumn<comm::ReplyAction>("action");
    QTest::newRow("8B 05") << 0 << 0x8B << 0x05 << 0 << 0 << A::Hold;
    QTest::newRow("8B 09") << 0 << 0x8B << 0x09 << 0x81 << 0 << A::Hold;
    QTest::newRow("8B other") << 0 << 0x8B << 0x06 << 0 << 0 << A::Queue;
    QTest::newRow("8E 27") << 0 << 0x8E << 0x27 << 0 << 0 << A::Hold;
    QTest::newRow("8E other") << 0 << 0x8E << 0x26 << 0 << 0 << A::Queue;
    QTest::newRow("F1 40 no length") << 0 << 0xF1 << 0x40 << 0 << 0 << A::DeliverAtOnce;
    QTest::newRow("F1 40 P5") << 0 << 0xF1 << 0x40 << 1 << 0 << A::Hold;
    QTest::newRow("F1 40 P6") << 0 << 0xF1 << 0x40 << 0 << 1 << A::Hold;
    QTest::newRow("F1 other") << 0 << 0xF1 << 0x41 << 0 << 0 << A::Hold;
    QTest::newRow("77 23") << 0 << 0x77 << 0x23 << 0 << 0 << A::Hold;
    QTest::newRow("77 other") << 0 << 0x77 << 0x24 << 0 << 0 << A::Queue;
    for (int p3 : {0x09, 0x0A, 0x0C, 0x12, 0x13, 0x17})
        QTest::addRow("79 %02X", p3) << 0 << 0x79 << p3 << 0 << 0 << A::DeliverAtOnce;
    for (int p3 : {0x00, 0x08, 0x0B, 0x11, 0x14, 0x16, 0x18})
        QTest::addRow("79 %02X holds", p3) << 0 << 0x79 << p3 << 0 << 0 << A::Hold;
    QTest::newRow("69 09") << 0 << 0x69 << 0x09 << 0 << 0 << A::Hold;
    QTest::newRow("69 other") << 0 << 0x69 << 0x0A << 0 << 0 << A::Queue;
    QTest::newRow("00 P1 set") << 1 << 0x00 << 0 << 0 << 0 << A::Queue;
    QTest::newRow("other") << 0 << 0x12 << 0x05 << 0 << 0 << A::Queue;
}

void TestDatagramReplyParser::dispatchTable()
{
    QFETCH(int, p1);
    QFETCH(int, p2);
    QFETCH(int, p3);
    QFETCH(int, p5);
    QFETCH(int, p6);
    QFETCH(comm::ReplyAction, action);
    const QByteArray datagram = replies::reply(0x30, quint8(p1), quint8(p2), quint8(p3), 0x00, quint8(p5), quint8(p6));
    const ProtocolData record = comm::parseReplyDatagram(datagram);
    QCOMPARE(comm::replyAction(record), action);

    ParserFixture fixture;
    fixture.take(datagram);
    QCOMPARE(fixture.sink.queued.size(), action == comm::ReplyAction::Queue ? 1 : 0);
    QCOMPARE(fixture.sink.delivered.size(), action == comm::ReplyAction::DeliverAtOnce ? 1 : 0);
    QCOMPARE(fixture.pendingStdReply, action == comm::ReplyAction::Hold ? datagram : QByteArray());
}

void TestDatagramReplyParser::rejectedDatagramsAreBlockData()
{
    // P1, P2 and the check byte at 0, whether the datagram was rejected or is
    // a valid reply whose digits sum to 0.
    for (const QByteArray &datagram :
         {QByteArray("short"), QByteArray("xR0100000000000001]"), QByteArray("[R0100000000000002]"),
          QByteArray("[R0000000000000000]"), replies::reply(0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0xFF)}) {
        QCOMPARE(comm::replyAction(comm::parseReplyDatagram(datagram)), comm::ReplyAction::BlockData);
    }
}

void TestDatagramReplyParser::fixedRowsTakeTheirPayloadLength_data()
{
    QTest::addColumn<int>("p2");
    QTest::addColumn<int>("p3");
    QTest::addColumn<int>("payload");
    QTest::newRow("8B 09") << 0x8B << 0x09 << 129;
    QTest::newRow("8B 05") << 0x8B << 0x05 << 145;
    QTest::newRow("69 09") << 0x69 << 0x09 << 129;
    QTest::newRow("77 23") << 0x77 << 0x23 << 129;
}

void TestDatagramReplyParser::fixedRowsTakeTheirPayloadLength()
{
    QFETCH(int, p2);
    QFETCH(int, p3);
    QFETCH(int, payload);
    const QByteArray block = replies::blockBytes(300);
    // The announced length (here 16) does not matter to these rows.
    const auto record =
        comm::combineReplyWithBlock(block, replies::reply(0x22, 0x01, quint8(p2), quint8(p3), 0x00, 0x10, 0x00));
    QVERIFY(record.has_value());
    QCOMPARE(record->payload, block.left(payload));
    QCOMPARE(record->commandByte, quint8(0x22));
    QCOMPARE(record->paramBytes[1], quint8(p2));
}

void TestDatagramReplyParser::fixedRowTakesShorterBlockAsItComes()
{
    const QByteArray block = replies::blockBytes(50);
    const auto record = comm::combineReplyWithBlock(block, replies::reply(0x22, 0, 0x8B, 0x09, 0, 0x81, 0));
    QVERIFY(record.has_value());
    QCOMPARE(record->payload, block);
}

void TestDatagramReplyParser::announcedLengthTakesFirstBytes()
{
    const QByteArray block = replies::blockBytes(300);
    const auto record = comm::combineReplyWithBlock(block, replies::reply(0x22, 0, 0xF1, 0x01, 0, 0x02, 0x01));
    QVERIFY(record.has_value());
    QCOMPARE(record->payload, block.left(0x0102));
}

void TestDatagramReplyParser::announcedLengthNotReachedGivesNothing()
{
    const auto record = comm::combineReplyWithBlock(replies::blockBytes(29),
                                                    replies::reply(0x22, 0, 0x8E, 0x27, 0, 30, 0));
    QVERIFY(!record.has_value());
}

void TestDatagramReplyParser::zeroLengthGivesNothing()
{
    QVERIFY(!comm::combineReplyWithBlock(replies::blockBytes(10), replies::reply(0x22, 0, 0x8E, 0x27, 0, 0, 0)));
}

void TestDatagramReplyParser::negativeLengthGivesNothing()
{
    QVERIFY(!comm::combineReplyWithBlock(replies::blockBytes(10), replies::reply(0x22, 0, 0xF1, 0x01, 0, 0, 0x80)));
    QVERIFY(!comm::combineReplyWithBlock(replies::blockBytes(10), replies::reply(0x22, 0, 0xF1, 0x01, 0, 0xFF, 0xFF)));
}

void TestDatagramReplyParser::emptyHeldReplyOrBlockGivesNothing()
{
    LogCapture log;
    QVERIFY(!comm::combineReplyWithBlock(replies::blockBytes(10), QByteArray()));
    QVERIFY(!comm::combineReplyWithBlock(QByteArray(), replies::reply(0x22, 0, 0x8B, 0x09, 0, 0x81, 0)));
    QVERIFY(log.lines().isEmpty()); // nothing is parsed
}

void TestDatagramReplyParser::combinedRecordKeepsFreshSenderAndDeviceType()
{
    const auto record = comm::combineReplyWithBlock(replies::blockBytes(129),
                                                    replies::reply(0x22, 0x01, 0x8B, 0x09, 0, 0x81, 0));
    QVERIFY(record.has_value());
    QVERIFY(record->hostText.isEmpty());
    QVERIFY(record->sourceText.isEmpty());
    QCOMPARE(record->deviceType, ProtocolData().deviceType);
    QCOMPARE(record->checksumByte, quint8(0x22 + 0x01 + 0x8B + 0x09 + 0x81));
}

void TestDatagramReplyParser::combinedRecordIsQueuedAndRaisesFlag()
{
    std::atomic<bool> dealFlag{true};
    comm::ReceiveQueueSink sink(&dealFlag);
    const QByteArray block = replies::blockBytes(160);
    sink.deliverOrWake(comm::combineReplyWithBlock(block, replies::reply(0x22, 0, 0x69, 0x09, 0, 0x81, 0)));
    QCOMPARE(testqueue::length(), size_t(1));
    QVERIFY(testqueue::replyFlag());
    QCOMPARE(testqueue::records().back().payload, block.left(129));
}

void TestDatagramReplyParser::combinedRecordWithDealFlagFalseIsDropped()
{
    std::atomic<bool> dealFlag{false};
    comm::ReceiveQueueSink sink(&dealFlag);
    sink.deliverOrWake(
        comm::combineReplyWithBlock(replies::blockBytes(160), replies::reply(0x22, 0, 0x69, 0x09, 0, 0x81, 0)));
    QCOMPARE(testqueue::length(), size_t(0));
    QVERIFY(!testqueue::replyFlag());
}

void TestDatagramReplyParser::combineWithoutRecordRaisesFlagWhateverTheDealFlag()
{
    std::atomic<bool> dealFlag{false};
    comm::ReceiveQueueSink sink(&dealFlag);
    sink.deliverOrWake(
        comm::combineReplyWithBlock(replies::blockBytes(10), replies::reply(0x22, 0, 0x8E, 0x27, 0, 0, 0)));
    QCOMPARE(testqueue::length(), size_t(0));
    QVERIFY(testqueue::replyFlag());
}

void TestDatagramReplyParser::queueSinkCombinesOnDetachedThread()
{
    std::atomic<bool> dealFlag{true};
    comm::ReceiveQueueSink sink(&dealFlag);
    const QByteArray block = replies::blockBytes(129);
    {
        // Returns while the queue lock is held here: the combination runs elsewhere.
        std::unique_lock<std::mutex> held(CmdDealModule::receiveHexCmdlock);
        sink.deliverCombinedDetached(block, replies::reply(0x22, 0, 0x77, 0x23, 0, 0x81, 0),
                                     &comm::combineReplyWithBlock);
        sink.deliverDetached(ProtocolData());
        QCOMPARE(CmdDealModule::receivequeueHexCmd.size(), size_t(0));
    }
    sink.waitForDetachedWork();
    QCOMPARE(testqueue::length(), size_t(2));
    sink.deliverNow(ProtocolData());
    QCOMPARE(testqueue::length(), size_t(3));
}

void TestDatagramReplyParser::logsReceivedBytesThenSender()
{
    ParserFixture fixture;
    LogCapture log;
    fixture.take("[R0100000000000001]");
    QCOMPARE(log.lines(), (QStringList{"Recv data:[R0100000000000001]", "host ip:10.1.2.3"}));
}

void TestDatagramReplyParser::receivedBytesAreLoggedUpToFirstZeroByte()
{
    ParserFixture fixture;
    fixture.pendingStdReply = replies::reply(0x22, 0, 0xF1, 0x01, 0, 0x00, 0x01);
    LogCapture log;
    fixture.take(QByteArray("ab\0cd\xC3\xA9", 7));
    fixture.take(QByteArray("\xC3\xA9t\xC3\xA9"));
    QCOMPARE(log.lines(),
             (QStringList{"Recv data:ab", "host ip:10.1.2.3", kSizeLine,
                          QString::fromUtf8("Recv data:\xC3\xA9t\xC3\xA9"), "host ip:10.1.2.3", kSizeLine}));
}

void TestDatagramReplyParser::recordCarriesSenderLinkAndDeviceType()
{
    ParserFixture fixture;
    fixture.take("[R0100000000000001]");
    QCOMPARE(fixture.sink.queued.size(), 1);
    const ProtocolData &record = fixture.sink.queued.first();
    QCOMPARE(record.hostText, QStringLiteral("10.1.2.3"));
    QCOMPARE(record.sourceText, QStringLiteral("10.1.2.3"));
    QCOMPARE(record.linkByte, quint8(0));
    QCOMPARE(record.deviceType, ParserFixture::kDeviceType);
    QCOMPARE(record.commandByte, quint8(1));
    QCOMPARE(record.checksumByte, quint8(1));
}

void TestDatagramReplyParser::everyDatagramBecomesLastDatagram()
{
    ParserFixture fixture;
    fixture.take("[R0100000000000001]");
    QCOMPARE(fixture.lastDatagram, QByteArray("[R0100000000000001]"));
    fixture.take("xyz");
    QCOMPARE(fixture.lastDatagram, QByteArray("xyz"));
}

void TestDatagramReplyParser::queueRowIsQueued()
{
    ParserFixture fixture;
    fixture.take(replies::reply(0x05, 0, 0x8B, 0x06, 0, 0, 0));
    QCOMPARE(fixture.sink.queued.size(), 1);
    QCOMPARE(fixture.sink.queued.first().paramBytes[2], quint8(0x06));
    QVERIFY(fixture.sink.delivered.isEmpty());
    QVERIFY(fixture.sink.combines.isEmpty());
}

void TestDatagramReplyParser::deliverRowIsDeliveredAtOnce()
{
    ParserFixture fixture;
    fixture.take(replies::reply(0x05, 0, 0x79, 0x13, 0, 0, 0));
    QCOMPARE(fixture.sink.delivered.size(), 1);
    QCOMPARE(fixture.sink.delivered.first().hostText, QStringLiteral("10.1.2.3"));
    QVERIFY(fixture.sink.queued.isEmpty());
}

void TestDatagramReplyParser::holdRowIsHeldWithoutTouchingBlockData()
{
    ParserFixture fixture;
    fixture.blockBuffer = "gathered";
    const QByteArray held = replies::reply(0x05, 0, 0x8E, 0x27, 0, 0x40, 0);
    fixture.take(held);
    QCOMPARE(fixture.pendingStdReply, held);
    QCOMPARE(fixture.blockBuffer, QByteArray("gathered"));
    QVERIFY(fixture.sink.queued.isEmpty());
    QVERIFY(fixture.sink.delivered.isEmpty());
    QVERIFY(fixture.sink.combines.isEmpty());
}

void TestDatagramReplyParser::heldReplyWaitsForAnnouncedBytesThenCombines()
{
    ParserFixture fixture;
    const QByteArray held = replies::reply(0x05, 0, 0x8B, 0x09, 0, 0x81, 0x00);
    const QByteArray first = replies::blockBytes(100);
    const QByteArray second = replies::blockBytes(60, 100);
    fixture.take(held);
    fixture.take(first);
    QVERIFY(fixture.sink.combines.isEmpty());
    QCOMPARE(fixture.blockBuffer, first);
    fixture.take(second);
    QCOMPARE(fixture.sink.combines.size(), 1);
    QCOMPARE(fixture.sink.combines.first().first, first + second);
    QCOMPARE(fixture.sink.combines.first().second, held);
    QVERIFY(fixture.pendingStdReply.isEmpty());
    QVERIFY(fixture.blockBuffer.isEmpty());

    const auto record = comm::combineReplyWithBlock(first + second, held);
    QVERIFY(record.has_value());
    QCOMPARE(record->payload.size(), 129);
    QCOMPARE(record->payload, (first + second).left(129));
}

void TestDatagramReplyParser::longFixedRowCombinesOnceAnnouncedLengthIsIn()
{
    ParserFixture fixture;
    const QByteArray held = replies::reply(0x05, 0, 0x8B, 0x05, 0, 0x00, 0x01);
    fixture.take(held);
    fixture.take(replies::blockBytes(200));
    QVERIFY(fixture.sink.combines.isEmpty());
    fixture.take(replies::blockBytes(55));
    QVERIFY(fixture.sink.combines.isEmpty());
    fixture.take(replies::blockBytes(1));
    QCOMPARE(fixture.sink.combines.size(), 1);
    const auto record = comm::combineReplyWithBlock(fixture.sink.combines.first().first, held);
    QVERIFY(record.has_value());
    QCOMPARE(record->payload.size(), 145);
}

void TestDatagramReplyParser::zeroLengthHeldReplyCompletesOnFirstBlock()
{
    ParserFixture fixture;
    const QByteArray held = replies::reply(0x05, 0, 0x8E, 0x27, 0, 0, 0);
    fixture.take(held);
    fixture.take(replies::blockBytes(5));
    QCOMPARE(fixture.sink.combines.size(), 1);
    QVERIFY(!comm::combineReplyWithBlock(fixture.sink.combines.first().first, held));
}

void TestDatagramReplyParser::negativeLengthHeldReplyCompletesOnFirstBlock()
{
    ParserFixture fixture;
    const QByteArray held = replies::reply(0x05, 0, 0xF1, 0x02, 0, 0x00, 0x80);
    fixture.take(held);
    fixture.take(replies::blockBytes(5));
    QCOMPARE(fixture.sink.combines.size(), 1);
    QVERIFY(!comm::combineReplyWithBlock(fixture.sink.combines.first().first, held));
    QVERIFY(fixture.pendingStdReply.isEmpty());
}

void TestDatagramReplyParser::secondHeldReplyReplacesFirstAndKeepsGatheredBytes()
{
    ParserFixture fixture;
    const QByteArray firstHeld = replies::reply(0x05, 0, 0x69, 0x09, 0, 0x81, 0);
    const QByteArray secondHeld = replies::reply(0x06, 0, 0x8B, 0x05, 0, 0x00, 0x01);
    fixture.take(firstHeld);
    fixture.take(replies::blockBytes(100));
    fixture.take(secondHeld);
    QCOMPARE(fixture.pendingStdReply, secondHeld);
    QCOMPARE(fixture.blockBuffer.size(), 100);
    fixture.take(replies::blockBytes(100, 100)); // 200: enough for the first, not for the second
    QVERIFY(fixture.sink.combines.isEmpty());
    fixture.take(replies::blockBytes(56, 200));
    QCOMPARE(fixture.sink.combines.size(), 1);
    QCOMPARE(fixture.sink.combines.first().first, replies::blockBytes(256));
    QCOMPARE(fixture.sink.combines.first().second, secondHeld);
}

void TestDatagramReplyParser::rejectedBlockDatagramsLogThreeLinesInOrder_data()
{
    QTest::addColumn<QByteArray>("datagram");
    QTest::addColumn<QString>("third");
    QTest::newRow("18") << QByteArray("abcdefghijklmnopqr") << kSizeLine;
    QTest::newRow("20") << QByteArray("abcdefghijklmnopqrst") << kSizeLine;
    QTest::newRow("19 without markers") << QByteArray("abcdefghijklmnopqrs") << kMarkerLine;
    QTest::newRow("19 with wrong check byte") << QByteArray("[R0100000000000002]") << kChecksumLine;
}

void TestDatagramReplyParser::rejectedBlockDatagramsLogThreeLinesInOrder()
{
    QFETCH(QByteArray, datagram);
    QFETCH(QString, third);
    ParserFixture fixture;
    fixture.take(replies::reply(0x05, 0, 0xF1, 0x01, 0, 0x00, 0x10));
    LogCapture log;
    fixture.take(datagram);
    QCOMPARE(log.lines(), (QStringList{"Recv data:" + QString::fromLatin1(datagram), "host ip:10.1.2.3", third}));
    QCOMPARE(fixture.blockBuffer, datagram);
}

void TestDatagramReplyParser::strayBlockWhileIdleIsCombinedWithEmptyHeldReply()
{
    ParserFixture fixture;
    LogCapture log;
    fixture.take("stray");
    // The block datagram itself, then the empty held reply, fail the size check.
    QCOMPARE(log.lines(), (QStringList{"Recv data:stray", "host ip:10.1.2.3", kSizeLine, kSizeLine}));
    QCOMPARE(fixture.sink.combines.size(), 1);
    QCOMPARE(fixture.sink.combines.first().first, QByteArray("stray"));
    QVERIFY(fixture.sink.combines.first().second.isEmpty());
    QVERIFY(fixture.blockBuffer.isEmpty());
    QVERIFY(fixture.pendingStdReply.isEmpty());
}

void TestDatagramReplyParser::randomDatagramsKeepHeldStateConsistent()
{
    QuietLog quiet;
    ParserFixture fixture;
    std::mt19937 random(20240611u);
    const quint8 groups[] = {0x8B, 0x8E, 0xF1, 0x77, 0x79, 0x69, 0x00, 0x12};
    for (int i = 0; i < 20000; ++i) {
        QByteArray datagram;
        switch (random() % 3) {
        case 0: { // a valid reply of one of the command groups
            const quint8 p3 = static_cast<quint8>(random() % 0x30);
            datagram = replies::reply(quint8(random()), quint8(random() % 2), groups[random() % 8], p3, 0,
                                      quint8(random()), quint8(random() % 3 == 0 ? 0x80 : random() % 2));
            break;
        }
        case 1: // raw bytes of any size
            datagram.resize(static_cast<int>(random() % 64));
            for (char &byte : datagram)
                byte = static_cast<char>(random());
            break;
        default: // a reply with a damaged byte
            datagram = replies::reply(quint8(random()), 0, groups[random() % 8], quint8(random()), 0, 0, 0);
            datagram[static_cast<int>(random() % 19)] = static_cast<char>(random());
            break;
        }
        const bool blockData = comm::replyAction(comm::parseReplyDatagram(datagram)) == comm::ReplyAction::BlockData;
        fixture.take(datagram);
        QCOMPARE(fixture.lastDatagram, datagram);
        // Idle means nothing gathered; after block data the parser either
        // combined (idle again) or still waits for bytes.
        if (fixture.pendingStdReply.isEmpty()) {
            QVERIFY(fixture.blockBuffer.isEmpty());
        } else if (blockData) {
            const ProtocolData held = comm::parseReplyDatagram(fixture.pendingStdReply);
            QVERIFY(fixture.blockBuffer.size() < comm::combineTwoByte(held.paramBytes[4], held.paramBytes[5]));
        }
    }
    QVERIFY(!fixture.sink.combines.isEmpty());
    QVERIFY(!fixture.sink.queued.isEmpty());
    QVERIFY(!fixture.sink.delivered.isEmpty());
}

QTEST_GUILESS_MAIN(TestDatagramReplyParser)
#include "tst_datagramreplyparser.moc"
