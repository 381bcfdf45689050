// One round trip through the system's hidapi and the kernel's HID stack: the
// test creates a virtual HID device through /dev/uhid, PortUSB opens it by its
// identifiers as it would a real one, a command goes out as an output report
// and a reply comes back as an input report. Where /dev/uhid cannot be used
// (no uhid module, no permission) or the device never shows up as a hidraw
// node, the test is skipped and says why.
#include <QtTest>

#include <QElapsedTimer>

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <linux/input.h>
#include <linux/uhid.h>
#include <poll.h>
#include <unistd.h>

#include <hidapi.h>

#include "PortUSB.h"
#include "ProtocolData.h"
#include "ReceiveQueue.h"

namespace {
// pid.codes' vendor with one of its product ids set aside for testing.
constexpr unsigned short kVid = 0x1209;
constexpr unsigned short kPid = 0x0001;
constexpr int kWaitMs = 5000;

// Vendor-defined page, 64-byte input and output reports, no report IDs.
const unsigned char kReportDescriptor[] = {
    0x06, 0x00, 0xFF, // Usage Page (vendor defined 0xFF00)
    0x09, 0x01,       // Usage (1)
    0xA1, 0x01,       // Collection (application)
    0x15, 0x00,       //   Logical Minimum (0)
    0x26, 0xFF, 0x00, //   Logical Maximum (255)
    0x75, 0x08,       //   Report Size (8)
    0x95, 0x40,       //   Report Count (64)
    0x09, 0x01,       //   Usage (1)
    0x81, 0x02,       //   Input (data, variable, absolute)
    0x95, 0x40,       //   Report Count (64)
    0x09, 0x01,       //   Usage (1)
    0x91, 0x02,       //   Output (data, variable, absolute)
    0xC0,             // End Collection
};

// A virtual HID device on /dev/uhid, destroyed with the object.
class VirtualHidDevice
{
public:
    VirtualHidDevice()
    {
        m_fd = ::open("/dev/uhid", O_RDWR | O_CLOEXEC);
        if (m_fd < 0) {
            m_error = QStringLiteral("/dev/uhid cannot be opened (%1); the round trip needs the uhid kernel "
                                     "module and the right to open it")
                          .arg(QString::fromLocal8Bit(std::strerror(errno)));
            return;
        }
        uhid_event event{};
        event.type = UHID_CREATE2;
        std::strncpy(reinterpret_cast<char *>(event.u.create2.name), "libComm_Module test device",
                     sizeof event.u.create2.name - 1);
        event.u.create2.rd_size = sizeof kReportDescriptor;
        event.u.create2.bus = BUS_USB;
        event.u.create2.vendor = kVid;
        event.u.create2.product = kPid;
        std::memcpy(event.u.create2.rd_data, kReportDescriptor, sizeof kReportDescriptor);
        if (!send(event)) {
            m_error = QStringLiteral("/dev/uhid refused to create a device (%1)")
                          .arg(QString::fromLocal8Bit(std::strerror(errno)));
            ::close(m_fd);
            m_fd = -1;
        }
    }

    ~VirtualHidDevice()
    {
        if (m_fd < 0)
            return;
        uhid_event event{};
        event.type = UHID_DESTROY;
        send(event);
        ::close(m_fd);
    }

    VirtualHidDevice(const VirtualHidDevice &) = delete;
    VirtualHidDevice &operator=(const VirtualHidDevice &) = delete;

    bool isValid() const { return m_fd >= 0; }
    QString error() const { return m_error; }

    // The device sends one 64-byte input report.
    bool sendInput(const QByteArray &report)
    {
        uhid_event event{};
        event.type = UHID_INPUT2;
        event.u.input2.size = static_cast<__u16>(report.size());
        std::memcpy(event.u.input2.data, report.constData(), static_cast<size_t>(report.size()));
        return send(event);
    }

    // The data of the next output report the host writes, waiting timeoutMs at
    // most; empty when none came. Other events (start, open, ...) are skipped.
    QByteArray nextOutput(int timeoutMs)
    {
        QElapsedTimer timer;
        timer.start();
        for (int events = 0; events < 1000; ++events) {
            const int left = timeoutMs - static_cast<int>(timer.elapsed());
            if (left <= 0)
                return {};
            pollfd readable{m_fd, POLLIN, 0};
            if (::poll(&readable, 1, left) <= 0)
                return {};
            uhid_event event{};
            if (::read(m_fd, &event, sizeof event) <= 0)
                return {};
            if (event.type == UHID_OUTPUT)
                return QByteArray(reinterpret_cast<const char *>(event.u.output.data), event.u.output.size);
        }
        return {};
    }

private:
    bool send(const uhid_event &event)
    {
        return ::write(m_fd, &event, sizeof event) == static_cast<ssize_t>(sizeof event);
    }

    int m_fd = -1;
    QString m_error;
};

// Whether hidapi lists a device with the test identifiers, waiting up to
// timeoutMs for it to appear.
bool hidapiFinds(int timeoutMs)
{
    QElapsedTimer timer;
    timer.start();
    while (true) {
        hid_device_info *devices = hid_enumerate(kVid, kPid);
        const bool found = devices != nullptr;
        hid_free_enumeration(devices);
        if (found)
            return true;
        if (timer.elapsed() >= timeoutMs)
            return false;
        QTest::qWait(50);
    }
}
} // namespace

class TestPortUSBUhid : public QObject
{
    Q_OBJECT

private slots:
    void init() { testqueue::reset(); }
    void cleanupTestCase() { testqueue::reset(); }

    void commandAndReplyRoundTripThroughKernel();
};

void TestPortUSBUhid::commandAndReplyRoundTripThroughKernel()
{
    VirtualHidDevice device;
    if (!device.isValid())
        QSKIP(qPrintable(device.error()));
    if (!hidapiFinds(kWaitMs))
        QSKIP("the virtual device did not show up as a hidraw device within 5 s (no hidraw support?)");

    PortUSB port;
    if (!port.openUSB(kVid, kPid))
        QSKIP("hidapi lists the virtual device but cannot open its hidraw node (permissions?)");

    ProtocolData record;
    record.commandByte = 0x5A;
    const quint8 params[6] = {1, 2, 3, 4, 5, 6};
    std::copy(std::begin(params), std::end(params), record.paramBytes);
    port.sendDatatoDevice(&record);
    const QByteArray output = device.nextOutput(kWaitMs);
    // The kernel hands on the report as written: report ID 0, the frame, zeros.
    QCOMPARE(output.size(), 65);
    QCOMPARE(output.at(0), '\0');
    QCOMPARE(output.mid(1, 19), QByteArray("[A5a0102030405066f]"));
    QCOMPARE(output.mid(20), QByteArray(45, '\0'));

    // "[" "R", 5A 01 02 03 04 05 06 and their 8-bit sum 6F as hex digits, "]".
    const QByteArray reply = QByteArrayLiteral("[R5A0102030405066F]");
    QVERIFY(device.sendInput(reply + QByteArray(64 - reply.size(), '\0')));
    QTRY_COMPARE_WITH_TIMEOUT(testqueue::length(), size_t(1), kWaitMs);
    const ProtocolData received = testqueue::records().front();
    QCOMPARE(received.commandByte, quint8(0x5A));
    QCOMPARE(received.linkByte, quint8(2));
    QCOMPARE(received.sourceText, QStringLiteral("USB"));
    port.closeUSB();
}

QTEST_GUILESS_MAIN(TestPortUSBUhid)
#include "tst_portusb_uhid.moc"
