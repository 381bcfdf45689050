#pragma once

#include <QElapsedTimer>
#include <QEvent>
#include <QObject>
#include <QThread>
#include <QUdpSocket>

#include "PortUDP.h"

// PortUDP with its state in view and its datagram writes recorded. Writes go
// to the real socket only for loopback destinations (or a null one, which the
// transport refuses by itself); a scripted result, when there is one, stands
// in for what the write returned.
class ProbePortUDP : public PortUDP
{
public:
    struct Write {
        QByteArray bytes;
        QHostAddress address;
        quint16 port = 0;
    };

    QUdpSocket *socket() const { return m_udpSocket; }
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

    // Waits, without running the event loop, until a datagram is waiting on
    // the socket, so that a test can call readPendingDatagrams() itself.
    bool waitForPendingDatagram(int timeoutMs = 5000)
    {
        QElapsedTimer timer;
        timer.start();
        while (!m_udpSocket->hasPendingDatagrams()) {
            if (timer.elapsed() >= timeoutMs)
                return false;
            QThread::msleep(2);
        }
        return true;
    }

    QList<Write> writes;
    QList<qint64> scriptedResults;

protected:
    qint64 writeDatagramTo(const char *bytes, qint64 size, const QHostAddress &address, quint16 port) override
    {
        writes.append({QByteArray(bytes, static_cast<int>(size)), address, port});
        qint64 result = -1;
        if (address.isNull() || address.isLoopback())
            result = PortUDP::writeDatagramTo(bytes, size, address, port);
        return scriptedResults.isEmpty() ? result : scriptedResults.takeFirst();
    }

private:
    template <typename T>
    static T locked(const T &member)
    {
        std::lock_guard<std::mutex> guard(stdCMDlock);
        return member;
    }
};

// Counts the queued slot calls that reach an object.
class MetaCallCounter : public QObject
{
public:
    int count = 0;

protected:
    bool eventFilter(QObject *, QEvent *event) override
    {
        if (event->type() == QEvent::MetaCall)
            ++count;
        return false;
    }
};
