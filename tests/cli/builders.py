"""Builds the bytes of data files and the texts of schema files, field by field.

Everything is spelled out here from the byte tables of docs/file_format.md and independently of the library, so that a
wrong offset in one of the two shows.
"""

import gzip
import json
import struct

NO_ID = bytes(16)
# Two identifiers for the usual schema files. A reader does not compare them with the content.
EVENTS = bytes.fromhex("e1" * 16)
COUNTERS = bytes.fromhex("c1" * 16)

START = 1_700_000_000_000_000  # 2023-11-14 22:13:20 UTC in microseconds


class Link:
    """A symbolic link."""

    def __init__(self, target):
        self.target = target


class Fifo:
    """A named pipe."""


class Folder:
    """An empty folder."""


# --- data files ---------------------------------------------------------------------------------------------------


def header(block_size=256, counters=NO_ID, events=(), magic=b"QVXF", version=(1, 7, 0), file_size=256,
           source=b"host-a", tag=b"tag-a", first=START, last=START + 10, byte_order=0, magic_end=b"qvxf"):
    """The 256 bytes that begin a file."""
    ids = list(events) + [NO_ID] * (7 - len(events))
    made = b"".join([
        magic,
        struct.pack("<BBH", *version),
        struct.pack("<Q", file_size),
        source.ljust(64, b"\0"),
        tag.ljust(16, b"\0"),
        struct.pack("<QQ", first, last),
        struct.pack("<I", block_size),
        counters,
        b"".join(ids),
        struct.pack("<B", byte_order),
        bytes(7),
        magic_end,
    ])
    assert len(made) == 256
    return made


def unit(*blocks, size=256):
    """Blocks one after the other in one data block, filled up with zeros."""
    made = b"".join(blocks)
    assert len(made) <= size, len(made)
    return made.ljust(size, b"\0")


def counters_block(timestamp, values):
    return b"QVXD" + bytes(4) + struct.pack("<Q", timestamp) + values


def events_block(records, schema=0, type_index=0, count=None, timestamp=START):
    """A run of events of one type; `count` may claim another number than there are."""
    number = len(records) if count is None else count
    return b"QVXE" + struct.pack("<QBHB", timestamp, schema, type_index, number) + b"".join(records)


def schemas_block(ids, size=256, count=None):
    number = len(ids) if count is None else count
    made = b"QVXS" + struct.pack("<HB", size, number) + bytes(9) + b"".join(ids)
    return made.ljust(256, b"\0")


def blob_block(data, timestamp=START):
    return b"QVXB" + struct.pack("<QQ", timestamp, len(data)) + data


def metrics_texts(texts):
    return b"".join(bytes([len(text)]) + text for text in (text.encode() for text in texts))


def metrics_batch(timestamp, samples, label_set, labels, kind=b"C", value_type=1):
    """A batch record; the labels are places in the table of label values."""
    made = struct.pack("<Q", timestamp) + kind + struct.pack("<BH", value_type, len(samples))
    made += b"".join(struct.pack("<HQ", *sample) for sample in samples)
    made += bytes([label_set, len(labels)]) + b"L" + bytes(labels)
    return struct.pack("<H", 2 + len(made)) + made


def metrics_block(label_names, label_values, metric_names, constants, batches):
    """Label names are a list for each set, constant labels names and values in turn."""
    body = b"".join(b"LBLN" + bytes([len(names)]) + metrics_texts(names) + b"lbln" for names in label_names)
    for opening, texts in ((b"LBLV", label_values), (b"CNTI", metric_names), (b"CLBL", constants)):
        body += opening + struct.pack("<H", len(texts)) + metrics_texts(texts) + opening.lower()
    body += b"CNTD" + struct.pack("<I", max(map(len, batches))) + b"".join(batches) + b"cntdcntx"
    return b"CNTX" + struct.pack("<I", 8 + len(body)) + body


def page_block(encoded, encoding=b"G", source=b"host-a", tag=b"tag-a", end=b"qvxp", first=START, last=START + 10):
    """A compressed page; the data are given as they stand in the file."""
    strings = bytes([len(source)]) + source + bytes([len(tag)]) + tag
    fixed = encoding + struct.pack("<IQQ", len(encoded), first, last)
    return b"QVXP" + bytes([1 + len(fixed) + len(strings)]) + fixed + strings + encoded + end


def gzipped(data):
    return gzip.compress(data, mtime=0)


def snappied(data):
    """A snappy stream of one literal: the length as a varint, then a literal tag with a two-byte length."""
    size = len(data)
    varint = b""
    while True:
        low, size = size & 0x7F, size >> 7
        varint += bytes([low | (0x80 if size else 0)])
        if not size:
            break
    return varint + b"\xf4" + struct.pack("<H", len(data) - 1) + data


def pack(format_text, *values):
    """Values without gaps, little-endian, in the letters of Python's struct."""
    return struct.pack("<" + format_text, *values)


# --- schema files -------------------------------------------------------------------------------------------------


def schema_path(identifier, folder="schema"):
    return f"{folder}/schema_{identifier.hex()}.json"


def field(name, type_name, offset, size, length=None):
    """A field of an event type; a length of 2 and more makes an array."""
    made = {"field_name": name, "description": "", "type_name": type_name, "counting_mode": "ABSOLUTE"}
    if length is not None:
        made["array_length"] = length
    return {**made, "offset": offset, "type_size": size, "index": 0}


def event_type(name, size, *fields):
    return {"name": name, "size": size, "fields": list(fields)}


def event_schema(*types, name="network", version="1.5.0"):
    return {"title": "Quorvex schema", "qvx_version": version, "provider_name": name, "provider_version": "1.2.3",
            "types": list(types)}


def counter(name, data_type="UINT64", length=0):
    return {"name": name, "description": f"about {name}", "units": "n", "data_type": data_type, "length": length,
            "offset": 0, "hidden": 0, "mandatory": 0, "counting_type": "ABSOLUTE"}


def group(*counters, granularity="NODE", name=None, sets=1):
    made = {"granularity": granularity}
    if name is not None:
        made["name"] = name
    return {**made, "num_counter_sets": sets, "num_counters": len(counters), "counters": list(counters)}


def counters_schema(*groups, version="1.5.0"):
    return {"title": "Quorvex performance counters collector", "version": version, "counter_groups": list(groups)}


def text(value):
    return json.dumps(value, indent=4).encode()


# --- what most cases use --------------------------------------------------------------------------------------------

LINK_STATE = event_type(
    "link_state", 19,
    field("at", "timestamp", 0, 8),
    field("port", "uint16_t", 8, 2),
    field("up", "bool", 10, 1),
    field("name", "char", 11, 1, length=8))
LOAD = event_type("load", 8, field("value", "double", 0, 8))


def link_state(at, port, up, name):
    return pack("QHB8s", at, port, up, name)


USUAL_EVENTS = event_schema(LINK_STATE, LOAD)
USUAL_COUNTERS = counters_schema(group(counter("packets"), counter("load", "FP64"), name="net"))


def usual_values(packets, load):
    return pack("Qd", packets, load)


def usual_schemas(folder="schema"):
    return {schema_path(EVENTS, folder): text(USUAL_EVENTS), schema_path(COUNTERS, folder): text(USUAL_COUNTERS)}


def usual_header(**changes):
    return header(**{"counters": COUNTERS, "events": [EVENTS], **changes})


def counters_file(*packets, **changes):
    """A file of one counters block a data block, ten microseconds apart; each has the load 0.5."""
    blocks = [unit(counters_block(START + 10 * at, usual_values(value, 0.5))) for at, value in enumerate(packets)]
    return usual_header(**changes) + b"".join(blocks)


def events_file(*blocks, **changes):
    """A file of one data block that holds the blocks."""
    return usual_header(**changes) + unit(*blocks)
