// Unplug storms on the real stack: the shipped library, on the system's hidapi
// and libudev, while the test plugs an emulated device in and pulls it out
// again hundreds of times, each time at a chosen kind of moment:
// - inside one of the library's looks for the device (the hot-plug watcher's
//   poll, or the look openUSB makes), timed by the open of sysfs's hidraw
//   class folder that begins every look;
// - inside openUSB, as it looks for and opens the device;
// - while the reader waits in a read;
// - while a long write is under way.
// The process must survive every one of them (hidapi before 0.15 crashes
// when the device it enumerates vanishes midway), the watcher's reports must
// alternate, each removal it reports must find the link closed, and after each
// storm the link must carry a command and its reply again.
#include <QtTest>

#include <QRandomGenerator>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>

#include "EmulatedUsb.h"
#include "LogCapture.h"
#include "PortUSB.h"
#include "ProtocolData.h"
#include "ReceiveQueue.h"
#include "UsbReports.h"
#include "UsbSignalLog.h"
#include "TransportProbe.h"

using emulatedusb::kWaitMs;
using emulatedusb::waitUntil;
using namespace usbreports;

namespace {
using Clock = std::chrono::steady_clock;

constexpr unsigned short kVid = 0x1209;
constexpr unsigned short kPid = 0x0005;
// Unplugs per kind of moment, and the time one storm may take at most.
// Unplugs per storm; COMM_STORM_UNPLUGS sets another number (CTest splits
// the storm of opens over two processes of 30).
int unplugsPerStorm()
{
    bool ok = false;
    const int asked = qEnvironmentVariableIntValue("COMM_STORM_UNPLUGS", &ok);
    return ok && asked > 0 && asked <= 1000 ? asked : 60;
}
constexpr qint64 kStormBudgetMs = 25000;
// The watcher looks every 100 ms, openUSB after its 100 ms pause; a look is
// awaited this long at most.
constexpr int kLookWaitMs = 2000;
constexpr auto kPause = std::chrono::milliseconds(100);
// An emulated device takes about two milliseconds to go, its files one by
// one: an unplug begun up to this long before a look is still under way when
// the look reads the device's files.
constexpr quint32 kRemovalSpanUs = 1800;

enum class Moment { InsideLook, InsideOpen, DuringRead, DuringWrite };

// Whether the reports alternate, as the watcher reports changes only.
bool alternates(const QStringList &events)
{
    for (int i = 1; i < events.size(); ++i) {
        if (events.at(i).section(QLatin1Char(' '), 0, 0) == events.at(i - 1).section(QLatin1Char(' '), 0, 0))
            return false;
    }
    return true;
}
} // namespace

class TestRealHidRemovalStorm : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanupTestCase();

    void unplugsInsideLooksLeaveTheLinkUsable();
    void unplugsInsideOpensLeaveTheLinkUsable();
    void unplugsDuringReadsLeaveTheLinkUsable();
    void unplugsDuringWritesLeaveTheLinkUsable();

private:
    void storm(Moment moment);
    // One plug and one unplug at the moment; false when the test must stop.
    bool cycle(Moment moment);
    // Waits until the watcher has had two more looks at the device's state.
    bool settle() { return emulatedusb::watcherPolls(*m_bed, 2); }
    // Unplugs the device so that its removal is under way when the next look
    // begins at about lookAt.
    void unplugAcross(Clock::time_point lookAt);
    // The same, for the watcher's next look, told from its last one.
    void unplugAcrossWatcherLook();
    // Plugged in and opened, the link carries a command and its reply.
    void recovers();

    std::unique_ptr<emulatedhid::Testbed> m_bed;
    emulatedhid::Device m_device;
    std::unique_ptr<PortUSB> m_port;
    // "true" or "false", then whether the link was open as it was reported.
    UsbSignalLog m_events;
    QRandomGenerator m_random;
    // The time from one of the watcher's looks to the next, as measured.
    Clock::duration m_period = kPause;
    int m_unplugs = 0;
};

void TestRealHidRemovalStorm::initTestCase()
{
    const QString why = emulatedhid::Testbed::unavailableReason();
    if (!why.isEmpty())
        QSKIP(qPrintable(why));
    const quint32 seed = QRandomGenerator::global()->generate();
    qInfo("seed %u", seed);
    m_random.seed(seed);
    m_bed = std::make_unique<emulatedhid::Testbed>();
    m_port = std::make_unique<PortUSB>();
    QObject::connect(m_port.get(), &PortUSB::signalUSBChanged, [this](bool present) {
        const QString state = isOpen(*m_port) ? QStringLiteral("open") : QStringLiteral("closed");
        m_events.note((present ? QStringLiteral("true ") : QStringLiteral("false ")) + state);
    });
    // The watcher looks for this device from now on; it is not there yet.
    QVERIFY(!m_port->openUSB(kVid, kPid));
    // The shortest of a few periods: the others had the watcher wait for a
    // busy processor.
    QVERIFY(m_bed->waitForLook(kLookWaitMs));
    Clock::time_point last = Clock::now();
    m_period = 2 * kPause;
    for (int i = 0; i < 5; ++i) {
        QVERIFY(m_bed->waitForLook(kLookWaitMs));
        const Clock::time_point now = Clock::now();
        m_period = std::clamp<Clock::duration>(now - last, kPause, m_period);
        last = now;
    }
    qInfo("watcher period %lld us",
          static_cast<long long>(std::chrono::duration_cast<std::chrono::microseconds>(m_period).count()));
}

void TestRealHidRemovalStorm::cleanupTestCase()
{
    qInfo("%d unplugs", m_unplugs);
    m_port.reset();
    m_bed.reset();
    testqueue::reset();
}

void TestRealHidRemovalStorm::storm(Moment moment)
{
    QElapsedTimer timer;
    timer.start();
    int unplugs = 0;
    const int wanted = unplugsPerStorm();
    while (unplugs < wanted && timer.elapsed() < kStormBudgetMs) {
        QVERIFY(cycle(moment));
        ++unplugs;
        ++m_unplugs;
    }
    QVERIFY2(unplugs >= wanted / 3, qPrintable(QStringLiteral("only %1 unplugs").arg(unplugs)));
    const QStringList events = m_events.entries();
    QVERIFY2(alternates(events), qPrintable(events.join(QLatin1Char(','))));
    // The watcher closes the link before it reports the removal.
    QVERIFY2(!events.contains(QStringLiteral("false open")), qPrintable(events.join(QLatin1Char(','))));
    recovers();
}

bool TestRealHidRemovalStorm::cycle(Moment moment)
{
    if (!emulatedusb::plug(*m_bed, kVid, kPid, &m_device))
        return false;
    switch (moment) {
    case Moment::InsideLook:
        // Now and then opened at once, before the watcher has seen it come.
        if (m_random.bounded(2) == 0)
            m_port->openUSB(kVid, kPid);
        unplugAcrossWatcherLook();
        break;
    case Moment::InsideOpen: {
        // openUSB pauses, then looks for the device and opens it.
        m_bed->waitForLook(kLookWaitMs);
        const Clock::time_point called = Clock::now();
        std::thread opener([this] { m_port->openUSB(kVid, kPid); });
        unplugAcross(called + kPause);
        opener.join();
        break;
    }
    case Moment::DuringRead:
        m_port->openUSB(kVid, kPid);
        // Half a reply arrives; the reader waits for the rest when it goes.
        emulatedhid::writeInput(m_device.master, QByteArrayLiteral("[R4000000100"));
        unplugAcrossWatcherLook();
        break;
    case Moment::DuringWrite: {
        m_port->openUSB(kVid, kPid);
        const int master = m_device.master;
        std::atomic<bool> sent{false};
        std::thread sender([this, &sent] {
            ProtocolData record = commandOfFrameSize(400 * kReportPayload);
            m_port->sendDatatoDevice(&record);
            sent = true;
        });
        // The device takes a few reports, then stops taking them: the write
        // waits for room when the device goes.
        const int taken = int(m_random.bounded(6));
        for (int i = 0; i < taken; ++i)
            emulatedhid::readOutputReport(master, 1000);
        unplugAcrossWatcherLook();
        const bool ended = waitUntil([&sent] { return sent.load(); });
        sender.join();
        if (!ended)
            return false;
        break;
    }
    }
    // The next plug follows closely: the watcher may or may not have seen the
    // device go.
    return true;
}

void TestRealHidRemovalStorm::unplugAcross(Clock::time_point lookAt)
{
    std::this_thread::sleep_until(lookAt - std::chrono::microseconds(m_random.bounded(kRemovalSpanUs)));
    m_bed->unplug(&m_device);
}

void TestRealHidRemovalStorm::unplugAcrossWatcherLook()
{
    m_bed->waitForLook(kLookWaitMs);
    unplugAcross(Clock::now() + m_period);
}

void TestRealHidRemovalStorm::recovers()
{
    // The watcher must have seen the storm's last unplug, or the device would
    // seem never to have gone.
    QVERIFY(settle());
    const int reported = m_events.size();
    QVERIFY(emulatedusb::plug(*m_bed, kVid, kPid, &m_device));
    QVERIFY(waitUntil([this, reported] {
        const QStringList events = m_events.entries();
        return events.size() > reported && events.last().startsWith(QStringLiteral("true"));
    }));
    QVERIFY(m_port->openUSB(kVid, kPid));
    testqueue::reset();
    ProtocolData command;
    command.commandByte = 0x40;
    command.paramBytes[2] = 0x7F;
    m_port->sendDatatoDevice(&command);
    QCOMPARE(emulatedhid::readOutputReport(m_device.master, kWaitMs), outputReport("[A4000007f000000bf]"));
    // 40 00 7F 00 00 00 00 and their sum BF.
    QVERIFY(emulatedhid::writeInput(m_device.master, inputReport("[R4000007F000000BF]")));
    QTRY_COMPARE_WITH_TIMEOUT(testqueue::length(), size_t(1), kWaitMs);
    QCOMPARE(testqueue::records().front().commandByte, quint8(0x40));
    QCOMPARE(testqueue::records().front().paramBytes[2], quint8(0x7F));
    // Out again, for the next storm.
    m_bed->unplug(&m_device);
    QVERIFY(waitUntil([this] { return !isOpen(*m_port); }));
    QVERIFY(settle());
}

void TestRealHidRemovalStorm::unplugsInsideLooksLeaveTheLinkUsable()
{
    storm(Moment::InsideLook);
}

void TestRealHidRemovalStorm::unplugsInsideOpensLeaveTheLinkUsable()
{
    storm(Moment::InsideOpen);
}

void TestRealHidRemovalStorm::unplugsDuringReadsLeaveTheLinkUsable()
{
    storm(Moment::DuringRead);
}

void TestRealHidRemovalStorm::unplugsDuringWritesLeaveTheLinkUsable()
{
    storm(Moment::DuringWrite);
}

QTEST_GUILESS_MAIN(TestRealHidRemovalStorm)
#include "tst_realhid_removal_storm.moc"
