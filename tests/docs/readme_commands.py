#!/usr/bin/env python3
"""Runs the command lines of the README that show their output, and knows who runs the others.

    readme_commands.py QVX_READ
"""

import pathlib
import re
import shlex
import subprocess
import sys

TOP = pathlib.Path(__file__).resolve().parents[2]

# Commands that take too long or change the system, and what runs each of them.
ELSEWHERE = {
    "./scripts/demo.sh": "scripts/test_readme.sh",
    "./scripts/test.sh": "scripts/test_readme.sh",
    "cmake --preset release && cmake --build --preset release": ".ci/run, by way of scripts/test.sh",
    "cmake --install build/release --prefix <folder>": "tests/install/install_test.cmake",
    "./python[cli]": "scripts/test_python.sh",
    "pip install ./python": "scripts/test_python.sh",
    "pkg-config --cflags --libs qvx": "tests/install/install_test.cmake",
    "qvx_read [options] data1.bin [data2.bin...]": "nothing: it is the form of all others",
}
PROGRAMS = r"(\./\S+|cmake|ctest|apt|apt-get|dpkg|pip|git|pkg-config|qvx_read|sudo) .*|\./\S+"


def blocks(text):
    return re.findall(r"^```(\w*)\n(.*?)^```$", text, re.MULTILINE | re.DOTALL)


def pattern(expected):
    """A line "..." stands for any lines."""
    return re.compile("".join(r"(?:.*\n)*" if line == "...\n" else re.escape(line)
                              for line in expected.splitlines(keepends=True)))


def main(program):
    text = (TOP / "README.md").read_text(encoding="utf-8")
    faults = []
    commands = set()
    for language, block in blocks(text):
        if language:
            continue
        for command, expected in re.findall(r"^\$ (.*)\n((?:(?!\$ ).*\n)*)", block, re.MULTILINE):
            arguments = shlex.split(command)
            if arguments[0] == "qvx":  # of the Python package, whose own tests run its commands
                continue
            assert arguments[0] == "qvx_read", command
            output = subprocess.run([program, *arguments[1:]], cwd=TOP, check=True, capture_output=True, text=True).stdout
            if not pattern(expected).fullmatch(output):
                faults.append(f"'{command}' does not print what the README shows, but\n{output[:2000]}")
        if not block.startswith("$ "):
            commands |= {line.partition("#")[0].strip() for line in block.splitlines()}
    outside = re.sub(r"^```.*?^```$", "", text, flags=re.MULTILINE | re.DOTALL)
    spans = (re.sub(r"\s+", " ", span) for span in re.findall(r"`([^`]+)`", outside))
    commands |= {span for span in spans if re.fullmatch(PROGRAMS, span)}
    commands.discard("")
    faults += [f"no test runs '{command}'" for command in sorted(commands - set(ELSEWHERE))]
    faults += [f"the README does not have '{command}' any more" for command in sorted(set(ELSEWHERE) - commands)]
    print("\n".join(faults))
    return int(bool(faults))


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
