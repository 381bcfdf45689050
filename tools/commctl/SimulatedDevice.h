#pragma once

#include <QHostAddress>
#include <QObject>
#include <QString>

#include <functional>
#include <memory>

#include "SimProtocol.h"

class QSocketNotifier;
class QUdpSocket;

namespace emulatedhid {
class Testbed;
struct Device;
} // namespace emulatedhid

// A simulated device on one link. It answers every valid command frame with a
// reply that echoes the command and parameter bytes and, where the reply
// announces block data on that link, sends the block. It runs on the event
// loop of the thread that starts it.
class SimulatedDevice : public QObject
{
    Q_OBJECT

public:
    using Logger = std::function<void(const QString &)>;

    explicit SimulatedDevice(Logger logger, QObject *parent = nullptr);
    ~SimulatedDevice() override;

    // Listens for datagrams on address:port (port 0 picks a free one).
    bool startUdp(const QHostAddress &address, quint16 port, QString *error);
    quint16 udpPort() const;

    // Makes a pseudo-terminal pair; the library opens slavePath().
    bool startSerial(QString *error);
    QString slavePath() const;

    // Creates a virtual HID device through /dev/uhid.
    bool startUsb(quint16 vid, quint16 pid, QString *error);

    // Why a virtual HID device cannot be made here, or an empty text when it can.
    static QString usbUnavailableReason();

    // Plugs in a HID device that umockdev emulates in this process, for where
    // /dev/uhid cannot be used: only this process sees it, and only when run
    // under umockdev-wrapper.
    bool startEmulatedUsb(quint16 vid, quint16 pid, QString *error);
    // Why an emulated HID device cannot be made here, or an empty text.
    static QString emulatedUsbUnavailableReason();

private:
    void readDatagrams();
    void readSerial();
    void readUhid();
    void readEmulatedUsb();
    // One output report the library wrote (report ID first): answered with
    // 64-byte input reports through sendReport.
    void usbOutput(const QByteArray &report, const std::function<void(const QByteArray &)> &sendReport);
    void answer(sim::Link link, const sim::HeaderBytes &command, const std::function<void(const QByteArray &)> &send);
    void log(const QString &text) const;

    Logger m_logger;
    QUdpSocket *m_udp = nullptr;
    int m_master = -1;
    int m_slave = -1;
    QString m_slavePath;
    QSocketNotifier *m_serialNotifier = nullptr;
    sim::CommandStream m_serialStream;
    int m_uhid = -1;
    QSocketNotifier *m_uhidNotifier = nullptr;
    sim::CommandStream m_usbStream;
    std::unique_ptr<emulatedhid::Testbed> m_testbed;
    std::unique_ptr<emulatedhid::Device> m_emulated;
    QSocketNotifier *m_emulatedNotifier = nullptr;
    // Output bytes read from the emulated device's node, not yet a whole report.
    QByteArray m_emulatedOutput;
};
