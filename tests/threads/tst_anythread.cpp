// Calls from any thread, while the thread that created the transport is
// blocked in join() (and so runs no event loop) or has already ended: every
// call returns, every frame reaches the device whole and exactly once, and
// replies still reach the receive queue.
#include <QtTest>

#include <QElapsedTimer>

#include <atomic>
#include <chrono>
#include <map>
#include <memory>
#include <set>
#include <thread>
#include <vector>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "CommandFrame.h"
#include "LogCapture.h"
#include "LoopbackUdpSocket.h"
#include "PortSerial.h"
#include "PortUDP.h"
#include "PseudoTerminal.h"
#include "ReceiveQueue.h"
#include "SerialLink.h"
#include "ThreadCount.h"
#include "TransportProbe.h"

namespace {
constexpr int kSenders = 2;
constexpr int kCommandsEach = 1000;
constexpr qint64 kDeadlineMs = 30000;

// Replies of command 0x21 to 0x24 with all parameters 0, as the device sends
// them: "[" "R", B0..B6 and their 8-bit sum (here B0) as hex digits, "]".
const QByteArray kReply21 = QByteArrayLiteral("[R2100000000000021]");
const QByteArray kReply22 = QByteArrayLiteral("[R2200000000000022]");
const QByteArray kReply23 = QByteArrayLiteral("[R2300000000000023]");
const QByteArray kReply24 = QByteArrayLiteral("[R2400000000000024]");

// A command whose parameter bytes carry its sender and sequence number.
ProtocolData numberedCommand(int sender, int seq)
{
    ProtocolData record;
    record.commandByte = 0x40 + quint8(sender);
    record.paramBytes[0] = quint8(seq);
    record.paramBytes[1] = quint8(seq >> 8);
    return record;
}

// The frame numberedCommand(sender, seq) is sent as.
QByteArray numberedFrame(int sender, int seq)
{
    return comm::commandFrame(numberedCommand(sender, seq));
}

// Every frame that was sent, once each.
std::set<QByteArray> allFrames()
{
    std::set<QByteArray> frames;
    for (int sender = 0; sender < kSenders; ++sender)
        for (int seq = 0; seq < kCommandsEach; ++seq)
            frames.insert(numberedFrame(sender, seq));
    return frames;
}

// kSenders threads send kCommandsEach commands each through port, then the
// calling thread joins them: it runs no event loop meanwhile.
void sendFromWorkersAndJoin(PortBase &port)
{
    std::vector<std::thread> senders;
    for (int sender = 0; sender < kSenders; ++sender)
        senders.emplace_back([&port, sender] {
            for (int seq = 0; seq < kCommandsEach; ++seq) {
                ProtocolData record = numberedCommand(sender, seq);
                port.sendDatatoDevice(&record);
                // A breath now and then for the device's reader, where the
                // system does not let its socket hold every datagram.
                if (seq % 100 == 99)
                    std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
        });
    for (std::thread &sender : senders)
        sender.join();
}

// A network device that needs no event loop: a plain socket on 127.0.0.1,
// read by a thread of its own, which collects datagrams until it has count of
// them or the deadline passes, and can answer the last sender.
class ThreadUdpDevice
{
public:
    // Room for every datagram of a test even while the reading thread waits
    // for a processor.
    ThreadUdpDevice()
        : m_socket(16 * 1024 * 1024)
    {
    }
    ~ThreadUdpDevice()
    {
        if (m_reader.joinable())
            m_reader.join();
    }
    quint16 port() const { return m_socket.port(); }

    void collect(int count)
    {
        m_reader = std::thread([this, count] {
            QElapsedTimer timer;
            timer.start();
            char buffer[2048];
            while (int(m_datagrams.size()) < count && timer.elapsed() < kDeadlineMs) {
                pollfd wait{m_socket.fd(), POLLIN, 0};
                if (::poll(&wait, 1, 50) <= 0)
                    continue;
                socklen_t size = sizeof(m_lastSender);
                const ssize_t n = ::recvfrom(m_socket.fd(), buffer, sizeof(buffer), 0,
                                             reinterpret_cast<sockaddr *>(&m_lastSender), &size);
                if (n >= 0)
                    m_datagrams.emplace_back(buffer, int(n));
            }
        });
    }
    // The datagrams collected; call after join().
    std::vector<QByteArray> join()
    {
        if (m_reader.joinable())
            m_reader.join();
        return m_datagrams;
    }
    // Answers the sender of the last datagram collected; call after join().
    bool reply(const QByteArray &bytes)
    {
        return ::sendto(m_socket.fd(), bytes.constData(), size_t(bytes.size()), 0,
                        reinterpret_cast<const sockaddr *>(&m_lastSender), sizeof(m_lastSender))
               == bytes.size();
    }

private:
    LoopbackUdpSocket m_socket;
    sockaddr_in m_lastSender{};
    std::vector<QByteArray> m_datagrams;
    std::thread m_reader;
};

// A network transport made on the calling thread and pointed at device.
std::unique_ptr<PortUDP> transportFor(const ThreadUdpDevice &device)
{
    auto port = std::make_unique<PortUDP>();
    port->setDeviceIP(QStringLiteral("127.0.0.1"));
    port->setPort(device.port());
    return port;
}

// Cuts the bytes a serial device received into command frames (headers only:
// the commands here have no payload).
std::vector<QByteArray> framesIn(const QByteArray &stream)
{
    std::vector<QByteArray> frames;
    for (int at = 0; at + 19 <= stream.size(); at += 19)
        frames.push_back(stream.mid(at, 19));
    return frames;
}

// Reads what the device side of pty receives, on a thread of its own, until
// count bytes or the deadline.
class SerialDeviceReader
{
public:
    SerialDeviceReader(PseudoTerminal &pty, int count)
        : m_reader([this, &pty, count] {
            QElapsedTimer timer;
            timer.start();
            while (m_bytes.size() < count && timer.elapsed() < kDeadlineMs) {
                const QByteArray piece = pty.deviceReceives(count - m_bytes.size(), 50);
                m_bytes += piece;
            }
        })
    {
    }
    ~SerialDeviceReader()
    {
        if (m_reader.joinable())
            m_reader.join();
    }
    QByteArray join()
    {
        m_reader.join();
        return m_bytes;
    }

private:
    QByteArray m_bytes;
    std::thread m_reader;
};

void checkEachFrameOnce(const std::vector<QByteArray> &received)
{
    std::map<QByteArray, int> counts;
    for (const QByteArray &frame : received)
        ++counts[frame];
    const std::set<QByteArray> expected = allFrames();
    QCOMPARE(received.size(), expected.size());
    for (const QByteArray &frame : expected)
        QVERIFY2(counts[frame] == 1, frame.constData());
}
} // namespace

class TestAnyThread : public QObject
{
    Q_OBJECT

private slots:
    void init() { testqueue::reset(); }
    void cleanupTestCase() { testqueue::reset(); }

    void udpSendsFromWorkersWhileCreatorIsJoinedEndWithinASecond();
    void udpSendsFromTwoWorkersWhileCreatorIsJoinedArriveOnceEach();
    void udpSendsFromTwoWorkersAfterCreatorEndedArriveOnceEach();
    void serialSendsFromTwoWorkersWhileCreatorIsJoinedArriveOnceEach();
    void serialSendsFromTwoWorkersAfterCreatorEndedArriveOnceEach();
    void udpRebuildAndSendFromWorkerWhileCreatorIsJoined();
    void serialOpenSendAndCloseFromWorkerWhileCreatorIsJoined();
    void deleteFromAnotherThreadLeavesNoThreadAndKeepsQueuedRecords();
    void invokeWithDefaultConnectionOnCreatingThreadIsSynchronous();
};

void TestAnyThread::udpSendsFromWorkersWhileCreatorIsJoinedEndWithinASecond()
{
    // A network transport made here, 50 commands from a worker, this thread
    // in join(): the application that used to hang.
    QLoggingCategory::setFilterRules(QStringLiteral("default.debug=false"));
    ThreadUdpDevice device;
    QVERIFY(device.port() != 0);
    const std::unique_ptr<PortUDP> port = transportFor(device);
    device.collect(50);
    QElapsedTimer timer;
    timer.start();
    std::thread worker([&port] {
        for (int seq = 0; seq < 50; ++seq) {
            ProtocolData record = numberedCommand(0, seq);
            port->sendDatatoDevice(&record);
        }
    });
    worker.join();
    const qint64 elapsed = timer.elapsed();
    QLoggingCategory::setFilterRules(QString());
    qInfo("50 sends from a worker, creator joined: %lld ms", elapsed);
    QVERIFY2(elapsed < 1000, qPrintable(QStringLiteral("%1 ms").arg(elapsed)));
    QCOMPARE(device.join().size(), size_t(50));
}

void TestAnyThread::udpSendsFromTwoWorkersWhileCreatorIsJoinedArriveOnceEach()
{
    QLoggingCategory::setFilterRules(QStringLiteral("default.debug=false"));
    ThreadUdpDevice device;
    QVERIFY(device.port() != 0);
    const std::unique_ptr<PortUDP> port = transportFor(device);
    device.collect(kSenders * kCommandsEach);
    sendFromWorkersAndJoin(*port);
    QLoggingCategory::setFilterRules(QString());
    checkEachFrameOnce(device.join());
}

void TestAnyThread::udpSendsFromTwoWorkersAfterCreatorEndedArriveOnceEach()
{
    QLoggingCategory::setFilterRules(QStringLiteral("default.debug=false"));
    ThreadUdpDevice device;
    QVERIFY(device.port() != 0);
    std::unique_ptr<PortUDP> port;
    std::thread creator([&] { port = transportFor(device); });
    creator.join();
    device.collect(kSenders * kCommandsEach);
    sendFromWorkersAndJoin(*port);
    QLoggingCategory::setFilterRules(QString());
    checkEachFrameOnce(device.join());
    // A reply still arrives: it is read on the transport's own thread.
    QVERIFY(device.reply(kReply21));
    QTRY_COMPARE(testqueue::length(), size_t(1));
    port.reset(); // from a thread other than the (finished) creator
}

void TestAnyThread::serialSendsFromTwoWorkersWhileCreatorIsJoinedArriveOnceEach()
{
    QLoggingCategory::setFilterRules(QStringLiteral("default.debug=false"));
    PseudoTerminal pty;
    REQUIRE_PTY(pty);
    PortSerial port;
    QVERIFY(openOn(port, pty));
    SerialDeviceReader device(pty, kSenders * kCommandsEach * 19);
    sendFromWorkersAndJoin(port);
    QLoggingCategory::setFilterRules(QString());
    checkEachFrameOnce(framesIn(device.join()));
}

void TestAnyThread::serialSendsFromTwoWorkersAfterCreatorEndedArriveOnceEach()
{
    QLoggingCategory::setFilterRules(QStringLiteral("default.debug=false"));
    PseudoTerminal pty;
    REQUIRE_PTY(pty);
    std::unique_ptr<PortSerial> port;
    bool opened = false;
    std::thread creator([&] {
        port = std::make_unique<PortSerial>();
        opened = openOn(*port, pty);
    });
    creator.join();
    QVERIFY(opened);
    SerialDeviceReader device(pty, kSenders * kCommandsEach * 19);
    sendFromWorkersAndJoin(*port);
    QLoggingCategory::setFilterRules(QString());
    checkEachFrameOnce(framesIn(device.join()));
    QVERIFY(pty.deviceSends(kReply21));
    QTRY_COMPARE(testqueue::length(), size_t(1));
}

void TestAnyThread::udpRebuildAndSendFromWorkerWhileCreatorIsJoined()
{
    ThreadUdpDevice device;
    QVERIFY(device.port() != 0);
    PortUDP port;
    port.setPort(device.port());
    device.collect(2);
    LogCapture log;
    std::thread worker([&] {
        // reInitUdp drops the device address; reInitUdpZabrel keeps it.
        port.reInitUdp();
        port.setDeviceIP(QStringLiteral("127.0.0.1"));
        port.reInitUdpZabrel();
        ProtocolData record = numberedCommand(1, 1);
        port.sendDatatoDevice(&record);
        port.reInitUdpZabrel();
        port.sendDatatoDevice(&record);
    });
    worker.join();
    const std::vector<QByteArray> received = device.join();
    QCOMPARE(received.size(), size_t(2));
    QCOMPARE(received.at(0), numberedFrame(1, 1));
    QCOMPARE(received.at(1), numberedFrame(1, 1));
    const QString sendData = QStringLiteral("Send data:") + QString::fromLatin1(numberedFrame(1, 1));
    QCOMPARE(log.lines(), (QStringList{"Send successful", sendData, "Send successful", sendData}));
    // The second socket took a port of its own, and the device's answer reaches it.
    QVERIFY(device.reply(kReply22));
    QTRY_COMPARE(testqueue::length(), size_t(1));
    QCOMPARE(log.warnings(), QStringList());
}

void TestAnyThread::serialOpenSendAndCloseFromWorkerWhileCreatorIsJoined()
{
    PseudoTerminal pty;
    REQUIRE_PTY(pty);
    PortSerial port;
    LogCapture log;
    std::atomic<bool> opened{false};
    std::atomic<bool> replied{false};
    std::atomic<bool> closed{false};
    std::thread worker([&] {
        opened = openOn(port, pty);
        ProtocolData record = numberedCommand(1, 7);
        port.sendDatatoDevice(&record);
        // The device answers; the reply is read on the transport's thread.
        pty.deviceSends(kReply23);
        QElapsedTimer timer;
        timer.start();
        while (testqueue::length() < 1 && timer.elapsed() < kDeadlineMs)
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        replied = testqueue::length() == 1;
        port.closeSerialPort();
        closed = !port.m_com->isOpen();
    });
    worker.join();
    QVERIFY(opened.load());
    QVERIFY(replied.load());
    QVERIFY(closed.load());
    QCOMPARE(pty.deviceReceives(19, 1000), numberedFrame(1, 7));
    QCOMPARE(runningWorkers(port), 0);
    QCOMPARE(log.warnings(), QStringList());
}

void TestAnyThread::deleteFromAnotherThreadLeavesNoThreadAndKeepsQueuedRecords()
{
    PseudoTerminal pty;
    REQUIRE_PTY(pty);
    LogCapture log;
    const int threadsBefore = threadCount();
    auto serial = std::make_unique<PortSerial>();
    auto udp = std::make_unique<PortUDP>();
    QVERIFY(openOn(*serial, pty));
    QVERIFY(pty.deviceSends(kReply24));
    QTRY_COMPARE(testqueue::length(), size_t(1));
    std::thread deleter([&] {
        serial.reset();
        udp.reset();
    });
    deleter.join();
    // Every thread the transports started has ended with the delete (the
    // kernel may list a thread a moment after it has finished its work).
    QTRY_VERIFY(threadCount() <= threadsBefore);
    QCOMPARE(testqueue::length(), size_t(1));
    QCOMPARE(log.warnings(), QStringList());
}

void TestAnyThread::invokeWithDefaultConnectionOnCreatingThreadIsSynchronous()
{
    ThreadUdpDevice device;
    QVERIFY(device.port() != 0);
    const std::unique_ptr<PortUDP> port = transportFor(device);
    device.collect(2);
    LogCapture log;
    const QString sendData = QStringLiteral("Send data:") + QString::fromLatin1(numberedFrame(1, 2));
    for (int i = 0; i < 2; ++i) {
        // The record is this scope's: the call has used it by the time it returns.
        ProtocolData record = numberedCommand(1, 2);
        QVERIFY(QMetaObject::invokeMethod(port.get(), "sendDatatoDevice", Q_ARG(void *, &record)));
        QCOMPARE(log.lines().size(), 2 * (i + 1));
        QCOMPARE(log.lines().constLast(), sendData);
    }
    const std::vector<QByteArray> received = device.join();
    QCOMPARE(received.size(), size_t(2));
    QCOMPARE(received.at(0), numberedFrame(1, 2));
}

QTEST_GUILESS_MAIN(TestAnyThread)
#include "tst_anythread.moc"
