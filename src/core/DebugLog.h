#pragma once

#include <QByteArray>
#include <QString>

namespace comm {

// Writes one diagnostic line to the Qt debug log, exactly as given: no quotes,
// no added spacing. Every log line of the library goes through here. While
// debug output of the default category is switched off, nothing is done.
void debugLine(const QString &text);

// label followed directly by text, joined only when the line is written.
void debugLine(const QString &label, const QString &text);

// label followed directly by bytes, joined the way QString + QByteArray joins
// them: the bytes are read as UTF-8 and end at their first zero byte, so the
// raw tail of a frame after a zero byte does not reach the log. Joined only
// when the line is written.
void debugLine(const QString &label, const QByteArray &bytes);

} // namespace comm
