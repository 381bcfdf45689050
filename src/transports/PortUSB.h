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

class PortUSBPrivate;

/// The USB HID transport (connection type ConnUSB).
///
/// openUSB() opens the first HID device with the given vendor and product
/// identifiers and starts two workers: a reader that moves every input report
/// into the receive buffer, and a reassembly worker that cuts reply frames out
/// of it and queues them for the command module, with link byte 2 and source
/// `USB`. Commands are written synchronously on the caller's thread as 65-byte
/// output reports (report ID 0, 64 bytes of the frame, zeros behind).
///
/// One hot-plug watcher per process (the thread `PortUSB-hotplug`), started by
/// the first PortUSB, polls for the device last passed to openUSB() and reports
/// its removal (after closing the transport) and its return through
/// signalUSBChanged(). It serves the oldest PortUSB still alive, and nothing
/// once none is. It never reopens the device: on signalUSBChanged(true) the
/// application calls openUSB() again.
class COMM_MODULE_EXPORT PortUSB : public PortBase
{
    Q_OBJECT

public:
    /// Makes the transport, with no device open, and has the hot-plug watcher serve it.
    ///
    /// The transport joins the watcher's list as its newest; the watcher
    /// thread is started unless one has been already.
    /// \threads
    /// Any thread; may start the watcher thread, which runs until the process ends.
    /// \logs
    /// Logs nothing.
    PortUSB();
    /// Leaves the watcher, closes the device and waits for every worker and hand-off.
    ///
    /// Calls closeUSB() (with its 100 ms pause). Returns once every thread the
    /// transport started has ended; records already on the receive queue stay.
    /// \threads
    /// Any thread; waits for a watcher call in progress on this transport,
    /// unless it runs on the watcher's own thread (a slot connected directly to
    /// signalUSBChanged() that deletes the transport).
    /// \logs
    /// Logs nothing.
    ~PortUSB() override;

    /// No meaning on USB: does nothing.
    ///
    /// Returns nothing.
    /// \threads
    /// Any thread.
    /// \logs
    /// Logs nothing.
    void setDeviceIP(QString) override {}
    /// No meaning on USB: does nothing.
    ///
    /// Returns nothing.
    /// \threads
    /// Any thread.
    /// \logs
    /// Logs nothing.
    void setPort(int) override {}
    /// No meaning on USB: opens nothing.
    ///
    /// \threads
    /// Any thread.
    /// \logs
    /// Logs nothing.
    /// \return false.
    bool openSerialPort(QString, QSerialPort::BaudRate, QSerialPort::StopBits, QSerialPort::Parity,
                        QSerialPort::FlowControl, QSerialPort::DataBits) override
    {
        return false;
    }
    /// No meaning on USB: does nothing.
    ///
    /// Returns nothing.
    /// \threads
    /// Any thread.
    /// \logs
    /// Logs nothing.
    void closeSerialPort() override {}

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
    /// Any thread; the reassembly worker reads it atomically.
    /// \logs
    /// Logs nothing.
    void setDeviceType(ModulelEnum::DeviceType type) override;

    /// Opens the first HID device with vid and pid and starts a fresh reader
    /// and reassembly worker.
    ///
    /// Closes the device held first (keeping the receive buffer), pauses
    /// 100 ms and waits for the workers of the previous opening to end. The
    /// identifiers are what the hot-plug watcher looks for from now on, also
    /// when the open fails. When a worker cannot be started the device is closed again.
    /// \param vid The device's USB vendor identifier.
    /// \param pid The device's USB product identifier.
    /// \threads
    /// Any thread; runs on the caller, one at a time with closeUSB() and the
    /// watcher's close. Starts the two worker threads.
    /// \logs
    /// Logs nothing.
    /// \return true when the device is open and both workers started; false otherwise.
    bool openUSB(unsigned short vid, unsigned short pid) override;
    /// Closes the device when one is open, telling both workers to stop and
    /// emptying the receive buffer, then pauses 100 ms (also when nothing was open).
    ///
    /// The workers end at the end of their cycle; the next openUSB() and the
    /// destructor wait for that. Returns nothing.
    /// \threads
    /// Any thread; runs on the caller, one at a time with openUSB() and the
    /// watcher's close. The hot-plug watcher calls it on its own thread when
    /// the device goes. The close waits for a read in progress (at most 100 ms).
    /// \logs
    /// Logs nothing.
    void closeUSB() override;

    /// Starts the process-wide hot-plug watcher unless one has been started.
    ///
    /// The constructor calls it. Returns nothing.
    /// \threads
    /// Any thread; the watcher runs on a detached thread of its own
    /// (`PortUSB-hotplug`) until the process ends.
    /// \logs
    /// Logs nothing.
    void USBChanged();

    /// Writes data as output reports of 64 bytes and one short report for the
    /// rest; nothing while closed.
    ///
    /// Each report is 65 bytes: report ID 0, the bytes, zeros behind. A
    /// failed write drops the rest. Returns nothing.
    /// \param data The bytes to write.
    /// \threads
    /// Any thread; writes on the caller.
    /// \logs
    /// `Send failed` when a report's write fails; nothing else.
    void sendUSBData(QByteArray data);
    /// Writes update data: as sendUSBData(), except that data of 64 bytes or
    /// more starts with a report of its first 19 bytes.
    ///
    /// A failed write drops the rest. Returns nothing.
    /// \param data The bytes to write.
    /// \threads
    /// Any thread; writes on the caller.
    /// \logs
    /// `Send failed` when the final short report's write fails; a failed
    /// write of a full report ends the call silently.
    void sendUSBData_Update_Vornik(QByteArray data);

    /// The reader's body: one read of up to 1024 bytes (100 ms at most) every
    /// 20 ms, appended to the receive buffer, while m_readRunning is true.
    ///
    /// Returns at once when m_readRunning is false on entry; otherwise after
    /// the cycle in which it is found false. Returns nothing.
    /// \threads
    /// The reader thread openUSB() starts; a caller that runs it itself is
    /// blocked while it reads.
    /// \logs
    /// Logs nothing.
    void ThreadReadPendingDatagrams();
    /// The reassembly worker's body: turns while m_dealRunning is true.
    ///
    /// A turn sleeps 20 ms, then handles at most one frame; every valid frame
    /// is queued with an empty payload. Returns nothing, once m_dealRunning is
    /// false at the end of a turn.
    /// \threads
    /// The reassembly thread openUSB() starts; a caller that runs it itself is
    /// blocked while it turns.
    /// \logs
    /// Per frame: `Recv data:` followed by the 19-byte header, or
    /// `PortUSB::getArrayData   dataStr==` followed by the 16 digits for a check failure.
    void ThreadDealDataFunc();

    /// \copydoc PortSerial::isFindStdCmdPreFlag
    bool isFindStdCmdPreFlag(QByteArray snapshot);
    /// \copydoc PortSerial::checkCMD
    bool checkCMD(QByteArray frame);
    /// \copydoc PortSerial::checkBlock
    bool checkBlock(ProtocolData record, unsigned short length);
    /// \copydoc PortSerial::getArrayData
    bool getArrayData(QByteArray frame, ProtocolData *out);
    /// \copydoc PortSerial::addToReceivedQueue
    void addToReceivedQueue(ProtocolData record);
    /// \copydoc PortSerial::setRetFlagStatus
    void setRetFlagStatus(bool value);
    /// \copydoc PortSerial::appendBuffData
    void appendBuffData(QByteArray data);
    /// \copydoc PortSerial::getBuffData
    QByteArray getBuffData(unsigned short len);
    /// \copydoc PortSerial::takeBuffData
    QByteArray takeBuffData(unsigned short len);
    /// \copydoc PortSerial::produceCmds
    QByteArray produceCmds(ProtocolData record);
    /// \copydoc PortSerial::changeData
    QByteArray changeData(QByteArray data);

    /// Kept for applications; nothing in the class sets it. While true, sending
    /// also forms the frame's command text (and drops it).
    std::atomic<bool> m_cmdTextFlag{false};
    /// The reassembly worker runs while this is true.
    std::atomic<bool> m_dealRunning{false};
    /// The reader runs while this is true.
    std::atomic<bool> m_readRunning{false};

signals:
    /// The watched device went (false) or came back (true).
    ///
    /// Emitted by the hot-plug watcher, which polls every 100 ms for the
    /// identifiers last passed to openUSB(), on the oldest PortUSB alive; on a
    /// removal it has called closeUSB() first. Only changes are reported, not
    /// the state found first. The device is never reopened here. Returns nothing.
    /// \threads
    /// Emitted on the watcher's thread (`PortUSB-hotplug`). A slot of an
    /// object on another thread is queued there with the default connection.
    /// \logs
    /// Logs nothing.
    void signalUSBChanged(bool);

public slots:
    /// Sends one command record: writes its frame as output reports, synchronously.
    ///
    /// The record is copied first and stays the caller's. Nothing is written
    /// while no device is open. Returns nothing: the outcome is only logged.
    /// \param parameters Points at the ProtocolData to send.
    /// \threads
    /// Any thread; writes on the caller.
    /// \logs
    /// `Send failed` when a report's write fails, then, also while closed,
    /// `Send usb data:` followed by the frame's 19-byte header.
    void sendDatatoDevice(void *parameters) override;

private:
    friend class PortUSBPrivate;

    // The hot-plug watcher's body (never returns).
    static void ThreadUSBChanged();

    CmdDealModule m_cmdDeal;
    // The device with its locks, the receive buffer with its reassembler,
    // the reply hand-off and the workers: kept out of this class's layout, so
    // that they can change without applications being rebuilt.
    const std::unique_ptr<PortUSBPrivate> d;
};
