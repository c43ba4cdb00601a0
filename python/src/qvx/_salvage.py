"""A good file of what is good of a damaged one."""

from __future__ import annotations

import contextlib
import gzip
import os
import re
import zlib
from dataclasses import dataclass
from typing import BinaryIO, Iterator, List, Optional, Tuple

import pyarrow

import qvx
from qvx import _files

HEADER = 256
# Nothing can be read of a file with one of these.
FATAL = ("header_short", "header_invalid", "block_size_invalid", "types_failed", "open_failed")
# These concern no bytes of the file.
HARMLESS = ("warning", "type_refused")
NUM_EVENTS_AT = 15
GZIP = 31  # what zlib calls a window of 15 bits in a gzip stream


@dataclass(frozen=True)
class Salvaged:
    rows: int
    bytes_kept: int
    bytes_left_out: int


@dataclass(frozen=True)
class _Page:
    """A page block: from where to where it stands in its data block."""

    start: int
    data: int
    end: int

    def content(self, unit: bytes) -> bytes:
        packed = unit[self.data : self.end - 4]
        if unit[self.start + 5 : self.start + 6] == b"S":
            size = shift = 0
            for byte in packed[:10]:
                size |= (byte & 0x7F) << shift
                shift += 7
                if byte < 0x80:
                    break
            return pyarrow.Codec("snappy").decompress(packed, size, asbytes=True)
        return zlib.decompressobj(GZIP).decompress(packed)

    def with_content(self, unit: bytes, content: bytes) -> bytes:
        """The page block with other content, encoded as before."""
        if unit[self.start + 5 : self.start + 6] == b"S":
            packed = pyarrow.Codec("snappy").compress(content, asbytes=True)
        else:
            packed = gzip.compress(content, mtime=0)
        head = unit[self.start : self.data]
        return head[:6] + len(packed).to_bytes(4, "little") + head[10:] + packed + b"qvxp"


def _page_at(unit: bytes, start: int) -> Optional[_Page]:
    if unit[start : start + 4] != b"QVXP" or start + 10 > len(unit):
        return None
    data = start + 4 + unit[start + 4]
    end = data + int.from_bytes(unit[start + 6 : start + 10], "little") + 4
    return _Page(start, data, end) if end <= len(unit) and unit[end - 4 : end] == b"qvxp" else None


def _pages(unit: bytes) -> Iterator[_Page]:
    page = _page_at(unit, 0)
    while page is not None:
        yield page
        page = _page_at(unit, page.end)


def _replaced(unit: bytes, page: _Page, by: bytes) -> bytes:
    """The data block with something else in the place of a page; as long as before where that fits."""
    rest = unit[page.end :].rstrip(b"\0")
    made = unit[: page.start] + by + (rest if rest.startswith(b"QVXP") else b"")
    return made.ljust(len(unit), b"\0")


def _mended_chain(chain: bytes, at: int, faults: List[qvx.Fault]) -> bytes:
    """Without the block at the place and all behind it; or, where it only states too many records, with their number."""
    if len(faults) == 1 and faults[0].kind == "events_cut":
        there = re.match(r"(\d+) of \d+ records are there", faults[0].words)
        if there and int(there[1]) > 0:
            return chain[: at + NUM_EVENTS_AT] + bytes([int(there[1])]) + chain[at + NUM_EVENTS_AT + 1 :]
    return chain[:at]


def _mended(unit: bytes, at: int, faults: List[qvx.Fault], block_size: int) -> bytes:
    """The data block without what the faults, all of one place, are about."""
    page = _page_at(unit, at)
    if page is None:
        return _mended_chain(unit, at, faults).ljust(len(unit), b"\0")
    if faults[0].page_offset is None:
        return _replaced(unit, page, b"")
    content = _mended_chain(page.content(unit), faults[0].page_offset, faults)
    made = _replaced(unit, page, page.with_content(unit, content) if content else b"")
    return made if len(made) <= block_size else _replaced(unit, page, b"")


def _has_schemas(units: List[bytes]) -> bool:
    for unit in units:
        if b"QVXS" in unit:
            return True
        for page in _pages(unit):
            with contextlib.suppress(ValueError, OSError, zlib.error):  # what a damaged page had is not known
                if b"QVXS" in page.content(unit):
                    return True
    return False


def _without_events(units: List[bytes], number: int, at: int) -> None:
    """Takes out the events behind a place, up to the next schemas block: which one was lost there is not known."""
    for i in range(number, len(units)):
        unit = units[i]
        page = _page_at(unit, 0)
        if page is None:
            if i == number:
                continue  # what was behind the place in its chain is gone
            if unit[3:4] == b"S":
                return
            if unit[3:4] == b"E":
                units[i] = bytes(len(unit))
            continue
        while page is not None:
            start = page.start
            if i > number or start >= at:
                try:
                    kind = page.content(unit)[3:4]
                except (ValueError, OSError, zlib.error):
                    return  # a loss of its own, which is next
                if kind == b"S":
                    units[i] = unit
                    return
                if kind == b"E":
                    unit = _replaced(unit, page, b"")
                    page = _page_at(unit, start)
                    continue
            page = _page_at(unit, page.end)
        units[i] = unit


def _unpacked(path: str) -> bytes:
    with open(path, "rb") as file:
        start = file.read(2)
        file.seek(0)
        if start != b"\x1f\x8b":
            return file.read()
        return b"".join(_inflated(file))


def _inflated(file: BinaryIO) -> Iterator[bytes]:
    """All that comes out before the first fault, to the last byte."""
    inflate = zlib.decompressobj(GZIP)
    packed = b""
    while packed := packed or file.read(4096):
        before = inflate.copy()
        try:
            yield inflate.decompress(packed)
        except zlib.error:
            with contextlib.suppress(zlib.error):
                while byte := before.decompress(packed, 1):
                    packed = before.unconsumed_tail
                    yield byte
            return
        packed = inflate.unused_data
        if inflate.eof:
            packed = packed or file.read(4096)
            if not packed.startswith(b"\x1f\x8b"):
                return
            inflate = zlib.decompressobj(GZIP)


def _first_faults(faults: List[qvx.Fault]) -> List[qvx.Fault]:
    """Those of the first place that has any in the file's data."""
    places = [(f.offset, f.page_offset or 0) for f in faults if f.offset >= HEADER and f.kind not in HARMLESS]
    first = min(places, default=None)
    return [f for f in faults if (f.offset, f.page_offset or 0) == first and f.kind not in HARMLESS]


def run(source: str, target: str, schema: Optional[str] = None) -> Salvaged:
    """Leaves out what cannot be read and keeps every record of the rest as it is.

    A page of which only the beginning can be read is packed again, an events block that states more records than there are
    states as many as there are, and the header states the new size. A metrics block that is damaged inside is left out. In
    files with schemas blocks events behind a loss are left out up to the next schemas block.

    Raises FileExistsError when the target exists, and ValueError when nothing is good.
    """
    if os.path.exists(target):
        raise FileExistsError(f"{target} exists")
    opened = qvx.open(source, schema)
    fatal = [fault for fault in opened.faults if fault.kind in FATAL]
    if fatal:
        raise ValueError(f"nothing can be read: {fatal[0]}")
    content = _unpacked(source)
    block_size = int.from_bytes(content[112:116], "little")
    units = [content[at : at + block_size] for at in range(HEADER, len(content), block_size)]
    if schema is None:
        schema = _schema_folder(source)
    has_schemas: Optional[bool] = None
    start = 0  # the data blocks before are good
    with _files.temporary(target, ".bin") as temporary:
        while True:
            size = HEADER + sum(map(len, units[start:]))
            with open(temporary, "wb") as file:
                file.write(content[:8] + size.to_bytes(8, "little") + content[16:HEADER])
                file.writelines(units[start:])
            data = qvx.open(temporary, schema)
            rows = data.info(1).rows
            faults = _first_faults(data.faults)
            if not faults:
                if start == 0:
                    break
                start = 0  # all of it once more, as it will be read
                continue
            if has_schemas is None:
                has_schemas = _has_schemas(units)
            number, at = divmod(faults[0].offset - HEADER, block_size)
            number += start
            if number >= len(units):
                raise ValueError(f"cannot be salvaged: {faults[0]}")
            made = _mended(units[number], at, faults, block_size)
            # What is too short to begin a block is told at its end, where there is nothing to take out.
            units[number] = made if made != units[number] else b""
            if has_schemas:
                _without_events(units, number, at)
            else:
                start = number
            units = [unit for unit in units if any(unit)]
        os.link(temporary, target)
    return Salvaged(rows, size, len(content) - size)


def _schema_folder(path: str) -> Optional[str]:
    folder = os.path.dirname(os.path.abspath(path))
    for _ in range(5):
        candidate = os.path.join(folder, "schema")
        if os.path.exists(candidate):
            return candidate
        folder = os.path.dirname(folder)
    return None
