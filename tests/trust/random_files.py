"""Files of random types, records, counters and metrics, of every kind of block; some of them damaged. A generator of
random numbers gives the same files each time."""

import gzip
import struct

from builders import (COUNTERS, EVENTS, START, blob_block, counter, counters_block, counters_schema, event_schema,
                      event_type, events_block, field, group, gzipped, header, metrics_batch, metrics_block, page_block,
                      schema_path, schemas_block, snappied, text, unit)

OTHER = bytes.fromhex("e2" * 16)
INTEGERS = {"uint8_t": 1, "int8_t": 1, "uint16_t": 2, "int16_t": 2, "uint32_t": 4, "int32_t": 4, "uint64_t": 8,
            "int64_t": 8, "bool": 1, "timestamp": 8, "char": 1}
FLOATS = {"float": 4, "double": 8}
WORDS = ["a", "load", "Bytes Received", "x.y", "größe", 'quo"te', "back\\slash", "tab\there", "\u00e9\u4e2d", "n" * 40]
BLOCK_SIZES = [64, 112, 256, 1000, 4096, 4096, 65536]


def _integer(rng, size):
    kind = rng.random()
    if kind < 0.4:
        return rng.randrange(min(1000, 1 << 8 * size))
    if kind < 0.8:
        return rng.getrandbits(rng.randrange(1, 8 * size + 1))
    return rng.choice([0, 1, (1 << 8 * size) - 1, 1 << (8 * size - 1), (1 << min(53, 8 * size - 1)) + 1])


def _float(rng):
    kind = rng.random()
    if kind < 0.4:
        return round(rng.uniform(-1e4, 1e4), rng.randrange(7))
    if kind < 0.6:
        return float(rng.randrange(-10**6, 10**18))
    if kind < 0.97:
        return rng.uniform(-1, 1) * 10.0 ** rng.randrange(-38, 38)
    if kind < 0.999:
        return rng.choice([0.0, -0.0, 5e-324, 1.5e-310, 1e16, 1e17, 1e22])
    return rng.choice([float("inf"), float("nan")])


def _bytes(rng, type_name, size):
    if type_name == "float":
        return struct.pack("<f", max(-3e38, min(3e38, _float(rng))))
    if type_name == "double":
        return struct.pack("<d", _float(rng))
    if type_name == "char":
        return bytes([rng.choice(b"abcXYZ 019:/._-\"\\\t\xc3") if rng.random() < 0.95 else 0])
    return _integer(rng, size).to_bytes(size, "little")


class _Type:
    """An event type and how its records are made."""

    def __init__(self, rng, name, earlier):
        self.parts, fields, offset = [], [], 0
        for at in range(rng.randrange(1, 13)):
            count = 1 if rng.random() < 0.7 else rng.choice([2, 3, 16, 100])
            if earlier and rng.random() < 0.15:
                inner = rng.choice(earlier)
                type_name, size, count = inner.name, inner.size, min(count, 3)
                self.parts += inner.parts * count
            else:
                type_name, size = rng.choice([*INTEGERS.items(), *FLOATS.items()])
                self.parts += [(type_name, size)] * count
            label = rng.choice(WORDS) if rng.random() < 0.3 else f"f{at}"
            place = offset if rng.random() < 0.99 else rng.randrange(offset + 20)
            fields.append(field(label, type_name, place, size, length=count if count > 1 else None))
            offset += size * count
        self.name, self.size = name, offset
        self.json = event_type(name, offset, *fields)

    def record(self, rng):
        return b"".join(_bytes(rng, *part) for part in self.parts)


def _types(rng):
    types = []
    for at in range(rng.randrange(1, 5)):
        types.append(_Type(rng, f"type_{at}" if rng.random() < 0.8 else f"{rng.choice(WORDS)}_{at}", types))
    return types


def _groups(rng):
    groups = []
    for at in range(rng.randrange(1, 4)):
        kinds = [rng.choice(["UINT64", "UINT64", "FP64", "BIT64", "INT64", "STRING"]) for _ in range(rng.randrange(1, 12))]
        made = [counter(rng.choice(WORDS) if rng.random() < 0.1 else f"c{at}_{place}", kind,
                        rng.randrange(1, 30) if kind == "STRING" else 0) for place, kind in enumerate(kinds)]
        groups.append(group(*made, name=f"group{at}" if rng.random() < 0.9 else "", sets=rng.choice([1, 1, 2, 5]),
                            granularity=rng.choice(["NODE", "CPU"])))
    return groups


def _counters(rng, most):
    values = b"".join(rng.choice([_bytes(rng, "double", 8), _bytes(rng, "uint64_t", 8)])
                      for _ in range(rng.randrange(0, 2 + most // 8)))
    return counters_block(START + rng.randrange(10**9), values)


def _texts(rng, count):
    return [rng.choice(WORDS) if rng.random() < 0.2 else f"name_{rng.randrange(1000)}_{at}" for at in range(count)]


def _metrics(rng, tables):
    names, values, metrics, constants = tables
    batches = []
    for _ in range(rng.randrange(1, 3)):
        count = rng.randrange(len(metrics) + 1) if metrics else 0
        samples = [(rng.randrange(len(metrics)), _integer(rng, 8)) for _ in range(count)]
        label_set = rng.randrange(len(names)) if names else 0
        labels = [rng.randrange(len(values)) for _ in names[label_set]] if names and values else []
        batches.append(metrics_batch(START + rng.randrange(10**9), samples, label_set, labels, kind=rng.choice([b"C", b"G"])))
    return metrics_block(names, values, metrics, constants, batches)


def _metrics_tables(rng):
    names = [_texts(rng, rng.randrange(5)) for _ in range(rng.randrange(3))]
    return names, _texts(rng, rng.randrange(1, 8)), _texts(rng, rng.randrange(1, 40)), _texts(rng, 2 * rng.randrange(3))


def _events(rng, types, most):
    index = rng.randrange(len(types))
    fit = max(0, (most - 16) // max(1, types[index].size))
    return events_block([types[index].record(rng) for _ in range(min(fit, rng.randrange(12)))], type_index=index)


def _chain(rng, kind, types, tables, most):
    if kind == "counters":
        return _counters(rng, most)
    if kind == "metrics":
        return _metrics(rng, tables)
    if kind == "blob":
        return blob_block(b"blob")
    made = b""
    for _ in range(rng.randrange(1, 5)):
        if rng.random() < 0.1 and len(made) + 256 <= most:
            made += schemas_block([EVENTS, OTHER])
        block = _events(rng, types, most - len(made))
        if len(made) + len(block) <= most:
            made += block
    return made


def _pages(rng, chain, most):
    made = b""
    while True:
        encoded, letter = (gzipped(chain()), b"G") if rng.random() < 0.7 else (snappied(chain()[:60000] or b"\0"), b"S")
        page = page_block(encoded, letter)
        if len(made) + len(page) > most:
            return made
        made += page
        if rng.random() < 0.3:
            return made


def _damaged(rng, data):
    data = bytearray(data)
    for _ in range(rng.randrange(1, 4)):
        if rng.random() < 0.3:
            del data[rng.randrange(len(data)):]
        if data:
            data[rng.randrange(len(data))] = rng.randrange(256)
    return bytes(data)


def make(rng):
    """The files of one working directory; the data file is a.bin."""
    types, groups, tables = _types(rng), _groups(rng), _metrics_tables(rng)
    block_size = rng.choice(BLOCK_SIZES)
    kind = rng.choices(["events", "counters", "metrics", "blob"], [60, 20, 20, 1])[0]
    if kind == "metrics":
        block_size = max(block_size, 4096)
    in_pages = rng.random() < 0.3
    units = []
    for _ in range(rng.randrange(1, 8)):
        if rng.random() < 0.3:
            tables = _metrics_tables(rng)

        def chain():
            return _chain(rng, kind, types, tables, 4000 if in_pages else block_size)

        made = _pages(rng, chain, block_size) if in_pages else chain()
        units.append(unit(made[:block_size], size=block_size))
    data = header(block_size=block_size, counters=COUNTERS, events=[EVENTS]) + b"".join(units)
    if rng.random() < 0.15:
        data = _damaged(rng, data)
    if rng.random() < 0.1:
        data = gzip.compress(data, mtime=0)
    schema = text(event_schema(*[made.json for made in types]))
    return {schema_path(EVENTS): schema, schema_path(OTHER): schema, schema_path(COUNTERS): text(counters_schema(*groups)),
            "a.bin": data}
