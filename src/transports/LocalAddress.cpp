#include "LocalAddress.h"

#include <QAbstractSocket>

namespace comm {

QString localIPv4Address(const QList<QHostAddress> &addresses)
{
    const QString loopback = QStringLiteral("127.0.0.1");
    for (const QHostAddress &address : addresses) {
        if (address.protocol() != QAbstractSocket::IPv4Protocol)
            continue;
        const QString text = address.toString();
        if (text != loopback)
            return text;
    }
    return loopback;
}

} // namespace comm
