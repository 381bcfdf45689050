#include "PortSerial.h"

#include <chrono>
#include <thread>

#include "CommandFrame.h"
#include "DebugLog.h"
#include "IoThread.h"
#include "MutexGuard.h"
#include "StreamLink.h"
#include "WireTap.h"

namespace {
// How often a stopping side looks whether the worker has ended.
constexpr auto kStopPoll = std::chrono::milliseconds(5);
} // namespace

PortSerial::PortSerial()
    : StreamTransport(comm::StreamReassemblyConfig::serial())
    , m_io(std::make_unique<comm::IoThread>("PortSerial-io"))
{
    m_com = new QSerialPort();
    // Not opened yet, so it has no notifiers to move.
    m_com->moveToThread(m_io->context()->thread());
    // Connected on the I/O thread, where the port signals, and undone there
    // by the destructor.
    m_io->run([this] {
        // Direct: readyRead() is emitted on the I/O thread, and the bytes are taken there.
        connect(m_com, &QIODevice::readyRead, this, &PortSerial::readPendingDatagrams, Qt::DirectConnection);
        // Counted as they happen, for handleError to tell a late error from a current one.
        connect(
            m_com, &QSerialPort::errorOccurred, m_io->context(),
            [this](QSerialPort::SerialPortError error) {
                if (error == QSerialPort::ResourceError)
                    ++m_resourceErrorsReported;
            },
            Qt::DirectConnection);
    });
}

PortSerial::~PortSerial()
{
    // Nothing of this object lives on the thread it was made on (the port is
    // on the I/O thread, and nothing is ever posted to the transport itself),
    // so it may be deleted from any thread.
    m_io->run([this] {
        disconnect(m_com, nullptr, this, nullptr);
        disconnect(m_com, nullptr, m_io->context(), nullptr);
        if (m_com->isOpen()) {
            stopWorker();
            m_com->close();
        }
        delete m_com;
    });
    m_io->stop();
    // A worker can outlive the port: handleError closes the port without
    // stopping it, and a reopen while the deal flag is false starts a second
    // worker beside the first. Every worker still running is stopped here and
    // waited for, so none touches this object once it is gone.
    {
        comm::MutexGuard guard(m_dealLock);
        m_threadRun = false;
    }
    m_link->workers.waitUntilIdle();
    m_com = nullptr;
    m_link->clearBuffers();
    // Reply and queue-clearing threads refer to the sink.
    m_link->sink.waitForDetachedWork();
}

bool PortSerial::openSerialPort(QString name, QSerialPort::BaudRate baud, QSerialPort::StopBits stopBits,
                                QSerialPort::Parity parity, QSerialPort::FlowControl flow,
                                QSerialPort::DataBits dataBits)
{
    // The port's notifiers belong to the I/O thread: it is opened there,
    // whichever thread asks.
    bool opened = false;
    m_io->run([&] { opened = openOnIoThread(name, baud, stopBits, parity, flow, dataBits); });
    return opened;
}

bool PortSerial::openOnIoThread(const QString &name, QSerialPort::BaudRate baud, QSerialPort::StopBits stopBits,
                                QSerialPort::Parity parity, QSerialPort::FlowControl flow,
                                QSerialPort::DataBits dataBits)
{
    if (m_com->isOpen()) {
        // While the deal flag is false the running worker is left alone, so a
        // second one starts beside it below; the destructor stops both.
        if (m_dealFlag)
            stopWorker();
        m_com->close();
        m_link->clearBuffers();
    } else if (m_dealFlag && m_link->workers.running() > 0) {
        // handleError closed the port but left its worker running: this open
        // restarts it, so that one worker at most reads the buffer.
        stopWorker();
    }
    m_com->setPortName(name);
    m_com->setBaudRate(baud, QSerialPort::AllDirections);
    m_com->setDataBits(dataBits);
    m_com->setParity(parity);
    m_com->setStopBits(stopBits);
    m_com->setFlowControl(flow);
    // Replies name the port as the port object reports it.
    m_link->reassembler.setSourceText(m_com->portName());
    if (!m_com->open(QIODevice::ReadWrite))
        return false;
    m_resourceErrorsAtOpen = m_resourceErrorsReported;
    {
        comm::MutexGuard guard(m_dealLock);
        m_threadRun = true;
    }
    if (!m_link->workers.tryStart("PortSerial-deal", [this] { ThreadDealDataFunc(); })) {
        // No thread to reassemble replies: a port without one is no use.
        {
            comm::MutexGuard guard(m_dealLock);
            m_threadRun = false;
        }
        m_com->close();
        return false;
    }
    return true;
}

void PortSerial::closeSerialPort()
{
    m_io->run([this] {
        if (!m_com->isOpen())
            return;
        stopWorker();
        m_com->close();
        m_link->clearBuffers();
    });
}

void PortSerial::setDealFlag(bool value)
{
    comm::MutexGuard guard(m_dealLock);
    m_threadRun = value;
}

void PortSerial::stopWorker()
{
    {
        comm::MutexGuard guard(m_dealLock);
        m_threadRun = false;
    }
    // A worker notices at the end of its turn, which may include a block
    // wait, then sets the exited flag as its last act. Every worker started
    // here is counted from the moment it is started, so a worker that has not
    // yet run is waited for too.
    while (m_link->workers.running() > 0)
        std::this_thread::sleep_for(kStopPoll);
}

void PortSerial::handleError(QSerialPort::SerialPortError error)
{
    if (error != QSerialPort::ResourceError)
        return;
    m_io->run([this] {
        // The port reports its errors on the I/O thread, so an application's
        // connection to this slot is usually queued: a resource error may
        // reach it after the port was closed and opened again. One that
        // belongs to an earlier opening leaves the new one alone.
        const bool fromEarlierOpening = m_resourceErrorsAtOpen > 0
                                        && m_resourceErrorsReported == m_resourceErrorsAtOpen;
        if (m_com->isOpen() && !fromEarlierOpening)
            m_com->close();
    });
}

void PortSerial::readPendingDatagrams()
{
    m_io->run([this] {
        while (m_com->bytesAvailable() != 0) {
            const QByteArray data = m_com->readAll();
            comm::wiretap::stream(comm::wiretap::Link::Serial, comm::wiretap::Direction::Read, data.constData(),
                                  data.size());
            if (m_dealFlag)
                m_link->reassembler.append(data);
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
    m_io->run([&] {
        if (!m_com->isOpen())
            return;
        // "m_com->write", a blank, the byte count.
        comm::debugLine(QStringLiteral("m_com->write %1").arg(data.size()));
        const qint64 written = writeComData(data.constData(), data.size());
        if (written == data.size())
            comm::debugLine(QStringLiteral("Send successful"));
        else if (written == -1)
            comm::debugLine(QStringLiteral("Send failed"));
        // A partial write is not reported.
    });
}

qint64 PortSerial::writeComData(const char *data, qint64 size)
{
    const qint64 written = m_com->write(data, size);
    if (written > 0)
        comm::wiretap::stream(comm::wiretap::Link::Serial, comm::wiretap::Direction::Written, data, written);
    return written;
}

void PortSerial::ThreadDealDataFunc()
{
    m_link->reassembler.run(m_threadRun, &m_threadExited);
}
