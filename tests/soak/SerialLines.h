#pragma once

#include <QByteArray>
#include <QString>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "RunClock.h"
#include "SimProtocol.h"

namespace soak {

// Devices on pseudo-terminals, one a line, served by one thread: each answers
// every command frame with the reply that echoes it and, where the reply
// announces one, the block. The device keeps the terminal's slave side open
// itself, so a port closing at the other end is no hang-up for it.
//
// What a device writes goes out in whole units, a reply with its block or a
// burst of noise, in the order they were made.
class SerialLines
{
public:
    explicit SerialLines(int count);
    ~SerialLines();
    SerialLines(const SerialLines &) = delete;
    SerialLines &operator=(const SerialLines &) = delete;

    // Why the lines could not be made, or an empty text.
    QString error() const { return m_error; }
    QString path(int line) const;

    // Called on the device's thread with each command it answers, just before the reply goes out.
    using Answered = std::function<void(const sim::HeaderBytes &)>;
    void start(const RunClock &clock, Answered answered);
    void stop();

    // The device hangs up: both sides of the terminal are closed (the port
    // open on it sees its device vanish) and a fresh pair is made, whose path
    // is returned (empty when none could be made).
    QString hangUp(int line);
    // Queues bytes of noise on the line: never "[R", few "[" (each costs the
    // library a turn), and no "R" at all, so that it forms no reply start with
    // what comes before or after it.
    void flood(int line, int bytes, quint64 seed);

    quint64 commandsAnswered() const { return m_answered; }

private:
    struct Line;
    bool openPair(Line &line);
    static void closePair(Line &line);
    void serve(const RunClock &clock);
    // With the line's lock held: reads what the port wrote and answers it,
    // then writes what is pending. False when the line had nothing to do.
    bool service(Line &line, short events);

    std::vector<std::unique_ptr<Line>> m_lines;
    QString m_error;
    Answered m_answeredHook;
    std::thread m_thread;
    std::atomic<bool> m_stop{false};
    std::atomic<quint64> m_answered{0};
};

} // namespace soak
