#include "Disruptions.h"

#include <chrono>

#include "FactorySwitch.h"
#include "PortBase.h"
#include "PortUSB.h"
#include "Rig.h"
#include "Traffic.h"

namespace soak {

namespace {
// The USB device is opened again when it has been closed this long while
// plugged in (the watcher's report of its return may have been missed: it
// polls, and a short absence is not seen).
constexpr qint64 kUsbRetryMs = 150;
// The watcher looks every 100 ms and openUSB after its 100 ms pause; a look
// is awaited this long at most.
constexpr int kLookWaitMs = 1000;
} // namespace

void spinFor(int us)
{
    const auto until = std::chrono::steady_clock::now() + std::chrono::microseconds(us);
    for (int i = 0; i < 100000000 && std::chrono::steady_clock::now() < until; ++i) {
    }
}

Disruptions::Disruptions(Rig &rig, FactorySwitch &factory)
    : m_rig(rig)
    , m_factory(factory)
    , m_rng(rig.seedFor(20))
{
}

void Disruptions::start()
{
    m_thread = std::thread([this] { run(); });
}

void Disruptions::join()
{
    if (m_thread.joinable())
        m_thread.join();
}

void Disruptions::run()
{
    for (long long turn = 0; turn < m_rig.clock.maxTurns() && m_rig.clock.going(); ++turn) {
        tend(int(100 + m_rng() % 600));
        if (!m_rig.clock.going())
            break;
        const int draw = int(m_rng() % 100);
        if (draw < 12)
            clearQueue();
        else if (draw < 22)
            hangUpSerial();
        else if (draw < 30)
            closeAndReopenSerial();
        else if (draw < 45)
            floodSerial();
        else if (draw < 75 && m_rig.usbDevice)
            usbStorm();
        // Otherwise a quiet spell: traffic only.
    }
}

void Disruptions::tend(int ms)
{
    const qint64 until = m_rig.clock.elapsedMs() + ms;
    for (int slice = 0; slice < ms / 10 + 1 && m_rig.clock.going() && m_rig.clock.elapsedMs() < until; ++slice) {
        tendUsbOnce();
        m_rig.clock.pause(10);
    }
}

void Disruptions::tendUsbOnce()
{
    if (!m_rig.usbDevice || !m_rig.usbDevice->plugged())
        return;
    const bool cameBack = m_rig.usbCameBack.exchange(false);
    const qint64 now = m_rig.clock.elapsedMs();
    if (cameBack || (!m_rig.ledger.isUp(m_rig.usb.channel) && now - m_lastUsbAttemptMs >= kUsbRetryMs))
        openUsb();
}

bool Disruptions::openUsb()
{
    m_lastUsbAttemptMs = m_rig.clock.elapsedMs();
    const quint64 epoch = m_rig.ledger.disrupt(m_rig.usb.channel);
    const bool opened = m_rig.usbPort->openUSB(UsbDevice::kVid, UsbDevice::kPid);
    ++m_rig.usbOpens;
    if (opened)
        m_rig.ledger.markUp(m_rig.usb.channel, epoch);
    return opened;
}

void Disruptions::clearQueue()
{
    const int which = int(m_rng() % 4);
    if (which == 3 && m_factory.clearThroughCurrent()) {
        ++m_rig.clears;
        return;
    }
    MainLink &link = which == 0 ? m_rig.network : (which == 1 || !m_rig.usbDevice) ? m_rig.serial : m_rig.usb;
    m_rig.drain.clearThrough(link.port);
    ++m_rig.clears;
}

void Disruptions::reopenSerial(const QString &path, quint64 epoch)
{
    ReplyShape shape = m_rig.serial.shape();
    shape.sourceText = portNameOf(path);
    m_rig.serial.setShape(shape);
    for (int attempt = 0; attempt < 50 && !path.isEmpty(); ++attempt) {
        if (openSerial(m_rig.serial.port, path)) {
            m_rig.ledger.markUp(m_rig.serial.channel, epoch);
            return;
        }
        m_rig.clock.pause(20);
    }
    m_rig.ledger.reportFailure(QStringLiteral("note: the serial port did not open on %1 again").arg(path));
}

void Disruptions::hangUpSerial()
{
    // The device vanishes under the open port, which sees a resource error.
    const QString path = m_rig.serialLines.hangUp(kMainLine);
    const quint64 epoch = m_rig.ledger.disrupt(m_rig.serial.channel);
    ++m_rig.hangUps;
    tend(int(m_rng() % 300));
    reopenSerial(path, epoch);
}

void Disruptions::closeAndReopenSerial()
{
    const quint64 epoch = m_rig.ledger.disrupt(m_rig.serial.channel);
    m_rig.serial.port->closeSerialPort();
    ++m_rig.serialReopens;
    tend(int(m_rng() % 100));
    reopenSerial(m_rig.serialLines.path(kMainLine), epoch);
}

void Disruptions::floodSerial()
{
    m_rig.serialLines.flood(kMainLine, int(1024 + m_rng() % (63 * 1024)), m_rng());
    ++m_rig.floods;
}

void Disruptions::unplug(UnplugMoment moment)
{
    m_rig.usbDevice->unplug();
    // Whatever the transport awaited may be gone with the device.
    m_rig.ledger.disrupt(m_rig.usb.channel);
    ++m_rig.unplugs;
    ++m_rig.unplugsAt[moment];
}

void Disruptions::unplugInsideLook(UnplugMoment moment)
{
    // A look takes well under the two milliseconds the device takes to go,
    // its files one by one: begun just after the look, the removal runs
    // across it.
    if (m_rig.usbDevice->waitForLook(kLookWaitMs))
        ++m_rig.unplugsInsideLooks;
    spinFor(int(m_rng() % 500));
    unplug(moment);
}

void Disruptions::usbStorm()
{
    UsbDevice &device = *m_rig.usbDevice;
    const int cycles = int(1 + m_rng() % 6);
    for (int cycle = 0; cycle < cycles && m_rig.clock.going() && m_rig.unplugs < m_rig.maxUnplugs; ++cycle) {
        if (!device.plugged()) {
            QString error;
            if (!device.plug(&error)) {
                m_rig.ledger.reportFailure(QStringLiteral("note: the USB device could not be plugged in: %1").arg(error));
                return;
            }
        }
        if (!m_rig.ledger.isUp(m_rig.usb.channel))
            openUsb();
        // Traffic flows for a moment, or none at all.
        m_rig.clock.pause(int(m_rng() % 80));
        switch (UnplugMoment(m_rng() % kUnplugMoments)) {
        case kAfterSend: {
            // Right after a send: the report, or the reply to it, may be on
            // its way through the node.
            Rng rng(m_rng());
            sendNoted(m_rig, m_rig.usb.port, m_rig.usb.channel, Kind::UsbPlain, m_rig.usb.shape(), rng);
            spinFor(int(m_rng() % 1000));
            unplug(kAfterSend);
            break;
        }
        case kInsideOpen: {
            // While openUSB looks for the device and opens it (the watcher's
            // poll may take the look first: inside a look all the same).
            std::thread opener([this] { openUsb(); });
            unplugInsideLook(kInsideOpen);
            opener.join();
            break;
        }
        case kInsideWatcherLook:
            unplugInsideLook(kInsideWatcherLook);
            break;
        case kDuringLongWrite: {
            // A command with kilobytes behind it goes out as hundreds of
            // reports, from a thread of its own beside the traffic's.
            Rng rng(m_rng());
            const int payloadBytes = int(4096 + m_rng() % (28 * 1024));
            std::thread writer([this, rng, payloadBytes]() mutable {
                sendNoted(m_rig, m_rig.usb.port, m_rig.usb.channel, Kind::UsbPlain, m_rig.usb.shape(), rng, nullptr,
                          payloadBytes);
            });
            spinFor(int(m_rng() % 3000));
            unplug(kDuringLongWrite);
            writer.join();
            break;
        }
        case kAnyMoment:
        case kUnplugMoments:
            // At a moment of its own: mostly inside the reader's wait for a report.
            spinFor(int(m_rng() % 1000));
            unplug(kAnyMoment);
            break;
        }
        // Out for a while: long enough for the watcher to see it, or not.
        m_rig.clock.pause(int(m_rng() % 250));
        QString error;
        if (!device.plug(&error)) {
            m_rig.ledger.reportFailure(QStringLiteral("note: the USB device could not be plugged in: %1").arg(error));
            return;
        }
        // Opened right after the plug, not only when the watcher reports it.
        if (m_rng() % 4 != 0)
            openUsb();
    }
}

} // namespace soak
