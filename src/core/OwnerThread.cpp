#include "OwnerThread.h"

#include <QMetaObject>
#include <QThread>

namespace comm {

OwnerThreadRunner::OwnerThreadRunner(QObject *owner)
    : QObject(owner)
{
}

void OwnerThreadRunner::run(const std::function<void()> &work)
{
    QThread *const owner = thread();
    // A thread that is not running has no event loop to carry the work over
    // to, and none that could be using the transport's sockets either.
    if (owner == QThread::currentThread() || !owner || !owner->isRunning()) {
        work();
        return;
    }
    Call call{&work};
    std::unique_lock<std::mutex> guard(m_lock);
    m_pending.push_back(&call);
    // Posted while the lock is held: the owner's thread takes the lock before
    // it runs the call and later deletes the posted event, so the thread
    // sanitizer sees the event made before it is deleted (Qt's own event
    // queue locking is invisible to it).
    QMetaObject::invokeMethod(this, "runPending", Qt::QueuedConnection);
    m_done.wait(guard, [&call] { return call.done; });
}

void OwnerThreadRunner::runPending()
{
    // Bounded by the calls waiting; each one's caller is blocked in run().
    while (true) {
        Call *call = nullptr;
        {
            std::lock_guard<std::mutex> guard(m_lock);
            if (m_pending.empty())
                return;
            call = m_pending.front();
            m_pending.pop_front();
        }
        (*call->work)();
        {
            std::lock_guard<std::mutex> guard(m_lock);
            call->done = true; // the caller may return and drop call from here on
        }
        m_done.notify_all();
    }
}

} // namespace comm
