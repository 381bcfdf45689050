#include "StreamReassembler.h"

#include <chrono>
#include <cstring>
#include <thread>

#include "CommandFrame.h"
#include "DebugLog.h"
#include "HexPairs.h"
#include "ReplySink.h"

namespace comm {

namespace {
// Reply frame: "[" "R", 16 hex digits from offset 2, "]" at offset 18.
constexpr int kDigitsOffset = 2;
constexpr int kDigitCount = 2 * kReplyPairs;
constexpr int kFrameEndOffset = kFrameHeaderSize - 1;

// Bytes as text the way replies have always been logged: local 8-bit, ending
// at the first zero byte.
QString textUpToZero(const char *bytes, int size)
{
    return QString::fromLocal8Bit(bytes, static_cast<int>(qstrnlen(bytes, static_cast<uint>(size))));
}
} // namespace

// The two links side by side, in the order of the fields: link byte, source
// text, turn sleep, block announcements, block wait attempts and sleep,
// source text on block records, check failure log.
StreamReassemblyConfig StreamReassemblyConfig::serial()
{
    return {1, QString(), 3, true, 150, 4, true, QStringLiteral("PortSerial::getArrayData   dataStr==")};
}

StreamReassemblyConfig StreamReassemblyConfig::usb()
{
    return {2, QStringLiteral("USB"), 20, false, 200, 20, false, QStringLiteral("PortUSB::getArrayData   dataStr==")};
}

unsigned short announcedBlockLength(const ProtocolData &record)
{
    return static_cast<unsigned short>(record.paramBytes[4] + 256 * record.paramBytes[5]);
}

StreamReassembler::StreamReassembler(StreamReassemblyConfig config, ReplySink &sink, SleepFunction sleep)
    : m_config(std::move(config))
    , m_sink(sink)
    , m_sleep(std::move(sleep))
    , m_sourceText(m_config.sourceText)
{
}

void StreamReassembler::setSourceText(const QString &text)
{
    std::lock_guard<std::mutex> guard(m_sourceLock);
    m_sourceText = text;
}

QString StreamReassembler::sourceText() const
{
    std::lock_guard<std::mutex> guard(m_sourceLock);
    return m_sourceText;
}

void StreamReassembler::setDeviceType(ModulelEnum::DeviceType type)
{
    m_deviceType.store(type);
}

ModulelEnum::DeviceType StreamReassembler::deviceType() const
{
    return m_deviceType.load();
}

void StreamReassembler::sleepFor(int milliseconds) const
{
    if (m_sleep)
        m_sleep(milliseconds);
    else
        std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

void StreamReassembler::run(const std::atomic<bool> &runFlag, std::atomic<bool> *exitedFlag)
{
    if (exitedFlag)
        exitedFlag->store(false);
    // The run flag is looked at on entry and after each turn only, so a stop
    // takes effect at the end of the turn in progress.
    while (runFlag.load())
        dealTurn();
    if (exitedFlag)
        exitedFlag->store(true);
}

void StreamReassembler::dealTurn()
{
    sleepFor(m_config.turnSleepMs);
    QByteArray snapshot = peek(kSnapshotSize);
    if (snapshot.size() < kFrameHeaderSize)
        return; // wait for more data
    if (!skipToFrameStart(snapshot))
        return;
    // The front has moved: look again.
    snapshot = peek(kSnapshotSize);
    if (snapshot.size() < kFrameHeaderSize)
        return;
    if (snapshot.at(0) == '[' && snapshot.at(1) == 'R' && snapshot.at(kFrameEndOffset) == ']')
        takeFrame(snapshot);
    else
        take(1); // not a frame: drop its "[" and resynchronise next turn
}

bool StreamReassembler::skipToFrameStart(const QByteArray &snapshot)
{
    const int start = snapshot.indexOf('[');
    if (start < 0) {
        // Everything examined is garbage; bytes that arrived since stay.
        take(static_cast<unsigned short>(qMin(snapshot.size(), 0xFFFF)));
        return false;
    }
    take(static_cast<unsigned short>(qMin(start, 0xFFFF)));
    const QByteArray front = peek(kSnapshotSize);
    if (front.size() < 2)
        return false; // the "[" waits for its next byte
    if (front.at(1) == 'R')
        return true;
    take(1);
    return false;
}

bool StreamReassembler::takeFrame(const QByteArray &frame)
{
    if (frame.size() < kFrameHeaderSize)
        return false;
    const QByteArray header = frame.left(kFrameHeaderSize);
    ProtocolData record;
    if (!decodeFrame(header, &record)) {
        take(1); // drop the "[": the rest is scanned again as data
        return false;
    }
    take(kFrameHeaderSize);
    const QString received = QStringLiteral("Recv data:") + textUpToZero(header.constData(), kFrameHeaderSize);

    if (m_config.framesAnnounceBlocks && announcesBlock(record)) {
        if (takeBlock(record, announcedBlockLength(record))) {
            debugLine(received);
            return true;
        }
        // One line: the frame, a blank, then the failure text.
        debugLine(received + QStringLiteral(" CheckBlock default:"));
        return false;
    }

    debugLine(received);
    stamp(record, true);
    m_sink.deliverDetached(record);
    return true;
}

bool StreamReassembler::takeBlock(ProtocolData record, unsigned short length)
{
    QByteArray block;
    if (length > 0) {
        bool complete = false;
        for (int attempt = 0; attempt < m_config.blockWaitAttempts; ++attempt) {
            block = peek(length);
            if (block.size() == length) {
                complete = true;
                break;
            }
            // Sleep without the buffer lock: the receive path keeps appending.
            sleepFor(m_config.blockWaitSleepMs);
        }
        if (!complete)
            return false; // nothing consumed
        take(length);
        const auto *bytes = reinterpret_cast<const unsigned char *>(block.constData());
        unsigned sum = 0;
        for (int i = 0; i + 1 < length; ++i)
            sum += bytes[i];
        if ((sum & 0xFF) != bytes[length - 1])
            return false; // the block stays consumed
    }
    record.payload = block;
    stamp(record, m_config.blockSetsSourceText);
    m_sink.deliverNow(record);
    return true;
}

bool StreamReassembler::decodeFrame(const QByteArray &frame, ProtocolData *out) const
{
    // Bytes 2..17; a shorter frame reads as if it ended in zero bytes.
    char digits[kDigitCount] = {};
    const int available = qBound(0, frame.size() - kDigitsOffset, kDigitCount);
    if (available > 0)
        std::memcpy(digits, frame.constData() + kDigitsOffset, static_cast<size_t>(available));

    ProtocolData decoded;
    // The sent check byte is compared as the whole converted number, so a
    // pair such as "-1" never matches.
    if (decodeReplyDigits(digits, decoded) != static_cast<int>(decoded.checksumByte)) {
        debugLine(m_config.checkFailureLog + textUpToZero(digits, kDigitCount));
        return false;
    }
    *out = decoded;
    return true;
}

void StreamReassembler::stamp(ProtocolData &record, bool setSourceText) const
{
    record.linkByte = m_config.linkByte;
    if (setSourceText) {
        // Text of the record's own, shared with nothing the transport keeps:
        // otherwise a reopen that sets a new source text could let the last
        // reference go inside Qt, out of ThreadSanitizer's sight, after the
        // application has dropped the record on another thread.
        const QString text = sourceText();
        record.sourceText = QString(text.constData(), text.size());
    }
    record.deviceType = deviceType();
}

void StreamReassembler::append(const QByteArray &data)
{
    int dropped = 0;
    bool episodeBegins = false;
    {
        std::lock_guard<std::mutex> guard(m_bufferLock);
        // Only the newest kBufferCap bytes of data can stay.
        const int skipped = qMax(0, data.size() - kBufferCap);
        const int kept = data.size() - skipped;
        dropped = qMax(0, m_buffer.size() + kept - kBufferCap);
        m_buffer.remove(0, dropped);
        // A deep copy: the buffer never shares its bytes with another thread's array.
        m_buffer.append(data.constData() + skipped, kept);
        dropped += skipped;
        if (dropped > 0 && !m_overflowing)
            episodeBegins = m_overflowing = true;
    }
    // Logged outside the lock: the receive path must not wait on the log.
    if (episodeBegins)
        debugLine(QStringLiteral("Receive buffer full (%1 bytes): dropping the oldest bytes").arg(kBufferCap));
}

QByteArray StreamReassembler::peek(unsigned short n) const
{
    std::lock_guard<std::mutex> guard(m_bufferLock);
    return QByteArray(m_buffer.constData(), qMin<int>(n, m_buffer.size()));
}

QByteArray StreamReassembler::take(unsigned short n)
{
    std::lock_guard<std::mutex> guard(m_bufferLock);
    const int count = qMin<int>(n, m_buffer.size());
    QByteArray front(m_buffer.constData(), count);
    m_buffer.remove(0, count);
    if (m_buffer.size() <= kBufferCapRelief)
        m_overflowing = false;
    return front;
}

void StreamReassembler::clear()
{
    std::lock_guard<std::mutex> guard(m_bufferLock);
    m_buffer.clear();
    m_overflowing = false;
}

QByteArray StreamReassembler::contents() const
{
    std::lock_guard<std::mutex> guard(m_bufferLock);
    return QByteArray(m_buffer.constData(), m_buffer.size());
}

} // namespace comm
