// The network transport against addresses that are not loopback: its default
// device address and the broadcast address. Runs only inside the private
// network namespace that tests/run-in-netns.sh makes, where those addresses
// lead back to lo.
#include <QtTest>

#include <QNetworkInterface>

#include "FakeUdpDevice.h"
#include "LocalAddress.h"
#include "LogCapture.h"
#include "PortUDP.h"
#include "ReceiveQueue.h"

namespace {
const QByteArray kFrame("[A5a0102030405066f]");
const QHostAddress kDefaultDevice(QStringLiteral("100.100.100.100"));

void sendCommand(PortUDP &port, quint8 sendMode)
{
    ProtocolData record;
    record.commandByte = 0x5A;
    for (int i = 0; i < 6; ++i)
        record.paramBytes[i] = static_cast<quint8>(i + 1);
    record.sendMode = sendMode;
    port.sendDatatoDevice(&record);
}

// QSKIP ends the test function it stands in, so these stay macros.
#define REQUIRE_FULL_NAMESPACE()                                                                                       \
    do {                                                                                                               \
        if (!m_full)                                                                                                   \
            QSKIP("needs 100.100.100.100 on lo: runs in the namespace made without --loopback-only");                  \
    } while (false)
#define REQUIRE_LOOPBACK_ONLY_NAMESPACE()                                                                              \
    do {                                                                                                               \
        if (m_full)                                                                                                    \
            QSKIP("needs a namespace with loopback addresses only: runs with run-in-netns.sh --loopback-only");        \
    } while (false)

bool onlyLoopbackInterfaces()
{
    const QList<QNetworkInterface> interfaces = QNetworkInterface::allInterfaces();
    for (const QNetworkInterface &interface : interfaces) {
        if (!(interface.flags() & QNetworkInterface::IsLoopBack))
            return false;
    }
    return !interfaces.isEmpty();
}
} // namespace

class TestPortUDPNetns : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init() { testqueue::reset(); }
    void cleanupTestCase() { testqueue::reset(); }

    // Namespace with 100.100.100.100 on lo and routes to lo
    void defaultAddressReachesDevice();
    void defaultAddressSurvivesReInitUdpZabrelOnly();
    void broadcastReachesDeviceOnDevicePort();
    void localAddressIsTheNonLoopbackIpv4();

    // Namespace with loopback only
    void onlyLoopbackMachineStillBuildsSocket();
    void unreachableDefaultAddressLogsBroadcastFailed();

private:
    bool m_full = false;
};

void TestPortUDPNetns::initTestCase()
{
    if (!onlyLoopbackInterfaces())
        QSKIP("not inside a private network namespace: these tests run through tests/run-in-netns.sh");
    m_full = QNetworkInterface::allAddresses().contains(kDefaultDevice);
}

void TestPortUDPNetns::defaultAddressReachesDevice()
{
    REQUIRE_FULL_NAMESPACE();
    FakeUdpDevice device(kDefaultDevice);
    QVERIFY(device.isBound());
    PortUDP port; // no setDeviceIP: the default address is used
    port.setPort(device.port());
    LogCapture log;
    sendCommand(port, 0);
    QCOMPARE(log.lines(), (QStringList{"Send successful", "Send data:" + QString::fromLatin1(kFrame)}));
    QVERIFY(device.waitForDatagrams(1));
    QCOMPARE(device.datagrams().first().bytes, kFrame);

    QCOMPARE(device.reply("[R0100000000000001]"), qint64(19));
    QTRY_COMPARE(testqueue::length(), size_t(1));
    QCOMPARE(testqueue::records().front().hostText, QStringLiteral("100.100.100.100"));
    QVERIFY(log.lines().contains(QStringLiteral("host ip:100.100.100.100")));
}

void TestPortUDPNetns::defaultAddressSurvivesReInitUdpZabrelOnly()
{
    REQUIRE_FULL_NAMESPACE();
    FakeUdpDevice device(kDefaultDevice);
    QVERIFY(device.isBound());
    PortUDP port;
    port.setPort(device.port());
    port.reInitUdpZabrel();
    sendCommand(port, 0);
    QVERIFY(device.waitForDatagrams(1));
    QCOMPARE(device.datagrams().first().bytes, kFrame);

    port.reInitUdp();
    device.clear();
    LogCapture log;
    sendCommand(port, 0);
    QCOMPARE(log.lines().first(), QStringLiteral("Send Broadcast failed"));
    QVERIFY(!device.waitForDatagrams(1, 200));
}

void TestPortUDPNetns::broadcastReachesDeviceOnDevicePort()
{
    REQUIRE_FULL_NAMESPACE();
    FakeUdpDevice device(QHostAddress::AnyIPv4);
    QVERIFY(device.isBound());
    PortUDP port;
    port.setPort(device.port());
    LogCapture log;
    sendCommand(port, 1);
    QCOMPARE(log.lines(), (QStringList{"Send Broadcast successful", "Send data:" + QString::fromLatin1(kFrame)}));
    QVERIFY(device.waitForDatagrams(1));
    QCOMPARE(device.datagrams().size(), 1);
    QCOMPARE(device.datagrams().first().bytes, kFrame);

    // The broadcast bound the socket: replies come back to it.
    QCOMPARE(device.reply("[R0100000000000001]"), qint64(19));
    QTRY_COMPARE(testqueue::length(), size_t(1));
    const QString sender = testqueue::records().front().hostText;
    QCOMPARE(sender, device.datagrams().first().sender.toString());
}

void TestPortUDPNetns::localAddressIsTheNonLoopbackIpv4()
{
    REQUIRE_FULL_NAMESPACE();
    QCOMPARE(comm::localIPv4Address(QNetworkInterface::allAddresses()), QStringLiteral("100.100.100.100"));
}

void TestPortUDPNetns::onlyLoopbackMachineStillBuildsSocket()
{
    REQUIRE_LOOPBACK_ONLY_NAMESPACE();
    QCOMPARE(comm::localIPv4Address(QNetworkInterface::allAddresses()), QStringLiteral("127.0.0.1"));
    FakeUdpDevice device(QHostAddress::LocalHost);
    QVERIFY(device.isBound());
    PortUDP port;
    port.setDeviceIP(QStringLiteral("127.0.0.1"));
    port.setPort(device.port());
    sendCommand(port, 0);
    QVERIFY(device.waitForDatagrams(1));
    QCOMPARE(device.datagrams().first().bytes, kFrame);
    QCOMPARE(device.reply("[R0100000000000001]"), qint64(19));
    QTRY_COMPARE(testqueue::length(), size_t(1));
}

void TestPortUDPNetns::unreachableDefaultAddressLogsBroadcastFailed()
{
    REQUIRE_LOOPBACK_ONLY_NAMESPACE();
    PortUDP port;
    port.setPort(9);
    LogCapture log;
    sendCommand(port, 0);
    // No route to 100.100.100.100: the write itself fails with -1.
    QCOMPARE(log.lines(), (QStringList{"Send Broadcast failed", "Send data:" + QString::fromLatin1(kFrame)}));
}

QTEST_GUILESS_MAIN(TestPortUDPNetns)
#include "tst_portudp_netns.moc"
