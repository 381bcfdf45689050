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

// A reply frame carrying a sequence number (B1 low byte, B3 high byte) and no
// block announcement.
QByteArray sequencedFrame(int seq)
{
    return replyframes::frame({0x5A, quint8(seq), 0x00, quint8(seq >> 8), 0x00, 0x00, 0x00});
}

int sequenceOf(const ProtocolData &record)
{
    return record.paramBytes[0] | record.paramBytes[2] << 8;
}

// Whether records are exactly the frames 0..frames-1, each once.
bool eachDeliveredOnce(const std::vector<ProtocolData> &records, int frames)
{
    std::set<int> seen;
    for (const ProtocolData &record : records) {
        const int seq = sequenceOf(record);
        if (record.commandByte != 0x5A || seq >= frames || !seen.insert(seq).second)
            return false;
    }
    return int(seen.size()) == frames;
}

// Waits, running the event loop every half millisecond, until count records
// are on the queue; the time at which that was seen.
std::optional<Clock::time_point> waitForRecords(size_t count, Clock::time_point deadline)
{
    while (testqueue::length() < count) {
        if (Clock::now() >= deadline)
            return std::nullopt;
        QCoreApplication::processEvents();
        std::this_thread::sleep_for(500us);
    }
    return Clock::now();
}

// turns sleeps of turnMs on a thread of its own, as a worker paces itself
// without doing anything else; their total time.
double bareTurnsMs(int turns, int turnMs)
{
    double elapsed = 0;
    std::thread([&] {
        const Clock::time_point start = Clock::now();
        for (int i = 0; i < turns; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(turnMs));
        elapsed = millisecondsBetween(start, Clock::now());
    }).join();
    return elapsed;
}

// Threads that only keep the pacing of a transport's workers: each sleeps
// sleepMs, then (waitMs > 0) waits that long more for a condition nobody
// signals, as a read that times out, or makes the device call it is given;
// until stopped.
class BareLoops
{
public:
    struct Loop {
        int sleepMs;
        int waitMs;
        std::function<void()> call = {};
    };
    explicit BareLoops(const std::vector<Loop> &loops)
    {
        for (const Loop &loop : loops)
            m_threads.emplace_back([this, loop] { run(loop); });
    }
    ~BareLoops()
    {
        {
            std::lock_guard<std::mutex> guard(m_lock);
            m_stop = true;
        }
        for (std::thread &thread : m_threads)
            thread.join();
    }

private:
    void run(Loop loop)
    {
        const Clock::time_point end = Clock::now() + 10min;
        std::unique_lock<std::mutex> guard(m_lock);
        while (!m_stop && Clock::now() < end) {
            guard.unlock();
            std::this_thread::sleep_for(std::chrono::milliseconds(loop.sleepMs));
            if (loop.call)
                loop.call();
            guard.lock();
            if (loop.waitMs > 0)
                m_never.wait_for(guard, std::chrono::milliseconds(loop.waitMs));
        }
    }

    std::mutex m_lock;
    std::condition_variable m_never; // nobody signals it: every wait times out
    bool m_stop = false;             // guarded by m_lock
    std::vector<std::thread> m_threads;
};

// Processor time of the process over window, as a share of one processor,
// leaving out the calling thread (which only sleeps) and the given threads.
double idleShare(std::chrono::milliseconds window, const std::vector<pid_t> &leftOut)
{
    const pid_t self = currentThreadId();
    const auto used = [&] {
        qint64 ns = processCpuNs() - threadCpuNs(self);
        for (pid_t tid : leftOut)
            ns -= threadCpuNs(tid);
        return ns;
    };
    const qint64 before = used();
    const Clock::time_point start = Clock::now();
    std::this_thread::sleep_for(window);
    const qint64 after = used();
    return 100.0 * double(after - before) / (millisecondsBetween(start, Clock::now()) * 1e6);
}

QString share(double percent)
{
    return number(percent, 3) + QStringLiteral(" % of one core");
}

bool openSerial(PortSerial &port, const PseudoTerminal &pty)
{
    return port.openSerialPort(pty.slavePath(), QSerialPort::Baud115200, QSerialPort::OneStop, QSerialPort::NoParity,
                               QSerialPort::NoFlowControl, QSerialPort::Data8);
}

// Rounds of: a burst of frames fed in at once, the time until all are on the
// queue; then as many turns of a bare sleep loop of the worker's period. feed
// puts the burst in and returns what finishes feeding once all have arrived.
Figure measureDrain(const QString &link, int frames, int turnMs, int rounds,
                    const std::function<std::function<void()>()> &feed)
{
    std::vector<double> drains, bare;
    bool allOnce = true;
    // A round whose burst was not all on the queue by its deadline: how many
    // were, and after how long. Not a loss: the frames may still be coming.
    std::optional<QString> unfinished;
    for (int round = 0; round < rounds; ++round) {
        const Clock::time_point start = Clock::now();
        const std::function<void()> finish = feed();
        const auto limit = std::chrono::milliseconds(frames * turnMs * 4) + 5s;
        const auto end = waitForRecords(size_t(frames), start + limit);
        const size_t arrived = testqueue::length();
        finish();
        // Hand-off threads still running would add records late.
        std::this_thread::sleep_for(20ms);
        const std::vector<ProtocolData> records = testqueue::take();
        if (end) {
            allOnce = allOnce && eachDeliveredOnce(records, frames);
            drains.push_back(millisecondsBetween(start, *end));
        } else if (!unfinished) {
            unfinished = QStringLiteral("not finished within the %1 ms deadline: %2 of %3 on the queue")
                             .arg(number(double(std::chrono::milliseconds(limit).count()), 0))
                             .arg(count(long(arrived)), count(frames));
        }
        bare.push_back(bareTurnsMs(frames, turnMs));
    }
    const double base = median(bare);
    const QString figure =
        QStringLiteral("%1 drain: %2 frames at once, until all are on the queue").arg(link, count(frames));
    const QString baseline =
        QStringLiteral("%1 ms (%2 turns of a bare %3 ms sleep loop)").arg(number(base, 0), count(frames)).arg(turnMs);
    const QString target = QStringLiteral("<= 1.05x, each once");
    if (unfinished)
        return {figure, *unfinished, baseline, std::nullopt, target, false};
    const double drain = median(drains);
    const double ratio = drain / base;
    return {figure,
            QStringLiteral("%1 ms, %2").arg(number(drain, 0), allOnce ? QStringLiteral("each delivered once")
                                                                    : QStringLiteral("NOT each delivered once")),
            baseline, ratio, target, allOnce && ratio <= 1.05};
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
