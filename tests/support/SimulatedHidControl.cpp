// The simulated HID device (SimulatedHid.cpp) driven from outside the
// process, for programs that a test runs as a child process, such as
// commctl_simhid: the test cannot call simhid:: functions there, so it writes
// commands to the program's standard input instead.
//
// SIMHID_DEVICE=VID:PID (hexadecimal) in the environment gives the device its
// identifiers before main() runs, plugged in, so that the program's first open
// finds it. Then one line per command on standard input:
//   unplug    the device is pulled out
//   plug      the device is plugged back in
//   status    writes "simhid: polls P closes C open H" to standard error:
//             enumerations of the device's identifiers so far (the hot-plug
//             watcher's polls), hid_close calls and handles open now
// Replies go to standard error, so that standard output stays the program's.
// Reading ends at end of input, after kMaxCommands commands or after
// kMaxRunTime.
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

#include <poll.h>
#include <unistd.h>

#include "SimulatedHid.h"

namespace {

constexpr int kMaxCommands = 1000;
constexpr auto kMaxRunTime = std::chrono::minutes(10);
constexpr int kPollMs = 100;

unsigned short g_vid = 0;
unsigned short g_pid = 0;

void reply(const std::string &line)
{
    std::fprintf(stderr, "simhid: %s\n", line.c_str());
    std::fflush(stderr);
}

void runCommand(const std::string &command)
{
    if (command == "unplug") {
        simhid::setPresent(false);
        reply("unplugged");
    } else if (command == "plug") {
        simhid::setPresent(true);
        reply("plugged");
    } else if (command == "status") {
        reply("polls " + std::to_string(simhid::enumerations(g_vid, g_pid)) + " closes "
              + std::to_string(simhid::closes()) + " open " + std::to_string(simhid::openHandles()));
    } else {
        reply("unknown command '" + command + "'");
    }
}

// Reads commands from standard input until it ends, or the limits are reached.
void readCommands()
{
    const auto deadline = std::chrono::steady_clock::now() + kMaxRunTime;
    std::string pending;
    int commands = 0;
    while (commands < kMaxCommands && std::chrono::steady_clock::now() < deadline) {
        pollfd input{STDIN_FILENO, POLLIN, 0};
        const int ready = ::poll(&input, 1, kPollMs);
        if (ready == 0 || (ready < 0 && errno == EINTR))
            continue;
        char buffer[256];
        const ssize_t count = ready > 0 ? ::read(STDIN_FILENO, buffer, sizeof buffer) : -1;
        if (count <= 0)
            return; // end of input, or nothing more to read from it
        pending.append(buffer, size_t(count));
        for (std::string::size_type end = pending.find('\n'); end != std::string::npos; end = pending.find('\n')) {
            runCommand(pending.substr(0, end));
            pending.erase(0, end + 1);
            ++commands;
        }
    }
}

// Set up before main(): the program opens the device first thing.
struct StartControl
{
    StartControl()
    {
        const char *device = std::getenv("SIMHID_DEVICE");
        unsigned int vid = 0, pid = 0;
        if (!device || std::sscanf(device, "%x:%x", &vid, &pid) != 2) {
            reply("SIMHID_DEVICE=VID:PID not set: no device");
            simhid::setPresent(false);
            return;
        }
        g_vid = static_cast<unsigned short>(vid);
        g_pid = static_cast<unsigned short>(pid);
        simhid::reset(g_vid, g_pid);
        // Detached: it may sit in a poll of standard input when main() returns.
        std::thread(readCommands).detach();
    }
} g_startControl;

} // namespace
