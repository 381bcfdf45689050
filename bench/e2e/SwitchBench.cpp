// Link switches through the factory, as a long-running control application
// makes them: USB, serial, network in turn, each link opened and, on serial
// and network, one reply taken off the queue before the next switch.
#include <thread>

#include <QCoreApplication>

#include "LoopbackDevice.h"
#include "PortInterface.h"
#include "PortUSB.h"
#include "PseudoTerminal.h"
#include "ReceiveQueue.h"
#include "ReplyDatagrams.h"
#include "ReplyFrames.h"
#include "Sections.h"
#include "SimulatedHid.h"

namespace e2e {

namespace {

using namespace std::chrono_literals;

constexpr unsigned short kVid = 0x0483;
constexpr unsigned short kPid = 0x5750;

// Runs the event loop until a record is on the queue (at most a second), then
// takes the queue.
void takeOneReply()
{
    pumpUntil([] { return testqueue::length() > 0; }, Clock::now() + 1s);
    testqueue::take();
}

} // namespace

void memorySwitches(const Options &options, Figures &figures)
{
    const long total = options.count(10000, 15);
    const long mark = total / 10;
    PseudoTerminal pty;
    if (!pty.isValid())
        throw SectionError(("no pseudo-terminal: " + pty.error()).toStdString());
    LoopbackDevice device;
    if (!device.isValid())
        throw SectionError("no loopback socket");
    device.answerWith(replies::reply(0x02, 0x00, 0x10, 0x00, 0x00, 0x00, 0x00));
    const QByteArray serialReply = replyframes::frame({0x5A, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00});
    simhid::reset(kVid, kPid);
    // Switches by the thousand would spend most of their time in the USB
    // transport's open and close pauses.
    UsbPausesSkipped pausesSkipped;

    qint64 firstBytes = 0;
    const Clock::time_point start = Clock::now();
    const Clock::time_point deadline = start + 30min;
    long switches = 0;
    for (; switches < total && Clock::now() < deadline; ++switches) {
        const ConnType type = ConnType(switches % 3);
        PortBase *port = PortInterface::creatCoreObj(type);
        if (type == ConnUSB) {
            port->openUSB(kVid, kPid);
        } else if (type == ConnSerial) {
            if (port->openSerialPort(pty.slavePath(), QSerialPort::Baud115200, QSerialPort::OneStop,
                                     QSerialPort::NoParity, QSerialPort::NoFlowControl, QSerialPort::Data8)) {
                pty.deviceSends(serialReply);
                takeOneReply();
            }
        } else {
            port->setDeviceIP(QStringLiteral("127.0.0.1"));
            port->setPort(device.port());
            ProtocolData command;
            command.commandByte = 0x01;
            port->sendDatatoDevice(&command);
            takeOneReply();
        }
        if (switches + 1 == mark)
            firstBytes = residentBytes();
    }
    delete PortInterface::iCORE;
    PortInterface::iCORE = nullptr;
    testqueue::take();
    const qint64 endBytes = residentBytes();
    const double seconds = millisecondsBetween(start, Clock::now()) / 1000.0;
    qInfo("%ld switches in %.1f s", switches, seconds);

    const QString what = QStringLiteral("link switches through the factory");
    if (leakCheckAvailable()) {
        if (const std::optional<LeakReport> leaks = checkLeaks())
            figures.add(leakFigure(what, switches, *leaks));
        return;
    }
    figures.add(residentGrowthFigure(what, mark, firstBytes, switches, endBytes));
}

} // namespace e2e
