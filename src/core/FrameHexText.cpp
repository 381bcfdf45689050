#include "FrameHexText.h"

namespace comm {

namespace {
const char kHexDigits[16] = {'0', '1', '2', '3', '4', '5', '6', '7', '8', '9', 'a', 'b', 'c', 'd', 'e', 'f'};
}

char *writeFrameHexText(char *out, const unsigned char *bytes, int count)
{
    *out++ = '[';
    *out++ = 'A';
    for (int i = 0; i < count; ++i) {
        *out++ = kHexDigits[bytes[i] >> 4];
        *out++ = kHexDigits[bytes[i] & 0x0F];
    }
    *out++ = ']';
    return out;
}

QByteArray frameHexText(const QByteArray &bytes)
{
    QByteArray text(3 + 2 * bytes.size(), Qt::Uninitialized);
    writeFrameHexText(text.data(), reinterpret_cast<const unsigned char *>(bytes.constData()), bytes.size());
    return text;
}

} // namespace comm
