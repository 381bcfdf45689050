// The network link end to end: a command sent through PortUDP, the loopback
// device answering, the record on the receive queue. Beside it in the same run:
// a plain QUdpSocket doing the same request/reply with the same device, and
// std::thread start-and-detach, which the queue action pays once per reply.
#include <algorithm>
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
struct Library
{
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

struct Samples
{
    std::vector<double> values;
    // Commands whose reply was not there within a second: lost, or so late
    // that the sample says nothing about the round trip either way.
    int unanswered = 0;
    void add(const std::optional<double> &sample)
    {
        if (sample)
            values.push_back(*sample);
        else {
            ++unanswered;
            settleAfterLoss();
        }
    }
    QString unansweredText() const
    {
        if (!unanswered)
            return QString();
        return QStringLiteral(", %1 of %2 unanswered within 1 s").arg(unanswered).arg(unanswered + int(values.size()));
    }
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

// How a paced run ended. Three outcomes are kept apart: replies lost (sent by
// the device and never taken off the queue), replies the device had not sent
// when the deadline came or when the receiving side stopped taking, and a
// run that went through.
struct RateResult
{
    long asked = 0;     // records the device was to send
    long sent = 0;      // records its datagrams completed before it stopped
    long taken = 0;     // records taken off the queue
    double seconds = 0; // from the first send to the last take
    std::chrono::seconds deadline{0};
    bool stalled = false; // the receiving side took nothing for a second

    long lost() const { return std::max(0L, sent - taken); }
    long unsent() const { return asked - sent; }
    bool complete() const { return lost() == 0 && unsent() == 0; }
    double perSecond() const { return seconds > 0 ? double(taken) / seconds : 0; }
};

// Replies sent as fast as the receiving side takes them (never more than a
// window ahead), counted by taken(); the time runs from the first send to the
// moment the last one was taken.
RateResult pacedRate(LoopbackDevice &device, const std::vector<LoopbackDevice::Datagram> &cycle, long records,
                     const std::function<long()> &taken, const std::function<Clock::time_point()> &lastTake,
                     std::chrono::seconds limit = 120s)
{
    constexpr long kWindow = 64;
    const Clock::time_point deadline = Clock::now() + limit;
    std::atomic<bool> sent{false};
    LoopbackDevice::PacedResult paced;
    std::thread sender([&] {
        paced = device.sendPaced(cycle, records, kWindow, taken, deadline);
        sent = true;
    });
    // Done when all are taken, or when the sender has stopped.
    runEventsUntil([&] { return taken() >= records || sent.load(); }, deadline + 1s);
    sender.join();
    // What was sent gets a second more to reach the queue; what is still
    // missing then is lost.
    runEventsUntil([&] { return taken() >= paced.sentRecords; }, Clock::now() + 1s);
    RateResult result;
    result.asked = records;
    result.sent = paced.sentRecords;
    result.taken = taken();
    result.deadline = limit;
    result.stalled = paced.stalled;
    if (result.taken > 0)
        result.seconds = std::max(0.0, millisecondsBetween(paced.first, lastTake()) / 1000.0);
    return result;
}

// A paced run's outcome in words.
QString outcomeText(const RateResult &r)
{
    const QString delivered =
        QStringLiteral("%1 of %2 delivered in %3 s").arg(count(r.taken), count(r.asked), number(r.seconds, 1));
    if (r.lost() > 0)
        return QStringLiteral("%1 of %2 sent lost (%3)").arg(count(r.lost()), count(r.sent), delivered);
    if (r.stalled)
        return QStringLiteral("stopped, the receiving side took nothing for 1 s: %1, none lost").arg(delivered);
    if (r.unsent() > 0)
        return QStringLiteral("not finished within the %1 s deadline: %2, none lost")
            .arg(r.deadline.count())
            .arg(delivered);
    return delivered + QStringLiteral(", none lost");
}

// Rounds of one paced rate: the median rate of the rounds, counted only when
// every round went through.
struct RateRounds
{
    std::vector<RateResult> rounds;

    void add(const RateResult &result) { rounds.push_back(result); }
    bool complete() const
    {
        return std::all_of(rounds.begin(), rounds.end(), [](const RateResult &r) { return r.complete(); });
    }
    double perSecond() const
    {
        std::vector<double> rates;
        for (const RateResult &r : rounds)
            rates.push_back(r.perSecond());
        return median(rates);
    }
    // The rate, or what kept it from being one: the first round that did not
    // go through.
    QString text() const
    {
        for (size_t i = 0; i < rounds.size(); ++i) {
            if (rounds[i].complete())
                continue;
            const QString where = rounds.size() > 1 ? QStringLiteral(" (round %1 of %2)").arg(i + 1).arg(rounds.size())
                                                    : QString();
            return outcomeText(rounds[i]) + where;
        }
        return count(long(perSecond())) + QStringLiteral(" /s, none lost");
    }
};

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
    const QByteArray frame = comm::commandFrame(command());

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
            (keep ? plainSamples : scratch)
                .add(timeOne([&] { plain.send(frame, device.port()); }, [&] { return plain.received() > 0; }));
        }
        // The queue action's cost where the library pays it: a thread started
        // from the reading thread as a reply comes in.
        plain.setOnReply(startThread);
        for (int i = 0; i < batch; ++i) {
            threadRan->store(false);
            (keep ? plainThreadSamples : scratch)
                .add(timeOne([&] { plain.send(frame, device.port()); }, [&] { return threadRan->load(); }));
        }
        plain.setOnReply({});
        for (int i = 0; i < batch; ++i) {
            (keep ? deliverSamples : scratch)
                .add(timeOne([&] { library.send(); }, [] { return testqueue::length() > 0; }));
            testqueue::take();
        }
        device.answerWith(kQueueReply);
        for (int i = 0; i < batch; ++i) {
            (keep ? queueSamples : scratch)
                .add(timeOne([&] { library.send(); }, [] { return testqueue::length() > 0; }));
            testqueue::take();
        }
        for (int i = 0; i < batch; ++i) {
            threadRan->store(false);
            (keep ? threadSamples : scratch).add(timeOne(startThread, [&] { return threadRan->load(); }));
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
                 micros(deliver50) + deliverSamples.unansweredText(),
                 micros(plain50) + QStringLiteral(" (%1 p50)").arg(plainText) + plainSamples.unansweredText(),
                 deliver50 / plain50, QStringLiteral("<= 1.5x"), deliver50 <= 1.5 * plain50});
    figures.add({QStringLiteral("network round trip, deliver at once, p99, %1").arg(mode), micros(deliver99),
                 micros(plain99) + QStringLiteral(" (%1 p99)").arg(plainText), deliver99 / plain99,
                 QStringLiteral("report"), std::nullopt});
    const double queueBound = plain50 + 2 * threadCost;
    figures.add({QStringLiteral("network round trip, queued, p50, %1").arg(mode),
                 micros(queue50) + queueSamples.unansweredText(),
                 micros(queueBound)
                     + QStringLiteral(" (plain p50 %1 + 2 x thread start %2; bare thread start %3, "
                                      "plain then thread %4)")
                           .arg(micros(plain50), micros(threadCost), micros(thread50), micros(plainThread50))
                     + plainThreadSamples.unansweredText(),
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

    std::vector<double> threadRates;
    RateRounds queueRates, plainRates, plainThreadRates, deliverRates;
    for (int round = 0; round < options.count(5, 1); ++round) {
        threadRates.push_back(threadStartRate(threads));
        {
            PlainClient plain;
            introduce(device, [&] { plain.send(comm::commandFrame(command()), device.port()); });
            plainRates.add(pacedRate(
                device, {{kQueueReply, 1}}, plainCount, [&] { return plain.received(); },
                [&] { return plain.lastReceived(); }));
        }
        {
            // What the queue action's design costs without the library: the
            // plain socket, with a thread started and detached per reply.
            PlainClient plain;
            struct Done
            {
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
            introduce(device, [&] { plain.send(comm::commandFrame(command()), device.port()); });
            plainThreadRates.add(pacedRate(
                device, {{kQueueReply, 1}}, queued, [&] { return done->count.load(); },
                [&] { return Clock::time_point(Clock::duration(done->last.load())); }));
        }
        for (const bool atOnce : {false, true}) {
            Library library(device);
            introduce(device, [&] { library.send(); });
            QueueConsumer consumer;
            const QByteArray &reply = atOnce ? kDeliverAtOnceReply : kQueueReply;
            const long records = atOnce ? delivered : queued;
            (atOnce ? deliverRates : queueRates)
                .add(pacedRate(
                    device, {{reply, 1}}, records, [&] { return consumer.taken(); },
                    [&] { return consumer.lastTake(); }));
        }
    }
    const double threadRate = median(threadRates);
    const auto ratio = [](const RateRounds &rate, const RateRounds &base) -> std::optional<double> {
        if (!rate.complete() || !base.complete() || base.perSecond() <= 0)
            return std::nullopt;
        return rate.perSecond() / base.perSecond();
    };
    // The queue action starts a thread per reply by design: its fair baseline
    // is a plain socket doing the same. The bare tight loop of thread starts
    // does nothing else, and its rate follows the machine's load.
    const std::optional<double> queueRatio = ratio(queueRates, plainThreadRates);
    const std::optional<double> deliverRatio = ratio(deliverRates, plainRates);
    std::optional<double> queueBareRatio;
    if (queueRates.complete() && threadRate > 0)
        queueBareRatio = queueRates.perSecond() / threadRate;
    figures.add({QStringLiteral("network sustained rate, queue action"), queueRates.text(),
                 plainThreadRates.text()
                     + QStringLiteral(" (plain QUdpSocket receive, std::thread start-and-detach per reply)"),
                 queueRatio, QStringLiteral(">= 0.85x"), queueRatio && *queueRatio >= 0.85});
    figures.add({QStringLiteral("network sustained rate, queue action, against bare thread starts"), queueRates.text(),
                 count(long(threadRate)) + QStringLiteral(" /s (std::thread start-and-detach, tight loop)"),
                 queueBareRatio, QStringLiteral("report"), std::nullopt});
    figures.add({QStringLiteral("network sustained rate, deliver at once"), deliverRates.text(),
                 plainRates.text() + QStringLiteral(" (plain QUdpSocket receive)"), deliverRatio,
                 QStringLiteral(">= 0.5x"), deliverRatio && *deliverRatio >= 0.5});
}

void memoryReplies(const Options &options, Figures &figures)
{
    // Under AddressSanitizer every allocation and thread start costs several
    // times more, and a million replies do not fit in the deadline on two
    // processors; a quarter of a million with the same mix still passes every
    // path many thousand times over for the leak check. Whether memory
    // settles is read from the plain build's million.
    const long total = options.count(leakCheckAvailable() ? 250000 : 1000000, 3000);
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
        rate = pacedRate(
            device, cycle, total, [&] { return consumer.taken(); }, [&] { return consumer.lastTake(); });
        endBytes = residentBytes();
        library.reset();
    }
    testqueue::take();
    const QString what = QStringLiteral("replies through the network path");
    // A run that did not go through says why, and the memory figures below
    // then count the replies that did reach the queue.
    if (!rate.complete())
        figures.add({QStringLiteral("memory: %1 %2").arg(count(total), what), outcomeText(rate), QString(),
                     std::nullopt, QStringLiteral("all within %1 s, none lost").arg(rate.deadline.count()), false});
    if (leakCheckAvailable()) {
        if (const std::optional<LeakReport> leaks = checkLeaks())
            figures.add(leakFigure(what, rate.taken, *leaks));
        return;
    }
    figures.add(residentGrowthFigure(what, mark, firstBytes.load(), rate.taken, endBytes));
}

} // namespace e2e
