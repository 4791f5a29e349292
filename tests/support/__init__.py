"""What Python tests share.  Everything here runs under 2.7 and 3.x and imports no tracer.

A test file looks like this:

    import unittest
    from support import TestCase, import_tracer, line_of, needs

    class Stepping(TestCase):
        @needs("frame_iblock")
        def test_something(self):
            tracer = import_tracer()

Each test method runs in a process of its own (tests/run.py), because tracing is process-wide.  The
tracer is imported inside the tests, never at the top of a file: listing tests must not need it.
"""
from __future__ import absolute_import, division, print_function

from .capabilities import capability, has, needs, once, unsupported_versions, why_not
from .case import TestCase, time_limit
from .library import import_tracer, library_path, load_native
from .marks import line_of, marks_of
from .programs import (
    DEBUGGEES, DATA, REPOSITORY, Finished, debuggee, run_code, run_program, run_script,
)
from .references import growth_of_references
from .session import Session

__all__ = [
    "DATA",
    "DEBUGGEES",
    "Finished",
    "REPOSITORY",
    "Session",
    "TestCase",
    "capability",
    "debuggee",
    "growth_of_references",
    "has",
    "import_tracer",
    "library_path",
    "line_of",
    "load_native",
    "marks_of",
    "needs",
    "once",
    "run_code",
    "run_program",
    "run_script",
    "time_limit",
    "unsupported_versions",
    "why_not",
]
