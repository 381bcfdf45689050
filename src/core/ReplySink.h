#pragma once

#include <optional>

#include <QByteArray>

#include "ProtocolData.h"

namespace comm {

// Where reply parsers put the records they make. Parsers decide when a record
// is handed over; the sink decides how: the library's sink appends to the
// command module's receive queue, a test's sink keeps what it is given.
class ReplySink
{
public:
    virtual ~ReplySink();

    // Hands record over away from the parsing thread; returns at once, so
    // parsing goes on while the record waits for the queue's locks.
    virtual void deliverDetached(const ProtocolData &record) = 0;

    // Hands record over before returning.
    virtual void deliverNow(const ProtocolData &record) = 0;

    // A held reply and the block data gathered for it, to be joined by the
    // parser's combine: runs combine(blockData, heldReply) away from the
    // parsing thread and hands over the record it gives. When it gives none,
    // the waiting side is woken all the same (the reply-arrived flag is raised
    // with nothing queued).
    using Combine = std::optional<ProtocolData> (*)(const QByteArray &blockData, const QByteArray &heldReply);
    virtual void deliverCombinedDetached(const QByteArray &blockData, const QByteArray &heldReply, Combine combine) = 0;
};

} // namespace comm
