#pragma once

#include <atomic>
#include <memory>
#include <mutex>

#include <QByteArray>
#include <QString>

#include "CmdDealModule.h"
#include "ModulelEnum.h"
#include "PortBase.h"
#include "ProtocolData.h"

class QUdpSocket;
class PortUDPPrivate;

/// The network transport (connection type ConnUDP): talks to one device over
/// UDP through a single socket.
///
/// Commands go out as unicast datagrams of at most 540 bytes to the device
/// address (100.100.100.100 until setDeviceIP()) and port (none until
/// setPort()), or as one broadcast datagram on the same port. The socket is
/// never bound explicitly: it takes an ephemeral local port on its first send,
/// and the device's replies to that port are parsed and handed to the command
/// module's receive queue, with link byte 0 and the sender's address. A send
/// whose result cannot be classified has the socket rebuilt on the next pass
/// of the I/O thread's event loop.
///
/// The socket lives on the transport's own I/O thread (`PortUDP-io`), where
/// replies are read and rebuilds run; every operation may be called from any
/// thread. Sends run on the caller: only a socket's first send, which binds
/// it, is carried over to the I/O thread.
class COMM_MODULE_EXPORT PortUDP : public PortBase
{
    Q_OBJECT

public:
    /// Starts the I/O thread, makes the socket on it (not bound) and sets the
    /// device address to 100.100.100.100.
    ///
    /// \threads
    /// Any thread; starts the thread `PortUDP-io` and waits while the socket
    /// is made there. Without a QCoreApplication object no thread is started
    /// and the socket stays on the creating thread, where it reads no replies.
    /// \logs
    /// Logs nothing.
    PortUDP();
    /// Closes and deletes the socket, ends the I/O thread and waits for every
    /// reply hand-off.
    ///
    /// A rebuild still queued behind it makes no socket. Returns once every
    /// thread the transport started has ended; records already on the receive
    /// queue stay.
    /// \threads
    /// Any thread, also when the creating thread has ended. The teardown runs
    /// on the I/O thread while the caller waits.
    /// \logs
    /// Logs nothing.
    ~PortUDP() override;

    /// One lock for every network transport in the process: device address,
    /// port and the held-reply state.
    static std::mutex stdCMDlock;

    /// Creates the socket and its connections (the local address is looked up
    /// but not bound to).
    ///
    /// The constructor calls it. It does not tear down a socket already made:
    /// reInitUdp() and reInitUdpZabrel() rebuild one. Returns nothing.
    /// \threads
    /// Any thread; carried over to the I/O thread, the caller waits.
    /// \logs
    /// Logs nothing.
    void initUdp();

    /// Sets the address unicast commands go to, for the next send.
    ///
    /// An address that does not parse makes every unicast send fail. Returns nothing.
    /// \param ip The device's address as text, for example `192.168.1.50`.
    /// \threads
    /// Any thread; runs on the caller, under stdCMDlock.
    /// \logs
    /// Logs nothing.
    void setDeviceIP(QString ip) override;
    /// Sets the device port that unicast and broadcast commands go to, for the next send.
    ///
    /// Returns nothing.
    /// \param port The device port.
    /// \threads
    /// Any thread; runs on the caller, under stdCMDlock.
    /// \logs
    /// Logs nothing.
    void setPort(int port) override;
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
    /// Any thread; the I/O thread reads it atomically.
    /// \logs
    /// Logs nothing.
    void setDeviceType(ModulelEnum::DeviceType type) override;

    /// No meaning on the network link: opens nothing.
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
    /// No meaning on the network link: does nothing.
    ///
    /// Returns nothing.
    /// \threads
    /// Any thread.
    /// \logs
    /// Logs nothing.
    void closeSerialPort() override {}
    /// No meaning on the network link: opens nothing.
    ///
    /// \threads
    /// Any thread.
    /// \logs
    /// Logs nothing.
    /// \return false.
    bool openUSB(unsigned short, unsigned short) override { return false; }
    /// No meaning on the network link: does nothing.
    ///
    /// Returns nothing.
    /// \threads
    /// Any thread.
    /// \logs
    /// Logs nothing.
    void closeUSB() override {}

    /// Unicast send to the device address and port, in datagrams of at most
    /// 540 bytes; the outcome is only logged.
    ///
    /// A result that cannot be classified has the socket rebuilt, as
    /// reInitUdp() does, on the I/O thread's next pass. Returns nothing.
    /// \param data The bytes to send.
    /// \threads
    /// Any thread. Written on the caller once the socket is bound; the
    /// socket's first send is carried over to the I/O thread and the caller waits.
    /// \logs
    /// One line: `Send successful` when every byte went out, `Send Broadcast failed`
    /// when the writes add up to -1 (one datagram to an address that does not
    /// parse, for example), `Send failed` when they add up to -115, `Send unknown` (and a
    /// rebuild) otherwise.
    void sendUdpData(QByteArray data);
    /// Broadcast send: one datagram to 255.255.255.255 on the device port; the
    /// outcome is only logged.
    ///
    /// A result that cannot be classified has the socket rebuilt, as
    /// reInitUdp() does, on the I/O thread's next pass. Returns nothing.
    /// \param data The bytes to send.
    /// \threads
    /// Any thread. Written on the caller once the socket is bound; the
    /// socket's first send is carried over to the I/O thread and the caller waits.
    /// \logs
    /// One line: `Send Broadcast successful` when every byte went out,
    /// `Send Broadcast failed` when the write gave -1 or -115,
    /// `Send Broadcast unknown` (and a rebuild) otherwise.
    void sendUdpDataBroadcast(QByteArray data);

    /// Pads text on the left with `0` to two characters.
    ///
    /// \param text The text; a longer one is never cut.
    /// \threads
    /// Any thread; touches no state of the transport.
    /// \logs
    /// Logs nothing.
    /// \return text with `0` put in front until it is two characters long.
    QString autoRec(QString text);
    /// Kept for the application; does nothing.
    ///
    /// Returns nothing.
    /// \threads
    /// Any thread.
    /// \logs
    /// Logs nothing.
    void senToUipro(void *);

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
    /// \param bytes The bytes.
    /// \threads
    /// Any thread; touches no state of the transport.
    /// \logs
    /// Logs nothing.
    /// \return `[`, `A`, two lower-case hex digits per byte, `]`: 3 + 2 * size characters.
    QByteArray changeData(QByteArray bytes);

    /// Parses one reply datagram: `[`, `R`, 16 hex digits, one more byte.
    ///
    /// \param datagram The datagram as received.
    /// \threads
    /// Any thread; touches no state of the transport.
    /// \logs
    /// `datagram.size()!=19 return` for a datagram that is not 19 bytes long,
    /// `no '[' 'R' ` (with a blank at its end) for one that does not start with
    /// `[R`, `CHKSUM Wrong return` when the check byte does not match; nothing
    /// for a valid reply.
    /// \return The reply's command, parameter and check bytes. A datagram that
    /// is no reply gives zero bytes, no payload and empty infoText; a check
    /// failure gives zero command, parameter and check bytes.
    ProtocolData getArrayData(QByteArray datagram);
    /// Combines a held reply with its block data and queues the record, or
    /// only raises the reply-arrived flag when they do not make one.
    ///
    /// The payload is the first 129 or 145 bytes of the block for the replies
    /// that fix that length, else the first P5 + 256 * P6 bytes (a signed
    /// number), when that many have arrived. Nothing is queued while the deal
    /// flag (PortBase::m_dealFlag) is false. Returns nothing.
    /// \param blockData The block data gathered.
    /// \param heldReply The held reply datagram.
    /// \threads
    /// Any thread; queues on the caller, taking CmdDealModule::receiveHexCmdlock,
    /// then CmdDealModule::HexCmdlock.
    /// \logs
    /// What getArrayData() logs for the held reply, when it is not a valid one.
    void combineSTDCMDandBloackCMD(QByteArray blockData, QByteArray heldReply);
    /// Reads two bytes as a signed 16-bit number.
    ///
    /// \param low The low byte.
    /// \param high The high byte.
    /// \threads
    /// Any thread; touches no state of the transport.
    /// \logs
    /// Logs nothing.
    /// \return low + 256 * high, as a signed 16-bit value (-32768 to 32767).
    int combineTwoByte(unsigned char low, unsigned char high);
    /// Appends the record to the receive queue and raises the reply-arrived
    /// flag, unless the deal flag (PortBase::m_dealFlag) is false.
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

signals:
    /// Asks for the socket to be rebuilt as reInitUdp() does.
    ///
    /// Emitted by a send whose result cannot be classified. Each socket
    /// build connects it, queued, to reInitUdp() on the I/O thread once
    /// more, so after n rebuilds one emission rebuilds the socket n + 1 times;
    /// only destroying the transport removes those connections. Returns nothing.
    /// \threads
    /// The library emits it on the I/O thread, whichever thread sent; the
    /// rebuilds run there on the event loop's next pass.
    /// \logs
    /// Logs nothing.
    void signalReInitUdp();
    /// Declared for the application; the network transport never emits it. Returns nothing.
    ///
    /// \threads
    /// Never emitted.
    /// \logs
    /// Logs nothing.
    void signalUSBChanged(bool);
    /// Declared for the application; the network transport never emits it. Returns nothing.
    ///
    /// \threads
    /// Never emitted.
    /// \logs
    /// Logs nothing.
    void signalSendReceiveMessageToUiPro(void *);

public slots:
    /// Rebuilds the socket, dropping reply state and the device address.
    ///
    /// Buffered input, the held reply, gathered block data and the device
    /// address go (call setDeviceIP() again); the new socket has no port until
    /// its next send. After the destructor's teardown it does nothing. Returns nothing.
    /// \threads
    /// Any thread; carried over to the I/O thread, the caller waits. The
    /// library calls it there through signalReInitUdp().
    /// \logs
    /// Logs nothing.
    void reInitUdp();
    /// Rebuilds the socket, dropping reply state but keeping the device address.
    ///
    /// The held reply and gathered block data go; the new socket has no port
    /// until its next send. After the destructor's teardown it does nothing.
    /// Returns nothing.
    /// \threads
    /// Any thread; carried over to the I/O thread, the caller waits.
    /// \logs
    /// Logs nothing.
    void reInitUdpZabrel();
    /// Reads and parses every datagram waiting on the socket, and hands the
    /// replies to the command module.
    ///
    /// A reply is queued from a new detached thread, queued at once, held for
    /// the block data that follows it, or taken as block data, depending on
    /// its parameter bytes; a held reply and its block are queued together,
    /// from a detached thread, once the block is complete. Nothing is queued
    /// while the deal flag (PortBase::m_dealFlag) is false. Returns nothing,
    /// once every datagram waiting is parsed.
    /// \threads
    /// The socket's readyRead() calls it on the I/O thread; from any other
    /// thread it is carried over there and the caller waits.
    /// \logs
    /// For each datagram, `Recv data:` followed by the datagram and `host ip:`
    /// followed by the sender's address, then what getArrayData() logs for it
    /// (block data, not 19 bytes long, reads `datagram.size()!=19 return`).
    void readPendingDatagrams();
    /// Sends one command record by its send mode: 0 unicast (sendUdpData()),
    /// 1 broadcast (sendUdpDataBroadcast()), anything else nothing.
    ///
    /// The record is copied first and stays the caller's. Returns nothing: the
    /// outcome is only logged.
    /// \param parameters Points at the ProtocolData to send.
    /// \threads
    /// Any thread. Written on the caller once the socket is bound; the
    /// socket's first send is carried over to the I/O thread and the caller waits.
    /// \logs
    /// `Send data abnormal` for a send mode other than 0 and 1. Otherwise the
    /// send's outcome line (see sendUdpData() and sendUdpDataBroadcast()), then
    /// `Send data:` followed by the frame (up to its first zero byte).
    void sendDatatoDevice(void *parameters) override;
    /// Kept for the application; does nothing.
    ///
    /// Returns nothing.
    /// \threads
    /// Any thread.
    /// \logs
    /// Logs nothing.
    void processInfoDisplayonUI(void *);

protected:
    /// Block data gathered for the held reply; guarded by stdCMDlock.
    QByteArray m_blockBuffer;
    /// The socket; it lives on the I/O thread.
    QUdpSocket *m_udpSocket = nullptr;
    /// The device address as text; guarded by stdCMDlock.
    QString m_deviceIP;
    /// The device port: set by setPort() before the first send; 0 (no port) until then.
    int m_port = 0;
    /// The command module whose receive queue clearQueue() empties.
    CmdDealModule m_cmdDeal;
    /// The reply held until its block data has arrived; guarded by stdCMDlock.
    QByteArray m_pendingStdReply;
    /// The last datagram read; guarded by stdCMDlock.
    QByteArray m_lastDatagram;
    /// Only ever cleared, on rebuild and destruction.
    QByteArray m_spareBuffer;
    /// Stamped on received records; written by the application, read by the
    /// reading thread.
    std::atomic<ModulelEnum::DeviceType> m_deviceType{ModulelEnum::DeviceUnknown};

private:
    friend class PortUDPPrivate;
    // The socket's thread, the reply path and the rest of the transport's
    // machinery: kept out of this class's layout, so that it can change
    // without applications being rebuilt.
    const std::unique_ptr<PortUDPPrivate> d;
};
