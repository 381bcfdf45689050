#pragma once

#include <QByteArray>
#include <QString>
#include <QtGlobal>

#include <memory>

// HID devices emulated by umockdev inside this process, for programs started
// under umockdev-wrapper (which preloads umockdev's library). hidapi's hidraw
// backend finds them through libudev, as it finds real ones, and opens their
// node: a pseudo-terminal whose other side, the master, plays the device. The
// host's output reports arrive there as 65 bytes each (report ID 0 and the 64
// data bytes) and input reports are written there. A pseudo-terminal keeps no
// report boundaries: the device side reads one report-sized piece at a time,
// and the host may read several input reports at once.
namespace emulatedhid {

struct Device
{
    quint16 vid = 0;
    quint16 pid = 0;
    // The node as the program sees it, "/dev/hidrawN".
    QString node;
    // The USB device in the emulated sysfs, parent of the HID and hidraw entries.
    QString sysfsPath;
    // The device's side of the node; -1 once unplugged.
    int master = -1;
};

// The emulated devices of this process. One per process: umockdev points the
// whole process at it.
class Testbed
{
public:
    Testbed();
    ~Testbed();
    Testbed(const Testbed &) = delete;
    Testbed &operator=(const Testbed &) = delete;

    // Why no device can be emulated in this process, or an empty text.
    static QString unavailableReason();

    // Plugs in a device with these identifiers under a hidraw number not used
    // before in this testbed. False, with the reason in error, when it fails.
    bool plug(quint16 vid, quint16 pid, Device *device, QString *error);
    // Pulls it out: its node hangs up (calls on it in progress and later ones
    // fail), and it leaves sysfs, its entry in the hidraw class included, as
    // the kernel removes a device: enumeration no longer lists it.
    void unplug(Device *device);

    // How many times the program has looked through the hidraw devices in the
    // emulated sysfs since the testbed was made: each hid_enumerate and
    // hid_open (libudev's scan) is one, and so is each of the library's own
    // looks at the kernel's hidraw list. Counted on the calling thread.
    int looks();
    // Waits up to timeoutMs for the program to begin its next look, and
    // returns as soon as it has (true) or the time is up (false): an unplug
    // made then lands inside that look.
    bool waitForLook(int timeoutMs);

private:
    struct Private;
    std::unique_ptr<Private> d;
};

// The device side. The next output report the host wrote: 65 bytes, or fewer
// when no whole report came within timeoutMs.
QByteArray readOutputReport(int master, int timeoutMs);
// Whether the host wrote anything within timeoutMs (which is then lost).
bool outputArrives(int master, int timeoutMs);
// Writes bytes as the device sends input reports: all of them, or false.
bool writeInput(int master, const QByteArray &bytes);

} // namespace emulatedhid
