#include "DetachedWork.h"

#include <memory>
#include <system_error>
#include <thread>

namespace comm {

DetachedWork::~DetachedWork()
{
    waitUntilIdle();
}

void DetachedWork::start(std::function<void()> job)
{
    {
        std::lock_guard<std::mutex> guard(m_lock);
        ++m_running;
    }
    // Shared so that the job survives a failed thread start and can then run here.
    auto work = std::make_shared<std::function<void()>>(std::move(job));
    auto body = [this](std::shared_ptr<std::function<void()>> shared) {
        (*shared)();
        // The job and its captures are gone before the count drops: once it
        // reaches zero the owner may be destroyed.
        shared.reset();
        finished();
    };
    try {
        std::thread(body, work).detach();
    } catch (const std::system_error &) {
        // No thread could be started (resource exhaustion): run the job on the
        // calling thread rather than lose it.
        body(std::move(work));
    }
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
