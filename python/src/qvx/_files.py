"""Files that are there whole or not at all."""

from __future__ import annotations

import contextlib
import os
import tempfile
from typing import Iterator


def mode() -> int:
    """The permissions that a new file gets; temporary files begin with narrower ones."""
    umask = os.umask(0)
    os.umask(umask)
    return 0o666 & ~umask


@contextlib.contextmanager
def temporary(path: str, suffix: str = "") -> Iterator[str]:
    """A new file beside the path, which is removed at the end unless it was renamed."""
    handle, name = tempfile.mkstemp(prefix=".qvx-", suffix=suffix, dir=os.path.dirname(path) or ".")
    try:
        os.fchmod(handle, mode())
        os.close(handle)
        yield name
    finally:
        with contextlib.suppress(FileNotFoundError):
            os.unlink(name)


def write(path: str, content: bytes) -> None:
    """Writes a file, or replaces it."""
    with temporary(path) as name:
        with open(name, "wb") as file:
            file.write(content)
        os.replace(name, path)
