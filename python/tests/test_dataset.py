import concurrent.futures
import datetime
import gzip
import os
import signal
import subprocess
import sys
import time

import pyarrow
import pytest

import qvx
import random_files  # noqa: F401  makes the builders known
import builders
from conftest import SAMPLES
from qvx import cli


def test_tables_files_and_info(data):
    assert {"counters", "metrics", "job_started", "job_finished"} <= set(data.tables)
    assert data.tables["job_started"].provider
    assert [os.path.basename(f) for f in data.files] == sorted(
        f for f in os.listdir(SAMPLES) if f.endswith((".bin", ".bin.gz"))
    )
    info = data.info()
    assert info.rows == sum(file.rows for file in info.files)
    assert info.bytes == sum(os.path.getsize(f) for f in data.files)
    assert info.times[0].tzinfo is datetime.timezone.utc
    assert not any(file.failed for file in info.files)
    by_name = {os.path.basename(file.path): file for file in info.files}
    pages = by_name["gzip_pages.bin"]
    assert pages.pages > 0 and pages.unpacked_bytes > pages.packed_bytes
    assert data.faults == []


def test_projection_limit_and_patterns(data):
    table = data.table("job_started", columns=["user", "_source_id", "job"], limit=3).to_arrow()
    assert table.column_names == ["user", "_source_id", "job"]
    assert table.num_rows == 3
    assert data.table("counters", ["*.memory_*"]).to_arrow().num_columns >= 1


def test_time_range_takes_every_form_of_time(data):
    times = sorted(t for t in data.table("job_started", ["timestamp"]).to_arrow()["timestamp"].to_pylist())
    middle = times[len(times) // 2]
    expected = sum(t >= middle for t in times)
    for since in (middle, middle.isoformat(), middle.replace(tzinfo=None), round(middle.timestamp() * 1e6)):
        assert data.table("job_started", since=since).to_arrow().num_rows == expected
    assert data.table("job_started", until="1970-01-02T00:00:00Z").to_arrow().num_rows == 0


def test_conditions_select_rows(data):
    metrics = data.table("metrics", ["metric"], where={"metric": "net_*"}).to_arrow()["metric"].to_pylist()
    assert metrics and all(name.startswith("net_") for name in metrics)
    assert data.table("metrics", where={"_source_id": ["no such source"]}).to_arrow().num_rows == 0


def test_threads_give_the_same_rows(data):
    alone = data.table("job_started").to_arrow()
    assert data.table("job_started", threads=4).to_arrow().equals(alone)
    any_order = data.table("job_started", threads=4, in_order=False).to_arrow()
    assert any_order.num_rows == alone.num_rows


def test_batches_have_the_rows_asked_for(data):
    sizes = [batch.num_rows for batch in data.table("job_started", batch_rows=7).reader()]
    assert max(sizes) == 7 and len(sizes) > 2


def test_wrong_names_list_what_there_is(data):
    with pytest.raises(KeyError, match="no table .*job_starte.*; there are: .*job_started"):
        data.table("job_starte")
    with pytest.raises(KeyError, match="no column .*usr.* in table .*job_started.*, which has: timestamp, "):
        data.table("job_started", ["usr"])
    with pytest.raises(KeyError, match="no condition on .*user"):
        data.table("job_started", where={"user": "x"})
    with pytest.raises(FileNotFoundError):
        qvx.open(SAMPLES / "schema")


def test_sql_answers_over_all_tables(data):
    count = data.sql("select count(*) from job_started").fetchall()[0][0]
    assert count == data.table("job_started").to_arrow().num_rows
    joined = data.sql(
        'select s."user", count(*) n from job_started s join job_finished f on s.job = f.job group by 1 order by 1'
    ).fetchall()
    assert joined and all(n > 0 for _, n in joined)
    assert data.sql("select * from counters limit 1").columns[0] == "timestamp"
    assert data.sql("select labels['host'] from metrics limit 1").fetchall()[0][0].startswith("node-")
    with pytest.raises(KeyError, match="Tables: .*job_started"):
        data.sql("select * from nothing_like_it")
    with pytest.raises(KeyError, match="Columns of job_started: timestamp, "):
        data.sql("select usr from job_started")


def test_damaged_file_gives_its_good_part_and_faults_but_no_output(tmp_path):
    whole = (SAMPLES / "gzip_pages.bin").read_bytes()
    damaged = tmp_path / "damaged.bin"
    middle = len(whole) // 2
    damaged.write_bytes(whole[:middle] + b"\xff" * 64 + whole[middle + 64 :])
    program = (
        "import qvx, sys; d = qvx.open([sys.argv[1], '/no/such/file'], schema=sys.argv[2]); i = d.info();"
        "print(i.rows, i.files[0].failed, len(d.faults), sorted({f.kind for f in d.faults}))"
    )
    run = subprocess.run(
        [sys.executable, "-c", program, str(damaged), str(SAMPLES / "schema")], capture_output=True, text=True
    )
    assert run.stderr == ""
    rows, failed, faults, kinds = run.stdout.split(maxsplit=3)
    assert 0 < int(rows) < qvx.open(SAMPLES / "gzip_pages.bin").info().rows
    assert failed == "True" and int(faults) >= 2 and "open_failed" in kinds


def test_what_is_in_use_at_the_end_of_the_program_is_told_nowhere():
    program = "import builtins, qvx, sys; builtins.kept = qvx.open(sys.argv[1]).table('job_started'); kept.to_arrow()"
    run = subprocess.run([sys.executable, "-c", program, str(SAMPLES)], capture_output=True, text=True)
    assert (run.returncode, run.stdout, run.stderr) == (0, "", "")


def test_schema_folder_and_whole_gzip_files(tmp_path):
    path = tmp_path / "events.bin.gz"
    path.write_bytes(gzip.compress((SAMPLES / "events.bin").read_bytes()))
    data = qvx.open(tmp_path, schema=SAMPLES / "schema")
    expected = qvx.open(SAMPLES / "events.bin").table("job_started").to_arrow()
    assert data.table("job_started").to_arrow().equals(expected)
    lost = qvx.open(path)
    assert [fault.kind for fault in lost.faults] == ["types_failed"]


def test_times_that_no_datetime_holds_are_numbers_and_stop_nothing(tmp_path, capsys):
    at = [builders.field("at", "timestamp", 0, 8)]
    types = builders.event_schema(
        builders.event_type("moment", 8, *at),
        builders.event_type("list", 32, builders.field("all", "timestamp", 0, 8, 2), builders.field("in", "moment", 16, 8, 2)),
    )
    (tmp_path / "schema").mkdir()
    (tmp_path / builders.schema_path(builders.EVENTS)).write_bytes(builders.text(types))
    (tmp_path / builders.schema_path(builders.COUNTERS)).write_bytes(builders.text(builders.USUAL_COUNTERS))
    numbers = (builders.START, 2**62, 2**64 - 1, 0)
    path = tmp_path / "wild.bin"
    path.write_bytes(
        builders.events_file(
            builders.events_block([builders.pack("Q", number) for number in numbers]),
            builders.events_block([builders.pack("4Q", *numbers)], type_index=1),
        )
        + builders.unit(builders.counters_block(2**62, builders.usual_values(7, 0.5)))
    )
    start = datetime.datetime(2023, 11, 14, 22, 13, 20, tzinfo=datetime.timezone.utc)
    zero = datetime.datetime(1970, 1, 1, tzinfo=datetime.timezone.utc)
    data = qvx.open(path)
    assert [row["at"] for row in data.table("moment")] == [start, 2**62, None, zero]
    row = {"all": [int(start.timestamp()) * 10**6, 2**62], "in": [{"at": None}, {"at": zero}]}
    assert list(data.table("list")) == [row]
    for arguments in (
        ["info"], ["check"], ["sql", "select * from moment"], ["export", "-o", tmp_path / "out", "--to", "csv"],
        ["report", "-o", tmp_path / "r.html"],
    ):  # fmt: skip
        assert cli.main([arguments[0], str(path), *map(str, arguments[1:])]) == 0, arguments
    assert cli.main(["plot", str(path), "-c", "net.load"]) == 2
    assert capsys.readouterr().err == "qvx: no values in this range of time\n"


def write_many(folder, count, content):
    (folder / "schema").mkdir()
    for name, schema in builders.usual_schemas().items():
        (folder / name).write_bytes(schema)
    first = folder / "0000.bin"
    first.write_bytes(content)
    for number in range(1, count):
        os.link(first, folder / f"{number:04}.bin")


def test_a_signal_ends_the_survey_of_many_files(tmp_path):
    # Pages that unpack to 32 MiB of nothing take half a minute in all.
    page = builders.counters_block(builders.START, builders.usual_values(1, 0.5)) + bytes(32 << 20)
    content = builders.usual_header(block_size=65536) + builders.page_block(builders.gzipped(page))
    write_many(tmp_path, 1000, content)
    program = "import sys; from qvx import cli; print('begun', flush=True); sys.exit(cli.main(sys.argv[1:]))"
    for number in (signal.SIGINT, signal.SIGTERM):
        command = subprocess.Popen(
            [sys.executable, "-c", program, "info", "-j", "2", str(tmp_path)], stdout=subprocess.PIPE, stderr=subprocess.PIPE
        )
        assert command.stdout.readline() == b"begun\n"
        time.sleep(1)
        command.send_signal(number)
        start = time.monotonic()
        out, err = command.communicate(timeout=30)
        assert (command.returncode, out, err) == (128 + number, b"", b"")
        assert time.monotonic() - start < 5


def test_many_files_many_threads_and_streams_that_are_left_early(tmp_path):
    records = [builders.link_state(builders.START + i, i, 1, b"eth") for i in range(200)]
    blocks = [builders.unit(builders.events_block(records), size=4096) for _ in range(3)]
    write_many(tmp_path, 150, builders.usual_header(block_size=4096) + b"".join(blocks))
    data = qvx.open(tmp_path)
    alone = data.table("link_state").to_arrow()
    assert alone.num_rows == 150 * 600
    assert data.table("link_state", threads=4).to_arrow().equals(alone)
    any_order = data.table("link_state", ["port"], threads=4, in_order=False).to_arrow()
    assert sorted(any_order["port"].to_pylist()) == sorted(alone["port"].to_pylist())
    for _ in range(20):
        reader = data.table("link_state", threads=4, batch_rows=50).reader()
        assert reader.read_next_batch().num_rows == 50
        del reader
    with concurrent.futures.ThreadPoolExecutor(8) as pool:
        tables = pool.map(lambda _: data.table("link_state", threads=2).to_arrow(), range(8))
        assert all(table.equals(alone) for table in tables)
    assert data.faults == []


def test_stream_outlives_its_dataset():
    reader = pyarrow.RecordBatchReader.from_stream(qvx.open(SAMPLES / "events.bin").table("job_started", batch_rows=5))
    assert sum(batch.num_rows for batch in reader) > 5
