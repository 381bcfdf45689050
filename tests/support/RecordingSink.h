#pragma once

#include <memory>
#include <optional>

#include <QByteArray>
#include <QList>
#include <QPair>

#include "ProtocolData.h"
#include "ReceiveQueueSink.h"
#include "ReplySink.h"

// A reply sink that keeps what a parser hands it, on the parsing thread, so
// that a test follows the parser's decisions one by one without threads.
// With Forward::ToReceiveQueue it also queues every record at once, as the
// library's sink would later, for tests that check the receive queue.
class RecordingSink : public comm::ReplySink
{
public:
    enum class Forward { No, ToReceiveQueue };

    explicit RecordingSink(Forward forward = Forward::No)
    {
        if (forward == Forward::ToReceiveQueue)
            m_queue = std::make_unique<comm::ReceiveQueueSink>(nullptr);
    }

    void deliverDetached(const ProtocolData &record) override
    {
        queued.append(record);
        forward(record);
    }

    void deliverNow(const ProtocolData &record) override
    {
        delivered.append(record);
        forward(record);
    }

    void deliverCombinedDetached(const QByteArray &blockData, const QByteArray &heldReply, Combine combine) override
    {
        combines.append({blockData, heldReply});
        const std::optional<ProtocolData> record = combine(blockData, heldReply);
        if (m_queue)
            m_queue->deliverOrWake(record);
    }

    QList<ProtocolData> queued;                    // deliverDetached
    QList<ProtocolData> delivered;                 // deliverNow
    QList<QPair<QByteArray, QByteArray>> combines; // block data, held reply

private:
    void forward(const ProtocolData &record)
    {
        if (m_queue)
            m_queue->deliverNow(record);
    }

    // Queues at once, on the parsing thread, when forwarding.
    std::unique_ptr<comm::ReceiveQueueSink> m_queue;
};
