#pragma once

#include <QString>
#include <QStringList>

// Captures every qDebug() line written while it exists, from any thread, in
// the order written. Lines still reach the previous handler (the test log).
class LogCapture
{
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture &) = delete;
    LogCapture &operator=(const LogCapture &) = delete;

    QStringList lines() const;
    // Qt's warnings written meanwhile (kept apart from the library's lines).
    QStringList warnings() const;
    void clear();
    // How many captured lines equal text exactly.
    int count(const QString &text) const;
    // Polls until a line equal to text has been captured, for at most timeoutMs.
    bool waitFor(const QString &text, int timeoutMs) const;
};
