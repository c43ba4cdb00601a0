#!/usr/bin/env python3
"""Compares what the shared library exports with the list of it.

    exported_symbols.py LIBRARY LIST            fails when they differ
    exported_symbols.py LIBRARY LIST --refresh  writes the list anew; review the difference

Inline functions and what belongs to types are left out: whether a compiler emits them is its own choice.
"""

import pathlib
import subprocess
import sys

OWN_KINDS = "TDBRA"


def exported(library):
    # Demangled, as the letters of integer types differ between processors in the mangled form.
    output = subprocess.run(["nm", "--dynamic", "--defined-only", "--demangle", library],
                            check=True, capture_output=True, text=True).stdout
    symbols = (line.split(" ", 2) for line in output.splitlines())
    return sorted({name.partition("@")[0] for _, kind, name in symbols if kind in OWN_KINDS} - {"QVX_1"})


def main(library, listed, *options):
    listed = pathlib.Path(listed)
    found = exported(library)
    if options == ("--refresh",):
        listed.write_text("".join(name + "\n" for name in found), encoding="utf-8")
        return 0
    expected = listed.read_text(encoding="utf-8").splitlines()
    for name in sorted(set(expected) - set(found)):
        print(f"no longer exported: {name}")
    for name in sorted(set(found) - set(expected)):
        print(f"exported, but not listed: {name}")
    if found != expected:
        print(f"After an intended change: {sys.argv[0]} {library} {listed} --refresh")
    return int(found != expected)


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
