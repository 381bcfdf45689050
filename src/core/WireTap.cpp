#include "WireTap.h"

#include <chrono>
#include <mutex>
#include <shared_mutex>

#include "SocketName.h"

namespace comm::wiretap {

namespace detail {
std::atomic<bool> g_installed{false};
} // namespace detail

namespace {
// Guards the observer: calls share it, install() takes it alone and so waits
// for calls in progress. Only taken while an observer is installed (or just
// being removed).
std::shared_mutex g_lock;
PortWireObserver *g_observer = nullptr;

void deliver(PortWirePacket &packet)
{
    packet.timeUs = std::chrono::duration_cast<std::chrono::microseconds>(
                        std::chrono::system_clock::now().time_since_epoch())
                        .count();
    std::shared_lock<std::shared_mutex> guard(g_lock);
    if (g_observer)
        g_observer->observe(packet);
}

QString endpointText(const QHostAddress &address, quint16 port)
{
    const QString host = address.protocol() == QAbstractSocket::IPv6Protocol
                             ? QLatin1Char('[') + address.toString() + QLatin1Char(']')
                             : address.toString();
    return host + QLatin1Char(':') + QString::number(port);
}

void install(PortWireObserver *observer)
{
    std::unique_lock<std::shared_mutex> guard(g_lock);
    g_observer = observer;
    detail::g_installed.store(observer != nullptr, std::memory_order_relaxed);
}

PortWireObserver *installed()
{
    std::shared_lock<std::shared_mutex> guard(g_lock);
    return g_observer;
}

void uninstall(PortWireObserver *observer)
{
    std::unique_lock<std::shared_mutex> guard(g_lock);
    if (g_observer != observer)
        return;
    g_observer = nullptr;
    detail::g_installed.store(false, std::memory_order_relaxed);
}
} // namespace

namespace detail {

void stream(const PortBase *port, Link link, Direction direction, const QString &peer, const char *bytes,
            qint64 size)
{
    PortWirePacket packet;
    packet.port = port;
    packet.link = link;
    packet.direction = direction;
    packet.peer = peer;
    packet.bytes = QByteArray(bytes, static_cast<int>(size));
    deliver(packet);
}

void datagram(const PortBase *port, Direction direction, const char *bytes, qint64 size, qintptr socketDescriptor,
              const QHostAddress &remoteAddress, quint16 remotePort)
{
    PortWirePacket packet;
    packet.port = port;
    packet.link = Link::Network;
    packet.direction = direction;
    packet.peer = endpointText(remoteAddress, remotePort);
    packet.bytes = QByteArray(bytes, static_cast<int>(size));
    packet.remoteAddress = remoteAddress;
    packet.remotePort = remotePort;
    socketName(socketDescriptor, &packet.localAddress, &packet.localPort);
    deliver(packet);
}

} // namespace detail

} // namespace comm::wiretap

PortWireObserver::PortWireObserver() = default;

PortWireObserver::~PortWireObserver()
{
    comm::wiretap::uninstall(this);
}

void PortWireObserver::install(PortWireObserver *observer)
{
    comm::wiretap::install(observer);
}

PortWireObserver *PortWireObserver::installed()
{
    return comm::wiretap::installed();
}
