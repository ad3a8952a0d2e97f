#!/usr/bin/env python3
"""The manual pages are well formed, and liboxpliv.3 names the calls of the header: all of them, and no other.

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


def main():
    if len(complaints_about_calls("int64_t ox_one_pliv(void);\n", ".It Fn ox_two_pliv\n.Fn ox_one_plif\n")) != 2:
        sys.exit("the check does not find calls")
    tree = pathlib.Path(sys.argv[1]).resolve()
    header = (tree / "src/oxpliv/ox_memory_pliv.h").read_text()
    found = complaints_about_calls(header, (tree / "docs/man/liboxpliv.3").read_text())
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
