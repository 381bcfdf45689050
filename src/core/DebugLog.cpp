#include "DebugLog.h"

#include <QDebug>

namespace comm {

void debugLine(const QString &text)
{
    qDebug().noquote() << text;
}

QString labelledText(const QString &label, const QByteArray &bytes)
{
    const int length = static_cast<int>(qstrnlen(bytes.constData(), static_cast<uint>(bytes.size())));
    return label + QString::fromUtf8(bytes.constData(), length);
}

} // namespace comm
