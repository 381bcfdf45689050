#include <QtTest>

#include <iterator>

#include "ProtocolData.h"
#include "ReplyRules.h"

Q_DECLARE_METATYPE(comm::ReplyCondition)
Q_DECLARE_METATYPE(comm::ReplyAction)
Q_DECLARE_METATYPE(comm::StreamAction)

namespace {

// The routing each link wrote out for itself before the links shared
// kReplyRules, kept here word for word as the reference the table must agree
// with on every reply.
namespace before {

comm::ReplyAction networkAction(const ProtocolData &reply)
{
    using A = comm::ReplyAction;
    const quint8 p1 = reply.paramBytes[0];
    const quint8 p2 = reply.paramBytes[1];
    const quint8 p3 = reply.paramBytes[2];
    const quint8 p5 = reply.paramBytes[4];
    const quint8 p6 = reply.paramBytes[5];
    switch (p2) {
    case 0x8B:
        return (p3 == 0x05 || p3 == 0x09) ? A::Hold : A::Queue;
    case 0x8E:
        return p3 == 0x27 ? A::Hold : A::Queue;
    case 0xF1:
        return (p3 == 0x40 && p5 == 0 && p6 == 0) ? A::DeliverAtOnce : A::Hold;
    case 0x77:
        return p3 == 0x23 ? A::Hold : A::Queue;
    case 0x79:
        switch (p3) {
        case 0x09:
        case 0x0A:
        case 0x0C:
        case 0x12:
        case 0x13:
        case 0x17:
            return A::DeliverAtOnce;
        default:
            return A::Hold;
        }
    case 0x69:
        return p3 == 0x09 ? A::Hold : A::Queue;
    case 0x00:
        return (p1 == 0 && reply.checksumByte == 0) ? A::BlockData : A::Queue;
    default:
        return A::Queue;
    }
}

int networkFixedPayload(quint8 p2, quint8 p3)
{
    if ((p2 == 0x8B && p3 == 0x09) || (p2 == 0x69 && p3 == 0x09) || (p2 == 0x77 && p3 == 0x23))
        return 129;
    if (p2 == 0x8B && p3 == 0x05)
        return 145;
    return 0;
}

bool streamAnnouncesBlock(quint8 b2, quint8 b3)
{
    return b2 == 0x79 || b2 == 0xE1 || (b2 == 0x8E && b3 == 0x27);
}

} // namespace before

// Values of the bytes the rules look at besides P2 and P3: zero, and a value
// that is not zero. The other bytes never matter.
constexpr quint8 kP1Values[] = {0x00, 0x22};
constexpr quint8 kP5Values[] = {0x00, 0x81};
constexpr quint8 kP6Values[] = {0x00, 0x01};
constexpr quint8 kCheckValues[] = {0x00, 0x5A};

// Calls check with a record for every P2 and P3 and every combination of the
// values above (256 * 256 * 16 records); stops at the first record check
// rejects and returns its description, or an empty text when none.
template <typename Check>
QString firstDisagreement(Check check)
{
    ProtocolData record;
    record.paramBytes[3] = 0x33;
    for (int p2 = 0; p2 <= 0xFF; ++p2) {
        for (int p3 = 0; p3 <= 0xFF; ++p3) {
            for (quint8 p1 : kP1Values) {
                for (quint8 p5 : kP5Values) {
                    for (quint8 p6 : kP6Values) {
                        for (quint8 sum : kCheckValues) {
                            record.paramBytes[0] = p1;
                            record.paramBytes[1] = quint8(p2);
                            record.paramBytes[2] = quint8(p3);
                            record.paramBytes[4] = p5;
                            record.paramBytes[5] = p6;
                            record.checksumByte = sum;
                            if (!check(record))
                                return QString::asprintf("P1 %02X P2 %02X P3 %02X P5 %02X P6 %02X check %02X", p1, p2,
                                                         p3, p5, p6, sum);
                        }
                    }
                }
            }
        }
    }
    return QString();
}

} // namespace

class TestReplyRules : public QObject
{
    Q_OBJECT

private slots:
    void rows_data();
    void rows();
    void rowCountAndUnlistedReply();
    void firstMatchingRowWins();
    void networkActionIsAsBefore();
    void heldReplyPayloadIsAsBefore();
    void streamBlockAnnouncementIsAsBefore();
};

void TestReplyRules::rows_data()
{
    using C = comm::ReplyCondition;
    using A = comm::ReplyAction;
    using S = comm::StreamAction;
    QTest::addColumn<int>("index");
    QTest::addColumn<int>("p2");
    QTest::addColumn<int>("p3");
    QTest::addColumn<comm::ReplyCondition>("condition");
    QTest::addColumn<comm::ReplyAction>("datagram");
    QTest::addColumn<int>("payload");
    QTest::addColumn<comm::StreamAction>("stream");
    QTest::newRow("8B 05") << 0 << 0x8B << 0x05 << C::Always << A::Hold << 145 << S::Queue;
    QTest::newRow("8B 09") << 1 << 0x8B << 0x09 << C::Always << A::Hold << 129 << S::Queue;
    QTest::newRow("8E 27") << 2 << 0x8E << 0x27 << C::Always << A::Hold << 0 << S::TakeBlock;
    QTest::newRow("F1 40 no length") << 3 << 0xF1 << 0x40 << C::NoLength << A::DeliverAtOnce << 0 << S::Queue;
    QTest::newRow("F1 any") << 4 << 0xF1 << -1 << C::Always << A::Hold << 0 << S::Queue;
    QTest::newRow("77 23") << 5 << 0x77 << 0x23 << C::Always << A::Hold << 129 << S::Queue;
    QTest::newRow("79 09") << 6 << 0x79 << 0x09 << C::Always << A::DeliverAtOnce << 0 << S::TakeBlock;
    QTest::newRow("79 0A") << 7 << 0x79 << 0x0A << C::Always << A::DeliverAtOnce << 0 << S::TakeBlock;
    QTest::newRow("79 0C") << 8 << 0x79 << 0x0C << C::Always << A::DeliverAtOnce << 0 << S::TakeBlock;
    QTest::newRow("79 12") << 9 << 0x79 << 0x12 << C::Always << A::DeliverAtOnce << 0 << S::TakeBlock;
    QTest::newRow("79 13") << 10 << 0x79 << 0x13 << C::Always << A::DeliverAtOnce << 0 << S::TakeBlock;
    QTest::newRow("79 17") << 11 << 0x79 << 0x17 << C::Always << A::DeliverAtOnce << 0 << S::TakeBlock;
    QTest::newRow("79 any") << 12 << 0x79 << -1 << C::Always << A::Hold << 0 << S::TakeBlock;
    QTest::newRow("69 09") << 13 << 0x69 << 0x09 << C::Always << A::Hold << 129 << S::Queue;
    QTest::newRow("00 any, P1 and check 0") << 14 << 0x00 << -1 << C::P1AndCheckZero << A::BlockData << 0 << S::Queue;
    QTest::newRow("E1 any") << 15 << 0xE1 << -1 << C::Always << A::Queue << 0 << S::TakeBlock;
}

void TestReplyRules::rows()
{
    QFETCH(int, index);
    QFETCH(int, p2);
    QFETCH(int, p3);
    QFETCH(comm::ReplyCondition, condition);
    QFETCH(comm::ReplyAction, datagram);
    QFETCH(int, payload);
    QFETCH(comm::StreamAction, stream);
    QVERIFY(index < int(std::size(comm::kReplyRules)));
    const comm::ReplyRule &rule = comm::kReplyRules[index];
    QCOMPARE(int(rule.p2), p2);
    QCOMPARE(rule.p3, p3);
    QCOMPARE(rule.condition, condition);
    QCOMPARE(rule.datagram, datagram);
    QCOMPARE(rule.datagramPayload, payload);
    QCOMPARE(rule.stream, stream);
}

void TestReplyRules::rowCountAndUnlistedReply()
{
    QCOMPARE(int(std::size(comm::kReplyRules)), 16);
    QCOMPARE(comm::kAnyP3, -1);
    QCOMPARE(comm::kUnlistedReply.p3, comm::kAnyP3);
    QCOMPARE(comm::kUnlistedReply.condition, comm::ReplyCondition::Always);
    QCOMPARE(comm::kUnlistedReply.datagram, comm::ReplyAction::Queue);
    QCOMPARE(comm::kUnlistedReply.datagramPayload, 0);
    QCOMPARE(comm::kUnlistedReply.stream, comm::StreamAction::Queue);

    ProtocolData unlisted;
    unlisted.paramBytes[1] = 0x12;
    QCOMPARE(&comm::replyRule(unlisted), &comm::kUnlistedReply);
    // P2 0 with P1 set matches no row either.
    unlisted.paramBytes[1] = 0x00;
    unlisted.paramBytes[0] = 0x01;
    QCOMPARE(&comm::replyRule(unlisted), &comm::kUnlistedReply);
}

void TestReplyRules::firstMatchingRowWins()
{
    ProtocolData reply;
    reply.paramBytes[1] = 0x79;
    reply.paramBytes[2] = 0x0C;
    QCOMPARE(&comm::replyRule(reply), &comm::kReplyRules[8]);
    reply.paramBytes[2] = 0x0B;
    QCOMPARE(&comm::replyRule(reply), &comm::kReplyRules[12]);

    reply.paramBytes[1] = 0xF1;
    reply.paramBytes[2] = 0x40;
    QCOMPARE(&comm::replyRule(reply), &comm::kReplyRules[3]);
    reply.paramBytes[5] = 0x01; // a length: the row's condition fails, the next row takes it
    QCOMPARE(&comm::replyRule(reply), &comm::kReplyRules[4]);
}

void TestReplyRules::networkActionIsAsBefore()
{
    const QString disagreement = firstDisagreement(
        [](const ProtocolData &record) { return comm::replyAction(record) == before::networkAction(record); });
    QVERIFY2(disagreement.isEmpty(), qPrintable(disagreement));
}

void TestReplyRules::heldReplyPayloadIsAsBefore()
{
    const QString disagreement = firstDisagreement([](const ProtocolData &record) {
        return comm::fixedBlockPayload(record)
               == before::networkFixedPayload(record.paramBytes[1], record.paramBytes[2]);
    });
    QVERIFY2(disagreement.isEmpty(), qPrintable(disagreement));
}

void TestReplyRules::streamBlockAnnouncementIsAsBefore()
{
    const QString disagreement = firstDisagreement([](const ProtocolData &record) {
        return comm::announcesBlock(record) == before::streamAnnouncesBlock(record.paramBytes[1], record.paramBytes[2]);
    });
    QVERIFY2(disagreement.isEmpty(), qPrintable(disagreement));
}

QTEST_GUILESS_MAIN(TestReplyRules)
#include "tst_replyrules.moc"
