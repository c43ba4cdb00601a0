#!/usr/bin/env python3
"""Compares the binary interface of the C header with that of the last release, by abidiff.

    abi_test.py CC DUMP              fails when a program that was built against that release could go wrong
    abi_test.py CC DUMP --refresh    makes the dump anew: with each release
    abi_test.py CC DUMP --self-test  proves that a change is seen

The dump is that of functions that are declared as in the header and do nothing: types of the library's inside are no
part of the interface. That the library has these functions, exported_symbols.py tells. Exits with 77 where abidiff is
not installed.
"""

import pathlib
import re
import shutil
import subprocess
import sys
import tempfile

HEADER = pathlib.Path(__file__).resolve().parents[2] / "qvx" / "qvx.h"
FUNCTION = re.compile(r"^QVX_EXPORT ([^;]*\));", re.MULTILINE)
SKIPPED = 77
# What these each break, and what they are replaced by.
BREAKING = {
    "size_t qvx_reader_table_count": "int qvx_reader_table_count",
    "QVX_EXPORT void qvx_reader_close(qvx_reader* reader);": "",
    "uint64_t offset; ": "uint32_t offset; ",
    "QVX_SAMPLE = 2 ": "QVX_SAMPLE = 3 ",
    "int qvx_reader_open(qvx_reader* reader, const char* path)":
        "int qvx_reader_open(qvx_reader* reader, const char* path, int flags)",
}


def dump(compiler, header, out):
    """Writes the dump of a header's text."""
    functions = FUNCTION.findall(header)
    if not functions:
        raise RuntimeError("no function found in the header")
    with tempfile.TemporaryDirectory() as name:
        folder = pathlib.Path(name)
        bodies = "".join(f"{function} {{ __builtin_trap(); }}\n" for function in functions)
        (folder / "qvx.c").write_text(header + bodies, encoding="utf-8")
        subprocess.run([compiler, "-std=c11", "-g", "-O0", "-w", "-fPIC", "-shared", "-nostdlib", "qvx.c", "-o", "qvx.so"],
                       cwd=folder, check=True)
        subprocess.run(["abidw", "--no-corpus-path", "--no-architecture", "--no-comp-dir-path", "--no-show-locs",
                        "--no-elf-needed", "--out-file", str(out), "qvx.so"], cwd=folder, check=True)


def difference(compiler, header, released):
    """What changed for programs that exist, as text; functions that are new change nothing for them."""
    with tempfile.TemporaryDirectory() as name:
        now = pathlib.Path(name) / "now.abi"
        dump(compiler, header, now)
        compared = subprocess.run(["abidiff", "--no-architecture", "--no-added-syms", released, now],
                                  stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False)
    return compared.stdout if compared.returncode else ""


def self_test(compiler, released):
    header = HEADER.read_text(encoding="utf-8")
    unseen = []
    for old, new in BREAKING.items():
        if old not in header:
            raise RuntimeError(f"the header has no {old!r}")
        if not difference(compiler, header.replace(old, new), released):
            unseen.append(old)
    added = difference(compiler, header + "QVX_EXPORT int qvx_added(void);\n", released)
    for change in unseen:
        print(f"not seen: {change}")
    if added:
        print(f"an added function is no break:\n{added}")
    return 1 if unseen or added else 0


def main(compiler, released, action=""):
    if shutil.which("abidiff") is None:
        print("skipped: abidiff is not installed")
        return SKIPPED
    if action == "--refresh":
        dump(compiler, HEADER.read_text(encoding="utf-8"), pathlib.Path(released).resolve())
        return 0
    if action == "--self-test":
        return self_test(compiler, released)
    changed = difference(compiler, HEADER.read_text(encoding="utf-8"), released)
    print(changed, end="")
    return 1 if changed else 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
