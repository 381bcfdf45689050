#include "Options.h"

namespace soak {

namespace {
bool number(const QString &text, qint64 low, qint64 high, qint64 *value)
{
    bool ok = false;
    const qint64 parsed = text.toLongLong(&ok, 0);
    if (!ok || parsed < low || parsed > high)
        return false;
    *value = parsed;
    return true;
}
} // namespace

QString usage()
{
    return QStringLiteral(
        "usage: comm_soak [--seconds N] [--seed N] [--no-usb] [--rss-limit-kib N] [--deadline-seconds N]\n"
        "                 [--in-flight-ms N]\n"
        "  --seconds N           how long traffic and disruptions run (default 180)\n"
        "  --seed N              the random seed, to repeat a run (default: drawn, and printed)\n"
        "  --no-usb              leave the USB leg out\n"
        "  --rss-limit-kib N     the most resident memory may grow after the warm-up (default 32768)\n"
        "  --deadline-seconds N  how long a reply that is not voided may take (default 60)\n"
        "  --in-flight-ms N      how long after its last step a command may still be caught by\n"
        "                        a link event or a queue clear (default 2000)\n");
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
        qint64 value = 0;
        if (name == QLatin1String("--seconds") && number(text, 1, 7 * 24 * 3600, &value)) {
            options->seconds = int(value);
        } else if (name == QLatin1String("--seed")) {
            bool ok = false;
            options->seed = text.toULongLong(&ok, 0);
            if (!ok) {
                *error = QStringLiteral("--seed: not a number: %1").arg(text);
                return false;
            }
            options->seedGiven = true;
        } else if (name == QLatin1String("--rss-limit-kib") && number(text, 0, qint64(1) << 40, &value)) {
            options->rssLimitKiB = value;
        } else if (name == QLatin1String("--deadline-seconds") && number(text, 1, 3600, &value)) {
            options->deadlineSeconds = int(value);
        } else if (name == QLatin1String("--in-flight-ms") && number(text, 1, 3600 * 1000, &value)) {
            options->inFlightMs = int(value);
        } else if (name == QLatin1String("--seconds") || name == QLatin1String("--rss-limit-kib")
                   || name == QLatin1String("--deadline-seconds") || name == QLatin1String("--in-flight-ms")) {
            *error = QStringLiteral("%1: not a number in range: %2").arg(name, text);
            return false;
        } else {
            *error = QStringLiteral("unknown option %1").arg(name);
            return false;
        }
    }
    return true;
}

} // namespace soak
