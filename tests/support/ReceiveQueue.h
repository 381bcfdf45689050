#pragma once

#include <deque>
#include <mutex>

#include "CmdDealModule.h"

// The command module's receive queue and reply-arrived flag as tests look at
// them: each read takes the lock that guards it.
namespace receiveQueue {

inline size_t length()
{
    std::lock_guard<std::mutex> guard(CmdDealModule::receiveHexCmdlock);
    return CmdDealModule::receivequeueHexCmd.size();
}

inline std::deque<ProtocolData> records()
{
    std::lock_guard<std::mutex> guard(CmdDealModule::receiveHexCmdlock);
    return CmdDealModule::receivequeueHexCmd;
}

inline bool replyFlag()
{
    std::lock_guard<std::mutex> guard(CmdDealModule::HexCmdlock);
    return CmdDealModule::bRetFlag;
}

// Empties the queue and lowers the flag.
inline void reset()
{
    std::lock_guard<std::mutex> guard(CmdDealModule::receiveHexCmdlock);
    CmdDealModule::receivequeueHexCmd.clear();
    std::lock_guard<std::mutex> flagGuard(CmdDealModule::HexCmdlock);
    CmdDealModule::bRetFlag = false;
}

} // namespace receiveQueue
