#include <QtTest>

#include <atomic>
#include <functional>
#include <thread>
#include <vector>

#include "LogCapture.h"
#include "ReceiveQueue.h"
#include "RecordingSink.h"
#include "StreamReassembler.h"

using comm::StreamReassemblyConfig;

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

// Reply frames as the device sends them: "[" "R", then B0..B6 and the check
// byte (the 8-bit sum of B0..B6) as hex digit pairs, then "]". Written out
// here, not computed, so that a wrong sum in the reassembler cannot hide.

// 01 02 03 04 05 06 07, check byte 1C.
const QByteArray kOneToSeven = QByteArrayLiteral("[R010203040506071C]");
// 5A 01 02 03 04 05 06, check byte 6F.
const QByteArray kReply5A = QByteArrayLiteral("[R5A0102030405066F]");
// Command 1, 2, 3, 0x22 and 0x44 with all parameters 0: the check byte is B0.
const QByteArray kReply01 = QByteArrayLiteral("[R0100000000000001]");
const QByteArray kReply02 = QByteArrayLiteral("[R0200000000000002]");
const QByteArray kReply03 = QByteArrayLiteral("[R0300000000000003]");
const QByteArray kReply22 = QByteArrayLiteral("[R2200000000000022]");
const QByteArray kReply44 = QByteArrayLiteral("[R4400000000000044]");

// Frames of command 0x31 announcing a block: B2 = 0x79 (or 0xE1, or 0x8E with
// B3 = 0x27), the block length in B5 (low) and B6 (high).
// 31 00 79 00 00 03 00: three bytes, check byte AD.
const QByteArray kAnnounces79Of3 = QByteArrayLiteral("[R31007900000300AD]");
// 31 00 79 00 00 01 00: one byte, check byte AB.
const QByteArray kAnnounces79Of1 = QByteArrayLiteral("[R31007900000100AB]");
// 31 00 79 00 00 02 00: two bytes, check byte AC.
const QByteArray kAnnounces79Of2 = QByteArrayLiteral("[R31007900000200AC]");
// 31 00 79 00 00 04 00: four bytes, check byte AE.
const QByteArray kAnnounces79Of4 = QByteArrayLiteral("[R31007900000400AE]");
// 31 00 79 00 00 DC 05: 1500 bytes, check byte 8B.
const QByteArray kAnnounces79Of1500 = QByteArrayLiteral("[R3100790000DC058B]");
// 31 00 8E 27 00 03 00: three bytes, check byte E9.
const QByteArray kAnnounces8E27Of3 = QByteArrayLiteral("[R31008E27000300E9]");
// 31 00 8E 26 00 03 00: B3 is not 0x27, so no block; check byte E8.
const QByteArray kNoBlock8E26 = QByteArrayLiteral("[R31008E26000300E8]");
// 31 00 E1 00 00 00 00: a block of length 0, check byte 12.
const QByteArray kAnnouncesE1Of0 = QByteArrayLiteral("[R3100E10000000012]");
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
    void bufferAtItsCapDropsTheOldestBytes();
    void appendLongerThanTheCapKeepsItsNewestBytes();
    void overflowIsLoggedOncePerEpisode();
    void overflowEpisodeEndsAtHalfTheCap();
    void clearEndsTheOverflowEpisode();
    void frameLeftAfterAnOverflowIsReassembled();
    void longestReplyWithItsBlockStaysUnderTheCap();

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

namespace {
constexpr int kCap = comm::StreamReassembler::kBufferCap;
const QString kOverflowLine = QStringLiteral("Receive buffer full (262144 bytes): dropping the oldest bytes");

// Takes count bytes from the front, in takes of at most 65,535.
void takeFront(comm::StreamReassembler &reassembler, int count)
{
    for (int left = count; left > 0; left -= 0xFFFF)
        reassembler.take(static_cast<unsigned short>(qMin(left, 0xFFFF)));
}
} // namespace

void TestStreamReassembler::bufferAtItsCapDropsTheOldestBytes()
{
    QCOMPARE(kCap, 262144);
    Rig rig(StreamReassemblyConfig::serial());
    rig.reassembler.append("abc" + QByteArray(kCap - 3, '['));
    rig.reassembler.append("xy");
    const QByteArray contents = rig.reassembler.contents();
    QCOMPARE(contents.size(), kCap);
    QCOMPARE(contents.left(2), QByteArray("c["));
    QCOMPARE(contents.right(3), QByteArray("[xy"));
}

void TestStreamReassembler::appendLongerThanTheCapKeepsItsNewestBytes()
{
    Rig rig(StreamReassemblyConfig::usb());
    rig.reassembler.append("old");
    rig.reassembler.append("ab" + QByteArray(kCap - 2, '[') + "z");
    const QByteArray contents = rig.reassembler.contents();
    QCOMPARE(contents.size(), kCap);
    QCOMPARE(contents.left(2), QByteArray("b["));
    QCOMPARE(contents.right(2), QByteArray("[z"));
}

void TestStreamReassembler::overflowIsLoggedOncePerEpisode()
{
    LogCapture log;
    Rig rig(StreamReassemblyConfig::serial());
    rig.reassembler.append(QByteArray(kCap, '['));
    QCOMPARE(log.lines(), QStringList());
    for (int i = 0; i < 100; ++i)
        rig.reassembler.append(QByteArray(1000, '['));
    QCOMPARE(log.lines(), QStringList{kOverflowLine});
    QCOMPARE(rig.reassembler.contents().size(), kCap);
}

void TestStreamReassembler::overflowEpisodeEndsAtHalfTheCap()
{
    LogCapture log;
    Rig rig(StreamReassemblyConfig::serial());
    rig.reassembler.append(QByteArray(kCap + 1, '['));
    // Still above half the cap: the same episode.
    takeFront(rig.reassembler, kCap / 2 - 1);
    rig.reassembler.append(QByteArray(kCap / 2, '['));
    QCOMPARE(log.lines(), QStringList{kOverflowLine});
    // Down to half: the next overflow is a new episode.
    takeFront(rig.reassembler, kCap / 2);
    QCOMPARE(rig.reassembler.contents().size(), kCap / 2);
    rig.reassembler.append(QByteArray(kCap / 2 + 1, '['));
    QCOMPARE(log.lines(), (QStringList{kOverflowLine, kOverflowLine}));
}

void TestStreamReassembler::clearEndsTheOverflowEpisode()
{
    LogCapture log;
    Rig rig(StreamReassemblyConfig::usb());
    rig.reassembler.append(QByteArray(kCap + 1, 'x'));
    rig.reassembler.clear();
    rig.reassembler.append(QByteArray(kCap + 1, 'x'));
    QCOMPARE(log.lines(), (QStringList{kOverflowLine, kOverflowLine}));
}

void TestStreamReassembler::frameLeftAfterAnOverflowIsReassembled()
{
    LogCapture log;
    Rig rig(StreamReassemblyConfig::serial());
    rig.reassembler.append(QByteArray(kCap, '['));
    rig.reassembler.append(kReply5A);
    // The garbage in front is worked off (here at once), and the frame
    // behind it is a reply.
    takeFront(rig.reassembler, kCap - kReply5A.size());
    QCOMPARE(rig.reassembler.contents(), kReply5A);
    rig.turn();
    QCOMPARE(testqueue::length(), size_t(1));
    QCOMPARE(testqueue::records().front().commandByte, quint8(0x5A));
    QCOMPARE(log.lines(), (QStringList{kOverflowLine, recvLine(kReply5A)}));
}

void TestStreamReassembler::longestReplyWithItsBlockStaysUnderTheCap()
{
    LogCapture log;
    Rig rig(StreamReassemblyConfig::serial());
    // 31 00 79 00 00 FF FF: a block of 65,535 bytes, check byte A8.
    const QByteArray announces = QByteArrayLiteral("[R3100790000FFFFA8]");
    QByteArray block(65534, '\x01');
    block += char(65534 & 0xFF); // the 8-bit sum of 65,534 ones
    // Three of them waiting at once, and a frame behind.
    for (int i = 0; i < 3; ++i)
        rig.reassembler.append(announces + block);
    rig.reassembler.append(kReply5A);
    for (int i = 0; i < 4; ++i)
        rig.turn();
    QCOMPARE(testqueue::length(), size_t(4));
    QCOMPARE(testqueue::records().front().payload, block);
    QCOMPARE(testqueue::records().back().commandByte, quint8(0x5A));
    QCOMPARE(log.lines(), (QStringList{recvLine(announces), recvLine(announces), recvLine(announces),
                                       recvLine(kReply5A)}));
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
    const QByteArray bytes = "xy" + kOneToSeven.left(16); // 18 bytes, garbage first
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
    const QByteArray reply = kReply5A;
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
    rig.reassembler.append(QByteArrayLiteral("[RA0FF00102030403F]")); // A0 FF 00 10 20 30 40, check byte 3F
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
    // AB CD EF FA BC DE 0F, check byte 0A, in upper-case and lower-case digits.
    rig.reassembler.append(QByteArrayLiteral("[RABCDEFFABCDE0F0A]"));
    rig.turn();
    rig.reassembler.append(QByteArrayLiteral("[Rabcdeffabcde0f0a]"));
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
    const QByteArray reply = QByteArrayLiteral("[R070605040302011C]"); // 07 06 .. 01, check byte 1C
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
    // 5A 01 02 03 04 05 06 with check byte 70 instead of their sum, 6F.
    const QByteArray reply = QByteArrayLiteral("[R5A01020304050670]");
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
    const QByteArray reply = QByteArrayLiteral("[R0101010101010107]"); // seven times 01, check byte 07
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
    QByteArray broken = kOneToSeven;
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
    rig.reassembler.append(kReply01 + kReply02);
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
    const QByteArray reply = kAnnounces79Of3;
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
    const QByteArray reply = kAnnounces79Of3;
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
    const QByteArray block("\x10\x20\x30", 3); // check byte 10 + 20
    rig.reassembler.append(kAnnounces8E27Of3 + block);
    rig.turn();
    QCOMPARE(testqueue::length(), size_t(1));
    QCOMPARE(testqueue::records().front().payload, block);
}

void TestStreamReassembler::frame8EWithout27AnnouncesNoBlock()
{
    LogCapture log;
    Rig rig(StreamReassemblyConfig::serial());
    const QByteArray reply = kNoBlock8E26;
    const QByteArray next = kReply44;
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
    const QByteArray reply = kAnnouncesE1Of0;
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
    const QByteArray reply = kAnnounces79Of3;
    rig.reassembler.append(reply);
    rig.turn();
    QCOMPARE(rig.sleeps, repeated(3, 4, 150)); // about 600 ms
    QCOMPARE(testqueue::length(), size_t(0));
    QCOMPARE(log.lines(), QStringList{recvLine(reply) + QStringLiteral(" CheckBlock default:")});

    const QByteArray later = kReply22;
    rig.reassembler.append(later);
    rig.turn();
    QCOMPARE(testqueue::length(), size_t(1));
    QCOMPARE(testqueue::records().front().commandByte, quint8(0x22));
}

void TestStreamReassembler::partialBlockIsNotConsumedWhenWaitFails()
{
    Rig rig(StreamReassemblyConfig::serial());
    rig.reassembler.append(kAnnounces79Of3 + "\x01\x02");
    rig.turn();
    QCOMPARE(testqueue::length(), size_t(0));
    QCOMPARE(rig.reassembler.contents(), QByteArray("\x01\x02"));
}

void TestStreamReassembler::blockArrivingDuringWaitIsTaken()
{
    Rig rig(StreamReassemblyConfig::serial());
    const QByteArray block("\x05\x06\x07\x12", 4); // check byte 05 + 06 + 07
    rig.reassembler.append(kAnnounces79Of4 + block.left(1));
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
    const QByteArray block = bytes + '\x39'; // the 8-bit sum of those 1499 bytes
    rig.reassembler.append(kAnnounces79Of1500 + block);
    rig.turn();
    QCOMPARE(testqueue::length(), size_t(1));
    QCOMPARE(testqueue::records().front().payload, block);
}

void TestStreamReassembler::blockOfOneByteNeedsCheckByteZero()
{
    Rig rig(StreamReassemblyConfig::serial());
    rig.reassembler.append(kAnnounces79Of1 + QByteArray(1, '\0'));
    rig.turn();
    QCOMPARE(testqueue::length(), size_t(1));
    QCOMPARE(testqueue::records().front().payload, QByteArray(1, '\0'));
    rig.reassembler.append(kAnnounces79Of1 + QByteArray(1, '\x01'));
    rig.turn();
    QCOMPARE(testqueue::length(), size_t(1));
}

void TestStreamReassembler::blockRecordIsQueuedInline()
{
    Rig rig(StreamReassemblyConfig::serial());
    rig.reassembler.append(kAnnounces79Of2 + QByteArray("\x09\x09", 2)); // block 09, check byte 09
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
    QVERIFY(
        !rig.reassembler.decodeFrame(QByteArrayLiteral("[R0102030405060700]"), &out)); // check byte 00, not the sum 1C
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
    const QByteArray reply = kOneToSeven;
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
    rig.reassembler.append(kReply01 + kReply02);
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
    const QByteArray reply = kReply5A;
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
    const QByteArray reply = kAnnounces79Of3;
    const QByteArray next = kReply44;
    rig.reassembler.append(reply + QByteArray("\x01\x02\x03", 3) + next); // block 01 02, check byte 03
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
    rig.reassembler.append(kReply03 + QByteArray(45, '\0'));
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
    rig.reassembler.append(QByteArrayLiteral("[R5a01020304050670]")); // check byte 70, not the sum 6F
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
    const QByteArray block("\x0A\x0B\x15", 3); // check byte 0A + 0B
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
