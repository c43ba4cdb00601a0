"""What surrounds a run, the limits of its numbers, and its messages."""

import itertools
import json
import os
import pathlib
import re
import resource
import zoneinfo
from datetime import datetime

from builders import (COUNTERS, EVENTS, START, counter, counters_block, counters_schema, event_schema, event_type,
                      events_block, field, group, header, pack, schema_path, schemas_block, text, unit, usual_header,
                      usual_schemas, usual_values)
from program import HERE, Folder, Run, usual_files

ZONES = ("UTC", "Europe/Berlin", "America/New_York", "America/St_Johns", "Asia/Kolkata", "Asia/Kathmandu",
         "Australia/Lord_Howe", "Pacific/Chatham", "Pacific/Apia", "America/Sao_Paulo", "Africa/Casablanca", "Asia/Tehran")
# Changes of the hour in 2023 in several zones, and seconds around them.
HOURS = (1679792400, 1698541200, 1678604400, 1699164000, 1680361200, 1696087800, 1672531200, 1300000000)
LOCALES = ("C", "POSIX", "C.UTF-8", "de_DE.UTF-8", "tr_TR.UTF-8", "no_SUCH", "")


def _limit(what, value):
    return lambda: resource.setrlimit(what, (value, value))


def _close(descriptors):
    def close():
        for descriptor in descriptors:
            os.close(descriptor)
    return close


def run(options, kind):
    with Folder(usual_files()) as name:
        base = ["-f", "ndjson", "events.bin", "counters.bin", "pages.bin"]
        usual = Run(options.bin, name, base)
        kind.check(usual.status == 0 and usual.out.count(b"\n") == 6, f"usual run: {usual.err!r}")

        def same(what, args=base, out=usual.out, **changes):
            got = Run(options.bin, name, args, **changes)
            kind.check(got.status == 0 and got.out == out, f"{what}: status {got.status}, {got.err[-200:]!r}")

        for locale, dont_set in itertools.product(LOCALES, ("", "1")):
            same(f"locale {locale!r}", env={"LC_ALL": locale, "LANG": locale, "QVX_DONT_SET_LOCALE": dont_set})
        for mask in (0, 0o077, 0o777):
            same(f"umask {mask:o}", before=lambda: os.umask(mask))
        if not options.unlimited:
            for files in (5, 6, 8, 16):
                same(f"ulimit -n {files}", before=_limit(resource.RLIMIT_NOFILE, files))
            same("ulimit -v", before=_limit(resource.RLIMIT_AS, 96 << 20))
        same("ulimit -s", before=_limit(resource.RLIMIT_STACK, 256 << 10))
        for closed in ((0,), (2,), (0, 2)):
            same(f"closed {closed}", before=_close(closed))
        for closed in ((1,), (0, 1), (1, 2), (0, 1, 2)):
            got = Run(options.bin, name, base, before=_close(closed))
            kind.check(got.status == 1 and got.out == b"", f"closed {closed}: status {got.status}")
        many = 2000 if options.quick else 100000
        one = Run(options.bin, name, ["-f", "ndjson", "counters.bin"]).out
        os.link(os.path.join(name, "counters.bin"), os.path.join(name, "c"))
        same(f"{many} arguments", args=["-f", "ndjson", *["c"] * many], out=one * many)
        odd = b"caf\xe9\n\x1b[2J.bin"
        (pathlib.Path(os.fsdecode(os.path.join(os.fsencode(name), odd)))).write_bytes(usual_files()["counters.bin"])
        same("a name that is no UTF-8", args=["-f", "ndjson", odd], out=one)
    _times(options, kind)


def _times(options, kind):
    """Local times against another implementation of the time zones."""
    seconds = [hour + off for hour in HOURS for off in (-3601, -1, 0, 1, 1799, 3600)]
    blocks = b"".join(unit(counters_block(at * 1_000_000 + 999_999, usual_values(1, 0.5))) for at in seconds)
    with Folder({**usual_schemas(), "a.bin": usual_header() + blocks}) as name:
        for zone in ZONES:
            try:
                known = zoneinfo.ZoneInfo(zone)
            except zoneinfo.ZoneInfoNotFoundError:
                continue
            got = Run(options.bin, name, ["-f", "ndjson", "a.bin"], env={"TZ": zone})
            lines = [json.loads(line)["@timestamp"] for line in got.out.splitlines()]
            wanted = [datetime.fromtimestamp(at, known).strftime("%Y-%m-%d %H:%M:%S.999") for at in seconds]
            kind.check(len(lines) == len(wanted), f"{zone}: {len(lines)} records")
            for line, expected in zip(lines, wanted):
                kind.check(line == expected, f"{zone}: {line}, not {expected}")


# --- limits ---------------------------------------------------------------------------------------------------------

def _header_with(**changes):
    return {**usual_schemas(), "a.bin": usual_header(**changes)}


def _sets(number):
    schema = counters_schema(group(counter("c"), name="g", sets=number))
    return {schema_path(COUNTERS): text(schema),
            "a.bin": header(counters=COUNTERS) + unit(counters_block(START, pack("Q", 1)))}


def _slots(number):
    block = schemas_block([EVENTS] * number, size=16 + 16 * max(number, 15))
    return {**usual_schemas(), "a.bin": usual_header(block_size=512) + block[:512]}


def _types(number):
    types = [event_type(f"t{at}", 1, field("v", "uint8_t", 0, 1)) for at in range(number)]
    return {schema_path(EVENTS): text(event_schema(*types)), "a.bin": header(events=[EVENTS])}


# What is limited, how a number becomes files and arguments, and for which numbers the run succeeds.
LIMITS = (
    ("block size, low", lambda n: (_header_with(block_size=n), []), {15: 1, 16: 0, 17: 0}),
    ("block size, high", lambda n: (_header_with(block_size=n), []), {125829118: 0, 125829119: 0, 125829120: 1}),
    ("file size", lambda n: (_header_with(file_size=n), []), {255: 1, 256: 0, 257: 0}),
    ("minor version", lambda n: (_header_with(version=(1, n, 0)), []), {6: 0, 7: 0, 8: 1}),
    ("major version", lambda n: (_header_with(version=(n, 7, 0)), []), {0: 1, 1: 0, 2: 1}),
    ("verbosity, low", lambda n: (_header_with(), [f"-v{n}"]), {-1: 1, 0: 0, 1: 0}),
    ("verbosity, high", lambda n: (_header_with(), [f"-v{n}"]), {6: 0, 7: 0, 8: 1}),
    ("timestamp", lambda n: (_header_with(), [f"-g{n}"]), {2**64 - 2: 0, 2**64 - 1: 0, 2**64: 1}),
    ("header bytes", lambda n: ({**usual_schemas(), "a.bin": usual_header()[:n]}, []), {255: 1, 256: 0}),
    ("last block", lambda n: ({**usual_schemas(), "a.bin": usual_header() + b"QVXE"[:n]}, []), {0: 0, 1: 1, 2: 1, 3: 1, 4: 0}),
    ("values of a counters block", lambda n: (_sets(n), []), {2**20 - 1: 0, 2**20: 0, 2**20 + 1: 1}),
    ("schemas in a block", lambda n: (_slots(n), []), {13: 0, 14: 0}),
    ("types in a schema", lambda n: (_types(n), []), {253: 0, 254: 0, 255: 1}),
)


def run_limits(options, kind):
    for what, make, wanted in LIMITS:
        for number, status in wanted.items():
            files, args = make(number)
            with Folder(files) as name:
                got = Run(options.bin, name, ["-f", "ndjson", *args, "a.bin"], keep_out=False)
            kind.check(got.status == status, f"{what} {number}: status {got.status}, {got.err[-200:]!r}")


# --- messages -------------------------------------------------------------------------------------------------------

CALL = re.compile(r"\b(?:QVX_LOG|complain|file_error|format_text)\s*\(")
CONVERSION = re.compile(r"%[-+ #0]*(?:\d+|\*)?(?:\.(?:\d+|\*))?(?:hh|h|ll|l|z|j|t)?[a-zA-Z%]")
# A raw or plain literal, the macro of a conversion, white space, a letter in quotes or any other.
TOKEN = re.compile(r"""R"\((.*?)\)"|"((?:[^"\\]|\\.)*)"|(PRI[duxX]64)|(\s+)|('(?:\\.|[^'\\])'|.)""", re.DOTALL)
# Fixed parts shorter than this stand anywhere.
SHORTEST = 8


def _literals(code, at, whole_call):
    """The literals from a place on, adjacent ones joined; those of one call, or all."""
    depth, joined = 0, None
    for found in TOKEN.finditer(code, at):
        raw, literal, macro, _, other = found.groups()
        if raw is not None or literal is not None:
            joined = (joined or "") + (raw or literal or "")
        elif macro:
            joined = (joined or "") + "lu"
        elif other:
            if joined is not None:
                yield joined.replace("\\n", "\n").replace('\\"', '"')
            joined = None
            depth += {"(": 1, ")": -1}.get(other, 0)
            if whole_call and depth == 0:
                return


def _messages(root):
    """The literals of the calls that make messages."""
    for path in sorted((root / "qvx").rglob("*.cc")):
        code = re.sub(r"^\s*//.*$", "", path.read_text(), flags=re.MULTILINE)
        for found in CALL.finditer(code):
            for message in _literals(code, found.end() - 1, True):
                yield f"{path.relative_to(root)}", message


def _fixed_part(message):
    return max(CONVERSION.split(message), key=len).strip()


def run_messages(options, kind):
    """Every message's longest fixed part stands in a test or in what a golden case expects, or among those that no test
    can make appear."""
    root = HERE.parent.parent
    spelt = []
    for path in sorted((root / "tests").rglob("*")):
        if path.suffix in (".cc", ".h", ".py") and path.parent != HERE:
            code = re.sub(r"^\s*//.*$", "", path.read_text(), flags=re.MULTILINE)
            spelt += [code] if path.suffix == ".py" else _literals(code, 0, False)
        elif path.name in ("stdout", "stderr"):
            spelt.append(path.read_bytes().decode("utf-8", "replace"))
    everything = "\n".join(spelt)
    unreached = dict(line.split("\t") for line in (HERE / "unreached_messages.txt").read_text().splitlines()
                     if line and not line.startswith("#"))
    met = set()
    for path, message in _messages(root):
        part = _fixed_part(message)
        if len(part) < SHORTEST:
            continue
        is_known = part in unreached
        met.add(part)
        kind.check(part in everything or is_known, f"{path}: no test spells out {message!r}")
    for part in unreached:
        kind.check(part in met and part not in everything, f"listed as unreached, but not so: {part!r}")
