#pragma once

#include <functional>

#include <QtGlobal>

class QObject;

namespace comm {

// A wake-up that any thread raises and one thread's Qt event loop watches:
// how callers wake an IoThread. Raises made before the watching thread gets
// to them count as one. Made, raised and closed with the system's own calls,
// which the thread sanitizer follows, so a raise orders what the raising
// thread did before it with what the watching thread does after it.
//
// One implementation per system (WakeEvent_linux.cpp: an event file
// descriptor); see docs/porting.md.
class WakeEvent
{
public:
    // Makes the wake-up; isValid() tells whether the system gave one.
    WakeEvent();
    // Closes it. The watch, if any, must be gone: ended by unwatch() or
    // deleted with its context.
    ~WakeEvent();
    WakeEvent(const WakeEvent &) = delete;
    WakeEvent &operator=(const WakeEvent &) = delete;

    bool isValid() const;

    // On the watching thread, whose event loop runs: from now on that loop
    // calls onRaised after raises, once for all the raises before the call,
    // which are cleared first. The watch is a child of context, which lives
    // on that thread.
    void watch(QObject *context, std::function<void()> onRaised);
    // On the watching thread: ends the watch.
    void unwatch();

    // From any thread; does not block.
    void raise();

private:
    void clear();

    // The system's handle (a file descriptor on Linux); -1 when none.
    qintptr m_handle = -1;
    // The object that watches m_handle in the watching thread's event loop.
    QObject *m_watch = nullptr;
};

} // namespace comm
