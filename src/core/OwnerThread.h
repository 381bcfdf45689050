#pragma once

#include <QObject>

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>

namespace comm {

// Qt's sockets and serial ports may only be used from the thread they live in.
// A transport keeps one of these as its child: a send, an open, a close or a
// socket rebuild invoked from another thread is carried over to the
// transport's thread (its event loop must be running) and the caller waits
// until it is done, so the call stays synchronous for the caller. (The
// transport itself is deleted on its own thread: Qt lets no object be
// destroyed while its thread may be delivering events to it.) The hand-over goes through a standard mutex and
// condition variable, which the thread sanitizer can follow.
class OwnerThreadRunner : public QObject
{
    Q_OBJECT

public:
    explicit OwnerThreadRunner(QObject *owner);

    // Runs work on the owner's thread and returns when it has run; at once
    // when called on that thread.
    void run(const std::function<void()> &work);

private slots:
    void runPending();

private:
    struct Call
    {
        const std::function<void()> *work;
        bool done = false;
    };

    std::mutex m_lock;
    std::condition_variable m_done;
    std::deque<Call *> m_pending;
};

} // namespace comm
