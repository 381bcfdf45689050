#include <QtTest>

#include <cstring>
#include <vector>

#include "HidReportSplit.h"

using comm::ReportChunk;
using comm::ReportSplit;

Q_DECLARE_METATYPE(std::vector<int>)

namespace {
std::vector<int> lengths(const std::vector<ReportChunk> &chunks)
{
    std::vector<int> result;
    for (const ReportChunk &chunk : chunks)
        result.push_back(chunk.length);
    return result;
}

// The chunks follow each other without gaps, from offset 0 to size.
bool contiguous(const std::vector<ReportChunk> &chunks, int size)
{
    int offset = 0;
    for (const ReportChunk &chunk : chunks) {
        if (chunk.offset != offset || chunk.length < 1 || chunk.length > comm::kHidReportPayload)
            return false;
        offset += chunk.length;
    }
    return offset == size;
}
} // namespace

class TestHidReportSplit : public QObject
{
    Q_OBJECT

private slots:
    void commandSplit_data();
    void commandSplit();
    void commandFailuresAreAllLogged();
    void updateSplit_data();
    void updateSplit();
    void updateLogsFailureOfFinalShortReportOnly();
    void updateShorterThan64HasNoLeadingSplit();
    void everySizeIsCutWithoutGapsByTheRules();
    void reportIsIdZeroThenChunkThenZeros();
    void fullChunkFillsAllSixtyFourBytes();
};

void TestHidReportSplit::commandSplit_data()
{
    QTest::addColumn<int>("size");
    QTest::addColumn<std::vector<int>>("expected");
    QTest::newRow("empty") << 0 << std::vector<int>{};
    QTest::newRow("one byte") << 1 << std::vector<int>{1};
    QTest::newRow("command frame") << 19 << std::vector<int>{19};
    QTest::newRow("63") << 63 << std::vector<int>{63};
    QTest::newRow("64") << 64 << std::vector<int>{64};
    QTest::newRow("65") << 65 << std::vector<int>{64, 1};
    QTest::newRow("128") << 128 << std::vector<int>{64, 64};
    QTest::newRow("147") << 147 << std::vector<int>{64, 64, 19};
}

void TestHidReportSplit::commandSplit()
{
    QFETCH(int, size);
    QFETCH(std::vector<int>, expected);
    const std::vector<ReportChunk> chunks = comm::splitIntoReports(size, ReportSplit::Command);
    QCOMPARE(lengths(chunks), expected);
    QVERIFY(contiguous(chunks, size));
}

void TestHidReportSplit::commandFailuresAreAllLogged()
{
    for (const ReportChunk &chunk : comm::splitIntoReports(200, ReportSplit::Command))
        QVERIFY(chunk.logsFailure);
}

void TestHidReportSplit::updateSplit_data()
{
    QTest::addColumn<int>("size");
    QTest::addColumn<std::vector<int>>("expected");
    QTest::newRow("empty") << 0 << std::vector<int>{};
    QTest::newRow("19") << 19 << std::vector<int>{19};
    QTest::newRow("63") << 63 << std::vector<int>{63};
    QTest::newRow("64") << 64 << std::vector<int>{19, 45};
    QTest::newRow("83") << 83 << std::vector<int>{19, 64};
    QTest::newRow("84") << 84 << std::vector<int>{19, 64, 1};
    QTest::newRow("147") << 147 << std::vector<int>{19, 64, 64};
    QTest::newRow("148") << 148 << std::vector<int>{19, 64, 64, 1};
}

void TestHidReportSplit::updateSplit()
{
    QFETCH(int, size);
    QFETCH(std::vector<int>, expected);
    const std::vector<ReportChunk> chunks = comm::splitIntoReports(size, ReportSplit::Update);
    QCOMPARE(lengths(chunks), expected);
    QVERIFY(contiguous(chunks, size));
}

void TestHidReportSplit::updateLogsFailureOfFinalShortReportOnly()
{
    const std::vector<ReportChunk> chunks = comm::splitIntoReports(84, ReportSplit::Update);
    QCOMPARE(chunks.size(), size_t(3));
    QCOMPARE(chunks[0], (ReportChunk{0, 19, false}));
    QCOMPARE(chunks[1], (ReportChunk{19, 64, false}));
    QCOMPARE(chunks[2], (ReportChunk{83, 1, true}));
}

void TestHidReportSplit::updateShorterThan64HasNoLeadingSplit()
{
    const std::vector<ReportChunk> chunks = comm::splitIntoReports(63, ReportSplit::Update);
    QCOMPARE(chunks.size(), size_t(1));
    QCOMPARE(chunks[0], (ReportChunk{0, 63, true}));
}

void TestHidReportSplit::everySizeIsCutWithoutGapsByTheRules()
{
    for (int size = 0; size <= 1000; ++size) {
        for (ReportSplit split : {ReportSplit::Command, ReportSplit::Update}) {
            const std::vector<ReportChunk> chunks = comm::splitIntoReports(size, split);
            QVERIFY2(contiguous(chunks, size), qPrintable(QString::number(size)));
            const bool leading = split == ReportSplit::Update && size >= 64;
            for (size_t i = 0; i < chunks.size(); ++i) {
                const bool last = i + 1 == chunks.size();
                const bool shortTail = last && (chunks[i].length < 64) && !(leading && i == 0);
                // Full reports and the leading 19 are followed by more data
                // or end it exactly; only the final short report is logged in
                // the update split.
                if (leading && i == 0)
                    QCOMPARE(chunks[i].length, 19);
                else if (!last)
                    QCOMPARE(chunks[i].length, 64);
                QCOMPARE(chunks[i].logsFailure, split == ReportSplit::Command || shortTail);
            }
        }
    }
}

void TestHidReportSplit::reportIsIdZeroThenChunkThenZeros()
{
    const QByteArray data("0123456789abcdefghij");
    unsigned char report[comm::kHidReportSize];
    std::memset(report, 0xEE, sizeof report);
    comm::fillOutputReport(report, data.constData(), ReportChunk{2, 5, true});
    QByteArray expected(comm::kHidReportSize, '\0');
    expected.replace(1, 5, "23456");
    QCOMPARE(QByteArray(reinterpret_cast<const char *>(report), comm::kHidReportSize), expected);
}

void TestHidReportSplit::fullChunkFillsAllSixtyFourBytes()
{
    QByteArray data(70, '\0');
    for (int i = 0; i < data.size(); ++i)
        data[i] = char(i + 1);
    unsigned char report[comm::kHidReportSize];
    comm::fillOutputReport(report, data.constData(), ReportChunk{6, 64, true});
    QCOMPARE(report[0], 0);
    QCOMPARE(QByteArray(reinterpret_cast<const char *>(report) + 1, 64), data.mid(6, 64));
}

QTEST_GUILESS_MAIN(TestHidReportSplit)
#include "tst_hidreportsplit.moc"
