#pragma once

#include <QString>

#include "ProtocolData.h"

// One reply record as a JSON object on one line:
// {"link":0,"host":"…","source":"…","cmd":1,"params":[…],"checksum":1,"payload":"<hex>","deviceType":0}
QString recordJson(const ProtocolData &record);

// One reply record as a readable line.
QString recordText(const ProtocolData &record);

// A USB plug event: {"event":"usb","present":true}
QString usbEventJson(bool present);
QString usbEventText(bool present);
