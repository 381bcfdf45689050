#include "Sections.h"

#include <thread>

#include <QCoreApplication>

#include "PortUSB_p.h"

namespace e2e {

bool pumpUntil(const std::function<bool()> &done, Clock::time_point deadline)
{
    while (!done()) {
        if (Clock::now() >= deadline)
            return false;
        QCoreApplication::processEvents();
        if (done())
            break;
        std::this_thread::yield();
    }
    return true;
}

namespace {
void noPause(std::chrono::milliseconds) {}
} // namespace

UsbPausesSkipped::UsbPausesSkipped(bool skip)
    : m_skip(skip)
{
    if (m_skip)
        PortUSBPrivate::setOpenClosePause(noPause);
}

UsbPausesSkipped::~UsbPausesSkipped()
{
    if (m_skip)
        PortUSBPrivate::setOpenClosePause(nullptr);
}

QString count(long value)
{
    QString digits = QString::number(value);
    for (int i = digits.size() - 3; i > 0 && digits.at(i - 1).isDigit(); i -= 3)
        digits.insert(i, QLatin1Char(','));
    return digits;
}

namespace {
QString mebibytes(qint64 bytes)
{
    return number(double(bytes) / (1024.0 * 1024.0), 1) + QStringLiteral(" MiB");
}
} // namespace

Figure residentGrowthFigure(const QString &what, long mark, qint64 firstBytes, long total, qint64 endBytes)
{
    constexpr qint64 kAllowedGrowth = 1024 * 1024;
    const qint64 growth = endBytes - firstBytes;
    Figure figure;
    figure.figure = QStringLiteral("memory: resident size after %1 %2").arg(count(total), what);
    figure.value = QStringLiteral("%1 (%2%3 KiB)")
                       .arg(mebibytes(endBytes), growth >= 0 ? QStringLiteral("+") : QString())
                       .arg(number(double(growth) / 1024.0, 0));
    figure.baseline = QStringLiteral("%1 after the first %2").arg(mebibytes(firstBytes), count(mark));
    if (firstBytes > 0)
        figure.ratio = double(endBytes) / double(firstBytes);
    figure.target = QStringLiteral("growth <= 1 MiB");
    figure.met = firstBytes > 0 && growth <= kAllowedGrowth;
    return figure;
}

Figure leakFigure(const QString &what, long total, const LeakReport &report)
{
    Figure figure;
    figure.figure = QStringLiteral("memory: leaks after %1 %2 (LeakSanitizer, asan build)").arg(count(total), what);
    figure.value = report.leaks == 0 ? QStringLiteral("0 leaks")
                                     : QStringLiteral("%1 leaks, %2 bytes in %3 allocations")
                                           .arg(report.leaks)
                                           .arg(report.bytes)
                                           .arg(report.allocations);
    figure.baseline = QStringLiteral("-");
    figure.target = QStringLiteral("0 leaks");
    figure.met = report.leaks == 0;
    return figure;
}

} // namespace e2e
