#include "StreamLink.h"

namespace comm {

StreamLink::StreamLink(const StreamReassemblyConfig &config)
    : reassembler(config, sink)
{
}

void StreamLink::clearBuffers()
{
    reassembler.clear();
    spare1.clear();
    spare2.clear();
}

} // namespace comm
