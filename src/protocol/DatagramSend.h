#pragma once

#include <functional>

#include <QByteArray>
#include <QtGlobal>

namespace comm {

// Largest payload the network transport puts in one unicast datagram.
constexpr int kMaxDatagramPayload = 540;

// Writes one datagram of size bytes. offset is where the first of them stands
// in the data being sent (it may lie outside the data, see writeInDatagrams).
// Returns what the socket's write returned: the byte count, or a negative error.
using DatagramWrite = std::function<qint64(const char *bytes, int size, int offset)>;

// The unicast split. Writes data in datagrams of at most kMaxDatagramPayload
// bytes through write and returns `sent`, the sum of the write results kept as
// a 32-bit value (so a -1 result lowers it). Nothing is written for empty data.
//
// The offset of each datagram is the running sum, and after a result other
// than a full chunk one last datagram is written with the byte count that was
// left before that chunk, from the offset the short result moved to; then the
// split stops. That recovery is kept exactly as devices in the field have
// always seen it. When it points before the first byte (after a -1) or past
// the last one (after a short count), the datagram still has the size the
// arithmetic gives, and the bytes outside the data are sent as zero: nothing
// is ever read outside data.
int writeInDatagrams(const QByteArray &data, const DatagramWrite &write);

// What a send ends in: the log line to write, and whether the socket must be
// rebuilt because the result could not be classified.
struct SendOutcome
{
    const char *logText;
    bool rebuildSocket;
};

// Outcome of a unicast send from the summed results of writeInDatagrams.
// A sum of -1 reads "Send Broadcast failed" on this path too: the wording is
// the one the field logs have always shown.
SendOutcome unicastOutcome(qint64 sent, qint64 size);

// Outcome of a broadcast send from the result of its single write.
SendOutcome broadcastOutcome(qint64 result, qint64 size);

} // namespace comm
