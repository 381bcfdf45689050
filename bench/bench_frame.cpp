// Frame building against the simplest encoder of the same bytes.
#include <benchmark/benchmark.h>

#include <cstring>

#include "CommandFrame.h"
#include "ProtocolData.h"

namespace {
ProtocolData sampleRecord(int payloadSize)
{
    ProtocolData record;
    record.commandByte = 0x5A;
    for (int i = 0; i < 6; ++i)
        record.paramBytes[i] = quint8(i + 1);
    record.payload = QByteArray(payloadSize, '\x5d');
    return record;
}

// Baseline: a minimal table-driven encoder of the same 19 header bytes.
void BM_Baseline_MinimalHeaderEncoder(benchmark::State &state)
{
    static const char digits[] = "0123456789abcdef";
    const ProtocolData record = sampleRecord(0);
    for (auto _ : state) {
        QByteArray out(19, Qt::Uninitialized);
        char *p = out.data();
        unsigned sum = record.commandByte;
        *p++ = '[';
        *p++ = 'A';
        *p++ = digits[record.commandByte >> 4];
        *p++ = digits[record.commandByte & 15];
        for (quint8 b : record.paramBytes) {
            sum += b;
            *p++ = digits[b >> 4];
            *p++ = digits[b & 15];
        }
        *p++ = digits[(sum >> 4) & 15];
        *p++ = digits[sum & 15];
        *p = ']';
        benchmark::DoNotOptimize(out.data());
    }
}
BENCHMARK(BM_Baseline_MinimalHeaderEncoder);

void BM_ProduceCmds_NoPayload(benchmark::State &state)
{
    const ProtocolData record = sampleRecord(0);
    for (auto _ : state) {
        QByteArray frame = comm::commandFrame(record);
        benchmark::DoNotOptimize(frame.data());
    }
}
BENCHMARK(BM_ProduceCmds_NoPayload);

// Baseline: copying 4 KiB, the least any frame with that payload costs.
void BM_Baseline_Memcpy4KiB(benchmark::State &state)
{
    const QByteArray source(4096, '\x5d');
    QByteArray target(4096, '\0');
    for (auto _ : state) {
        std::memcpy(target.data(), source.constData(), 4096);
        benchmark::DoNotOptimize(target.data());
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_Baseline_Memcpy4KiB);

void BM_ProduceCmds_4KiBPayload(benchmark::State &state)
{
    const ProtocolData record = sampleRecord(4096);
    for (auto _ : state) {
        QByteArray frame = comm::commandFrame(record);
        benchmark::DoNotOptimize(frame.data());
    }
}
BENCHMARK(BM_ProduceCmds_4KiBPayload);
} // namespace

BENCHMARK_MAIN();
