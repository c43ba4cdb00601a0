#!/usr/bin/env python3
"""Prints the table of docs/scale.md: the ways to turn many data files into Parquet, with one and with two cores.

    build/venv/bin/python scripts/measure_scale.py [files]

Takes GNU parallel and, for the Spark rows, PySpark; what is not there is left out.
"""

import importlib.util
import os
import pathlib
import resource
import shutil
import subprocess
import sys
import tempfile
import time

TOP = pathlib.Path(__file__).resolve().parents[1]
sys.path[:0] = [str(TOP / "python" / "tests"), str(TOP / "tests" / "cli")]

import builders  # noqa: E402

ROWS = 13 * 255  # of a page
PAGES = 3
TABLE = "link_state"


def write_files(folder, count):
    """Files that share ten contents, of pages as a collector writes them."""
    for name, content in builders.usual_schemas().items():
        (folder / name).parent.mkdir(exist_ok=True)
        (folder / name).write_bytes(content)
    for number in range(count):
        path = folder / f"{number:06}.bin"
        if number >= 10:
            os.link(folder / f"{number % 10:06}.bin", path)
            continue
        at, pages = builders.START + number * 10**9, []
        for page in range(PAGES):
            start = at + page * 10**8
            records = [builders.link_state(start + i * 997, i % 60000, i % 2, b"eth%d" % (i % 8)) for i in range(ROWS)]
            blocks = [builders.events_block(records[i : i + 255]) for i in range(0, ROWS, 255)]
            pages.append(builders.unit(builders.page_block(builders.gzipped(b"".join(blocks))), size=65536))
        path.write_bytes(builders.usual_header(block_size=65536) + b"".join(pages))


def measured(command, **options):
    """Seconds on the clock and of the processors, of the command and all that it starts and waits for."""
    before, start = resource.getrusage(resource.RUSAGE_CHILDREN), time.monotonic()
    subprocess.run(command, check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, **options)
    seconds, after = time.monotonic() - start, resource.getrusage(resource.RUSAGE_CHILDREN)
    return seconds, after.ru_utime + after.ru_stime - before.ru_utime - before.ru_stime


def rows_in(folder):
    import pyarrow.dataset

    return pyarrow.dataset.dataset(folder, format="parquet", exclude_invalid_files=True).count_rows()


SPARK = """
import sys
from pyspark.sql import SparkSession
import qvx.spark
data, out, cores = sys.argv[1:]
spark = SparkSession.builder.master(f"local[{cores}]").config("spark.ui.enabled", "false").getOrCreate()
qvx.spark.register(spark)
spark.read.format("qvx").option("table", "TABLE").load(data).write.option("compression", "zstd").parquet(out)
spark.stop()
""".replace("TABLE", TABLE)


def by_export(data, out, cores):
    return ["qvx", "export", str(data), "--table", TABLE, "-o", f"{out}/all.parquet", "-j", str(cores)]


def by_parallel(data, out, cores):
    each = f"qvx export {{}} -j 1 --table {TABLE} -o {out}/{{#}}.parquet"
    return ["bash", "-c", f"ls {data}/*.bin | parallel --will-cite -N 100 -j {cores} {each}"]


def by_spark(data, out, cores):
    return [sys.executable, "-c", SPARK, str(data), f"{out}/spark", str(cores)]


def ways():
    """Name, command, and whether the processors' time is known: what Spark starts ends after it."""
    yield "`qvx export`", by_export, True
    if shutil.which("parallel"):
        yield "GNU parallel, 100 files each", by_parallel, True
    if importlib.util.find_spec("pyspark") and shutil.which("java"):
        yield "Spark, with its start", by_spark, False


def main(count=1000):
    count = int(count)
    os.environ["PATH"] = os.path.dirname(sys.executable) + os.pathsep + os.environ["PATH"]
    os.environ["PYSPARK_PYTHON"] = sys.executable
    with tempfile.TemporaryDirectory() as scratch:
        data = pathlib.Path(scratch, "data")
        data.mkdir()
        write_files(data, count)
        size = sum(path.stat().st_size for path in data.glob("*.bin"))
        rows = count * PAGES * ROWS
        print(f"{count} files, {size / 1e6:.0f} MB, {rows} rows\n")
        print("| Road | Cores | Seconds | CPU seconds |\n|---|---|---|---|", flush=True)
        for cores in (1, 2):
            for name, command, is_known in ways():
                out = pathlib.Path(scratch, f"{command.__name__}-{cores}")
                out.mkdir()
                seconds, cpu = measured(command(data, out, cores))
                assert rows_in(out) == rows, name
                print(f"| {name} | {cores} | {seconds:.1f} | {f'{cpu:.1f}' if is_known else '-'} |", flush=True)


if __name__ == "__main__":
    main(*sys.argv[1:])
