#include "Demo.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QHostAddress>
#include <QMetaObject>
#include <QThread>

#include <array>

#include "CommandFrame.h"
#include "Console.h"
#include "PortInterface.h"
#include "RecordFormat.h"
#include "SimulatedDevice.h"

namespace {
struct DemoCommand
{
    const char *what;
    quint8 cmd;
    std::array<quint8, 6> params;
};

class Demo
{
public:
    int run();

private:
    void section(const QString &title) { printOut(QStringLiteral("== %1").arg(title)); }
    bool exchange(PortBase *port, const DemoCommand &command);
    void networkLink();
    void serialLink();
    void usbLink();

    int m_sent = 0;
    int m_replies = 0;
    int m_missing = 0;
};

bool Demo::exchange(PortBase *port, const DemoCommand &command)
{
    ProtocolData record;
    record.commandByte = command.cmd;
    for (int i = 0; i < 6; ++i)
        record.paramBytes[i] = command.params[size_t(i)];
    printOut(
        QStringLiteral("-> %1: %2").arg(QLatin1String(command.what), QString::fromLatin1(comm::commandFrame(record))));
    void *parameters = &record;
    QMetaObject::invokeMethod(port, "sendDatatoDevice", Qt::DirectConnection, Q_ARG(void *, parameters));
    ++m_sent;

    // Wait for the reply, at most two seconds, keeping the event loop going so
    // that the library's sockets and the simulated devices can work.
    QElapsedTimer timer;
    timer.start();
    int received = 0;
    while (received == 0 && timer.elapsed() < 2000) {
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
        for (const ProtocolData &reply : takeRecords()) {
            printOut(QStringLiteral("<- %1").arg(recordText(reply)));
            ++received;
        }
        if (received == 0)
            QThread::msleep(1);
    }
    if (received == 0) {
        printOut(QStringLiteral("<- no reply within 2 s"));
        ++m_missing;
    }
    m_replies += received;
    return received > 0;
}

void Demo::networkLink()
{
    SimulatedDevice device([](const QString &line) { printErr(line); });
    QString error;
    if (!device.startUdp(QHostAddress(QHostAddress::LocalHost), 0, &error)) {
        section(QStringLiteral("Network link: skipped: %1").arg(error));
        return;
    }
    section(QStringLiteral("Network link: simulated device on udp 127.0.0.1:%1").arg(device.udpPort()));
    PortBase *port = PortInterface::creatCoreObj(ConnUDP);
    port->setDeviceIP(QStringLiteral("127.0.0.1"));
    port->setPort(device.udpPort());
    exchange(port, {"a plain reply, handed over on its own thread", 0x01, {0, 0, 0, 0, 0, 0}});
    exchange(port, {"a reply delivered at once", 0x10, {0x00, 0x79, 0x09, 0x00, 0x00, 0x00}});
    exchange(port, {"a reply followed by 129 bytes of block data", 0x20, {0x00, 0x8B, 0x09, 0x00, 0x81, 0x00}});
}

void Demo::serialLink()
{
    SimulatedDevice device([](const QString &line) { printErr(line); });
    QString error;
    if (!device.startSerial(&error)) {
        section(QStringLiteral("Serial link: skipped: %1").arg(error));
        return;
    }
    section(QStringLiteral("Serial link: simulated device on pseudo-terminal %1").arg(device.slavePath()));
    PortBase *port = PortInterface::creatCoreObj(ConnSerial);
    if (!port->openSerialPort(device.slavePath(), QSerialPort::Baud115200, QSerialPort::OneStop, QSerialPort::NoParity,
                              QSerialPort::NoFlowControl, QSerialPort::Data8)) {
        printOut(QStringLiteral("cannot open %1").arg(device.slavePath()));
        ++m_missing;
        return;
    }
    exchange(port, {"a plain reply", 0x02, {0, 0, 0, 0, 0, 0}});
    exchange(port, {"a reply followed by a 16-byte block", 0x30, {0x00, 0x79, 0x00, 0x00, 0x10, 0x00}});
    port->closeSerialPort();
}

void Demo::usbLink()
{
    constexpr quint16 vid = 0x0483, pid = 0x5750;
    SimulatedDevice device([](const QString &line) { printErr(line); });
    QString error;
    const QString uhidMissing = SimulatedDevice::usbUnavailableReason();
    if (uhidMissing.isEmpty()) {
        if (!device.startUsb(vid, pid, &error)) {
            section(QStringLiteral("USB link: skipped: %1").arg(error));
            return;
        }
        section(QStringLiteral("USB link: simulated HID device 0483:5750"));
    } else {
        // No kernel device: one that umockdev emulates in this process.
        const QString notEmulated = SimulatedDevice::emulatedUsbUnavailableReason();
        if (!notEmulated.isEmpty()) {
            section(QStringLiteral("USB link: skipped: %1, and no emulated device: %2").arg(uhidMissing, notEmulated));
            return;
        }
        if (!device.startEmulatedUsb(vid, pid, &error)) {
            section(QStringLiteral("USB link: skipped: %1").arg(error));
            return;
        }
        section(QStringLiteral("USB link: simulated HID device 0483:5750, emulated by umockdev (%1)").arg(uhidMissing));
    }
    PortBase *port = PortInterface::creatCoreObj(ConnUSB);
    // The kernel needs a moment to make the hidraw node: try for two seconds.
    bool opened = false;
    QElapsedTimer timer;
    timer.start();
    while (!opened && timer.elapsed() < 2000) {
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
        opened = port->openUSB(vid, pid);
    }
    if (!opened) {
        printOut(QStringLiteral("cannot open the simulated HID device (no permission on /dev/hidraw*?)"));
        ++m_missing;
        return;
    }
    exchange(port, {"a plain reply", 0x03, {0, 0, 0, 0, 0, 0}});
    port->closeUSB();
}

int Demo::run()
{
    printOut(QStringLiteral("commctl demo: the library against simulated devices, no hardware needed"));
    networkLink();
    serialLink();
    usbLink();
    delete PortInterface::iCORE;
    PortInterface::iCORE = nullptr;
    printOut(QStringLiteral("demo finished: %1 commands sent, %2 replies received, %3 missing")
                 .arg(m_sent)
                 .arg(m_replies)
                 .arg(m_missing));
    return m_missing == 0 ? 0 : 1;
}
} // namespace

int runDemo()
{
    return Demo().run();
}
