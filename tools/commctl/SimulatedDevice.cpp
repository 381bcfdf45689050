#include "SimulatedDevice.h"

#include <QSocketNotifier>
#include <QTimer>
#include <QUdpSocket>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <linux/uhid.h>
#include <pty.h>
#include <termios.h>
#include <unistd.h>

#ifdef COMMCTL_EMULATED_USB
#include "EmulatedHid.h"
#endif

namespace {
QString printable(const QByteArray &bytes)
{
    QString text;
    for (char c : bytes)
        text += (c >= 0x20 && c < 0x7F) ? QChar(c) : QChar('.');
    return text;
}

bool writeAll(int fd, const QByteArray &bytes)
{
    const char *data = bytes.constData();
    qint64 left = bytes.size();
    for (int attempts = 0; left > 0 && attempts < 1000; ++attempts) {
        const ssize_t n = ::write(fd, data, size_t(left));
        if (n < 0) {
            if (errno == EINTR || errno == EAGAIN) {
                ::usleep(1000);
                continue;
            }
            return false;
        }
        data += n;
        left -= n;
    }
    return left == 0;
}

// A vendor-defined HID device with 64-byte input and output reports and no
// report IDs, the shape the library's reports have.
const unsigned char kReportDescriptor[] = {
    0x06, 0x00, 0xFF, // Usage Page (Vendor Defined)
    0x09, 0x01,       // Usage (1)
    0xA1, 0x01,       // Collection (Application)
    0x15, 0x00,       //   Logical Minimum (0)
    0x26, 0xFF, 0x00, //   Logical Maximum (255)
    0x75, 0x08,       //   Report Size (8)
    0x95, 0x40,       //   Report Count (64)
    0x09, 0x01,       //   Usage (1)
    0x81, 0x02,       //   Input (Data, Variable, Absolute)
    0x95, 0x40,       //   Report Count (64)
    0x09, 0x01,       //   Usage (1)
    0x91, 0x02,       //   Output (Data, Variable, Absolute)
    0xC0,             // End Collection
};
} // namespace

SimulatedDevice::SimulatedDevice(Logger logger, QObject *parent)
    : QObject(parent)
    , m_logger(std::move(logger))
{
}

SimulatedDevice::~SimulatedDevice()
{
    delete m_serialNotifier;
    delete m_uhidNotifier;
    delete m_emulatedNotifier;
    if (m_uhid >= 0) {
        uhid_event destroy{};
        destroy.type = UHID_DESTROY;
        // Closing the node removes the device as well; the event only says so
        // first, so a failed write changes nothing.
        if (::write(m_uhid, &destroy, sizeof destroy) != ssize_t(sizeof destroy))
            log(QStringLiteral("sim: /dev/uhid did not take the destroy event: %1").arg(qt_error_string(errno)));
        ::close(m_uhid);
    }
    if (m_master >= 0)
        ::close(m_master);
    if (m_slave >= 0)
        ::close(m_slave);
}

void SimulatedDevice::log(const QString &text) const
{
    if (m_logger)
        m_logger(text);
}

bool SimulatedDevice::startUdp(const QHostAddress &address, quint16 port, QString *error)
{
    m_udp = new QUdpSocket(this);
    if (!m_udp->bind(address, port)) {
        *error = QStringLiteral("cannot listen on udp %1:%2: %3")
                     .arg(address.toString())
                     .arg(port)
                     .arg(m_udp->errorString());
        return false;
    }
    connect(m_udp, &QUdpSocket::readyRead, this, &SimulatedDevice::readDatagrams);
    log(QStringLiteral("sim: listening on udp %1:%2").arg(address.toString()).arg(m_udp->localPort()));
    return true;
}

quint16 SimulatedDevice::udpPort() const
{
    return m_udp ? m_udp->localPort() : 0;
}

void SimulatedDevice::readDatagrams()
{
    for (int i = 0; i < 1000 && m_udp->hasPendingDatagrams(); ++i) {
        const qint64 size = m_udp->pendingDatagramSize();
        QByteArray datagram(int(qMax<qint64>(size, 0)), '\0');
        QHostAddress sender;
        quint16 senderPort = 0;
        m_udp->readDatagram(datagram.data(), datagram.size(), &sender, &senderPort);
        log(QStringLiteral("sim: udp received %1 bytes: %2").arg(datagram.size()).arg(printable(datagram.left(64))));
        sim::HeaderBytes command;
        if (!sim::parseCommandHeader(datagram.constData(), datagram.size(), &command))
            continue;
        answer(sim::Link::Network, command, [this, sender, senderPort](const QByteArray &bytes) {
            // Block data goes out in datagrams of at most 512 bytes.
            for (int offset = 0; offset < bytes.size(); offset += 512)
                m_udp->writeDatagram(bytes.mid(offset, 512), sender, senderPort);
        });
    }
}

bool SimulatedDevice::startSerial(QString *error)
{
    char name[256] = {};
    if (::openpty(&m_master, &m_slave, name, nullptr, nullptr) != 0) {
        *error = QStringLiteral("cannot make a pseudo-terminal: %1").arg(QString::fromLocal8Bit(std::strerror(errno)));
        return false;
    }
    termios settings{};
    ::tcgetattr(m_master, &settings);
    ::cfmakeraw(&settings);
    ::tcsetattr(m_master, TCSANOW, &settings);
    ::fcntl(m_master, F_SETFL, ::fcntl(m_master, F_GETFL) | O_NONBLOCK);
    m_slavePath = QString::fromLocal8Bit(name);
    m_serialNotifier = new QSocketNotifier(m_master, QSocketNotifier::Read);
    connect(m_serialNotifier, &QSocketNotifier::activated, this, &SimulatedDevice::readSerial);
    log(QStringLiteral("sim: serial line at %1").arg(m_slavePath));
    return true;
}

QString SimulatedDevice::slavePath() const
{
    return m_slavePath;
}

void SimulatedDevice::readSerial()
{
    char buffer[4096];
    const ssize_t n = ::read(m_master, buffer, sizeof buffer);
    if (n <= 0)
        return; // the simulator keeps the slave side open itself, so no hang-up is seen here
    const QByteArray bytes(buffer, int(n));
    log(QStringLiteral("sim: serial received %1 bytes: %2").arg(n).arg(printable(bytes.left(64))));
    m_serialStream.append(bytes);
    sim::HeaderBytes command;
    for (int i = 0; i < 1000 && m_serialStream.next(&command); ++i)
        answer(sim::Link::Serial, command, [this](const QByteArray &out) { writeAll(m_master, out); });
}

QString SimulatedDevice::usbUnavailableReason()
{
    const int fd = ::open("/dev/uhid", O_RDWR | O_CLOEXEC);
    if (fd < 0)
        return QStringLiteral("/dev/uhid cannot be opened (%1)").arg(QString::fromLocal8Bit(std::strerror(errno)));
    ::close(fd);
    return QString();
}

bool SimulatedDevice::startUsb(quint16 vid, quint16 pid, QString *error)
{
    m_uhid = ::open("/dev/uhid", O_RDWR | O_CLOEXEC | O_NONBLOCK);
    if (m_uhid < 0) {
        *error = QStringLiteral("cannot make a virtual HID device: /dev/uhid cannot be opened (%1)")
                     .arg(QString::fromLocal8Bit(std::strerror(errno)));
        return false;
    }
    uhid_event create{};
    create.type = UHID_CREATE2;
    std::snprintf(reinterpret_cast<char *>(create.u.create2.name), sizeof create.u.create2.name,
                  "commctl simulated device");
    create.u.create2.rd_size = sizeof kReportDescriptor;
    create.u.create2.bus = BUS_USB;
    create.u.create2.vendor = vid;
    create.u.create2.product = pid;
    std::memcpy(create.u.create2.rd_data, kReportDescriptor, sizeof kReportDescriptor);
    if (::write(m_uhid, &create, sizeof create) != ssize_t(sizeof create)) {
        *error =
            QStringLiteral("cannot make a virtual HID device: %1").arg(QString::fromLocal8Bit(std::strerror(errno)));
        ::close(m_uhid);
        m_uhid = -1;
        return false;
    }
    m_uhidNotifier = new QSocketNotifier(m_uhid, QSocketNotifier::Read);
    connect(m_uhidNotifier, &QSocketNotifier::activated, this, &SimulatedDevice::readUhid);
    log(QStringLiteral("sim: virtual HID device %1:%2").arg(vid, 4, 16, QChar('0')).arg(pid, 4, 16, QChar('0')));
    return true;
}

void SimulatedDevice::readUhid()
{
    uhid_event event{};
    const ssize_t n = ::read(m_uhid, &event, sizeof event);
    if (n <= 0 || event.type != UHID_OUTPUT)
        return;
    const int size = qMin<int>(event.u.output.size, UHID_DATA_MAX);
    usbOutput(QByteArray(reinterpret_cast<const char *>(event.u.output.data), size), [this](const QByteArray &report) {
        uhid_event input{};
        input.type = UHID_INPUT2;
        input.u.input2.size = 64;
        std::memcpy(input.u.input2.data, report.constData(), 64);
        if (::write(m_uhid, &input, sizeof input) != ssize_t(sizeof input))
            log(QStringLiteral("sim: /dev/uhid did not take an input report: %1").arg(qt_error_string(errno)));
    });
}

void SimulatedDevice::usbOutput(const QByteArray &report, const std::function<void(const QByteArray &)> &sendReport)
{
    log(QStringLiteral("sim: usb received %1 bytes: %2").arg(report.size()).arg(printable(report)));
    m_usbStream.append(report);
    sim::HeaderBytes command;
    for (int i = 0; i < 1000 && m_usbStream.next(&command); ++i) {
        answer(sim::Link::Usb, command, [&sendReport](const QByteArray &out) {
            for (int offset = 0; offset < out.size(); offset += 64)
                sendReport(out.mid(offset, 64).leftJustified(64, '\0'));
        });
    }
}

QString SimulatedDevice::emulatedUsbUnavailableReason()
{
#ifdef COMMCTL_EMULATED_USB
    return emulatedhid::Testbed::unavailableReason();
#else
    return QStringLiteral("commctl was built without umockdev (Debian packages umockdev, libumockdev-dev)");
#endif
}

bool SimulatedDevice::startEmulatedUsb(quint16 vid, quint16 pid, QString *error)
{
#ifdef COMMCTL_EMULATED_USB
    const QString reason = emulatedhid::Testbed::unavailableReason();
    if (!reason.isEmpty()) {
        *error = QStringLiteral("cannot emulate a HID device: %1").arg(reason);
        return false;
    }
    m_testbed = std::make_unique<emulatedhid::Testbed>();
    m_emulated = std::make_unique<emulatedhid::Device>();
    if (!m_testbed->plug(vid, pid, m_emulated.get(), error))
        return false;
    m_emulatedNotifier = new QSocketNotifier(m_emulated->master, QSocketNotifier::Read);
    connect(m_emulatedNotifier, &QSocketNotifier::activated, this, &SimulatedDevice::readEmulatedUsb);
    log(QStringLiteral("sim: HID device %1:%2 emulated by umockdev at %3")
            .arg(vid, 4, 16, QChar('0'))
            .arg(pid, 4, 16, QChar('0'))
            .arg(m_emulated->node));
    return true;
#else
    Q_UNUSED(vid);
    Q_UNUSED(pid);
    *error = QStringLiteral("cannot emulate a HID device: %1").arg(emulatedUsbUnavailableReason());
    return false;
#endif
}

void SimulatedDevice::readEmulatedUsb()
{
    char buffer[4096];
    const ssize_t n = ::read(m_emulated->master, buffer, sizeof buffer);
    if (n <= 0) {
        // Nobody holds the node open: the terminal reports a hang-up until
        // the library opens it again; wait for data meanwhile.
        m_emulatedNotifier->setEnabled(false);
        QTimer::singleShot(20, m_emulatedNotifier, [this] { m_emulatedNotifier->setEnabled(true); });
        return;
    }
    // The node keeps no report boundaries: the library writes 65-byte reports.
    m_emulatedOutput.append(buffer, int(n));
    for (int i = 0; i < 1000 && m_emulatedOutput.size() >= 65; ++i) {
        const QByteArray report = m_emulatedOutput.left(65);
        m_emulatedOutput.remove(0, 65);
        usbOutput(report, [this](const QByteArray &input) { writeAll(m_emulated->master, input); });
    }
}

void SimulatedDevice::answer(sim::Link link, const sim::HeaderBytes &command,
                             const std::function<void(const QByteArray &)> &send)
{
    const QByteArray reply = sim::replyFrame(command);
    send(reply);
    log(QStringLiteral("sim: sent reply %1").arg(QString::fromLatin1(reply)));
    const QByteArray block = sim::blockData(link, command);
    if (!block.isEmpty()) {
        send(block);
        log(QStringLiteral("sim: sent block data of %1 bytes").arg(block.size()));
    }
}
