#!/usr/bin/env python3
"""Makes the schemas and the first inputs of the reader's fuzz targets: fuzz/schema, and the files of
fuzz/corpus/block_chain_fuzz and fuzz/corpus/whole_file_fuzz that this script names."""

import gzip
import pathlib
import sys

HERE = pathlib.Path(__file__).resolve().parent
sys.path.insert(0, str(HERE.parent / "tests" / "cli"))

from builders import (COUNTERS, EVENTS, START, blob_block, counter, counters_block, counters_schema,  # noqa: E402
                      event_schema, event_type, events_block, field, group, gzipped, pack, page_block, schema_path,
                      schemas_block, snappied, text, unit, usual_header)
from inputs.records import BUILT_IN  # noqa: E402

NDJSON, JSON, TXT, INFLUX, CSV = range(5)
HEADERS, RANGE, IN_PAGE_OR_SORTED = 8, 16, 32


def schemas():
    fields, offset = [], 0
    for name, size, _, _ in BUILT_IN:
        fields.append(field(name.replace(" ", "_"), name, offset, size))
        offset += size
    pair = event_type("pair", 3, field("small", "uint8_t", 0, 1), field("large", "int16_t", 1, 2))
    nested = event_type("nested", 26, field("text", "char", 0, 1, length=8), field("pairs", "pair", 8, 3, length=2),
                        field("numbers", "uint32_t", 14, 4, length=3))
    counters = counters_schema(
        group(counter("unsigned"), counter("fraction", "FP64"), counter("word", "STRING", length=8), name="first"),
        group(counter("bits", "BIT64"), counter("signed", "INT64"), granularity="CPU", sets=2))
    return {schema_path(EVENTS): text(event_schema(event_type("every", offset, *fields), pair, nested)),
            schema_path(COUNTERS): text(counters)}


def chains():
    every = events_block([b"".join(pack(letter, value) for _, _, letter, value in BUILT_IN)])
    nested = events_block([pack("8sBhBhIII", b"eth0", 1, -2, 3, -4, 5, 6, 7)] * 2, type_index=2)
    values = counters_block(START, pack("Qd8sQqQq", 1, 0.5, b"abc", 0xBEEF, -7, 2, 3))
    return {
        "every_ndjson": (NDJSON, every),
        "every_influx": (INFLUX, every),
        "nested_json": (JSON, nested + every),
        "nested_headers": (JSON | HEADERS, nested),
        "counters_ndjson": (NDJSON, values),
        "counters_txt": (TXT, values),
        "counters_txt_cut": (TXT, values[:26]),
        "counters_late": (NDJSON | RANGE, values),
        "schemas": (NDJSON, schemas_block([EVENTS, EVENTS]) + events_block([pack("Bh", 1, 2)], 1, 1)),
        "blob": (NDJSON | IN_PAGE_OR_SORTED, blob_block(b"data")),
        "pages": (NDJSON, page_block(gzipped(nested)) + page_block(snappied(values), b"S")),
        "metrics": (NDJSON, b"CNTX" + bytes(28)),
    }


def files():
    made = {}
    for name, (choice, chain) in chains().items():
        made[name] = (choice, usual_header(block_size=512) + unit(chain, size=512))
    blocks = b"".join(unit(chain, size=512) for _, chain in list(chains().values())[:8])
    made["many_blocks"] = (NDJSON | IN_PAGE_OR_SORTED, usual_header(block_size=512) + blocks)
    made["gzip"] = (NDJSON, gzip.compress(made["pages"][1], mtime=0))
    made["short_block"] = (CSV, made["every_ndjson"][1][:-200])
    return made


def main():
    for path, content in schemas().items():
        target = HERE / path
        target.parent.mkdir(exist_ok=True)
        target.write_bytes(content)
    for target, inputs in (("block_chain_fuzz", chains()), ("whole_file_fuzz", files())):
        folder = HERE / "corpus" / target
        folder.mkdir(parents=True, exist_ok=True)
        for name, (choice, content) in inputs.items():
            (folder / f"{name}.bin").write_bytes(bytes([choice]) + content)


if __name__ == "__main__":
    main()
