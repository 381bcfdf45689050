#!/usr/bin/env python3
"""commctl --capture against commctl's simulator on each link (UDP on
127.0.0.1, serial on a pseudo-terminal, USB on the simulated HID device),
read back through the dissector as installed with the library: the frames
sent and the records commctl printed, exactly."""

import argparse
import json
import os
import pty
import select
import shutil
import signal
import subprocess
import sys
import time
import tty

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import wirecap  # noqa: E402

COMMCTL = None
COMMCTL_USB = None
LUA = None
WORK = None

FIELDS = ["ip.src", "udp.srcport", "ip.dst", "udp.dstport", "udp.checksum.status", "ip.checksum.status",
          "libcomm.direction", "libcomm.kind", "libcomm.cmd", "libcomm.param", "libcomm.checksum",
          "libcomm.checksum.status", "libcomm.action", "libcomm.payload.length", "libcomm.block.expected",
          "libcomm.record", "libcomm.record.payload_length", "libcomm.record.payload", "libcomm.block.data"]
CHECKSUMS = ["-o", "udp.check_checksum:TRUE", "-o", "ip.check_checksum:TRUE"]


def params_field(params):
    return ",".join("0x%02x" % p for p in params)


class Simulator:
    """commctl sim in the background; its first output line says where it is."""

    def __init__(self, link):
        self.process = subprocess.Popen([COMMCTL, "sim"] + link + ["--duration", "60000"], stdout=subprocess.PIPE,
                                        stderr=subprocess.DEVNULL, text=True)
        ready, _, _ = select.select([self.process.stdout], [], [], 20)
        self.where = self.process.stdout.readline().strip() if ready else ""

    def close(self):
        self.process.kill()
        self.process.wait(10)


def records(output):
    return [json.loads(line) for line in output.splitlines() if line.strip()]


def send(program, arguments, capture, environment=None):
    run = subprocess.run([program, "send"] + arguments + ["--json", "--capture", capture], capture_output=True,
                         text=True, timeout=60, stdin=subprocess.DEVNULL, env=environment)
    if run.returncode != 0:
        raise AssertionError("commctl exited %d: %s" % (run.returncode, run.stderr))
    return records(run.stdout)


def send_to_simulator(sim_link, name, link_option, arguments):
    """One send to a simulator of its own, with a capture: the one record
    commctl printed, the capture's path and where the simulator was."""
    sim = Simulator(sim_link)
    try:
        capture = os.path.join(WORK, name + ".pcap")
        printed = send(COMMCTL, [link_option, sim.where] + arguments + ["--wait", "1500"], capture)
    finally:
        sim.close()
    if len(printed) != 1:
        raise AssertionError("records printed: %s" % printed)
    return printed[0], capture, sim.where


def test_udp_send_and_reply():
    record, capture, where = send_to_simulator(["--udp", "127.0.0.1:0"], "udp", "--udp",
                                               ["--cmd", "0x5a", "--params", "1,2,3,4,5,6", "--payload", "a1b2"])
    port = int(where.split(":")[1])
    rows = wirecap.tshark_fields(LUA, capture, FIELDS, CHECKSUMS)
    library_port = rows[0]["udp.srcport"]
    wirecap.expect_rows(rows, [
        {"ip.src": "127.0.0.1", "ip.dst": "127.0.0.1", "udp.dstport": str(port), "udp.checksum.status": "1",
         "ip.checksum.status": "1", "libcomm.kind": "command", "libcomm.cmd": "0x5a",
         "libcomm.param": "0x01,0x02,0x03,0x04,0x05,0x06", "libcomm.checksum": "0x6f",
         "libcomm.checksum.status": "good", "libcomm.payload.length": "2"},
        {"ip.src": record["source"], "udp.srcport": str(port), "udp.dstport": library_port,
         "udp.checksum.status": "1", "libcomm.kind": "reply", "libcomm.cmd": "0x%02x" % record["cmd"],
         "libcomm.param": params_field(record["params"]), "libcomm.checksum": "0x%02x" % record["checksum"],
         "libcomm.checksum.status": "good", "libcomm.action": "queue"},
    ])
    if library_port in ("", "0"):
        raise AssertionError("the library's port is missing: %s" % rows[0])


def test_udp_reply_with_block():
    record, capture, _ = send_to_simulator(["--udp", "127.0.0.1:0"], "udp-block", "--udp",
                                           ["--cmd", "0x20", "--params", "0,0x8b,0x09,0,0x81,0"])
    if len(record["payload"]) != 2 * 129:
        raise AssertionError("record printed: %s" % record)
    rows = wirecap.tshark_fields(LUA, capture, FIELDS, CHECKSUMS)
    wirecap.expect_rows(rows, [
        {"libcomm.kind": "command", "libcomm.cmd": "0x20", "libcomm.param": "0x00,0x8b,0x09,0x00,0x81,0x00"},
        {"libcomm.kind": "reply", "libcomm.cmd": "0x20", "libcomm.action": "hold"},
        {"libcomm.kind": "block", "libcomm.block.expected": "129", "libcomm.record": "delivered",
         "libcomm.record.payload_length": "129", "libcomm.record.payload": record["payload"]},
    ])


def test_serial_send_and_block_reply():
    record, capture, _ = send_to_simulator(["--serial"], "serial", "--serial",
                                           ["--cmd", "0x30", "--params", "0,0x79,0,0,3,0"])
    rows = wirecap.tshark_fields(LUA, capture, FIELDS)
    # The reply and its block may arrive in one read or in several.
    kinds = ",".join(row["libcomm.kind"] for row in rows if row["libcomm.kind"])
    if kinds != "command,reply,block":
        raise AssertionError("kinds %r in %s" % (kinds, rows))
    wirecap.expect_rows(rows[:1], [{"libcomm.direction": "0", "libcomm.kind": "command", "libcomm.cmd": "0x30",
                                    "libcomm.param": "0x00,0x79,0x00,0x00,0x03,0x00", "libcomm.payload.length": "0"}])
    replies = [row for row in rows if "reply" in row["libcomm.kind"]]
    blocks = [row for row in rows if "block" in row["libcomm.kind"]]
    if len(replies) != 1 or len(blocks) != 1:
        raise AssertionError(rows)
    if not replies[0]["libcomm.cmd"].startswith("0x%02x" % record["cmd"]):
        raise AssertionError(replies)
    if replies[0]["libcomm.param"] != params_field(record["params"]):
        raise AssertionError(replies)
    if not blocks[0]["libcomm.record"].endswith("delivered") or record["payload"] not in blocks[0]["libcomm.block.data"]:
        raise AssertionError("%s against %s" % (blocks, record))


def test_usb_send_and_reply():
    capture = os.path.join(WORK, "usb.pcap")
    environment = dict(os.environ, SIMHID_DEVICE="0483:5750")
    printed = send(COMMCTL_USB, ["--usb", "0483:5750", "--cmd", "3", "--params", "1,2,3,4,5,6", "--wait", "1500"],
                   capture, environment)
    if len(printed) != 1:
        raise AssertionError("records printed: %s" % printed)
    record = printed[0]
    rows = wirecap.tshark_fields(LUA, capture, FIELDS)
    wirecap.expect_rows(rows, [
        {"libcomm.direction": "0", "libcomm.kind": "command", "libcomm.cmd": "0x03",
         "libcomm.param": "0x01,0x02,0x03,0x04,0x05,0x06", "libcomm.checksum": "0x18"},
        {"libcomm.direction": "1", "libcomm.kind": "reply", "libcomm.cmd": "0x%02x" % record["cmd"],
         "libcomm.param": params_field(record["params"]), "libcomm.checksum": "0x%02x" % record["checksum"],
         "libcomm.action": "queue"},
    ])


def test_interrupted_listen_leaves_a_complete_capture():
    master, slave = pty.openpty()
    tty.setraw(master)
    capture = os.path.join(WORK, "listen.pcap")
    listener = subprocess.Popen([COMMCTL, "listen", "--serial", os.ttyname(slave), "--json", "--capture", capture],
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE, stdin=subprocess.DEVNULL)
    try:
        err = b""
        deadline = time.monotonic() + 20
        while b"commctl: listening" not in err and time.monotonic() < deadline:
            ready, _, _ = select.select([listener.stderr], [], [], 0.2)
            if ready:
                err += os.read(listener.stderr.fileno(), 4096)
        if b"commctl: listening" not in err:
            raise AssertionError(err)
        os.write(master, b"junk[R0100000000000001][R0200000000000002]")
        out = b""
        deadline = time.monotonic() + 20
        while out.count(b"\n") < 2 and time.monotonic() < deadline:
            ready, _, _ = select.select([listener.stdout], [], [], 0.2)
            if ready:
                out += os.read(listener.stdout.fileno(), 4096)
        listener.send_signal(signal.SIGINT)
        listener.wait(30)
    finally:
        if listener.poll() is None:
            listener.kill()
            listener.wait(10)
        os.close(master)
        os.close(slave)
    # Ended by the signal, as an interrupted commctl always has been.
    if listener.returncode != -signal.SIGINT:
        raise AssertionError("exit status %s" % listener.returncode)
    printed = records(out.decode())
    if [r["cmd"] for r in printed] != [1, 2]:
        raise AssertionError(out)
    rows = wirecap.tshark_fields(LUA, capture, FIELDS)
    cmds = ",".join(row["libcomm.cmd"] for row in rows if row["libcomm.cmd"])
    if cmds != "0x01,0x02" or any(row["libcomm.direction"] != "1" for row in rows):
        raise AssertionError(rows)


def test_help_names_the_option():
    run = subprocess.run([COMMCTL, "--help"], capture_output=True, text=True, timeout=30)
    if run.returncode != 0 or "--capture FILE" not in run.stdout:
        raise AssertionError(run.stdout)


def test_unwritable_capture_exits_one():
    run = subprocess.run([COMMCTL, "send", "--udp", "127.0.0.1:9", "--cmd", "1", "--params", "0,0,0,0,0,0",
                          "--capture", "/nonexistent-dir/x.pcap"], capture_output=True, text=True, timeout=30)
    if run.returncode != 1 or "commctl: cannot write capture file /nonexistent-dir/x.pcap" not in run.stderr:
        raise AssertionError("%d %s" % (run.returncode, run.stderr))


def main():
    global COMMCTL, COMMCTL_USB, LUA, WORK
    parser = argparse.ArgumentParser()
    parser.add_argument("--commctl", required=True)
    parser.add_argument("--commctl-usb", required=True)
    parser.add_argument("--build-dir", help="install this build and read with the dissector it installs")
    parser.add_argument("--lua", help="read with this dissector instead (for a build that installs none)")
    parser.add_argument("--work-dir", required=True)
    arguments = parser.parse_args()
    COMMCTL, COMMCTL_USB = arguments.commctl, arguments.commctl_usb
    wirecap.skip_without_tshark()
    WORK = arguments.work_dir
    shutil.rmtree(WORK, ignore_errors=True)
    os.makedirs(WORK)
    if arguments.lua:
        LUA = arguments.lua
        tests = [(name, function) for name, function in globals().items() if name.startswith("test_")]
        wirecap.run_tests(tests)
        return
    # The dissector as installed with the library.
    prefix = os.path.join(WORK, "prefix")
    install = subprocess.run(["cmake", "--install", arguments.build_dir, "--prefix", prefix], capture_output=True,
                             text=True, timeout=240)
    if install.returncode != 0:
        print("FAIL!  : install: %s" % install.stderr)
        sys.exit(1)
    LUA = os.path.join(prefix, "share", "comm_module", "wireshark", "libcomm.lua")
    tests = [(name, function) for name, function in globals().items() if name.startswith("test_")]
    wirecap.run_tests(tests)


if __name__ == "__main__":
    main()
