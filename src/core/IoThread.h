#pragma once

#include <QThread>

#include <condition_variable>
#include <functional>
#include <mutex>

class QObject;

namespace comm {

// The thread a transport's Qt socket or serial port lives on. Qt lets a
// socket, and the notifiers behind its readyRead(), be used only from its own
// thread, and the application's threads may be busy, blocked or gone: so each
// network and serial transport starts one of these, owns its event loop and
// puts its socket or port there. Replies are read on it; an open, a close, a
// rebuild or a write that needs the socket is carried over to it and the
// caller waits until it is done. The thread runs nothing but the library's
// own code, so that wait always ends.
//
// The hand-over goes through a standard mutex and condition variable, which
// the thread sanitizer can follow.
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

    // Ends the event loop and waits for the thread to finish; calls waiting
    // for it still run first. Afterwards run() works on the caller.
    void stop();

private:
    struct Call
    {
        const std::function<void()> *work;
        bool done = false;
    };

    void runCall(Call &call);

    QThread m_thread;
    QObject *m_context;
    std::mutex m_lock;
    std::condition_variable m_done;
    bool m_stopped = false;
};

} // namespace comm
