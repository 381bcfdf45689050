// The end-to-end benchmark of the USB link on the real hidapi stack: the
// shipped library, linked to the system's hidapi as an application links it,
// against a HID device umockdev emulates in each section's process. Run it
// under umockdev-wrapper (scripts/bench.sh does); without umockdev's library
// preloaded every row says it was not measured.
//
//   e2e_realhid [--smoke] [--out FILE] [--sections NAME,...]
//
// Each section runs in a process of its own, and so with a testbed and a
// hot-plug watcher of its own. Debug output of the library is switched off,
// as an application ships.
#include "Driver.h"
#include "RealHidSections.h"

namespace {

const std::vector<e2e::SectionEntry> kSections = {
    {"usb-idle-real", e2e::usbIdleReal, false},
    {"usb-drain-real", e2e::usbDrainReal, false},
};

} // namespace

int main(int argc, char **argv)
{
    return e2e::runProgram(argc, argv, "e2e_realhid", kSections);
}
