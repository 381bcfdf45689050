// A send made from a thread other than the one that created the transport,
// against the same send made on that thread, in one run: the cost of calling
// in from any thread. Network sends on a bound socket are written on the
// calling thread either way; serial writes are carried to the transport's
// I/O thread either way.
#include <algorithm>
#include <chrono>
#include <atomic>
#include <thread>
#include <vector>

#include "LoopbackUdpSocket.h"
#include "PortSerial.h"
#include "PortUDP.h"
#include "PseudoTerminal.h"
#include "Sections.h"
#include "SerialLink.h"

namespace e2e {

namespace {

// Reads and drops what the device side of a pseudo-terminal receives, so that
// the port's output never backs up.
class SerialSink
{
public:
    explicit SerialSink(PseudoTerminal &pty)
        : m_reader([this, &pty] {
            // Stopped by the section when it is done, and by a deadline far
            // beyond any section's length.
            const Clock::time_point deadline = Clock::now() + std::chrono::minutes(10);
            while (!m_stop && Clock::now() < deadline)
                pty.deviceReceives(4096, 20);
        })
    {
    }
    ~SerialSink()
    {
        m_stop = true;
        m_reader.join();
    }

private:
    std::atomic<bool> m_stop{false};
    std::thread m_reader;
};

// Nanoseconds per send for count sends made on the calling thread.
double nsPerSend(PortBase &port, int count)
{
    ProtocolData record;
    record.commandByte = 0x5A;
    const Clock::time_point start = Clock::now();
    for (int i = 0; i < count; ++i) {
        record.paramBytes[0] = quint8(i);
        port.sendDatatoDevice(&record);
    }
    return 1000.0 * microsecondsBetween(start, Clock::now()) / count;
}

// Medians of rounds in turn: sends on this thread, then from another one.
void compare(PortBase &port, const QString &link, const Options &options, Figures &figures)
{
    const int rounds = options.count(7, 2);
    const int count = options.count(5000, 50);
    nsPerSend(port, count / 10 + 1); // warm up
    std::vector<double> own;
    std::vector<double> other;
    for (int round = 0; round < rounds; ++round) {
        own.push_back(nsPerSend(port, count));
        double measured = 0;
        std::thread caller([&] { measured = nsPerSend(port, count); });
        caller.join();
        other.push_back(measured);
    }
    const double ownMedian = median(own);
    const double otherMedian = median(other);
    figures.add({QStringLiteral("send from another thread, %1").arg(link),
                 number(otherMedian / 1000.0, 2) + QStringLiteral(" us per send"),
                 number(ownMedian / 1000.0, 2) + QStringLiteral(" us per send (on the creating thread)"),
                 ownMedian > 0 ? std::optional<double>(otherMedian / ownMedian) : std::nullopt,
                 QStringLiteral("report"), std::nullopt});
}

} // namespace

void sendThreads(const Options &options, Figures &figures)
{
    {
        // Takes datagrams and never reads them: once its buffer is full the
        // kernel drops what comes, at no cost to the sender.
        LoopbackUdpSocket sink;
        if (sink.port() == 0)
            throw SectionError("no UDP socket on 127.0.0.1");
        PortUDP port;
        port.setDeviceIP(QStringLiteral("127.0.0.1"));
        port.setPort(sink.port());
        compare(port, QStringLiteral("network (bound socket, 19-byte frames)"), options, figures);
    }
    {
        PseudoTerminal pty;
        if (!pty.isValid())
            throw SectionError("no pseudo-terminal: " + pty.error().toStdString());
        PortSerial port;
        if (!openOn(port, pty))
            throw SectionError("the serial transport did not open its pseudo-terminal");
        SerialSink sink(pty);
        compare(port, QStringLiteral("serial (19-byte frames)"), options, figures);
    }
}

} // namespace e2e
