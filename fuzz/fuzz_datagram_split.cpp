// The unicast split with arbitrary write results: every datagram must carry
// the data's bytes where its offset lies inside the data and zero elsewhere,
// and the sum must be the 32-bit sum of the results.
//
// Input: one byte n (0..3 used), n write results of 2 bytes each (signed,
// little-endian), then the data.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "DatagramSend.h"

namespace {
void check(bool condition, const char *what)
{
    if (!condition) {
        std::fprintf(stderr, "%s\n", what);
        std::abort();
    }
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *input, size_t size)
{
    if (size < 1)
        return 0;
    const size_t scripted = input[0] % 4;
    if (size < 1 + 2 * scripted)
        return 0;
    std::vector<qint64> results;
    for (size_t i = 0; i < scripted; ++i)
        results.push_back(int16_t(uint16_t(input[1 + 2 * i]) | uint16_t(input[2 + 2 * i]) << 8));
    const QByteArray data(reinterpret_cast<const char *>(input + 1 + 2 * scripted), int(size - 1 - 2 * scripted));

    size_t writes = 0;
    quint32 expectedSum = 0;
    const int sent = comm::writeInDatagrams(data, [&](const char *bytes, int count, int offset) -> qint64 {
        check(count > 0, "empty datagram written");
        for (int i = 0; i < count; ++i) {
            const qint64 at = qint64(offset) + i;
            const char expected = (at >= 0 && at < data.size()) ? data.at(int(at)) : '\0';
            check(bytes[i] == expected, "datagram byte differs from the data at its offset");
        }
        const qint64 result = writes < results.size() ? results[writes] : count;
        ++writes;
        expectedSum += quint32(result);
        return result;
    });
    check(quint32(sent) == expectedSum, "sum differs from the results");
    check(data.isEmpty() == (writes == 0), "written for empty data, or nothing for data");
    check(writes <= size_t(data.size()) / comm::kMaxDatagramPayload + 2, "more datagrams than the split allows");
    return 0;
}
