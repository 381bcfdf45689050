// The end-to-end benchmark: the library's transports on real sockets, a
// pseudo-terminal and the simulated HID device, each figure beside a baseline
// measured in the same run.
//
//   e2e_comm [--smoke] [--out FILE] [--sections NAME,...]
//
// Every section runs in a process of its own (this program again, with
// --section), so that threads one section leaves behind (the USB hot-plug
// watcher never ends) and memory it has touched do not weigh on the next; the
// network round trips run twice, once pinned to processor 0 with taskset.
// Traffic goes to 127.0.0.1 only. Debug output of the library is switched off,
// as an application ships.
#include <cstdio>

#include <QCoreApplication>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLoggingCategory>
#include <QProcess>
#include <QStandardPaths>
#include <QStringList>
#include <QTemporaryDir>

#include "Sections.h"

#if defined(__SANITIZE_THREAD__)
// ThreadSanitizer waits a second before a process with threads still running
// exits (the USB hot-plug watcher never ends), which every section's process
// would pay; a short wait keeps the smoke run of the test suite short.
// TSAN_OPTIONS from the environment still apply on top of this.
extern "C" const char *__tsan_default_options()
{
    return "atexit_sleep_ms=50";
}
#endif

namespace {

using e2e::Figure;
using e2e::Figures;
using e2e::Options;

struct SectionEntry {
    const char *name;
    e2e::Section run;
    bool alsoPinned; // run a second time pinned to processor 0
};

const SectionEntry kSections[] = {
    {"network-latency", e2e::networkLatency, true},
    {"network-rate", e2e::networkRate, false},
    {"serial-drain", e2e::serialDrain, false},
    {"usb-drain", e2e::usbDrain, false},
    {"serial-idle", e2e::serialIdle, false},
    {"usb-idle", e2e::usbIdle, false},
    {"memory-replies", e2e::memoryReplies, false},
    {"memory-switches", e2e::memorySwitches, false},
    {"send-threads", e2e::sendThreads, false},
};

const SectionEntry *findSection(const QString &name)
{
    for (const SectionEntry &entry : kSections) {
        if (name == QLatin1String(entry.name))
            return &entry;
    }
    return nullptr;
}

int usage(const QString &problem)
{
    QStringList names;
    for (const SectionEntry &entry : kSections)
        names << QLatin1String(entry.name);
    std::fprintf(stderr, "%s\nusage: e2e_comm [--smoke] [--out FILE] [--sections NAME,...]\nsections: %s\n",
                 qPrintable(problem), qPrintable(names.join(QStringLiteral(", "))));
    return 2;
}

bool writeFigures(const Figures &figures, const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        return false;
    QJsonObject root;
    root.insert(QStringLiteral("figures"), figures.toJson());
    file.write(QJsonDocument(root).toJson());
    return true;
}

// One section, in this process.
int runSection(const SectionEntry &entry, const Options &options, const QString &out)
{
    Figures figures;
    try {
        entry.run(options, figures);
    } catch (const e2e::SectionError &error) {
        std::fprintf(stderr, "%s: %s\n", entry.name, error.what());
        return 3;
    }
    if (!out.isEmpty() && !writeFigures(figures, out)) {
        std::fprintf(stderr, "%s: cannot write %s\n", entry.name, qPrintable(out));
        return 3;
    }
    return 0;
}

// One section in a process of its own; its figures are added to figures.
bool runChild(const SectionEntry &entry, bool pinned, const Options &options, const QTemporaryDir &dir,
              Figures &figures)
{
    const QString label = QLatin1String(entry.name) + (pinned ? QStringLiteral(" (pinned)") : QString());
    const QString out = dir.filePath(QLatin1String(entry.name) + (pinned ? QStringLiteral("-pinned") : QString())
                                     + QStringLiteral(".json"));
    QStringList arguments = {QStringLiteral("--section"), QLatin1String(entry.name), QStringLiteral("--out"), out};
    if (options.smoke)
        arguments << QStringLiteral("--smoke");
    QString program = QCoreApplication::applicationFilePath();
    if (pinned) {
        const QString taskset = QStandardPaths::findExecutable(QStringLiteral("taskset"));
        if (taskset.isEmpty()) {
            figures.add({label, QStringLiteral("not measured: taskset not found"), QString(), std::nullopt,
                         QString(), std::nullopt});
            return true;
        }
        arguments = QStringList{QStringLiteral("-c"), QStringLiteral("0"), program} + arguments;
        program = taskset;
    }
    std::fprintf(stderr, "== %s\n", qPrintable(label));
    QProcess child;
    child.setProcessChannelMode(QProcess::ForwardedChannels);
    child.start(program, arguments);
    const int timeoutMs = options.smoke ? 120 * 1000 : 40 * 60 * 1000;
    const bool finished = child.waitForStarted() && child.waitForFinished(timeoutMs);
    if (!finished) {
        child.kill();
        child.waitForFinished(5000);
    }
    // Figures the section wrote count even when its process failed afterwards
    // (LeakSanitizer's check at exit, for one).
    QFile file(out);
    if (file.open(QIODevice::ReadOnly)) {
        const QJsonArray rows = QJsonDocument::fromJson(file.readAll()).object().value(QStringLiteral("figures")).toArray();
        for (const Figure &figure : Figures::fromJson(rows))
            figures.add(figure);
    }
    if (finished && child.exitStatus() == QProcess::NormalExit && child.exitCode() == 0 && file.exists())
        return true;
    figures.add({label,
                 finished ? QStringLiteral("section failed (exit code %1)").arg(child.exitCode())
                          : QStringLiteral("section did not finish within %1 min: stopped").arg(timeoutMs / 60000),
                 QString(), std::nullopt, QString(), false});
    return false;
}

void printTable(const Figures &figures)
{
    for (const Figure &f : figures.all()) {
        std::printf("%-78s %-34s | %s | %s | %s | %s\n", qPrintable(f.figure), qPrintable(f.value),
                    qPrintable(f.baseline), f.ratio ? qPrintable(e2e::number(*f.ratio, 2)) : "-",
                    qPrintable(f.target), f.met ? (*f.met ? "met" : "NOT MET") : "-");
    }
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    QLoggingCategory::setFilterRules(QStringLiteral("default.debug=false"));

    Options options;
    QString out;
    QString single;
    QStringList chosen;
    const QStringList arguments = app.arguments().mid(1);
    for (int i = 0; i < arguments.size(); ++i) {
        const QString &argument = arguments.at(i);
        const bool hasValue = i + 1 < arguments.size();
        if (argument == QLatin1String("--smoke"))
            options.smoke = true;
        else if (argument == QLatin1String("--out") && hasValue)
            out = arguments.at(++i);
        else if (argument == QLatin1String("--section") && hasValue)
            single = arguments.at(++i);
        else if (argument == QLatin1String("--sections") && hasValue)
            chosen = arguments.at(++i).split(QLatin1Char(','), Qt::SkipEmptyParts);
        else
            return usage(QStringLiteral("unknown argument: ") + argument);
    }

    if (!single.isEmpty()) {
        const SectionEntry *entry = findSection(single);
        return entry ? runSection(*entry, options, out) : usage(QStringLiteral("unknown section: ") + single);
    }

    std::vector<const SectionEntry *> sections;
    for (const SectionEntry &entry : kSections) {
        if (chosen.isEmpty() || chosen.contains(QLatin1String(entry.name)))
            sections.push_back(&entry);
    }
    for (const QString &name : chosen) {
        if (!findSection(name))
            return usage(QStringLiteral("unknown section: ") + name);
    }
    QTemporaryDir dir;
    if (!dir.isValid())
        return usage(QStringLiteral("no temporary folder"));
    Figures figures;
    bool allRan = true;
    for (const SectionEntry *entry : sections) {
        allRan = runChild(*entry, false, options, dir, figures) && allRan;
        if (entry->alsoPinned)
            allRan = runChild(*entry, true, options, dir, figures) && allRan;
    }
    printTable(figures);
    if (!out.isEmpty() && !writeFigures(figures, out)) {
        std::fprintf(stderr, "cannot write %s\n", qPrintable(out));
        return 1;
    }
    // Figures are measurements, not verdicts: only a section that could not
    // run makes this program fail.
    return allRan ? 0 : 1;
}
