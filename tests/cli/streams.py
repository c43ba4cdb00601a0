"""How the program's two output streams live together and how they end, which no golden case can show.

    streams.py --bin PROGRAM
"""

import argparse
import fcntl
import os
import pathlib
import select
import signal
import subprocess
import sys
import tempfile
import time
import unittest

HERE = pathlib.Path(__file__).resolve().parent
sys.path.insert(0, str(HERE))

from builders import (  # noqa: E402
    EVENTS, event_schema, event_type, events_block, field, header, pack, schema_path, text, unit)

PROGRAM = None
BLOCK_SIZE = 512
RECORDS_PER_BLOCK = 50
NUMBER = event_type("number", 8, field("number", "uint64_t", 0, 8))
UNKNOWN_TYPE = unit(events_block([], type_index=9), size=BLOCK_SIZE)


def begin():
    return header(events=[EVENTS], block_size=BLOCK_SIZE)


def numbers(*values):
    """A data block of records."""
    return unit(events_block([pack("Q", value) for value in values]), size=BLOCK_SIZE)


def many(blocks):
    return b"".join(numbers(*range(block * RECORDS_PER_BLOCK, (block + 1) * RECORDS_PER_BLOCK))
                    for block in range(blocks))


def lines(*values):
    return b"".join(b'{"number":%d}\n' % value for value in values)


class Streams(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)
        self.write(schema_path(EVENTS), text(event_schema(NUMBER)))

    def write(self, name, content):
        path = self.folder / name
        path.parent.mkdir(exist_ok=True)
        path.write_bytes(content)

    def start(self, *arguments, **streams):
        return subprocess.Popen([PROGRAM, "-f", "ndjson", "-s", "schema", *arguments], cwd=self.folder, **streams)

    def test_records_come_out_before_the_log_line_that_stands_behind_them(self):
        self.write("a.bin", begin() + numbers(1, 2) + UNKNOWN_TYPE)
        self.write("b.bin", begin() + numbers(3))
        process = self.start("a.bin", "b.bin", stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        out, _ = process.communicate(timeout=20)
        self.assertEqual(process.returncode, 1)
        parts = [part.split(b"] ", 1)[-1] for part in out.splitlines(keepends=True)]
        self.assertEqual(parts[:3], [lines(1), lines(2), b"[error] Type definition 0:9 not found\n"], out)
        self.assertEqual(parts[-2:], [lines(3), b"Failed to read 1 of 2 files\n"], out)

    def test_nothing_is_lost_when_nobody_reads_standard_error(self):
        self.write("a.bin", begin() + numbers(1, 2) + UNKNOWN_TYPE)
        self.write("b.bin", begin() + many(1000))
        reader, writer = os.pipe()
        os.close(reader)
        process = self.start("none.bin", "a.bin", "b.bin", stdout=subprocess.PIPE, stderr=writer)
        os.close(writer)
        out, _ = process.communicate(timeout=20)
        self.assertEqual(process.returncode, 1)
        self.assertEqual(out, lines(1, 2, *range(1000 * RECORDS_PER_BLOCK)))

    def test_usage_comes_out_when_nobody_reads_standard_error(self):
        reader, writer = os.pipe()
        os.close(reader)
        process = self.start("-f", "no-such-format", stdout=subprocess.PIPE, stderr=writer)
        os.close(writer)
        out, _ = process.communicate(timeout=20)
        self.assertEqual(process.returncode, 1)
        self.assertTrue(out.endswith(b"Output format (json).\n\n"), out)

    def end_of_reader(self, **options):
        self.write("a.bin", begin() + many(20000))
        process = self.start("a.bin", stdout=subprocess.PIPE, stderr=subprocess.PIPE, **options)
        self.assertEqual(process.stdout.read(len(lines(0, 1))), lines(0, 1))
        process.stdout.close()
        error = process.stderr.read()
        process.stderr.close()
        return process.wait(timeout=20), error

    def test_a_reader_that_ends_early_ends_the_program_quietly(self):
        self.assertEqual(self.end_of_reader(), (-signal.SIGPIPE, b""))

    def test_a_reader_that_ends_early_is_a_failure_where_the_signal_is_ignored(self):
        def ignore():
            signal.signal(signal.SIGPIPE, signal.SIG_IGN)
        self.assertEqual(self.end_of_reader(restore_signals=False, preexec_fn=ignore), (1, b""))

    def test_standard_output_that_does_not_block_is_waited_for(self):
        self.write("a.bin", begin() + many(2000))
        reader, writer = os.pipe()
        fcntl.fcntl(writer, fcntl.F_SETFL, os.O_NONBLOCK)
        process = self.start("a.bin", stdout=writer, stderr=subprocess.PIPE)
        os.close(writer)
        time.sleep(0.2)
        with os.fdopen(reader, "rb") as stream:
            out = stream.read()
        _, error = process.communicate(timeout=20)
        self.assertEqual((process.returncode, error), (0, b""))
        self.assertEqual(out, lines(*range(2000 * RECORDS_PER_BLOCK)))

    def records_while_the_input_waits(self, stdout, stream):
        """Seconds until records of a file that is still being written come out, and until more of them do."""
        os.mkfifo(self.folder / "input")
        process = self.start("input", stdout=stdout, stderr=subprocess.PIPE)
        os.close(stdout)
        waits = []
        with open(self.folder / "input", "wb", buffering=0) as source:
            source.write(begin())
            for first in (1, 3):
                source.write(numbers(first, first + 1) + b"QVX")  # the next data block has begun, too
                began = time.monotonic()
                got = b""
                while len(got) < len(lines(first, first + 1)):
                    if not select.select([stream], [], [], 5)[0]:
                        break
                    got += os.read(stream, 4096).replace(b"\r\n", b"\n")
                waits.append(time.monotonic() - began)
                self.assertEqual(got, lines(first, first + 1))
                source.write(numbers()[3:])
        _, error = process.communicate(timeout=20)
        self.assertEqual((process.returncode, error), (0, b""))
        os.close(stream)
        return waits

    def test_a_pipe_gets_records_at_once_when_the_input_waits(self):
        reader, writer = os.pipe()
        self.assertLess(max(self.records_while_the_input_waits(writer, reader)), 0.2)

    def test_a_terminal_gets_records_at_once_when_the_input_waits(self):
        reader, writer = os.openpty()
        self.assertLess(max(self.records_while_the_input_waits(writer, reader)), 0.2)


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("--bin", required=True)
    options, rest = parser.parse_known_args()
    PROGRAM = str(pathlib.Path(options.bin).resolve())
    unittest.main(argv=[sys.argv[0], *rest])
