#!/usr/bin/env python3
"""The manual pages are well formed, liboxpliv.3 names the calls of the header, and oxpliv-check.1 the options and checks of
the program: all of them, and no other.

  manual_test.py TREE
"""

import pathlib
import re
import shutil
import subprocess
import sys

SKIPPED = 77
DECLARED = re.compile(r"^\w+ (ox_\w+_pliv)\(", re.MULTILINE)
NAMED = re.compile(r"^\.(?:It )?Fn (ox_\w+_pliv)", re.MULTILINE)


def complaints_about_calls(header, page):
    declared, named = set(DECLARED.findall(header)), set(NAMED.findall(page))
    return ([f"not in the manual: {call}" for call in sorted(declared - named)] +
            [f"not in the header: {call}" for call in sorted(named - declared)])


OPTION = re.compile(r'add_(?:option|flag)\("--([a-z-]+)"')
OPTION_NAMED = re.compile(r"^\.It Fl -([a-z-]+)", re.MULTILINE)
CHECK = re.compile(r'(?:Finding finding|return )\{"(\w+)",')
CHECK_NAMED = re.compile(r"^\.It Cm (\w+)$", re.MULTILINE)


def complaints_about_the_check(sources, page):
    """The options and the checks of oxpliv-check, and those that its manual names."""
    complaints = []
    for kind, there, named in (("option", OPTION, OPTION_NAMED), ("check", CHECK, CHECK_NAMED)):
        there, named = set(there.findall(sources)), set(named.findall(page)) - {"help"}
        complaints += [f"{kind} not in the manual: {name}" for name in sorted(there - named)]
        complaints += [f"{kind} only in the manual: {name}" for name in sorted(named - there)]
    return complaints


def main():
    if len(complaints_about_calls("int64_t ox_one_pliv(void);\n", ".It Fn ox_two_pliv\n.Fn ox_one_plif\n")) != 2:
        sys.exit("the check does not find calls")
    if len(complaints_about_the_check('app.add_flag("--one"); Finding finding{"two", x', ".It Fl -three\n.It Cm four\n")) != 4:
        sys.exit("the check does not find options and checks")
    tree = pathlib.Path(sys.argv[1]).resolve()
    header = (tree / "src/oxpliv/ox_memory_pliv.h").read_text()
    found = complaints_about_calls(header, (tree / "docs/man/liboxpliv.3").read_text())
    sources = "".join(path.read_text() for path in sorted((tree / "tools/oxpliv-check").glob("*.cpp")))
    found += complaints_about_the_check(sources, (tree / "docs/man/oxpliv-check.1").read_text())
    if found:
        sys.exit("\n".join(found))
    if shutil.which("mandoc") is None:
        print("the calls are right, but there is no mandoc to look at the form of the pages")
        sys.exit(SKIPPED)
    pages = sorted((tree / "docs/man").glob("*.[1-9]"))
    linted = subprocess.run(["mandoc", "-Tlint", "-Wwarning", *pages], capture_output=True, text=True)
    print(linted.stdout or f"{len(DECLARED.findall(header))} calls, {len(pages)} pages")
    sys.exit(linted.returncode != 0)


main()
