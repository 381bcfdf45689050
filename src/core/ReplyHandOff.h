#pragma once

#include <atomic>
#include <functional>

#include "CmdDealModule.h"
#include "DetachedWork.h"
#include "ProtocolData.h"

namespace comm {

// Appends a copy of record to CmdDealModule::receivequeueHexCmd and raises
// CmdDealModule::bRetFlag, holding receiveHexCmdlock and, inside it, HexCmdlock.
void appendToReceiveQueue(const ProtocolData &record);

// Sets CmdDealModule::bRetFlag to value under HexCmdlock.
void setRetFlagStatus(bool value);

// A transport's side of the reply hand-off: it delivers parsed reply records to
// the command module's receive queue, inline or on detached threads, and keeps
// count of the detached work it started so that the transport can wait for it
// before it is destroyed.
class ReplyHandOff
{
public:
    enum class Gate {
        DealFlag, // records are dropped while the transport's deal flag is false
        Always,   // every record is queued
    };

    // With Launch::Inline, the "detached" deliveries and jobs run on the
    // calling thread, in the order they are started: harnesses use it to run
    // a transport's logic without starting a thread per reply. Transports
    // always use the default.
    ReplyHandOff(const std::atomic<bool> &dealFlag, Gate gate,
                 DetachedWork::Launch launch = DetachedWork::Launch::Threads);

    // addToReceivedQueue: queues the record now, on the calling thread.
    void deliver(const ProtocolData &record) const;

    // Queues the record from a new detached thread.
    void deliverDetached(const ProtocolData &record);

    // Runs job on a new detached thread counted with the hand-offs, for work
    // that refers to the transport (block combination, for instance).
    void runDetached(std::function<void()> job);

    // Runs module.clearQueue() on a new detached thread and returns at once.
    void clearQueueDetached(CmdDealModule &module);

    // Returns once all detached work started here has finished. Transports
    // call it in their destructors, before their members go away.
    void waitForDetachedWork();

    // Detached work started here and not yet finished.
    int detachedWorkRunning() const;

private:
    const std::atomic<bool> &m_dealFlag;
    const Gate m_gate;
    DetachedWork m_work;
};

} // namespace comm
