#!/usr/bin/env python3
"""Prints by room what part of the lines and branches of qvx/ ran, and compares it with not_covered.txt.

    coverage.py COVERAGE.JSON [--refresh]

COVERAGE.JSON is what gcovr writes. The list has a line for each source line that did not run: its path and text, and behind " # "
the reason; and for each room "branches in", its name and how many of its branches did not run. Fails when a line did not run that
is not listed or has no reason, or when more branches of a room did not.
"""

import json
import pathlib
import sys

ROOT = pathlib.Path(__file__).resolve().parents[2]
LIST = pathlib.Path(__file__).with_name("not_covered.txt")
HEADING = ("# What the tests do not reach: source lines # why; and how many branches of a room. scripts/coverage.sh compares it and,\n"
           "# with --refresh, writes it anew.\n")
BRANCHES = "branches in "
# Code that is compiled in once for each kind of value has hundreds of branches a line, and of each copy one way runs.
MOST_BRANCHES = 64


def room_of(path):
    return "/".join(pathlib.PurePath(path).parts[1:-1]) or "qvx.h"


class Room:
    def __init__(self):
        self.lines = self.lines_run = self.branches = self.branches_run = 0

    def add(self, other):
        for field in vars(self):
            setattr(self, field, getattr(self, field) + getattr(other, field))


def read(report):
    """The rooms by name, and of each line that did not run what the list says of it, and its number."""
    rooms, missing = {}, {}
    for file in json.loads(pathlib.Path(report).read_text())["files"]:
        path = file["file"]
        source = (ROOT / path).read_text().splitlines()
        room = rooms.setdefault(room_of(path), Room())
        for line in file["lines"]:
            if line.get("gcovr/noncode"):
                continue
            room.lines += 1
            room.lines_run += line["count"] > 0
            counts = [branch["count"] for branch in line.get("branches", ())]
            if len(counts) <= MOST_BRANCHES:
                room.branches += len(counts)
                room.branches_run += sum(count > 0 for count in counts)
            if line["count"] == 0:
                what = f"{path}: {source[line['line_number'] - 1].strip()}"
                again = sum(1 for one in missing if one == what or one.startswith(what + " ("))
                missing[f"{what} ({again + 1})" if again else what] = line["line_number"]
    return dict(sorted(rooms.items())), missing


def percent(run, of):
    return f"{100 * run / of:.1f}%" if of else "-"


def print_table(rooms):
    total = Room()
    for room in rooms.values():
        total.add(room)
    print("| room             |   lines |    run | branches |    run |\n|------------------|--------:|-------:|---------:|-------:|")
    for name, room in [*rooms.items(), ("all", total)]:
        print(f"| {name:16} | {room.lines:7,} | {percent(room.lines_run, room.lines):>6} | {room.branches:8,} "
              f"| {percent(room.branches_run, room.branches):>6} |")


def main():
    rooms, missing = read(sys.argv[1])
    print_table(rooms)
    not_run = {name: room.branches - room.branches_run for name, room in rooms.items()}
    listed, allowed = {}, {}
    for entry in LIST.read_text().splitlines() if LIST.exists() else []:
        what, _, reason = entry.partition(" # ")
        if entry.startswith(BRANCHES):
            name, _, number = entry.removeprefix(BRANCHES).partition(": ")
            allowed[name] = int(number)
        elif entry and not entry.startswith("# "):
            listed[what] = reason
    if "--refresh" in sys.argv:
        LIST.write_text(HEADING + "".join(f"{what} # {listed.get(what, '?')}\n" for what in missing) +
                        "".join(f"{BRANCHES}{name}: {number}\n" for name, number in not_run.items()))
        return 0
    faults = [f"not covered: line {number} of {what}" for what, number in missing.items() if what not in listed]
    faults += [f"without a reason: {what}" for what, reason in listed.items() if reason in ("", "?")]
    faults += [f"{name}: {number} branches did not run, {allowed.get(name, 0)} are listed"
               for name, number in not_run.items() if number > allowed.get(name, 0)]
    for what in listed.keys() - missing.keys():
        print(f"covered by now: {what}")
    print("\n".join(faults))
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
