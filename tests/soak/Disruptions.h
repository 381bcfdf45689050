#pragma once

#include <atomic>
#include <thread>

#include "Commands.h"
#include "Rig.h"

namespace soak {

class FactorySwitch;

// The control thread: in an order drawn from the run's seed, it clears the
// receive queue, hangs up and reopens the serial line, closes and reopens the
// serial port, floods the serial line with noise, and pulls the USB device
// out and plugs it back in storms, at random moments: right after a send,
// inside openUSB's or the hot-plug watcher's look for the device, during a
// long write, or at a moment of its own (mostly inside a read). Plugging and
// unplugging happen on this thread only. In between it
// opens the USB device again when the hot-plug watcher reports it back, or
// when it has been closed while plugged in.
class Disruptions
{
public:
    Disruptions(Rig &rig, FactorySwitch &factory);
    void start();
    void join();

    // Opens the long-lived USB transport on the device (again): whatever it
    // awaited is voided first, as opening closes what was open.
    bool openUsb();

private:
    void run();
    void clearQueue();
    void hangUpSerial();
    void closeAndReopenSerial();
    void floodSerial();
    void usbStorm();
    void unplug(UnplugMoment moment);
    // Unplugs as the library's next look for the device begins.
    void unplugInsideLook(UnplugMoment moment);
    // Sleeps about ms, keeping the USB device open meanwhile.
    void tend(int ms);
    void tendUsbOnce();
    void reopenSerial(const QString &path, quint64 epoch);

    Rig &m_rig;
    FactorySwitch &m_factory;
    Rng m_rng;
    std::thread m_thread;
    // When the USB device was last opened, from this thread or an opener's.
    std::atomic<qint64> m_lastUsbAttemptMs{0};
};

// Busy-waits for about us microseconds: sleeping would round a
// sub-millisecond moment up to the scheduler's tick.
void spinFor(int us);

} // namespace soak
