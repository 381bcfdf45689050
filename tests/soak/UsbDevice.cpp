#include "UsbDevice.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#ifdef SOAK_EMULATED_USB
#include "EmulatedHid.h"
#endif

namespace soak {

#ifdef SOAK_EMULATED_USB

QString UsbDevice::unavailableReason()
{
    return emulatedhid::Testbed::unavailableReason();
}

UsbDevice::UsbDevice()
    : m_bed(std::make_unique<emulatedhid::Testbed>())
    , m_device(std::make_unique<emulatedhid::Device>())
{
}

UsbDevice::~UsbDevice()
{
    stop();
    unplug();
}

bool UsbDevice::plug(QString *error)
{
    if (m_plugged)
        return true;
    if (!m_bed->plug(kVid, kPid, m_device.get(), error))
        return false;
    // The device side never blocks: a reply the host does not read waits here.
    ::fcntl(m_device->master, F_SETFL, ::fcntl(m_device->master, F_GETFL) | O_NONBLOCK);
    m_plugged = true;
    ++m_plugs;
    std::lock_guard<std::mutex> guard(m_lock);
    m_master = m_device->master;
    ++m_generation;
    m_commands = sim::CommandStream();
    m_pending.clear();
    return true;
}

void UsbDevice::unplug()
{
    if (!m_plugged)
        return;
    {
        std::lock_guard<std::mutex> guard(m_lock);
        m_master = -1;
        ++m_generation;
        m_commands = sim::CommandStream();
        m_pending.clear();
    }
    m_bed->unplug(m_device.get());
    m_plugged = false;
}

bool UsbDevice::waitForLook(int timeoutMs)
{
    return m_bed->waitForLook(timeoutMs);
}

void UsbDevice::start(const RunClock &clock, Answered answered)
{
    m_answeredHook = std::move(answered);
    m_thread = std::thread([this, &clock] { serve(clock); });
}

void UsbDevice::stop()
{
    m_stop = true;
    if (m_thread.joinable())
        m_thread.join();
}

void UsbDevice::serve(const RunClock &clock)
{
    for (long long turn = 0; turn < clock.maxTurns() && !m_stop && !clock.pastHardLimit(); ++turn) {
        int master = -1;
        quint64 generation = 0;
        bool writing = false;
        {
            std::lock_guard<std::mutex> guard(m_lock);
            master = m_master;
            generation = m_generation;
            writing = !m_pending.isEmpty();
        }
        if (master < 0) {
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
            continue;
        }
        // Polled without the lock: an unplug meanwhile points the descriptor at
        // /dev/null, and the generation tells that it is no longer ours.
        pollfd ready{master, short(POLLIN | (writing ? POLLOUT : 0)), 0};
        if (::poll(&ready, 1, 5) <= 0)
            continue;
        bool busy = false;
        {
            std::lock_guard<std::mutex> guard(m_lock);
            if (generation != m_generation)
                continue;
            if (ready.revents & POLLIN) {
                char buffer[4096];
                const ssize_t n = ::read(master, buffer, sizeof buffer);
                if (n > 0) {
                    busy = true;
                    // Output reports arrive as 65 bytes each, report ID first;
                    // the frame search skips the ID and the zeros behind a frame.
                    m_commands.append(QByteArray(buffer, int(n)));
                    sim::HeaderBytes command;
                    for (int i = 0; i < 1024 && m_commands.next(&command); ++i) {
                        if (m_answeredHook)
                            m_answeredHook(command);
                        m_pending.append(sim::replyFrame(command).leftJustified(64, '\0'));
                        ++m_answered;
                    }
                }
            }
            if (!m_pending.isEmpty()) {
                const ssize_t n = ::write(master, m_pending.constData(), size_t(m_pending.size()));
                if (n > 0) {
                    busy = true;
                    m_pending.remove(0, int(n));
                }
            }
        }
        // A node nobody holds open reports a hang-up at once: wait for the host.
        if (!busy)
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
}

#else

} // namespace soak

// Built without umockdev there is nothing to emulate with; these stand in
// for the testbed's types so that the device still compiles.
namespace emulatedhid {
class Testbed
{
};
struct Device
{
};
} // namespace emulatedhid

namespace soak {

QString UsbDevice::unavailableReason()
{
    return QStringLiteral("built without umockdev (Debian packages umockdev, libumockdev-dev)");
}

UsbDevice::UsbDevice() = default;
UsbDevice::~UsbDevice() = default;

bool UsbDevice::plug(QString *error)
{
    *error = unavailableReason();
    return false;
}

void UsbDevice::unplug() {}
bool UsbDevice::waitForLook(int) { return false; }
void UsbDevice::start(const RunClock &, Answered) {}
void UsbDevice::stop() {}
void UsbDevice::serve(const RunClock &) {}

#endif

} // namespace soak
