#pragma once

#include <QCoreApplication>
#include <QElapsedTimer>

#include <atomic>
#include <functional>
#include <thread>

// Runs work on a thread of its own while this thread's event loop keeps
// running, as an application's thread would, and returns once it has ended:
// true when it ended within timeoutMs.
inline bool runOnAnotherThread(const std::function<void()> &work, int timeoutMs = 5000)
{
    std::atomic<bool> done{false};
    std::thread other([&] {
        work();
        done = true;
    });
    QElapsedTimer clock;
    clock.start();
    while (!done && clock.elapsed() < timeoutMs)
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
    // Work that waits for this thread cannot end without it: serve the event
    // loop a while longer so that the thread can be joined, then report the
    // overrun. Beyond that the thread is stuck for good and the test's own
    // time limit ends the program.
    while (!done && clock.elapsed() < 4 * timeoutMs)
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
    other.join();
    return clock.elapsed() < timeoutMs;
}
