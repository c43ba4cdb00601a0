"""Every value of the sample data, as each library gets it, is the one that NDJSON shows."""

import datetime

import duckdb
import pandas
import polars
import pyarrow
import pytest

import qvx
from conftest import SAMPLES, ndjson

EPOCH = datetime.datetime(1970, 1, 1, tzinfo=datetime.timezone.utc)


def plain(value):
    """A value as NDJSON has it."""
    if isinstance(value, datetime.datetime):
        if value.tzinfo is None:
            value = value.replace(tzinfo=datetime.timezone.utc)
        return (value - EPOCH) // datetime.timedelta(microseconds=1)
    if isinstance(value, bool):
        return int(value)
    if isinstance(value, dict):
        return {name: plain(member) for name, member in value.items()}
    if isinstance(value, (list, tuple)) or type(value).__name__ == "ndarray":
        return [plain(element) for element in value]
    if hasattr(value, "item"):
        return plain(value.item())
    return value


def by_pyarrow(table):
    return pyarrow.table(table).to_pylist()


def by_pandas(table):
    frame = table.to_pandas(date_as_object=False)
    assert isinstance(frame, pandas.DataFrame)
    records = frame.to_dict("records")
    for record in records:
        for name, value in record.items():
            if isinstance(value, pandas.Timestamp):
                record[name] = value.to_pydatetime()
    return records


def by_polars(table):
    frame = polars.DataFrame(table)
    return frame.to_dicts()


CONNECTION = duckdb.connect()  # one, because making it takes longer than most queries
CONNECTION.execute("SET TimeZone = 'UTC'")


def by_duckdb(table):
    CONNECTION.register("rows", table)
    answer = CONNECTION.execute("select * from rows")
    names = [column[0] for column in answer.description]
    rows = [dict(zip(names, row)) for row in answer.fetchall()]
    CONNECTION.unregister("rows")
    return rows


def by_records(table):
    return list(table)


LIBRARIES = [by_pyarrow, by_pandas, by_polars, by_duckdb, by_records]


@pytest.mark.parametrize("rows_of", LIBRARIES)
def test_events_are_the_ndjson_records(rows_of, sample_files):
    compared = 0
    for path in sample_files:
        data = qvx.open(path)
        for count in data.info().tables:
            if count.kind != "events":
                continue
            expected = [r for r in ndjson(path, data.tables[count.name].name) if not {"groups", "metrics"} & set(r)]
            rows = [plain(row) for row in rows_of(data.table(count.name))]
            assert rows == expected
            compared += len(rows)
        assert data.faults == []
    assert compared > 300


@pytest.mark.parametrize("rows_of", LIBRARIES)
def test_counters_are_the_values_of_the_sets(rows_of, sample_files):
    compared = 0
    for path in sample_files:
        data = qvx.open(path)
        blocks = [r for r in ndjson(path) if "groups" in r]
        rows = [plain(row) for row in rows_of(data.table("counters"))]
        expected = []
        for block in blocks:
            sets = max(len(group["counter_sets"]) for group in block["groups"])
            for number in range(sets):
                row = {"timestamp": block["timestamp"], "set": number}
                for group in block["groups"]:
                    for counter, value in group["counter_sets"][0].items():
                        shown = number < len(group["counter_sets"])
                        row[f"{group['name']}.{counter}"] = value if shown else None
                expected.append(row)
        assert len(rows) == len(expected)
        for row, wanted in zip(rows, expected):
            for name, value in row.items():
                other = wanted.get(name)
                if other is None:
                    assert value is None or value != value  # pandas shows null as NaN
                else:
                    assert value == other, name
                compared += 1
    assert compared > 800


@pytest.mark.parametrize("rows_of", LIBRARIES)
def test_metrics_hold_the_ndjson_samples(rows_of):
    data = qvx.open(SAMPLES / "metrics.bin")
    columns = ["timestamp", "metric", "kind", "labels", "value", "value_u64"]
    rows = [plain(row) for row in rows_of(data.table("metrics", columns))]
    assert len(rows) == 84

    def labels_of(row):
        labels = row["labels"]
        if isinstance(labels, dict):
            return labels
        return {pair["key"]: pair["value"] if isinstance(pair, dict) else pair for pair in labels} if labels and isinstance(
            labels[0], dict
        ) else dict(labels)

    found = {(r["timestamp"], r["metric"], tuple(sorted(labels_of(r).items()))): r for r in rows}
    compared = 0
    for record in ndjson(SAMPLES / "metrics.bin"):
        labels = {name: value for label in record["labels"] for name, value in label.items()}
        for sample in record["metrics"]:
            (metric, value), = sample.items()
            row = found[record["timestamp"], metric, tuple(sorted(labels.items()))]
            exact = row["value_u64"]
            if exact is not None and exact == exact:
                assert exact == value and row["value"] == value
                compared += 1
    assert compared >= 20


def test_types_are_kept(data):
    schema = pyarrow.schema(data.table("job_started"))
    assert schema.field("timestamp").type == pyarrow.timestamp("us", "UTC")
    assert schema.field("user").type == pyarrow.string()
    assert pyarrow.types.is_fixed_size_list(schema.field("nodes").type)
    assert schema.field("timestamp").metadata[b"type"] == b"timestamp"
    assert schema.metadata[b"table"] == b"job_started"
    counters = pyarrow.schema(data.table("counters"))
    assert any(b"units" in (field.metadata or {}) for field in counters)
