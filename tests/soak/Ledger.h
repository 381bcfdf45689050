#pragma once

#include <QString>
#include <QtGlobal>

#include <condition_variable>
#include <map>
#include <mutex>
#include <unordered_map>
#include <vector>

#include "Commands.h"
#include "ProtocolData.h"
#include "RunClock.h"

namespace soak {

// How the reply record of a command sent through one transport must look,
// beside the header bytes it echoes and the payload the device sent.
struct ReplyShape
{
    // Network: the device's address, as host and source text. Serial: the
    // port's name as the port reports it. USB: unused ("USB").
    QString sourceText;
    qint32 deviceType = 0;
};

struct LedgerCounts
{
    quint64 sent = 0;
    quint64 replies = 0;       // records that matched their command exactly
    quint64 repliesByLink[3] = {0, 0, 0};
    quint64 voided = 0;        // commands whose reply may legitimately never come
    quint64 voidedArrived = 0; // of those, replies that came all the same (and matched)
    quint64 lost = 0;
    quint64 corrupt = 0;
    quint64 awaited = 0;       // sent, not voided, reply not in yet
    quint64 voidedAwaited = 0; // voided, reply not in (yet)
    quint64 voidedGivenUp = 0; // voided, reply long overdue and forgotten
    // The longest a reply not voided took, from the library's send to the drain, by link.
    qint64 slowestMs[3] = {0, 0, 0};
};

// Every command sent, and what became of it. Commands go out through
// channels, one per transport; a channel is up while its link can carry a
// reply back. Whatever takes a reply's way away (the transport deleted or
// switched away, the device unplugged, the link closed or hung up, the queue
// cleared) voids the commands it may have caught on their way: their replies
// may never come, and are still checked when they do. A command that is not
// voided must have its reply within the deadline, or it is lost.
//
// A command is on its way until its reply is taken, but not forever: one
// whose last step (sent by the library, or answered by the device) lies more
// than the in-flight time back is overdue, and no later event voids it. A
// queue clear can only take replies the device has sent.
class Ledger
{
public:
    Ledger(const RunClock &clock, qint64 deadlineMs, qint64 inFlightMs);
    Ledger(const Ledger &) = delete;
    Ledger &operator=(const Ledger &) = delete;

    // A new channel, down until markUp().
    int openChannel(const QString &name);
    // The channel's transport is going: what it still awaits is voided and
    // the channel forgotten.
    void closeChannel(int channel);
    // The channel's link is interrupted: what it still awaits is voided and
    // the channel is down. Returns the channel's epoch from now on.
    quint64 disrupt(int channel);
    // Up again, unless it was disrupted since epoch (then false).
    bool markUp(int channel, quint64 epoch);
    bool isUp(int channel);
    // The shared receive queue was emptied: every reply the devices had sent
    // and that was still awaited may have gone with it.
    void voidAll();
    // The device has sent the reply to the command with this header.
    void deviceAnswered(const sim::HeaderBytes &header);

    // Notes a command of this kind on the channel, with a fresh tag, and
    // returns it in command; false, noting nothing, while the channel is down.
    // The command must be sent after this returns, so that no reply comes
    // before its command is known.
    bool note(int channel, Kind kind, const ReplyShape &shape, Rng &rng, Command *command);
    // Waits until fewer than window replies are awaited on the channel.
    bool waitForRoom(int channel, int window, int timeoutMs);
    int awaited(int channel);
    // Whether the reply of this tag has come.
    bool arrived(quint32 tag);

    // One record taken off the receive queue.
    void take(const ProtocolData &record);
    // Counts as lost what was awaited longer than the deadline (everything
    // still awaited when final), and forgets voided commands whose reply is
    // long overdue.
    void expire(bool final);

    LedgerCounts counts();
    // Failures printed so far: the first ones in full, the rest counted.
    void reportFailure(const QString &text);

private:
    struct Entry
    {
        sim::HeaderBytes header{};
        Kind kind = Kind::NetworkQueued;
        ReplyShape shape;
        int channel = -1;
        QString channelName;
        qint64 sentMs = 0;
        qint64 answeredMs = -1; // when the device sent the reply
        bool voided = false;
        qint64 voidedMs = 0;
    };
    struct Channel
    {
        QString name;
        bool up = false;
        quint64 epoch = 0;
        int awaited = 0;
    };

    enum class Cause {
        Link,  // the way between library and device broke: commands and replies on it
        Queue, // the receive queue was emptied: replies already sent
    };
    // With m_lock held.
    void voidEntry(Entry &entry, qint64 now, Cause cause);
    void voidChannel(int channel, qint64 now);
    quint32 freshTag();
    ProtocolData expectedRecord(const Entry &entry) const;
    static bool testBit(const std::vector<quint64> &bits, quint32 tag);
    static void setBit(std::vector<quint64> &bits, quint32 tag, bool value);

    const RunClock &m_clock;
    const qint64 m_deadlineMs;
    const qint64 m_inFlightMs;
    std::mutex m_lock;
    std::condition_variable m_room;
    std::unordered_map<quint32, Entry> m_entries;
    std::map<int, Channel> m_channels;
    int m_nextChannel = 0;
    quint32 m_nextTag = 1;
    // Per tag: its reply has come; it was forgotten (voided and long overdue, or lost).
    std::vector<quint64> m_arrived;
    std::vector<quint64> m_forgotten;
    LedgerCounts m_counts;
    std::mutex m_printLock;
    int m_failuresPrinted = 0;
};

} // namespace soak
