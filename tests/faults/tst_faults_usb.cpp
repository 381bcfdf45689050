// The USB link when things go wrong, against the simulated HID device that
// this program links in place of hidapi: the device vanishes during a long
// write and during reads, it comes back, and writes fail at every report of a
// frame. Each test ends with what must hold afterwards: the queue holds
// exactly the replies that were delivered, no call ever reached a closed
// handle, the workers have ended where the link is closed, and once the
// application reopens the link it carries the next command and its reply.
//
// Every test starts and ends with the device plugged in and seen so by the
// one hot-plug watcher of the process, which reports changes only.
#include <QtTest>

#include <QElapsedTimer>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <set>
#include <thread>
#include <vector>

#include "GeneratedReplies.h"
#include "LogCapture.h"
#include "PortUSB.h"
#include "ProtocolData.h"
#include "ReceiveQueue.h"
#include "SimulatedHid.h"
#include "ThreadCount.h"
#include "UsbReports.h"
#include "UsbSignalLog.h"
#include "TransportProbe.h"

using generatedreplies::replyFrame;
using namespace usbreports;

namespace {
constexpr unsigned short kVid = 0x2E8A;
constexpr unsigned short kPid = 0x00C0;
// Generous: sanitizer builds on a loaded two-core machine.
constexpr int kWaitMs = 30000;

// Returns once the hot-plug watcher has polled n more times.
bool watcherPolls(int n)
{
    const int polls = simhid::enumerations(kVid, kPid);
    QElapsedTimer timer;
    timer.start();
    while (simhid::enumerations(kVid, kPid) < polls + n) {
        if (timer.elapsed() > kWaitMs)
            return false;
        QTest::qWait(10);
    }
    return true;
}

// Reply n: B1 and B3 carry the number, no block is announced.
std::array<quint8, 7> numbered(int n)
{
    return {0x40, quint8(n >> 8), 0x00, quint8(n), 0x00, 0x00, 0x00};
}

// Replies 1, 2, 3 and 0x7FFF as the device sends them: "[" "R", then B0..B6
// and their 8-bit sum as hex digit pairs, then "]".
const QByteArray kReply1 = QByteArrayLiteral("[R4000000100000041]");
const QByteArray kReply2 = QByteArrayLiteral("[R4000000200000042]");
const QByteArray kReply3 = QByteArrayLiteral("[R4000000300000043]");
// 40 7F 00 FF 00 00 00, check byte BE.
const QByteArray kReply7FFF = QByteArrayLiteral("[R407F00FF000000BE]");

int numberOf(const ProtocolData &record)
{
    return record.paramBytes[0] << 8 | record.paramBytes[2];
}

// Waits for the watcher to report after the first reportedBefore entries of
// plugEvents; the one entry it added, or empty when none or more came.
QString nextPlugEvent(const UsbSignalLog &plugEvents, int reportedBefore)
{
    QElapsedTimer timer;
    timer.start();
    while (plugEvents.size() == reportedBefore && timer.elapsed() < kWaitMs)
        QTest::qWait(10);
    const QStringList events = plugEvents.entries().mid(reportedBefore);
    return events.size() == 1 ? events.front() : QString();
}

std::vector<int> queuedNumbers()
{
    std::vector<int> numbers;
    for (const ProtocolData &record : testqueue::records()) {
        if (record.linkByte == 2 && record.sourceText == QStringLiteral("USB"))
            numbers.push_back(numberOf(record));
        else
            numbers.push_back(-1); // not a USB reply record
    }
    return numbers;
}

// The transport, open on the device, writes the next command whole, and the
// device's answer reaches the queue behind what is there.
void checkCarriesNextCommand(PortUSB &port)
{
    const size_t queued = testqueue::length();
    const size_t written = simhid::writes().size();
    ProtocolData command = commandOfFrameSize(19);
    port.sendDatatoDevice(&command);
    const std::vector<QByteArray> writes = simhid::writes();
    QCOMPARE(writes.size(), written + 1);
    QCOMPARE(writes.back(), commandReports(port.produceCmds(command)).front());
    simhid::queueInput(inputReport(kReply7FFF));
    QTRY_COMPARE_WITH_TIMEOUT(testqueue::length(), queued + 1, kWaitMs);
    QCOMPARE(numberOf(testqueue::records().back()), 0x7FFF);
}

// A thread that sends one command, joined however the test ends.
class SendingThread
{
public:
    SendingThread(PortUSB &port, ProtocolData record)
        : m_record(std::move(record))
        , m_thread([this, &port] {
            port.sendDatatoDevice(&m_record);
            m_done = true;
        })
    {
    }
    ~SendingThread() { m_thread.join(); }
    bool done() const { return m_done; }

private:
    ProtocolData m_record;
    std::atomic<bool> m_done{false};
    std::thread m_thread;
};
} // namespace

class TestUsbFaults : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();
    void cleanupTestCase() { testqueue::reset(); }

    void deviceVanishingDuringLongWriteEndsTheWriteAndClosesTheLink();
    void deviceVanishingDuringReadDropsOnlyTheUnfinishedFrame();
    void repliesStreamingWhileTheDeviceVanishesComeAtMostOnce();
    void writeFailingAtAnyReportDropsTheRestAndTheNextCommandGoesThrough_data();
    void writeFailingAtAnyReportDropsTheRestAndTheNextCommandGoesThrough();

private:
    // Opens port and returns once the watcher knows the device as present.
    bool openAndLetWatcherSeeIt(PortUSB &port) { return port.openUSB(kVid, kPid) && watcherPolls(2); }
    // Pulls the device out; the watcher closes the link and reports it.
    bool pullOut(const UsbSignalLog &plugEvents);
    // Plugs it back in; the watcher reports it and the application reopens.
    bool plugBackAndReopen(PortUSB &port, const UsbSignalLog &plugEvents);

    int m_threadsBefore = 0;
};

void TestUsbFaults::initTestCase()
{
    // The first transport starts the process's hot-plug watcher, which runs
    // until the process ends: start it before counting threads.
    PortUSB first;
}

void TestUsbFaults::init()
{
    simhid::reset(kVid, kPid);
    testqueue::reset();
    m_threadsBefore = threadCount();
}

void TestUsbFaults::cleanup()
{
    simhid::setPresent(true);
    QVERIFY(watcherPolls(2));
    // No call ever reached a closed handle.
    QCOMPARE(simhid::misuse(), 0);
    QCOMPARE(simhid::hazards(), 0);
    // Every transport of the test is gone, with its workers and hand-offs.
    QTRY_VERIFY_WITH_TIMEOUT(threadCount() <= m_threadsBefore, kWaitMs);
}

bool TestUsbFaults::pullOut(const UsbSignalLog &plugEvents)
{
    const int reported = plugEvents.size();
    simhid::setPresent(false);
    return nextPlugEvent(plugEvents, reported) == QStringLiteral("false");
}

bool TestUsbFaults::plugBackAndReopen(PortUSB &port, const UsbSignalLog &plugEvents)
{
    const int reported = plugEvents.size();
    simhid::setPresent(true);
    if (nextPlugEvent(plugEvents, reported) != QStringLiteral("true"))
        return false;
    // The watcher does not reopen: the application does, on that signal.
    if (isOpen(port))
        return false;
    return openAndLetWatcherSeeIt(port);
}

void TestUsbFaults::deviceVanishingDuringLongWriteEndsTheWriteAndClosesTheLink()
{
    LogCapture log;
    UsbSignalLog plugEvents;
    PortUSB port;
    plugEvents.watch(port);
    QVERIFY(openAndLetWatcherSeeIt(port));

    // Sixty reports, each taking 20 ms on the wire.
    simhid::setWriteDuration(20);
    const ProtocolData record = commandOfFrameSize(60 * kReportPayload);
    const std::vector<QByteArray> reports = commandReports(port.produceCmds(record));
    QCOMPARE(reports.size(), size_t(60));
    {
        SendingThread sending(port, record);
        QTRY_VERIFY_WITH_TIMEOUT(simhid::writes().size() >= 5, kWaitMs);
        QVERIFY(pullOut(plugEvents));
        QTRY_VERIFY_WITH_TIMEOUT(sending.done(), kWaitMs);
    }
    simhid::setWriteDuration(0);

    // What went out is the frame's first reports, in order; the write that
    // met the removal failed, was logged once, and nothing followed it. (The
    // close can also come between two reports: then the rest is dropped
    // without a line, as on a closed link.)
    const std::vector<QByteArray> written = simhid::writes();
    QVERIFY(written.size() < reports.size());
    QVERIFY(std::equal(written.begin(), written.end(), reports.begin()));
    const int failed = simhid::writeAttempts() - static_cast<int>(written.size());
    QVERIFY(failed == 0 || failed == 1);
    QCOMPARE(log.count(QStringLiteral("Send failed")), failed);
    QCOMPARE(log.count(QStringLiteral("Send usb data:") + QString::fromLatin1(port.produceCmds(record).left(19))), 1);

    // The watcher closed the link: no device, no workers, nothing queued.
    QVERIFY(!isOpen(port));
    QTRY_COMPARE_WITH_TIMEOUT(runningWorkers(port), 0, kWaitMs);
    QCOMPARE(testqueue::length(), size_t(0));

    QVERIFY(plugBackAndReopen(port, plugEvents));
    checkCarriesNextCommand(port);
    QCOMPARE(queuedNumbers(), std::vector<int>{0x7FFF});
}

void TestUsbFaults::deviceVanishingDuringReadDropsOnlyTheUnfinishedFrame()
{
    UsbSignalLog plugEvents;
    PortUSB port;
    plugEvents.watch(port);
    QVERIFY(openAndLetWatcherSeeIt(port));

    simhid::queueInput(inputReport(kReply1));
    QTRY_COMPARE_WITH_TIMEOUT(testqueue::length(), size_t(1), kWaitMs);
    // The first ten bytes of the next reply, in a report of their own.
    const QByteArray second = kReply2;
    simhid::queueInput(second.left(10));
    QTRY_COMPARE_WITH_TIMEOUT(buffData(port), second.left(10), kWaitMs);
    // The reader is waiting in its next read when the device goes.
    QTRY_COMPARE_WITH_TIMEOUT(simhid::pendingInput(), 0, kWaitMs);
    QVERIFY(pullOut(plugEvents));
    QVERIFY(!isOpen(port));
    QCOMPARE(buffData(port), QByteArray());
    QTRY_COMPARE_WITH_TIMEOUT(runningWorkers(port), 0, kWaitMs);

    // Back again: the rest of the cut reply is garbage, the next one a reply.
    QVERIFY(plugBackAndReopen(port, plugEvents));
    simhid::queueInput(second.mid(10));
    simhid::queueInput(inputReport(kReply3));
    QTRY_COMPARE_WITH_TIMEOUT(testqueue::length(), size_t(2), kWaitMs);
    QTest::qWait(100); // a few reassembly turns: nothing else comes
    QCOMPARE(queuedNumbers(), (std::vector<int>{1, 3}));
    checkCarriesNextCommand(port);
}

void TestUsbFaults::repliesStreamingWhileTheDeviceVanishesComeAtMostOnce()
{
    UsbSignalLog plugEvents;
    PortUSB port;
    plugEvents.watch(port);
    QVERIFY(openAndLetWatcherSeeIt(port));
    // The open link's threads, without any hand-off.
    const int threadsWhileOpen = threadCount();

    // Three replies a report: the reader, taking a report each 20 ms, runs
    // ahead of the reassembly, which takes a frame each 20 ms, so replies
    // wait in the receive buffer.
    constexpr int kPerReport = 3;
    constexpr int kReplies = 10 * kPerReport;
    QCOMPARE(replyFrame(numbered(0)), QByteArrayLiteral("[R4000000000000040]"));
    QCOMPARE(replyFrame(numbered(kReplies - 1)), QByteArrayLiteral("[R4000001D0000005D]"));
    for (int n = 0; n < kReplies; n += kPerReport)
        simhid::queueInput(
            inputReport(replyFrame(numbered(n)) + replyFrame(numbered(n + 1)) + replyFrame(numbered(n + 2))));
    QTRY_VERIFY_WITH_TIMEOUT(testqueue::length() >= 3, kWaitMs);
    QVERIFY(pullOut(plugEvents));
    QVERIFY(!isOpen(port));
    QTRY_COMPARE_WITH_TIMEOUT(runningWorkers(port), 0, kWaitMs);
    const int readBeforeRemoval = kReplies - kPerReport * simhid::pendingInput();

    // The reports not read yet wait in the device; once reopened they come.
    QVERIFY(plugBackAndReopen(port, plugEvents));
    QTRY_COMPARE_WITH_TIMEOUT(simhid::pendingInput(), 0, kWaitMs);
    QTRY_VERIFY_WITH_TIMEOUT(buffData(port).size() < 19, kWaitMs);
    // The hand-offs are done: the last reply, if it was still in the device,
    // has been queued (its hand-off starts after every earlier one), and no
    // hand-off thread is left.
    const auto handOffsDone = [&] {
        const std::vector<int> queued = queuedNumbers();
        const bool lastQueued = readBeforeRemoval == kReplies
                                || std::find(queued.begin(), queued.end(), kReplies - 1) != queued.end();
        return lastQueued && threadCount() <= threadsWhileOpen;
    };
    QTRY_VERIFY_WITH_TIMEOUT(handOffsDone(), kWaitMs);

    // Lost are only replies read but not yet reassembled when the device
    // went (their buffer is emptied on close): the rest comes once each.
    std::vector<int> numbers = queuedNumbers();
    std::sort(numbers.begin(), numbers.end());
    QVERIFY(std::adjacent_find(numbers.begin(), numbers.end()) == numbers.end());
    QVERIFY(!numbers.empty() && numbers.front() == 0);
    if (readBeforeRemoval < kReplies)
        QCOMPARE(numbers.back(), kReplies - 1);
    int gapFrom = 0;
    while (gapFrom < int(numbers.size()) && numbers[gapFrom] == gapFrom)
        ++gapFrom;
    for (int i = gapFrom; i < int(numbers.size()); ++i) {
        // After the gap, every reply up to the last is there.
        QCOMPARE(numbers[i], kReplies - int(numbers.size()) + i);
    }
    const int lost = kReplies - int(numbers.size());
    if (lost > 0)
        QVERIFY(gapFrom + lost <= readBeforeRemoval);
    checkCarriesNextCommand(port);
}

void TestUsbFaults::writeFailingAtAnyReportDropsTheRestAndTheNextCommandGoesThrough_data()
{
    QTest::addColumn<int>("failingReport");
    // A frame of 209 bytes goes as four reports: 64, 64, 64 and 17 bytes.
    for (int report = 1; report <= 4; ++report)
        QTest::newRow(qPrintable(QStringLiteral("report %1 of 4").arg(report))) << report;
}

void TestUsbFaults::writeFailingAtAnyReportDropsTheRestAndTheNextCommandGoesThrough()
{
    QFETCH(int, failingReport);
    LogCapture log;
    PortUSB port;
    QVERIFY(openAndLetWatcherSeeIt(port));
    const ProtocolData record = commandOfFrameSize(209);
    const QByteArray frameBytes = port.produceCmds(record);
    const std::vector<QByteArray> reports = commandReports(frameBytes);
    QCOMPARE(reports.size(), size_t(4));

    simhid::failWrite(failingReport);
    ProtocolData sent = record;
    port.sendDatatoDevice(&sent);
    QCOMPARE(simhid::writeAttempts(), failingReport);
    QCOMPARE(simhid::writes(), std::vector<QByteArray>(reports.begin(), reports.begin() + failingReport - 1));
    QCOMPARE(log.lines(), (QStringList{QStringLiteral("Send failed"),
                                       QStringLiteral("Send usb data:") + QString::fromLatin1(frameBytes.left(19))}));
    QVERIFY(isOpen(port));

    // The same frame again goes out whole, and replies still come in.
    port.sendDatatoDevice(&sent);
    std::vector<QByteArray> expected(reports.begin(), reports.begin() + failingReport - 1);
    expected.insert(expected.end(), reports.begin(), reports.end());
    QCOMPARE(simhid::writes(), expected);
    QCOMPARE(log.count(QStringLiteral("Send failed")), 1);
    checkCarriesNextCommand(port);
    QCOMPARE(queuedNumbers(), std::vector<int>{0x7FFF});
}

QTEST_GUILESS_MAIN(TestUsbFaults)
#include "tst_faults_usb.moc"
