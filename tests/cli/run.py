#!/usr/bin/env python3
"""Runs qvx_read over the golden cases in cases/.

    run.py --bin build/debug/qvx_read              all cases
    run.py --bin build/debug/qvx_read --only REGEX the cases whose name matches
    run.py --bin build/debug/qvx_read --refresh    writes what came out as what is expected; review the difference
    run.py --make FOLDER --only NAME               writes the input files of a case to a folder, to look at them

A case is a folder with

    case.json   "why": what it is about, "args": the arguments, "inputs": the name of a function of inputs/ that makes
                the files of the working directory; and if needed "env": environment variables, "stdout": where
                standard output goes ("full", or "left": a pipe that nobody reads), "closed": standard descriptors
                that are closed at start, "memory_mib": a limit on the address space
    stdout, stderr, status    what must come out

Time stamps of log lines, pointers and the text behind "Quorvex build info: " differ from run to run or from machine to
machine, so each is replaced by a word before it is compared.
"""

import argparse
import difflib
import json
import os
import pathlib
import re
import resource
import shutil
import subprocess
import sys
import tempfile

HERE = pathlib.Path(__file__).resolve().parent
sys.path.insert(0, str(HERE))

import builders  # noqa: E402
import inputs  # noqa: E402

STREAMS = ("stdout", "stderr", "status")
STAMP = re.compile(rb"^\[\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3}\] ", re.MULTILINE)
POINTER = re.compile(rb"(schema: )0x[0-9a-f]+")
BUILD_INFO = re.compile(rb"(Quorvex build info: ).+", re.DOTALL)
TIME_LIMIT = 60


def mask_stdout(data):
    return BUILD_INFO.sub(rb"\1BUILD INFO\n", data)


def mask_stderr(data):
    return POINTER.sub(rb"\1POINTER", STAMP.sub(b"[TIME] ", data))


def make_inputs(name, folder):
    for path, content in inputs.ALL[name]().items():
        target = folder / path
        target.parent.mkdir(parents=True, exist_ok=True)
        if isinstance(content, builders.Link):
            target.symlink_to(content.target)
        elif isinstance(content, builders.Fifo):
            os.mkfifo(target)
        elif isinstance(content, builders.Folder):
            target.mkdir()
        else:
            target.write_bytes(content)


def prepare(case):
    """A function that the new process runs before the program starts."""
    def run():
        if "memory_mib" in case:
            limit = case["memory_mib"] << 20
            resource.setrlimit(resource.RLIMIT_AS, (limit, limit))
        for descriptor in case.get("closed", ()):
            os.close(descriptor)
    return run


def run_program(case, binary, folder):
    """(stdout, stderr, status), as they came."""
    environment = {"PATH": os.environ["PATH"], "TZ": "UTC", **case.get("env", {})}
    for name in ("ASAN_OPTIONS", "UBSAN_OPTIONS"):
        if name in os.environ:
            environment[name] = os.environ[name]
    arguments = {"executable": binary, "cwd": folder, "env": environment, "stdin": subprocess.DEVNULL,
                 "stderr": subprocess.PIPE, "timeout": TIME_LIMIT, "preexec_fn": prepare(case)}
    command = ["qvx_read", *case["args"]]
    where = case.get("stdout")
    if where == "full":
        with open("/dev/full", "wb") as full:
            done = subprocess.run(command, stdout=full, **arguments)
    elif where == "left":
        reading, writing = os.pipe()
        os.close(reading)
        try:
            done = subprocess.run(command, stdout=writing, **arguments)
        finally:
            os.close(writing)
    else:
        done = subprocess.run(command, stdout=subprocess.PIPE, **arguments)
    return done.stdout or b"", done.stderr, done.returncode


def run_case(case, binary):
    """What came out, masked, by the name of its sidecar."""
    scratch = pathlib.Path(tempfile.mkdtemp(prefix="qvx_cli_"))
    try:
        if "inputs" in case:
            make_inputs(case["inputs"], scratch)
        stdout, stderr, status = run_program(case, binary, scratch)
    except subprocess.TimeoutExpired:
        stdout, stderr, status = b"", b"", "no end within the time limit"
    finally:
        shutil.rmtree(scratch, ignore_errors=True)
    return {"stdout": mask_stdout(stdout), "stderr": mask_stderr(stderr), "status": f"{status}\n".encode()}


def expected(folder):
    return {stream: (folder / stream).read_bytes() if (folder / stream).exists() else b"" for stream in STREAMS}


def difference(name, stream, wanted, got):
    lines = difflib.unified_diff(wanted.decode("utf-8", "backslashreplace").splitlines(True),
                                 got.decode("utf-8", "backslashreplace").splitlines(True),
                                 f"{name}/{stream} expected", f"{name}/{stream} got")
    return "".join(line if line.endswith("\n") else line + "\n" for line in lines)


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--bin", help="the program")
    parser.add_argument("--only", default="", metavar="REGEX")
    parser.add_argument("--refresh", action="store_true")
    parser.add_argument("--unlimited", action="store_true",
                        help="leave out cases with a memory limit: the program has a sanitizer or runs in an emulator")
    parser.add_argument("--make", metavar="FOLDER", help="only write input files")
    options = parser.parse_args()
    names = [path.name for path in sorted((HERE / "cases").iterdir()) if re.search(options.only, path.name)]
    cases = {name: json.loads((HERE / "cases" / name / "case.json").read_text()) for name in names}
    if options.make:
        for name, case in cases.items():
            if "inputs" in case:
                make_inputs(case["inputs"], pathlib.Path(options.make) / name)
        return 0
    if not options.bin:
        parser.error("--bin is needed")
    binary = os.path.abspath(options.bin)
    failed = 0
    for name, case in cases.items():
        if options.unlimited and "memory_mib" in case:
            continue
        folder = HERE / "cases" / name
        got = run_case(case, binary)
        if options.refresh:
            for stream in STREAMS:
                (folder / stream).write_bytes(got[stream])
            continue
        wanted = expected(folder)
        wrong = [stream for stream in STREAMS if got[stream] != wanted[stream]]
        for stream in wrong:
            print(difference(name, stream, wanted[stream], got[stream]), end="")
        if wrong:
            print(f"FAILED {name}: {case['why']}")
            failed += 1
    if not cases:
        print("no case of that name")
    print(f"{len(cases)} cases, {failed} failed")
    return 1 if failed or not cases else 0


if __name__ == "__main__":
    sys.exit(main())
