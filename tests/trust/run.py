#!/usr/bin/env python3
"""Kinds of test that run the whole program.

    run.py --bin build/release/qvx_read [--seed N] [--quick] [KIND...]     all kinds when none is named
    run.py --bin build/release/qvx_read --store-costs                      writes cost_bounds.json

Prints a line "result", kind, cases, findings and seconds with tabs between them, and a line for each finding.
"""

import argparse
import os
import sys

from program import Folder, Kind, Run  # first: it says where the builders are
import bombs
import costs
import memcheck
import surroundings

FORMATS = ("ndjson", "json", "txt", "influx")
MIB = 1024  # KiB
# The program itself with its libraries, before it reads anything.
PROGRAM_KIB = 16 * MIB


def run_bombs(options, kind):
    """10 s and 1 s per MiB of input; the data block, the largest page and 32 MiB."""
    names = list(bombs.ALL)
    names = names[options.seed % 5::5] if options.quick else names
    for name in names:
        made = Folder.made_apart(bombs.ALL[name])
        with made as folder:
            allowed_seconds = 10 + made.size() / (1 << 20)
            allowed_kib = PROGRAM_KIB + 32 * MIB + bombs.REALLY_THERE.get(name, 1) * MIB
            for output in FORMATS:
                run = Run(options.bin, folder, ["-f", output, "a.bin"], keep_out=False)
                said = f"{name} {output}: {run.seconds:.1f} s, {run.kib // MIB} MiB, status {run.status}"
                if options.verbose:
                    print(said)
                kind.check(run.status in (0, 1) and run.seconds <= allowed_seconds
                           and (options.unlimited or run.kib <= allowed_kib), said)


KINDS = {"bombs": run_bombs, "costs": costs.run, "memcheck": memcheck.run, "surroundings": surroundings.run,
         "limits": surroundings.run_limits, "messages": surroundings.run_messages}


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--bin", required=True)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--quick", action="store_true", help="a part of the cases, chosen by the seed")
    parser.add_argument("--unlimited", action="store_true",
                        help="no limits: the program has a sanitizer or runs in an emulator, which take memory")
    parser.add_argument("--optimised", action="store_true", help="the program is a release build")
    parser.add_argument("--verbose", action="store_true")
    parser.add_argument("--store-costs", action="store_true")
    parser.add_argument("kinds", nargs="*", choices=[[], *KINDS])
    options = parser.parse_args()
    options.bin = os.path.abspath(options.bin)
    if options.store_costs:
        return costs.store(options)
    sound = True
    for name in options.kinds or KINDS:
        kind = Kind(name)
        KINDS[name](options, kind)
        sound = kind.report() and sound
    return 0 if sound else 1


if __name__ == "__main__":
    sys.exit(main())
