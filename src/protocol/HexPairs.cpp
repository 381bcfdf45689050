#include "HexPairs.h"

#include <QString>

#include "CommandFrame.h"

namespace comm {

namespace {
int hexDigitValue(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

// Exact reading for text that is not plain 16 ASCII characters: a zero byte
// shortens the text, and non-ASCII bytes may decode to fewer characters.
void readHexPairsAsText(const char *digits, int values[kReplyPairs])
{
    int length = 0;
    while (length < 2 * kReplyPairs && digits[length] != '\0')
        ++length;
    const QString text = QString::fromLocal8Bit(digits, length);
    for (int i = 0; i < kReplyPairs; ++i)
        values[i] = text.mid(2 * i, 2).toInt(nullptr, 16);
}
} // namespace

void readHexPairs(const char *digits, int values[kReplyPairs])
{
    for (int i = 0; i < 2 * kReplyPairs; ++i) {
        const auto c = static_cast<unsigned char>(digits[i]);
        if (c == 0 || c >= 0x80) {
            readHexPairsAsText(digits, values);
            return;
        }
    }
    // Plain ASCII: each pair is exactly two characters of the text.
    for (int i = 0; i < kReplyPairs; ++i) {
        const int high = hexDigitValue(digits[2 * i]);
        const int low = hexDigitValue(digits[2 * i + 1]);
        if (high >= 0 && low >= 0)
            values[i] = high * 16 + low;
        else // signs, blanks, prefixes: whatever the conversion makes of them
            values[i] = QString::fromLatin1(digits + 2 * i, 2).toInt(nullptr, 16);
    }
}

int decodeReplyDigits(const char *digits, ProtocolData &record)
{
    int values[kReplyPairs];
    readHexPairs(digits, values);
    record.commandByte = static_cast<quint8>(values[0]);
    for (int i = 0; i < 6; ++i)
        record.paramBytes[i] = static_cast<quint8>(values[1 + i]);
    record.checksumByte = commandChecksum(record);
    return values[kReplyPairs - 1];
}

} // namespace comm
