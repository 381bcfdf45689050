#pragma once

#include <QByteArray>
#include <QString>
#include <QtGlobal>

#include "ModulelEnum.h"

/// One command or reply record, exchanged by value between the command module
/// and the communications library.
///
/// Member order is part of the contract with the command module: do not reorder.
class ProtocolData
{
public:
    /// Makes an empty record: every byte 0, every text and the payload empty,
    /// send mode 0 (unicast), device type ModulelEnum::DeviceUnknown.
    ///
    /// \threads
    /// Any thread; a record shares no state with another.
    /// \logs
    /// Logs nothing.
    ProtocolData();
    /// Destroys the record.
    ///
    /// \threads
    /// Any thread.
    /// \logs
    /// Logs nothing.
    ~ProtocolData();
    /// Copies every member of other.
    ///
    /// \param other The record copied.
    /// \threads
    /// Any thread; other must not be written meanwhile.
    /// \logs
    /// Logs nothing.
    ProtocolData(const ProtocolData &other);
    /// Replaces every member with other's.
    ///
    /// \param other The record copied.
    /// \threads
    /// Any thread; neither record may be used by another thread meanwhile.
    /// \logs
    /// Logs nothing.
    /// \return This record.
    ProtocolData &operator=(const ProtocolData &other);
    /// Takes every member of other, leaving other fit only to be assigned to or destroyed.
    ///
    /// \param other The record moved from.
    /// \threads
    /// Any thread; other must not be used by another thread meanwhile.
    /// \logs
    /// Logs nothing.
    ProtocolData(ProtocolData &&other) noexcept;
    /// Takes every member of other, leaving other fit only to be assigned to or destroyed.
    ///
    /// \param other The record moved from.
    /// \threads
    /// Any thread; neither record may be used by another thread meanwhile.
    /// \logs
    /// Logs nothing.
    /// \return This record.
    ProtocolData &operator=(ProtocolData &&other) noexcept;

    /// Network replies: the sender's address text.
    QString hostText;
    /// The link a reply came by: 0 network, 1 serial, 2 USB.
    quint8 linkByte = 0;
    /// Where a reply came from: sender address, serial port name or `USB`.
    QString sourceText;

    /// The command byte: the first value of the frame header.
    quint8 commandByte = 0;
    /// Command-module fields that the communications library never touches.
    quint8 leadingReserved[13] = {};
    /// The six parameter bytes, in frame order.
    quint8 paramBytes[6] = {};
    /// 8-bit sum of the command byte and the six parameter bytes.
    quint8 checksumByte = 0;
    /// Command-module fields that the communications library never touches.
    quint8 trailingReserved[7] = {};

    /// Free text of the command module; network parsing empties it on rejection.
    QString infoText;
    /// Raw bytes sent after the frame header, or the block data of a reply.
    QByteArray payload;
    /// Network only: 0 unicast, 1 broadcast, anything else is refused.
    quint8 sendMode = 0;
    /// The device model: stamped on replies from the transport's setDeviceType.
    ModulelEnum::DeviceType deviceType = ModulelEnum::DeviceUnknown;
};
