// The serial and USB links: how long a burst of replies takes to reach the
// queue, and what an open, idle transport costs, each beside bare sleep loops
// of the same periods as the transport's workers, measured in the same run.
#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <set>
#include <thread>

#include <QCoreApplication>

#include "PortSerial.h"
#include "PortUSB.h"
#include "PseudoTerminal.h"
#include "ReceiveQueue.h"
#include "ReplyFrames.h"
#include "Sections.h"
#include "StreamMeasure.h"
#include "SimulatedHid.h"

#include <hidapi.h>

namespace e2e {

namespace {

using namespace std::chrono_literals;

constexpr int kSerialTurnMs = 3;
constexpr unsigned short kVid = 0x0483;
constexpr unsigned short kPid = 0x5750;

bool openSerial(PortSerial &port, const PseudoTerminal &pty)
{
    return port.openSerialPort(pty.slavePath(), QSerialPort::Baud115200, QSerialPort::OneStop, QSerialPort::NoParity,
                               QSerialPort::NoFlowControl, QSerialPort::Data8);
}

} // namespace

void serialDrain(const Options &options, Figures &figures)
{
    PseudoTerminal pty;
    if (!pty.isValid())
        throw SectionError(("no pseudo-terminal: " + pty.error()).toStdString());
    const int frames = options.count(1000, 20);
    QByteArray burst;
    for (int i = 0; i < frames; ++i)
        burst += sequencedFrame(i);

    PortSerial port;
    if (!openSerial(port, pty))
        throw SectionError("the pseudo-terminal does not open as a serial port");
    testqueue::take();
    figures.add(measureDrain(QStringLiteral("serial"), frames, kSerialTurnMs, options.count(3, 1), [&] {
        // Written by a thread of its own, while this one reads the port.
        auto writer = std::make_shared<std::thread>([&] { pty.deviceSends(burst); });
        return [writer] { writer->join(); };
    }));
    port.closeSerialPort();
}

void usbDrain(const Options &options, Figures &figures)
{
    simhid::reset(kVid, kPid);
    const int frames = options.count(200, 5);
    // The open and close pauses lie outside what is timed.
    UsbPausesSkipped pausesSkipped(options.smoke);
    PortUSB port;
    if (!port.openUSB(kVid, kPid))
        throw SectionError("the simulated HID device does not open");
    testqueue::take();
    figures.add(measureDrain(QStringLiteral("USB"), frames, kUsbCycleMs, options.count(3, 1), [&] {
        // One input report per reply, padded with zeros as a HID device pads it.
        for (int i = 0; i < frames; ++i)
            simhid::queueInput(sequencedFrame(i).leftJustified(64, '\0'));
        return [] {};
    }));
    port.closeUSB();
}

void serialIdle(const Options &options, Figures &figures)
{
    PseudoTerminal pty;
    if (!pty.isValid())
        throw SectionError(("no pseudo-terminal: " + pty.error()).toStdString());
    const std::chrono::milliseconds window(options.count(1500, 100));
    const std::chrono::milliseconds settle(options.count(100, 30));
    std::vector<double> library, bare;
    PortSerial port;
    for (int round = 0; round < options.count(8, 1); ++round) {
        if (!openSerial(port, pty))
            throw SectionError("the pseudo-terminal does not open as a serial port");
        std::this_thread::sleep_for(settle);
        library.push_back(idleShare(window, {}));
        port.closeSerialPort();
        {
            BareLoops loops({{kSerialTurnMs, 0}});
            std::this_thread::sleep_for(settle);
            bare.push_back(idleShare(window, {}));
        }
    }
    const double value = median(library);
    const double base = median(bare);
    figures.add({QStringLiteral("idle: serial transport open, no traffic (reassembly worker)"), share(value),
                 share(base) + QStringLiteral(" (a bare 3 ms sleep loop)"), value / base, QStringLiteral("<= 1.2x"),
                 value <= 1.2 * base});
}

void usbIdle(const Options &options, Figures &figures)
{
    simhid::reset(kVid, kPid);
    // The device calls the transport's design makes in every cycle, made by
    // bare loops: a read of up to 1024 bytes that waits up to 100 ms after
    // each 20 ms pause, an enumeration every 100 ms.
    hid_device *handle = hid_open(kVid, kPid, nullptr);
    if (!handle)
        throw SectionError("the simulated HID device does not open");
    const auto read = [handle] {
        unsigned char buffer[1024] = {};
        hid_read_timeout(handle, buffer, sizeof buffer, kUsbReadWaitMs);
    };
    const auto enumerate = [] { hid_free_enumeration(hid_enumerate(kVid, kPid)); };
    const UsbIdleShares shares = measureUsbIdle(options, kVid, kPid, "simulated", read, enumerate);
    hid_close(handle);

    const QString what = QStringLiteral("idle: USB transport open, no traffic (reader, reassembly, watcher)");
    figures.add({what, share(shares.library),
                 share(shares.bare) + QStringLiteral(" (bare 20 ms, 20 + 100 ms and 100 ms loops)"),
                 shares.library / shares.bare, QStringLiteral("<= 1.2x"), shares.library <= 1.2 * shares.bare});
    figures.add({what + QStringLiteral(", against the same loops making the device calls"), share(shares.library),
                 share(shares.bareWithCalls)
                     + QStringLiteral(" (the bare loops, reading and enumerating the simulated device)"),
                 shares.library / shares.bareWithCalls, QStringLiteral("report"), std::nullopt});
}

} // namespace e2e
