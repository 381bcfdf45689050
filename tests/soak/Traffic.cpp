#include "Traffic.h"

#include <deque>

#include "PortBase.h"
#include "Rig.h"

namespace soak {

namespace {
// Commands awaiting their replies on each long-lived transport. The network
// window stays small enough that the replies and block data in flight always
// fit the sockets' buffers; serial and USB keep their links busy (about 300
// and 50 replies a second).
constexpr int kNetworkWindow = 32;
constexpr int kSerialWindow = 16;
constexpr int kUsbWindow = 6;
// Fences remembered after a held command; any one of them arriving will do.
constexpr size_t kMaxFences = 64;
} // namespace

bool sendNoted(Rig &rig, PortBase *port, int channel, Kind kind, const ReplyShape &shape, Rng &rng, quint32 *tag,
               int payloadBytes)
{
    Command command;
    if (!rig.ledger.note(channel, kind, shape, rng, &command))
        return false;
    if (payloadBytes >= 0)
        command.payload = skippedPayload(payloadBytes, rng);
    ProtocolData record = commandRecord(command);
    if (tag)
        *tag = tagOf(record);
    port->sendDatatoDevice(&record);
    return true;
}

Traffic::Traffic(Rig &rig)
    : m_rig(rig)
{
}

void Traffic::start()
{
    m_threads.emplace_back([this] { network(); });
    m_threads.emplace_back(
        [this] { windowed(m_rig.serial, kSerialWindow, Kind::SerialPlain, Kind::SerialBlock, 4, 2); });
    if (m_rig.usbDevice)
        m_threads.emplace_back(
            [this] { windowed(m_rig.usb, kUsbWindow, Kind::UsbPlain, Kind::UsbAnnounced, 5, 3); });
}

void Traffic::join()
{
    for (std::thread &thread : m_threads)
        thread.join();
    m_threads.clear();
}

void Traffic::network()
{
    Rng rng(m_rig.seedFor(1));
    MainLink &link = m_rig.network;
    // A held reply gathers its block data in the transport until the announced
    // length is in; a second held reply meanwhile would take the first one's
    // bytes. So one held command at a time: the next waits until the held
    // reply has come, or a reply delivered at once that was sent after it
    // has (the transport reads datagrams in order, so it is done with the
    // held one's block by then, even when the queue was cleared of its reply).
    bool holding = false;
    quint32 held = 0;
    std::deque<quint32> fences;
    for (long long turn = 0; turn < m_rig.clock.maxTurns() && m_rig.clock.going(); ++turn) {
        if (!m_rig.ledger.waitForRoom(link.channel, kNetworkWindow, 50))
            continue;
        if (holding) {
            bool done = m_rig.ledger.arrived(held);
            for (size_t i = 0; !done && i < fences.size(); ++i)
                done = m_rig.ledger.arrived(fences[i]);
            if (done) {
                holding = false;
                fences.clear();
            }
        }
        const int draw = int(rng() % 100);
        Kind kind = Kind::NetworkQueued;
        if (!holding && draw < 12)
            kind = Kind::NetworkHeld;
        else if (draw < 30 || (holding && draw % 4 == 0))
            kind = Kind::NetworkAtOnce;
        quint32 tag = 0;
        if (!sendNoted(m_rig, link.port, link.channel, kind, link.shape(), rng, &tag)) {
            m_rig.clock.pause(5);
            continue;
        }
        if (kind == Kind::NetworkHeld) {
            holding = true;
            held = tag;
            fences.clear();
        } else if (kind == Kind::NetworkAtOnce && holding) {
            fences.push_back(tag);
            if (fences.size() > kMaxFences)
                fences.pop_front();
        }
    }
}

void Traffic::windowed(MainLink &link, int window, Kind usual, Kind other, int otherOneIn, int activity)
{
    Rng rng(m_rig.seedFor(activity));
    for (long long turn = 0; turn < m_rig.clock.maxTurns() && m_rig.clock.going(); ++turn) {
        if (!m_rig.ledger.waitForRoom(link.channel, window, 50))
            continue;
        const Kind kind = rng() % unsigned(otherOneIn) == 0 ? other : usual;
        if (!sendNoted(m_rig, link.port, link.channel, kind, link.shape(), rng))
            m_rig.clock.pause(5);
    }
}

} // namespace soak
