#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <shared_mutex>

#include <QByteArray>
#include <QHostAddress>
#include <QString>

#include "CmdDealModule.h"
#include "ModulelEnum.h"
#include "PortBase.h"
#include "ProtocolData.h"

class QUdpSocket;

namespace comm {
class IoThread;
struct SendOutcome;
} // namespace comm

// The network transport: talks to one device over UDP through a single
// socket. Commands go out as unicast datagrams of at most 540 bytes to the
// device address and port, or as one broadcast datagram on the same port.
// The socket is never bound explicitly: it takes an ephemeral local port on
// its first send, and the device's replies to that port are parsed and handed
// to the command module's receive queue. A send whose result cannot be
// classified has the socket rebuilt on the next pass of the event loop.
//
// The socket lives on the transport's own I/O thread, where replies are read
// and rebuilds run; every operation may be called from any thread. Sends run
// on the caller: only a socket's first send, which binds it, is carried over
// to the I/O thread.
class COMM_MODULE_EXPORT PortUDP : public PortBase
{
    Q_OBJECT

public:
    PortUDP();
    ~PortUDP() override;

    // One lock for every network transport in the process: device address,
    // port and the held-reply state.
    static std::mutex stdCMDlock;

    // Creates the socket and its connections (the local address is looked up
    // but not bound to), on the I/O thread.
    void initUdp();

    void setDeviceIP(QString ip) override;
    void setPort(int port) override;
    void clearQueue() override;
    void setDeviceType(ModulelEnum::DeviceType type) override;

    // Serial and USB operations have no meaning on the network link.
    bool openSerialPort(QString, QSerialPort::BaudRate, QSerialPort::StopBits, QSerialPort::Parity,
                        QSerialPort::FlowControl, QSerialPort::DataBits) override
    {
        return false;
    }
    void closeSerialPort() override {}
    bool openUSB(unsigned short, unsigned short) override { return false; }
    void closeUSB() override {}

    // Unicast send to the device address and port; the outcome is only logged.
    void sendUdpData(QByteArray data);
    // Broadcast send (255.255.255.255) on the device port; the outcome is only logged.
    void sendUdpDataBroadcast(QByteArray data);

    // text with "0" put in front until it is two characters long; never cut.
    QString autoRec(QString text);
    // Kept for the application; does nothing.
    void senToUipro(void *);

    QByteArray produceCmds(ProtocolData record);
    QByteArray changeData(QByteArray bytes);

    // Reply parsing (the logic lives in DatagramReplyParser.h).
    ProtocolData getArrayData(QByteArray datagram);
    void combineSTDCMDandBloackCMD(QByteArray blockData, QByteArray heldReply);
    int combineTwoByte(unsigned char low, unsigned char high);
    // Appends the record to the receive queue unless the deal flag is false.
    void addToReceivedQueue(ProtocolData record);
    void setRetFlagStatus(bool value);

signals:
    void signalReInitUdp();
    void signalUSBChanged(bool);
    void signalSendReceiveMessageToUiPro(void *);

public slots:
    // Rebuilds the socket, dropping reply state and the device address.
    void reInitUdp();
    // Rebuilds the socket, dropping reply state but keeping the device address.
    void reInitUdpZabrel();
    // Reads and parses every datagram waiting on the socket, on the I/O
    // thread (where readyRead() runs it); returns when they are parsed.
    void readPendingDatagrams();
    void sendDatatoDevice(void *parameters) override;
    void processInfoDisplayonUI(void *);

protected:
    // The single place where datagrams are written. A null address (a device
    // address that does not parse, or the empty one left by reInitUdp) is
    // refused with -1 and nothing is sent. Called with the socket guard held,
    // on the I/O thread while the socket is not bound yet, and on the sending
    // thread once it is.
    virtual qint64 writeDatagramTo(const char *bytes, qint64 size, const QHostAddress &address, quint16 port);

    // Sends may run on any thread while a rebuild replaces the socket on the
    // I/O thread: sends and reads hold it shared while they use the socket,
    // rebuild and destruction hold it exclusively. Sends do not serialise each
    // other through it.
    mutable std::shared_mutex m_socketGuard;

    QByteArray m_blockBuffer;
    QUdpSocket *m_udpSocket = nullptr;
    QString m_deviceIP;
    // Set by setPort before the first send; 0 (no port) until then.
    int m_port = 0;
    CmdDealModule m_cmdDeal;
    QByteArray m_pendingStdReply;
    QByteArray m_lastDatagram;
    // Only ever cleared, on rebuild and destruction.
    QByteArray m_spareBuffer;
    // Stamped on received records; written by the application, read by the
    // reading thread.
    std::atomic<ModulelEnum::DeviceType> m_deviceType{ModulelEnum::DeviceUnknown};

private:
    enum class Rebuild {
        DropDeviceAddress, // reInitUdp: buffered input and device address go too
        KeepDeviceAddress, // reInitUdpZabrel
    };
    // Disconnects, closes and deletes the socket and drops the reply state.
    // Called with the socket guard held exclusively.
    void tearDownSocket(Rebuild kind);
    void rebuildSocket(Rebuild kind);
    // Makes the socket and its connections; called with the socket guard
    // held exclusively, on the I/O thread.
    void createSocket();
    void readPendingHere();
    // Logs a send's outcome and asks for a rebuild where it calls for one.
    void reportSend(const comm::SendOutcome &outcome);
    // Writes through writeDatagramTo with the socket guard held shared: on the
    // calling thread when the socket is bound, else carried to the I/O thread.
    template <typename Write>
    auto withSocketForSend(Write write) -> decltype(write());

    struct ReplyPath;
    std::unique_ptr<ReplyPath> m_reply;
    // Where the socket lives; started before it is made, stopped after it is gone.
    std::unique_ptr<comm::IoThread> m_io;
    // The bound socket's descriptor, -1 until its first send has bound it,
    // and its address family. Become valid on the I/O thread with the guard
    // held shared (the family first), and the descriptor goes back to -1 only
    // with the guard held exclusively.
    std::atomic<qintptr> m_boundDescriptor{-1};
    // Set by the destructor's teardown; only touched on the I/O thread.
    bool m_tornDown = false;
    std::atomic<int> m_boundFamily{0};
};
