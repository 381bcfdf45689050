#pragma once

// The network transport's machinery, behind PortUDP's private pointer: the
// I/O thread that owns the socket, the guard that keeps the socket in place
// while it is used, and the reply path. Not installed; tests reach the
// transport's seams through it.

#include <atomic>
#include <functional>
#include <shared_mutex>

#include <QHostAddress>

#include "DatagramReplyParser.h"
#include "IoThread.h"
#include "PortUDP.h"
#include "ReceiveQueueSink.h"

namespace comm {
struct SendOutcome;
} // namespace comm

class PortUDPPrivate
{
public:
    explicit PortUDPPrivate(PortUDP &port);

    static PortUDPPrivate *get(PortUDP *port) { return port->d.get(); }
    static const PortUDPPrivate *get(const PortUDP *port) { return port->d.get(); }

    enum class Rebuild {
        DropDeviceAddress, // reInitUdp: buffered input and device address go too
        KeepDeviceAddress, // reInitUdpZabrel
    };

    // Closes the socket on the I/O thread, ends that thread and waits for the
    // reply hand-offs: the destructor's work.
    void shutDown();
    // Makes the socket and its connections, on the I/O thread.
    void initSocket();
    void rebuildSocket(Rebuild kind);
    // Reads and parses every datagram waiting, on the I/O thread.
    void readPending();
    void sendUnicast(const QByteArray &data);
    void sendBroadcast(const QByteArray &data);

    // The single place where datagrams are written. A null address (a device
    // address that does not parse, or the empty one reInitUdp() leaves) is
    // refused with -1 and nothing is sent. Called with the socket guard held:
    // on the I/O thread while the socket is not bound yet, on the sending
    // thread once it is. Goes through writeSeam when a test has set one.
    qint64 writeDatagramTo(const char *bytes, qint64 size, const QHostAddress &address, quint16 port);
    // What writeDatagramTo does without a seam.
    qint64 writeToSocket(const char *bytes, qint64 size, const QHostAddress &address, quint16 port);

    // Test seam: stands in for every datagram write; set before any send.
    std::function<qint64(const char *bytes, qint64 size, const QHostAddress &address, quint16 port)> writeSeam;

    // Guards the socket against a rebuild while it is used. Sends may run on
    // any thread while a rebuild replaces the socket on the I/O thread: sends
    // and reads hold it shared, rebuild and destruction hold it exclusively.
    // Sends do not serialise each other through it.
    mutable std::shared_mutex socketGuard;

    comm::ReceiveQueueSink sink;
    comm::DatagramReplyParser parser;
    // Where the socket lives; started before it is made, stopped after it is gone.
    comm::IoThread io;

private:
    // Disconnects, closes and deletes the socket and drops the reply state.
    // Called with the socket guard held exclusively.
    void tearDownSocket(Rebuild kind);
    // Makes the socket and its connections; called with the socket guard
    // held exclusively, on the I/O thread.
    void createSocket();
    // Logs a send's outcome and asks for a rebuild where it calls for one.
    void reportSend(const comm::SendOutcome &outcome);
    // Writes with the socket guard held shared: on the calling thread when
    // the socket is bound, else carried to the I/O thread.
    template <typename Write>
    auto withSocketForSend(Write write) -> decltype(write());

    PortUDP &q;
    // The bound socket's descriptor, -1 until its first send has bound it,
    // and its address family. Become valid on the I/O thread with the guard
    // held shared (the family first), and the descriptor goes back to -1 only
    // with the guard held exclusively.
    std::atomic<qintptr> m_boundDescriptor{-1};
    std::atomic<int> m_boundFamily{0};
    // Set by the destructor's teardown; only touched on the I/O thread.
    bool m_tornDown = false;
};
