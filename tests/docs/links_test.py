#!/usr/bin/env python3
"""Every link of every document leads somewhere: to a file of the tree, and to a heading of it when it names one.

  links_test.py TREE
"""

import pathlib
import re
import sys
import tempfile

from markdown import documents

LINK = re.compile(r"(?<!!)\[[^\]]*\]\(([^)\s]+)\)|!\[[^\]]*\]\(([^)\s]+)\)")
CODE = re.compile(r"^(```|~~~).*?^\1", re.MULTILINE | re.DOTALL)
ELSEWHERE = re.compile(r"[a-z]+:")  # of the web or of mail: not for a test to visit


def anchor(heading):
    text = re.sub(r"\[([^\]]*)\]\([^)]*\)", r"\1", heading).replace("`", "").strip().lower()
    return re.sub(r"[^\w\- ]", "", text).replace(" ", "-")


def anchors(document):
    text = CODE.sub("", document.read_text())
    named = re.findall(r"<a (?:id|name)=\"([^\"]+)\"", text)
    return {anchor(heading) for heading in re.findall(r"^#+ (.*)$", text, re.MULTILINE)} | set(named)


def broken_links(tree):
    for document in documents(tree):
        for link in LINK.findall(CODE.sub("", document.read_text())):
            target = link[0] or link[1]
            if ELSEWHERE.match(target):
                continue
            path, _, heading = target.partition("#")
            place = (document.parent / path).resolve() if path else document
            if not place.exists():
                yield f"{document.relative_to(tree)}: {target}: no such file"
            elif heading and heading not in anchors(place):
                yield f"{document.relative_to(tree)}: {target}: no such heading"


def finds_what_is_broken():
    """The check itself, on a document that has one good link of each kind and two broken ones."""
    with tempfile.TemporaryDirectory() as folder:
        tree = pathlib.Path(folder)
        (tree / "a.md").write_text("# One `two`\n[good](a.md#one-two) [good](#one-two) [web](https://x.invalid)\n"
                                   "[bad](b.md)\n[bad](a.md#three)\n```\n[code](no.md)\n```\n")
        return len(list(broken_links(tree))) == 2


def main():
    if not finds_what_is_broken():
        sys.exit("the check of links does not find broken ones")
    tree = pathlib.Path(sys.argv[1]).resolve()
    found = list(broken_links(tree))
    print("\n".join(found) or f"all links of {len(documents(tree))} documents lead somewhere")
    sys.exit(bool(found))


main()
