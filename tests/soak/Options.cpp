#include "Options.h"

#include <functional>

namespace soak {

namespace {
// An option that takes a whole number in a range.
struct NumberOption
{
    const char *name;
    qint64 low;
    qint64 high;
    std::function<void(Options *, qint64)> set;
};

const NumberOption kNumberOptions[] = {
    {"--seconds", 1, 7 * 24 * 3600, [](Options *o, qint64 v) { o->seconds = int(v); }},
    {"--rss-limit-kib", 0, qint64(1) << 40, [](Options *o, qint64 v) { o->rssLimitKiB = v; }},
    {"--rss-kib-per-minute", 0, qint64(1) << 40, [](Options *o, qint64 v) { o->rssKiBPerMinute = v; }},
    {"--heap-limit-kib", 0, qint64(1) << 40, [](Options *o, qint64 v) { o->heapLimitKiB = v; }},
    {"--deadline-seconds", 1, 3600, [](Options *o, qint64 v) { o->deadlineSeconds = int(v); }},
    {"--in-flight-ms", 1, 3600 * 1000, [](Options *o, qint64 v) { o->inFlightMs = int(v); }},
};
} // namespace

QString usage()
{
    return QStringLiteral(
        "usage: comm_soak [--seconds N] [--seed N] [--no-usb] [--rss-limit-kib N] [--rss-kib-per-minute N]\n"
        "                 [--heap-limit-kib N] [--deadline-seconds N] [--in-flight-ms N]\n"
        "  --seconds N             how long traffic and disruptions run (default 180)\n"
        "  --seed N                the random seed, to repeat a run (default: drawn, and printed)\n"
        "  --no-usb                leave the USB leg out\n"
        "  --rss-limit-kib N       the most resident memory may grow after the warm-up (default 32768)\n"
        "  --rss-kib-per-minute N  and this much more for each minute of the run (default 0)\n"
        "  --heap-limit-kib N      the most the heap in use may grow after the warm-up (default 16384)\n"
        "  --deadline-seconds N    how long a reply that is not voided may take (default 60)\n"
        "  --in-flight-ms N        how long after its last step a command may still be caught by\n"
        "                          a link event or a queue clear (default 2000)\n");
}

bool parseOptions(const QStringList &arguments, Options *options, bool *help, QString *error)
{
    *help = false;
    for (int i = 0; i < arguments.size(); ++i) {
        const QString &name = arguments[i];
        if (name == QLatin1String("--help") || name == QLatin1String("-h")) {
            *help = true;
            return true;
        }
        if (name == QLatin1String("--no-usb")) {
            options->noUsb = true;
            continue;
        }
        if (i + 1 >= arguments.size()) {
            *error = QStringLiteral("%1 needs a value").arg(name);
            return false;
        }
        const QString &text = arguments[++i];
        if (name == QLatin1String("--seed")) {
            bool ok = false;
            options->seed = text.toULongLong(&ok, 0);
            if (!ok) {
                *error = QStringLiteral("--seed: not a number: %1").arg(text);
                return false;
            }
            options->seedGiven = true;
            continue;
        }
        const NumberOption *option = nullptr;
        for (const NumberOption &candidate : kNumberOptions)
            if (name == QLatin1String(candidate.name))
                option = &candidate;
        if (!option) {
            *error = QStringLiteral("unknown option %1").arg(name);
            return false;
        }
        bool ok = false;
        const qint64 value = text.toLongLong(&ok, 0);
        if (!ok || value < option->low || value > option->high) {
            *error = QStringLiteral("%1: not a number from %2 to %3: %4").arg(name).arg(option->low).arg(option->high).arg(text);
            return false;
        }
        option->set(options, value);
    }
    return true;
}

} // namespace soak
