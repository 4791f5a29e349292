"""Breakpoints of the debug server: places, names and settings; no program runs."""
from __future__ import absolute_import, division, print_function

import os
import sys
import unittest

from support import import_tracer, line_of
from support.serverbreaks import BreakTest

kOncePerVersion = True


class Lines(BreakTest):
    """What needs no program to run."""

    def make_table(self):
        from tdbg import breakpoints

        return breakpoints.tBreakpoints(import_tracer(), self.folder)

    def refusal(self, function, *arguments):
        from tdbg import breakpoints

        with self.assertRaises(breakpoints.tRefused) as caught:
            function(*arguments)
        return str(caught.exception)

    def test_line_without_code_moves_to_the_next_of_the_function(self):
        table = self.make_table()
        for line, mark in ((5, "loop-first"), (6, "loop-first"), (7, "loop-first"),
                           (24, "other-return"), (9, "loop-body"), (16, "method-end")):
            found = table.add(self.path, line).line
            self.assertIn(found, (self.line(mark), self.line(mark) - 1), (line, mark))

    def test_line_after_the_last_code_of_a_function_is_refused(self):
        table = self.make_table()
        self.assertIn("no code at line 31", self.refusal(table.add, self.path, 31))
        self.assertEqual(table.all(), [])

    def test_line_past_the_end(self):
        table = self.make_table()
        for line in (32, 10 ** 9, 0, -1):
            self.assertIn("it ends with line 31", self.refusal(table.add, self.path, line))
        self.assertEqual(table.all(), [])

    def test_file_that_is_not_there(self):
        table = self.make_table()
        missing = os.path.join(self.folder, "missing.py")
        self.assertEqual(self.refusal(table.find_file, missing), "no file " + missing)
        self.assertIn("No such file", self.refusal(table.add, missing, 1))
        self.assertEqual(table.all(), [])

    def test_file_that_does_not_compile(self):
        table = self.make_table()
        path = self.make_file("broken.py", "x = 1\ndef\n")
        self.assertIn("does not compile", self.refusal(table.add, path, 1))
        path = self.make_file("binary.py", b"x = '\0'\n")
        self.assertNotEqual(self.refusal(table.add, path, 1), "")

    def test_source_of_any_encoding_and_line_ends(self):
        table = self.make_table()
        path = self.make_file("latin.py", b"# coding: latin-1\r\nx = '\xe4'\r\n\r\ny = 1\r\n")
        self.assertEqual(table.add(path, 3).line, 4)
        self.assertEqual(table.add(self.make_file("bom.py", b"\xef\xbb\xbfx = 1\n"), 1).line, 1)

    def test_empty_file(self):
        table = self.make_table()
        self.assertIn("has no line 1", self.refusal(table.add, self.make_file("empty.py", ""), 1))

    def test_changed_file_is_read_again(self):
        table = self.make_table()
        path = self.make_file("other.py", "x = 1\n")
        self.assertEqual(table.add(path, 1).line, 1)
        with open(path, "w") as out:
            out.write("\n\nlonger = 1\n")
        self.assertEqual(table.add(path, 1).line, 3)

    def test_condition_that_is_no_expression(self):
        table = self.make_table()
        self.assertIn("no expression", self.refusal(table.add, self.path, 7, "x ="))
        bp = table.add(self.path, 7)
        self.assertIn("no expression", self.refusal(table.set_condition, bp, "import os"))
        self.assertEqual((len(table.all()), bp.condition), (1, None))

    def test_functions_by_name(self):
        table = self.make_table()
        for name, mark in (("loop", "loop-first"), ("Thing.other.inner", "inner"),
                           ("call", "call-first"), ("Thing.other.<locals>.inner", "inner")):
            self.assertEqual(table.find_function(name, None, self.path),
                             (self.path, self.line(mark)))
            if name != "Thing.other.<locals>.inner":
                found = table.find_function(self.name + "." + name)
                self.assertEqual(found, (self.path, self.line(mark)))
        self.assertIn("no function nothing",
                      self.refusal(table.find_function, "nothing", None, self.path))
        self.assertIn("no function", self.refusal(table.find_function, self.name + ".Thing"))
        self.assertEqual(table.find_function("inner", None, self.path),
                         (self.path, self.line("inner")))
        path = self.make_file("two.py",
                              "class A:\n  def m(self): pass\nclass B:\n  def m(self): pass\n")
        self.assertEqual(self.refusal(table.find_function, "m", None, path), "which one: A.m, B.m?")
        self.assertNotIn(self.name, sys.modules)

    def test_functions_by_value(self):
        import functools

        table = self.make_table()

        def plain():
            return 1  #@ plain

        @functools.wraps(plain)
        def wrapper():
            return plain()

        wrapper.__wrapped__ = plain  # version 2 does not set it
        here = os.path.realpath(__file__.replace(".pyc", ".py"))
        for name in ("plain", "wrapper", "self.make_table"):
            path, line = table.find_function(name, sys._getframe())
            self.assertEqual(path, here)
            if name != "self.make_table":
                self.assertEqual(line, line_of(here, "plain"))
        self.assertIn("no function len", self.refusal(table.find_function, "len", sys._getframe()))

    def test_every_spelling_of_a_path(self):
        table = self.make_table()
        link = os.path.join(self.folder, "link.py")
        os.symlink(self.path, link)
        before = os.getcwd()
        os.chdir("/")
        self.addCleanup(os.chdir, before)
        name = os.path.basename(self.path)
        for text in (self.path, link, name, self.name, self.path + "c",
                     os.path.join(self.folder, ".", name),
                     os.path.join("..", self.folder.lstrip("/"), name)):
            self.assertEqual(table.find_file(text), self.path, text)

    def test_package_and_module_names(self):
        table = self.make_table()
        init = self.make_file("pack_{}/__init__.py".format(self.name), "def f():\n    return 1\n",
                              self.folder)
        sub = self.make_file("pack_{}/sub.py".format(self.name), "def g():\n    return 1\n",
                             self.folder)
        self.assertEqual(table.find_file("pack_" + self.name), init)
        self.assertEqual(table.find_file("pack_{}.sub".format(self.name)), sub)
        self.assertEqual(table.find_function("pack_{}.sub.g".format(self.name)), (sub, 2))

    def test_numbers_are_never_used_again(self):
        table = self.make_table()
        first = table.add(self.path, 7)
        table.remove(first)
        self.assertEqual(table.add(self.path, 7).number, 2)
        self.assertIn("no breakpoint 1", self.refusal(table.get, 1))
        self.assertIn("gone", self.refusal(table.set_ignore, first, 2))

    def test_settings_are_restored(self):
        table = self.make_table()
        table.add(self.path, 7)
        bp = table.add(self.path, 9, "i > 1", True, "loop")
        table.set_ignore(bp, 4)
        table.set_enabled(bp, False)
        table.remove(table.get(1))
        other = self.make_table()
        other.restore(table.as_settings())
        self.assertEqual(other.as_settings(), table.as_settings())
        self.assertEqual(other.add(self.path, 7).number, 3)


    def test_hit_conditions(self):
        from tdbg import breakpoints

        for text, expected in (
                ("3", [3]), ("==3", [3]), (" == 3 ", [3]), (">=3", [3, 4, 5, 6]), (">3", [4, 5, 6]),
                ("<3", [1, 2]), ("<=3", [1, 2, 3]), ("%3", [3, 6]), ("%1", [1, 2, 3, 4, 5, 6]),
                (">0", [1, 2, 3, 4, 5, 6])):
            condition = breakpoints.tHitCondition(text)
            self.assertEqual([count for count in range(1, 7) if condition.stops_at(count)],
                             expected, text)
        for text in ("", "x", "-1", "1.5", ">", "=>3", "!=3", "3 4", "%0", "0", "<1",
                     "<=0", "9" * 30):
            self.assertNotEqual(self.refusal(breakpoints.tHitCondition, text), "", text)

    def test_conditions_that_may_be_evaluated_twice(self):
        from tdbg import conditions

        for text, expected in (
                ("x", True), ("x > 1 and not y.z", True), ("len(x) == 3", True),
                ("d['a'][1:2] is None", True), ("-x in (1, 'a', True)", True),
                ("a if b else c", True), ("f(x)", False), ("x.pop()", False),
                ("[i for i in x]", False), ("(lambda: 1)", False), ("len(f(x))", False),
                ("x =", False)):
            self.assertEqual(conditions.is_plain(text), expected, text)

    def test_function_in_one_line(self):
        path = self.make_file("one.py", (
            "def f(): return 1\n"
            "@str\n"
            "def g(): return 2\n"
            "def h():\n"
            "    def inner(): return 3\n"
            "    return inner\n"
            "k = lambda: 4\n"))
        from tdbg import codelines

        source = codelines.read(path)
        names = [sorted(name for name, _ in source.one_line_functions(line))
                 for line in range(1, 8)]
        self.assertEqual(names[0], ["f"])
        self.assertEqual(names[3:], [[], ["inner"], [], []])
        self.assertEqual(source.lines_with_code(5), [5, 6, 7])
        self.assertEqual(source.lines_with_code(5, 6), [5, 6])


if __name__ == "__main__":
    unittest.main()
