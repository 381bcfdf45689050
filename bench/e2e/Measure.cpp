#include "Measure.h"

#include <algorithm>
#include <cmath>
#include <ctime>

#include <QDir>
#include <QFile>
#include <QJsonObject>
#include <QRegularExpression>
#include <QTemporaryDir>

#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/common_interface_defs.h>
#include <sanitizer/lsan_interface.h>
#define E2E_LEAK_CHECK 1
#endif

namespace e2e {

void Figures::add(const Figure &figure)
{
    m_figures.push_back(figure);
}

QJsonArray Figures::toJson() const
{
    QJsonArray array;
    for (const Figure &f : m_figures) {
        QJsonObject row;
        row.insert(QStringLiteral("figure"), f.figure);
        row.insert(QStringLiteral("value"), f.value);
        row.insert(QStringLiteral("baseline"), f.baseline);
        row.insert(QStringLiteral("ratio"), f.ratio ? QJsonValue(*f.ratio) : QJsonValue());
        row.insert(QStringLiteral("target"), f.target);
        row.insert(QStringLiteral("met"), f.met ? QJsonValue(*f.met) : QJsonValue());
        array.append(row);
    }
    return array;
}

std::vector<Figure> Figures::fromJson(const QJsonArray &array)
{
    std::vector<Figure> figures;
    for (const QJsonValue &value : array) {
        const QJsonObject row = value.toObject();
        Figure f;
        f.figure = row.value(QStringLiteral("figure")).toString();
        f.value = row.value(QStringLiteral("value")).toString();
        f.baseline = row.value(QStringLiteral("baseline")).toString();
        if (row.value(QStringLiteral("ratio")).isDouble())
            f.ratio = row.value(QStringLiteral("ratio")).toDouble();
        f.target = row.value(QStringLiteral("target")).toString();
        if (row.value(QStringLiteral("met")).isBool())
            f.met = row.value(QStringLiteral("met")).toBool();
        figures.push_back(f);
    }
    return figures;
}

double percentile(std::vector<double> values, double p)
{
    if (values.empty())
        return 0;
    std::sort(values.begin(), values.end());
    const double rank = std::ceil(p / 100.0 * double(values.size()));
    const size_t index = size_t(std::clamp(rank, 1.0, double(values.size()))) - 1;
    return values[index];
}

double median(std::vector<double> values)
{
    return percentile(std::move(values), 50);
}

QString number(double value, int decimals)
{
    return QString::number(value, 'f', decimals);
}

namespace {
qint64 clockNs(clockid_t clock)
{
    timespec now{};
    if (clock_gettime(clock, &now) != 0)
        return 0;
    return qint64(now.tv_sec) * 1000000000 + now.tv_nsec;
}
} // namespace

qint64 processCpuNs()
{
    return clockNs(CLOCK_PROCESS_CPUTIME_ID);
}

qint64 threadCpuNs(pid_t tid)
{
    // The kernel's per-thread scheduler clock of any thread of this process:
    // the clock id encodes the thread id (as pthread_getcpuclockid does for
    // threads one has a handle of).
    const clockid_t clock = clockid_t((~unsigned(tid) << 3) | 6);
    return clockNs(clock);
}

pid_t currentThreadId()
{
    return pid_t(syscall(SYS_gettid));
}

pid_t threadNamed(const char *name)
{
    const QDir tasks(QStringLiteral("/proc/self/task"));
    for (const QString &entry : tasks.entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        QFile comm(tasks.filePath(entry + QStringLiteral("/comm")));
        if (comm.open(QIODevice::ReadOnly) && comm.readAll().trimmed() == QByteArray(name))
            return pid_t(entry.toInt());
    }
    return 0;
}

bool pinnedToOneProcessor()
{
    cpu_set_t set;
    CPU_ZERO(&set);
    if (sched_getaffinity(0, sizeof set, &set) != 0)
        return false;
    return CPU_COUNT(&set) == 1;
}

qint64 residentBytes()
{
    QFile statm(QStringLiteral("/proc/self/statm"));
    if (!statm.open(QIODevice::ReadOnly))
        return 0;
    const QList<QByteArray> fields = statm.readAll().split(' ');
    if (fields.size() < 2)
        return 0;
    return fields.at(1).toLongLong() * sysconf(_SC_PAGESIZE);
}

bool leakCheckAvailable()
{
#ifdef E2E_LEAK_CHECK
    return true;
#else
    return false;
#endif
}

std::optional<LeakReport> checkLeaks()
{
#ifdef E2E_LEAK_CHECK
    QTemporaryDir dir;
    if (!dir.isValid())
        return std::nullopt;
    // The report goes to <path>.<pid> while the check runs, then back to stderr.
    const QByteArray path = QFile::encodeName(dir.filePath(QStringLiteral("lsan")));
    __sanitizer_set_report_path(path.constData());
    __lsan_do_recoverable_leak_check();
    __sanitizer_set_report_path("stderr");

    LeakReport report;
    static const QRegularExpression leak(QStringLiteral(
                                             "^(Direct|Indirect) leak of (\\d+) byte\\(s\\) in (\\d+) object"),
                                         QRegularExpression::MultilineOption);
    for (const QString &name : QDir(dir.path()).entryList(QDir::Files)) {
        QFile file(dir.filePath(name));
        if (!file.open(QIODevice::ReadOnly))
            continue;
        const QString text = QString::fromLocal8Bit(file.readAll());
        auto matches = leak.globalMatch(text);
        while (matches.hasNext()) {
            const auto match = matches.next();
            ++report.leaks;
            report.bytes += match.captured(2).toLongLong();
            report.allocations += match.captured(3).toInt();
        }
        // Shown as it is, for whoever has to find the leak.
        fprintf(stderr, "%s", qPrintable(text));
    }
    return report;
#else
    return std::nullopt;
#endif
}

} // namespace e2e
