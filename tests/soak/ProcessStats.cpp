#include "ProcessStats.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <map>
#include <set>
#include <string>
#include <unistd.h>

#ifdef __GLIBC__
#include <malloc.h>
#endif
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
// The sanitizer runtimes' allocator counts what the program holds; GCC ships
// no header for it.
extern "C" size_t __sanitizer_get_current_allocated_bytes();
// Hands the sanitizer allocator's free memory back, where the runtime has it.
extern "C" __attribute__((weak)) void __sanitizer_purge_allocator();
#endif

namespace soak {

namespace {
// Entries of a /proc directory, less "." and "..".
template <typename Counts>
int countEntries(const char *path, Counts counts)
{
    DIR *dir = ::opendir(path);
    if (!dir)
        return -1;
    int count = 0;
    for (int i = 0; i < 1000000; ++i) {
        const dirent *entry = ::readdir(dir);
        if (!entry)
            break;
        if (std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0 && counts(dir, entry))
            ++count;
    }
    ::closedir(dir);
    return count;
}

// Whether the entry of /proc/self/fd is the descriptor that lists the folder.
bool listingItself(DIR *dir, const dirent *entry)
{
    return std::atoi(entry->d_name) == ::dirfd(dir);
}

// The Unix sockets of the process's network namespace, "socket:[inode]" to
// the path each is bound to (empty for one bound to none), from
// /proc/net/unix, whose lines end in the inode and, for a bound socket, its path.
std::map<std::string, std::string> unixSocketPaths()
{
    std::map<std::string, std::string> paths;
    FILE *table = std::fopen("/proc/self/net/unix", "re");
    if (!table)
        return paths;
    char line[4352];
    for (int i = 0; i < 1000000 && std::fgets(line, sizeof line, table); ++i) {
        char inode[32] = {};
        char bound[4096] = {};
        // Num RefCount Protocol Flags Type St Inode [Path]
        const int fields = std::sscanf(line, "%*s %*s %*s %*s %*s %*s %31s %4095s", inode, bound);
        if (fields >= 1 && inode[0] >= '0' && inode[0] <= '9')
            paths[std::string("socket:[") + inode + "]"] = fields == 2 ? bound : "";
    }
    std::fclose(table);
    return paths;
}
} // namespace

qint64 residentKiB()
{
    FILE *status = std::fopen("/proc/self/status", "re");
    if (!status)
        return -1;
    char line[256];
    qint64 kib = -1;
    for (int i = 0; i < 200 && std::fgets(line, sizeof line, status); ++i) {
        long long value = 0;
        if (std::sscanf(line, "VmRSS: %lld kB", &value) == 1) {
            kib = value;
            break;
        }
    }
    std::fclose(status);
    return kib;
}

int threadCount()
{
    return countEntries("/proc/self/task", [](DIR *, const dirent *) { return true; });
}

int allDescriptors()
{
    return countEntries("/proc/self/fd", [](DIR *dir, const dirent *entry) { return !listingItself(dir, entry); });
}

int openDescriptors()
{
    return int(openDescriptorTargets().size());
}

namespace {
// What kind of socket each inode of /proc/net's tables is, for a report:
// "unix PATH" (or "unix" for one bound to none), "udp", "udp6", "tcp", "tcp6".
std::map<std::string, std::string> socketKinds()
{
    std::map<std::string, std::string> kinds;
    const char *const tables[] = {"unix", "udp", "udp6", "tcp", "tcp6", "netlink"};
    for (const char *table : tables) {
        FILE *file = std::fopen((std::string("/proc/net/") + table).c_str(), "re");
        if (!file)
            continue;
        char line[4352];
        for (int i = 0; i < 100000 && std::fgets(line, sizeof line, file); ++i) {
            char inode[32] = {};
            char extra[4096] = {};
            const std::string name = table;
            int fields = 0;
            if (name == "unix")
                fields = std::sscanf(line, "%*s %*s %*s %*s %*s %*s %31s %4095s", inode, extra);
            else if (name == "netlink")
                fields = std::sscanf(line, "%*s %*s %*s %*s %*s %*s %*s %*s %*s %31s", inode);
            else
                fields = std::sscanf(line, "%*s %4095s %*s %*s %*s %*s %*s %*s %*s %31s", extra, inode);
            if (fields >= 1 && inode[0] >= '0' && inode[0] <= '9')
                kinds[std::string("socket:[") + inode + "]"] = name + (extra[0] ? std::string(" ") + extra : "");
        }
        std::fclose(file);
    }
    return kinds;
}
} // namespace

std::vector<std::string> describedDescriptors()
{
    const std::map<std::string, std::string> kinds = socketKinds();
    std::vector<std::string> out;
    for (std::string target : openDescriptorTargets()) {
        const std::size_t arrow = target.find(" -> ");
        if (arrow != std::string::npos) {
            const auto kind = kinds.find(target.substr(arrow + 4));
            if (kind != kinds.end())
                target += " (" + kind->second + ")";
        }
        out.push_back(target);
    }
    return out;
}

std::vector<std::string> openDescriptorTargets()
{
    // The emulated USB device keeps two descriptors of every device it ever
    // plugged in until the testbed goes: the device's side of the node, which
    // an unplug points at /dev/null instead of closing, and the socket that
    // answers the node's ioctls, bound under the testbed's folder
    // ($UMOCKDEV_DIR/ioctl/). Neither is counted: nothing else in the process
    // opens /dev/null or binds a socket there.
    // Under umockdev, Unix sockets bound to no path are left out too: the
    // library creates no Unix socket at all, and umockdev's preloaded library
    // connects one to the device's ioctl socket on every open of an emulated
    // node, and some of those outlive the node when it goes away around an
    // open (runs of thousands of unplugs left about one in two hundred).
    std::set<std::string> emulation;
    if (const char *testbed = std::getenv("UMOCKDEV_DIR"); testbed && *testbed) {
        const std::string ioctlFolder = std::string(testbed) + "/ioctl/";
        for (const auto &[socket, path] : unixSocketPaths()) {
            if (path.empty() || path.compare(0, ioctlFolder.size(), ioctlFolder) == 0)
                emulation.insert(socket);
        }
    }
    std::vector<std::string> targets;
    countEntries("/proc/self/fd", [&emulation, &targets](DIR *dir, const dirent *entry) {
        if (listingItself(dir, entry))
            return false;
        char link[4096] = {};
        const std::string path = std::string("/proc/self/fd/") + entry->d_name;
        const ssize_t n = ::readlink(path.c_str(), link, sizeof link - 1);
        if (n <= 0)
            return false; // closed meanwhile
        const std::string target(link, size_t(n));
        if (target == "/dev/null" || emulation.count(target) != 0)
            return false;
        targets.push_back(std::string(entry->d_name) + " -> " + target);
        return true;
    });
    return targets;
}

qint64 heapKiB()
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    return qint64(__sanitizer_get_current_allocated_bytes() / 1024);
#elif defined(__GLIBC__) && (__GLIBC__ > 2 || __GLIBC_MINOR__ >= 33)
    const struct mallinfo2 info = ::mallinfo2();
    return qint64((info.uordblks + info.hblkhd) / 1024);
#else
    return -1;
#endif
}

void releaseFreeMemory()
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    if (__sanitizer_purge_allocator)
        __sanitizer_purge_allocator();
#elif defined(__GLIBC__)
    ::malloc_trim(0);
#endif
}

} // namespace soak
