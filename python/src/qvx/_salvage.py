"""A good file of what is good of a damaged one."""

from __future__ import annotations

import gzip
import os
import tempfile
from dataclasses import dataclass
from typing import List, Optional, Tuple

import qvx

HEADER = 256
_PAGE_HEADER_AT, _PAGE_SIZE_AT = 4, 6


@dataclass(frozen=True)
class Salvaged:
    rows: int
    bytes_kept: int
    bytes_left_out: int


def _unpacked(path: str) -> bytes:
    with open(path, "rb") as file:
        start = file.read(2)
        file.seek(0)
        if start != b"\x1f\x8b":
            return file.read()
    pieces: List[bytes] = []
    with gzip.open(path) as packed:
        try:
            while piece := packed.read1(1 << 16):
                pieces.append(piece)
        except (EOFError, OSError):
            pass  # what came out before the fault is good
    return b"".join(pieces)


def _without(unit: bytes, offset: int) -> bytes:
    """The data block without the page at the offset, or, where there is no whole page, without all from there on."""
    end = len(unit)
    if unit[offset : offset + 3] == b"QVX" and unit[offset + 3 : offset + 4] == b"P":
        header = unit[offset + _PAGE_HEADER_AT : offset + _PAGE_HEADER_AT + 1]
        size = int.from_bytes(unit[offset + _PAGE_SIZE_AT : offset + _PAGE_SIZE_AT + 4], "little")
        stop = offset + 4 + (header[0] if header else 0) + size + 4
        if stop <= len(unit) and unit[stop - 4 : stop] == b"qvxp":
            end = stop
    rest = unit[end:]
    if not rest.startswith(b"QVXP"):
        rest = b""
    return unit[:offset] + rest + bytes(len(unit) - offset - len(rest))


def _place(fault: qvx.Fault, block_size: int) -> Tuple[int, int]:
    return divmod(fault.offset - HEADER, block_size)


def run(source: str, target: str, schema: Optional[str] = None) -> Salvaged:
    """Leaves out what cannot be read and keeps everything else byte for byte, but for the size in the header.

    Raises FileExistsError when the target exists, and ValueError when nothing is good.
    """
    if os.path.exists(target):
        raise FileExistsError(f"{target} exists")
    content = _unpacked(source)
    opened = qvx.open(source, schema)
    fatal = [f for f in opened.faults if f.kind in ("header_short", "header_invalid", "block_size_invalid", "types_failed", "open_failed")]
    if fatal:
        raise ValueError(f"nothing can be read: {fatal[0]}")
    block_size = int.from_bytes(content[112:116], "little")
    units = [content[at : at + block_size] for at in range(HEADER, len(content), block_size)]
    if schema is None:
        schema = _schema_folder(source)
    folder = os.path.dirname(target) or "."
    handle, temporary = tempfile.mkstemp(prefix=".qvx-", suffix=".bin", dir=folder)
    try:
        with os.fdopen(handle, "wb"):
            pass
        while True:
            size = HEADER + sum(map(len, units))
            with open(temporary, "wb") as file:
                file.write(content[:8] + size.to_bytes(8, "little") + content[16:HEADER])
                file.writelines(units)
            data = qvx.open(temporary, schema)
            rows = data.info(1).rows
            # From the back, so that the places of the others stay.
            places = sorted({_place(f, block_size) for f in data.faults if f.offset >= HEADER}, reverse=True)
            places = [place for place in places if place[0] < len(units)]
            if not places:
                break
            for unit, offset in places:
                units[unit] = _without(units[unit], offset)
                if not any(units[unit]):
                    del units[unit]
        umask = os.umask(0)
        os.umask(umask)
        os.chmod(temporary, 0o666 & ~umask)
        os.link(temporary, target)
    finally:
        os.unlink(temporary)
    return Salvaged(rows, size, len(content) - size)


def _schema_folder(path: str) -> Optional[str]:
    folder = os.path.dirname(os.path.abspath(path))
    for _ in range(5):
        candidate = os.path.join(folder, "schema")
        if os.path.exists(candidate):
            return candidate
        folder = os.path.dirname(folder)
    return None
