#include "LoopbackDevice.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

namespace e2e {

namespace {
// The device lives at most this long, whatever happens to the program.
constexpr auto kLifetime = std::chrono::minutes(60);
constexpr auto kStall = std::chrono::seconds(1);
} // namespace

LoopbackDevice::LoopbackDevice()
{
    m_socket = ::socket(AF_INET, SOCK_DGRAM, 0);
    if (m_socket < 0)
        return;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = 0;
    socklen_t length = sizeof address;
    timeval timeout{0, 10000}; // the serving thread looks at its stop flag every 10 ms
    if (::bind(m_socket, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0
        || ::getsockname(m_socket, reinterpret_cast<sockaddr *>(&address), &length) != 0
        || ::setsockopt(m_socket, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout) != 0) {
        ::close(m_socket);
        m_socket = -1;
        return;
    }
    m_port = ntohs(address.sin_port);
    m_thread = std::thread([this] { serve(); });
}

LoopbackDevice::~LoopbackDevice()
{
    m_stop = true;
    if (m_thread.joinable())
        m_thread.join();
    if (m_socket >= 0)
        ::close(m_socket);
}

void LoopbackDevice::answerWith(const QByteArray &reply)
{
    std::lock_guard<std::mutex> guard(m_lock);
    m_reply = QByteArray(reply.constData(), reply.size());
}

void LoopbackDevice::serve()
{
    const Clock::time_point end = Clock::now() + kLifetime;
    char buffer[2048];
    while (!m_stop.load() && Clock::now() < end) {
        sockaddr_in sender{};
        socklen_t length = sizeof sender;
        const ssize_t n = ::recvfrom(m_socket, buffer, sizeof buffer, 0, reinterpret_cast<sockaddr *>(&sender),
                                     &length);
        if (n < 0)
            continue; // time-out: look at the stop flag
        QByteArray reply;
        {
            std::lock_guard<std::mutex> guard(m_lock);
            m_peer = sender;
            reply = m_reply;
        }
        ++m_received;
        if (!reply.isEmpty())
            ::sendto(m_socket, reply.constData(), size_t(reply.size()), 0, reinterpret_cast<sockaddr *>(&sender),
                     sizeof sender);
    }
}

LoopbackDevice::PacedResult LoopbackDevice::sendPaced(const std::vector<Datagram> &cycle, long records, long window,
                                                      const std::function<long()> &taken, Clock::time_point deadline)
{
    PacedResult result;
    sockaddr_in peer{};
    {
        std::lock_guard<std::mutex> guard(m_lock);
        peer = m_peer;
    }
    result.first = Clock::now();
    long lastTaken = -1;
    Clock::time_point lastProgress = result.first;
    size_t next = 0;
    // Bounded by the record count, the deadline and the stall time.
    while (result.sentRecords < records) {
        const Clock::time_point now = Clock::now();
        if (now >= deadline) {
            result.deadlineReached = true;
            break;
        }
        const long done = taken();
        if (done != lastTaken) {
            lastTaken = done;
            lastProgress = now;
        } else if (now - lastProgress > kStall) {
            result.stalled = true;
            break;
        }
        const Datagram &datagram = cycle[next];
        if (result.sentRecords + datagram.completes - done > window) {
            // The receiving side is a window behind: let it catch up.
            std::this_thread::sleep_for(std::chrono::microseconds(50));
            continue;
        }
        if (::sendto(m_socket, datagram.bytes.constData(), size_t(datagram.bytes.size()), 0,
                     reinterpret_cast<const sockaddr *>(&peer), sizeof peer)
            < 0)
            continue; // the socket's send buffer is full: try again
        result.sentRecords += datagram.completes;
        next = (next + 1) % cycle.size();
    }
    return result;
}

} // namespace e2e
