#!/usr/bin/env python3
"""What libKorvane.so costs a device that loads it, beside its budget.

Usage: footprint.py [--loaded] TARGET LIBRARY STRIP READELF

Prints one row of figures for the stripped library. With --loaded the library is loaded into a child of
this process, which reports its private dirty pages; otherwise they are counted from the file: the pages
into which the loader writes. Exit code: 0, or 1 where a figure is over its budget.
"""
import argparse
import os
import re
import subprocess
import sys
import tempfile

PAGE = 4096
SIZE_BUDGET = {"AArch64": 96 * 1024}  # elsewhere the size is for information
RELOCATION_BUDGET = 150
DIRTY_BUDGET = 2
NEEDED = re.compile(r"libtraceif\.so|libstdc\+\+\.so\.6|libgcc_s\.so\.1|libc\.so\.6|libm\.so\.6|ld-linux-.*")


def output(*command):
    environment = dict(os.environ, LC_ALL="C")
    return subprocess.run(command, check=True, capture_output=True, text=True,
                          env=environment).stdout


def relocations(readelf, library):
    """The offset of every dynamic relocation."""
    lines = output(readelf, "--relocs", "--wide", library).splitlines()
    return [int(line.split()[0], 16) for line in lines if re.match(r"[0-9a-f]{12,16}\s", line)]


def initialisers(readelf, library):
    """How many functions the loader runs by itself, but for the two that do nothing."""
    dynamic = output(readelf, "--dynamic", "--wide", library)
    count = len(re.findall(r"\((?:INIT|FINI)\)", dynamic))
    for size in re.findall(r"\((?:INIT|FINI|PREINIT)_ARRAYSZ\)\s+(\d+)", dynamic):
        count += int(size) // 8
    return count


def pages_written(offsets):
    """The pages with relocations; code writes into further ones only when it is called."""
    return len({offset // PAGE for offset in offsets})


def pages_dirty_once_loaded(readelf, library):
    """Loads the library in a child, so that nothing stays here. Counts the pages that have become
    the process's own; a page that the disk still has to receive would count as dirty too."""
    loads = re.findall(r"^\s*LOAD\s+\S+\s+(\S+)\s+\S+\s+\S+\s+(\S+)",
                       output(readelf, "--program-headers", "--wide", library), re.MULTILINE)
    length = max(int(address, 16) + int(size, 16) for address, size in loads)
    script = f"""
import ctypes
ctypes.CDLL({library!r})
begin, dirty, ours = None, 0, False
for line in open('/proc/self/smaps'):
    fields = line.split()
    if fields[0].endswith(':'):
        if ours and fields[0] == 'Anonymous:':
            dirty += int(fields[1]) * 1024
        continue
    address = int(fields[0].split('-')[0], 16)
    if begin is None and fields[-1] == {os.path.realpath(library)!r}:
        begin = address
    # By address: the zeroed part behind the file's last page has no name of its own.
    ours = begin is not None and address < begin + {length}
print(dirty // {PAGE})
"""
    environment = dict(os.environ, LD_BIND_NOW="1")
    return int(subprocess.run([sys.executable, "-c", script], check=True, capture_output=True,
                              text=True, env=environment).stdout)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--loaded", action="store_true")
    parser.add_argument("target")
    parser.add_argument("library")
    parser.add_argument("strip")
    parser.add_argument("readelf")
    options = parser.parse_args()

    with tempfile.TemporaryDirectory() as scratch:
        stripped = os.path.join(scratch, "libKorvane.so.1")
        output(options.strip, "-o", stripped, options.library)
        size = os.path.getsize(stripped)
    offsets = relocations(options.readelf, options.library)
    run_by_loader = initialisers(options.readelf, options.library)
    needed = re.findall(r"\(NEEDED\).*\[(.*)\]",
                        output(options.readelf, "--dynamic", "--wide", options.library))
    if not needed or not offsets:
        sys.exit(f"footprint: {options.library} does not look like the library")
    if options.loaded:
        dirty = pages_dirty_once_loaded(options.readelf, os.path.abspath(options.library))
        how = "measured"
    else:
        dirty, how = pages_written(offsets), "from the file"

    size_budget = SIZE_BUDGET.get(options.target)
    rows = [
        ("stripped size, bytes", size, size_budget),
        ("relocations", len(offsets), RELOCATION_BUDGET),
        ("functions that the loader runs", run_by_loader, 0),
        (f"private dirty pages after load ({how})", dirty, DIRTY_BUDGET),
        ("foreign libraries needed", len([n for n in needed if not NEEDED.fullmatch(n)]), 0),
    ]
    print(f"{options.target}:")
    over = False
    for name, value, budget in rows:
        is_over = budget is not None and value > budget
        over |= is_over
        shown = "" if budget is None else f"of {budget}"
        print(f"  {name:48} {value:7} {shown}{'  OVER BUDGET' if is_over else ''}")
    print(f"  needs {', '.join(needed)}")
    return 1 if over else 0


if __name__ == "__main__":
    sys.exit(main())
