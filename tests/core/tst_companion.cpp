#include <QtTest>

#include <type_traits>

#include "CmdDealModule.h"
#include "ModulelEnum.h"
#include "ProtocolData.h"

static_assert(sizeof(ModulelEnum::DeviceType) == 4, "the device type is 32-bit");
static_assert(std::is_same<decltype(CmdDealModule::receivequeueHexCmd), std::deque<ProtocolData>>::value, "");
static_assert(std::is_same<decltype(CmdDealModule::receiveHexCmdlock), std::mutex>::value, "");
static_assert(std::is_same<decltype(CmdDealModule::HexCmdlock), std::mutex>::value, "");
static_assert(std::is_same<decltype(CmdDealModule::bRetFlag), bool>::value, "");
static_assert(std::is_copy_constructible<ProtocolData>::value && std::is_copy_assignable<ProtocolData>::value, "");

class TestCompanion : public QObject
{
    Q_OBJECT

private slots:
    void defaultRecordHasEmptyTextsAndZeroFields();
    void recordCopiesByValue();
    void clearQueueEmptiesReceiveQueue();
};

void TestCompanion::defaultRecordHasEmptyTextsAndZeroFields()
{
    const ProtocolData record;
    QVERIFY(record.hostText.isEmpty());
    QVERIFY(record.sourceText.isEmpty());
    QVERIFY(record.infoText.isEmpty());
    QVERIFY(record.payload.isEmpty());
    QCOMPARE(record.linkByte, quint8(0));
    QCOMPARE(record.commandByte, quint8(0));
    for (quint8 b : record.leadingReserved)
        QCOMPARE(b, quint8(0));
    for (quint8 b : record.paramBytes)
        QCOMPARE(b, quint8(0));
    QCOMPARE(record.checksumByte, quint8(0));
    for (quint8 b : record.trailingReserved)
        QCOMPARE(b, quint8(0));
    QCOMPARE(record.sendMode, quint8(0));
    QCOMPARE(int(record.deviceType), 0);
}

void TestCompanion::recordCopiesByValue()
{
    ProtocolData original;
    original.hostText = QStringLiteral("10.0.0.1");
    original.commandByte = 0x5A;
    original.paramBytes[5] = 6;
    original.payload = QByteArray("\x00\xff", 2);
    ProtocolData copy = original;
    copy.commandByte = 1;
    copy.paramBytes[5] = 7;
    copy.payload[0] = 'x';
    copy.hostText.append('x');
    QCOMPARE(original.commandByte, quint8(0x5A));
    QCOMPARE(original.paramBytes[5], quint8(6));
    QCOMPARE(original.payload, QByteArray("\x00\xff", 2));
    QCOMPARE(original.hostText, QStringLiteral("10.0.0.1"));
}

void TestCompanion::clearQueueEmptiesReceiveQueue()
{
    {
        std::lock_guard<std::mutex> guard(CmdDealModule::receiveHexCmdlock);
        CmdDealModule::receivequeueHexCmd.assign(3, ProtocolData());
    }
    CmdDealModule module;
    module.clearQueue();
    std::lock_guard<std::mutex> guard(CmdDealModule::receiveHexCmdlock);
    QVERIFY(CmdDealModule::receivequeueHexCmd.empty());
}

QTEST_GUILESS_MAIN(TestCompanion)
#include "tst_companion.moc"
