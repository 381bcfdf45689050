#include "DetachedWork.h"

#include <pthread.h>

namespace comm {

DetachedWork::~DetachedWork()
{
    waitUntilIdle();
}

void DetachedWork::start(std::function<void()> job)
{
    // Shared so that the job survives a failed thread start and can then run here.
    auto work = std::make_shared<std::function<void()>>(std::move(job));
    if (!startThread(work)) {
        // No thread could be started (resource exhaustion): run the job on
        // the calling thread rather than lose it.
        (*work)();
    }
}

bool DetachedWork::tryStart(std::function<void()> job)
{
    return startThread(std::make_shared<std::function<void()>>(std::move(job)));
}

bool DetachedWork::startThread(const SharedJob &job)
{
    {
        std::lock_guard<std::mutex> guard(m_lock);
        ++m_running;
    }
    // Born detached: there is no handle to detach after the start, by which
    // time the thread may already have run and ended.
    auto *start = new StartArgs{this, job};
    pthread_attr_t attributes;
    bool started = pthread_attr_init(&attributes) == 0;
    if (started) {
        pthread_t thread;
        started = pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED) == 0
                  && pthread_create(&thread, &attributes, &DetachedWork::threadMain, start) == 0;
        pthread_attr_destroy(&attributes);
    }
    if (!started) {
        delete start;
        finished();
    }
    return started;
}

void *DetachedWork::threadMain(void *argument)
{
    std::unique_ptr<StartArgs> start(static_cast<StartArgs *>(argument));
    DetachedWork *work = start->work;
    SharedJob job = std::move(start->job);
    start.reset();
    work->runJob(std::move(job));
    return nullptr;
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
