"""Data files as a Spark data source.

    >>> import qvx.spark
    >>> qvx.spark.register(spark)
    >>> spark.read.format("qvx").option("table", "job_started").load("/data/2024/*/*.bin")

Files become tasks, and a task hands over Arrow batches as they are decoded. Whatever machine runs one reads its files itself, so
paths and schema folders are the same on all of them, and the package is installed there. Options:

table         the name of a table, or "_faults": what is wrong in the files, a row for each fault (file, offset, kind, words)
columns       names, joined by commas; all columns of the table if not given. Spark does not tell a data source in Python
              which columns a query needs.
schema        the folder of the schema files
filesPerTask  at most; 64 if not given
bytesPerTask  a task is given another file while its files have fewer bytes; 64 MiB if not given
failOnFaults  "true": a task that finds a fault fails, instead of giving what is good

Conditions on the time of the rows, on "metric", "_source_id" and "_source_tag" are used while files are decoded. Spark knows no
unsigned numbers: they become the next larger type, and 64-bit ones decimal(20,0).
"""

from __future__ import annotations

import datetime
import json
import os
from dataclasses import dataclass, field
from typing import TYPE_CHECKING, Any, Dict, Iterable, Iterator, List, Optional, Sequence, Tuple

import pyarrow
from pyspark.sql.datasource import DataSource, DataSourceReader, InputPartition
from pyspark.sql.pandas.types import from_arrow_schema, to_arrow_schema

import qvx
from qvx._dataset import _EXTRA_COLUMNS, _data_files

if TYPE_CHECKING:
    from pyspark.sql import SparkSession
    from pyspark.sql.types import StructType

FAULTS = "_faults"
FAULTS_SCHEMA = "file string, offset long, kind string, words string"
CONDITIONS = ("metric", "_source_id", "_source_tag")

_UNSIGNED = {
    pyarrow.uint8(): pyarrow.int16(),
    pyarrow.uint16(): pyarrow.int32(),
    pyarrow.uint32(): pyarrow.int64(),
    pyarrow.uint64(): pyarrow.decimal128(20, 0),
}


def register(spark: "SparkSession") -> None:
    """Makes the format "qvx" known to a session."""
    spark.dataSource.register(QvxDataSource)
    spark.conf.set("spark.sql.python.filterPushdown.enabled", "true")


def _known_to_spark(kind: pyarrow.DataType) -> pyarrow.DataType:
    """The Arrow type of which Spark has one."""
    if pyarrow.types.is_dictionary(kind):
        return _known_to_spark(kind.value_type)
    if pyarrow.types.is_fixed_size_list(kind):
        return pyarrow.list_(_known_to_spark(kind.value_type))
    if pyarrow.types.is_struct(kind):
        fields = (kind.field(i) for i in range(kind.num_fields))
        return pyarrow.struct([pyarrow.field(member.name, _known_to_spark(member.type)) for member in fields])
    if pyarrow.types.is_map(kind):
        return pyarrow.map_(_known_to_spark(kind.key_type), _known_to_spark(kind.item_type))
    return _UNSIGNED.get(kind, kind)


def _converted(array: pyarrow.Array, kind: pyarrow.DataType) -> pyarrow.Array:
    """The same values in a type of which Spark has one."""
    if array.type == kind:
        return array
    if pyarrow.types.is_fixed_size_list(array.type):
        size = array.type.list_size
        offsets = pyarrow.array(range(0, (len(array) + 1) * size, size), pyarrow.int32())
        values = array.values.slice(array.offset * size, len(array) * size)
        return pyarrow.ListArray.from_arrays(offsets, _converted(values, kind.value_type), mask=array.is_null())
    if pyarrow.types.is_struct(array.type):
        members = [_converted(array.field(i), kind.field(i).type) for i in range(kind.num_fields)]
        names = [kind.field(i).name for i in range(kind.num_fields)]
        return pyarrow.StructArray.from_arrays(members, names, mask=array.is_null())
    if pyarrow.types.is_map(array.type):
        keys, items = _converted(array.keys, kind.key_type), _converted(array.items, kind.item_type)
        return pyarrow.MapArray.from_arrays(array.offsets, keys, items)
    return array.cast(kind)


def _arrow_schema(data: qvx.Dataset, table: str, columns: Optional[Sequence[str]]) -> pyarrow.Schema:
    schema = pyarrow.schema(data.table(table, columns))
    return pyarrow.schema([pyarrow.field(member.name, _known_to_spark(member.type)) for member in schema])


@dataclass
class Files(InputPartition):  # type: ignore[misc]
    """The files of one task."""

    paths: List[str]


class QvxDataSource(DataSource):  # type: ignore[misc]
    @classmethod
    def name(cls) -> str:
        return "qvx"

    @property
    def _files(self) -> List[str]:
        paths = json.loads(self.options["paths"]) if "paths" in self.options else [self.options["path"]]
        return [os.fsdecode(path) for path in _data_files([path.removeprefix("file:") for path in paths])]

    @property
    def _table(self) -> str:
        table = self.options.get("table")
        if not table:
            raise ValueError('the option "table" names a table, or "_faults"')
        return table

    def schema(self) -> Any:
        if self._table == FAULTS:
            return FAULTS_SCHEMA
        names = self.options.get("columns")
        columns = [name.strip() for name in names.split(",")] if names else None
        data = qvx.open(self._files, self.options.get("schema"))
        return from_arrow_schema(_arrow_schema(data, self._table, columns))

    def reader(self, schema: "StructType") -> "QvxReader":
        return QvxReader(
            files=self._files,
            table=self._table,
            schema_folder=self.options.get("schema"),
            columns=to_arrow_schema(schema, timezone="UTC"),
            files_per_task=int(self.options.get("filesPerTask", 64)),
            bytes_per_task=int(self.options.get("bytesPerTask", 64 << 20)),
            fail_on_faults=self.options.get("failOnFaults", "false").lower() == "true",
        )


@dataclass
class QvxReader(DataSourceReader):  # type: ignore[misc]
    files: List[str]
    table: str
    schema_folder: Optional[str]
    columns: pyarrow.Schema
    files_per_task: int
    bytes_per_task: int
    fail_on_faults: bool
    times: Dict[str, Tuple[Optional[int], Optional[int]]] = field(default_factory=dict)
    where: Dict[str, List[str]] = field(default_factory=dict)

    def pushFilters(self, filters: List[Any]) -> Iterable[Any]:  # noqa: N802
        """Notes what decoding can use. Spark applies all of them again, as patterns match in any case."""
        for condition in filters:
            name = ".".join(getattr(condition, "attribute", ()))
            if name in CONDITIONS:
                self._note_text(name, condition)
            else:
                self._note_time(name, type(condition).__name__, getattr(condition, "value", None))
        return filters

    def _note_time(self, name: str, kind: str, value: Any) -> None:
        if not isinstance(value, datetime.datetime):
            return
        # One without a zone is local time, as everywhere in Spark's Python interface.
        since_1970 = value.astimezone(datetime.timezone.utc) - datetime.datetime(1970, 1, 1, tzinfo=datetime.timezone.utc)
        at = since_1970 // datetime.timedelta(microseconds=1)
        since, until = self.times.get(name, (None, None))
        if kind in ("GreaterThan", "GreaterThanOrEqual", "EqualTo"):
            since = at if since is None else max(at, since)
        if kind in ("LessThan", "LessThanOrEqual", "EqualTo"):
            until = at if until is None else min(at, until)
        self.times[name] = (since, until)

    def row_times(self, local: pyarrow.Schema) -> Tuple[Optional[int], Optional[int]]:
        """The range of row times that the conditions leave of files with these columns. Of several times the first one of a
        type is that of the row, and files need not agree on which one that is.
        """
        times = [member.name for member in local if pyarrow.types.is_timestamp(member.type)]
        for name, (since, until) in self.times.items():
            if name == "_time" or (len(times) == 1 and self._find(pyarrow.field(name, local.field(times[0]).type), local) == times[0]):
                return since, until
        return None, None

    def _note_text(self, name: str, condition: Any) -> None:
        kind = type(condition).__name__
        if kind == "In":
            patterns = list(condition.value)
        elif kind == "EqualTo":
            patterns = [condition.value]
        elif kind == "StringStartsWith":
            patterns = [condition.value]
        else:
            return
        if name in self.where or not all(isinstance(text, str) and not set(text) & set("*?[]\\") for text in patterns):
            return
        self.where[name] = [text + "*" for text in patterns] if kind == "StringStartsWith" else patterns

    def partitions(self) -> Sequence[Files]:
        """Neighbouring files together, as many as a task takes."""
        tasks: List[Files] = []
        size = 0
        for path in self.files:
            if not tasks or len(tasks[-1].paths) >= self.files_per_task or size >= self.bytes_per_task:
                tasks.append(Files([]))
                size = 0
            tasks[-1].paths.append(path)
            size += os.path.getsize(path) if os.path.exists(path) else 0
        return tasks

    def read(self, partition: Files) -> Iterator[pyarrow.RecordBatch]:
        data = qvx.open(partition.paths, self.schema_folder)
        if self.table == FAULTS:
            data.info(1)
            rows = [{"file": f.file, "offset": f.offset, "kind": f.kind, "words": f.words} for f in data.faults]
            if rows:
                yield pyarrow.RecordBatch.from_pylist(rows, self.columns)
            return
        try:
            local = _arrow_schema(data, self.table, None)
        except KeyError:
            local = None  # these files have nothing of it
        if local is not None:
            yield from self._rows(data, local)
        if self.fail_on_faults and data.faults:
            raise ValueError(f"{len(data.faults)} faults, the first: {data.faults[0]}")

    def _rows(self, data: qvx.Dataset, local: pyarrow.Schema) -> Iterator[pyarrow.RecordBatch]:
        places: List[Tuple[Any, Optional[str]]] = [(member, self._find(member, local)) for member in self.columns]
        asked_for = [name for _, name in places if name is not None] or ["_block"]
        since, until = self.row_times(local)
        table = data.table(self.table, asked_for, since, until, self.where)
        for batch in table.reader():
            arrays = [
                pyarrow.nulls(batch.num_rows, member.type) if name is None else _converted(batch.column(name), member.type)
                for member, name in places
            ]
            yield pyarrow.RecordBatch.from_arrays(arrays, schema=self.columns)

    @staticmethod
    def _find(wanted: pyarrow.Field, local: pyarrow.Schema) -> Optional[str]:
        """The column of the files at hand that is one of all files: of the same values, and of the same name but for the
        schema behind it, which depends on what else there is.
        """
        if wanted.name in _EXTRA_COLUMNS:
            return wanted.name
        base = wanted.name.partition("@")[0]
        names = [wanted.name, base, *(name for name in local.names if name.startswith(base + "@"))]
        return next((name for name in names if name in local.names and local.field(name).type == wanted.type), None)
