"""Counters of all kinds."""

from builders import (COUNTERS, START, counter, counters_block, counters_schema, group, header, pack, schema_path, text,
                      unit)


def _file(schema, values, timestamp=START):
    return {schema_path(COUNTERS): text(schema),
            "a.bin": header(counters=COUNTERS, block_size=512) + unit(counters_block(timestamp, values), size=512)}


def counters_of_every_type():
    """A text of 8 bytes, so that positions and offsets are the same."""
    schema = counters_schema(group(
        counter("unsigned"), counter("fraction", "FP64"), counter("bits", "BIT64"), counter("signed", "INT64"),
        counter("word", "STRING", length=8), counter("odd", "no such type"), name="every"))
    return _file(schema, pack("QdQq8sq", 2**64 - 1, -1.5, 0xBEEF, -7, b"abc", -8))


def counters_in_thousands():
    schema = counters_schema(group(*(counter(name, "INT64") for name in ("a", "b", "c", "d"))))
    return _file(schema, pack("qqqq", 1500, -5000, 999, 1000))


def counters_of_two_sets():
    schema = counters_schema(group(counter("busy"), counter("idle"), granularity="CPU", name="cpu", sets=2))
    return _file(schema, pack("QQQQ", 11, 12, 21, 22))


def counters_of_no_set():
    schema = counters_schema(group(counter("busy"), granularity="PACKAGE", name="package", sets=0))
    return _file(schema, pack("Q", 1))


def counters_of_no_group():
    return _file(counters_schema(), b"")


def group_without_counters():
    return _file(counters_schema(group(name="bare")), b"")


def group_without_a_name():
    return _file(counters_schema(group(counter("x"))), pack("Q", 1))


def text_between_numbers():
    """The offsets are 0, 8 and 40."""
    schema = counters_schema(group(counter("before"), counter("word", "STRING", length=32), counter("after", "FP64")))
    return _file(schema, pack("Q32sd", 1, b"thirty-two bytes: path/to/it", 2.5))


def short_number_before_another():
    """A number of length 4 takes four bytes, and is still read as one of eight."""
    schema = counters_schema(group(counter("short", "INT64", length=4), counter("next", "INT64")))
    return _file(schema, pack("iq", 5, 6))


def counters_that_are_no_numbers():
    """A fraction that is none, and a text that is not UTF-8."""
    schema = counters_schema(group(counter("nan", "FP64"), counter("latin", "STRING", length=8), counter("last")))
    return _file(schema, pack("d8sQ", float("nan"), b"caf\xe9", 3))


def counters_late_in_time():
    """The last microsecond that fits, and the last one of the year 9999."""
    schema = counters_schema(group(counter("x")))
    late = unit(counters_block(253402300799999999, pack("Q", 1)), size=512)
    files = _file(schema, pack("Q", 1), timestamp=2**64 - 1)
    files["a.bin"] += late
    return files


def counters_of_large_numbers():
    """Above 2^53 a JSON number is the nearest double."""
    schema = counters_schema(group(counter("exact"), counter("rounded"), counter("zero", "FP64")))
    return _file(schema, pack("QQd", 2**53, 2**53 + 1, -0.0))
