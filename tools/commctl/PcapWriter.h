#pragma once

#include <QByteArray>
#include <QFile>
#include <QHostAddress>
#include <QString>

#include <cstdio>
#include <mutex>

// A capture file in the classic pcap format (microsecond timestamps), written
// as the traffic happens: every packet is flushed at once, so the file is
// complete up to the last packet whenever the program stops.
class PcapWriter
{
public:
    // The link types commctl writes.
    enum LinkType : quint32 {
        RawIp = 101,      // IPv4 or IPv6 packets, no link layer (LINKTYPE_RAW)
        SerialLine = 147, // USER0: libcomm stream header, then the bytes
        UsbReports = 148, // USER1: libcomm stream header, then one report
    };

    PcapWriter() = default;
    ~PcapWriter();
    PcapWriter(const PcapWriter &) = delete;
    PcapWriter &operator=(const PcapWriter &) = delete;

    // Creates (or truncates) path and writes the file header; false with a
    // reason in error when it cannot.
    bool open(const QString &path, LinkType linkType, QString *error);
    // One packet, stamped with the time now; thread-safe. Stamped under the
    // file's lock, so that times never go back from one packet to the next.
    void write(const QByteArray &packet);
    void close();

private:
    std::mutex m_lock;
    std::FILE *m_file = nullptr;
};

// What the libcomm stream header (link types USER0 and USER1) says: 4 bytes,
// byte 0 the direction, byte 1 the link byte (1 serial, 2 USB), bytes 2 and 3
// zero. On USB, direction 0 is an output report as written (65 bytes, report
// ID first) and 1 an input report as read (as hidapi returns it).
enum class StreamDirection : quint8 { Written = 0, Read = 1 };
QByteArray streamRecord(StreamDirection direction, quint8 linkByte, const char *bytes, int size);

// A UDP datagram as an IP packet: IPv4 when both addresses are IPv4 (or
// IPv4-mapped IPv6) addresses, IPv6 otherwise; with valid lengths and
// header and UDP checksums.
QByteArray udpPacket(const QHostAddress &source, quint16 sourcePort, const QHostAddress &destination,
                     quint16 destinationPort, const char *payload, int size);
