#pragma once

#include <vector>

#include <QByteArray>

// A simulated HID device behind hidapi's functions. A test program that
// compiles SimulatedHid.cpp defines hid_enumerate, hid_free_enumeration,
// hid_open, hid_close, hid_read_timeout and hid_write itself. Linked with the
// library's objects (the tests), it has their calls bound to these definitions
// by the linker; linked with libComm_Module and exporting them
// (commctl_simhid), it has the dynamic linker bind the shipped library's calls
// to them. Either way the system's hidapi is bypassed, and the transport code
// under test is the code that ships.
//
// There is one device. It can be present or absent (plugged in or pulled out),
// takes input reports to hand to reads, records every output report written,
// and can be told to fail opens, reads or the n-th write. All functions are
// thread-safe. The state is never destroyed, so the process-wide hot-plug
// watcher may keep enumerating until the process ends.
namespace simhid {

// Present, with the given identifiers; nothing queued, recorded or failing.
// Handles opened earlier stay valid (as closed or open handles) but are no
// longer counted.
void reset(unsigned short vid, unsigned short pid);

// Gives the device other identifiers (it is then found, and opened, by those).
void setIdentifiers(unsigned short vid, unsigned short pid);
// Plugs the device in or pulls it out. While it is out, enumeration does not
// list it, opens fail, and reads and writes on open handles return -1.
void setPresent(bool present);

// The next count opens fail although the device is present.
void failOpens(int count);
// The n-th write from now (1 = the next one) returns -1; 0 cancels.
void failWrite(int n);
// While on, reads return -1 at once.
void failReads(bool on);
// While on, writes return -1.
void failWrites(bool on);

// One input report, returned whole by one read.
void queueInput(const QByteArray &report);
// Input reports not yet read.
int pendingInput();

struct OpenCall
{
    unsigned short vid;
    unsigned short pid;
    bool serialNumberNull;
};
std::vector<OpenCall> opens();
int closes();
// Handles open now.
int openHandles();

// Every output report written successfully, as passed to hid_write (the
// first 10000).
std::vector<QByteArray> writes();
// Every hid_write call, failed ones included.
int writeAttempts();

struct ReadCall
{
    size_t length;
    int milliseconds;
};
// The arguments of the reads so far (the most recent 64).
std::vector<ReadCall> reads();
int readCount();

// Enumerations asking for exactly these identifiers.
int enumerations(unsigned short vid, unsigned short pid);
// All enumerations.
int enumerationsTotal();
// Enumeration lists handed out and not yet freed.
int enumerationsOutstanding();

// Calls on a closed or unknown handle, and writes of a length other than 65.
int misuse();

// Each write from now takes this long (the sleep is outside the simulation's
// lock, so reads and other calls go on meanwhile).
void setWriteDuration(int milliseconds);
// While reads fail (failReads), each takes this long before it fails.
void setFailedReadDuration(int milliseconds);
// Times a read and a write on one handle ran at the same time.
int overlaps();
// Times a call freed hidapi's error string of a handle (a read as it starts,
// a write as it ends, a failed read as it fails) while the string was set and
// another call on that handle was running: the moments at which hidapi could
// free the string twice.
int hazards();

} // namespace simhid
