#include "DebugLog.h"

#include <QDebug>

namespace comm {

void debugLine(const QString &text)
{
    qDebug().noquote() << text;
}

} // namespace comm
