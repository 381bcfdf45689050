#pragma once

#include <QHash>
#include <QHostAddress>
#include <QString>

#include <functional>
#include <mutex>

#include "Options.h"
#include "PcapWriter.h"
#include "PortWireObserver.h"

// commctl's --capture: while started, every byte the library's link writes
// and reads goes into a pcap file, a packet at a time. The network link gives
// IP packets with the real addresses and ports, serial and USB the libcomm
// stream header and the bytes (see PcapWriter.h). It sees the bytes as any
// application can, through the library's wire observer.
class WireCapture : public PortWireObserver
{
public:
    WireCapture() = default;
    // Stops: the library's hook is removed before the file is closed.
    ~WireCapture() override;

    bool start(const QString &path, LinkOptions::Kind link, QString *error);
    void stop();

private:
    void observe(const PortWirePacket &packet) override;
    // The address a socket bound to the wildcard address sends from to remote.
    QHostAddress sourceFor(const QHostAddress &local, const QHostAddress &remote);

    PcapWriter m_writer;
    bool m_started = false;
    std::mutex m_routeLock;
    QHash<QString, QHostAddress> m_routes;
};

// Runs run() (a send or a listen) with a capture to options.capturePath when
// one is asked for: exit status 1 when the file cannot be written. An
// interruption (SIGINT, SIGTERM) ends the run, the capture is completed, and
// the process then ends by that signal.
int runWithCapture(const Options &options, const std::function<int()> &run);
