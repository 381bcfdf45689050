#include "IoThread.h"

#include <QCoreApplication>

#include <chrono>

namespace comm {

namespace {
// How long a new thread may take to have its event loop's dispatcher ready
// before the transport gives up on it (a process at its thread limit).
constexpr auto kStartLimit = std::chrono::seconds(10);
} // namespace

IoThreadContext::IoThreadContext(IoThread &owner)
    : m_owner(owner)
{
}

void IoThreadContext::runPending()
{
    m_owner.runPending();
}

IoThread::IoThread(const char *name)
    : m_context(new IoThreadContext(*this))
{
    m_thread.setObjectName(QString::fromLatin1(name));
    // Qt delivers no event on any thread while the process has no
    // application object: no reply could ever be read, and no work carried
    // over. Without one, the socket or port stays on the creating thread and
    // calls run on their callers, as on a plain object.
    if (!QCoreApplication::instance() || !m_wake.isValid()) {
        m_stopped = true;
        return;
    }
    m_context->moveToThread(&m_thread);
    // started() is emitted on the new thread once its event dispatcher
    // exists: the wake-up watcher is made there, and waiting for it here
    // makes what the thread set up visible to the threads that call in.
    QObject::connect(
        &m_thread, &QThread::started, m_context,
        [this] {
            m_wake.watch(m_context, [this] { m_context->runPending(); });
            {
                std::lock_guard<std::mutex> guard(m_lock);
                m_ready = true;
            }
            m_changed.notify_all();
        },
        Qt::DirectConnection);
    m_thread.start();
    std::unique_lock<std::mutex> guard(m_lock);
    // Without a thread nothing could be carried over: calls then run on their
    // callers rather than wait for ever.
    if (!m_changed.wait_for(guard, kStartLimit, [this] { return m_ready; }))
        m_stopped = true;
}

IoThread::~IoThread()
{
    stop();
    // A thread that started too late to be used still has its loop to end.
    if (m_thread.isRunning()) {
        m_thread.quit();
        m_thread.wait();
    }
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
    m_pending.push_back(&call);
    m_wake.raise();
    m_changed.wait(guard, [&call] { return call.done; });
}

void IoThread::runPending()
{
    // Bounded by the calls waiting; each one's caller is blocked in run().
    while (true) {
        Call *call = nullptr;
        {
            std::lock_guard<std::mutex> guard(m_lock);
            if (m_pending.empty()) {
                if (!m_quit)
                    return;
                // Made on this thread, so it is undone here before the loop ends.
                m_wake.unwatch();
                m_thread.quit();
                // The last the thread does with anything of this object;
                // stop() waits for it (QThread::wait's own join is invisible
                // to the thread sanitizer).
                m_finished = true;
                m_changed.notify_all();
                return;
            }
            call = m_pending.front();
            m_pending.pop_front();
        }
        (*call->work)();
        {
            std::lock_guard<std::mutex> guard(m_lock);
            call->done = true; // the caller may return and drop call from here on
        }
        m_changed.notify_all();
    }
}

void IoThread::stop()
{
    {
        std::lock_guard<std::mutex> guard(m_lock);
        if (m_stopped)
            return;
        m_stopped = true;
        // Calls handed over before the stop run before the loop ends.
        m_quit = true;
        m_wake.raise();
    }
    // The thread runs only the library's own work, so these waits end. (They
    // are never reached on the thread itself: no transport is destroyed there.)
    {
        std::unique_lock<std::mutex> guard(m_lock);
        m_changed.wait(guard, [this] { return m_finished; });
    }
    m_thread.wait();
}

} // namespace comm
