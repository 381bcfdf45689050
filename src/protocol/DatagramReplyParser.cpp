#include "DatagramReplyParser.h"

#include <algorithm>

#include "DebugLog.h"
#include "HexPairs.h"

namespace comm {

namespace {

void zeroReplyFields(ProtocolData &record)
{
    record.commandByte = 0;
    std::fill(std::begin(record.paramBytes), std::end(record.paramBytes), quint8(0));
    record.checksumByte = 0;
}

// A datagram that is not a reply at all: no fields, no payload, no text.
void rejectDatagram(ProtocolData &record)
{
    zeroReplyFields(record);
    record.payload.clear();
    record.infoText = QStringLiteral("");
}

int announcedLength(const ProtocolData &reply)
{
    return combineTwoByte(reply.paramBytes[4], reply.paramBytes[5]);
}

} // namespace

QString senderText(const QString &addressText)
{
    if (addressText.contains(QLatin1String("::ffff:")))
        return addressText.mid(7);
    return addressText;
}

int combineTwoByte(unsigned char low, unsigned char high)
{
    return static_cast<qint16>(static_cast<quint16>((high << 8) | low));
}

ProtocolData parseReplyDatagram(const QByteArray &datagram)
{
    ProtocolData record;
    if (datagram.size() != kReplyDatagramSize) {
        debugLine(QStringLiteral("datagram.size()!=19 return"));
        rejectDatagram(record);
        return record;
    }
    if (datagram.at(0) != '[' || datagram.at(1) != 'R') {
        rejectDatagram(record);
        debugLine(QStringLiteral("no '[' 'R' "));
        return record;
    }
    // The sent check byte counts by its low 8 bits here.
    const int sentCheck = decodeReplyDigits(datagram.constData() + 2, record);
    if (static_cast<quint8>(sentCheck) != record.checksumByte) {
        zeroReplyFields(record);
        debugLine(QStringLiteral("CHKSUM Wrong return"));
    }
    return record;
}

std::optional<ProtocolData> combineReplyWithBlock(const QByteArray &blockData, const QByteArray &heldReply)
{
    if (heldReply.isEmpty() || blockData.isEmpty())
        return std::nullopt;
    ProtocolData record = parseReplyDatagram(heldReply);
    const int fixed = fixedBlockPayload(record);
    if (fixed > 0) {
        record.payload = blockData.left(fixed);
        return record;
    }
    const int length = announcedLength(record);
    // Zero announces nothing, and a negative length can never be gathered.
    if (length <= 0 || blockData.size() < length)
        return std::nullopt;
    record.payload = blockData.left(length);
    return record;
}

DatagramReplyParser::DatagramReplyParser(HeldReplyBuffers buffers, ReplySink &sink)
    : m_buffers(buffers)
    , m_sink(sink)
{
}

void DatagramReplyParser::takeDatagram(const QByteArray &datagram, const QString &sender,
                                       ModulelEnum::DeviceType deviceType)
{
    {
        std::lock_guard<std::mutex> guard(m_buffers.lock);
        m_buffers.lastDatagram = datagram;
    }
    debugLine(QStringLiteral("Recv data:"), datagram);
    debugLine(QStringLiteral("host ip:"), sender);

    ProtocolData record = parseReplyDatagram(datagram);
    record.hostText = sender;
    record.linkByte = 0;
    record.sourceText = sender;
    record.deviceType = deviceType;

    switch (replyAction(record)) {
    case ReplyAction::Queue:
        m_sink.deliverDetached(record);
        break;
    case ReplyAction::DeliverAtOnce:
        m_sink.deliverNow(record);
        break;
    case ReplyAction::Hold:
        hold(datagram);
        break;
    case ReplyAction::BlockData:
        takeBlockData(datagram);
        break;
    }
}

void DatagramReplyParser::hold(const QByteArray &datagram)
{
    // Replaces a reply held earlier; block data gathered so far stays and
    // counts toward this one.
    std::lock_guard<std::mutex> guard(m_buffers.lock);
    m_buffers.heldReply = datagram;
}

void DatagramReplyParser::takeBlockData(const QByteArray &datagram)
{
    QByteArray heldReply;
    {
        std::lock_guard<std::mutex> guard(m_buffers.lock);
        heldReply = m_buffers.heldReply;
    }
    // Parsed again here for its announced length; an empty held reply logs
    // its size and announces 0.
    const ProtocolData held = parseReplyDatagram(heldReply);
    QByteArray blockData;
    {
        std::lock_guard<std::mutex> guard(m_buffers.lock);
        m_buffers.blockBuffer.append(datagram);
        if (m_buffers.blockBuffer.size() < announcedLength(held))
            return; // wait for further block datagrams
        blockData = m_buffers.blockBuffer;
    }
    m_sink.deliverCombinedDetached(blockData, heldReply, &combineReplyWithBlock);
    std::lock_guard<std::mutex> guard(m_buffers.lock);
    m_buffers.heldReply.clear();
    m_buffers.blockBuffer.clear();
}

} // namespace comm
