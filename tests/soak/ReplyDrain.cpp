#include "ReplyDrain.h"

#include <deque>
#include <set>

#include "CmdDealModule.h"
#include "PortBase.h"

namespace soak {

namespace {
// No record of the library's has this link byte.
constexpr quint8 kMarkLink = 0xEE;
// A clear that has not happened after this long never will.
constexpr qint64 kClearAllowedMs = 30000;

bool isMark(const ProtocolData &record)
{
    return record.linkByte == kMarkLink;
}

quint64 markNumber(const ProtocolData &record)
{
    return record.infoText.toULongLong();
}
} // namespace

ReplyDrain::ReplyDrain(Ledger &ledger, const RunClock &clock)
    : m_ledger(ledger)
    , m_clock(clock)
{
}

ReplyDrain::~ReplyDrain()
{
    stop();
}

void ReplyDrain::start()
{
    m_thread = std::thread([this] { run(); });
}

void ReplyDrain::stop()
{
    if (!m_thread.joinable())
        return;
    m_stop = true;
    m_thread.join();
    pass();
    std::lock_guard<std::mutex> queueGuard(CmdDealModule::receiveHexCmdlock);
    std::lock_guard<std::mutex> flagGuard(CmdDealModule::HexCmdlock);
    auto &queue = CmdDealModule::receivequeueHexCmd;
    for (auto record = queue.begin(); record != queue.end();)
        record = isMark(*record) ? queue.erase(record) : record + 1;
    m_marks.clear();
}

void ReplyDrain::clearThrough(PortBase *port)
{
    {
        std::lock_guard<std::mutex> queueGuard(CmdDealModule::receiveHexCmdlock);
        std::lock_guard<std::mutex> flagGuard(CmdDealModule::HexCmdlock);
        ProtocolData mark;
        mark.linkByte = kMarkLink;
        const quint64 number = m_nextMark++;
        mark.infoText = QString::number(number);
        CmdDealModule::receivequeueHexCmd.push_back(mark);
        m_marks[number] = m_clock.elapsedMs();
    }
    port->clearQueue();
}

int ReplyDrain::pass()
{
    std::deque<ProtocolData> taken;
    int cleared = 0;
    std::vector<qint64> missed;
    {
        std::lock_guard<std::mutex> queueGuard(CmdDealModule::receiveHexCmdlock);
        std::lock_guard<std::mutex> flagGuard(CmdDealModule::HexCmdlock);
        auto &queue = CmdDealModule::receivequeueHexCmd;
        taken.swap(queue);
        std::set<quint64> present;
        for (const ProtocolData &record : taken) {
            if (isMark(record)) {
                queue.push_back(record);
                present.insert(markNumber(record));
            }
        }
        const qint64 now = m_clock.elapsedMs();
        for (auto mark = m_marks.begin(); mark != m_marks.end();) {
            if (present.count(mark->first) == 0) {
                ++cleared;
                mark = m_marks.erase(mark);
            } else if (now - mark->second > kClearAllowedMs) {
                missed.push_back(now - mark->second);
                mark = m_marks.erase(mark);
            } else {
                ++mark;
            }
        }
        CmdDealModule::bRetFlag = false;
    }
    int records = 0;
    for (const ProtocolData &record : taken) {
        if (isMark(record))
            continue;
        m_ledger.take(record);
        ++records;
    }
    if (cleared > 0) {
        m_ledger.voidAll();
        m_clearsSeen += quint64(cleared);
    }
    for (qint64 ms : missed) {
        ++m_clearsMissed;
        m_ledger.reportFailure(
            QStringLiteral("FAILED clearQueue: the receive queue was not emptied %1 ms after the call").arg(ms));
    }
    return records;
}

void ReplyDrain::run()
{
    qint64 lastExpiry = 0;
    for (long long turn = 0; turn < m_clock.maxTurns() && !m_stop && !m_clock.pastHardLimit(); ++turn) {
        const int records = pass();
        const qint64 now = m_clock.elapsedMs();
        if (now - lastExpiry >= 250) {
            m_ledger.expire(false);
            lastExpiry = now;
        }
        if (records == 0)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

} // namespace soak
