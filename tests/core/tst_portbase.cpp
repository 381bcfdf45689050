#include <QtTest>

#include <type_traits>

#include "PortBase.h"
#include "ProtocolData.h"

static_assert(std::is_abstract<PortBase>::value, "PortBase is abstract");
static_assert(std::has_virtual_destructor<PortBase>::value, "transports are deleted through PortBase");

namespace {
// The smallest transport: records what reaches it.
class RecordingPort : public PortBase
{
    Q_OBJECT
public:
    void setDeviceIP(QString) override {}
    void setPort(int) override {}
    void clearQueue() override {}
    bool openSerialPort(QString, QSerialPort::BaudRate, QSerialPort::StopBits, QSerialPort::Parity,
                        QSerialPort::FlowControl, QSerialPort::DataBits) override
    {
        return false;
    }
    void closeSerialPort() override {}
    bool openUSB(unsigned short, unsigned short) override { return false; }
    void closeUSB() override {}
    void setDeviceType(ModulelEnum::DeviceType) override {}

    void *lastParameters = nullptr;
    int sends = 0;

public slots:
    void sendDatatoDevice(void *parameters) override
    {
        lastParameters = parameters;
        ++sends;
    }
};
} // namespace

class TestPortBase : public QObject
{
    Q_OBJECT

private slots:
    void signalUSBChangedIsMethodZero();
    void sendDatatoDeviceIsMethodOneWithParameterName();
    void metaObjectHasNoFurtherMethods();
    void metacastAnswersClassName();
    void constructedWithoutParent();
    void dealFlagStartsTrue();
    void slotInvokedThroughBaseMetaObjectRunsOverride();
    void signalReachesConnectedReceiver();
};

void TestPortBase::signalUSBChangedIsMethodZero()
{
    const QMetaObject &mo = PortBase::staticMetaObject;
    const QMetaMethod method = mo.method(mo.methodOffset() + 0);
    QCOMPARE(method.methodType(), QMetaMethod::Signal);
    QCOMPARE(method.methodSignature(), QByteArray("signalUSBChanged(bool)"));
}

void TestPortBase::sendDatatoDeviceIsMethodOneWithParameterName()
{
    const QMetaObject &mo = PortBase::staticMetaObject;
    const QMetaMethod method = mo.method(mo.methodOffset() + 1);
    QCOMPARE(method.methodType(), QMetaMethod::Slot);
    QCOMPARE(method.methodSignature(), QByteArray("sendDatatoDevice(void*)"));
    QCOMPARE(method.parameterNames(), QList<QByteArray>{QByteArray("parameters")});
}

void TestPortBase::metaObjectHasNoFurtherMethods()
{
    const QMetaObject &mo = PortBase::staticMetaObject;
    QCOMPARE(mo.methodCount() - mo.methodOffset(), 2);
    QCOMPARE(QByteArray(mo.className()), QByteArray("PortBase"));
    QCOMPARE(mo.superClass(), &QObject::staticMetaObject);
}

void TestPortBase::metacastAnswersClassName()
{
    RecordingPort port;
    PortBase *base = &port;
    QCOMPARE(base->qt_metacast("PortBase"), static_cast<void *>(base));
    QVERIFY(qobject_cast<PortBase *>(static_cast<QObject *>(&port)) == base);
}

void TestPortBase::constructedWithoutParent()
{
    RecordingPort port;
    QCOMPARE(port.parent(), nullptr);
}

void TestPortBase::dealFlagStartsTrue()
{
    RecordingPort port;
    QVERIFY(port.m_dealFlag);
    port.m_dealFlag = false;
    QVERIFY(!port.m_dealFlag);
}

void TestPortBase::slotInvokedThroughBaseMetaObjectRunsOverride()
{
    RecordingPort port;
    ProtocolData record;
    void *parameters = &record;
    const QMetaObject &mo = PortBase::staticMetaObject;
    const QMetaMethod slot = mo.method(mo.methodOffset() + 1);
    QVERIFY(slot.invoke(&port, Qt::DirectConnection, Q_ARG(void *, parameters)));
    QCOMPARE(port.sends, 1);
    QCOMPARE(port.lastParameters, parameters);
}

void TestPortBase::signalReachesConnectedReceiver()
{
    RecordingPort port;
    QSignalSpy spy(&port, &PortBase::signalUSBChanged);
    emit port.signalUSBChanged(true);
    QCOMPARE(spy.count(), 1);
    QCOMPARE(spy.at(0).at(0).toBool(), true);
}

QTEST_GUILESS_MAIN(TestPortBase)
#include "tst_portbase.moc"
