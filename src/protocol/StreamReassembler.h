#pragma once

#include <atomic>
#include <functional>
#include <mutex>

#include <QByteArray>
#include <QString>
#include <QtGlobal>

#include "ModulelEnum.h"
#include "ProtocolData.h"
#include "ReplyRules.h"

namespace comm {

class ReplySink;

// How one link reassembles reply frames from its byte stream. The serial and
// USB links share the mechanism and differ only in these values; serial() and
// usb() give the two sets the transports use.
struct StreamReassemblyConfig
{
    // Link byte stamped on every record (1 serial, 2 USB).
    quint8 linkByte = 1;
    // Source text stamped on every record until setSourceText changes it
    // (serial: the port name, set on open; USB: "USB").
    QString sourceText;
    // Sleep at the start of every worker turn, in milliseconds.
    int turnSleepMs = 3;
    // Whether a frame is checked for a block announcement (the stream column
    // of kReplyRules) and its block waited for (serial). Without it every
    // valid frame is queued at once with an empty payload (USB).
    bool framesAnnounceBlocks = true;
    // The block wait: how many times it looks for the whole block, and how
    // long it sleeps after each look that finds too few bytes.
    int blockWaitAttempts = 150;
    int blockWaitSleepMs = 4;
    // Whether a block's record gets the source text stamped on the record (serial), or
    // leaves the record's source text as the caller passed it (USB).
    bool blockSetsSourceText = true;
    // Text logged, followed by the 16 digits, when a frame's check byte does
    // not match.
    QString checkFailureLog;

    static StreamReassemblyConfig serial();
    static StreamReassemblyConfig usb();
};

// Reply reassembly for a byte stream (serial line, USB input reports).
//
// It owns the link's receive buffer and the lock that guards it. The receive
// path appends; one worker (run(), or dealTurn() one turn at a time) consumes
// from the front: it drops bytes up to a "[" "R" frame start, checks the
// 19-byte frame "[" "R" 16 hex digits "]" and its check byte, on serial waits
// for the raw block the frame announces, and hands each reply record to the
// sink: a frame's record detached, a block's record at once.
//
// The sleep function is injectable so that tests and fuzzers can drive the
// mechanism without real time passing.
class StreamReassembler
{
public:
    using SleepFunction = std::function<void(int milliseconds)>;

    // Number of bytes a turn looks at, at most.
    static constexpr unsigned short kSnapshotSize = 1024;

    // The most the receive buffer holds: four times the longest reply, a
    // 19-byte frame and its block of up to 65,535 bytes. A well-behaved line
    // never comes near it, as each reply is taken as soon as it is whole. A
    // line that keeps sending what is never a reply (noise, a wrong baud
    // rate, "[" bytes taken one per turn) would otherwise grow it for as long
    // as it talks: past the cap, the oldest bytes are dropped, one log line
    // says so for each such episode, and reassembly goes on with the rest.
    static constexpr int kBufferCap = 262144;
    // An episode ends once the buffer is down to half the cap, or cleared.
    static constexpr int kBufferCapRelief = kBufferCap / 2;

    // sink must outlive this object. An empty sleep function means real
    // sleeping.
    StreamReassembler(StreamReassemblyConfig config, ReplySink &sink, SleepFunction sleep = {});
    StreamReassembler(const StreamReassembler &) = delete;
    StreamReassembler &operator=(const StreamReassembler &) = delete;

    const StreamReassemblyConfig &config() const { return m_config; }

    // Stamped on every record from now on.
    void setSourceText(const QString &text);
    QString sourceText() const;
    void setDeviceType(ModulelEnum::DeviceType type);
    ModulelEnum::DeviceType deviceType() const;

    // The worker's body: turns until runFlag is false at the end of a turn
    // (or on entry). When exitedFlag is given it is set false on entry and true
    // as the worker's last act, for a stopping side that waits on it.
    void run(const std::atomic<bool> &runFlag, std::atomic<bool> *exitedFlag);

    // One worker turn: the turn sleep, then at most one frame handled.
    void dealTurn();

    // Drops bytes up to the first "[" of snapshot (all of them when there is
    // none); true when the buffer now starts with "[" "R".
    bool skipToFrameStart(const QByteArray &snapshot);
    // Checks and consumes the frame at the buffer's front (and on serial its
    // block); true when a record was produced.
    bool takeFrame(const QByteArray &frame);
    // Waits for, checks and consumes a block of length bytes, completes
    // record with it and hands it over at once; true when it was handed over.
    bool takeBlock(ProtocolData record, unsigned short length);
    // Decodes the 16 digits at bytes 2..17 of frame; when their check byte
    // matches, *out becomes the decoded record and true is returned.
    bool decodeFrame(const QByteArray &frame, ProtocolData *out) const;

    // Receive buffer operations, each one critical section under the lock.
    // append drops the oldest bytes beyond kBufferCap.
    void append(const QByteArray &data);
    // The first n bytes (fewer when the buffer is shorter), left in place.
    QByteArray peek(unsigned short n) const;
    // The first n bytes (fewer when the buffer is shorter), removed.
    QByteArray take(unsigned short n);
    void clear();
    // A copy of the whole buffer.
    QByteArray contents() const;

private:
    void stamp(ProtocolData &record, bool setSourceText) const;
    void sleepFor(int milliseconds) const;

    const StreamReassemblyConfig m_config;
    ReplySink &m_sink;
    const SleepFunction m_sleep;

    QByteArray m_buffer;
    // Whether bytes have been dropped at the cap since the buffer was last
    // down to kBufferCapRelief. Guarded by the buffer lock.
    bool m_overflowing = false;
    mutable std::mutex m_bufferLock;

    mutable std::mutex m_sourceLock;
    QString m_sourceText;
    std::atomic<ModulelEnum::DeviceType> m_deviceType{ModulelEnum::DeviceUnknown};
};

// The block length a reply announces: B5 + 256 * B6.
unsigned short announcedBlockLength(const ProtocolData &record);

} // namespace comm
