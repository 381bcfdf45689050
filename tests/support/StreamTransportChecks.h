#pragma once

#include <QtTest>

#include <mutex>

#include "CmdDealModule.h"
#include "LogCapture.h"
#include "ProtocolData.h"
#include "ReceiveQueue.h"
#include "TransportProbe.h"

// Checks that the serial and USB transports share: their reply hand-off and
// reassembly operations, which forward to the one stream reassembly. Each is
// one test's body; call it from a test slot with the transport type.
namespace streamtransportchecks {

constexpr int kWaitMs = 5000;

// addToReceivedQueue queues every record, whatever the deal flag.
template <typename Port>
void addToReceivedQueueQueuesWhateverTheDealFlag()
{
    Port port;
    port.m_dealFlag = false;
    ProtocolData record;
    record.commandByte = 0x33;
    port.addToReceivedQueue(record);
    QCOMPARE(testqueue::length(), size_t(1));
    QCOMPARE(testqueue::records().front().commandByte, quint8(0x33));
    QVERIFY(testqueue::replyFlag());
}

template <typename Port>
void setRetFlagStatusSetsReplyFlag()
{
    Port port;
    port.setRetFlagStatus(true);
    QVERIFY(testqueue::replyFlag());
    port.setRetFlagStatus(false);
    QVERIFY(!testqueue::replyFlag());
}

template <typename Port>
void clearQueueReturnsBeforeQueueIsCleared()
{
    Port port;
    port.addToReceivedQueue(ProtocolData());
    {
        // clearQueue returns although the queue lock is held here.
        std::lock_guard<std::mutex> held(CmdDealModule::receiveHexCmdlock);
        port.clearQueue();
        QCOMPARE(CmdDealModule::receivequeueHexCmd.size(), size_t(1));
    }
    QTRY_COMPARE_WITH_TIMEOUT(testqueue::length(), size_t(0), kWaitMs);
}

// The buffer, frame and block operations of a closed transport, driven by
// hand; every record carries linkByte.
template <typename Port>
void reassemblyOperationsWorkOnTransportsBuffer(quint8 linkByte)
{
    LogCapture log;
    Port port;
    // 21 00 00 00 00 00 00, check byte 21.
    const QByteArray reply = QByteArrayLiteral("[R2100000000000021]");
    port.appendBuffData("zz" + reply);
    QCOMPARE(port.getBuffData(3), QByteArray("zz["));
    QVERIFY(port.isFindStdCmdPreFlag(port.getBuffData(1024)));
    QCOMPARE(buffData(port), reply);
    ProtocolData decoded;
    QVERIFY(port.getArrayData(reply, &decoded));
    QCOMPARE(decoded.commandByte, quint8(0x21));
    QVERIFY(port.checkCMD(port.getBuffData(1024)));
    QCOMPARE(buffData(port), QByteArray());
    port.appendBuffData(QByteArray("\x07\x07", 2)); // block 07, check byte 07
    QVERIFY(port.checkBlock(decoded, 2));
    QCOMPARE(port.takeBuffData(5), QByteArray());
    QTRY_COMPARE_WITH_TIMEOUT(testqueue::length(), size_t(2), kWaitMs);
    for (const ProtocolData &record : testqueue::records())
        QCOMPARE(record.linkByte, linkByte);
    QCOMPARE(log.lines(), QStringList{QStringLiteral("Recv data:") + QString::fromLatin1(reply)});
}

} // namespace streamtransportchecks
