#pragma once

// The USB transport's machinery, behind PortUSB's private pointer: the device
// with its locks, the receive buffer with its reassembler, and the workers.
// Not installed; tests reach the transport's seams through it.

#include <chrono>

#include <QMutex>

#include "HidDevice.h"
#include "PortUSB.h"
#include "StreamLink.h"

namespace comm {
enum class ReportSplit;
} // namespace comm

class PortUSBPrivate
{
public:
    explicit PortUSBPrivate(PortUSB &port);

    static PortUSBPrivate *get(PortUSB *port) { return port->d.get(); }
    static const PortUSBPrivate *get(const PortUSB *port) { return port->d.get(); }

    // A function that pauses for a duration.
    using PauseFunction = void (*)(std::chrono::milliseconds);
    // Test seam: replaces the 100 ms pause of openUSB() and closeUSB(), for
    // every PortUSB, so that tests can open and close transports by the
    // thousand; null (the default) sleeps. Stored atomically.
    static void setOpenClosePause(PauseFunction pause);
    // The pause itself, through the seam when one is set.
    static void openClosePause();

    // Stops the reports of the hot-plug watcher to this transport: the first
    // step of the destructor, which a test may take early.
    void stopHotPlugReports();
    // Stops the reader, closes the device and stops the reassembly worker,
    // emptying the receive buffer when asked. Called with linkLock held.
    void closeDevice(bool clearBuffer);
    void writeReports(const QByteArray &data, comm::ReportSplit split);

    // Whether a device is open.
    bool isOpen() const { return device.isOpen(); }
    // Reader and reassembly workers started and still running.
    int runningWorkers() const { return link.workers.running(); }
    // A copy of the whole receive buffer.
    QByteArray buffData() const { return link.reassembler.contents(); }

    comm::StreamLink link;
    // Serialises openUSB and closeUSB, wherever they are called from (the
    // watcher closes on its own thread).
    QMutex linkLock;
    // The device, with the rules for reading, writing and closing it from
    // several threads at once.
    comm::HidDevice device;

private:
    PortUSB &q;
};
