#include "ReceiveQueue.h"

#include <mutex>

#include "CmdDealModule.h"

namespace testqueue {

std::size_t length()
{
    std::lock_guard<std::mutex> guard(CmdDealModule::receiveHexCmdlock);
    return CmdDealModule::receivequeueHexCmd.size();
}

std::vector<ProtocolData> records()
{
    std::lock_guard<std::mutex> guard(CmdDealModule::receiveHexCmdlock);
    return {CmdDealModule::receivequeueHexCmd.begin(), CmdDealModule::receivequeueHexCmd.end()};
}

bool replyFlag()
{
    std::lock_guard<std::mutex> guard(CmdDealModule::HexCmdlock);
    return CmdDealModule::bRetFlag;
}

void reset()
{
    std::lock_guard<std::mutex> guard(CmdDealModule::receiveHexCmdlock);
    CmdDealModule::receivequeueHexCmd.clear();
    std::lock_guard<std::mutex> flagGuard(CmdDealModule::HexCmdlock);
    CmdDealModule::bRetFlag = false;
}

} // namespace testqueue
