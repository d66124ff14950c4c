#!/usr/bin/env python3
"""Feeds pz-heapview files that were cut, patched and made up, and demands plain answers.

usage: heapview_mutations.py PZ-HEAPVIEW REPORT MAP PROGRAM FOLDER ROUNDS

First the report is cut behind each of its first bytes and of its last ones: every cut is told.

Each round spoils the report, the map, the program or the symbolizer's answer, always the same way for
the same round, and runs the tool in this process. It must end with 0 or 1, tell each problem in one line
of its own, say so in its status, and print no control character. Prints the rounds that were answered
with 0 and with 1.
"""

import contextlib
import io
import os
import random
import re
import subprocess
import sys

from tool_module import load_tool

TOKENS = [b"", b"\0", b"\n", b"\r\n", b"\t", b"\x1b[2J", b"\xff\xfe", b"0" * 30, b"9" * 30, b"-1", b"0x",
          b"0x" + b"f" * 16, b"0x" + b"f" * 17, b"thread 0x1 ", b"[Memory Leak Info]\n", b"A" * 70000,
          b"[Memory Info about Each Thread]\n", b"00000000-ffffffffffffffff r-xp 00000000 00:00 0 /\n"]
FORMS = [[], ["--by", "blocks"], ["--corrupt"], ["--folded"], ["--svg"], ["--diff"]]
KINDS = ("report", "map", "program", "answer")


def spoiled(data, chance):
    """The bytes with one to eight faults."""
    data = bytearray(data)
    for _ in range(chance.randint(1, 8)):
        at = chance.randrange(len(data) + 1)
        end = min(len(data), at + chance.choice((1, 2, 8, 100, 4096)))
        fault = chance.randrange(6)
        if fault == 0:
            data[at:end] = bytes(chance.randrange(256) for _ in range(end - at))
        elif fault == 1:
            del data[at:end]
        elif fault == 2:
            data[at:at] = data[at:end]
        elif fault == 3:
            data[at:end] = chance.choice(TOKENS)
        elif fault == 4:
            del data[at:]
        elif at < len(data):
            data[at] ^= 1 << chance.randrange(8)
    return bytes(data)


def write(path, data):
    with open(path, "wb") as file:
        file.write(data)


class Symbolizer:
    """Answers as addr2line does, or nearly."""

    def __init__(self):
        self.chance = None  # None: answers well

    def run(self, command, input, **_):
        answer = b"".join(line + b"\nmain\n/src/main.cpp:9\n" for line in input.split())
        if self.chance is not None:
            answer = spoiled(answer, self.chance)
        return subprocess.CompletedProcess(command, 0, stdout=answer)


def answer_of(tool, arguments):
    """Status, standard output and standard error of a run of the tool."""
    out, err = io.TextIOWrapper(io.BytesIO(), encoding="utf-8"), io.StringIO()
    sys.argv = ["pz-heapview"] + arguments
    with contextlib.redirect_stdout(out), contextlib.redirect_stderr(err):
        status = tool.main()
    out.seek(0)
    return status, out.read(), err.getvalue()


def fault_of(status, out, err):
    """What is wrong with an answer, or an empty text."""
    lines = err.splitlines()
    if status not in (0, 1):
        return f"status {status}"
    if (status == 1) != bool(lines):
        return f"status {status} with {len(lines)} lines"
    if any(not line.startswith("pz-heapview: ") for line in lines):
        return "a line that is not the tool's own"
    if len(lines) > 100:
        return f"{len(lines)} lines"
    if any(ord(c) < 32 and c != "\n" for c in out + err):
        return "a control character"
    return ""


def check_cuts(tool, path, report):
    """A report of one block, cut everywhere, is never taken for a whole one."""
    head, _, rest = report.partition(b"#\t")
    columns, first = rest.split(b"\n")[:2]
    head = re.sub(rb"Current Total Count = \d+", b"Current Total Count = 1", head)
    whole = head + b"#\t" + columns + b"\n" + first + b"\n"
    for size in range(len(whole)):
        write(path, whole[:size])
        form = FORMS[size % len(FORMS)]
        status, out, err = answer_of(tool, form + [path] * (2 if form == ["--diff"] else 1))
        told = [line for line in err.splitlines() if "no maps file" not in line]
        if fault_of(status, out, err) or not told:
            sys.exit(f"cut behind byte {size}: {fault_of(status, out, err) or 'not told'}\n{err}")


def main():
    tool_path, report_path, map_path, program_path, folder, rounds = sys.argv[1:]
    tool, symbolizer = load_tool(tool_path), Symbolizer()
    tool.subprocess.run = symbolizer.run
    tool.shutil.which = lambda name: name
    whole = {}
    for kind, path in zip(KINDS, (report_path, map_path, program_path)):
        with open(path, "rb") as file:
            whole[kind] = file.read()
    report, maps, program = (os.path.join(folder, name) for name in ("bad.txt", "bad.maps", "bad"))
    whole["map"] = whole["map"].replace(os.fsencode(os.path.realpath(program_path)), os.fsencode(program))
    check_cuts(tool, os.path.join(folder, "cut.txt"), whole["report"])
    answered, written = [0, 0], {}
    for number in range(int(rounds)):
        chance = random.Random(number)
        kind = KINDS[number % len(KINDS)]
        files = dict(whole)
        if kind != "answer":
            # The tables of a program stand at its ends.
            edge = 4096 if kind == "program" and number % 8 < 4 else len(files[kind])
            files[kind] = spoiled(files[kind][:edge], chance) + files[kind][edge:]
        symbolizer.chance = chance if kind == "answer" else None
        for name, path in (("report", report), ("map", maps), ("program", program)):
            if files[name] != written.get(name):
                write(path, files[name])
                written[name] = files[name]
        form = chance.choice(FORMS)
        arguments = form + [report] + ([report_path] if form == ["--diff"] else [])
        try:
            status, out, err = answer_of(tool, arguments)
        except BaseException as error:  # SystemExit included: the usage was right
            sys.exit(f"round {number}, {kind}: {type(error).__name__}: {error}")
        fault = fault_of(status, out, err)
        if fault:
            sys.exit(f"round {number}, {kind}: {fault}\n{err}")
        answered[status] += 1
    print(answered[0], answered[1])


if __name__ == "__main__":
    main()
