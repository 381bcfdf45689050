#pragma once

#include <atomic>

#include <QObject>
#include <QSerialPort>
#include <QString>

#include "ModulelEnum.h"
#include "comm_module_export.h"

/// The abstract transport: one link to one device.
///
/// The application drives every link through these virtual operations and
/// hands commands in through the slot sendDatatoDevice(). A transport for which
/// an operation has no meaning overrides it with an empty body, or one that
/// returns false. The concrete transports are PortUDP (network), PortSerial
/// (serial line) and PortUSB (USB HID); PortInterface makes them.
///
/// Every operation may be called from any thread, and none of them waits for a
/// thread of the application; see each transport for where its work runs.
class COMM_MODULE_EXPORT PortBase : public QObject
{
    Q_OBJECT

public:
    /// Makes the QObject part, with no parent; the transport's constructor does the rest.
    ///
    /// \threads
    /// Runs on the thread that creates the transport, as part of its constructor.
    /// \logs
    /// Logs nothing.
    PortBase();
    /// Destroys the QObject part, after the transport's own destructor has
    /// closed its link and ended every thread it started.
    ///
    /// \threads
    /// Runs on the thread that deletes the transport, which may be any thread.
    /// \logs
    /// Logs nothing.
    ~PortBase() override;

    /// Sets the address of the device that unicast commands go to (network link).
    ///
    /// PortUDP stores it for the next send; the serial and USB transports ignore it.
    /// Returns nothing.
    /// \param ip The device's address as text, for example `192.168.1.50`.
    /// \threads
    /// Any thread; runs on the caller and returns at once.
    /// \logs
    /// Logs nothing, on every transport.
    virtual void setDeviceIP(QString ip) = 0;
    /// Sets the device's UDP port that commands go to (network link).
    ///
    /// PortUDP stores it for the next send; the serial and USB transports ignore it.
    /// Returns nothing.
    /// \param port The device port.
    /// \threads
    /// Any thread; runs on the caller and returns at once.
    /// \logs
    /// Logs nothing, on every transport.
    virtual void setPort(int port) = 0;
    /// Empties the command module's receive queue, CmdDealModule::receivequeueHexCmd.
    ///
    /// Every transport does it on a detached thread of its own, which takes
    /// CmdDealModule::receiveHexCmdlock; the call returns at once, before the
    /// queue is empty. Returns nothing.
    /// \threads
    /// Any thread; the emptying runs on a new thread the transport waits for
    /// before it is destroyed.
    /// \logs
    /// Logs nothing.
    virtual void clearQueue() = 0;
    /// Opens a serial port with the given line settings (serial link).
    ///
    /// PortSerial opens the port and starts reading replies; the network and
    /// USB transports return false and do nothing.
    /// \param name The port's name or path, for example `/dev/ttyUSB0`.
    /// \param baud The baud rate, for both directions.
    /// \param stopBits The stop bits.
    /// \param parity The parity.
    /// \param flow The flow control.
    /// \param dataBits The data bits.
    /// \threads
    /// Any thread; PortSerial carries the open over to its I/O thread and waits for it.
    /// \logs
    /// Logs nothing, on every transport.
    /// \return true when the port is open; false when it did not open, and
    /// always on the network and USB transports.
    virtual bool openSerialPort(QString name, QSerialPort::BaudRate baud, QSerialPort::StopBits stopBits,
                                QSerialPort::Parity parity, QSerialPort::FlowControl flow,
                                QSerialPort::DataBits dataBits) = 0;
    /// Closes the serial port (serial link); the other transports do nothing.
    ///
    /// Returns nothing.
    /// \threads
    /// Any thread; PortSerial carries the close over to its I/O thread and waits for it.
    /// \logs
    /// Logs nothing, on every transport.
    virtual void closeSerialPort() = 0;
    /// Opens the first HID device with the given identifiers (USB link).
    ///
    /// PortUSB opens it and starts reading replies; the network and serial
    /// transports return false and do nothing.
    /// \param vid The device's USB vendor identifier.
    /// \param pid The device's USB product identifier.
    /// \threads
    /// Any thread; PortUSB opens on the caller's thread.
    /// \logs
    /// Logs nothing, on every transport.
    /// \return true when the device is open; false when it did not open, and
    /// always on the network and serial transports.
    virtual bool openUSB(unsigned short vid, unsigned short pid) = 0;
    /// Closes the HID device (USB link); the other transports do nothing.
    ///
    /// Returns nothing.
    /// \threads
    /// Any thread; PortUSB closes on the caller's thread.
    /// \logs
    /// Logs nothing, on every transport.
    virtual void closeUSB() = 0;
    /// Sets the device type stamped on every reply record from now on.
    ///
    /// The library only copies the value into ProtocolData::deviceType. Returns nothing.
    /// \param type The device model.
    /// \threads
    /// Any thread; runs on the caller and returns at once.
    /// \logs
    /// Logs nothing.
    virtual void setDeviceType(ModulelEnum::DeviceType type) = 0;

    /// The deal flag, true at first.
    ///
    /// While false, replies are not handed to the command module (network) and
    /// received bytes are dropped (serial); the USB link does not look at it.
    /// Only the application changes it; worker threads read it, hence atomic.
    std::atomic<bool> m_dealFlag{true};

signals:
    /// A USB device's presence changed: the argument is true when it came back,
    /// false when it went.
    ///
    /// No transport emits this one. Each transport class declares a
    /// signalUSBChanged(bool) of its own, and the hot-plug watcher emits
    /// PortUSB::signalUSBChanged; connect to that one, through a PortUSB pointer.
    /// Returns nothing.
    /// \threads
    /// Never emitted.
    /// \logs
    /// Logs nothing.
    void signalUSBChanged(bool);

public slots:
    /// Sends one command record to the device: the single entry for commands.
    ///
    /// The transport makes the record's frame (the 19-character header, then
    /// the payload) and writes it on its link. The record stays the caller's:
    /// it is copied before anything else is done. Dispatched through the
    /// virtual table, so invoking it through this meta-object runs the
    /// transport's own override. Returns nothing: the outcome is only logged.
    /// \param parameters Points at the ProtocolData to send.
    /// \threads
    /// Any thread. `QMetaObject::invokeMethod` with the default connection is a
    /// direct call on the thread that created the transport; from any other
    /// thread call it directly, as a queued call would run after the record is gone.
    /// Where the bytes are written depends on the transport (see its override).
    /// \logs
    /// Network: the send's outcome, then `Send data:` with the frame (see
    /// PortUDP::sendDatatoDevice). Serial: `m_com->write N`, `Send successful` or
    /// `Send failed`, then `Send data:` with the header. USB: `Send usb data:` with the header.
    virtual void sendDatatoDevice(void *parameters) = 0;

private:
    // Room for what a later version adds to every transport, so that this
    // class's layout, and with it every transport's, stays as it is.
    void *const m_reserved = nullptr;
};
