#pragma once

// The network transport, PortUDP.
#include "core_udp.h"
