#pragma once

#include <atomic>
#include <memory>

#include <QByteArray>
#include <QMutex>
#include <QSerialPort>
#include <QString>

#include "CmdDealModule.h"
#include "ModulelEnum.h"
#include "PortBase.h"
#include "ProtocolData.h"

class PortSerialPrivate;

/// The serial (COM) line transport (connection type ConnSerial).
///
/// openSerialPort() applies the line settings, opens the port and starts the
/// reassembly worker, which cuts reply frames (and their raw blocks) out of the
/// received bytes and queues them for the command module, with link byte 1 and
/// the port's name as their source. Commands are written synchronously: the
/// call returns once the frame is handed to the port.
///
/// The port lives on the transport's own I/O thread (`PortSerial-io`), where
/// its bytes are read; opening, closing and writing are carried over to it from
/// whichever thread calls, and the caller waits until they are done. So every
/// operation may be called from any thread.
///
/// The port's error signal is not connected here: an application that wants a
/// vanished device to close the port connects QSerialPort::errorOccurred of
/// m_com to handleError(), or to a slot of its own that calls closeSerialPort().
class COMM_MODULE_EXPORT PortSerial : public PortBase
{
    Q_OBJECT

public:
    /// Starts the I/O thread and makes the port on it, not yet open.
    ///
    /// \threads
    /// Any thread; starts the thread `PortSerial-io` and waits while the
    /// port's connections are made there. Without a QCoreApplication object no
    /// thread is started and the port stays on the creating thread, where it
    /// reads no replies.
    /// \logs
    /// Logs nothing.
    PortSerial();
    /// Closes the port, stops every worker and ends the I/O thread.
    ///
    /// Returns once every thread the transport started has ended; records
    /// already on the receive queue stay.
    /// \threads
    /// Any thread, also when the creating thread has ended. The close runs on
    /// the I/O thread while the caller waits.
    /// \logs
    /// Logs nothing.
    ~PortSerial() override;

    /// Opens the serial port and starts the reassembly worker.
    ///
    /// Closes the port first if it is open (stopping its worker unless the
    /// deal flag is false, and emptying the receive buffer), applies the
    /// settings in a fixed order (name, baud rate, data bits, parity, stop
    /// bits, flow control), opens read-write and starts the worker. When no
    /// worker thread can be started the port is closed again. The port's name,
    /// as QSerialPort::portName() gives it, becomes the source of every reply.
    /// \param name The port's name or path, for example `/dev/ttyUSB0`.
    /// \param baud The baud rate, for both directions.
    /// \param stopBits The stop bits.
    /// \param parity The parity.
    /// \param flow The flow control.
    /// \param dataBits The data bits.
    /// \threads
    /// Any thread; carried over to the I/O thread, the caller waits. Closing an
    /// open port first waits for its worker to end its turn.
    /// \logs
    /// Logs nothing (`m_com->error()` says why an open failed).
    /// \return true when the port is open and its worker started; false otherwise.
    bool openSerialPort(QString name, QSerialPort::BaudRate baud, QSerialPort::StopBits stopBits,
                        QSerialPort::Parity parity, QSerialPort::FlowControl flow,
                        QSerialPort::DataBits dataBits) override;
    /// Stops the worker, closes the port and empties the buffers; nothing when
    /// the port is not open.
    ///
    /// Returns nothing.
    /// \threads
    /// Any thread; carried over to the I/O thread, the caller waits, also for
    /// the worker to end its turn (which may include a block wait of about 600 ms).
    /// \logs
    /// Logs nothing.
    void closeSerialPort() override;
    /// Sets the worker's run flag, m_threadRun (not PortBase::m_dealFlag).
    ///
    /// false stops the worker at the end of its turn; true does not start one
    /// (only openSerialPort() does). Returns nothing.
    /// \param value The run flag's new value.
    /// \threads
    /// Any thread; runs on the caller and does not wait for the worker.
    /// \logs
    /// Logs nothing.
    void setDealFlag(bool value);

    /// Empties the command module's receive queue on a detached thread and
    /// returns at once.
    ///
    /// Returns nothing.
    /// \threads
    /// Any thread; the emptying runs on a new thread, which the destructor waits for.
    /// \logs
    /// Logs nothing.
    void clearQueue() override;
    /// Sets the device type stamped on every reply record from now on.
    ///
    /// Returns nothing.
    /// \param type The device model.
    /// \threads
    /// Any thread; the worker reads it atomically.
    /// \logs
    /// Logs nothing.
    void setDeviceType(ModulelEnum::DeviceType type) override;

    /// No meaning on a serial line: does nothing.
    ///
    /// Returns nothing.
    /// \threads
    /// Any thread.
    /// \logs
    /// Logs nothing.
    void setDeviceIP(QString) override {}
    /// No meaning on a serial line: does nothing.
    ///
    /// Returns nothing.
    /// \threads
    /// Any thread.
    /// \logs
    /// Logs nothing.
    void setPort(int) override {}
    /// No meaning on a serial line: opens nothing.
    ///
    /// \threads
    /// Any thread.
    /// \logs
    /// Logs nothing.
    /// \return false.
    bool openUSB(unsigned short, unsigned short) override { return false; }
    /// No meaning on a serial line: does nothing.
    ///
    /// Returns nothing.
    /// \threads
    /// Any thread.
    /// \logs
    /// Logs nothing.
    void closeUSB() override {}

    /// Writes data to the port in one call when the port is open, logging the
    /// outcome; nothing while it is closed.
    ///
    /// Returns nothing. A partial write is not reported.
    /// \param data The bytes to write.
    /// \threads
    /// Any thread; carried over to the I/O thread, the caller waits until the
    /// bytes are handed to the port.
    /// \logs
    /// While the port is open, on the I/O thread: `m_com->write N` (N the byte
    /// count), then `Send successful` when every byte was taken or `Send failed`
    /// when the write failed.
    void sendComData(QByteArray data);

    /// The reassembly worker's body: turns while m_threadRun is true.
    ///
    /// Sets m_threadExited false on entry and true as its last act. A turn
    /// sleeps 3 ms, then handles at most one frame (and its block). Returns
    /// nothing, once m_threadRun is false at the end of a turn.
    /// \threads
    /// The worker thread openSerialPort() starts; a caller that runs it itself
    /// is blocked while it turns.
    /// \logs
    /// Per frame, as checkCMD(): `Recv data:` with the header,
    /// `Recv data:` with the header and ` CheckBlock default:` for a missing or
    /// wrong block, `PortSerial::getArrayData   dataStr==` with the 16 digits for a check failure.
    void ThreadDealDataFunc();

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

    /// The worker runs while this is true; it is written under the transport's deal lock.
    std::atomic<bool> m_threadRun{false};
    /// Set by the worker as its last act.
    ///
    /// The stopping side does not wait for it: it waits until no worker is
    /// counted as running.
    std::atomic<bool> m_threadExited{false};
    /// The port, owned by the transport; it lives on the I/O thread.
    QSerialPort *m_com = nullptr;

signals:
    /// Declared for the application; the serial transport never emits it. Returns nothing.
    ///
    /// \threads
    /// Never emitted.
    /// \logs
    /// Logs nothing.
    void signalUSBChanged(bool);

public slots:
    /// Moves the bytes the port has received into the receive buffer, or drops
    /// them while the deal flag (PortBase::m_dealFlag) is false.
    ///
    /// Connected directly to the port's readyRead(). Returns nothing.
    /// \threads
    /// The port calls it on the I/O thread, as bytes arrive; from any other
    /// thread it is carried over there and the caller waits.
    /// \logs
    /// Logs nothing.
    void readPendingDatagrams();
    /// Sends one command record: writes its frame to the port, synchronously.
    ///
    /// The record is copied first and stays the caller's. Returns nothing: the
    /// outcome is only logged.
    /// \param parameters Points at the ProtocolData to send.
    /// \threads
    /// Any thread; the write is carried over to the I/O thread and the caller
    /// waits until the frame is handed to the port.
    /// \logs
    /// What sendComData() logs (`m_com->write N`, `Send successful` or
    /// `Send failed`, only while the port is open), then, on the calling
    /// thread and also while it is closed, `Send data:` followed by the
    /// frame's 19-character header.
    void sendDatatoDevice(void *parameters) override;
    /// Closes the port on a resource error (device gone); ignores every other error.
    ///
    /// Meant for QSerialPort::errorOccurred of m_com, connected by the
    /// application. A resource error the port reported before it was last
    /// opened (one that reached a queued connection late) leaves the new
    /// opening alone. It does not stop the worker (closeSerialPort() does).
    /// Returns nothing.
    /// \param error The port's error.
    /// \threads
    /// Any thread. The port signals on the I/O thread: connected with
    /// Qt::DirectConnection it runs there as the error happens; with the default
    /// connection it is queued to the thread that created the transport, which
    /// must run its event loop. The close runs on the I/O thread, the caller waits.
    /// \logs
    /// Logs nothing.
    void handleError(QSerialPort::SerialPortError error);

private:
    friend class PortSerialPrivate;

    CmdDealModule m_cmdDeal;
    QMutex m_dealLock;
    // The port's thread, the receive buffer with its reassembler, the reply
    // hand-off and the workers: kept out of this class's layout, so that they
    // can change without applications being rebuilt.
    const std::unique_ptr<PortSerialPrivate> d;
};
