#include "CmdDealModule.h"

std::deque<ProtocolData> CmdDealModule::receivequeueHexCmd;
std::mutex CmdDealModule::receiveHexCmdlock;
std::mutex CmdDealModule::HexCmdlock;
bool CmdDealModule::bRetFlag = false;

CmdDealModule::CmdDealModule() = default;
CmdDealModule::~CmdDealModule() = default;

void CmdDealModule::clearQueue()
{
    std::lock_guard<std::mutex> guard(receiveHexCmdlock);
    receivequeueHexCmd.clear();
}
