"""The library can be imported, and the helpers of the tests do what they say."""
from __future__ import absolute_import, division, print_function

import os
import sys
import unittest

from support import (
    TestCase, growth_of_references, has, import_tracer, library_path, line_of, marks_of, needs,
    run_code, unsupported_versions, why_not,
)


class Import(TestCase):
    def test_module_is_found_under_its_name(self):
        tracer = import_tracer()
        self.assertEqual(tracer.__name__, "tdbgtracer")
        self.assertEqual(os.path.dirname(tracer.__file__), os.path.dirname(library_path()))
        self.assertIs(sys.modules["tdbgtracer"], tracer)

    def test_importing_traces_nothing(self):
        import_tracer()
        self.assertIsNone(sys.gettrace())
        self.assertIsNone(sys.getprofile())

    def test_interpreter_ends_well_after_import(self):
        library_path()
        done = run_code("import tdbgtracer; print('imported')")
        self.assertEqual((done.status, done.out), (0, "imported\n"), done)

    @unsupported_versions
    @needs("library")
    def test_unsupported_version_does_not_crash(self):
        done = run_code("import tdbgtracer")
        self.assertIn(done.status, (0, 1), done)
        if done.status == 1:
            self.assertIn("ImportError", done.err + done.out)


class Helpers(TestCase):
    def test_marks_are_found_by_name(self):
        path = self.make_file("marked.py", "a = 1  #@ one\nb = 2\nc = 3  #@ two, three\n")
        self.assertEqual(marks_of(path), {"one": 1, "two": 3, "three": 3})
        self.assertEqual(line_of(path, "two"), 3)

    def test_unknown_mark_is_an_error(self):
        path = self.make_file("marked.py", "a = 1  #@ one\n")
        with self.assertRaisesRegex(LookupError, "no line is marked 'two'; marks: one"):
            line_of(path, "two")

    def test_mark_used_twice_is_an_error(self):
        path = self.make_file("marked.py", "a = 1  #@ one\nb = 1  #@ one\n")
        self.assertRaises(LookupError, marks_of, path)

    def test_capability_and_its_opposite(self):
        self.assertNotEqual(has("64bit"), has("32bit"))
        self.assertNotEqual(has("python2"), has("!python2"))
        self.assertTrue(has("module:unittest"))
        self.assertFalse(has("module:no_such_module_at_all"))
        self.assertTrue(has("api:PyEval_SetTrace"))
        self.assertFalse(has("api:PyEval_NoSuchFunction"))
        self.assertTrue(has("syntax:x = 1"))
        self.assertFalse(has("syntax:x = = 1"))

    def test_misspelt_capability_is_an_error(self):
        self.assertRaises(LookupError, needs, "64bits")

    def test_reason_names_the_missing_capability(self):
        missing = "32bit" if has("64bit") else "64bit"
        self.assertEqual(why_not("module:os", missing), "no " + missing)
        self.assertIsNone(why_not("module:os"))

    def test_class_decorator_skips_every_test(self):
        missing = "32bit" if has("64bit") else "64bit"

        @needs(missing)
        class Decorated(unittest.TestCase):
            def test_one(self):
                self.fail("ran")

        result = unittest.TestResult()
        Decorated("test_one").run(result)
        self.assertEqual([reason for _, reason in result.skipped], ["no " + missing])

    def test_children_are_the_same_interpreter(self):
        done = run_code("import struct, sys; print(list(sys.version_info)[:3] + "
                        "[struct.calcsize('P')])")
        bits = 8 if has("64bit") else 4
        self.assertEqual(done.out.strip(), str(list(sys.version_info)[:3] + [bits]), done)

    def test_hanging_child_is_ended(self):
        done = run_code("import threading; threading.Event().wait()", seconds=1)
        self.assertTrue(done.timed_out, done)

    @needs("total_refcount")
    def test_leaks_are_counted_and_nothing_else(self):
        kept = []
        self.assertEqual(growth_of_references(lambda: [object() for _ in range(3)]), 0)
        self.assertGreaterEqual(growth_of_references(lambda: kept.append(object())), 1)
