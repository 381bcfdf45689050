// Stream reply reassembly fed with hostile bytes in arbitrary pieces, driven
// turn by turn on this thread. Built twice: fuzz_serial_reassembly with the
// serial link's parameters, and fuzz_usb_reassembly (COMM_FUZZ_USB_LINK) with
// the USB link's.
//
// Nothing sleeps: the injected sleep function delivers the next piece of the
// stream instead, so bytes arrive between worker turns and while a block is
// awaited, as they do on a line, and a block wait of 150 attempts costs 150
// pieces, not 600 ms.
//
// Input, read through FuzzedDataProvider (numbers from the end, bytes from
// the front):
// - a flag: raw or made of frames;
// - raw: pieces of 1 to 256 arbitrary bytes;
// - made of frames: items, each a valid reply frame (digits in either case),
//   on the serial link followed by the block it announces (at most 140 bytes,
//   so that it is in before the block wait gives up whatever the piece sizes),
//   then garbage that holds no "]" (so no frame can form in it or across its
//   edges); the whole is then cut into pieces of 1 to 64 bytes.
//
// What must hold, besides running clean under ASan and UBSan:
// - every record's checksum byte is the 8-bit sum of its command and
//   parameter bytes, and it carries the link's stamps and nothing else;
// - a payload only where the frame announced a block (serial), of the
//   announced length and with a matching check byte;
// - the receive buffer is always the not yet consumed tail of what was fed,
//   every turn on 19 or more bytes consumes at least one, and once the stream
//   stops the worker takes the buffer below a frame's length: the buffer never
//   grows without bound;
// - a stream made of frames yields exactly those frames, in order.
//
// On the serial link a record without a block is queued from a detached
// thread. Here the hand-off runs such deliveries inline, in the order the
// reassembly makes them: a thread per record would cost most of the
// fuzzer's time and test nothing the transport tests do not.
#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <vector>

#include <fuzzer/FuzzedDataProvider.h>

#include <QLoggingCategory>

#include "CmdDealModule.h"
#include "CommandFrame.h"
#include "ReceiveQueueSink.h"
#include "ReplySink.h"
#include "StreamReassembler.h"

namespace {

#ifdef COMM_FUZZ_USB_LINK
const bool kSerial = false;
#else
const bool kSerial = true;
#endif

constexpr int kFrameSize = 19;
constexpr int kLongestStructuredBlock = 140;
const auto kDeviceType = static_cast<ModulelEnum::DeviceType>(0x5A5A0001);

void fail(const char *what)
{
    std::fprintf(stderr, "%s reassembly: %s\n", kSerial ? "serial" : "USB", what);
    std::abort();
}

void check(bool condition, const char *what)
{
    if (!condition)
        fail(what);
}

comm::StreamReassemblyConfig linkConfig()
{
    if (!kSerial)
        return comm::StreamReassemblyConfig::usb();
    comm::StreamReassemblyConfig config = comm::StreamReassemblyConfig::serial();
    config.sourceText = QStringLiteral("ttyFUZZ");
    return config;
}

// What the harness knows of a reply, independently of the library.
struct Reply
{
    uint8_t bytes[7] = {}; // B0..B6
    QByteArray block;      // serial only: the block the frame announces

    uint8_t sum() const
    {
        unsigned total = 0;
        for (uint8_t byte : bytes)
            total += byte;
        return uint8_t(total);
    }
    bool announcesBlock() const
    {
        return bytes[2] == 0x79 || bytes[2] == 0xE1 || (bytes[2] == 0x8E && bytes[3] == 0x27);
    }
};

// "[" "R", B0..B6 and their sum as digit pairs, each digit in the case bit i
// of digitCase asks for, "]".
QByteArray replyFrame(const Reply &reply, uint16_t digitCase)
{
    static const char lower[] = "0123456789abcdef";
    static const char upper[] = "0123456789ABCDEF";
    QByteArray frame("[R");
    int digit = 0;
    const auto put = [&](uint8_t value) {
        for (int nibble : {value >> 4, value & 0xF}) {
            frame += ((digitCase >> digit) & 1) ? upper[nibble] : lower[nibble];
            ++digit;
        }
    };
    for (uint8_t byte : reply.bytes)
        put(byte);
    put(reply.sum());
    frame += ']';
    return frame;
}

// The stream under test, the pieces it arrives in, and for a stream made of
// frames the replies it must yield.
struct Scenario
{
    QByteArray stream;
    std::vector<int> pieces;
    bool madeOfFrames = false;
    std::vector<Reply> replies;
};

void cutIntoPieces(FuzzedDataProvider &input, Scenario &scenario, int largest)
{
    for (int covered = 0; covered < scenario.stream.size();) {
        const int piece = std::min(input.ConsumeIntegralInRange<int>(1, largest), scenario.stream.size() - covered);
        scenario.pieces.push_back(piece);
        covered += piece;
    }
}

Scenario rawScenario(FuzzedDataProvider &input)
{
    Scenario scenario;
    while (input.remaining_bytes() > 0) {
        const size_t piece = input.ConsumeIntegralInRange<size_t>(1, 256);
        const std::vector<uint8_t> bytes = input.ConsumeBytes<uint8_t>(piece);
        if (bytes.empty())
            break;
        scenario.stream.append(reinterpret_cast<const char *>(bytes.data()), int(bytes.size()));
        scenario.pieces.push_back(int(bytes.size()));
    }
    return scenario;
}

Scenario framesScenario(FuzzedDataProvider &input)
{
    Scenario scenario;
    scenario.madeOfFrames = true;
    while (input.remaining_bytes() >= 7) {
        Reply reply;
        input.ConsumeData(reply.bytes, sizeof reply.bytes);
        if (kSerial && reply.announcesBlock()) {
            // The announced length is the harness's choice, so that the
            // block arrives within the wait whatever the piece sizes.
            const int length = input.ConsumeIntegralInRange<int>(0, kLongestStructuredBlock);
            reply.bytes[5] = uint8_t(length);
            reply.bytes[6] = 0;
            if (length > 0) {
                const std::vector<uint8_t> body = input.ConsumeBytes<uint8_t>(size_t(length - 1));
                reply.block = QByteArray(reinterpret_cast<const char *>(body.data()), int(body.size()));
                reply.block.resize(length - 1); // zeros where the input ran out
                unsigned sum = 0;
                for (char byte : reply.block)
                    sum += uint8_t(byte);
                reply.block.append(char(sum));
            }
        }
        scenario.stream += replyFrame(reply, input.ConsumeIntegral<uint16_t>()) + reply.block;
        scenario.replies.push_back(reply);

        std::vector<uint8_t> garbage = input.ConsumeBytes<uint8_t>(input.ConsumeIntegralInRange<size_t>(0, 48));
        std::replace(garbage.begin(), garbage.end(), uint8_t(']'), uint8_t('}'));
        scenario.stream.append(reinterpret_cast<const char *>(garbage.data()), int(garbage.size()));
    }
    cutIntoPieces(input, scenario, 64);
    return scenario;
}

// Queues every record on the fuzzing thread, at once, so that each turn's
// records are in the queue when the turn returns.
class QueueAtOnceSink : public comm::ReplySink
{
public:
    void deliverDetached(const ProtocolData &record) override { m_queue.deliverNow(record); }
    void deliverNow(const ProtocolData &record) override { m_queue.deliverNow(record); }
    void deliverCombinedDetached(const QByteArray &blockData, const QByteArray &heldReply, Combine combine) override
    {
        m_queue.deliverOrWake(combine(blockData, heldReply));
    }

private:
    comm::ReceiveQueueSink m_queue{nullptr};
};

// One reassembler and what it has been fed so far.
class Rig
{
public:
    explicit Rig(const Scenario &scenario)
        : m_scenario(scenario)
        , m_reassembler(linkConfig(), m_sink, [this](int) { feedNextPiece(); })
    {
        m_reassembler.setDeviceType(kDeviceType);
    }

    bool piecesLeft() const { return m_nextPiece < m_scenario.pieces.size(); }
    int buffered() const { return m_fed - m_consumed; }

    // One worker turn (its sleep brings the next piece), then the checks.
    void turn()
    {
        const int before = buffered();
        const int consumedBefore = m_consumed;
        m_reassembler.dealTurn();

        const QByteArray buffer = m_reassembler.contents();
        check(buffer.size() <= m_fed - consumedBefore, "the buffer holds more than was fed");
        m_consumed = m_fed - buffer.size();
        check(buffer == m_scenario.stream.mid(m_consumed, buffer.size()),
              "the buffer is not the unconsumed tail of the stream");
        if (before >= kFrameSize)
            check(m_consumed > consumedBefore, "a turn on 19 or more bytes consumed nothing");
    }

private:
    void feedNextPiece()
    {
        if (!piecesLeft())
            return;
        const int piece = m_scenario.pieces[m_nextPiece++];
        m_reassembler.append(m_scenario.stream.mid(m_fed, piece));
        m_fed += piece;
    }

    const Scenario &m_scenario;
    QueueAtOnceSink m_sink;
    comm::StreamReassembler m_reassembler;
    size_t m_nextPiece = 0;
    int m_fed = 0;
    int m_consumed = 0;
};

std::vector<ProtocolData> takeQueue()
{
    std::lock_guard<std::mutex> guard(CmdDealModule::receiveHexCmdlock);
    std::vector<ProtocolData> records(CmdDealModule::receivequeueHexCmd.begin(),
                                      CmdDealModule::receivequeueHexCmd.end());
    CmdDealModule::receivequeueHexCmd.clear();
    return records;
}

void checkRecord(const ProtocolData &record)
{
    const comm::StreamReassemblyConfig config = linkConfig();
    check(record.checksumByte == comm::commandChecksum(record),
          "checksum byte is not the sum of the command and parameter bytes");
    check(record.linkByte == config.linkByte, "wrong link byte");
    check(record.sourceText == config.sourceText, "wrong source text");
    check(record.deviceType == kDeviceType, "wrong device type");

    // Members the reassembly does not write keep their defaults.
    const ProtocolData fresh;
    check(record.hostText == fresh.hostText && record.infoText == fresh.infoText && record.sendMode == fresh.sendMode
              && std::equal(std::begin(record.leadingReserved), std::end(record.leadingReserved),
                            std::begin(fresh.leadingReserved))
              && std::equal(std::begin(record.trailingReserved), std::end(record.trailingReserved),
                            std::begin(fresh.trailingReserved)),
          "a member the reassembly does not own was written");

    const int size = record.payload.size();
    if (size == 0)
        return;
    check(kSerial, "a payload on the USB link, which reads no blocks");
    check(comm::announcesBlock(record), "a payload the frame did not announce");
    check(comm::announcedBlockLength(record) == size, "a payload of another length than announced");
    unsigned sum = 0;
    for (int i = 0; i + 1 < size; ++i)
        sum += uint8_t(record.payload.at(i));
    check(uint8_t(sum) == uint8_t(record.payload.at(size - 1)), "a block whose check byte does not match");
}

void checkExpected(const ProtocolData &record, const Reply &reply)
{
    check(record.commandByte == reply.bytes[0]
              && std::equal(std::begin(record.paramBytes), std::end(record.paramBytes), reply.bytes + 1),
          "a record other than the next frame of the stream");
    check(record.payload == reply.block, "a payload other than the frame's block");
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    // Rejections are logged; the lines would only slow the fuzzer down.
    QLoggingCategory::setFilterRules(QStringLiteral("default.debug=false"));
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FuzzedDataProvider input(data, size);
    const Scenario scenario = input.ConsumeBool() ? framesScenario(input) : rawScenario(input);
    takeQueue();

    std::vector<ProtocolData> records;
    {
        Rig rig(scenario);
        // Every turn either takes a piece or consumes a byte, so this is
        // generous; running out of turns would be a hang on a real line.
        const size_t turnLimit = 2 * (scenario.pieces.size() + size_t(scenario.stream.size())) + 2;
        size_t turns = 0;
        while (rig.piecesLeft() || rig.buffered() >= kFrameSize) {
            check(++turns <= turnLimit, "the worker stopped making progress");
            rig.turn();
            for (const ProtocolData &record : takeQueue()) {
                checkRecord(record);
                records.push_back(record);
            }
        }
        check(rig.buffered() < kFrameSize, "bytes left in the buffer after the stream stopped");
    }

    if (scenario.madeOfFrames) {
        check(records.size() == scenario.replies.size(), "a stream of frames did not yield exactly its frames");
        for (size_t i = 0; i < records.size(); ++i)
            checkExpected(records[i], scenario.replies[i]);
    }
    return 0;
}
