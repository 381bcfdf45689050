#pragma once

#include <QHostAddress>
#include <QList>
#include <QString>

namespace comm {

// The network transport's local address: the text of the first IPv4 entry of
// addresses that is not "127.0.0.1", or "127.0.0.1" when there is none (a
// machine with only loopback or only IPv6 addresses).
QString localIPv4Address(const QList<QHostAddress> &addresses);

} // namespace comm
