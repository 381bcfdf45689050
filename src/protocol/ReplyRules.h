#pragma once

#include <QtGlobal>

#include "ProtocolData.h"

namespace comm {

// The rules that route a reply by its parameter bytes, for every link, in one
// table. A reply is routed by the first row that matches it; a reply no row
// matches is routed as kUnlistedReply says. Adding a rule is adding a row.
//
// How long a block is, when a row does not fix it, each link reads from P5
// (low) and P6 (high) in its own way: the network link as a signed 16-bit
// value (combineTwoByte), the serial link as an unsigned one
// (announcedBlockLength).

// What the network link does with a parsed reply datagram.
enum class ReplyAction {
    Queue,         // the sink hands the record over from a detached thread
    DeliverAtOnce, // the sink hands the record over before the next datagram is read
    Hold,          // keep the datagram until its announced block data is in
    BlockData,     // the datagram is block data for the held reply
};

// What a stream link does with a checked reply frame. Only links whose frames
// announce blocks (serial) read this; the USB link queues every frame.
enum class StreamAction {
    Queue,     // the frame is the whole reply: its record is handed over from a detached thread
    TakeBlock, // a raw block follows the frame; the record with it is handed over at once
};

// What must hold besides P2 and P3 for a row to match.
enum class ReplyCondition {
    Always,
    NoLength,       // P5 and P6 are both 0
    P1AndCheckZero, // P1 and the check byte are both 0
};

// A row's P3 that matches every value.
constexpr int kAnyP3 = -1;

// Payload sizes fixed by the reply's command group, whatever P5 and P6 say.
constexpr int kFixedBlockPayload = 129;
constexpr int kLongFixedBlockPayload = 145;

struct ReplyRule
{
    quint8 p2;
    int p3; // a byte value, or kAnyP3
    ReplyCondition condition;
    // Network link: the action, and the payload a held reply is combined with
    // (its first N bytes; 0 means the length the reply announces).
    ReplyAction datagram;
    int datagramPayload;
    // Stream links.
    StreamAction stream;
};

// clang-format off
inline constexpr ReplyRule kReplyRules[] = {
    // P2, P3, condition; the network link: action, payload; the stream links: action
    {0x8B, 0x05,   ReplyCondition::Always,          ReplyAction::Hold,          kLongFixedBlockPayload, StreamAction::Queue},
    {0x8B, 0x09,   ReplyCondition::Always,          ReplyAction::Hold,          kFixedBlockPayload,     StreamAction::Queue},
    {0x8E, 0x27,   ReplyCondition::Always,          ReplyAction::Hold,          0,                      StreamAction::TakeBlock},
    {0xF1, 0x40,   ReplyCondition::NoLength,        ReplyAction::DeliverAtOnce, 0,                      StreamAction::Queue},
    {0xF1, kAnyP3, ReplyCondition::Always,          ReplyAction::Hold,          0,                      StreamAction::Queue},
    {0x77, 0x23,   ReplyCondition::Always,          ReplyAction::Hold,          kFixedBlockPayload,     StreamAction::Queue},
    {0x79, 0x09,   ReplyCondition::Always,          ReplyAction::DeliverAtOnce, 0,                      StreamAction::TakeBlock},
    {0x79, 0x0A,   ReplyCondition::Always,          ReplyAction::DeliverAtOnce, 0,                      StreamAction::TakeBlock},
    {0x79, 0x0C,   ReplyCondition::Always,          ReplyAction::DeliverAtOnce, 0,                      StreamAction::TakeBlock},
    {0x79, 0x12,   ReplyCondition::Always,          ReplyAction::DeliverAtOnce, 0,                      StreamAction::TakeBlock},
    {0x79, 0x13,   ReplyCondition::Always,          ReplyAction::DeliverAtOnce, 0,                      StreamAction::TakeBlock},
    {0x79, 0x17,   ReplyCondition::Always,          ReplyAction::DeliverAtOnce, 0,                      StreamAction::TakeBlock},
    {0x79, kAnyP3, ReplyCondition::Always,          ReplyAction::Hold,          0,                      StreamAction::TakeBlock},
    {0x69, 0x09,   ReplyCondition::Always,          ReplyAction::Hold,          kFixedBlockPayload,     StreamAction::Queue},
    {0x00, kAnyP3, ReplyCondition::P1AndCheckZero,  ReplyAction::BlockData,     0,                      StreamAction::Queue},
    {0xE1, kAnyP3, ReplyCondition::Always,          ReplyAction::Queue,         0,                      StreamAction::TakeBlock},
};

// Every reply that no row matches.
inline constexpr ReplyRule kUnlistedReply =
    {0x00, kAnyP3, ReplyCondition::Always,          ReplyAction::Queue,         0,                      StreamAction::Queue};
// clang-format on

// The row that routes reply: the first of kReplyRules that matches it, or
// kUnlistedReply.
const ReplyRule &replyRule(const ProtocolData &reply);

// The network link's action for a parsed reply datagram.
ReplyAction replyAction(const ProtocolData &reply);

// The payload a held reply is combined with: its first N bytes, N fixed by
// its row, or 0 when the reply announces its own length.
int fixedBlockPayload(const ProtocolData &heldReply);

// Whether a serial reply frame announces a raw block after it.
bool announcesBlock(const ProtocolData &record);

} // namespace comm
