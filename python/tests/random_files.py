"""Data files of random types, records, counters and metrics, from the builders that the program's own cases use."""

import gzip
import pathlib
import random
import struct
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "tests" / "cli"))

import builders  # noqa: E402

# Names of built-in types and the letters of Python's struct.
INTEGERS = {
    "char": "B", "unsigned char": "B", "uint8_t": "B", "int8_t": "b", "short": "h", "int16_t": "h",
    "unsigned short": "H", "uint16_t": "H", "int": "i", "int32_t": "i", "unsigned int": "I", "uint32_t": "I",
    "long": "q", "long long": "q", "int64_t": "q", "unsigned long": "Q", "unsigned long long": "Q", "uint64_t": "Q",
}  # fmt: skip
FLOATS = {"float": "f", "double": "d"}
UNIT = 16384


class Maker:
    """One file and its schemas; the same seed gives the same bytes."""

    def __init__(self, seed):
        self.random = random.Random(seed)
        self.types = []  # (name, size, fields of the schema, makers of each field's bytes)

    def integer(self, letter):
        bits = 8 * struct.calcsize("<" + letter)
        value = self.random.choice([self.random.getrandbits(bits), self.random.getrandbits(bits) >> bits // 2, 0])
        if letter.islower() and value >= 1 << (bits - 1):
            value -= 1 << bits
        return struct.pack("<" + letter, value)

    def floating(self, letter):
        value = self.random.choice([0.0, -1.5, self.random.uniform(-1e6, 1e6), self.random.gauss(0, 1e-9), 1e30])
        return struct.pack("<" + letter, value)

    def text(self, length):
        shown = self.random.randrange(length + 1)
        start = bytes(self.random.randrange(0x20, 0x7F) for _ in range(shown))
        rest = bytes(self.random.randrange(256) for _ in range(length - shown - 1))
        return (start + b"\0" + rest)[:length]

    def time(self):
        return struct.pack("<Q", builders.START + self.random.randrange(10**15))

    def field(self):
        """(type name, bytes of one element, maker of one element)"""
        kind = self.random.randrange(10)
        if kind == 0:
            return "timestamp", 8, self.time
        if kind == 1:
            return "bool", 1, lambda: bytes([self.random.randrange(2)])
        if kind in (2, 3):
            name = self.random.choice(sorted(FLOATS))
            return name, struct.calcsize(FLOATS[name]), lambda: self.floating(FLOATS[name])
        if kind == 4 and self.types:
            name, size, _, makers = self.random.choice(self.types)
            return name, size, lambda: b"".join(make() for make in makers)
        name = self.random.choice(sorted(INTEGERS))
        return name, struct.calcsize(INTEGERS[name]), lambda: self.integer(INTEGERS[name])

    def add_type(self, name):
        fields, makers, offset = [], [], 0
        for number in range(self.random.randrange(1, 8)):
            type_name, size, make = self.field()
            length = self.random.choice([None, None, self.random.randrange(2, 6)])
            if length and type_name in ("char", "unsigned char"):
                makers.append(lambda length=length: self.text(length))
            else:
                makers.append(lambda make=make, length=length: b"".join(make() for _ in range(length or 1)))
            fields.append(builders.field(f"{name}.f{number}", type_name, offset, size, length))
            offset += size * (length or 1)
        self.types.append((name, offset, fields, makers))

    def events(self):
        number = self.random.randrange(len(self.types))
        _, _, _, makers = self.types[number]
        records = [b"".join(make() for make in makers) for _ in range(self.random.randrange(1, 9))]
        return builders.events_block(records, type_index=number)

    def counters_groups(self):
        kinds = {"UINT64": lambda: self.integer("Q"), "INT64": lambda: self.integer("q"),
                 "FP64": lambda: self.floating("d"), "BIT64": lambda: self.integer("Q")}  # fmt: skip
        groups, self.counter_makers = [], []
        for number in range(self.random.randrange(1, 4)):
            counters = []
            for at in range(self.random.randrange(1, 5)):
                if self.random.randrange(5) == 0:
                    length = self.random.randrange(1, 12)
                    counters.append(builders.counter(f"c{at}", "STRING", length))
                    self.counter_makers.append(lambda length=length: self.text(length))
                else:
                    kind = self.random.choice(sorted(kinds))
                    counters.append(builders.counter(f"c{at}", kind))
                    self.counter_makers.append(kinds[kind])
            sets = self.random.choice([1, 1, 2, 3])
            groups.append(builders.group(*counters, name=f"g{number}", sets=sets))
        return groups

    def counters(self):
        at = builders.START + self.random.randrange(10**12)
        return builders.counters_block(at, b"".join(make() for make in self.counter_makers))

    def metrics(self):
        """One batch: of several in a block NDJSON shows the last only."""
        names = [f"m{number}" for number in range(self.random.randrange(1, 5))]
        value_type = self.random.choice([1, 2, 4])
        makers = {
            1: lambda: struct.pack("<Q", self.random.getrandbits(53)),  # which a double holds
            2: lambda: self.floating("d"),
            4: lambda: struct.pack("<q", self.random.randrange(-(2**53), 2**53)),
        }
        values = [(number, struct.unpack("<Q", makers[value_type]())[0]) for number in range(len(names))]
        labels = [f"v{self.random.randrange(5)}" for _ in range(3)]
        batch = builders.metrics_batch(
            builders.START + self.random.randrange(10**12), values, 0, self.random.sample(range(3), 2),
            kind=self.random.choice([b"C", b"G"]), value_type=value_type,
        )  # fmt: skip
        return builders.metrics_block([["port", "zone"]], labels, names, ["rack", "r1"], [batch])

    def blocks(self):
        """What may stand in one data block, or in one page."""
        kind = self.random.randrange(4)
        if kind == 0:
            return [self.counters()]
        if kind == 1:
            return [self.metrics()]
        return [self.events() for _ in range(self.random.randrange(1, 4))]

    def unit(self):
        packing = self.random.randrange(3)
        if packing == 0:
            return builders.unit(*self.blocks(), size=UNIT)
        pages = []
        for _ in range(self.random.randrange(1, 3)):
            content = b"".join(self.blocks())
            pages.append(
                builders.page_block(builders.gzipped(content))
                if packing == 1
                else builders.page_block(builders.snappied(content), encoding=b"S")
            )
        return builders.unit(*pages, size=UNIT)


def write(folder, seed):
    """Makes a file in a folder that is new, with its schemas, and gives its path."""
    maker = Maker(seed)
    for number in range(maker.random.randrange(1, 4)):
        maker.add_type(f"type_{number}")
    types = [builders.event_type(name, size, *fields) for name, size, fields, _ in maker.types]
    groups = maker.counters_groups()
    (folder / "schema").mkdir(parents=True)
    for identifier, schema in (
        (builders.EVENTS, builders.event_schema(*types)),
        (builders.COUNTERS, builders.counters_schema(*groups)),
    ):
        (folder / builders.schema_path(identifier)).write_bytes(builders.text(schema))
    content = builders.usual_header(block_size=UNIT)
    content += b"".join(maker.unit() for _ in range(maker.random.randrange(1, 5)))
    path = folder / "data.bin"
    path.write_bytes(gzip.compress(content, 1) if maker.random.randrange(4) == 0 else content)
    return path
