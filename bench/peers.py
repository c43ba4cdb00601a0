#!/usr/bin/env python3
"""What a user might pick instead, in one run on one machine: values printed per CPU second.

    peers.py --bin build/release/qvx_read --generator build/release/bench/qvx_files_bench [--mebibytes 16]

Event records of 12 fields, made by the benchmark's generator, are printed by qvx_read and, from a copy in their own form, by tools
of Debian: sqlite3 (a table of the records; as JSON and as lists, its fastest), jq (the NDJSON printed again), Miller (the same;
and from CSV to CSV, its fastest), nfdump (network flows that it has recorded itself; as JSON and as plain lines, its fastest), and
sadf (sysstat's own recording of this machine, as JSON). Needs the packages sqlite3, jq, miller, nfdump and sysstat; a tool that is
missing is left out. CPU seconds are user and system time, the best of three runs; output goes to /dev/null.
"""

import argparse
import csv
import json
import os
import pathlib
import random
import shutil
import socket
import sqlite3
import struct
import subprocess
import sys
import tempfile
import time

FIELDS = 12
RUNS = 3
SAR_SECONDS = 20
FLOW_PACKETS = 6667
FLOWS = 30  # of a packet
FLOW_PORT = 29995


def cpu_seconds(command):
    best = None
    for _ in range(RUNS):
        pid = os.posix_spawnp(command[0], command, os.environ,
                              file_actions=[(os.POSIX_SPAWN_OPEN, 1, os.devnull, os.O_WRONLY, 0)])
        _, status, usage = os.wait4(pid, 0)
        if status != 0:
            raise SystemExit(f"{command[0]} failed")
        seconds = usage.ru_utime + usage.ru_stime
        best = seconds if best is None else min(best, seconds)
    return best


def leaves(node):
    if isinstance(node, (dict, list)):
        return sum(map(leaves, node.values() if isinstance(node, dict) else node))
    return 1


def row(name, version, values, command):
    seconds = cpu_seconds(command)
    print(f"| {name:34} | {version:12} | {values / seconds / 1e6:8.2f} |", flush=True)


def version_of(command):
    text = subprocess.run(command, capture_output=True, text=True, check=True).stdout + " "
    return next((word.strip(",") for word in text.split() if any(c.isdigit() for c in word)), "")


def record_flows(folder):
    """Flows in packets of NetFlow 5, sent to nfdump's own collector; the path of what it wrote."""
    folder.mkdir()
    collector = subprocess.Popen(["nfcapd", "-l", str(folder), "-b", "127.0.0.1", "-p", str(FLOW_PORT), "-t", "3600"],
                                 stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    time.sleep(1)
    numbers = random.Random(1)
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as link:
        for packet in range(FLOW_PACKETS):
            up = 1_000_000 + packet
            flows = [
                struct.pack(">IIIHHIIIIHHBBBBHHBBH", numbers.getrandbits(32), numbers.getrandbits(32), 0, 1, 2,
                            numbers.randrange(1, 10**4), numbers.randrange(40, 10**7), up - numbers.randrange(1000, 9000), up,
                            numbers.getrandbits(16), numbers.getrandbits(16), 0, 16, 6, 0, 65001, 65002, 24, 16, 0)
                for _ in range(FLOWS)
            ]
            header = struct.pack(">HHIIIIBBH", 5, FLOWS, up, 1_700_000_000, 0, packet * FLOWS, 0, 0, 0)
            link.sendto(header + b"".join(flows), ("127.0.0.1", FLOW_PORT))
            if packet % 20 == 0:
                time.sleep(0.002)  # for the collector to keep up
    time.sleep(1)
    collector.terminate()
    collector.wait()
    return max(folder.iterdir(), key=lambda path: path.stat().st_size)


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--bin", required=True)
    parser.add_argument("--generator", required=True)
    parser.add_argument("--mebibytes", type=int, default=16)
    options = parser.parse_args()
    with tempfile.TemporaryDirectory(prefix="qvx_peers_") as name:
        folder = pathlib.Path(name)
        subprocess.run([options.generator, "--make", folder, str(options.mebibytes)], check=True)
        read = [options.bin, "-s", str(folder / "schema"), "-f", "ndjson", str(folder / "events.bin")]
        lines = folder / "events.ndjson"
        with lines.open("wb") as out:
            subprocess.run(read, stdout=out, check=True)
        records = [json.loads(line) for line in lines.open()]
        values = FIELDS * len(records)
        print(f"| {'program':34} | {'version':12} | Mvalue/s |\n|{'-' * 36}|{'-' * 14}|{'-' * 9}:|")
        row("qvx_read -f ndjson", version_of([options.bin, "-V"]), values, read)
        row("qvx_read -f influx", "", values, [word.replace("ndjson", "influx") for word in read])
        if shutil.which("sqlite3"):
            base = sqlite3.connect(folder / "events.db")
            base.execute(f"create table t ({','.join(records[0])})")
            base.executemany(f"insert into t values ({','.join('?' * FIELDS)})", (list(r.values()) for r in records))
            base.commit()
            base.close()
            for form in ("-json", "-list"):
                row(f"sqlite3 {form}", version_of(["sqlite3", "--version"]), values,
                    ["sqlite3", form, str(folder / "events.db"), "select * from t"])
        if shutil.which("jq"):
            row("jq -c .", version_of(["jq", "--version"]), values, ["jq", "-c", ".", str(lines)])
        if shutil.which("mlr"):
            with (folder / "events.csv").open("w") as out:
                writer = csv.writer(out)
                writer.writerow(records[0])
                writer.writerows(r.values() for r in records)
            row("mlr --ijsonl --ojsonl cat", version_of(["mlr", "--version"]), values,
                ["mlr", "--ijsonl", "--ojsonl", "cat", str(lines)])
            row("mlr --icsv --ocsv cat", "", values, ["mlr", "--icsv", "--ocsv", "cat", str(folder / "events.csv")])
        if shutil.which("nfdump"):
            read = ["nfdump", "-q", "-r", str(record_flows(folder / "flows")), "-o"]
            text = subprocess.run([*read, "json"], capture_output=True, text=True, check=True).stdout
            row("nfdump -o json", version_of(["nfdump", "-V"]), text.count('" : '), [*read, "json"])
            text = subprocess.run([*read, "pipe"], capture_output=True, text=True, check=True).stdout
            row("nfdump -o pipe", "", text.count("|") + text.count("\n"), [*read, "pipe"])
        if shutil.which("sadf") and shutil.which("sar"):
            recording = str(folder / "sar")
            subprocess.run(["sar", "-A", "-o", recording, "1", str(SAR_SECONDS)], stdout=subprocess.DEVNULL, check=True)
            command = ["sadf", "-j", recording, "--", "-A"]
            text = subprocess.run(command, capture_output=True, text=True, check=True).stdout
            row("sadf -j", version_of(["sadf", "-V"]), leaves(json.loads(text)), command)
    return 0


if __name__ == "__main__":
    sys.exit(main())
