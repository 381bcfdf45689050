#pragma once

#include <QtTest>

#include <QSerialPort>

#include "PortSerial.h"
#include "PseudoTerminal.h"

// Skips the test where no pseudo-terminal can be made. (QSKIP ends the test
// function it stands in, so this stays a macro.)
#define REQUIRE_PTY(pty)                                                                                              \
    do {                                                                                                              \
        if (!(pty).isValid())                                                                                         \
            QSKIP(qPrintable(QStringLiteral("no pseudo-terminal: ") + (pty).error()));                              \
    } while (false)

// Opens port on the slave side of pty, 115200 8N1 without flow control.
inline bool openOn(PortSerial &port, const PseudoTerminal &pty)
{
    return port.openSerialPort(pty.slavePath(), QSerialPort::Baud115200, QSerialPort::OneStop,
                               QSerialPort::NoParity, QSerialPort::NoFlowControl, QSerialPort::Data8);
}
