#pragma once

#include <QByteArray>
#include <QHostAddress>
#include <QList>
#include <QUdpSocket>

// A device on the other end of the network link, for tests: a UDP socket bound
// to a local address that records every datagram it receives and answers the
// port the last one came from.
class FakeUdpDevice
{
public:
    struct Datagram
    {
        QByteArray bytes;
        QHostAddress sender;
        quint16 senderPort = 0;
    };

    // Binds to address and port (0: an ephemeral port).
    explicit FakeUdpDevice(const QHostAddress &address = QHostAddress::LocalHost, quint16 port = 0);

    bool isBound() const;
    quint16 port() const;

    // Processes events and collects datagrams until at least count have
    // arrived in total, for at most timeoutMs.
    bool waitForDatagrams(int count, int timeoutMs = 5000);
    // Datagrams received so far, oldest first.
    QList<Datagram> datagrams();
    void clear();

    // Sends bytes to the address and port the last datagram came from.
    qint64 reply(const QByteArray &bytes);

private:
    void collect();

    QUdpSocket m_socket;
    QList<Datagram> m_received;
};
