"""Tables as files of other formats."""

from __future__ import annotations

import contextlib
import os
import re
import tempfile
from typing import Any, Callable, Dict, Iterator, List, Optional, Sequence, Tuple

import pyarrow
import pyarrow.compute
import pyarrow.csv
import pyarrow.parquet

import qvx
from qvx import _files
from qvx._dataset import _values

SUFFIXES = {"parquet": ".parquet", "arrow": ".arrow", "csv": ".csv"}
ROW_GROUP = 131072


def flat(table: Any) -> Any:
    """The same rows with nested values as text, which is all that CSV can hold."""
    arrays = []
    for column in table.columns:
        if pyarrow.types.is_nested(column.type):
            column = pyarrow.array([None if value is None else str(value) for value in _values(column)], "string")
        elif pyarrow.types.is_dictionary(column.type):
            column = column.cast(column.type.value_type)
        arrays.append(column)
    return pyarrow.table(arrays, names=table.column_names)


class _Writer:
    """One file, written under a temporary name beside its own."""

    def __init__(self, path: str, format: str) -> None:
        self.path = path
        self.rows = 0
        self._format = format
        self._writer: Any = None
        folder = os.path.dirname(path) or "."
        os.makedirs(folder, exist_ok=True)
        handle, self._temporary = tempfile.mkstemp(prefix=".qvx-", dir=folder)
        os.fchmod(handle, _files.mode())
        os.close(handle)

    def write(self, table: Any) -> None:
        if self._format == "csv":
            table = flat(table)
        if self._writer is None:
            if self._format == "parquet":
                self._writer = pyarrow.parquet.ParquetWriter(self._temporary, table.schema, compression="zstd")
            elif self._format == "arrow":
                self._writer = pyarrow.ipc.new_file(
                    self._temporary, table.schema, options=pyarrow.ipc.IpcWriteOptions(unify_dictionaries=True)
                )
            else:
                self._writer = pyarrow.csv.CSVWriter(self._temporary, table.schema)
        if self._format == "parquet":
            self._writer.write_table(table, row_group_size=ROW_GROUP)
        else:
            self._writer.write_table(table)
        self.rows += table.num_rows

    def finish(self) -> None:
        if self._writer is not None:
            self._writer.close()
        os.replace(self._temporary, self.path)

    def drop(self) -> None:
        with contextlib.suppress(OSError):
            os.unlink(self._temporary)


def _in_pieces(reader: Any) -> Iterator[Any]:
    """Batches joined to tables of a row group each, with one dictionary for a column."""
    batches: List[Any] = []
    rows = 0
    for batch in reader:
        batches.append(batch)
        rows += batch.num_rows
        if rows >= ROW_GROUP:
            yield pyarrow.Table.from_batches(batches).unify_dictionaries()
            batches, rows = [], 0
    if batches:
        yield pyarrow.Table.from_batches(batches).unify_dictionaries()


def _safe(name: str) -> str:
    """A name out of a file as the name of a file or folder."""
    return re.sub(r"[^A-Za-z0-9._-]", "_", name).lstrip(".") or "_"


def _parts(table: Any, keys: Sequence[str]) -> Iterator[Tuple[Tuple[str, ...], Any]]:
    """The rows of each partition, without the columns that only tell it."""
    columns = []
    for key in keys:
        if key == "day":
            days = pyarrow.compute.strftime(table["_time"], format="%Y-%m-%d")
            columns.append(pyarrow.compute.fill_null(days, "unknown"))
        else:
            columns.append(table["_source_id"].cast("string"))
    rows: Dict[Tuple[str, ...], List[int]] = {}
    for row, values in enumerate(zip(*(column.to_pylist() for column in columns))):
        rows.setdefault(values, []).append(row)
    rest = [name for name in table.column_names if name not in ("_time", "_source_id")]
    for values, indices in rows.items():
        yield values, table.take(pyarrow.array(indices)).select(rest)


def run(
    data: qvx.Dataset,
    out: str,
    format: str,
    *,
    tables: Optional[Sequence[str]],
    columns: Optional[Sequence[str]],
    since: Any,
    until: Any,
    partition_by: Optional[Sequence[str]],
    threads: int,
    progress: Callable[..., Any],
) -> List[Tuple[str, int]]:
    """Writes the tables and gives (path, rows) of each file. Nothing unfinished stays under a final name."""
    for key in partition_by or ():
        if key not in ("day", "source"):
            raise ValueError(f"no partition by {key!r}; there are: day, source")
    names = list(tables) if tables else [table.name for table in data.info(threads).tables]
    single = len(names) == 1 and not partition_by and os.path.splitext(out)[1] == SUFFIXES[format]
    total = sum(os.path.getsize(file) for file in data.files if os.path.exists(file)) * max(1, len(names))
    written: List[_Writer] = []
    done = 0
    try:
        with progress("Exporting", total) as advance:
            for name in names:
                wanted = list(columns) if columns else [column.name for column in data.tables[name].columns] if name in data.tables else None
                if partition_by and wanted is not None:
                    wanted += [column for column in ("_time", "_source_id") if column not in wanted]
                table = data.table(name, wanted, since=since, until=until, threads=threads)
                writers: Dict[Tuple[str, ...], _Writer] = {}
                for piece in _in_pieces(table.reader()):
                    parts = _parts(piece, partition_by) if partition_by else [((), piece)]
                    for values, rows in parts:
                        if values not in writers:
                            folders = [f"{key}={_safe(value)}" for key, value in zip(partition_by or (), values)]
                            path = out if single else os.path.join(out, *folders, _safe(name) + SUFFIXES[format])
                            writers[values] = _Writer(path, format)
                            written.append(writers[values])
                        writers[values].write(rows)
                    advance(done + table.progress[2])
                if not writers and not partition_by:
                    writer = _Writer(out if single else os.path.join(out, _safe(name) + SUFFIXES[format]), format)
                    written.append(writer)
                    writer.write(pyarrow.schema(table).empty_table())
                done += table.progress[2]
        for writer in written:
            writer.finish()
    finally:
        for writer in written:
            writer.drop()
    return [(writer.path, writer.rows) for writer in written]
