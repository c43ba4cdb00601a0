import contextlib
import json
import os
import pathlib
import shutil
import signal
import subprocess
import sys

import pyarrow
import pyarrow.csv
import pyarrow.parquet
import pytest

import qvx
from conftest import SAMPLES
from qvx import _plot, cli

DATA = str(SAMPLES)


def run(capsys, *arguments):
    status = cli.main([str(argument) for argument in arguments])
    out, err = capsys.readouterr()
    return status, out, err


def damaged_file(folder, at=None):
    """A file of gzip pages one of whose pages is damaged, beside its schemas."""
    whole = (SAMPLES / "gzip_pages.bin").read_bytes()
    at = whole.find(b"QVXP", len(whole) // 2) + 60 if at is None else at
    path = folder / "damaged.bin"
    path.write_bytes(whole[:at] + b"\xff" * 16 + whole[at + 16 :])
    shutil.copytree(SAMPLES / "schema", folder / "schema", dirs_exist_ok=True)
    return path


def test_info_tells_tables_sources_and_compression(capsys):
    status, out, err = run(capsys, "info", DATA)
    assert (status, err) == (0, "")
    assert out.startswith("7 files, ")
    assert "24 compressed pages" in out
    assert "job_started       events      78        6  2023-11-14 22:13:20 to 2023-11-14 22:18:22" in out
    status, out, _ = run(capsys, "info", "--json", DATA)
    assert {t["name"]: t["rows"] for t in json.loads(out)["tables"]}["job_started"] == 78


def test_sql_prints_a_table_or_csv(capsys):
    query = 'select "user", count(*) n from job_started group by 1 order by n desc'
    assert run(capsys, "sql", DATA, query) == (0, "user      n\nasantos  33\nli.chen  26\nmweber   19\n", "")
    status, out, _ = run(capsys, "sql", "--csv", DATA, query)
    assert out.splitlines()[0] == '"user","n"' and '"mweber",19' in out


def test_wrong_use_lists_what_there_is_and_ends_with_2(capsys, tmp_path):
    for arguments, words in (
        (("sql", DATA, "select * from jobs"), "Tables: "),
        (("sql", DATA, "selec"), "syntax error"),
        (("plot", DATA, "-c", "node.nothing"), "counters"),
        (("plot", DATA, "-c", "node.load_1m", "-o", tmp_path / "x.gif"), ".png, .svg or .html"),
        (("export", DATA, "-o", tmp_path / "o", "--table", "jobs"), "no table"),
        (("export", DATA, "-o", tmp_path / "o", "--table", "job_started", "--columns", "usr"), "which has: timestamp"),
        (("export", DATA, "-o", tmp_path / "o", "--partition-by", "week"), "there are: day, source"),
        (("info", "/no/such/*.bin"), "qvx: "),
    ):
        status, out, err = run(capsys, *arguments)
        assert status == 2 or "no/such" in str(arguments), arguments
        assert words in err, arguments
    assert list(tmp_path.iterdir()) == []
    with pytest.raises(SystemExit) as ended:
        cli.main(["sql"])
    assert ended.value.code == 2


@pytest.mark.parametrize("format", ["parquet", "arrow", "csv"])
def test_export_has_the_rows_of_the_table(capsys, tmp_path, data, format):
    path = tmp_path / f"jobs.{format}"
    status, out, err = run(capsys, "export", DATA, "--table", "job_started", "--to", format, "-o", path)
    assert (status, out, err) == (0, f"{path}: 78 rows\n", "")
    expected = data.table("job_started").to_arrow()
    if format == "parquet":
        read = pyarrow.parquet.read_table(path)
        group = pyarrow.parquet.ParquetFile(path).metadata.row_group(0).column(0)
        assert group.compression == "ZSTD" and group.is_stats_set
        assert read.schema.field("timestamp").metadata[b"type"] == b"timestamp"
    elif format == "arrow":
        read = pyarrow.ipc.open_file(path).read_all()
    else:
        read = pyarrow.csv.read_csv(path)
        assert read["user"].to_pylist() == expected["user"].to_pylist()
        assert read["nodes"].to_pylist() == [str(nodes) for nodes in expected["nodes"].to_pylist()]
        return
    assert read.to_pylist() == expected.to_pylist()
    assert os.listdir(tmp_path) == [path.name]


def test_export_of_everything_and_by_partition(capsys, tmp_path, data):
    status, out, _ = run(capsys, "export", DATA, "-o", tmp_path / "all")
    assert status == 0
    assert sorted(os.listdir(tmp_path / "all")) == [f"{t.name}.parquet" for t in data.info().tables]
    for table in data.info().tables:
        assert pyarrow.parquet.read_metadata(tmp_path / "all" / f"{table.name}.parquet").num_rows == table.rows
    run(capsys, "export", DATA, "--table", "metrics", "-o", tmp_path / "by", "--partition-by", "day,source")
    folder = tmp_path / "by" / "day=2023-11-14" / "source=node-017.cluster.example"
    assert pyarrow.parquet.read_metadata(folder / "metrics.parquet").num_rows == 84
    assert "_time" not in pyarrow.parquet.read_schema(folder / "metrics.parquet").names


def test_export_that_fails_leaves_nothing(tmp_path, monkeypatch, capsys):
    from qvx import _export

    monkeypatch.setattr(_export._Writer, "finish", lambda self: (_ for _ in ()).throw(OSError("disk full")))
    status, _, err = run(capsys, "export", DATA, "-o", tmp_path / "x.parquet", "--table", "job_started")
    assert (status, err) == (2, "qvx: disk full\n")
    assert os.listdir(tmp_path) == []


def test_check_says_what_is_damaged(capsys, tmp_path):
    assert run(capsys, "check", DATA) == (0, "7 files, 482 rows: whole\n", "")
    path = damaged_file(tmp_path)
    status, out, err = run(capsys, "check", path)
    assert (status, err) == (1, "")
    assert "page_damaged: A page of " in out and "rows: damaged" in out and "bytes and 0 stated records lost" in out
    status, out, _ = run(capsys, "check", "--json", path)
    report = json.loads(out)
    assert status == 1 and not report["whole"]
    assert report["faults"][0]["kind"] == "page_damaged" and report["files"][0]["bytes_lost"] > 0


def test_salvage_says_what_it_kept(capsys, tmp_path):
    path = damaged_file(tmp_path)
    status, out, err = run(capsys, "salvage", path, "-o", tmp_path / "good.bin")
    assert (status, err) == (0, "")
    rows, size = qvx.open(tmp_path / "good.bin").info().rows, (tmp_path / "good.bin").stat().st_size
    left_out = path.stat().st_size - size
    assert out == f"{tmp_path / 'good.bin'}: {rows} rows, {size} bytes kept, {left_out} left out\n"
    assert run(capsys, "check", tmp_path / "good.bin")[0] == 0


def test_damaged_file_gives_its_good_part_to_every_command(capsys, tmp_path):
    path = damaged_file(tmp_path)
    good = qvx.open(path).table("job_started").to_arrow()
    assert 0 < good.num_rows < qvx.open(SAMPLES / "gzip_pages.bin").table("job_started").to_arrow().num_rows
    status, out, err = run(capsys, "sql", path, "select count(*) n from job_started")
    assert (status, out.split()) == (1, ["n", str(good.num_rows)])
    assert err.startswith(f"qvx: {path}: at ") and "A page of " in err
    status, out, err = run(capsys, "export", path, "-o", tmp_path / "x.parquet", "--table", "job_started")
    assert status == 1 and "A page of " in err
    assert pyarrow.parquet.read_table(tmp_path / "x.parquet").to_pylist() == good.to_pylist()
    assert run(capsys, "info", path)[0] == 1


@pytest.mark.parametrize("signal_number", [signal.SIGINT, signal.SIGTERM, signal.SIGKILL])
def test_export_that_is_interrupted_leaves_nothing_under_the_final_name(tmp_path, signal_number):
    # It stops when the first rows are written, which the final name must not show.
    program = (
        "import sys, time; from qvx import _export, cli; write = _export._Writer.write\n"
        "def slow(self, table):\n write(self, table); print('written', flush=True); time.sleep(60)\n"
        "_export._Writer.write = slow; sys.exit(cli.main(sys.argv[1:]))"
    )
    out = tmp_path / "out"
    export = subprocess.Popen(
        [sys.executable, "-c", program, "export", DATA, "-o", str(out)],
        stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
    )  # fmt: skip
    assert export.stdout.readline() == "written\n"
    export.send_signal(signal_number)
    _, err = export.communicate(timeout=30)
    left = os.listdir(out)
    assert not any(name.endswith(".parquet") for name in left)
    if signal_number == signal.SIGKILL:
        assert all(name.startswith(".qvx-") for name in left)
    else:
        assert (export.returncode, err, left) == (128 + signal_number, "", [])


def test_plot_draws_files_and_text(capsys, tmp_path):
    starts = {"png": b"\x89PNG", "svg": b"<?xml", "html": b"<!doctype html>"}
    for suffix, start in starts.items():
        path = tmp_path / f"x.{suffix}"
        assert run(capsys, "plot", DATA, "-c", "node.memory_used", "node.load_*", "-o", path) == (0, "", "")
        assert path.read_bytes().startswith(start)
    if os.environ.get("QVX_PICTURES"):
        path = pathlib.Path(os.environ["QVX_PICTURES"]) / "plot.png"
        assert run(capsys, "plot", DATA, "-c", "node.memory_used", "node.load_1m", "-o", path) == (0, "", "")
    status, out, _ = run(capsys, "plot", DATA, "-c", "node.memory_used")
    assert out == (
        "node.memory_used [bytes]  node-017.cluster.example\n"
        "5.3044e+10 │  ▂  ▂█\n"
        "           │  █  ██\n"
        "           │▂▃█  ██    █\n"
        "           │███ ▇██  ▄ █\n"
        "1.0093e+10 │███▁███▇▅█▁█\n"
        "           └ 2023-11-14 22:13:20 to 2023-11-14 22:14:15 UTC\n"
    )


def test_a_plot_in_the_terminal_leaves_out_what_is_no_number():
    nan = float("nan")
    assert _plot._bars([0.0, 1.0, nan, 2.0], 4, 1) == ["▁▅ █"]
    assert _plot._bars([0.0, 0.0, 4.0, 4.0], 2, 2) == [" █", "▁█"]
    assert _plot._bars([5.0, 5.0], 9, 1) == ["▁▁"]
    assert _plot._bars([nan], 9, 2) == [" ", " "]


def test_help_has_examples_and_no_progress_goes_to_a_pipe():
    for command in cli.EXAMPLES:
        with contextlib.suppress(SystemExit):
            cli.main([command, "--help"])
    shown = subprocess.run([sys.executable, "-m", "qvx.cli", "sql", "--help"], capture_output=True, text=True)
    assert "examples:\n  qvx sql /data" in shown.stdout
    shown = subprocess.run([sys.executable, "-m", "qvx.cli", "info", DATA], capture_output=True, text=True)
    assert shown.stderr == "" and shown.returncode == 0


def test_names_are_completed_from_the_files():
    options = cli.parser().parse_args(["export", DATA, "-o", "x"])
    assert cli._complete("tables")("job_", options) == ["job_finished", "job_started"]
    assert "timestamp,user" in cli._complete("columns")("timestamp,us", options)
    assert cli._complete("counters")("node.memory_u", options) == ["node.memory_used"]
