#pragma once

// What the stream-link sections (serial, simulated USB, USB on the system's
// hidapi) measure with: bursts of sequenced reply frames, the time until they
// are on the receive queue, bare sleep loops of the workers' periods and the
// processor time of an idle process.

#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include <QByteArray>
#include <QString>

#include "Measure.h"
#include "ProtocolData.h"

namespace e2e {

// The USB transport's pacing: reader and reassembly cycles, the reader's
// wait for a report, the hot-plug watcher's poll.
constexpr int kUsbCycleMs = 20;
constexpr int kUsbReadWaitMs = 100;
constexpr int kHotPlugPollMs = 100;

// Medians of processor shares (percent of one processor).
struct UsbIdleShares
{
    double library;       // an open USB transport without traffic
    double bare;          // bare loops of its workers' pacing
    double bareWithCalls; // the same loops making the device calls
};

// Rounds of windows in turn: a USB transport open on vid:pid with no traffic,
// bare loops of its workers' pacing, and the same loops making the device
// calls read and enumerate. The hot-plug watcher's own clock is left out of
// the bare windows. deviceText names the device in errors.
UsbIdleShares measureUsbIdle(const Options &options, unsigned short vid, unsigned short pid, const char *deviceText,
                             const std::function<void()> &read, const std::function<void()> &enumerate);

// A reply frame carrying a sequence number (B1 low byte, B3 high byte) and no
// block announcement.
QByteArray sequencedFrame(int seq);

// Waits, running the event loop every half millisecond, until count records
// are on the queue; the time at which that was seen.
std::optional<Clock::time_point> waitForRecords(size_t count, Clock::time_point deadline);

// turns sleeps of turnMs on a thread of its own, as a worker paces itself
// without doing anything else; their total time.
double bareTurnsMs(int turns, int turnMs);

// Threads that only keep the pacing of a transport's workers: each sleeps
// sleepMs, then (waitMs > 0) waits that long more for a condition nobody
// signals, as a read that times out, or makes the device call it is given;
// until stopped (or after ten minutes at most).
class BareLoops
{
public:
    struct Loop
    {
        int sleepMs;
        int waitMs;
        std::function<void()> call = {};
    };
    explicit BareLoops(const std::vector<Loop> &loops);
    ~BareLoops();
    BareLoops(const BareLoops &) = delete;
    BareLoops &operator=(const BareLoops &) = delete;

private:
    void run(Loop loop);

    std::mutex m_lock;
    std::condition_variable m_never; // nobody signals it: every wait times out
    bool m_stop = false;             // guarded by m_lock
    std::vector<std::thread> m_threads;
};

// Processor time of the process over window, as a share of one processor,
// leaving out the calling thread (which only sleeps) and the given threads.
double idleShare(std::chrono::milliseconds window, const std::vector<pid_t> &leftOut);

// A share as the table writes it.
QString share(double percent);

// Rounds of: a burst of frames fed in at once, the time until all are on the
// queue; then as many turns of a bare sleep loop of the worker's period. feed
// puts the burst in and returns what finishes feeding once all have arrived.
Figure measureDrain(const QString &link, int frames, int turnMs, int rounds,
                    const std::function<std::function<void()>()> &feed);

} // namespace e2e
