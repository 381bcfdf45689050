"""Shared pieces of the wire tests: pcap files written by hand, tshark run on
them with the libcomm dissector, and a small test runner.

Every capture here is a file: nothing is sent anywhere."""

import os
import shutil
import struct
import subprocess
import sys
import traceback

LINKTYPE_RAW = 101
LINKTYPE_USER0 = 147  # serial line: libcomm stream header, then the bytes
LINKTYPE_USER1 = 148  # USB reports: libcomm stream header, then one report

WRITTEN = 0  # the library wrote the bytes
READ = 1     # the library read them

SKIP = 77


def _checksum(data):
    if len(data) % 2:
        data += b"\0"
    total = sum(struct.unpack("!%dH" % (len(data) // 2), data))
    while total >> 16:
        total = (total & 0xFFFF) + (total >> 16)
    return ~total & 0xFFFF


def ipv4(address):
    return bytes(int(part) for part in address.split("."))


def udp_packet(source, source_port, destination, destination_port, payload):
    """An IPv4 packet carrying one UDP datagram, with valid checksums."""
    length = 8 + len(payload)
    pseudo = ipv4(source) + ipv4(destination) + struct.pack("!BBH", 0, 17, length)
    udp = struct.pack("!HHHH", source_port, destination_port, length, 0) + payload
    check = _checksum(pseudo + udp) or 0xFFFF
    udp = udp[:6] + struct.pack("!H", check) + udp[8:]
    header = struct.pack("!BBHHHBBH4s4s", 0x45, 0, 20 + length, 0, 0x4000, 64, 17, 0, ipv4(source),
                         ipv4(destination))
    header = header[:10] + struct.pack("!H", _checksum(header)) + header[12:]
    return header + udp


def stream_record(direction, link_byte, data):
    """A packet of the serial (USER0) or USB (USER1) captures commctl writes."""
    return bytes([direction, link_byte, 0, 0]) + data


def write_pcap(path, link_type, packets):
    """packets: (time in seconds, bytes) pairs."""
    with open(path, "wb") as out:
        out.write(struct.pack("<IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, 262144, link_type))
        for seconds, data in packets:
            whole = int(seconds)
            micro = int(round((seconds - whole) * 1e6))
            out.write(struct.pack("<IIII", whole, micro, len(data), len(data)))
            out.write(data)


def tshark_reason():
    """Why tshark cannot run here, or None."""
    if shutil.which("tshark") is None:
        return "tshark is not installed (Debian package tshark: scripts/install-deps.sh installs it)"
    try:
        run = subprocess.run(["tshark", "-v"], capture_output=True, text=True, timeout=60)
    except (OSError, subprocess.TimeoutExpired) as error:
        return "tshark does not run: %s" % error
    if run.returncode != 0:
        return "tshark -v failed: %s" % run.stderr.strip()
    if "with Lua" not in run.stdout and "Lua" not in run.stdout:
        return "this tshark was built without Lua"
    return None


def tshark_fields(lua, capture, fields, extra=()):
    """One list per packet: the values of fields (occurrences joined by ',')."""
    command = ["tshark", "-X", "lua_script:" + lua, "-r", capture, "-o", "udp.try_heuristic_first:TRUE",
               "-T", "fields", "-E", "separator=/t", "-E", "occurrence=a", "-E", "aggregator=,"]
    command += list(extra)
    for field in fields:
        command += ["-e", field]
    run = subprocess.run(command, capture_output=True, text=True, timeout=120)
    errors = [line for line in run.stderr.splitlines() if line and "Running as user" not in line]
    if run.returncode != 0 or errors:
        raise AssertionError("tshark failed (%d): %s" % (run.returncode, "\n".join(errors)))
    rows = []
    for line in run.stdout.splitlines():
        values = line.split("\t")
        rows.append(dict(zip(fields, values + [""] * (len(fields) - len(values)))))
    return rows


def tshark_text(lua, capture):
    run = subprocess.run(["tshark", "-X", "lua_script:" + lua, "-r", capture, "-o", "udp.try_heuristic_first:TRUE"],
                         capture_output=True, text=True, timeout=120)
    return run.stdout


def expect_rows(rows, expected):
    """rows must have exactly len(expected) packets, each with the expected
    values (only the keys given are compared)."""
    if len(rows) != len(expected):
        raise AssertionError("%d packets, expected %d:\n%s" % (len(rows), len(expected), "\n".join(map(str, rows))))
    for number, (row, want) in enumerate(zip(rows, expected), start=1):
        for key, value in want.items():
            if row.get(key) != value:
                raise AssertionError("packet %d: %s is %r, expected %r\nwhole packet: %s"
                                     % (number, key, row.get(key), value, row))


def run_tests(tests):
    """Runs each (name, function); exits 0 when all pass, 1 otherwise."""
    failed = 0
    for name, function in tests:
        try:
            function()
            print("PASS   : %s" % name)
        except Exception:  # a failing check or an unexpected error alike
            failed += 1
            print("FAIL!  : %s" % name)
            traceback.print_exc(file=sys.stdout)
    print("Totals: %d passed, %d failed" % (len(tests) - failed, failed))
    print("%d passed, %d failed" % (len(tests) - failed, failed))
    sys.stdout.flush()
    sys.exit(1 if failed else 0)


def skip_without_tshark():
    reason = tshark_reason()
    if reason:
        print("SKIP   : %s" % reason)
        sys.exit(SKIP)


def scratch_dir(name):
    base = os.environ.get("TMPDIR", "/tmp")
    path = os.path.join(base, "libcomm-wire-%s-%d" % (name, os.getpid()))
    os.makedirs(path, exist_ok=True)
    return path
