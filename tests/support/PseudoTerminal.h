#pragma once

#include <QByteArray>
#include <QString>

// A pseudo-terminal pair in raw mode, standing in for a serial device: the
// transport opens the slave path like a serial port, the test plays the device
// on the master side.
class PseudoTerminal
{
public:
    PseudoTerminal();
    ~PseudoTerminal();
    PseudoTerminal(const PseudoTerminal &) = delete;
    PseudoTerminal &operator=(const PseudoTerminal &) = delete;

    // False when no pair could be made; error() says why.
    bool isValid() const { return m_master >= 0; }
    QString error() const { return m_error; }

    // The path to open as a serial port, e.g. /dev/pts/3.
    QString slavePath() const { return m_slavePath; }

    // The device sends bytes: writes them all on the master side.
    bool deviceSends(const QByteArray &bytes);

    // Bytes the device has received, read from the master side until count
    // bytes have come or timeoutMs has passed. The Qt event loop runs while
    // waiting, so a port's queued writes get drained.
    QByteArray deviceReceives(int count, int timeoutMs);

    // The device hangs up: the master side is closed.
    void closeMaster();

private:
    int m_master = -1;
    int m_slave = -1;
    QString m_slavePath;
    QString m_error;
};
