#include <QtTest>

#include <QObject>

#include <thread>

#include "WaitUntil.h"
#include "WakeEvent.h"

class TestWakeEvent : public QObject
{
    Q_OBJECT

private slots:
    void madeOnThisSystem();
    void raiseFromAnotherThreadCallsTheWatcher();
    void raisesBeforeTheLoopRunsCountAsOne();
    void eachLaterRaiseCallsAgain();
    void noCallAfterUnwatch();
};

namespace {
// Long enough for a raise already made to reach the event loop.
constexpr int kSettleMs = 100;
constexpr int kWaitMs = 5000;

// A wake-up watched on this thread, counting the watcher's calls.
struct Watched
{
    comm::WakeEvent event;
    QObject context;
    int calls = 0;

    Watched()
    {
        event.watch(&context, [this] { ++calls; });
    }
    ~Watched() { event.unwatch(); }

    bool waitForCalls(int count)
    {
        return waitUntil([this, count] { return calls == count; }, kWaitMs);
    }
};
} // namespace

void TestWakeEvent::madeOnThisSystem()
{
    comm::WakeEvent event;
    QVERIFY(event.isValid());
}

void TestWakeEvent::raiseFromAnotherThreadCallsTheWatcher()
{
    Watched watched;
    std::thread raiser([&watched] { watched.event.raise(); });
    raiser.join();
    QVERIFY(watched.waitForCalls(1));
    QTest::qWait(kSettleMs);
    QCOMPARE(watched.calls, 1);
}

void TestWakeEvent::raisesBeforeTheLoopRunsCountAsOne()
{
    Watched watched;
    for (int i = 0; i < 5; ++i)
        watched.event.raise();
    QVERIFY(watched.waitForCalls(1));
    QTest::qWait(kSettleMs);
    QCOMPARE(watched.calls, 1);
}

void TestWakeEvent::eachLaterRaiseCallsAgain()
{
    Watched watched;
    for (int expected = 1; expected <= 3; ++expected) {
        watched.event.raise();
        QVERIFY(watched.waitForCalls(expected));
    }
}

void TestWakeEvent::noCallAfterUnwatch()
{
    Watched watched;
    watched.event.unwatch();
    QCOMPARE(watched.context.children().size(), 0);
    watched.event.raise();
    QTest::qWait(kSettleMs);
    QCOMPARE(watched.calls, 0);
}

QTEST_GUILESS_MAIN(TestWakeEvent)
#include "tst_wakeevent.moc"
