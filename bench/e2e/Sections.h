#pragma once

#include <functional>
#include <stdexcept>

#include <QString>

#include "Measure.h"

namespace e2e {

// A section measures some figures and adds them; it throws SectionError when
// it cannot be set up (no pseudo-terminal, no socket, ...).
struct SectionError : std::runtime_error
{
    using std::runtime_error::runtime_error;
};

using Section = void (*)(const Options &, Figures &);

// Network link (NetworkBench.cpp).
void networkLatency(const Options &options, Figures &figures);
void networkRate(const Options &options, Figures &figures);
void memoryReplies(const Options &options, Figures &figures);
// Serial and USB links (StreamBench.cpp).
void serialDrain(const Options &options, Figures &figures);
void usbDrain(const Options &options, Figures &figures);
void serialIdle(const Options &options, Figures &figures);
void usbIdle(const Options &options, Figures &figures);
// Link switches through the factory (SwitchBench.cpp).
void memorySwitches(const Options &options, Figures &figures);
// Sends from another thread against sends on the creating one (ThreadBench.cpp).
void sendThreads(const Options &options, Figures &figures);

// Runs the Qt event loop, without waiting, until done() or the deadline;
// between passes the thread yields. False at the deadline.
bool pumpUntil(const std::function<bool()> &done, Clock::time_point deadline);

// Resident-size growth as a figure: rows name what was repeated, mark how many
// repetitions the first reading came after, total how many in all.
Figure residentGrowthFigure(const QString &what, long mark, qint64 firstBytes, long total, qint64 endBytes);
// LeakSanitizer's verdict as a figure.
Figure leakFigure(const QString &what, long total, const LeakReport &report);

// While alive, the USB transport's 100 ms open and close pauses are skipped
// (when skip is true): for runs that open and close by the thousand, or that
// are to be short. What the pauses cover, the workers' hand-over, does not
// depend on their length.
class UsbPausesSkipped
{
public:
    explicit UsbPausesSkipped(bool skip = true);
    ~UsbPausesSkipped();
    UsbPausesSkipped(const UsbPausesSkipped &) = delete;
    UsbPausesSkipped &operator=(const UsbPausesSkipped &) = delete;

private:
    bool m_skip;
};

// Thousands separators, as the table writes counts.
QString count(long value);

} // namespace e2e
