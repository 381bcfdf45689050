#pragma once

#include <QByteArray>
#include <QHostAddress>
#include <QString>
#include <QtGlobal>

#include "comm_module_export.h"

class PortBase;

/// One byte string a transport wrote to its link or read from it, as a
/// PortWireObserver sees it.
struct PortWirePacket
{
    /// The link, numbered as a reply record's link byte.
    enum Link : quint8 {
        Network = 0, ///< PortUDP: one datagram.
        Serial = 1,  ///< PortSerial: one write to the port, or what one read took from it.
        Usb = 2,     ///< PortUSB: one output report as written (report ID first, 65 bytes) or one input report as read.
    };
    /// Which way the bytes went.
    enum Direction : quint8 {
        Written = 0, ///< The library wrote them to the link.
        Read = 1,    ///< The library read them from the link.
    };

    /// The transport that did the I/O. Compare it with the transports you
    /// hold; do not call it from the observer.
    const PortBase *port = nullptr;
    /// The transport's link.
    Link link = Network;
    /// Which way the bytes went.
    Direction direction = Written;
    /// The other end: `address:port` on the network (the destination of a
    /// write, the sender of a read; an IPv6 address in brackets), the port's
    /// name on a serial line (`/dev/ttyUSB0`), `USB` on the USB link.
    QString peer;
    /// When the library saw the bytes: microseconds since 1970-01-01 UTC.
    qint64 timeUs = 0;
    /// The bytes, the observer's own copy.
    QByteArray bytes;
    /// Network only: the socket's own address as the system reports it (the
    /// wildcard address when it is bound to none) and port (0 before its
    /// first send has bound it).
    QHostAddress localAddress;
    /// Network only: see localAddress.
    quint16 localPort = 0;
    /// Network only: the peer's address, as in peer.
    QHostAddress remoteAddress;
    /// Network only: the peer's port, as in peer.
    quint16 remotePort = 0;
};

/// Sees every byte string every transport of the process writes to its link
/// and reads from it: for captures, consoles and logs of the wire.
///
/// Derive from it, implement observe(), and install() one object. With none
/// installed, each place where a transport does I/O costs one relaxed atomic
/// load and nothing else: no byte, record, log line or timing of the library
/// changes while nobody observes, nor while somebody does, apart from the time
/// observe() takes.
///
/// observe() runs on whichever thread did the I/O (a transport's I/O thread,
/// a sending thread, the USB reader), so it must be thread-safe and quick, and
/// it must not call the library (neither a transport nor install()).
class COMM_MODULE_EXPORT PortWireObserver
{
public:
    /// Makes an observer that is not installed.
    ///
    /// \threads
    /// Any thread.
    /// \logs
    /// Logs nothing.
    PortWireObserver();
    /// Removes this observer if it is the one installed, waiting until no call
    /// of observe() is running.
    ///
    /// A derived class whose observe() uses its own members should call
    /// install(nullptr) in its own destructor, before those members go.
    /// \threads
    /// Any thread but one inside observe().
    /// \logs
    /// Logs nothing.
    virtual ~PortWireObserver();

    /// Not copyable: the library holds on to the object installed.
    ///
    /// \threads
    /// None: deleted.
    /// \logs
    /// Logs nothing.
    PortWireObserver(const PortWireObserver &) = delete;
    /// Not assignable: the library holds on to the object installed.
    ///
    /// \threads
    /// None: deleted.
    /// \logs
    /// Logs nothing.
    /// \return Never: deleted.
    PortWireObserver &operator=(const PortWireObserver &) = delete;

    /// Called with every byte string a transport wrote or read, in the order
    /// each thread did the I/O.
    ///
    /// Returns nothing.
    /// \param packet What went over the wire; valid for the call only (its
    /// members are the observer's own copies and may be copied out).
    /// \threads
    /// Any thread of the library; calls from different threads may overlap.
    /// \logs
    /// The library logs nothing around it.
    virtual void observe(const PortWirePacket &packet) = 0;

    /// Installs observer, replacing the one installed before; null removes it.
    ///
    /// Returns nothing, once no call of the previous observer is running, so
    /// that it may be destroyed afterwards.
    /// \param observer The observer, or null; it stays the caller's.
    /// \threads
    /// Any thread but one inside observe().
    /// \logs
    /// Logs nothing.
    static void install(PortWireObserver *observer);

    /// The observer installed now.
    ///
    /// \threads
    /// Any thread.
    /// \logs
    /// Logs nothing.
    /// \return The observer, or null when none is installed.
    static PortWireObserver *installed();
};
