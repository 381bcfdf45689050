#!/usr/bin/env python3
"""Writes the seed inputs of fuzz_serial_reassembly and fuzz_usb_reassembly
into fuzz/corpus/serial_reassembly and fuzz/corpus/usb_reassembly.

The harness reads its input through libFuzzer's FuzzedDataProvider, which
takes bytes for data from the front and numbers from the end; Seed mirrors
that so that each seed says what it means.  Run it again after changing the
harness's input layout.
"""
import os

HERE = os.path.dirname(os.path.abspath(__file__))


class Seed:
    def __init__(self):
        self.front = bytearray()
        self.back = bytearray()  # in the order the harness takes them

    def data(self, data):
        self.front += bytes(data)

    def number(self, value, width=1):
        # Taken from the end, most significant byte first.
        for shift in reversed(range(width)):
            self.back.append((value >> (8 * shift)) & 0xFF)

    def bytes(self):
        return bytes(self.front) + bytes(reversed(self.back))


def frame(fields, upper=False):
    digits = bytes(fields).hex() + "%02x" % (sum(fields) & 0xFF)
    return b"[R" + (digits.upper() if upper else digits).encode() + b"]"


def with_check_byte(body):
    return bytes(body) + bytes([sum(body) & 0xFF])


def raw(pieces):
    """A raw stream arriving in the given pieces."""
    seed = Seed()
    seed.number(0)  # raw
    for piece in pieces:
        seed.number(len(piece) - 1)  # 1..256
        seed.data(piece)
    return seed.bytes()


def frames(items, serial, piece_sizes=()):
    """A stream made of frames: items are (fields, block or None, garbage)."""
    seed = Seed()
    seed.number(1)  # made of frames
    for fields, block, garbage in items:
        seed.data(fields)
        announces = fields[2] in (0x79, 0xE1) or (fields[2] == 0x8E and fields[3] == 0x27)
        if serial and announces:
            seed.number(len(block or b""))
            if block:
                seed.data(block[:-1])  # the harness adds the check byte
        seed.number(0x0F0F, 2)  # digit case: half upper, half lower
        seed.number(len(garbage))
        seed.data(garbage)
    assert len(piece_sizes) < 7, "more would be read as another item"
    for size in piece_sizes:
        seed.number(size - 1)  # 1..64
    return seed.bytes()


def write(name, seeds):
    folder = os.path.join(HERE, "corpus", name)
    os.makedirs(folder, exist_ok=True)
    for seed_name, content in seeds.items():
        with open(os.path.join(folder, seed_name), "wb") as out:
            out.write(content)


plain = [0x01, 0, 0, 0, 0, 0, 0]
block79 = [0x42, 0x00, 0x79, 0x00, 0x00, 0x03, 0x00]
blockE1_empty = [0x43, 0x00, 0xE1, 0x00, 0x00, 0x00, 0x00]
block8E27 = [0x44, 0x00, 0x8E, 0x27, 0x00, 0x02, 0x00]
not_a_block_8E = [0x45, 0x00, 0x8E, 0x26, 0x00, 0x02, 0x00]
garbage = b"\x00\xff[A[Rzz\r\n"

serial_seeds = {
    "stray_then_frame": raw([b"xx" + frame(plain)]),
    "frame_split_in_three": raw([frame(plain)[:5], frame(plain)[5:18], frame(plain)[18:]]),
    "block_with_check_byte": raw([frame(block79) + with_check_byte([1, 2])]),
    "block_bad_check_byte": raw([frame(block79) + b"\x01\x02\x04"]),
    "block_arrives_in_pieces": raw([frame(block79), b"\x01", b"\x02", b"\x03" + frame(plain)]),
    "next_frame_taken_as_unsent_block": raw([frame(block79), frame(plain)]),
    "wrong_check_byte": raw([frame(plain)[:16] + b"02]"]),
    "bracket_without_r_and_without_end": raw([b"[x[R0100000000000001x" + frame(plain)]),
    "frames_and_garbage": frames(
        [
            (plain, None, garbage),
            (block79, with_check_byte([1, 2]), b"[R"),
            (blockE1_empty, b"", b""),
            (block8E27, with_check_byte([0x5B]), garbage),
            (not_a_block_8E, None, b"zz"),
        ],
        serial=True,
        piece_sizes=(3, 19, 1, 64),
    ),
}

usb_seeds = {
    "report_with_zero_padding": raw([frame(plain) + bytes(45)]),
    "two_frames_in_one_report": raw([frame(plain) + frame(block8E27) + bytes(26)]),
    "announcing_frame_then_its_bytes": raw([frame(block79) + b"\x01\x02\x03" + bytes(42)]),
    "wrong_check_byte": raw([frame(plain)[:16] + b"02]" + bytes(45)]),
    "frame_split_over_reports": raw([frame(plain)[:10], frame(plain)[10:] + bytes(55)]),
    "frames_and_garbage": frames(
        [
            (plain, None, garbage),
            (block79, None, bytes(45)),
            (not_a_block_8E, None, b"[R["),
        ],
        serial=False,
        piece_sizes=(64, 64, 7),
    ),
}

if __name__ == "__main__":
    write("serial_reassembly", serial_seeds)
    write("usb_reassembly", usb_seeds)
