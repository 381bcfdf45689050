// The serial link when things go wrong, on pseudo-terminals: the device hangs
// up in the middle of a block, bytes keep arriving while the port is reopened,
// and valid frames come in a flood of garbage. Each test ends with what must
// hold afterwards: the queue holds exactly the replies that were delivered,
// every worker and hand-off thread has ended, and the transport still carries
// the next command and its reply.
#include <QtTest>

#include <QElapsedTimer>
#include <QSerialPort>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <memory>
#include <random>
#include <set>
#include <thread>
#include <vector>

#include <unistd.h>

#include "GeneratedReplies.h"
#include "LogCapture.h"
#include "PortSerial.h"
#include "ProtocolData.h"
#include "PseudoTerminal.h"
#include "ReceiveQueue.h"
#include "SerialLink.h"
#include "ThreadCount.h"
#include "TransportProbe.h"

using generatedreplies::blockWithSum;
using generatedreplies::replyFrame;

namespace {
// Generous: sanitizer builds on a loaded two-core machine.
constexpr int kWaitMs = 30000;

// Reply n, announcing no block: B1 and B3 carry the number.
std::array<quint8, 7> numbered(int n)
{
    return {0x30, quint8(n >> 8), 0x00, quint8(n), 0x5A, 0x00, 0x00};
}

// Reply n announcing a block of length bytes by B2 (0x79, 0xE1, or 0x8E with
// B3 = 0x27, which then carries no part of the number).
std::array<quint8, 7> numberedWithBlock(int n, quint8 b2, unsigned short length)
{
    const quint8 b3 = b2 == 0x8E ? quint8(0x27) : quint8(n);
    return {0x31, quint8(n >> 8), b2, b3, quint8(n), quint8(length & 0xFF), quint8(length >> 8)};
}

// Replies as the device sends them: "[" "R", then B0..B6 and their 8-bit sum
// as hex digit pairs, then "]".
// Reply 1: 30 00 00 01 5A 00 00, check byte 8B.
const QByteArray kReply1 = QByteArrayLiteral("[R300000015A00008B]");
// Reply 0x7FFF: 30 7F 00 FF 5A 00 00, check byte 08.
const QByteArray kReply7FFF = QByteArrayLiteral("[R307F00FF5A000008]");
// Reply 2 announcing a block of 100 bytes: 31 00 79 02 02 64 00, check byte 12.
const QByteArray kReply2WithBlockOf100 = QByteArrayLiteral("[R3100790202640012]");

// Resident memory of this process, in KiB; -1 where it cannot be read.
long residentKiB()
{
    QFile statm(QStringLiteral("/proc/self/statm"));
    if (!statm.open(QIODevice::ReadOnly))
        return -1;
    const QList<QByteArray> fields = statm.readAll().split(' ');
    return fields.size() > 1 ? fields.at(1).toLong() * (::sysconf(_SC_PAGESIZE) / 1024) : -1;
}

// Whether a sanitizer keeps freed memory for a while (ASan's quarantine) or
// shadows it: resident memory then says little about what the code holds.
constexpr bool kSanitized =
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    true;
#else
    false;
#endif

int numberOf(const ProtocolData &record)
{
    const quint8 low = record.paramBytes[1] == 0x8E ? record.paramBytes[3] : record.paramBytes[2];
    return record.paramBytes[0] << 8 | low;
}

bool carries(const ProtocolData &record, const std::array<quint8, 7> &bytes)
{
    return record.commandByte == bytes[0] && std::equal(bytes.begin() + 1, bytes.end(), record.paramBytes);
}

QString recvLine(const QByteArray &frameBytes)
{
    return QStringLiteral("Recv data:") + QString::fromLatin1(frameBytes);
}

int linesStartingWith(const LogCapture &log, const QString &start)
{
    const QStringList lines = log.lines();
    return static_cast<int>(
        std::count_if(lines.begin(), lines.end(), [&](const QString &line) { return line.startsWith(start); }));
}

// A thread playing the device, joined however the test ends.
class DeviceThread
{
public:
    template <typename Body>
    explicit DeviceThread(Body body)
        : m_thread([this, body] {
            body();
            m_done = true;
        })
    {
    }
    ~DeviceThread() { m_thread.join(); }
    bool done() const { return m_done; }

private:
    std::atomic<bool> m_done{false};
    std::thread m_thread;
};

// Raises a stop flag when it goes out of scope, however the test ends.
struct RaiseOnExit
{
    std::atomic<bool> &flag;
    ~RaiseOnExit() { flag = true; }
};

// The transport, open on pty, carries a command to the device, and the
// device's answer reaches the queue behind what is there.
void checkCarriesNextCommand(PortSerial &port, PseudoTerminal &pty)
{
    const size_t queued = testqueue::length();
    ProtocolData command;
    command.commandByte = 0x5A;
    for (int i = 0; i < 6; ++i)
        command.paramBytes[i] = quint8(i + 1);
    port.sendDatatoDevice(&command);
    QCOMPARE(pty.deviceReceives(19, kWaitMs), QByteArray("[A5a0102030405066f]"));
    QVERIFY(pty.deviceSends(kReply7FFF));
    QTRY_COMPARE_WITH_TIMEOUT(testqueue::length(), queued + 1, kWaitMs);
    QCOMPARE(numberOf(testqueue::records().back()), 0x7FFF);
    QCOMPARE(runningWorkers(port), 1);
}
} // namespace

class TestSerialFaults : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { qRegisterMetaType<QSerialPort::SerialPortError>(); }
    void init();
    void cleanup();
    void cleanupTestCase() { testqueue::reset(); }

    void hangUpInTheMiddleOfABlockLosesOnlyThatReply_data();
    void hangUpInTheMiddleOfABlockLosesOnlyThatReply();
    void bytesArrivingWhileThePortIsReopenedMakeNoFalseOrRepeatedRecord();
    void floodOfGarbageDeliversEveryValidFrameOnce();
    void floodOfTenMegabytesOfBracketsKeepsTheBufferBounded();

private:
    int m_threadsBefore = 0;
};

void TestSerialFaults::init()
{
    testqueue::reset();
    m_threadsBefore = threadCount();
}

void TestSerialFaults::cleanup()
{
    // Every transport of the test is gone, with its workers and hand-offs.
    QTRY_VERIFY_WITH_TIMEOUT(threadCount() <= m_threadsBefore, kWaitMs);
}

void TestSerialFaults::hangUpInTheMiddleOfABlockLosesOnlyThatReply_data()
{
    QTest::addColumn<bool>("readmeHandler");
    // The application closes the port on read and resource errors.
    QTest::newRow("port closed on read errors") << true;
    // The application connects only the transport's handleError, which closes
    // the port on the resource error of the next write.
    QTest::newRow("port closed by handleError") << false;
}

void TestSerialFaults::hangUpInTheMiddleOfABlockLosesOnlyThatReply()
{
    QFETCH(bool, readmeHandler);
    LogCapture log;
    auto pty = std::make_unique<PseudoTerminal>();
    REQUIRE_PTY(*pty);
    auto port = std::make_unique<PortSerial>();
    QVERIFY(openOn(*port, *pty));
    if (readmeHandler)
        closeWhenDeviceGone(*port);
    else
        QObject::connect(port->m_com, &QSerialPort::errorOccurred, port.get(), &PortSerial::handleError,
                         Qt::DirectConnection);

    QVERIFY(pty->deviceSends(kReply1));
    QTRY_COMPARE_WITH_TIMEOUT(testqueue::length(), size_t(1), kWaitMs);

    const QByteArray blockFrame = kReply2WithBlockOf100;
    const QByteArray firstPart(40, 'b');
    QVERIFY(pty->deviceSends(blockFrame + firstPart));
    // The worker has taken the frame and waits for the rest of its block.
    QTRY_COMPARE_WITH_TIMEOUT(buffData(*port), firstPart, kWaitMs);
    pty->closeMaster();

    // The wait for the block gives up; the reply is reported and dropped.
    QVERIFY(log.waitFor(recvLine(blockFrame) + QStringLiteral(" CheckBlock default:"), kWaitMs));
    if (!readmeHandler) {
        // The port stays open until a write fails.
        ProtocolData command;
        port->sendDatatoDevice(&command);
    }
    QTRY_VERIFY_WITH_TIMEOUT(!port->m_com->isOpen(), kWaitMs);
    if (readmeHandler) {
        // The port reads closed as soon as the close is under way on the I/O
        // thread; the buffers are emptied after it. Waiting for the I/O
        // thread's current call lets the close finish.
        syncWithIoThread(*port);
        QTRY_COMPARE_WITH_TIMEOUT(runningWorkers(*port), 0, kWaitMs);
        QCOMPARE(buffData(*port), QByteArray());
    }

    // Only the reply delivered before the hang-up is queued.
    std::vector<ProtocolData> records = testqueue::records();
    QCOMPARE(records.size(), size_t(1));
    QVERIFY(carries(records.front(), numbered(1)));
    QCOMPARE(log.count(recvLine(blockFrame) + QStringLiteral(" CheckBlock default:")), 1);

    // The device comes back on a new line; the application opens it.
    pty = std::make_unique<PseudoTerminal>();
    REQUIRE_PTY(*pty);
    QVERIFY(openOn(*port, *pty));
    QCOMPARE(runningWorkers(*port), 1);
    checkCarriesNextCommand(*port, *pty);
    records = testqueue::records();
    QCOMPARE(records.size(), size_t(2));
    QVERIFY(carries(records.front(), numbered(1)));
}

void TestSerialFaults::bytesArrivingWhileThePortIsReopenedMakeNoFalseOrRepeatedRecord()
{
    LogCapture log;
    PseudoTerminal pty;
    REQUIRE_PTY(pty);
    auto port = std::make_unique<PortSerial>();
    QVERIFY(openOn(*port, pty));
    const QString portName = port->m_com->portName();

    // The device sends numbered replies, about one a millisecond, until told
    // to stop (or for 2000 replies at most).
    constexpr int kMostDuringReopens = 2000;
    // Reply 0x102 as generated: 30 01 00 02 5A 00 00, check byte 8D.
    QCOMPARE(replyFrame(numbered(0x0102)), QByteArrayLiteral("[R300100025A00008D]"));
    std::atomic<bool> stop{false};
    std::atomic<int> sentDuringReopens{0};
    std::atomic<bool> writesFailed{false};
    {
        DeviceThread device([&] {
            QElapsedTimer timer;
            timer.start();
            for (int n = 0; n < kMostDuringReopens && !stop && timer.elapsed() < kWaitMs; ++n) {
                if (!pty.deviceSends(replyFrame(numbered(n))))
                    writesFailed = true;
                sentDuringReopens = n + 1;
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
        });
        const RaiseOnExit stopDevice{stop};
        // Reopen the port while the bytes keep coming.
        for (int reopen = 0; reopen < 10; ++reopen) {
            QTest::qWait(25); // replies come in meanwhile
            QVERIFY(openOn(*port, pty));
            QCOMPARE(runningWorkers(*port), 1);
        }
        stop = true;
        QTRY_VERIFY_WITH_TIMEOUT(device.done(), kWaitMs);
    }
    QVERIFY(!writesFailed);
    const int sent = sentDuringReopens;
    QVERIFY(sent > 0);

    // Once the reopening is over, every reply gets through.
    constexpr int kAfterReopens = 20;
    QByteArray after;
    for (int n = sent; n < sent + kAfterReopens; ++n)
        after += replyFrame(numbered(n));
    QVERIFY(pty.deviceSends(after));
    const auto allAfterQueued = [&] {
        std::set<int> numbers;
        for (const ProtocolData &record : testqueue::records())
            numbers.insert(numberOf(record));
        for (int n = sent; n < sent + kAfterReopens; ++n) {
            if (!numbers.count(n))
                return false;
        }
        return true;
    };
    QTRY_VERIFY_WITH_TIMEOUT(allAfterQueued(), kWaitMs);
    QTRY_COMPARE_WITH_TIMEOUT(buffData(*port), QByteArray(), kWaitMs);

    // Replies in the buffer when the port was reopened are lost, and no
    // other: each record is one that was sent, intact, and comes once.
    std::set<int> seen;
    for (const ProtocolData &record : testqueue::records()) {
        const int n = numberOf(record);
        QVERIFY2(n < sent + kAfterReopens, qPrintable(QStringLiteral("record %1 was never sent").arg(n)));
        QVERIFY(carries(record, numbered(n)));
        QVERIFY2(seen.insert(n).second, qPrintable(QStringLiteral("record %1 queued twice").arg(n)));
        QCOMPARE(record.linkByte, quint8(1));
        QCOMPARE(record.sourceText, portName);
        QCOMPARE(record.payload, QByteArray());
    }
    // A frame cut by a reopen is never mistaken for one.
    QCOMPARE(linesStartingWith(log, QStringLiteral("PortSerial::getArrayData")), 0);

    checkCarriesNextCommand(*port, pty);
}

void TestSerialFaults::floodOfGarbageDeliversEveryValidFrameOnce()
{
    LogCapture log;
    PseudoTerminal pty;
    REQUIRE_PTY(pty);
    auto port = std::make_unique<PortSerial>();
    QVERIFY(openOn(*port, pty));

    // The device's writes: garbage, then a reply (split at a random point, or
    // with its block in the same write). The garbage holds no "]", so no frame
    // can form in it or across its edges, but it is full of "[" and "[R".
    constexpr int kReplies = 150;
    std::mt19937 random(20240611);
    const auto below = [&random](int n) { return static_cast<int>(random() % static_cast<unsigned>(n)); };
    std::vector<QByteArray> writes;
    std::vector<std::array<quint8, 7>> replies;
    std::vector<QByteArray> blocks;
    // Reply 0x105 announcing seven bytes by 0x8E 0x27, in lower-case digits,
    // and a block 10 20 F0 with its check byte 20.
    QCOMPARE(replyFrame(numberedWithBlock(0x105, 0x8E, 7), generatedreplies::Digits::Lower),
             QByteArrayLiteral("[R31018e27050700f3]"));
    QCOMPARE(blockWithSum(QByteArray("\x10\x20\xF0", 3)), QByteArray("\x10\x20\xF0\x20", 4));
    for (int n = 0; n < kReplies; ++n) {
        QByteArray garbage;
        for (int i = below(240); i > 0; --i) {
            if (below(16) == 0)
                garbage += below(2) ? "[R" : "[";
            else
                garbage += char(below(256));
        }
        garbage.replace(']', '}');
        writes.push_back(garbage);

        QByteArray block;
        std::array<quint8, 7> reply = numbered(n);
        switch (n % 10) {
        case 3:
            block = blockWithSum(QByteArray(below(64), char(below(256))));
            reply = numberedWithBlock(n, 0x79, static_cast<unsigned short>(block.size()));
            break;
        case 5:
            block = blockWithSum(QByteArray::number(n) + QByteArray(below(40), ']'));
            reply = numberedWithBlock(n, 0x8E, static_cast<unsigned short>(block.size()));
            break;
        case 7:
            reply = numberedWithBlock(n, 0xE1, 0);
            break;
        default:
            break;
        }
        const QByteArray bytes = replyFrame(reply, below(2) ? generatedreplies::Digits::Upper
                                                            : generatedreplies::Digits::Lower);
        if (block.isEmpty() && reply[2] != 0xE1) {
            const int cut = below(bytes.size());
            writes.push_back(bytes.left(cut));
            writes.push_back(bytes.mid(cut));
        } else {
            writes.push_back(bytes + block);
        }
        replies.push_back(reply);
        blocks.push_back(block);
    }

    {
        std::atomic<bool> writesFailed{false};
        DeviceThread device([&] {
            for (const QByteArray &bytes : writes) {
                if (!bytes.isEmpty() && !pty.deviceSends(bytes))
                    writesFailed = true;
            }
        });
        QTRY_COMPARE_WITH_TIMEOUT(testqueue::length(), size_t(kReplies), kWaitMs);
        QTRY_VERIFY_WITH_TIMEOUT(device.done(), kWaitMs);
        QVERIFY(!writesFailed);
    }
    // Nothing more comes once the garbage is worked through.
    QTRY_VERIFY_WITH_TIMEOUT(buffData(*port).size() < 19, kWaitMs);
    QTest::qWait(50); // a few more worker turns, to see that no record follows

    std::vector<ProtocolData> records = testqueue::records();
    QCOMPARE(records.size(), size_t(kReplies));
    std::sort(records.begin(), records.end(),
              [](const ProtocolData &a, const ProtocolData &b) { return numberOf(a) < numberOf(b); });
    for (int n = 0; n < kReplies; ++n) {
        QCOMPARE(numberOf(records[n]), n);
        QVERIFY(carries(records[n], replies[n]));
        QCOMPARE(records[n].payload, blocks[n]);
        QCOMPARE(records[n].linkByte, quint8(1));
    }
    QCOMPARE(linesStartingWith(log, QStringLiteral("PortSerial::getArrayData")), 0);
    QCOMPARE(linesStartingWith(log, QStringLiteral("Recv data:")), kReplies);

    checkCarriesNextCommand(*port, pty);
}

// A line that sends "[" bytes and nothing else (noise, a wrong baud rate):
// each turn takes one of them, so they pile up. The receive buffer stops at
// its cap, dropping the oldest, and says so once.
void TestSerialFaults::floodOfTenMegabytesOfBracketsKeepsTheBufferBounded()
{
    constexpr int kFloodBytes = 10 * 1024 * 1024;
    constexpr int kWriteBytes = 64 * 1024;
    constexpr int kCap = 262144;
    LogCapture log;
    PseudoTerminal pty;
    REQUIRE_PTY(pty);
    auto port = std::make_unique<PortSerial>();
    QVERIFY(openOn(*port, pty));
    const long residentBefore = residentKiB();

    int largest = 0;
    {
        std::atomic<bool> writesFailed{false};
        DeviceThread device([&] {
            const QByteArray brackets(kWriteBytes, '[');
            for (int sent = 0; sent < kFloodBytes; sent += kWriteBytes) {
                if (!pty.deviceSends(brackets)) {
                    writesFailed = true;
                    return;
                }
            }
        });
        QElapsedTimer timer;
        timer.start();
        for (int looks = 0; looks < 100000 && !device.done() && timer.elapsed() < kWaitMs; ++looks) {
            largest = std::max(largest, int(buffData(*port).size()));
            QTest::qWait(5);
        }
        QTRY_VERIFY_WITH_TIMEOUT(device.done(), kWaitMs);
        QVERIFY(!writesFailed);
    }
    QVERIFY2(largest <= kCap, qPrintable(QStringLiteral("the buffer held %1 bytes").arg(largest)));
    // The last of the flood reaches the buffer, which stays at its cap.
    QTRY_VERIFY_WITH_TIMEOUT(linesStartingWith(log, QStringLiteral("Receive buffer full")) == 1, kWaitMs);
    largest = std::max(largest, int(buffData(*port).size()));
    QVERIFY2(largest <= kCap, qPrintable(QStringLiteral("the buffer held %1 bytes").arg(largest)));
    QVERIFY2(largest >= kCap - kWriteBytes, qPrintable(QString::number(largest)));
    QCOMPARE(log.lines().filter(QStringLiteral("Receive buffer")),
             QStringList{QStringLiteral("Receive buffer full (262144 bytes): dropping the oldest bytes")});
    const long grown = residentKiB() - residentBefore;
    if (!kSanitized)
        QVERIFY2(grown < 8 * 1024, qPrintable(QStringLiteral("resident memory grew by %1 KiB").arg(grown)));

    // Reopened, the port starts with an empty buffer and carries the next
    // command and its reply.
    port->closeSerialPort();
    QVERIFY(openOn(*port, pty));
    QCOMPARE(buffData(*port), QByteArray());
    checkCarriesNextCommand(*port, pty);
}

QTEST_GUILESS_MAIN(TestSerialFaults)
#include "tst_faults_serial.moc"
