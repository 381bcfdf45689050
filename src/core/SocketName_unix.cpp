#include "SocketName.h"

#include <netinet/in.h>
#include <sys/socket.h>

namespace comm {

bool socketName(qintptr descriptor, QHostAddress *address, quint16 *port)
{
    sockaddr_storage local{};
    socklen_t localSize = sizeof(local);
    if (descriptor < 0
        || ::getsockname(static_cast<int>(descriptor), reinterpret_cast<sockaddr *>(&local), &localSize) != 0)
        return false;
    int number = 0;
    if (local.ss_family == AF_INET)
        number = ntohs(reinterpret_cast<const sockaddr_in *>(&local)->sin_port);
    else if (local.ss_family == AF_INET6)
        number = ntohs(reinterpret_cast<const sockaddr_in6 *>(&local)->sin6_port);
    address->setAddress(reinterpret_cast<const sockaddr *>(&local));
    *port = static_cast<quint16>(number);
    return true;
}

} // namespace comm
