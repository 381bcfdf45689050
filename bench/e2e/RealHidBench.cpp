// The USB link on the system's hidapi (hidraw backend), libudev and a hidraw
// node, all real, against a HID device umockdev emulates in this process (the
// program runs under umockdev-wrapper): what an open, idle transport costs and
// how long a burst of replies takes to reach the queue, each beside bare loops
// measured in the same run. The device stays plugged in throughout.
#include <atomic>
#include <memory>
#include <thread>

#include <hidapi.h>

#include "EmulatedHid.h"
#include "PortUSB.h"
#include "RealHidSections.h"
#include "ReceiveQueue.h"
#include "StreamMeasure.h"
#include "UsbReports.h"

namespace e2e {

namespace {

using namespace std::chrono_literals;

// pid.codes' test vendor, as the tests on the real stack use.
constexpr unsigned short kVid = 0x1209;
constexpr unsigned short kPid = 0x0001;

// The process's testbed with the device plugged in; none, with a row saying
// why, where umockdev cannot run here.
std::unique_ptr<emulatedhid::Testbed> plugDevice(const QString &figure, Figures &figures, emulatedhid::Device *device)
{
    const QString why = emulatedhid::Testbed::unavailableReason();
    if (!why.isEmpty()) {
        figures.add({figure, QStringLiteral("not measured: ") + why, QString(), std::nullopt, QString(), std::nullopt});
        return nullptr;
    }
    auto bed = std::make_unique<emulatedhid::Testbed>();
    QString error;
    if (!bed->plug(kVid, kPid, device, &error))
        throw SectionError(error.toStdString());
    return bed;
}

// Processor time of one call of call, on this thread, in microseconds: the
// median of rounds of calls calls each.
double callCpuUs(const std::function<void()> &call, int calls, int rounds)
{
    const pid_t self = currentThreadId();
    std::vector<double> perCall;
    for (int round = 0; round < rounds; ++round) {
        const qint64 before = threadCpuNs(self);
        for (int i = 0; i < calls; ++i)
            call();
        perCall.push_back(double(threadCpuNs(self) - before) / 1000.0 / calls);
    }
    return median(perCall);
}

} // namespace

void usbIdleReal(const Options &options, Figures &figures)
{
    const QString what =
        QStringLiteral("idle, system hidapi: USB transport open, no traffic (reader, reassembly, watcher)");
    emulatedhid::Device device;
    const std::unique_ptr<emulatedhid::Testbed> bed = plugDevice(what, figures, &device);
    if (!bed)
        return;
    // The device calls the transport makes, made by bare loops on the same
    // stack: a read of up to 1024 bytes that waits up to 100 ms after each
    // 20 ms pause, an enumeration by VID:PID every 100 ms.
    hid_device *handle = hid_open(kVid, kPid, nullptr);
    if (!handle)
        throw SectionError("the emulated HID device does not open through hidapi");
    const auto read = [handle] {
        unsigned char buffer[1024] = {};
        hid_read_timeout(handle, buffer, sizeof buffer, kUsbReadWaitMs);
    };
    const auto enumerate = [] { hid_free_enumeration(hid_enumerate(kVid, kPid)); };
    const UsbIdleShares shares = measureUsbIdle(options, kVid, kPid, "emulated", read, enumerate);

    // What the two device calls cost on their own, on this thread.
    const int calls = options.count(50, 3);
    const int rounds = options.count(5, 1);
    const double enumerationUs = callCpuUs(enumerate, calls, rounds);
    const double readUs = callCpuUs(
        [handle] {
            unsigned char buffer[1024] = {};
            hid_read_timeout(handle, buffer, sizeof buffer, 0);
        },
        calls, rounds);
    hid_close(handle);

    const double value = shares.library;
    const double base = shares.bare;
    const double withCalls = shares.bareWithCalls;
    figures.add({what + QStringLiteral(", against bare loops making the same device calls"), share(value),
                 share(withCalls)
                     + QStringLiteral(" (bare 20 ms loop; 20 ms loop reading up to 100 ms; 100 ms loop enumerating)"),
                 value / withCalls, QStringLiteral("report"), std::nullopt});
    figures.add({what + QStringLiteral(", against bare sleep loops"), share(value),
                 share(base) + QStringLiteral(" (bare 20 ms, 20 + 100 ms and 100 ms loops, no device calls)"),
                 value / base, QStringLiteral("report"), std::nullopt});
    figures.add({QStringLiteral("system hidapi: processor time of one enumeration by VID:PID through udev"),
                 number(enumerationUs, 0) + QStringLiteral(" us"),
                 number(readUs, 1) + QStringLiteral(" us (one hid_read_timeout finding nothing, no wait)"),
                 readUs > 0 ? std::optional<double>(enumerationUs / readUs) : std::nullopt, QStringLiteral("report"),
                 std::nullopt});
}

void usbDrainReal(const Options &options, Figures &figures)
{
    const int frames = options.count(200, 5);
    const QString link = QStringLiteral("USB, system hidapi,");
    emulatedhid::Device device;
    const std::unique_ptr<emulatedhid::Testbed> bed =
        plugDevice(QStringLiteral("%1 drain: %2 frames at once").arg(link, count(frames)), figures, &device);
    if (!bed)
        return;
    // One input report per reply, padded with zeros as a HID device pads it.
    QByteArray burst;
    for (int i = 0; i < frames; ++i)
        burst += usbreports::inputReport(sequencedFrame(i));
    // The open and close pauses lie outside what is timed.
    UsbPausesSkipped pausesSkipped(options.smoke);
    PortUSB port;
    if (!port.openUSB(kVid, kPid))
        throw SectionError("the emulated HID device does not open");
    testqueue::take();
    std::atomic<bool> written{true};
    figures.add(measureDrain(link, frames, kUsbCycleMs, options.count(3, 1), [&] {
        // The node's buffer holds fewer bytes than the burst: the device
        // writes on a thread of its own while the host reads.
        auto writer = std::make_shared<std::thread>([&] {
            if (!emulatedhid::writeInput(device.master, burst))
                written = false;
        });
        return [writer] { writer->join(); };
    }));
    port.closeUSB();
    if (!written)
        figures.add({link + QStringLiteral(" drain: the device's writes"),
                     QStringLiteral("the device could not write every input report"), QString(), std::nullopt,
                     QString(), false});
}

} // namespace e2e
