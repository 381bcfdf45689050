// How the process-wide hot-plug watcher starts. The watcher and the
// identifiers it watches belong to the process, so these tests need a process
// in which no PortUSB has existed and openUSB has never been called: they run
// in this order, in a program of their own, against the simulated HID device.
#include <QtTest>

#include <memory>

#include "PortUSB.h"
#include "SimulatedHid.h"
#include "UsbSignalLog.h"
#include "TransportProbe.h"

namespace {
constexpr unsigned short kVid = 0x0483;
constexpr unsigned short kPid = 0x5750;
constexpr int kWaitMs = 5000;
// How long the tests watch for something that must not happen: several of
// the watcher's 100 ms polls.
constexpr int kQuietMs = 600;

// With the device pulled out, has reports follow port and opens port: false.
bool openWhileAbsent(PortUSB &port, UsbSignalLog &reports)
{
    simhid::setPresent(false);
    reports.watch(port);
    return port.openUSB(kVid, kPid);
}
} // namespace

class TestWatcherStart : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { simhid::reset(kVid, kPid); }

    void firstPortUsbStartsOneWatcher();
    void watcherIsIdleWhileIdentifiersAreZero();
    void secondPortUsbStartsNoSecondWatcher();
    void failedOpenStartsPollingWithoutReportingFirstState();
    void arrivalAfterFailedOpenEmitsTrueWithoutOpening();
};

void TestWatcherStart::firstPortUsbStartsOneWatcher()
{
    QCOMPARE(threadsNamed(watcherThreadName()), 0);
    PortUSB port;
    QTRY_COMPARE_WITH_TIMEOUT(threadsNamed(watcherThreadName()), 1, kWaitMs);
}

void TestWatcherStart::watcherIsIdleWhileIdentifiersAreZero()
{
    PortUSB port;
    QTest::qWait(kQuietMs);
    QCOMPARE(simhid::enumerationsTotal(), 0);
    QVERIFY(simhid::opens().empty());
}

void TestWatcherStart::secondPortUsbStartsNoSecondWatcher()
{
    auto first = std::make_unique<PortUSB>();
    auto second = std::make_unique<PortUSB>();
    first.reset();
    PortUSB third;
    QTest::qWait(kQuietMs);
    // Threads are named once started: one more would show by now.
    QCOMPARE(threadsNamed(watcherThreadName()), 1);
}

void TestWatcherStart::failedOpenStartsPollingWithoutReportingFirstState()
{
    PortUSB port;
    UsbSignalLog reports;
    QVERIFY(!openWhileAbsent(port, reports));
    // The watcher now polls for that pair ...
    QTRY_VERIFY_WITH_TIMEOUT(simhid::enumerations(kVid, kPid) >= 4, kWaitMs);
    // ... and has said nothing about the device being absent at first.
    QCOMPARE(reports.entries(), QStringList());
    QCOMPARE(simhid::enumerationsOutstanding(), 0);
}

void TestWatcherStart::arrivalAfterFailedOpenEmitsTrueWithoutOpening()
{
    PortUSB port;
    UsbSignalLog reports;
    QVERIFY(!openWhileAbsent(port, reports));
    // Two polls of the absent device: whatever it was before, the watcher
    // now knows it as absent.
    const int polls = simhid::enumerations(kVid, kPid);
    QTRY_VERIFY_WITH_TIMEOUT(simhid::enumerations(kVid, kPid) >= polls + 2, kWaitMs);
    reports.clear();
    const size_t opens = simhid::opens().size();

    simhid::setPresent(true);
    QTRY_COMPARE_WITH_TIMEOUT(reports.entries(), QStringList{QStringLiteral("true")}, kWaitMs);
    QCOMPARE(simhid::opens().size(), opens);
    QVERIFY(!isOpen(port));
    QCOMPARE(runningWorkers(port), 0);
}

QTEST_GUILESS_MAIN(TestWatcherStart)
#include "tst_portusb_watcher_start.moc"
