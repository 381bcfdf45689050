// The network link end to end: a command sent through PortUDP, the loopback
// device answering, the record on the receive queue. Beside it in the same run:
// a plain QUdpSocket doing the same request/reply with the same device, and
// std::thread start-and-detach, which the queue action pays once per reply.
#include <atomic>
#include <memory>
#include <optional>
#include <thread>

#include <QCoreApplication>
#include <QHostAddress>
#include <QTimer>
#include <QUdpSocket>

#include "CommandFrame.h"
#include "LoopbackDevice.h"
#include "PortUDP.h"
#include "ReceiveQueue.h"
#include "ReplyDatagrams.h"
#include "Sections.h"

namespace e2e {

namespace {

using namespace std::chrono_literals;

// Replies by the action the library takes on them.
const QByteArray kDeliverAtOnceReply = replies::reply(0x01, 0x00, 0x79, 0x09, 0x00, 0x00, 0x00);
const QByteArray kQueueReply = replies::reply(0x02, 0x00, 0x10, 0x00, 0x00, 0x00, 0x00);
// Held until 3 bytes of block data have come (P2 0xF1, length 3 in P5/P6).
const QByteArray kHoldReply = replies::reply(0x03, 0x00, 0xF1, 0x00, 0x00, 0x03, 0x00);
const QByteArray kBlockData = QByteArrayLiteral("xyz");

ProtocolData command()
{
    ProtocolData record;
    record.commandByte = 0x01;
    record.sendMode = 0;
    return record;
}

// The application's command module: a thread that takes records off the
// receive queue as they come, and counts them.
class QueueConsumer
{
public:
    // onTaken runs on the consumer's thread with the running total.
    explicit QueueConsumer(std::function<void(long)> onTaken = {})
        : m_onTaken(std::move(onTaken))
        , m_thread([this] { consume(); })
    {
    }
    ~QueueConsumer()
    {
        m_stop = true;
        m_thread.join();
    }
    long taken() const { return m_taken.load(); }
    // When the count last grew.
    Clock::time_point lastTake() const
    {
        std::lock_guard<std::mutex> guard(m_lock);
        return m_lastTake;
    }

private:
    void consume()
    {
        const Clock::time_point end = Clock::now() + 60min;
        while (!m_stop.load() && Clock::now() < end) {
            const size_t n = testqueue::take().size();
            if (n == 0) {
                std::this_thread::sleep_for(50us);
                continue;
            }
            {
                std::lock_guard<std::mutex> guard(m_lock);
                m_lastTake = Clock::now();
            }
            const long total = m_taken += long(n);
            if (m_onTaken)
                m_onTaken(total);
        }
    }

    std::function<void(long)> m_onTaken;
    std::atomic<bool> m_stop{false};
    std::atomic<long> m_taken{0};
    mutable std::mutex m_lock;
    Clock::time_point m_lastTake;
    std::thread m_thread;
};

// A plain QUdpSocket client of the loopback device: no library.
class PlainClient
{
public:
    PlainClient()
    {
        QObject::connect(&m_socket, &QUdpSocket::readyRead, [this] {
            // Bounded by what is pending.
            while (m_socket.hasPendingDatagrams()) {
                QByteArray datagram(int(qMax<qint64>(m_socket.pendingDatagramSize(), 0)), Qt::Uninitialized);
                QHostAddress sender;
                if (m_socket.readDatagram(datagram.data(), datagram.size(), &sender) < 0)
                    break;
                ++m_received;
                m_lastReceived = Clock::now();
                if (m_onReply)
                    m_onReply();
            }
        });
    }
    // Runs after each reply is read, on the reading thread.
    void setOnReply(std::function<void()> onReply) { m_onReply = std::move(onReply); }
    void send(const QByteArray &bytes, quint16 port)
    {
        m_socket.writeDatagram(bytes, QHostAddress(QHostAddress::LocalHost), port);
    }
    long received() const { return m_received.load(); }
    void resetCount() { m_received = 0; }
    Clock::time_point lastReceived() const { return m_lastReceived; }

private:
    QUdpSocket m_socket;
    std::atomic<long> m_received{0};
    Clock::time_point m_lastReceived; // main thread only
    std::function<void()> m_onReply;
};

// The PortUDP under measurement, talking to the device.
struct Library {
    explicit Library(const LoopbackDevice &device)
    {
        port.setDeviceIP(QStringLiteral("127.0.0.1"));
        port.setPort(device.port());
    }
    void send()
    {
        ProtocolData record = command();
        port.sendDatatoDevice(&record);
    }
    PortUDP port;
};

// Time from send() until arrived(), waiting by polling: the Qt event loop
// runs without sleeping and the thread yields between passes. None when
// nothing arrived within a second.
std::optional<double> timeOne(const std::function<void()> &send, const std::function<bool()> &arrived)
{
    const Clock::time_point start = Clock::now();
    send();
    if (!pumpUntil(arrived, start + 1s))
        return std::nullopt;
    return microsecondsBetween(start, Clock::now());
}

// Lets a late reply arrive and drops it, after a sample that timed out.
void settleAfterLoss()
{
    pumpUntil([] { return false; }, Clock::now() + 50ms);
    testqueue::take();
}

struct Samples {
    std::vector<double> values;
    int lost = 0;
    void add(const std::optional<double> &sample)
    {
        if (sample)
            values.push_back(*sample);
        else {
            ++lost;
            settleAfterLoss();
        }
    }
    QString lostText() const { return lost ? QStringLiteral(", %1 lost").arg(lost) : QString(); }
};

QString micros(double value)
{
    return number(value, 1) + QStringLiteral(" us");
}

// The device must have heard from a socket before it can send to it.
void introduce(LoopbackDevice &device, const std::function<void()> &send)
{
    const long before = device.received();
    send();
    const Clock::time_point deadline = Clock::now() + 2s;
    while (device.received() == before && Clock::now() < deadline)
        std::this_thread::sleep_for(1ms);
    if (device.received() == before)
        throw SectionError("the loopback device heard nothing");
}

// Runs the event loop (sleeping in it, woken at least every 5 ms) until done().
bool runEventsUntil(const std::function<bool()> &done, Clock::time_point deadline)
{
    QTimer wake;
    wake.start(5);
    while (!done()) {
        if (Clock::now() >= deadline)
            return false;
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
    }
    return true;
}

struct RateResult {
    double perSecond = 0;
    long lost = 0;
};

// Replies sent as fast as the receiving side takes them (never more than a
// window ahead), counted by taken(); the time runs from the first send to the
// moment the last one was taken.
RateResult pacedRate(LoopbackDevice &device, const std::vector<LoopbackDevice::Datagram> &cycle, long records,
                     const std::function<long()> &taken, const std::function<Clock::time_point()> &lastTake)
{
    constexpr long kWindow = 64;
    const Clock::time_point deadline = Clock::now() + 120s;
    std::atomic<bool> sent{false};
    LoopbackDevice::PacedResult paced;
    std::thread sender([&] {
        paced = device.sendPaced(cycle, records, kWindow, taken, deadline);
        sent = true;
    });
    // Done when all are taken, or when the sender has given up.
    runEventsUntil([&] { return taken() >= records || sent.load(); }, deadline);
    sender.join();
    runEventsUntil([&] { return taken() >= records; }, Clock::now() + 1s);
    RateResult result;
    result.lost = records - taken();
    if (result.lost == 0)
        result.perSecond = double(records) / (millisecondsBetween(paced.first, lastTake()) / 1000.0);
    return result;
}

// std::thread start-and-detach in a tight loop, until all have run.
double threadStartRate(long threads)
{
    auto done = std::make_shared<std::atomic<long>>(0);
    const Clock::time_point start = Clock::now();
    for (long i = 0; i < threads; ++i)
        std::thread([done] { ++*done; }).detach();
    const Clock::time_point deadline = start + 60s;
    while (done->load() < threads && Clock::now() < deadline)
        std::this_thread::sleep_for(100us);
    return double(threads) / (millisecondsBetween(start, Clock::now()) / 1000.0);
}

QString rateText(const RateResult &rate)
{
    if (rate.lost)
        return QStringLiteral("%1 replies lost").arg(rate.lost);
    return count(long(rate.perSecond)) + QStringLiteral(" /s, none lost");
}

} // namespace

void networkLatency(const Options &options, Figures &figures)
{
    const QString mode = pinnedToOneProcessor() ? QStringLiteral("pinned to one processor")
                                                : QStringLiteral("unpinned");
    LoopbackDevice device;
    if (!device.isValid())
        throw SectionError("no loopback socket");
    Library library(device);
    PlainClient plain;
    const QByteArray frame = comm::produceCmds(command());

    Samples plainSamples, plainThreadSamples, deliverSamples, queueSamples, threadSamples;
    auto threadRan = std::make_shared<std::atomic<bool>>(false);
    const auto startThread = [threadRan] { std::thread([threadRan] { threadRan->store(true); }).detach(); };

    // Kinds in turn, a batch each, so that a noisy moment hits all of them;
    // the first round warms up and is not kept.
    const int rounds = options.count(21, 2);
    const int batch = options.count(100, 10);
    for (int round = 0; round < rounds; ++round) {
        Samples scratch;
        const bool keep = round > 0;
        device.answerWith(kDeliverAtOnceReply);
        for (int i = 0; i < batch; ++i) {
            plain.resetCount();
            (keep ? plainSamples : scratch).add(timeOne([&] { plain.send(frame, device.port()); },
                                                        [&] { return plain.received() > 0; }));
        }
        // The queue action's cost where the library pays it: a thread started
        // from the reading thread as a reply comes in.
        plain.setOnReply(startThread);
        for (int i = 0; i < batch; ++i) {
            threadRan->store(false);
            (keep ? plainThreadSamples : scratch).add(timeOne([&] { plain.send(frame, device.port()); },
                                                              [&] { return threadRan->load(); }));
        }
        plain.setOnReply({});
        for (int i = 0; i < batch; ++i) {
            (keep ? deliverSamples : scratch).add(
                timeOne([&] { library.send(); }, [] { return testqueue::length() > 0; }));
            testqueue::take();
        }
        device.answerWith(kQueueReply);
        for (int i = 0; i < batch; ++i) {
            (keep ? queueSamples : scratch).add(
                timeOne([&] { library.send(); }, [] { return testqueue::length() > 0; }));
            testqueue::take();
        }
        for (int i = 0; i < batch; ++i) {
            threadRan->store(false);
            (keep ? threadSamples : scratch)
                .add(timeOne(startThread, [&] { return threadRan->load(); }));
        }
    }
    device.answerWith(QByteArray());

    const double plain50 = median(plainSamples.values);
    const double plain99 = percentile(plainSamples.values, 99);
    const double deliver50 = median(deliverSamples.values);
    const double deliver99 = percentile(deliverSamples.values, 99);
    const double queue50 = median(queueSamples.values);
    const double queue99 = percentile(queueSamples.values, 99);
    const double thread50 = median(threadSamples.values);
    const double plainThread50 = median(plainThreadSamples.values);
    // One thread start and detach, as it costs where the reply is read: the
    // plain round trip with a thread started for the reply, less the plain
    // round trip. Where the processors are busy this includes the wait for one.
    const double threadCost = plainThread50 - plain50;
    const QString plainText = QStringLiteral("plain QUdpSocket request/reply");

    figures.add({QStringLiteral("network round trip, deliver at once, p50, %1").arg(mode),
                 micros(deliver50) + deliverSamples.lostText(),
                 micros(plain50) + QStringLiteral(" (%1 p50)").arg(plainText) + plainSamples.lostText(),
                 deliver50 / plain50, QStringLiteral("<= 1.5x"), deliver50 <= 1.5 * plain50});
    figures.add({QStringLiteral("network round trip, deliver at once, p99, %1").arg(mode), micros(deliver99),
                 micros(plain99) + QStringLiteral(" (%1 p99)").arg(plainText), deliver99 / plain99,
                 QStringLiteral("report"), std::nullopt});
    const double queueBound = plain50 + 2 * threadCost;
    figures.add({QStringLiteral("network round trip, queued, p50, %1").arg(mode), micros(queue50) + queueSamples.lostText(),
                 micros(queueBound)
                     + QStringLiteral(" (plain p50 %1 + 2 x thread start %2; bare thread start %3, "
                                      "plain then thread %4)")
                           .arg(micros(plain50), micros(threadCost), micros(thread50), micros(plainThread50))
                     + plainThreadSamples.lostText(),
                 queue50 / queueBound, QStringLiteral("<= 1x (plain + 2 thread starts)"), queue50 <= queueBound});
    figures.add({QStringLiteral("network round trip, queued, p99, %1").arg(mode), micros(queue99),
                 micros(plain99) + QStringLiteral(" (%1 p99)").arg(plainText), queue99 / plain99,
                 QStringLiteral("report"), std::nullopt});
}

void networkRate(const Options &options, Figures &figures)
{
    LoopbackDevice device;
    if (!device.isValid())
        throw SectionError("no loopback socket");
    device.answerWith(QByteArray()); // commands only tell the device where to send
    const long threads = options.count(20000, 200);
    const long queued = options.count(20000, 200);
    const long plainCount = options.count(100000, 500);
    const long delivered = options.count(100000, 500);

    std::vector<double> threadRates, queueRates, plainRates, plainThreadRates, deliverRates;
    long queueLost = 0, deliverLost = 0, plainLost = 0, plainThreadLost = 0;
    for (int round = 0; round < options.count(5, 1); ++round) {
        threadRates.push_back(threadStartRate(threads));
        {
            PlainClient plain;
            introduce(device, [&] { plain.send(comm::produceCmds(command()), device.port()); });
            const RateResult rate = pacedRate(device, {{kQueueReply, 1}}, plainCount,
                                              [&] { return plain.received(); }, [&] { return plain.lastReceived(); });
            plainRates.push_back(rate.perSecond);
            plainLost += rate.lost;
        }
        {
            // What the queue action's design costs without the library: the
            // plain socket, with a thread started and detached per reply.
            PlainClient plain;
            struct Done {
                std::atomic<long> count{0};
                std::atomic<Clock::rep> last{0};
            };
            auto done = std::make_shared<Done>();
            plain.setOnReply([done] {
                std::thread([done] {
                    done->last = Clock::now().time_since_epoch().count();
                    ++done->count;
                }).detach();
            });
            introduce(device, [&] { plain.send(comm::produceCmds(command()), device.port()); });
            const RateResult rate = pacedRate(device, {{kQueueReply, 1}}, queued, [&] { return done->count.load(); },
                                              [&] { return Clock::time_point(Clock::duration(done->last.load())); });
            plainThreadRates.push_back(rate.perSecond);
            plainThreadLost += rate.lost;
        }
        for (const bool atOnce : {false, true}) {
            Library library(device);
            introduce(device, [&] { library.send(); });
            QueueConsumer consumer;
            const QByteArray &reply = atOnce ? kDeliverAtOnceReply : kQueueReply;
            const long records = atOnce ? delivered : queued;
            const RateResult rate = pacedRate(device, {{reply, 1}}, records, [&] { return consumer.taken(); },
                                              [&] { return consumer.lastTake(); });
            (atOnce ? deliverRates : queueRates).push_back(rate.perSecond);
            (atOnce ? deliverLost : queueLost) += rate.lost;
        }
    }
    const RateResult threadRate{median(threadRates), 0};
    const RateResult queueRate{median(queueRates), queueLost};
    const RateResult plainRate{median(plainRates), plainLost};
    const RateResult deliverRate{median(deliverRates), deliverLost};
    const RateResult plainThreadRate{median(plainThreadRates), plainThreadLost};
    const auto ratio = [](const RateResult &rate, const RateResult &base) -> std::optional<double> {
        if (rate.lost || base.lost || base.perSecond <= 0)
            return std::nullopt;
        return rate.perSecond / base.perSecond;
    };
    const std::optional<double> queueRatio = ratio(queueRate, threadRate);
    const std::optional<double> deliverRatio = ratio(deliverRate, plainRate);
    const std::optional<double> queueDesignRatio = ratio(queueRate, plainThreadRate);
    figures.add({QStringLiteral("network sustained rate, queue action"), rateText(queueRate),
                 count(long(threadRate.perSecond)) + QStringLiteral(" /s (std::thread start-and-detach, tight loop)"),
                 queueRatio, QStringLiteral(">= 0.6x"), queueRatio && *queueRatio >= 0.6});
    figures.add({QStringLiteral("network sustained rate, queue action, against a plain socket starting a thread per reply"),
                 rateText(queueRate),
                 rateText(plainThreadRate) + QStringLiteral(" (plain QUdpSocket receive, std::thread start-and-detach per reply)"),
                 queueDesignRatio, QStringLiteral("report"), std::nullopt});
    figures.add({QStringLiteral("network sustained rate, deliver at once"), rateText(deliverRate),
                 rateText(plainRate) + QStringLiteral(" (plain QUdpSocket receive)"), deliverRatio,
                 QStringLiteral(">= 0.5x"), deliverRatio && *deliverRatio >= 0.5});
}

void memoryReplies(const Options &options, Figures &figures)
{
    const long total = options.count(1000000, 3000);
    const long mark = std::min(10000L, total / 10);
    LoopbackDevice device;
    if (!device.isValid())
        throw SectionError("no loopback socket");
    device.answerWith(QByteArray());
    // Every action in turn: queued, delivered at once, held and completed by
    // block data (on a thread of its own).
    const std::vector<LoopbackDevice::Datagram> cycle = {
        {kQueueReply, 1}, {kDeliverAtOnceReply, 1}, {kHoldReply, 0}, {kBlockData, 1}};

    std::atomic<qint64> firstBytes{0};
    qint64 endBytes = 0;
    RateResult rate;
    {
        auto library = std::make_unique<Library>(device);
        introduce(device, [&] { library->send(); });
        QueueConsumer consumer([&](long taken) {
            if (taken >= mark && firstBytes.load() == 0)
                firstBytes = residentBytes();
        });
        rate = pacedRate(device, cycle, total, [&] { return consumer.taken(); }, [&] { return consumer.lastTake(); });
        endBytes = residentBytes();
        library.reset();
    }
    testqueue::take();
    const QString what = QStringLiteral("replies through the network path");
    if (rate.lost)
        figures.add({QStringLiteral("memory: ") + what, QStringLiteral("%1 replies lost").arg(rate.lost), QString(),
                     std::nullopt, QStringLiteral("none lost"), false});
    if (leakCheckAvailable()) {
        if (const std::optional<LeakReport> leaks = checkLeaks())
            figures.add(leakFigure(what, total, *leaks));
        return;
    }
    figures.add(residentGrowthFigure(what, mark, firstBytes.load(), total, endBytes));
}

} // namespace e2e
