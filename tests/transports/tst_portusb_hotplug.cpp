// The hot-plug watcher against the simulated HID device: unplugging and
// plugging the device back, and which transport the one process-wide watcher
// serves. Every test starts with the device plugged in and waits until the
// watcher has seen it so before pulling it.
#include <QtTest>

#include <QElapsedTimer>

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>

#include "PortInterface.h"
#include "PortUSB.h"
#include "ProtocolData.h"
#include "ReceiveQueue.h"
#include "SimulatedHid.h"
#include "UsbSignalLog.h"
#include "WaitUntil.h"
#include "TransportProbe.h"

namespace {
constexpr unsigned short kVid = 0x10C4;
constexpr unsigned short kPid = 0x8846;
constexpr int kWaitMs = 5000;

// A transport whose closeUSB notes each call in a log, after closing, with
// what the transport looked like then.
class RecordingPort : public PortUSB
{
public:
    explicit RecordingPort(UsbSignalLog &log)
        : m_log(log)
    {
        log.watch(*this);
    }
    ~RecordingPort() override { ::stopHotPlugReports(*this); }

    void closeUSB() override
    {
        PortUSB::closeUSB();
        m_log.note(QStringLiteral("closeUSB"));
        closedOpen = ::isOpen(*this);
        closedReading = m_readRunning.load();
        closedDealing = m_dealRunning.load();
        closedBuffer = ::buffData(*this).size();
    }

    std::atomic<bool> closedOpen{true};
    std::atomic<bool> closedReading{true};
    std::atomic<bool> closedDealing{true};
    std::atomic<int> closedBuffer{-1};

private:
    UsbSignalLog &m_log;
};

// Polls condition until it holds, for kWaitMs at most.
template <typename Condition>
bool waitUntil(Condition condition)
{
    return ::waitUntil(condition, kWaitMs);
}

// Returns once the watcher has polled n more times.
bool watcherPolls(int n)
{
    const int polls = simhid::enumerations(kVid, kPid);
    return waitUntil([polls, n] { return simhid::enumerations(kVid, kPid) >= polls + n; });
}

// Opens port on the simulated device and returns once the watcher has polled
// it twice since: the watcher then knows the device as present.
bool openAndLetWatcherSeeIt(PortUSB &port)
{
    return port.openUSB(kVid, kPid) && watcherPolls(2);
}

// Pulls the device out and waits until log holds entries lines.
bool pullOutAndWait(const UsbSignalLog &log, int entries)
{
    simhid::setPresent(false);
    return waitUntil([&log, entries] { return log.size() >= entries; });
}

// Pulls the device out and plugs it back in, waiting each time until heard
// holds one more entry.
bool unplugAndReplug(const UsbSignalLog &heard)
{
    const int before = heard.size();
    if (!pullOutAndWait(heard, before + 1))
        return false;
    simhid::setPresent(true);
    return waitUntil([&heard, before] { return heard.size() >= before + 2; });
}

// The factory's USB transport, as an application holds it; deleted with this
// object. Whatever it reports to must outlive it.
class FactoryUsb
{
public:
    FactoryUsb()
        : port(PortInterface::creatCoreObj(ConnUSB))
    {
    }
    ~FactoryUsb()
    {
        delete PortInterface::iCORE;
        PortInterface::iCORE = nullptr;
    }
    // Opens it on the simulated device and waits until the watcher has seen
    // the device.
    bool open() { return port->openUSB(kVid, kPid) && watcherPolls(2); }

    PortBase *const port;
};

// A receiver of the application's, connected by signature.
class PlugEventReceiver : public QObject
{
    Q_OBJECT

public:
    UsbSignalLog log;

public slots:
    void onUsbChanged(bool present) { log.notePresent(present); }
};
} // namespace

class TestPortUSBHotPlug : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void firstStateIsNotReported();
    void unplugClosesTransportThenEmitsFalse();
    void replugEmitsTrueWithoutReopening();
    void watcherServesOldestLiveTransport();
    void watcherMovesOnWhenItsTransportIsDestroyed();
    void changesWhileNoTransportIsAliveGoNowhere();
    void destructorWaitsForWatcherCallInProgress();
    void writesRacingWatcherCloseNeverUseClosedHandle();
    void enumerationListsAreAlwaysFreed();
    void factoryTransportHeardThroughPortUsb();
    void factoryTransportHeardBySignature();
    void portBaseSignalHearsNothing();
};

void TestPortUSBHotPlug::init()
{
    simhid::reset(kVid, kPid);
    testqueue::reset();
}

void TestPortUSBHotPlug::cleanup()
{
    // The next test starts with the device plugged in, as the watcher knows it.
    simhid::setPresent(true);
    QVERIFY(watcherPolls(2));
    QCOMPARE(simhid::misuse(), 0);
}

void TestPortUSBHotPlug::firstStateIsNotReported()
{
    UsbSignalLog log;
    RecordingPort port(log);
    QVERIFY(openAndLetWatcherSeeIt(port));
    QVERIFY(watcherPolls(3));
    QCOMPARE(log.entries(), QStringList());
    QVERIFY(isOpen(port));
}

void TestPortUSBHotPlug::unplugClosesTransportThenEmitsFalse()
{
    UsbSignalLog log;
    RecordingPort port(log);
    QVERIFY(openAndLetWatcherSeeIt(port));
    simhid::queueInput("unread");
    QTRY_COMPARE_WITH_TIMEOUT(buffData(port), QByteArray("unread"), kWaitMs);

    simhid::setPresent(false);
    // closeUSB ran through the virtual table, then the signal came.
    QTRY_COMPARE_WITH_TIMEOUT(log.entries(), (QStringList{QStringLiteral("closeUSB"), QStringLiteral("false")}),
                              kWaitMs);
    QCOMPARE(port.closedOpen.load(), false);
    QCOMPARE(port.closedReading.load(), false);
    QCOMPARE(port.closedDealing.load(), false);
    QCOMPARE(port.closedBuffer.load(), 0);
    QCOMPARE(simhid::closes(), 1);
    QCOMPARE(simhid::openHandles(), 0);
    QTRY_COMPARE_WITH_TIMEOUT(runningWorkers(port), 0, kWaitMs);
}

void TestPortUSBHotPlug::replugEmitsTrueWithoutReopening()
{
    UsbSignalLog log;
    RecordingPort port(log);
    QVERIFY(openAndLetWatcherSeeIt(port));
    QVERIFY(pullOutAndWait(log, 2));
    log.clear();
    const size_t opens = simhid::opens().size();

    simhid::setPresent(true);
    QTRY_COMPARE_WITH_TIMEOUT(log.entries(), QStringList{QStringLiteral("true")}, kWaitMs);
    QCOMPARE(simhid::opens().size(), opens);
    QVERIFY(!isOpen(port));
    QCOMPARE(port.m_readRunning.load(), false);
    QCOMPARE(port.m_dealRunning.load(), false);
    QCOMPARE(runningWorkers(port), 0);
    // The application reopens.
    QVERIFY(port.openUSB(kVid, kPid));
}

void TestPortUSBHotPlug::watcherServesOldestLiveTransport()
{
    UsbSignalLog olderLog;
    UsbSignalLog newerLog;
    RecordingPort older(olderLog);
    RecordingPort newer(newerLog);
    QVERIFY(openAndLetWatcherSeeIt(newer));

    simhid::setPresent(false);
    QTRY_COMPARE_WITH_TIMEOUT(olderLog.entries(), (QStringList{QStringLiteral("closeUSB"), QStringLiteral("false")}),
                              kWaitMs);
    simhid::setPresent(true);
    QTRY_COMPARE_WITH_TIMEOUT(olderLog.size(), 3, kWaitMs);
    QCOMPARE(olderLog.entries().last(), QStringLiteral("true"));
    // The newer one was neither told nor closed.
    QCOMPARE(newerLog.entries(), QStringList());
    QVERIFY(isOpen(newer));
}

void TestPortUSBHotPlug::watcherMovesOnWhenItsTransportIsDestroyed()
{
    UsbSignalLog olderLog;
    UsbSignalLog newerLog;
    auto older = std::make_unique<RecordingPort>(olderLog);
    RecordingPort newer(newerLog);
    QVERIFY(openAndLetWatcherSeeIt(newer));
    older.reset();

    simhid::setPresent(false);
    QTRY_COMPARE_WITH_TIMEOUT(newerLog.entries(), (QStringList{QStringLiteral("closeUSB"), QStringLiteral("false")}),
                              kWaitMs);
    QVERIFY(!isOpen(newer));
    QCOMPARE(olderLog.entries(), QStringList());
}

void TestPortUSBHotPlug::changesWhileNoTransportIsAliveGoNowhere()
{
    UsbSignalLog goneLog;
    {
        RecordingPort gone(goneLog);
        QVERIFY(openAndLetWatcherSeeIt(gone));
    }
    // Nobody to close or tell; the watcher still follows the device.
    simhid::setPresent(false);
    QVERIFY(watcherPolls(3));
    simhid::setPresent(true);
    QVERIFY(watcherPolls(3));
    QCOMPARE(goneLog.entries(), QStringList());

    // A new transport hears of later changes only.
    UsbSignalLog log;
    RecordingPort port(log);
    QVERIFY(openAndLetWatcherSeeIt(port));
    QCOMPARE(log.entries(), QStringList());
    simhid::setPresent(false);
    QTRY_COMPARE_WITH_TIMEOUT(log.entries(), (QStringList{QStringLiteral("closeUSB"), QStringLiteral("false")}),
                              kWaitMs);
}

namespace {
// closeUSB takes a while, so that the transport can be destroyed while the
// watcher is inside it. The flags live outside the object, to be read after it
// is gone.
struct SlowCloseFlags
{
    std::atomic<bool> entered{false};
    std::atomic<bool> finished{false};
};

class SlowClosePort : public PortUSB
{
public:
    explicit SlowClosePort(SlowCloseFlags &flags)
        : m_flags(flags)
    {
    }
    ~SlowClosePort() override { ::stopHotPlugReports(*this); }

    void closeUSB() override
    {
        const bool fromWatcher = !m_flags.entered.exchange(true);
        if (fromWatcher)
            std::this_thread::sleep_for(std::chrono::milliseconds(300));
        PortUSB::closeUSB();
        if (fromWatcher)
            m_flags.finished = true;
    }

private:
    SlowCloseFlags &m_flags;
};
} // namespace

void TestPortUSBHotPlug::destructorWaitsForWatcherCallInProgress()
{
    SlowCloseFlags flags;
    auto port = std::make_unique<SlowClosePort>(flags);
    QVERIFY(openAndLetWatcherSeeIt(*port));
    simhid::setPresent(false);
    QTRY_VERIFY_WITH_TIMEOUT(flags.entered.load(), kWaitMs);
    port.reset();
    // The watcher's call had ended before the transport went.
    QVERIFY(flags.finished.load());
}

void TestPortUSBHotPlug::writesRacingWatcherCloseNeverUseClosedHandle()
{
    UsbSignalLog log;
    RecordingPort port(log);
    QVERIFY(openAndLetWatcherSeeIt(port));
    std::atomic<bool> stop{false};
    std::thread sender([&port, &stop] {
        ProtocolData record;
        record.commandByte = 0x01;
        record.payload = QByteArray(150, 'p'); // three reports a frame
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        for (int i = 0; i < 100000 && !stop && std::chrono::steady_clock::now() < deadline; ++i)
            port.sendUSBData(port.produceCmds(record));
    });
    QVERIFY(pullOutAndWait(log, 2));
    stop = true;
    sender.join();
    QVERIFY(simhid::writeAttempts() > 0);
    QCOMPARE(simhid::misuse(), 0);
}

void TestPortUSBHotPlug::enumerationListsAreAlwaysFreed()
{
    UsbSignalLog log;
    RecordingPort port(log);
    QVERIFY(openAndLetWatcherSeeIt(port));
    QVERIFY(pullOutAndWait(log, 2));
    simhid::setPresent(true);
    QTRY_COMPARE_WITH_TIMEOUT(log.size(), 3, kWaitMs);
    QVERIFY(watcherPolls(2));
    // At most the list of a poll in progress is out.
    QVERIFY(simhid::enumerationsOutstanding() <= 1);
}

// The ways docs/links.md ("Plugging and unplugging") gives to hear plug events
// from the factory's PortBase*.
void TestPortUSBHotPlug::factoryTransportHeardThroughPortUsb()
{
    UsbSignalLog log;
    FactoryUsb usb;
    auto *port = qobject_cast<PortUSB *>(usb.port);
    QVERIFY(port);
    log.watch(*port); // connects to &PortUSB::signalUSBChanged
    QVERIFY(usb.open());
    QVERIFY(unplugAndReplug(log));
    QCOMPARE(log.entries(), (QStringList{QStringLiteral("false"), QStringLiteral("true")}));
}

void TestPortUSBHotPlug::factoryTransportHeardBySignature()
{
    PlugEventReceiver receiver;
    FactoryUsb usb;
    // Qt looks the signature up from the object's most derived class, PortUSB.
    QVERIFY(QObject::connect(usb.port, SIGNAL(signalUSBChanged(bool)), &receiver, SLOT(onUsbChanged(bool))));
    QVERIFY(usb.open());
    // Queued to this thread: delivered while the wait spins the event loop.
    QVERIFY(unplugAndReplug(receiver.log));
    QCOMPARE(receiver.log.entries(), (QStringList{QStringLiteral("false"), QStringLiteral("true")}));
}

void TestPortUSBHotPlug::portBaseSignalHearsNothing()
{
    UsbSignalLog throughBase;
    UsbSignalLog heard;
    FactoryUsb usb;
    QObject::connect(usb.port, &PortBase::signalUSBChanged,
                     [&throughBase](bool present) { throughBase.notePresent(present); });
    heard.watch(*qobject_cast<PortUSB *>(usb.port));
    QVERIFY(usb.open());
    QVERIFY(unplugAndReplug(heard));
    QCOMPARE(heard.entries(), (QStringList{QStringLiteral("false"), QStringLiteral("true")}));
    QCOMPARE(throughBase.entries(), QStringList());
}

QTEST_GUILESS_MAIN(TestPortUSBHotPlug)
#include "tst_portusb_hotplug.moc"
