#pragma once

#include <shared_mutex>

#include <QByteArray>

#include "PortSerial_p.h"
#include "PortUSB_p.h"
#include "core_udp_p.h"

// What tests look at inside a transport, through its private side: whether a
// device is open, the workers running and the receive buffer.

inline bool isOpen(const PortUSB &port)
{
    return PortUSBPrivate::get(&port)->isOpen();
}

inline int runningWorkers(const PortUSB &port)
{
    return PortUSBPrivate::get(&port)->runningWorkers();
}

inline int runningWorkers(const PortSerial &port)
{
    return PortSerialPrivate::get(&port)->runningWorkers();
}

inline QByteArray buffData(const PortUSB &port)
{
    return PortUSBPrivate::get(&port)->buffData();
}

inline QByteArray buffData(const PortSerial &port)
{
    return PortSerialPrivate::get(&port)->buffData();
}

// Stops the hot-plug watcher's reports to port, as its destructor does first:
// for a derived transport whose closeUSB() override must not run once its
// own members are gone.
inline void stopHotPlugReports(PortUSB &port)
{
    PortUSBPrivate::get(&port)->stopHotPlugReports();
}

// The network transport's socket guard: held shared, the socket stays in place.
inline std::shared_mutex &socketGuard(const PortUDP &port)
{
    return PortUDPPrivate::get(&port)->socketGuard;
}
