// The end-to-end benchmark: the library's transports on real sockets, a
// pseudo-terminal and the simulated HID device, each figure beside a baseline
// measured in the same run.
//
//   e2e_comm [--smoke] [--out FILE] [--sections NAME,...]
//
// Every section runs in a process of its own (this program again, with
// --section), so that threads one section leaves behind (the USB hot-plug
// watcher never ends) and memory it has touched do not weigh on the next; the
// network round trips run twice, once pinned to processor 0 with taskset.
// Traffic goes to 127.0.0.1 only. Debug output of the library is switched off,
// as an application ships.
#include "Driver.h"
#include "Sections.h"

#if defined(__SANITIZE_THREAD__)
// ThreadSanitizer waits a second before a process with threads still running
// exits (the USB hot-plug watcher never ends), which every section's process
// would pay; a short wait keeps the smoke run of the test suite short.
// TSAN_OPTIONS from the environment still apply on top of this.
extern "C" const char *__tsan_default_options()
{
    return "atexit_sleep_ms=50";
}
#endif

namespace {

const std::vector<e2e::SectionEntry> kSections = {
    {"network-latency", e2e::networkLatency, true}, {"network-rate", e2e::networkRate, false},
    {"serial-drain", e2e::serialDrain, false},      {"usb-drain", e2e::usbDrain, false},
    {"serial-idle", e2e::serialIdle, false},        {"usb-idle", e2e::usbIdle, false},
    {"memory-replies", e2e::memoryReplies, false},  {"memory-switches", e2e::memorySwitches, false},
    {"send-threads", e2e::sendThreads, false},
};

} // namespace

int main(int argc, char **argv)
{
    return e2e::runProgram(argc, argv, "e2e_comm", kSections);
}
