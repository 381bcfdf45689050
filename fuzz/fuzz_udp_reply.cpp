// Reply parsing of the network link from arbitrary sequences of datagrams,
// through the parser that readPendingDatagrams feeds, with the held-reply
// state carried from one datagram to the next and checked after each.
//
// Input: a sequence of items. An item whose first byte has its top bit set is
// a valid reply datagram made from the next 7 bytes (command byte, P1..P6),
// so that held replies and combinations are reached often; its low two bits
// pick the sender. Any other first byte b is followed by a raw datagram of up
// to 4 * b bytes.
//
// The parser's decisions go to the shipped hand-off, but inline: a queued
// reply is delivered, and a completed block combined and delivered, on this
// thread instead of a detached one (the detached thread runs exactly that
// call). So the receive queue shows the records in the order the parser
// produced them, and each input runs without starting threads.
//
// What must hold, besides running clean under ASan and UBSan:
// - every delivered record's checksum byte is the 8-bit sum of its command
//   and parameter bytes;
// - a reply delivered alone carries the sender, link byte 0 and the device
//   type; a well-formed reply is delivered with exactly its bytes, and a
//   datagram that is not one (wrong size, no "[" "R", wrong check byte) is
//   never delivered alone;
// - a combined record's payload is the head of the block data gathered, of
//   the length its reply announces (or, for the fixed-length replies, at
//   most that length);
// - the held state stays bounded: the held reply is empty or one reply
//   datagram of a kind that is held, block data is only gathered for a held
//   reply and is combined as soon as it reaches the length announced, so it
//   stays below 32 KiB;
// - the receive queue holds exactly the records delivered, in order;
// - the digit reading matches Qt's own conversion, pair by pair.
#include <algorithm>
#include <atomic>
#include <cctype>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <optional>
#include <vector>

#include <QLoggingCategory>

#include "CmdDealModule.h"
#include "CommandFrame.h"
#include "DatagramReplyParser.h"
#include "HexPairs.h"
#include "ReceiveQueueSink.h"

namespace {
const auto kDeviceType = static_cast<ModulelEnum::DeviceType>(0x0BADCAFE);
constexpr int kLargestAnnouncedLength = 0x7FFF;

void check(bool condition, const char *what)
{
    if (!condition) {
        std::fprintf(stderr, "%s\n", what);
        std::abort();
    }
}

QByteArray validReply(const uint8_t fields[7])
{
    QByteArray bytes(reinterpret_cast<const char *>(fields), 7);
    unsigned sum = 0;
    for (int i = 0; i < 7; ++i)
        sum += fields[i];
    bytes.append(static_cast<char>(sum));
    return "[R" + bytes.toHex() + "]";
}

// The senders replies can come from, as readPendingDatagrams writes them.
QString sender(int index)
{
    static const char *const addresses[] = {"127.0.0.1", "::ffff:192.168.1.20", "fe80::1", "10.0.0.1"};
    return comm::senderText(QString::fromLatin1(addresses[index % 4]));
}

// A reply datagram read without the library: 19 bytes, "[" "R", sixteen
// plain hex digits and a matching check byte. Nothing for anything else,
// and for digits that are not plain hex (the library's reading of those is
// checked against Qt's in checkDigitReading).
struct PlainReply
{
    uint8_t bytes[8] = {}; // command byte, P1..P6, check byte
    bool checkMatches = false;
};

std::optional<PlainReply> readPlainReply(const QByteArray &datagram)
{
    if (datagram.size() != comm::kReplyDatagramSize || !datagram.startsWith("[R"))
        return std::nullopt;
    const QByteArray digits = datagram.mid(2, 16);
    if (!std::all_of(digits.begin(), digits.end(), [](char c) { return std::isxdigit(uint8_t(c)); }))
        return std::nullopt;
    PlainReply reply;
    const QByteArray bytes = QByteArray::fromHex(digits);
    unsigned sum = 0;
    for (int i = 0; i < 8; ++i)
        reply.bytes[i] = uint8_t(bytes.at(i));
    for (int i = 0; i < 7; ++i)
        sum += reply.bytes[i];
    reply.checkMatches = uint8_t(sum) == reply.bytes[7];
    return reply;
}

// A datagram anyone can tell is not a reply.
bool plainlyNotAReply(const QByteArray &datagram, const std::optional<PlainReply> &plain)
{
    if (datagram.size() != comm::kReplyDatagramSize || !datagram.startsWith("[R"))
        return true;
    return plain && !plain->checkMatches;
}

// The 16 digits read as local 8-bit text up to the first zero byte, each pair
// converted by QString::toInt in base 16: how replies have always been read.
void checkDigitReading(const QByteArray &datagram)
{
    if (datagram.size() != comm::kReplyDatagramSize)
        return;
    const char *digits = datagram.constData() + 2;
    int values[comm::kReplyPairs];
    comm::readHexPairs(digits, values);
    const QString text = QString::fromLocal8Bit(digits, int(qstrnlen(digits, 16)));
    for (int i = 0; i < comm::kReplyPairs; ++i)
        check(values[i] == text.mid(2 * i, 2).toInt(nullptr, 16), "a digit pair read otherwise than Qt reads it");
}

int announced(const QByteArray &heldReply)
{
    const ProtocolData held = comm::parseReplyDatagram(heldReply);
    return comm::combineTwoByte(held.paramBytes[4], held.paramBytes[5]);
}

// How much of the block data a combined record carries: a fixed length for
// four kinds of reply (what there is, when less), else what the reply announced.
int payloadLength(uint8_t p2, uint8_t p3, int announcedLength, int gathered)
{
    if ((p2 == 0x8B || p2 == 0x69) && p3 == 0x09)
        return std::min(129, gathered);
    if (p2 == 0x77 && p3 == 0x23)
        return std::min(129, gathered);
    if (p2 == 0x8B && p3 == 0x05)
        return std::min(145, gathered);
    return announcedLength;
}

void checkChecksum(const ProtocolData &record)
{
    check(record.checksumByte == comm::commandChecksum(record),
          "checksum byte is not the sum of the command and parameter bytes");
}

// Checks each decision of the parser and delivers it inline through the
// shipped sink, remembering what it delivered.
class CheckingSink : public comm::ReplySink
{
public:
    explicit CheckingSink(comm::ReceiveQueueSink &sink)
        : m_sink(sink)
    {
    }

    void deliverDetached(const ProtocolData &record) override { deliverAlone(record); }
    void deliverNow(const ProtocolData &record) override { deliverAlone(record); }

    void deliverCombinedDetached(const QByteArray &blockData, const QByteArray &heldReply, Combine combine) override
    {
        ++calls;
        check(blockData.size() >= announced(heldReply), "combined before the announced length was in");
        const std::optional<ProtocolData> record = combine(blockData, heldReply);
        if (record) {
            checkChecksum(*record);
            check(blockData.startsWith(record->payload), "payload is not the head of the block data");
            check(record->payload.size()
                      == payloadLength(record->paramBytes[1], record->paramBytes[2], announced(heldReply),
                                       blockData.size()),
                  "payload of another length than its reply asks for");
            delivered.push_back(*record);
        }
        m_sink.deliverOrWake(record);
    }

    int calls = 0;
    std::vector<ProtocolData> aloneInThisCall;
    std::vector<ProtocolData> delivered;

private:
    void deliverAlone(const ProtocolData &record)
    {
        ++calls;
        checkChecksum(record);
        aloneInThisCall.push_back(record);
        delivered.push_back(record);
        m_sink.deliverNow(record);
    }

    comm::ReceiveQueueSink &m_sink;
};

std::vector<ProtocolData> queued()
{
    std::lock_guard<std::mutex> guard(CmdDealModule::receiveHexCmdlock);
    return {CmdDealModule::receivequeueHexCmd.begin(), CmdDealModule::receivequeueHexCmd.end()};
}

bool sameRecord(const ProtocolData &a, const ProtocolData &b)
{
    return a.hostText == b.hostText && a.linkByte == b.linkByte && a.sourceText == b.sourceText
           && a.commandByte == b.commandByte
           && std::equal(std::begin(a.paramBytes), std::end(a.paramBytes), b.paramBytes)
           && a.checksumByte == b.checksumByte && a.payload == b.payload && a.deviceType == b.deviceType;
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
    {
        std::lock_guard<std::mutex> guard(CmdDealModule::receiveHexCmdlock);
        CmdDealModule::receivequeueHexCmd.clear();
    }
    QByteArray lastDatagram;
    QByteArray pendingStdReply;
    QByteArray blockBuffer;
    std::mutex lock;
    std::atomic<bool> dealFlag{true};
    comm::ReceiveQueueSink queueSink(&dealFlag);
    CheckingSink actions(queueSink);
    comm::DatagramReplyParser parser({lastDatagram, pendingStdReply, blockBuffer, lock}, actions);

    size_t at = 0;
    for (int items = 0; at < size && items < 4096; ++items) {
        const uint8_t head = data[at++];
        QByteArray datagram;
        QString from = sender(0);
        if (head & 0x80) {
            if (size - at < 7)
                break;
            datagram = validReply(data + at);
            from = sender(head & 3);
            at += 7;
        } else {
            const size_t length = std::min<size_t>(size_t(head) * 4, size - at);
            datagram = QByteArray(reinterpret_cast<const char *>(data + at), int(length));
            at += length;
        }
        checkDigitReading(datagram);
        const std::optional<PlainReply> plain = readPlainReply(datagram);

        const int callsBefore = actions.calls;
        const QByteArray blockBefore = blockBuffer;
        actions.aloneInThisCall.clear();
        parser.takeDatagram(datagram, from, kDeviceType);

        check(lastDatagram == datagram, "last datagram not kept");
        check(actions.calls - callsBefore <= 1, "one datagram, more than one decision");
        for (const ProtocolData &record : actions.aloneInThisCall) {
            check(!plainlyNotAReply(datagram, plain), "a datagram that is no reply delivered alone");
            check(record.hostText == from && record.sourceText == from && record.linkByte == 0
                      && record.deviceType == kDeviceType,
                  "a reply delivered alone without its sender, link byte or device type");
            if (plain)
                check(record.commandByte == plain->bytes[0]
                          && std::equal(std::begin(record.paramBytes), std::end(record.paramBytes), plain->bytes + 1),
                      "a reply delivered with other bytes than it carried");
        }
        if (plain && plain->checkMatches && actions.calls == callsBefore && pendingStdReply != datagram)
            check(blockBuffer.size() > blockBefore.size(),
                  "a well-formed reply neither delivered, nor held, nor taken as block data");

        if (pendingStdReply.isEmpty()) {
            check(blockBuffer.isEmpty(), "block data gathered while idle");
        } else {
            check(pendingStdReply.size() == comm::kReplyDatagramSize && pendingStdReply.startsWith("[R")
                      && comm::replyAction(comm::parseReplyDatagram(pendingStdReply)) == comm::ReplyAction::Hold,
                  "the held reply is not a reply that is held");
            // Gathered block data is combined as soon as it reaches the
            // announced length; a reply held later may announce less than is
            // already there, which the next block datagram then completes.
            if (blockBuffer.size() > blockBefore.size())
                check(blockBuffer.size() < announced(pendingStdReply), "enough block data but no combination");
        }
        check(blockBuffer.size() < kLargestAnnouncedLength, "block data grew without bound");

        {
            std::lock_guard<std::mutex> guard(CmdDealModule::receiveHexCmdlock);
            const std::deque<ProtocolData> &queue = CmdDealModule::receivequeueHexCmd;
            check(queue.size() == actions.delivered.size(), "the queue does not hold what was delivered");
            check(queue.empty() || sameRecord(queue.back(), actions.delivered.back()),
                  "the queue's last record is not the last delivered");
        }
    }

    const std::vector<ProtocolData> queue = queued();
    for (size_t i = 0; i < queue.size(); ++i)
        check(sameRecord(queue[i], actions.delivered[i]), "the queue's records are not those delivered, in order");
    return 0;
}
