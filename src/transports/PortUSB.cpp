#include "PortUSB.h"

#include <algorithm>
#include <chrono>
#include <thread>

#include "CommandFrame.h"
#include "DebugLog.h"
#include "HidDevice.h"
#include "HidReportSplit.h"
#include "HotPlugWatcher.h"
#include "MutexGuard.h"
#include "StreamLink.h"
#include "WireTap.h"

namespace {

constexpr auto kOpenClosePause = std::chrono::milliseconds(100);
constexpr auto kReadCycle = std::chrono::milliseconds(20);
constexpr int kReadTimeoutMs = 100;
constexpr int kReadBufferSize = 1024;

std::atomic<PortUSB::PauseFunction> g_openClosePause{nullptr};

void openClosePause()
{
    if (const PortUSB::PauseFunction pause = g_openClosePause.load())
        pause(kOpenClosePause);
    else
        std::this_thread::sleep_for(kOpenClosePause);
}

} // namespace

PortUSB::PortUSB()
    : StreamTransport(comm::StreamReassemblyConfig::usb())
    , m_device(std::make_unique<comm::HidDevice>())
{
    comm::HotPlugWatcher::addTransport(this);
    USBChanged();
}

PortUSB::~PortUSB()
{
    stopHotPlugReports();
    closeUSB();
    // The workers notice their cleared flags at the end of their cycle; wait
    // for that, and for reply hand-offs, so none outlives this object.
    m_readRunning = false;
    m_dealRunning = false;
    m_link->workers.waitUntilIdle();
    m_link->sink.waitForDetachedWork();
}

void PortUSB::stopHotPlugReports()
{
    comm::HotPlugWatcher::removeTransport(this);
}

bool PortUSB::openUSB(unsigned short vid, unsigned short pid)
{
    comm::MutexGuard link(m_linkLock);
    if (m_device->isOpen())
        closeDevice(false); // bytes already received stay for the new worker
    // Lets the workers of a previous open see their cleared flags and end.
    openClosePause();
    // On a loaded machine they may need longer: never run two pairs at once.
    m_link->workers.waitUntilIdle();

    const bool opened = m_device->open(vid, pid);
    comm::HotPlugWatcher::watchFor(vid, pid);
    if (!opened)
        return false;

    m_dealRunning = true;
    if (!m_link->workers.tryStart("PortUSB-deal", [this] { ThreadDealDataFunc(); })) {
        closeDevice(false);
        return false;
    }
    m_readRunning = true;
    if (!m_link->workers.tryStart("PortUSB-read", [this] { ThreadReadPendingDatagrams(); })) {
        // Without a reader no reply would ever arrive.
        closeDevice(false);
        return false;
    }
    return true;
}

void PortUSB::setOpenClosePause(PauseFunction pause)
{
    g_openClosePause.store(pause);
}

void PortUSB::closeUSB()
{
    {
        comm::MutexGuard link(m_linkLock);
        if (m_device->isOpen())
            closeDevice(true);
    }
    openClosePause();
}

void PortUSB::closeDevice(bool clearBuffer)
{
    m_device->close([&] {
        m_readRunning = false;
        if (clearBuffer)
            m_link->reassembler.clear();
    });
    m_dealRunning = false;
}

bool PortUSB::isOpen() const
{
    return m_device->isOpen();
}

void PortUSB::USBChanged()
{
    comm::HotPlugWatcher::start(&PortUSB::ThreadUSBChanged);
}

void PortUSB::ThreadUSBChanged()
{
    comm::HotPlugWatcher::run();
}

void PortUSB::ThreadReadPendingDatagrams()
{
    unsigned char buffer[kReadBufferSize] = {};
    if (!m_readRunning)
        return;
    comm::StreamReassembler &reassembler = m_link->reassembler;
    // The flag is looked at after a whole cycle only: pause, then one read.
    do {
        std::this_thread::sleep_for(kReadCycle);
        std::fill(std::begin(buffer), std::end(buffer), 0);
        // A time-out, an error or a closed device skips the cycle. Every byte
        // read is kept, zero padding behind a short frame included.
        m_device->read(buffer, kReadBufferSize, kReadTimeoutMs, [&](int count) {
            const int size = std::min(count, kReadBufferSize);
            comm::wiretap::stream(comm::wiretap::Link::Usb, comm::wiretap::Direction::Read,
                                  reinterpret_cast<const char *>(buffer), size);
            reassembler.append(QByteArray(reinterpret_cast<const char *>(buffer), size));
        });
    } while (m_readRunning);
}

void PortUSB::sendDatatoDevice(void *parameters)
{
    const ProtocolData record = *static_cast<const ProtocolData *>(parameters);
    const QByteArray frame = produceCmds(record);
    if (m_cmdTextFlag) {
        // The command text (frame bytes 6 to 9) is formed and not used.
        const QString commandText = QString::fromLocal8Bit(frame.mid(6, 4).constData()).toUpper();
        Q_UNUSED(commandText);
    }
    sendUSBData(frame);
    // The header's bytes as text, not hex.
    comm::debugLine(QStringLiteral("Send usb data:"), frame.left(comm::kFrameHeaderSize));
}

void PortUSB::sendUSBData(QByteArray data)
{
    writeReports(data, comm::ReportSplit::Command);
}

void PortUSB::sendUSBData_Update_Vornik(QByteArray data)
{
    writeReports(data, comm::ReportSplit::Update);
}

void PortUSB::writeReports(const QByteArray &data, comm::ReportSplit split)
{
    unsigned char report[comm::kHidReportSize];
    for (const comm::ReportChunk &chunk : comm::splitIntoReports(data.size(), split)) {
        comm::fillOutputReport(report, data.constData(), chunk);
        const int written = m_device->write(report, comm::kHidReportSize);
        if (written == comm::HidDevice::kNotOpen)
            return; // closed: nothing is written, nothing logged
        if (written >= 0)
            comm::wiretap::stream(comm::wiretap::Link::Usb, comm::wiretap::Direction::Written,
                                  reinterpret_cast<const char *>(report), comm::kHidReportSize);
        if (written == -1) {
            if (chunk.logsFailure)
                comm::debugLine(QStringLiteral("Send failed"));
            return; // the rest is not sent
        }
    }
}

void PortUSB::ThreadDealDataFunc()
{
    m_link->reassembler.run(m_dealRunning, nullptr);
}
