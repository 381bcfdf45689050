#pragma once

#include <atomic>

#include <QHostAddress>
#include <QString>
#include <QtGlobal>

#include "PortWireObserver.h"

// Where the transports hand what they write and read to the installed
// PortWireObserver: at the one place each transport does its I/O. With no
// observer installed each call costs one relaxed atomic load; the packet,
// its copy of the bytes and its peer text are only made while one is.
namespace comm::wiretap {

using Link = PortWirePacket::Link;
using Direction = PortWirePacket::Direction;

namespace detail {
extern std::atomic<bool> g_installed;
void stream(const PortBase *port, Link link, Direction direction, const QString &peer, const char *bytes,
            qint64 size);
void datagram(const PortBase *port, Direction direction, const char *bytes, qint64 size, qintptr socketDescriptor,
              const QHostAddress &remoteAddress, quint16 remotePort);
} // namespace detail

// Bytes of a serial line or a USB device; peer() gives the peer's text and is
// only called while an observer is installed.
template <typename Peer>
inline void stream(const PortBase *port, Link link, Direction direction, Peer &&peer, const char *bytes, qint64 size)
{
    if (detail::g_installed.load(std::memory_order_relaxed))
        detail::stream(port, link, direction, peer(), bytes, size);
}

// One datagram of the network link on the socket behind socketDescriptor,
// whose own address and port are looked up only while an observer is there.
inline void datagram(const PortBase *port, Direction direction, const char *bytes, qint64 size,
                     qintptr socketDescriptor, const QHostAddress &remoteAddress, quint16 remotePort)
{
    if (detail::g_installed.load(std::memory_order_relaxed))
        detail::datagram(port, direction, bytes, size, socketDescriptor, remoteAddress, remotePort);
}

} // namespace comm::wiretap
