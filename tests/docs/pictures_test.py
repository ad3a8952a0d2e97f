#!/usr/bin/env python3
"""The pictures are what their sources give, and the sources tell of classes and locks that exist.

  pictures_test.py TREE

Where things lie in a picture differs with fonts and versions of graphviz; boxes, arrows and texts must be the same.
"""

import pathlib
import re
import shutil
import subprocess
import sys
import xml.etree.ElementTree as xml

SKIPPED = 77
SVG = "{http://www.w3.org/2000/svg}"
MEMBER = re.compile(r"\b([A-Z]\w+)::(_\w+)")
CLASS = re.compile(r"\b(?:[VP]MEM_\w+|AO\w+)")
ARROW = re.compile(r"^\s*(\d) -> (\d) \[(.*)\]$", re.MULTILINE)


def structure(picture):
    """Kind, name, texts, and whether it is dashed, of each box and arrow."""
    return sorted((group.get("class"), group.findtext(f"{SVG}title"), *[text.text for text in group.iter(f"{SVG}text")],
                   any(part.get("stroke-dasharray") is not None for part in group.iter()))
                  for group in xml.fromstring(picture).iter(f"{SVG}g") if group.get("class") != "graph")


def unknown_names(source, code):
    source = source.replace("\\n", "\n")  # a line's end in a label
    for owner, member in set(MEMBER.findall(source)):
        body = re.search(rf"^class {owner}\b[^;]*?{{(.*?)^}};", code, re.MULTILINE | re.DOTALL)
        if body is None or not re.search(rf"\b{member}\b", body[1]):
            yield f"{owner} has no {member}"
    for name in set(CLASS.findall(source)):
        if not re.search(rf"^class {name}\b", code, re.MULTILINE):
            yield f"no class {name}"


def arrows_back(source):
    """Solid arrows between numbered locks that do not lead to a larger number; a lock beside others of its kind may."""
    return [f"an arrow from {held} to {taken}" for held, taken, style in ARROW.findall(source)
            if "dashed" not in style and int(taken) < int(held)]


def drawn(source):
    return subprocess.run(["dot", "-Tsvg", source], capture_output=True, check=True).stdout


def finds_what_is_wrong():
    code = "class PMEM_Known {\n  int _lock;\n};\n"
    return (len(list(unknown_names(r"PMEM_Known::_lock\nPMEM_Known::_other\nPMEM_Unknown", code))) == 2 and
            len(arrows_back('  1 -> 2 [label="a"]\n  2 -> 1 [label="b"]\n  2 -> 1 [style=dashed]\n')) == 1)


def main():
    if not finds_what_is_wrong():
        sys.exit("the checks do not find what is wrong")
    tree = pathlib.Path(sys.argv[1]).resolve()
    code = "\n".join(path.read_text() for path in sorted((tree / "src").rglob("*.hpp")))
    sources = sorted((tree / "docs/pictures").glob("*.dot"))
    found = []
    for source in sources:
        found += [f"{source.name}: {name}" for name in unknown_names(source.read_text(), code)]
        found += [f"{source.name}: {arrow}" for arrow in arrows_back(source.read_text())]
    if not found and shutil.which("dot") is None:
        print("the names are right, but there is no graphviz to draw the pictures again")
        sys.exit(SKIPPED)
    for source in sources:
        if structure(drawn(source)) != structure(source.with_suffix(".svg").read_bytes()):
            found.append(f"{source.name}: draw it again, with scripts/docs pictures")
    print("\n".join(found) or f"{len(sources)} pictures are those of their sources")
    sys.exit(bool(found) or not sources)


main()
