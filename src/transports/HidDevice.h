#pragma once

#include <atomic>
#include <functional>

#include <QMutex>

// hidapi's device handle (hid_device); hidapi stays inside this unit.
struct hid_device_;

namespace comm {

// One HID device opened through hidapi, and the rules for calling hidapi on
// it from several threads: a reader, writers on the callers' threads, and a
// close from whichever thread closes. The device is closed when this object
// goes.
//
// hidapi keeps one process-wide error string, which enumeration and opening
// free and replace on every call, so those calls take turns process-wide. It
// also keeps one error string per device, which every read frees at its start
// and every write at its end, and which a failed call sets. While it is empty
// a read and a write may run at the same time; once a call has failed, two at
// once could free it twice, so from a failed call until a call made alone
// succeeds, reads and writes take turns.
class HidDevice
{
public:
    // What read and write return while no device is open (hidapi gives -1 at worst).
    static constexpr int kNotOpen = -2;

    HidDevice() = default;
    ~HidDevice();
    HidDevice(const HidDevice &) = delete;
    HidDevice &operator=(const HidDevice &) = delete;

    // Whether a device with these identifiers is attached: one enumeration.
    static bool present(unsigned short vid, unsigned short pid);

    // Opens the first device with vid and pid; true when one opened. Nothing
    // may be open.
    bool open(unsigned short vid, unsigned short pid);

    // Closes the device. whileReadsStopped runs first, once a read in
    // progress has ended (at most its time-out) and before any other starts;
    // then writes in progress are waited for and the handle is closed.
    void close(const std::function<void()> &whileReadsStopped);

    bool isOpen() const;

    // One read of up to size bytes, waiting at most timeoutMs: the count
    // read (0 on time-out), -1 on failure or kNotOpen. onData runs with the
    // bytes before the next read or close can start, so a close that empties
    // the buffer they go to never sees them arrive after it.
    int read(unsigned char *buffer, int size, int timeoutMs, const std::function<void(int count)> &onData);

    // Writes one output report of size bytes: what hidapi returns, or kNotOpen.
    int write(const unsigned char *report, int size);

private:
    // Held around each read and by closing around hid_close.
    QMutex m_readLock;
    // Held around each write and by closing around hid_close, so that no
    // write uses a closed handle. Reads and writes do not wait for each other
    // while the device answers.
    mutable QMutex m_writeLock;
    // Written with both locks held, read with either.
    hid_device_ *m_device = nullptr;
    // Set by a failed call; while set, reads and writes take turns.
    std::atomic<bool> m_failing{false};
};

} // namespace comm
