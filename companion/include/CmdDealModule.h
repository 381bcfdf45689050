#pragma once

#include <deque>
#include <mutex>

#include "ProtocolData.h"

// The command module's side of the reply hand-off. Its static queue, locks and
// flag are shared by every transport in the process. Whoever takes both locks
// takes receiveHexCmdlock first, then HexCmdlock.
class CmdDealModule
{
public:
    CmdDealModule();
    ~CmdDealModule();

    // Empties the receive queue under receiveHexCmdlock.
    void clearQueue();

    // Replies waiting for the command module, oldest first.
    static std::deque<ProtocolData> receivequeueHexCmd;
    // Guards receivequeueHexCmd.
    static std::mutex receiveHexCmdlock;
    // Guards bRetFlag.
    static std::mutex HexCmdlock;
    // Reply-arrived flag, raised after every append.
    static bool bRetFlag;
};
