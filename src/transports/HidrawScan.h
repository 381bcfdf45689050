#pragma once

#include <string>

namespace comm {

// What the kernel itself lists of the HID devices attached, read from its
// hidraw entries with plain file reads. Those reads fail cleanly when a device
// vanishes halfway through a look, which is what makes this the safe way to
// tell whether a device is there while it may be pulled out: hidapi's own
// enumeration (before 0.15) dereferences an attribute of a vanishing device
// without checking it.
struct HidrawScan
{
    // Whether the system keeps such a list at all. Where it keeps none (no
    // hidraw in the kernel, another OS), the scan says nothing about the
    // device, and hidapi is asked instead.
    // Where it does, an empty list means what it says: hidapi's hidraw
    // backend finds its devices in this same list.
    bool listed = false;
    // The device node ("/dev/hidrawN") of the first device with the
    // identifiers, in the order hidapi lists devices; empty when none is there.
    std::string node;
};

// Looks for a device with these identifiers (0 matches any, as in
// hid_enumerate) on the buses hidapi's hidraw backend lists: USB, Bluetooth,
// I2C and SPI.
HidrawScan scanHidraw(unsigned short vid, unsigned short pid);

} // namespace comm
