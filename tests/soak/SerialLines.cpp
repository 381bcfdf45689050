#include "SerialLines.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <random>
#include <termios.h>
#include <unistd.h>

namespace soak {

namespace {
// Bytes read from, and written to, one terminal in one turn at most.
constexpr int kChunk = 16384;
} // namespace

struct SerialLines::Line
{
    mutable std::mutex lock;
    int master = -1;
    int slave = -1;
    QString path;
    // Bumped on every hang-up: a poll made before it says nothing of the new pair.
    quint64 generation = 0;
    sim::CommandStream commands;
    QByteArray pending;
};

SerialLines::SerialLines(int count)
{
    for (int i = 0; i < count; ++i) {
        m_lines.push_back(std::make_unique<Line>());
        if (!openPair(*m_lines.back()) && m_error.isEmpty())
            m_error = QStringLiteral("cannot make a pseudo-terminal: %1").arg(QString::fromLocal8Bit(std::strerror(errno)));
    }
}

SerialLines::~SerialLines()
{
    stop();
    for (auto &line : m_lines)
        closePair(*line);
}

bool SerialLines::openPair(Line &line)
{
    char name[256] = {};
    if (::openpty(&line.master, &line.slave, name, nullptr, nullptr) != 0) {
        line.master = line.slave = -1;
        return false;
    }
    termios settings{};
    ::tcgetattr(line.master, &settings);
    ::cfmakeraw(&settings);
    ::tcsetattr(line.master, TCSANOW, &settings);
    ::fcntl(line.master, F_SETFL, ::fcntl(line.master, F_GETFL) | O_NONBLOCK);
    ::fcntl(line.master, F_SETFD, FD_CLOEXEC);
    ::fcntl(line.slave, F_SETFD, FD_CLOEXEC);
    line.path = QString::fromLocal8Bit(name);
    return true;
}

void SerialLines::closePair(Line &line)
{
    if (line.master >= 0)
        ::close(line.master);
    if (line.slave >= 0)
        ::close(line.slave);
    line.master = line.slave = -1;
}

QString SerialLines::path(int line) const
{
    std::lock_guard<std::mutex> guard(m_lines[size_t(line)]->lock);
    return m_lines[size_t(line)]->path;
}

void SerialLines::start(const RunClock &clock, Answered answered)
{
    m_answeredHook = std::move(answered);
    m_thread = std::thread([this, &clock] { serve(clock); });
}

void SerialLines::stop()
{
    m_stop = true;
    if (m_thread.joinable())
        m_thread.join();
}

QString SerialLines::hangUp(int index)
{
    Line &line = *m_lines[size_t(index)];
    std::lock_guard<std::mutex> guard(line.lock);
    closePair(line);
    ++line.generation;
    line.commands = sim::CommandStream();
    line.pending.clear();
    line.path.clear();
    openPair(line);
    return line.path;
}

void SerialLines::flood(int index, int bytes, quint64 seed)
{
    std::mt19937_64 rng(seed);
    QByteArray noise(bytes, '\0');
    for (char &c : noise) {
        quint8 byte = quint8(rng());
        // One "[" in about two thousand bytes; never an "R".
        if (byte == '[' && rng() % 2048 != 0)
            byte = '(';
        if (byte == 'R')
            byte = 'r';
        c = char(byte);
    }
    Line &line = *m_lines[size_t(index)];
    std::lock_guard<std::mutex> guard(line.lock);
    line.pending.append(noise);
}

bool SerialLines::service(Line &line, short events)
{
    bool busy = false;
    if (events & POLLIN) {
        char buffer[kChunk];
        const ssize_t n = ::read(line.master, buffer, sizeof buffer);
        if (n > 0) {
            busy = true;
            line.commands.append(QByteArray(buffer, int(n)));
            sim::HeaderBytes command;
            for (int i = 0; i < 4096 && line.commands.next(&command); ++i) {
                if (m_answeredHook)
                    m_answeredHook(command);
                line.pending.append(sim::replyFrame(command));
                line.pending.append(sim::blockData(sim::Link::Serial, command));
                ++m_answered;
            }
        }
    }
    if (!line.pending.isEmpty() && (events & POLLOUT)) {
        const ssize_t n = ::write(line.master, line.pending.constData(), size_t(qMin(line.pending.size(), kChunk)));
        if (n > 0) {
            busy = true;
            line.pending.remove(0, int(n));
        }
    }
    return busy;
}

void SerialLines::serve(const RunClock &clock)
{
    const size_t count = m_lines.size();
    std::vector<pollfd> polls(count);
    std::vector<quint64> generations(count);
    for (long long turn = 0; turn < clock.maxTurns() && !m_stop && !clock.pastHardLimit(); ++turn) {
        for (size_t i = 0; i < count; ++i) {
            Line &line = *m_lines[i];
            std::lock_guard<std::mutex> guard(line.lock);
            polls[i] = {line.master, short(POLLIN | (line.pending.isEmpty() ? 0 : POLLOUT)), 0};
            generations[i] = line.generation;
        }
        if (::poll(polls.data(), nfds_t(count), 5) <= 0)
            continue;
        bool busy = false;
        for (size_t i = 0; i < count; ++i) {
            if (polls[i].revents == 0)
                continue;
            Line &line = *m_lines[i];
            std::lock_guard<std::mutex> guard(line.lock);
            // A pair hung up meanwhile has other descriptors now.
            if (line.generation != generations[i] || line.master < 0)
                continue;
            busy = service(line, polls[i].revents) || busy;
        }
        // Readable or writable only as a hang-up would be: nothing to do but wait.
        if (!busy)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

} // namespace soak
