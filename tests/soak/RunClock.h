#pragma once

#include <QtGlobal>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>

namespace soak {

// Every loop of the soak is bounded twice: by a count of turns and by the
// run's clock, which ends all activity at a hard limit even when something
// hangs.
class RunClock
{
public:
    explicit RunClock(qint64 hardLimitMs)
        : m_start(std::chrono::steady_clock::now())
        , m_hardLimitMs(hardLimitMs)
    {
    }

    qint64 elapsedMs() const
    {
        return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - m_start)
            .count();
    }
    bool pastHardLimit() const { return elapsedMs() >= m_hardLimitMs; }
    // The most turns any loop takes: one a microsecond until the hard limit.
    long long maxTurns() const { return (m_hardLimitMs + 1000) * 1000; }

    // Activities run until stop() is called, and never past the hard limit.
    void stop() { m_stopped = true; }
    bool going() const { return !m_stopped && !pastHardLimit(); }

    // Sleeps about ms, in short slices, returning early once activities stop.
    void pause(int ms) const
    {
        const qint64 until = elapsedMs() + ms;
        for (int slice = 0; slice < ms + 1 && going(); ++slice) {
            const qint64 left = until - elapsedMs();
            if (left <= 0)
                return;
            std::this_thread::sleep_for(std::chrono::milliseconds(std::min<qint64>(left, 10)));
        }
    }

private:
    const std::chrono::steady_clock::time_point m_start;
    const qint64 m_hardLimitMs;
    std::atomic<bool> m_stopped{false};
};

} // namespace soak
