"""Event records of all kinds."""

from builders import EVENTS, START, event_schema, event_type, events_block, field, header, pack, schema_path, text, unit

# name, size, letter of the packed form, a value
BUILT_IN = [
    ("bool", 1, "B", 2), ("char", 1, "B", 200), ("short", 2, "h", -2), ("int", 4, "i", -3), ("long", 8, "q", -4),
    ("long long", 8, "q", -5), ("unsigned char", 1, "B", 255), ("unsigned short", 2, "H", 65535),
    ("unsigned int", 4, "I", 4294967295), ("unsigned long", 8, "Q", 2**64 - 1), ("unsigned long long", 8, "Q", 10),
    ("float", 4, "f", 0.5), ("double", 8, "d", 0.1), ("int8_t", 1, "b", -128), ("int16_t", 2, "h", -5),
    ("int32_t", 4, "i", -16), ("int64_t", 8, "q", -17), ("uint8_t", 1, "B", 18), ("uint16_t", 2, "H", 19),
    ("uint32_t", 4, "I", 20), ("uint64_t", 8, "Q", 7), ("timestamp", 8, "Q", START),
]


def _file(*types, records, type_index=None):
    at = len(types) - 1 if type_index is None else type_index
    return {schema_path(EVENTS): text(event_schema(*types)),
            "a.bin": header(events=[EVENTS], block_size=512) + unit(events_block(records, type_index=at), size=512)}


def record_of_every_type():
    fields = []
    record = b""
    for name, size, letter, value in BUILT_IN:
        fields.append(field(f"a {name}", name, len(record), size))
        record += pack(letter, value)
    return _file(event_type("every", len(record), *fields), records=[record])


def record_of_nested_types():
    """An id, a position of two fractions, and a name."""
    position = event_type("position", 16, field("x", "double", 0, 8), field("y", "double", 8, 8))
    thing = event_type("thing", 28, field("id", "uint32_t", 0, 4), field("pos", "position", 4, 16),
                       field("name", "char", 20, 1, length=8))
    return _file(position, thing, records=[pack("Idd8s", 7, 1.5, 2, b"eth0")])


def record_of_texts():
    """Texts end at the first byte that cannot be printed; an array of one character is a number."""
    words = event_type("words", 33, field("nul", "char", 0, 1, length=8),
                       field("control", "unsigned char", 8, 1, length=8),
                       field("full", "char", 16, 1, length=4), field("quoted", "char", 20, 1, length=8),
                       field("latin", "char", 28, 1, length=4), field("one", "char", 32, 1, length=1))
    return _file(words, records=[pack("8s8s4s8s4sB", b"eth0", b"ab\x01cd", b"four", b'a"\\/b', b"\xe9t\xe9", 65)])


def record_of_arrays():
    """Three numbers, and two pairs."""
    pair = event_type("pair", 3, field("small", "uint8_t", 0, 1), field("large", "int16_t", 1, 2))
    arrays = event_type("arrays", 18, field("numbers", "uint32_t", 0, 4, length=3),
                        field("pairs", "pair", 12, 3, length=2))
    return _file(pair, arrays, records=[pack("IIIBhBh", 1, 2, 3, 4, -5, 6, -7)])


def record_of_numbers_only():
    """In Influx form nothing is left of it."""
    numbers = event_type("numbers", 12, field("numbers", "uint32_t", 0, 4, length=3))
    return _file(numbers, records=[pack("III", 1, 2, 3)])


def record_without_fields():
    return _file(event_type("bare", 4), records=[pack("I", 1)])


def record_with_a_name_twice():
    """In JSON the later value stands at the earlier place."""
    twice = event_type("twice", 3, field("a", "uint8_t", 0, 1), field("b", "uint8_t", 1, 1),
                       field("a", "uint8_t", 2, 1))
    return _file(twice, records=[pack("BBB", 1, 2, 3)])


def record_that_is_no_number():
    """One good record before it, one after it."""
    load = event_type("load", 8, field("value", "double", 0, 8))
    return _file(load, records=[pack("d", 0.25), pack("d", float("nan")), pack("d", 0.5)])


def record_with_an_infinite_float():
    return _file(event_type("load", 4, field("value", "float", 0, 4)), records=[pack("f", float("-inf"))])


def record_with_a_field_behind_the_data():
    far = event_type("far", 8, field("value", "double", 100000, 8))
    return _file(far, records=[pack("d", 0.25)])
