#include <QtTest>

#include <atomic>
#include <thread>

#include <QSerialPort>

#include <memory>

#include "LogCapture.h"
#include "OtherThread.h"
#include "PortSerial.h"
#include "ProtocolData.h"
#include "PseudoTerminal.h"
#include "ReceiveQueue.h"
#include "SerialLink.h"
#include "StreamTransportChecks.h"
#include "ThreadCount.h"
#include "TransportProbe.h"

namespace {
constexpr int kWaitMs = 5000;
const auto kDeviceType = static_cast<ModulelEnum::DeviceType>(77);

ProtocolData command(quint8 commandByte, std::array<quint8, 6> params, const QByteArray &payload = {})
{
    ProtocolData record;
    record.commandByte = commandByte;
    std::copy(params.begin(), params.end(), record.paramBytes);
    record.payload = payload;
    return record;
}

// A fresh pseudo-terminal and a transport of type Port for it. threadsBefore
// counts the process's threads before the transport existed.
template <typename Port = PortSerial>
struct Link
{
    const int threadsBefore = threadCount();
    PseudoTerminal pty;
    std::unique_ptr<Port> port = std::make_unique<Port>();
    // The transport alone, with its I/O thread and no worker yet.
    const int threadsOfIdlePort = threadCount();
};

// Opens the link's transport on its pseudo-terminal, with 115200 8N1 and no
// flow control; skips the test where no pseudo-terminal can be made.
#define OPEN_LINK(link)                                                                                                \
    do {                                                                                                               \
        REQUIRE_PTY((link).pty);                                                                                       \
        QVERIFY(openOn(*(link).port, (link).pty));                                                                     \
    } while (false)

// Reply frames as the device sends them: "[" "R", then B0..B6 and the check
// byte (the 8-bit sum of B0..B6) as hex digit pairs, then "]".
// 5A 01 02 03 04 05 06, check byte 6F.
const QByteArray kReply5A = QByteArrayLiteral("[R5A0102030405066F]");
// 42 00 79 00 00 03 00: announces a block of three bytes, check byte BE.
const QByteArray kAnnouncesBlockOf3 = QByteArrayLiteral("[R42007900000300BE]");

QString recvLine(const QByteArray &frameBytes)
{
    return QStringLiteral("Recv data:") + QString::fromLatin1(frameBytes);
}

// A transport whose one write call returns what the test says, to reach the
// outcomes a pseudo-terminal never gives (a failed or a partial write).
class ScriptedWritePort : public PortSerial
{
public:
    ScriptedWritePort()
    {
        PortSerialPrivate::get(this)->writeSeam = [this](const char *data, qint64 size) {
            written = QByteArray(data, static_cast<int>(size));
            return writeResult;
        };
    }

    qint64 writeResult = -1;
    QByteArray written;
};
} // namespace

class TestPortSerial : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init() { testqueue::reset(); }
    void cleanupTestCase() { testqueue::reset(); }

    // Qt surface.
    void metaObjectIndices();
    void sendThroughPortBaseMetaObjectRunsOverride();
    void networkAndUsbOperationsDoNothing();

    // Construction, open, close.
    void constructionOpensNothingAndStartsNoWorker();
    void onlyReadyReadIsConnected();
    void openOnMissingPortReturnsFalseAndStartsNoWorker();
    void openAppliesLineSettingsAndStartsOneWorker();
    void secondOpenLeavesOneWorkerAndEmptyBuffer();
    void reopenWithDealFlagFalseStartsSecondWorkerAndDestructorStopsBoth();
    void closeOnNeverOpenedTransportDoesNothing();
    void closeStopsWorkerAndEmptiesBuffer();
    void destructorStopsWorkerOfOpenPort();
    void openAndCloseFromAnotherThreadUseThePortOnItsOwnThread();

    // Errors.
    void otherErrorsLeavePortOpen_data();
    void otherErrorsLeavePortOpen();
    void resourceErrorClosesPortAndLeavesWorkerToDestructor();
    void resourceErrorOnClosedPortIsIgnored();
    void reopenAfterResourceErrorLeavesOneWorker();
    void lateResourceErrorFromAnEarlierOpeningLeavesTheNewOneOpen();
    void hangUpEndsWithPortClosedByHandleError();
    void closingOnReadErrorEndsHangUpAtOnce();

    // Deal flags.
    void dealFlagFalseDropsReceivedBytes();
    void setDealFlagFalseStopsWorkerAndTrueDoesNotRestartIt();

    // Sending.
    void sendLogsWriteSizeOutcomeThenHeader();
    void sendWithPayloadWritesWholeFrameAndLogsHeader();
    void sendOnClosedPortLogsOnlyHeader();
    void failedWriteLogsSendFailed();
    void partialWriteLogsNoOutcome();
    void sendLeavesCallersRecordUnchanged();
    void sendFromAnotherThreadReachesDevice();

    // Reply hand-off and reassembly operations of the transport.
    void addToReceivedQueueQueuesWhateverTheDealFlag();
    void setRetFlagStatusSetsReplyFlag();
    void clearQueueReturnsBeforeQueueIsCleared();
    void reassemblyOperationsWorkOnTransportsBuffer();
    void threadDealDataFuncWithRunFlagFalseReturnsAtOnce();

    // Replies from the device.
    void replyBecomesRecordNamedAfterPort();
    void strayBytesBeforeFrameAreDropped();
    void allZeroFrameYieldsRecord();
    void blockWithGoodCheckByteBecomesPayload();
    void blockWithBadCheckByteIsReported();
    void frame8EWithout27IsFollowedByOrdinaryData();
    void blockE1OfLengthZeroIsQueuedAtOnce();
    void blockNeverSentIsReportedAfterWaitAndLaterFramesWork();
    void frameSplitAcrossReadsIsRecognised();
    void wrongCheckByteIsReported();
    void lowerCaseDigitsDecodeLikeUpperCase();
    void fewerThanNineteenBytesWait();
};

void TestPortSerial::initTestCase()
{
    qRegisterMetaType<QSerialPort::SerialPortError>();
}

void TestPortSerial::metaObjectIndices()
{
    const QMetaObject &mo = PortSerial::staticMetaObject;
    QCOMPARE(QByteArray(mo.className()), QByteArray("PortSerial"));
    QCOMPARE(mo.superClass(), &PortBase::staticMetaObject);
    QCOMPARE(mo.methodCount() - mo.methodOffset(), 4);
    const struct
    {
        QMetaMethod::MethodType type;
        const char *signature;
        QList<QByteArray> names;
    } expected[] = {
        {QMetaMethod::Signal, "signalUSBChanged(bool)", {QByteArray()}},
        {QMetaMethod::Slot, "readPendingDatagrams()", {}},
        {QMetaMethod::Slot, "sendDatatoDevice(void*)", {"parameters"}},
        {QMetaMethod::Slot, "handleError(QSerialPort::SerialPortError)", {"error"}},
    };
    for (int i = 0; i < 4; ++i) {
        const QMetaMethod method = mo.method(mo.methodOffset() + i);
        QCOMPARE(method.methodType(), expected[i].type);
        QCOMPARE(method.methodSignature(), QByteArray(expected[i].signature));
        QCOMPARE(method.parameterNames(), expected[i].names);
    }
    PortSerial port;
    QCOMPARE(port.qt_metacast("PortSerial"), static_cast<void *>(&port));
    QCOMPARE(port.qt_metacast("PortBase"), static_cast<void *>(static_cast<PortBase *>(&port)));
}

void TestPortSerial::sendThroughPortBaseMetaObjectRunsOverride()
{
    Link<> link;
    OPEN_LINK(link);
    PortSerial &port = *link.port;
    LogCapture log;
    ProtocolData record = command(0x5A, {1, 2, 3, 4, 5, 6});
    void *parameters = &record;
    const QMetaObject &mo = PortBase::staticMetaObject;
    const QMetaMethod slot = mo.method(mo.methodOffset() + 1);
    QVERIFY(slot.invoke(&port, Qt::DirectConnection, Q_ARG(void *, parameters)));
    QCOMPARE(link.pty.deviceReceives(19, kWaitMs), QByteArray("[A5a0102030405066f]"));
    QCOMPARE(log.count(QStringLiteral("Send data:[A5a0102030405066f]")), 1);
}

void TestPortSerial::networkAndUsbOperationsDoNothing()
{
    LogCapture log;
    PortSerial port;
    port.setDeviceIP(QStringLiteral("127.0.0.1"));
    port.setPort(5000);
    QCOMPARE(port.openUSB(0x1234, 0x5678), false);
    port.closeUSB();
    QVERIFY(!port.m_com->isOpen());
    QCOMPARE(runningWorkers(port), 0);
    QCOMPARE(log.lines(), QStringList());
}

void TestPortSerial::constructionOpensNothingAndStartsNoWorker()
{
    PortSerial port;
    QVERIFY(port.m_com != nullptr);
    QCOMPARE(port.m_com->parent(), nullptr);
    QCOMPARE(port.parent(), nullptr);
    QVERIFY(!port.m_com->isOpen());
    QCOMPARE(port.m_threadRun.load(), false);
    QCOMPARE(port.m_threadExited.load(), false);
    QCOMPARE(runningWorkers(port), 0);
    QCOMPARE(buffData(port), QByteArray());
    QVERIFY(port.m_dealFlag);
}

void TestPortSerial::onlyReadyReadIsConnected()
{
    PortSerial port;
    QVERIFY(!QObject::disconnect(port.m_com, &QSerialPort::errorOccurred, &port, &PortSerial::handleError));
    QVERIFY(QObject::disconnect(port.m_com, &QIODevice::readyRead, &port, &PortSerial::readPendingDatagrams));
    // Nothing else from the port reaches the transport.
    QVERIFY(!QObject::disconnect(port.m_com, nullptr, &port, nullptr));
}

void TestPortSerial::openOnMissingPortReturnsFalseAndStartsNoWorker()
{
    LogCapture log;
    PortSerial port;
    QCOMPARE(port.openSerialPort(QStringLiteral("/dev/comm-module-test-no-such-port"), QSerialPort::Baud9600,
                                 QSerialPort::OneStop, QSerialPort::NoParity, QSerialPort::NoFlowControl,
                                 QSerialPort::Data8),
             false);
    QVERIFY(!port.m_com->isOpen());
    QCOMPARE(port.m_com->error(), QSerialPort::DeviceNotFoundError);
    QCOMPARE(runningWorkers(port), 0);
    QCOMPARE(port.m_threadExited.load(), false);
    QCOMPARE(port.m_threadRun.load(), false);
    QCOMPARE(log.lines(), QStringList());
}

void TestPortSerial::openAppliesLineSettingsAndStartsOneWorker()
{
    Link<> link;
    REQUIRE_PTY(link.pty);
    PortSerial &port = *link.port;
    QVERIFY(port.openSerialPort(link.pty.slavePath(), QSerialPort::Baud19200, QSerialPort::TwoStop,
                                QSerialPort::EvenParity, QSerialPort::HardwareControl, QSerialPort::Data7));
    QVERIFY(port.m_com->isOpen());
    QCOMPARE(port.m_com->openMode(), QIODevice::ReadWrite);
    QCOMPARE(port.m_com->baudRate(QSerialPort::Input), 19200);
    QCOMPARE(port.m_com->baudRate(QSerialPort::Output), 19200);
    QCOMPARE(port.m_com->dataBits(), QSerialPort::Data7);
    QCOMPARE(port.m_com->parity(), QSerialPort::EvenParity);
    QCOMPARE(port.m_com->stopBits(), QSerialPort::TwoStop);
    QCOMPARE(port.m_com->flowControl(), QSerialPort::HardwareControl);
    QCOMPARE(port.m_threadRun.load(), true);
    QCOMPARE(runningWorkers(port), 1);
}

void TestPortSerial::secondOpenLeavesOneWorkerAndEmptyBuffer()
{
    Link<> link;
    OPEN_LINK(link);
    PortSerial &port = *link.port;
    QVERIFY(link.pty.deviceSends("waiting"));
    QTRY_COMPARE_WITH_TIMEOUT(buffData(port), QByteArray("waiting"), kWaitMs);
    QVERIFY(openOn(port, link.pty));
    QCOMPARE(buffData(port), QByteArray());
    QVERIFY(port.m_com->isOpen());
    QTRY_COMPARE_WITH_TIMEOUT(runningWorkers(port), 1, kWaitMs);
    // The new worker is the one that runs: a frame still becomes a record.
    QVERIFY(link.pty.deviceSends(QByteArrayLiteral("[R0900000000000009]")));
    QTRY_COMPARE_WITH_TIMEOUT(testqueue::length(), size_t(1), kWaitMs);
    QCOMPARE(runningWorkers(port), 1);
}

void TestPortSerial::reopenWithDealFlagFalseStartsSecondWorkerAndDestructorStopsBoth()
{
    Link<> link;
    OPEN_LINK(link);
    std::unique_ptr<PortSerial> &port = link.port;
    port->m_dealFlag = false;
    QVERIFY(openOn(*port, link.pty));
    // The first worker was not stopped: two run side by side.
    QCOMPARE(runningWorkers(*port), 2);
    QVERIFY(port->m_threadRun.load());
    port.reset();
    QTRY_VERIFY_WITH_TIMEOUT(threadCount() <= link.threadsBefore, kWaitMs);
}

void TestPortSerial::closeOnNeverOpenedTransportDoesNothing()
{
    LogCapture log;
    PortSerial port;
    port.m_threadRun = true; // a stop would clear it
    port.closeSerialPort();
    QCOMPARE(port.m_threadRun.load(), true);
    QCOMPARE(port.m_threadExited.load(), false);
    QVERIFY(!port.m_com->isOpen());
    QCOMPARE(log.lines(), QStringList());
    port.m_threadRun = false;
}

void TestPortSerial::closeStopsWorkerAndEmptiesBuffer()
{
    Link<> link;
    OPEN_LINK(link);
    PortSerial &port = *link.port;
    QVERIFY(link.pty.deviceSends("partial"));
    QTRY_COMPARE_WITH_TIMEOUT(buffData(port), QByteArray("partial"), kWaitMs);
    port.closeSerialPort();
    QVERIFY(!port.m_com->isOpen());
    QCOMPARE(port.m_threadRun.load(), false);
    QCOMPARE(port.m_threadExited.load(), true);
    QCOMPARE(buffData(port), QByteArray());
    QTRY_COMPARE_WITH_TIMEOUT(runningWorkers(port), 0, kWaitMs);
}

void TestPortSerial::destructorStopsWorkerOfOpenPort()
{
    Link<> link;
    OPEN_LINK(link);
    std::unique_ptr<PortSerial> &port = link.port;
    QVERIFY(link.pty.deviceSends(QByteArrayLiteral("[R0100000000000001]")));
    QTRY_COMPARE_WITH_TIMEOUT(testqueue::length(), size_t(1), kWaitMs);
    port.reset();
    QTRY_VERIFY_WITH_TIMEOUT(threadCount() <= link.threadsBefore, kWaitMs);
}

void TestPortSerial::otherErrorsLeavePortOpen_data()
{
    // Every error the port can report but a resource error, by name: which
    // ones exist, and their values, depend on the Qt the tests run on (a
    // parity error, for one, is only reported by Qt 5).
    QTest::addColumn<int>("error");
    const QMetaEnum errors = QMetaEnum::fromType<QSerialPort::SerialPortError>();
    for (int i = 0; i < errors.keyCount(); ++i) {
        if (errors.value(i) != QSerialPort::ResourceError)
            QTest::newRow(errors.key(i)) << errors.value(i);
    }
}

void TestPortSerial::otherErrorsLeavePortOpen()
{
    QFETCH(int, error);
    Link<> link;
    OPEN_LINK(link);
    PortSerial &port = *link.port;
    port.handleError(static_cast<QSerialPort::SerialPortError>(error));
    QVERIFY(port.m_com->isOpen());
    QCOMPARE(runningWorkers(port), 1);
}

void TestPortSerial::resourceErrorClosesPortAndLeavesWorkerToDestructor()
{
    Link<> link;
    OPEN_LINK(link);
    std::unique_ptr<PortSerial> &port = link.port;
    QVERIFY(link.pty.deviceSends("kept"));
    QTRY_COMPARE_WITH_TIMEOUT(buffData(*port), QByteArray("kept"), kWaitMs);
    port->handleError(QSerialPort::ResourceError);
    QVERIFY(!port->m_com->isOpen());
    // Neither the worker nor the buffer is touched.
    QCOMPARE(port->m_threadRun.load(), true);
    QCOMPARE(runningWorkers(*port), 1);
    QCOMPARE(buffData(*port), QByteArray("kept"));
    // The port is no longer open, so closing does nothing.
    port->closeSerialPort();
    QCOMPARE(port->m_threadRun.load(), true);
    QCOMPARE(buffData(*port), QByteArray("kept"));
    port.reset();
    QTRY_VERIFY_WITH_TIMEOUT(threadCount() <= link.threadsBefore, kWaitMs);
}

void TestPortSerial::reopenAfterResourceErrorLeavesOneWorker()
{
    Link<> link;
    OPEN_LINK(link);
    PortSerial &port = *link.port;
    port.handleError(QSerialPort::ResourceError);
    QCOMPARE(runningWorkers(port), 1);
    // The worker the error left running is restarted, not joined by a second.
    QVERIFY(openOn(port, link.pty));
    QCOMPARE(runningWorkers(port), 1);
    const QByteArray reply = QByteArrayLiteral("[R2100000000000021]");
    QVERIFY(link.pty.deviceSends(reply));
    QTRY_COMPARE_WITH_TIMEOUT(testqueue::length(), size_t(1), kWaitMs);
}

void TestPortSerial::lateResourceErrorFromAnEarlierOpeningLeavesTheNewOneOpen()
{
    Link<> link;
    OPEN_LINK(link);
    PortSerial &port = *link.port;
    {
        PortSignals errors(port);
        link.pty.closeMaster();
        QTRY_VERIFY_WITH_TIMEOUT(errors.reported(QSerialPort::ReadError) || errors.reported(QSerialPort::ResourceError),
                                 kWaitMs);
        if (!errors.reported(QSerialPort::ResourceError)) {
            ProtocolData record = command(0x01, {0, 0, 0, 0, 0, 0});
            port.sendDatatoDevice(&record);
        }
        QTRY_VERIFY_WITH_TIMEOUT(errors.reported(QSerialPort::ResourceError), kWaitMs);
        port.closeSerialPort();
    }
    PseudoTerminal next;
    REQUIRE_PTY(next);
    QVERIFY(openOn(port, next));
    // The first opening's resource error reaches a queued connection only now.
    port.handleError(QSerialPort::ResourceError);
    QVERIFY(port.m_com->isOpen());
    QVERIFY(next.deviceSends(QByteArrayLiteral("[R2500000000000025]")));
    QTRY_COMPARE_WITH_TIMEOUT(testqueue::length(), size_t(1), kWaitMs);
}

void TestPortSerial::resourceErrorOnClosedPortIsIgnored()
{
    PortSerial port;
    port.handleError(QSerialPort::ResourceError);
    QVERIFY(!port.m_com->isOpen());
    QCOMPARE(runningWorkers(port), 0);
}

void TestPortSerial::hangUpEndsWithPortClosedByHandleError()
{
    Link<> link;
    OPEN_LINK(link);
    std::unique_ptr<PortSerial> &port = link.port;
    // What an application does to have a vanished device close the port.
    QObject::connect(port->m_com, &QSerialPort::errorOccurred, port.get(), &PortSerial::handleError,
                     Qt::DirectConnection);
    auto errors = std::make_unique<PortSignals>(*port);
    const auto reported = [&errors](QSerialPort::SerialPortError error) { return errors->reported(error); };

    link.pty.closeMaster();
    // Reading gives end of file: read errors, which Qt reports as a resource
    // error or not depending on the error number the reading thread last saw.
    QTRY_VERIFY_WITH_TIMEOUT(reported(QSerialPort::ReadError) || reported(QSerialPort::ResourceError), kWaitMs);
    if (!reported(QSerialPort::ResourceError)) {
        // Then the next write fails: a resource error.
        ProtocolData record = command(0x01, {0, 0, 0, 0, 0, 0});
        port->sendDatatoDevice(&record);
    }
    // The resource error closes the port.
    QTRY_VERIFY_WITH_TIMEOUT(!port->m_com->isOpen(), kWaitMs);
    QVERIFY(reported(QSerialPort::ResourceError));

    // The error storm is over.
    const int errorsAfterClose = errors->errorCount();
    QTest::qWait(200);
    QCOMPARE(errors->errorCount(), errorsAfterClose);

    // The worker still runs on the closed port; destruction stops it.
    QCOMPARE(runningWorkers(*port), 1);
    errors.reset();
    port.reset();
    QTRY_VERIFY_WITH_TIMEOUT(threadCount() <= link.threadsBefore, kWaitMs);
}

void TestPortSerial::closingOnReadErrorEndsHangUpAtOnce()
{
    Link<> link;
    OPEN_LINK(link);
    PortSerial &port = *link.port;
    closeWhenDeviceGone(port);
    PortSignals errors(port);
    link.pty.closeMaster();
    QTRY_VERIFY_WITH_TIMEOUT(!port.m_com->isOpen(), kWaitMs);
    QCOMPARE(port.m_threadRun.load(), false);
    QTRY_COMPARE_WITH_TIMEOUT(runningWorkers(port), 0, kWaitMs);
    const int errorsAfterClose = errors.errorCount();
    QTest::qWait(200); // no further error comes
    QCOMPARE(errors.errorCount(), errorsAfterClose);
}

void TestPortSerial::dealFlagFalseDropsReceivedBytes()
{
    Link<> link;
    OPEN_LINK(link);
    PortSerial &port = *link.port;
    PortSignals portSignals(port);
    port.m_dealFlag = false;
    QVERIFY(link.pty.deviceSends("dropped"));
    QTRY_VERIFY_WITH_TIMEOUT(portSignals.readyReads() > 0, kWaitMs);
    QCOMPARE(port.m_com->bytesAvailable(), qint64(0));
    QCOMPARE(buffData(port), QByteArray());
    port.m_dealFlag = true;
    QVERIFY(link.pty.deviceSends("kept"));
    QTRY_COMPARE_WITH_TIMEOUT(buffData(port), QByteArray("kept"), kWaitMs);
}

void TestPortSerial::setDealFlagFalseStopsWorkerAndTrueDoesNotRestartIt()
{
    Link<> link;
    OPEN_LINK(link);
    PortSerial &port = *link.port;
    port.setDealFlag(false);
    QCOMPARE(port.m_threadRun.load(), false);
    QTRY_COMPARE_WITH_TIMEOUT(port.m_threadExited.load(), true, kWaitMs);
    QTRY_COMPARE_WITH_TIMEOUT(runningWorkers(port), 0, kWaitMs);

    port.setDealFlag(true);
    QCOMPARE(port.m_threadRun.load(), true);
    QCOMPARE(runningWorkers(port), 0);
    // Bytes still collect, but nobody turns them into records.
    const QByteArray reply = QByteArrayLiteral("[R0500000000000005]");
    QVERIFY(link.pty.deviceSends(reply));
    QTRY_COMPARE_WITH_TIMEOUT(buffData(port), reply, kWaitMs);
    QTest::qWait(50); // many worker turns, had there been a worker
    QCOMPARE(buffData(port), reply);
    QCOMPARE(testqueue::length(), size_t(0));
    QVERIFY(port.m_com->isOpen());
}

void TestPortSerial::sendLogsWriteSizeOutcomeThenHeader()
{
    Link<> link;
    OPEN_LINK(link);
    PortSerial &port = *link.port;
    LogCapture log;
    ProtocolData record = command(0x5A, {1, 2, 3, 4, 5, 6});
    port.sendDatatoDevice(&record);
    // The byte count follows "m_com->write" after one blank.
    QCOMPARE(log.lines(), (QStringList{QStringLiteral("m_com->write 19"), QStringLiteral("Send successful"),
                                       QStringLiteral("Send data:[A5a0102030405066f]")}));
    QCOMPARE(link.pty.deviceReceives(19, kWaitMs), QByteArray("[A5a0102030405066f]"));
}

void TestPortSerial::sendWithPayloadWritesWholeFrameAndLogsHeader()
{
    Link<> link;
    OPEN_LINK(link);
    PortSerial &port = *link.port;
    LogCapture log;
    const QByteArray payload("\x00\x5D]raw\xFF", 7);
    ProtocolData record = command(0xA0, {0xFF, 0x00, 0x10, 0x20, 0x30, 0x40}, payload);
    port.sendDatatoDevice(&record);
    QCOMPARE(log.lines(), (QStringList{QStringLiteral("m_com->write 26"), QStringLiteral("Send successful"),
                                       QStringLiteral("Send data:[Aa0ff00102030403f]")}));
    QCOMPARE(link.pty.deviceReceives(26, kWaitMs), QByteArray("[Aa0ff00102030403f]") + payload);
}

void TestPortSerial::sendOnClosedPortLogsOnlyHeader()
{
    LogCapture log;
    PortSerial port;
    ProtocolData record = command(0, {0, 0, 0, 0, 0, 0});
    port.sendDatatoDevice(&record);
    QCOMPARE(log.lines(), QStringList{QStringLiteral("Send data:[A0000000000000000]")});
}

void TestPortSerial::failedWriteLogsSendFailed()
{
    Link<ScriptedWritePort> link;
    OPEN_LINK(link);
    ScriptedWritePort &port = *link.port;
    port.writeResult = -1;
    LogCapture log;
    ProtocolData record = command(0x5A, {1, 2, 3, 4, 5, 6});
    port.sendDatatoDevice(&record);
    QCOMPARE(port.written, QByteArray("[A5a0102030405066f]"));
    QCOMPARE(log.lines(), (QStringList{QStringLiteral("m_com->write 19"), QStringLiteral("Send failed"),
                                       QStringLiteral("Send data:[A5a0102030405066f]")}));
}

void TestPortSerial::partialWriteLogsNoOutcome()
{
    Link<ScriptedWritePort> link;
    OPEN_LINK(link);
    ScriptedWritePort &port = *link.port;
    port.writeResult = 7;
    LogCapture log;
    ProtocolData record = command(0x5A, {1, 2, 3, 4, 5, 6});
    port.sendDatatoDevice(&record);
    QCOMPARE(log.lines(),
             (QStringList{QStringLiteral("m_com->write 19"), QStringLiteral("Send data:[A5a0102030405066f]")}));
}

void TestPortSerial::sendLeavesCallersRecordUnchanged()
{
    PortSerial port;
    ProtocolData record = command(0x5A, {1, 2, 3, 4, 5, 6});
    record.checksumByte = 0x11;
    port.sendDatatoDevice(&record);
    QCOMPARE(record.checksumByte, quint8(0x11));
    QCOMPARE(port.produceCmds(record), QByteArray("[A5a0102030405066f]"));
    QCOMPARE(port.changeData(QByteArray("\x00\x0F\xF0\xFF", 4)), QByteArray("[A000ff0ff]"));
}

void TestPortSerial::openAndCloseFromAnotherThreadUseThePortOnItsOwnThread()
{
    Link<> link;
    REQUIRE_PTY(link.pty);
    PortSerial &port = *link.port;
    LogCapture log;
    bool opened = false;
    QVERIFY(runOnAnotherThread([&] { opened = openOn(port, link.pty); }));
    QVERIFY(opened);
    // Replies are read on the transport's I/O thread, where the port lives.
    QVERIFY(link.pty.deviceSends(kReply5A));
    QTRY_COMPARE_WITH_TIMEOUT(testqueue::length(), size_t(1), kWaitMs);
    QVERIFY(runOnAnotherThread([&] { port.closeSerialPort(); }));
    QVERIFY(!port.m_com->isOpen());
    QTRY_COMPARE_WITH_TIMEOUT(threadCount(), link.threadsOfIdlePort, kWaitMs);
    QCOMPARE(log.warnings(), QStringList());
}

void TestPortSerial::sendFromAnotherThreadReachesDevice()
{
    Link<> link;
    OPEN_LINK(link);
    PortSerial &port = *link.port;
    LogCapture log;
    ProtocolData record = command(0x5A, {1, 2, 3, 4, 5, 6});
    std::atomic<bool> returned{false};
    std::thread sender([&] {
        port.sendDatatoDevice(&record);
        returned = true;
    });
    // The write is carried over to the port's own thread, whose event loop
    // runs here; the sender waits for it.
    QTRY_VERIFY_WITH_TIMEOUT(returned.load(), kWaitMs);
    sender.join();
    QCOMPARE(log.lines(), (QStringList{QStringLiteral("m_com->write 19"), QStringLiteral("Send successful"),
                                       QStringLiteral("Send data:[A5a0102030405066f]")}));
    QCOMPARE(link.pty.deviceReceives(19, kWaitMs), QByteArray("[A5a0102030405066f]"));
}

void TestPortSerial::addToReceivedQueueQueuesWhateverTheDealFlag()
{
    streamtransportchecks::addToReceivedQueueQueuesWhateverTheDealFlag<PortSerial>();
}

void TestPortSerial::setRetFlagStatusSetsReplyFlag()
{
    streamtransportchecks::setRetFlagStatusSetsReplyFlag<PortSerial>();
}

void TestPortSerial::clearQueueReturnsBeforeQueueIsCleared()
{
    streamtransportchecks::clearQueueReturnsBeforeQueueIsCleared<PortSerial>();
}

void TestPortSerial::reassemblyOperationsWorkOnTransportsBuffer()
{
    streamtransportchecks::reassemblyOperationsWorkOnTransportsBuffer<PortSerial>(1);
}

void TestPortSerial::threadDealDataFuncWithRunFlagFalseReturnsAtOnce()
{
    PortSerial port;
    port.ThreadDealDataFunc();
    QCOMPARE(port.m_threadExited.load(), true);
}

void TestPortSerial::replyBecomesRecordNamedAfterPort()
{
    Link<> link;
    OPEN_LINK(link);
    PortSerial &port = *link.port;
    port.setDeviceType(kDeviceType);
    LogCapture log;
    const QByteArray reply = kReply5A;
    QVERIFY(link.pty.deviceSends(reply));
    QTRY_COMPARE_WITH_TIMEOUT(testqueue::length(), size_t(1), kWaitMs);
    const ProtocolData record = testqueue::records().front();
    QCOMPARE(record.linkByte, quint8(1));
    // The name as the port object reports it: the path without "/dev/".
    QCOMPARE(record.sourceText, port.m_com->portName());
    QCOMPARE(record.sourceText, link.pty.slavePath().mid(5));
    QCOMPARE(record.deviceType, kDeviceType);
    QCOMPARE(record.commandByte, quint8(0x5A));
    QCOMPARE(record.paramBytes[5], quint8(6));
    QCOMPARE(record.checksumByte, quint8(0x6F));
    QVERIFY(testqueue::replyFlag());
    QCOMPARE(log.lines(), QStringList{recvLine(reply)});
}

void TestPortSerial::strayBytesBeforeFrameAreDropped()
{
    Link<> link;
    OPEN_LINK(link);
    PortSerial &port = *link.port;
    LogCapture log;
    const QByteArray reply = QByteArrayLiteral("[R1020000000000030]"); // check byte 10 + 20
    QVERIFY(link.pty.deviceSends("\xAA\x55" + reply));
    QTRY_COMPARE_WITH_TIMEOUT(testqueue::length(), size_t(1), kWaitMs);
    QCOMPARE(testqueue::records().front().commandByte, quint8(0x10));
    QTRY_COMPARE_WITH_TIMEOUT(buffData(port), QByteArray(), kWaitMs);
    QCOMPARE(log.lines(), QStringList{recvLine(reply)});
}

void TestPortSerial::allZeroFrameYieldsRecord()
{
    Link<> link;
    OPEN_LINK(link);
    QVERIFY(link.pty.deviceSends("[R0000000000000000]"));
    QTRY_COMPARE_WITH_TIMEOUT(testqueue::length(), size_t(1), kWaitMs);
    QCOMPARE(testqueue::records().front().commandByte, quint8(0));
    QCOMPARE(testqueue::records().front().payload, QByteArray());
}

void TestPortSerial::blockWithGoodCheckByteBecomesPayload()
{
    Link<> link;
    OPEN_LINK(link);
    PortSerial &port = *link.port;
    LogCapture log;
    const QByteArray reply = kAnnouncesBlockOf3;
    QVERIFY(link.pty.deviceSends(reply + QByteArray("\x01\x02\x03", 3)));
    QTRY_COMPARE_WITH_TIMEOUT(testqueue::length(), size_t(1), kWaitMs);
    QCOMPARE(testqueue::records().front().payload, QByteArray("\x01\x02\x03", 3));
    QCOMPARE(testqueue::records().front().sourceText, port.m_com->portName());
    QTRY_COMPARE_WITH_TIMEOUT(log.count(recvLine(reply)), 1, kWaitMs);
}

void TestPortSerial::blockWithBadCheckByteIsReported()
{
    Link<> link;
    OPEN_LINK(link);
    PortSerial &port = *link.port;
    LogCapture log;
    const QByteArray reply = kAnnouncesBlockOf3;
    QVERIFY(link.pty.deviceSends(reply + QByteArray("\x01\x02\x04", 3)));
    // The frame text, one blank, then the failure text.
    const QString failure = QStringLiteral("Recv data:[R42007900000300BE] CheckBlock default:");
    QTRY_COMPARE_WITH_TIMEOUT(log.count(failure), 1, kWaitMs);
    QCOMPARE(log.lines(), QStringList{recvLine(reply) + QStringLiteral(" CheckBlock default:")});
    QCOMPARE(testqueue::length(), size_t(0));
    QCOMPARE(buffData(port), QByteArray());
}

void TestPortSerial::frame8EWithout27IsFollowedByOrdinaryData()
{
    Link<> link;
    OPEN_LINK(link);
    const QByteArray next = QByteArrayLiteral("[R6600000000000066]");
    // 42 00 8E 28 00 03 00 (check byte FB): with B3 = 0x28, not 0x27, no block
    // follows, so the three bytes 01 02 03 after it are ordinary data.
    QVERIFY(link.pty.deviceSends(QByteArrayLiteral("[R42008E28000300FB]") + QByteArray("\x01\x02\x03", 3) + next));
    QTRY_COMPARE_WITH_TIMEOUT(testqueue::length(), size_t(2), kWaitMs);
    const std::vector<ProtocolData> records = testqueue::records();
    for (const ProtocolData &record : records)
        QCOMPARE(record.payload, QByteArray());
    QVERIFY(records[0].commandByte == 0x66 || records[1].commandByte == 0x66);
}

void TestPortSerial::blockE1OfLengthZeroIsQueuedAtOnce()
{
    Link<> link;
    OPEN_LINK(link);
    // 42 00 E1 00 00 00 00 (check byte 23): a block of length 0.
    QVERIFY(link.pty.deviceSends(QByteArrayLiteral("[R4200E10000000023]")));
    QTRY_COMPARE_WITH_TIMEOUT(testqueue::length(), size_t(1), kWaitMs);
    QCOMPARE(testqueue::records().front().payload, QByteArray());
    QCOMPARE(testqueue::records().front().paramBytes[1], quint8(0xE1));
}

void TestPortSerial::blockNeverSentIsReportedAfterWaitAndLaterFramesWork()
{
    Link<> link;
    OPEN_LINK(link);
    LogCapture log;
    const QByteArray reply = kAnnouncesBlockOf3;
    QElapsedTimer timer;
    timer.start();
    QVERIFY(link.pty.deviceSends(reply));
    QTRY_COMPARE_WITH_TIMEOUT(log.count(recvLine(reply) + QStringLiteral(" CheckBlock default:")), 1, kWaitMs);
    QVERIFY2(timer.elapsed() >= 600, "150 block-wait sleeps of 4 ms come first");
    QCOMPARE(testqueue::length(), size_t(0));

    QVERIFY(link.pty.deviceSends(QByteArrayLiteral("[R7700000000000077]")));
    QTRY_COMPARE_WITH_TIMEOUT(testqueue::length(), size_t(1), kWaitMs);
    QCOMPARE(testqueue::records().front().commandByte, quint8(0x77));
}

void TestPortSerial::frameSplitAcrossReadsIsRecognised()
{
    Link<> link;
    OPEN_LINK(link);
    PortSerial &port = *link.port;
    const QByteArray reply = QByteArrayLiteral("[R123456000000009C]"); // check byte 12 + 34 + 56
    QVERIFY(link.pty.deviceSends(reply.left(7)));
    QTRY_COMPARE_WITH_TIMEOUT(buffData(port), reply.left(7), kWaitMs);
    QVERIFY(link.pty.deviceSends(reply.mid(7, 11)));
    QTRY_COMPARE_WITH_TIMEOUT(buffData(port), reply.left(18), kWaitMs);
    QCOMPARE(testqueue::length(), size_t(0));
    QVERIFY(link.pty.deviceSends(reply.mid(18)));
    QTRY_COMPARE_WITH_TIMEOUT(testqueue::length(), size_t(1), kWaitMs);
    QCOMPARE(testqueue::records().front().commandByte, quint8(0x12));
}

void TestPortSerial::wrongCheckByteIsReported()
{
    Link<> link;
    OPEN_LINK(link);
    PortSerial &port = *link.port;
    LogCapture log;
    const QByteArray reply = QByteArrayLiteral("[R5A01020304050600]"); // check byte 00, not the sum 6F
    const QString failure = QStringLiteral("PortSerial::getArrayData   dataStr==5A01020304050600");
    QVERIFY(link.pty.deviceSends(reply));
    QTRY_COMPARE_WITH_TIMEOUT(log.count(failure), 1, kWaitMs);
    QCOMPARE(testqueue::length(), size_t(0));
    QCOMPARE(log.lines(), QStringList{failure});
    // Only the "[" is dropped; the 18 bytes after it wait for more data.
    QTRY_COMPARE_WITH_TIMEOUT(buffData(port), reply.mid(1), kWaitMs);
}

void TestPortSerial::lowerCaseDigitsDecodeLikeUpperCase()
{
    Link<> link;
    OPEN_LINK(link);
    const std::array<quint8, 7> bytes{0xAB, 0xCD, 0xEF, 0x0A, 0xBC, 0xDE, 0xF0};
    // Check byte FB, the sum of those bytes.
    QVERIFY(link.pty.deviceSends(QByteArrayLiteral("[Rabcdef0abcdef0fb]")));
    QTRY_COMPARE_WITH_TIMEOUT(testqueue::length(), size_t(1), kWaitMs);
    QVERIFY(link.pty.deviceSends(QByteArrayLiteral("[RABCDEF0ABCDEF0FB]")));
    QTRY_COMPARE_WITH_TIMEOUT(testqueue::length(), size_t(2), kWaitMs);
    const std::vector<ProtocolData> records = testqueue::records();
    for (const ProtocolData &record : records) {
        QCOMPARE(record.commandByte, quint8(0xAB));
        QVERIFY(std::equal(bytes.begin() + 1, bytes.end(), record.paramBytes));
        QCOMPARE(record.checksumByte, records[0].checksumByte);
    }
}

void TestPortSerial::fewerThanNineteenBytesWait()
{
    Link<> link;
    OPEN_LINK(link);
    PortSerial &port = *link.port;
    const QByteArray garbage("xx[Ryy", 6);
    QVERIFY(link.pty.deviceSends(garbage));
    QTRY_COMPARE_WITH_TIMEOUT(buffData(port), garbage, kWaitMs);
    QTest::qWait(50); // many worker turns
    QCOMPARE(buffData(port), garbage);
    QCOMPARE(testqueue::length(), size_t(0));
}

QTEST_GUILESS_MAIN(TestPortSerial)
#include "tst_portserial.moc"
