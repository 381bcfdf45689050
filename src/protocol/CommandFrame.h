#pragma once

#include <QByteArray>
#include <QtGlobal>

#include "ProtocolData.h"

namespace comm {

// Length of a command or reply frame header: "[", a letter, 16 hex digits, "]".
constexpr int kFrameHeaderSize = 19;

// 8-bit wrap-around sum of the command byte and the six parameter bytes.
quint8 commandChecksum(const ProtocolData &record);

// The command frame for one record: "[" "A", the command byte, the six
// parameter bytes and their checksum as 16 lower-case hex digits, "]", then the
// payload raw. The record itself is not changed.
QByteArray commandFrame(const ProtocolData &record);

} // namespace comm
