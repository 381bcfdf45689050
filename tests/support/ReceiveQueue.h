#pragma once

#include <cstddef>
#include <vector>

#include "ProtocolData.h"

// The command module's shared receive queue, seen from a test. Every call
// takes the queue's locks the way the library does.
namespace testqueue {

std::size_t length();
// Copies of the queued records, oldest first.
std::vector<ProtocolData> records();
// Takes every queued record off the queue, oldest first, as the command module
// takes replies.
std::vector<ProtocolData> take();
bool replyFlag();
// Empties the queue and lowers the reply-arrived flag.
void reset();

} // namespace testqueue
