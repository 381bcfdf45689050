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
// takes the queue; false when the reply was not there within the second.
bool takeOneReply()
{
    const bool arrived = pumpUntil([] { return testqueue::length() > 0; }, Clock::now() + 1s);
    testqueue::take();
    return arrived;
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
    constexpr auto kLimit = 30min;
    const Clock::time_point deadline = start + kLimit;
    long switches = 0;
    long unanswered = 0; // replies not on the queue within a second of their command
    for (; switches < total && Clock::now() < deadline; ++switches) {
        const ConnType type = ConnType(switches % 3);
        PortBase *port = PortInterface::creatCoreObj(type);
        if (type == ConnUSB) {
            port->openUSB(kVid, kPid);
        } else if (type == ConnSerial) {
            if (port->openSerialPort(pty.slavePath(), QSerialPort::Baud115200, QSerialPort::OneStop,
                                     QSerialPort::NoParity, QSerialPort::NoFlowControl, QSerialPort::Data8)) {
                pty.deviceSends(serialReply);
                unanswered += takeOneReply() ? 0 : 1;
            }
        } else {
            port->setDeviceIP(QStringLiteral("127.0.0.1"));
            port->setPort(device.port());
            ProtocolData command;
            command.commandByte = 0x01;
            port->sendDatatoDevice(&command);
            unanswered += takeOneReply() ? 0 : 1;
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
    // A run cut short by its deadline, or replies that did not come, are said
    // as such; the memory figures below count the switches made.
    if (switches < total || unanswered > 0) {
        QString value = switches < total ? QStringLiteral("not finished within the %1 min deadline: %2 of %3 switches")
                                               .arg(std::chrono::minutes(kLimit).count())
                                               .arg(count(switches), count(total))
                                         : QStringLiteral("%1 switches").arg(count(switches));
        if (unanswered > 0)
            value += QStringLiteral(", %1 replies not on the queue within 1 s").arg(count(unanswered));
        figures.add({QStringLiteral("memory: %1 %2").arg(count(total), what), value, QString(), std::nullopt,
                     QStringLiteral("all within %1 min, each answered").arg(std::chrono::minutes(kLimit).count()),
                     false});
    }
    if (leakCheckAvailable()) {
        if (const std::optional<LeakReport> leaks = checkLeaks())
            figures.add(leakFigure(what, switches, *leaks));
        return;
    }
    figures.add(residentGrowthFigure(what, mark, firstBytes, switches, endBytes));
}

} // namespace e2e
