#include "IoThread.h"

#include <QCoreApplication>
#include <QMetaObject>
#include <QObject>

namespace comm {

IoThread::IoThread(const char *name)
    : m_context(new QObject)
{
    m_thread.setObjectName(QString::fromLatin1(name));
    // Qt delivers no event on any thread while the process has no
    // application object: no reply could ever be read, and no work carried
    // over. Without one, the socket or port stays on the creating thread and
    // calls run on their callers, as on a plain object.
    if (!QCoreApplication::instance()) {
        m_stopped = true;
        return;
    }
    m_context->moveToThread(&m_thread);
    m_thread.start();
    // Without a thread nothing could be carried over: calls then run on their
    // callers rather than wait for ever.
    if (!m_thread.isRunning())
        m_stopped = true;
}

IoThread::~IoThread()
{
    stop();
    // The thread has finished: nothing else can deliver to the context now.
    delete m_context;
}

bool IoThread::isCurrent() const
{
    return QThread::currentThread() == &m_thread;
}

void IoThread::run(const std::function<void()> &work)
{
    if (isCurrent()) {
        work();
        return;
    }
    Call call{&work};
    std::unique_lock<std::mutex> guard(m_lock);
    if (m_stopped) {
        guard.unlock();
        work();
        return;
    }
    // One event per call, so that a call runs in its place among the other
    // events queued to the thread (a queued rebuild, say), never ahead of
    // them. Posted while the lock is held: the thread takes the lock before
    // it runs the call, so the thread sanitizer sees the posted event made
    // before it is handled (Qt's own event queue locking is invisible to it).
    // The stop's quit is queued behind every call posted before it.
    QMetaObject::invokeMethod(m_context, [this, &call] { runCall(call); }, Qt::QueuedConnection);
    m_done.wait(guard, [&call] { return call.done; });
}

void IoThread::runCall(Call &call)
{
    const std::function<void()> *work = nullptr;
    {
        std::lock_guard<std::mutex> guard(m_lock);
        work = call.work;
    }
    (*work)();
    {
        std::lock_guard<std::mutex> guard(m_lock);
        call.done = true; // the caller may return and drop call from here on
    }
    m_done.notify_all();
}

void IoThread::stop()
{
    {
        std::lock_guard<std::mutex> guard(m_lock);
        if (m_stopped)
            return;
        m_stopped = true;
    }
    // Calls handed over before the stop run before the loop ends: the quit is
    // queued behind them.
    QMetaObject::invokeMethod(m_context, [this] { m_thread.quit(); }, Qt::QueuedConnection);
    // The thread runs only the library's own work, so this wait ends. (It is
    // never reached on the thread itself: no transport is destroyed there.)
    m_thread.wait();
}

} // namespace comm
