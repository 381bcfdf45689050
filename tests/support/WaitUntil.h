#pragma once

#include <QElapsedTimer>
#include <QTest>

// Polls condition until it holds, for timeoutMs at most, keeping this
// thread's events going. Whether it held.
template <typename Condition>
bool waitUntil(Condition condition, int timeoutMs)
{
    QElapsedTimer timer;
    timer.start();
    while (!condition()) {
        if (timer.elapsed() > timeoutMs)
            return false;
        QTest::qWait(10);
    }
    return true;
}
