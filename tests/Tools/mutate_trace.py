#!/usr/bin/env python3
"""Gives pz-trace recordings that are cut, exchanged and mixed up: every one is shown, exported in the
right form and drawn, or refused by one line. usage: mutate_trace.py PZ-TRACE RECORDING ROUNDS"""

import contextlib
import io
import json
import os
import random
import sys
import tempfile
import xml.dom.minidom

import check_trace
from tool_module import load_tool


WORDS = [b"0x", b"-1", b"18446744073709551616", b"99999999999999999999", b'"', b"=", b":", b"\x00",
         b"\x1b[2J", b"\xff", b"(", b")", b"/", b" ", b"\n", b"\t", b"timer_begin", b"msg_begin",
         b"msg_end", b"name=", b"<script>", b"&", b"1e9", b"PERF_RECORD_LOST lost 5"]


def mutated(data, source):
    data = bytearray(data)
    for _ in range(source.choice((0, 1, 3, 30))):
        data[source.randrange(len(data))] = source.randrange(256)
    for _ in range(source.choice((0, 1, 5))):
        at = source.randrange(len(data))
        data[at:at + source.randrange(8)] = source.choice(WORDS)
    lines = bytes(data).split(b"\n")
    for _ in range(source.choice((0, 1, 5, 40))):
        one, other = source.randrange(len(lines)), source.randrange(len(lines))
        action = source.randrange(4)
        if action == 0 and len(lines) > 2:
            del lines[one]
        elif action == 1:
            lines[one % len(lines)], lines[other % len(lines)] = \
                lines[other % len(lines)], lines[one % len(lines)]
        elif action == 2:
            lines.insert(one % len(lines), lines[other % len(lines)])
        else:
            line = lines[one % len(lines)]
            lines[one % len(lines)] = line[:source.randrange(len(line) + 1)]
    data = b"\n".join(lines)
    return data[:source.randrange(len(data) + 1)] if source.randrange(4) == 0 else data


def run(tool, path, action):
    options = tool.Options([action, path])
    out, err = io.TextIOWrapper(io.BytesIO(), encoding="utf-8"), io.StringIO()
    with contextlib.redirect_stdout(out), contextlib.redirect_stderr(err):
        try:
            status = tool.show(options)
        except tool.Failure as failure:
            print(f"pz-trace: {failure}", file=sys.stderr)
            status = 1
    problems = err.getvalue().splitlines()
    assert (status == 1) == bool(problems), (status, problems)
    assert all(line.startswith("pz-trace: ") for line in problems), problems
    assert len(problems) <= tool.MAX_PROBLEMS + 2, len(problems)
    out.seek(0)
    return out.read()


def main():
    tool = load_tool(sys.argv[1])
    with open(sys.argv[2], "rb") as file:
        recording = file.read()
    shown = 0
    with tempfile.TemporaryDirectory() as folder:
        path = os.path.join(folder, "recording.txt")
        for number in range(int(sys.argv[3])):
            with open(path, "wb") as file:
                file.write(mutated(recording, random.Random(number)))
            for action in ("show", "export", "svg"):
                text = run(tool, path, action)
                if not text:
                    continue
                shown += 1
                assert not set(text) & {chr(c) for c in range(32) if c != 10}, "a control character"
                if action == "export":
                    check_trace.check(json.loads(text)["traceEvents"])
                elif action == "svg":
                    xml.dom.minidom.parseString(text)
    print(f"shown {shown}")


main()
