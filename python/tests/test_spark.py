"""The Spark data source: in one process, and on a cluster of a master and two workers."""

import contextlib
import datetime
import decimal
import os
import pathlib
import shutil
import signal
import socket
import subprocess
import sys
import threading
import time

import pyarrow
import pytest

import qvx
import random_files
import builders
from conftest import SAMPLES

if not os.environ.get("QVX_TEST_ALL"):
    pytest.skip("takes minutes; scripts/test_python.sh all runs it", allow_module_level=True)
pyspark = pytest.importorskip("pyspark", reason="pyspark is not installed")
if shutil.which("java") is None:
    pytest.skip("java is not installed", allow_module_level=True)

from pyspark.sql import SparkSession  # noqa: E402
from pyspark.sql.datasource import EqualTo, GreaterThan, In, LessThanOrEqual, Not, StringStartsWith  # noqa: E402

import qvx.spark  # noqa: E402

UTC = datetime.timezone.utc
FILES = 1000


def session(master, **options):
    os.environ["PYSPARK_PYTHON"] = sys.executable
    os.environ["SPARK_LOCAL_IP"] = "127.0.0.1"
    maker = SparkSession.builder.master(master).config("spark.ui.enabled", "false")
    maker = maker.config("spark.sql.shuffle.partitions", "2").config("spark.sql.session.timeZone", "America/New_York")
    for name, value in options.items():
        maker = maker.config(name.replace("_", "."), value)
    made = maker.getOrCreate()
    made.sparkContext.setLogLevel("OFF")
    qvx.spark.register(made)
    return made


@pytest.fixture(scope="module")
def spark():
    made = session("local[2]")
    yield made
    made.stop()


def load(spark, table, path, **options):
    reader = spark.read.format("qvx").option("table", table)
    for name, value in options.items():
        reader = reader.option(name, value)
    return reader.load(str(path))


def plain(value):
    if isinstance(value, datetime.datetime):
        return value.astimezone(UTC)  # without a zone: local
    if isinstance(value, decimal.Decimal):
        return int(value)
    if isinstance(value, pyspark.sql.Row):
        return {name: plain(member) for name, member in value.asDict().items()}
    if isinstance(value, dict):
        return {name: plain(member) for name, member in value.items()}
    if isinstance(value, list):
        pairs = bool(value) and type(value[0]) is tuple
        return {name: plain(member) for name, member in value} if pairs else [plain(member) for member in value]
    return value


def by_spark(frame):
    return [plain(row) for row in frame.collect()]


def by_library(data, table, **options):
    return [{name: plain(value) for name, value in row.items()} for row in data.table(table, **options)]


def test_tables_of_the_sample_data_have_the_rows_of_the_library(spark):
    data = qvx.open(SAMPLES)
    for table in data.info().tables:
        assert by_spark(load(spark, table.name, SAMPLES)) == by_library(data, table.name), table.name


def test_tables_of_random_files_have_the_rows_of_the_library(spark, tmp_path):
    compared = 0
    for seed in range(8):
        path = random_files.write(tmp_path / str(seed), seed)
        data = qvx.open(path)
        for table in data.info(1).tables:
            rows = by_spark(load(spark, table.name, path))
            assert rows == by_library(data, table.name), (seed, table.name)
            compared += len(rows)
    assert compared > 50


def test_columns_extra_ones_included_and_a_schema_of_the_users_own(spark):
    frame = load(spark, "job_started", SAMPLES, columns="user, _source_id")
    assert frame.columns == ["user", "_source_id"]
    assert by_spark(frame) == by_library(qvx.open(SAMPLES), "job_started", columns=["user", "_source_id"])
    reader = spark.read.format("qvx").option("table", "job_started").schema("user string, not_there long")
    assert by_spark(reader.load(str(SAMPLES)))[0] == {"user": "asantos", "not_there": None}


def test_conditions_give_the_rows_that_they_give_without_spark(spark):
    jobs, metrics = load(spark, "job_started", SAMPLES), load(spark, "metrics", SAMPLES)
    since = datetime.datetime(2023, 11, 14, 22, 15, tzinfo=UTC)
    expected = by_library(qvx.open(SAMPLES), "job_started", since=since)
    assert 0 < len(expected) < 78
    assert by_spark(jobs.filter(jobs.timestamp >= since)) == expected
    assert by_spark(jobs.filter("timestamp >= '2023-11-14 17:15:00'")) == expected  # in the zone of the session
    assert jobs.filter(jobs.timestamp < since).count() == 78 - len(expected)
    wanted = by_library(qvx.open(SAMPLES), "metrics", where={"metric": "net_*"})
    assert by_spark(metrics.filter(metrics.metric.startswith("net_"))) == wanted
    assert metrics.filter("metric = 'NET_SENT_BYTES'").count() == 0  # patterns match in any case, conditions do not


def reader_of(table, columns=None, path=SAMPLES, **options):
    source = qvx.spark.QvxDataSource({"path": str(path), "table": table, **({"columns": columns} if columns else {}), **options})
    return source.reader(source.schema())


SAMPLE_JOBS = pyarrow.schema([("timestamp", pyarrow.timestamp("us", "UTC")), ("job", pyarrow.uint32())])


def test_conditions_reach_the_decoder():
    at = datetime.datetime(2023, 11, 14, 22, 15, tzinfo=UTC)
    us = 1_700_000_100_000_000
    reader = reader_of("job_started")
    conditions = [GreaterThan(("timestamp",), at), LessThanOrEqual(("timestamp",), at), Not(EqualTo(("timestamp",), at))]
    assert reader.pushFilters(conditions) == conditions
    assert (reader.row_times(SAMPLE_JOBS), reader.where) == ((us, us), {})
    reader = reader_of("metrics")
    reader.pushFilters([EqualTo(("metric",), "a"), In(("_source_id",), ("x", "y")), StringStartsWith(("_source_tag",), "t")])
    assert reader.where == {"metric": ["a"], "_source_id": ["x", "y"], "_source_tag": ["t*"]}
    reader = reader_of("metrics")
    reader.pushFilters([EqualTo(("metric",), "a*b"), EqualTo(("value",), 1.0), EqualTo(("kind",), "counter")])
    assert (reader.where, reader.times) == ({}, {})


def write_two_times(path, identifier, *names):
    """A file with one row: at 3 s, later 1 s; the times stand in the order of the names."""
    fields = [builders.field(name, "timestamp", 8 * place, 8) for place, name in enumerate(names)]
    schema = path.parent / builders.schema_path(identifier)
    schema.parent.mkdir(exist_ok=True)
    schema.write_bytes(builders.text(builders.event_schema(builders.event_type("two", 16, *fields))))
    values = {"at": 3_000_000, "later": 1_000_000}
    block = builders.events_block([builders.pack("QQ", *(values[name] for name in names))])
    path.write_bytes(builders.header(events=[identifier]) + builders.unit(block))


def test_one_of_several_times_selects_nothing_while_decoding(tmp_path):
    other = bytes.fromhex("e2" * 16)
    write_two_times(tmp_path / "a.bin", builders.EVENTS, "at", "later")
    write_two_times(tmp_path / "b.bin", other, "later", "at")
    for name, files in (("later", "a.bin"), ("at", "b.bin"), ("at", "")):
        path = tmp_path / files
        reader = reader_of("two", columns=name, path=path)
        reader.pushFilters([GreaterThan((name,), datetime.datetime(1970, 1, 1, 0, 0, 2, tzinfo=UTC))])
        rows = sum(batch.num_rows for task in reader.partitions() for batch in reader.read(task))
        assert rows == (2 if files == "" else 1), name


def test_files_are_shared_out_to_tasks_by_number_and_size(tmp_path):
    for number, size in enumerate([10, 10, 50, 10, 10]):
        (tmp_path / f"{number}.bin").write_bytes(bytes(size))

    def tasks(**options):
        source = qvx.spark.QvxDataSource({"path": str(tmp_path), "table": "_faults", **options})
        reader = source.reader(pyspark.sql.types.StructType([]))
        return [[pathlib.Path(p).name[0] for p in task.paths] for task in reader.partitions()]

    assert tasks() == [["0", "1", "2", "3", "4"]]
    assert tasks(filesPerTask="2") == [["0", "1"], ["2", "3"], ["4"]]
    assert tasks(bytesPerTask="60") == [["0", "1", "2"], ["3", "4"]]


def write_files(folder, count):
    """Files of one schema: events in compressed pages, and counters."""
    (folder / "schema").mkdir()
    for name, content in builders.usual_schemas().items():
        (folder / name).write_bytes(content)
    for number in range(count):
        at = builders.START + number * 1000
        events = builders.events_block([builders.link_state(at + i, number % 60000, i % 2, b"eth%d" % i) for i in range(4)])
        counters = builders.counters_block(at, builders.usual_values(number, number / 8))
        content = builders.unit(builders.page_block(builders.gzipped(events)), size=512) + builders.unit(counters, size=512)
        header = builders.usual_header(block_size=512, source=b"host-%d" % (number % 7))
        (folder / f"{number:04}.bin").write_bytes(header + content)


def test_damaged_files_give_their_good_part_and_can_be_counted(spark, tmp_path):
    write_files(tmp_path, 20)
    for number in (3, 4, 11):
        path = tmp_path / f"{number:04}.bin"
        content = path.read_bytes()
        path.write_bytes(content[:300] + b"\xff" * 20 + content[320:])
    (tmp_path / "0012.bin").write_bytes(b"nothing")
    faults = load(spark, "_faults", tmp_path, filesPerTask=6)
    rows = [(os.path.basename(row.file), row.offset, row.kind) for row in faults.orderBy("file").collect()]
    damaged = [(f"00{n:02}.bin", 256, "page_damaged") for n in (3, 4, 11)]
    assert rows == [*damaged, ("0012.bin", 7, "header_short")]
    assert {row.kind: row["count"] for row in faults.groupBy("kind").count().collect()} == {
        "page_damaged": 3,
        "header_short": 1,
    }
    links = load(spark, "link_state", tmp_path, filesPerTask=6)
    assert by_spark(links) == by_library(qvx.open(tmp_path), "link_state")
    assert links.count() == 16 * 4
    with pytest.raises(Exception, match="faults, the first: .*0003.bin: at 256: A page of "):
        load(spark, "link_state", tmp_path, failOnFaults="true").count()


def test_wrong_names_list_what_there_is(spark):
    with pytest.raises(Exception, match="no table .*jobs.*; there are: .*job_started"):
        load(spark, "jobs", SAMPLES)
    with pytest.raises(Exception, match="no column .*usr.* in table .*job_started.*, which has: timestamp, "):
        load(spark, "job_started", SAMPLES, columns="usr")


# -- A cluster


def free_port():
    with socket.socket() as free:
        free.bind(("127.0.0.1", 0))
        return free.getsockname()[1]


@contextlib.contextmanager
def cluster(folder):
    """A master and two workers; gives its address and the processes of the workers, each the leader of a group."""
    home = pathlib.Path(pyspark.__file__).parent
    port = free_port()
    environment = {**os.environ, "SPARK_LOCAL_IP": "127.0.0.1", "SPARK_HOME": str(home)}
    started = []

    def start(name, *arguments):
        command = [str(home / "bin" / "spark-class"), f"org.apache.spark.deploy.{name}", "--host", "127.0.0.1", *arguments]
        with open(folder / f"log-{len(started)}", "wb") as log:
            started.append(subprocess.Popen(command, env=environment, stdout=log, stderr=log, start_new_session=True, cwd=folder))
        return started[-1]

    def wait_for(log, words):
        for _ in range(600):
            if words in (folder / log).read_text():
                return
            time.sleep(0.1)
        raise TimeoutError((folder / log).read_text())

    try:
        start("master.Master", "--port", str(port), "--webui-port", str(free_port()))
        wait_for("log-0", "I have been elected leader")
        workers = []
        for number in (1, 2):
            work = folder / f"work-{number}"
            workers.append(
                start("worker.Worker", "--cores", "1", "--memory", "1g", "--webui-port", str(free_port()), "--work-dir",
                      str(work), f"spark://127.0.0.1:{port}")
            )  # fmt: skip
        for number in (1, 2):
            wait_for(f"log-{number}", "Successfully registered with master")
        yield f"spark://127.0.0.1:{port}", workers
    finally:
        for process in started:
            with contextlib.suppress(ProcessLookupError):
                os.killpg(process.pid, signal.SIGKILL)
            process.wait()


def sorted_rows(rows):
    return sorted(map(str, rows))


def test_cluster_gives_the_rows_of_the_library_also_when_a_worker_dies(tmp_path):
    (tmp_path / "data").mkdir()
    write_files(tmp_path / "data", FILES)
    data = qvx.open(tmp_path / "data")
    if SparkSession.getActiveSession():
        SparkSession.getActiveSession().stop()
    with cluster(tmp_path) as (address, workers):
        spark = session(address, spark_driver_host="127.0.0.1", spark_executor_memory="512m")
        try:
            tracker = spark.sparkContext.statusTracker()
            for table in ("link_state", "counters"):
                expected = sorted_rows(by_library(data, table))
                assert len(expected) == FILES * (4 if table == "link_state" else 1)
                rows = by_spark(load(spark, table, tmp_path / "data", filesPerTask=10))
                assert sorted_rows(rows) == expected

            # Once more, and one worker dies with its executor in the middle.
            results = []
            job = threading.Thread(
                target=lambda: results.extend(by_spark(load(spark, "link_state", tmp_path / "data", filesPerTask=10)))
            )
            job.start()
            done = 0
            while done < 5 and job.is_alive():
                stages = [tracker.getStageInfo(stage) for stage in tracker.getActiveStageIds()]
                done = max((stage.numCompletedTasks for stage in stages if stage), default=0)
            assert done < FILES // 10
            os.killpg(workers[0].pid, signal.SIGKILL)
            assert not results
            job.join(timeout=120)
            assert sorted_rows(results) == sorted_rows(by_library(data, "link_state"))
            executors = spark.sparkContext._jsc.sc().statusTracker().getExecutorInfos()
            assert len(executors) == 2  # one of them is the driver
        finally:
            spark.stop()
