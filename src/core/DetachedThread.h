#pragma once

#include <functional>

namespace comm {

// Starts body on a new thread and returns at once; false when no thread could
// be started (body then does not run).
//
// The thread is created detached: nobody joins it, and nothing detaches it
// after the start, by which time it may already have run and ended (glibc
// before 2.43 can touch freed memory when a thread is detached as it exits).
// It names itself name (at most 15 characters, the system's limit) before
// body runs, so that it can be told apart in a debugger, top or /proc.
bool startDetachedThread(const char *name, std::function<void()> body);

} // namespace comm
