#include <QtTest>

#include <QThread>

#include <atomic>
#include <chrono>
#include <thread>

#include "IoThread.h"

class TestIoThread : public QObject
{
    Q_OBJECT

private slots:
    void contextLivesOnTheIoThread();
    void runFromAnotherThreadRunsOnTheIoThreadAndWaits();
    void runNeedsNoEventLoopOnTheCallingThread();
    void runOnTheIoThreadItselfRunsAtOnce();
    void callsFromSeveralThreadsEachRunOnce();
    void afterStopRunRunsOnTheCaller();
    void stopRunsCallsHandedOverBeforeIt();
};

void TestIoThread::contextLivesOnTheIoThread()
{
    comm::IoThread io("test-io");
    QVERIFY(io.context()->thread() != QThread::currentThread());
    QVERIFY(io.context()->thread()->isRunning());
    QVERIFY(!io.isCurrent());
}

void TestIoThread::runFromAnotherThreadRunsOnTheIoThreadAndWaits()
{
    comm::IoThread io("test-io");
    QThread *ranOn = nullptr;
    io.run([&ranOn] { ranOn = QThread::currentThread(); });
    // Set before run() returned, on the I/O thread.
    QCOMPARE(ranOn, io.context()->thread());
}

void TestIoThread::runNeedsNoEventLoopOnTheCallingThread()
{
    // The calling thread here never runs an event loop: the call still ends.
    comm::IoThread io("test-io");
    std::atomic<bool> ran{false};
    std::thread caller([&] { io.run([&ran] { ran = true; }); });
    caller.join();
    QVERIFY(ran.load());
}

void TestIoThread::runOnTheIoThreadItselfRunsAtOnce()
{
    comm::IoThread io("test-io");
    int order = 0;
    int inner = -1;
    io.run([&] {
        QVERIFY(io.isCurrent());
        io.run([&] { inner = order++; });
        ++order;
    });
    QCOMPARE(inner, 0);
    QCOMPARE(order, 2);
}

void TestIoThread::callsFromSeveralThreadsEachRunOnce()
{
    comm::IoThread io("test-io");
    constexpr int kThreads = 4;
    constexpr int kCalls = 500;
    int count = 0; // only touched on the I/O thread
    std::vector<std::thread> callers;
    for (int t = 0; t < kThreads; ++t)
        callers.emplace_back([&] {
            for (int i = 0; i < kCalls; ++i)
                io.run([&count] { ++count; });
        });
    for (std::thread &caller : callers)
        caller.join();
    int seen = 0;
    io.run([&] { seen = count; });
    QCOMPARE(seen, kThreads * kCalls);
}

void TestIoThread::afterStopRunRunsOnTheCaller()
{
    comm::IoThread io("test-io");
    io.stop();
    QVERIFY(io.context()->thread()->isFinished());
    std::thread::id ranOn;
    io.run([&ranOn] { ranOn = std::this_thread::get_id(); });
    QVERIFY(ranOn == std::this_thread::get_id());
    io.stop(); // a second stop does nothing
}

void TestIoThread::stopRunsCallsHandedOverBeforeIt()
{
    comm::IoThread io("test-io");
    std::atomic<bool> started{false};
    std::atomic<bool> ran{false};
    std::thread caller([&] {
        io.run([&] {
            started = true;
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
            ran = true;
        });
    });
    QTRY_VERIFY(started.load());
    io.stop();
    QVERIFY(ran.load());
    caller.join();
}

QTEST_GUILESS_MAIN(TestIoThread)
#include "tst_iothread.moc"
