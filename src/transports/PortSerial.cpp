#include "PortSerial_p.h"

#include <chrono>
#include <thread>

#include "CommandFrame.h"
#include "DebugLog.h"
#include "FrameHexText.h"
#include "MutexGuard.h"
#include "WireTap.h"

namespace {
// How often a stopping side looks whether the worker has ended.
constexpr auto kStopPoll = std::chrono::milliseconds(5);
} // namespace

PortSerialPrivate::PortSerialPrivate(PortSerial &port)
    : link(comm::StreamReassemblyConfig::serial())
    , io("PortSerial-io")
    , q(port)
{
}

PortSerial::PortSerial()
    : d(std::make_unique<PortSerialPrivate>(*this))
{
    m_com = new QSerialPort();
    // Not opened yet, so it has no notifiers to move.
    m_com->moveToThread(d->io.context()->thread());
    // Connected on the I/O thread, where the port signals, and undone there
    // by the destructor.
    d->io.run([this] {
        // Direct: readyRead() is emitted on the I/O thread, and the bytes are taken there.
        connect(m_com, &QIODevice::readyRead, this, &PortSerial::readPendingDatagrams, Qt::DirectConnection);
        // Counted as they happen, for handleError to tell a late error from a current one.
        connect(
            m_com, &QSerialPort::errorOccurred, d->io.context(),
            [this](QSerialPort::SerialPortError error) {
                if (error == QSerialPort::ResourceError)
                    ++d->m_resourceErrorsReported;
            },
            Qt::DirectConnection);
    });
}

PortSerial::~PortSerial()
{
    d->shutDown();
}

void PortSerialPrivate::shutDown()
{
    // Nothing of the transport lives on the thread it was made on (the port
    // is on the I/O thread, and nothing is ever posted to the transport
    // itself), so it may be deleted from any thread.
    io.run([this] {
        QObject::disconnect(q.m_com, nullptr, &q, nullptr);
        QObject::disconnect(q.m_com, nullptr, io.context(), nullptr);
        if (q.m_com->isOpen()) {
            stopWorker();
            q.m_com->close();
        }
        delete q.m_com;
    });
    io.stop();
    // A worker can outlive the port: handleError closes the port without
    // stopping it, and a reopen while the deal flag is false starts a second
    // worker beside the first. Every worker still running is stopped here and
    // waited for, so none touches the transport once it is gone.
    {
        comm::MutexGuard guard(q.m_dealLock);
        q.m_threadRun = false;
    }
    link.workers.waitUntilIdle();
    q.m_com = nullptr;
    link.clearBuffers();
    // Reply and queue-clearing threads refer to the sink.
    link.sink.waitForDetachedWork();
}

bool PortSerial::openSerialPort(QString name, QSerialPort::BaudRate baud, QSerialPort::StopBits stopBits,
                                QSerialPort::Parity parity, QSerialPort::FlowControl flow,
                                QSerialPort::DataBits dataBits)
{
    // The port's notifiers belong to the I/O thread: it is opened there,
    // whichever thread asks.
    bool opened = false;
    d->io.run([&] { opened = d->openOnIoThread(name, baud, stopBits, parity, flow, dataBits); });
    return opened;
}

bool PortSerialPrivate::openOnIoThread(const QString &name, QSerialPort::BaudRate baud, QSerialPort::StopBits stopBits,
                                QSerialPort::Parity parity, QSerialPort::FlowControl flow,
                                QSerialPort::DataBits dataBits)
{
    if (q.m_com->isOpen()) {
        // While the deal flag is false the running worker is left alone, so a
        // second one starts beside it below; the destructor stops both.
        if (q.m_dealFlag)
            stopWorker();
        q.m_com->close();
        link.clearBuffers();
    } else if (q.m_dealFlag && link.workers.running() > 0) {
        // handleError closed the port but left its worker running: this open
        // restarts it, so that one worker at most reads the buffer.
        stopWorker();
    }
    q.m_com->setPortName(name);
    q.m_com->setBaudRate(baud, QSerialPort::AllDirections);
    q.m_com->setDataBits(dataBits);
    q.m_com->setParity(parity);
    q.m_com->setStopBits(stopBits);
    q.m_com->setFlowControl(flow);
    // Replies name the port as the port object reports it.
    link.reassembler.setSourceText(q.m_com->portName());
    if (!q.m_com->open(QIODevice::ReadWrite))
        return false;
    m_resourceErrorsAtOpen = m_resourceErrorsReported;
    {
        comm::MutexGuard guard(q.m_dealLock);
        q.m_threadRun = true;
    }
    if (!link.workers.tryStart("PortSerial-deal", [this] { q.ThreadDealDataFunc(); })) {
        // No thread to reassemble replies: a port without one is no use.
        {
            comm::MutexGuard guard(q.m_dealLock);
            q.m_threadRun = false;
        }
        q.m_com->close();
        return false;
    }
    return true;
}

void PortSerial::closeSerialPort()
{
    d->io.run([this] {
        if (!m_com->isOpen())
            return;
        d->stopWorker();
        m_com->close();
        d->link.clearBuffers();
    });
}

void PortSerial::setDealFlag(bool value)
{
    comm::MutexGuard guard(m_dealLock);
    m_threadRun = value;
}

void PortSerialPrivate::stopWorker()
{
    {
        comm::MutexGuard guard(q.m_dealLock);
        q.m_threadRun = false;
    }
    // A worker notices at the end of its turn, which may include a block
    // wait, then sets the exited flag as its last act. Every worker started
    // here is counted from the moment it is started, so a worker that has not
    // yet run is waited for too.
    while (link.workers.running() > 0)
        std::this_thread::sleep_for(kStopPoll);
}

void PortSerial::handleError(QSerialPort::SerialPortError error)
{
    if (error != QSerialPort::ResourceError)
        return;
    d->io.run([this] {
        // The port reports its errors on the I/O thread, so an application's
        // connection to this slot is usually queued: a resource error may
        // reach it after the port was closed and opened again. One that
        // belongs to an earlier opening leaves the new one alone.
        const bool fromEarlierOpening = d->m_resourceErrorsAtOpen > 0
                                        && d->m_resourceErrorsReported == d->m_resourceErrorsAtOpen;
        if (m_com->isOpen() && !fromEarlierOpening)
            m_com->close();
    });
}

void PortSerial::readPendingDatagrams()
{
    d->io.run([this] {
        while (m_com->bytesAvailable() != 0) {
            const QByteArray data = m_com->readAll();
            comm::wiretap::stream(
                this, comm::wiretap::Link::Serial, comm::wiretap::Direction::Read, [this] { return m_com->portName(); },
                data.constData(), data.size());
            if (m_dealFlag)
                d->link.reassembler.append(data);
        }
    });
}

void PortSerial::sendDatatoDevice(void *parameters)
{
    const ProtocolData record = *static_cast<const ProtocolData *>(parameters);
    const QByteArray frame = produceCmds(record);
    sendComData(frame);
    // The header only: it is already text; the payload is raw.
    comm::debugLine(QStringLiteral("Send data:") + QString::fromLatin1(frame.constData(), comm::kFrameHeaderSize));
}

void PortSerial::sendComData(QByteArray data)
{
    d->io.run([&] {
        if (!m_com->isOpen())
            return;
        // "m_com->write", a blank, the byte count.
        comm::debugLine(QStringLiteral("m_com->write %1").arg(data.size()));
        const qint64 written = d->writeComData(data.constData(), data.size());
        if (written == data.size())
            comm::debugLine(QStringLiteral("Send successful"));
        else if (written == -1)
            comm::debugLine(QStringLiteral("Send failed"));
        // A partial write is not reported.
    });
}

qint64 PortSerialPrivate::writeComData(const char *data, qint64 size)
{
    if (writeSeam)
        return writeSeam(data, size);
    return writeToPort(data, size);
}

qint64 PortSerialPrivate::writeToPort(const char *data, qint64 size)
{
    QSerialPort *const port = q.m_com;
    const qint64 written = port->write(data, size);
    if (written > 0)
        comm::wiretap::stream(
            &q, comm::wiretap::Link::Serial, comm::wiretap::Direction::Written, [port] { return port->portName(); },
            data, written);
    return written;
}

void PortSerial::ThreadDealDataFunc()
{
    d->link.reassembler.run(m_threadRun, &m_threadExited);
}

COMM_DEFINE_STREAM_OPERATIONS(PortSerial, d->link)
