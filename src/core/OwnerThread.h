#pragma once

#include <QMetaObject>
#include <QObject>
#include <QThread>

#include <utility>

namespace comm {

// Runs work on the thread that owns owner and returns when it is done. Qt's
// sockets and serial ports may only be used from the thread they live in: a
// send invoked from another thread is carried over to the owner's thread (its
// event loop must be running) and the caller waits for it, so the send stays
// synchronous for the caller.
template <typename Work>
void runOnOwnerThread(QObject *owner, Work &&work)
{
    if (QThread::currentThread() == owner->thread()) {
        work();
        return;
    }
    QMetaObject::invokeMethod(owner, [&work] { work(); }, Qt::BlockingQueuedConnection);
}

} // namespace comm
