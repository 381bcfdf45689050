#pragma once

#include <atomic>

#include <QHostAddress>
#include <QtGlobal>

// A process-wide hook that sees every byte the transports write to and read
// from their link, at the one place each transport does that I/O. commctl
// installs one to write a capture file; an application does not see it (this
// header is not installed).
//
// With no observer installed each call site costs one relaxed atomic load and
// nothing else happens: no byte, log line, return value or timing of the
// library changes. The observer runs on whichever thread did the I/O (the
// network and serial I/O threads, a sending thread, the USB reader), so it
// must be thread-safe, quick, and must not call back into the library or into
// install().
namespace comm::wiretap {

// The same numbers as a record's link byte.
enum class Link : quint8 { Network = 0, Serial = 1, Usb = 2 };

enum class Direction : quint8 {
    Written = 0, // the library wrote these bytes to the link
    Read = 1,    // the library read these bytes from the link
};

struct Packet
{
    Link link = Link::Network;
    Direction direction = Direction::Written;
    // A datagram, a serial write or read, a USB output report as written
    // (report ID first, 65 bytes) or an input report as read.
    const char *bytes = nullptr;
    qint64 size = 0;
    // Network only. The socket's own address as the kernel reports it (the
    // wildcard address when it is bound to none) and port (0 when not yet
    // bound), and the peer: the destination of a write, the sender of a read.
    QHostAddress localAddress;
    quint16 localPort = 0;
    QHostAddress remoteAddress;
    quint16 remotePort = 0;
};

using Observer = void (*)(const Packet &packet, void *context);

// Installs observer with its context, replacing any other; null removes it.
// Returns once no call of the previous observer is still running, so its
// context may be freed after install(nullptr, nullptr) returns.
void install(Observer observer, void *context);

namespace detail {
extern std::atomic<bool> g_installed;
void stream(Link link, Direction direction, const char *bytes, qint64 size);
void datagram(Direction direction, const char *bytes, qint64 size, qintptr socketDescriptor,
              const QHostAddress &remoteAddress, quint16 remotePort);
} // namespace detail

// Bytes of a serial line or a USB device.
inline void stream(Link link, Direction direction, const char *bytes, qint64 size)
{
    if (detail::g_installed.load(std::memory_order_relaxed))
        detail::stream(link, direction, bytes, size);
}

// One datagram of the network link on the socket behind socketDescriptor,
// whose own address and port are looked up only while an observer is there.
inline void datagram(Direction direction, const char *bytes, qint64 size, qintptr socketDescriptor,
                     const QHostAddress &remoteAddress, quint16 remotePort)
{
    if (detail::g_installed.load(std::memory_order_relaxed))
        detail::datagram(direction, bytes, size, socketDescriptor, remoteAddress, remotePort);
}

} // namespace comm::wiretap
