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
#include "StreamTransport.h"

namespace comm {
class IoThread;
} // namespace comm

// The serial (COM) line transport. openSerialPort applies the line settings,
// opens the port and starts the reassembly worker, which cuts reply frames
// (and their raw blocks) out of the received bytes and queues them for the
// command module. Commands are written synchronously: the call returns once
// the frame is handed to the port.
//
// The port lives on the transport's own I/O thread, where its bytes are read;
// opening, closing and writing are carried over to it from whichever thread
// calls, so every operation may be called from any thread.
//
// The port's error signal is not connected here: an application that wants a
// vanished device to close the port connects QSerialPort::errorOccurred of
// m_com to handleError.
class PortSerial : public PortBase, public StreamTransport
{
    Q_OBJECT

public:
    PortSerial();
    ~PortSerial() override;

    // Closes the port first if it is open, applies the settings in a fixed
    // order (name, baud rate, data bits, parity, stop bits, flow control),
    // opens read-write and starts the reassembly worker. False when the port
    // does not open.
    bool openSerialPort(QString name, QSerialPort::BaudRate baud, QSerialPort::StopBits stopBits,
                        QSerialPort::Parity parity, QSerialPort::FlowControl flow,
                        QSerialPort::DataBits dataBits) override;
    // Stops the worker, closes the port and empties the buffers; nothing when
    // the port is not open.
    void closeSerialPort() override;
    // Sets the worker's run flag: false stops the worker at the end of its
    // turn, true does not start one (only openSerialPort does).
    void setDealFlag(bool value);

    void clearQueue() override { clearQueueDetached(m_cmdDeal); }
    void setDeviceType(ModulelEnum::DeviceType type) override { setReplyDeviceType(type); }

    // Network and USB operations: no meaning on a serial line.
    void setDeviceIP(QString) override {}
    void setPort(int) override {}
    bool openUSB(unsigned short, unsigned short) override { return false; }
    void closeUSB() override {}

    // Writes data in one call when the port is open, logging the outcome.
    void sendComData(QByteArray data);

    // The reassembly worker's body: turns while m_threadRun is true.
    void ThreadDealDataFunc();

    // The worker runs while this is true; it is written under m_dealLock.
    std::atomic<bool> m_threadRun{false};
    // Set by the worker as its last act. The stopping side does not wait for
    // it: it waits until no worker is counted as running.
    std::atomic<bool> m_threadExited{false};
    // The port, owned by the transport; it lives on the I/O thread.
    QSerialPort *m_com = nullptr;

signals:
    void signalUSBChanged(bool);

public slots:
    // Moves the bytes the port has received into the receive buffer, or drops
    // them while the deal flag is false (on the I/O thread, where readyRead()
    // runs it).
    void readPendingDatagrams();
    void sendDatatoDevice(void *parameters) override;
    // A resource error (device gone) closes an open port; nothing else does,
    // and neither does a resource error the port reported before it was last
    // opened (one that reached a queued connection late). The close runs on
    // the I/O thread, whichever thread the error reaches.
    void handleError(QSerialPort::SerialPortError error);

protected:
    // The one write call of sendComData. Returns what QIODevice::write returns.
    virtual qint64 writeComData(const char *data, qint64 size);

private:
    bool openOnIoThread(const QString &name, QSerialPort::BaudRate baud, QSerialPort::StopBits stopBits,
                        QSerialPort::Parity parity, QSerialPort::FlowControl flow, QSerialPort::DataBits dataBits);
    void stopWorker();

    CmdDealModule m_cmdDeal;
    QMutex m_dealLock;
    // Where the port lives; started before it is made, stopped after it is gone.
    std::unique_ptr<comm::IoThread> m_io;
    // Resource errors the port has reported, and their count when it was last
    // opened; both only touched on the I/O thread.
    int m_resourceErrorsReported = 0;
    int m_resourceErrorsAtOpen = 0;
};
