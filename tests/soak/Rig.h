#pragma once

#include <QSerialPort>
#include <QString>

#include <atomic>
#include <memory>
#include <mutex>

#include "Ledger.h"
#include "Options.h"
#include "ReplyDrain.h"
#include "RunClock.h"
#include "SerialLines.h"
#include "UsbDevice.h"

class PortBase;
class PortUSB;

namespace soak {

// The pseudo-terminals of the serial leg: the long-lived port's, the one the
// factory's serial transports open in turn, and the one of the serial
// transports made on one thread and deleted on another. Two ports reading one
// terminal would take each other's bytes.
enum SerialLine { kMainLine = 0, kSwitchLine = 1, kSpareLine = 2, kSerialLines = 3 };

// The moments the USB device is pulled out at (see Disruptions::usbStorm).
enum UnplugMoment {
    kAfterSend,         // right after a command went out
    kInsideOpen,        // inside openUSB's look for the device, and its open
    kInsideWatcherLook, // inside the hot-plug watcher's look
    kDuringLongWrite,   // while a command is written as hundreds of reports
    kAnyMoment,         // at a moment of its own, mostly inside a read
    kUnplugMoments
};

// One of the long-lived transports, one a link, made with
// creatCoreObjInstance and deleted at the end.
struct MainLink
{
    QString name;
    PortBase *port = nullptr;
    int channel = -1;

    ReplyShape shape()
    {
        std::lock_guard<std::mutex> guard(shapeLock);
        return currentShape;
    }
    void setShape(const ReplyShape &shape)
    {
        std::lock_guard<std::mutex> guard(shapeLock);
        currentShape = shape;
    }

private:
    std::mutex shapeLock;
    // The serial port's name changes when it is opened on a fresh terminal.
    ReplyShape currentShape;
};

// What every activity of the soak shares.
struct Rig
{
    explicit Rig(const Options &options);

    // A seed of its own for each activity, from the run's seed.
    quint64 seedFor(int activity) const { return options.seed * 0x9E3779B97F4A7C15ull + quint64(activity) * 0x632BE59BD9B4E019ull; }

    const Options options;
    RunClock clock;
    Ledger ledger;
    ReplyDrain drain;
    SerialLines serialLines{kSerialLines};
    // Null when the USB leg is left out, and usbLeftOut says why.
    std::unique_ptr<UsbDevice> usbDevice;
    QString usbLeftOut;
    quint16 udpDevicePort = 0;
    // No more unplugs than this: umockdev keeps descriptors of every device it
    // ever emulated until the process ends.
    quint64 maxUnplugs = 0;

    MainLink network;
    MainLink serial;
    MainLink usb;
    PortUSB *usbPort = nullptr;

    // The application's lock: the factory, and every use of its current
    // transport, one thread at a time.
    std::mutex appLock;

    std::atomic<quint64> switches{0};
    std::atomic<quint64> unplugs{0};
    std::atomic<quint64> unplugsAt[kUnplugMoments] = {};
    // Of those, the ones made as a look for the device began.
    std::atomic<quint64> unplugsInsideLooks{0};
    std::atomic<quint64> hangUps{0};
    std::atomic<quint64> serialReopens{0}; // closed and opened again by the application
    std::atomic<quint64> deletes{0};
    std::atomic<quint64> floods{0};
    std::atomic<quint64> clears{0};
    std::atomic<quint64> usbOpens{0};
    std::atomic<quint64> watcherRemovals{0};
    std::atomic<quint64> watcherReturns{0};
    // The hot-plug watcher saw the device come back: it wants opening.
    std::atomic<bool> usbCameBack{false};
};

// Opens a serial transport on a terminal as the application does.
bool openSerial(PortBase *port, const QString &path);
// The port's name as a serial port opened on path reports it, which replies carry.
QString portNameOf(const QString &path);

} // namespace soak
