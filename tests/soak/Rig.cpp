#include "Rig.h"

#include "PortBase.h"

namespace soak {

namespace {
// Time beyond the run for waiting on the last replies and for tearing down.
qint64 hardLimitMs(const Options &options)
{
    return (qint64(options.seconds) + 2 * qint64(options.deadlineSeconds) + 120) * 1000;
}
} // namespace

Rig::Rig(const Options &options)
    : options(options)
    , clock(hardLimitMs(options))
    , ledger(clock, qint64(options.deadlineSeconds) * 1000, options.inFlightMs)
    , drain(ledger, clock)
{
}

bool openSerial(PortBase *port, const QString &path)
{
    return port->openSerialPort(path, QSerialPort::Baud115200, QSerialPort::OneStop, QSerialPort::NoParity,
                                QSerialPort::NoFlowControl, QSerialPort::Data8);
}

QString portNameOf(const QString &path)
{
    QSerialPort probe;
    probe.setPortName(path);
    return probe.portName();
}

} // namespace soak
