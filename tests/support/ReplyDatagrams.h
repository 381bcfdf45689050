#pragma once

#include <QByteArray>
#include <QtGlobal>

// Reply datagrams as a device writes them: "[" "R", the command byte, the six
// parameter bytes and the check byte as two hex digits each, and one more byte.
namespace replies {

struct Fields
{
    quint8 command = 0;
    quint8 params[6] = {};
};

inline quint8 checksumOf(const Fields &fields)
{
    unsigned sum = fields.command;
    for (quint8 param : fields.params)
        sum += param;
    return static_cast<quint8>(sum);
}

// The reply datagram for fields, with the given check byte and closing byte.
inline QByteArray datagramWithCheck(const Fields &fields, quint8 check, char closing = ']')
{
    QByteArray bytes;
    bytes.append(static_cast<char>(fields.command));
    for (quint8 param : fields.params)
        bytes.append(static_cast<char>(param));
    bytes.append(static_cast<char>(check));
    return "[R" + bytes.toHex() + QByteArray(1, closing);
}

// A valid reply datagram: its check byte is the sum of the others.
inline QByteArray datagram(const Fields &fields, char closing = ']')
{
    return datagramWithCheck(fields, checksumOf(fields), closing);
}

// A valid reply with command byte command and parameter bytes P1..P6.
inline QByteArray reply(quint8 command, quint8 p1, quint8 p2, quint8 p3, quint8 p4, quint8 p5, quint8 p6)
{
    Fields fields;
    fields.command = command;
    const quint8 params[6] = {p1, p2, p3, p4, p5, p6};
    for (int i = 0; i < 6; ++i)
        fields.params[i] = params[i];
    return datagram(fields);
}

// count bytes of block data, none of them zero, starting from first.
inline QByteArray blockBytes(int count, int first = 0)
{
    QByteArray bytes(count, Qt::Uninitialized);
    for (int i = 0; i < count; ++i)
        bytes[i] = static_cast<char>('a' + (first + i) % 26);
    return bytes;
}

} // namespace replies
