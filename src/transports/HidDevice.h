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
// also keeps one error string per handle, which every read frees at its start
// and every write at its end, both without a lock, and which a failed call
// sets; hidapi 0.15 gives reads a string of their own. Before 0.15 the device
// is therefore opened twice where the kernel lists it, once for reads and
// once for writes: a read and a write never touch the same string, and a
// write never waits for a read's time-out. (The write handle's own queue of
// input reports, which nobody reads, is bounded by the kernel.) Where it is
// opened once, from a failed call until a call made alone succeeds, reads and
// writes take turns, so that two calls never free one string twice.
//
// Before 0.15, hidapi's enumeration also crashes when a device vanishes in the
// middle of it. Where the kernel lists its HID devices, presence is therefore
// read from that list (HidrawScan) and the device is opened by its node:
// nothing here enumerates through hidapi then.
class HidDevice
{
public:
    // What read and write return while no device is open (hidapi gives -1 at worst).
    static constexpr int kNotOpen = -2;

    HidDevice() = default;
    ~HidDevice();
    HidDevice(const HidDevice &) = delete;
    HidDevice &operator=(const HidDevice &) = delete;

    // Whether a device with these identifiers is attached: one look at the
    // kernel's list, or one enumeration through hidapi.
    static bool present(unsigned short vid, unsigned short pid);

    // Opens the first device with vid and pid; true when one opened. Nothing
    // may be open.
    bool open(unsigned short vid, unsigned short pid);

    // Whether hidapi needs the guards above (a version before 0.15).
    static bool hidapiGuarded();

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
    // The handles reads and writes go to: the same one, or one each (see
    // above). Written with both locks held, read with either.
    hid_device_ *m_reader = nullptr;
    hid_device_ *m_writer = nullptr;
    // Set by a failed call on a shared handle; while set, reads and writes
    // take turns.
    std::atomic<bool> m_failing{false};

    bool sharedHandle() const { return m_reader == m_writer; }
    // Closes both handles. Called with both locks held.
    void closeHandles();
};

} // namespace comm
