#pragma once

#include <cstdint>

/// Device models known to the command module.
///
/// The communications library only stores and copies the value; it never
/// interprets it.
namespace ModulelEnum {
/// A device model, stamped on every reply record (ProtocolData::deviceType).
enum DeviceType : std::int32_t {
    DeviceUnknown = 0, ///< No model set: what every transport stamps until setDeviceType is called.
};
} // namespace ModulelEnum
