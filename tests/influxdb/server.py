"""An InfluxDB of its own for a test: on loopback, at a free port, with its data in a temporary folder."""

import json
import pathlib
import re
import shutil
import subprocess
import tempfile
import time
import urllib.error
import urllib.parse
import urllib.request

# Port 0 lets the server take a free one, which it tells in its log. Nothing is reported to anybody.
CONFIGURATION = """
reporting-enabled = false
reporting-disabled = true
bind-address = "127.0.0.1:0"
[meta]
dir = "{folder}/meta"
[data]
dir = "{folder}/data"
wal-dir = "{folder}/wal"
[http]
bind-address = "127.0.0.1:0"
log-enabled = false
[monitor]
store-enabled = false
[subscriber]
enabled = false
[continuous_queries]
enabled = false
"""
START_SECONDS = 60
# Straight to the server, whatever proxy the environment names.
OPENER = urllib.request.build_opener(urllib.request.ProxyHandler({}))


def program():
    """The path of the server, or None where it is not installed."""
    return shutil.which("influxd")


class Refused(Exception):
    """The server's own words for what it did not take."""


class Server:
    """Started when made. To be used in a with statement, which stops it."""

    def __init__(self):
        self._folder = tempfile.TemporaryDirectory(prefix="qvx_influxdb_")
        folder = pathlib.Path(self._folder.name)
        configuration = folder / "influxdb.conf"
        configuration.write_text(CONFIGURATION.format(folder=folder))
        self._log = folder / "log"
        with self._log.open("wb") as log:
            self._process = subprocess.Popen([program(), "run", "-config", str(configuration)],
                                             env={"HOME": str(folder)}, stdin=subprocess.DEVNULL, stdout=log,
                                             stderr=log)
        try:
            self._url = "http://" + self._address()
        except BaseException:
            self.stop()
            raise

    def _address(self):
        end = time.monotonic() + START_SECONDS
        while time.monotonic() < end and self._process.poll() is None:
            listening = re.search(r"Listening on HTTP.* addr=(127\.0\.0\.1:\d+)", self._log.read_text())
            if listening:
                return listening[1]
            time.sleep(0.05)
        raise RuntimeError("the server did not start:\n" + self._log.read_text())

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.stop()

    def stop(self):
        self._process.terminate()
        try:
            self._process.wait(timeout=20)
        except subprocess.TimeoutExpired:
            self._process.kill()
            self._process.wait()
        self._folder.cleanup()

    def _call(self, path, parameters, body):
        url = f"{self._url}/{path}?{urllib.parse.urlencode(parameters)}"
        try:
            with OPENER.open(urllib.request.Request(url, data=body, method="POST"), timeout=60) as answer:
                return answer.read()
        except urllib.error.HTTPError as refusal:
            raise Refused(refusal.read().decode()) from None

    def write(self, database, lines):
        """Writes lines in one request. Raises Refused when the server leaves out any of them."""
        self._call("write", {"db": database, "precision": "ns"}, lines)

    def query(self, database, words):
        """The series that one statement gives."""
        answer = json.loads(self._call("query", {"db": database, "epoch": "ns", "q": words}, b""))["results"][0]
        if "error" in answer:
            raise Refused(answer["error"])
        return answer.get("series", [])

    def create(self, database):
        """An empty database."""
        self.query(database, f'CREATE DATABASE "{database}"')

    def points(self, database, measurement):
        """All points: a list of (tags, time in nanoseconds, fields)."""
        found = []
        for series in self.query(database, f'SELECT * FROM "{measurement}" GROUP BY *'):
            tags = frozenset((key, value) for key, value in series.get("tags", {}).items() if value)
            for time_of_point, *values in series["values"]:
                fields = {name: value for name, value in zip(series["columns"][1:], values) if value is not None}
                found.append((tags, time_of_point, fields))
        return found

    def measurements(self, database):
        return sorted(row[0] for series in self.query(database, "SHOW MEASUREMENTS") for row in series["values"])

    def field_types(self, database, measurement):
        return {name: kind for series in self.query(database, f'SHOW FIELD KEYS FROM "{measurement}"')
                for name, kind in series["values"]}
