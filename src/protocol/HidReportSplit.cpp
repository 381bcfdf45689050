#include "HidReportSplit.h"

#include <algorithm>
#include <cstring>

#include "CommandFrame.h"

namespace comm {

std::vector<ReportChunk> splitIntoReports(int size, ReportSplit split)
{
    std::vector<ReportChunk> chunks;
    if (size <= 0)
        return chunks;
    chunks.reserve(static_cast<size_t>(size / kHidReportPayload + 2));
    // Failures inside the run of full reports are logged for commands only;
    // update sending ends such a run silently.
    const bool fullReportsLogFailure = split == ReportSplit::Command;
    int offset = 0;
    // The update split happens once, on the first full report only.
    bool leading = split == ReportSplit::Update;
    while (size - offset >= kHidReportPayload) {
        const int length = leading ? kFrameHeaderSize : kHidReportPayload;
        chunks.push_back({offset, length, fullReportsLogFailure});
        offset += length;
        leading = false;
    }
    if (size > offset)
        chunks.push_back({offset, size - offset, true});
    return chunks;
}

void fillOutputReport(unsigned char (&report)[kHidReportSize], const char *data, const ReportChunk &chunk)
{
    std::memset(report, 0, sizeof report);
    const int length = std::clamp(chunk.length, 0, kHidReportPayload);
    if (length > 0)
        std::memcpy(report + 1, data + chunk.offset, static_cast<size_t>(length));
}

} // namespace comm
