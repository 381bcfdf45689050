#pragma once

#include <QByteArray>
#include <QString>
#include <QtGlobal>

#include "ModulelEnum.h"

// One command or reply record, exchanged by value between the command module
// and the communications library. Member order is part of the contract with the
// command module: do not reorder.
class ProtocolData
{
public:
    ProtocolData();
    ~ProtocolData();
    ProtocolData(const ProtocolData &other);
    ProtocolData &operator=(const ProtocolData &other);
    ProtocolData(ProtocolData &&other) noexcept;
    ProtocolData &operator=(ProtocolData &&other) noexcept;

    // Network replies: the sender's address text.
    QString hostText;
    // The link a reply came by: 0 network, 1 serial, 2 USB.
    quint8 linkByte = 0;
    // Where a reply came from: sender address, serial port name or "USB".
    QString sourceText;

    quint8 commandByte = 0;
    // Command-module fields that the communications library never touches.
    quint8 leadingReserved[13] = {};
    // The six parameter bytes, in frame order.
    quint8 paramBytes[6] = {};
    // 8-bit sum of the command byte and the six parameter bytes.
    quint8 checksumByte = 0;
    // Command-module fields that the communications library never touches.
    quint8 trailingReserved[7] = {};

    // Free text of the command module; network parsing empties it on rejection.
    QString infoText;
    // Raw bytes sent after the frame header, or the block data of a reply.
    QByteArray payload;
    // Network only: 0 unicast, 1 broadcast, anything else is refused.
    quint8 sendMode = 0;
    ModulelEnum::DeviceType deviceType = ModulelEnum::DeviceUnknown;
};
