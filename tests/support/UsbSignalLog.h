#pragma once

#include <mutex>

#include <QDir>
#include <QFile>
#include <QStringList>

#include "PortUSB.h"

// What a PortUSB reported through signalUSBChanged, and anything else a test
// notes on the way ("closeUSB", ...), in order. The hot-plug watcher emits on
// its own thread: entries are added under a lock, on the emitting thread.
class UsbSignalLog
{
public:
    // Connects directly to port's signalUSBChanged; each emission adds
    // "true" or "false".
    void watch(PortUSB &port)
    {
        QObject::connect(&port, &PortUSB::signalUSBChanged, [this](bool present) { notePresent(present); });
    }

    // One emission of signalUSBChanged: "true" or "false".
    void notePresent(bool present) { note(present ? QStringLiteral("true") : QStringLiteral("false")); }

    void note(const QString &entry)
    {
        std::lock_guard<std::mutex> guard(m_lock);
        m_entries.append(QString(entry.constData(), entry.size()));
    }

    // Copies that share no data with the log: Qt's implicitly shared
    // containers must not be shared with a thread that keeps appending.
    QStringList entries() const
    {
        std::lock_guard<std::mutex> guard(m_lock);
        QStringList copy;
        for (const QString &entry : m_entries)
            copy.append(QString(entry.constData(), entry.size()));
        return copy;
    }

    int size() const { return entries().size(); }

    void clear()
    {
        std::lock_guard<std::mutex> guard(m_lock);
        m_entries.clear();
    }

private:
    mutable std::mutex m_lock;
    QStringList m_entries;
};

// Threads of this process with the given name, as the kernel lists them.
inline int threadsNamed(const QByteArray &name)
{
    int count = 0;
    const QDir tasks(QStringLiteral("/proc/self/task"));
    for (const QString &task : tasks.entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        QFile comm(tasks.filePath(task + QStringLiteral("/comm")));
        if (comm.open(QIODevice::ReadOnly) && comm.readAll().trimmed() == name)
            ++count;
    }
    return count;
}

// The name the hot-plug watcher thread carries.
inline QByteArray watcherThreadName()
{
    return QByteArrayLiteral("PortUSB-hotplug");
}
