#include "HidDevice.h"

#include <mutex>
#include <optional>

#include <hidapi.h>

#include "MutexGuard.h"

namespace comm {

namespace {
// The turns of hid_enumerate and hid_open, which share hidapi's process-wide
// error string. Never destroyed, as the hot-plug watcher may enumerate while
// the process exits.
std::mutex &hidapiGlobalLock()
{
    static std::mutex *const lock = new std::mutex;
    return *lock;
}
} // namespace

HidDevice::~HidDevice()
{
    if (m_device)
        hid_close(m_device);
}

bool HidDevice::present(unsigned short vid, unsigned short pid)
{
    std::lock_guard<std::mutex> guard(hidapiGlobalLock());
    hid_device_info *devices = hid_enumerate(vid, pid);
    const bool found = devices != nullptr;
    hid_free_enumeration(devices);
    return found;
}

bool HidDevice::open(unsigned short vid, unsigned short pid)
{
    hid_device *device = nullptr;
    {
        std::lock_guard<std::mutex> guard(hidapiGlobalLock());
        device = hid_open(vid, pid, nullptr);
    }
    MutexGuard reading(m_readLock);
    MutexGuard writing(m_writeLock);
    m_device = device;
    m_failing = false;
    return device != nullptr;
}

void HidDevice::close(const std::function<void()> &whileReadsStopped)
{
    // Waits for a read in progress (at most its time-out).
    MutexGuard reading(m_readLock);
    whileReadsStopped();
    // Waits for a write in progress.
    MutexGuard writing(m_writeLock);
    if (m_device)
        hid_close(m_device);
    m_device = nullptr;
    m_failing = false;
}

bool HidDevice::isOpen() const
{
    MutexGuard writing(m_writeLock);
    return m_device != nullptr;
}

int HidDevice::read(unsigned char *buffer, int size, int timeoutMs, const std::function<void(int count)> &onData)
{
    MutexGuard reading(m_readLock);
    if (!m_device)
        return kNotOpen;
    // After a failed call, no write may run beside the read.
    const bool alone = m_failing;
    std::optional<MutexGuard> writing;
    if (alone)
        writing.emplace(m_writeLock);
    const int count = hid_read_timeout(m_device, buffer, static_cast<size_t>(size), timeoutMs);
    if (count < 0)
        m_failing = true;
    else if (alone)
        m_failing = false;
    if (count >= 1)
        onData(count);
    return count;
}

int HidDevice::write(const unsigned char *report, int size)
{
    // While the device answers, writes run beside a read in progress. After a
    // failed call they wait for it, and the reader waits for them.
    if (!m_failing) {
        MutexGuard writing(m_writeLock);
        if (!m_device)
            return kNotOpen;
        const int written = hid_write(m_device, report, static_cast<size_t>(size));
        if (written == -1)
            m_failing = true;
        return written;
    }
    MutexGuard reading(m_readLock);
    MutexGuard writing(m_writeLock);
    if (!m_device)
        return kNotOpen;
    const int written = hid_write(m_device, report, static_cast<size_t>(size));
    m_failing = written == -1;
    return written;
}

} // namespace comm
