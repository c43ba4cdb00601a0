"""Runs of qvx_read in a folder of their own, with what they cost; and what all kinds report."""

import os
import pathlib
import subprocess
import sys
import tempfile
import time

HERE = pathlib.Path(__file__).resolve().parent
sys.path.insert(0, str(HERE.parent / "cli"))

import builders  # noqa: E402


class Kind:
    """Counts the cases and the findings of one kind of test."""

    def __init__(self, name):
        self.name, self.cases, self.findings, self.began = name, 0, 0, time.monotonic()

    def check(self, holds, words):
        self.cases += 1
        if not holds:
            self.findings += 1
            print(f"finding\t{self.name}\t{words}", flush=True)

    def report(self):
        print(f"result\t{self.name}\t{self.cases}\t{self.findings}\t{time.monotonic() - self.began:.1f}", flush=True)
        return self.findings == 0


class Folder(tempfile.TemporaryDirectory):
    """A folder with the files of a dictionary by path."""

    def __init__(self, files):
        super().__init__(prefix="qvx_trust_")
        self._write(files)

    @classmethod
    def made_apart(cls, make):
        """By a process of its own: what this one holds would count for every program that it starts."""
        folder = cls({})
        child = os.fork()
        if child == 0:
            folder._write(make())
            os._exit(0)
        os.waitpid(child, 0)
        return folder

    def size(self):
        return sum(path.stat().st_size for path in pathlib.Path(self.name).rglob("*") if path.is_file())

    def _write(self, files):
        for path, content in files.items():
            target = os.path.join(self.name, path)
            pathlib.Path(target).parent.mkdir(parents=True, exist_ok=True)
            with open(target, "wb") as file:
                file.write(content)


class Run:
    """One run: status, out, err, seconds, and the largest resident set in KiB."""

    def __init__(self, binary, folder, args, env=None, before=None, time_limit=120, wrapper=(), keep_out=True):
        environment = {"PATH": os.environ["PATH"], "TZ": "UTC", **(env or {})}
        out, err = tempfile.TemporaryFile(), tempfile.TemporaryFile()
        began = time.monotonic()
        process = subprocess.Popen([*wrapper, binary, *args], cwd=folder, env=environment, stdin=subprocess.DEVNULL,
                                   stdout=out if keep_out else subprocess.DEVNULL, stderr=err, preexec_fn=before)
        self.timed_out = False
        while True:
            done, status, usage = os.wait4(process.pid, os.WNOHANG)
            if done:
                break
            if time.monotonic() - began > time_limit:
                process.kill()
                self.timed_out = True
                done, status, usage = os.wait4(process.pid, 0)
                break
            time.sleep(0.002)
        process.returncode = self.status = os.waitstatus_to_exitcode(status)
        self.wall = time.monotonic() - began
        self.seconds = usage.ru_utime + usage.ru_stime
        self.kib = usage.ru_maxrss
        self.out, self.err = (stream.seek(0) or stream.read() for stream in (out, err))
        out.close()
        err.close()


def usual_files():
    """Events and counters, plain and in pages."""
    up = builders.link_state(builders.START, 1, 1, b"eth0")
    events = builders.events_file(builders.events_block([up, up]))
    page = builders.usual_header() + builders.unit(builders.page_block(builders.gzipped(builders.events_block([up]))))
    return {**builders.usual_schemas(), "events.bin": events, "counters.bin": builders.counters_file(1, 2, 3),
            "pages.bin": page}
