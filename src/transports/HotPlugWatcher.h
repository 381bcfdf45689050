#pragma once

class PortUSB;

namespace comm {

// The process-wide hot-plug watcher of the USB link and the registry of the
// PortUSB objects alive, which it serves. One thread, started by the first
// PortUSB and never stopped, polls for the device last named to watchFor();
// on a change it closes the oldest live transport (when the device went) and
// emits that transport's signalUSBChanged. It never reopens the device.
namespace HotPlugWatcher {

// Starts the watcher thread, running body (which calls run()), unless one
// has been started. When no thread can be started, the next call tries again.
void start(void (*body)());

// The watcher's body; never returns.
[[noreturn]] void run();

// The identifiers the watcher looks for from now on (both 0: none).
void watchFor(unsigned short vid, unsigned short pid);

// Adds port to the transports the watcher serves, as the newest.
void addTransport(PortUSB *port);

// Removes port; once this returns, the watcher is not inside a call on it
// and makes none. From the watcher's own thread (a slot connected directly to
// signalUSBChanged deleting the transport) it does not wait: the watcher does
// not touch the transport after the call it is in returns.
void removeTransport(PortUSB *port);

} // namespace HotPlugWatcher

} // namespace comm
