#include "ReceiveQueue.h"

#include <iterator>
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

std::vector<ProtocolData> take()
{
    std::lock_guard<std::mutex> guard(CmdDealModule::receiveHexCmdlock);
    std::vector<ProtocolData> taken(std::make_move_iterator(CmdDealModule::receivequeueHexCmd.begin()),
                                    std::make_move_iterator(CmdDealModule::receivequeueHexCmd.end()));
    CmdDealModule::receivequeueHexCmd.clear();
    return taken;
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
