#include <QtTest>

#include <QThread>

#include <atomic>
#include <thread>

#include "OtherThread.h"
#include "OwnerThread.h"

class TestOwnerThread : public QObject
{
    Q_OBJECT

private slots:
    void runOnTheOwnersThreadRunsAtOnce();
    void runFromAnotherThreadRunsOnTheOwnersThreadAndWaits();
    void runForAnOwnerWhoseThreadIsNotRunningRunsOnTheCaller();
};

void TestOwnerThread::runOnTheOwnersThreadRunsAtOnce()
{
    QObject owner;
    comm::OwnerThreadRunner runner(&owner);
    QThread *ranOn = nullptr;
    runner.run([&ranOn] { ranOn = QThread::currentThread(); });
    QCOMPARE(ranOn, QThread::currentThread());
}

void TestOwnerThread::runFromAnotherThreadRunsOnTheOwnersThreadAndWaits()
{
    QObject owner;
    auto *runner = new comm::OwnerThreadRunner(&owner);
    QThread *ranOn = nullptr;
    std::atomic<bool> ranBeforeReturn{false};
    QVERIFY(runOnAnotherThread([&] {
        runner->run([&ranOn] { ranOn = QThread::currentThread(); });
        ranBeforeReturn = ranOn != nullptr;
    }));
    QCOMPARE(ranOn, QThread::currentThread());
    QVERIFY(ranBeforeReturn.load());
}

void TestOwnerThread::runForAnOwnerWhoseThreadIsNotRunningRunsOnTheCaller()
{
    // An owner moved to a thread that was never started (or has ended) has no
    // event loop to carry the work to: waiting for it would never end.
    QThread stopped;
    QObject owner;
    owner.moveToThread(&stopped);
    auto *runner = new comm::OwnerThreadRunner(nullptr);
    runner->moveToThread(&stopped);
    runner->setParent(&owner);
    std::thread::id ranOn;
    runner->run([&ranOn] { ranOn = std::this_thread::get_id(); });
    QVERIFY(ranOn == std::this_thread::get_id());
}

QTEST_GUILESS_MAIN(TestOwnerThread)
#include "tst_ownerthread.moc"
