#include "ReplyHandOff.h"

#include <mutex>

namespace comm {

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

ReplyHandOff::ReplyHandOff(const std::atomic<bool> &dealFlag, Gate gate, DetachedWork::Launch launch)
    : m_dealFlag(dealFlag)
    , m_gate(gate)
    , m_work(launch)
{
}

void ReplyHandOff::deliver(const ProtocolData &record) const
{
    if (m_gate == Gate::DealFlag && !m_dealFlag.load())
        return;
    appendToReceiveQueue(record);
}

void ReplyHandOff::deliverDetached(const ProtocolData &record)
{
    m_work.start([this, record] { deliver(record); });
}

void ReplyHandOff::runDetached(std::function<void()> job)
{
    m_work.start(std::move(job));
}

void ReplyHandOff::clearQueueDetached(CmdDealModule &module)
{
    m_work.start([&module] { module.clearQueue(); });
}

void ReplyHandOff::waitForDetachedWork()
{
    m_work.waitUntilIdle();
}

int ReplyHandOff::detachedWorkRunning() const
{
    return m_work.running();
}

} // namespace comm
