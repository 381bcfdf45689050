// Reply parsing and dispatch of the network link, one datagram at a time,
// against the least that reading a datagram costs (copying its 19 bytes).
//
// Debug output is switched off for the default logging category, as an
// application runs with it off: the log lines are then skipped, not written
// to a discarding handler.
#include <benchmark/benchmark.h>

#include <atomic>
#include <mutex>

#include <QLoggingCategory>

#include "CmdDealModule.h"
#include "DatagramReplyParser.h"
#include "ReceiveQueueSink.h"

namespace {
const char kQueueReply[] = "[R0100000000000001]";
const char kDeliverReply[] = "[R0100790900000083]";
const char kHoldReply[] = "[R0100f101007f7ff1]"; // announces 0x7F7F bytes
const char kRejected[] = "[R0100000000000002]";

struct LogOff
{
    LogOff() { QLoggingCategory::setFilterRules(QStringLiteral("default.debug=false")); }
} logOff;

// Counts what the parser decides, without starting threads.
class CountingSink : public comm::ReplySink
{
public:
    void deliverDetached(const ProtocolData &) override { ++count; }
    void deliverNow(const ProtocolData &) override { ++count; }
    void deliverCombinedDetached(const QByteArray &, const QByteArray &, Combine) override { ++count; }
    long count = 0;
};

struct Parser
{
    QByteArray lastDatagram;
    QByteArray pendingStdReply;
    QByteArray blockBuffer;
    std::mutex lock;
    comm::DatagramReplyParser parser;

    explicit Parser(comm::ReplySink &sink)
        : parser({lastDatagram, pendingStdReply, blockBuffer, lock}, sink)
    {
    }
    void take(const QByteArray &datagram)
    {
        parser.takeDatagram(datagram, QStringLiteral("192.168.1.20"), ModulelEnum::DeviceUnknown);
    }
};

void BM_Baseline_Copy19(benchmark::State &state)
{
    for (auto _ : state) {
        QByteArray datagram(kQueueReply, 19);
        benchmark::DoNotOptimize(datagram.data());
    }
}
BENCHMARK(BM_Baseline_Copy19);

// One datagram through the parser with its decisions counted.
void parseDispatch(benchmark::State &state, const char *bytes, bool awaitingBlockData)
{
    if (!awaitingBlockData
        && comm::replyAction(comm::parseReplyDatagram(QByteArray(bytes, 19))) == comm::ReplyAction::BlockData) {
        state.SkipWithError("sample datagram is not the reply it should be");
        return;
    }
    CountingSink sink;
    Parser parser(sink);
    for (auto _ : state) {
        if (awaitingBlockData && parser.pendingStdReply.isEmpty())
            parser.pendingStdReply = QByteArray(kHoldReply, 19);
        if (parser.blockBuffer.size() > 16384)
            parser.blockBuffer.clear();
        parser.take(QByteArray(bytes, 19));
    }
    benchmark::DoNotOptimize(sink.count);
}

void BM_ParseDispatch_Queue(benchmark::State &state)
{
    parseDispatch(state, kQueueReply, false);
}
BENCHMARK(BM_ParseDispatch_Queue);

void BM_ParseDispatch_Hold(benchmark::State &state)
{
    parseDispatch(state, kHoldReply, false);
}
BENCHMARK(BM_ParseDispatch_Hold);

void BM_ParseDispatch_BlockData(benchmark::State &state)
{
    parseDispatch(state, "[R0000000000000000]", true);
}
BENCHMARK(BM_ParseDispatch_BlockData);

void BM_ParseDispatch_Rejected(benchmark::State &state)
{
    parseDispatch(state, kRejected, true);
}
BENCHMARK(BM_ParseDispatch_Rejected);

// The real inline delivery: append under the command module's locks.
void BM_ParseDispatch_DeliverAtOnce(benchmark::State &state)
{
    std::atomic<bool> dealFlag{true};
    comm::ReceiveQueueSink sink(&dealFlag);
    Parser parser(sink);
    for (auto _ : state) {
        parser.take(QByteArray(kDeliverReply, 19));
        if (CmdDealModule::receivequeueHexCmd.size() >= 1024) {
            std::lock_guard<std::mutex> guard(CmdDealModule::receiveHexCmdlock);
            CmdDealModule::receivequeueHexCmd.clear();
        }
    }
    std::lock_guard<std::mutex> guard(CmdDealModule::receiveHexCmdlock);
    CmdDealModule::receivequeueHexCmd.clear();
}
BENCHMARK(BM_ParseDispatch_DeliverAtOnce);

// The real queue action: one detached thread per reply. The deal flag is off
// so that the queue does not grow; the thread still starts and ends.
void BM_ParseDispatch_QueueWithThread(benchmark::State &state)
{
    std::atomic<bool> dealFlag{false};
    comm::ReceiveQueueSink sink(&dealFlag);
    Parser parser(sink);
    long taken = 0;
    for (auto _ : state) {
        parser.take(QByteArray(kQueueReply, 19));
        if (++taken % 64 == 0)
            sink.waitForDetachedWork();
    }
    sink.waitForDetachedWork();
}
BENCHMARK(BM_ParseDispatch_QueueWithThread);
} // namespace

BENCHMARK_MAIN();
