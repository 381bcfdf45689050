#include "SimulatedHid.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <map>
#include <mutex>
#include <thread>
#include <utility>

#include <hidapi.h>


// hidapi leaves its handle type opaque; the simulation's handle.
struct hid_device_
{
    bool open = true;
    // Reads and writes running on the handle now.
    int readsInFlight = 0;
    int writesInFlight = 0;
    // hidapi's error string of the handle: set by a failed call; freed by
    // every read as it starts and by every write as it ends.
    bool errorString = false;
};

namespace {

constexpr size_t kReportLength = 65;
constexpr size_t kKeptReads = 64;
constexpr size_t kKeptWrites = 10000;

struct State
{
    std::mutex lock;
    std::condition_variable changed;

    unsigned short vid = 0;
    unsigned short pid = 0;
    bool present = true;
    int opensToFail = 0;
    int writeToFail = 0; // counts down; the write that brings it to 0 fails
    bool readsFail = false;
    bool writesFail = false;
    std::deque<QByteArray> input;

    // Every handle ever opened; never freed, so a late call on a closed
    // handle is counted rather than crashing.
    std::vector<hid_device_ *> handles;
    int countedHandlesFrom = 0; // handles before this index belong to earlier tests

    std::vector<simhid::OpenCall> opens;
    int closes = 0;
    std::vector<QByteArray> writes;
    int writeAttempts = 0;
    std::deque<simhid::ReadCall> reads;
    int readCount = 0;
    std::map<std::pair<unsigned short, unsigned short>, int> enumerations;
    int enumerationsTotal = 0;
    int enumerationsOutstanding = 0;
    int misuse = 0;
    int writeDurationMs = 0;
    int failedReadDurationMs = 0;
    int overlaps = 0;
    int hazards = 0;

    // A call frees the handle's error string: while the string is set, another
    // call on the handle running at the same time could free it as well.
    void freesErrorString(hid_device_ *device)
    {
        if (device->errorString && device->readsInFlight + device->writesInFlight > 1)
            ++hazards;
    }

    bool matches(unsigned short wantedVid, unsigned short wantedPid) const
    {
        // hidapi: 0 stands for any vendor or product.
        return present && (wantedVid == 0 || wantedVid == vid) && (wantedPid == 0 || wantedPid == pid);
    }

    bool knownOpen(const hid_device_ *device) const
    {
        return device && device->open && std::find(handles.begin(), handles.end(), device) != handles.end();
    }
};

// Never destroyed: detached threads (the hot-plug watcher) call in until the
// process ends.
State &state()
{
    static State *const s = new State;
    return *s;
}

// Runs read on the state under its lock and returns what it gives.
template <typename Read>
auto locked(Read read)
{
    State &s = state();
    std::lock_guard<std::mutex> guard(s.lock);
    return read(s);
}

// Changes the state under its lock, then wakes reads waiting for a change.
template <typename Change>
void changeAndWake(Change change)
{
    State &s = state();
    {
        std::lock_guard<std::mutex> guard(s.lock);
        change(s);
    }
    s.changed.notify_all();
}

} // namespace

namespace simhid {

void reset(unsigned short vid, unsigned short pid)
{
    changeAndWake([vid, pid](State &s) {
        s.vid = vid;
        s.pid = pid;
        s.present = true;
        s.opensToFail = 0;
        s.writeToFail = 0;
        s.readsFail = false;
        s.writesFail = false;
        s.input.clear();
        s.countedHandlesFrom = static_cast<int>(s.handles.size());
        s.opens.clear();
        s.closes = 0;
        s.writes.clear();
        s.writeAttempts = 0;
        s.reads.clear();
        s.readCount = 0;
        s.enumerations.clear();
        s.enumerationsTotal = 0;
        s.misuse = 0;
        s.writeDurationMs = 0;
        s.failedReadDurationMs = 0;
        s.overlaps = 0;
        s.hazards = 0;
    });
}

void setWriteDuration(int milliseconds)
{
    locked([milliseconds](State &s) { s.writeDurationMs = milliseconds; });
}

void setFailedReadDuration(int milliseconds)
{
    locked([milliseconds](State &s) { s.failedReadDurationMs = milliseconds; });
}

int overlaps()
{
    return locked([](State &s) { return s.overlaps; });
}

int hazards()
{
    return locked([](State &s) { return s.hazards; });
}

void setIdentifiers(unsigned short vid, unsigned short pid)
{
    locked([pid, vid](State &s) {
        s.vid = vid;
        s.pid = pid;
    });
}

void setPresent(bool present)
{
    changeAndWake([present](State &s) { s.present = present; });
}

void failOpens(int count)
{
    locked([count](State &s) { s.opensToFail = count; });
}

void failWrite(int n)
{
    locked([n](State &s) { s.writeToFail = n; });
}

void failWrites(bool on)
{
    locked([on](State &s) { s.writesFail = on; });
}

void failReads(bool on)
{
    changeAndWake([on](State &s) { s.readsFail = on; });
}

void queueInput(const QByteArray &report)
{
    // A copy of its own: the reading thread never shares the caller's bytes.
    changeAndWake([&report](State &s) { s.input.push_back(QByteArray(report.constData(), report.size())); });
}

int pendingInput()
{
    return locked([](State &s) { return static_cast<int>(s.input.size()); });
}

std::vector<OpenCall> opens()
{
    return locked([](State &s) { return s.opens; });
}

int closes()
{
    return locked([](State &s) { return s.closes; });
}

int openHandles()
{
    return locked([](State &s) {
        return static_cast<int>(std::count_if(s.handles.begin() + s.countedHandlesFrom, s.handles.end(),
                                              [](const hid_device_ *device) { return device->open; }));
    });
}

std::vector<QByteArray> writes()
{
    return locked([](State &s) { return s.writes; });
}

int writeAttempts()
{
    return locked([](State &s) { return s.writeAttempts; });
}

std::vector<ReadCall> reads()
{
    return locked([](State &s) { return std::vector<ReadCall>(s.reads.begin(), s.reads.end()); });
}

int readCount()
{
    return locked([](State &s) { return s.readCount; });
}

int enumerations(unsigned short vid, unsigned short pid)
{
    return locked([vid, pid](State &s) {
        const auto found = s.enumerations.find({vid, pid});
        return found == s.enumerations.end() ? 0 : found->second;
    });
}

int enumerationsTotal()
{
    return locked([](State &s) { return s.enumerationsTotal; });
}

int enumerationsOutstanding()
{
    return locked([](State &s) { return s.enumerationsOutstanding; });
}

int misuse()
{
    return locked([](State &s) { return s.misuse; });
}

} // namespace simhid

// hidapi's functions, as the transport uses them.
extern "C" {

// The simulation has none of the faults of hidapi before 0.15 that the
// library guards against, and says so: the library then asks it for every
// look and every open, whatever devices the machine itself lists.
const struct hid_api_version *hid_version(void)
{
    static const hid_api_version version{0, 15, 0};
    return &version;
}

struct hid_device_info *hid_enumerate(unsigned short vendor_id, unsigned short product_id)
{
    State &s = state();
    std::lock_guard<std::mutex> guard(s.lock);
    ++s.enumerations[{vendor_id, product_id}];
    ++s.enumerationsTotal;
    if (!s.matches(vendor_id, product_id))
        return nullptr;
    auto *info = static_cast<hid_device_info *>(std::calloc(1, sizeof(hid_device_info)));
    if (!info)
        return nullptr;
    info->path = strdup("/dev/hidraw-simulated");
    info->vendor_id = s.vid;
    info->product_id = s.pid;
    ++s.enumerationsOutstanding;
    return info;
}

void hid_free_enumeration(struct hid_device_info *devs)
{
    State &s = state();
    std::lock_guard<std::mutex> guard(s.lock);
    while (devs) {
        hid_device_info *next = devs->next;
        std::free(devs->path);
        std::free(devs);
        --s.enumerationsOutstanding;
        devs = next;
    }
}

hid_device *hid_open(unsigned short vendor_id, unsigned short product_id, const wchar_t *serial_number)
{
    State &s = state();
    std::lock_guard<std::mutex> guard(s.lock);
    s.opens.push_back({vendor_id, product_id, serial_number == nullptr});
    if (!s.matches(vendor_id, product_id))
        return nullptr;
    if (s.opensToFail > 0) {
        --s.opensToFail;
        return nullptr;
    }
    s.handles.push_back(new hid_device_);
    return s.handles.back();
}

void hid_close(hid_device *dev)
{
    State &s = state();
    std::lock_guard<std::mutex> guard(s.lock);
    if (!s.knownOpen(dev)) {
        ++s.misuse;
        return;
    }
    dev->open = false;
    ++s.closes;
}

int hid_write(hid_device *dev, const unsigned char *data, size_t length)
{
    State &s = state();
    std::unique_lock<std::mutex> guard(s.lock);
    if (!s.knownOpen(dev) || length != kReportLength) {
        ++s.misuse;
        return -1;
    }
    ++s.writeAttempts;
    ++dev->writesInFlight;
    if (dev->readsInFlight > 0)
        ++s.overlaps;
    const int duration = s.writeDurationMs;
    if (duration > 0) {
        // The transfer takes a while; other calls may come meanwhile.
        guard.unlock();
        std::this_thread::sleep_for(std::chrono::milliseconds(duration));
        guard.lock();
    }
    int result = static_cast<int>(length);
    if ((s.writeToFail > 0 && --s.writeToFail == 0) || s.writesFail || !s.present) {
        result = -1;
    } else if (s.writes.size() < kKeptWrites) {
        s.writes.push_back(QByteArray(reinterpret_cast<const char *>(data), static_cast<int>(length)));
    }
    s.freesErrorString(dev);
    dev->errorString = result == -1;
    --dev->writesInFlight;
    return result;
}

int hid_read_timeout(hid_device *dev, unsigned char *data, size_t length, int milliseconds)
{
    State &s = state();
    std::unique_lock<std::mutex> guard(s.lock);
    if (!s.knownOpen(dev)) {
        ++s.misuse;
        return -1;
    }
    ++s.readCount;
    s.reads.push_back({length, milliseconds});
    if (s.reads.size() > kKeptReads)
        s.reads.pop_front();
    ++dev->readsInFlight;
    if (dev->writesInFlight > 0)
        ++s.overlaps;
    s.freesErrorString(dev);
    dev->errorString = false;
    const auto finish = [&s, dev](int result) {
        if (result == -1) {
            s.freesErrorString(dev);
            dev->errorString = true;
        }
        --dev->readsInFlight;
        return result;
    };

    if (s.readsFail && s.failedReadDurationMs > 0)
        s.changed.wait_for(guard, std::chrono::milliseconds(s.failedReadDurationMs), [&s] { return !s.present; });
    const auto ready = [&s] { return !s.input.empty() || !s.present || s.readsFail; };
    s.changed.wait_for(guard, std::chrono::milliseconds(std::max(milliseconds, 0)), ready);
    if (!dev->open) {
        ++s.misuse; // closed while the read was waiting
        return finish(-1);
    }
    if (!s.present || s.readsFail)
        return finish(-1);
    if (s.input.empty())
        return finish(0); // time-out
    const QByteArray report = s.input.front();
    s.input.pop_front();
    const size_t count = std::min(length, static_cast<size_t>(report.size()));
    std::memcpy(data, report.constData(), count);
    return finish(static_cast<int>(count));
}

} // extern "C"
