#include <QtTest>

#include "DatagramSend.h"

namespace {
struct Write
{
    QByteArray bytes;
    int offset = 0;
};

// Records every datagram and answers with scripted results; once the script
// is used up, each write reports its full size.
class ScriptedWrites
{
public:
    explicit ScriptedWrites(QList<qint64> results = {})
        : m_results(std::move(results))
    {
    }

    comm::DatagramWrite writer()
    {
        return [this](const char *bytes, int size, int offset) -> qint64 {
            writes.append({QByteArray(bytes, size), offset});
            return m_results.isEmpty() ? size : m_results.takeFirst();
        };
    }

    QList<int> sizes() const
    {
        QList<int> result;
        for (const Write &write : writes)
            result.append(write.bytes.size());
        return result;
    }

    QList<int> offsets() const
    {
        QList<int> result;
        for (const Write &write : writes)
            result.append(write.offset);
        return result;
    }

    QList<Write> writes;

private:
    QList<qint64> m_results;
};

QByteArray numberedBytes(int count)
{
    QByteArray bytes(count, Qt::Uninitialized);
    for (int i = 0; i < count; ++i)
        bytes[i] = static_cast<char>(1 + i % 251); // never zero, so padding stands out
    return bytes;
}
} // namespace

class TestDatagramSend : public QObject
{
    Q_OBJECT

private slots:
    void emptyDataWritesNothingAndSumsToZero();
    void splitSizesAndOffsets_data();
    void splitSizesAndOffsets();
    void datagramsCarryTheDataInOrder();
    void firstResultMinusOneResendsWholeDataFromOneBeforeStart();
    void firstResultMinus115ResendsFromBeforeStart();
    void shortCountResendsRemainingWithBytesPastEndAsZero();
    void shortCountInLaterChunkResendsCountLeftBeforeThatChunk();
    void shortCountOnSingleDatagramIsOnlySummed();
    void resultsAreSummedAs32BitValues();
    void sendOutcome_data();
    void sendOutcome();
};

void TestDatagramSend::emptyDataWritesNothingAndSumsToZero()
{
    ScriptedWrites script;
    QCOMPARE(comm::writeInDatagrams(QByteArray(), script.writer()), 0);
    QCOMPARE(script.writes.size(), 0);
}

void TestDatagramSend::splitSizesAndOffsets_data()
{
    QTest::addColumn<int>("size");
    QTest::addColumn<QList<int>>("sizes");
    QTest::addColumn<QList<int>>("offsets");
    QTest::newRow("1") << 1 << QList<int>{1} << QList<int>{0};
    QTest::newRow("539") << 539 << QList<int>{539} << QList<int>{0};
    QTest::newRow("540") << 540 << QList<int>{540} << QList<int>{0};
    QTest::newRow("541") << 541 << QList<int>{540, 1} << QList<int>{0, 540};
    QTest::newRow("1079") << 1079 << QList<int>{540, 539} << QList<int>{0, 540};
    QTest::newRow("1080") << 1080 << QList<int>{540, 540} << QList<int>{0, 540};
    QTest::newRow("1081") << 1081 << QList<int>{540, 540, 1} << QList<int>{0, 540, 1080};
    QTest::newRow("1620") << 1620 << QList<int>{540, 540, 540} << QList<int>{0, 540, 1080};
    QTest::newRow("1621") << 1621 << QList<int>{540, 540, 540, 1} << QList<int>{0, 540, 1080, 1620};
    QTest::newRow("5000") << 5000 << QList<int>{540, 540, 540, 540, 540, 540, 540, 540, 540, 140}
                          << QList<int>{0, 540, 1080, 1620, 2160, 2700, 3240, 3780, 4320, 4860};
}

void TestDatagramSend::splitSizesAndOffsets()
{
    QFETCH(int, size);
    QFETCH(QList<int>, sizes);
    QFETCH(QList<int>, offsets);
    ScriptedWrites script;
    QCOMPARE(comm::writeInDatagrams(numberedBytes(size), script.writer()), size);
    QCOMPARE(script.sizes(), sizes);
    QCOMPARE(script.offsets(), offsets);
}

void TestDatagramSend::datagramsCarryTheDataInOrder()
{
    const QByteArray data = numberedBytes(1621);
    ScriptedWrites script;
    comm::writeInDatagrams(data, script.writer());
    QByteArray joined;
    for (const Write &write : script.writes) {
        QCOMPARE(write.bytes, data.mid(write.offset, write.bytes.size()));
        joined += write.bytes;
    }
    QCOMPARE(joined, data);
}

void TestDatagramSend::firstResultMinusOneResendsWholeDataFromOneBeforeStart()
{
    const QByteArray data = numberedBytes(1200);
    ScriptedWrites script({-1});
    QCOMPARE(comm::writeInDatagrams(data, script.writer()), -1 + 1200);
    QCOMPARE(script.sizes(), (QList<int>{540, 1200}));
    QCOMPARE(script.offsets(), (QList<int>{0, -1}));
    // The byte before the data goes out as zero, then the data but its last byte.
    QCOMPARE(script.writes.at(1).bytes, QByteArray(1, '\0') + data.left(1199));
}

void TestDatagramSend::firstResultMinus115ResendsFromBeforeStart()
{
    const QByteArray data = numberedBytes(1200);
    ScriptedWrites script({-115, -115});
    QCOMPARE(comm::writeInDatagrams(data, script.writer()), -230);
    QCOMPARE(script.offsets(), (QList<int>{0, -115}));
    QCOMPARE(script.writes.at(1).bytes, QByteArray(115, '\0') + data.left(1200 - 115));
}

void TestDatagramSend::shortCountResendsRemainingWithBytesPastEndAsZero()
{
    const QByteArray data = numberedBytes(1200);
    ScriptedWrites script({100});
    QCOMPARE(comm::writeInDatagrams(data, script.writer()), 100 + 1200);
    QCOMPARE(script.sizes(), (QList<int>{540, 1200}));
    QCOMPARE(script.offsets(), (QList<int>{0, 100}));
    QCOMPARE(script.writes.at(1).bytes, data.mid(100) + QByteArray(100, '\0'));
}

void TestDatagramSend::shortCountInLaterChunkResendsCountLeftBeforeThatChunk()
{
    const QByteArray data = numberedBytes(1621);
    ScriptedWrites script({540, 200});
    // 1621 left before the first chunk, 1081 before the second: that is what
    // the last datagram carries, from offset 540 + 200.
    QCOMPARE(comm::writeInDatagrams(data, script.writer()), 540 + 200 + 1081);
    QCOMPARE(script.sizes(), (QList<int>{540, 540, 1081}));
    QCOMPARE(script.offsets(), (QList<int>{0, 540, 740}));
    QCOMPARE(script.writes.at(2).bytes, data.mid(740) + QByteArray(1081 - (1621 - 740), '\0'));
}

void TestDatagramSend::shortCountOnSingleDatagramIsOnlySummed()
{
    ScriptedWrites script({7});
    QCOMPARE(comm::writeInDatagrams(numberedBytes(300), script.writer()), 7);
    QCOMPARE(script.sizes(), QList<int>{300});
}

void TestDatagramSend::resultsAreSummedAs32BitValues()
{
    ScriptedWrites script({qint64(0xFFFFFFFF)});
    QCOMPARE(comm::writeInDatagrams(numberedBytes(10), script.writer()), -1);
}

void TestDatagramSend::sendOutcome_data()
{
    QTest::addColumn<bool>("broadcast");
    QTest::addColumn<qint64>("sent");
    QTest::addColumn<qint64>("size");
    QTest::addColumn<QString>("logText");
    QTest::addColumn<bool>("rebuild");
    QTest::newRow("unicast all") << false << qint64(1200) << qint64(1200) << "Send successful" << false;
    QTest::newRow("unicast empty") << false << qint64(0) << qint64(0) << "Send successful" << false;
    QTest::newRow("unicast -1") << false << qint64(-1) << qint64(100) << "Send Broadcast failed" << false;
    QTest::newRow("unicast -115") << false << qint64(-115) << qint64(100) << "Send failed" << false;
    QTest::newRow("unicast short") << false << qint64(99) << qint64(100) << "Send unknown" << true;
    QTest::newRow("unicast -2") << false << qint64(-2) << qint64(1200) << "Send unknown" << true;
    QTest::newRow("unicast more") << false << qint64(1199) << qint64(1200) << "Send unknown" << true;
    QTest::newRow("broadcast all") << true << qint64(19) << qint64(19) << "Send Broadcast successful" << false;
    QTest::newRow("broadcast -1") << true << qint64(-1) << qint64(19) << "Send Broadcast failed" << false;
    QTest::newRow("broadcast -115") << true << qint64(-115) << qint64(19) << "Send Broadcast failed" << false;
    QTest::newRow("broadcast short") << true << qint64(3) << qint64(19) << "Send Broadcast unknown" << true;
}

void TestDatagramSend::sendOutcome()
{
    QFETCH(bool, broadcast);
    QFETCH(qint64, sent);
    QFETCH(qint64, size);
    QFETCH(QString, logText);
    QFETCH(bool, rebuild);
    const comm::SendOutcome outcome = broadcast ? comm::broadcastOutcome(sent, size) : comm::unicastOutcome(sent, size);
    QCOMPARE(QString::fromLatin1(outcome.logText), logText);
    QCOMPARE(outcome.rebuildSocket, rebuild);
}

QTEST_GUILESS_MAIN(TestDatagramSend)
#include "tst_datagramsend.moc"
