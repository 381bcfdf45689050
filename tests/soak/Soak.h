#pragma once

#include "Options.h"

namespace soak {

// Runs the soak: every link at once against devices in this process, with
// link switches, deletes from other threads, unplugs, hang-ups, noise and
// queue clears, for options.seconds; then stops everything, waits for the
// replies still awaited, deletes every transport and prints one final line.
// Returns the exit status: 0 when nothing was lost or corrupted and memory,
// threads and descriptors stayed within bounds.
int runSoak(const Options &options);

} // namespace soak
