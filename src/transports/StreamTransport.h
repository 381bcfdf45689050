#pragma once

#include <memory>

#include <QByteArray>

#include "CmdDealModule.h"
#include "ModulelEnum.h"
#include "ProtocolData.h"
#include "comm_module_export.h"

namespace comm {
struct StreamLink;
struct StreamReassemblyConfig;
} // namespace comm

// What the serial and USB transports share, and not a transport of its own:
// the receive buffer their replies are reassembled from, the reply hand-off,
// the worker threads, and the operations on them that both transports offer.
// Each transport derives from PortBase first and from this second.
class COMM_MODULE_EXPORT StreamTransport
{
public:
    StreamTransport(const StreamTransport &) = delete;
    StreamTransport &operator=(const StreamTransport &) = delete;

    // Reply reassembly, one step at a time, on this transport's receive
    // buffer. The transport's worker runs the same steps.
    // Drops bytes up to the first "[" of snapshot; true when the buffer now
    // starts with "[" "R".
    bool isFindStdCmdPreFlag(QByteArray snapshot);
    // Checks and consumes the frame at the buffer's front; true when it gave a record.
    bool checkCMD(QByteArray frame);
    // Waits for length bytes of block data (as long as the link's block wait
    // allows), checks their check byte and queues record with them at once.
    // The USB transport's reassembly never calls it.
    bool checkBlock(ProtocolData record, unsigned short length);
    // Decodes the 16 digits of frame into *out when their check byte matches.
    bool getArrayData(QByteArray frame, ProtocolData *out);
    // Queues record at once, on the calling thread.
    void addToReceivedQueue(ProtocolData record);
    void setRetFlagStatus(bool value);

    // Receive buffer.
    void appendBuffData(QByteArray data);
    QByteArray getBuffData(unsigned short len);
    QByteArray takeBuffData(unsigned short len);
    // A copy of the whole receive buffer.
    QByteArray buffData() const;

    QByteArray produceCmds(ProtocolData record);
    QByteArray changeData(QByteArray data);

    // Worker threads started by this transport and still running.
    int runningWorkers() const;

protected:
    explicit StreamTransport(const comm::StreamReassemblyConfig &config);
    ~StreamTransport();

    // What the transports' clearQueue and setDeviceType do: module.clearQueue()
    // on a detached thread, returning at once; the device type stamped on
    // every reply record from now on.
    void clearQueueDetached(CmdDealModule &module);
    void setReplyDeviceType(ModulelEnum::DeviceType type);

    std::unique_ptr<comm::StreamLink> m_link;
};
