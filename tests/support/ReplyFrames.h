#pragma once

#include <array>

#include <QByteArray>
#include <QtGlobal>

// Reply frames as a device sends them on the serial line or over USB:
// "[" "R", B0..B6 and the check byte as hex digit pairs, "]".
// For the benchmarks' simulated devices. Tests write their replies out, or
// take many numbered ones from GeneratedReplies.h.
namespace replyframes {

enum class Case { Upper, Lower };

// bytes are B0..B6; check < 0 means the correct check byte (their 8-bit sum).
QByteArray frame(const std::array<quint8, 7> &bytes, int check = -1, Case digits = Case::Upper);

// bytes followed by their 8-bit sum: a block whose check byte is right.
QByteArray blockWithCheckByte(const QByteArray &bytes);

} // namespace replyframes
