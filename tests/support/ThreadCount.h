#pragma once

#include <QDir>
#include <QFile>
#include <QStringList>
#include <QString>

// Threads of this process, as the kernel lists them. A transport's workers and
// hand-off threads are gone once the count is back where it was before the
// transport existed.
inline int threadCount()
{
    return static_cast<int>(
        QDir(QStringLiteral("/proc/self/task")).entryList(QDir::Dirs | QDir::NoDotAndDotDot).size());
}

// The names of this process's threads, for a failure message.
inline QString threadNames()
{
    QStringList names;
    const QString tasks = QStringLiteral("/proc/self/task");
    for (const QString &task : QDir(tasks).entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        QFile comm(tasks + QLatin1Char('/') + task + QStringLiteral("/comm"));
        if (comm.open(QIODevice::ReadOnly))
            names << QString::fromLocal8Bit(comm.readAll().trimmed());
    }
    return names.join(QStringLiteral(", "));
}
