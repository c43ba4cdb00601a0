import json
import os
import pathlib
import subprocess

import pytest

import qvx

TOP = pathlib.Path(__file__).resolve().parents[2]
SAMPLES = TOP / "examples" / "data"
READER = os.environ.get("QVX_READ", str(TOP / "build" / "release" / "qvx_read"))


def ndjson(path, pattern="*"):
    """The records that the program prints of a file."""
    result = subprocess.run([READER, "-f", "ndjson", "-i", pattern, str(path)], capture_output=True, check=True)
    return [json.loads(line) for line in result.stdout.splitlines()]


@pytest.fixture(scope="session")
def data():
    return qvx.open(SAMPLES)


@pytest.fixture(scope="session")
def sample_files():
    return sorted(p for p in SAMPLES.iterdir() if p.is_file())
