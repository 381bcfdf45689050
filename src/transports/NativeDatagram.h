#pragma once

#include <QHostAddress>
#include <QtGlobal>

namespace comm {

// Datagram sends on the network transport's socket, with the system's own
// calls. One implementation per system (NativeDatagram_unix.cpp: BSD
// sockets); see docs/porting.md.

// A bound socket's descriptor (as QAbstractSocket::socketDescriptor gives it)
// and address family, looked up once when it is bound rather than on every
// datagram. The family is the system's own number for it, which only
// boundSocket sets and only sendDatagram reads.
struct BoundSocket
{
    qintptr descriptor = -1;
    int family = 0;
};

// The socket behind descriptor, with its family; an invalid one (descriptor
// -1) when the family cannot be read.
BoundSocket boundSocket(qintptr descriptor);

// Writes one datagram on an already bound UDP socket descriptor, from any
// thread. Once Qt has bound the network transport's socket, sends no longer
// need the socket's own thread: the kernel's send call is thread-safe, and Qt's
// socket object is not touched. The destination is written the way Qt writes
// it: an IPv4 address on a dual-stack IPv6 socket as its IPv4-mapped form.
// Returns the byte count, or -1 on any failure (as QUdpSocket::writeDatagram).
qint64 sendDatagram(const BoundSocket &socket, const char *bytes, qint64 size, const QHostAddress &address,
                    quint16 port);

} // namespace comm
