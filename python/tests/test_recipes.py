"""Every recipe of docs/recipes.md prints what stands below it. QVX_REFRESH_RECIPES=1 writes what it prints now."""

import contextlib
import importlib.util
import os
import re
import shutil
import socket
import subprocess
import sys
import time
import urllib.request

import pytest

from conftest import READER, TOP

RECIPES = TOP / "docs" / "recipes.md"
NOTEBOOK = TOP / "examples" / "notebook" / "telemetry.ipynb"
# What a recipe needs: programs, and modules behind a dot.
NEEDS = {
    "jq": ["jq"],
    "Miller": ["mlr"],
    "SQLite": ["sqlite3"],
    "DuckDB": [".duckdb"],
    "pandas": [".pandas"],
    "Polars": [".polars"],
    "InfluxDB": ["influxd", "curl"],
    "Spark": ["java", ".pyspark"],
    "A notebook": [".nbclient", ".ipykernel"],
}
BLOCK = re.compile(r"```(console|python)\n(.*?)```\n(?:\n```text\n(.*?)```\n)?", re.S)


def sections():
    parts = re.split(r"^## (.*)\n", RECIPES.read_text(encoding="utf-8"), flags=re.M)[1:]
    return dict(zip(parts[::2], parts[1::2]))


def skip_without(needs):
    if needs == NEEDS["Spark"] and not os.environ.get("QVX_TEST_ALL"):
        pytest.skip("takes a minute; scripts/test_python.sh all runs it")
    for need in needs:
        is_there = importlib.util.find_spec(need[1:]) if need.startswith(".") else shutil.which(need)
        if not is_there:
            pytest.skip(f"{need.lstrip('.')} is not installed")


@contextlib.contextmanager
def influxd(folder):
    """A server of its own; gives its port."""
    ports = []
    for _ in range(2):
        with socket.socket() as free:
            free.bind(("127.0.0.1", 0))
            ports.append(free.getsockname()[1])
    config = folder / "influxd.conf"
    config.write_text(
        f'bind-address = "127.0.0.1:{ports[1]}"\nreporting-disabled = true\n'
        f'[meta]\n dir = "{folder}/meta"\n[data]\n dir = "{folder}/data"\n wal-dir = "{folder}/wal"\n'
        f'[http]\n bind-address = "127.0.0.1:{ports[0]}"\n'
    )
    with open(folder / "influxd.log", "wb") as log:
        server = subprocess.Popen(["influxd", "-config", str(config)], stdout=log, stderr=log)
    try:
        for _ in range(100):
            with contextlib.suppress(OSError):
                urllib.request.urlopen(f"http://127.0.0.1:{ports[0]}/ping").close()
                break
            time.sleep(0.1)
        yield ports[0]
    finally:
        server.terminate()
        server.wait()


def output_of(language, code, folder, port):
    environment = {**os.environ, "TZ": "UTC", "COLUMNS": "120", "PYTHONWARNINGS": "ignore"}
    environment["PATH"] = os.pathsep.join((os.path.dirname(sys.executable), os.path.dirname(READER), environment["PATH"]))
    if language == "python":
        commands = [[sys.executable, "-c", code]]
    else:
        lines = [line[2:] for line in code.splitlines() if line.startswith("$ ")]
        commands = [["bash", "-o", "pipefail", "-c", line.replace("localhost:8086", f"127.0.0.1:{port}")] for line in lines]
    shown = ""
    for command in commands:
        run = subprocess.run(command, cwd=folder, env=environment, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        assert run.returncode == 0, f"{command}\n{run.stderr}"
        shown += run.stdout
    return "".join(line.rstrip() + "\n" for line in shown.rstrip().splitlines())


@pytest.mark.parametrize("name", [name for name in sections() if name != "A notebook"])
def test_recipe_prints_what_stands_below_it(name, tmp_path):
    skip_without(NEEDS[name])
    (tmp_path / "examples").symlink_to(TOP / "examples")
    section = sections()[name]
    blocks = BLOCK.findall(section)
    assert blocks
    with contextlib.ExitStack() as stack:
        if name == "InfluxDB":
            (tmp_path / "influx").mkdir()
        port = stack.enter_context(influxd(tmp_path / "influx")) if name == "InfluxDB" else None
        for language, code, expected in blocks:
            shown = output_of(language, code, tmp_path, port)
            assert shown, code
            if os.environ.get("QVX_REFRESH_RECIPES"):
                block = f"```{language}\n{code}```\n"
                text = RECIPES.read_text(encoding="utf-8")
                before = f"{block}\n```text\n{expected}```\n" if expected else block
                assert before in text
                RECIPES.write_text(text.replace(before, f"{block}\n```text\n{shown}```\n"), encoding="utf-8")
            else:
                assert shown == expected, code


def test_every_recipe_says_what_it_needs():
    assert list(sections()) == list(NEEDS)


def test_notebook_goes_from_files_to_a_plot(tmp_path):
    skip_without(NEEDS["A notebook"])
    import nbclient
    import nbformat

    notebook = nbformat.read(NOTEBOOK, as_version=4)
    assert all(not cell.get("outputs") for cell in notebook.cells)
    nbclient.NotebookClient(notebook, timeout=120, kernel_name="python3", resources={"metadata": {"path": str(TOP)}}).execute()
    outputs = [output for cell in notebook.cells for output in cell.get("outputs", [])]
    assert any("image/png" in output.get("data", {}) for output in outputs)
    tables = [output["data"]["text/plain"] for output in outputs if "text/plain" in output.get("data", {})]
    assert any("asantos" in table and "33" in table for table in tables)
    assert not any(output["output_type"] in ("error", "stream") for output in outputs), outputs
