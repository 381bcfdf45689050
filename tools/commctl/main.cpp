// commctl: send commands, watch a link and simulate a device, without writing
// an application. See usageText() for the command line.
#include <QCoreApplication>
#include <QElapsedTimer>
#include <QMetaObject>
#include <QTextStream>
#include <QTimer>

#include <cstdio>

#include "CmdDealModule.h"
#include "Demo.h"
#include "Options.h"
#include "PortInterface.h"
#include "PortSerial.h"
#include "PortUSB.h"
#include "RecordFormat.h"
#include "SimulatedDevice.h"
#include "WireCapture.h"
#include "Console.h"

namespace {
// Runs the event loop for durationMs (negative: until interrupted), handing
// every record that reaches the receive queue to print, in queue order.
template <typename Print>
void pumpRecords(qint64 durationMs, Print print)
{
    QEventLoop loop;
    QTimer poll;
    poll.setInterval(5);
    QObject::connect(&poll, &QTimer::timeout, [&] {
        for (const ProtocolData &record : takeRecords())
            print(record);
    });
    poll.start();
    if (durationMs >= 0)
        QTimer::singleShot(int(durationMs), &loop, &QEventLoop::quit);
    loop.exec();
    for (const ProtocolData &record : takeRecords())
        print(record);
}

ConnType connTypeOf(const LinkOptions &link)
{
    switch (link.kind) {
    case LinkOptions::Usb:
        return ConnUSB;
    case LinkOptions::Serial:
        return ConnSerial;
    default:
        return ConnUDP;
    }
}

QString hex4(quint16 value)
{
    return QStringLiteral("%1").arg(value, 4, 16, QLatin1Char('0'));
}

// Prints each plug event of a USB link as it happens. Every transport class
// declares signalUSBChanged(bool) again, and the hot-plug watcher emits
// PortUSB's own one: a connection through PortBase's would never fire.
void printPlugEvents(PortBase *port, const Options &options)
{
    auto *usb = qobject_cast<PortUSB *>(port);
    if (!usb)
        return;
    QObject::connect(usb, &PortUSB::signalUSBChanged, [&options](bool present) {
        printOut(options.json ? usbEventJson(present) : usbEventText(present));
    });
}

// Creates and opens the transport for the link, printing its plug events. On
// failure prints why and returns null.
PortBase *openLink(const Options &options)
{
    const LinkOptions &link = options.link;
    PortBase *port = PortInterface::creatCoreObj(connTypeOf(link));
    // Connected before the link opens, so that no event goes unprinted.
    printPlugEvents(port, options);
    switch (link.kind) {
    case LinkOptions::Udp:
        port->setDeviceIP(link.host);
        port->setPort(link.port);
        return port;
    case LinkOptions::Serial:
        if (!port->openSerialPort(link.serialPath, QSerialPort::BaudRate(link.baud), link.stopBits, link.parity,
                                  link.flow, link.dataBits)) {
            const auto *serial = qobject_cast<PortSerial *>(port);
            const QString reason = serial && serial->m_com ? serial->m_com->errorString()
                                                           : QStringLiteral("unknown error");
            printErr(QStringLiteral("commctl: cannot open serial port %1: %2").arg(link.serialPath, reason));
            return nullptr;
        }
        return port;
    case LinkOptions::Usb:
        if (!port->openUSB(link.vid, link.pid)) {
            printErr(QStringLiteral("commctl: cannot open USB device %1:%2: no such HID device, or no permission to "
                                    "open it (check /dev/hidraw*)")
                         .arg(hex4(link.vid), hex4(link.pid)));
            return nullptr;
        }
        return port;
    case LinkOptions::None:
        break;
    }
    return port;
}

void releaseLink()
{
    delete PortInterface::iCORE;
    PortInterface::iCORE = nullptr;
}

int runSend(const Options &options)
{
    PortBase *port = openLink(options);
    if (!port) {
        releaseLink();
        return 1;
    }
    port->setDeviceType(ModulelEnum::DeviceType(options.deviceType));
    ProtocolData record;
    record.commandByte = options.cmd;
    for (int i = 0; i < 6; ++i)
        record.paramBytes[i] = options.params[size_t(i)];
    record.payload = options.payload;
    record.sendMode = options.mode;
    record.deviceType = ModulelEnum::DeviceType(options.deviceType);
    void *parameters = &record;
    QMetaObject::invokeMethod(port, "sendDatatoDevice", Qt::DirectConnection, Q_ARG(void *, parameters));
    pumpRecords(options.waitMs, [&options](const ProtocolData &reply) {
        printOut(options.json ? recordJson(reply) : recordText(reply));
    });
    releaseLink();
    return 0;
}

int runListen(const Options &options)
{
    PortBase *port = openLink(options);
    if (!port) {
        releaseLink();
        return 1;
    }
    if (options.link.kind == LinkOptions::Udp)
        printErr(QStringLiteral("commctl: note: the network link receives replies only after it has sent a command"));
    printErr(QStringLiteral("commctl: listening"));
    pumpRecords(options.durationMs, [&options](const ProtocolData &reply) {
        printOut(options.json ? recordJson(reply) : recordText(reply));
    });
    releaseLink();
    return 0;
}

int runSim(const Options &options)
{
    SimulatedDevice device([](const QString &line) { printErr(line); });
    QString error;
    bool started = false;
    switch (options.link.kind) {
    case LinkOptions::Udp:
        started = device.startUdp(QHostAddress(options.link.host), options.link.port, &error);
        if (started)
            printOut(QStringLiteral("%1:%2").arg(options.link.host).arg(device.udpPort()));
        break;
    case LinkOptions::Serial:
        started = device.startSerial(&error);
        if (started)
            printOut(device.slavePath());
        break;
    case LinkOptions::Usb:
        started = device.startUsb(options.link.vid, options.link.pid, &error);
        if (!started && !SimulatedDevice::usbUnavailableReason().isEmpty())
            error += QStringLiteral("\ncommctl: without /dev/uhid, a HID device emulated by umockdev serves only the "
                                    "process that makes it: `umockdev-wrapper commctl demo` (what scripts/demo.sh "
                                    "runs there) plays it in the demo's USB leg");
        if (started)
            printOut(QStringLiteral("%1:%2").arg(hex4(options.link.vid), hex4(options.link.pid)));
        break;
    case LinkOptions::None:
        break;
    }
    if (!started) {
        printErr(QStringLiteral("commctl: %1").arg(error));
        return 1;
    }
    QEventLoop loop;
    if (options.durationMs >= 0)
        QTimer::singleShot(int(options.durationMs), &loop, &QEventLoop::quit);
    loop.exec();
    return 0;
}
} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    qInstallMessageHandler(stderrMessageHandler);

    QStringList arguments = app.arguments();
    arguments.removeFirst();
    if (arguments.size() == 1 && (arguments[0] == QLatin1String("--help") || arguments[0] == QLatin1String("-h"))) {
        std::fputs(qPrintable(usageText()), stdout);
        return 0;
    }
    Options options;
    QString error;
    if (!parseOptions(arguments, &options, &error)) {
        printErr(QStringLiteral("commctl: %1").arg(error));
        std::fputs(qPrintable(usageText()), stderr);
        return 2;
    }
    switch (options.command) {
    case Options::Send:
        return runWithCapture(options, [&] { return runSend(options); });
    case Options::Listen:
        return runWithCapture(options, [&] { return runListen(options); });
    case Options::Sim:
        return runSim(options);
    case Options::Demo:
        return runDemo();
    }
    return 2;
}
