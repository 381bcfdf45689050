#pragma once

#include <cstdint>

// Device models known to the command module. The communications library only
// stores and copies the value; it never interprets it.
namespace ModulelEnum {
enum DeviceType : std::int32_t {
    DeviceUnknown = 0,
};
}
