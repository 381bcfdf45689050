#include "PortUSB.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <system_error>
#include <thread>
#include <vector>

#include <pthread.h>

#include <hidapi.h>

#include "CommandFrame.h"
#include "DebugLog.h"
#include "DetachedWork.h"
#include "FrameHexText.h"
#include "HidReportSplit.h"
#include "MutexGuard.h"
#include "ReplyHandOff.h"
#include "StreamReassembler.h"

namespace {

constexpr auto kOpenClosePause = std::chrono::milliseconds(100);
constexpr auto kReadCycle = std::chrono::milliseconds(20);
constexpr auto kHotPlugPoll = std::chrono::milliseconds(100);
constexpr int kReadTimeoutMs = 100;
constexpr int kReadBufferSize = 1024;
// writeReport's result while no device is open (hid_write gives -1 at worst).
constexpr int kNotOpen = -2;

// The identifiers last passed to openUSB, for the hot-plug watcher. One value,
// so that the watcher never sees a vendor of one call with a product of another.
struct alignas(4) UsbIds
{
    unsigned short m_usbVID;
    unsigned short m_usbPID;
};
std::atomic<UsbIds> g_usbIds{UsbIds{0, 0}};

std::atomic<PortUSB::PauseFunction> g_openClosePause{nullptr};

void openClosePause()
{
    if (const PortUSB::PauseFunction pause = g_openClosePause.load())
        pause(kOpenClosePause);
    else
        std::this_thread::sleep_for(kOpenClosePause);
}

// hidapi keeps one process-wide error string, which hid_enumerate and hid_open
// free and replace on every call: two such calls at once (the watcher's poll
// and an openUSB) could free it twice. They take turns through this lock.
// Never destroyed, as the watcher may poll while the process exits.
std::mutex &hidapiGlobalLock()
{
    static std::mutex *const lock = new std::mutex;
    return *lock;
}

// Whether a device with these identifiers is attached: one enumeration, whose
// list is only tested for being non-empty.
bool devicePresent(UsbIds ids)
{
    std::lock_guard<std::mutex> guard(hidapiGlobalLock());
    hid_device_info *devices = hid_enumerate(ids.m_usbVID, ids.m_usbPID);
    const bool present = devices != nullptr;
    hid_free_enumeration(devices);
    return present;
}

hid_device *openDevice(unsigned short vid, unsigned short pid)
{
    std::lock_guard<std::mutex> guard(hidapiGlobalLock());
    return hid_open(vid, pid, nullptr);
}

// The PortUSB objects alive in the process, oldest first, as the hot-plug
// watcher sees them. The watcher works on one of them at a time; removing an
// object waits until the watcher is done with it, so the watcher never touches
// a destroyed transport.
//
// Created on first use and never destroyed: the watcher thread runs until the
// process ends and may look here while static objects are being destroyed.
class LiveTransports
{
public:
    static LiveTransports &instance()
    {
        static LiveTransports *const live = new LiveTransports;
        return *live;
    }

    void add(PortUSB *port)
    {
        std::lock_guard<std::mutex> guard(m_lock);
        m_live.push_back(port);
    }

    void remove(PortUSB *port)
    {
        std::unique_lock<std::mutex> guard(m_lock);
        m_live.erase(std::remove(m_live.begin(), m_live.end(), port), m_live.end());
        // Removed from the watcher's own thread (a slot connected directly to
        // signalUSBChanged deleting the transport), the watcher is inside a
        // call on port: waiting would never end, and the watcher does not
        // touch port after that call returns.
        if (std::this_thread::get_id() == m_watcherThread)
            return;
        m_released.wait(guard, [this, port] { return m_inUse != port; });
    }

    void setWatcherThread(std::thread::id id)
    {
        std::lock_guard<std::mutex> guard(m_lock);
        m_watcherThread = id;
    }

    // Runs action on the oldest live transport, which stays alive meanwhile.
    // Nothing when none is alive.
    template <typename Action>
    void withOldest(Action action)
    {
        PortUSB *port = nullptr;
        {
            std::lock_guard<std::mutex> guard(m_lock);
            if (m_live.empty())
                return;
            port = m_live.front();
            m_inUse = port;
        }
        action(port);
        {
            std::lock_guard<std::mutex> guard(m_lock);
            m_inUse = nullptr;
        }
        m_released.notify_all();
    }

private:
    LiveTransports() = default;

    std::mutex m_lock;
    std::condition_variable m_released;
    std::vector<PortUSB *> m_live;
    PortUSB *m_inUse = nullptr;
    std::thread::id m_watcherThread;
};

} // namespace

PortUSB::PortUSB()
    : m_handOff(std::make_unique<comm::ReplyHandOff>(m_dealFlag, comm::ReplyHandOff::Gate::Always))
    , m_reassembler(std::make_unique<comm::StreamReassembler>(comm::StreamReassemblyConfig::usb(), *m_handOff))
    , m_workers(std::make_unique<comm::DetachedWork>())
{
    LiveTransports::instance().add(this);
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
    m_workers->waitUntilIdle();
    m_handOff->waitForDetachedWork();
}

void PortUSB::stopHotPlugReports()
{
    LiveTransports::instance().remove(this);
}

void PortUSB::setDeviceIP(QString) {}

void PortUSB::setPort(int) {}

bool PortUSB::openSerialPort(QString, QSerialPort::BaudRate, QSerialPort::StopBits, QSerialPort::Parity,
                             QSerialPort::FlowControl, QSerialPort::DataBits)
{
    return false;
}

void PortUSB::closeSerialPort() {}

void PortUSB::clearQueue()
{
    m_handOff->clearQueueDetached(m_cmdDeal);
}

void PortUSB::setDeviceType(ModulelEnum::DeviceType type)
{
    m_reassembler->setDeviceType(type);
}

bool PortUSB::openUSB(unsigned short vid, unsigned short pid)
{
    comm::MutexGuard link(m_linkLock);
    if (m_device)
        closeDevice(false); // bytes already received stay for the new worker
    // Lets the workers of a previous open see their cleared flags and end.
    openClosePause();
    // On a loaded machine they may need longer: never run two pairs at once.
    m_workers->waitUntilIdle();

    hid_device *device = openDevice(vid, pid);
    {
        comm::MutexGuard reading(m_deviceLock);
        comm::MutexGuard writing(m_writeLock);
        m_device = device;
        m_deviceFailing = false;
    }
    g_usbIds.store(UsbIds{vid, pid});
    if (!device)
        return false;

    m_dealRunning = true;
    if (!m_workers->tryStart([this] { ThreadDealDataFunc(); })) {
        closeDevice(false);
        return false;
    }
    m_readRunning = true;
    if (!m_workers->tryStart([this] { ThreadReadPendingDatagrams(); })) {
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
        if (m_device)
            closeDevice(true);
    }
    openClosePause();
}

void PortUSB::closeDevice(bool clearBuffer)
{
    {
        // Waits for a read in progress (at most 100 ms).
        comm::MutexGuard reading(m_deviceLock);
        m_readRunning = false;
        if (clearBuffer)
            m_reassembler->clearBuffData();
        // Waits for a write in progress.
        comm::MutexGuard writing(m_writeLock);
        hid_close(m_device);
        m_device = nullptr;
        m_deviceFailing = false;
    }
    m_dealRunning = false;
}

bool PortUSB::isOpen() const
{
    comm::MutexGuard writing(m_writeLock);
    return m_device != nullptr;
}

int PortUSB::runningWorkers() const
{
    return m_workers->running();
}

void PortUSB::USBChanged()
{
    static std::atomic<bool> flag{false};
    if (flag.exchange(true))
        return;
    try {
        std::thread watcher(&PortUSB::ThreadUSBChanged);
        // Named so that it can be told apart in a debugger or /proc.
        pthread_setname_np(watcher.native_handle(), "PortUSB-hotplug");
        watcher.detach();
    } catch (const std::system_error &) {
        // No thread could be started: the next PortUSB tries again.
        flag = false;
    }
}

void PortUSB::ThreadUSBChanged()
{
    LiveTransports &live = LiveTransports::instance();
    live.setWatcherThread(std::this_thread::get_id());

    // Idle until openUSB has named a device.
    UsbIds ids = g_usbIds.load();
    while (ids.m_usbVID == 0 && ids.m_usbPID == 0) {
        std::this_thread::sleep_for(kHotPlugPoll);
        ids = g_usbIds.load();
    }
    // The state found first is not reported; only changes are.
    bool present = devicePresent(ids);
    for (;;) {
        std::this_thread::sleep_for(kHotPlugPoll);
        const bool now = devicePresent(g_usbIds.load());
        if (now == present)
            continue;
        live.withOldest([now](PortUSB *port) {
            // Through the virtual table, so that an override runs.
            if (!now)
                port->closeUSB();
            emit port->signalUSBChanged(now);
        });
        present = now;
    }
}

void PortUSB::ThreadReadPendingDatagrams()
{
    unsigned char buffer[kReadBufferSize] = {};
    if (!m_readRunning)
        return;
    // The flag is looked at after a whole cycle only: pause, then one read.
    do {
        std::this_thread::sleep_for(kReadCycle);
        std::fill(std::begin(buffer), std::end(buffer), 0);
        comm::MutexGuard reading(m_deviceLock);
        if (m_device) {
            // After a failed call, no write may run beside the read (see
            // m_deviceFailing).
            const bool alone = m_deviceFailing;
            std::optional<comm::MutexGuard> writing;
            if (alone)
                writing.emplace(m_writeLock);
            const int count = hid_read_timeout(m_device, buffer, kReadBufferSize, kReadTimeoutMs);
            if (count < 0)
                m_deviceFailing = true;
            else if (alone)
                m_deviceFailing = false;
            // 0 is a time-out, -1 an error: both skip the cycle. Every byte
            // read is kept, zero padding behind a short frame included.
            if (count >= 1)
                m_reassembler->appendBuffData(
                    QByteArray(reinterpret_cast<const char *>(buffer), std::min(count, kReadBufferSize)));
        }
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
        const int written = writeReport(report);
        if (written == kNotOpen)
            return; // closed: nothing is written, nothing logged
        if (written == -1) {
            if (chunk.logsFailure)
                comm::debugLine(QStringLiteral("Send failed"));
            return; // the rest is not sent
        }
    }
}

int PortUSB::writeReport(const unsigned char *report)
{
    // While the device answers, writes run beside a read in progress. After a
    // failed call they wait for it, and the reader waits for them.
    if (!m_deviceFailing) {
        comm::MutexGuard writing(m_writeLock);
        if (!m_device)
            return kNotOpen;
        const int written = hid_write(m_device, report, comm::kHidReportSize);
        if (written == -1)
            m_deviceFailing = true;
        return written;
    }
    comm::MutexGuard reading(m_deviceLock);
    comm::MutexGuard writing(m_writeLock);
    if (!m_device)
        return kNotOpen;
    const int written = hid_write(m_device, report, comm::kHidReportSize);
    m_deviceFailing = written == -1;
    return written;
}

QByteArray PortUSB::produceCmds(ProtocolData record)
{
    return comm::produceCmds(record);
}

QByteArray PortUSB::changeData(QByteArray data)
{
    return comm::changeData(data);
}

void PortUSB::ThreadDealDataFunc()
{
    m_reassembler->run(m_dealRunning, nullptr);
}

bool PortUSB::isFindStdCmdPreFlag(QByteArray snapshot)
{
    return m_reassembler->isFindStdCmdPreFlag(snapshot);
}

bool PortUSB::checkCMD(QByteArray frame)
{
    return m_reassembler->checkCMD(frame);
}

bool PortUSB::checkBlock(ProtocolData record, unsigned short length)
{
    return m_reassembler->checkBlock(record, length);
}

bool PortUSB::getArrayData(QByteArray frame, ProtocolData *out)
{
    return m_reassembler->getArrayData(frame, out);
}

void PortUSB::addToReceivedQueue(ProtocolData record)
{
    m_reassembler->addToReceivedQueue(record);
}

void PortUSB::setRetFlagStatus(bool value)
{
    comm::setRetFlagStatus(value);
}

void PortUSB::appendBuffData(QByteArray data)
{
    m_reassembler->appendBuffData(data);
}

QByteArray PortUSB::getBuffData(unsigned short len)
{
    return m_reassembler->getBuffData(len);
}

QByteArray PortUSB::takeBuffData(unsigned short len)
{
    return m_reassembler->takeBuffData(len);
}

QByteArray PortUSB::buffData() const
{
    return m_reassembler->buffData();
}
