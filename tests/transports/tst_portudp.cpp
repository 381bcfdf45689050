#include <QtTest>

#include <atomic>
#include <memory>
#include <thread>

#include <QPointer>
#include <QUdpSocket>

#include "FakeUdpDevice.h"
#include "LocalAddress.h"
#include "LogCapture.h"
#include "OtherThread.h"
#include "PortUDP.h"
#include "ProbePortUDP.h"
#include "ReceiveQueue.h"
#include "ReplyDatagrams.h"

namespace {
const QString kSizeLine = QStringLiteral("datagram.size()!=19 return");
const QString kMarkerLine = QStringLiteral("no '[' 'R' ");
const QString kChecksumLine = QStringLiteral("CHKSUM Wrong return");
// The frame of command(): command byte 0x5A, parameter bytes 01..06.
const QByteArray kFrame("[A5a0102030405066f]");
const QHostAddress kLoopback(QHostAddress::LocalHost);
constexpr auto kDeviceType = static_cast<ModulelEnum::DeviceType>(7);

ProtocolData command(quint8 sendMode, const QByteArray &payload = QByteArray())
{
    ProtocolData record;
    record.commandByte = 0x5A;
    for (int i = 0; i < 6; ++i)
        record.paramBytes[i] = static_cast<quint8>(i + 1);
    record.payload = payload;
    record.sendMode = sendMode;
    return record;
}

void send(PortBase &port, ProtocolData record)
{
    port.sendDatatoDevice(&record);
}

QByteArray numberedBytes(int count)
{
    QByteArray bytes(count, Qt::Uninitialized);
    for (int i = 0; i < count; ++i)
        bytes[i] = static_cast<char>(1 + i % 251);
    return bytes;
}

enum class Action { Queue, DeliverAtOnce, Hold, BlockData };

// Holds the receive queue's lock on a thread of its own, so that detached
// hand-offs block on it, until releaseSoon() lets it go a little later.
class QueueLockHolder
{
public:
    QueueLockHolder()
        : m_holder([this] {
            std::lock_guard<std::mutex> guard(CmdDealModule::receiveHexCmdlock);
            m_locked = true;
            for (int i = 0; i < 5000 && !m_release.load(); ++i)
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
        })
    {
    }

    ~QueueLockHolder()
    {
        m_release = true;
        m_holder.join();
        if (m_releaser.joinable())
            m_releaser.join();
    }

    bool isLocked() const { return m_locked.load(); }

    // Lets the lock go 50 ms from now, from yet another thread.
    void releaseSoon()
    {
        m_releaser = std::thread([this] {
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
            m_release = true;
        });
    }

private:
    std::atomic<bool> m_locked{false};
    std::atomic<bool> m_release{false};
    std::thread m_holder;
    std::thread m_releaser;
};

// A held reply that waits for 0x1000 block bytes, for tests that need the
// parser to be awaiting block data.
const QByteArray kLongWait = replies::reply(0x31, 0x00, 0xF1, 0x01, 0x00, 0x00, 0x10);
} // namespace

Q_DECLARE_METATYPE(Action)
Q_DECLARE_METATYPE(QHostAddress)

class TestPortUDP : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();
    void cleanupTestCase() { testqueue::reset(); }

    // Interface
    void metaObjectListsSignalsThenSlotsAtInterfaceIndices();
    void sendFromAnotherThreadReachesDeviceAndReplyArrives();
    void metacastAnswersPortUDPThenPortBase();
    void serialAndUsbOperationsDoNothing();
    void sendThroughBaseMetaObjectRunsPortUDP();
    void constructedWithDefaultAddressAndUnboundSocket();
    void setDeviceIPAndSetPortWaitForStdCMDlock();
    void autoRecPadsToTwoCharacters_data();
    void autoRecPadsToTwoCharacters();
    void localAddressIsFirstIpv4ThatIsNotLoopback_data();
    void localAddressIsFirstIpv4ThatIsNotLoopback();

    // Sending
    void sendModeZeroWritesFrameThenLogsOutcomeAndFrame();
    void sendDataLogEndsAtFirstZeroByteOfFrame();
    void sendModeTwoLogsAbnormalAndWritesNothing();
    void emptyDataWritesNothingAndLogsSuccessful();
    void unicastDatagramSizesSeenByDevice_data();
    void unicastDatagramSizesSeenByDevice();
    void firstResultMinusOneResendsFromOneBeforeStart();
    void unicastOutcomeIsLogged_data();
    void unicastOutcomeIsLogged();
    void broadcastWritesWholeFrameOnceToBroadcastAddress();
    void broadcastOutcomeIsLogged_data();
    void broadcastOutcomeIsLogged();

    // Rebuilding
    void unknownResultRebuildsSocketOnNextEventLoopPass();
    void afterReInitUdpUnicastLogsBroadcastFailed();
    void afterReInitUdpZabrelSendStillReachesDevice();
    void rebuildFromAnotherThreadMakesTheSocketOnTheIoThread();
    void rebuildDropsReplyState_data();
    void rebuildDropsReplyState();
    void afterNRebuildsOneEmissionQueuesNPlusOneRebuilds();

    // Replies
    void replyIsQueuedWithSenderAndDeviceType();
    void dispatchRowsOverSocket_data();
    void dispatchRowsOverSocket();
    void heldReplyWith100And60BlockBytesGives129BytePayload();
    void longFixedRowGives145BytesOnce256Arrived();
    void zeroLengthHeldReplyRaisesFlagWithoutRecord();
    void negativeLengthHeldReplyDeliversNothing();
    void secondHeldReplyReplacesFirstAndKeepsBlockBytes();
    void rejectedDatagramsLogThreeLinesInOrder_data();
    void rejectedDatagramsLogThreeLinesInOrder();
    void strayBlockWhileIdleOnlyRaisesFlag();
    void ipv4MappedSenderIsRecordedAsBareIpv4();
    void dealFlagFalseDropsEveryReply();
    void addToReceivedQueueWithDealFlagFalseLeavesQueueAndFlag();
    void publicParsingOperationsForwardToTheParser();

    // Lifetime
    void destructorWaitsForDetachedHandOff();
    void destructorWaitsForDetachedCombination();
    void clearQueueReturnsBeforeClearingAndEndsBeforeDestructor();

private:
    // Points the transport at the device and makes the first send, which
    // gives the socket its port; the device checks the frame.
    bool linkUp();
    // The device answers with bytes and the transport reads them now.
    bool receive(const QByteArray &bytes);

    std::unique_ptr<FakeUdpDevice> m_device;
    std::unique_ptr<ProbePortUDP> m_port;
};

void TestPortUDP::init()
{
    testqueue::reset();
    m_device = std::make_unique<FakeUdpDevice>(kLoopback);
    QVERIFY(m_device->isBound());
    m_port = std::make_unique<ProbePortUDP>();
    m_port->setDeviceIP(QStringLiteral("127.0.0.1"));
    m_port->setPort(m_device->port());
    m_port->setDeviceType(kDeviceType);
}

void TestPortUDP::cleanup()
{
    m_port.reset();
    m_device.reset();
}

bool TestPortUDP::linkUp()
{
    send(*m_port, command(0));
    if (!m_device->waitForDatagrams(1))
        return false;
    const bool frameSeen = m_device->datagrams().size() == 1 && m_device->datagrams().first().bytes == kFrame;
    return frameSeen && m_port->socket()->state() == QAbstractSocket::BoundState;
}

bool TestPortUDP::receive(const QByteArray &bytes)
{
    // On loopback the datagram is on the socket once the device's send has
    // returned; it is parsed when readPendingDatagrams() returns, whether the
    // I/O thread's readyRead() or this call reads it.
    if (m_device->reply(bytes) != bytes.size())
        return false;
    m_port->readPendingDatagrams();
    return true;
}

void TestPortUDP::metaObjectListsSignalsThenSlotsAtInterfaceIndices()
{
    const QMetaObject &mo = PortUDP::staticMetaObject;
    QCOMPARE(QByteArray(mo.className()), QByteArray("PortUDP"));
    QCOMPARE(mo.superClass(), &PortBase::staticMetaObject);
    const struct
    {
        QMetaMethod::MethodType type;
        const char *signature;
    } expected[] = {
        {QMetaMethod::Signal, "signalReInitUdp()"},
        {QMetaMethod::Signal, "signalUSBChanged(bool)"},
        {QMetaMethod::Signal, "signalSendReceiveMessageToUiPro(void*)"},
        {QMetaMethod::Slot, "reInitUdp()"},
        {QMetaMethod::Slot, "reInitUdpZabrel()"},
        {QMetaMethod::Slot, "readPendingDatagrams()"},
        {QMetaMethod::Slot, "sendDatatoDevice(void*)"},
        {QMetaMethod::Slot, "processInfoDisplayonUI(void*)"},
    };
    QCOMPARE(mo.methodCount() - mo.methodOffset(), 8);
    for (int i = 0; i < 8; ++i) {
        const QMetaMethod method = mo.method(mo.methodOffset() + i);
        QCOMPARE(method.methodType(), expected[i].type);
        QCOMPARE(method.methodSignature(), QByteArray(expected[i].signature));
    }
    QCOMPARE(mo.method(mo.methodOffset() + 6).parameterNames(), QList<QByteArray>{"parameters"});
}

void TestPortUDP::metacastAnswersPortUDPThenPortBase()
{
    QCOMPARE(m_port->qt_metacast("PortUDP"), static_cast<void *>(static_cast<PortUDP *>(m_port.get())));
    QCOMPARE(m_port->qt_metacast("PortBase"), static_cast<void *>(static_cast<PortBase *>(m_port.get())));
    QVERIFY(qobject_cast<PortUDP *>(static_cast<QObject *>(m_port.get())) != nullptr);
}

void TestPortUDP::serialAndUsbOperationsDoNothing()
{
    QSignalSpy usbChanged(m_port.get(), &PortUDP::signalUSBChanged);
    QSignalSpy toUi(m_port.get(), &PortUDP::signalSendReceiveMessageToUiPro);
    QSignalSpy rebuild(m_port.get(), &PortUDP::signalReInitUdp);
    LogCapture log;
    PortBase &base = *m_port;
    QVERIFY(!base.openSerialPort(QStringLiteral("ttyS0"), QSerialPort::Baud9600, QSerialPort::OneStop,
                                 QSerialPort::NoParity, QSerialPort::NoFlowControl, QSerialPort::Data8));
    base.closeSerialPort();
    QVERIFY(!base.openUSB(0x1234, 0x5678));
    base.closeUSB();
    int anything = 0;
    m_port->senToUipro(&anything);
    m_port->processInfoDisplayonUI(&anything);
    QCOMPARE(usbChanged.count(), 0);
    QCOMPARE(toUi.count(), 0);
    QCOMPARE(rebuild.count(), 0);
    QVERIFY(log.lines().isEmpty());
    QCOMPARE(m_port->deviceIP(), QStringLiteral("127.0.0.1"));
    QVERIFY(m_device->datagrams().isEmpty());
}

void TestPortUDP::sendThroughBaseMetaObjectRunsPortUDP()
{
    LogCapture log;
    ProtocolData record = command(2);
    void *parameters = &record;
    const QMetaObject &mo = PortBase::staticMetaObject;
    QVERIFY(mo.method(mo.methodOffset() + 1).invoke(m_port.get(), Qt::DirectConnection, Q_ARG(void *, parameters)));
    QCOMPARE(log.lines(), QStringList{"Send data abnormal"});
}

void TestPortUDP::constructedWithDefaultAddressAndUnboundSocket()
{
    ProbePortUDP port;
    QCOMPARE(port.deviceIP(), QStringLiteral("100.100.100.100"));
    QVERIFY(port.pendingStdReply().isEmpty());
    QVERIFY(port.blockBuffer().isEmpty());
    QVERIFY(port.lastDatagram().isEmpty());
    QVERIFY(port.spareBuffer().isEmpty());
    QVERIFY(port.socket() != nullptr);
    QCOMPARE(port.socket()->parent(), nullptr);
    QCOMPARE(port.socket()->state(), QAbstractSocket::UnconnectedState);
    QCOMPARE(port.socket()->localPort(), quint16(0));
    QCOMPARE(port.parent(), nullptr);
    QVERIFY(port.m_dealFlag);
    QCOMPARE(port.rebuildConnections(), 1);
}

void TestPortUDP::setDeviceIPAndSetPortWaitForStdCMDlock()
{
    std::atomic<bool> done{false};
    std::unique_lock<std::mutex> held(PortUDP::stdCMDlock);
    std::thread setter([&] {
        m_port->setDeviceIP(QStringLiteral("10.0.0.9"));
        m_port->setPort(4321);
        done = true;
    });
    // Neither store can happen while the lock is held here.
    QThread::msleep(50);
    QVERIFY(!done.load());
    held.unlock();
    setter.join();
    QCOMPARE(m_port->deviceIP(), QStringLiteral("10.0.0.9"));
    QCOMPARE(m_port->devicePort(), 4321);
}

void TestPortUDP::autoRecPadsToTwoCharacters_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("padded");
    QTest::newRow("empty") << ""
                           << "00";
    QTest::newRow("one") << "a"
                         << "0a";
    QTest::newRow("two") << "ff"
                         << "ff";
    QTest::newRow("three") << "abc"
                           << "abc";
}

void TestPortUDP::autoRecPadsToTwoCharacters()
{
    QFETCH(QString, text);
    QFETCH(QString, padded);
    QCOMPARE(m_port->autoRec(text), padded);
}

void TestPortUDP::localAddressIsFirstIpv4ThatIsNotLoopback_data()
{
    QTest::addColumn<QList<QHostAddress>>("addresses");
    QTest::addColumn<QString>("local");
    const QHostAddress v6("fe80::1");
    QTest::newRow("none") << QList<QHostAddress>{} << "127.0.0.1";
    QTest::newRow("loopback only") << QList<QHostAddress>{kLoopback, QHostAddress("::1")} << "127.0.0.1";
    QTest::newRow("ipv6 only") << QList<QHostAddress>{QHostAddress("::1"), v6} << "127.0.0.1";
    QTest::newRow("first other") << QList<QHostAddress>{v6, kLoopback, QHostAddress("10.0.0.2"),
                                                        QHostAddress("192.168.1.5")}
                                 << "10.0.0.2";
    QTest::newRow("other loopback") << QList<QHostAddress>{QHostAddress("127.0.0.2")} << "127.0.0.2";
}

void TestPortUDP::localAddressIsFirstIpv4ThatIsNotLoopback()
{
    QFETCH(QList<QHostAddress>, addresses);
    QFETCH(QString, local);
    QCOMPARE(comm::localIPv4Address(addresses), local);
}

void TestPortUDP::sendFromAnotherThreadReachesDeviceAndReplyArrives()
{
    PortUDP port;
    port.setDeviceIP(QStringLiteral("127.0.0.1"));
    port.setPort(m_device->port());
    LogCapture log;
    ProtocolData record = command(0);
    std::atomic<bool> returned{false};
    // The first send binds the socket: carried over to the transport's own
    // thread, it binds there, where the replies are read.
    std::thread sender([&] {
        port.sendDatatoDevice(&record);
        returned = true;
    });
    QTRY_VERIFY_WITH_TIMEOUT(returned.load(), 5000);
    sender.join();
    QVERIFY(m_device->waitForDatagrams(1));
    QCOMPARE(m_device->datagrams().first().bytes, kFrame);
    QCOMPARE(log.lines(), (QStringList{"Send successful", "Send data:" + QString::fromLatin1(kFrame)}));
    m_device->reply(replies::reply(0x01, 0, 0, 0, 0, 0, 0));
    QTRY_COMPARE_WITH_TIMEOUT(testqueue::length(), size_t(1), 5000);
}

void TestPortUDP::sendModeZeroWritesFrameThenLogsOutcomeAndFrame()
{
    // The unmodified transport, as the application gets it.
    PortUDP port;
    port.setDeviceIP(QStringLiteral("127.0.0.1"));
    port.setPort(m_device->port());
    LogCapture log;
    ProtocolData record = command(0, QByteArray("payload"));
    const ProtocolData original = record;
    port.sendDatatoDevice(&record);
    QVERIFY(m_device->waitForDatagrams(1));
    QCOMPARE(m_device->datagrams().size(), 1);
    QCOMPARE(m_device->datagrams().first().bytes, kFrame + "payload");
    QCOMPARE(log.lines(), (QStringList{"Send successful", "Send data:" + QString::fromLatin1(kFrame) + "payload"}));
    QCOMPARE(record.checksumByte, original.checksumByte); // the caller's record is left as it was
}

void TestPortUDP::sendDataLogEndsAtFirstZeroByteOfFrame()
{
    LogCapture log;
    send(*m_port, command(0, QByteArray("\xC3\xA9t\xC3\xA9\0tail", 10)));
    QVERIFY(m_device->waitForDatagrams(1));
    QCOMPARE(m_device->datagrams().first().bytes, kFrame + QByteArray("\xC3\xA9t\xC3\xA9\0tail", 10));
    QCOMPARE(log.lines(),
             (QStringList{"Send successful", QString::fromUtf8("Send data:" + kFrame + "\xC3\xA9t\xC3\xA9")}));
}

void TestPortUDP::sendModeTwoLogsAbnormalAndWritesNothing()
{
    testqueue::reset();
    LogCapture log;
    send(*m_port, command(2));
    send(*m_port, command(255));
    QCOMPARE(log.lines(), (QStringList{"Send data abnormal", "Send data abnormal"}));
    QVERIFY(m_port->writes.isEmpty());
    QCOMPARE(testqueue::length(), size_t(0));
    QVERIFY(!testqueue::replyFlag());
    // The next datagram the device sees is the one sent after them.
    QVERIFY(linkUp());
}

void TestPortUDP::emptyDataWritesNothingAndLogsSuccessful()
{
    LogCapture log;
    m_port->sendUdpData(QByteArray());
    QCOMPARE(log.lines(), QStringList{"Send successful"});
    QVERIFY(m_port->writes.isEmpty());
    QVERIFY(linkUp());
}

void TestPortUDP::unicastDatagramSizesSeenByDevice_data()
{
    QTest::addColumn<int>("size");
    QTest::addColumn<QList<int>>("datagrams");
    QTest::newRow("540") << 540 << QList<int>{540};
    QTest::newRow("541") << 541 << QList<int>{540, 1};
    QTest::newRow("1080") << 1080 << QList<int>{540, 540};
    QTest::newRow("1081") << 1081 << QList<int>{540, 540, 1};
}

void TestPortUDP::unicastDatagramSizesSeenByDevice()
{
    QFETCH(int, size);
    QFETCH(QList<int>, datagrams);
    const QByteArray data = numberedBytes(size);
    LogCapture log;
    m_port->sendUdpData(data);
    QCOMPARE(log.lines(), QStringList{"Send successful"});
    QVERIFY(m_device->waitForDatagrams(datagrams.size()));
    QByteArray joined;
    QList<int> sizes;
    for (const FakeUdpDevice::Datagram &datagram : m_device->datagrams()) {
        sizes.append(datagram.bytes.size());
        joined += datagram.bytes;
        QCOMPARE(datagram.senderPort, m_port->socket()->localPort());
    }
    QCOMPARE(sizes, datagrams);
    QCOMPARE(joined, data);
}

void TestPortUDP::firstResultMinusOneResendsFromOneBeforeStart()
{
    const QByteArray data = numberedBytes(1200);
    m_port->scriptedResults = {-1}; // the first chunk reports failure (it still reaches the device)
    QSignalSpy rebuild(m_port.get(), &PortUDP::signalReInitUdp);
    LogCapture log;
    m_port->sendUdpData(data);
    // -1 + 1200 is neither the size nor a known failure.
    QCOMPARE(log.lines(), QStringList{"Send unknown"});
    QCOMPARE(rebuild.count(), 1);
    QVERIFY(m_device->waitForDatagrams(2));
    const QList<FakeUdpDevice::Datagram> seen = m_device->datagrams();
    QCOMPARE(seen.size(), 2);
    QCOMPARE(seen.at(0).bytes, data.left(540));
    QCOMPARE(seen.at(1).bytes.size(), 1200);
    QCOMPARE(seen.at(1).bytes, QByteArray(1, '\0') + data.left(1199));
}

void TestPortUDP::unicastOutcomeIsLogged_data()
{
    QTest::addColumn<QList<qint64>>("results");
    QTest::addColumn<int>("size");
    QTest::addColumn<QString>("logText");
    QTest::addColumn<bool>("rebuild");
    QTest::newRow("all") << QList<qint64>{100} << 100 << "Send successful" << false;
    QTest::newRow("-1") << QList<qint64>{-1} << 100 << "Send Broadcast failed" << false;
    QTest::newRow("-115") << QList<qint64>{-115} << 100 << "Send failed" << false;
    QTest::newRow("short") << QList<qint64>{60} << 100 << "Send unknown" << true;
    QTest::newRow("short chunk") << QList<qint64>{540, 100, 400} << 1081 << "Send unknown" << true;
    // Only the sum counts: a short chunk made up by the recovery write reads as success.
    QTest::newRow("short chunk summing up") << QList<qint64>{540, 100, 441} << 1081 << "Send successful" << false;
    QTest::newRow("chunks sum -1") << QList<qint64>{540, -541} << 1080 << "Send Broadcast failed" << false;
}

void TestPortUDP::unicastOutcomeIsLogged()
{
    QFETCH(QList<qint64>, results);
    QFETCH(int, size);
    QFETCH(QString, logText);
    QFETCH(bool, rebuild);
    m_port->scriptedResults = results;
    QPointer<QUdpSocket> socket = m_port->socket();
    QSignalSpy rebuilds(m_port.get(), &PortUDP::signalReInitUdp);
    const int connections = m_port->rebuildConnections(); // the spy's among them
    LogCapture log;
    m_port->sendUdpData(numberedBytes(size));
    QCOMPARE(log.lines(), QStringList{logText});
    QCOMPARE(m_port->writes.size(), results.size());
    // A rebuild, when there is one, was queued during the send.
    QCOMPARE(rebuilds.count(), rebuild ? 1 : 0);
    QTRY_COMPARE(socket.isNull(), rebuild);
    QTRY_COMPARE(m_port->rebuildConnections(), connections + (rebuild ? 1 : 0));
}

void TestPortUDP::broadcastWritesWholeFrameOnceToBroadcastAddress()
{
    const QByteArray payload = numberedBytes(1200);
    m_port->scriptedResults = {kFrame.size() + 1200};
    LogCapture log;
    send(*m_port, command(1, payload));
    QCOMPARE(m_port->writes.size(), 1);
    QCOMPARE(m_port->writes.first().bytes, kFrame + payload);
    QCOMPARE(m_port->writes.first().address, QHostAddress(QHostAddress::Broadcast));
    QCOMPARE(m_port->writes.first().port, m_device->port());
    QCOMPARE(log.lines(),
             (QStringList{"Send Broadcast successful", "Send data:" + QString::fromUtf8(kFrame + payload)}));
}

void TestPortUDP::broadcastOutcomeIsLogged_data()
{
    QTest::addColumn<qint64>("result");
    QTest::addColumn<QString>("logText");
    QTest::addColumn<bool>("rebuild");
    QTest::newRow("all") << qint64(5) << "Send Broadcast successful" << false;
    QTest::newRow("-1") << qint64(-1) << "Send Broadcast failed" << false;
    QTest::newRow("-115") << qint64(-115) << "Send Broadcast failed" << false;
    QTest::newRow("short") << qint64(4) << "Send Broadcast unknown" << true;
}

void TestPortUDP::broadcastOutcomeIsLogged()
{
    QFETCH(qint64, result);
    QFETCH(QString, logText);
    QFETCH(bool, rebuild);
    m_port->scriptedResults = {result};
    QSignalSpy rebuilds(m_port.get(), &PortUDP::signalReInitUdp);
    LogCapture log;
    m_port->sendUdpDataBroadcast("12345");
    QCOMPARE(log.lines(), QStringList{logText});
    QCOMPARE(rebuilds.count(), rebuild ? 1 : 0);
}

void TestPortUDP::unknownResultRebuildsSocketOnNextEventLoopPass()
{
    QVERIFY(linkUp());
    QPointer<QUdpSocket> socket = m_port->socket();
    m_port->scriptedResults = {3};
    LogCapture log;
    send(*m_port, command(0));
    // The send itself ends as usual; the rebuild follows on the I/O thread.
    QCOMPARE(log.lines(), (QStringList{"Send unknown", "Send data:" + QString::fromLatin1(kFrame)}));
    QTRY_VERIFY(socket.isNull());
    QVERIFY(m_port->deviceIP().isEmpty());
    QCOMPARE(m_port->socket()->state(), QAbstractSocket::UnconnectedState);
    QCOMPARE(m_port->rebuildConnections(), 2);
}

void TestPortUDP::afterReInitUdpUnicastLogsBroadcastFailed()
{
    QVERIFY(linkUp());
    m_port->reInitUdp();
    QVERIFY(m_port->deviceIP().isEmpty());
    QPointer<QUdpSocket> socket = m_port->socket();
    LogCapture log;
    send(*m_port, command(0));
    QCOMPARE(log.lines(), (QStringList{"Send Broadcast failed", "Send data:" + QString::fromLatin1(kFrame)}));
    // The empty address is refused without a datagram, and nothing is rebuilt.
    m_port->settle();
    QCOMPARE(m_port->rebuildConnections(), 2);
    QVERIFY(!socket.isNull());
    QCOMPARE(socket->state(), QAbstractSocket::UnconnectedState);
    m_device->clear();
    QVERIFY(!m_device->waitForDatagrams(1, 100));
}

void TestPortUDP::afterReInitUdpZabrelSendStillReachesDevice()
{
    QVERIFY(linkUp());
    QPointer<QUdpSocket> socket = m_port->socket();
    const quint16 oldPort = socket->localPort();
    m_port->reInitUdpZabrel();
    QVERIFY(socket.isNull());
    QCOMPARE(m_port->deviceIP(), QStringLiteral("127.0.0.1"));
    QCOMPARE(m_port->socket()->state(), QAbstractSocket::UnconnectedState);
    m_device->clear();
    LogCapture log;
    QVERIFY(linkUp()); // the new socket takes its own port on this send
    QCOMPARE(log.lines().first(), QStringLiteral("Send successful"));
    QCOMPARE(m_device->datagrams().first().senderPort, m_port->socket()->localPort());
    Q_UNUSED(oldPort)
    // Replies reach the new socket.
    QVERIFY(receive("[R0100000000000001]"));
    QTRY_COMPARE(testqueue::length(), size_t(1));
}

void TestPortUDP::rebuildFromAnotherThreadMakesTheSocketOnTheIoThread()
{
    QVERIFY(linkUp());
    QThread *const ioThread = m_port->socket()->thread();
    QVERIFY(ioThread != QThread::currentThread());
    LogCapture log;
    QVERIFY(runOnAnotherThread([this] { m_port->reInitUdpZabrel(); }));
    QCOMPARE(m_port->socket()->thread(), ioThread);
    m_device->clear();
    QVERIFY(linkUp());
    QVERIFY(receive("[R0100000000000001]"));
    QTRY_COMPARE(testqueue::length(), size_t(1));
    QCOMPARE(log.warnings(), QStringList());
}

void TestPortUDP::rebuildDropsReplyState_data()
{
    QTest::addColumn<bool>("zabrel");
    QTest::newRow("reInitUdp") << false;
    QTest::newRow("reInitUdpZabrel") << true;
}

void TestPortUDP::rebuildDropsReplyState()
{
    QFETCH(bool, zabrel);
    QVERIFY(linkUp());
    QVERIFY(receive(kLongWait));
    QVERIFY(receive(replies::blockBytes(30)));
    QCOMPARE(m_port->pendingStdReply(), kLongWait);
    QCOMPARE(m_port->blockBuffer().size(), 30);
    QCOMPARE(m_port->lastDatagram().size(), 30);
    if (zabrel)
        m_port->reInitUdpZabrel();
    else
        m_port->reInitUdp();
    QVERIFY(m_port->pendingStdReply().isEmpty());
    QVERIFY(m_port->blockBuffer().isEmpty());
    QVERIFY(m_port->lastDatagram().isEmpty());
    QVERIFY(m_port->spareBuffer().isEmpty());
    QCOMPARE(m_port->deviceIP().isEmpty(), !zabrel);
}

void TestPortUDP::afterNRebuildsOneEmissionQueuesNPlusOneRebuilds()
{
    constexpr int kRebuilds = 3;
    for (int i = 0; i < kRebuilds; ++i)
        m_port->reInitUdp();
    QCOMPARE(m_port->rebuildConnections(), kRebuilds + 1);
    QPointer<QUdpSocket> socket = m_port->socket();
    emit m_port->signalReInitUdp();
    // Each rebuild adds one connection; rebuilds queued by a rebuild's own
    // connecting are not run by this emission.
    QTRY_COMPARE(m_port->rebuildConnections(), 2 * (kRebuilds + 1));
    QVERIFY(socket.isNull());
    m_port->settle();
    QCOMPARE(m_port->rebuildConnections(), 2 * (kRebuilds + 1));
}

void TestPortUDP::replyIsQueuedWithSenderAndDeviceType()
{
    QVERIFY(linkUp());
    LogCapture log;
    QVERIFY(receive("[R0100000000000001]"));
    QCOMPARE(log.lines(), (QStringList{"Recv data:[R0100000000000001]", "host ip:127.0.0.1"}));
    QTRY_COMPARE(testqueue::length(), size_t(1));
    QVERIFY(testqueue::replyFlag());
    const ProtocolData record = testqueue::records().front();
    QCOMPARE(record.commandByte, quint8(1));
    QCOMPARE(record.checksumByte, quint8(1));
    QCOMPARE(record.hostText, QStringLiteral("127.0.0.1"));
    QCOMPARE(record.sourceText, QStringLiteral("127.0.0.1"));
    QCOMPARE(record.linkByte, quint8(0));
    QCOMPARE(record.deviceType, kDeviceType);
    QVERIFY(record.payload.isEmpty());
}

void TestPortUDP::dispatchRowsOverSocket_data()
{
    QTest::addColumn<QByteArray>("datagram");
    QTest::addColumn<Action>("action");
    QTest::newRow("8B 05 hold") << replies::reply(1, 0, 0x8B, 0x05, 0, 0, 1) << Action::Hold;
    QTest::newRow("8B 09 hold") << replies::reply(1, 0, 0x8B, 0x09, 0, 0x81, 0) << Action::Hold;
    QTest::newRow("8B queue") << replies::reply(1, 0, 0x8B, 0x01, 0, 0, 0) << Action::Queue;
    QTest::newRow("8E 27 hold") << replies::reply(1, 0, 0x8E, 0x27, 0, 0, 0) << Action::Hold;
    QTest::newRow("8E queue") << replies::reply(1, 0, 0x8E, 0x28, 0, 0, 0) << Action::Queue;
    QTest::newRow("F1 40 deliver") << replies::reply(1, 0, 0xF1, 0x40, 0, 0, 0) << Action::DeliverAtOnce;
    QTest::newRow("F1 40 length hold") << replies::reply(1, 0, 0xF1, 0x40, 0, 2, 0) << Action::Hold;
    QTest::newRow("F1 hold") << replies::reply(1, 0, 0xF1, 0x41, 0, 0, 0) << Action::Hold;
    QTest::newRow("77 23 hold") << replies::reply(1, 0, 0x77, 0x23, 0, 0, 0) << Action::Hold;
    QTest::newRow("77 queue") << replies::reply(1, 0, 0x77, 0x22, 0, 0, 0) << Action::Queue;
    QTest::newRow("79 09 deliver") << replies::reply(1, 0, 0x79, 0x09, 0, 0, 0) << Action::DeliverAtOnce;
    QTest::newRow("79 0A deliver") << replies::reply(1, 0, 0x79, 0x0A, 0, 0, 0) << Action::DeliverAtOnce;
    QTest::newRow("79 0C deliver") << replies::reply(1, 0, 0x79, 0x0C, 0, 0, 0) << Action::DeliverAtOnce;
    QTest::newRow("79 12 deliver") << replies::reply(1, 0, 0x79, 0x12, 0, 0, 0) << Action::DeliverAtOnce;
    QTest::newRow("79 13 deliver") << replies::reply(1, 0, 0x79, 0x13, 0, 0, 0) << Action::DeliverAtOnce;
    QTest::newRow("79 17 deliver") << replies::reply(1, 0, 0x79, 0x17, 0, 0, 0) << Action::DeliverAtOnce;
    QTest::newRow("79 hold") << replies::reply(1, 0, 0x79, 0x0B, 0, 0, 0) << Action::Hold;
    QTest::newRow("69 09 hold") << replies::reply(1, 0, 0x69, 0x09, 0, 0, 0) << Action::Hold;
    QTest::newRow("69 queue") << replies::reply(1, 0, 0x69, 0x08, 0, 0, 0) << Action::Queue;
    QTest::newRow("00 P1 queue") << replies::reply(1, 1, 0x00, 0, 0, 0, 0) << Action::Queue;
    QTest::newRow("00 check queue") << replies::reply(1, 0, 0x00, 0, 0, 0, 0) << Action::Queue;
    QTest::newRow("00 block") << replies::reply(0, 0, 0x00, 0, 0, 0, 0) << Action::BlockData;
    QTest::newRow("other queue") << replies::reply(1, 0, 0x10, 0x05, 0, 0, 0) << Action::Queue;
}

void TestPortUDP::dispatchRowsOverSocket()
{
    QFETCH(QByteArray, datagram);
    QFETCH(Action, action);
    QVERIFY(linkUp());
    switch (action) {
    case Action::Queue: {
        {
            // readPendingDatagrams returns while the queue lock is held here:
            // the record is handed over from another thread.
            std::unique_lock<std::mutex> held(CmdDealModule::receiveHexCmdlock);
            QVERIFY(receive(datagram));
            QCOMPARE(CmdDealModule::receivequeueHexCmd.size(), size_t(0));
        }
        QTRY_COMPARE(testqueue::length(), size_t(1));
        QCOMPARE(testqueue::records().front().paramBytes[1], quint8(datagram.mid(6, 2).toInt(nullptr, 16)));
        break;
    }
    case Action::DeliverAtOnce:
        QVERIFY(receive(datagram));
        QCOMPARE(testqueue::length(), size_t(1)); // appended before readPendingDatagrams returned
        QCOMPARE(testqueue::records().front().hostText, QStringLiteral("127.0.0.1"));
        break;
    case Action::Hold:
        QVERIFY(receive(datagram));
        QCOMPARE(m_port->pendingStdReply(), datagram);
        QVERIFY(m_port->blockBuffer().isEmpty());
        break;
    case Action::BlockData:
        QVERIFY(receive(kLongWait));
        QVERIFY(receive(datagram));
        QCOMPARE(m_port->blockBuffer(), datagram);
        QCOMPARE(m_port->pendingStdReply(), kLongWait);
        break;
    }
    m_port.reset(); // waits for every hand-off it started
    QCOMPARE(testqueue::length(), size_t(action == Action::Queue || action == Action::DeliverAtOnce ? 1 : 0));
}

void TestPortUDP::heldReplyWith100And60BlockBytesGives129BytePayload()
{
    QVERIFY(linkUp());
    const QByteArray held = replies::reply(0x44, 0x01, 0x8B, 0x09, 0x00, 0x81, 0x00);
    const QByteArray first = replies::blockBytes(100);
    const QByteArray second = replies::blockBytes(60, 100);
    QVERIFY(receive(held));
    QVERIFY(receive(first));
    QCOMPARE(m_port->blockBuffer(), first);
    QVERIFY(receive(second));
    QTRY_COMPARE(testqueue::length(), size_t(1));
    const ProtocolData record = testqueue::records().front();
    QCOMPARE(record.payload.size(), 129);
    QCOMPARE(record.payload, (first + second).left(129));
    QCOMPARE(record.commandByte, quint8(0x44));
    QCOMPARE(record.paramBytes[1], quint8(0x8B));
    QCOMPARE(record.checksumByte, quint8(0x44 + 0x01 + 0x8B + 0x09 + 0x81));
    QVERIFY(record.hostText.isEmpty()); // combined records carry a fresh record's sender
    QVERIFY(m_port->pendingStdReply().isEmpty());
    QVERIFY(m_port->blockBuffer().isEmpty());
    QVERIFY(testqueue::replyFlag());
}

void TestPortUDP::longFixedRowGives145BytesOnce256Arrived()
{
    QVERIFY(linkUp());
    QVERIFY(receive(replies::reply(0x44, 0x00, 0x8B, 0x05, 0x00, 0x00, 0x01)));
    QVERIFY(receive(replies::blockBytes(200)));
    QVERIFY(receive(replies::blockBytes(55, 200)));
    QCOMPARE(m_port->blockBuffer().size(), 255);
    QVERIFY(receive(replies::blockBytes(1, 255)));
    QTRY_COMPARE(testqueue::length(), size_t(1));
    QCOMPARE(testqueue::records().front().payload, replies::blockBytes(145));
}

void TestPortUDP::zeroLengthHeldReplyRaisesFlagWithoutRecord()
{
    QVERIFY(linkUp());
    QVERIFY(receive(replies::reply(0x44, 0x00, 0x8E, 0x27, 0x00, 0x00, 0x00)));
    testqueue::reset();
    QVERIFY(receive(replies::blockBytes(10)));
    QTRY_VERIFY(testqueue::replyFlag());
    QVERIFY(m_port->pendingStdReply().isEmpty());
    m_port.reset();
    QCOMPARE(testqueue::length(), size_t(0));
}

void TestPortUDP::negativeLengthHeldReplyDeliversNothing()
{
    QVERIFY(linkUp());
    QVERIFY(receive(replies::reply(0x44, 0x00, 0xF1, 0x02, 0x00, 0x00, 0x80)));
    testqueue::reset();
    QVERIFY(receive(replies::blockBytes(10)));
    QVERIFY(m_port->pendingStdReply().isEmpty()); // completed on the first block datagram
    QVERIFY(m_port->blockBuffer().isEmpty());
    QTRY_VERIFY(testqueue::replyFlag());
    m_port.reset();
    QCOMPARE(testqueue::length(), size_t(0));
}

void TestPortUDP::secondHeldReplyReplacesFirstAndKeepsBlockBytes()
{
    QVERIFY(linkUp());
    const QByteArray secondHeld = replies::reply(0x45, 0x00, 0x8B, 0x05, 0x00, 0x00, 0x01);
    QVERIFY(receive(replies::reply(0x44, 0x00, 0x69, 0x09, 0x00, 0x81, 0x00)));
    QVERIFY(receive(replies::blockBytes(100)));
    QVERIFY(receive(secondHeld));
    QCOMPARE(m_port->pendingStdReply(), secondHeld);
    QCOMPARE(m_port->blockBuffer().size(), 100);
    QVERIFY(receive(replies::blockBytes(156, 100)));
    QTRY_COMPARE(testqueue::length(), size_t(1));
    const ProtocolData record = testqueue::records().front();
    QCOMPARE(record.commandByte, quint8(0x45));
    QCOMPARE(record.payload, replies::blockBytes(145));
}

void TestPortUDP::rejectedDatagramsLogThreeLinesInOrder_data()
{
    QTest::addColumn<QByteArray>("datagram");
    QTest::addColumn<QString>("third");
    QTest::newRow("18") << QByteArray("[R0100000000000001") << kSizeLine;
    QTest::newRow("20") << QByteArray("[R0100000000000001]]") << kSizeLine;
    QTest::newRow("no markers") << QByteArray("<R0100000000000001>") << kMarkerLine;
    QTest::newRow("wrong check byte") << QByteArray("[R0100000000000002]") << kChecksumLine;
}

void TestPortUDP::rejectedDatagramsLogThreeLinesInOrder()
{
    QFETCH(QByteArray, datagram);
    QFETCH(QString, third);
    QVERIFY(linkUp());
    QVERIFY(receive(kLongWait));
    LogCapture log;
    QVERIFY(receive(datagram));
    QCOMPARE(log.lines(), (QStringList{"Recv data:" + QString::fromLatin1(datagram), "host ip:127.0.0.1", third}));
    // Treated as block data.
    QCOMPARE(m_port->blockBuffer(), datagram);
}

void TestPortUDP::strayBlockWhileIdleOnlyRaisesFlag()
{
    QVERIFY(linkUp());
    LogCapture log;
    QVERIFY(receive("stray"));
    QCOMPARE(log.lines(), (QStringList{"Recv data:stray", "host ip:127.0.0.1", kSizeLine, kSizeLine}));
    QTRY_VERIFY(testqueue::replyFlag());
    QVERIFY(m_port->blockBuffer().isEmpty());
    m_port.reset();
    QCOMPARE(testqueue::length(), size_t(0));
}

void TestPortUDP::ipv4MappedSenderIsRecordedAsBareIpv4()
{
    QVERIFY(linkUp());
    // Qt binds an unbound socket on its first send for both IPv4 and IPv6:
    // datagrams from an IPv4 device then come from an IPv4-mapped address.
    if (m_port->socket()->localAddress().protocol() == QAbstractSocket::IPv4Protocol)
        QSKIP("IPv6 is off on this machine: the socket is IPv4-only and never sees IPv4-mapped senders");

    LogCapture log;
    QVERIFY(receive("[R0100000000000001]"));
    QCOMPARE(log.lines().at(1), QStringLiteral("host ip:127.0.0.1"));
    QTRY_COMPARE(testqueue::length(), size_t(1));
    QCOMPARE(testqueue::records().front().hostText, QStringLiteral("127.0.0.1"));
    QCOMPARE(testqueue::records().front().sourceText, QStringLiteral("127.0.0.1"));
}

void TestPortUDP::dealFlagFalseDropsEveryReply()
{
    QVERIFY(linkUp());
    m_port->m_dealFlag = false;
    QVERIFY(receive(replies::reply(1, 0, 0x10, 0, 0, 0, 0)));    // queue
    QVERIFY(receive(replies::reply(1, 0, 0x79, 0x09, 0, 0, 0))); // deliver at once
    QCOMPARE(testqueue::length(), size_t(0));
    QVERIFY(receive(replies::reply(1, 0, 0x77, 0x23, 0, 0x81, 0))); // hold
    QVERIFY(receive(replies::blockBytes(129)));                     // block data, combined
    QTRY_VERIFY(m_port->blockBuffer().isEmpty());
    m_port.reset();
    QCOMPARE(testqueue::length(), size_t(0));
    QVERIFY(!testqueue::replyFlag());
}

void TestPortUDP::addToReceivedQueueWithDealFlagFalseLeavesQueueAndFlag()
{
    m_port->m_dealFlag = false;
    m_port->addToReceivedQueue(command(0));
    QCOMPARE(testqueue::length(), size_t(0));
    QVERIFY(!testqueue::replyFlag());
    m_port->m_dealFlag = true;
    m_port->addToReceivedQueue(command(0));
    QCOMPARE(testqueue::length(), size_t(1));
    QVERIFY(testqueue::replyFlag());
    m_port->setRetFlagStatus(false);
    QVERIFY(!testqueue::replyFlag());
}

void TestPortUDP::publicParsingOperationsForwardToTheParser()
{
    QCOMPARE(m_port->combineTwoByte(0xFF, 0xFF), -1);
    QCOMPARE(m_port->combineTwoByte(0x34, 0x12), 0x1234);
    const ProtocolData parsed = m_port->getArrayData("[R5a0102030405066f]");
    QCOMPARE(parsed.commandByte, quint8(0x5A));
    QCOMPARE(parsed.paramBytes[5], quint8(6));
    QCOMPARE(parsed.checksumByte, quint8(0x6F));
    // A held reply asking for 3 bytes of block data: the first 3 come with it.
    m_port->combineSTDCMDandBloackCMD(QByteArray("\x01\x02\x03\x04", 4), replies::reply(0x42, 0, 0x11, 0, 0, 3, 0));
    QCOMPARE(testqueue::length(), size_t(1));
    QCOMPARE(testqueue::records().front().payload, QByteArray("\x01\x02\x03", 3));
}

void TestPortUDP::destructorWaitsForDetachedHandOff()
{
    QVERIFY(linkUp());
    QueueLockHolder lock;
    QTRY_VERIFY(lock.isLocked());
    QVERIFY(receive("[R0100000000000001]")); // the hand-off now waits for the queue lock
    lock.releaseSoon();
    m_port.reset();
    QCOMPARE(testqueue::length(), size_t(1));
}

void TestPortUDP::destructorWaitsForDetachedCombination()
{
    QVERIFY(linkUp());
    QVERIFY(receive(replies::reply(0x44, 0x00, 0x77, 0x23, 0x00, 0x81, 0x00)));
    QueueLockHolder lock;
    QTRY_VERIFY(lock.isLocked());
    QVERIFY(receive(replies::blockBytes(129))); // the combination now waits for the queue lock
    QVERIFY(m_port->blockBuffer().isEmpty());
    lock.releaseSoon();
    m_port.reset();
    QCOMPARE(testqueue::length(), size_t(1));
    QCOMPARE(testqueue::records().front().payload, replies::blockBytes(129));
}

void TestPortUDP::clearQueueReturnsBeforeClearingAndEndsBeforeDestructor()
{
    {
        std::lock_guard<std::mutex> guard(CmdDealModule::receiveHexCmdlock);
        CmdDealModule::receivequeueHexCmd.resize(2);
    }
    {
        std::unique_lock<std::mutex> held(CmdDealModule::receiveHexCmdlock);
        m_port->clearQueue(); // returns although the lock is held here
        QCOMPARE(CmdDealModule::receivequeueHexCmd.size(), size_t(2));
    }
    QTRY_COMPARE(testqueue::length(), size_t(0));

    {
        std::lock_guard<std::mutex> guard(CmdDealModule::receiveHexCmdlock);
        CmdDealModule::receivequeueHexCmd.resize(3);
    }
    QueueLockHolder lock;
    QTRY_VERIFY(lock.isLocked());
    m_port->clearQueue();
    lock.releaseSoon();
    m_port.reset();
    QCOMPARE(testqueue::length(), size_t(0));
}

QTEST_GUILESS_MAIN(TestPortUDP)
#include "tst_portudp.moc"
