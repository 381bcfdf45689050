#include "DetachedWork.h"

#include "DetachedThread.h"

namespace comm {

DetachedWork::~DetachedWork()
{
    waitUntilIdle();
}

void DetachedWork::start(const char *name, std::function<void()> job)
{
    // Shared so that the job survives a failed thread start and can then run here.
    auto work = std::make_shared<std::function<void()>>(std::move(job));
    if (!startThread(name, work)) {
        // No thread could be started (resource exhaustion): run the job on
        // the calling thread rather than lose it.
        (*work)();
    }
}

bool DetachedWork::tryStart(const char *name, std::function<void()> job)
{
    return startThread(name, std::make_shared<std::function<void()>>(std::move(job)));
}

bool DetachedWork::startThread(const char *name, const SharedJob &job)
{
    {
        std::lock_guard<std::mutex> guard(m_lock);
        ++m_running;
    }
    const bool started = startDetachedThread(name, [this, job]() mutable {
        // Taken out of the thread's body, so that runJob can let it go.
        SharedJob mine = std::move(job);
        runJob(std::move(mine));
    });
    if (!started)
        finished();
    return started;
}

void DetachedWork::runJob(SharedJob job)
{
    (*job)();
    // The job and its captures are gone before the count drops: once it
    // reaches zero the owner may be destroyed.
    job.reset();
    finished();
}

void DetachedWork::finished()
{
    std::lock_guard<std::mutex> guard(m_lock);
    if (--m_running == 0)
        m_idle.notify_all();
}

void DetachedWork::waitUntilIdle()
{
    std::unique_lock<std::mutex> guard(m_lock);
    m_idle.wait(guard, [this] { return m_running == 0; });
}

int DetachedWork::running() const
{
    std::lock_guard<std::mutex> guard(m_lock);
    return m_running;
}

} // namespace comm
