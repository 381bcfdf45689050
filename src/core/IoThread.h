#pragma once

#include <QObject>
#include <QThread>

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>

#include "WakeEvent.h"

namespace comm {

class IoThread;

// The object that lives on an I/O thread and receives its hand-over events.
class IoThreadContext : public QObject
{
    Q_OBJECT

public:
    explicit IoThreadContext(IoThread &owner);

public slots:
    // Runs the calls handed over, oldest first.
    void runPending();

private:
    IoThread &m_owner;
};

// The thread a transport's Qt socket or serial port lives on. Qt lets a
// socket, and the notifiers behind its readyRead(), be used only from its own
// thread, and the application's threads may be busy, blocked or gone: so each
// network and serial transport starts one of these, owns its event loop and
// puts its socket or port there. Replies are read on it; an open, a close, a
// rebuild or a write that needs the socket is carried over to it and the
// caller waits until it is done. The thread runs nothing but the library's
// own code, so that wait always ends.
//
// The hand-over goes through a standard mutex and condition variable, and the
// thread is woken through a WakeEvent it watches (an event file descriptor on
// Linux): the thread sanitizer can follow all three, where Qt's own event
// queue locking is invisible to it.
class IoThread
{
public:
    // Starts the thread and its event loop; with no application object (see
    // the constructor) nothing is started and run() works on its callers.
    explicit IoThread(const char *name);
    // Stops the thread (see stop()).
    ~IoThread();

    IoThread(const IoThread &) = delete;
    IoThread &operator=(const IoThread &) = delete;

    // An object that lives on the thread: the receiver of queued work and the
    // context of connections whose slots must run there.
    QObject *context() const { return m_context; }

    // Whether the calling thread is this one.
    bool isCurrent() const;

    // Runs work on the thread and returns when it has run: at once, on the
    // caller, when called on the thread itself or once the thread has stopped.
    void run(const std::function<void()> &work);

    // Ends the event loop and waits for the thread to finish; calls handed
    // over before still run first. Afterwards run() works on its callers.
    void stop();

private:
    friend class IoThreadContext;

    struct Call
    {
        const std::function<void()> *work;
        bool done = false;
    };

    void runPending();

    QThread m_thread;
    IoThreadContext *m_context;
    // Raised by callers, watched on the thread.
    WakeEvent m_wake;
    bool m_quit = false;
    bool m_finished = false;
    std::mutex m_lock;
    std::condition_variable m_changed;
    std::deque<Call *> m_pending;
    bool m_ready = false;
    bool m_stopped = false;
};

} // namespace comm
