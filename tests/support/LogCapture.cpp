#include "LogCapture.h"

#include <QElapsedTimer>
#include <QThread>

#include <mutex>

namespace {
std::mutex g_lock;
QStringList g_lines;
QStringList g_warnings;
QtMessageHandler g_previous = nullptr;
bool g_active = false;

void captureHandler(QtMsgType type, const QMessageLogContext &context, const QString &message)
{
    QtMessageHandler previous = nullptr;
    {
        std::lock_guard<std::mutex> guard(g_lock);
        if (g_active && type == QtDebugMsg)
            g_lines.append(message);
        else if (g_active && type == QtWarningMsg)
            g_warnings.append(message);
        previous = g_previous;
    }
    if (previous)
        previous(type, context, message);
}
} // namespace

LogCapture::LogCapture()
{
    std::lock_guard<std::mutex> guard(g_lock);
    g_lines.clear();
    g_warnings.clear();
    g_active = true;
    g_previous = qInstallMessageHandler(captureHandler);
}

LogCapture::~LogCapture()
{
    std::lock_guard<std::mutex> guard(g_lock);
    g_active = false;
    qInstallMessageHandler(g_previous);
    g_lines.clear();
    g_warnings.clear();
}

QStringList LogCapture::lines() const
{
    std::lock_guard<std::mutex> guard(g_lock);
    return g_lines;
}

QStringList LogCapture::warnings() const
{
    std::lock_guard<std::mutex> guard(g_lock);
    return g_warnings;
}

void LogCapture::clear()
{
    std::lock_guard<std::mutex> guard(g_lock);
    g_lines.clear();
    g_warnings.clear();
}

int LogCapture::count(const QString &text) const
{
    std::lock_guard<std::mutex> guard(g_lock);
    return g_lines.count(text);
}

bool LogCapture::waitFor(const QString &text, int timeoutMs) const
{
    QElapsedTimer timer;
    timer.start();
    while (true) {
        if (count(text) > 0)
            return true;
        if (timer.elapsed() >= timeoutMs)
            return false;
        QThread::msleep(2);
    }
}
