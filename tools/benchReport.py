#!/usr/bin/env python3
"""Runs the benchmarks and prints, for each row, the work beside its floor and their ratio.

Work and floor run interleaved at random in one process, many times over, and in several processes,
whose addresses lie differently. What counts is the least CPU time of each: whatever else the
machine does can only add to it. A repetition in which several threads had to take turns on a busy
machine says nothing about threads that run at once, and is left out.

Threads that wait for each other are another matter: there the time that passes counts, and the
median of all repetitions, since the kernel's wake-ups vary in both directions.
"""

import argparse
import json
import os
import statistics
import subprocess
import sys
from typing import NamedTuple, Optional


class Row(NamedTuple):
    key: str  # the benchmarks are named key/work and key/floor
    work: str
    floor: str
    reach: Optional[float]  # the ratio that is to be reached; None: shown for comparison only


EMPTY_CALL = "an empty call into a shared library"
MESSAGE_ALONE = "ready prefix + vsnprintf of the message"
SIZES = (16, 64, 256, 1024, 4096, 65536, 1048576)
PLAIN_BLOCK = "malloc + memset + free"
DEQUE = "deque, mutex, condition variable"
FUTEX = "futex ping-pong"
PLAIN_STORE = "plain store"
PLAIN_COPY = "new + memcpy + delete"
STRING = "std::string"
SWAPPED_LOAD = "byte-swapped load"
LEVELS = (("silenced", "silenced", True), ("default", "all levels", False))

ROWS = (
    Row("SuppressedLine.outside", "suppressed line, from outside", EMPTY_CALL, 1.1),
    Row("SuppressedLine.inside", "suppressed line, inside the library", EMPTY_CALL, 0.3),
    Row("PrintedLine.text", "printed line, message of texts", MESSAGE_ALONE, 1.6),
    Row("PrintedLine.numbers", "printed line, message with numbers", MESSAGE_ALONE, 1.6),
    Row("TwoThreads.text", "message of texts, 2 threads at once", "1 thread", 1.05),
    Row("TwoThreads.numbers", "message with numbers, 2 threads at once", "1 thread", 1.05),
    Row("TwoThreads.machine", "vsnprintf alone, 2 threads at once", "1 thread", None),
    Row("QueuedText.byHand", "text queued, for its caller", "2 malloc + memcpy + lock", None),
    Row("QueuedText.direct", "text queued, for its caller", "handed on at once", None),
    Row("Identification.marshalled", "identification marshalled", "stored by hand", 1.3),
    Row("Identification.readBack", "identification read back", "read by hand", 2.0),
) + tuple(
    Row(f"GuardedAllocation.{size}", f"guarded block of {size} bytes", PLAIN_BLOCK, 1.15)
    for size in SIZES
) + (
    Row("GuardedAllocation.1024.sameRequest", "guarded block of 1024 bytes",
        PLAIN_BLOCK + " of 1040", None),
    Row("QueuePair", "item put and got", "malloc + free of a node", 1.3),
    Row("QueuePair.list", "item put and got", "std::list", None),
    Row("QueuePair.tailq", "item put and got", "TAILQ, malloc + free", None),
) + tuple(
    row
    for size in (10, 100, 1000)
    for row in (
        Row(f"ListFind.{size}", f"last of {size} elements found", "a bare walk", 1.05),
        Row(f"ListFind.{size}.list", f"last of {size} elements found", "std::list", None),
        Row(f"ListFind.{size}.tailq", f"last of {size} elements found", "TAILQ", None),
    )
) + tuple(
    row
    for key, level, has_goals in LEVELS
    for row in (
        Row(f"Stream.1.{key}", f"posted and dispatched, {level}", DEQUE,
            1.25 if has_goals else None),
        Row(f"Stream.2.{key}", f"the same from 2 senders, {level}", DEQUE, None),
        Row(f"RoundTrip.{key}", f"round trip, {level}", FUTEX, 1.3 if has_goals else None),
        Row(f"RoundTrip.{key}.deque", f"round trip, {level}", DEQUE, None),
        Row(f"SynchronousSend.{key}", f"synchronous send, {level}", FUTEX,
            1.5 if has_goals else None),
        Row(f"SynchronousSend.{key}.deque", f"synchronous send, {level}", DEQUE, None),
    )
) + tuple(
    row
    for size in (1, 16, 256)
    for work in (f"{size} reserved {'byte' if size == 1 else 'bytes'} appended",)
    for row in (
        Row(f"ByteArrayAppend.{size}", work, PLAIN_STORE, 1.5),
        Row(f"ByteArrayAppend.{size}.string", work, STRING, None),
    )
) + (
    Row("ByteArrayAppend.16.growing", "16 bytes appended, nothing reserved", STRING, None),
) + tuple(
    row
    for key, verb, reach in (("Copy", "copied", 1.1), ("Slice", "sliced out", 1.2))
    for size in (16, 256, 4096)
    for row in (
        Row(f"ByteArray{key}.{size}", f"{size} bytes {verb}", PLAIN_COPY, reach),
        Row(f"ByteArray{key}.{size}.string", f"{size} bytes {verb}", STRING, None),
    )
) + tuple(
    Row(f"Base64.{size}.{key}", f"Base64 of {size} bytes", floor, 1.0)
    for size in (6, 17, 64, 1024, 65536)
    for key, floor in (("openssl", "OpenSSL"), ("glib", "GLib, with its block"))
) + tuple(
    Row(f"Decode.{width}", f"field of {width} {'byte' if width == 1 else 'bytes'} decoded",
        SWAPPED_LOAD, 1.5)
    for width in (1, 2, 4, 8)
) + (
    Row("Decode.31bits", "field of 4 bytes decoded to 31 bits", SWAPPED_LOAD, 1.5),
    Row("SecuredForm.17", "secured form of a MAC address", "OpenSSL and std::string", None),
)


REAL_TIME = "/real_time"
LEAST_SHARE = 0.9  # of a processor, for each of several threads that are to run at once


class Measured(NamedTuple):
    nanoseconds: Optional[float]  # None: never under the conditions that the row is about
    counters: dict


class RunFailed(Exception):
    pass


def ran_at_once(one):
    """True when each thread of a run had a processor to itself."""
    threads = one["threads"]
    return threads == 1 or one["cpu_time"] >= LEAST_SHARE * threads * one["real_time"]


def run_once(executable, repetitions, min_time):
    """Runs a benchmark executable; returns what it reports of each repetition."""
    command = [
        executable,
        f"--benchmark_repetitions={repetitions}",
        f"--benchmark_min_time={min_time}",
        "--benchmark_enable_random_interleaving=true",
        "--benchmark_format=json",
    ]
    try:
        result = subprocess.run(command, stdout=subprocess.PIPE, check=True)
        runs = json.loads(result.stdout)["benchmarks"]
    except (OSError, subprocess.CalledProcessError, ValueError, KeyError) as failure:
        raise RunFailed(f"{executable}: {failure}") from failure
    return [one for one in runs if one["run_type"] == "iteration"]


def run(executable, processes, repetitions, min_time):
    """What counts of several runs: name -> Measured, with times and counts per operation."""
    measured = {}
    passing = {}  # name -> time of each repetition, where the time that passes is what counts
    for _ in range(processes):
        for one in run_once(executable, repetitions, min_time):
            if one.get("error_occurred"):
                raise RunFailed(f"{one['name']}: {one['error_message']}")
            if one["time_unit"] != "ns":
                raise RunFailed(f"{one['name']}: the time is not in nanoseconds")
            name = one["run_name"].split("/threads:")[0]
            if name.endswith(REAL_TIME):
                name = name[: -len(REAL_TIME)]
                times = passing.setdefault(name, [])
                times.append(one["real_time"] / one["operations"])
                measured[name] = Measured(statistics.median(times), one)
                continue
            best = measured.setdefault(name, Measured(None, one))
            if not ran_at_once(one):
                continue
            nanoseconds = one["cpu_time"] / one["operations"]
            if best.nanoseconds is None or nanoseconds < best.nanoseconds:
                measured[name] = Measured(nanoseconds, one)

    expected = {f"{row.key}/{side}" for row in ROWS for side in ("work", "floor")}
    if expected != set(measured):
        differing = ", ".join(sorted(expected ^ set(measured)))
        raise RunFailed(f"{executable}: benchmarks and report know different rows: {differing}")
    return measured


def verdict(row, ratio):
    if row.reach is None:
        return ""
    if ratio is None:
        return "not measured"
    return "reached" if ratio <= row.reach else "missed"


def figure(number):
    return "-" if number is None else f"{number:.2f}"


def count(number):
    """A count per operation: a whole number, unless operations differ."""
    return str(round(number)) if abs(number - round(number)) < 0.005 else f"{number:.2f}"


def table(times, counts):
    lines = [("work", "floor", "work ns", "floor ns", "ratio", "reach", "verdict", "bytes",
              "allocs")]
    for row in ROWS:
        work = times[f"{row.key}/work"].nanoseconds
        floor = times[f"{row.key}/floor"].nanoseconds
        ratio = None if work is None or floor is None else work / floor
        counters = counts[f"{row.key}/work"].counters
        lines.append((
            row.work,
            row.floor,
            figure(work),
            figure(floor),
            "-" if ratio is None else f"{ratio:.3f}",  # a miss by little is still one
            "" if row.reach is None else figure(row.reach),
            verdict(row, ratio),
            count(counters["bytes"]),
            count(counters["allocations"]),
        ))
    return lines


def show(lines):
    widths = [max(len(line[column]) for line in lines) for column in range(len(lines[0]))]
    to_left = {0, 1, 6}
    lines.insert(1, tuple("-" * width for width in widths))
    for line in lines:
        cells = (
            cell.ljust(width) if column in to_left else cell.rjust(width)
            for column, (cell, width) in enumerate(zip(line, widths))
        )
        print("  ".join(cells).rstrip())


def main():
    parser = argparse.ArgumentParser(
        description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter,
        epilog="Exit code: 0; 1 with --strict unless every goal is reached; 2 when the run failed.")
    parser.add_argument("executable", help="korvane_benchmarks")
    parser.add_argument("--counting", metavar="EXECUTABLE",
                        help="korvane_benchmarks_counting; default: the one beside the executable")
    parser.add_argument("--processes", type=int, default=5, help="default: %(default)s")
    parser.add_argument("--repetitions", type=int, default=6,
                        help="of each benchmark in each process; default: %(default)s")
    parser.add_argument("--min-time", type=float, default=0.04, metavar="SECONDS",
                        help="of one repetition of one benchmark; default: %(default)s")
    parser.add_argument("--strict", action="store_true", help="fail unless every goal is reached")
    options = parser.parse_args()
    executable = os.path.abspath(options.executable)
    counting = os.path.abspath(options.counting or executable + "_counting")

    try:
        counts = run(counting, 1, 1, 0.001)
        times = run(executable, options.processes, options.repetitions, options.min_time)
    except RunFailed as failure:
        print(f"benchReport: {failure}", file=sys.stderr)
        return 2

    lines = table(times, counts)
    missed = sum(line[6] == "missed" for line in lines)
    unmeasured = sum(line[6] == "not measured" for line in lines)
    show(lines)
    print(f"\nLeast CPU time of {options.repetitions} repetitions in each of {options.processes} "
          "processes, per operation;\nfor threads that wait for each other the median of the time "
          "that passes;\nbytes and allocations of the work, per operation.\n"
          f"Goals missed: {missed}")
    if unmeasured:
        print(f"Goals not measured: {unmeasured} (no processor was free for each of the threads)")
    return 1 if options.strict and missed + unmeasured else 0


if __name__ == "__main__":
    sys.exit(main())
