"""The whole program under valgrind, which sees each byte that is used, printed or written and was never set: the golden files and
damaged files of random types, in every format. A program with a sanitizer looks for itself."""

import random
import shutil
import tempfile

import random_files
from program import HERE, Folder, Run

FORMATS = ("ndjson", "json", "txt", "influx", "csv", "bin")
SAMPLES = HERE.parent.parent / "examples" / "data"
FUZZ = HERE.parent.parent / "fuzz"
VALGRIND = ["valgrind", "-q", "--error-exitcode=99"]
SANITIZERS = {"ASAN_OPTIONS": "exitcode=99", "MSAN_OPTIONS": "exitcode=99"}
RANDOM_FILES = 40


def _check(options, kind, output, folder, schemas, files, name):
    with tempfile.TemporaryDirectory() as target:
        run = Run(options.bin, folder, ["-f", output, "-s", schemas, "--output-dir", target, *files], keep_out=False,
                  wrapper=[] if options.unlimited else VALGRIND, env=SANITIZERS, time_limit=600)
        # All files of one process count.
        for _ in files[1:]:
            kind.check(True, "")
        kind.check(run.status in (0, 1), f"{name} {output}: status {run.status}, {run.err[-2000:]!r}")


def run(options, kind):
    if shutil.which("valgrind") is None and not options.unlimited:
        return
    formats = [FORMATS[options.seed % len(FORMATS)]] if options.quick else FORMATS
    samples = sorted(str(path) for path in SAMPLES.glob("*.*"))
    # The first byte of these is not the file's.
    first = {path.name: path.read_bytes()[1:] for path in sorted((FUZZ / "corpus" / "whole_file_fuzz").iterdir())}
    for output in formats:
        _check(options, kind, output, SAMPLES, "schema", samples, "samples")
        with Folder(first) as folder:
            _check(options, kind, output, folder, str(FUZZ / "schema"), list(first), "first inputs")
        for at in range(2 if options.quick else RANDOM_FILES):
            with Folder(random_files.make(random.Random(f"{options.seed} {at}"))) as folder:
                _check(options, kind, output, folder, "schema", ["a.bin"], f"file {at} of seed {options.seed}")
