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
#include <sys/resource.h>
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
    int looks = 0;
    // /dev/null, opened once: umockdev's preload notes every descriptor opened
    // under /dev in a table of fixed size, so one open per unplug would fill it.
    int null = -1;

    // Reads the opens of the hidraw class folder noted since the last call,
    // waiting up to timeoutMs for the first one; how many there were.
    int readLooks(int timeoutMs)
    {
        if (inotify < 0)
            return 0;
        if (timeoutMs > 0) {
            pollfd readable{inotify, POLLIN, 0};
            if (::poll(&readable, 1, timeoutMs) <= 0)
                return 0;
        }
        int seen = 0;
        alignas(inotify_event) char buffer[4096];
        for (int reads = 0; reads < 1000; ++reads) {
            const ssize_t n = ::read(inotify, buffer, sizeof buffer);
            if (n <= 0)
                break;
            for (ssize_t at = 0; at < n;) {
                const auto *event = reinterpret_cast<const inotify_event *>(buffer + at);
                if ((event->mask & IN_ISDIR) && event->len > 0 && qstrcmp(event->name, "hidraw") == 0)
                    ++seen;
                at += ssize_t(sizeof(inotify_event) + event->len);
            }
        }
        return seen;
    }
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
    // Every look through the hidraw devices opens sysfs's hidraw class folder:
    // counting those opens counts looks without touching the program's calls.
    // The folder is there from the start, empty until a device is plugged in,
    // as on a machine whose kernel has hidraw but no HID device attached.
    const QString classFolder = d->root + QStringLiteral("/sys/class");
    QDir().mkpath(classFolder + QStringLiteral("/hidraw"));
    d->null = ::open("/dev/null", O_RDWR | O_CLOEXEC);
    // Each unplugged device leaves the testbed a descriptor (see unplug):
    // thousands of unplugs need more than the usual 1,024.
    rlimit files{};
    if (::getrlimit(RLIMIT_NOFILE, &files) == 0 && files.rlim_cur < files.rlim_max) {
        files.rlim_cur = files.rlim_max;
        ::setrlimit(RLIMIT_NOFILE, &files);
    }
    d->inotify = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (d->inotify >= 0)
        ::inotify_add_watch(d->inotify, QFile::encodeName(classFolder).constData(), IN_OPEN);
}

Testbed::~Testbed()
{
    if (d->inotify >= 0)
        ::close(d->inotify);
    g_object_unref(d->bed);
    if (d->null >= 0)
        ::close(d->null);
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
    // rather than closed; it stays open, one descriptor per unplugged device,
    // until the testbed goes.
    const QString nodeFile = d->root + device->node;
    const QString terminal = QFile::symLinkTarget(nodeFile);
    ::dup2(d->null, device->master);
    device->master = -1;
    // The device's folders and files go one by one, over about two
    // milliseconds: a program that looks meanwhile finds some and not others.
    umockdev_testbed_remove_device(d->bed, device->sysfsPath.toUtf8().constData());
    // umockdev leaves the class entry behind, dangling; the kernel takes it away.
    QFile::remove(d->root + QStringLiteral("/sys/class/hidraw/") + device->node.mid(5));
    QFile::remove(nodeFile);
    // umockdev 0.17 keeps what it noted about the node's pseudo-terminal, and
    // refuses a new device on a terminal it has a note for; the kernel gives
    // the number out again once the program closes the node.
    if (terminal.startsWith(QStringLiteral("/dev/pts/")))
        QFile::remove(d->root + QStringLiteral("/dev/.ptymap/_dev_pts_") + terminal.mid(9));
}

int Testbed::looks()
{
    d->looks += d->readLooks(0);
    return d->looks;
}

bool Testbed::waitForLook(int timeoutMs)
{
    looks(); // those already begun do not count
    QElapsedTimer timer;
    timer.start();
    for (int turns = 0; turns < 100000; ++turns) {
        const int left = timeoutMs - int(timer.elapsed());
        if (left <= 0)
            return false;
        const int seen = d->readLooks(left);
        d->looks += seen;
        if (seen > 0)
            return true;
    }
    return false;
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
