#pragma once

#include <QString>

#include "EmulatedHid.h"
#include "WaitUntil.h"

// What the tests on the real hidapi stack share: the process's umockdev
// testbed, and waits on what the library does to it.
namespace emulatedusb {

// Generous: sanitizer builds on a loaded two-core machine.
constexpr int kWaitMs = 30000;

template <typename Condition>
bool waitUntil(Condition condition)
{
    return ::waitUntil(condition, kWaitMs);
}

// Returns once the program has looked through the HID devices n more times:
// with no openUSB running, those are the hot-plug watcher's polls.
inline bool watcherPolls(emulatedhid::Testbed &bed, int n)
{
    const int before = bed.looks();
    return waitUntil([&bed, before, n] { return bed.looks() >= before + n; });
}

// Plugs in a device, failing the test when umockdev refuses.
inline bool plug(emulatedhid::Testbed &bed, quint16 vid, quint16 pid, emulatedhid::Device *device)
{
    QString error;
    if (bed.plug(vid, pid, device, &error))
        return true;
    qWarning("%s", qPrintable(error));
    return false;
}

} // namespace emulatedusb
