#!/usr/bin/python3
"""Compares the virtual tables of two abi-dumper dumps of libComm_Module.

abi-compliance-checker does not see a virtual function that the library
never emits as an exported symbol (one defined inline in a header, say),
although it moves every later slot of the table. A program built against the
old headers calls through those slots, so any change to the table of a class
the old dump has (a slot added, removed, moved or pointing elsewhere) is a
break of the binary interface.

    abi-vtables.py OLD_DUMP NEW_DUMP

Exits 0 when every table of the old dump is unchanged, 1 otherwise (naming
each change), 2 on a usage or read error.
"""
import re
import sys

TYPEINFO = re.compile(r"typeinfo for ([A-Za-z_][A-Za-z0-9_:]*)\)")


def tables(path):
    """Class name -> list of (offset, slot text without addresses)."""
    with open(path, encoding="utf-8", errors="replace") as dump:
        text = dump.read()
    found = {}
    for block in re.finditer(r"'VTable' => \{(.*?)\}", text, re.S):
        slots = sorted((int(offset), slot) for offset, slot in re.findall(r"'(\d+)' => '([^']*)'", block.group(1)))
        owner = None
        for _, slot in slots:
            match = TYPEINFO.search(slot)
            if match:
                owner = match.group(1)
                break
        if owner:
            # A slot the dump names only by its address (a function the
            # library keeps to itself) is compared as a slot, not by where
            # the code happens to lie.
            found[owner] = [(offset, re.sub(r"0x[0-9a-fA-F]+", "<address>", re.sub(r"\s*\[[^\]]*\]$", "", slot)))
                            for offset, slot in slots]
    return found


def main():
    if len(sys.argv) != 3:
        print("usage: abi-vtables.py OLD_DUMP NEW_DUMP", file=sys.stderr)
        return 2
    try:
        old, new = tables(sys.argv[1]), tables(sys.argv[2])
    except OSError as error:
        print("abi-vtables: %s" % error, file=sys.stderr)
        return 2
    if not old:
        print("abi-vtables: no virtual tables in %s" % sys.argv[1], file=sys.stderr)
        return 2
    changes = []
    for name, slots in sorted(old.items()):
        if name not in new:
            changes.append("%s: its virtual table is gone" % name)
        elif new[name] != slots:
            before, after = dict(slots), dict(new[name])
            for offset in sorted(set(before) | set(after)):
                if before.get(offset) != after.get(offset):
                    changes.append("%s, slot at byte %d: %s -> %s"
                                   % (name, offset, before.get(offset, "(none)"), after.get(offset, "(none)")))
    for change in changes:
        print("abi-vtables: " + change, file=sys.stderr)
    if changes:
        return 1
    print("abi-vtables: the virtual tables of %s are unchanged" % ", ".join(sorted(old)))
    return 0


if __name__ == "__main__":
    sys.exit(main())
