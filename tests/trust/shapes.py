"""Shapes of input whose cost is measured in instructions: each is a function of a number of bytes, roughly, that returns the
files of its working directory. Twice the bytes must not cost more than twice the instructions."""

import gzip
import struct

from builders import (COUNTERS, EVENTS, START, blob_block, counter, counters_block, counters_schema, event_schema,
                      event_type, events_block, field, group, gzipped, header, metrics_batch, metrics_block, pack,
                      page_block, schema_path, schemas_block, snappied, text, unit, usual_header, usual_schemas,
                      usual_values)

OTHER = bytes.fromhex("e2" * 16)
BLOCK = 4096
ONE = event_type("one", 1, field("v", "uint8_t", 0, 1))


def _fill(block, size, block_size=BLOCK):
    filled = (block * max(1, (block_size // len(block)))).ljust(block_size, b"\0")
    return filled * max(1, size // block_size)


def _events(made, record, size, count=1, earlier=()):
    types = [*earlier, made]
    data = _fill(events_block([record] * count, type_index=len(types) - 1), size)
    return {schema_path(EVENTS): text(event_schema(*types)),
            "a.bin": header(events=[EVENTS], block_size=BLOCK) + data}


def _counters(schema, block, size, block_size=BLOCK):
    return {schema_path(COUNTERS): text(schema),
            "a.bin": header(counters=COUNTERS, block_size=block_size) + unit(block, size=block_size) * (size // block_size)}


def _usual(data, block_size=BLOCK):
    return {**usual_schemas(), "a.bin": usual_header(block_size=block_size) + data}


def _metrics(names, labels, samples):
    batch = metrics_batch(START, [(at % names, at) for at in range(samples)], 0, list(range(labels)))
    return metrics_block([[f"l{at}" for at in range(labels)]], [f"v{at}" for at in range(labels)],
                         [f"m{at}" for at in range(names)], [], [batch])


def records_of_one_byte(size):
    return _events(ONE, b"\1", size, count=255)


def events_blocks_of_one_record(size):
    return _events(ONE, b"\1", size)


def records_of_100_fields(size):
    fields = [field(f"f{at}", "uint32_t", 4 * at, 4) for at in range(100)]
    return _events(event_type("t", 400, *fields), bytes(range(200)) * 2, size)


def records_of_doubles(size):
    fields = [field(f"f{at}", "double", 8 * at, 8) for at in range(16)]
    return _events(event_type("t", 128, *fields), pack("16d", *[1 / (at + 3) for at in range(16)]), size)


def records_of_a_long_text(size):
    return _events(event_type("t", 1000, field("f", "char", 0, 1, length=1000)), b"a" * 999 + b"\0", size)


def records_of_a_text_to_escape(size):
    return _events(event_type("t", 1000, field("f", "char", 0, 1, length=1000)), b'"' * 999 + b"\0", size)


def records_of_an_array(size):
    return _events(event_type("t", 1000, field("f", "uint8_t", 0, 1, length=1000)), b"\7" * 1000, size)


def records_of_types_50_deep(size):
    types = [event_type("t0", 1, field("a", "uint8_t", 0, 1))]
    types += [event_type(f"t{at}", 1, field("a", f"t{at - 1}", 0, 1)) for at in range(1, 50)]
    return _events(types[-1], b"\1", size, earlier=types[:-1])


def records_of_overlapping_fields(size):
    return _events(event_type("t", 8, *[field(f"f{at}", "uint64_t", 0, 8) for at in range(100)]), bytes(8), size)


def records_that_do_not_fit(size):
    return _events(event_type("t", 200, field("f", "double", 199, 8)), bytes(200), size)


def counters_of_1_value(size):
    return _counters(counters_schema(group(counter("c"), name="g")), counters_block(START, pack("Q", 1)), size, 64)


def counters_of_100_values(size):
    schema = counters_schema(group(*[counter(f"c{at}") for at in range(100)], name="g"))
    return _counters(schema, counters_block(START, pack("100Q", *range(100))), size, 1024)


def counters_of_1000_sets(size):
    return _counters(counters_schema(group(counter("c"), name="g", sets=1000)), counters_block(START, pack("Q", 7)), size)


def counters_of_100_groups(size):
    schema = counters_schema(*[group(counter("c"), name=f"g{at}") for at in range(100)])
    return _counters(schema, counters_block(START, pack("100Q", *range(100))), size, 1024)


def metrics_of_one_sample(size):
    return _usual(unit(_metrics(1, 1, 1), size=256) * (size // 256), 256)


def metrics_of_many_samples(size):
    return _usual(unit(_metrics(300, 2, 300), size=8192) * max(1, size // 8192), 8192)


def metrics_of_many_labels(size):
    return _usual(unit(_metrics(1, 200, 1), size=4096) * (size // 4096))


def metrics_of_one_name_many_times(size):
    return _usual(unit(_metrics(1, 1, 300), size=4096) * (size // 4096))


def small_pages_gzip(size):
    page = page_block(gzipped(counters_block(START, usual_values(1, 0.5))))
    return _usual(_fill(page, size))


def small_pages_snappy(size):
    return _usual(_fill(page_block(snappied(counters_block(START, usual_values(1, 0.5))), b"S"), size))


def pages_of_many_records(size):
    record = bytes(19)
    return _usual(_fill(page_block(gzipped(events_block([record] * 200) * 8)), size))


def pages_that_are_damaged(size):
    page = bytearray(page_block(gzipped(bytes(300))))
    page[-10] ^= 1
    return _usual(_fill(bytes(page), size))


def schemas_blocks(size):
    schema = text(event_schema(ONE))
    blocks = schemas_block([EVENTS, OTHER]) + schemas_block([OTHER, EVENTS])
    return {schema_path(EVENTS): schema, schema_path(OTHER): schema,
            "a.bin": header(events=[EVENTS], block_size=BLOCK) + _fill(blocks, size)}


def blobs(size):
    return _usual(unit(blob_block(b"x" * 100), size=256) * (size // 256), 256)


def units_of_16_bytes(size):
    return _usual(b"QVXE".ljust(16, b"\0") * (size // 16), 16)


def one_huge_unit(size):
    return _usual(events_block([bytes(19)] * 255) * (size // 4861 + 1), 1 << 24)


def gzip_as_a_whole(size):
    return {**usual_schemas(), "a.bin": gzip.compress(_usual(_fill(events_block([bytes(19)] * 10), size))["a.bin"], mtime=0)}


def gzip_of_empty_members(size):
    return {**usual_schemas(), "a.bin": gzip.compress(usual_header(), mtime=0) + gzip.compress(b"", mtime=0) * (size // 20)}


def schema_of_many_types(size):
    types = [event_type(f"t{at}", 1, field("v", "uint8_t", 0, 1)) for at in range(min(250, size // 200))]
    fields = [field(f"f{at}", "uint8_t", 0, 1) for at in range(size // 200)]
    return {schema_path(EVENTS): text(event_schema(*types, event_type("last", 1, *fields))),
            "a.bin": header(events=[EVENTS], block_size=BLOCK) + unit(events_block([b"\1"]), size=BLOCK)}


def schema_of_deep_brackets(size):
    return {schema_path(EVENTS): b"[" * size + b"]" * size, "a.bin": header(events=[EVENTS])}


# The same in numbers that go up: what a value costs must not hang on how many there are of it. Every 4 KiB asked for are a data
# block, whatever its size.


def _records(fields, record, size, count=1, earlier=()):
    types = [*earlier, event_type("t", len(record), *fields)]
    block = events_block([record] * count, type_index=len(types) - 1)
    block_size = max(64, len(block))
    return {schema_path(EVENTS): text(event_schema(*types)),
            "a.bin": header(events=[EVENTS], block_size=block_size) + unit(block, size=block_size) * (size // BLOCK)}


def _array(count):
    return lambda size: _records([field("f", "uint32_t", 0, 4, length=count)], pack("I", 123456) * count, size)


def _fields(count):
    fields = [field(f"f{at}", "uint32_t", 4 * at, 4) for at in range(count)]
    return lambda size: _records(fields, pack("I", 123456) * count, size)


def _records_in_a_block(count):
    fields = [field(f"f{at}", "uint32_t", 4 * at, 4) for at in range(12)]
    return lambda size: _records(fields, pack("I", 123456) * 12, size, count)


def _text(length):
    return lambda size: _records([field("f", "char", 0, 1, length=length)], b"a" * length, size, 16)


def _nested(depth):
    types = [event_type("t0", 4, field("a", "uint32_t", 0, 4))]
    types += [event_type(f"t{at}", 4, field("a", f"t{at - 1}", 0, 4)) for at in range(1, depth)]
    return lambda size: _records([field(f"f{at}", f"t{depth - 1}", 4 * at, 4) for at in range(12)],
                                 pack("I", 123456) * 12, size, earlier=types)


def _counters_in_a_block(count):
    schema = counters_schema(group(*[counter(f"c{at}") for at in range(count)], name="g"))
    block = counters_block(START, pack("Q", 123456) * count)
    return lambda size: _counters(schema, block, (size // BLOCK) * len(block), len(block))


def _labels(names, constants):
    texts = [text_ for at in range(constants) for text_ in (f"c{at}", f"v{at}")]
    batch = metrics_batch(START, [(0, 123456)], 0, list(range(names)))
    block = metrics_block([[f"l{at}" for at in range(names)]], [f"v{at}" for at in range(names)], ["m"], texts, [batch])
    return lambda size: _usual(unit(block, size=len(block)) * (size // BLOCK), len(block))


def _changing_schemas(schemas):
    ids = [bytes([at // 256, at % 256]) * 8 for at in range(1, schemas + 1)]
    files = {schema_path(name): text(event_schema(ONE, name=f"s{at}")) for at, name in enumerate(ids)}
    units = [unit(schemas_block([name]), events_block([b"\7"] * 12), size=512) for name in ids]
    return lambda size: {**files, "a.bin": header(events=ids[:1], block_size=512)
                         + b"".join(units * (size // BLOCK))}


SERIES = {
    "array_of": (_array, (12, 1000, 100_000)),
    "counters": (_counters_in_a_block, (10, 1000, 100_000)),
    "records_in_a_block": (_records_in_a_block, (1, 16, 255)),
    "labels_by_name": (lambda count: _labels(count, 0), (10, 200)),
    "constant_labels": (lambda count: _labels(1, count), (10, 1000, 10_000)),
    "nested": (_nested, (1, 10, 100)),
    "text_of_bytes": (_text, (2, 16, 1000, 60_000)),
    "fields": (_fields, (10, 1000, 60_000)),
    "schemas_in_turn": (_changing_schemas, (2, 60, 100)),
}
# The largest are for the table of docs/performance.md only: they take minutes.
for _name, (_make, _counts) in SERIES.items():
    for _count in filter(lambda count: count <= 10_000, _counts):
        globals()[f"{_name}_{_count}"] = _make(_count)

ALL = {name: function for name, function in list(globals().items())
       if callable(function) and not name.startswith("_") and function.__module__ == __name__}
