#include "ReplyFrames.h"

namespace replyframes {

QByteArray frame(const std::array<quint8, 7> &bytes, int check, Case digits)
{
    unsigned sum = 0;
    QByteArray text;
    for (quint8 b : bytes) {
        sum += b;
        text += QByteArray::number(b, 16).rightJustified(2, '0');
    }
    const quint8 checkByte = check < 0 ? quint8(sum) : quint8(check);
    text += QByteArray::number(checkByte, 16).rightJustified(2, '0');
    return "[R" + (digits == Case::Upper ? text.toUpper() : text.toLower()) + "]";
}

QByteArray blockWithCheckByte(const QByteArray &bytes)
{
    unsigned sum = 0;
    for (char c : bytes)
        sum += quint8(c);
    return bytes + char(quint8(sum));
}

} // namespace replyframes
