"""Compressed pages."""

import struct
import zlib

from builders import (START, counters_block, counters_file, events_block, gzipped, header, pack, page_block, snappied,
                      unit, usual_header, usual_schemas, usual_values)
from inputs.driver import DOWN, UP

FIRST = events_block([UP])
SECOND = events_block([DOWN])


def _file(*blocks, size=512):
    return {**usual_schemas(), "a.bin": usual_header(block_size=size) + unit(*blocks, size=size)}


def gzip_pages():
    return _file(page_block(gzipped(FIRST)), page_block(gzipped(SECOND)))


def snappy_pages():
    counters = counters_block(START, usual_values(5, 0.5))
    return _file(page_block(snappied(FIRST), b"S"), page_block(snappied(counters), b"S"))


def page_of_long_strings():
    """An id of 64 characters and no tag: the largest id that a writer makes."""
    return _file(page_block(gzipped(FIRST), source=b"s" * 64, tag=b""))


def page_with_wrong_end_magic():
    """What follows it in its data block is skipped; the next data block is read."""
    files = _file(page_block(gzipped(FIRST), end=b"QVXP"), page_block(gzipped(FIRST)))
    files["a.bin"] += unit(page_block(gzipped(SECOND)), size=512)
    return files


def page_that_does_not_fit():
    """One byte of the end magic lies behind the end of the file."""
    block = page_block(gzipped(FIRST))
    return {**usual_schemas(), "a.bin": usual_header(block_size=512) + block[:-1], "b.bin": counters_file(2)}


def failing_page_before_a_good_one():
    return _file(page_block(b"not gzip"), page_block(gzipped(FIRST)))


def failing_page_before_one_with_wrong_end_magic():
    return _file(page_block(b"not gzip"), page_block(gzipped(FIRST), end=b"oops"))


def failing_page_behind_a_good_one():
    return _file(page_block(gzipped(FIRST)), page_block(b"not gzip"))


def page_of_one_byte():
    return _file(page_block(b"\x1f"))


def page_of_three_bytes():
    return _file(page_block(b"\x1f\x8b\x08"))


def page_with_a_wrong_checksum():
    stream = gzipped(FIRST)
    return _file(page_block(stream[:-8] + b"abcd" + stream[-4:]))


def page_of_a_cut_stream():
    """A stored block of 100 bytes of which 3 are there; the trailer claims 100, too."""
    head = b"\x1f\x8b\x08" + bytes(7)
    return _file(page_block(head + b"\x01" + struct.pack("<HH", 100, 0xFFFF ^ 100) + b"QVX" + struct.pack("<I", 100)))


def page_larger_than_its_trailer_says():
    """The trailer says 5 although more comes out."""
    return _file(page_block(gzipped(FIRST)[:-4] + struct.pack("<I", 5)))


def page_of_a_wrong_snappy_stream():
    """A length of 10 and a copy from before the beginning."""
    return _file(page_block(b"\x0a\x05\x01\x01", b"S"))


def page_of_an_unknown_encoding():
    return _file(page_block(b"anything", b"Z"))


def page_that_claims_4_gib():
    """A snappy stream of six bytes; and a good file."""
    return {**_file(page_block(b"\xff\xff\xff\xff\x0f\x00", b"S")), "b.bin": counters_file(2)}


def page_of_nothing():
    return _file(page_block(gzipped(b"")))


def page_of_two_members():
    """Only the first member is unpacked; the rest of the size that the last one names reads as zero."""
    compressed = zlib.compressobj(wbits=31)
    first = compressed.compress(FIRST) + compressed.flush()
    return _file(page_block(first + gzipped(bytes(len(FIRST) + 20))))


def page_in_a_page():
    return _file(page_block(gzipped(page_block(gzipped(FIRST)))))


def page_behind_events():
    """A page block within a chain of events ends the chain."""
    return _file(FIRST, page_block(gzipped(SECOND)))


def page_without_schemas():
    return {"schema/none": b"", "a.bin": header(block_size=512) + unit(page_block(gzipped(FIRST)), size=512)}


def page_of_counters_then_events():
    """Only the first counters block of a chain is read."""
    return _file(page_block(gzipped(counters_block(START, pack("Qd", 1, 0.5)) + FIRST)))
