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
constexpr int kUsbCycleMs = 20;
constexpr int kUsbReadWaitMs = 100;
constexpr int kHotPlugPollMs = 100;
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
    const std::chrono::milliseconds window(options.count(1500, 100));
    const std::chrono::milliseconds settle(options.count(200, 50));
    // The open and close pauses lie outside the windows.
    UsbPausesSkipped pausesSkipped(options.smoke);
    PortUSB port;
    // The hot-plug watcher, started by the first transport, polls from the
    // first open on and never stops: it runs through the bare windows as well
    // and is left out of them by its own processor clock.
    if (!port.openUSB(kVid, kPid))
        throw SectionError("the simulated HID device does not open");
    port.closeUSB();
    std::this_thread::sleep_for(settle);
    const pid_t watcher = threadNamed("PortUSB-hotplug");
    if (watcher == 0)
        throw SectionError("no hot-plug watcher thread");

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

    std::vector<double> library, bare, bareWithCalls;
    for (int round = 0; round < options.count(8, 1); ++round) {
        if (!port.openUSB(kVid, kPid))
            throw SectionError("the simulated HID device does not open");
        std::this_thread::sleep_for(settle);
        library.push_back(idleShare(window, {}));
        port.closeUSB();
        {
            // Reassembly, reader (its pause, then a read that waits in vain),
            // hot-plug watcher.
            BareLoops loops({{kUsbCycleMs, 0}, {kUsbCycleMs, kUsbReadWaitMs}, {kHotPlugPollMs, 0}});
            std::this_thread::sleep_for(settle);
            bare.push_back(idleShare(window, {watcher}));
        }
        {
            BareLoops loops({{kUsbCycleMs, 0}, {kUsbCycleMs, 0, read}, {kHotPlugPollMs, 0, enumerate}});
            std::this_thread::sleep_for(settle);
            bareWithCalls.push_back(idleShare(window, {watcher}));
        }
    }
    hid_close(handle);
    const double value = median(library);
    const double base = median(bare);
    const double withCalls = median(bareWithCalls);
    const QString what = QStringLiteral("idle: USB transport open, no traffic (reader, reassembly, watcher)");
    figures.add({what, share(value), share(base) + QStringLiteral(" (bare 20 ms, 20 + 100 ms and 100 ms loops)"),
                 value / base, QStringLiteral("<= 1.2x"), value <= 1.2 * base});
    figures.add({what + QStringLiteral(", against the same loops making the device calls"), share(value),
                 share(withCalls) + QStringLiteral(" (the bare loops, reading and enumerating the simulated device)"),
                 value / withCalls, QStringLiteral("report"), std::nullopt});
}

} // namespace e2e
