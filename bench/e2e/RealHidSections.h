#pragma once

#include "Sections.h"

namespace e2e {

// The USB link on the system's hidapi against an emulated device (RealHidBench.cpp).
void usbIdleReal(const Options &options, Figures &figures);
void usbDrainReal(const Options &options, Figures &figures);

} // namespace e2e
