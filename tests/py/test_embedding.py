"""The library in interpreters that another program starts, ends and starts again."""
from __future__ import absolute_import, division, print_function

import os
import subprocess
import sys
import sysconfig
import unittest

from support import TestCase, capability, debuggee, library_path, needs, run_program
from support.programs import TESTS, python_path, run_code


@capability("shared_libpython")
def _shared_libpython():
    return _find_libpython() is not None


def _find_libpython():
    name, folder = sysconfig.get_config_var("INSTSONAME"), sysconfig.get_config_var("LIBDIR")
    path = os.path.join(folder or "", name or "")
    return path if ".so" in path and os.path.exists(path) else None


def _find_compiler():
    """The interpreter's own where that is one for another C library."""
    own = (sysconfig.get_config_var("CC") or "").split(" ")[0]
    return own if os.path.isabs(own) and os.path.exists(own) else "gcc"


@capability("c_compiler")
def _c_compiler():
    try:
        with open(os.devnull, "w") as nothing:
            argv = [_find_compiler(), "--version"]
            return subprocess.call(argv, stdout=nothing, stderr=nothing) == 0
    except OSError:
        return False


@capability("isolated_subinterpreters")
def _isolated_subinterpreters():
    """Subinterpreters that refuse modules of the old kind."""
    return sys.version_info >= (3, 12)


def _takes_subinterpreters():
    """Free-threaded builds load no module of the old kind in any of them."""
    return not sysconfig.get_config_var("Py_GIL_DISABLED")


kRefused = "does not support loading in subinterpreters"


class EmbeddingCase(TestCase):
    kLinked = True

    def run_host(self, rounds, *scripts, **environment):
        """Each script is named by where it runs: main, sub, own, beside, fork."""
        library_path()
        host, library = os.path.join(self.make_dir(), "host"), _find_libpython()
        link = ["-Wl,--no-as-needed", library, "-Wl,-rpath," + os.path.dirname(library)]
        source = os.path.join(TESTS, "embedding", "host.c")
        subprocess.check_call([_find_compiler(), "-o", host, source]
                              + (link if self.kLinked else []) + ["-ldl", "-lpthread"])
        argv = [host, "linked" if self.kLinked else library, sys.executable, str(rounds)]
        for how in scripts:
            path = debuggee("embedded.py" if how != "beside" else "embedded_beside.py")
            argv.append(path if how == "main" else how + ":" + path)
        return run_program(
            argv, env=dict({"PYTHONPATH": python_path(), "PYTHON_GIL": "1"}, **environment))

    def expect(self, done, debugged, rounds):
        self.assertEqual((done.status, done.err), (0, ""), done)
        self.assertEqual(done.out.count("debugged\n"), debugged, done)
        self.assertEqual(done.out.count("ended\n"), rounds, done)

    def expect_in_subinterpreters(self, done, debugged, rounds):
        if _takes_subinterpreters():
            self.expect(done, debugged, rounds)
        else:
            self.assertIn(kRefused, done.err)
            self.assertEqual(done.out.count("ended\n"), rounds, done)


@needs("shared_libpython", "c_compiler")
class Linked(EmbeddingCase):
    def test_scripts_one_after_another(self):
        self.expect(self.run_host(1, "main", "main"), 2, 1)

    def test_interpreter_started_again(self):
        self.expect(self.run_host(3, "main", "main"), 6, 3)

    def test_interpreter_ended_while_tracing(self):
        self.expect(self.run_host(3, "main", KEEP_TRACING="1"), 3, 3)

    def test_interpreter_ended_while_the_idle_thread_runs(self):
        self.expect(self.run_host(10, "main", KEEP_TRACING="1", IDLE_THREAD="1"), 10, 10)

    def test_forked_child_of_a_host(self):
        self.expect(self.run_host(2, "main", "fork", "main"), 6, 2)
        self.expect(self.run_host(2, "main", "fork", KEEP_TRACING="1", IDLE_THREAD="1"), 4, 2)

    def test_subinterpreters_one_after_another(self):
        self.expect_in_subinterpreters(self.run_host(1, "sub", "sub", "sub"), 3, 1)

    def test_subinterpreters_ended_while_tracing(self):
        self.expect_in_subinterpreters(
            self.run_host(1, "sub", "sub", "sub", KEEP_TRACING="1"), 3, 1)

    @unittest.skipIf(sys.version_info[:2] == (3, 7),
                     "3.7 frees code objects of one interpreter with what it takes for functions "
                     "of another")
    def test_subinterpreter_first_and_then_the_main_one(self):
        done = self.run_host(2, "sub", "main", "sub", "main")
        self.expect_in_subinterpreters(done, 8, 2)

    def test_subinterpreter_has_no_idle_thread_that_would_outlive_it(self):
        done = self.run_host(2, "sub", "sub", "main", KEEP_TRACING="1", IDLE_THREAD="1")
        self.expect_in_subinterpreters(done, 6, 2)

    def test_subinterpreter_is_refused_while_the_main_one_is_traced(self):
        done = self.run_host(2, "main", "sub", KEEP_TRACING="1")
        self.assertEqual(done.status, 1, done)
        self.assertEqual(done.out.count("debugged\n"), 2, done)
        self.assertEqual(done.out.count("ended\n"), 2, done)
        self.assertEqual(done.err.count(
            "RuntimeError: The tracer is in use in another interpreter of this process"
            if _takes_subinterpreters() else kRefused), 2, done)


@needs("shared_libpython", "c_compiler")
class LoadedAtRunTime(EmbeddingCase):
    kLinked = False

    def test_interpreter_started_again(self):
        self.expect(self.run_host(3, "main", "main", KEEP_TRACING="1"), 6, 3)


@needs("shared_libpython", "c_compiler", "isolated_subinterpreters")
class OwnLock(EmbeddingCase):
    """Subinterpreters with an interpreter lock of their own."""

    def test_import_is_refused_and_the_main_interpreter_is_debugged(self):
        done = self.run_host(2, "own", "main", "own", "main", KEEP_TRACING="1", IDLE_THREAD="1")
        self.assertEqual(done.status, 1, done)
        self.assertEqual(done.err.count("ImportError: module tdbgtracer " + kRefused), 4, done)
        self.assertEqual(done.out.count("debugged\n"), 4, done)
        self.assertEqual(done.out.count("ended\n"), 2, done)

    def test_one_that_runs_meanwhile_is_left_alone(self):
        done = self.run_host(2, *["main", "beside"] + ["main"] * 6,
                             KEEP_TRACING="1", IDLE_THREAD="1")
        self.expect(done, 14, 2)
        self.assertEqual(done.out.count("beside\n"), 2, done)


@needs("isolated_subinterpreters")
class Isolated(TestCase):
    def test_import_is_refused(self):
        library_path()
        done = run_code("""if True:
            try:
                import _interpreters as module
                run = module.exec
            except ImportError:
                import _xxsubinterpreters as module
                run = module.run_string
            import sys
            ident = module.create()
            code = ("try:\\n import tdbgtracer\\n"
                    "except ImportError as why:\\n print(why, flush=True)")
            run(ident, code)
            import tdbgtracer
            print("here", tdbgtracer.__name__)
        """, env={"PYTHON_GIL": "1"})
        self.assertEqual(done.status, 0, done)
        self.assertIn("tdbgtracer " + kRefused, done.out)
        self.assertIn("here tdbgtracer", done.out)
