#pragma once

#include <QByteArray>
#include <QList>

#include <vector>

#include "ProtocolData.h"

// What crosses the USB link, as the tests of every tier expect it.
namespace usbreports {

// Bytes in each HID report, without the report ID.
constexpr int kReportPayload = 64;

// The 65-byte output report that carries chunk: report ID 0, chunk, zeros.
QByteArray outputReport(const QByteArray &chunk);
// The output reports that carry a command frame: 64 bytes each, the last one
// short and padded with zeros.
std::vector<QByteArray> commandReports(const QByteArray &frameBytes);
// The output reports that carry data cut into chunks of these lengths.
std::vector<QByteArray> chunkReports(const QByteArray &data, const QList<int> &chunks);
// Test data rows "size" (int) and "chunks" (QList<int>): update data of that
// size and the lengths sendUSBData_Update_Vornik cuts it into.
void addUpdateSplitRows();
// A 64-byte input report: bytes, then zeros, as a device pads a short reply.
QByteArray inputReport(const QByteArray &bytes);
// Data whose bytes differ from their neighbours, so that a misplaced chunk shows.
QByteArray numberedBytes(int size);
// A command whose frame is size bytes long: the header and a numbered payload.
ProtocolData commandOfFrameSize(int size);

} // namespace usbreports
