#pragma once

#include <QByteArray>

#include "DetachedWork.h"
#include "ReceiveQueueSink.h"
#include "StreamReassembler.h"

namespace comm {

// The parts a stream transport (serial, USB) is made of besides its link:
// replies go from the receive buffer through the reassembler to the sink,
// which queues every record (these links have no deal-flag gate), and the
// workers that drive them are counted here.
struct StreamLink
{
    explicit StreamLink(const StreamReassemblyConfig &config);

    // Empties the receive buffer and the spare buffers.
    void clearBuffers();

    ReceiveQueueSink sink{nullptr};
    StreamReassembler reassembler;
    // The reader and reassembly workers, which refer to the transport: it
    // waits for them in its own destructor, before its members go.
    DetachedWork workers;
    // Buffers stream transports have always carried; they are only ever cleared.
    QByteArray spare1;
    QByteArray spare2;
};

} // namespace comm
