#!/usr/bin/env python3
"""Makes the schemas and the first inputs of the reader's fuzz targets: fuzz/schema, and the files of
fuzz/corpus that this script names."""

import gzip
import json
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


def typed_files():
    """How to read, an event schema, a counters schema and the file, with a NUL behind each schema. They are small: the
    fewer fields, the more inputs a second."""
    pair = event_type("pair", 3, field("small", "uint8_t", 0, 1), field("large", "int16_t", 1, 2))
    nested = event_type("nested", 18, field("text", "char", 0, 1, length=4), field("pairs", "pair", 4, 3, length=2),
                        field("part", "double", 10, 8))
    counters = counters_schema(group(counter("number"), counter("part", "FP64"), name="first"),
                               group(counter("word", "STRING", length=8), granularity="CPU", sets=2))
    texts = b"".join(json.dumps(schema, separators=(",", ":")).encode() + b"\0"
                     for schema in (event_schema(pair, nested), counters))
    events = events_block([pack("4sBhBhd", b"eth0", 1, -2, 3, -4, 0.5)] * 2, type_index=1)
    values = counters_block(START, pack("Qd8s", 1, 0.5, b"abc"))
    made = {}
    for name, choice in (("ndjson", NDJSON), ("json", JSON), ("txt", TXT), ("influx", INFLUX)):
        made[f"events_{name}"] = (choice, events)
        made[f"counters_{name}"] = (choice, values)
    made["gzip"] = (NDJSON, page_block(gzipped(events)))
    made["snappy"] = (JSON, page_block(snappied(events), b"S"))
    return {name: (choice, texts + usual_header() + unit(content)) for name, (choice, content) in made.items()}


def path_templates():
    when = pack("Q", START)
    return {name: when + b"\0".join(parts) for name, parts in {
        "default": (b"{{year}}/{{month}}{{day}}/{{source}}/{{tag}}{{id}}.bin", b"host-a", b"tag-a", b"node", b"_2"),
        "date": (b"%Y/%m/%d/%H%M%S/{{source}}_/{{tag}}", b"..", b"%n%%", b"", b""),
        "nested": (b"{{{{source}}}}{{", b"{{tag}}", b"{{source}}", b"n", b""),
    }.items()}


def command_lines():
    return {name: b"\0".join(arguments) for name, arguments in {
        "usual": (b"-f", b"ndjson", b"-v3", b"a.bin", b"b.bin"),
        "long": (b"--format=txt", b"--timestamp-gt", b"5", b"--timestamp-lt=0x7", b"--sort-files=t", b"--", b"-x"),
        "wrong": (b"--no-such", b"-v", b"9", b"-g", b"word", b"--verb"),
    }.items()}


def inputs_to_unpack():
    plain = b"0123456789" * 20
    packed = gzip.compress(plain, mtime=0)
    return {"plain": b"\7" + plain, "one": b"\7" + packed, "joined": b"\0" + packed + packed + b"tail",
            "cut": b"\x40" + packed[:-9], "wrong_sum": b"\xff" + packed[:-8] + bytes(8)}


def main():
    for path, content in schemas().items():
        target = HERE / path
        target.parent.mkdir(exist_ok=True)
        target.write_bytes(content)
    chosen = {"block_chain_fuzz": chains(), "whole_file_fuzz": files(), "typed_file_fuzz": typed_files()}
    made = {target: {f"{name}.bin": bytes([choice]) + content for name, (choice, content) in inputs.items()}
            for target, inputs in chosen.items()}
    made |= {"path_template_fuzz": path_templates(), "options_fuzz": command_lines(),
             "data_input_fuzz": inputs_to_unpack()}
    for target, inputs in made.items():
        folder = HERE / "corpus" / target
        folder.mkdir(parents=True, exist_ok=True)
        for name, content in inputs.items():
            (folder / name).write_bytes(content)


if __name__ == "__main__":
    main()
