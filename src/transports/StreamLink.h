#pragma once

#include <QByteArray>

#include "DetachedWork.h"
#include "ReceiveQueueSink.h"
#include "StreamReassembler.h"

namespace comm {

// The parts a stream transport (serial, USB) is made of besides its link:
// replies go from the receive buffer through the reassembler to the sink,
// which queues every record (these links have no deal-flag gate), and the
// workers that drive them are counted here.
struct StreamLink
{
    explicit StreamLink(const StreamReassemblyConfig &config);

    // Empties the receive buffer and the spare buffers.
    void clearBuffers();

    ReceiveQueueSink sink{nullptr};
    StreamReassembler reassembler;
    // The reader and reassembly workers, which refer to the transport: it
    // waits for them in its own destructor, before its members go.
    DetachedWork workers;
    // Buffers stream transports have always carried; they are only ever cleared.
    QByteArray spare1;
    QByteArray spare2;
};

} // namespace comm

// The reassembly operations that PortSerial and PortUSB both offer, defined
// once for both: each forwards to the transport's StreamLink, reached by the
// expression link.
#define COMM_DEFINE_STREAM_OPERATIONS(Port, link)                                                                    \
    bool Port::isFindStdCmdPreFlag(QByteArray snapshot) { return (link).reassembler.skipToFrameStart(snapshot); }   \
    bool Port::checkCMD(QByteArray frame) { return (link).reassembler.takeFrame(frame); }                           \
    bool Port::checkBlock(ProtocolData record, unsigned short length)                                                \
    {                                                                                                                \
        return (link).reassembler.takeBlock(record, length);                                                         \
    }                                                                                                                \
    bool Port::getArrayData(QByteArray frame, ProtocolData *out) { return (link).reassembler.decodeFrame(frame, out); } \
    void Port::addToReceivedQueue(ProtocolData record) { (link).sink.deliverNow(record); }                          \
    void Port::setRetFlagStatus(bool value) { comm::setRetFlagStatus(value); }                                       \
    void Port::appendBuffData(QByteArray data) { (link).reassembler.append(data); }                                  \
    QByteArray Port::getBuffData(unsigned short len) { return (link).reassembler.peek(len); }                        \
    QByteArray Port::takeBuffData(unsigned short len) { return (link).reassembler.take(len); }                       \
    QByteArray Port::produceCmds(ProtocolData record) { return comm::commandFrame(record); }                          \
    QByteArray Port::changeData(QByteArray data) { return comm::frameHexText(data); }                                \
    void Port::clearQueue() { (link).sink.clearQueueDetached(m_cmdDeal); }                                           \
    void Port::setDeviceType(ModulelEnum::DeviceType type) { (link).reassembler.setDeviceType(type); }
