"""Metrics blocks."""

from builders import START, counters_file, header, metrics_batch, metrics_block, unit, usual_schemas

LABEL_NAMES = [["host", "port"]]
LABEL_VALUES = ["node7", "1", "2"]
METRIC_NAMES = ["rx_bytes", "tx_bytes", "a \"name\""]


def _block(batch, constants=()):
    return metrics_block(LABEL_NAMES, LABEL_VALUES, METRIC_NAMES, constants, [batch])


def _batch(number, port, *samples):
    return metrics_batch(START + 1000 * number, samples, label_set=0, labels=[0, port])


def _file(*blocks):
    """A file with one of the blocks in each data block."""
    return {**usual_schemas(), "a.bin": header() + b"".join(unit(block) for block in blocks)}


def metrics_of_several_blocks():
    """The same tables, then other labels, other samples, and constant labels, one of which the batch overrides."""
    return _file(_block(_batch(0, 1, (0, 1234), (1, 99))),
                 _block(_batch(1, 1, (0, 1235), (1, 2**64 - 1))),
                 _block(_batch(2, 2, (2, 0))),
                 _block(_batch(3, 2), ["site", "north", "port", "none"]))


def metrics_with_a_faulty_block():
    """The second block has a sample of no name, the third no trailer; neither prints anything, both count."""
    good = _block(_batch(0, 1, (0, 1)))
    return _file(good, _block(_batch(1, 1, (3, 1))), _block(_batch(2, 1, (0, 1)))[:-8] + b"????????", good)


def metrics_with_the_first_block_faulty():
    return _file(_block(_batch(0, 1, (3, 1))), _block(_batch(1, 1, (0, 1))))


def metrics_of_an_unknown_label_set():
    """No labels at all, not even constant ones."""
    batch = metrics_batch(START, [(0, 7)], label_set=1, labels=[0])
    return _file(_block(batch, ["site", "north"]))


def metrics_of_two_files():
    return {**_file(_block(_batch(0, 1, (0, 1))), _block(_batch(1, 1, (0, 2)))),
            "b.bin": header() + unit(_block(_batch(2, 2, (1, 3)))), "c.bin": counters_file(2)}
