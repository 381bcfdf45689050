#pragma once

#include <mutex>
#include <optional>

#include <QByteArray>
#include <QString>

#include "ModulelEnum.h"
#include "ProtocolData.h"

#include "ReplyRules.h"
#include "ReplySink.h"

namespace comm {

// A reply datagram: "[" "R", command byte, six parameter bytes and check byte
// as 16 hex digits, and one byte that is never examined.
constexpr int kReplyDatagramSize = 19;

// The sender as replies record and log it: an IPv4-mapped IPv6 address
// ("::ffff:" anywhere in the text) is shown from its 8th character on, which
// leaves the bare IPv4 text; any other address text is kept whole.
QString senderText(const QString &addressText);

// The signed 16-bit value (high << 8) | low, widened to int: 0xFF, 0xFF is -1.
// Replies announce their block length this way, low byte first.
int combineTwoByte(unsigned char low, unsigned char high);

// Parses one reply datagram into a fresh record: the command byte, the six
// parameter bytes and, in the check byte, their 8-bit sum. A datagram of the
// wrong size, without the "[" "R" markers or with a wrong check byte leaves
// those fields at 0 and logs why ("datagram.size()!=19 return",
// "no '[' 'R' ", "CHKSUM Wrong return"); the first two also empty the payload
// and the third text member.
ProtocolData parseReplyDatagram(const QByteArray &datagram);

// Joins a held reply datagram and the block data gathered for it into one
// record, whose payload is the first N bytes where the reply's row in
// kReplyRules fixes N (fixedBlockPayload), or otherwise the first L bytes, L
// being the signed length in P5 (low) and P6 (high). Returns nothing when either input
// is empty, when L is 0 or negative, or when fewer than L bytes are there: the
// waiting side is then only woken. The fixed rows take what there is.
// The record keeps the sender text and device type of a fresh record.
std::optional<ProtocolData> combineReplyWithBlock(const QByteArray &blockData, const QByteArray &heldReply);

// The buffers reply parsing keeps between datagrams. They belong to the
// transport, which also clears them when it rebuilds its socket; lock guards
// them against that.
struct HeldReplyBuffers
{
    QByteArray &lastDatagram; // the datagram read last
    QByteArray &heldReply;    // the held reply datagram; empty while idle
    QByteArray &blockBuffer;  // block data gathered for the held reply
    std::mutex &lock;
};

// Turns the datagrams of the network link into reply records. It is idle
// until a reply announces block data; that reply is then held (a later one
// replaces it) and block datagrams are gathered until the announced length is
// in, when reply and block data are combined and the parser is idle again.
// Block data that arrives while idle meets an empty held reply, expects
// nothing, and is dropped by a combination that only wakes the waiting side.
// Records, and combinations to run away from the reading thread, go to sink.
class DatagramReplyParser
{
public:
    DatagramReplyParser(HeldReplyBuffers buffers, ReplySink &sink);

    // One datagram as read from the socket, with its sender's address text
    // and the device type to stamp on the record.
    void takeDatagram(const QByteArray &datagram, const QString &senderText, ModulelEnum::DeviceType deviceType);

private:
    void hold(const QByteArray &datagram);
    void takeBlockData(const QByteArray &datagram);

    HeldReplyBuffers m_buffers;
    ReplySink &m_sink;
};

} // namespace comm
