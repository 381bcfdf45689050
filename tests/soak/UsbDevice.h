#pragma once

#include <QByteArray>
#include <QString>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>

#include "RunClock.h"
#include "SimProtocol.h"

namespace emulatedhid {
class Testbed;
struct Device;
} // namespace emulatedhid

namespace soak {

// A HID device that umockdev emulates in this process, plugged in and pulled
// out again and again, answering every command it reads with a 64-byte input
// report that holds the reply frame.
//
// The testbed is not thread-safe: plug() and unplug() are called from one
// control thread. The device's thread is handed the node's device side under
// a lock of its own, and never reads the testbed's Device, which unplug()
// changes.
class UsbDevice
{
public:
    static constexpr unsigned short kVid = 0x1209;
    static constexpr unsigned short kPid = 0x0005;

    // Why no device can be emulated here, or an empty text.
    static QString unavailableReason();

    UsbDevice();
    ~UsbDevice();
    UsbDevice(const UsbDevice &) = delete;
    UsbDevice &operator=(const UsbDevice &) = delete;

    // Control thread only.
    bool plug(QString *error);
    void unplug();
    bool plugged() const { return m_plugged; }
    // Waits up to timeoutMs for the next look the library (or hidapi) takes
    // through the hidraw devices to begin; true when one did. An unplug made
    // right then lands inside that look.
    bool waitForLook(int timeoutMs);
    // Plugs so far: umockdev keeps two descriptors of each (the node's device
    // side, pointed at /dev/null once unplugged, and its ioctl socket) until
    // the testbed goes.
    quint64 plugs() const { return m_plugs; }

    // Called on the device's thread with each command it answers, just before the reply goes out.
    using Answered = std::function<void(const sim::HeaderBytes &)>;
    void start(const RunClock &clock, Answered answered);
    void stop();

    quint64 commandsAnswered() const { return m_answered; }

private:
    void serve(const RunClock &clock);

    std::unique_ptr<emulatedhid::Testbed> m_bed;
    std::unique_ptr<emulatedhid::Device> m_device; // control thread only
    bool m_plugged = false;                        // control thread only
    std::atomic<quint64> m_plugs{0};

    std::mutex m_lock;
    // The device side of the node while plugged in, -1 otherwise, and the
    // plug it belongs to; guarded by m_lock, with what the device has read
    // and has still to write.
    int m_master = -1;
    quint64 m_generation = 0;
    sim::CommandStream m_commands;
    QByteArray m_pending;

    Answered m_answeredHook;
    std::thread m_thread;
    std::atomic<bool> m_stop{false};
    std::atomic<quint64> m_answered{0};
};

} // namespace soak
