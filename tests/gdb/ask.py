"""Runs in GDB: gives the commands of one file, and writes what each answered into another."""

import json
import os

import gdb


def answer(command):
    try:
        return gdb.execute(command, to_string=True)
    except gdb.error as error:
        return "refused: %s" % error


with open(os.environ["OXPLIV_QUESTIONS"]) as questions:
    answers = [answer(command) for command in json.load(questions)]
with open(os.environ["OXPLIV_ANSWERS"], "w") as written:
    json.dump(answers, written)
