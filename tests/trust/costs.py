"""Instructions per byte of input, counted by callgrind: no clock is asked, so a busy machine changes nothing."""

import json
import re
import shutil

import shapes
from program import HERE, Folder, Run

BOUNDS = HERE / "cost_bounds.json"
SMALL, LARGE = 1 << 14, 1 << 16
# What a change of compiler may add to the stored costs, and how much more a byte may cost in a larger file.
SLACK, GROWTH = 1.5, 1.6
# Below this many instructions a byte growth says nothing.
CHEAP = 30
FEW = 4


def _instructions(binary, folder):
    run = Run(binary, folder, ["-v0", "-f", "ndjson", "a.bin"], keep_out=False,
              wrapper=["valgrind", "--tool=callgrind", "--callgrind-out-file=/dev/null"])
    found = re.search(rb"Collected : (\d+)", run.err)
    return int(found.group(1)) if found and run.status in (0, 1) else None


def measure(binary, name):
    """Instructions a byte from nothing to SMALL, and from SMALL to LARGE; None when a run failed."""
    counts, sizes = [], []
    for size in (SMALL // 4, SMALL, LARGE):
        files = shapes.ALL[name](size)
        with Folder(files) as folder:
            counts.append(_instructions(binary, folder))
        sizes.append(sum(map(len, files.values())))
    if None in counts:
        return None
    return [(counts[at + 1] - counts[at]) / (sizes[at + 1] - sizes[at]) for at in (0, 1)]


def run(options, kind):
    if shutil.which("valgrind") is None or options.unlimited:
        return
    names = list(shapes.ALL)
    if options.quick:
        names = [names[(options.seed + 7 * at) % len(names)] for at in range(FEW)]
    bounds = json.loads(BOUNDS.read_text())
    for name in names:
        cost = measure(options.bin, name)
        if cost is None:
            kind.check(False, f"{name}: no count")
            continue
        said = f"{name}: {cost[0]:.1f}, then {cost[1]:.1f} instructions a byte, {bounds[name]:.1f} stored"
        if options.verbose:
            print(said, flush=True)
        kind.check(cost[1] <= max(CHEAP, GROWTH * cost[0]), f"grows: {said}")
        if options.optimised:
            kind.check(cost[1] <= max(CHEAP, SLACK * bounds[name]), f"costs more: {said}")


def store(options):
    made = {}
    for name in shapes.ALL:
        cost = measure(options.bin, name)
        print(name, cost, flush=True)
        if cost is None:
            return 1
        made[name] = round(cost[1], 1)
    BOUNDS.write_text(json.dumps(made, indent=2) + "\n")
    return 0
