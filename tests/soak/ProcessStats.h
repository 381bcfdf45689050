#pragma once

#include <string>
#include <vector>

#include <QtGlobal>

// What the soak watches of its own process, read from /proc/self.
namespace soak {

// Resident memory (VmRSS) in KiB, or -1 when it cannot be read.
qint64 residentKiB();
// Memory the program has allocated and not freed, in KiB, as the allocator
// counts it; -1 where it cannot tell.
qint64 heapKiB();
// Threads of the process (entries of /proc/self/task).
int threadCount();
// Open file descriptors, less the one reading them and less what the USB
// device's emulation keeps of devices already unplugged (see ProcessStats.cpp):
// those grow by design with every unplug, and are no descriptors of the
// library's or the soak's.
int openDescriptors();
// What openDescriptors() counts, as "N -> target" (for a report).
std::vector<std::string> openDescriptorTargets();
// The same, sockets with their kind from /proc/net ("N -> socket:[I] (udp 0100007F:1F90)").
std::vector<std::string> describedDescriptors();
// Every open file descriptor, those of the emulation included: what counts
// against the process's descriptor limit.
int allDescriptors();
// Hands memory the allocator keeps free back to the system, so that resident
// memory reflects what is in use when it is sampled for growth.
void releaseFreeMemory();

} // namespace soak
