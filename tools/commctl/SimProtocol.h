#pragma once

#include <QByteArray>
#include <QtGlobal>

#include <array>

// The device side of the protocol, as the simulated device speaks it: it reads
// command frames and writes reply frames and block data.
namespace sim {

enum class Link { Network, Serial, Usb };

// The eight header bytes of a frame: command byte, six parameter bytes, check byte.
using HeaderBytes = std::array<quint8, 8>;

// Reads a 19-byte command header "[A" + 16 hex digits + "]". Returns false
// when the bytes are not one, or when its check byte does not match.
bool parseCommandHeader(const char *bytes, int size, HeaderBytes *header);

// The command frame for these header bytes, as a device expects it: "[A", the
// command byte and the six parameter bytes with their check byte recomputed as
// hex digits, "]".
QByteArray commandFrame(const HeaderBytes &command);

// The reply frame that echoes a command: "[R", the command byte and the six
// parameter bytes with their check byte recomputed as hex digits, "]".
QByteArray replyFrame(const HeaderBytes &command);

// The block data a device sends after its reply to this command on this link:
// empty when the reply announces none. Its content is deterministic; on the
// serial link its last byte is the block's check byte.
QByteArray blockData(Link link, const HeaderBytes &command);

// Cuts command frames out of a byte stream (serial, USB): bytes in front of a
// frame start and a frame's payload are skipped.
class CommandStream
{
public:
    void append(const QByteArray &bytes);
    // Takes the next complete, valid command header from the stream.
    bool next(HeaderBytes *header);

private:
    QByteArray m_buffer;
};

} // namespace sim
