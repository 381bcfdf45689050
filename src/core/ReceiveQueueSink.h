#pragma once

#include <atomic>
#include <optional>

#include "CmdDealModule.h"
#include "DetachedWork.h"
#include "ProtocolData.h"
#include "ReplySink.h"

namespace comm {

// Appends a copy of record to CmdDealModule::receivequeueHexCmd and raises
// CmdDealModule::bRetFlag, holding receiveHexCmdlock and, inside it, HexCmdlock.
void appendToReceiveQueue(const ProtocolData &record);

// Sets CmdDealModule::bRetFlag to value under HexCmdlock.
void setRetFlagStatus(bool value);

// The transports' reply sink: the one place where replies reach the command
// module's receive queue and its reply-arrived flag. Detached deliveries run
// on threads of their own, counted so that the transport can wait for them
// before it is destroyed.
class ReceiveQueueSink : public ReplySink
{
public:
    // With a deal flag, records are dropped while it is false (the network
    // link); with none, every record is queued (the serial and USB links).
    explicit ReceiveQueueSink(const std::atomic<bool> *dealFlag);
    ~ReceiveQueueSink() override;
    ReceiveQueueSink(const ReceiveQueueSink &) = delete;
    ReceiveQueueSink &operator=(const ReceiveQueueSink &) = delete;

    void deliverDetached(const ProtocolData &record) override;
    void deliverNow(const ProtocolData &record) override;
    void deliverCombinedDetached(const QByteArray &blockData, const QByteArray &heldReply, Combine combine) override;

    // Queues record now, or only raises the reply-arrived flag when there is none.
    void deliverOrWake(const std::optional<ProtocolData> &record);

    // Runs module.clearQueue() on a new detached thread and returns at once.
    void clearQueueDetached(CmdDealModule &module);

    // Returns once all detached work started here has finished. Transports
    // call it in their destructors, before their members go away.
    void waitForDetachedWork();

    // Detached work started here and not yet finished.
    int detachedWorkRunning() const;

private:
    const std::atomic<bool> *const m_dealFlag;
    DetachedWork m_work;
};

} // namespace comm
