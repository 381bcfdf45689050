// Frame building from arbitrary records, checked against a plain encoder
// written here independently: both must give the same bytes. The header, with
// its letter made the reply letter, must also read back as the record it was
// built from: encoding and reply decoding agree.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "CommandFrame.h"
#include "DatagramReplyParser.h"
#include "ProtocolData.h"

namespace {
std::string referenceFrame(const uint8_t header[7], const uint8_t *payload, size_t payloadSize)
{
    static const char digits[] = "0123456789abcdef";
    std::string frame = "[A";
    unsigned sum = 0;
    for (int i = 0; i < 7; ++i) {
        sum += header[i];
        frame += digits[header[i] / 16];
        frame += digits[header[i] % 16];
    }
    frame += digits[(sum % 256) / 16];
    frame += digits[sum % 16];
    frame += ']';
    frame.append(reinterpret_cast<const char *>(payload), payloadSize);
    return frame;
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    // Layout of an input: 7 header bytes, 1 send mode byte, the payload.
    if (size < 8)
        return 0;
    ProtocolData record;
    record.commandByte = data[0];
    for (int i = 0; i < 6; ++i)
        record.paramBytes[i] = data[1 + i];
    record.sendMode = data[7];
    record.checksumByte = data[7]; // whatever the caller left there must not matter
    record.payload = QByteArray(reinterpret_cast<const char *>(data + 8), int(size - 8));

    const QByteArray frame = comm::commandFrame(record);
    const std::string expected = referenceFrame(data, data + 8, size - 8);
    if (frame.size() != int(expected.size()) || std::string(frame.constData(), size_t(frame.size())) != expected) {
        std::fprintf(stderr, "frame differs from the plain encoder\n");
        std::abort();
    }
    QByteArray header = frame.left(comm::kFrameHeaderSize);
    header[1] = 'R';
    const ProtocolData decoded = comm::parseReplyDatagram(header);
    if (decoded.commandByte != record.commandByte
        || !std::equal(std::begin(decoded.paramBytes), std::end(decoded.paramBytes), std::begin(record.paramBytes))
        || decoded.checksumByte != comm::commandChecksum(record)) {
        std::fprintf(stderr, "the header does not read back as the record\n");
        std::abort();
    }
    if (record.checksumByte != data[7]) {
        std::fprintf(stderr, "frame building changed the caller's record\n");
        std::abort();
    }
    return 0;
}
