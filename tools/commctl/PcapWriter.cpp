#include "PcapWriter.h"

#include <cerrno>
#include <chrono>
#include <cstring>

namespace {
constexpr quint32 kMagicMicroseconds = 0xa1b2c3d4;
constexpr quint32 kSnapshotLength = 262144;
constexpr quint8 kProtocolUdp = 17;

void appendBigEndian(QByteArray &out, quint32 value, int bytes)
{
    for (int i = bytes - 1; i >= 0; --i)
        out.append(char((value >> (8 * i)) & 0xFF));
}

// Host byte order, as pcap readers expect from the magic number.
template <typename T>
void appendHost(QByteArray &out, T value)
{
    out.append(reinterpret_cast<const char *>(&value), sizeof value);
}

// The Internet checksum's running sum over bytes, as 16-bit big-endian words.
quint32 sumWords(const QByteArray &bytes, quint32 sum = 0)
{
    const auto *data = reinterpret_cast<const unsigned char *>(bytes.constData());
    for (int i = 0; i + 1 < bytes.size(); i += 2)
        sum += quint32(data[i] << 8 | data[i + 1]);
    if (bytes.size() % 2)
        sum += quint32(data[bytes.size() - 1] << 8);
    return sum;
}

quint16 foldChecksum(quint32 sum)
{
    while (sum >> 16)
        sum = (sum & 0xFFFF) + (sum >> 16);
    return quint16(~sum & 0xFFFF);
}

bool asIPv4(const QHostAddress &address, quint32 *ipv4)
{
    bool ok = false;
    *ipv4 = address.toIPv4Address(&ok);
    return ok;
}

QByteArray ipv6Bytes(const QHostAddress &address)
{
    quint32 ipv4 = 0;
    if (asIPv4(address, &ipv4)) {
        QByteArray mapped(10, '\0');
        mapped.append(2, char(0xFF));
        appendBigEndian(mapped, ipv4, 4);
        return mapped;
    }
    const Q_IPV6ADDR ipv6 = address.toIPv6Address();
    return QByteArray(reinterpret_cast<const char *>(ipv6.c), 16);
}
} // namespace

PcapWriter::~PcapWriter()
{
    close();
}

bool PcapWriter::open(const QString &path, LinkType linkType, QString *error)
{
    std::lock_guard<std::mutex> guard(m_lock);
    m_file = std::fopen(QFile::encodeName(path).constData(), "wb");
    if (!m_file) {
        *error = QString::fromLocal8Bit(std::strerror(errno));
        return false;
    }
    QByteArray header;
    appendHost<quint32>(header, kMagicMicroseconds);
    appendHost<quint16>(header, 2);
    appendHost<quint16>(header, 4);
    appendHost<qint32>(header, 0);  // times are UTC
    appendHost<quint32>(header, 0); // accuracy
    appendHost<quint32>(header, kSnapshotLength);
    appendHost<quint32>(header, linkType);
    std::fwrite(header.constData(), 1, size_t(header.size()), m_file);
    std::fflush(m_file);
    return true;
}

void PcapWriter::write(const QByteArray &packet)
{
    std::lock_guard<std::mutex> guard(m_lock);
    if (!m_file)
        return;
    const qint64 microseconds =
        std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::system_clock::now().time_since_epoch())
            .count();
    const quint32 length = quint32(packet.size());
    QByteArray record;
    appendHost<quint32>(record, quint32(microseconds / 1000000));
    appendHost<quint32>(record, quint32(microseconds % 1000000));
    appendHost<quint32>(record, qMin(length, kSnapshotLength));
    appendHost<quint32>(record, length);
    record.append(packet.constData(), int(qMin(length, kSnapshotLength)));
    std::fwrite(record.constData(), 1, size_t(record.size()), m_file);
    std::fflush(m_file);
}

void PcapWriter::close()
{
    std::lock_guard<std::mutex> guard(m_lock);
    if (m_file)
        std::fclose(m_file);
    m_file = nullptr;
}

QByteArray streamRecord(StreamDirection direction, quint8 linkByte, const char *bytes, int size)
{
    QByteArray record;
    record.append(char(direction));
    record.append(char(linkByte));
    record.append(2, '\0');
    record.append(bytes, size);
    return record;
}

QByteArray udpPacket(const QHostAddress &source, quint16 sourcePort, const QHostAddress &destination,
                     quint16 destinationPort, const char *payload, int size)
{
    const quint32 udpLength = quint32(8 + size);
    QByteArray udp;
    appendBigEndian(udp, sourcePort, 2);
    appendBigEndian(udp, destinationPort, 2);
    appendBigEndian(udp, udpLength, 2);
    appendBigEndian(udp, 0, 2); // checksum, filled in below
    udp.append(payload, size);

    quint32 sourceIPv4 = 0, destinationIPv4 = 0;
    QByteArray packet;
    QByteArray pseudoHeader;
    if (asIPv4(source, &sourceIPv4) && asIPv4(destination, &destinationIPv4)) {
        QByteArray ip;
        ip.append(char(0x45)); // version 4, 20-byte header
        ip.append('\0');
        appendBigEndian(ip, 20 + udpLength, 2);
        appendBigEndian(ip, 0, 2);      // identification
        appendBigEndian(ip, 0x4000, 2); // don't fragment
        ip.append(char(64));            // time to live
        ip.append(char(kProtocolUdp));
        appendBigEndian(ip, 0, 2); // header checksum, filled in below
        appendBigEndian(ip, sourceIPv4, 4);
        appendBigEndian(ip, destinationIPv4, 4);
        const quint16 headerChecksum = foldChecksum(sumWords(ip));
        ip[10] = char(headerChecksum >> 8);
        ip[11] = char(headerChecksum & 0xFF);
        pseudoHeader = ip.mid(12, 8);
        pseudoHeader.append('\0');
        pseudoHeader.append(char(kProtocolUdp));
        appendBigEndian(pseudoHeader, udpLength, 2);
        packet = ip;
    } else {
        QByteArray ip;
        appendBigEndian(ip, 0x60000000, 4); // version 6
        appendBigEndian(ip, udpLength, 2);
        ip.append(char(kProtocolUdp));
        ip.append(char(64)); // hop limit
        ip.append(ipv6Bytes(source));
        ip.append(ipv6Bytes(destination));
        pseudoHeader = ip.mid(8, 32);
        appendBigEndian(pseudoHeader, udpLength, 4);
        appendBigEndian(pseudoHeader, kProtocolUdp, 4);
        packet = ip;
    }
    quint16 checksum = foldChecksum(sumWords(udp, sumWords(pseudoHeader)));
    if (checksum == 0)
        checksum = 0xFFFF; // zero means "no checksum"
    udp[6] = char(checksum >> 8);
    udp[7] = char(checksum & 0xFF);
    return packet + udp;
}
