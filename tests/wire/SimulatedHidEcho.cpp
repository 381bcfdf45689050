// Makes the simulated HID device of commctl_simhid answer like commctl's own
// simulator: every command frame written to it in output reports is answered
// with the echoing reply frame in a zero-padded 64-byte input report. Linked
// into commctl_simhid_echo, so that commctl send --usb has a device that
// replies where /dev/uhid cannot be used.
#include <chrono>
#include <thread>

#include "SimProtocol.h"
#include "SimulatedHid.h"

namespace {

constexpr auto kPollInterval = std::chrono::milliseconds(5);
// Bounded like every helper loop of the tests: ten minutes at most.
constexpr int kMaxPolls = 10 * 60 * 1000 / 5;

void answerWrites()
{
    sim::CommandStream stream;
    size_t answered = 0;
    for (int poll = 0; poll < kMaxPolls; ++poll) {
        std::this_thread::sleep_for(kPollInterval);
        const std::vector<QByteArray> reports = simhid::writes();
        for (; answered < reports.size(); ++answered) {
            stream.append(reports[answered].mid(1)); // without the report ID
            sim::HeaderBytes command;
            for (int frames = 0; frames < 100 && stream.next(&command); ++frames)
                simhid::queueInput(sim::replyFrame(command).leftJustified(64, '\0'));
        }
    }
}

struct StartEcho
{
    StartEcho() { std::thread(answerWrites).detach(); }
} g_startEcho;

} // namespace
