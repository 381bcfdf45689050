#include "CommandFrame.h"

#include <cstring>

#include "FrameHexText.h"

namespace comm {

quint8 commandChecksum(const ProtocolData &record)
{
    unsigned sum = record.commandByte;
    for (quint8 param : record.paramBytes)
        sum += param;
    return static_cast<quint8>(sum);
}

QByteArray commandFrame(const ProtocolData &record)
{
    const unsigned char header[8] = {record.commandByte,   record.paramBytes[0],   record.paramBytes[1],
                                     record.paramBytes[2], record.paramBytes[3],   record.paramBytes[4],
                                     record.paramBytes[5], commandChecksum(record)};
    const int payloadSize = record.payload.size();
    // Header text and payload share one allocation.
    QByteArray frame(kFrameHeaderSize + payloadSize, Qt::Uninitialized);
    char *payloadStart = writeFrameHexText(frame.data(), header, 8);
    if (payloadSize > 0)
        std::memcpy(payloadStart, record.payload.constData(), static_cast<size_t>(payloadSize));
    return frame;
}

} // namespace comm
