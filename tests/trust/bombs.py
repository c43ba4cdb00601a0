"""Files that claim, contain or cause far more than they are: each has a bound of time and of memory.

A bomb is a name and a function that returns the files of its working directory, like the inputs of tests/cli.
"""

import gzip
import struct

from builders import (COUNTERS, EVENTS, START, counter, counters_block, counters_schema, event_schema, event_type,
                      events_block, field, group, gzipped, header, metrics_block, metrics_batch, pack, page_block,
                      schema_path, schemas_block, text, unit, usual_header, usual_schemas)

OTHER = bytes.fromhex("e2" * 16)
MIB = 1 << 20
LARGEST_BLOCK = 125829119


def _events(schema, data, block_size=1 << 16):
    return {schema_path(EVENTS): text(schema), "a.bin": header(events=[EVENTS], block_size=block_size) + data}


def _record_blocks(record, size, type_index=0, block_size=1 << 16):
    """`size` bytes of event blocks of one record each."""
    block = events_block([record], type_index=type_index)
    filled = (block * (block_size // len(block))).ljust(block_size, b"\0")
    return filled * (size // block_size)


def _usual(data, **changes):
    return {**usual_schemas(), "a.bin": usual_header(**changes) + data}


# --- sizes that lie -------------------------------------------------------------------------------------------------

def block_size_of_120_mib():
    return _usual(b"QVXD", block_size=LARGEST_BLOCK)


def page_that_claims_4_gib_gzip():
    page = gzipped(bytes(100))[:-4] + b"\xff\xff\xff\xff"
    return _usual(unit(page_block(page), size=512), block_size=512)


def page_that_claims_4_gib_snappy():
    return _usual(unit(page_block(b"\xff\xff\xff\xff\x0f" + b"\0a" * 50, b"S"), size=512), block_size=512)


def many_pages_that_claim_4_gib():
    page = page_block(gzipped(b"")[:-4] + b"\xff\xff\xff\xff")
    return _usual(unit(page * (65536 // len(page)), size=65536) * 16, block_size=65536)


def encoded_length_that_lies():
    page = bytearray(page_block(gzipped(bytes(100))))
    page[6:10] = b"\xff\xff\xff\x7f"
    return _usual(unit(bytes(page), size=512), block_size=512)


def metrics_length_that_lies():
    block = bytearray(metrics_block([["a"]], ["v"], ["m"], [], [metrics_batch(START, [(0, 1)], 0, [0])]))
    block[4:8] = b"\xff\xff\xff\xff"
    return _usual(unit(bytes(block), size=512), block_size=512)


def tables_of_65535_names_that_are_not_there():
    block = b"CNTX" + struct.pack("<I", 400) + b"LBLV" + b"\xff\xff" + b"\1a" * 100
    return _usual(unit(block, size=512) * 1000, block_size=512)


# --- streams that really unpack to much ------------------------------------------------------------------------------

def gzip_of_64_mib_of_zeros():
    """As a whole; the first data block is of unknown kind."""
    return {**usual_schemas(), "a.bin": gzip.compress(usual_header(block_size=65536) + bytes(64 * MIB), mtime=0)}


def gzip_of_8192_padded_blocks():
    block = unit(counters_block(START, pack("Qd", 1, 0.5)), size=4096)
    return {**usual_schemas(), "a.bin": gzip.compress(usual_header(block_size=4096) + block * 8192, mtime=0)}


def page_that_unpacks_to_64_mib():
    page = page_block(gzipped(events_block([bytes(19)]) + bytes(64 * MIB)))
    return _usual(unit(page, size=1 << 17), block_size=1 << 17)


def gzip_members_without_content():
    return {**usual_schemas(), "a.bin": gzip.compress(usual_header(), mtime=0) + gzip.compress(b"", mtime=0) * 50000}


# --- schemas that ask for more than they are ------------------------------------------------------------------------

def types_that_double():
    types = [event_type("t0", 1, field("a", "uint8_t", 0, 1))]
    for level in range(1, 60):
        types.append(event_type(f"t{level}", 1, field("a", f"t{level - 1}", 0, 1), field("b", f"t{level - 1}", 0, 1)))
    return _events(event_schema(*types), _record_blocks(b"\1", 4 << 16, type_index=59))


def arrays_of_arrays():
    types = [event_type("t0", 1, field("a", "uint8_t", 0, 1, length=65535))]
    for level in range(1, 20):
        types.append(event_type(f"t{level}", 1, field("a", f"t{level - 1}", 0, 1, length=65535)))
    return _events(event_schema(*types), _record_blocks(b"\1", 4 << 16, type_index=19))


def wide_arrays_in_a_record_of_one_byte():
    fields = [field(f"f{at}", "uint8_t", 0, 1, length=65535) for at in range(8)]
    return _events(event_schema(event_type("t", 1, *fields)), _record_blocks(b"\1", MIB))


def array_of_4e9_of_an_empty_type():
    empty = event_type("empty", 1)
    made = event_type("t", 8, field("a", "empty", 0, 0, length=4294967295))
    return _events(event_schema(empty, made), _record_blocks(bytes(8), 4 << 16, type_index=1))


def type_that_holds_itself():
    return _events(event_schema(event_type("t", 8, field("a", "t", 0, 8))), _record_blocks(bytes(8), 4 << 16))


def types_249_deep():
    types = [event_type("t0", 1, field("a", "uint8_t", 0, 1))]
    for level in range(1, 250):
        types.append(event_type(f"t{level}", 1, field("a", f"t{level - 1}", 0, 1)))
    return _events(event_schema(*types), _record_blocks(b"\1", MIB, type_index=249))


def type_of_10000_fields():
    fields = [field(f"f{at}", "uint8_t", at % 200, 1) for at in range(10000)]
    return _events(event_schema(event_type("t", 10000, *fields)), _record_blocks(bytes(10000), MIB))


def fields_of_one_name():
    fields = [field("same", "uint8_t", 0, 1) for at in range(5000)]
    return _events(event_schema(event_type("t", 1, *fields)), _record_blocks(b"\1", MIB))


def schema_text_of_deep_brackets():
    return {schema_path(EVENTS): b"[" * 100000, "a.bin": header(events=[EVENTS])}


def schema_text_of_deep_objects():
    return {schema_path(EVENTS): b'{"a":' * 100000 + b"1" + b"}" * 100000, "a.bin": header(events=[EVENTS])}


def schema_text_of_10_mib():
    return {schema_path(EVENTS): b'{"a":"' + b"x" * (10 * MIB) + b'"}', "a.bin": header(events=[EVENTS])}


# --- counters -------------------------------------------------------------------------------------------------------

def _counters(schema, data, block_size=512):
    return {schema_path(COUNTERS): text(schema), "a.bin": header(counters=COUNTERS, block_size=block_size) + data}


def counters_of_2_to_the_31_sets():
    schema = counters_schema(group(counter("c"), name="g", sets=1 << 31))
    return _counters(schema, unit(counters_block(START, pack("Q", 1)), size=512) * 4)


def counters_of_2_to_the_20_values():
    """As many as are allowed, from a block of eight bytes."""
    schema = counters_schema(group(counter("c"), name="g", sets=1 << 20))
    return _counters(schema, unit(counters_block(START, pack("Q", 1)), size=512))


def counters_text_of_4_gib():
    schema = counters_schema(group(counter("c", "STRING", length=(1 << 32) - 1), name="g"))
    return _counters(schema, unit(counters_block(START, b"abc"), size=512) * 100)


def groups_without_counters():
    schema = counters_schema(*[group(name=f"g{at}", sets=1 << 31) for at in range(2000)])
    return _counters(schema, unit(counters_block(START, b""), size=512) * 4)


# --- lists of schemas that change, steps of nothing ----------------------------------------------------------------

def schemas_in_changing_order():
    """Two lists in turn, 1 MiB of them."""
    first, second = schemas_block([EVENTS, OTHER]), schemas_block([OTHER, EVENTS])
    schema = event_schema(event_type("t", 1, field("a", "uint8_t", 0, 1)))
    return {schema_path(EVENTS): text(schema), schema_path(OTHER): text(schema),
            "a.bin": header(events=[EVENTS], block_size=65536) + (first + second) * (MIB // 512)}


def events_blocks_of_no_records():
    return _usual(events_block([]) * (65536 // 16) * 16, block_size=65536)


def schemas_blocks_of_size_0():
    return _usual(schemas_block([EVENTS], size=0) * 256 * 16, block_size=65536)


def units_of_16_bytes():
    return _usual(b"QVXE".ljust(16, b"\0") * 65536, block_size=16)


ALL = {name: function for name, function in list(globals().items())
       if callable(function) and not name.startswith("_") and function.__module__ == __name__}

# MiB of data blocks and pages that a file really makes the program hold.
REALLY_THERE = {"page_that_unpacks_to_64_mib": 65, "gzip_of_64_mib_of_zeros": 1}
