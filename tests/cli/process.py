#!/usr/bin/env python3
"""What only a process can show: how the program treats closed standard descriptors, a file size limit and SIGUSR1.

    process.py --bin build/debug/qvx_read
"""

import argparse
import os
import pathlib
import re
import resource
import signal
import subprocess
import sys
import tempfile
import time
import unittest

HERE = pathlib.Path(__file__).resolve().parent
sys.path.insert(0, str(HERE))

import builders  # noqa: E402

BINARY = None


def make_inputs(folder, blocks):
    """A data file of counters, and of pages when asked for, with its schemas."""
    for path, content in builders.usual_schemas().items():
        target = folder / path
        target.parent.mkdir(parents=True, exist_ok=True)
        target.write_bytes(content)
    (folder / "a.bin").write_bytes(builders.usual_header() + b"".join(blocks))


def counters_unit(number):
    return builders.unit(builders.counters_block(builders.START + number, builders.usual_values(number, 0.5)))


class ProcessTest(unittest.TestCase):
    def setUp(self):
        self.scratch = tempfile.TemporaryDirectory(prefix="qvx_process_")
        self.addCleanup(self.scratch.cleanup)
        self.folder = pathlib.Path(self.scratch.name)

    def run_program(self, *arguments, before=None, stdout=subprocess.PIPE):
        done = subprocess.run([BINARY, *arguments], cwd=self.folder, stdout=stdout, stderr=subprocess.PIPE,
                              preexec_fn=before, timeout=60)
        return done


class ClosedDescriptors(ProcessTest):
    """A file opened in the place of a closed descriptor would take what is meant for that."""

    def written_files(self, closed):
        page = builders.page_block(builders.gzipped(builders.counters_block(builders.START, builders.usual_values(1, 0.5))))
        make_inputs(self.folder, [builders.unit(page), builders.unit(page)])
        output = self.folder / f"output_{len(closed)}"
        output.mkdir()
        self.run_program("-f", "bin", "-p", "-v", "7", "--output-dir", output.name, "a.bin",
                         before=lambda: [os.close(descriptor) for descriptor in closed])
        return {str(path.relative_to(output)): path.read_bytes()
                for path in sorted(output.rglob("*.bin"))}

    def test_data_files_hold_no_output_and_no_messages(self):
        whole = self.written_files([])
        self.assertEqual(len(whole), 1)
        for closed in ([0, 1], [0, 1, 2], [2], [1], [1, 2], [0, 2]):
            with self.subTest(closed=closed):
                output = self.folder / f"output_{len(closed)}"
                if output.exists():
                    for path in sorted(output.rglob("*"), reverse=True):
                        path.rmdir() if path.is_dir() else path.unlink()
                    output.rmdir()
                self.assertEqual(self.written_files(closed), whole)


class FileSizeLimit(ProcessTest):
    def test_limit_is_an_error_like_a_full_disk(self):
        make_inputs(self.folder, [counters_unit(number) for number in range(2000)])
        with open(self.folder / "out", "wb") as out:
            done = self.run_program("-f", "ndjson", "a.bin", stdout=out,
                                    before=lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (100000, 100000)))
        self.assertEqual(done.returncode, 1)
        self.assertEqual(done.stderr, b"Failed writing to standard output: File too large\n")
        self.assertEqual((self.folder / "out").stat().st_size, 100000)


class Progress(ProcessTest):
    LINE = re.compile(rb"(\d+) of 2 files, (\d+) bytes, (\d+) records, (\d+\.\d) seconds\n")

    def start(self, name):
        return subprocess.Popen([BINARY, "-f", "ndjson", "a.bin", name], cwd=self.folder,
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE)

    def test_signal_prints_one_line_of_what_was_read(self):
        blocks = [counters_unit(number) for number in range(3)]
        make_inputs(self.folder, blocks)
        whole = (self.folder / "a.bin").read_bytes()
        os.mkfifo(self.folder / "pipe")
        program = self.start("pipe")
        try:
            with open(self.folder / "pipe", "wb", buffering=0) as pipe:
                pipe.write(whole[:len(whole) - len(blocks[0])])
                time.sleep(0.3)
                program.send_signal(signal.SIGUSR1)
                line = program.stderr.readline()
                program.send_signal(signal.SIGUSR1)
                second = program.stderr.readline()
                pipe.write(blocks[0])
            out, rest = program.communicate(timeout=60)
        finally:
            program.kill()
        match = self.LINE.fullmatch(line)
        self.assertIsNotNone(match, line)
        self.assertEqual(int(match[1]), 1)
        self.assertEqual(int(match[2]), 2 * len(whole) - len(blocks[0]))
        self.assertEqual(int(match[3]), 5)
        self.assertIsNotNone(self.LINE.fullmatch(second), second)
        self.assertEqual(rest, b"")
        self.assertEqual(program.returncode, 0)
        self.assertEqual(len(out.splitlines()), 6)

    def test_nothing_is_printed_without_the_signal(self):
        make_inputs(self.folder, [counters_unit(1)])
        program = self.start("a.bin")
        out, error = program.communicate(timeout=60)
        self.assertEqual((program.returncode, error, len(out.splitlines())), (0, b"", 2))


if __name__ == "__main__":
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--bin", required=True, help="the program")
    options, rest = parser.parse_known_args()
    BINARY = os.path.abspath(options.bin)
    unittest.main(argv=[sys.argv[0], *rest])
