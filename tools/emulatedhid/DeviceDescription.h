#pragma once

namespace emulatedhid {

// The emulated device's sysfs and udev entries in umockdev's text form, with
// {number} (its hidraw number), {port} and {PORT} (its USB port, decimal and
// as four hex digits), {vid} {pid} (lower-case hex) and {VID} {PID} (upper-case)
// to fill in.
const char *deviceDescriptionTemplate();
// What its node answers to the ioctls hidapi makes on opening it.
const char *ioctlAnswers();

} // namespace emulatedhid
