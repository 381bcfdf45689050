#include "DebugLog.h"

#include <QDebug>
#include <QLoggingCategory>

namespace comm {

namespace {
bool debugEnabled()
{
    const QLoggingCategory *category = QLoggingCategory::defaultCategory();
    return category && category->isDebugEnabled();
}

// As QString + QByteArray joins them.
QString labelledText(const QString &label, const QByteArray &bytes)
{
    const int length = static_cast<int>(qstrnlen(bytes.constData(), static_cast<uint>(bytes.size())));
    return label + QString::fromUtf8(bytes.constData(), length);
}
} // namespace

void debugLine(const QString &text)
{
    if (debugEnabled())
        qDebug().noquote() << text;
}

void debugLine(const QString &label, const QString &text)
{
    if (debugEnabled())
        qDebug().noquote() << label + text;
}

void debugLine(const QString &label, const QByteArray &bytes)
{
    if (debugEnabled())
        qDebug().noquote() << labelledText(label, bytes);
}

} // namespace comm
