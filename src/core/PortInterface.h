#pragma once

#include "PortBase.h"

/// \file
/// The transport factory, PortInterface, and the connection types it makes transports for.

/// The link a transport is created for.
enum ConnType : int {
    ConnUSB = 0,    ///< USB HID: a PortUSB.
    ConnSerial = 1, ///< Serial line: a PortSerial.
    ConnUDP = 2,    ///< Network: a PortUDP; so does every other value, an unknown type gives a network transport.
};

/// The transport factory. It keeps the single current transport of the process, iCORE.
///
/// Use it from one thread at a time; that may be any thread. No thread may
/// hold on to the current transport across a switch of links.
class COMM_MODULE_EXPORT PortInterface
{
public:
    /// Makes a factory object; it holds nothing, as everything here is static.
    ///
    /// \threads
    /// Any thread.
    /// \logs
    /// Logs nothing.
    PortInterface();

    /// Switches links: deletes the current transport, makes the one for type
    /// and makes it current.
    ///
    /// The old transport's destructor closes its link and stops its workers
    /// before the new one is made; records already on the receive queue stay.
    /// \param type The link; a value that is no ConnType gives a network transport.
    /// \threads
    /// Any thread, by one thread at a time. The delete returns once every
    /// thread the old transport started has ended; the new transport starts
    /// its own I/O thread (network, serial) or joins the hot-plug watcher (USB).
    /// \logs
    /// Logs nothing.
    /// \return The new current transport, owned here (iCORE); never null.
    static PortBase *creatCoreObj(ConnType type);

    /// Makes a transport for type that the caller owns; the current transport
    /// is neither read nor changed.
    ///
    /// \param type The link; a value that is no ConnType gives a network transport.
    /// \threads
    /// Any thread. The transport may be used and deleted from any thread.
    /// \logs
    /// Logs nothing.
    /// \return The new transport, which the caller deletes; never null.
    static PortBase *creatCoreObjInstance(ConnType type);

    /// The current transport, owned here; null until the first creatCoreObj().
    static PortBase *iCORE;
};
