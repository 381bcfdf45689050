#include "StreamTransport.h"

#include "CommandFrame.h"
#include "FrameHexText.h"
#include "StreamLink.h"

namespace comm {

StreamLink::StreamLink(const StreamReassemblyConfig &config)
    : reassembler(config, sink)
{
}

void StreamLink::clearBuffers()
{
    reassembler.clear();
    spare1.clear();
    spare2.clear();
}

} // namespace comm

StreamTransport::StreamTransport(const comm::StreamReassemblyConfig &config)
    : m_link(std::make_unique<comm::StreamLink>(config))
{
}

StreamTransport::~StreamTransport() = default;

bool StreamTransport::isFindStdCmdPreFlag(QByteArray snapshot)
{
    return m_link->reassembler.skipToFrameStart(snapshot);
}

bool StreamTransport::checkCMD(QByteArray frame)
{
    return m_link->reassembler.takeFrame(frame);
}

bool StreamTransport::checkBlock(ProtocolData record, unsigned short length)
{
    return m_link->reassembler.takeBlock(record, length);
}

bool StreamTransport::getArrayData(QByteArray frame, ProtocolData *out)
{
    return m_link->reassembler.decodeFrame(frame, out);
}

void StreamTransport::addToReceivedQueue(ProtocolData record)
{
    m_link->sink.deliverNow(record);
}

void StreamTransport::setRetFlagStatus(bool value)
{
    comm::setRetFlagStatus(value);
}

void StreamTransport::appendBuffData(QByteArray data)
{
    m_link->reassembler.append(data);
}

QByteArray StreamTransport::getBuffData(unsigned short len)
{
    return m_link->reassembler.peek(len);
}

QByteArray StreamTransport::takeBuffData(unsigned short len)
{
    return m_link->reassembler.take(len);
}

QByteArray StreamTransport::buffData() const
{
    return m_link->reassembler.contents();
}

QByteArray StreamTransport::produceCmds(ProtocolData record)
{
    return comm::commandFrame(record);
}

QByteArray StreamTransport::changeData(QByteArray data)
{
    return comm::frameHexText(data);
}

void StreamTransport::clearQueueDetached(CmdDealModule &module)
{
    m_link->sink.clearQueueDetached(module);
}

void StreamTransport::setReplyDeviceType(ModulelEnum::DeviceType type)
{
    m_link->reassembler.setDeviceType(type);
}

int StreamTransport::runningWorkers() const
{
    return m_link->workers.running();
}
