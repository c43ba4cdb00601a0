"""The input files of the golden cases: each public function of a module here makes one set of them.

A set is {path: content}; content is bytes, or one of Link, Fifo and Folder.
"""

from . import counters, driver, files, metrics, pages, records, schemas


def _collect():
    found = {}
    for module in (files, driver, pages, schemas, counters, records, metrics):
        for name, made in vars(module).items():
            if callable(made) and getattr(made, "__module__", None) == module.__name__ and not name.startswith("_"):
                assert name not in found, name
                found[name] = made
    return found


ALL = _collect()
