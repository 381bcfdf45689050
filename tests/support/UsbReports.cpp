#include "UsbReports.h"

#include <QTest>

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

std::vector<QByteArray> chunkReports(const QByteArray &data, const QList<int> &chunks)
{
    std::vector<QByteArray> reports;
    int offset = 0;
    for (int length : chunks) {
        reports.push_back(outputReport(data.mid(offset, length)));
        offset += length;
    }
    return reports;
}

void addUpdateSplitRows()
{
    QTest::addColumn<int>("size");
    QTest::addColumn<QList<int>>("chunks");
    QTest::newRow("19") << 19 << QList<int>{19};
    QTest::newRow("63") << 63 << QList<int>{63};
    QTest::newRow("64") << 64 << QList<int>{19, 45};
    QTest::newRow("83") << 83 << QList<int>{19, 64};
    QTest::newRow("84") << 84 << QList<int>{19, 64, 1};
    QTest::newRow("147") << 147 << QList<int>{19, 64, 64};
    QTest::newRow("empty") << 0 << QList<int>{};
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
