#include <QtTest>

#include <atomic>
#include <thread>
#include <vector>

#include "CmdDealModule.h"
#include "ReceiveQueue.h"
#include "ReplyHandOff.h"

namespace {
ProtocolData reply(quint8 command, quint8 firstParam = 0)
{
    ProtocolData record;
    record.commandByte = command;
    record.paramBytes[0] = firstParam;
    record.sourceText = QStringLiteral("test");
    return record;
}
} // namespace

class TestReplyHandOff : public QObject
{
    Q_OBJECT

private slots:
    void init() { testqueue::reset(); }
    void cleanupTestCase() { testqueue::reset(); }

    void dealFlagFalseLeavesQueueAndFlagUnchangedForGatedHandOff();
    void dealFlagFalseStillQueuesForUngatedHandOff();
    void deliverAppendsRecordAndRaisesFlag();
    void setRetFlagStatusSetsFlag();
    void deliverDetachedQueuesRecordFromAnotherThread();
    void inlineLaunchQueuesDetachedDeliveriesBeforeReturningInOrder();
    void handOffTakesQueueLockBeforeFlagLock();
    void clearQueueReturnsBeforeClearingRuns();
    void waitForDetachedWorkWaitsForRunningJob();
    void concurrentHandOffsLoseNoRecord();
};

void TestReplyHandOff::dealFlagFalseLeavesQueueAndFlagUnchangedForGatedHandOff()
{
    std::atomic<bool> dealFlag{false};
    comm::ReplyHandOff handOff(dealFlag, comm::ReplyHandOff::Gate::DealFlag);
    handOff.deliver(reply(1));
    handOff.deliverDetached(reply(2));
    handOff.waitForDetachedWork();
    QCOMPARE(testqueue::length(), size_t(0));
    QCOMPARE(testqueue::replyFlag(), false);
}

void TestReplyHandOff::dealFlagFalseStillQueuesForUngatedHandOff()
{
    std::atomic<bool> dealFlag{false};
    comm::ReplyHandOff handOff(dealFlag, comm::ReplyHandOff::Gate::Always);
    handOff.deliver(reply(1));
    QCOMPARE(testqueue::length(), size_t(1));
    QCOMPARE(testqueue::replyFlag(), true);
}

void TestReplyHandOff::deliverAppendsRecordAndRaisesFlag()
{
    std::atomic<bool> dealFlag{true};
    comm::ReplyHandOff handOff(dealFlag, comm::ReplyHandOff::Gate::DealFlag);
    handOff.deliver(reply(7));
    comm::setRetFlagStatus(false);
    const size_t before = testqueue::length();
    handOff.deliver(reply(9, 3));
    QCOMPARE(testqueue::replyFlag(), true);
    QCOMPARE(testqueue::length(), before + 1);
    std::lock_guard<std::mutex> guard(CmdDealModule::receiveHexCmdlock);
    const ProtocolData &last = CmdDealModule::receivequeueHexCmd.back();
    QCOMPARE(last.commandByte, quint8(9));
    QCOMPARE(last.paramBytes[0], quint8(3));
    QCOMPARE(last.sourceText, QStringLiteral("test"));
}

void TestReplyHandOff::setRetFlagStatusSetsFlag()
{
    comm::setRetFlagStatus(true);
    QCOMPARE(testqueue::replyFlag(), true);
    comm::setRetFlagStatus(false);
    QCOMPARE(testqueue::replyFlag(), false);
}

void TestReplyHandOff::deliverDetachedQueuesRecordFromAnotherThread()
{
    std::atomic<bool> dealFlag{true};
    comm::ReplyHandOff handOff(dealFlag, comm::ReplyHandOff::Gate::DealFlag);
    // While the test holds the queue lock the hand-off cannot append, yet
    // deliverDetached has already returned: the append runs elsewhere.
    std::unique_lock<std::mutex> held(CmdDealModule::receiveHexCmdlock);
    handOff.deliverDetached(reply(5));
    QCOMPARE(CmdDealModule::receivequeueHexCmd.size(), size_t(0));
    QCOMPARE(handOff.detachedWorkRunning(), 1);
    held.unlock();
    handOff.waitForDetachedWork();
    QCOMPARE(testqueue::length(), size_t(1));
    QCOMPARE(testqueue::replyFlag(), true);
}

void TestReplyHandOff::inlineLaunchQueuesDetachedDeliveriesBeforeReturningInOrder()
{
    std::atomic<bool> dealFlag{true};
    comm::ReplyHandOff handOff(dealFlag, comm::ReplyHandOff::Gate::DealFlag, comm::DetachedWork::Launch::Inline);
    const std::thread::id caller = std::this_thread::get_id();
    std::thread::id ranOn;
    handOff.deliverDetached(reply(1));
    handOff.runDetached([&ranOn] { ranOn = std::this_thread::get_id(); });
    handOff.deliverDetached(reply(2));
    QCOMPARE(handOff.detachedWorkRunning(), 0);
    QVERIFY(ranOn == caller);
    const std::vector<ProtocolData> queued = testqueue::take();
    QCOMPARE(queued.size(), size_t(2));
    QCOMPARE(queued[0].commandByte, quint8(1));
    QCOMPARE(queued[1].commandByte, quint8(2));
}

void TestReplyHandOff::handOffTakesQueueLockBeforeFlagLock()
{
    std::atomic<bool> dealFlag{true};
    comm::ReplyHandOff handOff(dealFlag, comm::ReplyHandOff::Gate::Always);
    std::unique_lock<std::mutex> flagHeld(CmdDealModule::HexCmdlock);
    handOff.deliverDetached(reply(4));
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
    handOff.waitForDetachedWork();
    QCOMPARE(testqueue::length(), size_t(1));
    QCOMPARE(testqueue::replyFlag(), true);
}

void TestReplyHandOff::clearQueueReturnsBeforeClearingRuns()
{
    std::atomic<bool> dealFlag{true};
    comm::ReplyHandOff handOff(dealFlag, comm::ReplyHandOff::Gate::Always);
    handOff.deliver(reply(1));
    handOff.deliver(reply(2));
    CmdDealModule module;
    std::unique_lock<std::mutex> held(CmdDealModule::receiveHexCmdlock);
    handOff.clearQueueDetached(module); // returns although the queue lock is held here
    QCOMPARE(CmdDealModule::receivequeueHexCmd.size(), size_t(2));
    held.unlock();
    QTRY_COMPARE_WITH_TIMEOUT(testqueue::length(), size_t(0), 5000);
    handOff.waitForDetachedWork();
}

void TestReplyHandOff::waitForDetachedWorkWaitsForRunningJob()
{
    std::atomic<bool> dealFlag{true};
    comm::ReplyHandOff handOff(dealFlag, comm::ReplyHandOff::Gate::Always);
    std::atomic<bool> release{false};
    std::atomic<bool> finished{false};
    handOff.runDetached([&] {
        for (int i = 0; i < 5000 && !release.load(); ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        finished = true;
    });
    QCOMPARE(handOff.detachedWorkRunning(), 1);
    std::thread releaser([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        release = true;
    });
    handOff.waitForDetachedWork();
    QVERIFY(finished.load());
    QCOMPARE(handOff.detachedWorkRunning(), 0);
    releaser.join();
}

void TestReplyHandOff::concurrentHandOffsLoseNoRecord()
{
    constexpr int kThreads = 8;
    constexpr int kPerThread = 250;
    std::atomic<bool> dealFlag{true};
    comm::ReplyHandOff handOff(dealFlag, comm::ReplyHandOff::Gate::DealFlag);
    std::vector<std::thread> senders;
    for (int t = 0; t < kThreads; ++t) {
        senders.emplace_back([&handOff, t] {
            for (int i = 0; i < kPerThread; ++i) {
                const ProtocolData record = reply(quint8(t), quint8(i));
                if (i % 2 == 0)
                    handOff.deliver(record);
                else
                    handOff.deliverDetached(record);
            }
        });
    }
    for (std::thread &sender : senders)
        sender.join();
    handOff.waitForDetachedWork();

    std::lock_guard<std::mutex> guard(CmdDealModule::receiveHexCmdlock);
    QCOMPARE(CmdDealModule::receivequeueHexCmd.size(), size_t(kThreads * kPerThread));
    std::vector<std::vector<int>> seen(kThreads, std::vector<int>(kPerThread, 0));
    for (const ProtocolData &record : CmdDealModule::receivequeueHexCmd)
        ++seen[record.commandByte][record.paramBytes[0]];
    for (int t = 0; t < kThreads; ++t)
        for (int i = 0; i < kPerThread; ++i)
            QCOMPARE(seen[t][i], 1);
}

QTEST_GUILESS_MAIN(TestReplyHandOff)
#include "tst_replyhandoff.moc"
