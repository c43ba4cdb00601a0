"""Data sets and their tables."""

from __future__ import annotations

import datetime
import glob
import os
import pathlib
import re
from dataclasses import dataclass
from typing import TYPE_CHECKING, Any, Dict, Iterable, Iterator, List, Mapping, Optional, Sequence, Tuple, Union

from qvx import _core

if TYPE_CHECKING:
    import duckdb
    import pandas
    import polars
    import pyarrow

PathLike = Union[str, "os.PathLike[str]"]
# Microseconds since 1970, a datetime (without a time zone: UTC), or ISO 8601 text.
TimeLike = Union[int, datetime.datetime, str]

_EPOCH = datetime.datetime(1970, 1, 1, tzinfo=datetime.timezone.utc)
_EXTRA_COLUMNS = ("_file", "_source_id", "_source_tag", "_block", "_time")


@dataclass(frozen=True)
class Column:
    """A column of a table, with what its schema says: description, units, type, counting_mode, schema."""

    name: str
    metadata: Mapping[str, str]


@dataclass(frozen=True)
class TableInfo:
    """What a table is made of. `kind` is "events", "counters" or "metrics"; `schemas` are identifiers."""

    name: str
    kind: str
    provider: str
    columns: Tuple[Column, ...]
    schemas: Tuple[str, ...]


@dataclass(frozen=True)
class Fault:
    """Something wrong in a file: the offset in bytes, the kind in one word, and the words for people.

    Of a block in a compressed page, which stands at the offset, page_offset is where it stands in the unpacked page.
    """

    file: str
    offset: int
    kind: str
    words: str
    page_offset: Optional[int] = None

    def __str__(self) -> str:
        return f"{self.file}: at {self.offset}: {self.words}"


Times = Optional[Tuple[datetime.datetime, datetime.datetime]]


@dataclass(frozen=True)
class TableCount:
    """Rows and blocks of a table and the times of its first and last row."""

    name: str
    kind: str
    rows: int
    blocks: int
    times: Times


@dataclass(frozen=True)
class Source:
    """A source that data are from: in how many files, how many rows, from when to when."""

    id: str
    tag: str
    files: int
    rows: int
    times: Times


@dataclass(frozen=True)
class FileInfo:
    """A file: bytes on disk; compressed pages, their bytes and what they unpack to; what cannot be read."""

    path: str
    bytes: int
    failed: bool
    rows: int
    pages: int
    packed_bytes: int
    unpacked_bytes: int
    bytes_lost: int
    records_lost: int
    times: Times


@dataclass(frozen=True)
class Info:
    """What is in a data set, counted by reading all of it once."""

    tables: Tuple[TableCount, ...]
    sources: Tuple[Source, ...]
    files: Tuple[FileInfo, ...]

    @property
    def rows(self) -> int:
        return sum(table.rows for table in self.tables)

    @property
    def bytes(self) -> int:
        return sum(file.bytes for file in self.files)

    @property
    def times(self) -> Times:
        known = [table.times for table in self.tables if table.times is not None]
        return (min(t[0] for t in known), max(t[1] for t in known)) if known else None


def _times(pair: Optional[Tuple[int, int]]) -> Times:
    if pair is None:
        return None
    try:
        return (
            _EPOCH + datetime.timedelta(microseconds=pair[0]),
            _EPOCH + datetime.timedelta(microseconds=pair[1]),
        )
    except OverflowError:  # a damaged file may state any time
        return None


def _microseconds(time: Optional[TimeLike]) -> Optional[int]:
    if time is None:
        return None
    if isinstance(time, str):
        time = datetime.datetime.fromisoformat(time[:-1] + "+00:00" if time.endswith("Z") else time)
    if isinstance(time, datetime.datetime):
        if time.tzinfo is None:
            time = time.replace(tzinfo=datetime.timezone.utc)
        time = (time - _EPOCH) // datetime.timedelta(microseconds=1)
    return max(0, time)


def _data_files(paths: Union[PathLike, Iterable[PathLike]]) -> List[bytes]:
    if isinstance(paths, (str, os.PathLike)):
        paths = [paths]
    files: List[bytes] = []
    for path in paths:
        text = os.fspath(path)
        if os.path.isdir(text):
            folder = pathlib.Path(text)
            files += sorted(
                os.fsencode(file)
                for file in folder.rglob("*")
                if file.name.endswith((".bin", ".bin.gz")) and file.is_file()
            )
        elif not os.path.exists(text) and glob.has_magic(text):
            files += sorted(os.fsencode(file) for file in glob.glob(text, recursive=True))
        else:
            files.append(os.fsencode(text))
    if not files:
        raise FileNotFoundError(f"no data files in {', '.join(map(str, paths))}")
    return files


def _values(column: "pyarrow.Array") -> List[Any]:
    """The values of a column as Python objects; a time that a datetime cannot hold as microseconds."""
    try:
        return column.to_pylist()
    except OverflowError:
        return [_value(column.slice(row, 1)) for row in range(len(column))]


def _value(one: "pyarrow.Array") -> Any:
    try:
        return one[0].as_py()
    except OverflowError:
        return one.cast(_without_times(one.type))[0].as_py()


def _without_times(kind: "pyarrow.DataType") -> "pyarrow.DataType":
    import pyarrow

    if pyarrow.types.is_timestamp(kind):
        return pyarrow.int64()
    if pyarrow.types.is_fixed_size_list(kind):
        return pyarrow.list_(_without_times(kind.value_type), kind.list_size)
    if pyarrow.types.is_struct(kind):
        fields = (kind.field(i) for i in range(kind.num_fields))
        return pyarrow.struct([pyarrow.field(field.name, _without_times(field.type)) for field in fields])
    return kind


class Table:
    """Rows of one table of a data set, as a query that any library with Arrow's PyCapsule interface reads.

    Nothing is read before somebody asks for the rows; each time they are asked for the files are read anew.
    """

    def __init__(self, query: _core.BoundQuery, name: str) -> None:
        self._query = query
        self.name = name

    def __arrow_c_schema__(self) -> object:
        """A capsule with the Arrow schema of the columns."""
        return self._query.schema()

    def __arrow_c_stream__(self, requested_schema: object = None) -> object:
        """A capsule with a stream of record batches. The schema is the table's own, whatever is requested."""
        return self._query.stream()

    def reader(self) -> "pyarrow.RecordBatchReader":
        """The rows as record batches, decoded while they are read."""
        import pyarrow

        return pyarrow.RecordBatchReader.from_stream(self)

    def to_arrow(self) -> "pyarrow.Table":
        """All rows as a pyarrow.Table of shape (rows, columns)."""
        import pyarrow

        # Batch by batch, since reading all at once is not interrupted by a signal.
        reader = self.reader()
        return pyarrow.Table.from_batches(list(reader), reader.schema)

    def to_pandas(self, **options: Any) -> "pandas.DataFrame":
        """All rows as a pandas.DataFrame of shape (rows, columns); options of pyarrow.Table.to_pandas."""
        return self.to_arrow().to_pandas(**options)

    def to_polars(self) -> "polars.DataFrame":
        """All rows as a polars.DataFrame of shape (rows, columns)."""
        import polars

        return polars.DataFrame(self)

    def records(self) -> Iterator[Dict[str, Any]]:
        """The rows one after the other, as dictionaries from column name to value.

        Times that a datetime cannot hold, as damaged files have them, are microseconds since 1970.
        """
        for batch in self.reader():
            columns = [_values(column) for column in batch.columns]
            for row in zip(*columns):
                yield dict(zip(batch.schema.names, row))

    __iter__ = records

    @property
    def progress(self) -> Tuple[int, int, int]:
        """Of the stream made last: rows handed out, files read to their end, their bytes."""
        return self._query.progress()[:3]

    @property
    def pages_passed_over(self) -> int:
        """Of the stream made last: pages whose header states times outside the range, not unpacked."""
        return self._query.progress()[3]

    def __repr__(self) -> str:
        return f"<qvx.Table {self.name}>"


class Dataset:
    """Data files as tables: one for each event type, "counters" and "metrics"."""

    def __init__(
        self, paths: Union[PathLike, Iterable[PathLike]], schema: Optional[PathLike] = None
    ) -> None:
        self._data = _core.Data(_data_files(paths), os.fsencode(schema) if schema is not None else b"")
        self._info: Optional[Info] = None
        self._connection: Any = None

    @property
    def files(self) -> List[str]:
        """The paths of the data files."""
        return [os.fsdecode(file[0]) for file in self._data.files()]

    @property
    def tables(self) -> Dict[str, TableInfo]:
        """The tables by name, as the headers' schemas define them; some may have no rows.

        A schemas block inside a file may name further schemas; their tables are known after info().
        """
        return {
            name: TableInfo(
                name, kind, provider, tuple(Column(column, metadata) for column, metadata in columns), tuple(schemas)
            )
            for name, kind, provider, columns, schemas in self._data.tables()
        }

    @property
    def faults(self) -> List[Fault]:
        """What was found wrong so far, in the order of files and offsets."""
        return [Fault(os.fsdecode(file), *rest) for file, *rest in self._data.faults()]

    def info(self, threads: Optional[int] = None) -> Info:
        """Reads everything once, and counts. The result is kept."""
        if self._info is None:
            found = self._data.survey(threads or os.cpu_count() or 1)
            self._info = Info(
                tuple(TableCount(*table[:4], _times(table[4])) for table in found["tables"]),
                tuple(Source(*source[:4], _times(source[4])) for source in found["sources"]),
                tuple(
                    FileInfo(**{**file, "path": os.fsdecode(file["path"]), "times": _times(file["times"])})
                    for file in found["files"]
                ),
            )
        return self._info

    def table(
        self,
        name: str,
        columns: Optional[Sequence[str]] = None,
        since: Optional[TimeLike] = None,
        until: Optional[TimeLike] = None,
        where: Optional[Mapping[str, Union[str, Sequence[str]]]] = None,
        *,
        limit: Optional[int] = None,
        batch_rows: int = 65536,
        threads: int = 1,
        in_order: bool = True,
        trust_page_times: bool = True,
    ) -> Table:
        """Rows of a table.

        columns: names or shell patterns ("node.mem*"), in this order; all columns of the table if not given.
            Every table also has "_file", "_source_id", "_source_tag", "_block" and "_time", by name only.
        since, until: the range of the rows' times, both ends included.
        where: shell patterns, in any case, for "metric" (of metrics), "_file", "_source_id" or "_source_tag";
            a row matches when each column matches one of its patterns.
        limit: the most rows. batch_rows: rows of a record batch. threads: that decode, a file each.
        in_order: rows in the order of the files, or as files are decoded.
        trust_page_times: pages whose header states times outside the range are not unpacked.

        Raises KeyError, with the names that there are, when a name is wrong.
        """
        conditions = [
            (column, [patterns] if isinstance(patterns, str) else list(patterns))
            for column, patterns in (where or {}).items()
        ]
        arguments = (
            name,
            list(columns) if columns is not None else [],
            _microseconds(since),
            _microseconds(until),
            conditions,
            limit,
            batch_rows,
            threads,
            in_order,
            trust_page_times,
        )
        if isinstance(columns, str):
            raise TypeError("columns is a list of names")
        if columns is not None and not columns:
            raise ValueError("columns is empty")
        if name not in self.tables:
            self.info()  # a schemas block may tell of it
        try:
            return Table(_core.BoundQuery(self._data, *arguments), name)
        except ValueError as error:
            raise KeyError(str(error)) from None

    def sql(self, query: str, **options: Any) -> "duckdb.DuckDBPyRelation":
        """The answer of DuckDB to a query, in which every table stands under its name.

        Tables have their extra columns too. Only tables and columns that the query names are read; options are
        those of table(), such as since, until and threads. Times are in UTC.
        """
        import duckdb

        if not any(_is_named(name, query) for name in self.tables):
            self.info()  # a schemas block may tell of the table
        connection = duckdb.connect()
        connection.execute("SET TimeZone = 'UTC'")
        tables = self.tables
        for name, table in tables.items():
            if _is_named(name, query):
                connection.register(name, self.table(name, _columns_named(table, query), **options))
        try:
            answer = connection.sql(query)
            if answer is not None:  # run now: the tables are read once, and their faults are known
                answer = answer.materialize() if hasattr(type(answer), "materialize") else answer.execute()
        except duckdb.CatalogException as error:
            raise KeyError(f"{error}\nTables: {', '.join(sorted(tables))}") from None
        except duckdb.BinderException as error:
            named = [t for t in tables.values() if _is_named(t.name, query)]
            lists = (f"\nColumns of {t.name}: {', '.join(c.name for c in t.columns)}" for t in named)
            raise KeyError(f"{error}{''.join(lists)}") from None
        self._connection = connection  # whose answer may be looked at
        return answer

    def __repr__(self) -> str:
        return f"<qvx.Dataset of {len(self._data.files())} files>"


def _is_named(name: str, query: str) -> bool:
    return name.lower() in query.lower()


def _columns_named(table: TableInfo, query: str) -> List[str]:
    """The columns that a query may need: those whose names stand in it, or all when it may mean others too."""
    columns = [column.name for column in table.columns] + list(_EXTRA_COLUMNS)
    text = re.sub(r"count\s*\(\s*\*\s*\)", "", query.lower())
    if not re.match(r"\s*(select|with)\b", text) or re.search(r"[*#]|columns\s*\(", text):
        return columns
    named = [column for column in columns if column.lower() in text]
    return named or ["_time"]


def open(paths: Union[PathLike, Iterable[PathLike]], schema: Optional[PathLike] = None) -> Dataset:
    """Opens data files.

    paths: files, folders (every .bin and .bin.gz below) or shell patterns.
    schema: the folder of the schema files; if not given, one named "schema" is searched for beside each file
        and up to four folders above it.
    """
    return Dataset(paths, schema)
