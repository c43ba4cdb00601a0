#!/usr/bin/env python3
"""Checks which room of qvx/ includes which.

    check_includes.py              checks the tree that the script belongs to
    check_includes.py FOLDER       checks another folder that holds a qvx/
    check_includes.py --self-test  proves that each rule can fail

A room is a folder of sources below qvx/, or qvx/ itself with the C interface. It may include itself and the rooms that
ROOMS names for it, nothing else;
a folder that ROOMS does not know is a fault. Own headers are included as "qvx/room/file.h" and must exist, and no
header includes itself by way of others.
"""

import pathlib
import re
import sys
import tempfile

# Each room with the rooms below it, lowest first.
ROOMS = {
    "support": (),
    "host": ("support",),
    "data": ("support", "host"),
    "plan": ("support", "host", "data"),
    "counters": ("support", "host", "data", "plan"),
    "data/schema": ("support", "host", "data", "plan", "counters"),
    "data/write": ("support", "host", "data", "plan", "counters", "data/schema"),
    "metrics": ("support",),
    "scan": ("support", "host", "data", "plan", "counters", "data/schema", "data/write", "metrics"),
    "columns": ("support", "host", "data", "plan", "counters", "data/schema", "data/write", "metrics", "scan"),
    "": ("support", "host", "data", "plan", "counters", "data/schema", "data/write", "metrics", "scan", "columns"),
    "reader": ("support", "host", "data", "plan", "counters", "data/schema", "data/write", "metrics", "scan"),
}

SUFFIXES = {".h", ".cc"}
INCLUDE = re.compile(r'^\s*#\s*include\s*"([^"]+)"')


def room_of(path):
    """The room of a file that is named from the top of the tree: qvx/data/schema/x.h is in data/schema."""
    return "/".join(pathlib.PurePosixPath(path).parts[1:-1])


def includes_of(file):
    """(line number, name) of every quoted include."""
    lines = file.read_text(encoding="utf-8").splitlines()
    return [(number, match[1]) for number, line in enumerate(lines, 1) if (match := INCLUDE.match(line))]


def find_cycle(graph):
    """The names along a cycle of the graph, or None."""
    done = set()

    def visit(name, trail):
        if name in trail:
            return trail[trail.index(name):] + [name]
        if name in done:
            return None
        for following in graph.get(name, ()):
            if cycle := visit(following, trail + [name]):
                return cycle
        done.add(name)
        return None

    for name in sorted(graph):
        if cycle := visit(name, []):
            return cycle
    return None


def check(top):
    """A list of faults, each one line."""
    faults = []
    graph = {}
    files = sorted(path for path in (top / "qvx").rglob("*") if path.suffix in SUFFIXES)
    for file in files:
        name = file.relative_to(top).as_posix()
        room = room_of(name)
        if room not in ROOMS:
            faults.append(f"{name}: the room '{room}' is not listed")
            continue
        graph[name] = []
        for number, included in includes_of(file):
            where = f"{name}:{number}"
            if not included.startswith("qvx/"):
                faults.append(f"{where}: '{included}' is not named from the top of the tree")
                continue
            if not (top / included).is_file():
                faults.append(f"{where}: '{included}' does not exist")
                continue
            graph[name].append(included)
            target = room_of(included)
            if target != room and target not in ROOMS[room]:
                faults.append(f"{where}: '{room}' may not include '{included}'")
    if cycle := find_cycle(graph):
        faults.append("headers include one another: " + " -> ".join(cycle))
    if not files:
        faults.append("no sources found")
    return faults


def self_test():
    def faults_of(**texts):
        with tempfile.TemporaryDirectory() as folder:
            top = pathlib.Path(folder)
            for name, text in texts.items():
                path = top / "qvx" / name.replace("__", "/")
                path = path.with_name(path.name.replace("_h", ".h"))
                path.parent.mkdir(parents=True, exist_ok=True)
                path.write_text(text)
            return check(top)

    empty = ""
    to_data = '#include "qvx/data/d.h"\n'
    assert faults_of() == ["no sources found"]
    assert faults_of(host__a_h='#include "qvx/support/s.h"\n', support__s_h=empty) == []
    assert faults_of(support__s_h=to_data, data__d_h=empty) == [
        "qvx/support/s.h:1: 'support' may not include 'qvx/data/d.h'"]
    assert faults_of(data__d_h=to_data) == ["headers include one another: qvx/data/d.h -> qvx/data/d.h"]
    assert faults_of(cellar__c_h=empty) == ["qvx/cellar/c.h: the room 'cellar' is not listed"]
    assert faults_of(data__e_h='\n#include "d.h"\n') == ["qvx/data/e.h:2: 'd.h' is not named from the top of the tree"]
    assert faults_of(data__e_h=to_data) == ["qvx/data/e.h:1: 'qvx/data/d.h' does not exist"]


def main():
    arguments = sys.argv[1:]
    if arguments == ["--self-test"]:
        self_test()
        return 0
    top = pathlib.Path(arguments[0]) if arguments else pathlib.Path(__file__).resolve().parent.parent
    faults = check(top)
    for fault in faults:
        print(fault, file=sys.stderr)
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
