#pragma once

#include <vector>

namespace comm {

// A HID output report as the devices take it: report ID 0 (unnumbered
// reports), then 64 payload bytes, zero-filled behind the data.
constexpr int kHidReportSize = 65;
constexpr int kHidReportPayload = kHidReportSize - 1;

// How a byte string is cut into output reports.
enum class ReportSplit {
    // Commands (sendUSBData): 64-byte reports, then one short report for the
    // rest. Every failed write is logged.
    Command,
    // Update data (sendUSBData_Update_Vornik): data of 64 bytes or more starts
    // with a report of 19 bytes (one command frame's header), then 64-byte
    // reports, then one short report for the rest. A failed write is logged
    // only for that last short report.
    Update,
};

// One output report's share of the data.
struct ReportChunk
{
    int offset = 0;
    int length = 0;
    // Whether a failed write of this report is logged ("Send failed").
    bool logsFailure = true;

    bool operator==(const ReportChunk &other) const
    {
        return offset == other.offset && length == other.length && logsFailure == other.logsFailure;
    }
};

// The reports, in order, that carry size bytes of data. Empty data gives none;
// a multiple of 64 bytes (after any leading 19) gives no short report.
std::vector<ReportChunk> splitIntoReports(int size, ReportSplit split);

// Writes the 65-byte output report for chunk of data into report: report ID 0,
// the chunk's bytes, zeros behind them.
void fillOutputReport(unsigned char (&report)[kHidReportSize], const char *data, const ReportChunk &chunk);

} // namespace comm
