#pragma once

#include <QString>
#include <QtGlobal>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "RunClock.h"

namespace soak {

class Ledger;

// The network device: commctl's simulator, bound to 127.0.0.1, on a thread
// of its own with its own event loop. The simulator is made, run and deleted
// on that thread alone, and the thread hands its port over under a mutex:
// Qt's cross-thread events would pass through locks that ThreadSanitizer
// does not see. Its log tells each reply it sends, which the ledger notes.
class NetworkDevice
{
public:
    NetworkDevice(Ledger &ledger, const RunClock &clock);
    ~NetworkDevice();
    NetworkDevice(const NetworkDevice &) = delete;
    NetworkDevice &operator=(const NetworkDevice &) = delete;

    // Starts the thread and waits until the device listens; false, with the
    // reason in error, when it does not.
    bool start(QString *error);
    quint16 port() const { return m_port; }
    void stop();

private:
    enum class State { Starting, Listening, Failed };
    void serve();

    Ledger &m_ledger;
    const RunClock &m_clock;
    std::thread m_thread;
    std::atomic<bool> m_stop{false};
    std::mutex m_lock;
    std::condition_variable m_changed;
    State m_state = State::Starting; // guarded by m_lock
    QString m_error;                 // guarded by m_lock
    quint16 m_port = 0;              // written before m_state leaves Starting
};

} // namespace soak
