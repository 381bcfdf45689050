#include <QtTest>

#include "CommandFrame.h"
#include "Options.h"
#include "ProtocolData.h"
#include "RecordFormat.h"
#include "SimProtocol.h"

class TestCommctlUnits : public QObject
{
    Q_OBJECT

private slots:
    void recordJsonHasFieldsInDocumentedOrder();
    void recordJsonEscapesTexts();
    void usbEventJsonIsOneObject();
    void sendOptionsParseDecimalAndHexadecimal();
    void serialDefaultsApply();
    void serialSettingsParse();
    void usbIdentifiersAreHexadecimal();
    void usageErrorsNameTheOption_data();
    void usageErrorsNameTheOption();
    void simAcceptsPortWithoutHost();
    void simReplyEchoesCommandWithCheckByte();
    void simCommandFrameIsTheLibrarys();
    void simRejectsCommandWithWrongCheckByte();
    void simSerialBlockEndsWithCheckByte();
    void simNetworkBlockFollowsAnnouncedLength();
    void simUsbRepliesCarryNoBlock();
    void simStreamFindsFramesBetweenGarbage();
};

void TestCommctlUnits::recordJsonHasFieldsInDocumentedOrder()
{
    ProtocolData record;
    record.linkByte = 0;
    record.hostText = QStringLiteral("127.0.0.1");
    record.sourceText = QStringLiteral("127.0.0.1");
    record.commandByte = 1;
    record.checksumByte = 1;
    QCOMPARE(recordJson(record),
             QStringLiteral("{\"link\":0,\"host\":\"127.0.0.1\",\"source\":\"127.0.0.1\",\"cmd\":1,"
                            "\"params\":[0,0,0,0,0,0],\"checksum\":1,\"payload\":\"\",\"deviceType\":0}"));
    record.paramBytes[5] = 255;
    record.payload = QByteArray("\x00\xAB", 2);
    record.deviceType = ModulelEnum::DeviceType(-3);
    QCOMPARE(recordJson(record),
             QStringLiteral("{\"link\":0,\"host\":\"127.0.0.1\",\"source\":\"127.0.0.1\",\"cmd\":1,"
                            "\"params\":[0,0,0,0,0,255],\"checksum\":1,\"payload\":\"00ab\",\"deviceType\":-3}"));
}

void TestCommctlUnits::recordJsonEscapesTexts()
{
    ProtocolData record;
    record.sourceText = QStringLiteral("a\"b\\c\n");
    const QJsonDocument doc = QJsonDocument::fromJson(recordJson(record).toUtf8());
    QVERIFY(doc.isObject());
    QCOMPARE(doc.object().value(QStringLiteral("source")).toString(), record.sourceText);
}

void TestCommctlUnits::usbEventJsonIsOneObject()
{
    QCOMPARE(usbEventJson(true), QStringLiteral("{\"event\":\"usb\",\"present\":true}"));
    QCOMPARE(usbEventJson(false), QStringLiteral("{\"event\":\"usb\",\"present\":false}"));
}

void TestCommctlUnits::sendOptionsParseDecimalAndHexadecimal()
{
    Options options;
    QString error;
    QVERIFY2(parseOptions({"send", "--udp", "127.0.0.1:4000", "--cmd", "0x5A", "--params", "1,0x02,3,4,5,0xff",
                           "--payload", "00aBff", "--mode", "1", "--device-type", "-7", "--wait", "250", "--json"},
                          &options, &error),
             qPrintable(error));
    QCOMPARE(options.command, Options::Send);
    QCOMPARE(options.link.kind, LinkOptions::Udp);
    QCOMPARE(options.link.host, QStringLiteral("127.0.0.1"));
    QCOMPARE(options.link.port, quint16(4000));
    QCOMPARE(options.cmd, quint8(0x5A));
    QCOMPARE(options.params, (std::array<quint8, 6>{1, 2, 3, 4, 5, 255}));
    QCOMPARE(options.payload, QByteArray("\x00\xab\xff", 3));
    QCOMPARE(options.mode, quint8(1));
    QCOMPARE(options.deviceType, -7);
    QCOMPARE(options.waitMs, qint64(250));
    QVERIFY(options.json);
}

void TestCommctlUnits::serialDefaultsApply()
{
    Options options;
    QString error;
    QVERIFY(parseOptions({"listen", "--serial", "/dev/ttyUSB0"}, &options, &error));
    QCOMPARE(options.link.kind, LinkOptions::Serial);
    QCOMPARE(options.link.serialPath, QStringLiteral("/dev/ttyUSB0"));
    QCOMPARE(options.link.baud, 115200);
    QCOMPARE(options.link.dataBits, QSerialPort::Data8);
    QCOMPARE(options.link.parity, QSerialPort::NoParity);
    QCOMPARE(options.link.stopBits, QSerialPort::OneStop);
    QCOMPARE(options.link.flow, QSerialPort::NoFlowControl);
    QCOMPARE(options.durationMs, qint64(-1));
}

void TestCommctlUnits::serialSettingsParse()
{
    Options options;
    QString error;
    QVERIFY(parseOptions({"listen", "--serial", "/dev/ttyS1", "--baud", "9600", "--data-bits", "7", "--parity", "mark",
                          "--stop-bits", "1.5", "--flow", "software", "--duration", "0x10"},
                         &options, &error));
    QCOMPARE(options.link.baud, 9600);
    QCOMPARE(options.link.dataBits, QSerialPort::Data7);
    QCOMPARE(options.link.parity, QSerialPort::MarkParity);
    QCOMPARE(options.link.stopBits, QSerialPort::OneAndHalfStop);
    QCOMPARE(options.link.flow, QSerialPort::SoftwareControl);
    QCOMPARE(options.durationMs, qint64(16));
}

void TestCommctlUnits::usbIdentifiersAreHexadecimal()
{
    Options options;
    QString error;
    QVERIFY(parseOptions({"listen", "--usb", "0483:5750"}, &options, &error));
    QCOMPARE(options.link.vid, quint16(0x0483));
    QCOMPARE(options.link.pid, quint16(0x5750));
}

void TestCommctlUnits::usageErrorsNameTheOption_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QString>("named");
    const QStringList udp{"--udp", "127.0.0.1:4000"};
    const QStringList params{"--params", "0,0,0,0,0,0"};
    QTest::newRow("no command") << QStringList{} << "no command";
    QTest::newRow("unknown command") << QStringList{"fly"} << "'fly'";
    QTest::newRow("cmd too large") << (QStringList{"send"} + udp + QStringList{"--cmd", "256"} + params) << "--cmd";
    QTest::newRow("cmd not a number") << (QStringList{"send"} + udp + QStringList{"--cmd", "x1"} + params) << "--cmd";
    QTest::newRow("five params") << (QStringList{"send"} + udp + QStringList{"--cmd", "1", "--params", "1,2,3,4,5"})
                                 << "--params";
    QTest::newRow("odd payload") << (QStringList{"send"} + udp + QStringList{"--cmd", "1"} + params
                                     + QStringList{"--payload", "abc"})
                                 << "--payload";
    QTest::newRow("missing cmd") << (QStringList{"send"} + udp + params) << "--cmd";
    QTest::newRow("missing link") << QStringList{"send", "--cmd", "1", "--params", "0,0,0,0,0,0"} << "--udp";
    QTest::newRow("udp without port") << QStringList{"listen", "--udp", "127.0.0.1"} << "--udp";
    QTest::newRow("udp bad host") << QStringList{"listen", "--udp", "nohost:1"} << "--udp";
    QTest::newRow("two links") << QStringList{"listen", "--udp", "127.0.0.1:1", "--usb", "1:2"} << "--usb";
    QTest::newRow("bad parity") << QStringList{"listen", "--serial", "/dev/x", "--parity", "high"} << "--parity";
    QTest::newRow("bad data bits") << QStringList{"listen", "--serial", "/dev/x", "--data-bits", "9"} << "--data-bits";
    QTest::newRow("bad stop bits") << QStringList{"listen", "--serial", "/dev/x", "--stop-bits", "3"} << "--stop-bits";
    QTest::newRow("bad flow") << QStringList{"listen", "--serial", "/dev/x", "--flow", "auto"} << "--flow";
    QTest::newRow("baud on udp") << QStringList{"listen", "--udp", "127.0.0.1:1", "--baud", "9600"} << "--baud";
    QTest::newRow("flow on usb") << QStringList{"listen", "--flow", "none", "--usb", "1:2"} << "--flow";
    QTest::newRow("bad usb") << QStringList{"listen", "--usb", "12345:1"} << "--usb";
    QTest::newRow("missing value") << QStringList{"listen", "--serial", "/dev/x", "--duration"} << "--duration";
    QTest::newRow("negative wait") << (QStringList{"send"} + udp + QStringList{"--cmd", "1", "--wait", "-1"} + params)
                                   << "--wait";
    QTest::newRow("demo with option") << QStringList{"demo", "--json"} << "--json";
    QTest::newRow("unknown option") << QStringList{"listen", "--udp", "127.0.0.1:1", "--colour"} << "--colour";
}

void TestCommctlUnits::usageErrorsNameTheOption()
{
    QFETCH(QStringList, arguments);
    QFETCH(QString, named);
    Options options;
    QString error;
    QVERIFY(!parseOptions(arguments, &options, &error));
    QVERIFY2(error.contains(named), qPrintable(error));
}

void TestCommctlUnits::simAcceptsPortWithoutHost()
{
    Options options;
    QString error;
    QVERIFY(parseOptions({"sim", "--udp", "0", "--duration", "10"}, &options, &error));
    QCOMPARE(options.link.host, QStringLiteral("127.0.0.1"));
    QCOMPARE(options.link.port, quint16(0));
    QVERIFY(parseOptions({"sim", "--serial"}, &options, &error));
    QVERIFY(options.simSerial);
}

void TestCommctlUnits::simReplyEchoesCommandWithCheckByte()
{
    sim::HeaderBytes command;
    QVERIFY(sim::parseCommandHeader("[A5a0102030405066f]", 19, &command));
    QCOMPARE(sim::replyFrame(command), QByteArray("[R5a0102030405066f]"));
}

// The demo prints the simulator's frame for each command it sends; it must be
// the one the library writes.
void TestCommctlUnits::simCommandFrameIsTheLibrarys()
{
    const sim::HeaderBytes header{0x5a, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x00};
    QCOMPARE(sim::commandFrame(header), QByteArray("[A5a0102030405066f]"));
    ProtocolData record;
    record.commandByte = header[0];
    for (int i = 0; i < 6; ++i)
        record.paramBytes[i] = header[size_t(i + 1)];
    QCOMPARE(sim::commandFrame(header), comm::commandFrame(record));
    sim::HeaderBytes parsed;
    QVERIFY(sim::parseCommandHeader(sim::commandFrame(header).constData(), 19, &parsed));
}

void TestCommctlUnits::simRejectsCommandWithWrongCheckByte()
{
    sim::HeaderBytes command;
    QVERIFY(!sim::parseCommandHeader("[A5a01020304050670]", 19, &command));
    QVERIFY(!sim::parseCommandHeader("[R5a0102030405066f]", 19, &command));
    QVERIFY(!sim::parseCommandHeader("[A5a0102030405066f", 18, &command));
}

void TestCommctlUnits::simSerialBlockEndsWithCheckByte()
{
    const sim::HeaderBytes command{0x30, 0x00, 0x79, 0x00, 0x00, 0x03, 0x00, 0xAC};
    const QByteArray block = sim::blockData(sim::Link::Serial, command);
    QCOMPARE(block, QByteArray("\x30\x31\x61", 3));
    const sim::HeaderBytes none{0x30, 0x00, 0x8E, 0x26, 0x00, 0x03, 0x00, 0};
    QVERIFY(sim::blockData(sim::Link::Serial, none).isEmpty());
}

void TestCommctlUnits::simNetworkBlockFollowsAnnouncedLength()
{
    const sim::HeaderBytes held{0x20, 0x00, 0x8B, 0x09, 0x00, 0x81, 0x00, 0};
    QCOMPARE(sim::blockData(sim::Link::Network, held).size(), 129);
    const sim::HeaderBytes atOnce{0x20, 0x00, 0x79, 0x09, 0x00, 0x81, 0x00, 0};
    QVERIFY(sim::blockData(sim::Link::Network, atOnce).isEmpty());
    const sim::HeaderBytes negative{0x20, 0x00, 0x8E, 0x27, 0x00, 0x00, 0x80, 0};
    QVERIFY(sim::blockData(sim::Link::Network, negative).isEmpty());
}

void TestCommctlUnits::simUsbRepliesCarryNoBlock()
{
    const sim::HeaderBytes command{0x30, 0x00, 0x79, 0x00, 0x00, 0x03, 0x00, 0};
    QVERIFY(sim::blockData(sim::Link::Usb, command).isEmpty());
}

void TestCommctlUnits::simStreamFindsFramesBetweenGarbage()
{
    sim::CommandStream stream;
    stream.append(QByteArray("xx[A5a0102030405066f]payload[") + QByteArray("A0000000000000000]"));
    sim::HeaderBytes command;
    QVERIFY(stream.next(&command));
    QCOMPARE(command[0], quint8(0x5A));
    QVERIFY(stream.next(&command));
    QCOMPARE(command[0], quint8(0));
    QVERIFY(!stream.next(&command));
}

QTEST_GUILESS_MAIN(TestCommctlUnits)
#include "tst_commctl_units.moc"
