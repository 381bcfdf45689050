#include "core_udp_p.h"

#include <QNetworkInterface>
#include <QUdpSocket>
#include <QVariant>

#include "CommandFrame.h"
#include "DatagramSend.h"
#include "DebugLog.h"
#include "FrameHexText.h"
#include "LocalAddress.h"
#include "NativeDatagram.h"
#include "WireTap.h"

std::mutex PortUDP::stdCMDlock;

namespace {
const char kDefaultDeviceAddress[] = "100.100.100.100";
constexpr int kReceiveBufferSize = 4096;

} // namespace

// Reply parsing works on the transport's buffers and hands records to a sink
// that drops them while the deal flag is false.
PortUDPPrivate::PortUDPPrivate(PortUDP &port)
    : sink(&port.m_dealFlag)
    , parser({port.m_lastDatagram, port.m_pendingStdReply, port.m_blockBuffer, PortUDP::stdCMDlock}, sink)
    , io("PortUDP-io")
    , q(port)
{
}

void PortUDPPrivate::reportSend(const comm::SendOutcome &outcome)
{
    comm::debugLine(QString::fromLatin1(outcome.logText));
    if (!outcome.rebuildSocket)
        return;
    // Emitted on the I/O thread, whose next pass runs the queued rebuild:
    // after this send, whichever thread sent.
    io.run([this] { emit q.signalReInitUdp(); });
}

PortUDP::PortUDP()
    : d(std::make_unique<PortUDPPrivate>(*this))
{
    initUdp();
    m_deviceIP = QString::fromLatin1(kDefaultDeviceAddress);
}

PortUDP::~PortUDP()
{
    d->shutDown();
}

void PortUDPPrivate::shutDown()
{
    // Destructors do not throw here; should a step throw all the same, the
    // process ends rather than leave a half-destroyed transport behind.
    //
    // Nothing of this object lives on the thread it was made on (its socket is
    // on the I/O thread, and nothing is ever posted to it), so it may be
    // deleted from any thread. The teardown runs before the I/O thread ends;
    // a rebuild still queued behind it finds the transport torn down and
    // makes no socket.
    io.run([this] {
        // Made on this thread, and undone here too.
        QObject::disconnect(&q, &PortUDP::signalReInitUdp, nullptr, nullptr);
        std::unique_lock<std::shared_mutex> guard(socketGuard);
        m_tornDown = true;
        tearDownSocket(Rebuild::DropDeviceAddress);
    });
    io.stop();
    // Hand-offs, block combinations and queue clearing refer to the sink.
    sink.waitForDetachedWork();
}

void PortUDP::initUdp()
{
    d->initSocket();
}

void PortUDPPrivate::initSocket()
{
    io.run([this] {
        std::unique_lock<std::shared_mutex> guard(socketGuard);
        createSocket();
    });
}

void PortUDPPrivate::createSocket()
{
    // Looked up as always, but never bound to: the socket takes an ephemeral
    // port on its first send, and replies come back to that port.
    const QString localAddress = comm::localIPv4Address(QNetworkInterface::allAddresses());
    Q_UNUSED(localAddress)

    auto *socket = new QUdpSocket();
    // On a socket that is not bound yet Qt keeps nothing of this option.
    socket->setSocketOption(QAbstractSocket::ReceiveBufferSizeSocketOption, QVariant(kReceiveBufferSize));
    // Direct: readyRead() is emitted on the I/O thread, and parsing runs there.
    QObject::connect(socket, &QUdpSocket::readyRead, &q, &PortUDP::readPendingDatagrams, Qt::DirectConnection);
    // Made again on every build and only removed by the destructor: after n
    // rebuilds one emission queues n + 1 rebuilds, each on the I/O thread's
    // next pass.
    QObject::connect(
        &q, &PortUDP::signalReInitUdp, io.context(), [this] { q.reInitUdp(); }, Qt::QueuedConnection);
    q.m_udpSocket = socket;
    m_boundDescriptor = -1;
}

void PortUDPPrivate::tearDownSocket(Rebuild kind)
{
    m_boundDescriptor = -1;
    QUdpSocket *const socket = q.m_udpSocket;
    if (socket) {
        QObject::disconnect(socket, &QUdpSocket::readyRead, &q, &PortUDP::readPendingDatagrams);
        // Drops buffered input. A UDP socket that is not connected is never
        // open for reading, and Qt would only warn about it.
        if (kind == Rebuild::DropDeviceAddress && socket->isOpen())
            socket->readAll();
        socket->close();
    }
    {
        std::lock_guard<std::mutex> guard(PortUDP::stdCMDlock);
        q.m_blockBuffer.clear();
        q.m_lastDatagram.clear();
        if (kind == Rebuild::DropDeviceAddress)
            q.m_deviceIP.clear();
        q.m_pendingStdReply.clear();
        q.m_spareBuffer.clear();
    }
    delete socket;
    q.m_udpSocket = nullptr;
}

void PortUDPPrivate::rebuildSocket(Rebuild kind)
{
    // Closed and made again on the I/O thread, where its replies are read,
    // whichever thread asked for the rebuild.
    io.run([this, kind] {
        // One step for the threads that send: they find the old socket or
        // the new one, never none.
        std::unique_lock<std::shared_mutex> guard(socketGuard);
        if (m_tornDown)
            return; // queued before the destructor's teardown, run after it
        tearDownSocket(kind);
        createSocket();
    });
}

void PortUDP::reInitUdp()
{
    d->rebuildSocket(PortUDPPrivate::Rebuild::DropDeviceAddress);
}

void PortUDP::reInitUdpZabrel()
{
    d->rebuildSocket(PortUDPPrivate::Rebuild::KeepDeviceAddress);
}

void PortUDP::setDeviceIP(QString ip)
{
    std::lock_guard<std::mutex> guard(stdCMDlock);
    m_deviceIP = ip;
}

void PortUDP::setPort(int port)
{
    std::lock_guard<std::mutex> guard(stdCMDlock);
    m_port = port;
}

void PortUDP::clearQueue()
{
    d->sink.clearQueueDetached(m_cmdDeal);
}

void PortUDP::setDeviceType(ModulelEnum::DeviceType type)
{
    m_deviceType.store(type);
}

void PortUDP::sendDatatoDevice(void *parameters)
{
    const ProtocolData record = *static_cast<const ProtocolData *>(parameters);
    const quint8 mode = record.sendMode;
    if (mode != 0 && mode != 1) {
        comm::debugLine(QStringLiteral("Send data abnormal"));
        return;
    }
    const QByteArray frame = produceCmds(record);
    if (mode == 0)
        sendUdpData(frame);
    else
        sendUdpDataBroadcast(frame);
    comm::debugLine(QStringLiteral("Send data:"), frame);
}

qint64 PortUDPPrivate::writeDatagramTo(const char *bytes, qint64 size, const QHostAddress &address, quint16 port)
{
    if (writeSeam)
        return writeSeam(bytes, size, address, port);
    return writeToSocket(bytes, size, address, port);
}

qint64 PortUDPPrivate::writeToSocket(const char *bytes, qint64 size, const QHostAddress &address, quint16 port)
{
    // Qt would send a datagram for a null address to the local host; the
    // network link reports it as a failed write instead.
    QUdpSocket *const socket = q.m_udpSocket;
    if (address.isNull() || !socket)
        return -1;
    const qintptr bound = m_boundDescriptor;
    if (bound >= 0) {
        const qint64 written = comm::sendDatagram({bound, m_boundFamily}, bytes, size, address, port);
        if (written >= 0)
            comm::wiretap::datagram(&q, comm::wiretap::Direction::Written, bytes, written, bound, address, port);
        return written;
    }
    // The first send, on the I/O thread: Qt binds the socket to an ephemeral
    // port and starts watching it for replies.
    const qint64 written = socket->writeDatagram(bytes, size, address, port);
    if (socket->state() == QAbstractSocket::BoundState) {
        const comm::BoundSocket boundSocket = comm::boundSocket(socket->socketDescriptor());
        m_boundFamily = boundSocket.family;
        m_boundDescriptor = boundSocket.descriptor;
    }
    if (written >= 0)
        comm::wiretap::datagram(&q, comm::wiretap::Direction::Written, bytes, written, socket->socketDescriptor(),
                                address, port);
    return written;
}

template <typename Write>
auto PortUDPPrivate::withSocketForSend(Write write) -> decltype(write())
{
    {
        std::shared_lock<std::shared_mutex> guard(socketGuard);
        // Once bound, the socket stays bound while the guard is held.
        if (m_boundDescriptor >= 0 || io.isCurrent())
            return write();
    }
    decltype(write()) result{};
    io.run([&] {
        std::shared_lock<std::shared_mutex> guard(socketGuard);
        result = write();
    });
    return result;
}

void PortUDP::sendUdpData(QByteArray data)
{
    d->sendUnicast(data);
}

void PortUDPPrivate::sendUnicast(const QByteArray &data)
{
    QString deviceIP;
    quint16 port = 0;
    {
        std::lock_guard<std::mutex> guard(PortUDP::stdCMDlock);
        deviceIP = q.m_deviceIP;
        port = static_cast<quint16>(q.m_port);
    }
    const QHostAddress address(deviceIP);
    const int sent = withSocketForSend([&] {
        return comm::writeInDatagrams(data, [&](const char *bytes, int size, int) {
            return writeDatagramTo(bytes, size, address, port);
        });
    });
    reportSend(comm::unicastOutcome(sent, data.size()));
}

void PortUDP::sendUdpDataBroadcast(QByteArray data)
{
    d->sendBroadcast(data);
}

void PortUDPPrivate::sendBroadcast(const QByteArray &data)
{
    quint16 port = 0;
    {
        std::lock_guard<std::mutex> guard(PortUDP::stdCMDlock);
        port = static_cast<quint16>(q.m_port);
    }
    const qint64 result = withSocketForSend(
        [&] { return writeDatagramTo(data.constData(), data.size(), QHostAddress(QHostAddress::Broadcast), port); });
    reportSend(comm::broadcastOutcome(result, data.size()));
}

void PortUDP::readPendingDatagrams()
{
    d->io.run([this] { d->readPending(); });
}

void PortUDPPrivate::readPending()
{
    // Bounded by what the socket holds: each pass takes one datagram.
    while (true) {
        QByteArray datagram;
        QHostAddress sender;
        quint16 senderPort = 0;
        {
            std::shared_lock<std::shared_mutex> guard(socketGuard);
            QUdpSocket *const socket = q.m_udpSocket;
            // A socket that no send has bound yet has nothing to read.
            if (!socket || socket->state() != QAbstractSocket::BoundState || !socket->hasPendingDatagrams())
                return;
            const qint64 size = socket->pendingDatagramSize();
            datagram.resize(static_cast<int>(qMax<qint64>(size, 0)));
            const qint64 read = socket->readDatagram(datagram.data(), datagram.size(), &sender, &senderPort);
            if (read < 0)
                return;
            datagram.truncate(static_cast<int>(read));
            comm::wiretap::datagram(&q, comm::wiretap::Direction::Read, datagram.constData(), datagram.size(),
                                    socket->socketDescriptor(), sender, senderPort);
        }
        parser.takeDatagram(datagram, comm::senderText(sender.toString()), q.m_deviceType.load());
    }
}

QString PortUDP::autoRec(QString text)
{
    while (text.size() < 2)
        text.prepend(QLatin1Char('0'));
    return text;
}

void PortUDP::senToUipro(void *) {}

void PortUDP::processInfoDisplayonUI(void *) {}

QByteArray PortUDP::produceCmds(ProtocolData record)
{
    return comm::commandFrame(record);
}

QByteArray PortUDP::changeData(QByteArray bytes)
{
    return comm::frameHexText(bytes);
}

ProtocolData PortUDP::getArrayData(QByteArray datagram)
{
    return comm::parseReplyDatagram(datagram);
}

void PortUDP::combineSTDCMDandBloackCMD(QByteArray blockData, QByteArray heldReply)
{
    d->sink.deliverOrWake(comm::combineReplyWithBlock(blockData, heldReply));
}

int PortUDP::combineTwoByte(unsigned char low, unsigned char high)
{
    return comm::combineTwoByte(low, high);
}

void PortUDP::addToReceivedQueue(ProtocolData record)
{
    d->sink.deliverNow(record);
}

void PortUDP::setRetFlagStatus(bool value)
{
    comm::setRetFlagStatus(value);
}
