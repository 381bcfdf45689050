#include "PortInterface.h"

#include "PortSerial.h"
#include "PortUDP.h"
#include "PortUSB.h"

PortBase *PortInterface::iCORE = nullptr;

PortInterface::PortInterface() = default;

PortBase *PortInterface::creatCoreObj(ConnType type)
{
    if (iCORE != nullptr) {
        delete iCORE;
        // Should the new transport fail to construct, no dangling pointer is
        // left behind for a later call to delete again.
        iCORE = nullptr;
    }
    iCORE = creatCoreObjInstance(type);
    return iCORE;
}

PortBase *PortInterface::creatCoreObjInstance(ConnType type)
{
    switch (type) {
    case ConnUSB:
        return new PortUSB();
    case ConnSerial:
        return new PortSerial();
    default:
        return new PortUDP();
    }
}
