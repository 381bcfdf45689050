#pragma once

#include <atomic>

#include <QObject>
#include <QSerialPort>
#include <QString>

#include "ModulelEnum.h"
#include "comm_module_export.h"

// The abstract transport. The application drives every link through these
// virtual operations and hands commands in through the slot sendDatatoDevice.
// A transport for which an operation has no meaning overrides it with an empty
// body, or one that returns false.
class COMM_MODULE_EXPORT PortBase : public QObject
{
    Q_OBJECT

public:
    PortBase();
    ~PortBase() override;

    virtual void setDeviceIP(QString ip) = 0;
    virtual void setPort(int port) = 0;
    virtual void clearQueue() = 0;
    virtual bool openSerialPort(QString name, QSerialPort::BaudRate baud, QSerialPort::StopBits stopBits,
                                QSerialPort::Parity parity, QSerialPort::FlowControl flow,
                                QSerialPort::DataBits dataBits) = 0;
    virtual void closeSerialPort() = 0;
    virtual bool openUSB(unsigned short vid, unsigned short pid) = 0;
    virtual void closeUSB() = 0;
    virtual void setDeviceType(ModulelEnum::DeviceType type) = 0;

    // While false, replies are not handed to the command module (network) and
    // received bytes are dropped (serial). Only the application changes it;
    // worker threads read it, hence atomic.
    std::atomic<bool> m_dealFlag{true};

signals:
    void signalUSBChanged(bool);

public slots:
    // The single entry for commands: parameters points at a ProtocolData that
    // stays the caller's. Dispatched through the virtual table, so invoking it
    // through this meta-object runs the transport's own override.
    virtual void sendDatatoDevice(void *parameters) = 0;
};
