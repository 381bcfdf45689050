#include "WireTap.h"

#include <mutex>
#include <shared_mutex>

#include <netinet/in.h>
#include <sys/socket.h>

namespace comm::wiretap {

namespace detail {
std::atomic<bool> g_installed{false};
} // namespace detail

namespace {
// Guards the observer and its context: calls share it, install() takes it
// alone and so waits for calls in progress. Only taken while an observer is
// installed (or just being removed).
std::shared_mutex g_lock;
Observer g_observer = nullptr;
void *g_context = nullptr;

void deliver(const Packet &packet)
{
    std::shared_lock<std::shared_mutex> guard(g_lock);
    if (g_observer)
        g_observer(packet, g_context);
}
} // namespace

void install(Observer observer, void *context)
{
    std::unique_lock<std::shared_mutex> guard(g_lock);
    g_observer = observer;
    g_context = observer ? context : nullptr;
    detail::g_installed.store(observer != nullptr, std::memory_order_relaxed);
}

namespace detail {

void stream(Link link, Direction direction, const char *bytes, qint64 size)
{
    Packet packet;
    packet.link = link;
    packet.direction = direction;
    packet.bytes = bytes;
    packet.size = size;
    deliver(packet);
}

void datagram(Direction direction, const char *bytes, qint64 size, qintptr socketDescriptor,
              const QHostAddress &remoteAddress, quint16 remotePort)
{
    Packet packet;
    packet.link = Link::Network;
    packet.direction = direction;
    packet.bytes = bytes;
    packet.size = size;
    packet.remoteAddress = remoteAddress;
    packet.remotePort = remotePort;
    sockaddr_storage local{};
    socklen_t localSize = sizeof(local);
    if (socketDescriptor >= 0
        && ::getsockname(static_cast<int>(socketDescriptor), reinterpret_cast<sockaddr *>(&local), &localSize) == 0) {
        int port = 0;
        packet.localAddress.setAddress(reinterpret_cast<const sockaddr *>(&local));
        if (local.ss_family == AF_INET)
            port = ntohs(reinterpret_cast<const sockaddr_in *>(&local)->sin_port);
        else if (local.ss_family == AF_INET6)
            port = ntohs(reinterpret_cast<const sockaddr_in6 *>(&local)->sin6_port);
        packet.localPort = static_cast<quint16>(port);
    }
    deliver(packet);
}

} // namespace detail

} // namespace comm::wiretap
