"""A sample with every kind of block, and the points that a database must hold of it.

The blocks are built from the values here and the points from the same values, neither with the library.
"""

import json
import math
import pathlib
import struct
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "cli"))

from builders import (  # noqa: E402
    COUNTERS, EVENTS, START, blob_block, counter, counters_block, counters_schema, event_schema, event_type,
    events_block, field, group, header, metrics_batch, metrics_block, pack, schema_path, schemas_block, text, unit)

SECOND = 1_000_000
ADAPTERS = [("hcx4_0", 1), ("hcx4_1", 2)]
LARGEST = 2**63 - 1  # of the integers that a server takes


def guid(kind, number):
    return f"{kind}{number:015x}"


# --- counters -----------------------------------------------------------------------------------------------------

COUNTERS_SCHEMA = counters_schema(
    group(counter("hcx4_0.link errors", "INT64"), counter("hcx4_0:1:xmit_data"), counter("hcx4_0:2:xmit_data"),
          counter("hcx4_0:2:rcv_data"), counter("hcx4_1.link errors", "INT64"), counter("hcx4_1:1:xmit_data", "BIT64"),
          counter("hcx_other:1:lost"), counter("free memory", "FP64"), counter("kernel", "STRING", 32), name="node"),
    group(counter("load", "FP64"), counter("user,time=ms"), granularity="CPU", name="cpu", sets=4))
KERNEL = '6.1 "rt" \\ Zürich,\nx=1'


class CountersValues:
    """The values of counters block number n: plain ones, those at the ends of their types, those that no line holds."""

    def __init__(self, n):
        self.errors_0 = {0: -2**63, 1: LARGEST}.get(n, n - 20)
        self.sent_0_1 = {2: 2**63, 3: LARGEST}.get(n, 2**53 + 1 + n)  # the first has no line
        self.sent_0_2 = 1000 * n
        self.received_0_2 = 2**64 - 1 if n % 5 == 0 else n  # left out of its line
        self.errors_1 = -n
        self.sent_1_1 = 1 << (n % 63)
        self.lost = 7 * n
        self.memory = math.nan if n % 7 == 0 else n / 7
        self.kernel = KERNEL if n % 2 else ""
        self.load = math.inf if n % 9 == 0 else 0.25 * n - 3
        self.user_time = n

    def packed(self):
        return pack("qQQQqQQd32sdQ", self.errors_0, self.sent_0_1, self.sent_0_2, self.received_0_2, self.errors_1,
                    self.sent_1_1, self.lost, self.memory, self.kernel.encode(), self.load, self.user_time)

    def points(self, time):
        def adapter_tags(name, number):
            return {"hca_name": name, "node_guid": "0x" + guid("a", number)}

        def port_tags(name, number, port):
            return {**adapter_tags(name, number), "port_num": str(port),
                    "port_guid": "0x" + guid("cd"[port - 1], number)}

        node_tags = {"node_guid": "0x" + guid("a", 1), "system_image_guid": "0x" + guid("b", 1)}
        lines = [
            ("hca_counters", {**adapter_tags("hcx4_0", 1), "system_image_guid": "0x" + guid("b", 1)},
             {"link errors": self.errors_0}),
            ("hca_counters", {**adapter_tags("hcx4_1", 2), "system_image_guid": "0x" + guid("b", 2)},
             {"link errors": self.errors_1}),
            ("hca_port_counters", port_tags("hcx4_0", 1, 1), {"xmit_data": self.sent_0_1}),
            ("hca_port_counters", port_tags("hcx4_0", 1, 2),
             {"xmit_data": self.sent_0_2, "rcv_data": self.received_0_2}),
            ("hca_port_counters", port_tags("hcx4_1", 2, 1), {"xmit_data": self.sent_1_1}),
            ("cpu_counters", {**node_tags, "cpu_num": "0"}, {"load": self.load, "user,time=ms": self.user_time}),
            ("node_counters", node_tags,
             {"hcx_other:1:lost": self.lost, "free memory": self.memory, "kernel": self.kernel}),
        ]
        return [Point(name, tags, 1000 * time, fields) for name, tags, fields in lines
                if any(is_written(value) for value in fields.values())]


# --- events -------------------------------------------------------------------------------------------------------


def index_field(place, *arguments, **named):
    return {**field(*arguments, **named), "index": place}


USE = event_type("resource_use", 16, field("cpu seconds", "double", 0, 8), field("peak", "unsigned long", 8, 8))
JOB = event_type(
    "job_started", 112,
    field("at", "timestamp", 0, 8),
    index_field(2, "user", "char", 8, 1, length=16),
    index_field(1, "job", "unsigned int", 24, 4),
    field("priority", "short", 28, 2),
    field("exclusive", "bool", 30, 1),
    field("signal", "int8_t", 31, 1),
    field("share", "float", 32, 4),
    field("cost", "double", 36, 8),
    field("command", "char", 44, 1, length=28),
    field("nodes", "uint16_t", 72, 2, length=4),
    field("use", "resource_use", 80, 16, length=2))
ALARM = event_type(
    "fabric alarm,late", 42,
    index_field(1, "port=name", "unsigned char", 0, 1, length=16),
    field("level", "long long", 16, 8),
    field("words", "char", 24, 1, length=18))
SCHEMAS = [event_schema(USE, JOB, name="jobs"), event_schema(ALARM, name="fabric")]
ALARM_ID = bytes.fromhex("e2" * 16)


class Job:
    """Event number n of a type with fields of every kind. Nothing in it needs to be escaped."""

    def __init__(self, n):
        self.at = START + n
        self.user = ["mweber", "li.chen", ""][n % 3]
        self.job = 48000 + n // 2
        self.priority = n - 100
        self.exclusive = n % 2 == 1
        self.signal = -(n % 128)
        self.share = struct.unpack("<f", struct.pack("<f", n / 3))[0]
        self.cost = n * 1e6 / 7
        self.command = f"solve --case {n}"
        self.use = [(n / 8, n), (-n / 8, LARGEST - n)]

    def packed(self):
        made = pack("Q16sIh?bfd28s4H", self.at, self.user.encode(), self.job, self.priority, self.exclusive,
                    self.signal, self.share, self.cost, self.command.encode(), 1, 2, 3, 4)
        return made + b"".join(pack("dQ", *use) for use in self.use)

    def fields(self):
        """All but those that are tags; the numbers of the nodes are in no line."""
        fields = {"at": self.at, "priority": self.priority, "exclusive": self.exclusive, "signal": self.signal,
                  "share": self.share, "cost": self.cost, "command": self.command}
        for k, (seconds, peak) in enumerate(self.use):
            fields.update({f"use.{k}.cpu seconds": seconds, f"use.{k}.peak": peak})
        return fields

    def point(self, time):
        return Point("job_started", {"job": str(self.job), "user": self.user}, time, self.fields())


class Alarm:
    """Event number n of a type whose name, tags and texts are all to be escaped."""

    def __init__(self, n):
        self.port = ["eth 0", "a,b=c", "end\\"][n % 3]
        self.level = -n
        self.words = f'"{n}" \\ a=b, c\\'

    def packed(self):
        return pack("16sq18s", self.port.encode(), self.level, self.words.encode())

    def point(self, time):
        port = "end_" if self.port == "end\\" else self.port  # nothing escapes a backslash at the end
        return Point("fabric alarm,late", {"port=name": port}, time, {"level": self.level, "words": self.words})


# --- points -------------------------------------------------------------------------------------------------------


def is_written(value):
    """A server takes neither numbers that are none nor integers beyond the signed ones."""
    return math.isfinite(value) and value <= LARGEST if isinstance(value, (int, float)) else True


class Point:
    """What a database holds for a line. Floating point has six decimals in it."""

    def __init__(self, measurement, tags, time, fields):
        self.measurement, self.time = measurement, time
        self.tags = frozenset((key, value) for key, value in tags.items() if value)
        self.fields = {key: float(f"{value:.6f}") if isinstance(value, float) else value
                       for key, value in fields.items() if is_written(value)}

    def field_types(self):
        kinds = {bool: "boolean", int: "integer", float: "float", str: "string"}
        return {key: kinds[type(value)] for key, value in self.fields.items()}


# --- blocks, pages, files -----------------------------------------------------------------------------------------


def counters_blocks(first, count):
    made, points = [], []
    for n in range(first, first + count):
        values, time = CountersValues(n), START + n * SECOND
        made.append(counters_block(time, values.packed()))
        points += values.points(time)
    return made, points


def event_blocks(kind, schema, type_index, first, count, at_once):
    """Blocks of events; within one the points are a nanosecond apart."""
    made, points = [], []
    for begin in range(first, first + count, at_once):
        events, time = [kind(n) for n in range(begin, begin + at_once)], START + begin * SECOND
        made.append(events_block([event.packed() for event in events], schema, type_index, timestamp=time))
        points += [event.point(1000 * time + k) for k, event in enumerate(events)]
    return made, points


def other_blocks():
    """What has no Influx form."""
    batch = metrics_batch(START, [(0, 1234), (1, 99)], label_set=0, labels=[0, 1])
    return [schemas_block([EVENTS, ALARM_ID], size=256), blob_block(b"any bytes"),
            metrics_block([["host", "port"]], ["node7", "1"], ["rx_bytes", "tx_bytes"], ["site", "north"], [batch])]


def mixed(*runs):
    """The blocks of several runs in turns, with the others in between, and the points of all."""
    blocks = [block for row in zip(*(made for made, _ in runs)) for block in [*row, *other_blocks()]]
    return blocks, [point for _, points in runs for point in points]


def page(tag, blocks):
    """A data page as a collector holds it in memory."""
    data = b"".join(blocks)
    size = 720 + len(data)
    made = struct.pack("<IQQIQQ", 71169, size, size, len(data), START, START + SECOND) + bytes(16)
    made += b"host-a".ljust(64, b"\0") + tag.ljust(16, b"\0") + bytes(80)
    for name, number in ADAPTERS:
        guids = "".join(guid(kind, number) for kind in "abcd")
        made += name.encode().ljust(20, b"\0") + guids.encode()
    return made.ljust(720, b"\0") + data


def type_system():
    return json.dumps({"name": "Quorvex type system", "version": "1.5.0", "counters_schema": COUNTERS_SCHEMA,
                       "schemas": SCHEMAS}).encode()


def schema_files():
    return {schema_path(EVENTS): text(SCHEMAS[0]), schema_path(ALARM_ID): text(SCHEMAS[1]),
            schema_path(COUNTERS): text(COUNTERS_SCHEMA)}


def data_file(tag, blocks):
    """Each block in a data block of its own."""
    size = max(map(len, blocks))
    return header(block_size=size, counters=COUNTERS, events=[EVENTS, ALARM_ID], tag=tag) + b"".join(
        unit(block, size=size) for block in blocks)
