#pragma once

#include <QString>

namespace comm {

// Writes one diagnostic line to the Qt debug log, exactly as given: no quotes,
// no added spacing. Every log line of the library goes through here.
void debugLine(const QString &text);

} // namespace comm
