#pragma once

#include <QString>
#include <QStringList>
#include <QtGlobal>

namespace soak {

struct Options
{
    int seconds = 180;
    quint64 seed = 0;
    bool seedGiven = false;
    bool noUsb = false;
    // Resident memory may grow this much from the end of the warm-up to the
    // end, and rssKiBPerMinute more for each minute of the run: sanitizer
    // runtimes keep bookkeeping of their own for every thread the process
    // ever started, a few hundred thousand a minute here.
    qint64 rssLimitKiB = 32768;
    qint64 rssKiBPerMinute = 0;
    // What the program holds on the heap, as the allocator counts it, may
    // grow this much from the end of the warm-up to the end.
    qint64 heapLimitKiB = 16384;
    // A reply not voided must come within this many seconds.
    int deadlineSeconds = 60;
    // A command whose last step (sent, or answered by the device) lies longer
    // back than this is overdue: a link event or clear no longer excuses it.
    // Replies take a quarter of a second at the most, ThreadSanitizer's
    // builds included; what is still missing after eight times that was lost
    // before the event, not by it.
    int inFlightMs = 2000;
};

// Parses the program's arguments (without the program name). False, with a
// message in error, on a usage error; help is set for --help.
bool parseOptions(const QStringList &arguments, Options *options, bool *help, QString *error);
QString usage();

} // namespace soak
