#!/usr/bin/env python3
"""Holds docs/api.md to the headers.

    api_names.py               checks the tree that the script belongs to
    api_names.py FOLDER        checks another tree
    api_names.py --self-test   proves that each rule can fail

Every name in a table of files is declared in the file of its row, each public header is in a row, and every function
named qvx_... that the header of a row declares is listed there and lets no exception out.
"""

import pathlib
import re
import sys
import tempfile

DOCUMENT = "docs/api.md"
PUBLIC_HEADERS = "cmake/QvxPublicHeaders.cmake"
# The logger calls nothing that throws, and its header is included by everything.
WITHOUT_NOEXCEPT = {"qvx/support/log.h", "qvx/qvx.h"}  # the second is C

ROW = re.compile(r"^\| `(qvx/[\w/]+\.(?:h|cc))` \|[^|]*\|(.*)\|$")
CODE = re.compile(r"`([^`]+)`")


def without_comments(text):
    return re.sub(r"//[^\n]*|/\*.*?\*/", "", text, flags=re.S)


def declares(text, name):
    """Whether a header declares the last part of the name, and knows those before it."""
    *scopes, last = name.split("::")
    if any(not re.search(rf"\b(?:class|struct|namespace)\s+(?:\w+::)*{scope}\b", text) for scope in scopes):
        return False
    word = re.escape(last)
    declared = rf"\b(?:class|struct|enum|enum\s+class|concept)\s+{word}\b|\busing\s+{word}\s*="
    function = rf"[\w>&*\]]\s+[&*]*{word}\s*\("
    return re.search(f"{declared}|{function}", text) is not None


def qvx_functions(text):
    """(name, whether it is noexcept) of every function named qvx_... that is declared, once."""
    found = {}
    for match in re.finditer(r"^[\w:<>\[\]&*, ]*?\b(qvx_\w+)\(", text, flags=re.M):
        if match[0].lstrip().startswith(("return", "typedef", "using")) or match[0].startswith(" "):
            continue
        depth = 0
        for end in range(match.end() - 1, len(text)):
            depth += {"(": 1, ")": -1}.get(text[end], 0)
            if depth == 0:
                break
        rest = re.split(r"[;{]", text[end + 1:], maxsplit=1)[0]
        found[match[1]] = "noexcept" in rest
    return found


def check(top):
    document = (top / DOCUMENT).read_text(encoding="utf-8")
    rows = {}
    faults = []
    for line in document.splitlines():
        if match := ROW.match(line):
            if match[1] in rows:
                faults.append(f"{match[1]} has two rows")
            rows[match[1]] = CODE.findall(match[2])
    files = {path.relative_to(top).as_posix(): without_comments(path.read_text(encoding="utf-8"))
             for path in sorted((top / "qvx").rglob("*.*")) if path.suffix in (".h", ".cc")}
    for file, names in rows.items():
        if file not in files:
            faults.append(f"{file} does not exist")
            continue
        faults += [f"{file} does not declare {name}" for name in names if not declares(files[file], name)]
    public = re.findall(r"^\s+(qvx/[\w/]+\.h)$", (top / PUBLIC_HEADERS).read_text(encoding="utf-8"), flags=re.M)
    if not public:
        faults.append("no public headers: nothing was checked")
    faults += [f"{header} has no row" for header in public if header not in rows]
    for header in rows:
        if not header.endswith(".h") or header not in files:
            continue
        for name, is_noexcept in qvx_functions(files[header]).items():
            if name not in rows[header]:
                faults.append(f"{header}: {name} is missing")
            if not is_noexcept and header not in WITHOUT_NOEXCEPT:
                faults.append(f"{header}: {name} is not noexcept")
    return faults


def self_test():
    good_row = "| `qvx/a.h` | what | `qvx_a`, `A`, `A::b` |\n"
    good_header = "// qvx_comment()\nint qvx_a(int x,\n    int y) noexcept;\nclass A {\n  void b();\n};\n"
    cases = {
        "": (good_row, good_header),
        "qvx/a.h does not exist": (good_row, None),
        "qvx/a.h does not declare c": (good_row.replace("`A`", "`A`, `c`"), good_header),
        "qvx/a.h does not declare A::c": (good_row.replace("A::b", "A::c"), good_header),
        "qvx/a.h does not declare qvx_comment": (good_row.replace("`A`", "`qvx_comment`"), good_header),
        "qvx/a.h: qvx_a is missing": (good_row.replace("`qvx_a`, ", ""), good_header),
        "qvx/a.h: qvx_a is not noexcept": (good_row, good_header.replace(" noexcept", "")),
        "qvx/a.h has no row": ("| `qvx/b.h` | what | `b` |\n", good_header),
        "qvx/a.h has two rows": (good_row + good_row, good_header),
    }
    for fault, (document, header) in cases.items():
        with tempfile.TemporaryDirectory() as folder:
            top = pathlib.Path(folder)
            (top / "docs").mkdir()
            (top / "qvx").mkdir()
            (top / "cmake").mkdir()
            (top / DOCUMENT).write_text(document, encoding="utf-8")
            (top / PUBLIC_HEADERS).write_text("set(QVX_PUBLIC_HEADERS\n  qvx/a.h\n)\n", encoding="utf-8")
            if header is not None:
                (top / "qvx/a.h").write_text(header, encoding="utf-8")
            faults = check(top)
            if (fault not in faults) if fault else faults:
                sys.exit(f"self-test: wanted {fault!r}, got {faults}")


def main():
    if sys.argv[1:] == ["--self-test"]:
        self_test()
        return 0
    top = pathlib.Path(sys.argv[1]) if len(sys.argv) > 1 else pathlib.Path(__file__).resolve().parents[2]
    faults = check(top)
    print("\n".join(faults), end="\n" if faults else "")
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
