#include "FactorySwitch.h"

#include "PortBase.h"
#include "Rig.h"
#include "Traffic.h"

namespace soak {

namespace {
constexpr int kSwitchedWindow = 16;
constexpr size_t kMostMade = 3;

const char *typeName(ConnType type)
{
    return type == ConnUSB ? "usb" : type == ConnSerial ? "serial" : "network";
}
} // namespace

FactorySwitch::FactorySwitch(Rig &rig)
    : m_rig(rig)
{
}

void FactorySwitch::start()
{
    m_threads.emplace_back([this] { switcher(); });
    m_threads.emplace_back([this] { sender(); });
    m_threads.emplace_back([this] { maker(); });
    m_threads.emplace_back([this] { deleter(); });
}

void FactorySwitch::join()
{
    for (std::thread &thread : m_threads)
        thread.join();
    m_threads.clear();
}

bool FactorySwitch::setUp(PortBase *port, ConnType type, int serialLine, ReplyShape *shape)
{
    if (type == ConnUDP) {
        port->setDeviceIP(QStringLiteral("127.0.0.1"));
        port->setPort(m_rig.udpDevicePort);
        shape->sourceText = QStringLiteral("127.0.0.1");
        return true;
    }
    if (type == ConnSerial) {
        const QString path = m_rig.serialLines.path(serialLine);
        shape->sourceText = portNameOf(path);
        return openSerial(port, path);
    }
    return false;
}

void FactorySwitch::sendOne(PortBase *port, ConnType type, int channel, const ReplyShape &shape, Rng &rng)
{
    if (type == ConnUSB) {
        // Nothing is written while no device is open; the send only logs.
        Command command = makeCommand(Kind::UsbPlain, 0, rng);
        ProtocolData record = commandRecord(command);
        port->sendDatatoDevice(&record);
        return;
    }
    // Never a held network command here: its block data could reach a later
    // transport that is given the same local port.
    const Kind kind = type == ConnUDP ? (rng() % 4 == 0 ? Kind::NetworkAtOnce : Kind::NetworkQueued)
                                      : (rng() % 4 == 0 ? Kind::SerialBlock : Kind::SerialPlain);
    sendNoted(m_rig, port, channel, kind, shape, rng);
}

void FactorySwitch::switcher()
{
    Rng rng(m_rig.seedFor(10));
    for (long long turn = 0; turn < m_rig.clock.maxTurns() && m_rig.clock.going(); ++turn) {
        m_rig.clock.pause(int(5 + rng() % 55));
        if (!m_rig.clock.going())
            break;
        std::lock_guard<std::mutex> guard(m_rig.appLock);
        if (m_channel >= 0)
            m_rig.ledger.closeChannel(m_channel);
        const ConnType type = ConnType(rng() % 3);
        PortBase *port = PortInterface::creatCoreObj(type);
        m_type = type;
        m_shape = ReplyShape();
        m_channel = m_rig.ledger.openChannel(QStringLiteral("switched %1 transport").arg(QLatin1String(typeName(type))));
        if (setUp(port, type, kSwitchLine, &m_shape))
            m_rig.ledger.markUp(m_channel, 0);
        ++m_rig.switches;
    }
}

void FactorySwitch::sender()
{
    Rng rng(m_rig.seedFor(11));
    for (long long turn = 0; turn < m_rig.clock.maxTurns() && m_rig.clock.going(); ++turn) {
        {
            std::lock_guard<std::mutex> guard(m_rig.appLock);
            PortBase *port = PortInterface::iCORE;
            if (port && m_channel >= 0 && (m_type == ConnUSB || m_rig.ledger.awaited(m_channel) < kSwitchedWindow))
                sendOne(port, m_type, m_channel, m_shape, rng);
        }
        std::this_thread::sleep_for(std::chrono::microseconds(200 + rng() % 1500));
    }
}

void FactorySwitch::maker()
{
    Rng rng(m_rig.seedFor(12));
    for (long long turn = 0; turn < m_rig.clock.maxTurns() && m_rig.clock.going(); ++turn) {
        Made made;
        {
            std::unique_lock<std::mutex> guard(m_handLock);
            if (!m_handed.wait_for(guard, std::chrono::milliseconds(50), [this] { return m_made.size() < kMostMade; }))
                continue;
            const int draw = int(rng() % 10);
            made.type = draw < 2 ? ConnUSB : (draw < 5 && !m_spareLineBusy) ? ConnSerial : ConnUDP;
            if (made.type == ConnSerial)
                m_spareLineBusy = true;
        }
        made.port = PortInterface::creatCoreObjInstance(made.type);
        made.channel = m_rig.ledger.openChannel(
            QStringLiteral("made-and-deleted %1 transport").arg(QLatin1String(typeName(made.type))));
        if (setUp(made.port, made.type, kSpareLine, &made.shape))
            m_rig.ledger.markUp(made.channel, 0);
        const int commands = int(1 + rng() % 8);
        for (int i = 0; i < commands; ++i)
            sendOne(made.port, made.type, made.channel, made.shape, rng);
        m_rig.clock.pause(int(rng() % 30));
        {
            std::lock_guard<std::mutex> guard(m_handLock);
            m_made.push_back(made);
        }
        m_handed.notify_all();
    }
    {
        std::lock_guard<std::mutex> guard(m_handLock);
        m_makerDone = true;
    }
    m_handed.notify_all();
}

void FactorySwitch::deleter()
{
    Rng rng(m_rig.seedFor(13));
    // Runs until the maker is done and everything it made is deleted; bounded
    // by the hard limit all the same.
    for (long long turn = 0; turn < m_rig.clock.maxTurns() && !m_rig.clock.pastHardLimit(); ++turn) {
        Made made;
        {
            std::unique_lock<std::mutex> guard(m_handLock);
            m_handed.wait_for(guard, std::chrono::milliseconds(50), [this] { return !m_made.empty() || m_makerDone; });
            if (m_made.empty()) {
                if (m_makerDone)
                    break;
                continue;
            }
            made = m_made.front();
            m_made.pop_front();
        }
        m_handed.notify_all();
        std::this_thread::sleep_for(std::chrono::milliseconds(rng() % 15));
        // Used here too before it goes.
        if (rng() % 2 == 0)
            sendOne(made.port, made.type, made.channel, made.shape, rng);
        m_rig.ledger.closeChannel(made.channel);
        delete made.port;
        ++m_rig.deletes;
        if (made.type == ConnSerial) {
            std::lock_guard<std::mutex> guard(m_handLock);
            m_spareLineBusy = false;
        }
    }
}

void FactorySwitch::finish()
{
    std::lock_guard<std::mutex> guard(m_rig.appLock);
    if (m_channel >= 0)
        m_rig.ledger.closeChannel(m_channel);
    m_channel = -1;
    delete PortInterface::iCORE;
    PortInterface::iCORE = nullptr;
}

bool FactorySwitch::clearThroughCurrent()
{
    std::lock_guard<std::mutex> guard(m_rig.appLock);
    if (!PortInterface::iCORE)
        return false;
    m_rig.drain.clearThrough(PortInterface::iCORE);
    return true;
}

} // namespace soak
