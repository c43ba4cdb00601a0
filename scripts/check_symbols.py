#!/usr/bin/env python3
"""Checks what a built library asks of the system.

    check_symbols.py --nm NM LIBRARY...

A library must not end the program that it is part of, so it calls nothing that does. And it keeps nothing in a thread
that would have to be destroyed at its end: when memory is short, the system ends the process instead of taking note of
such an object.
"""

import argparse
import subprocess
import sys

FORBIDDEN = {
    "__cxa_thread_atexit": "an object of a thread with a destructor: whoever needs it should own it",
    "exit": "ends the program",
    "_exit": "ends the program",
    "quick_exit": "ends the program",
}


def undefined_symbols(nm, library):
    """(object file, symbol) of everything that the library takes from elsewhere."""
    text = subprocess.run([nm, "-A", "--undefined-only", library], check=True, capture_output=True, text=True).stdout
    for line in text.splitlines():
        words = line.split()
        if len(words) >= 2 and words[-2] == "U":
            yield words[0].rstrip(":"), words[-1].split("@")[0]


def main():
    parser = argparse.ArgumentParser(description="Checks what a built library asks of the system.")
    parser.add_argument("--nm", default="nm")
    parser.add_argument("libraries", nargs="+", metavar="LIBRARY")
    arguments = parser.parse_args()
    seen = 0
    faults = 0
    for library in arguments.libraries:
        for place, symbol in undefined_symbols(arguments.nm, library):
            seen += 1
            if symbol in FORBIDDEN:
                faults += 1
                print(f"{place}: {symbol}: {FORBIDDEN[symbol]}")
    if seen == 0:
        print("no symbols: nothing was checked")
    return 1 if faults or seen == 0 else 0


if __name__ == "__main__":
    sys.exit(main())
