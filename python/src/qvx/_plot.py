"""Counters over time, as a picture or in the terminal."""

from __future__ import annotations

import base64
import datetime
import html
import io
import math
from typing import Any, Dict, List, Optional, Sequence, Tuple

import pyarrow
import pyarrow.compute

import qvx
from qvx import _files

MOST_POINTS = 20000
LEVELS = " ▁▂▃▄▅▆▇█"
WIDTH, HEIGHT = 72, 5  # of a plot in the terminal


def _series(
    data: qvx.Dataset, counters: Sequence[str], since: Any, until: Any, threads: int
) -> Tuple[List[str], Dict[Tuple[str, str], Tuple[List[Any], List[float]]]]:
    """Of each counter and source the times and the values of set 0, in order of time."""
    table = data.table(
        "counters", ["timestamp", "set", "_source_id", *counters], since=since, until=until, threads=threads
    ).to_arrow()
    last = pyarrow.scalar(datetime.datetime.max, pyarrow.timestamp("us")).cast(table["timestamp"].type)
    shown = pyarrow.compute.and_(
        pyarrow.compute.equal(table["set"], 0), pyarrow.compute.less_equal(table["timestamp"], last)
    )
    table = table.filter(shown).sort_by("timestamp")
    names = [
        name
        for name in table.column_names
        if name not in ("timestamp", "set", "_source_id")
        and (pyarrow.types.is_integer(table[name].type) or pyarrow.types.is_floating(table[name].type))
    ]
    if not names:
        raise ValueError("none of these counters is a number")
    sources = table["_source_id"].cast("string")
    series = {}
    for source in pyarrow.compute.unique(sources).to_pylist():
        rows = table.filter(pyarrow.compute.equal(sources, source))
        for name in names:
            known = rows.filter(pyarrow.compute.is_valid(rows[name]))
            step = max(1, known.num_rows // MOST_POINTS)
            if known.num_rows:
                times, values = known["timestamp"].to_pylist()[::step], known[name].to_pylist()[::step]
                series[name, source] = (times, values)
    return names, series


def _units(data: qvx.Dataset, name: str) -> str:
    for column in data.tables["counters"].columns:
        if column.name == name:
            return column.metadata.get("units", "")
    return ""


def _figure(data: qvx.Dataset, names: Sequence[str], series: Dict[Any, Any]) -> Any:
    import matplotlib

    matplotlib.use("Agg")
    from matplotlib import dates
    from matplotlib import pyplot

    figure, axes = pyplot.subplots(len(names), 1, sharex=True, squeeze=False, figsize=(9, 1.2 + 2.3 * len(names)))
    for axis, name in zip(axes[:, 0], names):
        for (of, source), (times, values) in series.items():
            if of == name:
                axis.plot(times, values, label=source or "(no source)", linewidth=1.2)
        units = _units(data, name)
        axis.set_title(name + (f" [{units}]" if units else ""), fontsize=10, loc="left")
        axis.grid(alpha=0.3)
        axis.xaxis.set_major_formatter(dates.ConciseDateFormatter(axis.xaxis.get_major_locator(), tz="UTC"))
    axes[0, 0].legend(fontsize=8)
    axes[-1, 0].set_xlabel("UTC")
    figure.tight_layout()
    return figure


def _bars(values: Sequence[float], width: int, height: int) -> List[str]:
    """The values as columns of blocks, each the mean of an equal part; blank where none of a part is finite."""
    parts = min(width, len(values))
    means: List[Optional[float]] = []
    for i in range(parts):
        part = [v for v in values[i * len(values) // parts : (i + 1) * len(values) // parts] if math.isfinite(v)]
        means.append(math.fsum(part) / len(part) if part else None)
    known = [mean for mean in means if mean is not None]
    low, span = min(known, default=0), (max(known, default=0) - min(known, default=0)) or 1
    eighths = [0 if mean is None else 1 + round((mean - low) / span * (8 * height - 1)) for mean in means]
    return ["".join(LEVELS[max(0, min(8, e - 8 * row))] for e in eighths) for row in reversed(range(height))]


def _text(name: str, units: str, source: str, times: Sequence[Any], values: Sequence[float]) -> str:
    finite = [value for value in values if math.isfinite(value)]
    top, bottom = (f"{max(finite):g}", f"{min(finite):g}") if finite else ("-", "-")
    margin = max(len(top), len(bottom))
    edges = [top] + [""] * (HEIGHT - 2) + [bottom]
    lines = [f"{name}{f' [{units}]' if units else ''}  {source}"]
    lines += [f"{edge:>{margin}} │{bars}".rstrip() for edge, bars in zip(edges, _bars(values, WIDTH, HEIGHT))]
    lines.append(f"{'':{margin}} └ {times[0]:%Y-%m-%d %H:%M:%S} to {times[-1]:%Y-%m-%d %H:%M:%S} UTC")
    return "\n".join(lines)


def run(
    data: qvx.Dataset, counters: Sequence[str], out: Optional[str], *, since: Any, until: Any, threads: int = 1
) -> Optional[str]:
    """Draws into the file, or gives the text for a terminal."""
    if out is not None and not out.endswith((".png", ".svg", ".html")):
        raise ValueError(f"{out}: a plot is a .png, .svg or .html file")
    names, series = _series(data, counters, since, until, threads)
    if not series:
        raise ValueError("no values in this range of time")
    if out is None:
        drawn = (_text(name, _units(data, name), source, *series[name, source]) for name, source in series)
        return "".join(c if c.isprintable() or c == "\n" else repr(c)[1:-1] for c in "\n".join(drawn))
    picture = io.BytesIO()
    figure = _figure(data, names, series)
    figure.savefig(picture, format="png" if out.endswith(".png") else "svg", dpi=120)
    content = picture.getvalue()
    if out.endswith(".html"):
        title = html.escape(", ".join(names))
        source = base64.b64encode(content).decode()
        content = (
            f'<!doctype html><html lang="en"><meta charset="utf-8"><title>{title}</title>'
            f'<img alt="{title}" src="data:image/svg+xml;base64,{source}"></html>\n'
        ).encode()
    _files.write(out, content)
    return None
