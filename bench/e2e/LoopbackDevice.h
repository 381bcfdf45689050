#pragma once

#include <atomic>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include <QByteArray>
#include <QtGlobal>

#include <netinet/in.h>

#include "Measure.h"

namespace e2e {

// A device on 127.0.0.1 for the network figures. A thread of its own (no Qt
// event loop) answers every datagram it receives with the reply set last, so
// that the side being measured has the main thread to itself. It can also
// send replies unasked, paced by how many the receiving side has taken.
class LoopbackDevice
{
public:
    LoopbackDevice();
    ~LoopbackDevice();
    LoopbackDevice(const LoopbackDevice &) = delete;
    LoopbackDevice &operator=(const LoopbackDevice &) = delete;

    bool isValid() const { return m_socket >= 0; }
    quint16 port() const { return m_port; }

    // Every datagram received from now on is answered with reply, sent back to
    // where it came from; an empty reply: no answer.
    void answerWith(const QByteArray &reply);

    // Datagrams received so far.
    long received() const { return m_received.load(); }

    // A datagram to send unasked, and how many records it completes at the
    // receiving side (a reply that waits for block data completes none, the
    // block datagram completes it).
    struct Datagram
    {
        QByteArray bytes;
        int completes = 1;
    };
    struct PacedResult
    {
        long sentRecords = 0;
        Clock::time_point first;
        // taken() stopped moving for a second with replies outstanding: the
        // sending stopped there.
        bool stalled = false;
        bool deadlineReached = false; // the sending stopped at the deadline
    };
    // Sends datagrams from cycle, in turn, to the sender of the last datagram
    // received, until they complete `records` records, never running more than
    // `window` records ahead of taken(). Runs on the calling thread; returns
    // once all are sent, at the deadline, or when taken() stalls.
    PacedResult sendPaced(const std::vector<Datagram> &cycle, long records, long window,
                          const std::function<long()> &taken, Clock::time_point deadline);

private:
    void serve();

    int m_socket = -1;
    quint16 m_port = 0;
    std::atomic<bool> m_stop{false};
    std::atomic<long> m_received{0};
    mutable std::mutex m_lock;
    QByteArray m_reply;   // guarded by m_lock
    sockaddr_in m_peer{}; // guarded by m_lock
    std::thread m_thread;
};

} // namespace e2e
