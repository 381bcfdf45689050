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
#include "StreamTransport.h"

namespace comm {
class HidDevice;
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
class COMM_MODULE_EXPORT PortUSB : public PortBase, public StreamTransport
{
    Q_OBJECT

public:
    PortUSB();
    ~PortUSB() override;

    // Network and serial operations: no meaning on USB.
    void setDeviceIP(QString) override {}
    void setPort(int) override {}
    bool openSerialPort(QString, QSerialPort::BaudRate, QSerialPort::StopBits, QSerialPort::Parity,
                        QSerialPort::FlowControl, QSerialPort::DataBits) override
    {
        return false;
    }
    void closeSerialPort() override {}

    void clearQueue() override { clearQueueDetached(m_cmdDeal); }
    void setDeviceType(ModulelEnum::DeviceType type) override { setReplyDeviceType(type); }

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

    // The reader: one read of up to 1024 bytes (100 ms at most) every 20 ms,
    // appended to the receive buffer, while m_readRunning is true.
    void ThreadReadPendingDatagrams();
    // The reassembly worker's body: turns while m_dealRunning is true.
    void ThreadDealDataFunc();

    // Whether a device is open.
    bool isOpen() const;

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

    // Serialises openUSB and closeUSB, wherever they are called from (the
    // watcher closes on its own thread).
    QMutex m_linkLock;
    // The device, with the rules for reading, writing and closing it from
    // several threads at once.
    std::unique_ptr<comm::HidDevice> m_device;
    CmdDealModule m_cmdDeal;
};
