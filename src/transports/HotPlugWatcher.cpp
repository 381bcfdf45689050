#include "HotPlugWatcher.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include "DetachedThread.h"
#include "HidDevice.h"
#include "PortUSB.h"

namespace comm {

namespace {

constexpr auto kPoll = std::chrono::milliseconds(100);

// The identifiers last passed to openUSB. One value, so that the watcher never
// sees a vendor of one call with a product of another.
struct alignas(4) UsbIds
{
    unsigned short m_usbVID;
    unsigned short m_usbPID;
};
std::atomic<UsbIds> g_usbIds{UsbIds{0, 0}};

// The PortUSB objects alive in the process, oldest first. The watcher works
// on one of them at a time; removing an object waits until the watcher is
// done with it, so the watcher never touches a destroyed transport.
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

bool devicePresent(UsbIds ids)
{
    return HidDevice::present(ids.m_usbVID, ids.m_usbPID);
}

} // namespace

namespace HotPlugWatcher {

void start(void (*body)())
{
    static std::atomic<bool> started{false};
    if (started.exchange(true))
        return;
    if (!startDetachedThread("PortUSB-hotplug", body))
        started = false;
}

void run()
{
    LiveTransports &live = LiveTransports::instance();
    live.setWatcherThread(std::this_thread::get_id());

    // Idle until openUSB has named a device.
    UsbIds ids = g_usbIds.load();
    while (ids.m_usbVID == 0 && ids.m_usbPID == 0) {
        std::this_thread::sleep_for(kPoll);
        ids = g_usbIds.load();
    }
    // The state found first is not reported; only changes are.
    bool present = devicePresent(ids);
    for (;;) {
        std::this_thread::sleep_for(kPoll);
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

void watchFor(unsigned short vid, unsigned short pid)
{
    g_usbIds.store(UsbIds{vid, pid});
}

void addTransport(PortUSB *port)
{
    LiveTransports::instance().add(port);
}

void removeTransport(PortUSB *port)
{
    LiveTransports::instance().remove(port);
}

} // namespace HotPlugWatcher

} // namespace comm
