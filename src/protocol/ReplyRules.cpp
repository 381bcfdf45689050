#include "ReplyRules.h"

namespace comm {

namespace {

bool conditionHolds(ReplyCondition condition, const ProtocolData &reply)
{
    switch (condition) {
    case ReplyCondition::Always:
        return true;
    case ReplyCondition::NoLength:
        return reply.paramBytes[4] == 0 && reply.paramBytes[5] == 0;
    case ReplyCondition::P1AndCheckZero:
        return reply.paramBytes[0] == 0 && reply.checksumByte == 0;
    }
    return false;
}

bool matches(const ReplyRule &rule, const ProtocolData &reply)
{
    return rule.p2 == reply.paramBytes[1] && (rule.p3 == kAnyP3 || rule.p3 == reply.paramBytes[2])
           && conditionHolds(rule.condition, reply);
}

} // namespace

const ReplyRule &replyRule(const ProtocolData &reply)
{
    for (const ReplyRule &rule : kReplyRules) {
        if (matches(rule, reply))
            return rule;
    }
    return kUnlistedReply;
}

ReplyAction replyAction(const ProtocolData &reply)
{
    return replyRule(reply).datagram;
}

int fixedBlockPayload(const ProtocolData &heldReply)
{
    return replyRule(heldReply).datagramPayload;
}

bool announcesBlock(const ProtocolData &record)
{
    return replyRule(record).stream == StreamAction::TakeBlock;
}

} // namespace comm
