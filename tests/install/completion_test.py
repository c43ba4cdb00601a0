#!/usr/bin/env python3
"""Drives the completion of one shell: completion_test.py bash|zsh|fish FOLDER. Status 77: there is no such shell."""

import os
import pathlib
import pty
import shutil
import subprocess
import sys
import tempfile

TOP = pathlib.Path(__file__).resolve().parents[2]

OPTIONS = ["--data-dir", "--exclude-counters", "--format", "--help", "--include-counters", "--output-dir",
           "--print-page-info", "--schema-path", "--sort-files", "--timestamp-gt", "--timestamp-lt", "--verbose",
           "--version"]
EVENT_TYPES = ["core_load", "host_status", "interface_report", "interface_traffic", "job_finished", "job_started",
               "resource_use"]

# What is typed, and what is offered for the word at its end.
CASES = [
    ("qvx_read -f ", ["bin", "csv", "influx", "json", "ndjson", "txt"]),
    ("qvx_read -f nd", ["ndjson"]),
    ("qvx_read --format=i", ["influx"]),
    ("qvx_read -v ", ["0", "1", "2", "3", "4", "5", "6", "7"]),
    ("qvx_read --sort-files=source_", ["source_id", "source_tag"]),
    ("qvx_read --sort-files=source_id,f", ["first_timestamp"]),
    ("qvx_read -Ssource_t", ["source_tag"]),
    ("qvx_read --", OPTIONS),
    ("qvx_read ev", ["events.bin"]),
    ("qvx_read data/events.bin -i ", EVENT_TYPES),
    ("qvx_read -s data/schema data/archive.bin.gz -e job_s", ["job_started"]),
    ("qvx_read -f json -i ", []),
    ("qvx_read -s dat", ["data"]),
]

BASH = r"""
source "$1/qvx_read"
line=$2
read -ra COMP_WORDS <<<"${line//=/ = }"
[[ $line != *[\ =] ]] || COMP_WORDS+=("")
COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
_qvx_read
printf '%s\n' "${COMPREPLY[@]}"
"""

# The start-up file of a shell on a terminal: what is offered goes to a file, and the shell ends behind it.
ZSHRC = r"""
PROMPT=
fpath=($FOLDER $fpath)
autoload -Uz compinit
compinit -u -D
bindkey '^I' complete-word
compadd() {
  local -a hits
  builtin compadd -O hits "$@"
  print -rl -- $hits >>offered
  builtin compadd "$@"
}
finish() { exit }
comppostfuncs=(finish)
print READY
"""

FISH = r"""
source $argv[1]/qvx_read.fish
complete -C $argv[2]
"""


def zsh(line, work, environment):
    (work / ".zshrc").write_text(ZSHRC, encoding="utf-8")
    (work / "offered").write_text("", encoding="utf-8")
    pid, terminal = pty.fork()
    if pid == 0:
        os.chdir(work)
        os.execvpe("zsh", ["zsh", "-i", "-o", "no_global_rcs"], environment)
    seen = b""
    typed = False
    try:
        while chunk := os.read(terminal, 4096):
            seen += chunk
            if b"READY" in seen and not typed:
                os.write(terminal, f"{line}\t".encode())
                typed = True
    except OSError:
        pass  # the shell has ended
    os.waitpid(pid, 0)
    return (work / "offered").read_text(encoding="utf-8")


def offered(shell, folder, line, work):
    environment = dict(os.environ, HOME=str(work), ZDOTDIR=str(work), XDG_CONFIG_HOME=str(work), FOLDER=str(folder),
                       TERM="dumb", LC_ALL="C.UTF-8")
    if shell == "zsh":
        output = zsh(line, work, environment)
    else:
        options = {"bash": ["--norc", "-c", BASH, "bash"], "fish": ["--no-config", "-c", FISH]}[shell]
        output = subprocess.run([shell, *options, str(folder), line], cwd=work, env=environment, timeout=60,
                                capture_output=True, text=True, check=True).stdout
    words = [word.split("\t")[0] for word in output.splitlines()]
    # Only the part that a shell adds is compared: not what stands in front of a file's name or of a key, and of the
    # options not the short ones.
    bare = {word.rstrip("/ =").rpartition("/")[2].rpartition(",")[2] for word in words}
    bare = {word.removeprefix("--sort-files=").removeprefix("--format=").removeprefix("-S") for word in bare}
    return sorted(word for word in bare if word and not (word.startswith("-") and not word.startswith("--")))


def main(shell, folder):
    if not shutil.which(shell):
        print(f"{shell} is not installed")
        return 77
    folder = pathlib.Path(folder).resolve()
    faults = 0
    with tempfile.TemporaryDirectory() as work:
        work = pathlib.Path(work).resolve()
        shutil.copytree(TOP / "examples/data", work / "data")
        shutil.copy(TOP / "examples/data/events.bin", work)
        for line, expected in CASES:
            # It completes what is attached to a short option only where the option always has an argument.
            if shell == "fish" and line == "qvx_read -Ssource_t":
                continue
            found = offered(shell, folder, line, work)
            print(f"{line}<Tab>: {' '.join(found)}")
            if found != expected:
                print(f"    expected: {' '.join(expected)}")
                faults += 1
    return int(faults > 0)


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
