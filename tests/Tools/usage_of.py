#!/usr/bin/env python3
"""What a tool that is a Python program makes of its arguments, without a process for each try.

usage: usage_of.py TOOL ARGUMENTS...

Each of the ARGUMENTS is a whole command line. Prints for each: "STATUS FIRST-LINE-OF-THE-ERRORS", or
"accepted".
"""

import contextlib
import io
import shlex
import sys

from tool_module import load_tool


def answer(tool, arguments):
    err = io.StringIO()
    try:
        with contextlib.redirect_stderr(err):
            tool.Options(arguments)
    except SystemExit as end:
        return f"{end.code} {err.getvalue().splitlines()[0]}"
    return "accepted"


def main():
    tool = load_tool(sys.argv[1])
    for line in sys.argv[2:]:
        print(answer(tool, shlex.split(line)))


main()
