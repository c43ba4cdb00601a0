#!/usr/bin/env python3
"""Compares what two builds of qvx_read print: for a change that must change nothing.

    compare.py --before BIN --after BIN [--files 2000] [--seed 1]

Both read the sample data and random files in every format; output, messages, exit status and the files that -f bin writes must be
the same to the byte. Times in messages are masked. The files of a difference are kept.
"""

import argparse
import os
import pathlib
import random
import re
import sys
import tempfile

from program import HERE, Folder, Kind, Run
import random_files

FORMATS = ("ndjson", "json", "txt", "influx", "csv", "bin")
SAMPLES = HERE.parent.parent / "examples" / "data"
LOG_TIME = re.compile(rb"^\[[-0-9]+ [:.0-9]+\]", re.M)


def written(folder):
    return {str(path.relative_to(folder)): path.read_bytes() for path in sorted(pathlib.Path(folder).rglob("*")) if path.is_file()}


def result(binary, folder, output, files, schemas):
    with tempfile.TemporaryDirectory() as target:
        run = Run(binary, folder, ["-f", output, "-s", schemas, "--output-dir", target, *files])
        err = LOG_TIME.sub(b"[time]", run.err).replace(target.encode(), b"out").replace(binary.encode(), b"qvx_read")
        return run.status, run.out, err, written(target)


def compare(options, kind, name, folder, files, schemas="schema"):
    same = True
    for output in FORMATS:
        before, after = (result(binary, folder, output, files, schemas) for binary in (options.before, options.after))
        options.statuses[before[0]] = options.statuses.get(before[0], 0) + 1
        options.bytes += len(before[1])
        kind.check(before == after, f"{name} {output}")
        same = same and before == after
    return same


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--before", required=True, type=os.path.abspath)
    parser.add_argument("--after", required=True, type=os.path.abspath)
    parser.add_argument("--files", type=int, default=2000)
    parser.add_argument("--seed", type=int, default=1)
    options = parser.parse_args()
    options.statuses, options.bytes = {}, 0
    kind = Kind("compare")
    samples = sorted(str(path) for path in SAMPLES.glob("*.bin"))
    for sample in samples:
        compare(options, kind, sample, SAMPLES, [sample])
    compare(options, kind, "all samples", SAMPLES, samples)
    for at in range(options.files):
        files = random_files.make(random.Random(f"{options.seed} {at}"))
        with Folder(files) as folder:
            if not compare(options, kind, f"file {at} of seed {options.seed}", folder, ["a.bin"]):
                kept = tempfile.mkdtemp(prefix=f"qvx_compare_{at}_")
                for path, content in files.items():
                    target = pathlib.Path(kept) / path
                    target.parent.mkdir(parents=True, exist_ok=True)
                    target.write_bytes(content)
                print(f"kept in {kept}")
    print(f"{options.bytes} bytes of output; exit statuses {options.statuses}")
    return 0 if kind.report() else 1


if __name__ == "__main__":
    sys.exit(main())
