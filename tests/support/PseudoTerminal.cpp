#include "PseudoTerminal.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QThread>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <pty.h>
#include <termios.h>
#include <unistd.h>

PseudoTerminal::PseudoTerminal()
{
    char name[256] = {};
    termios raw{};
    cfmakeraw(&raw);
    if (openpty(&m_master, &m_slave, name, &raw, nullptr) != 0) {
        m_error = QStringLiteral("openpty: ") + QString::fromLocal8Bit(std::strerror(errno));
        m_master = m_slave = -1;
        return;
    }
    m_slavePath = QString::fromLocal8Bit(name);
    const int flags = fcntl(m_master, F_GETFL);
    fcntl(m_master, F_SETFL, flags | O_NONBLOCK);
    // The test's own slave descriptor stays open, so that the pair lives on
    // while the transport closes and reopens its port.
}

PseudoTerminal::~PseudoTerminal()
{
    closeMaster();
    if (m_slave >= 0)
        ::close(m_slave);
}

bool PseudoTerminal::deviceSends(const QByteArray &bytes)
{
    if (m_master < 0)
        return false;
    int sent = 0;
    QElapsedTimer timer;
    timer.start();
    for (int attempt = 0; attempt < 10000 && sent < bytes.size() && timer.elapsed() < 5000; ++attempt) {
        const ssize_t n = ::write(m_master, bytes.constData() + sent, static_cast<size_t>(bytes.size() - sent));
        if (n > 0)
            sent += static_cast<int>(n);
        else if (n < 0 && errno != EAGAIN && errno != EINTR)
            return false;
        else
            QThread::msleep(1);
    }
    return sent == bytes.size();
}

QByteArray PseudoTerminal::deviceReceives(int count, int timeoutMs)
{
    QByteArray received;
    if (m_master < 0)
        return received;
    QElapsedTimer timer;
    timer.start();
    for (int round = 0; round < 100000 && received.size() < count && timer.elapsed() < timeoutMs; ++round) {
        QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
        char chunk[512];
        const ssize_t n = ::read(m_master, chunk, sizeof chunk);
        if (n > 0)
            received.append(chunk, static_cast<int>(n));
        else
            QThread::msleep(1);
    }
    return received;
}

void PseudoTerminal::closeMaster()
{
    if (m_master >= 0)
        ::close(m_master);
    m_master = -1;
}
