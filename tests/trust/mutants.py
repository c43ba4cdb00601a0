#!/usr/bin/env python3
"""Changes one operator or constant of the sources at a time and sees whether a test notices.

    mutants.py --build build/debug [--seed N] [--count N] [--only REGEX]

The build folder holds a finished build. The changed source is compiled and linked into the tests that are named for it below, in
their order, until one fails. What compiles and passes all of them is a survivor: a finding, unless
known_survivors.txt says why no test can tell. Prints a line for each survivor and, at the end, the line "result", kind, cases,
findings and seconds with tabs between them. The sources are not touched.
"""

import argparse
import json
import os
import pathlib
import random
import re
import resource
import shlex
import signal
import subprocess
import sys
import tempfile
import time

ROOT = pathlib.Path(__file__).resolve().parents[2]
KNOWN = pathlib.Path(__file__).with_name("known_survivors.txt")

# Decoders, record plan, number text and the file writer, each with the tests that must notice.
PLAN = ("plan", "schema", "counters", "cli")
SOURCES = {
    "qvx/data/block.cc": ("data", "scan", "cli"),
    "qvx/data/file_header.cc": ("data", "scan", "cli"),
    "qvx/data/page_block.cc": ("data", "scan", "cli"),
    "qvx/data/encoded_payload.cc": ("data", "scan", "reader", "cli"),
    "qvx/scan/chain_walk.cc": ("scan", "reader", "cli"),
    "qvx/scan/unit_walk.cc": ("scan", "reader", "cli"),
    "qvx/scan/file_scan.cc": ("scan", "reader", "cli"),
    "qvx/scan/data_input.cc": ("scan", "reader", "cli"),
    "qvx/metrics/string_table.cc": ("metrics", "cli"),
    "qvx/metrics/labels_block.cc": ("metrics", "cli"),
    "qvx/metrics/metrics_batch.cc": ("metrics", "cli"),
    "qvx/metrics/metrics_parser.cc": ("metrics", "cli"),
    "qvx/metrics/histogram.cc": ("metrics", "cli"),
    "qvx/counters/counters_block.cc": ("counters", "cli"),
    "qvx/plan/record_plan.cc": PLAN,
    "qvx/plan/plan_writer.h": PLAN,
    "qvx/plan/plan_values.h": PLAN,
    "qvx/data/schema/record_text.cc": ("schema", "plan", "cli"),
    "qvx/data/schema/record_json.cc": ("schema", "plan", "cli"),
    "qvx/data/schema/record_influx.cc": ("schema", "plan", "cli"),
    "qvx/support/number.cc": ("support", "number_proof"),
    "qvx/support/number_digits.h": ("number_proof",),
    "qvx/support/number_parse.cc": ("support", "schema", "cli"),
    "qvx/data/write/append_blocks.cc": ("write", "bin_output"),
    "qvx/data/write/data_file.cc": ("write", "bin_output"),
    "qvx/data/write/data_writer.cc": ("write", "bin_output"),
    "qvx/data/write/existing_file.cc": ("write", "bin_output"),
    "qvx/data/write/output_folder.cc": ("write", "bin_output"),
    "qvx/data/write/path_template.cc": ("write", "bin_output"),
}
# What is compiled for a changed header.
COMPILED_IN = {"qvx/plan/plan_writer.h": ["qvx/plan/record_plan.cc"], "qvx/plan/plan_values.h": ["qvx/plan/record_plan.cc"],
               "qvx/support/number_digits.h": ["qvx/support/number.cc", "tests/support/number_proof.cc"]}
PROGRAMS = {"cli": "qvx_read"}  # the others: tests/<name>_tests

# The sources are formatted, so that a binary operator stands between blanks and what marks a type does not.
SWAPS = {"<": "<=", "<=": "<", ">": ">=", ">=": ">", "==": "!=", "!=": "==", "+": "-", "-": "+", "*": "/", "/": "*", "%": "*",
         "&&": "||", "||": "&&", "&": "|", "|": "&", "<<": ">>", ">>": "<<", "+=": "-=", "-=": "+=", "|=": "&=", "&=": "|="}
OPERATOR = re.compile(r"(?<= )(" + "|".join(re.escape(one) for one in sorted(SWAPS, key=len, reverse=True)) + r")(?= |$)", re.M)
NOT = re.compile(r"(?<=[( ])!(?=[\w(])")
COUNT = re.compile(r"(\+\+|--)(?=\w)")
NUMBER = re.compile(r"(?<![\w.'])(\d+|0x[0-9A-Fa-f]+)(?=[uU]?\b)(?![\w.']*[.'xe])")
TRUTH = re.compile(r"\b(true|false)\b")
# What no change of an operator is meant for.
BLANKED = re.compile(r'//[^\n]*|"(?:\\.|[^"\\\n])*"|\'(?:\\.|[^\'\\\n])\'|^\s*#[^\n]*|\bstatic_assert\([^;]*;|\boperator\S+', re.M)

MEMORY = 8 << 30
# Of the processor's time, so that a busy machine changes nothing, and a limit for what waits.
TIMES_USUAL, MORE_SECONDS, WALL_SECONDS = 3, 2, 300


def mutants_of(path):
    """(offset, what stands there, what it becomes)"""
    text = BLANKED.sub(lambda found: " " * len(found[0]), (ROOT / path).read_text())
    made = [(at.start(), at[0], SWAPS[at[0]]) for at in OPERATOR.finditer(text)]
    made += [(at.start(), "!", "") for at in NOT.finditer(text)]
    made += [(at.start(), at[0], {"++": "--", "--": "++"}[at[0]]) for at in COUNT.finditer(text)]
    made += [(at.start(), at[0], {"true": "false", "false": "true"}[at[0]]) for at in TRUTH.finditer(text)]
    for at in NUMBER.finditer(text):
        value = int(at[1], 16 if at[1].startswith("0x") else 8 if at[1].startswith("0") else 10)
        made += [(at.start(), at[1], str(value + 1))] + ([(at.start(), at[1], str(value - 1))] if value > 0 else [])
    return made


class Mutant:
    def __init__(self, path, offset, old, new):
        self.path, self.old, self.new = path, old, new
        text = (ROOT / path).read_text()
        self.text = text[:offset] + new + text[offset + len(old):]
        begin = text.rfind("\n", 0, offset) + 1
        end = text.index("\n", offset)
        self.line = text.count("\n", 0, offset) + 1
        # What it is known by stays when lines above it change.
        self.key = f"{path}: {text[begin:offset].lstrip()}[{old} -> {new}]{text[offset + len(old):end]}"


class Tests:
    def __init__(self, build):
        self.build = pathlib.Path(build).resolve()
        commands = json.loads((self.build / "compile_commands.json").read_text())
        wanted = ("/qvx_objects.dir/", "/number_proof_tests.dir/")
        self.compile = {os.path.relpath(one["file"], ROOT): shlex.split(one["command"]) for one in commands
                        if any(part in one["command"] for part in wanted)}
        self.links = {}
        self.usual = {}

    def objects_of(self, mutant, scratch):
        """Of each object of the build that changes, the changed one; None when one does not compile."""
        made = {}
        changed = scratch / "changed" / mutant.path
        changed.parent.mkdir(parents=True)
        changed.write_text(mutant.text)
        for source in COMPILED_IN.get(mutant.path, [mutant.path]):
            command = list(self.compile[source])
            out = command.index("-o") + 1
            made[command[out]] = command[out] = str(scratch / f"{len(made)}.o")
            if source == mutant.path:
                command[command.index("-c") + 1] = str(changed)
            # A changed header is found before the one in the tree. Compiling takes longer than most tests.
            command[1:1] = [f"-I{scratch / 'changed'}"]
            command += ["-w", "-g0", "-O0"]
            if subprocess.run(command, cwd=self.build, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL).returncode:
                return None
        return made

    def link(self, name, scratch, made):
        target = PROGRAMS.get(name, f"tests/{name}_tests")
        if target not in self.links:
            text = subprocess.run(["ninja", "-t", "commands", target], cwd=self.build, check=True, capture_output=True,
                                  text=True).stdout
            self.links[target] = shlex.split(text.rstrip().split("\n")[-1].removeprefix(": && ").removesuffix(" && :"))
        command = [made.get(part, part) for part in self.links[target]]
        command[command.index("-o") + 1] = str(scratch / name)
        # An object of the archive is not taken when nothing of it is missing.
        at = command.index("qvx/libqvx.a")
        command[at:at] = [out for old, out in made.items() if "/qvx_objects.dir/" in old]
        subprocess.run(command, cwd=self.build, check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        return scratch / name

    def passes(self, name, program, scratch, seconds):
        if name == "cli":
            command = [sys.executable, str(ROOT / "tests/cli/run.py"), "--bin", str(program)]
        elif name == "number_proof":
            command = [str(program), "200003"]
        else:
            command = [str(program), "--gtest_brief=1", "--gtest_fail_fast"]
        work = scratch / "work"
        work.mkdir(exist_ok=True)
        process = subprocess.Popen(command, cwd=work, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                   stderr=subprocess.DEVNULL, start_new_session=True,
                                   env={**os.environ, "TZ": "UTC", "TMPDIR": str(work)}, preexec_fn=lambda: limit(seconds))
        try:
            return process.wait(WALL_SECONDS) == 0
        except subprocess.TimeoutExpired:
            os.killpg(process.pid, signal.SIGKILL)
            process.wait()
            return False
        finally:
            subprocess.run(["rm", "-rf", str(work)], check=False)

    def run(self, mutant):
        """None when it cannot be built; otherwise the test that notices, or an empty text."""
        with tempfile.TemporaryDirectory(prefix="qvx_mutant_") as folder:
            scratch = pathlib.Path(folder)
            scratch.chmod(0o755)  # some tests give up their privileges
            made = self.objects_of(mutant, scratch)
            if made is None:
                return None
            for name in SOURCES[mutant.path]:
                if name not in self.usual:
                    began = seconds_of_children()
                    if not self.passes(name, self.link(name, scratch, {}), scratch, WALL_SECONDS):
                        sys.exit(f"{name} fails without any change")
                    self.usual[name] = seconds_of_children() - began
                try:
                    program = self.link(name, scratch, made)
                except subprocess.CalledProcessError:
                    return None
                if not self.passes(name, program, scratch, MORE_SECONDS + TIMES_USUAL * self.usual[name]):
                    return name
        return ""


def seconds_of_children():
    usage = resource.getrusage(resource.RUSAGE_CHILDREN)
    return usage.ru_utime + usage.ru_stime


def limit(seconds):
    resource.setrlimit(resource.RLIMIT_CPU, (int(seconds) + 1, int(seconds) + 2))
    resource.setrlimit(resource.RLIMIT_AS, (MEMORY, resource.getrlimit(resource.RLIMIT_AS)[1]))
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))


def known_survivors():
    lines = KNOWN.read_text().splitlines() if KNOWN.exists() else []
    return {line.split(" # ")[0].strip() for line in lines if line.strip() and not line.startswith("#")}


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build", default="build/debug")
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--skip", type=int, default=0, help="so many that an earlier run of this seed has tried")
    parser.add_argument("--count", type=int, default=100)
    parser.add_argument("--seconds", type=float, default=float("inf"), help="begin no further one then")
    parser.add_argument("--only", default="", metavar="REGEX", help="of these, by path and line as they are printed")
    parser.add_argument("--list", action="store_true", help="only print them")
    parser.add_argument("--verbose", action="store_true")
    options = parser.parse_args()
    candidates = [Mutant(path, *change) for path in SOURCES for change in mutants_of(path)]
    candidates = [one for one in candidates if re.search(options.only, one.key)]
    random.Random(options.seed).shuffle(candidates)
    if options.list:
        print("\n".join(sorted(one.key for one in candidates)))
        return 0
    tests, known, began = Tests(options.build), known_survivors(), time.monotonic()
    made = killed = listed = findings = 0
    for mutant in candidates[options.skip:]:
        if made == options.count or time.monotonic() - began > options.seconds:
            break
        noticed = tests.run(mutant)
        if noticed is None:
            if options.verbose:
                print(f"not built\t{mutant.key}", flush=True)
            continue
        made += 1
        killed += noticed != ""
        if options.verbose and noticed:
            print(f"{noticed}\t{mutant.key}", flush=True)
        if noticed == "":
            is_known = mutant.key in known
            listed += is_known
            findings += not is_known
            print(f"{'known' if is_known else 'finding'}\tmutants\tline {mutant.line}\t{mutant.key}", flush=True)
    print(f"{killed} of {made} noticed, {listed} survivors are listed, {findings} are not; {len(candidates)} there are")
    print(f"result\tmutants\t{made}\t{findings}\t{time.monotonic() - began:.1f}")
    return 0 if findings == 0 else 1


if __name__ == "__main__":
    sys.exit(main())
