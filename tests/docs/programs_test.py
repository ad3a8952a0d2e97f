#!/usr/bin/env python3
"""Every block of C and C++ in every document is compiled and run.

  programs_test.py TREE WORK --c COMMAND --cpp COMMAND --libraries ARGUMENTS      (each separated by semicolons)

A block with a main function is a program; <!-- prints: EXPRESSION --> above it tells what its output must match. Any other
block says <!-- fragment: NAME --> above it: all fragments of that name, in their order, take the place of the comment
/* the fragments */ in tests/docs/frames/NAME.c or NAME.cpp, which makes them a program. Code in another kind of block is
refused.
"""

import argparse
import pathlib
import re
import subprocess
import sys
import tempfile

from markdown import blocks, documents

PROGRAMS = ("c", "cpp")
TEXTS = (None, "", "text", "sh", "console")
CODE = re.compile(r"^\s*#\s*include\b|\box_\w+_pliv\(.*\)\s*;|\bint main\(", re.MULTILINE)
PLACE = "/* the fragments */\n"


def source_of(block):
    return f'#line {block.line} "{block.document}"\n{block.text}\n'


class Programs:
    """What the documents of a tree amount to."""

    def __init__(self, tree):
        self.wrong = []
        self.whole = []       # blocks
        self.fragments = {}   # by the path of their frame
        self._frames = tree / "tests/docs/frames"
        for document in documents(tree):
            for block in blocks(document):
                self._sort_in(block)
        unused = {path for path in self._frames.glob("*")} - set(self.fragments)
        self.wrong += [f"{path.name}: a frame without fragments" for path in sorted(unused)]

    def _sort_in(self, block):
        if block.language in PROGRAMS:
            self._sort_in_code(block)
        elif block.language not in TEXTS:
            self.wrong.append(f"{block}: a block of {block.language}, which no test knows")
        elif CODE.search(block.text):
            self.wrong.append(f"{block}: code that is not marked as c or cpp")

    def _sort_in_code(self, block):
        if "int main(" in block.text:
            self.whole.append(block)
            return
        frame = self._frames / f"{block.remarks.get('fragment', '')}.{block.language}"
        if frame.is_file() and PLACE in frame.read_text():
            self.fragments.setdefault(frame, []).append(block)
        else:
            self.wrong.append(f"{block}: neither a program nor a fragment of a frame that takes it")

    def sources(self):
        """Name, language, source, and the expression for its output, of each program."""
        for block in self.whole:
            yield f"{block.document.stem}-{block.line}", block.language, source_of(block), block.remarks.get("prints", "")
        for frame, parts in self.fragments.items():
            source = frame.read_text().replace(PLACE, "".join(source_of(part) for part in parts))
            yield frame.stem, frame.suffix[1:], source, ""


class Machine:
    """Compiles and runs."""

    def __init__(self, work, compilers, libraries):
        self._work = work
        self._compilers = compilers
        self._libraries = libraries

    def complaint_about(self, name, language, source, prints):
        self._work.mkdir(parents=True, exist_ok=True)
        path = self._work / f"{name}.{language}"
        path.write_text(source)
        program = path.with_suffix("")
        compiled = subprocess.run([*self._compilers[language], path, "-o", program, *self._libraries],
                                  capture_output=True, text=True)
        if compiled.returncode != 0:
            return f"{name} does not compile:\n{compiled.stderr}"
        ran = subprocess.run([program], capture_output=True, text=True, timeout=60)
        if ran.returncode != 0:
            return f"{name} ends with {ran.returncode}:\n{ran.stdout}{ran.stderr}"
        if not re.search(prints, ran.stdout):
            return f"{name} should print {prints}, and prints:\n{ran.stdout}"
        return None


def complaints(tree, machine):
    programs = Programs(tree)
    found = list(programs.wrong)
    names = []
    for source in programs.sources():
        names.append(source[0])
        complaint = machine.complaint_about(*source)
        found += [complaint] if complaint else []
    return names, found


MADE_UP = """
<!-- prints: fine -->
```c
#include <stdio.h>
int main(void) { puts("fine"); return 0; }
```
<!-- prints: other -->
```cpp
#include <cstdio>
int main() { std::puts("printed"); }
```
<!-- fragment: around -->
```c
static int answer(void) { return 3; }
```
<!-- fragment: full -->
```c
static int left_out_by_its_frame;
```
```c
int main(void) { return mistake; }
```
```c
static int fragment_of_nothing;
```
```rust
fn main() {}
```

    ox_report_stats_pliv();
"""
EXPECTED = ("a.md:18: neither a program", "a-21 does not compile", "a.md:24: neither a program", "a block of rust",
            "is not marked as c", "unused.c: a frame without", "full.c: a frame without", "a-9 should print other",
            "around ends with 3")


def misses(compilers, libraries):
    """What the checks themselves do not find in a document that has one mistake of each kind."""
    with tempfile.TemporaryDirectory() as folder:
        tree = pathlib.Path(folder)
        (tree / "tests/docs/frames").mkdir(parents=True)
        (tree / "tests/docs/frames/around.c").write_text(PLACE + "int main(void) { return answer(); }\n")
        (tree / "tests/docs/frames/unused.c").write_text(PLACE)
        (tree / "tests/docs/frames/full.c").write_text("int main(void) { return 0; }\n")
        (tree / "a.md").write_text(MADE_UP)
        found = complaints(tree, Machine(tree / "work", compilers, libraries))[1]
        missed = [text for text in EXPECTED if not any(text in complaint for complaint in found)]
        return missed or (found if len(found) != len(EXPECTED) else [])


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("tree", type=pathlib.Path)
    parser.add_argument("work", type=pathlib.Path)
    for name in ("--c", "--cpp", "--libraries"):
        parser.add_argument(name, required=True, help="words separated by semicolons")
    given = parser.parse_args()
    words = {name: [word for word in getattr(given, name).split(";") if word] for name in ("c", "cpp", "libraries")}
    missed = misses(words, words["libraries"])
    if missed:
        sys.exit(f"the checks do not find what is wrong: {missed}")
    names, found = complaints(given.tree.resolve(), Machine(given.work, words, words["libraries"]))
    print("\n".join(found) or f"{len(names)} programs are right: {', '.join(names)}")
    sys.exit(bool(found))


main()
