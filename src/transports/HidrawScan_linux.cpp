// The hidraw scan on Linux: sysfs's class folder of hidraw devices, whose
// entries are links to the devices, each with the HID device above it.
#include "HidrawScan.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

namespace comm {

namespace {

// Bus numbers in a HID_ID line that hidapi's hidraw backend lists.
constexpr unsigned kBusUsb = 0x03;
constexpr unsigned kBusBluetooth = 0x05;
constexpr unsigned kBusI2c = 0x18;
constexpr unsigned kBusSpi = 0x1C;

// Bounds a look at one folder: far more than any machine has HID devices.
constexpr int kMaxEntries = 4096;

// Where the kernel lists its hidraw devices.
const char kClassFolder[] = "/sys/class/hidraw";

// The whole of a small sysfs attribute, or false when it cannot be read (the
// device went away meanwhile).
bool readAttribute(const std::string &path, std::string *text)
{
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return false;
    char buffer[4096];
    ssize_t count = 0;
    for (int attempt = 0; attempt < 3; ++attempt) {
        count = ::read(fd, buffer, sizeof buffer);
        if (count >= 0 || errno != EINTR)
            break;
    }
    ::close(fd);
    if (count < 0)
        return false;
    text->assign(buffer, static_cast<size_t>(count));
    return true;
}

// The value of "KEY=value" among the lines of a uevent attribute.
bool ueventValue(const std::string &uevent, const char *key, std::string *value)
{
    const std::string wanted = std::string(key) + '=';
    size_t at = 0;
    while (at < uevent.size()) {
        size_t end = uevent.find('\n', at);
        if (end == std::string::npos)
            end = uevent.size();
        if (uevent.compare(at, wanted.size(), wanted) == 0) {
            value->assign(uevent, at + wanted.size(), end - at - wanted.size());
            return true;
        }
        at = end + 1;
    }
    return false;
}

struct Match
{
    // The entry's link into the device tree: hidapi lists devices in the
    // order of their paths there.
    std::string devicePath;
    std::string node;
};

// The entry's device node, when the entry is a device with these identifiers.
bool matches(const std::string &entry, unsigned short vid, unsigned short pid, Match *match)
{
    std::string hid;
    std::string hidId;
    if (!readAttribute(entry + "/device/uevent", &hid) || !ueventValue(hid, "HID_ID", &hidId))
        return false;
    unsigned bus = 0;
    unsigned vendor = 0;
    unsigned product = 0;
    if (std::sscanf(hidId.c_str(), "%x:%x:%x", &bus, &vendor, &product) != 3)
        return false;
    if (bus != kBusUsb && bus != kBusBluetooth && bus != kBusI2c && bus != kBusSpi)
        return false;
    if ((vid != 0 && vendor != vid) || (pid != 0 && product != pid))
        return false;
    std::string own;
    std::string name;
    if (!readAttribute(entry + "/uevent", &own) || !ueventValue(own, "DEVNAME", &name) || name.empty())
        return false;
    char link[4096];
    const ssize_t length = ::readlink(entry.c_str(), link, sizeof link - 1);
    match->devicePath = length > 0 ? std::string(link, static_cast<size_t>(length)) : entry;
    match->node = name.front() == '/' ? name : "/dev/" + name;
    return true;
}

} // namespace

HidrawScan scanHidraw(unsigned short vid, unsigned short pid)
{
    HidrawScan scan;
    const std::string folder = kClassFolder;
    DIR *directory = ::opendir(folder.c_str());
    if (!directory)
        return scan;
    scan.listed = true;
    std::vector<Match> found;
    for (int entries = 0; entries < kMaxEntries; ++entries) {
        const dirent *entry = ::readdir(directory);
        if (!entry)
            break;
        if (entry->d_name[0] == '.')
            continue;
        Match match;
        if (matches(folder + '/' + entry->d_name, vid, pid, &match))
            found.push_back(std::move(match));
    }
    ::closedir(directory);
    const auto first = std::min_element(found.begin(), found.end(), [](const Match &a, const Match &b) {
        return a.devicePath < b.devicePath;
    });
    if (first != found.end())
        scan.node = first->node;
    return scan;
}

} // namespace comm
