"""Headers, data blocks and chains of blocks."""

import gzip
import random

from builders import (EVENTS, NO_ID, START, Folder, blob_block, counters_block, counters_file, events_block,
                      events_file, event_schema, event_type, field, header, link_state, pack, page_block, schema_path,
                      gzipped, schemas_block, text, unit, usual_header, usual_schemas, usual_values)

OTHER = bytes.fromhex("e2" * 16)

UP = link_state(START, 1, 1, b"eth0")
DOWN = link_state(START + 5, 2, 0, b"eth1")


def _with_schemas(**named):
    return {**usual_schemas(), **{f"{name}.bin": content for name, content in named.items()}}


# --- headers --------------------------------------------------------------------------------------------------------


def empty_file():
    return {"schema": Folder(), "a.bin": b""}


def folder_as_file():
    return {"schema": Folder(), "a.bin": Folder()}


def header_alone():
    return {"schema": Folder(), "a.bin": header()}


def header_of_an_events_kind():
    """The wrong kind together with a version that is wrong, too."""
    return {"schema": Folder(), "a.bin": header(magic=b"QVXE", version=(2, 0, 0))}


def header_of_another_prefix():
    return {"schema": Folder(), "a.bin": header(magic=b"QVYF")}


def headers_of_known_versions():
    return {"schema": Folder(), "a.bin": header(version=(1, 7, 9)), "b.bin": header(version=(1, 0, 0))}


def headers_of_unknown_versions():
    return {"schema": Folder(), "a.bin": header(version=(1, 8, 0)), "b.bin": header(version=(2, 7, 0)),
            "c.bin": header(version=(0, 7, 300))}


def header_with_file_size_255():
    return {"schema": Folder(), "a.bin": header(file_size=255)}


def header_with_huge_file_size():
    """All ones: the largest unsigned number, though -1 as a signed one."""
    return {"schema": Folder(), "a.bin": header(file_size=2**64 - 1)}


def header_of_a_big_endian_writer():
    return {"schema": Folder(),
            "a.bin": header(version=(1, 6, 12), byte_order=1, magic_end=b"oops", counters=NO_ID, first=1, last=2,
                            events=[], source=b"host-a", tag=b"x")}


def header_with_schemas():
    return _with_schemas(a=usual_header())


def header_with_wrong_version_to_print():
    return {"schema": Folder(), "a.bin": header(version=(1, 8, 0))}


def block_sizes_out_of_range():
    return {"schema": Folder(), "a.bin": header(block_size=15), "b.bin": header(block_size=125829120),
            "c.bin": header(block_size=2**32 - 1)}


def block_sizes_in_range():
    return {"schema": Folder(), "a.bin": header(block_size=16), "b.bin": header(block_size=125829119)}


def small_file_of_the_largest_block_size():
    return _with_schemas(a=usual_header(block_size=125829119) + counters_block(START, usual_values(7, 0.5)))


def huge_block_size_between_files():
    return _with_schemas(a=header(block_size=125829119) + b"QVXB", b=counters_file(2))


# --- data blocks ----------------------------------------------------------------------------------------------------


def short_last_block():
    return _with_schemas(a=counters_file(1) + counters_block(START + 10, usual_values(2, 0.5)))


def last_block_of_three_bytes():
    return _with_schemas(a=counters_file(1) + b"QVX", b=counters_file(2))


def whole_file_gzip():
    return {**usual_schemas(), "a.bin.gz": gzip.compress(counters_file(1, 2), mtime=0)}


def gzip_with_a_wrong_checksum():
    """Two data blocks too large to be unpacked at once; the fault shows only behind the last byte."""
    noise = random.Random(1)
    content = usual_header(block_size=65536)
    for at in range(2):
        content += counters_block(START + at, usual_values(at, 0.5)) + noise.randbytes(65536 - 32)
    stream = bytearray(gzip.compress(content, mtime=0))
    stream[-8] ^= 1
    return {**usual_schemas(), "a.bin": bytes(stream)}


def gzip_cut_in_half():
    """Five hundred data blocks of noise; the stream ends in the middle of one of them."""
    noise = random.Random(2)
    content = usual_header(block_size=512)
    for at in range(500):
        content += counters_block(START + at, usual_values(at, 0.5)) + noise.randbytes(512 - 32)
    stream = gzip.compress(content, mtime=0)
    return {**usual_schemas(), "a.bin": stream[:len(stream) // 2]}


def gzip_of_a_short_header():
    return {"schema": Folder(), "a.bin": gzip.compress(header()[:255], mtime=0)}


def blob_file():
    return _with_schemas(a=events_file(blob_block(b"opaque")), b=counters_file(2))


def unknown_block():
    return _with_schemas(a=events_file(b"QVXAxxxx"))


def block_of_a_magic_with_nul():
    return _with_schemas(a=events_file(b"Q\0\0Zxxxx"))


def blob_in_a_page():
    return _with_schemas(a=usual_header() + unit(page_block(gzipped(blob_block(b"opaque")))))


def blocks_before_a_blob():
    first = unit(counters_block(START, usual_values(1, 0.5)))
    return _with_schemas(a=usual_header() + first + unit(blob_block(b"x")) + first)


def out_of_range():
    """Covers 200 to 300 microseconds."""
    return _with_schemas(a=usual_header(first=200, last=300) + unit(counters_block(250, usual_values(1, 0.5))))


def counters_around_a_time():
    return _with_schemas(a=counters_file(1, 2, 3, 4))


def second_counters_block_of_a_unit():
    block = counters_block(START, usual_values(1, 0.5))
    return _with_schemas(a=usual_header() + unit(block, block))


# --- chains of events -----------------------------------------------------------------------------------------------


def events():
    return _with_schemas(a=events_file(events_block([UP, DOWN]), events_block([pack("d", 0.25)], type_index=1)))


def events_and_counters():
    return _with_schemas(
        a=usual_header() + unit(events_block([UP])) + unit(counters_block(START, usual_values(1, 0.5))))


def events_of_no_schema():
    return _with_schemas(a=events_file(events_block([UP], schema=1)), b=counters_file(2))


def events_of_no_type():
    return _with_schemas(a=events_file(events_block([UP]), events_block([DOWN], type_index=2)))


def events_then_counters():
    """Within one chain the counters end the walk."""
    counters = counters_block(START, usual_values(1, 0.5))
    return _with_schemas(a=events_file(events_block([UP]), counters, events_block([DOWN])))


def events_block_of_none():
    return _with_schemas(a=events_file(events_block([]), events_block([DOWN])))


def events_block_with_a_cut_record():
    """255 are claimed, two and a half are there."""
    block = events_block([UP, DOWN, UP[:10]], count=255)
    return _with_schemas(a=usual_header(block_size=len(block)) + block)


def events_block_cut_in_its_header():
    return _with_schemas(a=usual_header() + unit(events_block([UP])) + b"QVXE\0")


def four_bytes_of_events():
    return _with_schemas(a=usual_header() + b"QVXE")


def header_without_first_schema():
    """The first slot is empty, so that the second one's schema is number 0."""
    return _with_schemas(a=events_file(events_block([UP]), events=[NO_ID, EVENTS]))


def schemas_in_the_data():
    """The first schemas block replaces the header's schema by another; the second brings it back."""
    other = event_schema(event_type("other", 2, field("small", "uint16_t", 0, 2)), name="other")
    blocks = [events_block([UP]), schemas_block([OTHER]), events_block([pack("H", 9)]),
              schemas_block([NO_ID, OTHER, EVENTS]), events_block([DOWN], schema=1)]
    data = b"".join(blocks)
    return {**_with_schemas(a=usual_header(block_size=1024) + unit(data, size=1024)), schema_path(OTHER): text(other)}


def counters_after_a_schemas_block():
    return _with_schemas(a=usual_header() + schemas_block([]) + unit(counters_block(START, usual_values(1, 0.5))))


def schemas_block_of_14():
    block = schemas_block([EVENTS] * 14)
    return _with_schemas(a=usual_header(block_size=512) + unit(block, events_block([UP], schema=13), size=512))


def schemas_block_of_15():
    return _with_schemas(a=usual_header() + schemas_block([EVENTS] * 14, count=15))


def schemas_block_too_short():
    return _with_schemas(a=usual_header(block_size=255) + schemas_block([EVENTS])[:255])


def schemas_block_larger_than_what_is_left():
    return _with_schemas(a=usual_header() + schemas_block([EVENTS], size=257))


def schemas_block_of_size_0():
    return _with_schemas(a=usual_header() + schemas_block([EVENTS], size=0))


def schemas_block_without_a_file():
    return _with_schemas(a=events_file(events_block([UP])) + schemas_block([OTHER]) + unit(events_block([DOWN])))


def header_schema_without_a_file():
    return _with_schemas(a=usual_header(events=[EVENTS, OTHER]), b=counters_file(2))


def counters_schema_without_a_file():
    return _with_schemas(a=usual_header(counters=OTHER), b=counters_file(2))


def counters_without_a_schema():
    return _with_schemas(a=counters_file(1, counters=NO_ID))


def cut_counters_block():
    """The values of the schema need 16 bytes; 8 are there."""
    return _with_schemas(a=usual_header() + counters_block(START, pack("Q", 7)))


def names_to_match():
    """Event types of a group, of one that begins alike, and of another."""
    types = [event_type(name, 1, field("v", "uint8_t", 0, 1)) for name in ("net", "net.rx", "network", "Disk.io")]
    blocks = [events_block([pack("B", at)], type_index=at) for at in range(4)]
    return {schema_path(EVENTS): text(event_schema(*types)), "a.bin": header(events=[EVENTS]) + unit(*blocks)}


def events_then_counters_apart():
    """Counters in one file, events in the other."""
    return _with_schemas(a=counters_file(1), b=events_file(events_block([UP])))
