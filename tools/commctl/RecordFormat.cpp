#include "RecordFormat.h"

#include <QStringList>

namespace {
QString jsonString(const QString &text)
{
    QString out(QLatin1Char('"'));
    for (QChar c : text) {
        switch (c.unicode()) {
        case '"':
            out += QLatin1String("\\\"");
            break;
        case '\\':
            out += QLatin1String("\\\\");
            break;
        case '\n':
            out += QLatin1String("\\n");
            break;
        case '\r':
            out += QLatin1String("\\r");
            break;
        case '\t':
            out += QLatin1String("\\t");
            break;
        default:
            if (c.unicode() < 0x20)
                out += QStringLiteral("\\u%1").arg(c.unicode(), 4, 16, QLatin1Char('0'));
            else
                out += c;
        }
    }
    out += QLatin1Char('"');
    return out;
}

QString linkName(quint8 link)
{
    switch (link) {
    case 0:
        return QStringLiteral("udp");
    case 1:
        return QStringLiteral("serial");
    case 2:
        return QStringLiteral("usb");
    default:
        return QString::number(link);
    }
}

QString hexByte(quint8 value)
{
    return QStringLiteral("%1").arg(value, 2, 16, QLatin1Char('0'));
}
} // namespace

QString recordJson(const ProtocolData &record)
{
    QStringList params;
    for (quint8 p : record.paramBytes)
        params << QString::number(p);
    return QStringLiteral("{\"link\":%1,\"host\":%2,\"source\":%3,\"cmd\":%4,\"params\":[%5],\"checksum\":%6,"
                          "\"payload\":\"%7\",\"deviceType\":%8}")
        .arg(record.linkByte)
        .arg(jsonString(record.hostText), jsonString(record.sourceText))
        .arg(record.commandByte)
        .arg(params.join(QLatin1Char(',')))
        .arg(record.checksumByte)
        .arg(QString::fromLatin1(record.payload.toHex()))
        .arg(int(record.deviceType));
}

QString recordText(const ProtocolData &record)
{
    QStringList params;
    for (quint8 p : record.paramBytes)
        params << hexByte(p);
    QString text = QStringLiteral("reply via %1 from %2: cmd 0x%3 params %4 checksum 0x%5, payload %6 bytes")
                       .arg(linkName(record.linkByte),
                            record.sourceText.isEmpty() ? QStringLiteral("(unknown)") : record.sourceText,
                            hexByte(record.commandByte), params.join(QLatin1Char(' ')), hexByte(record.checksumByte))
                       .arg(record.payload.size());
    if (!record.payload.isEmpty()) {
        const QByteArray shown = record.payload.left(16).toHex(' ');
        text += QStringLiteral(" [%1%2]").arg(QString::fromLatin1(shown),
                                              record.payload.size() > 16 ? QStringLiteral(" ...") : QString());
    }
    text += QStringLiteral(", device type %1").arg(int(record.deviceType));
    return text;
}

QString usbEventJson(bool present)
{
    return QStringLiteral("{\"event\":\"usb\",\"present\":%1}")
        .arg(present ? QStringLiteral("true") : QStringLiteral("false"));
}

QString usbEventText(bool present)
{
    return present ? QStringLiteral("usb device plugged in") : QStringLiteral("usb device removed");
}
