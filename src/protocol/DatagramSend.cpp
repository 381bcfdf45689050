#include "DatagramSend.h"

#include <algorithm>
#include <cstring>

namespace comm {

namespace {

// Write results are added as 32-bit values, wrapping like the int they have
// always been summed in.
int addResult(int sent, qint64 result)
{
    return static_cast<int>(static_cast<quint32>(sent) + static_cast<quint32>(result));
}

// Writes size bytes starting at offset of data. Bytes outside data are zero.
qint64 writeSpan(const QByteArray &data, int offset, int size, const DatagramWrite &write)
{
    const qint64 begin = offset;
    const qint64 end = begin + size;
    if (begin >= 0 && end <= data.size())
        return write(data.constData() + offset, size, offset);

    QByteArray padded(size, '\0');
    const qint64 inBegin = std::max<qint64>(begin, 0);
    const qint64 inEnd = std::min<qint64>(end, data.size());
    if (inBegin < inEnd)
        std::memcpy(padded.data() + (inBegin - begin), data.constData() + inBegin,
                    static_cast<size_t>(inEnd - inBegin));
    return write(padded.constData(), size, offset);
}

} // namespace

int writeInDatagrams(const QByteArray &data, const DatagramWrite &write)
{
    int remaining = data.size();
    int sent = 0;
    if (remaining <= kMaxDatagramPayload) {
        if (remaining > 0)
            sent = addResult(sent, writeSpan(data, sent, remaining, write));
        return sent;
    }
    // Each turn writes one full chunk; the loop ends after at most
    // data.size() / kMaxDatagramPayload turns.
    while (true) {
        const qint64 result = writeSpan(data, sent, kMaxDatagramPayload, write);
        sent = addResult(sent, result);
        if (result != kMaxDatagramPayload) {
            sent = addResult(sent, writeSpan(data, sent, remaining, write));
            return sent;
        }
        const bool moreFullChunks = remaining > 2 * kMaxDatagramPayload;
        remaining -= kMaxDatagramPayload;
        if (moreFullChunks)
            continue;
        if (remaining > 0)
            sent = addResult(sent, writeSpan(data, sent, remaining, write));
        return sent;
    }
}

SendOutcome unicastOutcome(qint64 sent, qint64 size)
{
    if (sent == size)
        return {"Send successful", false};
    if (sent == -1)
        return {"Send Broadcast failed", false};
    if (sent == -115)
        return {"Send failed", false};
    return {"Send unknown", true};
}

SendOutcome broadcastOutcome(qint64 result, qint64 size)
{
    if (result == size)
        return {"Send Broadcast successful", false};
    if (result == -1 || result == -115)
        return {"Send Broadcast failed", false};
    return {"Send Broadcast unknown", true};
}

} // namespace comm
