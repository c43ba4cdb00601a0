"""The command qvx: what is in data files, and ways out of them."""

from __future__ import annotations

import argparse
import contextlib
import dataclasses
import datetime
import json
import os
import signal
import sys
from typing import Any, Callable, Iterator, List, Optional, Sequence

import qvx
from qvx import _export, _plot, _report, _salvage

WHOLE, DAMAGED, USAGE = 0, 1, 2

EXAMPLES = {
    "info": "qvx info /data/node7\n  qvx info --json today/*.bin",
    "export": "qvx export /data -o out --to parquet --partition-by day,source\n"
    "  qvx export events.bin --table job_started --columns timestamp,user -o jobs.csv --to csv",
    "sql": 'qvx sql /data "select user, count(*) n from job_started group by user order by n desc"',
    "check": "qvx check /data\n  qvx check --json node7.bin",
    "salvage": "qvx salvage damaged.bin -o good.bin",
    "plot": "qvx plot /data -c node.memory_used -o memory.png\n  qvx plot counters.bin -c 'cores.*'",
    "report": "qvx report /data -o report.html",
}


def _open(options: argparse.Namespace) -> qvx.Dataset:
    return qvx.open(options.files, options.schema)


def _text(times: Any) -> str:
    if times is None:
        return "-"
    return " to ".join(f"{time:%Y-%m-%d %H:%M:%S}" for time in times)


def _size(count: float) -> str:
    for unit in ("B", "KiB", "MiB", "GiB"):
        if count < 1024:
            return f"{count:.0f} {unit}" if unit == "B" else f"{count:.1f} {unit}"
        count /= 1024
    return f"{count:.1f} TiB"


def _print_table(head: Sequence[str], rows: Sequence[Sequence[Any]]) -> None:
    cells = [list(map(_printable, head))] + [[_printable(cell) for cell in row] for row in rows]
    numbers = [all(not isinstance(row[i], str) for row in rows) for i in range(len(head))]
    widths = [max(len(row[i]) for row in cells) for i in range(len(head))]
    for row in cells:
        line = "  ".join(
            cell.rjust(width) if number else cell.ljust(width) for cell, width, number in zip(row, widths, numbers)
        )
        print(line.rstrip())


def _printable(cell: Any) -> str:
    """Names come out of files: nothing of them reaches a terminal as a control character."""
    return "".join(c if c.isprintable() else repr(c)[1:-1] for c in str(cell))


def _print_faults(data: qvx.Dataset, most: int = 20) -> None:
    faults = data.faults
    for fault in faults[:most]:
        print(f"qvx: {_printable(fault)}", file=sys.stderr)
    if len(faults) > most:
        print(f"qvx: and {len(faults) - most} more faults; qvx check lists all", file=sys.stderr)


@contextlib.contextmanager
def progress(what: str, total: int) -> Iterator[Callable[[int], None]]:
    """A bar with rate and time left when standard error is a terminal; otherwise nothing."""
    if not sys.stderr.isatty():
        yield lambda done: None
        return
    try:
        from rich.console import Console
        from rich.progress import BarColumn, DownloadColumn, Progress, TimeRemainingColumn, TransferSpeedColumn
    except ImportError:
        yield lambda done: None
        return
    columns = ("{task.description}", BarColumn(), DownloadColumn(), TransferSpeedColumn(), TimeRemainingColumn())
    with Progress(*columns, console=Console(stderr=True), transient=True) as bar:
        task = bar.add_task(what, total=total)
        yield lambda done: bar.update(task, completed=done)


def info(options: argparse.Namespace) -> int:
    data = _open(options)
    found = data.info(options.threads)
    packed = sum(file.packed_bytes for file in found.files)
    unpacked = sum(file.unpacked_bytes for file in found.files)
    if options.json:
        print(json.dumps(dataclasses.asdict(found), default=_json, indent=2))
        return DAMAGED if data.faults else WHOLE
    print(f"{len(found.files)} files, {_size(found.bytes)}, {found.rows} rows, {_text(found.times)} UTC")
    if packed:
        pages = sum(file.pages for file in found.files)
        print(f"{pages} compressed pages, {_size(packed)}, unpacked {_size(unpacked)} ({unpacked / packed:.1f} times)")
    print()
    _print_table(
        ("table", "kind", "rows", "columns", "time"),
        [(t.name, t.kind, t.rows, len(data.tables[t.name].columns), _text(t.times)) for t in found.tables],
    )
    print()
    _print_table(
        ("source", "tag", "files", "rows", "time"),
        [(s.id or "-", s.tag or "-", s.files, s.rows, _text(s.times)) for s in found.sources],
    )
    _print_faults(data)
    return DAMAGED if data.faults else WHOLE


def _json(value: Any) -> Any:
    if isinstance(value, datetime.datetime):
        return value.isoformat()
    raise TypeError(type(value).__name__)


def sql(options: argparse.Namespace) -> int:
    data = _open(options)
    answer = data.sql(options.query, since=options.since, until=options.until, threads=options.threads)
    if answer is not None:
        if options.csv:
            import pyarrow.csv

            table = answer.to_arrow_table() if hasattr(answer, "to_arrow_table") else answer.arrow()
            pyarrow.csv.write_csv(_export.flat(table), sys.stdout.buffer)
        else:
            _print_table(answer.columns, [[_cell(value) for value in row] for row in answer.fetchall()])
    _print_faults(data)
    return DAMAGED if data.faults else WHOLE


def _cell(value: Any) -> Any:
    if isinstance(value, datetime.datetime):
        return value.isoformat(sep=" ", timespec="microseconds")
    return "" if value is None else value


def check(options: argparse.Namespace) -> int:
    data = _open(options)
    found = data.info(options.threads)
    faults = data.faults
    if options.json:
        report = {
            "whole": not faults,
            "faults": [dataclasses.asdict(fault) for fault in faults],
            "files": [dataclasses.asdict(file) for file in found.files if file.failed or file.records_lost or file.bytes_lost],
        }
        print(json.dumps(report, default=_json, indent=2))
        return DAMAGED if faults else WHOLE
    for fault in faults:
        print(f"{_printable(fault.file)}: offset {fault.offset}: {fault.kind}: {_printable(fault.words)}")
    for file in found.files:
        if file.bytes_lost or file.records_lost:
            print(
                f"{_printable(file.path)}: {file.bytes_lost} of {file.bytes} bytes and {file.records_lost} stated "
                f"records lost, {file.rows} rows read"
            )
    print(f"{len(found.files)} files, {found.rows} rows: {'damaged' if faults else 'whole'}")
    return DAMAGED if faults else WHOLE


def export(options: argparse.Namespace) -> int:
    data = _open(options)
    written = _export.run(
        data,
        options.out,
        options.to,
        tables=options.table,
        columns=options.columns,
        since=options.since,
        until=options.until,
        partition_by=options.partition_by,
        threads=options.threads,
        progress=progress,
    )
    for path, rows in written:
        print(f"{_printable(path)}: {rows} rows")
    _print_faults(data)
    return DAMAGED if data.faults else WHOLE


def salvage(options: argparse.Namespace) -> int:
    result = _salvage.run(options.files[0], options.out, options.schema)
    print(f"{_printable(options.out)}: {result.rows} rows, {result.bytes_kept} bytes kept, {result.bytes_left_out} left out")
    return WHOLE


def plot(options: argparse.Namespace) -> int:
    data = _open(options)
    text = _plot.run(
        data, options.counters, options.out, since=options.since, until=options.until, threads=options.threads
    )
    if text:
        print(text)
    _print_faults(data)
    return DAMAGED if data.faults else WHOLE


def report(options: argparse.Namespace) -> int:
    data = _open(options)
    _report.run(data, options.out, since=options.since, until=options.until, threads=options.threads)
    _print_faults(data)
    return DAMAGED if data.faults else WHOLE


def _names(text: str) -> List[str]:
    return [name for name in text.split(",") if name]


def _complete(kind: str) -> Callable[..., List[str]]:
    """Completes names from the files that were given."""

    def completer(prefix: str, parsed_args: argparse.Namespace, **_: Any) -> List[str]:
        try:
            data = qvx.open(parsed_args.files, getattr(parsed_args, "schema", None))
        except Exception:  # a completion has no place for errors
            return []
        if kind == "tables":
            return [name for name in data.tables if name.startswith(prefix)]
        before, comma, last = prefix.rpartition(",")
        names = {c.name for t in data.tables.values() for c in t.columns if kind == "columns" or t.kind == "counters"}
        return sorted(before + comma + name for name in names if name.startswith(last))

    return completer


def parser() -> argparse.ArgumentParser:
    top = argparse.ArgumentParser(prog="qvx", description="Looks into Quorvex telemetry data files.")
    top.add_argument("--version", action="version", version=f"qvx {qvx.__version__}")
    commands = top.add_subparsers(dest="command", required=True, metavar="COMMAND")

    def command(name: str, run: Callable[[argparse.Namespace], int], help: str, many: bool = True) -> argparse.ArgumentParser:
        sub = commands.add_parser(
            name,
            help=help,
            description=help,
            epilog=f"examples:\n  {EXAMPLES[name]}",
            formatter_class=argparse.RawDescriptionHelpFormatter,
        )
        sub.set_defaults(run=run)
        sub.add_argument("files", nargs="+" if many else 1, metavar="FILE", help="data files, folders or patterns")
        sub.add_argument("-s", "--schema", help="folder of the schema files; searched for beside the files if not given")
        sub.add_argument("-j", "--threads", type=int, default=os.cpu_count() or 1, help="files decoded at a time")
        return sub

    def times(sub: argparse.ArgumentParser) -> None:
        sub.add_argument("--since", metavar="TIME", type=_time, help="rows from this time on (ISO 8601, UTC)")
        sub.add_argument("--until", metavar="TIME", type=_time, help="rows up to this time")

    sub = command("info", info, "Says what is in data files: tables, rows, times, sources, compression.")
    sub.add_argument("--json", action="store_true", help="as JSON")

    sub = command("export", export, "Writes tables as Parquet, Arrow or CSV files.")
    sub.add_argument("-o", "--out", required=True, help="the file, or the folder for several tables")
    sub.add_argument("--to", choices=("parquet", "arrow", "csv"), default="parquet")
    sub.add_argument("--table", action="append", help="only this table; may be given more than once").completer = _complete("tables")  # type: ignore[attr-defined]
    sub.add_argument("--columns", type=_names, help="names or patterns, joined by commas").completer = _complete("columns")  # type: ignore[attr-defined]
    sub.add_argument("--partition-by", type=_names, metavar="KEYS", help="day, source, or both: a folder for each")
    times(sub)

    sub = command("sql", sql, "Answers a query in SQL; every table stands under its name.")
    sub.add_argument("query", help="the query, for DuckDB")
    sub.add_argument("--csv", action="store_true", help="the answer as CSV")
    times(sub)

    sub = command("check", check, "Says what is damaged. Status 0: whole, 1: damaged, 2: wrong usage.")
    sub.add_argument("--json", action="store_true", help="as JSON")

    sub = command("salvage", salvage, "Writes a good file of what is good of a damaged one.", many=False)
    sub.add_argument("-o", "--out", required=True, help="the file to write, which must not exist")

    sub = command("plot", plot, "Draws counters over time, a line for each source.")
    sub.add_argument(
        "-c", "--counters", nargs="+", required=True, metavar="COUNTER", help="names or patterns of counters"
    ).completer = _complete("counters")  # type: ignore[attr-defined]
    sub.add_argument("-o", "--out", help="a .png, .svg or .html file; in the terminal if not given")
    times(sub)

    sub = command("report", report, "Writes one page on everything: sources, times, gaps, counters, events, faults.")
    sub.add_argument("-o", "--out", required=True, help="the .html file")
    times(sub)
    return top


def _time(text: str) -> int:
    from qvx._dataset import _microseconds

    try:
        return _microseconds(int(text) if text.isdigit() else text) or 0
    except ValueError:
        raise argparse.ArgumentTypeError(f"no time: {text!r}; as 2024-05-06T12:00:00Z") from None


class _Terminated(BaseException):
    """Ends a command as SIGTERM asks for, with what it has to clean up cleaned up."""


def _terminate(*_: Any) -> None:
    raise _Terminated


def main(arguments: Optional[Sequence[str]] = None) -> int:
    top = parser()
    with contextlib.suppress(ImportError):
        import argcomplete

        argcomplete.autocomplete(top)
    options = top.parse_args(arguments)
    with contextlib.suppress(ValueError):  # of a thread that is not the first
        signal.signal(signal.SIGTERM, _terminate)
    try:
        return options.run(options)
    except BrokenPipeError:
        os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())
        return WHOLE
    except KeyboardInterrupt:
        return 128 + signal.SIGINT
    except _Terminated:
        return 128 + signal.SIGTERM
    except ModuleNotFoundError as error:
        print(f"qvx: this needs {error.name}: pip install 'qvx[cli]'", file=sys.stderr)
        return USAGE
    except KeyError as error:
        print(f"qvx: {error.args[0]}", file=sys.stderr)
        return USAGE
    except (OSError, ValueError) as error:
        print(f"qvx: {error}", file=sys.stderr)
        return USAGE
    except Exception as error:  # a query that DuckDB refuses
        if type(error).__module__.split(".")[0] not in ("duckdb", "_duckdb"):
            raise
        print(f"qvx: {error}", file=sys.stderr)
        return USAGE


if __name__ == "__main__":
    sys.exit(main())
