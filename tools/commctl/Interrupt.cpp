#include "Interrupt.h"

#include <QCoreApplication>
#include <QSocketNotifier>

#include <atomic>
#include <cerrno>
#include <csignal>

#include <fcntl.h>
#include <unistd.h>

namespace {
int g_pipe[2] = {-1, -1};
std::atomic<int> g_caught{0};
QSocketNotifier *g_notifier = nullptr;
struct sigaction g_previous[2];
constexpr int kSignals[2] = {SIGINT, SIGTERM};

// Only async-signal-safe work here: the rest happens on the event loop.
void onSignal(int signal)
{
    int expected = 0;
    g_caught.compare_exchange_strong(expected, signal);
    const char byte = 1;
    const int savedErrno = errno;
    // A full pipe already holds a wake-up for the event loop: nothing is lost
    // when this write fails.
    [[maybe_unused]] const ssize_t written = ::write(g_pipe[1], &byte, 1);
    errno = savedErrno;
}
} // namespace

InterruptQuits::InterruptQuits()
{
    if (::pipe2(g_pipe, O_CLOEXEC | O_NONBLOCK) != 0)
        return;
    g_notifier = new QSocketNotifier(g_pipe[0], QSocketNotifier::Read);
    QObject::connect(g_notifier, &QSocketNotifier::activated, [] {
        char bytes[16];
        while (::read(g_pipe[0], bytes, sizeof bytes) > 0) {
        }
        QCoreApplication::exit(0);
    });
    for (int i = 0; i < 2; ++i) {
        struct sigaction action
        {};
        action.sa_handler = onSignal;
        sigemptyset(&action.sa_mask);
        action.sa_flags = SA_RESTART;
        sigaction(kSignals[i], &action, &g_previous[i]);
    }
}

InterruptQuits::~InterruptQuits()
{
    if (g_pipe[0] < 0)
        return;
    for (int i = 0; i < 2; ++i)
        sigaction(kSignals[i], &g_previous[i], nullptr);
    delete g_notifier;
    g_notifier = nullptr;
    ::close(g_pipe[0]);
    ::close(g_pipe[1]);
    g_pipe[0] = g_pipe[1] = -1;
}

int InterruptQuits::caught() const
{
    return g_caught.load();
}

void InterruptQuits::reraise() const
{
    const int signal = caught();
    if (signal == 0)
        return;
    std::signal(signal, SIG_DFL);
    std::raise(signal);
}
