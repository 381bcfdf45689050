#pragma once

#include <QObject>
#include <shared_mutex>

#include <QUdpSocket>

#include "PortUDP.h"
#include "TransportProbe.h"

// PortUDP with its state in view and its datagram writes recorded. Writes go
// to the real socket only for loopback destinations (or a null one, which the
// transport refuses by itself); a scripted result, when there is one, stands
// in for what the write returned.
class ProbePortUDP : public PortUDP
{
public:
    struct Write
    {
        QByteArray bytes;
        QHostAddress address;
        quint16 port = 0;
    };

    ProbePortUDP()
    {
        PortUDPPrivate *const d = PortUDPPrivate::get(this);
        d->writeSeam = [this, d](const char *bytes, qint64 size, const QHostAddress &address, quint16 port) {
            writes.append({QByteArray(bytes, static_cast<int>(size)), address, port});
            qint64 result = -1;
            if (address.isNull() || address.isLoopback())
                result = d->writeToSocket(bytes, size, address, port);
            return scriptedResults.isEmpty() ? result : scriptedResults.takeFirst();
        };
    }

    QUdpSocket *socket() const
    {
        std::shared_lock<std::shared_mutex> guard(socketGuard(*this));
        return m_udpSocket;
    }
    QString deviceIP() const { return locked(m_deviceIP); }
    int devicePort() const
    {
        std::lock_guard<std::mutex> guard(stdCMDlock);
        return m_port;
    }
    QByteArray pendingStdReply() const { return locked(m_pendingStdReply); }
    QByteArray blockBuffer() const { return locked(m_blockBuffer); }
    QByteArray lastDatagram() const { return locked(m_lastDatagram); }
    QByteArray spareBuffer() const { return locked(m_spareBuffer); }
    ModulelEnum::DeviceType deviceType() const { return m_deviceType.load(); }
    // How many connections signalReInitUdp() has to reInitUdp() and anything else.
    int rebuildConnections() const { return receivers(SIGNAL(signalReInitUdp())); }

    // Returns once the I/O thread has run everything handed or queued to it
    // before the call (a queued rebuild among them) and has parsed every
    // datagram waiting on the socket.
    void settle() { readPendingDatagrams(); }

    QList<Write> writes;
    QList<qint64> scriptedResults;

private:
    template <typename T>
    static T locked(const T &member)
    {
        std::lock_guard<std::mutex> guard(stdCMDlock);
        return member;
    }
};
