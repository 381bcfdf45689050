#include <QtTest>

#include "CommandFrame.h"
#include "ProtocolData.h"

namespace {
ProtocolData command(quint8 cmd, std::initializer_list<quint8> params, const QByteArray &payload = QByteArray())
{
    ProtocolData record;
    record.commandByte = cmd;
    int i = 0;
    for (quint8 p : params)
        record.paramBytes[i++] = p;
    record.payload = payload;
    return record;
}
} // namespace

class TestCommandFrame : public QObject
{
    Q_OBJECT

private slots:
    void exampleFramesMatch_data();
    void exampleFramesMatch();
    void allZeroRecordGivesNineteenCharacters();
    void checksumWrapsAroundAt256();
    void digitsAreLowerCase();
    void payloadFollowsHeaderRaw();
    void payloadWithZeroAndHighBytesKeptExactly();
    void callerRecordUnchangedAndFrameRepeatable();
    void checksumIgnoresPayloadAndReservedFields();
};

void TestCommandFrame::exampleFramesMatch_data()
{
    QTest::addColumn<int>("cmd");
    QTest::addColumn<QByteArray>("params");
    QTest::addColumn<int>("checksum");
    QTest::addColumn<QByteArray>("frame");
    QTest::newRow("5a") << 0x5A << QByteArray("\x01\x02\x03\x04\x05\x06", 6) << 0x6F
                        << QByteArray("[A5a0102030405066f]");
    QTest::newRow("a0") << 0xA0 << QByteArray("\xff\x00\x10\x20\x30\x40", 6) << 0x3F
                        << QByteArray("[Aa0ff00102030403f]");
    QTest::newRow("zero") << 0x00 << QByteArray(6, '\0') << 0x00 << QByteArray("[A0000000000000000]");
}

void TestCommandFrame::exampleFramesMatch()
{
    QFETCH(int, cmd);
    QFETCH(QByteArray, params);
    QFETCH(int, checksum);
    QFETCH(QByteArray, frame);
    ProtocolData record;
    record.commandByte = quint8(cmd);
    for (int i = 0; i < 6; ++i)
        record.paramBytes[i] = quint8(params[i]);
    QCOMPARE(int(comm::commandChecksum(record)), checksum);
    QCOMPARE(comm::commandFrame(record), frame);
}

void TestCommandFrame::allZeroRecordGivesNineteenCharacters()
{
    const QByteArray frame = comm::commandFrame(ProtocolData());
    QCOMPARE(frame.size(), 19);
    QCOMPARE(frame, QByteArray("[A0000000000000000]"));
}

void TestCommandFrame::checksumWrapsAroundAt256()
{
    const ProtocolData record = command(0xA0, {0xFF, 0x00, 0x10, 0x20, 0x30, 0x40});
    QCOMPARE(comm::commandChecksum(record), quint8(0x3F));
    QCOMPARE(comm::commandFrame(record).mid(16, 2), QByteArray("3f"));
}

void TestCommandFrame::digitsAreLowerCase()
{
    const QByteArray frame = comm::commandFrame(command(0xFF, {0xFF, 0xAB, 0xCD, 0xEF, 0, 0}));
    QCOMPARE(frame, QByteArray("[Affffabcdef000065]"));
    QCOMPARE(frame.mid(2, 16), frame.mid(2, 16).toLower());
}

void TestCommandFrame::payloadFollowsHeaderRaw()
{
    QByteArray payload(300, '\0');
    for (int i = 0; i < payload.size(); ++i)
        payload[i] = char(i * 7);
    payload[10] = ']';
    payload[11] = '\0';
    const QByteArray frame = comm::commandFrame(command(0x01, {2, 3, 4, 5, 6, 7}, payload));
    QCOMPARE(frame.size(), 319);
    QCOMPARE(frame.left(19), QByteArray("[A010203040506071c]"));
    QCOMPARE(frame.mid(19), payload);
}

void TestCommandFrame::payloadWithZeroAndHighBytesKeptExactly()
{
    const QByteArray payload("\x00\x80\xff\x5d\x00", 5);
    const QByteArray frame = comm::commandFrame(command(0, {0, 0, 0, 0, 0, 0}, payload));
    QCOMPARE(frame, QByteArray("[A0000000000000000]") + payload);
}

void TestCommandFrame::callerRecordUnchangedAndFrameRepeatable()
{
    ProtocolData record = command(0x5A, {1, 2, 3, 4, 5, 6});
    record.checksumByte = 0x11;
    const QByteArray first = comm::commandFrame(record);
    QCOMPARE(record.checksumByte, quint8(0x11));
    QCOMPARE(comm::commandFrame(record), first);
    QCOMPARE(first, QByteArray("[A5a0102030405066f]"));
}

void TestCommandFrame::checksumIgnoresPayloadAndReservedFields()
{
    ProtocolData record = command(0x5A, {1, 2, 3, 4, 5, 6}, QByteArray("abc"));
    record.leadingReserved[0] = 0x33;
    record.trailingReserved[6] = 0x44;
    record.checksumByte = 0x99;
    QCOMPARE(comm::commandFrame(record), QByteArray("[A5a0102030405066f]abc"));
}

QTEST_GUILESS_MAIN(TestCommandFrame)
#include "tst_commandframe.moc"
