"""The roads of docs/scale.md: GNU parallel, and arrays of a batch system of one node on the loopback interface."""

import contextlib
import os
import pathlib
import re
import shutil
import socket
import subprocess
import sys
import time

import pyarrow.dataset
import pytest

import qvx
import random_files  # noqa: F401  makes the builders known
import builders
from conftest import TOP

FILES = 250
SBIN = os.environ["PATH"] + ":/usr/sbin"


def block_of(heading):
    section = (TOP / "docs" / "scale.md").read_text(encoding="utf-8").split(f"## {heading}\n")[1]
    return re.search(r"```\n(.*?)```", section, re.S).group(1)


@pytest.fixture
def files(tmp_path):
    """A folder of files, one of them damaged behind its first row, which every road reads."""
    folder = tmp_path / "data"
    (folder / "schema").mkdir(parents=True)
    for name, content in builders.usual_schemas().items():
        (folder / name).write_bytes(content)
    for number in range(FILES):
        records = [builders.link_state(builders.START + number, number, 1, b"eth0")]
        (folder / f"{number:04}.bin").write_bytes(builders.events_file(builders.events_block(records)))
    with open(folder / "0007.bin", "ab") as damaged:
        damaged.write(b"garbage")
    assert len(qvx.open(folder).files) == FILES
    return folder


def run(script, folder, **environment):
    script = script.replace("/data", str(folder)).replace("job_started", "link_state").replace("-l 1000", "-l 100")
    path = os.pathsep.join((os.path.dirname(sys.executable), os.environ["PATH"]))
    environment = {**os.environ, "PATH": path, **environment}
    return subprocess.run(["bash", "-c", script], cwd=folder.parent, env=environment, capture_output=True, text=True)


def ports_in(folder):
    table = pyarrow.dataset.dataset(folder, format="parquet").to_table(["port"])
    return sorted(table["port"].to_pylist())


@pytest.mark.skipif(shutil.which("parallel") is None, reason="parallel is not installed")
def test_parallel_writes_every_row_once(files):
    result = run(block_of("One machine").replace("parallel -N", "parallel --will-cite -N"), files)
    assert result.returncode == 1  # one of the three calls met a damaged file
    assert "0007.bin: at 512: Reached unknown block type" in result.stderr
    assert ports_in(files.parent / "out") == list(range(FILES))
    assert sorted(os.listdir(files.parent / "out")) == ["1.parquet", "2.parquet", "3.parquet"]


def free_port():
    with socket.socket() as free:
        free.bind(("127.0.0.1", 0))
        return free.getsockname()[1]


@contextlib.contextmanager
def slurm(folder):
    """A cluster of this machine alone; gives the environment in which its commands find it."""
    host = socket.gethostname().split(".")[0]
    key = folder / "munge.key"
    key.write_bytes(os.urandom(1024))
    key.chmod(0o400)
    (folder / "spool").mkdir()
    config = folder / "slurm.conf"
    config.write_text(f"""\
ClusterName=test
SlurmctldHost={host}(127.0.0.1)
SlurmctldPort={free_port()}
SlurmdPort={free_port()}
SlurmUser=root
SlurmdUser=root
AuthType=auth/munge
AuthInfo=socket={folder}/munge.socket
CredType=cred/munge
StateSaveLocation={folder}/state
SlurmdSpoolDir={folder}/spool
SlurmctldPidFile={folder}/slurmctld.pid
SlurmdPidFile={folder}/slurmd.pid
ProctrackType=proctrack/linuxproc
TaskPlugin=task/none
SwitchType=switch/none
MpiDefault=none
SelectType=select/cons_tres
SelectTypeParameters=CR_CPU
ReturnToService=2
NodeName={host} NodeAddr=127.0.0.1 CPUs={os.cpu_count()} State=UNKNOWN
PartitionName=all Nodes=ALL Default=YES MaxTime=INFINITE State=UP
""")
    environment = {**os.environ, "SLURM_CONF": str(config), "PATH": SBIN}
    started = []

    def start(*command):
        with open(folder / f"{command[0]}.log", "wb") as log:
            started.append(subprocess.Popen(command, env=environment, stdout=log, stderr=log))

    try:
        start("munged", "--foreground", "--force", f"--key-file={key}", f"--socket={folder}/munge.socket",
              f"--pid-file={folder}/munged.pid", f"--seed-file={folder}/munged.seed", f"--log-file={folder}/munged.log")  # fmt: skip
        for _ in range(100):
            if (folder / "munge.socket").exists():
                break
            time.sleep(0.1)
        start("slurmctld", "-D", "-i")
        start("slurmd", "-D", "-N", host)
        for _ in range(300):
            shown = subprocess.run(["sinfo", "-h", "-o", "%T"], env=environment, capture_output=True, text=True).stdout
            if shown.strip() == "idle":
                break
            time.sleep(0.1)
        else:
            logs = "".join((folder / f"{name}.log").read_text()[-2000:] for name in ("munged", "slurmctld", "slurmd"))
            raise TimeoutError(shown + logs)
        yield {"SLURM_CONF": str(config)}
    finally:
        for process in reversed(started):
            process.terminate()
            process.wait()


HAS_SLURM = os.geteuid() == 0 and all(
    shutil.which(name, path=SBIN) for name in ("slurmctld", "slurmd", "munged", "sbatch")
)


@pytest.mark.skipif(not HAS_SLURM, reason="slurm is not installed, or not to be started by this user")
def test_array_of_a_batch_system_writes_every_row_once(files, tmp_path_factory):
    state = pathlib.Path(tmp_path_factory.mktemp("slurm"))
    (files.parent / "out").mkdir()
    with slurm(state) as environment:
        result = run(block_of("A batch system"), files, **environment)
        assert (result.returncode, result.stdout.startswith("Submitted batch job ")) == (0, True), result.stderr
        for _ in range(600):
            left = run("squeue -h", files, **environment)
            if left.returncode == 0 and left.stdout == "":
                break
            time.sleep(0.2)
        job = result.stdout.split()[-1]
        states = run(f"scontrol -o show job {job}", files, **environment).stdout
        assert re.findall(r"JobState=(\w+)", states) == ["COMPLETED"] * 3, states
    assert sorted(os.listdir(files.parent / "out")) == [f"list.000{n}.parquet" for n in range(3)]
    assert ports_in(files.parent / "out") == list(range(FILES))
