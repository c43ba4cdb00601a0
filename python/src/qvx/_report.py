"""One page that tells what is in a data set."""

from __future__ import annotations

import datetime
import json
import math
import os
from typing import Any, Dict, List, Optional, Sequence, Tuple

import qvx
from qvx import _files

BINS = 240
MOST_COUNTERS, MOST_GAPS, MOST_LINES = 24, 200, 2000
# Counters are sampled evenly; what is this many steps without a sample is a gap.
GAP_STEPS = 5
NUMBERS = ("UTINYINT", "USMALLINT", "UINTEGER", "UBIGINT", "TINYINT", "SMALLINT", "INTEGER", "BIGINT", "FLOAT", "DOUBLE")

Bins = Tuple[int, int]  # time of the first one, and the width of each, in microseconds
_EPOCH = datetime.datetime(1970, 1, 1, tzinfo=datetime.timezone.utc)


def _us(time: datetime.datetime) -> int:
    return (time - _EPOCH) // datetime.timedelta(microseconds=1)


def _quoted(name: str) -> str:
    return '"' + name.replace('"', '""') + '"'


def _bins_of(info: qvx.Info) -> Optional[Bins]:
    if info.times is None:
        return None
    first, last = map(_us, info.times)
    return first, (last - first) // BINS + 1


def _gaps(data: qvx.Dataset, options: Dict[str, Any]) -> Dict[Tuple[str, str], Tuple[float, List[Tuple[int, int]]]]:
    """Of each source the usual step between its samples of counters and where there are none for longer."""
    rows = data.sql(
        f"""
        with times as (select distinct _source_id id, _source_tag tag, epoch_us(_time) us from counters
                       where _time is not null),
             steps as (select id, tag, us, us - lag(us) over (partition by id, tag order by us) step from times),
             usual as (select id, tag, median(step) step from steps group by id, tag)
        select id, tag, usual.step, list([us - steps.step, us] order by us)
               filter (steps.step / usual.step > {GAP_STEPS}) gaps
        from steps join usual using (id, tag) group by id, tag, usual.step having usual.step > 0""",
        **options,
    ).fetchall()
    return {(source, tag): (step, [(a, b) for a, b in gaps or []]) for source, tag, step, gaps in rows}


def _moving_counters(data: qvx.Dataset, bins: Bins, options: Dict[str, Any]) -> List[Dict[str, Any]]:
    """The counters that move most: by the spread of their values over time against their size. Of sums that run on it is
    their growth that counts. Where a counter has several sets it is their mean.
    """
    columns = [column for column in data.tables["counters"].columns if column.name not in ("timestamp", "set")]
    kinds = dict(zip(*_types(data, [column.name for column in columns]))) if columns else {}
    columns = [column for column in columns if kinds[column.name] in NUMBERS]
    if not columns:
        return []
    shown = ", ".join(f"avg({_quoted(c.name)}) filter (isfinite({_quoted(c.name)}::double))" for c in columns)
    rows = data.sql(
        f"select _source_id, _source_tag, (epoch_us(_time) - {bins[0]}) // {bins[1]} bin, {shown} from counters "
        "where _time is not null group by 1, 2, 3",
        **options,
    ).fetchall()
    sources: Dict[Tuple[str, str], Dict[int, Sequence[Optional[float]]]] = {}
    for source, tag, bin, *values in rows:
        if 0 <= bin < BINS:
            sources.setdefault((source, tag), {})[int(bin)] = values
    found = []
    for (source, tag), by_bin in sources.items():
        for place, column in enumerate(columns):
            values = [by_bin[bin][place] if bin in by_bin else None for bin in range(BINS)]
            is_sum = column.metadata.get("counting_mode") == "RUNNING_SUM"
            if is_sum:
                values = _growth(values, bins[1] / 1e6)
            movement = _movement(values)
            if movement > 0:
                units = column.metadata.get("units", "")
                found.append(
                    {
                        "name": column.name,
                        "source": source or tag,
                        "units": f"{units}/s" if is_sum else units,
                        "about": column.metadata.get("description", ""),
                        "movement": movement,
                        "values": [None if value is None else float(f"{value:.6g}") for value in values],
                    }
                )
    found.sort(key=lambda counter: (-counter["movement"], counter["name"], counter["source"]))
    return found[:MOST_COUNTERS]


def _types(data: qvx.Dataset, names: Sequence[str]) -> Tuple[Sequence[str], Sequence[str]]:
    list_of_names = ", ".join(map(_quoted, names))
    answer = data.sql(f"select {list_of_names} from counters limit 0")
    return names, [str(kind) for kind in answer.types]


def _growth(values: Sequence[Optional[float]], seconds: float) -> List[Optional[float]]:
    """Growth per second since the last known value; none where a sum began anew."""
    rates: List[Optional[float]] = []
    last: Optional[Tuple[int, float]] = None
    for place, value in enumerate(values):
        rate = None
        if value is not None:
            if last is not None and value >= last[1]:
                rate = (value - last[1]) / (seconds * (place - last[0]))
            last = (place, value)
        rates.append(rate)
    return rates


def _movement(values: Sequence[Optional[float]]) -> float:
    known = [value for value in values if value is not None]
    if len(known) < 2:
        return 0.0
    mean = math.fsum(known) / len(known)
    size = math.fsum(map(abs, known)) / len(known)
    spread = math.sqrt(math.fsum((value - mean) ** 2 for value in known) / len(known))
    return float(f"{spread / size:.6g}") if size > 0 and math.isfinite(spread) else 0.0


def _events(data: qvx.Dataset, info: qvx.Info, bins: Bins, options: Dict[str, Any]) -> List[Dict[str, Any]]:
    found = []
    for table in info.tables:
        if table.kind == "counters":
            continue
        counts = [0] * BINS
        query = f"select (epoch_us(_time) - {bins[0]}) // {bins[1]} bin, count(_time) from {_quoted(table.name)} group by 1"
        for bin, count in data.sql(query, **options).fetchall():
            if bin is not None and 0 <= bin < BINS:
                counts[int(bin)] = count
        found.append({"name": table.name, "kind": table.kind, "rows": table.rows, "counts": counts})
    return found


def model(data: qvx.Dataset, *, since: Any = None, until: Any = None, threads: int = 1) -> Dict[str, Any]:
    """What the page shows. Times are in microseconds since 1970."""
    options = {"since": since, "until": until, "threads": threads}
    info = data.info(threads)
    bins = _bins_of(info)
    kinds = {table.kind for table in info.tables}
    gaps = _gaps(data, options) if bins and "counters" in kinds else {}

    def span(times: Any) -> Optional[List[int]]:
        return None if times is None else [_us(times[0]), _us(times[1])]

    sources = []
    for source in info.sources:
        step, missing = gaps.get((source.id, source.tag), (None, []))
        sources.append(
            {
                "id": source.id,
                "tag": source.tag,
                "files": source.files,
                "rows": source.rows,
                "times": span(source.times),
                "step": step,
                "gaps": missing[:MOST_GAPS],
                "gap_count": len(missing),
            }
        )
    faults = data.faults
    return {
        "version": qvx.__version__,
        "times": span(info.times),
        "bin": bins[1] if bins else None,
        "rows": info.rows,
        "bytes": info.bytes,
        "packed": sum(file.packed_bytes for file in info.files),
        "unpacked": sum(file.unpacked_bytes for file in info.files),
        "tables": [
            {"name": t.name, "kind": t.kind, "rows": t.rows, "columns": len(data.tables[t.name].columns), "times": span(t.times)}
            for t in info.tables
        ],
        "sources": sources,
        "counters": _moving_counters(data, bins, options) if bins and "counters" in kinds else [],
        "events": _events(data, info, bins, options) if bins else [],
        "faults": [{"file": f.file, "offset": f.offset, "kind": f.kind, "words": f.words} for f in faults[:MOST_LINES]],
        "fault_count": len(faults),
        "files": [
            {
                "path": file.path,
                "bytes": file.bytes,
                "rows": file.rows,
                "failed": file.failed,
                "bytes_lost": file.bytes_lost,
                "records_lost": file.records_lost,
                "times": span(file.times),
            }
            for file in info.files[:MOST_LINES]
        ],
        "file_count": len(info.files),
    }


def run(data: qvx.Dataset, out: str, *, since: Any, until: Any, threads: int) -> None:
    """Writes the page. It has everything inside and asks nothing of a network."""
    if not out.endswith(".html"):
        raise ValueError(f"{out}: a report is an .html file")
    shown = model(data, since=since, until=until, threads=threads)
    with open(os.path.join(os.path.dirname(__file__), "report.html"), encoding="utf-8") as file:
        page = file.read()
    # Names come out of files: none of them ends the element that it stands in.
    content = json.dumps(shown, allow_nan=False, ensure_ascii=True).replace("<", "\\u003c")
    _files.write(out, page.replace("@MODEL@", content).encode())
