#include "IoThread.h"

#include <QCoreApplication>
#include <QSocketNotifier>

#include <chrono>
#include <cstdint>

#include <sys/eventfd.h>
#include <unistd.h>

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
    m_wakeFd = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (!QCoreApplication::instance() || m_wakeFd < 0) {
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
            m_wakeNotifier = new QSocketNotifier(m_wakeFd, QSocketNotifier::Read, m_context);
            QObject::connect(m_wakeNotifier, &QSocketNotifier::activated, m_context, &IoThreadContext::runPending);
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
    if (m_wakeFd >= 0)
        ::close(m_wakeFd);
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
    wake();
    m_changed.wait(guard, [&call] { return call.done; });
}

void IoThread::wake()
{
    const std::uint64_t one = 1;
    // Never full in practice (the counter is read back to zero on every
    // wake-up); a failed write leaves an earlier wake-up pending anyway.
    const ssize_t written = ::write(m_wakeFd, &one, sizeof(one));
    Q_UNUSED(written);
}

void IoThread::runPending()
{
    std::uint64_t count = 0;
    const ssize_t read = ::read(m_wakeFd, &count, sizeof(count));
    Q_UNUSED(read);
    // Bounded by the calls waiting; each one's caller is blocked in run().
    while (true) {
        Call *call = nullptr;
        {
            std::lock_guard<std::mutex> guard(m_lock);
            if (m_pending.empty()) {
                if (!m_quit)
                    return;
                // Made on this thread, so it is undone here before the loop ends.
                delete m_wakeNotifier;
                m_wakeNotifier = nullptr;
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
        wake();
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
