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

/// What the serial and USB transports share, and not a transport of its own.
///
/// It holds the receive buffer their replies are reassembled from, the reply
/// hand-off, the worker threads, and the operations on them that both
/// transports offer. Each transport derives from PortBase first and from this
/// second.
///
/// The reassembly operations below are the steps the transport's worker runs;
/// each buffer step holds the buffer's lock, but steps of a caller and of a
/// running worker interleave. Check failures are logged with the link's own
/// text: `PortSerial::getArrayData   dataStr==` or `PortUSB::getArrayData   dataStr==`.
class COMM_MODULE_EXPORT StreamTransport
{
public:
    /// Not copyable: the transport owns its buffer and workers.
    ///
    /// \threads
    /// None: deleted.
    /// \logs
    /// Logs nothing.
    StreamTransport(const StreamTransport &) = delete;
    /// Not assignable: the transport owns its buffer and workers.
    ///
    /// \threads
    /// None: deleted.
    /// \logs
    /// Logs nothing.
    /// \return Never: deleted.
    StreamTransport &operator=(const StreamTransport &) = delete;

    /// Reassembly step: drops bytes up to the first `[` of snapshot and looks
    /// whether a reply frame starts there.
    ///
    /// With no `[` in snapshot, as many bytes as snapshot holds are dropped.
    /// A `[` not followed by `R` is dropped too.
    /// \param snapshot The front of the receive buffer, as getBuffData() gave it.
    /// \threads
    /// Any thread; runs on the caller.
    /// \logs
    /// Logs nothing.
    /// \return true when the buffer now starts with `[` `R`.
    bool isFindStdCmdPreFlag(QByteArray snapshot);
    /// Reassembly step: checks and consumes the frame at the buffer's front.
    ///
    /// A frame whose check byte does not match loses its `[` (the rest is
    /// scanned again as data). A valid frame is consumed; on the serial link,
    /// when it announces a block, the block is waited for and queued with it
    /// as checkBlock() does; otherwise its record is queued from a new
    /// detached thread.
    /// \param frame At least the 19 bytes at the buffer's front; fewer give false and nothing happens.
    /// \threads
    /// Any thread; runs on the caller, which waits for an announced block
    /// (serial: up to about 600 ms).
    /// \logs
    /// A check failure: the link's check failure text followed by the 16 digits.
    /// A frame taken: `Recv data:` followed by the 19-byte header; when its
    /// announced block is missing or wrong, one line of the header and
    /// ` CheckBlock default:` (`Recv data:[R...] CheckBlock default:`).
    /// \return true when the frame gave a record.
    bool checkCMD(QByteArray frame);
    /// Reassembly step: waits for length bytes of block data, checks their
    /// check byte and queues record with them at once.
    ///
    /// The wait looks again every few milliseconds, as long as the link's
    /// block wait allows (serial: 150 looks 4 ms apart). An incomplete block is
    /// left in the buffer; a complete one is consumed, also when its last byte
    /// is not the 8-bit sum of the others. A length of 0 queues record with no
    /// payload. The USB transport's reassembly never calls it.
    /// \param record The reply the block belongs to; stamped with the link
    /// byte, the device type and (serial) the port name.
    /// \param length The block's length, its check byte included.
    /// \threads
    /// Any thread; waits on the caller, and appends to the receive queue on
    /// the caller (taking CmdDealModule::receiveHexCmdlock, then CmdDealModule::HexCmdlock).
    /// \logs
    /// Logs nothing.
    /// \return true when record was queued with its block.
    bool checkBlock(ProtocolData record, unsigned short length);
    /// Decodes the 16 digits of a reply frame (bytes 2 to 17) into *out when
    /// their check byte matches.
    ///
    /// \param frame The frame; a shorter one reads as if it ended in zero bytes.
    /// \param out Receives the command, parameter and check bytes; untouched on a mismatch.
    /// \threads
    /// Any thread; runs on the caller and touches no state of the transport.
    /// \logs
    /// On a mismatch, the link's check failure text followed by the 16 digits
    /// (`PortSerial::getArrayData   dataStr==` or `PortUSB::getArrayData   dataStr==`).
    /// \return true when the check byte matches.
    bool getArrayData(QByteArray frame, ProtocolData *out);
    /// Appends record to the command module's receive queue and raises its
    /// reply-arrived flag, at once.
    ///
    /// Returns nothing.
    /// \param record The reply, queued as it is.
    /// \threads
    /// Any thread not holding the command module's locks; runs on the caller,
    /// taking CmdDealModule::receiveHexCmdlock, then CmdDealModule::HexCmdlock.
    /// \logs
    /// Logs nothing.
    void addToReceivedQueue(ProtocolData record);
    /// Sets the command module's reply-arrived flag, CmdDealModule::bRetFlag.
    ///
    /// Returns nothing.
    /// \param value The flag's new value.
    /// \threads
    /// Any thread not holding CmdDealModule::HexCmdlock; runs on the caller, under that lock.
    /// \logs
    /// Logs nothing.
    void setRetFlagStatus(bool value);

    /// Appends a copy of data to the receive buffer.
    ///
    /// Returns nothing.
    /// \param data The received bytes.
    /// \threads
    /// Any thread; runs on the caller, under the buffer's lock.
    /// \logs
    /// Logs nothing.
    void appendBuffData(QByteArray data);
    /// The first len bytes of the receive buffer, left in place.
    ///
    /// \param len How many bytes at most.
    /// \threads
    /// Any thread; runs on the caller, under the buffer's lock.
    /// \logs
    /// Logs nothing.
    /// \return A copy of them; fewer when the buffer is shorter.
    QByteArray getBuffData(unsigned short len);
    /// Removes the first len bytes of the receive buffer.
    ///
    /// \param len How many bytes at most.
    /// \threads
    /// Any thread; runs on the caller, under the buffer's lock.
    /// \logs
    /// Logs nothing.
    /// \return The bytes removed; fewer when the buffer was shorter.
    QByteArray takeBuffData(unsigned short len);
    /// A copy of the whole receive buffer.
    ///
    /// \threads
    /// Any thread; runs on the caller, under the buffer's lock.
    /// \logs
    /// Logs nothing.
    /// \return The buffer's bytes.
    QByteArray buffData() const;

    /// Makes the command frame of record.
    ///
    /// \param record The command; not changed.
    /// \threads
    /// Any thread; touches no state of the transport.
    /// \logs
    /// Logs nothing.
    /// \return `[`, `A`, the command byte, the six parameter bytes and their
    /// 8-bit sum as 16 lower-case hex digits, `]`, then the payload raw.
    QByteArray produceCmds(ProtocolData record);
    /// The header text form of some bytes.
    ///
    /// \param data The bytes.
    /// \threads
    /// Any thread; touches no state of the transport.
    /// \logs
    /// Logs nothing.
    /// \return `[`, `A`, two lower-case hex digits per byte, `]`: 3 + 2 * size characters.
    QByteArray changeData(QByteArray data);

    /// Worker threads started by this transport and still running.
    ///
    /// \threads
    /// Any thread.
    /// \logs
    /// Logs nothing.
    /// \return The count: readers and reassembly workers, from their start to their end.
    int runningWorkers() const;

protected:
    /// Sets up the buffer, the reply hand-off and the worker count with one
    /// link's reassembly settings; only PortSerial and PortUSB make one.
    ///
    /// \param config The link's settings: link byte, source text, turn and block timing.
    /// \threads
    /// The thread that creates the transport.
    /// \logs
    /// Logs nothing.
    explicit StreamTransport(const comm::StreamReassemblyConfig &config);
    /// Destroys the buffer and hand-off; the transport's destructor has
    /// already waited for its workers and detached hand-offs.
    ///
    /// \threads
    /// The thread that deletes the transport.
    /// \logs
    /// Logs nothing.
    ~StreamTransport();

    /// What the transports' clearQueue does: module.clearQueue() on a detached
    /// thread, returning at once.
    ///
    /// Returns nothing.
    /// \param module The command module whose queue is emptied; it must outlive the thread.
    /// \threads
    /// Any thread; the emptying runs on a new thread, which the transport
    /// waits for before it is destroyed.
    /// \logs
    /// Logs nothing.
    void clearQueueDetached(CmdDealModule &module);
    /// What the transports' setDeviceType does: the device type stamped on
    /// every reply record from now on.
    ///
    /// Returns nothing.
    /// \param type The device model.
    /// \threads
    /// Any thread; the workers read it atomically.
    /// \logs
    /// Logs nothing.
    void setReplyDeviceType(ModulelEnum::DeviceType type);

    /// The receive buffer, reassembler, reply hand-off and worker count of the link.
    std::unique_ptr<comm::StreamLink> m_link;
};
