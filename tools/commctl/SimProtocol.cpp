#include "SimProtocol.h"

namespace sim {

namespace {
int hexValue(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

quint8 sumOfSeven(const HeaderBytes &bytes)
{
    unsigned sum = 0;
    for (int i = 0; i < 7; ++i)
        sum += bytes[size_t(i)];
    return quint8(sum);
}

// The block lengths the library's parsers expect after a reply to this command.
int announcedNetworkBlock(const HeaderBytes &b)
{
    const quint8 p2 = b[2], p3 = b[3], p5 = b[5], p6 = b[6];
    bool held = false;
    switch (p2) {
    case 0x8B:
        held = p3 == 0x05 || p3 == 0x09;
        break;
    case 0x8E:
        held = p3 == 0x27;
        break;
    case 0xF1:
        held = !(p3 == 0x40 && p5 == 0 && p6 == 0);
        break;
    case 0x77:
        held = p3 == 0x23;
        break;
    case 0x79:
        held = !(p3 == 0x09 || p3 == 0x0A || p3 == 0x0C || p3 == 0x12 || p3 == 0x13 || p3 == 0x17);
        break;
    case 0x69:
        held = p3 == 0x09;
        break;
    default:
        break;
    }
    if (!held)
        return 0;
    // The library waits for as many bytes as P5 (low) and P6 (high) announce, as a signed 16-bit number.
    return int(qint16(quint16(p6) << 8 | p5));
}

int announcedSerialBlock(const HeaderBytes &b)
{
    const bool announced = b[2] == 0x79 || b[2] == 0xE1 || (b[2] == 0x8E && b[3] == 0x27);
    return announced ? int(b[5]) + 256 * int(b[6]) : 0;
}
} // namespace

bool parseCommandHeader(const char *bytes, int size, HeaderBytes *header)
{
    if (size < 19 || bytes[0] != '[' || bytes[1] != 'A' || bytes[18] != ']')
        return false;
    HeaderBytes decoded{};
    for (int i = 0; i < 8; ++i) {
        const int high = hexValue(bytes[2 + 2 * i]);
        const int low = hexValue(bytes[3 + 2 * i]);
        if (high < 0 || low < 0)
            return false;
        decoded[size_t(i)] = quint8(high * 16 + low);
    }
    if (decoded[7] != sumOfSeven(decoded))
        return false;
    *header = decoded;
    return true;
}

QByteArray replyFrame(const HeaderBytes &command)
{
    static const char digits[] = "0123456789abcdef";
    HeaderBytes reply = command;
    reply[7] = sumOfSeven(reply);
    QByteArray frame("[R");
    for (quint8 byte : reply) {
        frame.append(digits[byte >> 4]);
        frame.append(digits[byte & 15]);
    }
    frame.append(']');
    return frame;
}

QByteArray blockData(Link link, const HeaderBytes &command)
{
    const int length = link == Link::Network  ? announcedNetworkBlock(command)
                       : link == Link::Serial ? announcedSerialBlock(command)
                                              : 0; // USB replies never carry a block
    if (length <= 0)
        return QByteArray();
    QByteArray block(length, '\0');
    unsigned sum = 0;
    for (int i = 0; i < length - 1; ++i) {
        block[i] = char(quint8(command[0] + i));
        sum += quint8(block[i]);
    }
    // The last byte checks the others (on the serial link the library verifies it).
    block[length - 1] = char(quint8(sum));
    return block;
}

void CommandStream::append(const QByteArray &bytes)
{
    m_buffer.append(bytes);
    // Keep the scan bounded on a stream that never holds a frame.
    if (m_buffer.size() > 65536)
        m_buffer.remove(0, m_buffer.size() - 18);
}

bool CommandStream::next(HeaderBytes *header)
{
    while (true) {
        const int start = m_buffer.indexOf("[A");
        if (start < 0) {
            // A lone "[" at the end may still begin a frame.
            m_buffer = m_buffer.endsWith('[') ? QByteArray("[") : QByteArray();
            return false;
        }
        m_buffer.remove(0, start);
        if (m_buffer.size() < 19)
            return false;
        if (parseCommandHeader(m_buffer.constData(), m_buffer.size(), header)) {
            m_buffer.remove(0, 19);
            return true;
        }
        m_buffer.remove(0, 1);
    }
}

} // namespace sim
