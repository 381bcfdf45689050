#pragma once

#include <QtTest>

#include <QSerialPort>

#include <mutex>

#include "PortSerial.h"
#include "PseudoTerminal.h"

// Skips the test where no pseudo-terminal can be made. (QSKIP ends the test
// function it stands in, so this stays a macro.)
#define REQUIRE_PTY(pty)                                                                                               \
    do {                                                                                                               \
        if (!(pty).isValid())                                                                                          \
            QSKIP(qPrintable(QStringLiteral("no pseudo-terminal: ") + (pty).error()));                                 \
    } while (false)

// Opens port on the slave side of pty, 115200 8N1 without flow control.
inline bool openOn(PortSerial &port, const PseudoTerminal &pty)
{
    return port.openSerialPort(pty.slavePath(), QSerialPort::Baud115200, QSerialPort::OneStop, QSerialPort::NoParity,
                               QSerialPort::NoFlowControl, QSerialPort::Data8);
}

// Lets the transport's I/O thread see what this thread did before (a
// connection to the port made here, say), and this thread see what the I/O
// thread did: a call carried over to it and waited for. Qt's own locking of
// connections is invisible to the thread sanitizer; this hand-over is not.
inline void syncWithIoThread(PortSerial &port)
{
    port.readPendingDatagrams();
}

// What docs/links.md advises ("When the device goes away"): a slot of the
// application's own that takes read and resource errors for a device that is
// gone and closes the port, connected directly so that it runs on the
// transport's I/O thread as the error happens.
inline void closeWhenDeviceGone(PortSerial &port)
{
    QObject::connect(
        port.m_com, &QSerialPort::errorOccurred, &port,
        [&port](QSerialPort::SerialPortError error) {
            if (error == QSerialPort::ReadError || error == QSerialPort::ResourceError)
                port.closeSerialPort();
        },
        Qt::DirectConnection);
    syncWithIoThread(port);
}

// What the port of a serial transport signals, recorded as it happens on the
// transport's I/O thread and read from the test's thread under a lock (a
// QSignalSpy on the port would be written and read without one).
class PortSignals : public QObject
{
public:
    explicit PortSignals(PortSerial &port)
        : m_port(port)
    {
        connect(
            port.m_com, &QSerialPort::errorOccurred, this,
            [this](QSerialPort::SerialPortError error) {
                std::lock_guard<std::mutex> guard(m_lock);
                m_errors.append(error);
            },
            Qt::DirectConnection);
        connect(
            port.m_com, &QIODevice::readyRead, this,
            [this] {
                std::lock_guard<std::mutex> guard(m_lock);
                ++m_readyReads;
            },
            Qt::DirectConnection);
        syncWithIoThread(port);
    }
    ~PortSignals() override
    {
        syncWithIoThread(m_port);
        disconnect(m_port.m_com, nullptr, this, nullptr);
    }

    int errorCount() const
    {
        std::lock_guard<std::mutex> guard(m_lock);
        return m_errors.size();
    }
    bool reported(QSerialPort::SerialPortError error) const
    {
        std::lock_guard<std::mutex> guard(m_lock);
        return m_errors.contains(error);
    }
    int readyReads() const
    {
        std::lock_guard<std::mutex> guard(m_lock);
        return m_readyReads;
    }

private:
    PortSerial &m_port;
    mutable std::mutex m_lock;
    QList<QSerialPort::SerialPortError> m_errors;
    int m_readyReads = 0;
};
