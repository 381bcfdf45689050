#pragma once

#include <QtGlobal>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

// A plain UDP socket bound to 127.0.0.1 on an ephemeral port, for devices that
// need no Qt event loop; closed with the object. receiveBuffer, when given,
// asks for that much room for waiting datagrams (beyond the system's limit
// where the process may: loopback drops what does not fit).
class LoopbackUdpSocket
{
public:
    explicit LoopbackUdpSocket(int receiveBuffer = 0)
    {
        m_fd = ::socket(AF_INET, SOCK_DGRAM, 0);
        if (m_fd < 0)
            return;
        if (receiveBuffer > 0
            && ::setsockopt(m_fd, SOL_SOCKET, SO_RCVBUFFORCE, &receiveBuffer, sizeof(receiveBuffer)) != 0)
            ::setsockopt(m_fd, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof(receiveBuffer));
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof(address);
        if (::bind(m_fd, reinterpret_cast<sockaddr *>(&address), size) != 0
            || ::getsockname(m_fd, reinterpret_cast<sockaddr *>(&address), &size) != 0)
            return;
        m_port = ntohs(address.sin_port);
    }
    ~LoopbackUdpSocket()
    {
        if (m_fd >= 0)
            ::close(m_fd);
    }
    LoopbackUdpSocket(const LoopbackUdpSocket &) = delete;
    LoopbackUdpSocket &operator=(const LoopbackUdpSocket &) = delete;

    int fd() const { return m_fd; }
    // 0 when the socket could not be made or bound.
    quint16 port() const { return m_port; }

private:
    int m_fd = -1;
    quint16 m_port = 0;
};
