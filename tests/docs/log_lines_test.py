#!/usr/bin/env python3
"""The table of log lines in docs/operations.md is that of the sources: each line with its level, and no other.

  log_lines_test.py TREE
"""

import pathlib
import re
import sys

CALL = re.compile(r'\blog\(\s*OX_PLIV_LOG_(\w+),\s*((?:"(?:[^"\\]|\\.)*"\s*)+)')
PIECE = re.compile(r'"((?:[^"\\]|\\.)*)"')
VALUE = re.compile(r"(?:%l?[udxs])+")
ROW = re.compile(r"^\| \d (\w+) \| `([^`]+)` \|", re.MULTILINE)
ANY_CALL = re.compile(r"(?<![\w.:>])log\((?!ox_pliv_log_level_t)")


def lines_of(source):
    """Levels and texts, with an ellipsis in the place of each value."""
    return {(level.lower(), VALUE.sub("…", "".join(PIECE.findall(text)))) for level, text in CALL.findall(source)}


def rows_of(document):
    return set(ROW.findall(document))


def finds_what_is_there():
    source = 'log(OX_PLIV_LOG_WARN, "a %lu "\n   "b %s%s", x);\n  log(OX_PLIV_LOG_INFO,\n "c");'
    table = "| level | text |\n|---|---|\n| 2 warn | `a … b …` | m | d |\n| 4 info | `c` | m | d |\n"
    return lines_of(source) == {("warn", "a … b …"), ("info", "c")} == rows_of(table)


def main():
    if not finds_what_is_there():
        sys.exit("the check does not find lines or rows")
    tree = pathlib.Path(sys.argv[1]).resolve()
    source = "\n".join(path.read_text() for path in sorted((tree / "src").rglob("*.[ch]pp")))
    if len(ANY_CALL.findall(source)) != len(CALL.findall(source)):
        sys.exit("a call of log whose level and text do not stand in it")
    lines = lines_of(source)
    rows = rows_of((tree / "docs/operations.md").read_text())
    found = [f"not in the table: {level}, {text}" for level, text in sorted(lines - rows)]
    found += [f"not in the sources: {level}, {text}" for level, text in sorted(rows - lines)]
    print("\n".join(found) or f"the table has all {len(lines)} log lines")
    sys.exit(bool(found))


main()
