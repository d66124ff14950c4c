"""A tool that is a Python program without the name of one, as a module."""

import importlib.machinery
import importlib.util
import sys

sys.dont_write_bytecode = True


def load_tool(path):
    loader = importlib.machinery.SourceFileLoader("tool", path)
    module = importlib.util.module_from_spec(importlib.util.spec_from_loader("tool", loader))
    loader.exec_module(module)
    return module
