#pragma once

#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

#include "Ledger.h"
#include "PortInterface.h"

class PortBase;

namespace soak {

struct Rig;

// The transports that come and go:
// - link switches through the factory (creatCoreObj) from a worker thread,
//   while another thread sends through the current transport; both under the
//   application's lock, and neither keeps the transport across a switch;
// - transports made (creatCoreObjInstance) and used on one thread, then used
//   and deleted on another.
// USB transports among them are made and deleted but never opened: the
// long-lived one alone opens the device, and the hot-plug watcher serves it.
class FactorySwitch
{
public:
    explicit FactorySwitch(Rig &rig);
    void start();
    void join();
    // Deletes the factory's current transport.
    void finish();
    // Empties the receive queue through the current transport; false when there is none.
    bool clearThroughCurrent();

private:
    struct Made
    {
        PortBase *port = nullptr;
        int channel = -1;
        ConnType type = ConnUDP;
        ReplyShape shape;
    };

    void switcher();
    void sender();
    void maker();
    void deleter();
    // Opens the link of a transport just made, on the given serial line;
    // returns the shape of its replies and whether it can carry any.
    bool setUp(PortBase *port, ConnType type, int serialLine, ReplyShape *shape);
    // A command through a transport of this type, noted on the channel.
    void sendOne(PortBase *port, ConnType type, int channel, const ReplyShape &shape, Rng &rng);

    Rig &m_rig;
    std::vector<std::thread> m_threads;

    // The current transport's channel, type and reply shape; guarded by the
    // application's lock, as PortInterface::iCORE is.
    int m_channel = -1;
    ConnType m_type = ConnUDP;
    ReplyShape m_shape;

    // Transports made, waiting for the other thread to delete them.
    std::mutex m_handLock;
    std::condition_variable m_handed;
    std::deque<Made> m_made;
    bool m_makerDone = false;
    // The spare serial line is in use by a made transport.
    bool m_spareLineBusy = false;
};

} // namespace soak
