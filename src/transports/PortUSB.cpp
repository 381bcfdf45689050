#include "PortUSB_p.h"

#include <algorithm>
#include <chrono>
#include <thread>

#include "CommandFrame.h"
#include "DebugLog.h"
#include "FrameHexText.h"
#include "HidReportSplit.h"
#include "HotPlugWatcher.h"
#include "MutexGuard.h"
#include "WireTap.h"

namespace {

constexpr auto kOpenClosePause = std::chrono::milliseconds(100);
constexpr auto kReadCycle = std::chrono::milliseconds(20);
constexpr int kReadTimeoutMs = 100;
constexpr int kReadBufferSize = 1024;

// The peer of every byte string on the USB link, as wire observers see it.
QString usbPeer()
{
    return QStringLiteral("USB");
}

std::atomic<PortUSBPrivate::PauseFunction> g_openClosePause{nullptr};

} // namespace

PortUSBPrivate::PortUSBPrivate(PortUSB &port)
    : link(comm::StreamReassemblyConfig::usb())
    , q(port)
{
}

void PortUSBPrivate::setOpenClosePause(PauseFunction pause)
{
    g_openClosePause.store(pause);
}

void PortUSBPrivate::openClosePause()
{
    if (const PauseFunction pause = g_openClosePause.load())
        pause(kOpenClosePause);
    else
        std::this_thread::sleep_for(kOpenClosePause);
}

PortUSB::PortUSB()
    : d(std::make_unique<PortUSBPrivate>(*this))
{
    comm::HotPlugWatcher::addTransport(this);
    USBChanged();
}

PortUSB::~PortUSB()
{
    d->stopHotPlugReports();
    closeUSB();
    // The workers notice their cleared flags at the end of their cycle; wait
    // for that, and for reply hand-offs, so none outlives this object.
    m_readRunning = false;
    m_dealRunning = false;
    d->link.workers.waitUntilIdle();
    d->link.sink.waitForDetachedWork();
}

void PortUSBPrivate::stopHotPlugReports()
{
    comm::HotPlugWatcher::removeTransport(&q);
}

bool PortUSB::openUSB(unsigned short vid, unsigned short pid)
{
    comm::MutexGuard link(d->linkLock);
    if (d->device.isOpen())
        d->closeDevice(false); // bytes already received stay for the new worker
    // Lets the workers of a previous open see their cleared flags and end.
    PortUSBPrivate::openClosePause();
    // On a loaded machine they may need longer: never run two pairs at once.
    d->link.workers.waitUntilIdle();

    const bool opened = d->device.open(vid, pid);
    comm::HotPlugWatcher::watchFor(vid, pid);
    if (!opened)
        return false;

    m_dealRunning = true;
    if (!d->link.workers.tryStart("PortUSB-deal", [this] { ThreadDealDataFunc(); })) {
        d->closeDevice(false);
        return false;
    }
    m_readRunning = true;
    if (!d->link.workers.tryStart("PortUSB-read", [this] { ThreadReadPendingDatagrams(); })) {
        // Without a reader no reply would ever arrive.
        d->closeDevice(false);
        return false;
    }
    return true;
}

void PortUSB::closeUSB()
{
    {
        comm::MutexGuard link(d->linkLock);
        if (d->device.isOpen())
            d->closeDevice(true);
    }
    PortUSBPrivate::openClosePause();
}

void PortUSBPrivate::closeDevice(bool clearBuffer)
{
    device.close([&] {
        q.m_readRunning = false;
        if (clearBuffer)
            link.reassembler.clear();
    });
    q.m_dealRunning = false;
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
    comm::StreamReassembler &reassembler = d->link.reassembler;
    // The flag is looked at after a whole cycle only: pause, then one read.
    do {
        std::this_thread::sleep_for(kReadCycle);
        std::fill(std::begin(buffer), std::end(buffer), 0);
        // A time-out, an error or a closed device skips the cycle. Every byte
        // read is kept, zero padding behind a short frame included.
        d->device.read(buffer, kReadBufferSize, kReadTimeoutMs, [&](int count) {
            const int size = std::min(count, kReadBufferSize);
            comm::wiretap::stream(this, comm::wiretap::Link::Usb, comm::wiretap::Direction::Read, usbPeer,
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
    d->writeReports(data, comm::ReportSplit::Command);
}

void PortUSB::sendUSBData_Update_Vornik(QByteArray data)
{
    d->writeReports(data, comm::ReportSplit::Update);
}

void PortUSBPrivate::writeReports(const QByteArray &data, comm::ReportSplit split)
{
    unsigned char report[comm::kHidReportSize];
    for (const comm::ReportChunk &chunk : comm::splitIntoReports(data.size(), split)) {
        comm::fillOutputReport(report, data.constData(), chunk);
        const int written = device.write(report, comm::kHidReportSize);
        if (written == comm::HidDevice::kNotOpen)
            return; // closed: nothing is written, nothing logged
        if (written >= 0)
            comm::wiretap::stream(&q, comm::wiretap::Link::Usb, comm::wiretap::Direction::Written, usbPeer,
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
    d->link.reassembler.run(m_dealRunning, nullptr);
}

COMM_DEFINE_STREAM_OPERATIONS(PortUSB, d->link)
