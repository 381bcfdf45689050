#pragma once

#include "PortBase.h"

// The link a transport is created for.
enum ConnType : int {
    ConnUSB = 0,
    ConnSerial = 1,
    ConnUDP = 2, // and every other value: an unknown type gives a network transport
};

// The transport factory. It keeps the single current transport of the process.
// Use it from the application's main thread only.
class COMM_MODULE_EXPORT PortInterface
{
public:
    PortInterface();

    // Deletes the current transport (its destructor closes its link and stops
    // its workers), creates the one for type, makes it current and returns it.
    // Never returns null.
    static PortBase *creatCoreObj(ConnType type);

    // Creates a transport for type that the caller owns; the current transport
    // is neither read nor changed.
    static PortBase *creatCoreObjInstance(ConnType type);

    // The current transport, owned here; null until the first creatCoreObj.
    static PortBase *iCORE;
};
