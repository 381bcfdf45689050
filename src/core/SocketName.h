#pragma once

#include <QHostAddress>
#include <QtGlobal>

namespace comm {

// The address and port a socket is bound to, as the system reports them.
// False when the descriptor is not a bound socket (the outputs are then left
// as they are).
bool socketName(qintptr descriptor, QHostAddress *address, quint16 *port);

} // namespace comm
