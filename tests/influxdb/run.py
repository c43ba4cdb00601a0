#!/usr/bin/env python3
"""A real InfluxDB takes the Influx lines, all of them, and gives the values back.

    run.py --bin PROGRAM --page-lines PROGRAM

Exits with 77 where no InfluxDB is installed.
"""

import argparse
import collections
import pathlib
import subprocess
import sys
import tempfile
import unittest

import sample
import server

READER = None
PAGE_LINES = None
SKIPPED = 77


class InfluxDB(unittest.TestCase):
    maxDiff = 4000

    @classmethod
    def setUpClass(cls):
        cls.server = cls.enterClassContext(server.Server())

    def setUp(self):
        self.database = self.id().rsplit(".", 1)[-1]
        self.server.create(self.database)
        self.folder = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))

    def write_file(self, name, content):
        path = self.folder / name
        path.parent.mkdir(exist_ok=True)
        path.write_bytes(content)
        return path

    def lines_of_page(self, tag, blocks):
        types = self.write_file("types.json", sample.type_system())
        page = self.write_file("page", sample.page(tag, blocks))
        return subprocess.run([PAGE_LINES, types, page], stdout=subprocess.PIPE, check=True).stdout

    def check_points(self, points):
        """The database holds these points and no others, each value as it is."""
        by_measurement = collections.defaultdict(dict)
        types = collections.defaultdict(dict)
        for point in points:
            key = (point.tags, point.time)
            self.assertNotIn(key, by_measurement[point.measurement], "two points in one place")
            by_measurement[point.measurement][key] = point.fields
            types[point.measurement].update(point.field_types())
        self.assertEqual(self.server.measurements(self.database), sorted(by_measurement))
        for measurement, expected in by_measurement.items():
            found = self.server.points(self.database, measurement)
            self.assertEqual(len(found), len(expected), measurement)
            self.assertEqual({(tags, time): fields for tags, time, fields in found}, expected, measurement)
            self.assertEqual(self.server.field_types(self.database, measurement), types[measurement], measurement)

    def test_takes_every_line_of_pages_of_every_kind_of_block(self):
        counters = sample.counters_blocks(0, 60)
        jobs = sample.event_blocks(sample.Job, 0, 1, first=0, count=500, at_once=250)
        alarms = sample.event_blocks(sample.Alarm, 1, 0, first=0, count=90, at_once=9)
        pages = {
            b"counters": counters,
            b"events": (jobs[0] + alarms[0], jobs[1] + alarms[1]),
            b"mixed": sample.mixed(sample.counters_blocks(100, 20),
                                   sample.event_blocks(sample.Job, 0, 1, first=1000, count=200, at_once=10),
                                   sample.event_blocks(sample.Alarm, 1, 0, first=1000, count=40, at_once=2)),
        }
        written = 0
        for tag, (blocks, points) in pages.items():
            lines = self.lines_of_page(tag, blocks)
            self.assertEqual(lines.count(b"\n"), len(points) + self.line_ends(points), tag)
            self.server.write(self.database, lines)
            written += len(points)
        # 80 counters blocks of 7 lines, less the one whose value no line holds; events one line each.
        self.assertEqual(written, 80 * 7 - 1 + 500 + 90 + 200 + 40)
        self.check_points([point for _, points in pages.values() for point in points])

    @staticmethod
    def line_ends(points):
        """Those inside of texts."""
        return sum(value.count("\n") for point in points for value in point.fields.values() if isinstance(value, str))

    def test_takes_the_field_sets_that_the_program_prints(self):
        jobs, points = sample.event_blocks(sample.Job, 0, 1, first=0, count=300, at_once=100)
        # A blob would end the file.
        others = [block for block in sample.other_blocks() if not block.startswith(b"QVXB")]
        counters = sample.counters_blocks(0, 3)[0]
        blocks = [jobs[0], *others, jobs[1], *counters, jobs[2]]
        for name, content in sample.schema_files().items():
            self.write_file(name, content)
        self.write_file("a.bin", sample.data_file(b"events", blocks))
        printed = subprocess.run([READER, "-s", "schema", "-f", "influx", "a.bin"], cwd=self.folder,
                                 stdout=subprocess.PIPE, stderr=subprocess.PIPE, check=False)
        refusal = b"Influx line API output is not yet supported for %s data"
        self.assertEqual(printed.stderr.count(refusal % b"counters"), 3, printed.stderr)
        self.assertEqual(printed.stderr.count(refusal % b"metrics"), 1, printed.stderr)
        field_sets = [line.replace(b"cpu seconds", b"cpu\\ seconds") for line in printed.stdout.splitlines()]
        self.assertEqual(len(field_sets), 300)
        self.server.write(self.database, b"".join(
            b"jobs,source=host-a %s %d\n" % (fields, point.time) for fields, point in zip(field_sets, points)))
        expected = []
        for n, point in enumerate(points):
            job = sample.Job(n)
            fields = {**job.fields(), "user": job.user, "job": job.job}
            expected.append(sample.Point("jobs", {"source": "host-a"}, point.time, fields))
        self.check_points(expected)

    def test_refuses_what_no_line_may_hold(self):
        for value in (b"nan", b"inf", b"9223372036854775808i"):
            with self.assertRaises(server.Refused):
                self.server.write(self.database, b"m v=%s 1\n" % value)
        self.assertEqual(self.server.measurements(self.database), [])


def main():
    global READER, PAGE_LINES
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--bin", required=True)
    parser.add_argument("--page-lines", required=True)
    arguments, rest = parser.parse_known_args()
    READER, PAGE_LINES = (str(pathlib.Path(path).resolve()) for path in (arguments.bin, arguments.page_lines))
    if server.program() is None:
        print("skipped: influxd is not installed")
        sys.exit(SKIPPED)
    unittest.main(argv=[sys.argv[0], *rest])


if __name__ == "__main__":
    main()
