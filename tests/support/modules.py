"""Fewer loaded modules, for tests that start tracing again and again: each start scans them all."""
from __future__ import absolute_import, division, print_function

import os
import sys

from .programs import TESTS

# Of the interpreter's own modules, those that a session uses.
_used = set(["__main__", "codecs", "io", "os", "posixpath", "threading", "traceback"])


def hide_modules(test):
    """Take what only unittest and the helpers have loaded out of the list, until the test ends."""
    listed = dict(sys.modules)
    for name, module in listed.items():
        path = os.path.abspath(getattr(module, "__file__", None) or "")
        if not (name in _used or name in sys.builtin_module_names or "encodings" in name
                or path.startswith(TESTS)):
            del sys.modules[name]
    test.addCleanup(sys.modules.update, listed)
