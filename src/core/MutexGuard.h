#pragma once

#include <QMutex>

#if defined(__SANITIZE_THREAD__)
#define COMM_TSAN_ANNOTATE 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define COMM_TSAN_ANNOTATE 1
#endif
#endif

#ifdef COMM_TSAN_ANNOTATE
#include <sanitizer/tsan_interface.h>
#endif

namespace comm {

// Holds a QMutex for the lifetime of the guard. Every critical section on a
// transport's QMutex (receive buffers, run-flag writes) goes through here.
//
// QMutex's uncontended path is inline atomics that ThreadSanitizer sees, but
// its contended path waits on a futex inside the Qt library, which is not
// instrumented: without help, ThreadSanitizer misses the ordering a contended
// lock hand-over gives and reports races that cannot happen. Under
// ThreadSanitizer the guard therefore states that ordering itself: acquire on
// the mutex address after locking, release before unlocking.
class MutexGuard
{
public:
    explicit MutexGuard(QMutex &mutex)
        : m_mutex(mutex)
    {
        m_mutex.lock();
#ifdef COMM_TSAN_ANNOTATE
        __tsan_acquire(&m_mutex);
#endif
    }

    ~MutexGuard()
    {
#ifdef COMM_TSAN_ANNOTATE
        __tsan_release(&m_mutex);
#endif
        m_mutex.unlock();
    }

    MutexGuard(const MutexGuard &) = delete;
    MutexGuard &operator=(const MutexGuard &) = delete;

private:
    QMutex &m_mutex;
};

} // namespace comm
