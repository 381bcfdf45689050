#pragma once

#include <atomic>
#include <chrono>
#include <memory>

#include <QByteArray>
#include <QMutex>
#include <QSerialPort>
#include <QString>

#include "CmdDealModule.h"
#include "ModulelEnum.h"
#include "PortBase.h"
#include "ProtocolData.h"

// hidapi's device handle (hid_device); the library keeps hidapi to itself.
struct hid_device_;

namespace comm {
class DetachedWork;
class ReplyHandOff;
class StreamReassembler;
enum class ReportSplit;
} // namespace comm

// The USB HID transport. openUSB opens the first HID device with the given
// vendor and product identifiers and starts two workers: a reader that moves
// every input report into the receive buffer, and a reassembly worker that
// cuts reply frames out of it and queues them for the command module.
// Commands are written synchronously on the caller's thread as 65-byte output
// reports (report ID 0, 64 bytes of the frame, zeros behind).
//
// One hot-plug watcher per process, started by the first PortUSB, polls for
// the device last passed to openUSB and reports its removal (after closing the
// transport) and its return through signalUSBChanged. It serves the oldest
// PortUSB still alive, and nothing once none is. It never reopens the device:
// on signalUSBChanged(true) the application calls openUSB again.
class COMM_MODULE_EXPORT PortUSB : public PortBase
{
    Q_OBJECT

public:
    PortUSB();
    ~PortUSB() override;

    // Network and serial operations: no meaning on USB.
    void setDeviceIP(QString ip) override;
    void setPort(int port) override;
    bool openSerialPort(QString name, QSerialPort::BaudRate baud, QSerialPort::StopBits stopBits,
                        QSerialPort::Parity parity, QSerialPort::FlowControl flow,
                        QSerialPort::DataBits dataBits) override;
    void closeSerialPort() override;

    void clearQueue() override;
    void setDeviceType(ModulelEnum::DeviceType type) override;

    // Closes the device held (keeping the receive buffer), pauses 100 ms, opens
    // the first device with vid and pid and starts a fresh reader and
    // reassembly worker. The identifiers are what the hot-plug watcher looks
    // for from now on, also when the open fails. False when it fails.
    bool openUSB(unsigned short vid, unsigned short pid) override;
    // Stops the workers, empties the receive buffer and closes the device, then
    // pauses 100 ms (also when nothing was open).
    void closeUSB() override;

    // Starts the process-wide hot-plug watcher unless one has been started.
    void USBChanged();

    // The 100 ms pause of openUSB and closeUSB is taken by calling pause with
    // that duration; null (the default) sleeps. For tests that open and close
    // transports by the thousand; the library never sets it.
    using PauseFunction = void (*)(std::chrono::milliseconds);
    static void setOpenClosePause(PauseFunction pause);

    // Writes data as output reports of 64 bytes and one short report for the
    // rest; nothing while closed. A failed write logs "Send failed" and drops
    // the rest.
    void sendUSBData(QByteArray data);
    // Writes update data: as sendUSBData, except that data of 64 bytes or more
    // starts with a report of its first 19 bytes, and that a failed write ends
    // the call silently unless it is the final short report.
    void sendUSBData_Update_Vornik(QByteArray data);

    QByteArray produceCmds(ProtocolData record);
    QByteArray changeData(QByteArray data);

    // The reader: one read of up to 1024 bytes (100 ms at most) every 20 ms,
    // appended to the receive buffer, while m_readRunning is true.
    void ThreadReadPendingDatagrams();

    // Reply reassembly, on this transport's receive buffer.
    void ThreadDealDataFunc();
    bool isFindStdCmdPreFlag(QByteArray snapshot);
    bool checkCMD(QByteArray frame);
    // Never called by the reassembly: waits up to 200 times 20 ms for length
    // bytes, checks their check byte and queues record with them at once.
    bool checkBlock(ProtocolData record, unsigned short length);
    bool getArrayData(QByteArray frame, ProtocolData *out);
    void addToReceivedQueue(ProtocolData record);
    void setRetFlagStatus(bool value);

    // Receive buffer.
    void appendBuffData(QByteArray data);
    QByteArray getBuffData(unsigned short len);
    QByteArray takeBuffData(unsigned short len);
    // A copy of the whole receive buffer.
    QByteArray buffData() const;

    // Whether a device is open.
    bool isOpen() const;
    // Readers and reassembly workers started by this object and still running.
    int runningWorkers() const;

    // Kept for applications; nothing in the class sets it. While true, sending
    // also forms the frame's command text (and drops it).
    std::atomic<bool> m_cmdTextFlag{false};
    // The reassembly worker runs while this is true.
    std::atomic<bool> m_dealRunning{false};
    // The reader runs while this is true.
    std::atomic<bool> m_readRunning{false};

signals:
    void signalUSBChanged(bool);

public slots:
    void sendDatatoDevice(void *parameters) override;

protected:
    // From here on the hot-plug watcher leaves this object alone, and no call
    // of the watcher's is in progress on it. The destructor does this first; a
    // derived class whose closeUSB override uses its own members calls it at
    // the start of its destructor.
    void stopHotPlugReports();

private:
    // The hot-plug watcher's body (never returns).
    static void ThreadUSBChanged();

    // Stops the reader, closes the device and stops the reassembly worker,
    // emptying the receive buffer when asked. Called with m_linkLock held.
    void closeDevice(bool clearBuffer);
    void writeReports(const QByteArray &data, comm::ReportSplit split);
    // Writes one 65-byte output report: what hid_write returns, or -2 while
    // no device is open.
    int writeReport(const unsigned char *report);

    // Serialises openUSB and closeUSB, wherever they are called from (the
    // watcher closes on its own thread).
    QMutex m_linkLock;
    // Held by the reader around each read and by closing around hid_close.
    QMutex m_deviceLock;
    // Held by writes and by closing around hid_close, so that no write uses a
    // closed handle. Reads and writes do not wait for each other.
    mutable QMutex m_writeLock;
    // The open device; written with all three locks held, read with any one.
    hid_device_ *m_device = nullptr;
    // hidapi keeps an error string per device, which every read frees at its
    // start and every write at its end, and which a failed call sets. While it
    // is empty, a read and a write may run at the same time; once a call has
    // failed, two at once could free it twice. So from a failed call until a
    // call made alone succeeds, reads and writes take turns (each holding both
    // locks).
    std::atomic<bool> m_deviceFailing{false};

    QByteArray m_auxData1;
    QByteArray m_auxData2;
    CmdDealModule m_cmdDeal;
    std::unique_ptr<comm::ReplyHandOff> m_handOff;
    std::unique_ptr<comm::StreamReassembler> m_reassembler;
    std::unique_ptr<comm::DetachedWork> m_workers;
};
