#pragma once

#include "ProtocolData.h"

namespace comm {

// Number of hex digit pairs in a reply frame: command byte, six parameter
// bytes, check byte.
constexpr int kReplyPairs = 8;

// Reads the 16 digit bytes of a reply frame (digits[0..15]) as eight numbers,
// the way replies have always been read: the bytes are taken as local 8-bit
// text that ends at the first zero byte, the text is cut into two-character
// pairs, and each pair is converted as QString::toInt(nullptr, 16) converts it.
// So a pair that does not convert gives 0, a pair cut short by a zero byte is
// read from what is left of it, and "-1" gives -1. Callers keep what they need
// of each value (its low 8 bits, or the whole integer).
void readHexPairs(const char *digits, int values[kReplyPairs]);

// The reply fields the 16 digits carry, read as readHexPairs reads them:
// writes record's command byte and six parameter bytes (the low 8 bits of
// their pairs) and its check byte as the 8-bit sum of those seven, and returns
// the eighth pair, the check byte the device sent, as the whole converted
// number. Each link compares the two by its own rule.
int decodeReplyDigits(const char *digits, ProtocolData &record);

} // namespace comm
