#include "WireCapture.h"

#include <cstring>
#include <memory>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "Console.h"
#include "Interrupt.h"

namespace {
bool isWildcard(const QHostAddress &address)
{
    return address.isNull() || address == QHostAddress(QHostAddress::AnyIPv4)
           || address == QHostAddress(QHostAddress::AnyIPv6) || address == QHostAddress(QHostAddress::Any);
}

// The source address the kernel picks for a datagram to remote, found by
// connecting a UDP socket of our own (which sends nothing) and reading its
// address back. Null when there is no route.
QHostAddress routedSource(const QHostAddress &remote)
{
    bool isIPv4 = false;
    const quint32 ipv4 = remote.toIPv4Address(&isIPv4);
    sockaddr_storage target{};
    socklen_t targetSize = 0;
    if (isIPv4) {
        auto *in = reinterpret_cast<sockaddr_in *>(&target);
        in->sin_family = AF_INET;
        in->sin_port = htons(9);
        in->sin_addr.s_addr = htonl(ipv4);
        targetSize = sizeof(sockaddr_in);
    } else {
        auto *in6 = reinterpret_cast<sockaddr_in6 *>(&target);
        in6->sin6_family = AF_INET6;
        in6->sin6_port = htons(9);
        const Q_IPV6ADDR ipv6 = remote.toIPv6Address();
        std::memcpy(in6->sin6_addr.s6_addr, ipv6.c, sizeof(ipv6.c));
        targetSize = sizeof(sockaddr_in6);
    }
    const int fd = ::socket(target.ss_family, SOCK_DGRAM, 0);
    if (fd < 0)
        return QHostAddress();
    const int on = 1;
    ::setsockopt(fd, SOL_SOCKET, SO_BROADCAST, &on, sizeof on);
    QHostAddress source;
    sockaddr_storage local{};
    socklen_t localSize = sizeof(local);
    if (::connect(fd, reinterpret_cast<const sockaddr *>(&target), targetSize) == 0
        && ::getsockname(fd, reinterpret_cast<sockaddr *>(&local), &localSize) == 0)
        source.setAddress(reinterpret_cast<const sockaddr *>(&local));
    ::close(fd);
    return source;
}
} // namespace

WireCapture::~WireCapture()
{
    stop();
}

bool WireCapture::start(const QString &path, LinkOptions::Kind link, QString *error)
{
    const PcapWriter::LinkType type = link == LinkOptions::Serial ? PcapWriter::SerialLine
                                      : link == LinkOptions::Usb  ? PcapWriter::UsbReports
                                                                  : PcapWriter::RawIp;
    if (!m_writer.open(path, type, error))
        return false;
    PortWireObserver::install(this);
    m_started = true;
    return true;
}

void WireCapture::stop()
{
    if (!m_started)
        return;
    // Waits for a packet being written, so the file ends on a whole one.
    PortWireObserver::install(nullptr);
    m_writer.close();
    m_started = false;
}

void WireCapture::observe(const PortWirePacket &packet)
{
    const char *const bytes = packet.bytes.constData();
    const int size = int(packet.bytes.size());
    if (packet.link != PortWirePacket::Network) {
        const auto direction = packet.direction == PortWirePacket::Written ? StreamDirection::Written
                                                                           : StreamDirection::Read;
        m_writer.write(streamRecord(direction, quint8(packet.link), bytes, size));
        return;
    }
    const QHostAddress local = sourceFor(packet.localAddress, packet.remoteAddress);
    if (packet.direction == PortWirePacket::Written)
        m_writer.write(udpPacket(local, packet.localPort, packet.remoteAddress, packet.remotePort, bytes, size));
    else
        m_writer.write(udpPacket(packet.remoteAddress, packet.remotePort, local, packet.localPort, bytes, size));
}

QHostAddress WireCapture::sourceFor(const QHostAddress &local, const QHostAddress &remote)
{
    if (!isWildcard(local))
        return local;
    std::lock_guard<std::mutex> guard(m_routeLock);
    const QString key = remote.toString();
    auto found = m_routes.find(key);
    if (found == m_routes.end())
        found = m_routes.insert(key, routedSource(remote));
    return found->isNull() ? QHostAddress(QHostAddress::AnyIPv4) : *found;
}

int runWithCapture(const Options &options, const std::function<int()> &run)
{
    if (options.capturePath.isEmpty())
        return run();
    // Before the file: an interruption from here on ends in order.
    InterruptQuits interrupts;
    WireCapture capture;
    QString reason;
    if (!capture.start(options.capturePath, options.link.kind, &reason)) {
        printErr(QStringLiteral("commctl: cannot write capture file %1: %2").arg(options.capturePath, reason));
        return 1;
    }
    const int status = run();
    capture.stop();
    interrupts.reraise();
    return status;
}
