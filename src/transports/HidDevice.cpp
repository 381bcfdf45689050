#include "HidDevice.h"

#include <mutex>
#include <optional>

#include <hidapi.h>

#include "HidrawScan.h"
#include "MutexGuard.h"

namespace comm {

namespace {
// The turns of hid_enumerate, hid_open and hid_open_path, which share hidapi's
// process-wide error string. Never destroyed, as the hot-plug watcher may
// enumerate while the process exits.
std::mutex &hidapiGlobalLock()
{
    static std::mutex *const lock = new std::mutex;
    return *lock;
}

// The kernel's list, where hidapi needs it to be read instead of enumerating.
std::optional<HidrawScan> guardedScan(unsigned short vid, unsigned short pid)
{
    if (!HidDevice::hidapiGuarded())
        return std::nullopt;
    HidrawScan scan = scanHidraw(vid, pid);
    if (!scan.listed)
        return std::nullopt;
    return scan;
}
} // namespace

bool HidDevice::hidapiGuarded()
{
    static const bool guarded = [] {
        const hid_api_version *version = hid_version();
        return version == nullptr || (version->major == 0 && version->minor < 15);
    }();
    return guarded;
}

HidDevice::~HidDevice()
{
    closeHandles();
}

bool HidDevice::present(unsigned short vid, unsigned short pid)
{
    if (const std::optional<HidrawScan> scan = guardedScan(vid, pid))
        return !scan->node.empty();
    std::lock_guard<std::mutex> guard(hidapiGlobalLock());
    hid_device_info *devices = hid_enumerate(vid, pid);
    const bool found = devices != nullptr;
    hid_free_enumeration(devices);
    return found;
}

bool HidDevice::open(unsigned short vid, unsigned short pid)
{
    hid_device *reader = nullptr;
    hid_device *writer = nullptr;
    const std::optional<HidrawScan> scan = guardedScan(vid, pid);
    {
        std::lock_guard<std::mutex> guard(hidapiGlobalLock());
        if (!scan) {
            reader = writer = hid_open(vid, pid, nullptr);
        } else if (!scan->node.empty()) {
            reader = hid_open_path(scan->node.c_str());
            writer = reader ? hid_open_path(scan->node.c_str()) : nullptr;
            if (!writer && reader) {
                // Gone between the two opens.
                hid_close(reader);
                reader = nullptr;
            }
        }
        // Not in the kernel's list: not there, and nothing to ask hidapi.
    }
    MutexGuard reading(m_readLock);
    MutexGuard writing(m_writeLock);
    m_reader = reader;
    m_writer = writer;
    m_failing = false;
    return writer != nullptr;
}

void HidDevice::close(const std::function<void()> &whileReadsStopped)
{
    // Waits for a read in progress (at most its time-out).
    MutexGuard reading(m_readLock);
    whileReadsStopped();
    // Waits for a write in progress.
    MutexGuard writing(m_writeLock);
    closeHandles();
}

void HidDevice::closeHandles()
{
    if (m_reader && !sharedHandle())
        hid_close(m_reader);
    if (m_writer)
        hid_close(m_writer);
    m_reader = nullptr;
    m_writer = nullptr;
    m_failing = false;
}

bool HidDevice::isOpen() const
{
    MutexGuard writing(m_writeLock);
    return m_writer != nullptr;
}

int HidDevice::read(unsigned char *buffer, int size, int timeoutMs, const std::function<void(int count)> &onData)
{
    MutexGuard reading(m_readLock);
    if (!m_reader)
        return kNotOpen;
    // On a shared handle, after a failed call, no write may run beside the read.
    const bool shared = sharedHandle();
    const bool alone = shared && m_failing;
    std::optional<MutexGuard> writing;
    if (alone)
        writing.emplace(m_writeLock);
    const int count = hid_read_timeout(m_reader, buffer, static_cast<size_t>(size), timeoutMs);
    if (shared && count < 0)
        m_failing = true;
    else if (alone)
        m_failing = false;
    if (count >= 1)
        onData(count);
    return count;
}

int HidDevice::write(const unsigned char *report, int size)
{
    // Writes run beside a read in progress: always on a handle of their own,
    // and on a shared one while the device answers. After a failed call on a
    // shared handle they wait for the read, and the reader waits for them.
    if (!m_failing) {
        MutexGuard writing(m_writeLock);
        if (!m_writer)
            return kNotOpen;
        const int written = hid_write(m_writer, report, static_cast<size_t>(size));
        if (written == -1 && sharedHandle())
            m_failing = true;
        return written;
    }
    MutexGuard reading(m_readLock);
    MutexGuard writing(m_writeLock);
    if (!m_writer)
        return kNotOpen;
    const int written = hid_write(m_writer, report, static_cast<size_t>(size));
    m_failing = written == -1;
    return written;
}

} // namespace comm
