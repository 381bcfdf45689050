// PortUSB on the real stack: the shipped library, linked to the system's
// hidapi (hidraw backend) as an application links it, finds, opens, writes and
// reads a HID device that umockdev emulates in this process; the test plays
// the device on its side of the node. The device stays plugged in throughout,
// so the hot-plug watcher reports nothing here.
//
// Tiers: this program covers enumeration, the reports every frame size
// becomes, update splits and the input reports the device sends.
// tst_realhid_hotplug covers plugging, tst_realhid_faults removal mid-write and
// mid-read. A write that fails at a chosen report, reads that fail while the
// device stays, and the exact calls the library makes are only possible with
// the simulated hidapi (tst_portusb, tst_portusb_hotplug, tst_faults_usb).
#include <QtTest>

#include <array>

#include <dlfcn.h>

#include "EmulatedUsb.h"
#include "LogCapture.h"
#include "PortUSB.h"
#include "ProtocolData.h"
#include "ReceiveQueue.h"
#include "UsbReports.h"
#include "TransportProbe.h"

using emulatedusb::kWaitMs;
using namespace usbreports;

namespace {
// pid.codes' test vendor; the second product is a device the library must
// leave alone.
constexpr unsigned short kVid = 0x1209;
constexpr unsigned short kPid = 0x0001;
constexpr unsigned short kOtherPid = 0x0002;
// The replies in these tests are written out as the device sends them: "["
// "R", then B0..B6 and the check byte (the 8-bit sum of B0..B6) as hex digit
// pairs, then "]".

QString recvLine(const QByteArray &frameBytes)
{
    return QStringLiteral("Recv data:") + QString::fromLatin1(frameBytes);
}

QString sendLine(const QByteArray &frameBytes)
{
    return QStringLiteral("Send usb data:") + QString::fromLatin1(frameBytes.left(19));
}
} // namespace

class TestRealHidUsb : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();
    void cleanupTestCase();

    void libraryCallsSystemHidapi();
    void opensTheDeviceWithItsIdentifiersOnly();
    void commandFrameSizes_data();
    void commandFrameSizes();
    void updateSplit_data();
    void updateSplit();
    void replyBecomesRecordWithLinkTwoAndUsb();
    void frameWithZeroPaddingYieldsOneRecord();
    void twoFramesInOneReportYieldTwoRecords();
    void frameSplitOverReportsIsRecognised();
    void wrongCheckByteLogsPortUsbLineAndYieldsNoRecord();
    void blockAnnouncingFrameIsQueuedAtOnceAndItsBytesDropped();

private:
    // The next count output reports the host wrote.
    std::vector<QByteArray> outputReports(int count);

    std::unique_ptr<emulatedhid::Testbed> m_bed;
    // Plugged in first, so that a library ignoring identifiers would open it.
    emulatedhid::Device m_other;
    emulatedhid::Device m_device;
    std::unique_ptr<PortUSB> m_port;
};

void TestRealHidUsb::initTestCase()
{
    const QString why = emulatedhid::Testbed::unavailableReason();
    if (!why.isEmpty())
        QSKIP(qPrintable(why));
    m_bed = std::make_unique<emulatedhid::Testbed>();
    QVERIFY(emulatedusb::plug(*m_bed, kVid, kOtherPid, &m_other));
    QVERIFY(emulatedusb::plug(*m_bed, kVid, kPid, &m_device));
}

void TestRealHidUsb::init()
{
    testqueue::reset();
    m_port = std::make_unique<PortUSB>();
    QVERIFY(m_port->openUSB(kVid, kPid));
}

void TestRealHidUsb::cleanup()
{
    m_port.reset();
    // Nothing the test did not read was written.
    if (m_device.master >= 0)
        QVERIFY(!emulatedhid::outputArrives(m_device.master, 20));
}

void TestRealHidUsb::cleanupTestCase()
{
    testqueue::reset();
    m_bed.reset();
}

std::vector<QByteArray> TestRealHidUsb::outputReports(int count)
{
    std::vector<QByteArray> reports;
    for (int i = 0; i < count; ++i)
        reports.push_back(emulatedhid::readOutputReport(m_device.master, kWaitMs));
    return reports;
}

void TestRealHidUsb::libraryCallsSystemHidapi()
{
    // No hid_* function of this program's takes the place of hidapi's.
    void *open = dlsym(RTLD_DEFAULT, "hid_open");
    QVERIFY(open);
    Dl_info info{};
    QVERIFY(dladdr(open, &info) != 0);
    QVERIFY2(QByteArray(info.dli_fname).contains("libhidapi-hidraw.so"), info.dli_fname);
    QVERIFY(isOpen(*m_port));
    QCOMPARE(runningWorkers(*m_port), 2);
}

void TestRealHidUsb::opensTheDeviceWithItsIdentifiersOnly()
{
    LogCapture log;
    ProtocolData record;
    record.commandByte = 0x5A;
    const std::array<quint8, 6> params{1, 2, 3, 4, 5, 6};
    std::copy(params.begin(), params.end(), record.paramBytes);
    m_port->sendDatatoDevice(&record);
    QCOMPARE(emulatedhid::readOutputReport(m_device.master, kWaitMs), outputReport("[A5a0102030405066f]"));
    QCOMPARE(log.lines(), QStringList{QStringLiteral("Send usb data:[A5a0102030405066f]")});
    // The device with the other product id was never opened: its node has no
    // reader on the host side, and nothing was written to it.
    QVERIFY(!emulatedhid::outputArrives(m_other.master, 100));
}

void TestRealHidUsb::commandFrameSizes_data()
{
    QTest::addColumn<int>("size");
    QTest::addColumn<int>("reports");
    QTest::newRow("header only") << 19 << 1;
    QTest::newRow("64") << 64 << 1;
    QTest::newRow("65") << 65 << 2;
    QTest::newRow("1000") << 1000 << 16;
}

void TestRealHidUsb::commandFrameSizes()
{
    QFETCH(int, size);
    QFETCH(int, reports);
    LogCapture log;
    ProtocolData record = commandOfFrameSize(size);
    const QByteArray frameBytes = m_port->produceCmds(record);
    QCOMPARE(frameBytes.size(), size);
    m_port->sendDatatoDevice(&record);
    const std::vector<QByteArray> expected = commandReports(frameBytes);
    QCOMPARE(int(expected.size()), reports);
    QCOMPARE(outputReports(reports), expected);
    QCOMPARE(log.lines(), QStringList{sendLine(frameBytes)});
}

void TestRealHidUsb::updateSplit_data()
{
    addUpdateSplitRows();
}

void TestRealHidUsb::updateSplit()
{
    QFETCH(int, size);
    QFETCH(QList<int>, chunks);
    LogCapture log;
    const QByteArray data = numberedBytes(size);
    m_port->sendUSBData_Update_Vornik(data);
    const std::vector<QByteArray> expected = chunkReports(data, chunks);
    QCOMPARE(outputReports(chunks.size()), expected);
    QCOMPARE(log.lines(), QStringList());
}

void TestRealHidUsb::replyBecomesRecordWithLinkTwoAndUsb()
{
    LogCapture log;
    const QByteArray reply = QByteArrayLiteral("[R5A0102030405066F]"); // check byte 6F
    QVERIFY(emulatedhid::writeInput(m_device.master, inputReport(reply)));
    QTRY_COMPARE_WITH_TIMEOUT(testqueue::length(), size_t(1), kWaitMs);
    const ProtocolData record = testqueue::records().front();
    QCOMPARE(record.linkByte, quint8(2));
    QCOMPARE(record.sourceText, QStringLiteral("USB"));
    QCOMPARE(record.commandByte, quint8(0x5A));
    const std::array<quint8, 6> params{1, 2, 3, 4, 5, 6};
    QVERIFY(std::equal(params.begin(), params.end(), record.paramBytes));
    QCOMPARE(record.checksumByte, quint8(0x6F));
    QCOMPARE(log.lines(), QStringList{recvLine(reply)});
}

void TestRealHidUsb::frameWithZeroPaddingYieldsOneRecord()
{
    LogCapture log;
    const QByteArray reply = QByteArrayLiteral("[R0300000000000003]");
    QVERIFY(emulatedhid::writeInput(m_device.master, inputReport(reply)));
    QTRY_COMPARE_WITH_TIMEOUT(testqueue::length(), size_t(1), kWaitMs);
    // The 45 zero bytes go on a later turn, without a record or a log line.
    QTRY_COMPARE_WITH_TIMEOUT(buffData(*m_port), QByteArray(), kWaitMs);
    QCOMPARE(testqueue::length(), size_t(1));
    QCOMPARE(testqueue::records().front().commandByte, quint8(3));
    QCOMPARE(log.lines(), QStringList{recvLine(reply)});
}

void TestRealHidUsb::twoFramesInOneReportYieldTwoRecords()
{
    LogCapture log;
    const QByteArray first = QByteArrayLiteral("[R1100000000000011]");
    const QByteArray second = QByteArrayLiteral("[R2200000000000022]");
    QVERIFY(emulatedhid::writeInput(m_device.master, inputReport(first + second)));
    QTRY_COMPARE_WITH_TIMEOUT(testqueue::length(), size_t(2), kWaitMs);
    // Each record goes through a hand-off thread of its own: the queue's order
    // is not asserted; the frames are handled one per turn, in order.
    QList<quint8> commands;
    for (const ProtocolData &record : testqueue::records())
        commands.append(record.commandByte);
    std::sort(commands.begin(), commands.end());
    QCOMPARE(commands, (QList<quint8>{0x11, 0x22}));
    QCOMPARE(log.lines(), (QStringList{recvLine(first), recvLine(second)}));
}

void TestRealHidUsb::frameSplitOverReportsIsRecognised()
{
    LogCapture log;
    const QByteArray reply = QByteArrayLiteral("[R6601000000000067]"); // check byte 66 + 01
    QVERIFY(emulatedhid::writeInput(m_device.master, reply.left(12)));
    QTRY_COMPARE_WITH_TIMEOUT(buffData(*m_port), reply.left(12), kWaitMs);
    QVERIFY(emulatedhid::writeInput(m_device.master, inputReport(reply.mid(12))));
    QTRY_COMPARE_WITH_TIMEOUT(testqueue::length(), size_t(1), kWaitMs);
    QCOMPARE(testqueue::records().front().commandByte, quint8(0x66));
    QCOMPARE(log.lines(), QStringList{recvLine(reply)});
}

void TestRealHidUsb::wrongCheckByteLogsPortUsbLineAndYieldsNoRecord()
{
    LogCapture log;
    // Check byte 70 where the sum of 5A 01 02 03 04 05 06 is 6F.
    QVERIFY(emulatedhid::writeInput(m_device.master, inputReport(QByteArrayLiteral("[R5A01020304050670]"))));
    const QString checkLine = QStringLiteral("PortUSB::getArrayData   dataStr==5A01020304050670");
    QVERIFY(log.waitFor(checkLine, kWaitMs));
    // A good frame afterwards is the only record.
    const QByteArray good = QByteArrayLiteral("[R0700000000000007]");
    QVERIFY(emulatedhid::writeInput(m_device.master, inputReport(good)));
    QTRY_COMPARE_WITH_TIMEOUT(testqueue::length(), size_t(1), kWaitMs);
    QCOMPARE(testqueue::records().front().commandByte, quint8(0x07));
    QCOMPARE(log.lines(), (QStringList{checkLine, recvLine(good)}));
}

void TestRealHidUsb::blockAnnouncingFrameIsQueuedAtOnceAndItsBytesDropped()
{
    LogCapture log;
    // B2 = 0x79 announces three bytes (B5 = 3, B6 = 0); they follow at once.
    const QByteArray reply = QByteArrayLiteral("[R42007900000300BE]"); // check byte BE
    QVERIFY(emulatedhid::writeInput(m_device.master, inputReport(reply + QByteArray("\x01\x02\x03", 3))));
    QTRY_COMPARE_WITH_TIMEOUT(testqueue::length(), size_t(1), kWaitMs);
    QCOMPARE(testqueue::records().front().payload, QByteArray());
    QCOMPARE(testqueue::records().front().paramBytes[1], quint8(0x79));
    QTRY_COMPARE_WITH_TIMEOUT(buffData(*m_port), QByteArray(), kWaitMs);
    QCOMPARE(testqueue::length(), size_t(1));
    QCOMPARE(log.lines(), QStringList{recvLine(reply)});
}

QTEST_GUILESS_MAIN(TestRealHidUsb)
#include "tst_realhid_usb.moc"
