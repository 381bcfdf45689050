#pragma once

#include <deque>
#include <mutex>

#include "ProtocolData.h"

/// The command module's side of the reply hand-off.
///
/// Its static queue, locks and flag are shared by every transport in the
/// process: the transports append reply records to receivequeueHexCmd from
/// their own threads and raise bRetFlag, and the application takes them off.
/// Whoever takes both locks takes receiveHexCmdlock first, then HexCmdlock.
class CmdDealModule
{
public:
    /// Makes a module object; it holds nothing, as the shared state is static.
    ///
    /// \threads
    /// Any thread; each transport makes one as part of its own construction.
    /// \logs
    /// Logs nothing.
    CmdDealModule();
    /// Destroys the object; the shared queue, locks and flag stay.
    ///
    /// \threads
    /// Any thread.
    /// \logs
    /// Logs nothing.
    ~CmdDealModule();

    /// Empties the receive queue under receiveHexCmdlock.
    ///
    /// Returns nothing.
    /// \threads
    /// Any thread not holding receiveHexCmdlock; runs on the caller. The
    /// transports' clearQueue runs it on a detached thread of their own.
    /// \logs
    /// Logs nothing.
    void clearQueue();

    /// Replies waiting for the command module, oldest first; guarded by receiveHexCmdlock.
    static std::deque<ProtocolData> receivequeueHexCmd;
    /// Guards receivequeueHexCmd; taken before HexCmdlock.
    static std::mutex receiveHexCmdlock;
    /// Guards bRetFlag; taken after receiveHexCmdlock.
    static std::mutex HexCmdlock;
    /// Reply-arrived flag, raised after every append; guarded by HexCmdlock.
    static bool bRetFlag;
};
