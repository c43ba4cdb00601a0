#!/usr/bin/env python3
"""Instructions per value by the shape of the data, as NDJSON: the table of docs/performance.md.

    shapes.py --bin build/release/qvx_read

A value is a number of the output, or 16 characters of text. What opening the file and reading the schema cost is left out: the difference of two
files that have blocks of the same kind in another number is counted.
"""

import argparse
import json
import os
import pathlib
import statistics
import sys

HERE = pathlib.Path(__file__).resolve().parent
sys.path.insert(0, str(HERE.parent / "tests" / "trust"))

from program import Folder, Run  # noqa: E402
import costs  # noqa: E402
import shapes  # noqa: E402

SMALL, LARGE = 2 * shapes.BLOCK, 6 * shapes.BLOCK


def values(node):
    if isinstance(node, (dict, list)):
        return sum(map(values, node.values() if isinstance(node, dict) else node))
    return -(-len(node) // 16) or 1 if isinstance(node, str) else 1


def measure(binary, make, size):
    """Values and instructions."""
    with Folder(make(size)) as folder:
        run = Run(binary, folder, ["-f", "ndjson", "a.bin"])
        if run.status != 0 or run.err:
            raise SystemExit(run.err.decode())
        return sum(values(json.loads(line)) for line in run.out.splitlines()), costs._instructions(binary, folder)


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--bin", required=True, type=os.path.abspath)
    options = parser.parse_args()
    rows = []
    for series, (make, counts) in shapes.SERIES.items():
        for count in counts:
            small, large = (measure(options.bin, make(count), size) for size in (SMALL, LARGE))
            rows.append((f"{series} {count:,}".replace("_", " "), (large[1] - small[1]) / (large[0] - small[0])))
    median = statistics.median(cost for _, cost in rows)
    print(f"| {'shape':28} | instructions per value | of the median |")
    print(f"|{'-' * 30}|{'-' * 23}:|{'-' * 14}:|")
    for name, cost in rows:
        print(f"| {name:28} | {cost:22.0f} | {cost / median:13.2f} |")


if __name__ == "__main__":
    main()
