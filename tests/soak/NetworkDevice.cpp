#include "NetworkDevice.h"

#include <QEventLoop>
#include <QHostAddress>
#include <QTimer>

#include <algorithm>

#include "Ledger.h"
#include "SimulatedDevice.h"

namespace soak {

namespace {
// How long the device may take to start listening, and how often its loop
// looks whether it is to stop.
constexpr int kStartWaitMs = 10000;
constexpr int kStopPollMs = 20;
} // namespace

NetworkDevice::NetworkDevice(Ledger &ledger, const RunClock &clock)
    : m_ledger(ledger)
    , m_clock(clock)
{
}

NetworkDevice::~NetworkDevice()
{
    stop();
}

bool NetworkDevice::start(QString *error)
{
    m_thread = std::thread([this] { serve(); });
    std::unique_lock<std::mutex> guard(m_lock);
    const bool settled = m_changed.wait_for(guard, std::chrono::milliseconds(kStartWaitMs),
                                            [this] { return m_state != State::Starting; });
    if (!settled)
        *error = QStringLiteral("the network device did not start listening within %1 ms").arg(kStartWaitMs);
    else if (m_state == State::Failed)
        *error = m_error;
    return settled && m_state == State::Listening;
}

void NetworkDevice::stop()
{
    m_stop = true;
    if (m_thread.joinable())
        m_thread.join();
}

void NetworkDevice::serve()
{
    QEventLoop loop;
    SimulatedDevice device([this](const QString &line) {
        static const QString sent = QStringLiteral("sim: sent reply [R");
        if (!line.startsWith(sent))
            return;
        const QByteArray bytes = QByteArray::fromHex(line.mid(sent.size(), 16).toLatin1());
        if (bytes.size() != 8)
            return;
        sim::HeaderBytes header;
        std::copy(bytes.begin(), bytes.end(), header.begin());
        m_ledger.deviceAnswered(header);
    });
    QString error;
    const bool listening = device.startUdp(QHostAddress(QHostAddress::LocalHost), 0, &error);
    {
        std::lock_guard<std::mutex> guard(m_lock);
        m_port = device.udpPort();
        m_error = error;
        m_state = listening ? State::Listening : State::Failed;
    }
    m_changed.notify_all();
    if (!listening)
        return;
    // Runs until stop(), and never past the run's hard limit.
    QTimer poll;
    QObject::connect(&poll, &QTimer::timeout, &loop, [this, &loop] {
        if (m_stop || m_clock.pastHardLimit())
            loop.quit();
    });
    poll.start(kStopPollMs);
    loop.exec();
}

} // namespace soak
