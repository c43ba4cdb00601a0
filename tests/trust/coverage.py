#!/usr/bin/env python3
"""Prints by room what part of the lines and branches of qvx/ ran, and compares it with not_covered.txt.

    coverage.py COVERAGE.JSON [--refresh]

COVERAGE.JSON is what llvm-cov exports. A condition has two branches, the values it may have, and a label of a switch has one;
what is part of && or || is a condition of its own. Instances of a template are one: what ran in any of them ran. Conditions that
are settled when compiling have no branches, nor has what the source does not spell out: the end of a loop over a range, a value
that no label of a switch names, what a macro holds.

The list has a line for each source line that did not run, and each branch of a line that did: the path, the text of the line, of
a branch the condition and the value it never had, and behind " # " the reason. Fails when something did not run that is not listed
or has no reason.
"""

import bisect
import collections
import json
import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).resolve().parents[2]
LIST = pathlib.Path(__file__).with_name("not_covered.txt")
HEADING = ("# What the tests do not reach: source lines, and the values that conditions of other lines never have # why.\n"
           "# scripts/coverage.sh compares it and, with --refresh, writes it anew.\n")


class Room:
    def __init__(self):
        self.lines = self.lines_run = self.branches = self.branches_run = 0

    def add(self, other):
        for field in vars(self):
            setattr(self, field, getattr(self, field) + getattr(other, field))


def room_of(path):
    return "/".join(pathlib.PurePath(path).parts[1:-1]) or "qvx.h"


class Counts:
    """How often what stands at a place ran, from the places where that changes."""

    def __init__(self, segments):
        self.segments = segments
        self.starts = [segment[:2] for segment in segments]

    def at(self, line, column):
        """None where no code is."""
        index = bisect.bisect_right(self.starts, [line, column]) - 1
        _, _, count, has_count, *_ = self.segments[index] if index >= 0 else (0, 0, 0, False)
        return count if has_count else None

    def lines(self, source):
        """Of each line that has a word of code the most that any part of it ran, by number."""
        parts = collections.defaultdict(list)
        for line, column, count, has_count, _, is_gap in self.segments:
            if has_count and not is_gap:
                parts[line].append((column, count))
        counts = {}
        for number, text in enumerate(source, 1):
            code = re.match(r"(?!\s*//)\W*\b(.*\w)", text)
            first = self.at(number, code.start(1) + 1) if code else None
            if first is not None:
                counts[number] = max([first, *(count for column, count in parts[number] if code.start(1) < column <= code.end(1))])
        return counts


def text_of(source, place):
    first, start, last, end = place
    lines = source[first - 1:last]
    lines[-1] = lines[-1][:end - 1]
    lines[0] = lines[0][start - 1:]
    return " ".join(line.strip() for line in lines)


def branches(file, source, counts):
    """Of each branch the number of its line, what it is called, and how often it ran."""
    places = collections.defaultdict(lambda: [0, 0])
    for first, start, last, end, true, false, *_ in file["branches"]:
        places[first, start, last, end][0] += true
        places[first, start, last, end][1] += false
    for place, (true, false) in sorted(places.items()):
        line, text = source[place[0] - 1], text_of(source, place)
        is_settled = true == false == 0 and counts.at(*place[:2])
        is_hidden = line[:place[1] - 1].endswith("switch (") or text == ":" or "= default;" in line
        if is_settled or is_hidden or line.startswith("#define") or line.endswith("\\"):
            continue
        if re.match(r"(case|default)\b", text):
            yield place[0], f"{text}: never", true
        else:
            yield place[0], f"{text}: never true", true
            yield place[0], f"{text}: never false", false


def read(report):
    """The rooms by name, and of each line and branch that did not run what the list says of it, and its number."""
    rooms, missing = {}, {}
    files = json.loads(pathlib.Path(report).read_text())["data"][0]["files"]
    for file in sorted(files, key=lambda one: one["filename"]):
        path = str(pathlib.Path(file["filename"]).relative_to(ROOT))
        source = (ROOT / path).read_text().splitlines()
        room = rooms.setdefault(room_of(path), Room())
        counts = Counts(file["segments"])
        lines = counts.lines(source)
        not_run = [(number, "") for number, count in lines.items() if count == 0]
        room.lines += len(lines)
        room.lines_run += len(lines) - len(not_run)
        for number, name, count in branches(file, source, counts):
            room.branches += 1
            room.branches_run += count > 0
            if count == 0 and lines.get(number) != 0:
                not_run.append((number, f" [{name}]"))
        again = collections.Counter()
        for number, name in sorted(not_run):
            what = f"{path}: {source[number - 1].strip()}{name}"
            again[what] += 1
            missing[f"{what} ({again[what]})" if again[what] > 1 else what] = number
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
    listed = {}
    for entry in LIST.read_text().splitlines() if LIST.exists() else []:
        if entry and not entry.startswith("# "):
            what, _, reason = entry.rpartition(" # ")
            listed[what] = reason
    if "--refresh" in sys.argv:
        LIST.write_text(HEADING + "".join(f"{what} # {listed.get(what, '?')}\n" for what in missing))
        return 0
    faults = [f"not covered: line {number} of {what}" for what, number in missing.items() if what not in listed]
    faults += [f"without a reason: {what}" for what, reason in listed.items() if reason in ("", "?")]
    for what in listed.keys() - missing.keys():
        print(f"covered by now: {what}")
    print("\n".join(faults))
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
