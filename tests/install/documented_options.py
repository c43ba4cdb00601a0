#!/usr/bin/env python3
"""The usage text, the manual page, the README and the completions name the options that the program has.

    documented_options.py QVX_READ BUILD_FOLDER
"""

import pathlib
import re
import subprocess
import sys

TOP = pathlib.Path(__file__).resolve().parents[2]
OPTION = r"(?<![\w-])(-[A-Za-z]|--[a-z][a-z-]+)(?![A-Za-z])"

# The usage text is kept as it is, wrong names and missing options included: see docs/compatibility.md.
ONLY_IN_USAGE = {"-o", "--print-headers"}
NOT_IN_USAGE = {"-d", "--data-dir", "-S", "--sort-files", "--print-page-info"}


def options_of_program():
    source = (TOP / "qvx/reader/options.cc").read_text(encoding="utf-8")
    short = re.search(r'kShortOptions = "([A-Za-z:]+)"', source)[1].replace(":", "")
    return {f"-{letter}" for letter in short} | {f"--{name}" for name in re.findall(r'\{"([a-z-]+)", \w+_argument', source)}


def options_in(text):
    return set(re.findall(OPTION, text))


def usage(program):
    text = subprocess.run([program, "-h"], check=True, capture_output=True, text=True).stdout
    return {option for line in re.findall(r"^  (-.*?)(?:  |\[|$)", text, re.MULTILINE) for option in options_in(line)}


def manual(build):
    page = (build / "qvx_read.1").read_text(encoding="utf-8")
    section = page[page.index(".SH OPTIONS"):page.index(".SH FORMATS")]
    heads = re.findall(r"^\.TP\n(.*)$", section, re.MULTILINE)
    return options_in("\n".join(re.sub(r"\\f.", " ", head).replace("\\-", "-") for head in heads))


def readme():
    text = (TOP / "README.md").read_text(encoding="utf-8")
    table = text[text.index("| Option | |"):text.index("Times are microseconds")]
    cells = "\n".join(line.split("|")[1] for line in table.splitlines() if line.startswith("|"))
    # The short forms are enough where a row has two of them.
    return options_in(cells) | {"--help", "--version"}


def bash(build):
    text = (build / "completions/qvx_read").read_text(encoding="utf-8")
    return options_in(re.search(r'compgen -W "(-h .*?)"', text, re.DOTALL)[1])


def zsh(build):
    text = (build / "completions/_qvx_read").read_text(encoding="utf-8")
    arguments = text[text.index("_arguments"):]
    # Behind the list of what excludes the option.
    names = re.findall(r"^    '(?:\([^)]*\)|\*)?'?(.*?)\[", arguments, re.MULTILINE)
    return set(re.findall(r"--?[A-Za-z](?:[a-z-]*[a-z])?", " ".join(names)))


def fish(build):
    text = (build / "completions/qvx_read.fish").read_text(encoding="utf-8")
    return ({f"-{name}" for name in re.findall(r"^complete .*? -s ([A-Za-z]) ", text, re.MULTILINE)} |
            {f"--{name}" for name in re.findall(r"^complete .*? -l ([a-z-]+) ", text, re.MULTILINE)})


def main(program, build):
    build = pathlib.Path(build)
    real = options_of_program()
    places = {
        "the usage text": (usage(program), (real - NOT_IN_USAGE) | ONLY_IN_USAGE),
        "the manual page": (manual(build), real),
        "the README": (readme(), real),
        "the bash completion": (bash(build), real),
        "the zsh completion": (zsh(build), real),
        "the fish completion": (fish(build), real),
    }
    fault = False
    for place, (named, expected) in places.items():
        for option in sorted(expected - named):
            print(f"{place} lacks {option}")
        for option in sorted(named - expected):
            print(f"{place} names {option}, which is no option")
        fault = fault or named != expected
    return int(fault)


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
