// PortUSB against a simulated HID device: SimulatedHid.cpp, compiled into this
// program, defines hidapi's functions, and the library's calls bind to them.
// The device stays plugged in throughout, so the process-wide hot-plug watcher
// (which starts polling with the first openUSB) never reports anything here;
// hot-plug has programs of its own.
#include <QtTest>

#include <QElapsedTimer>

#include <array>
#include <cstring>
#include <memory>

#include <hidapi.h>

#include "LogCapture.h"
#include "PortUSB.h"
#include "ProtocolData.h"
#include "ReceiveQueue.h"
#include "SimulatedHid.h"
#include "StreamTransportChecks.h"
#include "ThreadCount.h"
#include "UsbReports.h"
#include "TransportProbe.h"

using namespace usbreports;

namespace {
constexpr unsigned short kVid = 0x1A86;
constexpr unsigned short kPid = 0xE010;
constexpr int kWaitMs = 5000;
const auto kDeviceType = static_cast<ModulelEnum::DeviceType>(0x0A0B0C0D);
// The replies in these tests are written out as the device sends them: "["
// "R", then B0..B6 and the check byte (the 8-bit sum of B0..B6) as hex digit
// pairs, then "]".

ProtocolData command(quint8 commandByte, std::array<quint8, 6> params, const QByteArray &payload = {})
{
    ProtocolData record;
    record.commandByte = commandByte;
    std::copy(params.begin(), params.end(), record.paramBytes);
    record.payload = payload;
    return record;
}

QString recvLine(const QByteArray &frameBytes)
{
    return QStringLiteral("Recv data:") + QString::fromLatin1(frameBytes);
}

QString sendLine(const QByteArray &frameBytes)
{
    return QStringLiteral("Send usb data:") + QString::fromLatin1(frameBytes.left(19));
}

bool openOn(PortUSB &port)
{
    return port.openUSB(kVid, kPid);
}

} // namespace

class TestPortUSB : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanupTestCase() { testqueue::reset(); }

    // The simulation is what the library calls.
    void libraryCallsSimulatedHidapi();

    // Qt surface.
    void metaObjectIndices();
    void sendThroughPortBaseMetaObjectRunsOverride();
    void networkAndSerialOperationsDoNothing();

    // Construction, open, close, destruction.
    void constructionOpensNothingAndStartsNoWorker();
    void openUsesFirstMatchingDeviceAndStartsReaderAndWorker();
    void openPausesHundredMillisecondsFirst();
    void failedOpenReturnsFalseAndStartsNoWorker();
    void reopenClosesOldDeviceKeepsBufferAndStartsFreshPair();
    void closeEndsWorkersEmptiesBufferAndClosesDevice();
    void closeOnClosedTransportOnlyPauses();
    void destructorClosesDeviceAndEndsEveryWorker();

    // Reader.
    void readerKeepsEveryByteReadIncludingZeros();
    void readErrorsAreSkipped();
    void threadReadPendingDatagramsWithFlagFalseReturnsAtOnce();
    void writesRunBesideReadsWhileDeviceAnswers();
    void afterFailedCallsReadsAndWritesTakeTurns();

    // Sending commands.
    void commandFrameIsOneReport();
    void sixtyFourByteFrameIsOneReport();
    void sixtyFiveByteFrameIsTwoReports();
    void sendModeIsNotRead();
    void sendOnClosedTransportWritesNothingAndStillLogs();
    void writesOnClosedTransportDoNothing();
    void emptyDataWritesNothing();
    void failedWriteMidFrameLogsOnceAndSendsNoMore();
    void failedFinalShortReportLogsSendFailed();
    void commandTextFlagChangesNothingSent();
    void sendLeavesCallersRecordUnchanged();

    // Sending update data.
    void updateSplit_data();
    void updateSplit();
    void updateFailureInsideLoopIsSilent();
    void updateFailureOfFinalShortReportLogsSendFailed();

    // Replies.
    void replyBecomesRecordWithLinkTwoAndUsb();
    void frameWithZeroPaddingYieldsOneRecord();
    void blockAnnouncingFrameIsQueuedAtOnceAndItsBytesDropped();
    void twoFramesInOneReportYieldTwoRecords();
    void wrongCheckByteLogsPortUsbLineAndYieldsNoRecord();
    void frameSplitOverReportsIsRecognised();

    // Reassembly and hand-off operations of the transport.
    void reassemblyOperationsWorkOnTransportsBuffer();
    void checkBlockQueuesBlockKeepingCallersSourceText();
    void threadDealDataFuncWithFlagFalseReturnsAtOnce();
    void addToReceivedQueueQueuesWhateverTheDealFlag();
    void setRetFlagStatusSetsReplyFlag();
    void clearQueueReturnsBeforeQueueIsCleared();
};

void TestPortUSB::initTestCase()
{
    // The hot-plug watcher is started by the first PortUSB: start it now, so
    // that thread counts in the tests leave it out.
    PortUSB first;
    Q_UNUSED(first);
}

void TestPortUSB::init()
{
    simhid::reset(kVid, kPid);
    testqueue::reset();
}

void TestPortUSB::libraryCallsSimulatedHidapi()
{
    // The library's objects are linked into this program together with the
    // simulation, so the link binds their hid_* calls to it, whatever the
    // system's hidapi, loaded or not, defines: the library's open reaches the
    // simulation.
    PortUSB port;
    QVERIFY(openOn(port));
    QCOMPARE(simhid::opens().size(), size_t(1));
    QCOMPARE(simhid::openHandles(), 1);
}

void TestPortUSB::metaObjectIndices()
{
    const QMetaObject &mo = PortUSB::staticMetaObject;
    QCOMPARE(QByteArray(mo.className()), QByteArray("PortUSB"));
    QCOMPARE(mo.superClass(), &PortBase::staticMetaObject);
    QCOMPARE(mo.methodCount() - mo.methodOffset(), 2);
    const QMetaMethod signal = mo.method(mo.methodOffset());
    QCOMPARE(signal.methodType(), QMetaMethod::Signal);
    QCOMPARE(signal.methodSignature(), QByteArray("signalUSBChanged(bool)"));
    const QMetaMethod slot = mo.method(mo.methodOffset() + 1);
    QCOMPARE(slot.methodType(), QMetaMethod::Slot);
    QCOMPARE(slot.methodSignature(), QByteArray("sendDatatoDevice(void*)"));
    QCOMPARE(slot.parameterNames(), QList<QByteArray>{"parameters"});
    PortUSB port;
    QCOMPARE(port.qt_metacast("PortUSB"), static_cast<void *>(&port));
    QCOMPARE(port.qt_metacast("PortBase"), static_cast<void *>(static_cast<PortBase *>(&port)));
}

void TestPortUSB::sendThroughPortBaseMetaObjectRunsOverride()
{
    PortUSB port;
    QVERIFY(openOn(port));
    LogCapture log;
    ProtocolData record = command(0x5A, {1, 2, 3, 4, 5, 6});
    void *parameters = &record;
    const QMetaObject &mo = PortBase::staticMetaObject;
    QVERIFY(mo.method(mo.methodOffset() + 1).invoke(&port, Qt::DirectConnection, Q_ARG(void *, parameters)));
    QCOMPARE(simhid::writes(), std::vector<QByteArray>{outputReport("[A5a0102030405066f]")});
    QCOMPARE(log.lines(), QStringList{QStringLiteral("Send usb data:[A5a0102030405066f]")});
}

void TestPortUSB::networkAndSerialOperationsDoNothing()
{
    LogCapture log;
    PortUSB port;
    port.setDeviceIP(QStringLiteral("127.0.0.1"));
    port.setPort(5000);
    QCOMPARE(port.openSerialPort(QStringLiteral("/dev/ttyS0"), QSerialPort::Baud9600, QSerialPort::OneStop,
                                 QSerialPort::NoParity, QSerialPort::NoFlowControl, QSerialPort::Data8),
             false);
    port.closeSerialPort();
    QVERIFY(!isOpen(port));
    QCOMPARE(runningWorkers(port), 0);
    QVERIFY(simhid::opens().empty());
    QCOMPARE(log.lines(), QStringList());
}

void TestPortUSB::constructionOpensNothingAndStartsNoWorker()
{
    PortUSB port;
    QCOMPARE(port.parent(), nullptr);
    QVERIFY(!isOpen(port));
    QCOMPARE(port.m_cmdTextFlag.load(), false);
    QCOMPARE(port.m_dealRunning.load(), false);
    QCOMPARE(port.m_readRunning.load(), false);
    QVERIFY(port.m_dealFlag);
    QCOMPARE(runningWorkers(port), 0);
    QCOMPARE(buffData(port), QByteArray());
    QVERIFY(simhid::opens().empty());
}

void TestPortUSB::openUsesFirstMatchingDeviceAndStartsReaderAndWorker()
{
    PortUSB port;
    QVERIFY(openOn(port));
    const std::vector<simhid::OpenCall> opens = simhid::opens();
    QCOMPARE(opens.size(), size_t(1));
    QCOMPARE(opens[0].vid, kVid);
    QCOMPARE(opens[0].pid, kPid);
    QVERIFY(opens[0].serialNumberNull);
    QVERIFY(isOpen(port));
    QCOMPARE(port.m_dealRunning.load(), true);
    QCOMPARE(port.m_readRunning.load(), true);
    QCOMPARE(runningWorkers(port), 2);
    // The reader asks for 1024 bytes and waits 100 ms at most.
    QTRY_VERIFY_WITH_TIMEOUT(simhid::readCount() >= 1, kWaitMs);
    const simhid::ReadCall read = simhid::reads().front();
    QCOMPARE(read.length, size_t(1024));
    QCOMPARE(read.milliseconds, 100);
}

void TestPortUSB::openPausesHundredMillisecondsFirst()
{
    PortUSB port;
    QElapsedTimer timer;
    timer.start();
    QVERIFY(openOn(port));
    QVERIFY(timer.elapsed() >= 100);
    simhid::failOpens(1);
    timer.restart();
    QVERIFY(!openOn(port));
    QVERIFY(timer.elapsed() >= 100);
}

void TestPortUSB::failedOpenReturnsFalseAndStartsNoWorker()
{
    LogCapture log;
    PortUSB port;
    simhid::failOpens(1);
    QVERIFY(!openOn(port));
    QCOMPARE(simhid::opens().size(), size_t(1));
    QVERIFY(!isOpen(port));
    QCOMPARE(port.m_dealRunning.load(), false);
    QCOMPARE(port.m_readRunning.load(), false);
    QCOMPARE(runningWorkers(port), 0);
    QCOMPARE(log.lines(), QStringList());
}

void TestPortUSB::reopenClosesOldDeviceKeepsBufferAndStartsFreshPair()
{
    PortUSB port;
    QVERIFY(openOn(port));
    // The first half of a reply arrives from the first device.
    const QByteArray reply = QByteArrayLiteral("[R3100000000000031]"); // check byte 31
    simhid::queueInput(reply.left(9));
    QTRY_COMPARE_WITH_TIMEOUT(buffData(port), reply.left(9), kWaitMs);

    QVERIFY(openOn(port));
    QCOMPARE(simhid::closes(), 1);
    QCOMPARE(simhid::openHandles(), 1);
    QCOMPARE(simhid::opens().size(), size_t(2));
    // The implicit close keeps what was received; the old pair has ended and
    // a new one runs.
    QCOMPARE(buffData(port), reply.left(9));
    QCOMPARE(runningWorkers(port), 2);
    QVERIFY(port.m_dealRunning && port.m_readRunning);

    // The new workers read the new device and finish the reply.
    simhid::queueInput(reply.mid(9));
    QTRY_COMPARE_WITH_TIMEOUT(testqueue::length(), size_t(1), kWaitMs);
    QCOMPARE(testqueue::records().front().commandByte, quint8(0x31));
    QCOMPARE(simhid::misuse(), 0);
}

void TestPortUSB::closeEndsWorkersEmptiesBufferAndClosesDevice()
{
    PortUSB port;
    QVERIFY(openOn(port));
    simhid::queueInput("partial");
    QTRY_COMPARE_WITH_TIMEOUT(buffData(port), QByteArray("partial"), kWaitMs);
    QElapsedTimer timer;
    timer.start();
    port.closeUSB();
    QVERIFY(timer.elapsed() >= 100);
    QVERIFY(!isOpen(port));
    QCOMPARE(simhid::closes(), 1);
    QCOMPARE(simhid::openHandles(), 0);
    QCOMPARE(port.m_readRunning.load(), false);
    QCOMPARE(port.m_dealRunning.load(), false);
    QCOMPARE(buffData(port), QByteArray());
    QTRY_COMPARE_WITH_TIMEOUT(runningWorkers(port), 0, kWaitMs);
    QCOMPARE(simhid::misuse(), 0);
}

void TestPortUSB::closeOnClosedTransportOnlyPauses()
{
    LogCapture log;
    PortUSB port;
    port.appendBuffData("kept");
    QElapsedTimer timer;
    timer.start();
    port.closeUSB();
    QVERIFY(timer.elapsed() >= 100);
    QCOMPARE(simhid::closes(), 0);
    QVERIFY(simhid::opens().empty());
    QCOMPARE(buffData(port), QByteArray("kept"));
    QCOMPARE(log.lines(), QStringList());
}

void TestPortUSB::destructorClosesDeviceAndEndsEveryWorker()
{
    const int threadsBefore = threadCount();
    auto port = std::make_unique<PortUSB>();
    QVERIFY(openOn(*port));
    simhid::queueInput(inputReport(QByteArrayLiteral("[R0100000000000001]")));
    QTRY_COMPARE_WITH_TIMEOUT(testqueue::length(), size_t(1), kWaitMs);
    port->clearQueue();
    port.reset();
    QCOMPARE(simhid::closes(), 1);
    QCOMPARE(simhid::openHandles(), 0);
    // Reader, reassembly worker, hand-off and queue clearing are all gone.
    QTRY_VERIFY_WITH_TIMEOUT(threadCount() <= threadsBefore, kWaitMs);
    QCOMPARE(simhid::misuse(), 0);
}

void TestPortUSB::readerKeepsEveryByteReadIncludingZeros()
{
    PortUSB port;
    QVERIFY(openOn(port));
    // Fewer than 19 bytes: the reassembly leaves them alone.
    const QByteArray bytes("a\0b\0\0c\0\0\0d", 10);
    simhid::queueInput(bytes);
    QTRY_COMPARE_WITH_TIMEOUT(buffData(port), bytes, kWaitMs);
}

void TestPortUSB::readErrorsAreSkipped()
{
    PortUSB port;
    QVERIFY(openOn(port));
    simhid::failReads(true);
    const int readsBefore = simhid::readCount();
    // The reader keeps polling through errors ...
    QTRY_VERIFY_WITH_TIMEOUT(simhid::readCount() >= readsBefore + 3, kWaitMs);
    QVERIFY(isOpen(port));
    QCOMPARE(buffData(port), QByteArray());
    // ... and reads again once they stop.
    simhid::failReads(false);
    simhid::queueInput("back");
    QTRY_COMPARE_WITH_TIMEOUT(buffData(port), QByteArray("back"), kWaitMs);
}

void TestPortUSB::threadReadPendingDatagramsWithFlagFalseReturnsAtOnce()
{
    PortUSB port;
    QVERIFY(openOn(port));
    port.closeUSB();
    QTRY_COMPARE_WITH_TIMEOUT(runningWorkers(port), 0, kWaitMs);
    const int reads = simhid::readCount();
    port.ThreadReadPendingDatagrams();
    QCOMPARE(simhid::readCount(), reads);
}

void TestPortUSB::writesRunBesideReadsWhileDeviceAnswers()
{
    PortUSB port;
    QVERIFY(openOn(port));
    QTRY_VERIFY_WITH_TIMEOUT(simhid::readCount() >= 1, kWaitMs);
    // The reader spends most of its time in reads that time out; sends do not
    // wait for them.
    ProtocolData record = command(0x01, {0, 0, 0, 0, 0, 0});
    for (int i = 0; i < 50 && simhid::overlaps() == 0; ++i) {
        port.sendDatatoDevice(&record);
        QTest::qWait(10);
    }
    QVERIFY(simhid::overlaps() > 0);
    QCOMPARE(simhid::hazards(), 0);
}

void TestPortUSB::afterFailedCallsReadsAndWritesTakeTurns()
{
    PortUSB port;
    QVERIFY(openOn(port));
    // A device that fails every call, as one does for a moment after it has
    // been pulled out and before the watcher closes the transport.
    simhid::setWriteDuration(2);
    simhid::setFailedReadDuration(30);
    simhid::failReads(true);
    simhid::failWrites(true);
    const int reads = simhid::readCount();
    QTRY_VERIFY_WITH_TIMEOUT(simhid::readCount() >= reads + 2, kWaitMs);
    LogCapture log;
    QElapsedTimer timer;
    timer.start();
    for (int i = 0; i < 100 && timer.elapsed() < 600; ++i)
        port.sendUSBData(QByteArray(150, 'u'));
    QTRY_VERIFY_WITH_TIMEOUT(simhid::readCount() >= reads + 4, kWaitMs);
    QVERIFY(simhid::writeAttempts() > 0);
    // Each frame stops at its first failed report.
    QCOMPARE(log.count(QStringLiteral("Send failed")), simhid::writeAttempts());
    QCOMPARE(simhid::hazards(), 0);
}

void TestPortUSB::commandFrameIsOneReport()
{
    PortUSB port;
    QVERIFY(openOn(port));
    LogCapture log;
    ProtocolData record = command(0xA0, {0xFF, 0x00, 0x10, 0x20, 0x30, 0x40});
    port.sendDatatoDevice(&record);
    const QByteArray expected = QByteArray(1, '\0') + "[Aa0ff00102030403f]" + QByteArray(45, '\0');
    QCOMPARE(simhid::writes(), std::vector<QByteArray>{expected});
    QCOMPARE(log.lines(), QStringList{QStringLiteral("Send usb data:[Aa0ff00102030403f]")});
}

void TestPortUSB::sixtyFourByteFrameIsOneReport()
{
    PortUSB port;
    QVERIFY(openOn(port));
    LogCapture log;
    ProtocolData record = commandOfFrameSize(64);
    const QByteArray frameBytes = port.produceCmds(record);
    QCOMPARE(frameBytes.size(), 64);
    port.sendDatatoDevice(&record);
    QCOMPARE(simhid::writes(), std::vector<QByteArray>{outputReport(frameBytes)});
    QCOMPARE(log.lines(), QStringList{sendLine(frameBytes)});
}

void TestPortUSB::sixtyFiveByteFrameIsTwoReports()
{
    PortUSB port;
    QVERIFY(openOn(port));
    ProtocolData record = commandOfFrameSize(65);
    const QByteArray frameBytes = port.produceCmds(record);
    port.sendDatatoDevice(&record);
    const std::vector<QByteArray> expected{outputReport(frameBytes.left(64)), outputReport(frameBytes.mid(64))};
    QCOMPARE(simhid::writes(), expected);
    // The second report: one byte, then 63 zeros.
    QCOMPARE(simhid::writes()[1].mid(2), QByteArray(63, '\0'));
}

void TestPortUSB::sendModeIsNotRead()
{
    PortUSB port;
    QVERIFY(openOn(port));
    LogCapture log;
    for (quint8 mode : {quint8(0), quint8(1), quint8(7)}) {
        ProtocolData record = command(0x01, {0, 0, 0, 0, 0, 0});
        record.sendMode = mode;
        port.sendDatatoDevice(&record);
    }
    QCOMPARE(simhid::writes().size(), size_t(3));
    QCOMPARE(log.count(QStringLiteral("Send usb data:[A0100000000000001]")), 3);
}

void TestPortUSB::sendOnClosedTransportWritesNothingAndStillLogs()
{
    PortUSB port;
    LogCapture log;
    ProtocolData record = command(0x5A, {1, 2, 3, 4, 5, 6}, "payload");
    port.sendDatatoDevice(&record);
    QCOMPARE(simhid::writeAttempts(), 0);
    QCOMPARE(log.lines(), QStringList{QStringLiteral("Send usb data:[A5a0102030405066f]")});
}

void TestPortUSB::writesOnClosedTransportDoNothing()
{
    PortUSB port;
    LogCapture log;
    port.sendUSBData(numberedBytes(100));
    port.sendUSBData_Update_Vornik(numberedBytes(147));
    QCOMPARE(simhid::writeAttempts(), 0);
    QCOMPARE(log.lines(), QStringList());
}

void TestPortUSB::emptyDataWritesNothing()
{
    PortUSB port;
    QVERIFY(openOn(port));
    LogCapture log;
    port.sendUSBData(QByteArray());
    port.sendUSBData_Update_Vornik(QByteArray());
    QCOMPARE(simhid::writeAttempts(), 0);
    QCOMPARE(log.lines(), QStringList());
}

void TestPortUSB::failedWriteMidFrameLogsOnceAndSendsNoMore()
{
    PortUSB port;
    QVERIFY(openOn(port));
    LogCapture log;
    ProtocolData record = commandOfFrameSize(200); // 64, 64, 64, 8
    const QByteArray frameBytes = port.produceCmds(record);
    simhid::failWrite(2);
    port.sendDatatoDevice(&record);
    QCOMPARE(simhid::writeAttempts(), 2);
    QCOMPARE(simhid::writes(), std::vector<QByteArray>{outputReport(frameBytes.left(64))});
    QCOMPARE(log.lines(), (QStringList{QStringLiteral("Send failed"), sendLine(frameBytes)}));
}

void TestPortUSB::failedFinalShortReportLogsSendFailed()
{
    PortUSB port;
    QVERIFY(openOn(port));
    LogCapture log;
    simhid::failWrite(2);
    port.sendUSBData(numberedBytes(65));
    QCOMPARE(simhid::writeAttempts(), 2);
    QCOMPARE(log.lines(), QStringList{QStringLiteral("Send failed")});
}

void TestPortUSB::commandTextFlagChangesNothingSent()
{
    PortUSB port;
    QVERIFY(openOn(port));
    ProtocolData record = command(0x5A, {1, 2, 3, 4, 5, 6}, "tail");
    port.sendDatatoDevice(&record);
    port.m_cmdTextFlag = true;
    LogCapture log;
    port.sendDatatoDevice(&record);
    const std::vector<QByteArray> writes = simhid::writes();
    QCOMPARE(writes.size(), size_t(2));
    QCOMPARE(writes[1], writes[0]);
    QCOMPARE(log.lines(), QStringList{QStringLiteral("Send usb data:[A5a0102030405066f]")});
}

void TestPortUSB::sendLeavesCallersRecordUnchanged()
{
    PortUSB port;
    QVERIFY(openOn(port));
    ProtocolData record = command(0x5A, {1, 2, 3, 4, 5, 6}, "raw");
    record.checksumByte = 0x11;
    port.sendDatatoDevice(&record);
    QCOMPARE(record.checksumByte, quint8(0x11));
    QCOMPARE(record.payload, QByteArray("raw"));
    QCOMPARE(port.produceCmds(record), QByteArray("[A5a0102030405066f]raw"));
    QCOMPARE(port.changeData(QByteArray("\x00\x0F\xF0\xFF", 4)), QByteArray("[A000ff0ff]"));
}

void TestPortUSB::updateSplit_data()
{
    addUpdateSplitRows();
}

void TestPortUSB::updateSplit()
{
    QFETCH(int, size);
    QFETCH(QList<int>, chunks);
    PortUSB port;
    QVERIFY(openOn(port));
    LogCapture log;
    const QByteArray data = numberedBytes(size);
    port.sendUSBData_Update_Vornik(data);
    const std::vector<QByteArray> expected = chunkReports(data, chunks);
    QCOMPARE(simhid::writes(), expected);
    QCOMPARE(log.lines(), QStringList());
}

void TestPortUSB::updateFailureInsideLoopIsSilent()
{
    PortUSB port;
    QVERIFY(openOn(port));
    LogCapture log;
    const QByteArray data = numberedBytes(147); // 19, 64, 64
    simhid::failWrite(2);
    port.sendUSBData_Update_Vornik(data);
    QCOMPARE(simhid::writeAttempts(), 2);
    QCOMPARE(simhid::writes(), std::vector<QByteArray>{outputReport(data.left(19))});
    simhid::failWrite(1);
    port.sendUSBData_Update_Vornik(data);
    QCOMPARE(simhid::writeAttempts(), 3);
    QCOMPARE(log.lines(), QStringList());
}

void TestPortUSB::updateFailureOfFinalShortReportLogsSendFailed()
{
    PortUSB port;
    QVERIFY(openOn(port));
    LogCapture log;
    simhid::failWrite(3);
    port.sendUSBData_Update_Vornik(numberedBytes(84)); // 19, 64, 1
    QCOMPARE(simhid::writeAttempts(), 3);
    QCOMPARE(log.lines(), QStringList{QStringLiteral("Send failed")});
    // Data shorter than 64 bytes is one final short report.
    log.clear();
    simhid::failWrite(1);
    port.sendUSBData_Update_Vornik(numberedBytes(63));
    QCOMPARE(simhid::writeAttempts(), 4);
    QCOMPARE(log.lines(), QStringList{QStringLiteral("Send failed")});
}

void TestPortUSB::replyBecomesRecordWithLinkTwoAndUsb()
{
    PortUSB port;
    port.setDeviceType(kDeviceType);
    QVERIFY(openOn(port));
    LogCapture log;
    const QByteArray reply = QByteArrayLiteral("[R5A0102030405066F]"); // check byte 6F
    simhid::queueInput(inputReport(reply));
    QTRY_COMPARE_WITH_TIMEOUT(testqueue::length(), size_t(1), kWaitMs);
    const ProtocolData record = testqueue::records().front();
    QCOMPARE(record.linkByte, quint8(2));
    QCOMPARE(record.sourceText, QStringLiteral("USB"));
    QCOMPARE(record.deviceType, kDeviceType);
    QCOMPARE(record.commandByte, quint8(0x5A));
    const std::array<quint8, 6> params{1, 2, 3, 4, 5, 6};
    QVERIFY(std::equal(params.begin(), params.end(), record.paramBytes));
    QCOMPARE(record.checksumByte, quint8(0x6F));
    QCOMPARE(record.payload, QByteArray());
    QVERIFY(testqueue::replyFlag());
    QCOMPARE(log.lines(), QStringList{recvLine(reply)});
}

void TestPortUSB::frameWithZeroPaddingYieldsOneRecord()
{
    PortUSB port;
    QVERIFY(openOn(port));
    const QByteArray report = QByteArrayLiteral("[R0300000000000003]") + QByteArray(45, '\0');
    QCOMPARE(report.size(), 64);
    simhid::queueInput(report);
    QTRY_COMPARE_WITH_TIMEOUT(testqueue::length(), size_t(1), kWaitMs);
    // The 45 zero bytes go on a later turn, without a record or a log line.
    LogCapture log;
    QTRY_COMPARE_WITH_TIMEOUT(buffData(port), QByteArray(), kWaitMs);
    QCOMPARE(testqueue::length(), size_t(1));
    QCOMPARE(log.lines(), QStringList());
}

void TestPortUSB::blockAnnouncingFrameIsQueuedAtOnceAndItsBytesDropped()
{
    PortUSB port;
    QVERIFY(openOn(port));
    LogCapture log;
    // B2 = 0x79 announces three bytes (B5 = 3, B6 = 0); they follow at once.
    const QByteArray reply = QByteArrayLiteral("[R42007900000300BE]"); // check byte BE
    simhid::queueInput(inputReport(reply + QByteArray("\x01\x02\x03", 3)));
    QTRY_COMPARE_WITH_TIMEOUT(testqueue::length(), size_t(1), kWaitMs);
    QCOMPARE(testqueue::records().front().payload, QByteArray());
    QCOMPARE(testqueue::records().front().paramBytes[1], quint8(0x79));
    QTRY_COMPARE_WITH_TIMEOUT(buffData(port), QByteArray(), kWaitMs);
    QCOMPARE(testqueue::length(), size_t(1));
    QCOMPARE(log.lines(), QStringList{recvLine(reply)});
}

void TestPortUSB::twoFramesInOneReportYieldTwoRecords()
{
    PortUSB port;
    QVERIFY(openOn(port));
    LogCapture log;
    const QByteArray first = QByteArrayLiteral("[R1100000000000011]");
    const QByteArray second = QByteArrayLiteral("[R2200000000000022]");
    simhid::queueInput(inputReport(first + second));
    QTRY_COMPARE_WITH_TIMEOUT(testqueue::length(), size_t(2), kWaitMs);
    // Each record goes through a hand-off thread of its own, so the queue's
    // order is not asserted; the frames are handled one per turn, in order.
    QList<quint8> commands;
    for (const ProtocolData &record : testqueue::records()) {
        commands.append(record.commandByte);
        QCOMPARE(record.linkByte, quint8(2));
        QCOMPARE(record.sourceText, QStringLiteral("USB"));
    }
    std::sort(commands.begin(), commands.end());
    QCOMPARE(commands, (QList<quint8>{0x11, 0x22}));
    QCOMPARE(log.lines(), (QStringList{recvLine(first), recvLine(second)}));
}

void TestPortUSB::wrongCheckByteLogsPortUsbLineAndYieldsNoRecord()
{
    PortUSB port;
    QVERIFY(openOn(port));
    LogCapture log;
    // Check byte 70 where the sum of 5A 01 02 03 04 05 06 is 6F.
    simhid::queueInput(inputReport(QByteArrayLiteral("[R5A01020304050670]")));
    const QString checkLine = QStringLiteral("PortUSB::getArrayData   dataStr==5A01020304050670");
    QVERIFY(log.waitFor(checkLine, kWaitMs));
    // A good frame afterwards is the only record.
    const QByteArray good = QByteArrayLiteral("[R0700000000000007]");
    simhid::queueInput(inputReport(good));
    QTRY_COMPARE_WITH_TIMEOUT(testqueue::length(), size_t(1), kWaitMs);
    QCOMPARE(testqueue::records().front().commandByte, quint8(0x07));
    QCOMPARE(log.lines(), (QStringList{checkLine, recvLine(good)}));
}

void TestPortUSB::frameSplitOverReportsIsRecognised()
{
    PortUSB port;
    QVERIFY(openOn(port));
    const QByteArray reply = QByteArrayLiteral("[R6601000000000067]"); // check byte 66 + 01
    simhid::queueInput(reply.left(12));
    QTRY_COMPARE_WITH_TIMEOUT(buffData(port), reply.left(12), kWaitMs);
    simhid::queueInput(reply.mid(12));
    QTRY_COMPARE_WITH_TIMEOUT(testqueue::length(), size_t(1), kWaitMs);
    QCOMPARE(testqueue::records().front().commandByte, quint8(0x66));
}

void TestPortUSB::reassemblyOperationsWorkOnTransportsBuffer()
{
    streamtransportchecks::reassemblyOperationsWorkOnTransportsBuffer<PortUSB>(2);
}

void TestPortUSB::checkBlockQueuesBlockKeepingCallersSourceText()
{
    PortUSB port;
    port.setDeviceType(kDeviceType);
    const QByteArray block("\x0A\x0B\x0C\x21", 4); // check byte 0A + 0B + 0C
    port.appendBuffData(block + "rest");
    ProtocolData record;
    record.sourceText = QStringLiteral("as passed");
    record.commandByte = 0x12;
    QVERIFY(port.checkBlock(record, 4));
    QCOMPARE(buffData(port), QByteArray("rest"));
    QVERIFY(port.checkBlock(ProtocolData(), 0));
    const std::vector<ProtocolData> records = testqueue::records();
    QCOMPARE(records.size(), size_t(2));
    QCOMPARE(records[0].payload, block);
    QCOMPARE(records[0].linkByte, quint8(2));
    QCOMPARE(records[0].sourceText, QStringLiteral("as passed"));
    QCOMPARE(records[0].deviceType, kDeviceType);
    QCOMPARE(records[0].commandByte, quint8(0x12));
    QCOMPARE(records[1].payload, QByteArray());
    QCOMPARE(records[1].linkByte, quint8(2));
}

void TestPortUSB::threadDealDataFuncWithFlagFalseReturnsAtOnce()
{
    PortUSB port;
    port.appendBuffData(QByteArrayLiteral("[R0100000000000001]"));
    port.ThreadDealDataFunc();
    // Not a single turn ran.
    QCOMPARE(buffData(port).size(), 19);
    QCOMPARE(testqueue::length(), size_t(0));
}

void TestPortUSB::addToReceivedQueueQueuesWhateverTheDealFlag()
{
    streamtransportchecks::addToReceivedQueueQueuesWhateverTheDealFlag<PortUSB>();
}

void TestPortUSB::setRetFlagStatusSetsReplyFlag()
{
    streamtransportchecks::setRetFlagStatusSetsReplyFlag<PortUSB>();
}

void TestPortUSB::clearQueueReturnsBeforeQueueIsCleared()
{
    streamtransportchecks::clearQueueReturnsBeforeQueueIsCleared<PortUSB>();
}

QTEST_GUILESS_MAIN(TestPortUSB)
#include "tst_portusb.moc"
