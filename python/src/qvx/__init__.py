"""Quorvex telemetry data files as Arrow tables, dataframes and SQL.

    >>> import qvx
    >>> data = qvx.open("examples/data")
    >>> sorted(data.tables)[:3]
    ['counters', 'host_status', 'interface_report']
    >>> data.table("job_started", columns=["job", "user"], limit=2).to_pandas()
         job     user
    0  48100  asantos
    1  48101  li.chen

Times are timestamps in microseconds, UTC. Nothing is written to standard error: what is wrong with a file is
in `Dataset.faults`, once something has read it, and what is good of it is delivered.
"""

from qvx._dataset import (
    Column,
    Dataset,
    Fault,
    FileInfo,
    Info,
    Source,
    Table,
    TableInfo,
    TimeLike,
    open,
)

__all__ = [
    "Column",
    "Dataset",
    "Fault",
    "FileInfo",
    "Info",
    "Source",
    "Table",
    "TableInfo",
    "TimeLike",
    "open",
]
__version__ = "1.22.1"
