"""Code that is run as if it stood in a frame (tdbg.framecode, tdbg.evaluate), without a session."""
from __future__ import absolute_import, division, print_function

import sys
import unittest

from support import TestCase

kOncePerVersion = True

PY2 = sys.version_info[0] == 2
MARK = 0


class FrameCode(TestCase):
    class Core(object):
        """Stands in for the native module."""

        def __init__(self):
            from support import import_tracer

            self.PyFrame_LocalsToFast = import_tracer().PyFrame_LocalsToFast

    def run_all(self, rows, frame):
        from tdbg import evaluate

        core = self.Core()
        for source, expected in rows:
            result = evaluate.execute(source, frame, core)
            got = result.value if result.ok else result.error
            self.assertEqual((source, got), (source, expected))

    def test_functions_and_comprehensions_see_the_frame(self):
        factor, items = 3, [1, 2]

        def rows():
            yield "sum(x * factor for x in items)", 9
            yield "(lambda: factor)()", 3
            yield "def made(x): return x * factor\nkept = made(4)", None
            yield "kept", 12
            yield "made(5)", 15
            yield "new = 7; other = [new * factor for _ in items]", None
            yield "other", [21, 21]
            yield "factor = 10\nseen = (lambda: factor)()", None
            yield "seen", 10
            yield "class Local(object):\n    value = factor\n", None
            yield "Local.value", 10
            yield ("try:\n    1/0\nexcept ZeroDivisionError as error:\n"
                   "    text = str(error.__class__.__name__)"), None
            yield "text", "ZeroDivisionError"

        self.run_all(rows(), sys._getframe())
        self.assertEqual((factor, items), (10, [1, 2]))

    def test_names_that_are_global(self):
        global MARK
        MARK = 1

        def reader():
            return MARK

        frame = sys._getframe()
        self.assertEqual(reader(), 1)
        self.run_all([("MARK = 2", None), ("global NEW_MARK; NEW_MARK = 3", None)], frame)
        self.assertEqual((MARK, NEW_MARK), (2, 3))  # noqa: F821
        self.run_all([("def change():\n    global MARK\n    MARK = 4\nchange()", None)], frame)
        if not PY2:  # a snapshot there
            self.assertEqual(MARK, 4)

    def test_deleting(self):
        from tdbg import compat, evaluate

        gone = 1  # noqa: F841
        result = evaluate.execute("del gone", sys._getframe(), self.Core())
        if compat.kNoLocalsToFast:
            self.assertIn("cannot be deleted", result.error)
        else:
            self.assertTrue(result.ok, result.error)
            self.assertRaises(NameError, lambda: gone)

    def test_several_sets_persist(self):
        from tdbg import framecode

        first = second = third = 0

        def reader():
            return third

        frame, core = sys._getframe(), self.Core()
        framecode.set_local(frame, "first", 1, core)
        framecode.set_local(frame, "second", 2, core)
        framecode.set_local(frame, "third", 3, core)
        self.assertEqual((first, second, third, reader()), (1, 2, 3, 3))


if __name__ == "__main__":
    unittest.main()
