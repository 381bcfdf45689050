#include "StreamMeasure.h"

#include <set>
#include <string>

#include <QCoreApplication>

#include "PortUSB.h"
#include "ReceiveQueue.h"
#include "ReplyFrames.h"
#include "Sections.h"

namespace e2e {

using namespace std::chrono_literals;

namespace {

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

} // namespace

// A reply frame carrying a sequence number (B1 low byte, B3 high byte) and no
// block announcement.
QByteArray sequencedFrame(int seq)
{
    return replyframes::frame({0x5A, quint8(seq), 0x00, quint8(seq >> 8), 0x00, 0x00, 0x00});
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

BareLoops::BareLoops(const std::vector<Loop> &loops)
{
    for (const Loop &loop : loops)
        m_threads.emplace_back([this, loop] { run(loop); });
}

BareLoops::~BareLoops()
{
    {
        std::lock_guard<std::mutex> guard(m_lock);
        m_stop = true;
    }
    for (std::thread &thread : m_threads)
        thread.join();
}

void BareLoops::run(Loop loop)
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
            QStringLiteral("%1 ms, %2")
                .arg(number(drain, 0),
                     allOnce ? QStringLiteral("each delivered once") : QStringLiteral("NOT each delivered once")),
            baseline,
            ratio,
            target,
            allOnce && ratio <= 1.05};
}

UsbIdleShares measureUsbIdle(const Options &options, unsigned short vid, unsigned short pid, const char *deviceText,
                             const std::function<void()> &read, const std::function<void()> &enumerate)
{
    const std::string doesNotOpen = std::string("the ") + deviceText + " HID device does not open";
    const std::chrono::milliseconds window(options.count(1500, 100));
    const std::chrono::milliseconds settle(options.count(200, 50));
    // The open and close pauses lie outside the windows.
    UsbPausesSkipped pausesSkipped(options.smoke);
    PortUSB port;
    // The hot-plug watcher, started by the first transport, polls from the
    // first open on and never stops: it runs through the bare windows as well
    // and is left out of them by its own processor clock.
    if (!port.openUSB(vid, pid))
        throw SectionError(doesNotOpen);
    port.closeUSB();
    std::this_thread::sleep_for(settle);
    const pid_t watcher = threadNamed("PortUSB-hotplug");
    if (watcher == 0)
        throw SectionError("no hot-plug watcher thread");

    std::vector<double> library, bare, bareWithCalls;
    for (int round = 0; round < options.count(8, 1); ++round) {
        if (!port.openUSB(vid, pid))
            throw SectionError(doesNotOpen);
        std::this_thread::sleep_for(settle);
        library.push_back(idleShare(window, {}));
        port.closeUSB();
        {
            // Reassembly, reader (its pause, then a read that waits in vain),
            // hot-plug watcher, without device calls.
            BareLoops loops({{kUsbCycleMs, 0}, {kUsbCycleMs, kUsbReadWaitMs}, {kHotPlugPollMs, 0}});
            std::this_thread::sleep_for(settle);
            bare.push_back(idleShare(window, {watcher}));
        }
        {
            // The same, making the device calls the transport makes.
            BareLoops loops({{kUsbCycleMs, 0}, {kUsbCycleMs, 0, read}, {kHotPlugPollMs, 0, enumerate}});
            std::this_thread::sleep_for(settle);
            bareWithCalls.push_back(idleShare(window, {watcher}));
        }
    }
    return {median(library), median(bare), median(bareWithCalls)};
}

} // namespace e2e
