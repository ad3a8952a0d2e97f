#!/usr/bin/env python3
"""What the documents tell to type or to look at is there: files of the tree, options of scripts and tools, presets.

  commands_test.py TREE
"""

import json
import pathlib
import re
import sys
import tempfile

from markdown import commands, documents

FOLDERS = "scripts|tools|tests|packaging|docs|src|examples|bench|\\.ci"
FILE = re.compile(rf"(?<![\w/.-])(?:{FOLDERS})/[\w./-]*[\w/]")
PRESET = re.compile(r"--preset[ =]([a-z]+)")
OPTION = re.compile(r"(?<=\s)--[a-z][a-z-]*")
END = re.compile(r"  +|[;|>&,]")  # of a command: a remark, or another command

# Who reads a command's options. Of a script it is the script itself, and what it hands them on to.
READERS = {
    "scripts/demo": ["scripts/demo", "examples/mini_runtime/main.cpp", "examples/tour/main.c"],
    "oxpliv-check": ["tools/oxpliv-check/main.cpp"],
}
COMMAND = re.compile(r"(?<![\w/.-])(scripts/[\w-]+|oxpliv-check)(?= )")


def presets(tree):
    return {preset["name"] for preset in json.loads((tree / "CMakePresets.json").read_text())["configurePresets"]}


def unknown_options(tree, line):
    for command in COMMAND.finditer(line):
        words = END.split(line[command.end():].strip(), maxsplit=1)[0]
        readers = [tree / path for path in READERS.get(command[1], [command[1]])]
        known = "".join(path.read_text() for path in readers if path.is_file())
        for option in OPTION.findall(" " + words):
            if not re.search(re.escape(option) + r"(?![\w-])", known):
                yield f"{command[1]} has no {option}"


def is_there(path):
    return path.exists() or path.with_suffix(".cpp").exists()  # messages name sources without their extension


def complaints(tree):
    for document in documents(tree):
        places = {tree, document.parent}
        for line in commands(document):
            wrong = [f"{path}: no such file" for path in FILE.findall(line)
                     if not any(is_there(place / path) for place in places)]
            wrong += [f"{name}: no such preset" for name in PRESET.findall(line) if name not in presets(tree)]
            for complaint in [*wrong, *unknown_options(tree, line)]:
                yield f"{document.relative_to(tree)}: {complaint}"


def finds_what_is_wrong():
    """The check itself, on a document with one thing of each kind that is there, and one that is not."""
    with tempfile.TemporaryDirectory() as folder:
        tree = pathlib.Path(folder)
        (tree / "scripts").mkdir()
        (tree / "scripts/good").write_text("--known")
        (tree / "CMakePresets.json").write_text('{"configurePresets": [{"name": "release"}]}')
        (tree / "a.md").write_text("`scripts/good --known` `scripts/bad`\n\n    scripts/good --unknown  with --remarks\n"
                                   "    cmake --preset release\n    cmake --preset fancy\n")
        return len(list(complaints(tree))) == 3


def main():
    if not finds_what_is_wrong():
        sys.exit("the check of commands does not find wrong ones")
    found = list(complaints(pathlib.Path(sys.argv[1]).resolve()))
    print("\n".join(found) or "what the documents tell to type is there")
    sys.exit(bool(found))


main()
