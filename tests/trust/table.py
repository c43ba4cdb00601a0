#!/usr/bin/env python3
"""Adds up what runs of scripts/trust.sh did and writes the table of docs/trust.md.

    table.py TALLY DOCUMENT MACHINE DATE

The tally has a line for each run of a kind: "result", kind, cases, findings and seconds with tabs between them. Other lines are
left alone.
"""

import pathlib
import sys

BEGIN, END = "<!-- table -->\n", "<!-- end of table -->\n"


def sums(tally):
    made = {}
    for line in tally.read_text().splitlines():
        parts = line.split("\t")
        if parts[0] == "result" and len(parts) == 5:
            row = made.setdefault(parts[1], [0, 0, 0.0])
            for at, number in enumerate((int(parts[2]), int(parts[3]), float(parts[4]))):
                row[at] += number
    return made


def table(rows, machine, date):
    lines = [f"{machine}, {date}:", "", f"| {'kind':32} | {'cases':>14} | {'findings':>8} | {'seconds':>8} |",
             f"|{'-' * 34}|{'-' * 15}:|{'-' * 9}:|{'-' * 9}:|"]
    for kind, (cases, findings, seconds) in sorted(rows.items()):
        lines.append(f"| {kind:32} | {cases:14,} | {findings:8,} | {seconds:8.0f} |")
    return "\n".join(lines) + "\n"


def main():
    tally, document, machine, date = sys.argv[1:]
    path = pathlib.Path(document)
    text = path.read_text()
    before, rest = text.split(BEGIN)
    path.write_text(before + BEGIN + table(sums(pathlib.Path(tally)), machine, date) + END + rest.split(END)[1])


if __name__ == "__main__":
    main()
