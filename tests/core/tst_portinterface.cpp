#include <QtTest>

#include <memory>

#include "PortInterface.h"

namespace {
QByteArray classOf(const PortBase *port)
{
    return port ? QByteArray(port->metaObject()->className()) : QByteArray("(null)");
}

void dropCurrent()
{
    delete PortInterface::iCORE;
    PortInterface::iCORE = nullptr;
}
} // namespace

class TestPortInterface : public QObject
{
    Q_OBJECT

private slots:
    void cleanup() { dropCurrent(); }

    void currentTransportStartsNull();
    void typeZeroGivesUsbTransport();
    void typeOneGivesSerialTransport();
    void typeTwoGivesNetworkTransport();
    void unknownTypesGiveNetworkTransport_data();
    void unknownTypesGiveNetworkTransport();
    void secondCallDeletesFirstTransport();
    void instanceLeavesCurrentTransportAloneWhenNull();
    void instanceLeavesCurrentTransportAloneWhenSet();
    void transportsHaveNoParent();
};

void TestPortInterface::currentTransportStartsNull()
{
    QCOMPARE(PortInterface::iCORE, nullptr);
}

void TestPortInterface::typeZeroGivesUsbTransport()
{
    PortBase *port = PortInterface::creatCoreObj(ConnType(0));
    QCOMPARE(classOf(port), QByteArray("PortUSB"));
    QCOMPARE(PortInterface::iCORE, port);
}

void TestPortInterface::typeOneGivesSerialTransport()
{
    PortBase *port = PortInterface::creatCoreObj(ConnType(1));
    QCOMPARE(classOf(port), QByteArray("PortSerial"));
    QCOMPARE(PortInterface::iCORE, port);
}

void TestPortInterface::typeTwoGivesNetworkTransport()
{
    PortBase *port = PortInterface::creatCoreObj(ConnType(2));
    QCOMPARE(classOf(port), QByteArray("PortUDP"));
    QCOMPARE(PortInterface::iCORE, port);
}

void TestPortInterface::unknownTypesGiveNetworkTransport_data()
{
    QTest::addColumn<int>("type");
    QTest::newRow("3") << 3;
    QTest::newRow("-1") << -1;
    QTest::newRow("1000") << 1000;
}

void TestPortInterface::unknownTypesGiveNetworkTransport()
{
    QFETCH(int, type);
    PortBase *port = PortInterface::creatCoreObj(ConnType(type));
    QVERIFY(port != nullptr);
    QCOMPARE(classOf(port), QByteArray("PortUDP"));
    const std::unique_ptr<PortBase> own(PortInterface::creatCoreObjInstance(ConnType(type)));
    QCOMPARE(classOf(own.get()), QByteArray("PortUDP"));
}

void TestPortInterface::secondCallDeletesFirstTransport()
{
    PortBase *first = PortInterface::creatCoreObj(ConnUDP);
    bool firstDestroyed = false;
    QObject watcher; // ends the connection with this function
    connect(first, &QObject::destroyed, &watcher, [&firstDestroyed] { firstDestroyed = true; });
    PortBase *second = PortInterface::creatCoreObj(ConnSerial);
    QVERIFY(firstDestroyed);
    QCOMPARE(PortInterface::iCORE, second);
    QCOMPARE(classOf(second), QByteArray("PortSerial"));
}

void TestPortInterface::instanceLeavesCurrentTransportAloneWhenNull()
{
    QCOMPARE(PortInterface::iCORE, nullptr);
    PortBase *own = PortInterface::creatCoreObjInstance(ConnSerial);
    QCOMPARE(PortInterface::iCORE, nullptr);
    QCOMPARE(classOf(own), QByteArray("PortSerial"));
    delete own;
}

void TestPortInterface::instanceLeavesCurrentTransportAloneWhenSet()
{
    PortBase *current = PortInterface::creatCoreObj(ConnUDP);
    bool currentDestroyed = false;
    QObject watcher; // ends the connection with this function
    connect(current, &QObject::destroyed, &watcher, [&currentDestroyed] { currentDestroyed = true; });
    PortBase *own = PortInterface::creatCoreObjInstance(ConnUDP);
    QVERIFY(own != current);
    QCOMPARE(PortInterface::iCORE, current);
    QVERIFY(!currentDestroyed);
    delete own;
    QCOMPARE(PortInterface::iCORE, current);
}

void TestPortInterface::transportsHaveNoParent()
{
    for (int type : {0, 1, 2}) {
        PortBase *port = PortInterface::creatCoreObjInstance(ConnType(type));
        QCOMPARE(port->parent(), nullptr);
        delete port;
    }
}

QTEST_GUILESS_MAIN(TestPortInterface)
#include "tst_portinterface.moc"
