// Switching links through the factory again and again while every device keeps
// talking: replies and garbage on the network, on a serial line and over USB.
// Afterwards the receive queue must hold only valid replies that were really
// sent, none twice, and nothing may have touched a deleted transport (the
// sanitizer builds check that part).
#include <QtTest>
#include <QUdpSocket>

#include <atomic>
#include <fcntl.h>
#include <mutex>
#include <poll.h>
#include <pty.h>
#include <set>
#include <termios.h>
#include <thread>
#include <unistd.h>

#include "CommandFrame.h"
#include "GeneratedReplies.h"
#include "LogCapture.h"
#include "PortInterface.h"
#include "ReceiveQueue.h"
#include "PortSerial.h"
#include "PortUSB.h"
#include "SimulatedHid.h"
#include "TransportProbe.h"

using generatedreplies::replyFrame;

namespace {
constexpr int kSwitches = 1002; // a multiple of three: every link as often
constexpr qint64 kDeadlineMs = 50000;

// Which replies each device really sent, by link byte, command byte and the
// sequence number carried in the parameter bytes.
class SentReplies
{
public:
    void add(quint8 link, quint8 cmd, quint32 seq)
    {
        std::lock_guard<std::mutex> guard(m_lock);
        m_sent.insert(key(link, cmd, seq));
    }
    bool contains(quint8 link, quint8 cmd, quint32 seq) const
    {
        std::lock_guard<std::mutex> guard(m_lock);
        return m_sent.count(key(link, cmd, seq)) != 0;
    }
    size_t size() const
    {
        std::lock_guard<std::mutex> guard(m_lock);
        return m_sent.size();
    }
    static quint64 key(quint8 link, quint8 cmd, quint32 seq) { return quint64(link) << 40 | quint64(cmd) << 32 | seq; }

private:
    mutable std::mutex m_lock;
    std::set<quint64> m_sent;
};

// Parameter bytes carrying a sequence number, with P2 = 0 and no block
// announced on any link: P1 low byte, P3 middle, P4 high.
std::array<quint8, 7> sequenced(quint8 cmd, quint32 seq)
{
    return {cmd, quint8(seq), 0x00, quint8(seq >> 8), quint8(seq >> 16), 0x00, 0x00};
}

quint32 sequenceOf(const ProtocolData &record)
{
    return quint32(record.paramBytes[0]) | quint32(record.paramBytes[2]) << 8 | quint32(record.paramBytes[3]) << 16;
}

// The network device: answers every command with one valid reply and two
// garbage datagrams, from its own port on 127.0.0.1.
class UdpDevice : public QObject
{
public:
    explicit UdpDevice(SentReplies &sent)
        : m_sent(sent)
    {
        m_socket.bind(QHostAddress(QHostAddress::LocalHost), 0);
        connect(&m_socket, &QUdpSocket::readyRead, this, [this] { answer(); });
    }
    quint16 port() const { return m_socket.localPort(); }

private:
    void answer()
    {
        for (int i = 0; i < 100 && m_socket.hasPendingDatagrams(); ++i) {
            QByteArray datagram(int(qMax<qint64>(m_socket.pendingDatagramSize(), 0)), '\0');
            QHostAddress sender;
            quint16 senderPort = 0;
            m_socket.readDatagram(datagram.data(), datagram.size(), &sender, &senderPort);
            const quint32 seq = m_next++;
            const QByteArray reply = replyFrame(sequenced(0xA1, seq));
            m_sent.add(0, 0xA1, seq);
            m_socket.writeDatagram(reply, sender, senderPort);
            m_socket.writeDatagram(QByteArray("garbage"), sender, senderPort);
            m_socket.writeDatagram(QByteArray("[R0000000000000099]"), sender, senderPort); // wrong check byte
        }
    }

    QUdpSocket m_socket;
    SentReplies &m_sent;
    quint32 m_next = 0;
};

// The serial device: a pseudo-terminal whose master side a thread keeps
// writing valid frames and garbage to, whoever has the slave side open.
class SerialDevice
{
public:
    explicit SerialDevice(SentReplies &sent)
        : m_sent(sent)
    {
        char name[256] = {};
        if (::openpty(&m_master, &m_slave, name, nullptr, nullptr) != 0)
            return;
        termios settings{};
        ::tcgetattr(m_master, &settings);
        ::cfmakeraw(&settings);
        ::tcsetattr(m_master, TCSANOW, &settings);
        ::fcntl(m_master, F_SETFL, ::fcntl(m_master, F_GETFL) | O_NONBLOCK);
        m_path = QString::fromLocal8Bit(name);
        m_writer = std::thread([this] { write(); });
    }
    ~SerialDevice()
    {
        m_stop = true;
        if (m_writer.joinable())
            m_writer.join();
        if (m_master >= 0)
            ::close(m_master);
        if (m_slave >= 0)
            ::close(m_slave);
    }
    QString path() const { return m_path; }

private:
    void write()
    {
        QByteArray pending;
        quint32 seq = 0;
        QElapsedTimer timer;
        timer.start();
        // Bounded: at most the test's deadline, and a fixed number of frames.
        while (!m_stop && timer.elapsed() < kDeadlineMs + 10000 && seq < 200000) {
            if (pending.isEmpty()) {
                static const char *const garbage[] = {"zz", "\x00\xff\x7f", "[Q", "[Rxx", "]]"};
                pending = QByteArray(garbage[seq % 5]) + replyFrame(sequenced(0xB2, seq));
                m_sent.add(1, 0xB2, seq); // counted once fully queued for writing: the stream stays whole
                ++seq;
            }
            // What the transports write is read and dropped, so that a
            // port's output never backs up.
            char sink[512];
            while (::read(m_master, sink, sizeof sink) > 0) {
            }
            const ssize_t n = ::write(m_master, pending.constData(), size_t(pending.size()));
            if (n > 0)
                pending.remove(0, int(n));
            else
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            if (seq % 8 == 0)
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }

    SentReplies &m_sent;
    int m_master = -1;
    int m_slave = -1;
    QString m_path;
    std::atomic<bool> m_stop{false};
    std::thread m_writer;
};

// The USB device: a thread keeps queueing input reports, each a valid frame
// behind some garbage and padded with zeros as a HID device pads them.
class UsbDevice
{
public:
    static constexpr unsigned short kVid = 0x0483;
    static constexpr unsigned short kPid = 0x5750;

    explicit UsbDevice(SentReplies &sent)
        : m_sent(sent)
    {
        simhid::reset(kVid, kPid);
        m_feeder = std::thread([this] { feed(); });
    }
    ~UsbDevice()
    {
        m_stop = true;
        m_feeder.join();
    }

private:
    void feed()
    {
        QElapsedTimer timer;
        timer.start();
        quint32 seq = 0;
        while (!m_stop && timer.elapsed() < kDeadlineMs + 10000 && seq < 100000) {
            // Keep a few reports waiting, no more: an open device drains them.
            if (simhid::pendingInput() < 4) {
                QByteArray report = (seq % 3 == 0 ? QByteArray("\x01junk") : QByteArray())
                                    + replyFrame(sequenced(0xC3, seq));
                m_sent.add(2, 0xC3, seq);
                ++seq;
                simhid::queueInput(report.leftJustified(64, '\0'));
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
    }

    SentReplies &m_sent;
    std::atomic<bool> m_stop{false};
    std::thread m_feeder;
};

void shortPause(std::chrono::milliseconds)
{
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

// Every device talking, with the debug log off (thousands of log lines would
// only bury the result), an empty queue, and the USB transport's open and
// close pauses short: a thousand of them at 100 ms each would take minutes,
// and the workers' hand-over does not depend on the pause's length.
struct Traffic
{
    Traffic()
    {
        QLoggingCategory::setFilterRules(QStringLiteral("default.debug=false"));
        testqueue::reset();
        PortUSBPrivate::setOpenClosePause(shortPause);
    }
    ~Traffic()
    {
        PortUSBPrivate::setOpenClosePause(nullptr);
        testqueue::reset();
    }

    SentReplies sent;
    UdpDevice udp{sent};
    SerialDevice serial{sent};
    UsbDevice usb{sent};
};

void pumpEvents(int ms)
{
    QElapsedTimer timer;
    timer.start();
    while (timer.elapsed() < ms)
        QCoreApplication::processEvents(QEventLoop::AllEvents, 1);
}

// Makes the current transport for switch number n (USB, serial, network in
// turn) and opens its link; on the network link one command goes out, which
// gives the socket its port.
PortBase *switchTo(int n, const QString &serialPath, quint16 udpPort)
{
    const int type = n % 3;
    PortBase *port = PortInterface::creatCoreObj(ConnType(type));
    if (type == ConnUSB) {
        port->openUSB(UsbDevice::kVid, UsbDevice::kPid);
    } else if (type == ConnSerial) {
        port->openSerialPort(serialPath, QSerialPort::Baud115200, QSerialPort::OneStop, QSerialPort::NoParity,
                             QSerialPort::NoFlowControl, QSerialPort::Data8);
    } else {
        port->setDeviceIP(QStringLiteral("127.0.0.1"));
        port->setPort(udpPort);
        ProtocolData command;
        command.commandByte = 0x01;
        port->sendDatatoDevice(&command);
    }
    return port;
}

// Every record on the queue is a valid reply that a device really sent, none
// twice, and every link delivered some.
void checkQueuedRepliesWereSent(const SentReplies &sent, int switches, qint64 elapsedMs)
{
    const std::vector<ProtocolData> records = testqueue::records();
    std::set<quint64> seen;
    int perLink[3] = {0, 0, 0};
    for (const ProtocolData &record : records) {
        QVERIFY(record.linkByte <= 2);
        QCOMPARE(record.checksumByte, comm::commandChecksum(record));
        const quint32 seq = sequenceOf(record);
        QVERIFY2(sent.contains(record.linkByte, record.commandByte, seq),
                 qPrintable(QStringLiteral("link %1 cmd %2 seq %3 was never sent")
                                .arg(record.linkByte)
                                .arg(record.commandByte)
                                .arg(seq)));
        QVERIFY2(seen.insert(SentReplies::key(record.linkByte, record.commandByte, seq)).second,
                 "a reply queued twice");
        ++perLink[record.linkByte];
    }
    qInfo("%d switches in %lld ms; queued replies: network %d, serial %d, usb %d (of %zu sent)", switches, elapsedMs,
          perLink[0], perLink[1], perLink[2], sent.size());
    QVERIFY(perLink[0] > 0);
    QVERIFY(perLink[1] > 0);
    QVERIFY(perLink[2] > 0);
}
} // namespace

class TestLinkSwitch : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void switchingLinksUnderTrafficKeepsOnlySentReplies();
    void switchingFromAWorkerThreadWhileAnotherThreadSends();
};

void TestLinkSwitch::initTestCase()
{
    // The devices' replies are generated; these are as each device sends them:
    // "[" "R", then B0..B6 and their 8-bit sum as hex digit pairs, then "]".
    QCOMPARE(replyFrame(sequenced(0xA1, 0x030201)), QByteArrayLiteral("[RA1010002030000A7]"));
    QCOMPARE(replyFrame(sequenced(0xB2, 0x0A0B0C)), QByteArrayLiteral("[RB20C000B0A0000D3]"));
    QCOMPARE(replyFrame(sequenced(0xC3, 0xFFFFFF)), QByteArrayLiteral("[RC3FF00FFFF0000C0]"));
}

void TestLinkSwitch::switchingLinksUnderTrafficKeepsOnlySentReplies()
{
    Traffic traffic;
    QVERIFY(!traffic.serial.path().isEmpty());

    QElapsedTimer timer;
    timer.start();
    int switches = 0;
    for (; switches < kSwitches && timer.elapsed() < kDeadlineMs; ++switches) {
        const int type = switches % 3;
        PortBase *port = switchTo(switches, traffic.serial.path(), traffic.udp.port());
        QCOMPARE(PortInterface::iCORE, port);
        if (type == ConnUSB)
            QVERIFY(isOpen(*static_cast<PortUSB *>(port)));
        else if (type == ConnSerial)
            QVERIFY(static_cast<PortSerial *>(port)->m_com->isOpen());
        // Let replies arrive, some of them only while the next switch happens.
        // Now and then a USB transport lives long enough for its reader and
        // worker (20 ms cycles) to hand replies over.
        pumpEvents(type == ConnUSB && switches % 30 == 0 ? 80 : switches % 7);
    }
    delete PortInterface::iCORE;
    PortInterface::iCORE = nullptr;
    QCOMPARE(switches, kSwitches);
    checkQueuedRepliesWereSent(traffic.sent, switches, timer.elapsed());
}

void TestLinkSwitch::switchingFromAWorkerThreadWhileAnotherThreadSends()
{
    // The factory used from a worker thread, one thread at a time: no thread
    // holds the current transport across a switch, so the sender takes it
    // afresh under the same lock as the switch.
    Traffic traffic;
    QVERIFY(!traffic.serial.path().isEmpty());
    LogCapture log; // no Qt warning about objects of another thread
    const QString serialPath = traffic.serial.path();
    const quint16 udpPort = traffic.udp.port();

    std::mutex current;
    std::atomic<bool> done{false};
    std::atomic<int> switches{0};
    std::atomic<int> sends{0};
    QElapsedTimer timer;
    timer.start();
    std::thread switcher([&] {
        for (int n = 0; n < kSwitches && timer.elapsed() < kDeadlineMs; ++n) {
            {
                std::lock_guard<std::mutex> guard(current);
                switchTo(n, serialPath, udpPort);
            }
            switches = n + 1;
            std::this_thread::sleep_for(std::chrono::milliseconds(n % 30 == 0 ? 40 : n % 5));
        }
        std::lock_guard<std::mutex> guard(current);
        delete PortInterface::iCORE;
        PortInterface::iCORE = nullptr;
        done = true;
    });
    std::thread sender([&] {
        ProtocolData command;
        command.commandByte = 0x02;
        while (!done && timer.elapsed() < kDeadlineMs + 5000) {
            {
                std::lock_guard<std::mutex> guard(current);
                if (PortInterface::iCORE) {
                    PortInterface::iCORE->sendDatatoDevice(&command);
                    ++sends;
                }
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    });
    // This thread plays the network device, whose socket lives here.
    while (!done && timer.elapsed() < kDeadlineMs + 5000)
        QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
    switcher.join();
    sender.join();
    QVERIFY(done.load());
    QCOMPARE(switches.load(), kSwitches);
    QVERIFY(sends.load() > 0);
    QCOMPARE(PortInterface::iCORE, nullptr);
    checkQueuedRepliesWereSent(traffic.sent, switches, timer.elapsed());
    QCOMPARE(log.warnings(), QStringList());
}

QTEST_GUILESS_MAIN(TestLinkSwitch)
#include "tst_linkswitch.moc"
