#include "Soak.h"

#include <QCoreApplication>
#include <QLoggingCategory>

#include <algorithm>
#include <cstdio>
#include <random>
#include <sys/resource.h>

#include "Disruptions.h"
#include "FactorySwitch.h"
#include "NetworkDevice.h"
#include "PortInterface.h"
#include "PortSerial.h"
#include "PortUSB.h"
#include "ProcessStats.h"
#include "Rig.h"
#include "Traffic.h"

#if defined(__SANITIZE_THREAD__)
#define SOAK_THREAD_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define SOAK_THREAD_SANITIZER 1
#endif
#endif

namespace soak {

namespace {
// Threads and descriptors the process may have beyond its start once every
// transport is deleted: the hot-plug watcher thread, which runs until the
// process ends, and a little slack for Qt's own.
constexpr int kThreadSlack = 3;
constexpr int kDescriptorSlack = 4;
// The most threads and descriptors the process may have at any moment of the
// run beyond those at its start. The soak's own activities take a dozen
// threads; up to eight transports are alive at once (three long-lived, the
// factory's current one, the one it replaced winding down, and three made on
// one thread for another to delete), each with its worker threads, a socket or
// terminal and the event descriptors of its threads' event loops; hand-off
// threads come and go with every reply. A run needs well under half of these;
// transports or threads that are never let go pass them within seconds.
constexpr int kMostThreadsAboveStart = 100;
constexpr int kMostDescriptorsAboveStart = 100;
// The device types stamped on the long-lived transports' replies.
constexpr qint32 kNetworkDeviceType = 11;
constexpr qint32 kSerialDeviceType = 12;
constexpr qint32 kUsbDeviceType = 13;

void say(const QString &text)
{
    std::fprintf(stderr, "soak: %s\n", qPrintable(text));
    std::fflush(stderr);
}

QString whyUsbIsLeftOut(const Options &options)
{
#ifdef SOAK_THREAD_SANITIZER
    Q_UNUSED(options);
    return QStringLiteral("ThreadSanitizer cannot check umockdev's preloaded library, which is not instrumented");
#else
    if (options.noUsb)
        return QStringLiteral("--no-usb");
    return UsbDevice::unavailableReason();
#endif
}

struct Samples
{
    int maxThreads = 0;
    int maxDescriptors = 0;
    void take()
    {
        maxThreads = qMax(maxThreads, threadCount());
        maxDescriptors = qMax(maxDescriptors, openDescriptors());
    }
};

void progress(Rig &rig, const Samples &samples)
{
    const LedgerCounts c = rig.ledger.counts();
    say(QStringLiteral("%1 s: %2 replies (network %3, serial %4, usb %5), %6 awaited, %7 voided (%8 came all the same), "
                       "%9 lost, %10 corrupt; %11 switches, %12 deletes, %13 unplugs, %14 hang-ups, %15 floods, "
                       "%16 clears; RSS %17 KiB (heap %22 KiB), threads %18 (most %19), fds %20 (most %21)")
            .arg(rig.clock.elapsedMs() / 1000)
            .arg(c.replies)
            .arg(c.repliesByLink[0])
            .arg(c.repliesByLink[1])
            .arg(c.repliesByLink[2])
            .arg(c.awaited)
            .arg(c.voided)
            .arg(c.voidedArrived)
            .arg(c.lost)
            .arg(c.corrupt)
            .arg(rig.switches.load())
            .arg(rig.deletes.load())
            .arg(rig.unplugs.load())
            .arg(rig.hangUps.load())
            .arg(rig.floods.load())
            .arg(rig.clears.load())
            .arg(residentKiB())
            .arg(threadCount())
            .arg(samples.maxThreads)
            .arg(openDescriptors())
            .arg(samples.maxDescriptors)
            .arg(heapKiB()));
}

// Makes the long-lived transports; the USB one first of all, so that it is
// the oldest and the hot-plug watcher serves it.
bool makeMainLinks(Rig &rig, Disruptions &disruptions, QString *error)
{
    if (rig.usbDevice) {
        rig.usbPort = static_cast<PortUSB *>(PortInterface::creatCoreObjInstance(ConnUSB));
        rig.usb.name = QStringLiteral("long-lived usb transport");
        rig.usb.port = rig.usbPort;
        rig.usb.channel = rig.ledger.openChannel(rig.usb.name);
        rig.usb.port->setDeviceType(ModulelEnum::DeviceType(kUsbDeviceType));
        rig.usb.setShape(ReplyShape{QString(), kUsbDeviceType});
        // The watcher calls on its own thread, after closing the transport
        // when the device went: the handler only notes what happened.
        QObject::connect(
            rig.usbPort, &PortUSB::signalUSBChanged, rig.usbPort,
            [&rig](bool present) {
                if (present) {
                    ++rig.watcherReturns;
                    rig.usbCameBack = true;
                } else {
                    ++rig.watcherRemovals;
                    rig.ledger.disrupt(rig.usb.channel);
                }
            },
            Qt::DirectConnection);
        if (!disruptions.openUsb()) {
            *error = QStringLiteral("the USB transport did not open the emulated device");
            return false;
        }
    }

    rig.network.name = QStringLiteral("long-lived network transport");
    rig.network.port = PortInterface::creatCoreObjInstance(ConnUDP);
    rig.network.channel = rig.ledger.openChannel(rig.network.name);
    rig.network.port->setDeviceType(ModulelEnum::DeviceType(kNetworkDeviceType));
    rig.network.port->setDeviceIP(QStringLiteral("127.0.0.1"));
    rig.network.port->setPort(rig.udpDevicePort);
    rig.network.setShape(ReplyShape{QStringLiteral("127.0.0.1"), kNetworkDeviceType});
    rig.ledger.markUp(rig.network.channel, 0);

    rig.serial.name = QStringLiteral("long-lived serial transport");
    auto *serialPort = static_cast<PortSerial *>(PortInterface::creatCoreObjInstance(ConnSerial));
    rig.serial.port = serialPort;
    rig.serial.channel = rig.ledger.openChannel(rig.serial.name);
    serialPort->setDeviceType(ModulelEnum::DeviceType(kSerialDeviceType));
    // A vanished device closes the port, as the application arranges it.
    QObject::connect(serialPort->m_com, &QSerialPort::errorOccurred, serialPort, &PortSerial::handleError,
                     Qt::DirectConnection);
    const QString path = rig.serialLines.path(kMainLine);
    rig.serial.setShape(ReplyShape{portNameOf(path), kSerialDeviceType});
    if (!openSerial(serialPort, path)) {
        *error = QStringLiteral("the serial transport did not open %1").arg(path);
        return false;
    }
    rig.ledger.markUp(rig.serial.channel, 0);
    return true;
}

void deleteMainLinks(Rig &rig)
{
    for (MainLink *link : {&rig.network, &rig.serial, &rig.usb}) {
        if (!link->port)
            continue;
        rig.ledger.closeChannel(link->channel);
        delete link->port;
        link->port = nullptr;
    }
    rig.usbPort = nullptr;
}

// How many unplugs the emulated device's leftovers leave room for under the
// descriptor limit (which the testbed raised to the hard limit).
quint64 unplugsAllowed(int descriptorsPerPlug)
{
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0)
        return 500;
    const qint64 room = qint64(std::min<rlim_t>(limit.rlim_cur, rlim_t(1) << 20)) - 1000;
    return quint64(std::clamp<qint64>(room / std::max(1, descriptorsPerPlug), 0, 5000));
}
} // namespace

int runSoak(const Options &options)
{
    // The library's debug lines, thousands a second here, would bury the results.
    QLoggingCategory::setFilterRules(QStringLiteral("default.debug=false"));
    say(QStringLiteral("seed %1 (repeat the run with --seed %1), %2 s, deadline %3 s, in flight %4 ms, RSS limit "
                       "%5 KiB + %6 KiB a minute, heap limit %7 KiB")
            .arg(options.seed)
            .arg(options.seconds)
            .arg(options.deadlineSeconds)
            .arg(options.inFlightMs)
            .arg(options.rssLimitKiB)
            .arg(options.rssKiBPerMinute)
            .arg(options.heapLimitKiB));

    Rig rig(options);
    QString error;
    if (!rig.serialLines.error().isEmpty()) {
        say(QStringLiteral("cannot run: %1").arg(rig.serialLines.error()));
        return 1;
    }
    NetworkDevice network(rig.ledger, rig.clock);
    if (!network.start(&error)) {
        say(QStringLiteral("cannot run: %1").arg(error));
        return 1;
    }
    rig.udpDevicePort = network.port();

    // The USB leg, where a device can be emulated.
    int descriptorsPerPlug = 0;
    rig.usbLeftOut = whyUsbIsLeftOut(options);
    if (rig.usbLeftOut.isEmpty()) {
        rig.usbDevice = std::make_unique<UsbDevice>();
        // What one plug leaves behind against the descriptor limit, measured
        // while nothing else runs.
        const int before = allDescriptors();
        if (rig.usbDevice->plug(&error)) {
            rig.usbDevice->unplug();
            descriptorsPerPlug = qMax(0, allDescriptors() - before);
        }
        if (!rig.usbDevice->plug(&error)) {
            rig.usbLeftOut = QStringLiteral("the emulated device cannot be plugged in: %1").arg(error);
            rig.usbDevice.reset();
        }
    }
    if (rig.usbDevice) {
        rig.maxUnplugs = unplugsAllowed(descriptorsPerPlug);
        say(QStringLiteral("USB leg: device %1:%2 emulated by umockdev; each plug keeps %3 descriptors (not counted "
                           "below), so at most %4 unplugs")
                .arg(UsbDevice::kVid, 4, 16, QLatin1Char('0'))
                .arg(UsbDevice::kPid, 4, 16, QLatin1Char('0'))
                .arg(descriptorsPerPlug)
                .arg(rig.maxUnplugs));
        rig.usbDevice->start(rig.clock, [&rig](const sim::HeaderBytes &header) { rig.ledger.deviceAnswered(header); });
    } else {
        say(QStringLiteral("USB leg left out: %1").arg(rig.usbLeftOut));
    }
    rig.serialLines.start(rig.clock, [&rig](const sim::HeaderBytes &header) { rig.ledger.deviceAnswered(header); });
    rig.drain.start();

    // Where threads and descriptors start, before the first transport.
    Samples samples;
    samples.take();
    const int threadsAtStart = threadCount();
    const std::vector<std::string> startTargets = describedDescriptors();
    const int descriptorsAtStart = int(startTargets.size());

    FactorySwitch factory(rig);
    Disruptions disruptions(rig, factory);
    Traffic traffic(rig);
    if (!makeMainLinks(rig, disruptions, &error)) {
        say(QStringLiteral("cannot run: %1").arg(error));
        rig.clock.stop();
        deleteMainLinks(rig);
        return 1;
    }
    traffic.start();
    factory.start();
    disruptions.start();

    // The run: this thread samples the process and reports progress.
    const qint64 runEndMs = rig.clock.elapsedMs() + qint64(options.seconds) * 1000;
    const qint64 warmUpEndMs = rig.clock.elapsedMs() + std::min<qint64>(15000, qint64(options.seconds) * 250);
    qint64 rssAfterWarmUp = -1;
    qint64 heapAfterWarmUp = -1;
    qint64 lastSampleMs = 0;
    qint64 lastProgressMs = rig.clock.elapsedMs();
    for (long long turn = 0; turn < rig.clock.maxTurns() && rig.clock.elapsedMs() < runEndMs; ++turn) {
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        const qint64 now = rig.clock.elapsedMs();
        if (now - lastSampleMs >= 1000) {
            samples.take();
            lastSampleMs = now;
        }
        if (rssAfterWarmUp < 0 && now >= warmUpEndMs) {
            releaseFreeMemory();
            rssAfterWarmUp = residentKiB();
            heapAfterWarmUp = heapKiB();
        }
        if (now - lastProgressMs >= 10000) {
            progress(rig, samples);
            lastProgressMs = now;
        }
    }

    // Everything stops; the replies still awaited get the deadline to come.
    say(QStringLiteral("stopping; waiting for the replies still awaited"));
    rig.clock.stop();
    disruptions.join();
    factory.join();
    traffic.join();
    const qint64 settleEndMs = rig.clock.elapsedMs() + qint64(options.deadlineSeconds) * 1000;
    for (int turn = 0; turn < options.deadlineSeconds * 100 + 100 && rig.clock.elapsedMs() < settleEndMs; ++turn) {
        if (rig.ledger.counts().awaited == 0)
            break;
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    samples.take();
    // What is still awaited now is lost, before deleting the transports could excuse it.
    rig.ledger.expire(true);

    // Every transport goes; then whatever they had handed over is taken.
    factory.finish();
    deleteMainLinks(rig);
    rig.drain.stop();
    QCoreApplication::processEvents(QEventLoop::AllEvents, 10);

    // Threads and descriptors come back near where they started.
    const int threadsAllowed = threadsAtStart + kThreadSlack;
    const int descriptorsAllowed = descriptorsAtStart + kDescriptorSlack;
    int threadsAtEnd = threadCount();
    int descriptorsAtEnd = openDescriptors();
    for (int turn = 0; turn < 300 && (threadsAtEnd > threadsAllowed || descriptorsAtEnd > descriptorsAllowed); ++turn) {
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        threadsAtEnd = threadCount();
        descriptorsAtEnd = openDescriptors();
    }
    samples.take();
    releaseFreeMemory();
    const qint64 rssAtEnd = residentKiB();
    const qint64 rssGrowth = rssAfterWarmUp < 0 ? 0 : rssAtEnd - rssAfterWarmUp;
    const qint64 heapAtEnd = heapKiB();
    const qint64 heapGrowth = heapAfterWarmUp < 0 || heapAtEnd < 0 ? 0 : heapAtEnd - heapAfterWarmUp;
    const qint64 rssAllowed = options.rssLimitKiB + options.rssKiBPerMinute * options.seconds / 60;

    // The devices go last.
    rig.drain.stop();
    if (rig.usbDevice) {
        rig.usbDevice->stop();
        rig.usbDevice->unplug();
    }
    rig.serialLines.stop();
    network.stop();

    const LedgerCounts counts = rig.ledger.counts();
    QStringList failures;
    if (counts.lost > 0)
        failures << QStringLiteral("%1 replies lost").arg(counts.lost);
    if (counts.corrupt > 0)
        failures << QStringLiteral("%1 corrupt records").arg(counts.corrupt);
    if (rig.drain.clearsMissed() > 0)
        failures << QStringLiteral("%1 clearQueue calls did not empty the queue").arg(rig.drain.clearsMissed());
    if (rssGrowth > rssAllowed)
        failures << QStringLiteral("resident memory grew by %1 KiB after the warm-up, more than %2 KiB")
                        .arg(rssGrowth)
                        .arg(rssAllowed);
    if (heapGrowth > options.heapLimitKiB)
        failures << QStringLiteral("the heap in use grew by %1 KiB after the warm-up, more than %2 KiB")
                        .arg(heapGrowth)
                        .arg(options.heapLimitKiB);
    if (threadsAtEnd > threadsAllowed)
        failures << QStringLiteral("%1 threads once every transport was deleted, %2 before the first was made")
                        .arg(threadsAtEnd)
                        .arg(threadsAtStart);
    if (descriptorsAtEnd > descriptorsAllowed) {
        failures << QStringLiteral("%1 descriptors once every transport was deleted, %2 before the first was made")
                        .arg(descriptorsAtEnd)
                        .arg(descriptorsAtStart);
        const auto list = [](const std::vector<std::string> &targets) {
            QStringList out;
            for (const std::string &target : targets)
                out << QString::fromStdString(target);
            return out.join(QStringLiteral(", "));
        };
        say(QStringLiteral("descriptors at the start: ") + list(startTargets));
        say(QStringLiteral("descriptors at the end: ") + list(describedDescriptors()));
    }
    if (samples.maxThreads > threadsAtStart + kMostThreadsAboveStart)
        failures << QStringLiteral("%1 threads at the most, more than %2 above the %3 at the start")
                        .arg(samples.maxThreads)
                        .arg(kMostThreadsAboveStart)
                        .arg(threadsAtStart);
    if (samples.maxDescriptors > descriptorsAtStart + kMostDescriptorsAboveStart)
        failures << QStringLiteral("%1 descriptors at the most, more than %2 above the %3 at the start")
                        .arg(samples.maxDescriptors)
                        .arg(kMostDescriptorsAboveStart)
                        .arg(descriptorsAtStart);
    const char *linkNames[3] = {"network", "serial", "USB"};
    for (int link = 0; link < 3; ++link) {
        if (link == 2 && !rig.usbDevice)
            continue;
        if (counts.repliesByLink[link] == 0)
            failures << QStringLiteral("no reply at all on the %1 link").arg(QLatin1String(linkNames[link]));
    }

    say(QStringLiteral("slowest replies: network %1 ms, serial %2 ms, usb %3 ms")
            .arg(counts.slowestMs[0])
            .arg(counts.slowestMs[1])
            .arg(counts.slowestMs[2]));
    say(QStringLiteral("%1 commands sent: %2 replies (network %3, serial %4, usb %5); %6 voided, of which %7 came all "
                       "the same and %8 never did; %9 switches, %10 deletes from another thread, %11 unplugs "
                       "(watcher: %12 removals, %13 returns; %14 opens), %15 hang-ups, %19 closes and reopens, %16 floods, "
                       "%17 clears (%18 seen)")
            .arg(counts.sent)
            .arg(counts.replies)
            .arg(counts.repliesByLink[0])
            .arg(counts.repliesByLink[1])
            .arg(counts.repliesByLink[2])
            .arg(counts.voided)
            .arg(counts.voidedArrived)
            .arg(counts.voidedAwaited + counts.voidedGivenUp)
            .arg(rig.switches.load())
            .arg(rig.deletes.load())
            .arg(rig.unplugs.load())
            .arg(rig.watcherRemovals.load())
            .arg(rig.watcherReturns.load())
            .arg(rig.usbOpens.load())
            .arg(rig.hangUps.load())
            .arg(rig.floods.load())
            .arg(rig.clears.load())
            .arg(rig.drain.clearsSeen())
            .arg(rig.serialReopens.load()));
    if (rig.usbDevice)
        say(QStringLiteral("unplugs: %1 right after a send, %2 inside openUSB, %3 inside the watcher's look, %4 during "
                           "a long write, %5 at other moments; %6 of them as a look for the device began")
                .arg(rig.unplugsAt[kAfterSend].load())
                .arg(rig.unplugsAt[kInsideOpen].load())
                .arg(rig.unplugsAt[kInsideWatcherLook].load())
                .arg(rig.unplugsAt[kDuringLongWrite].load())
                .arg(rig.unplugsAt[kAnyMoment].load())
                .arg(rig.unplugsInsideLooks.load()));
    say(QStringLiteral("threads %1 at the start, %2 at the end; descriptors %3 at the start, %4 at the end "
                       "(%5 open in all, umockdev's leftovers included); RSS %6 KiB after the "
                       "warm-up, %7 KiB at the end (%8 KiB allowed); heap %9 KiB after the warm-up, %10 KiB at "
                       "the end")
            .arg(threadsAtStart)
            .arg(threadsAtEnd)
            .arg(descriptorsAtStart)
            .arg(descriptorsAtEnd)
            .arg(allDescriptors())
            .arg(rssAfterWarmUp)
            .arg(rssAtEnd)
            .arg(rssAllowed)
            .arg(heapAfterWarmUp)
            .arg(heapAtEnd));
    for (const QString &failure : failures)
        say(QStringLiteral("FAILED: %1").arg(failure));

    QString line = QStringLiteral("soak: %1 replies, %2 lost, %3 corrupt, %4 switches, %5 unplugs, %6 hang-ups, "
                                  "RSS %7 KiB, threads <= %8, fds <= %9")
                       .arg(counts.replies)
                       .arg(counts.lost)
                       .arg(counts.corrupt)
                       .arg(rig.switches.load())
                       .arg(rig.unplugs.load())
                       .arg(rig.hangUps.load())
                       .arg(rssGrowth >= 0 ? QStringLiteral("+%1").arg(rssGrowth) : QString::number(rssGrowth))
                       .arg(samples.maxThreads)
                       .arg(samples.maxDescriptors);
    if (!rig.usbDevice)
        line += QStringLiteral(" (USB leg left out: %1)").arg(rig.usbLeftOut);
    std::printf("%s\n", qPrintable(line));
    std::fflush(stdout);
    return failures.isEmpty() ? 0 : 1;
}

} // namespace soak
