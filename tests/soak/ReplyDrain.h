#pragma once

#include <QtGlobal>

#include <atomic>
#include <map>
#include <thread>

#include "Ledger.h"
#include "RunClock.h"

class PortBase;

namespace soak {

// Takes replies off the shared receive queue as an application does (the
// queue's lock, then the flag's, lowering the flag), continuously on a thread
// of its own, and hands each to the ledger.
//
// clearQueue() empties the queue on a thread of the library's, a little after
// the call. To see when, a mark record goes on the queue just before the call;
// the drain leaves marks where they are, so a mark that is gone was taken by
// the clear, and whatever was still awaited then may have gone with it.
class ReplyDrain
{
public:
    ReplyDrain(Ledger &ledger, const RunClock &clock);
    ~ReplyDrain();
    ReplyDrain(const ReplyDrain &) = delete;
    ReplyDrain &operator=(const ReplyDrain &) = delete;

    void start();
    // Stops the thread after a last pass, and takes the marks left off the queue.
    void stop();

    // Empties the receive queue through this transport's clearQueue().
    void clearThrough(PortBase *port);

    quint64 clearsSeen() const { return m_clearsSeen; }
    // Clears whose mark did not go within the time allowed: clearQueue did not empty the queue.
    quint64 clearsMissed() const { return m_clearsMissed; }

private:
    void run();
    // One pass: returns how many records were taken.
    int pass();

    Ledger &m_ledger;
    const RunClock &m_clock;
    std::thread m_thread;
    std::atomic<bool> m_stop{false};
    // Marks on the queue, by number, with the time of their clear call;
    // guarded by CmdDealModule::receiveHexCmdlock.
    std::map<quint64, qint64> m_marks;
    quint64 m_nextMark = 1;
    std::atomic<quint64> m_clearsSeen{0};
    std::atomic<quint64> m_clearsMissed{0};
};

} // namespace soak
