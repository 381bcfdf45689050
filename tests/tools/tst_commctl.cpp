// commctl run as a process: against its own simulator over UDP on loopback and
// over pseudo-terminals, and, built against the simulated HID device, on USB.
#include <QtTest>

#include <fcntl.h>
#include <pty.h>
#include <termios.h>
#include <unistd.h>

namespace {
const QString kCommctl = QStringLiteral(COMMCTL_PATH);

struct Run
{
    int exitCode = -1;
    QByteArray out;
    QByteArray err;
};

// Runs commctl with arguments; under wrapper (a program that runs the command
// line it is given) when one is named.
Run runTool(const QStringList &arguments, int timeoutMs = 30000, const QString &wrapper = QString())
{
    QProcess process;
    if (wrapper.isEmpty()) {
        process.start(kCommctl, arguments);
    } else {
        // A preloaded library comes before AddressSanitizer's runtime.
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("ASAN_OPTIONS"), environment.value(QStringLiteral("ASAN_OPTIONS"))
                                                               + QStringLiteral(":verify_asan_link_order=0"));
        process.setProcessEnvironment(environment);
        process.start(wrapper, QStringList{kCommctl} + arguments);
    }
    Run run;
    if (!process.waitForFinished(timeoutMs)) {
        process.kill();
        process.waitForFinished(5000);
        run.err = "timed out";
        return run;
    }
    run.exitCode = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -2;
    run.out = process.readAllStandardOutput();
    run.err = process.readAllStandardError();
    return run;
}

// A simulator started in the background; its first output line says where it is.
class Simulator
{
public:
    explicit Simulator(const QStringList &link)
    {
        m_process.start(kCommctl, QStringList{"sim"} + link + QStringList{"--duration", "60000"});
        QElapsedTimer timer;
        timer.start();
        while (!m_process.canReadLine() && timer.elapsed() < 20000)
            m_process.waitForReadyRead(100);
        m_where = QString::fromUtf8(m_process.readLine()).trimmed();
    }
    ~Simulator()
    {
        m_process.kill();
        m_process.waitForFinished(5000);
    }
    QString where() const { return m_where; }

private:
    QProcess m_process;
    QString m_where;
};

// commctl built against the simulated HID device, run in the background. The
// device is driven through the program's standard input, and answers on
// standard error (see support/SimulatedHidControl.cpp).
class SimulatedUsbRun
{
public:
    SimulatedUsbRun(const QString &device, const QStringList &arguments)
    {
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("SIMHID_DEVICE"), device);
        m_process.setProcessEnvironment(environment);
        m_process.start(QStringLiteral(COMMCTL_SIMHID_PATH), arguments);
    }
    ~SimulatedUsbRun()
    {
        if (m_process.state() != QProcess::NotRunning) {
            m_process.kill();
            m_process.waitForFinished(5000);
        }
    }

    void command(const QByteArray &line)
    {
        m_process.write(line + '\n');
        m_process.waitForBytesWritten(5000);
    }

    // Reads output until condition() holds, for timeoutMs at most.
    template <typename Condition>
    bool readUntil(Condition condition, int timeoutMs = 20000)
    {
        QElapsedTimer timer;
        timer.start();
        for (;;) {
            m_out += m_process.readAllStandardOutput();
            m_err += m_process.readAllStandardError();
            if (condition())
                return true;
            if (timer.elapsed() > timeoutMs || m_process.state() == QProcess::NotRunning)
                return false;
            m_process.waitForReadyRead(50);
        }
    }

    bool outContains(const QByteArray &text)
    {
        return readUntil([&] { return m_out.contains(text); });
    }
    bool errContains(const QByteArray &text)
    {
        return readUntil([&] { return m_err.contains(text); });
    }

    // The device's state as its status command gives it:
    // "polls P closes C open H".
    QByteArray status()
    {
        static const QByteArray kPrefix("simhid: polls ");
        const int before = m_err.count(kPrefix);
        command("status");
        if (!readUntil([&] { return m_err.count(kPrefix) > before && m_err.endsWith('\n'); }))
            return QByteArray();
        const int start = m_err.lastIndexOf(kPrefix) + int(qstrlen("simhid: "));
        return m_err.mid(start, m_err.indexOf('\n', start) - start);
    }

    // Polls the device's status until its watcher poll count reaches polls,
    // for timeoutMs at most; the last status seen.
    QByteArray statusAfterPolls(int polls, int timeoutMs = 20000)
    {
        QElapsedTimer timer;
        timer.start();
        QByteArray last = status();
        while (last.split(' ').value(1).toInt() < polls && timer.elapsed() < timeoutMs) {
            QTest::qWait(50);
            last = status();
        }
        return last;
    }

    // Ends standard input and waits for the program to end by itself.
    bool finish(int timeoutMs = 30000)
    {
        m_process.closeWriteChannel();
        const bool finished = m_process.waitForFinished(timeoutMs);
        m_out += m_process.readAllStandardOutput();
        m_err += m_process.readAllStandardError();
        return finished;
    }

    int exitCode() const { return m_process.exitStatus() == QProcess::NormalExit ? m_process.exitCode() : -2; }
    QByteArray out() const { return m_out; }
    QByteArray err() const { return m_err; }

private:
    QProcess m_process;
    QByteArray m_out;
    QByteArray m_err;
};

QJsonObject onlyRecord(const Run &run)
{
    const QList<QByteArray> lines = run.out.trimmed().split('\n');
    if (lines.size() != 1)
        return QJsonObject();
    return QJsonDocument::fromJson(lines.first()).object();
}

QJsonArray zeros()
{
    return QJsonArray{0, 0, 0, 0, 0, 0};
}
} // namespace

class TestCommctl : public QObject
{
    Q_OBJECT

private slots:
    void sendOverUdpPrintsReplyAsJson();
    void sendOverUdpJoinsBlockDataIntoPayload();
    void sendOverSerialPrintsReplyAsJson();
    void sendOverSerialCarriesBlockPayload();
    void listenOnSerialPrintsEveryRecord();
    void listenOnUsbPrintsUnplugThenReplug();
    void readableOutputWithoutJson();
    void libraryLogLinesGoToStandardError();
    void refusedSendModeStillExitsZero();
    void usageErrorExitsTwoNamingOption();
    void unopenableSerialPortExitsOneSayingWhy();
    void unopenableUsbDeviceExitsOne();
    void simOnUsbWithoutUhidExitsOneSayingWhy();
    void demoExitsZeroWithTranscript();
    void demoWithoutUhidRunsUsbLegOnEmulatedDevice();
};

void TestCommctl::sendOverUdpPrintsReplyAsJson()
{
    Simulator sim({"--udp", "127.0.0.1:0"});
    QVERIFY2(sim.where().startsWith("127.0.0.1:"), qPrintable(sim.where()));
    const Run run =
        runTool({"send", "--udp", sim.where(), "--cmd", "1", "--params", "0,0,0,0,0,0", "--wait", "1500", "--json"});
    QCOMPARE(run.exitCode, 0);
    const QJsonObject record = onlyRecord(run);
    QCOMPARE(record.value("link").toInt(), 0);
    QCOMPARE(record.value("host").toString(), QStringLiteral("127.0.0.1"));
    QCOMPARE(record.value("source").toString(), QStringLiteral("127.0.0.1"));
    QCOMPARE(record.value("cmd").toInt(), 1);
    QCOMPARE(record.value("params").toArray(), zeros());
    QCOMPARE(record.value("checksum").toInt(), 1);
    QCOMPARE(record.value("payload").toString(), QString());
    QCOMPARE(record.value("deviceType").toInt(), 0);
    QCOMPARE(run.out.trimmed(),
             QByteArray(
                 "{\"link\":0,\"host\":\"127.0.0.1\",\"source\":\"127.0.0.1\",\"cmd\":1,\"params\":[0,0,0,0,0,0],"
                 "\"checksum\":1,\"payload\":\"\",\"deviceType\":0}"));
}

void TestCommctl::sendOverUdpJoinsBlockDataIntoPayload()
{
    Simulator sim({"--udp", "127.0.0.1:0"});
    const Run run = runTool({"send", "--udp", sim.where(), "--cmd", "0x20", "--params", "0,0x8b,0x09,0,0x81,0",
                             "--device-type", "7", "--wait", "1500", "--json"});
    QCOMPARE(run.exitCode, 0);
    const QJsonObject record = onlyRecord(run);
    QCOMPARE(record.value("cmd").toInt(), 0x20);
    QCOMPARE(record.value("params").toArray(), (QJsonArray{0, 0x8B, 0x09, 0, 0x81, 0}));
    QCOMPARE(record.value("checksum").toInt(), 0x35);
    QCOMPARE(record.value("payload").toString().size(), 2 * 129);
    QCOMPARE(record.value("payload").toString().left(8), QStringLiteral("20212223"));
}

void TestCommctl::sendOverSerialPrintsReplyAsJson()
{
    Simulator sim({"--serial"});
    QVERIFY2(sim.where().startsWith("/dev/pts/"), qPrintable(sim.where()));
    const Run run = runTool({"send", "--serial", sim.where(), "--cmd", "2", "--params", "0,0,0,0,0,0", "--device-type",
                             "0x10", "--wait", "1500", "--json"});
    QCOMPARE(run.exitCode, 0);
    const QJsonObject record = onlyRecord(run);
    QCOMPARE(record.value("link").toInt(), 1);
    QCOMPARE(record.value("host").toString(), QString());
    QCOMPARE(record.value("source").toString(), sim.where().mid(5)); // the port name, without /dev/
    QCOMPARE(record.value("cmd").toInt(), 2);
    QCOMPARE(record.value("params").toArray(), zeros());
    QCOMPARE(record.value("checksum").toInt(), 2);
    QCOMPARE(record.value("payload").toString(), QString());
    QCOMPARE(record.value("deviceType").toInt(), 16);
}

void TestCommctl::sendOverSerialCarriesBlockPayload()
{
    Simulator sim({"--serial"});
    const Run run = runTool(
        {"send", "--serial", sim.where(), "--cmd", "0x30", "--params", "0,0x79,0,0,3,0", "--wait", "1500", "--json"});
    QCOMPARE(run.exitCode, 0);
    QCOMPARE(onlyRecord(run).value("payload").toString(), QStringLiteral("303161"));
}

void TestCommctl::listenOnSerialPrintsEveryRecord()
{
    int master = -1, slave = -1;
    char name[256] = {};
    QCOMPARE(::openpty(&master, &slave, name, nullptr, nullptr), 0);
    termios settings{};
    ::tcgetattr(master, &settings);
    ::cfmakeraw(&settings);
    ::tcsetattr(master, TCSANOW, &settings);

    QProcess listener;
    listener.start(kCommctl, {"listen", "--serial", QString::fromLocal8Bit(name), "--duration", "3000", "--json"});
    QElapsedTimer timer;
    timer.start();
    QByteArray err;
    while (!err.contains("commctl: listening") && timer.elapsed() < 20000) {
        listener.waitForReadyRead(100);
        err += listener.readAllStandardError();
    }
    QVERIFY2(err.contains("commctl: listening"), err.constData());
    const QByteArray replies = QByteArray("junk[R0100000000000001]") + QByteArray("[R0200000000000002]");
    QCOMPARE(::write(master, replies.constData(), size_t(replies.size())), ssize_t(replies.size()));
    QVERIFY(listener.waitForFinished(30000));
    QCOMPARE(listener.exitCode(), 0);
    const QList<QByteArray> lines = listener.readAllStandardOutput().trimmed().split('\n');
    ::close(master);
    ::close(slave);
    QCOMPARE(lines.size(), 2);
    QSet<int> commands;
    for (const QByteArray &line : lines) {
        const QJsonObject record = QJsonDocument::fromJson(line).object();
        QCOMPARE(record.value("link").toInt(), 1);
        commands.insert(record.value("cmd").toInt());
    }
    QCOMPARE(commands, (QSet<int>{1, 2}));
}

void TestCommctl::listenOnUsbPrintsUnplugThenReplug()
{
    SimulatedUsbRun listener(QStringLiteral("0483:5750"),
                             {"listen", "--usb", "0483:5750", "--duration", "10000", "--json"});
    QVERIFY2(listener.errContains("commctl: listening"), listener.err().constData());
    // The watcher reports changes only: it must have seen the device present
    // before it is pulled out.
    QCOMPARE(listener.statusAfterPolls(2).split(' ').mid(2), QList<QByteArray>({"closes", "0", "open", "1"}));

    listener.command("unplug");
    QVERIFY2(listener.outContains("{\"event\":\"usb\",\"present\":false}\n"),
             (listener.out() + listener.err()).constData());
    QCOMPARE(listener.status().split(' ').mid(2), QList<QByteArray>({"closes", "1", "open", "0"}));

    listener.command("plug");
    QVERIFY2(listener.outContains("{\"event\":\"usb\",\"present\":true}\n"),
             (listener.out() + listener.err()).constData());
    // Plugged back, the device stays closed until the application reopens it.
    QCOMPARE(listener.status().split(' ').mid(2), QList<QByteArray>({"closes", "1", "open", "0"}));

    QVERIFY(listener.finish());
    QCOMPARE(listener.exitCode(), 0);
    QCOMPARE(listener.out(), QByteArray("{\"event\":\"usb\",\"present\":false}\n"
                                        "{\"event\":\"usb\",\"present\":true}\n"));
}

void TestCommctl::readableOutputWithoutJson()
{
    Simulator sim({"--udp", "127.0.0.1:0"});
    const Run run = runTool({"send", "--udp", sim.where(), "--cmd", "1", "--params", "0,0,0,0,0,0", "--wait", "1500"});
    QCOMPARE(run.exitCode, 0);
    QCOMPARE(run.out.trimmed(), QByteArray("reply via udp from 127.0.0.1: cmd 0x01 params 00 00 00 00 00 00 checksum "
                                           "0x01, payload 0 bytes, device type 0"));
}

void TestCommctl::libraryLogLinesGoToStandardError()
{
    Simulator sim({"--udp", "127.0.0.1:0"});
    const Run run = runTool({"send", "--udp", sim.where(), "--cmd", "1", "--params", "0,0,0,0,0,0", "--wait", "1000"});
    const QList<QByteArray> lines = run.err.split('\n');
    QVERIFY2(lines.contains("Send successful"), run.err.constData());
    QVERIFY(lines.contains("Send data:[A0100000000000001]"));
    QVERIFY(lines.contains("Recv data:[R0100000000000001]"));
    QVERIFY(lines.contains("host ip:127.0.0.1"));
}

void TestCommctl::refusedSendModeStillExitsZero()
{
    Simulator sim({"--udp", "127.0.0.1:0"});
    const Run run = runTool({"send", "--udp", sim.where(), "--cmd", "1", "--params", "0,0,0,0,0,0", "--mode", "2"});
    QCOMPARE(run.exitCode, 0);
    QVERIFY(run.err.split('\n').contains("Send data abnormal"));
    QCOMPARE(run.out, QByteArray());
}

void TestCommctl::usageErrorExitsTwoNamingOption()
{
    const Run run = runTool({"send", "--udp", "127.0.0.1:9", "--cmd", "300", "--params", "0,0,0,0,0,0"});
    QCOMPARE(run.exitCode, 2);
    QVERIFY2(run.err.startsWith("commctl: bad value for --cmd: '300'"), run.err.constData());
    QVERIFY(run.err.contains("usage:"));
    QCOMPARE(run.out, QByteArray());
    QCOMPARE(runTool({"listen", "--serial"}).exitCode, 2);
    QCOMPARE(runTool({}).exitCode, 2);
}

void TestCommctl::unopenableSerialPortExitsOneSayingWhy()
{
    const Run run = runTool({"send", "--serial", "/dev/commctl-no-such-port", "--cmd", "1", "--params", "0,0,0,0,0,0"});
    QCOMPARE(run.exitCode, 1);
    QVERIFY2(run.err.contains("commctl: cannot open serial port /dev/commctl-no-such-port: "), run.err.constData());
    QVERIFY2(run.err.contains("No such file or directory"), run.err.constData());
}

void TestCommctl::unopenableUsbDeviceExitsOne()
{
    const Run run = runTool({"listen", "--usb", "ffff:fffe", "--duration", "0"});
    QCOMPARE(run.exitCode, 1);
    QVERIFY2(run.err.contains("commctl: cannot open USB device ffff:fffe"), run.err.constData());
}

void TestCommctl::simOnUsbWithoutUhidExitsOneSayingWhy()
{
    if (::access("/dev/uhid", R_OK | W_OK) == 0)
        QSKIP("/dev/uhid is usable here: the simulator would start");
    const Run run = runTool({"sim", "--usb", "0483:5750", "--duration", "0"});
    QCOMPARE(run.exitCode, 1);
    QVERIFY2(run.err.contains("/dev/uhid"), run.err.constData());
    QVERIFY2(run.err.contains("`umockdev-wrapper commctl demo`"), run.err.constData());
}

void TestCommctl::demoExitsZeroWithTranscript()
{
    const Run run = runTool({"demo"}, 60000);
    QCOMPARE(run.exitCode, 0);
    QVERIFY(run.out.contains("== Network link"));
    QVERIFY(run.out.contains("== Serial link"));
    QVERIFY(run.out.contains("== USB link"));
    QVERIFY(run.out.contains("-> a plain reply, handed over on its own thread: [A0100000000000001]"));
    QVERIFY2(run.out.contains(", 0 missing"), run.out.constData());
}

void TestCommctl::demoWithoutUhidRunsUsbLegOnEmulatedDevice()
{
#if defined(__SANITIZE_THREAD__)
    QSKIP("ThreadSanitizer cannot check a program under umockdev-wrapper: umockdev's preloaded library and its "
          "GLib thread are not instrumented, and it reports races inside them");
#elif !defined(UMOCKDEV_WRAPPER_PATH)
    QSKIP("umockdev-wrapper was not found when configuring (Debian package umockdev)");
#else
    if (::access("/dev/uhid", R_OK | W_OK) == 0)
        QSKIP("/dev/uhid is usable here: the demo's USB leg uses a virtual kernel device");
    const Run run = runTool({"demo"}, 60000, QStringLiteral(UMOCKDEV_WRAPPER_PATH));
    QCOMPARE(run.exitCode, 0);
    QVERIFY2(run.out.contains("== USB link: simulated HID device 0483:5750, emulated by umockdev (/dev/uhid cannot be "
                              "opened ("),
             run.out.constData());
    QVERIFY2(run.out.contains("-> a plain reply: [A0300000000000003]\n"
                              "<- reply via usb from USB: cmd 0x03 params 00 00 00 00 00 00 checksum 0x03, payload 0 "
                              "bytes, device type 0\n"),
             run.out.constData());
    QVERIFY2(run.out.contains("6 commands sent, 6 replies received, 0 missing"), run.out.constData());
#endif
}

QTEST_GUILESS_MAIN(TestCommctl)
#include "tst_commctl.moc"
