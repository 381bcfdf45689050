// Every thread the library starts is created detached and named, and none is
// detached after its start: the three links carry a command and its reply,
// clear the queue and close, while this program stands between the process
// and pthread_create and pthread_detach to see how each thread begins, and
// notes the name each one has when it ends. (A sanitizer stands there itself:
// the program is built without one.)
#include <QtTest>

#include <QSet>
#include <QUdpSocket>

#include <atomic>
#include <mutex>
#include <set>
#include <string>

#include <dlfcn.h>
#include <pthread.h>
#include <unistd.h>

#include "FakeUdpDevice.h"
#include "PortSerial.h"
#include "PortUDP.h"
#include "PortUSB.h"
#include "ProtocolData.h"
#include "PseudoTerminal.h"
#include "ReceiveQueue.h"
#include "ReplyDatagrams.h"
#include "SerialLink.h"
#include "SimulatedHid.h"
#include "ThreadCount.h"
#include "UsbReports.h"

namespace {
constexpr int kWaitMs = 10000;
constexpr unsigned short kVid = 0x1209;
constexpr unsigned short kPid = 0x0006;

struct Seen
{
    std::mutex lock;
    int joinable = 0;
    int detaches = 0;
    std::set<std::string> endedNames;
};

Seen &seen()
{
    static Seen *const state = new Seen; // threads may end as the process exits
    return *state;
}

struct Start
{
    void *(*routine)(void *);
    void *argument;
};

void *noteNameAtEnd(void *argument)
{
    const Start start = *static_cast<Start *>(argument);
    delete static_cast<Start *>(argument);
    void *result = start.routine(start.argument);
    char name[16] = {};
    pthread_getname_np(pthread_self(), name, sizeof name);
    std::lock_guard<std::mutex> guard(seen().lock);
    seen().endedNames.insert(name);
    return result;
}

// Threads of this process by name, as the kernel lists them now.
std::set<std::string> liveNames()
{
    std::set<std::string> names;
    const QString self = QString::number(::getpid());
    const QStringList tasks = QDir(QStringLiteral("/proc/self/task")).entryList(QDir::Dirs | QDir::NoDotAndDotDot);
    for (const QString &task : tasks) {
        if (task == self)
            continue; // the main thread has the program's name
        QFile comm(QStringLiteral("/proc/self/task/%1/comm").arg(task));
        if (comm.open(QIODevice::ReadOnly))
            names.insert(comm.readAll().trimmed().toStdString());
    }
    return names;
}

QString namesText(const std::set<std::string> &names)
{
    QStringList out;
    for (const std::string &name : names)
        out << QString::fromStdString(name);
    return out.join(QLatin1Char(','));
}

// The name a thread has when nobody names it: the program's.
std::string programName()
{
    QFile comm(QStringLiteral("/proc/self/comm"));
    return comm.open(QIODevice::ReadOnly) ? comm.readAll().trimmed().toStdString() : std::string();
}
} // namespace

extern "C" int pthread_create(pthread_t *thread, const pthread_attr_t *attributes, void *(*routine)(void *),
                              void *argument)
{
    using Create = int (*)(pthread_t *, const pthread_attr_t *, void *(*)(void *), void *);
    static const auto create = reinterpret_cast<Create>(::dlsym(RTLD_NEXT, "pthread_create"));
    int state = PTHREAD_CREATE_JOINABLE;
    if (attributes)
        pthread_attr_getdetachstate(attributes, &state);
    if (state != PTHREAD_CREATE_DETACHED) {
        std::lock_guard<std::mutex> guard(seen().lock);
        ++seen().joinable;
    }
    auto *start = new Start{routine, argument};
    const int result = create(thread, attributes, &noteNameAtEnd, start);
    if (result != 0)
        delete start;
    return result;
}

extern "C" int pthread_detach(pthread_t thread)
{
    using Detach = int (*)(pthread_t);
    static const auto detach = reinterpret_cast<Detach>(::dlsym(RTLD_NEXT, "pthread_detach"));
    {
        std::lock_guard<std::mutex> guard(seen().lock);
        ++seen().detaches;
    }
    return detach(thread);
}

class TestLibraryThreads : public QObject
{
    Q_OBJECT

private slots:
    void everyLibraryThreadIsCreatedDetachedAndNamed();
};

void TestLibraryThreads::everyLibraryThreadIsCreatedDetachedAndNamed()
{
    qRegisterMetaType<QSerialPort::SerialPortError>();
    // Qt's own threads first: Qt 6 starts one for its system proxy lookup
    // (QLibProxyWrapper) on the first socket of the process and keeps it.
    {
        QUdpSocket warmUp;
        warmUp.writeDatagram(QByteArrayLiteral("x"), QHostAddress::LocalHost, 9);
    }
    const int threadsBefore = threadCount();
    testqueue::reset();
    std::set<std::string> whileRunning;
    {
        // The network link: a reply handed off, and a queue cleared.
        FakeUdpDevice device;
        QVERIFY(device.isBound());
        PortUDP udp;
        udp.setDeviceIP(QStringLiteral("127.0.0.1"));
        udp.setPort(device.port());
        ProtocolData command;
        command.commandByte = 0x01;
        udp.sendDatatoDevice(&command);
        QVERIFY(device.waitForDatagrams(1));
        device.reply(replies::reply(0x01, 0, 0, 0, 0, 0, 0));
        QTRY_COMPARE_WITH_TIMEOUT(testqueue::length(), size_t(1), kWaitMs);
        udp.clearQueue();
        QTRY_COMPARE_WITH_TIMEOUT(testqueue::length(), size_t(0), kWaitMs);

        // The serial link: a reply from its worker.
        PseudoTerminal pty;
        REQUIRE_PTY(pty);
        PortSerial serial;
        QVERIFY(openOn(serial, pty));
        QVERIFY(pty.deviceSends(QByteArrayLiteral("[R0100000000000001]")));
        QTRY_COMPARE_WITH_TIMEOUT(testqueue::length(), size_t(1), kWaitMs);

        // The USB link: its reader, its worker and the hot-plug watcher.
        simhid::reset(kVid, kPid);
        PortUSB usb;
        QVERIFY(usb.openUSB(kVid, kPid));
        simhid::queueInput(usbreports::inputReport(QByteArrayLiteral("[R0100000000000001]")));
        QTRY_COMPARE_WITH_TIMEOUT(testqueue::length(), size_t(2), kWaitMs);
        whileRunning = liveNames();
    }
    testqueue::reset();
    // All but the hot-plug watcher end with their transports.
    QTRY_VERIFY2_WITH_TIMEOUT(threadCount() <= threadsBefore + 1,
                              qPrintable(QStringLiteral("threads still there: %1").arg(namesText(liveNames()))),
                              kWaitMs);

    std::lock_guard<std::mutex> guard(seen().lock);
    QCOMPARE(seen().joinable, 0);
    QCOMPARE(seen().detaches, 0);
    std::set<std::string> names = seen().endedNames;
    names.insert(whileRunning.begin(), whileRunning.end());
    QVERIFY2(names.count(programName()) == 0 && names.count(std::string()) == 0, "a thread without a name");
    for (const char *expected : {"PortUDP-io", "PortSerial-io", "PortSerial-deal", "PortUSB-deal", "PortUSB-read",
                                 "PortUSB-hotplug", "comm-reply", "comm-clearqueue"})
        QVERIFY2(names.count(expected) == 1, expected);
}

QTEST_GUILESS_MAIN(TestLibraryThreads)
#include "tst_librarythreads.moc"
