#include "Ledger.h"

#include <QStringList>

#include <cstdio>
#include <cstring>

namespace soak {

namespace {
// Voided commands whose reply has not come after this long are forgotten; a
// reply that comes later still is taken as a late one.
constexpr qint64 kForgetVoidedMs = 120000;
// Failures printed in full; the rest are only counted.
constexpr int kFailuresInFull = 60;

QString describePayload(const QByteArray &payload)
{
    return QStringLiteral("%1 bytes [%2%3]")
        .arg(payload.size())
        .arg(QString::fromLatin1(payload.left(24).toHex(' ')))
        .arg(payload.size() > 24 ? QStringLiteral(" ...") : QString());
}

QString describeBytes(const quint8 *bytes, int count)
{
    return QString::fromLatin1(QByteArray(reinterpret_cast<const char *>(bytes), count).toHex(' '));
}

// Every member of the record that differs, as "member: expected ..., got ...".
QStringList differences(const ProtocolData &expected, const ProtocolData &got)
{
    QStringList out;
    const auto text = [&out](const char *member, const QString &e, const QString &g) {
        if (e != g)
            out << QStringLiteral("%1: expected \"%2\", got \"%3\"").arg(QLatin1String(member), e, g);
    };
    const auto number = [&out](const char *member, qint64 e, qint64 g) {
        if (e != g)
            out << QStringLiteral("%1: expected %2, got %3").arg(QLatin1String(member)).arg(e).arg(g);
    };
    const auto bytes = [&out](const char *member, const quint8 *e, const quint8 *g, int count) {
        if (std::memcmp(e, g, size_t(count)) != 0)
            out << QStringLiteral("%1: expected %2, got %3")
                       .arg(QLatin1String(member), describeBytes(e, count), describeBytes(g, count));
    };
    text("hostText", expected.hostText, got.hostText);
    number("linkByte", expected.linkByte, got.linkByte);
    text("sourceText", expected.sourceText, got.sourceText);
    number("commandByte", expected.commandByte, got.commandByte);
    bytes("leadingReserved", expected.leadingReserved, got.leadingReserved, int(sizeof got.leadingReserved));
    bytes("paramBytes", expected.paramBytes, got.paramBytes, int(sizeof got.paramBytes));
    number("checksumByte", expected.checksumByte, got.checksumByte);
    bytes("trailingReserved", expected.trailingReserved, got.trailingReserved, int(sizeof got.trailingReserved));
    text("infoText", expected.infoText, got.infoText);
    if (expected.payload != got.payload)
        out << QStringLiteral("payload: expected %1, got %2")
                   .arg(describePayload(expected.payload), describePayload(got.payload));
    number("sendMode", expected.sendMode, got.sendMode);
    number("deviceType", expected.deviceType, got.deviceType);
    return out;
}

QString describeRecord(const ProtocolData &record)
{
    return QStringLiteral("link %1, cmd %2, params %3, check %4, source \"%5\", payload %6")
        .arg(record.linkByte)
        .arg(record.commandByte, 2, 16, QLatin1Char('0'))
        .arg(describeBytes(record.paramBytes, 6))
        .arg(record.checksumByte, 2, 16, QLatin1Char('0'))
        .arg(record.sourceText, describePayload(record.payload));
}
} // namespace

Ledger::Ledger(const RunClock &clock, qint64 deadlineMs, qint64 inFlightMs)
    : m_clock(clock)
    , m_deadlineMs(deadlineMs)
    , m_inFlightMs(inFlightMs)
    // Filled in now, so that the pages are resident before memory is first sampled.
    , m_arrived(kTagSpace / 64, 0)
    , m_forgotten(kTagSpace / 64, 0)
{
}

bool Ledger::testBit(const std::vector<quint64> &bits, quint32 tag)
{
    return (bits[tag / 64] >> (tag % 64)) & 1;
}

void Ledger::setBit(std::vector<quint64> &bits, quint32 tag, bool value)
{
    const quint64 mask = quint64(1) << (tag % 64);
    bits[tag / 64] = value ? (bits[tag / 64] | mask) : (bits[tag / 64] & ~mask);
}

int Ledger::openChannel(const QString &name)
{
    std::lock_guard<std::mutex> guard(m_lock);
    const int id = m_nextChannel++;
    m_channels[id].name = name;
    return id;
}

void Ledger::voidEntry(Entry &entry, qint64 now, Cause cause)
{
    if (entry.voided)
        return;
    if (cause == Cause::Queue && entry.answeredMs < 0)
        return; // no reply yet that the queue could have held
    const qint64 lastStep = entry.answeredMs >= 0 ? entry.answeredMs : entry.sentMs;
    if (now - lastStep > m_inFlightMs)
        return; // overdue already: whatever happens now is not why it is missing
    entry.voided = true;
    entry.voidedMs = now;
    ++m_counts.voided;
    auto channel = m_channels.find(entry.channel);
    if (channel != m_channels.end())
        --channel->second.awaited;
}

void Ledger::voidChannel(int channel, qint64 now)
{
    for (auto &item : m_entries)
        if (item.second.channel == channel)
            voidEntry(item.second, now, Cause::Link);
}

void Ledger::closeChannel(int channel)
{
    {
        std::lock_guard<std::mutex> guard(m_lock);
        voidChannel(channel, m_clock.elapsedMs());
        m_channels.erase(channel);
    }
    m_room.notify_all();
}

quint64 Ledger::disrupt(int channel)
{
    quint64 epoch = 0;
    {
        std::lock_guard<std::mutex> guard(m_lock);
        voidChannel(channel, m_clock.elapsedMs());
        auto found = m_channels.find(channel);
        if (found != m_channels.end()) {
            found->second.up = false;
            epoch = ++found->second.epoch;
        }
    }
    m_room.notify_all();
    return epoch;
}

bool Ledger::markUp(int channel, quint64 epoch)
{
    std::lock_guard<std::mutex> guard(m_lock);
    auto found = m_channels.find(channel);
    if (found == m_channels.end() || found->second.epoch != epoch)
        return false;
    found->second.up = true;
    return true;
}

bool Ledger::isUp(int channel)
{
    std::lock_guard<std::mutex> guard(m_lock);
    auto found = m_channels.find(channel);
    return found != m_channels.end() && found->second.up;
}

void Ledger::voidAll()
{
    {
        std::lock_guard<std::mutex> guard(m_lock);
        const qint64 now = m_clock.elapsedMs();
        for (auto &item : m_entries)
            voidEntry(item.second, now, Cause::Queue);
    }
    m_room.notify_all();
}

void Ledger::deviceAnswered(const sim::HeaderBytes &header)
{
    std::lock_guard<std::mutex> guard(m_lock);
    auto found = m_entries.find(tagOf(header));
    if (found != m_entries.end() && found->second.answeredMs < 0 && found->second.header == header)
        found->second.answeredMs = m_clock.elapsedMs();
}

quint32 Ledger::freshTag()
{
    // Tags are used in turn; after the whole space they come round again,
    // skipping any still awaited, and forget what they meant before.
    for (quint32 tries = 0; tries < kTagSpace; ++tries) {
        const quint32 tag = m_nextTag;
        m_nextTag = (m_nextTag + 1) % kTagSpace;
        if (m_entries.count(tag) != 0)
            continue;
        setBit(m_arrived, tag, false);
        setBit(m_forgotten, tag, false);
        return tag;
    }
    return 0;
}

bool Ledger::note(int channel, Kind kind, const ReplyShape &shape, Rng &rng, Command *command)
{
    std::lock_guard<std::mutex> guard(m_lock);
    auto found = m_channels.find(channel);
    if (found == m_channels.end() || !found->second.up)
        return false;
    const quint32 tag = freshTag();
    *command = makeCommand(kind, tag, rng);
    Entry &entry = m_entries[tag];
    entry.header = command->header;
    entry.kind = kind;
    entry.shape = shape;
    entry.channel = channel;
    entry.channelName = found->second.name;
    entry.sentMs = m_clock.elapsedMs();
    ++found->second.awaited;
    ++m_counts.sent;
    return true;
}

bool Ledger::waitForRoom(int channel, int window, int timeoutMs)
{
    std::unique_lock<std::mutex> guard(m_lock);
    return m_room.wait_for(guard, std::chrono::milliseconds(timeoutMs), [&] {
        auto found = m_channels.find(channel);
        return found != m_channels.end() && found->second.up && found->second.awaited < window;
    });
}

int Ledger::awaited(int channel)
{
    std::lock_guard<std::mutex> guard(m_lock);
    auto found = m_channels.find(channel);
    return found == m_channels.end() ? 0 : found->second.awaited;
}

bool Ledger::arrived(quint32 tag)
{
    std::lock_guard<std::mutex> guard(m_lock);
    return testBit(m_arrived, tag);
}

ProtocolData Ledger::expectedRecord(const Entry &entry) const
{
    ProtocolData record;
    record.commandByte = entry.header[0];
    for (int i = 0; i < 6; ++i)
        record.paramBytes[i] = entry.header[size_t(i + 1)];
    record.checksumByte = entry.header[7];
    const sim::Link link = linkOf(entry.kind);
    const sim::HeaderBytes &header = entry.header;
    switch (link) {
    case sim::Link::Network:
        record.linkByte = 0;
        if (entry.kind == Kind::NetworkHeld) {
            // Joined with its block data, the reply is a fresh record: no
            // texts, no device type; the payload is the announced length of it.
            const int length = int(header[5]) + 256 * int(header[6]);
            record.payload = sim::blockData(sim::Link::Network, header).left(length);
        } else {
            record.hostText = entry.shape.sourceText;
            record.sourceText = entry.shape.sourceText;
            record.deviceType = ModulelEnum::DeviceType(entry.shape.deviceType);
        }
        break;
    case sim::Link::Serial:
        record.linkByte = 1;
        record.sourceText = entry.shape.sourceText;
        record.payload = sim::blockData(sim::Link::Serial, header);
        record.deviceType = ModulelEnum::DeviceType(entry.shape.deviceType);
        break;
    case sim::Link::Usb:
        record.linkByte = 2;
        record.sourceText = QStringLiteral("USB");
        record.deviceType = ModulelEnum::DeviceType(entry.shape.deviceType);
        break;
    }
    return record;
}

void Ledger::take(const ProtocolData &record)
{
    const quint32 tag = tagOf(record);
    QString failure;
    {
        std::lock_guard<std::mutex> guard(m_lock);
        auto found = m_entries.find(tag);
        if (found == m_entries.end()) {
            if (testBit(m_arrived, tag)) {
                ++m_counts.corrupt;
                failure = QStringLiteral("CORRUPT tag %1: a reply that was already taken came again: %2")
                              .arg(tag, 6, 16, QLatin1Char('0'))
                              .arg(describeRecord(record));
            } else if (testBit(m_forgotten, tag)) {
                // A reply long given up for: voided, or already counted lost.
                setBit(m_forgotten, tag, false);
                setBit(m_arrived, tag, true);
                failure = QStringLiteral("note: tag %1 came after it was given up for: %2")
                              .arg(tag, 6, 16, QLatin1Char('0'))
                              .arg(describeRecord(record));
            } else {
                ++m_counts.corrupt;
                failure = QStringLiteral("CORRUPT tag %1: a record that matches no command sent: %2")
                              .arg(tag, 6, 16, QLatin1Char('0'))
                              .arg(describeRecord(record));
            }
        } else {
            Entry &entry = found->second;
            ProtocolData expected = expectedRecord(entry);
            // A hang-up closes the serial port and leaves its receive buffer
            // as it is, and the reopen that follows may be on another line:
            // the transport names a reply after the port it has open when it
            // cuts the reply from the buffer. So a reply that was voided by
            // such a reopen may carry the new line's name.
            if (entry.voided && linkOf(entry.kind) == sim::Link::Serial && !record.sourceText.isEmpty())
                expected.sourceText = record.sourceText;
            const QStringList diff = differences(expected, record);
            if (!diff.isEmpty()) {
                ++m_counts.corrupt;
                failure = QStringLiteral("CORRUPT tag %1 (%2 via %3, sent at %4 ms, header %5%6): %7")
                              .arg(tag, 6, 16, QLatin1Char('0'))
                              .arg(QLatin1String(kindName(entry.kind)), entry.channelName)
                              .arg(entry.sentMs)
                              .arg(QString::fromLatin1(headerText(entry.header)))
                              .arg(entry.voided ? QStringLiteral(", voided") : QString())
                              .arg(diff.join(QStringLiteral("; ")));
            } else {
                ++m_counts.replies;
                ++m_counts.repliesByLink[record.linkByte];
                if (entry.voided)
                    ++m_counts.voidedArrived;
                else
                    m_counts.slowestMs[record.linkByte] =
                        qMax(m_counts.slowestMs[record.linkByte], m_clock.elapsedMs() - entry.sentMs);
            }
            if (!entry.voided) {
                auto channel = m_channels.find(entry.channel);
                if (channel != m_channels.end())
                    --channel->second.awaited;
            }
            m_entries.erase(found);
            setBit(m_arrived, tag, true);
        }
    }
    m_room.notify_all();
    if (!failure.isEmpty())
        reportFailure(failure);
}

void Ledger::expire(bool final)
{
    QStringList failures;
    {
        std::lock_guard<std::mutex> guard(m_lock);
        const qint64 now = m_clock.elapsedMs();
        for (auto item = m_entries.begin(); item != m_entries.end();) {
            Entry &entry = item->second;
            const quint32 tag = item->first;
            if (!entry.voided && (final || now - entry.sentMs > m_deadlineMs)) {
                ++m_counts.lost;
                failures << QStringLiteral("LOST tag %1 (%2 via %3, header %4): sent at %5 ms, no reply after %6 ms")
                                .arg(tag, 6, 16, QLatin1Char('0'))
                                .arg(QLatin1String(kindName(entry.kind)), entry.channelName)
                                .arg(QString::fromLatin1(headerText(entry.header)))
                                .arg(entry.sentMs)
                                .arg(now - entry.sentMs);
                auto channel = m_channels.find(entry.channel);
                if (channel != m_channels.end())
                    --channel->second.awaited;
            } else if (entry.voided && now - entry.voidedMs > kForgetVoidedMs) {
                ++m_counts.voidedGivenUp;
            } else {
                ++item;
                continue;
            }
            setBit(m_forgotten, tag, true);
            item = m_entries.erase(item);
        }
    }
    m_room.notify_all();
    for (const QString &failure : failures)
        reportFailure(failure);
}

LedgerCounts Ledger::counts()
{
    std::lock_guard<std::mutex> guard(m_lock);
    LedgerCounts counts = m_counts;
    for (const auto &item : m_entries) {
        if (item.second.voided)
            ++counts.voidedAwaited;
        else
            ++counts.awaited;
    }
    return counts;
}

void Ledger::reportFailure(const QString &text)
{
    std::lock_guard<std::mutex> guard(m_printLock);
    if (m_failuresPrinted < kFailuresInFull)
        std::fprintf(stderr, "soak: %s\n", qPrintable(text));
    else if (m_failuresPrinted == kFailuresInFull)
        std::fprintf(stderr, "soak: further failures are only counted\n");
    ++m_failuresPrinted;
}

} // namespace soak
