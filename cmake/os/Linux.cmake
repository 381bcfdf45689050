# What the library takes from Linux (docs/porting.md), included by the
# top-level CMakeLists.txt for CMAKE_SYSTEM_NAME "Linux". A port to another
# system adds a file of its own beside this one, named after that system.

# hidapi's pkg-config module: its hidraw backend, on the kernel's hidraw nodes.
set(COMM_HIDAPI_MODULE hidapi-hidraw)

# One file per OS seam header, relative to src/.
set(COMM_OS_SOURCES
    core/DetachedThread_unix.cpp       # DetachedThread.h: POSIX threads
    core/WakeEvent_linux.cpp           # WakeEvent.h: an event file descriptor
    core/SocketName_unix.cpp           # SocketName.h: a socket's own address
    transports/NativeDatagram_unix.cpp # NativeDatagram.h: BSD sockets
    transports/HidrawScan_linux.cpp    # HidrawScan.h: sysfs's hidraw class folder
)
