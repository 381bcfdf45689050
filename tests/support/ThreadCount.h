#pragma once

#include <QDir>
#include <QString>

// Threads of this process, as the kernel lists them. A transport's workers and
// hand-off threads are gone once the count is back where it was before the
// transport existed.
inline int threadCount()
{
    return static_cast<int>(
        QDir(QStringLiteral("/proc/self/task")).entryList(QDir::Dirs | QDir::NoDotAndDotDot).size());
}
