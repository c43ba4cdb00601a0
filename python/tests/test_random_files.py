"""Every value of files of random types, as each library gets it, is the one that NDJSON shows."""

import os
import struct

import pytest

import qvx
import random_files
from conftest import ndjson
from test_values import LIBRARIES, plain

FILES = int(os.environ.get("QVX_RANDOM_FILES", "1000"))
PARTS = 10


def is_same(value, shown):
    """Whether a value is what NDJSON shows: numbers as doubles, booleans as 0 and 1, nothing for null."""
    if shown is None or value is None:
        return shown is None and (value is None or value != value)
    if isinstance(shown, dict):
        return list(value) == list(shown) and all(is_same(value[name], shown[name]) for name in shown)
    if isinstance(shown, list):
        return len(value) == len(shown) and all(map(is_same, value, shown))
    return value == shown if isinstance(shown, str) else float(value) == float(shown)


def counters_rows(block):
    for number in range(max(len(group["counter_sets"]) for group in block["groups"])):
        row = {"timestamp": block["timestamp"], "set": number}
        for group in block["groups"]:
            sets = group["counter_sets"]
            for counter in sets[0]:
                row[f"{group['name']}.{counter}"] = sets[number][counter] if number < len(sets) else None
        yield row


def metrics_rows(record):
    labels = {name: value for label in record["labels"] for name, value in label.items()}
    for sample in record["metrics"]:
        for metric, value in sample.items():
            yield {"timestamp": record["timestamp"], "metric": metric, "labels": labels, "value": value}


def expected_tables(path):
    """The rows of each table, in order, as one run of the program shows them."""
    tables = {}
    for record in ndjson(path):
        if "groups" in record:
            tables.setdefault("counters", []).extend(counters_rows(record))
        elif "metrics" in record:
            tables.setdefault("metrics", []).extend(metrics_rows(record))
        else:
            tables.setdefault(next(iter(record)).split(".")[0], []).append(record)
    return tables


def as_metric(row):
    """A metrics row as NDJSON shows it: the 64 bits of a value as an unsigned number."""
    labels = row["labels"]
    if not isinstance(labels, dict):
        labels = dict(pair.values() if isinstance(pair, dict) else pair for pair in labels)
    unsigned, signed = (None if row[name] != row[name] else row[name] for name in ("value_u64", "value_i64"))
    if unsigned is not None:
        bits = unsigned
    elif signed is not None:
        bits = int(signed) % 2**64
    else:
        (bits,) = struct.unpack("<Q", struct.pack("<d", row["value"]))
    assert row["value"] == unsigned or row["value"] == signed or unsigned is signed is None
    return {"timestamp": row["timestamp"], "metric": row["metric"], "labels": labels, "value": bits}


@pytest.mark.parametrize("part", range(PARTS))
def test_random_files_hold_what_ndjson_shows(part, tmp_path):
    compared = 0
    for seed in range(part, FILES, PARTS):
        path = random_files.write(tmp_path / str(seed), seed)
        data = qvx.open(path)
        expected = expected_tables(path)
        found = data.info(1)
        assert data.faults == [], seed
        assert {table.name: table.rows for table in found.tables} == {n: len(r) for n, r in expected.items()}, seed
        for name, shown in expected.items():
            for rows_of in LIBRARIES:
                rows = [plain(row) for row in rows_of(data.table(name))]
                if name == "metrics":
                    rows = [as_metric(row) for row in rows]
                assert len(rows) == len(shown)
                for row, wanted in zip(rows, shown):
                    assert is_same(row, wanted), (seed, name, rows_of.__name__, row, wanted)
                compared += len(rows)
    assert compared > 10 * FILES // PARTS
