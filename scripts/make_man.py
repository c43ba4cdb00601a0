#!/usr/bin/env python3
"""Writes docs/man/qvx.5.in, the manual page of the file format, from docs/file_format.md.

    make_man.py            writes the page
    make_man.py --check    fails when the page is not what would be written
"""

import pathlib
import re
import sys

TOP = pathlib.Path(__file__).resolve().parent.parent
SOURCE = TOP / "docs" / "file_format.md"
PAGE = TOP / "docs" / "man" / "qvx.5.in"

START = """'\\" t
.\\" Made by scripts/make_man.py from docs/file_format.md
.TH QVX 5 "" "qvx @PROJECT_VERSION@" "File Formats"
.SH NAME
qvx \\- Quorvex telemetry data files
"""
END = """.SH SEE ALSO
.BR qvx_read (1)
"""


def escape(text):
    text = text.replace("\\", "\\e").replace("-", "\\-").replace("'", "\\(aq").replace("@", "\\(at")
    text = text.replace("`", "\\(ga").replace("^", "\\(ha").replace("~", "\\(ti").replace("×", "\\(mu").replace("−", "\\-")
    return "\\&" + text if text.startswith(".") else text


def inline(text):
    """Markdown's code, emphasis and links as fonts."""
    parts = []
    for part in re.split(r"(`[^`]+`)", text):
        if part.startswith("`"):
            parts.append(f"\\fB{escape(part[1:-1])}\\fR")
            continue
        part = re.sub(r"\[([^]]+)\]\([^)]*\)", r"\1", part)
        for piece in re.split(r"(\*[^* ][^*]*\*)", part):
            if re.fullmatch(r"\*[^* ][^*]*\*", piece):
                parts.append(f"\\fI{escape(piece[1:-1])}\\fR")
            else:
                parts.append(escape(piece))
    return re.sub(r"^(?=[.])", r"\\&", "".join(parts))


def table(rows):
    """A table with the last column in a block that is filled."""
    width = len(rows[0])
    lines = [".TS", "allbox;", " ".join(["lB"] * width), " ".join(["l"] * (width - 1) + ["lx"]) + "."]
    for number, row in enumerate(rows):
        cells = [inline(cell) for cell in row]
        if number > 0:
            # Ragged, as the lines of a narrow column are short.
            cells = [f"T{{\n.ad l\n{cell}\nT}}" if cell else cell for cell in cells]
        lines.append("\t".join(cells))
    return lines + [".TE", ".sp"]


def page(markdown):
    out = [START.rstrip("\n")]
    lines = iter(markdown.splitlines())
    rows = []
    for line in lines:
        if rows and not line.startswith("|"):
            out += table(rows)
            rows = []
        if line.startswith("|"):
            cells = [cell.strip() for cell in line.strip("|").split("|")]
            if not all(re.fullmatch(r"-+", cell) for cell in cells):
                rows.append(cells)
        elif line.startswith("# "):
            out.append(".SH DESCRIPTION")
        elif line.startswith("## "):
            out.append(f".SH {escape(line[3:].upper())}")
        elif line.startswith("### "):
            out.append(f".SS {escape(line[4:])}")
        elif line.startswith("```"):
            out += [".PP", ".RS 4", ".nf"]
            for code in lines:
                if code.startswith("```"):
                    break
                out.append(escape(code))
            out += [".fi", ".RE"]
        elif line.startswith("- "):
            out += [".IP \\(bu 2", inline(line[2:])]
        elif not line:
            if out[-1] not in (".PP", ".sp") and not out[-1].startswith((".SH", ".SS")):
                out.append(".PP")
        else:
            out.append(inline(line.strip()))
    if rows:
        out += table(rows)
    # Neither a paragraph in front of what begins one, nor an empty line, which would be printed.
    kept = [line for line, after in zip(out, out[1:] + [".SH"])
            if line and not (line == ".PP" and after.startswith((".PP", ".SH", ".SS", ".IP", ".TS", ".nf")))]
    return "\n".join(kept) + "\n" + END


def main(arguments):
    text = page(SOURCE.read_text(encoding="utf-8"))
    if arguments == ["--check"]:
        if PAGE.read_text(encoding="utf-8") != text:
            print(f"{PAGE.relative_to(TOP)} differs from {SOURCE.relative_to(TOP)}: run scripts/make_man.py", file=sys.stderr)
            return 1
        return 0
    if arguments:
        print(__doc__, file=sys.stderr)
        return 1
    PAGE.write_text(text, encoding="utf-8")
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
