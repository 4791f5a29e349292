"""What the tests of breakpoints share: programs in temporary folders, and a list of the hits.

    class Some(BreakCase):
        def test_it(self):
            path = self.write("m.py", "def f():\n    return 1  #@ one\n")
            self.break_at(path, "one")
            self.run_traced(lambda: self.load("m").f())
            self.assertEqual(self.hits(), ["one"])

Lines are meant by their marks.  A stop is a hit of a line breakpoint, for nothing else stops.
"""
from __future__ import absolute_import, division, print_function

import os
import sys
import textwrap

from .case import TestCase
from .marks import line_of
from .tracing import Session

kSynonyms, kCanonical = 0, 1  # set_use_canonical_pathnames


class BreakCase(TestCase):
    regime = kSynonyms

    def setUp(self):
        self.session = Session()
        self.tracer = self.session.tracer
        self.tracer.set_use_canonical_pathnames(self.regime)
        self.tracer.set_autoquit(0)

    # --- programs ---

    def write(self, name, text, folder=None):
        """Path of a new file; the text may be indented, like the tests around it."""
        if isinstance(text, str) or not isinstance(text, bytes):  # 2.7: both are one
            text = textwrap.dedent(text)
        return self.make_file(name, text, folder)

    def load(self, name, folder=None):
        """Import by statement, the way programs do: through builtins' __import__."""
        if folder is not None and folder not in sys.path:
            sys.path.insert(0, folder)
        space = {"__name__": "importing"}
        exec("import {} as module".format(name), space)
        return space["module"]

    def load_file(self, path):
        """Import the file from its folder."""
        return self.load(os.path.splitext(os.path.basename(path))[0], os.path.dirname(path))

    # --- breakpoints ---

    def break_at(self, path, mark, condition=None, enabled=1, temporary=0, ignore_count=0,
                 checksum="", file=None):
        """Set one at the marked line of `path`, under the name `file` if that is given; its id."""
        line = mark if isinstance(mark, int) else line_of(path, mark)
        return self.tracer.set_break(
            file or path, checksum, line, enabled, temporary, condition, ignore_count)

    def clear_at(self, path, mark):
        self.tracer.clear_breaks(path, line_of(path, mark))

    def breaks_at(self, path, mark):
        return self.tracer.get_breaks(path, line_of(path, mark))

    def changed(self):
        """(ids of deleted ones, {id: (ignore count, hit count)}) of those that changed."""
        deleted, changed = self.tracer.get_changed_bps_lists()
        return deleted, {row[2]: row[6:] for row in changed}

    # --- running ---

    def run_traced(self, function, *script):
        """Call it under the tracer; its result.  A test's own frames never stop."""
        self.session.script = list(script)
        self.tracer.start_trace()
        try:
            self.tracer.continue_run()
            return function()
        finally:
            self.tracer.stop_trace()
            if self.session.failures:
                raise self.session.failures[0]

    def hits(self):
        """Marks of the lines at which the program stopped, in order; forgets them."""
        stops = list(self.session.stops)
        del self.session.stops[:]
        self.assertEqual([stop for stop in stops if stop[0] != "line"], [])
        return [stop[2] for stop in stops]


def reload_module(module):
    import importlib

    again = importlib.reload if hasattr(importlib, "reload") else reload  # noqa: F821
    return again(module)
