#pragma once

#include <QByteArray>
#include <QtGlobal>

#include <random>

#include "ProtocolData.h"
#include "SimProtocol.h"

// The commands the soak sends. Each carries a tag of its own in the bytes the
// reply echoes and the library never interprets (command byte, P1 and P4), so
// that a reply is matched to its command whatever order replies arrive in. The
// other parameter bytes choose the path the reply takes through the library.
namespace soak {

using Rng = std::mt19937_64;

constexpr quint32 kTagSpace = 1u << 24;

enum class Kind {
    NetworkQueued, // handed over alone from a thread of its own
    NetworkAtOnce, // handed over before the next datagram is read
    NetworkHeld,   // held until its block data is in, then handed over with it
    SerialPlain,
    SerialBlock,   // the block that follows the frame becomes the payload
    UsbPlain,
    UsbAnnounced,  // announces a block, which USB never carries
};

sim::Link linkOf(Kind kind);
const char *kindName(Kind kind);

struct Command
{
    sim::HeaderBytes header{};
    Kind kind = Kind::NetworkQueued;
    QByteArray payload; // raw bytes sent behind the header, which the device skips
};

// The tag a reply record echoes, or a command's header carries.
quint32 tagOf(const ProtocolData &record);
quint32 tagOf(const sim::HeaderBytes &header);
// A command of this kind with this tag, its free bytes drawn from rng.
Command makeCommand(Kind kind, quint32 tag, Rng &rng);
// Raw bytes to send behind a command's header: no "[" in them, so that the
// device's frame search skips them.
QByteArray skippedPayload(int size, Rng &rng);
// The record the application hands the library to send the command.
ProtocolData commandRecord(const Command &command);
// The header bytes as 16 hex digits, for messages.
QByteArray headerText(const sim::HeaderBytes &header);

} // namespace soak
