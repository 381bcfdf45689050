// Stream reply reassembly on arbitrary bytes, with the serial or the USB
// parameters, fed in pieces and driven turn by turn without real sleeping.
// Every record that comes out must be one the rules allow, and every turn on
// 19 or more buffered bytes must consume at least one of them.
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <mutex>

#include "CmdDealModule.h"
#include "ReplyHandOff.h"
#include "StreamReassembler.h"

namespace {
void fail(const char *what)
{
    std::fprintf(stderr, "stream reassembly: %s\n", what);
    std::abort();
}

void drain(comm::StreamReassembler &reassembler)
{
    // Each turn on 19 or more bytes consumes at least one, so this ends.
    for (int turn = 0; turn < 1 << 20; ++turn) {
        const int before = reassembler.buffData().size();
        if (before < 19)
            return;
        reassembler.dealTurn();
        if (reassembler.buffData().size() >= before)
            fail("a turn on 19 or more bytes consumed nothing");
    }
    fail("too many turns");
}

void checkRecord(const ProtocolData &record, const comm::StreamReassemblyConfig &config)
{
    if (record.linkByte != config.linkByte)
        fail("wrong link byte");
    if (record.sourceText != config.sourceText)
        fail("wrong source text");
    unsigned sum = record.commandByte;
    for (quint8 param : record.paramBytes)
        sum += param;
    if (record.checksumByte != quint8(sum))
        fail("checksum byte is not the sum of the command and parameter bytes");
    const int size = record.payload.size();
    if (size == 0)
        return;
    if (!config.framesAnnounceBlocks)
        fail("a payload where no block is read");
    if (!comm::announcesBlock(record) || comm::announcedBlockLength(record) != size)
        fail("a payload the frame did not announce");
    unsigned blockSum = 0;
    for (int i = 0; i + 1 < size; ++i)
        blockSum += quint8(record.payload.at(i));
    if (quint8(blockSum) != quint8(record.payload.at(size - 1)))
        fail("a block whose check byte does not match");
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    // Layout of an input: a mode byte (bit 0: USB parameters; the rest: the
    // size of the pieces the stream arrives in), then the stream.
    if (size < 1)
        return 0;
    comm::StreamReassemblyConfig config =
        (data[0] & 1) ? comm::StreamReassemblyConfig::usb() : comm::StreamReassemblyConfig::serial();
    if (!(data[0] & 1))
        config.sourceText = QStringLiteral("ttyFUZZ");
    const size_t piece = (data[0] >> 1) % 40 + 1;

    {
        std::lock_guard<std::mutex> guard(CmdDealModule::receiveHexCmdlock);
        CmdDealModule::receivequeueHexCmd.clear();
    }
    std::atomic<bool> dealFlag{true};
    comm::ReplyHandOff handOff(dealFlag, comm::ReplyHandOff::Gate::Always);
    comm::StreamReassembler reassembler(config, handOff, [](int) {});

    for (size_t offset = 1; offset < size; offset += piece) {
        const size_t count = offset + piece <= size ? piece : size - offset;
        reassembler.appendBuffData(QByteArray(reinterpret_cast<const char *>(data + offset), int(count)));
        drain(reassembler);
    }
    handOff.waitForDetachedWork();

    std::lock_guard<std::mutex> guard(CmdDealModule::receiveHexCmdlock);
    for (const ProtocolData &record : CmdDealModule::receivequeueHexCmd)
        checkRecord(record, config);
    CmdDealModule::receivequeueHexCmd.clear();
    return 0;
}
