// Reply parsing of the network link from arbitrary sequences of datagrams,
// with its held-reply state checked after every one of them.
//
// Input: a sequence of items. An item whose first byte has its top bit set is
// a valid reply datagram made from the next 7 bytes (command byte, P1..P6),
// so that held replies and combinations are reached often; any other first
// byte b is followed by a raw datagram of up to 4 * b bytes.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <mutex>

#include <QLoggingCategory>

#include "DatagramReplyParser.h"

namespace {
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

int announced(const QByteArray &heldReply)
{
    const ProtocolData held = comm::parseReplyDatagram(heldReply);
    return comm::combineTwoByte(held.paramBytes[4], held.paramBytes[5]);
}

// Checks each combination against what the held reply announced.
class CheckingActions : public comm::ReplyActions
{
public:
    void queueReply(const ProtocolData &) override {}
    void deliverReplyNow(const ProtocolData &) override {}
    void combineBlock(const QByteArray &blockData, const QByteArray &heldReply) override
    {
        ++combines;
        check(blockData.size() >= announced(heldReply), "combined before the announced length was in");
        const std::optional<ProtocolData> record = comm::combineReplyWithBlock(blockData, heldReply);
        if (record) {
            check(record->payload.size() <= blockData.size(), "payload longer than the block data");
            check(blockData.startsWith(record->payload), "payload is not the head of the block data");
        }
    }
    int combines = 0;
};
} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    QLoggingCategory::setFilterRules(QStringLiteral("default.debug=false"));
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    QByteArray lastDatagram;
    QByteArray pendingStdReply;
    QByteArray blockBuffer;
    std::mutex lock;
    CheckingActions actions;
    comm::DatagramReplyParser parser({lastDatagram, pendingStdReply, blockBuffer, lock}, actions);

    size_t at = 0;
    for (int items = 0; at < size && items < 4096; ++items) {
        const uint8_t head = data[at++];
        QByteArray datagram;
        if (head & 0x80) {
            if (size - at < 7)
                break;
            datagram = validReply(data + at);
            at += 7;
        } else {
            const size_t length = std::min<size_t>(size_t(head) * 4, size - at);
            datagram = QByteArray(reinterpret_cast<const char *>(data + at), int(length));
            at += length;
        }

        const ProtocolData parsed = comm::parseReplyDatagram(datagram);
        const bool blockData = comm::replyAction(parsed) == comm::ReplyAction::BlockData;
        const int combinesBefore = actions.combines;
        parser.takeDatagram(datagram, QStringLiteral("10.0.0.1"), ModulelEnum::DeviceUnknown);

        check(lastDatagram == datagram, "last datagram not kept");
        if (pendingStdReply.isEmpty())
            check(blockBuffer.isEmpty(), "block data gathered while idle");
        if (blockData && actions.combines == combinesBefore)
            check(blockBuffer.size() < announced(pendingStdReply), "enough block data but no combination");
        if (!blockData)
            check(actions.combines == combinesBefore, "combination without block data");
    }
    return 0;
}
