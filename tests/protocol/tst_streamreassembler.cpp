#include <QtTest>

#include <atomic>
#include <functional>
#include <thread>
#include <vector>

#include "LogCapture.h"
#include "ReceiveQueue.h"
#include "ReplyFrames.h"
#include "RecordingSink.h"
#include "StreamReassembler.h"

using comm::StreamReassemblyConfig;
using replyframes::blockWithCheckByte;
using replyframes::frame;

namespace {
const auto kDeviceType = static_cast<ModulelEnum::DeviceType>(0x01020304);

// One reassembler driven turn by turn from the test thread. Its sleeps are
// recorded instead of slept; onSleep may feed bytes in while a block is
// awaited.
struct Rig
{
    explicit Rig(StreamReassemblyConfig config)
        : reassembler(std::move(config), sink, [this](int ms) { slept(ms); })
    {
        reassembler.setDeviceType(kDeviceType);
    }

    void slept(int ms)
    {
        sleeps.push_back(ms);
        if (onSleep)
            onSleep(static_cast<int>(sleeps.size()));
    }

    // One worker turn; the records it hands over are queued before it returns.
    void turn() { reassembler.dealTurn(); }

    RecordingSink sink{RecordingSink::Forward::ToReceiveQueue};
    std::vector<int> sleeps;
    std::function<void(int sleepCount)> onSleep;
    comm::StreamReassembler reassembler;
};

std::vector<int> repeated(int first, int value, int count)
{
    std::vector<int> sleeps{first};
    sleeps.insert(sleeps.end(), static_cast<size_t>(count), value);
    return sleeps;
}

QString recvLine(const QByteArray &frameBytes)
{
    return QStringLiteral("Recv data:") + QString::fromLatin1(frameBytes);
}

// Frame announcing a block of `length` bytes by B2 = b2 (and B3 = b3).
QByteArray blockFrame(quint8 b2, unsigned short length, quint8 b3 = 0, quint8 command = 0x31)
{
    return frame({command, 0x00, b2, b3, 0x00, quint8(length & 0xFF), quint8(length >> 8)});
}
} // namespace

class TestStreamReassembler : public QObject
{
    Q_OBJECT

private slots:
    void init() { testqueue::reset(); }
    void cleanupTestCase() { testqueue::reset(); }

    // Buffer operations.
    void peekCopiesFrontWithoutRemoving();
    void peekReturnsWhatIsThereWhenShort();
    void takeRemovesFront();
    void takeMoreThanPresentEmptiesBuffer();
    void takeZeroChangesNothing();
    void clearEmptiesBuffer();
    void concurrentAppendAndTakeKeepEveryByteInOrder();

    // Serial turns.
    void turnStartsWithThreeMillisecondSleep();
    void fewerThanNineteenBytesAreLeftUntouched();
    void twoStrayBytesBeforeFrameAreDroppedSilently();
    void allZeroFrameYieldsRecordWithCommandZero();
    void recordCarriesLinkOneSourceTextAndDeviceType();
    void lowerCaseDigitsDecodeLikeUpperCase();
    void frameSplitAcrossReadsIsRecognisedOnceComplete();
    void wrongCheckByteLogsDigitsAndDropsBracket();
    void bracketNotFollowedByRIsDropped();
    void missingClosingBracketDropsOpeningBracket();
    void snapshotWithoutBracketIsDiscarded();
    void turnExaminesAtMost1024Bytes();
    void bracketAtEndWaitsForNextByte();
    void oneFramePerTurn_data();
    void oneFramePerTurn();

    // Serial blocks.
    void block79WithGoodCheckByteBecomesPayload();
    void block79WithBadCheckByteLogsCheckBlockDefault();
    void block8EWith27AnnouncesBlock();
    void frame8EWithout27AnnouncesNoBlock();
    void blockE1OfLengthZeroIsQueuedAtOnce();
    void blockNeverSentWaits150TimesThenLaterFramesWork();
    void partialBlockIsNotConsumedWhenWaitFails();
    void blockArrivingDuringWaitIsTaken();
    void blockLongerThanSnapshotIsReadWhole();
    void blockOfOneByteNeedsCheckByteZero();
    void blockRecordIsQueuedInline();

    // Operations called directly.
    void decodeFrameReadsBadPairAsZero();
    void decodeFrameNegativeCheckPairNeverMatches();
    void decodeFrameLeavesOutputUnchangedOnMismatch();
    void decodeFrameDoesNotExamineBrackets();
    void takeFrameRejectsShortFrame();
    void takeBlockOfLengthZeroQueuesWithoutReading();

    // Worker loop.
    void runWithRunFlagFalseSetsExitedWithoutTurning();
    void runTurnsUntilRunFlagClearedThenSetsExited();
    void runWithoutExitedFlagJustReturns();

    // USB parameters.
    void usbTurnStartsWithTwentyMillisecondSleep();
    void usbRecordCarriesLinkTwoAndUsb();
    void usbBlockAnnouncingFrameIsQueuedAtOnceWithEmptyPayload();
    void usbZeroBytesAfterFrameAreDroppedNextTurn();
    void usbWrongCheckByteLogsPortUsbLine();
    void usbCheckBlockWaits200TimesTwentyMilliseconds();
    void usbCheckBlockKeepsCallersSourceText();
};

void TestStreamReassembler::peekCopiesFrontWithoutRemoving()
{
    Rig rig(StreamReassemblyConfig::serial());
    rig.reassembler.append("abc");
    rig.reassembler.append("def");
    QCOMPARE(rig.reassembler.peek(4), QByteArray("abcd"));
    QCOMPARE(rig.reassembler.contents(), QByteArray("abcdef"));
}

void TestStreamReassembler::peekReturnsWhatIsThereWhenShort()
{
    Rig rig(StreamReassemblyConfig::serial());
    QCOMPARE(rig.reassembler.peek(5), QByteArray());
    rig.reassembler.append("ab");
    QCOMPARE(rig.reassembler.peek(5), QByteArray("ab"));
}

void TestStreamReassembler::takeRemovesFront()
{
    Rig rig(StreamReassemblyConfig::serial());
    rig.reassembler.append("abcdef");
    QCOMPARE(rig.reassembler.take(2), QByteArray("ab"));
    QCOMPARE(rig.reassembler.contents(), QByteArray("cdef"));
}

void TestStreamReassembler::takeMoreThanPresentEmptiesBuffer()
{
    Rig rig(StreamReassemblyConfig::serial());
    rig.reassembler.append("abc");
    QCOMPARE(rig.reassembler.take(10), QByteArray("abc"));
    QCOMPARE(rig.reassembler.contents(), QByteArray());
}

void TestStreamReassembler::takeZeroChangesNothing()
{
    Rig rig(StreamReassemblyConfig::serial());
    rig.reassembler.append("abc");
    QCOMPARE(rig.reassembler.take(0), QByteArray());
    QCOMPARE(rig.reassembler.contents(), QByteArray("abc"));
}

void TestStreamReassembler::clearEmptiesBuffer()
{
    Rig rig(StreamReassemblyConfig::serial());
    rig.reassembler.append("abc");
    rig.reassembler.clear();
    QCOMPARE(rig.reassembler.contents(), QByteArray());
}

void TestStreamReassembler::concurrentAppendAndTakeKeepEveryByteInOrder()
{
    // The receive path appends while the worker takes: the buffer lock is
    // contended, and no byte is lost, doubled or reordered.
    Rig rig(StreamReassemblyConfig::serial());
    constexpr int kTotal = 30000;
    QByteArray sent;
    for (int i = 0; i < kTotal; ++i)
        sent += char(i % 251);
    std::thread producer([&] {
        for (int offset = 0, chunk = 1; offset < kTotal; offset += chunk, chunk = chunk % 13 + 1)
            rig.reassembler.append(sent.mid(offset, chunk));
    });
    QByteArray received;
    QElapsedTimer timer;
    timer.start();
    for (int round = 0; round < 400000 && received.size() < kTotal && timer.elapsed() < 20000; ++round) {
        if (rig.reassembler.peek(5).isEmpty())
            std::this_thread::sleep_for(std::chrono::microseconds(50));
        received += rig.reassembler.take(7);
    }
    producer.join();
    QCOMPARE(received.size(), kTotal);
    QVERIFY(received == sent);
}

void TestStreamReassembler::turnStartsWithThreeMillisecondSleep()
{
    Rig rig(StreamReassemblyConfig::serial());
    rig.turn();
    QCOMPARE(rig.sleeps, std::vector<int>{3});
}

void TestStreamReassembler::fewerThanNineteenBytesAreLeftUntouched()
{
    LogCapture log;
    Rig rig(StreamReassemblyConfig::serial());
    const QByteArray bytes = "xy" + frame({1, 2, 3, 4, 5, 6, 7}).left(16); // 18 bytes, garbage first
    rig.reassembler.append(bytes);
    for (int i = 0; i < 3; ++i)
        rig.turn();
    QCOMPARE(rig.reassembler.contents(), bytes);
    QCOMPARE(testqueue::length(), size_t(0));
    QCOMPARE(log.lines(), QStringList());
}

void TestStreamReassembler::twoStrayBytesBeforeFrameAreDroppedSilently()
{
    LogCapture log;
    Rig rig(StreamReassemblyConfig::serial());
    const QByteArray reply = frame({0x5A, 1, 2, 3, 4, 5, 6});
    rig.reassembler.append("\x13\x37" + reply);
    rig.turn();
    QCOMPARE(testqueue::length(), size_t(1));
    QCOMPARE(testqueue::records().front().commandByte, quint8(0x5A));
    QCOMPARE(rig.reassembler.contents(), QByteArray());
    QCOMPARE(log.lines(), QStringList{recvLine(reply)});
}

void TestStreamReassembler::allZeroFrameYieldsRecordWithCommandZero()
{
    LogCapture log;
    Rig rig(StreamReassemblyConfig::serial());
    rig.reassembler.append("[R0000000000000000]");
    rig.turn();
    QCOMPARE(testqueue::length(), size_t(1));
    const ProtocolData record = testqueue::records().front();
    QCOMPARE(record.commandByte, quint8(0));
    QCOMPARE(record.checksumByte, quint8(0));
    QCOMPARE(record.payload, QByteArray());
    QCOMPARE(log.lines(), QStringList{QStringLiteral("Recv data:[R0000000000000000]")});
}

void TestStreamReassembler::recordCarriesLinkOneSourceTextAndDeviceType()
{
    Rig rig(StreamReassemblyConfig::serial());
    rig.reassembler.setSourceText(QStringLiteral("ttyS7"));
    rig.reassembler.append(frame({0xA0, 0xFF, 0x00, 0x10, 0x20, 0x30, 0x40}));
    rig.turn();
    QCOMPARE(testqueue::length(), size_t(1));
    const ProtocolData record = testqueue::records().front();
    const ProtocolData fresh;
    QCOMPARE(record.linkByte, quint8(1));
    QCOMPARE(record.sourceText, QStringLiteral("ttyS7"));
    QCOMPARE(record.deviceType, kDeviceType);
    QCOMPARE(record.commandByte, quint8(0xA0));
    const quint8 params[6] = {0xFF, 0x00, 0x10, 0x20, 0x30, 0x40};
    for (int i = 0; i < 6; ++i)
        QCOMPARE(record.paramBytes[i], params[i]);
    QCOMPARE(record.checksumByte, quint8(0x3F));
    QCOMPARE(record.payload, QByteArray());
    QCOMPARE(record.hostText, fresh.hostText);
    QCOMPARE(record.infoText, fresh.infoText);
    QCOMPARE(record.sendMode, fresh.sendMode);
    QVERIFY(std::equal(std::begin(record.leadingReserved), std::end(record.leadingReserved),
                       std::begin(fresh.leadingReserved)));
    QVERIFY(std::equal(std::begin(record.trailingReserved), std::end(record.trailingReserved),
                       std::begin(fresh.trailingReserved)));
    QVERIFY(testqueue::replyFlag());
}

void TestStreamReassembler::lowerCaseDigitsDecodeLikeUpperCase()
{
    Rig rig(StreamReassemblyConfig::serial());
    const std::array<quint8, 7> bytes{0xAB, 0xCD, 0xEF, 0xFA, 0xBC, 0xDE, 0x0F};
    rig.reassembler.append(frame(bytes, -1, replyframes::Case::Upper));
    rig.turn();
    rig.reassembler.append(frame(bytes, -1, replyframes::Case::Lower));
    rig.turn();
    const std::vector<ProtocolData> records = testqueue::records();
    QCOMPARE(records.size(), size_t(2));
    QCOMPARE(records[1].commandByte, records[0].commandByte);
    QCOMPARE(records[1].checksumByte, records[0].checksumByte);
    for (int i = 0; i < 6; ++i)
        QCOMPARE(records[1].paramBytes[i], records[0].paramBytes[i]);
    QCOMPARE(records[0].commandByte, quint8(0xAB));
    QCOMPARE(records[0].paramBytes[5], quint8(0x0F));
}

void TestStreamReassembler::frameSplitAcrossReadsIsRecognisedOnceComplete()
{
    Rig rig(StreamReassemblyConfig::serial());
    const QByteArray reply = frame({7, 6, 5, 4, 3, 2, 1});
    rig.reassembler.append(reply.left(5));
    rig.turn();
    rig.reassembler.append(reply.mid(5, 13));
    rig.turn();
    QCOMPARE(testqueue::length(), size_t(0));
    QCOMPARE(rig.reassembler.contents(), reply.left(18));
    rig.reassembler.append(reply.mid(18));
    rig.turn();
    QCOMPARE(testqueue::length(), size_t(1));
    QCOMPARE(testqueue::records().front().commandByte, quint8(7));
}

void TestStreamReassembler::wrongCheckByteLogsDigitsAndDropsBracket()
{
    LogCapture log;
    Rig rig(StreamReassemblyConfig::serial());
    const QByteArray reply = frame({0x5A, 1, 2, 3, 4, 5, 6}, 0x70);
    QCOMPARE(reply, QByteArray("[R5A01020304050670]"));
    rig.reassembler.append(reply);
    rig.turn();
    QCOMPARE(testqueue::length(), size_t(0));
    QCOMPARE(log.lines(), QStringList{QStringLiteral("PortSerial::getArrayData   dataStr==5A01020304050670")});
    // The rest of the frame is scanned again as data.
    QCOMPARE(rig.reassembler.contents(), reply.mid(1));
}

void TestStreamReassembler::bracketNotFollowedByRIsDropped()
{
    LogCapture log;
    Rig rig(StreamReassemblyConfig::serial());
    const QByteArray reply = frame({1, 1, 1, 1, 1, 1, 1});
    rig.reassembler.append("[X" + reply);
    rig.turn();
    QCOMPARE(rig.reassembler.contents(), "X" + reply);
    rig.turn();
    QCOMPARE(testqueue::length(), size_t(1));
    QCOMPARE(log.lines(), QStringList{recvLine(reply)});
}

void TestStreamReassembler::missingClosingBracketDropsOpeningBracket()
{
    LogCapture log;
    Rig rig(StreamReassemblyConfig::serial());
    QByteArray broken = frame({1, 2, 3, 4, 5, 6, 7});
    broken[18] = ')';
    rig.reassembler.append(broken);
    rig.turn();
    QCOMPARE(rig.reassembler.contents(), broken.mid(1));
    QCOMPARE(testqueue::length(), size_t(0));
    QCOMPARE(log.lines(), QStringList());
}

void TestStreamReassembler::snapshotWithoutBracketIsDiscarded()
{
    LogCapture log;
    Rig rig(StreamReassemblyConfig::serial());
    rig.reassembler.append(QByteArray(40, 'z'));
    rig.turn();
    QCOMPARE(rig.reassembler.contents(), QByteArray());
    QCOMPARE(log.lines(), QStringList());
}

void TestStreamReassembler::turnExaminesAtMost1024Bytes()
{
    Rig rig(StreamReassemblyConfig::serial());
    rig.reassembler.append(QByteArray(2000, 'z'));
    rig.turn();
    QCOMPARE(rig.reassembler.contents(), QByteArray(976, 'z'));
    rig.turn();
    QCOMPARE(rig.reassembler.contents(), QByteArray());
}

void TestStreamReassembler::bracketAtEndWaitsForNextByte()
{
    Rig rig(StreamReassemblyConfig::serial());
    rig.reassembler.append(QByteArray(20, 'z') + "[");
    rig.turn();
    QCOMPARE(rig.reassembler.contents(), QByteArray("["));
    QVERIFY(!rig.reassembler.skipToFrameStart("["));
    QCOMPARE(rig.reassembler.contents(), QByteArray("["));
}

void TestStreamReassembler::oneFramePerTurn_data()
{
    QTest::addColumn<bool>("usb");
    QTest::addColumn<int>("turnSleep");
    QTest::newRow("serial") << false << 3;
    QTest::newRow("usb, two frames in one report") << true << 20;
}

void TestStreamReassembler::oneFramePerTurn()
{
    QFETCH(bool, usb);
    QFETCH(int, turnSleep);
    Rig rig(usb ? StreamReassemblyConfig::usb() : StreamReassemblyConfig::serial());
    rig.reassembler.append(frame({1, 0, 0, 0, 0, 0, 0}) + frame({2, 0, 0, 0, 0, 0, 0}));
    rig.turn();
    QCOMPARE(testqueue::length(), size_t(1));
    rig.turn();
    QCOMPARE(testqueue::length(), size_t(2));
    QCOMPARE(rig.sleeps, (std::vector<int>{turnSleep, turnSleep}));
}

void TestStreamReassembler::block79WithGoodCheckByteBecomesPayload()
{
    LogCapture log;
    Rig rig(StreamReassemblyConfig::serial());
    rig.reassembler.setSourceText(QStringLiteral("ttyUSB0"));
    const QByteArray reply = blockFrame(0x79, 3);
    rig.reassembler.append(reply + QByteArray("\x01\x02\x03", 3));
    rig.turn();
    QCOMPARE(testqueue::length(), size_t(1));
    const ProtocolData record = testqueue::records().front();
    QCOMPARE(record.payload, QByteArray("\x01\x02\x03", 3));
    QCOMPARE(record.linkByte, quint8(1));
    QCOMPARE(record.sourceText, QStringLiteral("ttyUSB0"));
    QCOMPARE(record.deviceType, kDeviceType);
    QCOMPARE(record.paramBytes[1], quint8(0x79));
    QCOMPARE(rig.reassembler.contents(), QByteArray());
    QCOMPARE(log.lines(), QStringList{recvLine(reply)});
    QCOMPARE(rig.sleeps, std::vector<int>{3}); // the block was there: no wait
}

void TestStreamReassembler::block79WithBadCheckByteLogsCheckBlockDefault()
{
    LogCapture log;
    Rig rig(StreamReassemblyConfig::serial());
    const QByteArray reply = blockFrame(0x79, 3);
    rig.reassembler.append(reply + QByteArray("\x01\x02\x04", 3));
    rig.turn();
    QCOMPARE(testqueue::length(), size_t(0));
    // The frame text, one blank, then the failure text, all on one line.
    QCOMPARE(log.lines(), QStringList{recvLine(reply) + QStringLiteral(" CheckBlock default:")});
    QCOMPARE(log.lines().front(), QStringLiteral("Recv data:[R31007900000300AD] CheckBlock default:"));
    QCOMPARE(rig.reassembler.contents(), QByteArray()); // the block bytes are gone
}

void TestStreamReassembler::block8EWith27AnnouncesBlock()
{
    Rig rig(StreamReassemblyConfig::serial());
    const QByteArray block = blockWithCheckByte("\x10\x20");
    rig.reassembler.append(blockFrame(0x8E, 3, 0x27) + block);
    rig.turn();
    QCOMPARE(testqueue::length(), size_t(1));
    QCOMPARE(testqueue::records().front().payload, block);
}

void TestStreamReassembler::frame8EWithout27AnnouncesNoBlock()
{
    LogCapture log;
    Rig rig(StreamReassemblyConfig::serial());
    const QByteArray reply = blockFrame(0x8E, 3, 0x26);
    const QByteArray next = frame({0x44, 0, 0, 0, 0, 0, 0});
    rig.reassembler.append(reply + "abc" + next);
    rig.turn();
    QCOMPARE(testqueue::length(), size_t(1));
    QCOMPARE(testqueue::records().front().payload, QByteArray());
    QCOMPARE(rig.reassembler.contents(), "abc" + next); // scanned as ordinary data
    rig.turn();
    QCOMPARE(testqueue::length(), size_t(2));
    QCOMPARE(testqueue::records().back().commandByte, quint8(0x44));
    QCOMPARE(log.lines(), (QStringList{recvLine(reply), recvLine(next)}));
}

void TestStreamReassembler::blockE1OfLengthZeroIsQueuedAtOnce()
{
    LogCapture log;
    Rig rig(StreamReassemblyConfig::serial());
    const QByteArray reply = blockFrame(0xE1, 0);
    rig.reassembler.append(reply + "xyz");
    rig.reassembler.dealTurn(); // queued inline: no hand-off to wait for
    QCOMPARE(testqueue::length(), size_t(1));
    QCOMPARE(testqueue::records().front().payload, QByteArray());
    QCOMPARE(testqueue::records().front().linkByte, quint8(1));
    QCOMPARE(rig.reassembler.contents(), QByteArray("xyz"));
    QCOMPARE(rig.sleeps, std::vector<int>{3});
    QCOMPARE(log.lines(), QStringList{recvLine(reply)});
}

void TestStreamReassembler::blockNeverSentWaits150TimesThenLaterFramesWork()
{
    LogCapture log;
    Rig rig(StreamReassemblyConfig::serial());
    const QByteArray reply = blockFrame(0x79, 3);
    rig.reassembler.append(reply);
    rig.turn();
    QCOMPARE(rig.sleeps, repeated(3, 4, 150)); // about 600 ms
    QCOMPARE(testqueue::length(), size_t(0));
    QCOMPARE(log.lines(), QStringList{recvLine(reply) + QStringLiteral(" CheckBlock default:")});

    const QByteArray later = frame({0x22, 0, 0, 0, 0, 0, 0});
    rig.reassembler.append(later);
    rig.turn();
    QCOMPARE(testqueue::length(), size_t(1));
    QCOMPARE(testqueue::records().front().commandByte, quint8(0x22));
}

void TestStreamReassembler::partialBlockIsNotConsumedWhenWaitFails()
{
    Rig rig(StreamReassemblyConfig::serial());
    rig.reassembler.append(blockFrame(0x79, 3) + "\x01\x02");
    rig.turn();
    QCOMPARE(testqueue::length(), size_t(0));
    QCOMPARE(rig.reassembler.contents(), QByteArray("\x01\x02"));
}

void TestStreamReassembler::blockArrivingDuringWaitIsTaken()
{
    Rig rig(StreamReassemblyConfig::serial());
    const QByteArray block = blockWithCheckByte("\x05\x06\x07");
    rig.reassembler.append(blockFrame(0x79, 4) + block.left(1));
    rig.onSleep = [&](int count) {
        if (count == 11) // the turn sleep, then ten block-wait sleeps
            rig.reassembler.append(block.mid(1));
    };
    rig.turn();
    QCOMPARE(rig.sleeps, repeated(3, 4, 10));
    QCOMPARE(testqueue::length(), size_t(1));
    QCOMPARE(testqueue::records().front().payload, block);
}

void TestStreamReassembler::blockLongerThanSnapshotIsReadWhole()
{
    Rig rig(StreamReassemblyConfig::serial());
    QByteArray bytes;
    for (int i = 0; i < 1499; ++i)
        bytes += char(i * 7);
    const QByteArray block = blockWithCheckByte(bytes);
    rig.reassembler.append(blockFrame(0x79, 1500) + block);
    rig.turn();
    QCOMPARE(testqueue::length(), size_t(1));
    QCOMPARE(testqueue::records().front().payload, block);
}

void TestStreamReassembler::blockOfOneByteNeedsCheckByteZero()
{
    Rig rig(StreamReassemblyConfig::serial());
    rig.reassembler.append(blockFrame(0x79, 1) + QByteArray(1, '\0'));
    rig.turn();
    QCOMPARE(testqueue::length(), size_t(1));
    QCOMPARE(testqueue::records().front().payload, QByteArray(1, '\0'));
    rig.reassembler.append(blockFrame(0x79, 1) + QByteArray(1, '\x01'));
    rig.turn();
    QCOMPARE(testqueue::length(), size_t(1));
}

void TestStreamReassembler::blockRecordIsQueuedInline()
{
    Rig rig(StreamReassemblyConfig::serial());
    rig.reassembler.append(blockFrame(0x79, 2) + blockWithCheckByte("\x09"));
    rig.reassembler.dealTurn();
    QCOMPARE(rig.sink.delivered.size(), 1);
    QVERIFY(rig.sink.queued.isEmpty());
    QCOMPARE(testqueue::length(), size_t(1));
}

void TestStreamReassembler::decodeFrameReadsBadPairAsZero()
{
    Rig rig(StreamReassemblyConfig::serial());
    ProtocolData out;
    // B1 is "zz": it counts as 0, so the check byte 0x05 covers B0 = 5 alone.
    QVERIFY(rig.reassembler.decodeFrame("[R05zz000000000005]", &out));
    QCOMPARE(out.commandByte, quint8(5));
    QCOMPARE(out.paramBytes[0], quint8(0));
    QCOMPARE(out.checksumByte, quint8(5));
}

void TestStreamReassembler::decodeFrameNegativeCheckPairNeverMatches()
{
    LogCapture log;
    Rig rig(StreamReassemblyConfig::serial());
    ProtocolData out;
    // B0..B6 sum to 0xFF, yet "-1" converts to -1, which is not 255.
    QVERIFY(!rig.reassembler.decodeFrame("[RFF000000000000-1]", &out));
    QCOMPARE(log.lines(), QStringList{QStringLiteral("PortSerial::getArrayData   dataStr==FF000000000000-1")});
}

void TestStreamReassembler::decodeFrameLeavesOutputUnchangedOnMismatch()
{
    Rig rig(StreamReassemblyConfig::serial());
    ProtocolData out;
    out.commandByte = 0x77;
    out.sourceText = QStringLiteral("kept");
    QVERIFY(!rig.reassembler.decodeFrame(frame({1, 2, 3, 4, 5, 6, 7}, 0), &out));
    QCOMPARE(out.commandByte, quint8(0x77));
    QCOMPARE(out.sourceText, QStringLiteral("kept"));
}

void TestStreamReassembler::decodeFrameDoesNotExamineBrackets()
{
    Rig rig(StreamReassemblyConfig::serial());
    ProtocolData out;
    out.sourceText = QStringLiteral("replaced");
    QVERIFY(rig.reassembler.decodeFrame("xx5A0102030405066Fy", &out));
    QCOMPARE(out.commandByte, quint8(0x5A));
    QCOMPARE(out.checksumByte, quint8(0x6F));
    QCOMPARE(out.sourceText, QString()); // all else as default-constructed
}

void TestStreamReassembler::takeFrameRejectsShortFrame()
{
    Rig rig(StreamReassemblyConfig::serial());
    const QByteArray reply = frame({1, 2, 3, 4, 5, 6, 7});
    rig.reassembler.append(reply);
    QVERIFY(!rig.reassembler.takeFrame(reply.left(18)));
    QCOMPARE(rig.reassembler.contents(), reply);
    QVERIFY(rig.reassembler.takeFrame(reply + "trailing bytes are not part of the frame"));
    QCOMPARE(rig.reassembler.contents(), QByteArray());
}

void TestStreamReassembler::takeBlockOfLengthZeroQueuesWithoutReading()
{
    Rig rig(StreamReassemblyConfig::serial());
    rig.reassembler.setSourceText(QStringLiteral("ttyS0"));
    rig.reassembler.append("untouched");
    ProtocolData record;
    record.commandByte = 9;
    record.payload = "stale";
    QVERIFY(rig.reassembler.takeBlock(record, 0));
    QCOMPARE(rig.reassembler.contents(), QByteArray("untouched"));
    QVERIFY(rig.sleeps.empty());
    const ProtocolData queued = testqueue::records().front();
    QCOMPARE(queued.payload, QByteArray());
    QCOMPARE(queued.sourceText, QStringLiteral("ttyS0"));
    QCOMPARE(queued.commandByte, quint8(9));
}

void TestStreamReassembler::runWithRunFlagFalseSetsExitedWithoutTurning()
{
    Rig rig(StreamReassemblyConfig::serial());
    std::atomic<bool> runFlag{false};
    std::atomic<bool> exited{false};
    rig.reassembler.run(runFlag, &exited);
    QVERIFY(exited.load());
    QVERIFY(rig.sleeps.empty());
}

void TestStreamReassembler::runTurnsUntilRunFlagClearedThenSetsExited()
{
    Rig rig(StreamReassemblyConfig::serial());
    std::atomic<bool> runFlag{true};
    std::atomic<bool> exited{true};
    rig.reassembler.append(frame({1, 0, 0, 0, 0, 0, 0}) + frame({2, 0, 0, 0, 0, 0, 0}));
    rig.onSleep = [&](int count) {
        QVERIFY(!exited.load()); // cleared on entry
        if (count == 3)
            runFlag = false; // seen at the end of this third turn
    };
    rig.reassembler.run(runFlag, &exited);
    QVERIFY(exited.load());
    QCOMPARE(rig.sleeps, (std::vector<int>{3, 3, 3}));
    QCOMPARE(testqueue::length(), size_t(2));
}

void TestStreamReassembler::runWithoutExitedFlagJustReturns()
{
    Rig rig(StreamReassemblyConfig::usb());
    std::atomic<bool> runFlag{false};
    rig.reassembler.run(runFlag, nullptr);
    QVERIFY(rig.sleeps.empty());
    runFlag = true;
    rig.onSleep = [&](int) { runFlag = false; };
    rig.reassembler.run(runFlag, nullptr);
    QCOMPARE(rig.sleeps, std::vector<int>{20});
}

void TestStreamReassembler::usbTurnStartsWithTwentyMillisecondSleep()
{
    Rig rig(StreamReassemblyConfig::usb());
    rig.turn();
    QCOMPARE(rig.sleeps, std::vector<int>{20});
}

void TestStreamReassembler::usbRecordCarriesLinkTwoAndUsb()
{
    LogCapture log;
    Rig rig(StreamReassemblyConfig::usb());
    const QByteArray reply = frame({0x5A, 1, 2, 3, 4, 5, 6});
    rig.reassembler.append(reply);
    rig.turn();
    QCOMPARE(testqueue::length(), size_t(1));
    const ProtocolData record = testqueue::records().front();
    QCOMPARE(record.linkByte, quint8(2));
    QCOMPARE(record.sourceText, QStringLiteral("USB"));
    QCOMPARE(record.deviceType, kDeviceType);
    QCOMPARE(record.commandByte, quint8(0x5A));
    QCOMPARE(record.checksumByte, quint8(0x6F));
    QCOMPARE(log.lines(), QStringList{recvLine(reply)});
}

void TestStreamReassembler::usbBlockAnnouncingFrameIsQueuedAtOnceWithEmptyPayload()
{
    LogCapture log;
    Rig rig(StreamReassemblyConfig::usb());
    const QByteArray reply = blockFrame(0x79, 3);
    const QByteArray next = frame({0x44, 0, 0, 0, 0, 0, 0});
    rig.reassembler.append(reply + blockWithCheckByte("\x01\x02") + next);
    rig.turn();
    QCOMPARE(rig.sleeps, std::vector<int>{20}); // no block wait
    QCOMPARE(testqueue::length(), size_t(1));
    QCOMPARE(testqueue::records().front().payload, QByteArray());
    rig.turn(); // the three block bytes are garbage in front of the next frame
    QCOMPARE(testqueue::length(), size_t(2));
    QCOMPARE(testqueue::records().back().commandByte, quint8(0x44));
    QCOMPARE(log.lines(), (QStringList{recvLine(reply), recvLine(next)}));
}

void TestStreamReassembler::usbZeroBytesAfterFrameAreDroppedNextTurn()
{
    Rig rig(StreamReassemblyConfig::usb());
    rig.reassembler.append(frame({3, 0, 0, 0, 0, 0, 0}) + QByteArray(45, '\0'));
    rig.turn();
    QCOMPARE(testqueue::length(), size_t(1));
    QCOMPARE(rig.reassembler.contents(), QByteArray(45, '\0'));
    rig.turn();
    QCOMPARE(rig.reassembler.contents(), QByteArray());
    QCOMPARE(testqueue::length(), size_t(1));
}

void TestStreamReassembler::usbWrongCheckByteLogsPortUsbLine()
{
    LogCapture log;
    Rig rig(StreamReassemblyConfig::usb());
    rig.reassembler.append(frame({0x5A, 1, 2, 3, 4, 5, 6}, 0x70, replyframes::Case::Lower));
    rig.turn();
    QCOMPARE(testqueue::length(), size_t(0));
    QCOMPARE(log.lines(), QStringList{QStringLiteral("PortUSB::getArrayData   dataStr==5a01020304050670")});
}

void TestStreamReassembler::usbCheckBlockWaits200TimesTwentyMilliseconds()
{
    Rig rig(StreamReassemblyConfig::usb());
    rig.reassembler.append("\x01");
    QVERIFY(!rig.reassembler.takeBlock(ProtocolData(), 2));
    QCOMPARE(rig.sleeps, std::vector<int>(200, 20)); // about 4 s
    QCOMPARE(rig.reassembler.contents(), QByteArray("\x01"));
    QCOMPARE(testqueue::length(), size_t(0));
}

void TestStreamReassembler::usbCheckBlockKeepsCallersSourceText()
{
    Rig rig(StreamReassemblyConfig::usb());
    const QByteArray block = blockWithCheckByte("\x0A\x0B");
    rig.reassembler.append(block);
    ProtocolData record;
    record.sourceText = QStringLiteral("as passed");
    record.commandByte = 0x12;
    QVERIFY(rig.reassembler.takeBlock(record, 3));
    ProtocolData empty;
    QVERIFY(rig.reassembler.takeBlock(empty, 0));
    const std::vector<ProtocolData> records = testqueue::records();
    QCOMPARE(records.size(), size_t(2));
    QCOMPARE(records[0].sourceText, QStringLiteral("as passed"));
    QCOMPARE(records[0].linkByte, quint8(2));
    QCOMPARE(records[0].payload, block);
    QCOMPARE(records[0].deviceType, kDeviceType);
    QCOMPARE(records[1].sourceText, QString());
    QCOMPARE(records[1].payload, QByteArray());
}

QTEST_GUILESS_MAIN(TestStreamReassembler)
#include "tst_streamreassembler.moc"
