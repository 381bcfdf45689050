#include <QtTest>

#include <atomic>
#include <optional>
#include <thread>
#include <vector>

#include "CmdDealModule.h"
#include "ReceiveQueue.h"
#include "ReceiveQueueSink.h"

namespace {
ProtocolData reply(quint8 command, quint8 firstParam = 0)
{
    ProtocolData record;
    record.commandByte = command;
    record.paramBytes[0] = firstParam;
    record.sourceText = QStringLiteral("test");
    return record;
}

std::thread::id g_combineThread;

// A combination for the sink to run: the held bytes, then the block, as the
// payload; nothing when there is no held reply.
std::optional<ProtocolData> joinBlockToHeld(const QByteArray &blockData, const QByteArray &heldReply)
{
    g_combineThread = std::this_thread::get_id();
    if (heldReply.isEmpty())
        return std::nullopt;
    ProtocolData record = reply(9);
    record.payload = heldReply + blockData;
    return record;
}
} // namespace

class TestReceiveQueueSink : public QObject
{
    Q_OBJECT

private slots:
    void init() { testqueue::reset(); }
    void cleanupTestCase() { testqueue::reset(); }

    void dealFlagFalseLeavesQueueAndFlagUnchangedForGatedSink();
    void dealFlagFalseStillQueuesForUngatedSink();
    void deliverNowAppendsRecordAndRaisesFlag();
    void setRetFlagStatusSetsFlag();
    void deliverDetachedQueuesRecordFromAnotherThread();
    void combinedDeliveryRunsCombineAwayAndQueuesItsRecord();
    void combinationWithoutRecordOnlyRaisesFlag();
    void deliverOrWakeQueuesRecordOrOnlyRaisesFlag();
    void deliveryTakesQueueLockBeforeFlagLock();
    void clearQueueReturnsBeforeClearingRuns();
    void waitForDetachedWorkWaitsForRunningJob();
    void concurrentDeliveriesLoseNoRecord();
};

void TestReceiveQueueSink::dealFlagFalseLeavesQueueAndFlagUnchangedForGatedSink()
{
    std::atomic<bool> dealFlag{false};
    comm::ReceiveQueueSink sink(&dealFlag);
    sink.deliverNow(reply(1));
    sink.deliverDetached(reply(2));
    sink.waitForDetachedWork();
    QCOMPARE(testqueue::length(), size_t(0));
    QCOMPARE(testqueue::replyFlag(), false);
}

void TestReceiveQueueSink::dealFlagFalseStillQueuesForUngatedSink()
{
    std::atomic<bool> dealFlag{false};
    comm::ReceiveQueueSink sink(nullptr);
    sink.deliverNow(reply(1));
    QCOMPARE(testqueue::length(), size_t(1));
    QCOMPARE(testqueue::replyFlag(), true);
}

void TestReceiveQueueSink::deliverNowAppendsRecordAndRaisesFlag()
{
    std::atomic<bool> dealFlag{true};
    comm::ReceiveQueueSink sink(&dealFlag);
    sink.deliverNow(reply(7));
    comm::setRetFlagStatus(false);
    const size_t before = testqueue::length();
    sink.deliverNow(reply(9, 3));
    QCOMPARE(testqueue::replyFlag(), true);
    QCOMPARE(testqueue::length(), before + 1);
    std::lock_guard<std::mutex> guard(CmdDealModule::receiveHexCmdlock);
    const ProtocolData &last = CmdDealModule::receivequeueHexCmd.back();
    QCOMPARE(last.commandByte, quint8(9));
    QCOMPARE(last.paramBytes[0], quint8(3));
    QCOMPARE(last.sourceText, QStringLiteral("test"));
}

void TestReceiveQueueSink::setRetFlagStatusSetsFlag()
{
    comm::setRetFlagStatus(true);
    QCOMPARE(testqueue::replyFlag(), true);
    comm::setRetFlagStatus(false);
    QCOMPARE(testqueue::replyFlag(), false);
}

void TestReceiveQueueSink::deliverDetachedQueuesRecordFromAnotherThread()
{
    std::atomic<bool> dealFlag{true};
    comm::ReceiveQueueSink sink(&dealFlag);
    // While the test holds the queue lock the hand-off cannot append, yet
    // deliverDetached has already returned: the append runs elsewhere.
    std::unique_lock<std::mutex> held(CmdDealModule::receiveHexCmdlock);
    sink.deliverDetached(reply(5));
    QCOMPARE(CmdDealModule::receivequeueHexCmd.size(), size_t(0));
    QCOMPARE(sink.detachedWorkRunning(), 1);
    held.unlock();
    sink.waitForDetachedWork();
    QCOMPARE(testqueue::length(), size_t(1));
    QCOMPARE(testqueue::replyFlag(), true);
}

void TestReceiveQueueSink::combinedDeliveryRunsCombineAwayAndQueuesItsRecord()
{
    std::atomic<bool> dealFlag{true};
    comm::ReceiveQueueSink sink(&dealFlag);
    g_combineThread = std::thread::id();
    {
        // Returns while the queue lock is held here: the combination runs elsewhere.
        std::unique_lock<std::mutex> held(CmdDealModule::receiveHexCmdlock);
        sink.deliverCombinedDetached(QByteArrayLiteral("block"), QByteArrayLiteral("held"), &joinBlockToHeld);
        QCOMPARE(CmdDealModule::receivequeueHexCmd.size(), size_t(0));
    }
    sink.waitForDetachedWork();
    QVERIFY(g_combineThread != std::thread::id());
    QVERIFY(g_combineThread != std::this_thread::get_id());
    const std::vector<ProtocolData> queued = testqueue::take();
    QCOMPARE(queued.size(), size_t(1));
    QCOMPARE(queued[0].payload, QByteArrayLiteral("heldblock"));
    QCOMPARE(testqueue::replyFlag(), true);
}

void TestReceiveQueueSink::combinationWithoutRecordOnlyRaisesFlag()
{
    std::atomic<bool> dealFlag{false};
    comm::ReceiveQueueSink sink(&dealFlag);
    sink.deliverCombinedDetached(QByteArrayLiteral("block"), QByteArray(), &joinBlockToHeld);
    sink.waitForDetachedWork();
    QCOMPARE(testqueue::length(), size_t(0));
    QCOMPARE(testqueue::replyFlag(), true);
}

void TestReceiveQueueSink::deliverOrWakeQueuesRecordOrOnlyRaisesFlag()
{
    comm::ReceiveQueueSink sink(nullptr);
    sink.deliverOrWake(std::nullopt);
    QCOMPARE(testqueue::length(), size_t(0));
    QCOMPARE(testqueue::replyFlag(), true);
    comm::setRetFlagStatus(false);
    sink.deliverOrWake(reply(7));
    QCOMPARE(testqueue::length(), size_t(1));
    QCOMPARE(testqueue::replyFlag(), true);
}

void TestReceiveQueueSink::deliveryTakesQueueLockBeforeFlagLock()
{
    comm::ReceiveQueueSink sink(nullptr);
    std::unique_lock<std::mutex> flagHeld(CmdDealModule::HexCmdlock);
    sink.deliverDetached(reply(4));
    // The hand-off appends under the queue lock, then waits for the flag lock
    // while still holding the queue lock.
    QElapsedTimer timer;
    timer.start();
    bool queueLockHeldByHandOff = false;
    while (timer.elapsed() < 5000) {
        if (CmdDealModule::receiveHexCmdlock.try_lock()) {
            CmdDealModule::receiveHexCmdlock.unlock();
            QThread::msleep(1);
            continue;
        }
        queueLockHeldByHandOff = true;
        break;
    }
    QVERIFY(queueLockHeldByHandOff);
    QCOMPARE(CmdDealModule::bRetFlag, false);
    flagHeld.unlock();
    sink.waitForDetachedWork();
    QCOMPARE(testqueue::length(), size_t(1));
    QCOMPARE(testqueue::replyFlag(), true);
}

void TestReceiveQueueSink::clearQueueReturnsBeforeClearingRuns()
{
    comm::ReceiveQueueSink sink(nullptr);
    sink.deliverNow(reply(1));
    sink.deliverNow(reply(2));
    CmdDealModule module;
    std::unique_lock<std::mutex> held(CmdDealModule::receiveHexCmdlock);
    sink.clearQueueDetached(module); // returns although the queue lock is held here
    QCOMPARE(CmdDealModule::receivequeueHexCmd.size(), size_t(2));
    held.unlock();
    QTRY_COMPARE_WITH_TIMEOUT(testqueue::length(), size_t(0), 5000);
    sink.waitForDetachedWork();
}

void TestReceiveQueueSink::waitForDetachedWorkWaitsForRunningJob()
{
    comm::ReceiveQueueSink sink(nullptr);
    // Another thread holds the queue lock until a moment after it is told to
    // let go: the delivery cannot finish before, and the wait must last until then.
    std::atomic<bool> locked{false};
    std::atomic<bool> letGo{false};
    std::thread holder([&locked, &letGo] {
        std::lock_guard<std::mutex> held(CmdDealModule::receiveHexCmdlock);
        locked = true;
        for (int i = 0; i < 5000 && !letGo.load(); ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    });
    QTRY_VERIFY_WITH_TIMEOUT(locked.load(), 5000);
    sink.deliverDetached(reply(3));
    QCOMPARE(sink.detachedWorkRunning(), 1);
    letGo = true;
    sink.waitForDetachedWork();
    holder.join();
    QCOMPARE(sink.detachedWorkRunning(), 0);
    QCOMPARE(testqueue::length(), size_t(1));
}

void TestReceiveQueueSink::concurrentDeliveriesLoseNoRecord()
{
    constexpr int kThreads = 8;
    constexpr int kPerThread = 250;
    std::atomic<bool> dealFlag{true};
    comm::ReceiveQueueSink sink(&dealFlag);
    std::vector<std::thread> senders;
    for (int t = 0; t < kThreads; ++t) {
        senders.emplace_back([&sink, t] {
            for (int i = 0; i < kPerThread; ++i) {
                const ProtocolData record = reply(quint8(t), quint8(i));
                if (i % 2 == 0)
                    sink.deliverNow(record);
                else
                    sink.deliverDetached(record);
            }
        });
    }
    for (std::thread &sender : senders)
        sender.join();
    sink.waitForDetachedWork();

    std::lock_guard<std::mutex> guard(CmdDealModule::receiveHexCmdlock);
    QCOMPARE(CmdDealModule::receivequeueHexCmd.size(), size_t(kThreads * kPerThread));
    std::vector<std::vector<int>> seen(kThreads, std::vector<int>(kPerThread, 0));
    for (const ProtocolData &record : CmdDealModule::receivequeueHexCmd)
        ++seen[record.commandByte][record.paramBytes[0]];
    for (int t = 0; t < kThreads; ++t)
        for (int i = 0; i < kPerThread; ++i)
            QCOMPARE(seen[t][i], 1);
}

QTEST_GUILESS_MAIN(TestReceiveQueueSink)
#include "tst_receivequeuesink.moc"
