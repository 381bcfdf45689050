// Datagram sends on BSD sockets (Linux and other Unix systems).
#include "NativeDatagram.h"

#include <cerrno>
#include <cstring>

#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>

namespace comm {

namespace {
// A send interrupted by a signal is repeated, as Qt does; a few times at most.
constexpr int kInterruptedRetries = 16;
} // namespace

BoundSocket boundSocket(qintptr descriptor)
{
    sockaddr_storage local{};
    socklen_t localSize = sizeof(local);
    if (descriptor < 0
        || ::getsockname(static_cast<int>(descriptor), reinterpret_cast<sockaddr *>(&local), &localSize) != 0)
        return {};
    return {descriptor, local.ss_family};
}

qint64 sendDatagram(const BoundSocket &socket, const char *bytes, qint64 size, const QHostAddress &address,
                    quint16 port)
{
    const int fd = static_cast<int>(socket.descriptor);

    sockaddr_storage target{};
    socklen_t targetSize = 0;
    bool isIPv4 = false;
    const quint32 ipv4 = address.toIPv4Address(&isIPv4);
    if (socket.family == AF_INET) {
        if (!isIPv4)
            return -1;
        auto *in = reinterpret_cast<sockaddr_in *>(&target);
        in->sin_family = AF_INET;
        in->sin_port = htons(port);
        in->sin_addr.s_addr = htonl(ipv4);
        targetSize = sizeof(sockaddr_in);
    } else if (socket.family == AF_INET6) {
        auto *in6 = reinterpret_cast<sockaddr_in6 *>(&target);
        in6->sin6_family = AF_INET6;
        in6->sin6_port = htons(port);
        if (isIPv4) {
            in6->sin6_addr.s6_addr[10] = 0xff;
            in6->sin6_addr.s6_addr[11] = 0xff;
            const quint32 network = htonl(ipv4);
            std::memcpy(&in6->sin6_addr.s6_addr[12], &network, sizeof(network));
        } else {
            const Q_IPV6ADDR ipv6 = address.toIPv6Address();
            std::memcpy(in6->sin6_addr.s6_addr, ipv6.c, sizeof(ipv6.c));
            const QString scope = address.scopeId();
            if (!scope.isEmpty()) {
                bool numeric = false;
                const uint index = scope.toUInt(&numeric);
                in6->sin6_scope_id = numeric ? index : ::if_nametoindex(scope.toLatin1().constData());
            }
        }
        targetSize = sizeof(sockaddr_in6);
    } else {
        return -1;
    }

    for (int attempt = 0; attempt < kInterruptedRetries; ++attempt) {
        const ssize_t sent = ::sendto(fd, bytes, static_cast<size_t>(size), 0,
                                      reinterpret_cast<const sockaddr *>(&target), targetSize);
        if (sent >= 0)
            return static_cast<qint64>(sent);
        if (errno != EINTR)
            return -1;
    }
    return -1;
}

} // namespace comm
