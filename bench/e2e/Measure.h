#pragma once

// What the end-to-end figures are made of: figures beside their baselines,
// percentiles, clocks, processor time, resident size and leak checks.

#include <chrono>
#include <optional>
#include <vector>

#include <QJsonArray>
#include <QString>
#include <QtGlobal>

#include <sys/types.h>

namespace e2e {

using Clock = std::chrono::steady_clock;

inline double microsecondsBetween(Clock::time_point from, Clock::time_point to)
{
    return std::chrono::duration<double, std::micro>(to - from).count();
}

inline double millisecondsBetween(Clock::time_point from, Clock::time_point to)
{
    return std::chrono::duration<double, std::milli>(to - from).count();
}

// How a section is run.
struct Options
{
    // Short counts and windows, for the smoke run of the test suite.
    bool smoke = false;
    // Full count, or the smoke count.
    int count(int full, int smokeCount) const { return smoke ? smokeCount : full; }
};

// One row of the table: a figure beside its baseline from the same run.
struct Figure
{
    QString figure;
    QString value;
    QString baseline;
    // Measured over baseline; none where the two are not comparable.
    std::optional<double> ratio;
    QString target;
    // Whether the target is met; none where the figure is only reported.
    std::optional<bool> met;
};

class Figures
{
public:
    void add(const Figure &figure);
    const std::vector<Figure> &all() const { return m_figures; }
    QJsonArray toJson() const;
    static std::vector<Figure> fromJson(const QJsonArray &array);

private:
    std::vector<Figure> m_figures;
};

// Percentile p (0..100) of values, by nearest rank; 0 for no values.
double percentile(std::vector<double> values, double p);
double median(std::vector<double> values);

// Text with a fixed number of decimals.
QString number(double value, int decimals = 1);

// Processor time used so far by the whole process, and by one of its threads.
qint64 processCpuNs();
qint64 threadCpuNs(pid_t tid);
pid_t currentThreadId();
// The first thread of this process with the given name (/proc/self/task/*/comm);
// 0 when there is none.
pid_t threadNamed(const char *name);
// Whether this process may run on one processor only (taskset -c 0).
bool pinnedToOneProcessor();

// Resident set size of this process, in bytes.
qint64 residentBytes();

// Leak check by LeakSanitizer, where the program was built with it.
struct LeakReport
{
    int leaks = 0;       // leak reports (direct and indirect)
    qint64 bytes = 0;    // bytes they hold
    int allocations = 0; // allocations they hold
};
bool leakCheckAvailable();
// Runs a leak check now, without ending the program; none where unavailable.
std::optional<LeakReport> checkLeaks();

} // namespace e2e
