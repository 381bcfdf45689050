#pragma once

// The serial transport's machinery, behind PortSerial's private pointer: the
// I/O thread that owns the port, the receive buffer with its reassembler and
// workers, and the port's error bookkeeping. Not installed; tests reach the
// transport's seams through it.

#include <functional>

#include "IoThread.h"
#include "PortSerial.h"
#include "StreamLink.h"

class PortSerialPrivate
{
public:
    explicit PortSerialPrivate(PortSerial &port);

    static PortSerialPrivate *get(PortSerial *port) { return port->d.get(); }
    static const PortSerialPrivate *get(const PortSerial *port) { return port->d.get(); }

    // Closes the port on the I/O thread, ends that thread and waits for every
    // worker and hand-off: the destructor's work.
    void shutDown();
    bool openOnIoThread(const QString &name, QSerialPort::BaudRate baud, QSerialPort::StopBits stopBits,
                        QSerialPort::Parity parity, QSerialPort::FlowControl flow, QSerialPort::DataBits dataBits);
    // Clears the run flag and waits until every worker started has ended.
    void stopWorker();
    // The single place where bytes are written to the port, on the I/O
    // thread. Goes through writeSeam when a test has set one.
    qint64 writeComData(const char *data, qint64 size);
    // What writeComData does without a seam.
    qint64 writeToPort(const char *data, qint64 size);

    // Test seam: stands in for every write to the port; set before any send.
    std::function<qint64(const char *data, qint64 size)> writeSeam;

    // Reassembly workers started and still running.
    int runningWorkers() const { return link.workers.running(); }
    // A copy of the whole receive buffer.
    QByteArray buffData() const { return link.reassembler.contents(); }

    comm::StreamLink link;
    // Where the port lives; started before it is made, stopped after it is gone.
    comm::IoThread io;

private:
    PortSerial &q;
    // Resource errors the port has reported, and their count when it was last
    // opened; both only touched on the I/O thread.
    int m_resourceErrorsReported = 0;
    int m_resourceErrorsAtOpen = 0;

    friend class PortSerial;
};
