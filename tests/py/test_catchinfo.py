"""Which functions are found to print the exceptions that they catch."""
from __future__ import absolute_import, division, print_function

import os
import sys
import textwrap
import types
import unittest
import warnings
import zipfile

from support import TestCase, import_tracer, needs
from tdbg import catchinfo
from tdbg.catchinfo import CatchInfos, ExceptionInfo

kOncePerVersion = True


class SourceCase(TestCase):
    def find(self, source):
        """[(function, class, lines)]"""
        rows = catchinfo.find_reporters(textwrap.dedent(source).encode("utf-8"))
        return [(name, class_name, sorted(lines)) for name, class_name, lines in rows]

    def assert_handler(self, is_found, *lines):
        source = "def work():\n    try: pass\n    {}\n".format("\n        ".join(lines))
        self.assertEqual(self.find(source), [("work", "*", [3])] if is_found else [], lines)


class Handlers(SourceCase):
    def test_broad_clauses(self):
        for clause in ("except:", "except Exception:", "except BaseException as e:",
                       "except (KeyError, Exception):", "except builtins.Exception:"):
            self.assert_handler(True, clause, "traceback.print_exc()")

    def test_narrow_clauses(self):
        for clause in ("except ValueError:", "except (KeyError, OSError):", "except module.Error:"):
            self.assert_handler(False, clause, "traceback.print_exc()")

    def test_reports(self):
        for call in (
                "traceback.print_exc()", "print_exc()", "log.exception('text')",
                "traceback.print_exception(*sys.exc_info())",
                "logging.exception('text')", "log.error('x', exc_info=True)",
                "log.warning('x', exc_info=error)", "sys.excepthook(*sys.exc_info())",
                "self.handleError(record)", "self.handle_error(request, address)",
                "loop.call_exception_handler({})", "out.write(traceback.format_exc())",
                "self.showtraceback()", "if 1: log.exception('text')"):
            self.assert_handler(True, "except Exception:", call)

    def test_what_is_no_report(self):
        for call in (
                "pass", "print('failed')", "log.error('x')", "log.error('x', exc_info=False)",
                "log.error('x', exc_info=None)", "future.exception()", "raise", "exception('x')",
                "future.set_exception(error)", "later = lambda: traceback.print_exc()"):
            self.assert_handler(False, "except Exception:", call)

    def test_nested_function_reports_only_itself(self):
        self.assertEqual(self.find("""
            def outer():
                def inner():
                    try: pass
                    except: print_exc()
                try: pass
                except: inner()
        """), [("inner", "*", [5])])

    def test_report_that_raises_again(self):
        self.assert_handler(False, "except Exception:", "log.exception('x')", "raise")
        self.assert_handler(False, "except Exception:", "log.exception('x')", "raise Other()")
        self.assert_handler(
            False, "except Exception:", "log.exception('x')", "if 1: raise", "else: raise Other()")
        self.assert_handler(True, "except Exception:", "log.exception('x')", "if 1: raise")

    def test_all_kinds_of_scopes(self):
        self.assertEqual(self.find("""
            class Handler:
                def run(self):
                    try: pass
                    except: print_exc()
            class Other:
                def run(self): pass
                def alone(self):
                    while 1:
                        with x:
                            try: pass
                            except ValueError: print_exc()
                            except Exception: print_exc()
            try: pass
            except: print_exc()
        """), [("run", "Handler", [5]), ("alone", "*", [13]), ("<module>", "*", [15])])

    @needs("syntax:async def f(): pass")
    def test_coroutines(self):
        self.assertEqual(self.find("""
            async def work():
                try: await x
                except Exception: log.exception('x')
        """), [("work", "*", [4])])

    def test_bad_source(self):
        for source in (b"def print_exc(:\n", b"\0print_exc", b"# coding: nosuch\nprint_exc()",
                       b"\xff\xfe"):
            self.assertEqual(catchinfo.find_reporters(source), ())

    def test_compiler_s_warnings_are_not_shown(self):
        source = b"def f():\n    try: x = '\\d'\n    except: print_exc()\n"
        with warnings.catch_warnings(record=True) as shown:
            warnings.simplefilter("always")
            before = list(warnings.filters)
            self.assertEqual(len(catchinfo.find_reporters(source)), 1)
            self.assertEqual(warnings.filters, before)
        self.assertEqual(shown, [])


kReporting = """\
import traceback
def work():
    try: pass
    except Exception: traceback.print_exc()
"""


class Modules(TestCase):
    def setUp(self):
        self.infos = CatchInfos(with_library=False)

    def module(self, name, **names):
        module = types.ModuleType(name)
        module.__dict__.update(names)
        return module

    def rows(self):
        return [(info.co_name, info.mod_name, info.containing_class, info.prints, info.parent)
                for info in self.infos.as_list()]

    def test_module_with_a_file(self):
        path = self.make_file("work.py", kReporting)
        self.assertTrue(self.infos.add_module(self.module("pkg.work", __file__=path)))
        self.assertEqual(self.rows(), [("work", "pkg.work", "*", True, False)])

    def test_compiled_module_beside_its_source(self):
        path = self.make_file("work.py", kReporting)
        self.assertTrue(self.infos.add_module(self.module("work", __file__=path + "c")))

    def test_same_module_twice_is_no_change(self):
        path = self.make_file("work.py", kReporting)
        self.infos.add_module(self.module("work", __file__=path))
        self.assertFalse(self.infos.add_module(self.module("work", __file__=path)))
        self.assertEqual(len(self.rows()), 1)

    def test_changed_source(self):
        path = self.make_file("work.py", kReporting)
        module = self.module("work", __file__=path)
        self.infos.add_module(module)
        with open(path, "w") as out:
            out.write("x = 1\n")
        self.assertTrue(self.infos.add_module(module))
        self.assertEqual(self.rows(), [])

    def test_same_source_is_analysed_once(self):
        calls = []
        find = catchinfo.find_reporters
        self.addCleanup(setattr, catchinfo, "find_reporters", find)
        catchinfo.find_reporters = lambda source: calls.append(1) or find(source)
        for name in ("one", "two"):
            path = self.make_file(name + ".py", kReporting)
            self.assertTrue(self.infos.add_module(self.module(name, __file__=path)))
        self.assertEqual((len(calls), len(self.rows())), (1, 2))

    def test_source_without_a_word_of_reports_is_not_parsed(self):
        self.addCleanup(setattr, catchinfo, "find_reporters", catchinfo.find_reporters)
        catchinfo.find_reporters = None
        path = self.make_file("work.py", "def work():\n    try: pass\n    except: pass\n")
        self.assertFalse(self.infos.add_module(self.module("work", __file__=path)))

    def test_source_in_memory(self):
        import linecache
        lines = kReporting.splitlines(True)
        linecache.cache["<cell 1>"] = (len(kReporting), None, lines, "<cell 1>")
        self.assertTrue(self.infos.add_module(self.module("cell", __file__="<cell 1>")))

    def test_source_in_an_archive(self):
        path = os.path.join(self.make_dir(), "archive.zip")
        with zipfile.ZipFile(path, "w") as archive:
            archive.writestr("zipped_work.py", kReporting)
        sys.path.insert(0, path)
        self.addCleanup(sys.path.remove, path)
        self.assertTrue(self.infos.add_module(__import__("zipped_work")))

    def test_standard_library_is_left_to_the_table(self):
        import threading
        self.assertFalse(self.infos.add_module(threading))

    def test_installed_packages_are_not_the_standard_library(self):
        folder = os.path.join(catchinfo._library_folder, "site-packages", "p.py")
        self.assertFalse(catchinfo._is_of_library(self.module("p", __file__=folder)))

    def test_things_that_are_no_modules(self):
        class Trap(object):
            def __getattribute__(self, name):
                raise RuntimeError("evaluated by the debugger")

        odd = [None, 1, object(), Trap(), self.module("a"), self.module("b", __file__=None),
               self.module("c", __file__=7), self.module("d", __file__="/no/such/file.py"),
               self.module("e", __name__=3), self.module("f", __file__=sys.executable)]
        self.assertEqual([self.infos.add_module(item) for item in odd], [False] * len(odd))


class Reports(TestCase):
    def setUp(self):
        self.path = self.make_file("work.py", textwrap.dedent("""\
            import sys
            def work(frames):
                try: frames.append(sys._getframe())
                except ValueError: pass
                except Exception: print_exc()
        """))
        self.module = types.ModuleType("work")
        self.module.__file__ = self.path
        with open(self.path) as source:
            exec(compile(source.read(), self.path, "exec"), self.module.__dict__)
        frames = []
        self.module.work(frames)
        self.frame = frames[0]
        self.infos = CatchInfos()

    def test_clause_by_line(self):
        self.assertFalse(self.infos.reports(self.frame, 5))
        self.infos.add_module(self.module)
        self.assertEqual(
            [line for line in range(1, 9) if self.infos.reports(self.frame, line)], [5])
        self.assertFalse(self.infos.reports(self.frame, None))

    def test_module_of_another_name(self):
        self.infos.add_module(self.module)
        self.module.__name__ = "other"
        self.assertFalse(self.infos.reports(self.frame, 5))

    def test_function_of_the_library(self):
        import threading
        frames = []
        thread = threading.Thread(target=lambda: frames.append(sys._getframe()))
        thread.start()
        thread.join()
        names = {}
        frame = frames[0]
        while frame is not None:
            names[frame.f_code.co_name.lstrip("_")] = frame
            frame = frame.f_back
        self.assertTrue(self.infos.reports(names["bootstrap_inner"], 1))
        self.assertTrue(self.infos.reports(names["bootstrap_inner"], None))
        self.assertFalse(self.infos.reports(names["bootstrap"], 1))


class Library(TestCase):
    def test_table_names_functions_that_exist(self):
        """In the modules that this version has."""
        missing = []
        for info in catchinfo.kLibrary:
            if info.mod_name == "*" or info.mod_name in ("Tkinter", "tkinter"):
                continue
            try:
                module = sys.modules.get(info.mod_name) or __import__(info.mod_name, fromlist=["x"])
            except ImportError:
                continue
            with open(os.path.splitext(module.__file__)[0] + ".py", "rb") as source:
                if "def {}(".format(info.co_name).encode("ascii") not in source.read():
                    missing.append((info.mod_name, info.co_name))
        self.assertEqual(missing, [])

    def test_quiet_types(self):
        self.assertIn(unittest.SkipTest, catchinfo.quiet_types())
        self.assertEqual(catchinfo.quiet_types({}), ())

    def test_attributes_that_the_core_reads(self):
        info = ExceptionInfo("run", "module", "Class", True, False)
        self.assertEqual(
            (info.co_name, info.mod_name, info.containing_class, info.prints, info.parent),
            ("run", "module", "Class", True, False))

    def test_the_core_takes_the_list(self):
        tracer = import_tracer()
        tracer.set_exc_catch_info_list(CatchInfos().as_list())
        tracer.set_exc_catch_info_list([])


if __name__ == "__main__":
    unittest.main()
