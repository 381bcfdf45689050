#include "UsbReports.h"

namespace usbreports {

QByteArray outputReport(const QByteArray &chunk)
{
    QByteArray report(kReportPayload + 1, '\0');
    report.replace(1, chunk.size(), chunk);
    return report;
}

std::vector<QByteArray> commandReports(const QByteArray &frameBytes)
{
    std::vector<QByteArray> reports;
    for (int at = 0; at < frameBytes.size(); at += kReportPayload)
        reports.push_back(outputReport(frameBytes.mid(at, kReportPayload)));
    return reports;
}

QByteArray inputReport(const QByteArray &bytes)
{
    return bytes + QByteArray(kReportPayload - bytes.size(), '\0');
}

QByteArray numberedBytes(int size)
{
    QByteArray data(size, '\0');
    for (int i = 0; i < size; ++i)
        data[i] = char(i % 251 + 1);
    return data;
}

ProtocolData commandOfFrameSize(int size)
{
    ProtocolData record;
    record.commandByte = 0x5A;
    for (int i = 0; i < 6; ++i)
        record.paramBytes[i] = quint8(i + 1);
    record.payload = numberedBytes(size - 19);
    return record;
}

} // namespace usbreports
