#include "Commands.h"

namespace soak {

namespace {
sim::HeaderBytes taggedHeader(quint32 tag, quint8 p2, quint8 p3, quint8 p5, quint8 p6)
{
    sim::HeaderBytes header{quint8(tag >> 16), quint8(tag), p2, p3, quint8(tag >> 8), p5, p6, 0};
    unsigned sum = 0;
    for (int i = 0; i < 7; ++i)
        sum += header[size_t(i)];
    header[7] = quint8(sum);
    return header;
}

quint8 randomByte(Rng &rng)
{
    return quint8(rng());
}

// A P2 that selects no special handling on any link: the reply is handed over
// on its own and announces no block.
quint8 plainP2(Rng &rng)
{
    return quint8(0x10 + rng() % 0x40);
}

// Mostly short blocks, now and then long ones spread over several datagrams.
int blockLength(Rng &rng)
{
    return rng() % 4 == 0 ? int(1 + rng() % 2000) : int(1 + rng() % 64);
}

// The P3 values for which a network reply with P2 0x79 is delivered at once.
const quint8 kAtOnceP3[] = {0x09, 0x0A, 0x0C, 0x12, 0x13, 0x17};

bool atOnceP3(quint8 p3)
{
    for (quint8 v : kAtOnceP3)
        if (v == p3)
            return true;
    return false;
}

// A little raw payload behind some commands.
QByteArray commandPayload(Rng &rng)
{
    if (rng() % 8 != 0)
        return QByteArray();
    return skippedPayload(int(rng() % 65), rng);
}
} // namespace

QByteArray skippedPayload(int size, Rng &rng)
{
    QByteArray payload(size, '\0');
    for (char &c : payload) {
        c = char(randomByte(rng));
        if (c == '[')
            c = '{';
    }
    return payload;
}

sim::Link linkOf(Kind kind)
{
    switch (kind) {
    case Kind::NetworkQueued:
    case Kind::NetworkAtOnce:
    case Kind::NetworkHeld:
        return sim::Link::Network;
    case Kind::SerialPlain:
    case Kind::SerialBlock:
        return sim::Link::Serial;
    case Kind::UsbPlain:
    case Kind::UsbAnnounced:
        break;
    }
    return sim::Link::Usb;
}

const char *kindName(Kind kind)
{
    switch (kind) {
    case Kind::NetworkQueued:
        return "network queued";
    case Kind::NetworkAtOnce:
        return "network at once";
    case Kind::NetworkHeld:
        return "network held with block";
    case Kind::SerialPlain:
        return "serial plain";
    case Kind::SerialBlock:
        return "serial with block";
    case Kind::UsbPlain:
        return "usb plain";
    case Kind::UsbAnnounced:
        break;
    }
    return "usb announcing a block";
}

quint32 tagOf(const ProtocolData &record)
{
    return quint32(record.commandByte) << 16 | quint32(record.paramBytes[3]) << 8 | record.paramBytes[0];
}

quint32 tagOf(const sim::HeaderBytes &header)
{
    return quint32(header[0]) << 16 | quint32(header[4]) << 8 | header[1];
}

Command makeCommand(Kind kind, quint32 tag, Rng &rng)
{
    Command command;
    command.kind = kind;
    switch (kind) {
    case Kind::NetworkQueued:
        command.header = taggedHeader(tag, plainP2(rng), randomByte(rng), randomByte(rng), randomByte(rng));
        command.payload = commandPayload(rng);
        break;
    case Kind::NetworkAtOnce:
        if (rng() % 2 == 0)
            command.header = taggedHeader(tag, 0xF1, 0x40, 0, 0);
        else
            command.header = taggedHeader(tag, 0x79, kAtOnceP3[rng() % 6], randomByte(rng), randomByte(rng));
        command.payload = commandPayload(rng);
        break;
    case Kind::NetworkHeld: {
        quint8 p3 = randomByte(rng);
        for (int i = 0; i < 16 && atOnceP3(p3); ++i)
            p3 = randomByte(rng);
        if (atOnceP3(p3))
            p3 = 0x01;
        const int length = blockLength(rng);
        command.header = taggedHeader(tag, 0x79, p3, quint8(length), quint8(length >> 8));
        break;
    }
    case Kind::SerialPlain:
        command.header = taggedHeader(tag, plainP2(rng), randomByte(rng), randomByte(rng), randomByte(rng));
        command.payload = commandPayload(rng);
        break;
    case Kind::SerialBlock: {
        const int length = blockLength(rng);
        const int which = int(rng() % 3);
        const quint8 p2 = which == 0 ? 0x79 : which == 1 ? 0xE1 : 0x8E;
        const quint8 p3 = p2 == 0x8E ? 0x27 : randomByte(rng);
        command.header = taggedHeader(tag, p2, p3, quint8(length), quint8(length >> 8));
        break;
    }
    case Kind::UsbPlain:
        command.header = taggedHeader(tag, plainP2(rng), randomByte(rng), randomByte(rng), randomByte(rng));
        break;
    case Kind::UsbAnnounced:
        command.header = taggedHeader(tag, 0x79, randomByte(rng), randomByte(rng), randomByte(rng));
        break;
    }
    return command;
}

ProtocolData commandRecord(const Command &command)
{
    ProtocolData record;
    record.commandByte = command.header[0];
    for (int i = 0; i < 6; ++i)
        record.paramBytes[i] = command.header[size_t(i + 1)];
    record.checksumByte = command.header[7];
    record.payload = command.payload;
    return record;
}

QByteArray headerText(const sim::HeaderBytes &header)
{
    return QByteArray(reinterpret_cast<const char *>(header.data()), int(header.size())).toHex(' ');
}

} // namespace soak
