"""What the tests of documents know about Markdown."""

import pathlib
import re
from typing import NamedTuple

FENCE = re.compile(r"^\s*(```+|~~~+)\s*(\S*)\s*$")
COMMENT = re.compile(r"^<!-- *(\w+): *(.*?) *-->$")
SPAN = re.compile(r"`([^`\n]+)`")


class Block(NamedTuple):
    """Code in a document: fenced, or indented by four spaces."""
    document: pathlib.Path
    line: int       # of its first line of code, from 1
    language: str   # what stands behind the fence; None for an indented block
    remarks: dict   # the comments right above the fence: <!-- name: value -->
    text: str

    def __str__(self):
        return f"{self.document.name}:{self.line}"


def documents(tree):
    return [path for path in sorted(tree.rglob("*.md")) if not {"build", ".git"} & set(path.relative_to(tree).parts)]


def remarks_above(lines, opening):
    found = {}
    for line in reversed(lines[:opening]):
        comment = COMMENT.match(line)
        if not comment:
            break
        found[comment[1]] = comment[2]
    return found


def blocks(document):
    lines = document.read_text().split("\n")
    found = []
    place = 0
    while place < len(lines):
        fence = FENCE.match(lines[place])
        start = place + 1 if fence else place
        end = start
        if fence:
            while end < len(lines) and lines[end].strip() != fence[1]:
                end += 1
            found.append(Block(document, start + 1, fence[2], remarks_above(lines, place), "\n".join(lines[start:end])))
        else:
            while end < len(lines) and lines[end].startswith("    "):
                end += 1
            if end > start:
                found.append(Block(document, start + 1, None, {}, "\n".join(lines[start:end])))
        place = end + 1
    return found


def commands(document):
    """All lines that a reader may type or look for: those of blocks, and the spans of code between them."""
    text = document.read_text()
    for block in blocks(document):
        text = text.replace(block.text, "", 1)
        yield from block.text.split("\n")
    yield from SPAN.findall(text)
