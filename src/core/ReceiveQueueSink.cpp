#include "ReceiveQueueSink.h"

#include <mutex>

namespace comm {

ReplySink::~ReplySink() = default;

void appendToReceiveQueue(const ProtocolData &record)
{
    std::lock_guard<std::mutex> queueGuard(CmdDealModule::receiveHexCmdlock);
    CmdDealModule::receivequeueHexCmd.push_back(record);
    std::lock_guard<std::mutex> flagGuard(CmdDealModule::HexCmdlock);
    CmdDealModule::bRetFlag = true;
}

void setRetFlagStatus(bool value)
{
    std::lock_guard<std::mutex> guard(CmdDealModule::HexCmdlock);
    CmdDealModule::bRetFlag = value;
}

ReceiveQueueSink::ReceiveQueueSink(const std::atomic<bool> *dealFlag)
    : m_dealFlag(dealFlag)
{
}

ReceiveQueueSink::~ReceiveQueueSink()
{
    waitForDetachedWork();
}

void ReceiveQueueSink::deliverNow(const ProtocolData &record)
{
    if (m_dealFlag && !m_dealFlag->load())
        return;
    appendToReceiveQueue(record);
}

void ReceiveQueueSink::deliverDetached(const ProtocolData &record)
{
    m_work.start("comm-reply", [this, record] { deliverNow(record); });
}

void ReceiveQueueSink::deliverCombinedDetached(const QByteArray &blockData, const QByteArray &heldReply,
                                               Combine combine)
{
    // The worker gets bytes of its own, shared with no buffer the parsing
    // thread goes on clearing and refilling: otherwise the last release of
    // shared bytes could happen inside Qt on the parsing thread, out of sight
    // of ThreadSanitizer, after the worker had let them go.
    const QByteArray block(blockData.constData(), blockData.size());
    const QByteArray held(heldReply.constData(), heldReply.size());
    m_work.start("comm-combine", [this, block, held, combine] { deliverOrWake(combine(block, held)); });
}

void ReceiveQueueSink::deliverOrWake(const std::optional<ProtocolData> &record)
{
    if (record)
        deliverNow(*record);
    else
        setRetFlagStatus(true);
}

void ReceiveQueueSink::clearQueueDetached(CmdDealModule &module)
{
    m_work.start("comm-clearqueue", [&module] { module.clearQueue(); });
}

void ReceiveQueueSink::waitForDetachedWork()
{
    m_work.waitUntilIdle();
}

int ReceiveQueueSink::detachedWorkRunning() const
{
    return m_work.running();
}

} // namespace comm
