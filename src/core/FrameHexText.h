#pragma once

#include <QByteArray>

namespace comm {

// Writes "[" "A", two lower-case hex digits per byte (high nibble first, no
// separators) and "]" to out, which must hold 3 + 2 * count characters.
// Returns the position after the "]".
char *writeFrameHexText(char *out, const unsigned char *bytes, int count);

// Text form of a frame header, as writeFrameHexText writes it.
// Always 3 + 2 * bytes.size() long.
QByteArray frameHexText(const QByteArray &bytes);

} // namespace comm
