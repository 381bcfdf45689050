#include "EmulatedHid.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>

#include <cerrno>
#include <cstring>
#include <thread>

#include <fcntl.h>
#include <link.h>
#include <poll.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <umockdev.h>

#include "DeviceDescription.h"

namespace emulatedhid {

namespace {
QString hex4(quint16 value, bool upper)
{
    const QString text = QStringLiteral("%1").arg(value, 4, 16, QLatin1Char('0'));
    return upper ? text.toUpper() : text;
}

QString takeError(GError *error)
{
    const QString text = error ? QString::fromUtf8(error->message) : QStringLiteral("unknown error");
    if (error)
        g_error_free(error);
    return text;
}

// Whether umockdev's preloaded library is in the process: it is what points
// the program's file and ioctl calls at the testbed. (umockdev's own check
// answers only once a testbed exists.)
bool preloadLoaded()
{
    bool found = false;
    dl_iterate_phdr(
        [](dl_phdr_info *info, size_t, void *data) {
            if (info->dlpi_name && std::strstr(info->dlpi_name, "libumockdev-preload.so"))
                *static_cast<bool *>(data) = true;
            return 0;
        },
        &found);
    return found;
}

// Waits up to timeoutMs for master to be readable. A master whose node nobody
// holds open reports a hang-up at once; that is waited out in short steps.
bool waitReadable(int master, const QElapsedTimer &timer, int timeoutMs)
{
    for (int turns = 0; turns < 100000; ++turns) {
        const int left = timeoutMs - int(timer.elapsed());
        if (left <= 0)
            return false;
        pollfd readable{master, POLLIN, 0};
        if (::poll(&readable, 1, left) <= 0)
            return false;
        if (readable.revents & POLLIN)
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return false;
}
} // namespace

struct Testbed::Private
{
    UMockdevTestbed *bed = nullptr;
    QString root;
    QString ioctlPath;
    int nextNumber = 0;
    int inotify = -1;
    int enumerations = 0;
};

Testbed::Testbed()
    : d(std::make_unique<Private>())
{
    d->bed = umockdev_testbed_new();
    gchar *root = umockdev_testbed_get_root_dir(d->bed);
    d->root = QString::fromLocal8Bit(root);
    g_free(root);
    // The ioctl answers are loaded from a file; the testbed's directory holds it.
    d->ioctlPath = d->root + QStringLiteral("/hidraw.ioctl");
    QFile ioctl(d->ioctlPath);
    if (ioctl.open(QIODevice::WriteOnly))
        ioctl.write(ioctlAnswers());
    // Every scan opens sysfs's class directory: counting those opens counts
    // enumerations without touching the program's calls.
    d->inotify = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (d->inotify >= 0)
        ::inotify_add_watch(d->inotify, QFile::encodeName(d->root + QStringLiteral("/sys")).constData(), IN_OPEN);
}

Testbed::~Testbed()
{
    if (d->inotify >= 0)
        ::close(d->inotify);
    g_object_unref(d->bed);
}

QString Testbed::unavailableReason()
{
    if (!preloadLoaded())
        return QStringLiteral("umockdev's library is not preloaded: run the program under umockdev-wrapper "
                              "(Debian package umockdev)");
    return QString();
}

bool Testbed::plug(quint16 vid, quint16 pid, Device *device, QString *error)
{
    const int number = d->nextNumber++;
    const int port = number + 1;
    QString description = QString::fromLatin1(deviceDescriptionTemplate());
    description.replace(QStringLiteral("{number}"), QString::number(number))
        .replace(QStringLiteral("{port}"), QString::number(port))
        .replace(QStringLiteral("{PORT}"), hex4(quint16(port), true))
        .replace(QStringLiteral("{vid}"), hex4(vid, false))
        .replace(QStringLiteral("{pid}"), hex4(pid, false))
        .replace(QStringLiteral("{VID}"), hex4(vid, true))
        .replace(QStringLiteral("{PID}"), hex4(pid, true));
    GError *failure = nullptr;
    if (!umockdev_testbed_add_from_string(d->bed, description.toUtf8().constData(), &failure)) {
        *error = QStringLiteral("umockdev cannot add the device: %1").arg(takeError(failure));
        return false;
    }
    const QString node = QStringLiteral("/dev/hidraw%1").arg(number);
    if (!umockdev_testbed_load_ioctl(d->bed, node.toUtf8().constData(), d->ioctlPath.toUtf8().constData(), &failure)) {
        *error = QStringLiteral("umockdev cannot load the node's ioctl answers: %1").arg(takeError(failure));
        return false;
    }
    device->vid = vid;
    device->pid = pid;
    device->node = node;
    device->sysfsPath = QStringLiteral("/sys/devices/pci0000:00/0000:00:14.0/usb1/1-%1").arg(port);
    device->master = umockdev_testbed_get_dev_fd(d->bed, node.toUtf8().constData());
    if (device->master < 0) {
        *error = QStringLiteral("umockdev made no node for the device");
        return false;
    }
    return true;
}

void Testbed::unplug(Device *device)
{
    if (device->master < 0)
        return;
    // The node hangs up once the device's side is closed. The testbed closes
    // that descriptor itself when it goes, so it is pointed at /dev/null here
    // rather than closed.
    const QString nodeFile = d->root + device->node;
    const QString terminal = QFile::symLinkTarget(nodeFile);
    const int null = ::open("/dev/null", O_RDWR | O_CLOEXEC);
    ::dup2(null, device->master);
    ::close(null);
    device->master = -1;
    umockdev_testbed_remove_device(d->bed, device->sysfsPath.toUtf8().constData());
    QFile::remove(nodeFile);
    // umockdev 0.17 keeps what it noted about the node's pseudo-terminal, and
    // refuses a new device on a terminal it has a note for; the kernel gives
    // the number out again once the program closes the node.
    if (terminal.startsWith(QStringLiteral("/dev/pts/")))
        QFile::remove(d->root + QStringLiteral("/dev/.ptymap/_dev_pts_") + terminal.mid(9));
}

int Testbed::enumerations()
{
    alignas(inotify_event) char buffer[4096];
    for (int reads = 0; reads < 1000 && d->inotify >= 0; ++reads) {
        const ssize_t n = ::read(d->inotify, buffer, sizeof buffer);
        if (n <= 0)
            break;
        for (ssize_t at = 0; at < n;) {
            const auto *event = reinterpret_cast<const inotify_event *>(buffer + at);
            if ((event->mask & IN_ISDIR) && event->len > 0 && qstrcmp(event->name, "class") == 0)
                ++d->enumerations;
            at += ssize_t(sizeof(inotify_event) + event->len);
        }
    }
    return d->enumerations;
}

QByteArray readOutputReport(int master, int timeoutMs)
{
    constexpr int kReportSize = 65;
    QByteArray report;
    QElapsedTimer timer;
    timer.start();
    for (int reads = 0; reads < 1000 && report.size() < kReportSize; ++reads) {
        if (!waitReadable(master, timer, timeoutMs))
            break;
        char piece[kReportSize];
        const ssize_t n = ::read(master, piece, size_t(kReportSize - report.size()));
        if (n > 0)
            report.append(piece, int(n));
    }
    return report;
}

bool outputArrives(int master, int timeoutMs)
{
    QElapsedTimer timer;
    timer.start();
    if (!waitReadable(master, timer, timeoutMs))
        return false;
    char discard[1024];
    return ::read(master, discard, sizeof discard) > 0;
}

bool writeInput(int master, const QByteArray &bytes)
{
    const char *data = bytes.constData();
    qint64 left = bytes.size();
    for (int attempts = 0; left > 0 && attempts < 1000; ++attempts) {
        const ssize_t n = ::write(master, data, size_t(left));
        if (n < 0) {
            if (errno != EINTR && errno != EAGAIN)
                return false;
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
            continue;
        }
        data += n;
        left -= n;
    }
    return left == 0;
}

} // namespace emulatedhid
