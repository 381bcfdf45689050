#pragma once

#include <thread>
#include <vector>

#include "Commands.h"
#include "Ledger.h"

class PortBase;

namespace soak {

struct MainLink;
struct Rig;

// Sends a command through the transport once the ledger has noted it; false,
// sending nothing, while the channel is down. With payloadBytes, that many
// bytes the device skips go behind the header (a long write).
bool sendNoted(Rig &rig, PortBase *port, int channel, Kind kind, const ReplyShape &shape, Rng &rng,
               quint32 *tag = nullptr, int payloadBytes = -1);

// Command and reply traffic on the long-lived transports, each as fast as its
// link allows: a window of commands awaiting their replies on each.
class Traffic
{
public:
    explicit Traffic(Rig &rig);
    void start();
    void join();

private:
    void network();
    // Keeps window commands awaiting on the link, one in otherOneIn of the other kind.
    void windowed(MainLink &link, int window, Kind usual, Kind other, int otherOneIn, int activity);

    Rig &m_rig;
    std::vector<std::thread> m_threads;
};

} // namespace soak
