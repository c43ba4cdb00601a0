"""What is salvaged reads back whole, and holds every record of the good part and of what is good behind it."""

import gzip
import random
import struct

import pytest

import qvx
import random_files
import builders
from builders import START, counters_block, events_block, link_state, page_block, schemas_block, unit, usual_values
from qvx import _salvage, cli

SIZE = 1024
FILES = 300


def put(folder, *units, schemas=None, end=None, name="damaged.bin"):
    for path, content in (schemas or builders.usual_schemas()).items():
        (folder / path).parent.mkdir(exist_ok=True)
        (folder / path).write_bytes(content)
    path = folder / name
    path.write_bytes((builders.usual_header(block_size=SIZE) + b"".join(units))[:end])
    return path


def salvaged(path):
    good = path.parent / "good.bin"
    result = _salvage.run(str(path), str(good))
    content = good.read_bytes()
    assert struct.unpack("<Q", content[8:16]) == (len(content),)
    assert (qvx.open(good).info().rows, qvx.open(good).faults) == (result.rows, [])
    return content[256:]


def links(*ports):
    return events_block([link_state(START + port, port, 1, b"eth") for port in ports])


def ports(path):
    return [row["port"] for row in qvx.open(path).table("link_state", ["port"])]


def loads(*packets):
    return counters_block(START, usual_values(packets[0], 0.5))


def page(content, encoding=b"G"):
    packed = builders.gzipped(content) if encoding == b"G" else builders.snappied(content)
    return page_block(packed, encoding=encoding)


def broken(whole):
    """A page whose data cannot be unpacked."""
    return whole[:60] + bytes(b ^ 0xFF for b in whole[60:70]) + whole[70:]


def test_a_whole_file_is_kept_byte_for_byte(tmp_path):
    units = unit(links(1, 2), size=SIZE) + unit(page(links(3)), page(loads(4)), size=SIZE)
    assert salvaged(put(tmp_path, units)) == units


def test_a_damaged_page_goes_and_the_pages_and_data_blocks_around_it_stay(tmp_path):
    first, second, third = page(links(1, 2)), page(links(3)), page(links(4, 5))
    path = put(tmp_path, unit(first, broken(second), third, size=SIZE), unit(links(6), size=SIZE))
    assert ports(path) == [1, 2]
    assert salvaged(path) == unit(first, third, size=SIZE) + unit(links(6), size=SIZE)
    assert ports(tmp_path / "good.bin") == [1, 2, 4, 5, 6]


def test_a_page_without_its_end_takes_the_rest_of_its_data_block_along(tmp_path):
    first, second = page(links(1)), page(links(2))
    path = put(tmp_path, unit(first, second[:-4] + b"qvxq", first, size=SIZE), unit(second, size=SIZE))
    assert salvaged(path) == unit(first, size=SIZE) + unit(second, size=SIZE)


def test_a_data_block_of_garbage_goes(tmp_path):
    path = put(tmp_path, unit(links(1), size=SIZE), b"\xff" * SIZE, unit(loads(7), size=SIZE))
    assert salvaged(path) == unit(links(1), size=SIZE) + unit(loads(7), size=SIZE)


def test_an_events_block_that_is_cut_states_the_records_that_are_there(tmp_path):
    whole = links(1, 2, 3)
    path = put(tmp_path, unit(links(9), size=SIZE), whole, end=256 + SIZE + len(whole) - 1)
    assert ports(path) == [9, 1, 2]
    cut = whole[:15] + b"\x02" + whole[16:-1]
    assert salvaged(path) == unit(links(9), size=SIZE) + cut
    assert ports(tmp_path / "good.bin") == [9, 1, 2]


def test_an_events_block_without_a_whole_record_goes(tmp_path):
    whole = links(1)
    path = put(tmp_path, unit(links(9), size=SIZE), whole, end=256 + SIZE + len(whole) - 1)
    assert salvaged(path) == unit(links(9), size=SIZE)


def test_bytes_at_the_end_that_are_too_few_for_a_block_go(tmp_path):
    path = put(tmp_path, unit(links(1), size=SIZE), links(2), end=256 + SIZE + 3)
    assert salvaged(path) == unit(links(1), size=SIZE)


def test_events_of_an_unknown_type_take_the_rest_of_their_chain_along(tmp_path):
    unknown = events_block([bytes(19)], type_index=77)
    path = put(tmp_path, unit(links(1), unknown, links(2), size=SIZE), unit(links(3), size=SIZE))
    assert ports(path) == [1]
    assert salvaged(path) == unit(links(1), size=SIZE) + unit(links(3), size=SIZE)


@pytest.mark.parametrize("encoding", [b"G", b"S"])
def test_a_page_of_which_only_the_beginning_can_be_read_keeps_that(tmp_path, encoding):
    lying = events_block([link_state(START, 5, 1, b"eth")], count=9)
    unknown = events_block([bytes(19)], type_index=77)
    path = put(
        tmp_path,
        unit(page(links(1, 2) + lying, encoding), page(links(3), encoding), size=SIZE),
        unit(page(links(4) + unknown, encoding), page(unknown, encoding), page(links(6), encoding), size=SIZE),
    )
    assert ports(path) == [1, 2, 5, 3, 4]
    content = salvaged(path)
    assert ports(tmp_path / "good.bin") == [1, 2, 5, 3, 4, 6]
    assert content.count(b"QVXP") == 4
    assert page(links(3), encoding) in content and page(links(6), encoding) in content


OTHER = bytes.fromhex("a1" * 16)
STATES = builders.event_schema(builders.event_type("state", 19, builders.field("number", "uint16_t", 8, 2)), name="other")


def test_events_behind_a_loss_wait_for_the_next_schemas_block(tmp_path):
    schemas = {**builders.usual_schemas(), builders.schema_path(OTHER): builders.text(STATES)}
    to_other, back = schemas_block([OTHER]), schemas_block([builders.EVENTS])
    # Which types are in force behind the broken page, nobody knows: it may have begun with a schemas block.
    path = put(
        tmp_path,
        unit(links(1), to_other, links(20), size=SIZE),
        unit(page(back + links(2)), broken(page(to_other + links(21))), page(links(22)), page(loads(8)), size=SIZE),
        unit(links(23), size=SIZE),
        unit(page(links(24)), page(back + links(3)), size=SIZE),
        unit(links(4), size=SIZE),
        schemas=schemas,
    )
    content = salvaged(path)
    assert content == (
        unit(links(1), to_other, links(20), size=SIZE)
        + unit(page(back + links(2)), page(loads(8)), size=SIZE)
        + unit(page(back + links(3)), size=SIZE)
        + unit(links(4), size=SIZE)
    )
    assert ports(tmp_path / "good.bin") == [1, 2, 3, 4]
    assert [r["number"] for r in qvx.open(tmp_path / "good.bin").table("state", ["number"])] == [20]


def test_a_file_compressed_as_a_whole_gives_what_can_be_unpacked(tmp_path):
    content = builders.usual_header(block_size=SIZE) + unit(links(1), size=SIZE) + random.Random(1).randbytes(5000)
    put(tmp_path)
    path = tmp_path / "damaged.bin.gz"
    path.write_bytes(gzip.compress(content)[:-2000])
    assert salvaged(path) == unit(links(1), size=SIZE)


def test_what_cannot_be_salvaged_says_so_and_leaves_nothing(tmp_path, capsys):
    path = put(tmp_path, unit(links(1), size=SIZE))
    path.write_bytes(b"\0" + path.read_bytes()[1:])
    assert cli.main(["salvage", str(path), "-o", str(tmp_path / "good.bin")]) == 2
    assert "nothing can be read: " in capsys.readouterr().err
    assert cli.main(["salvage", str(tmp_path / "none.bin"), "-o", str(tmp_path / "good.bin")]) == 2
    (tmp_path / "good.bin").write_bytes(b"mine")
    assert cli.main(["salvage", str(path), "-o", str(tmp_path / "good.bin")]) == 2
    assert (tmp_path / "good.bin").read_bytes() == b"mine"
    assert sorted(p.name for p in tmp_path.iterdir()) == ["damaged.bin", "good.bin", "schema"]


def rows_of(path):
    data = qvx.open(path)
    return {table.name: [str(row) for row in data.table(table.name)] for table in data.info(1).tables}, data.faults


@pytest.mark.parametrize("part", range(3))
def test_random_damage_costs_no_row_that_could_be_read(part, tmp_path):
    damaged, longer = 0, 0
    for seed in range(part, FILES, 3):
        maker = random.Random(seed)
        path = random_files.write(tmp_path / str(seed), seed)
        content = path.read_bytes()
        is_packed = content[:2] == b"\x1f\x8b"
        # Not in what only fills data blocks up.
        at = maker.choice([i for i in range(20 if is_packed else 256, len(content)) if content[i]])
        if maker.randrange(3) == 0:
            content = content[:at]
        else:
            size = maker.randrange(1, 40)
            content = (content[:at] + maker.randbytes(size) + content[at + size :])[: len(content)]
        path.write_bytes(content)
        before, faults = rows_of(path)
        if not faults or any(fault.kind in (*_salvage.FATAL, "metrics_failed") for fault in faults):
            continue
        salvaged(path)
        after, _ = rows_of(path.parent / "good.bin")
        for table, rows in before.items():
            assert after.get(table, [])[: len(rows)] == rows, (seed, table)
        damaged += 1
        longer += after != before
    assert damaged > 40 and longer > 5
