#!/usr/bin/env python3
"""The libcomm dissector on captures this test writes itself: every row of
the library's reply dispatch, every rejection, the block rules on the network
link, commands in pieces, and the serial and USB streams."""

import argparse
import os
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import wirecap  # noqa: E402

LIBRARY = ("127.0.0.1", 40000)
DEVICE = ("127.0.0.1", 5000)

FIELDS = ["libcomm.kind", "libcomm.cmd", "libcomm.param", "libcomm.checksum", "libcomm.checksum.status",
          "libcomm.action", "libcomm.reject", "libcomm.block.expected", "libcomm.block.gathered",
          "libcomm.block.held_in", "libcomm.record", "libcomm.record.payload_length", "libcomm.payload.length",
          "libcomm.payload", "libcomm.piece", "libcomm.pieces", "libcomm.garbage", "libcomm.block.status",
          "libcomm.direction"]

LUA = None
WORK = None


def hexbyte(value):
    return "0x%02x" % value


def params_field(params):
    return ",".join(hexbyte(p) for p in params)


def reply(cmd, params, check=None, end=b"]"):
    """A reply datagram: "[R", 16 hex digits, one more byte."""
    if check is None:
        check = (cmd + sum(params)) % 256
    return b"[R" + ("%02x" * 8 % tuple([cmd] + list(params) + [check])).encode() + end


def command(cmd, params, payload=b""):
    check = (cmd + sum(params)) % 256
    return b"[A" + ("%02x" * 8 % tuple([cmd] + list(params) + [check])).encode() + b"]" + payload


def to_library(data):
    return wirecap.udp_packet(DEVICE[0], DEVICE[1], LIBRARY[0], LIBRARY[1], data)


def from_library(data):
    return wirecap.udp_packet(LIBRARY[0], LIBRARY[1], DEVICE[0], DEVICE[1], data)


def dissect(name, link_type, packets):
    path = os.path.join(WORK, name + ".pcap")
    wirecap.write_pcap(path, link_type, [(1700000000 + 0.001 * i, p) for i, p in enumerate(packets)])
    return wirecap.tshark_fields(LUA, path, FIELDS)


def dissect_udp(name, datagrams):
    """datagrams: bytes the library receives, or ("out", bytes) it sends."""
    packets = []
    for datagram in datagrams:
        if isinstance(datagram, tuple):
            packets.append(from_library(datagram[1]))
        else:
            packets.append(to_library(datagram))
    return dissect(name, wirecap.LINKTYPE_RAW, packets)


# Every row of the reply dispatch: (P1, P2, P3, P5, P6, action).
DISPATCH_ROWS = [
    (0, 0x8B, 0x05, 0, 0, "hold"),
    (0, 0x8B, 0x09, 0, 0, "hold"),
    (0, 0x8B, 0x01, 0, 0, "queue"),
    (0, 0x8E, 0x27, 0, 0, "hold"),
    (0, 0x8E, 0x26, 0, 0, "queue"),
    (0, 0xF1, 0x40, 0, 0, "deliver at once"),
    (0, 0xF1, 0x40, 1, 0, "hold"),
    (0, 0xF1, 0x40, 0, 1, "hold"),
    (0, 0xF1, 0x41, 0, 0, "hold"),
    (0, 0x77, 0x23, 0, 0, "hold"),
    (0, 0x77, 0x22, 0, 0, "queue"),
    (0, 0x79, 0x09, 0, 0, "deliver at once"),
    (0, 0x79, 0x0A, 0, 0, "deliver at once"),
    (0, 0x79, 0x0C, 0, 0, "deliver at once"),
    (0, 0x79, 0x12, 0, 0, "deliver at once"),
    (0, 0x79, 0x13, 0, 0, "deliver at once"),
    (0, 0x79, 0x17, 0, 0, "deliver at once"),
    (0, 0x79, 0x0B, 0, 0, "hold"),
    (0, 0x69, 0x09, 0, 0, "hold"),
    (0, 0x69, 0x08, 0, 0, "queue"),
    (1, 0x00, 0x00, 0, 0, "queue"),
    (0, 0x00, 0x05, 0, 0, "queue"),
    (0, 0x12, 0x00, 0, 0, "queue"),
]


def test_dispatch_rows():
    datagrams = []
    expected = []
    for p1, p2, p3, p5, p6, action in DISPATCH_ROWS:
        params = [p1, p2, p3, 0, p5, p6]
        datagrams.append(reply(0x21, params))
        expected.append({"libcomm.kind": "reply", "libcomm.cmd": "0x21", "libcomm.param": params_field(params),
                         "libcomm.checksum": hexbyte((0x21 + sum(params)) % 256), "libcomm.checksum.status": "good",
                         "libcomm.action": action, "libcomm.reject": ""})
    wirecap.expect_rows(dissect_udp("dispatch", datagrams), expected)


def test_zero_reply_with_zero_check_is_block_data():
    # Command 0 with P1 = P2 = 0 and a check byte of 0 reads as block data;
    # no reply is held, so the library delivers nothing.
    rows = dissect_udp("zero-reply", [reply(0x00, [0, 0, 0, 0, 0, 0])])
    wirecap.expect_rows(rows, [{"libcomm.kind": "block", "libcomm.action": "block data", "libcomm.cmd": "0x00",
                                "libcomm.checksum.status": "good", "libcomm.block.expected": "0",
                                "libcomm.block.gathered": "19", "libcomm.record": "none",
                                "libcomm.block.held_in": ""}])


def test_rejections():
    rows = dissect_udp("rejections", [
        reply(0x01, [0] * 6)[:18],
        b"[X" + reply(0x01, [0] * 6)[2:],
        reply(0x01, [0, 0, 0, 0, 0, 0], check=0x02),
        reply(0x01, [0] * 6) + b"x",
    ])
    common = {"libcomm.kind": "block", "libcomm.action": "block data", "libcomm.record": "none"}
    wirecap.expect_rows(rows, [
        dict(common, **{"libcomm.reject": "datagram.size()!=19 return", "libcomm.cmd": "",
                        "libcomm.block.gathered": "18"}),
        dict(common, **{"libcomm.reject": "no '[' 'R' ", "libcomm.cmd": ""}),
        dict(common, **{"libcomm.reject": "CHKSUM Wrong return", "libcomm.cmd": "0x01", "libcomm.checksum": "0x02",
                        "libcomm.checksum.status": "bad"}),
        dict(common, **{"libcomm.reject": "datagram.size()!=19 return", "libcomm.block.gathered": "20"}),
    ])


def test_fixed_129_rows():
    # Each waits for the announced length (P5/P6), then delivers 129 bytes.
    for p2, p3 in [(0x8B, 0x09), (0x69, 0x09), (0x77, 0x23)]:
        params = [0, p2, p3, 0, 200, 0]
        rows = dissect_udp("fixed129-%02x" % p2, [reply(0x20, params), bytes(range(150)), bytes(60)])
        wirecap.expect_rows(rows, [
            {"libcomm.kind": "reply", "libcomm.action": "hold"},
            {"libcomm.kind": "block", "libcomm.block.expected": "200", "libcomm.block.gathered": "150",
             "libcomm.block.held_in": "1", "libcomm.record": ""},
            {"libcomm.kind": "block", "libcomm.block.expected": "200", "libcomm.block.gathered": "210",
             "libcomm.block.held_in": "1", "libcomm.record": "delivered", "libcomm.record.payload_length": "129"},
        ])


def test_fixed_145_row():
    params = [0, 0x8B, 0x05, 0, 0x91, 0]
    rows = dissect_udp("fixed145", [reply(0x20, params), bytes(100), bytes(45)])
    wirecap.expect_rows(rows, [
        {"libcomm.action": "hold"},
        {"libcomm.block.expected": "145", "libcomm.block.gathered": "100", "libcomm.record": ""},
        {"libcomm.block.expected": "145", "libcomm.block.gathered": "145", "libcomm.record": "delivered",
         "libcomm.record.payload_length": "145"},
    ])


def test_fixed_row_shorter_than_fixed_length():
    # Announced 10: complete at 10 bytes, and the record has those 10 only.
    params = [0, 0x8B, 0x09, 0, 10, 0]
    rows = dissect_udp("fixed-short", [reply(0x20, params), bytes(10)])
    wirecap.expect_rows(rows, [{"libcomm.action": "hold"},
                               {"libcomm.record": "delivered", "libcomm.record.payload_length": "10"}])


def test_announced_length_row():
    params = [0, 0xF1, 0x00, 0, 0x2C, 0x01]  # 300 bytes
    block = bytes(i % 256 for i in range(310))
    rows = dissect_udp("announced", [reply(0x05, params), block])
    wirecap.expect_rows(rows, [{"libcomm.action": "hold"},
                               {"libcomm.block.expected": "300", "libcomm.block.gathered": "310",
                                "libcomm.record": "delivered", "libcomm.record.payload_length": "300"}])


def test_negative_length_delivers_nothing():
    params = [0, 0xF1, 0x00, 0, 0x00, 0x80]  # -32768
    rows = dissect_udp("negative", [reply(0x05, params), bytes(10), bytes(5)])
    wirecap.expect_rows(rows, [
        {"libcomm.action": "hold"},
        {"libcomm.block.expected": "-32768", "libcomm.block.gathered": "10", "libcomm.record": "none",
         "libcomm.block.held_in": "1"},
        # The held reply went with it: the next block has none.
        {"libcomm.block.expected": "0", "libcomm.block.gathered": "5", "libcomm.record": "none",
         "libcomm.block.held_in": ""},
    ])


def test_two_held_replies_in_a_row():
    first = [0, 0xF1, 0x00, 0, 10, 0]
    second = [0, 0xF1, 0x00, 0, 4, 0]
    rows = dissect_udp("two-held", [reply(0x05, first), reply(0x06, second), bytes(4)])
    wirecap.expect_rows(rows, [
        {"libcomm.action": "hold", "libcomm.cmd": "0x05"},
        {"libcomm.action": "hold", "libcomm.cmd": "0x06"},
        {"libcomm.block.expected": "4", "libcomm.block.held_in": "2", "libcomm.record": "delivered",
         "libcomm.record.payload_length": "4"},
    ])


def test_block_gathered_before_a_new_hold_counts():
    # Block data gathered for the first held reply stays for the second.
    first = [0, 0xF1, 0x00, 0, 10, 0]
    second = [0, 0xF1, 0x00, 0, 8, 0]
    rows = dissect_udp("hold-keeps-block", [reply(0x05, first), bytes(6), reply(0x06, second), bytes(3)])
    wirecap.expect_rows(rows, [
        {"libcomm.action": "hold"},
        {"libcomm.block.expected": "10", "libcomm.block.gathered": "6", "libcomm.record": ""},
        {"libcomm.action": "hold"},
        {"libcomm.block.expected": "8", "libcomm.block.gathered": "9", "libcomm.record": "delivered",
         "libcomm.record.payload_length": "8", "libcomm.block.held_in": "3"},
    ])


def test_block_over_many_datagrams():
    params = [0, 0x79, 0x00, 0, 0xE8, 0x03]  # 1000 bytes
    datagrams = [reply(0x07, params)] + [bytes([n]) * 200 for n in range(5)]
    expected = [{"libcomm.kind": "reply", "libcomm.action": "hold"}]
    for n in range(5):
        expected.append({"libcomm.kind": "block", "libcomm.block.expected": "1000",
                         "libcomm.block.gathered": str(200 * (n + 1)), "libcomm.block.held_in": "1",
                         "libcomm.record": "delivered" if n == 4 else ""})
    expected[-1]["libcomm.record.payload_length"] = "1000"
    wirecap.expect_rows(dissect_udp("many", datagrams), expected)


def test_digits_read_as_qt_reads_them():
    # "-1" reads as -1, a command byte of 0xff; " 5" as 5; "+a" as 10; "zz" as 0.
    datagram = b"[R-1 5+azz000000" + b"%02x" % ((0xFF + 5 + 10) % 256) + b"]"
    rows = dissect_udp("digits", [datagram])
    wirecap.expect_rows(rows, [{"libcomm.kind": "reply", "libcomm.cmd": "0xff",
                                "libcomm.param": "0x05,0x0a,0x00,0x00,0x00,0x00", "libcomm.checksum.status": "good",
                                "libcomm.action": "queue"}])


def test_commands_and_pieces():
    big = command(0x5A, [1, 2, 3, 4, 5, 6], bytes(i % 251 for i in range(1200)))
    pieces = [big[i:i + 540] for i in range(0, len(big), 540)]
    rows = dissect_udp("commands", [("out", command(0x5A, [1, 2, 3, 4, 5, 6]))] + [("out", p) for p in pieces])
    wirecap.expect_rows(rows, [
        {"libcomm.kind": "command", "libcomm.cmd": "0x5a", "libcomm.param": "0x01,0x02,0x03,0x04,0x05,0x06",
         "libcomm.checksum": "0x6f", "libcomm.checksum.status": "good", "libcomm.payload.length": "0"},
        {"libcomm.kind": "", "libcomm.piece": "1"},
        {"libcomm.kind": "", "libcomm.piece": "2"},
        {"libcomm.kind": "command", "libcomm.cmd": "0x5a", "libcomm.payload.length": "1200",
         "libcomm.pieces": "3", "libcomm.payload": big[19:].hex()},
    ])


def serial(direction, data):
    return wirecap.stream_record(direction, 1, data)


def test_serial_stream():
    good_block = bytes([1, 2, 3]) + bytes([6])
    bad_block = bytes([1, 2, 3]) + bytes([7])
    frames_read = [
        b"junk[R01000000",                         # garbage, then half a frame
        b"00000001]xx[Q[R0100000000000002]",       # rest of it; garbage; a frame with a wrong check byte
        reply(0x30, [0, 0x79, 0, 0, 4, 0]) + good_block[:2],   # a frame announcing a block, half of it
        good_block[2:] + reply(0x31, [0, 0x79, 0, 0, 4, 0]) + bad_block,  # the rest; a failing block
    ]
    packets = [serial(wirecap.WRITTEN, command(0x30, [0, 0x79, 0, 0, 4, 0], b"\x01\x02"))]
    packets += [serial(wirecap.READ, chunk) for chunk in frames_read]
    rows = dissect("serial", wirecap.LINKTYPE_USER0, packets)
    wirecap.expect_rows(rows, [
        {"libcomm.direction": "0", "libcomm.kind": "command", "libcomm.cmd": "0x30", "libcomm.payload.length": "2"},
        # Fewer than 19 bytes: the worker waits, even with garbage in front.
        {"libcomm.direction": "1", "libcomm.kind": "", "libcomm.garbage": ""},
        {"libcomm.kind": "reply,reply", "libcomm.cmd": "0x01,0x01", "libcomm.garbage": "6a756e6b,7878,5b,51",
         "libcomm.checksum.status": "good,bad", "libcomm.action": "queue",
         "libcomm.reject": "PortSerial::getArrayData   dataStr==0100000000000002"},
        # The rejected frame lost its "[" only: the rest is skipped once a frame follows.
        {"libcomm.kind": "reply", "libcomm.cmd": "0x30", "libcomm.block.expected": "4",
         "libcomm.garbage": b"R0100000000000002]".hex()},
        {"libcomm.kind": "block,reply,block", "libcomm.cmd": "0x31", "libcomm.block.expected": "4,4,4",
         "libcomm.block.status": "complete,check byte wrong", "libcomm.record": "delivered,none",
         "libcomm.record.payload_length": "4", "libcomm.block.held_in": "4,5",
         "libcomm.reject": "CheckBlock default:"},
    ])


def test_serial_block_that_comes_too_late():
    path = os.path.join(WORK, "serial-late.pcap")
    wirecap.write_pcap(path, wirecap.LINKTYPE_USER0, [
        (1700000000.0, serial(wirecap.READ, reply(0x30, [0, 0xE1, 0, 0, 2, 0]))),
        (1700000001.0, serial(wirecap.READ, b"\x05\x05")),
    ])
    rows = wirecap.tshark_fields(LUA, path, FIELDS)
    wirecap.expect_rows(rows, [
        {"libcomm.kind": "reply", "libcomm.block.expected": "2"},
        # The worker gave up: the block's bytes stay and are skipped as garbage later.
        {"libcomm.kind": "block", "libcomm.block.status": "incomplete", "libcomm.record": "none",
         "libcomm.reject": "CheckBlock default:"},
    ])


def usb(direction, data):
    return wirecap.stream_record(direction, 2, data)


def test_usb_reports():
    output = b"\x00" + command(0x03, [0] * 6)
    output += bytes(65 - len(output))
    two_frames = reply(0x03, [0] * 6) + reply(0x04, [0, 0x79, 0, 0, 3, 0])
    rows = dissect("usb", wirecap.LINKTYPE_USER1, [
        usb(wirecap.WRITTEN, output),
        usb(wirecap.READ, two_frames + bytes(64 - len(two_frames))),
        usb(wirecap.READ, b"[R0500000000" + bytes(52)),
        usb(wirecap.READ, b"[R0500000000000006]" + bytes(45)),
        usb(wirecap.READ, b"[R0500000000000005]" + bytes(45)),
    ])
    wirecap.expect_rows(rows, [
        {"libcomm.direction": "0", "libcomm.kind": "command", "libcomm.cmd": "0x03", "libcomm.payload.length": "0"},
        # No blocks on USB: a frame announcing one is queued like any other.
        {"libcomm.kind": "reply,reply", "libcomm.cmd": "0x03,0x04", "libcomm.action": "queue,queue"},
        # A frame cut short by the padding has no "]": skipped as garbage.
        {"libcomm.kind": "", "libcomm.garbage": "5b," + (b"R0500000000" + bytes(52)).hex()},
        {"libcomm.kind": "reply", "libcomm.checksum.status": "bad",
         "libcomm.reject": "PortUSB::getArrayData   dataStr==0500000000000006"},
        {"libcomm.kind": "reply", "libcomm.cmd": "0x05", "libcomm.action": "queue"},
    ])


def main():
    global LUA, WORK
    parser = argparse.ArgumentParser()
    parser.add_argument("--lua", required=True)
    arguments = parser.parse_args()
    LUA = arguments.lua
    wirecap.skip_without_tshark()
    WORK = wirecap.scratch_dir("dissector")
    tests = [(name, function) for name, function in globals().items() if name.startswith("test_")]
    wirecap.run_tests(tests)


if __name__ == "__main__":
    main()
