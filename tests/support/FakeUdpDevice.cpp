#include "FakeUdpDevice.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QThread>

FakeUdpDevice::FakeUdpDevice(const QHostAddress &address, quint16 port)
{
    m_socket.bind(address, port);
}

bool FakeUdpDevice::isBound() const
{
    return m_socket.state() == QAbstractSocket::BoundState;
}

quint16 FakeUdpDevice::port() const
{
    return m_socket.localPort();
}

void FakeUdpDevice::collect()
{
    // Bounded: a test never has more than a few hundred datagrams in flight.
    for (int i = 0; i < 10000 && m_socket.hasPendingDatagrams(); ++i) {
        Datagram datagram;
        datagram.bytes.resize(static_cast<int>(qMax<qint64>(m_socket.pendingDatagramSize(), 0)));
        const qint64 read = m_socket.readDatagram(datagram.bytes.data(), datagram.bytes.size(), &datagram.sender,
                                                  &datagram.senderPort);
        if (read < 0)
            break;
        datagram.bytes.truncate(static_cast<int>(read));
        m_received.append(datagram);
    }
}

bool FakeUdpDevice::waitForDatagrams(int count, int timeoutMs)
{
    QElapsedTimer timer;
    timer.start();
    while (true) {
        collect();
        if (m_received.size() >= count)
            return true;
        if (timer.elapsed() >= timeoutMs)
            return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
        QThread::msleep(2);
    }
}

QList<FakeUdpDevice::Datagram> FakeUdpDevice::datagrams()
{
    collect();
    return m_received;
}

void FakeUdpDevice::clear()
{
    collect();
    m_received.clear();
}

qint64 FakeUdpDevice::reply(const QByteArray &bytes)
{
    if (m_received.isEmpty())
        return -1;
    const Datagram &last = m_received.last();
    return m_socket.writeDatagram(bytes, last.sender, last.senderPort);
}
