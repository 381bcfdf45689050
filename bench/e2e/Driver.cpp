#include "Driver.h"

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

namespace e2e {

namespace {

const SectionEntry *findSection(const std::vector<SectionEntry> &sections, const QString &name)
{
    for (const SectionEntry &entry : sections) {
        if (name == QLatin1String(entry.name))
            return &entry;
    }
    return nullptr;
}

int usage(const char *program, const std::vector<SectionEntry> &sections, const QString &problem)
{
    QStringList names;
    for (const SectionEntry &entry : sections)
        names << QLatin1String(entry.name);
    std::fprintf(stderr, "%s\nusage: %s [--smoke] [--out FILE] [--sections NAME,...]\nsections: %s\n",
                 qPrintable(problem), program, qPrintable(names.join(QStringLiteral(", "))));
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
    } catch (const SectionError &error) {
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
            figures.add({label, QStringLiteral("not measured: taskset not found"), QString(), std::nullopt, QString(),
                         std::nullopt});
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
        const QJsonArray rows =
            QJsonDocument::fromJson(file.readAll()).object().value(QStringLiteral("figures")).toArray();
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
                    qPrintable(f.baseline), f.ratio ? qPrintable(number(*f.ratio, 2)) : "-", qPrintable(f.target),
                    f.met ? (*f.met ? "met" : "NOT MET") : "-");
    }
}

} // namespace

int runProgram(int argc, char **argv, const char *program, const std::vector<SectionEntry> &table)
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
            return usage(program, table, QStringLiteral("unknown argument: ") + argument);
    }

    if (!single.isEmpty()) {
        const SectionEntry *entry = findSection(table, single);
        return entry ? runSection(*entry, options, out)
                     : usage(program, table, QStringLiteral("unknown section: ") + single);
    }

    std::vector<const SectionEntry *> sections;
    for (const SectionEntry &entry : table) {
        if (chosen.isEmpty() || chosen.contains(QLatin1String(entry.name)))
            sections.push_back(&entry);
    }
    for (const QString &name : chosen) {
        if (!findSection(table, name))
            return usage(program, table, QStringLiteral("unknown section: ") + name);
    }
    QTemporaryDir dir;
    if (!dir.isValid())
        return usage(program, table, QStringLiteral("no temporary folder"));
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

} // namespace e2e
