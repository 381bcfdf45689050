#include "GeneratedReplies.h"

namespace generatedreplies {

namespace {
void appendPair(QByteArray &text, quint8 value, Digits digits)
{
    static const char upper[] = "0123456789ABCDEF";
    static const char lower[] = "0123456789abcdef";
    const char *table = digits == Digits::Upper ? upper : lower;
    text += table[value >> 4];
    text += table[value & 0x0F];
}
} // namespace

QByteArray replyFrame(const std::array<quint8, 7> &bytes, Digits digits)
{
    QByteArray text("[R");
    quint8 check = 0;
    for (quint8 b : bytes) {
        appendPair(text, b, digits);
        check = quint8(check + b);
    }
    appendPair(text, check, digits);
    text += ']';
    return text;
}

QByteArray blockWithSum(const QByteArray &bytes)
{
    quint8 check = 0;
    for (char c : bytes)
        check = quint8(check + quint8(c));
    return bytes + char(check);
}

} // namespace generatedreplies
