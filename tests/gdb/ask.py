"""Runs in GDB: carries out the commands that come in over one pipe, and answers what each said over another."""

import json
import os

import gdb


def answer(command):
    try:
        return gdb.execute(command, to_string=True)
    except gdb.error as error:
        return "refused: %s\n" % error


with os.fdopen(int(os.environ["OXPLIV_QUESTIONS"])) as questions:
    with os.fdopen(int(os.environ["OXPLIV_ANSWERS"]), "w") as answers:
        for question in questions:
            print(json.dumps(answer(json.loads(question))), file=answers, flush=True)
