#pragma once

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>

namespace comm {

// Runs jobs on detached threads and counts those still running, so that the
// object the jobs refer to can wait for them before it is destroyed.
class DetachedWork
{
public:
    DetachedWork() = default;
    // Waits for every job still running.
    ~DetachedWork();
    DetachedWork(const DetachedWork &) = delete;
    DetachedWork &operator=(const DetachedWork &) = delete;

    // Starts job on a new detached thread named name (see
    // startDetachedThread). When no thread can be started, the job runs on the
    // calling thread instead, so its work is never lost.
    void start(const char *name, std::function<void()> job);

    // Starts job on a new detached thread named name, counted like start()'s
    // jobs. When no thread can be started, returns false and the job does not
    // run: for jobs that must not take over the calling thread (long-running
    // workers).
    bool tryStart(const char *name, std::function<void()> job);

    // Returns once no job started here is running any more.
    void waitUntilIdle();

    // Number of jobs started and not yet finished.
    int running() const;

private:
    using SharedJob = std::shared_ptr<std::function<void()>>;
    bool startThread(const char *name, const SharedJob &job);
    void runJob(SharedJob job);
    void finished();

    mutable std::mutex m_lock;
    std::condition_variable m_idle;
    int m_running = 0;
};

} // namespace comm
