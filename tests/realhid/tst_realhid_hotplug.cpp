// The hot-plug watcher on the real stack: the shipped library, on the system's
// hidapi and libudev, polls the emulated sysfs for the device last passed to
// openUSB while the test plugs an emulated device in, pulls it out and plugs it
// back. The tests run in order on one transport and one device history, as
// the one watcher of the process sees it.
//
// Tiers: which transport the watcher serves, transports destroyed while it
// works on them and the exact calls it makes are covered with the simulated
// hidapi (tst_portusb_hotplug, tst_portusb_watcher_start).
#include <QtTest>

#include "EmulatedUsb.h"
#include "PortUSB.h"
#include "ProtocolData.h"
#include "ReceiveQueue.h"
#include "UsbReports.h"
#include "UsbSignalLog.h"
#include "TransportProbe.h"

using emulatedusb::kWaitMs;

namespace {
constexpr unsigned short kVid = 0x1209;
constexpr unsigned short kPid = 0x0003;
} // namespace

class TestRealHidHotPlug : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init() { testqueue::reset(); }
    void cleanupTestCase();

    void absentDeviceIsNotOpenedAndItsIdentifiersAreWatched();
    void reopenOnTheReportWorks();
    void removalClosesTheTransportThenEmitsFalse();
    void returnEmitsTrueWithoutReopening();
    void reopenAfterReturnWorks();

private:
    // A command goes out as its report, and the device's reply is queued.
    void checkRoundTrip();

    std::unique_ptr<emulatedhid::Testbed> m_bed;
    emulatedhid::Device m_device;
    std::unique_ptr<PortUSB> m_port;
    UsbSignalLog m_events;
    // Whether the transport was open when each event was emitted.
    UsbSignalLog m_openAtEvent;
};

void TestRealHidHotPlug::initTestCase()
{
    const QString why = emulatedhid::Testbed::unavailableReason();
    if (!why.isEmpty())
        QSKIP(qPrintable(why));
    m_bed = std::make_unique<emulatedhid::Testbed>();
    m_port = std::make_unique<PortUSB>();
    // Directly connected: runs on the watcher's thread as it emits.
    QObject::connect(m_port.get(), &PortUSB::signalUSBChanged, [this](bool present) {
        m_openAtEvent.note(isOpen(*m_port) ? QStringLiteral("open") : QStringLiteral("closed"));
        m_events.notePresent(present);
    });
}

void TestRealHidHotPlug::cleanupTestCase()
{
    m_port.reset();
    m_bed.reset();
    testqueue::reset();
}

void TestRealHidHotPlug::checkRoundTrip()
{
    const size_t queued = testqueue::length();
    ProtocolData record;
    record.commandByte = 0x21;
    m_port->sendDatatoDevice(&record);
    QCOMPARE(emulatedhid::readOutputReport(m_device.master, kWaitMs), usbreports::outputReport("[A2100000000000021]"));
    // "[" "R", 21 00 00 00 00 00 00 and their 8-bit sum 21 as hex digits, "]".
    const QByteArray reply = QByteArrayLiteral("[R2100000000000021]");
    QVERIFY(emulatedhid::writeInput(m_device.master, usbreports::inputReport(reply)));
    QTRY_COMPARE_WITH_TIMEOUT(testqueue::length(), queued + 1, kWaitMs);
    QCOMPARE(testqueue::records().back().commandByte, quint8(0x21));
}

void TestRealHidHotPlug::absentDeviceIsNotOpenedAndItsIdentifiersAreWatched()
{
    QVERIFY(!m_port->openUSB(kVid, kPid));
    QVERIFY(!isOpen(*m_port));
    QCOMPARE(runningWorkers(*m_port), 0);
    // The watcher looks for the identifiers openUSB was given: absent at
    // first, which it does not report ...
    QVERIFY(emulatedusb::watcherPolls(*m_bed, 2));
    QCOMPARE(m_events.entries(), QStringList());
    // ... and then plugged in.
    QVERIFY(emulatedusb::plug(*m_bed, kVid, kPid, &m_device));
    QTRY_COMPARE_WITH_TIMEOUT(m_events.entries(), QStringList{QStringLiteral("true")}, kWaitMs);
    QVERIFY(!isOpen(*m_port));
    QCOMPARE(runningWorkers(*m_port), 0);
}

void TestRealHidHotPlug::reopenOnTheReportWorks()
{
    QVERIFY(m_port->openUSB(kVid, kPid));
    QCOMPARE(runningWorkers(*m_port), 2);
    checkRoundTrip();
}

void TestRealHidHotPlug::removalClosesTheTransportThenEmitsFalse()
{
    m_events.clear();
    m_openAtEvent.clear();
    QVERIFY(emulatedusb::watcherPolls(*m_bed, 2));
    // Half a reply waits in the receive buffer.
    const QByteArray half = QByteArrayLiteral("[R3100000000000031]").left(9);
    QVERIFY(emulatedhid::writeInput(m_device.master, half));
    QTRY_COMPARE_WITH_TIMEOUT(buffData(*m_port), half, kWaitMs);

    m_bed->unplug(&m_device);
    QTRY_COMPARE_WITH_TIMEOUT(m_events.entries(), QStringList{QStringLiteral("false")}, kWaitMs);
    // Closed before the signal: device, workers and receive buffer.
    QCOMPARE(m_openAtEvent.entries(), QStringList{QStringLiteral("closed")});
    QVERIFY(!isOpen(*m_port));
    QCOMPARE(m_port->m_readRunning.load(), false);
    QCOMPARE(m_port->m_dealRunning.load(), false);
    QCOMPARE(buffData(*m_port), QByteArray());
    QTRY_COMPARE_WITH_TIMEOUT(runningWorkers(*m_port), 0, kWaitMs);
}

void TestRealHidHotPlug::returnEmitsTrueWithoutReopening()
{
    m_events.clear();
    QVERIFY(emulatedusb::watcherPolls(*m_bed, 2));
    QVERIFY(emulatedusb::plug(*m_bed, kVid, kPid, &m_device));
    QTRY_COMPARE_WITH_TIMEOUT(m_events.entries(), QStringList{QStringLiteral("true")}, kWaitMs);
    // The watcher does not reopen: the device's node has no reader.
    QVERIFY(!isOpen(*m_port));
    QCOMPARE(runningWorkers(*m_port), 0);
    QVERIFY(emulatedusb::watcherPolls(*m_bed, 2));
    QVERIFY(!isOpen(*m_port));
}

void TestRealHidHotPlug::reopenAfterReturnWorks()
{
    QVERIFY(m_port->openUSB(kVid, kPid));
    checkRoundTrip();
    QVERIFY(emulatedusb::watcherPolls(*m_bed, 2));
    QCOMPARE(m_events.entries(), QStringList{QStringLiteral("true")});
}

QTEST_GUILESS_MAIN(TestRealHidHotPlug)
#include "tst_realhid_hotplug.moc"
