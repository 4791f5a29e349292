"""The library in interpreters that another program starts, ends and starts again."""
from __future__ import absolute_import, division, print_function

import os
import subprocess
import sys
import sysconfig

from support import TestCase, capability, debuggee, library_path, needs, run_program
from support.programs import TESTS, python_path, run_code


@capability("shared_libpython")
def _shared_libpython():
    return _find_libpython() is not None


def _find_libpython():
    name, folder = sysconfig.get_config_var("INSTSONAME"), sysconfig.get_config_var("LIBDIR")
    path = os.path.join(folder or "", name or "")
    return path if ".so" in path and os.path.exists(path) else None


@capability("c_compiler")
def _c_compiler():
    try:
        with open(os.devnull, "w") as nothing:
            return subprocess.call(["gcc", "--version"], stdout=nothing, stderr=nothing) == 0
    except OSError:
        return False


@capability("isolated_subinterpreters")
def _isolated_subinterpreters():
    """Subinterpreters that refuse modules of the old kind."""
    return sys.version_info >= (3, 12)


@needs("shared_libpython", "c_compiler")
class Embedding(TestCase):
    def run_host(self, how, scripts, **environment):
        library_path()
        host = os.path.join(self.make_dir(), "host")
        subprocess.check_call(["gcc", "-o", host,
                               os.path.join(TESTS, "embedding", "host.c"), "-ldl"])
        return run_program(
            [host, _find_libpython(), sys.executable, how] + scripts * [debuggee("embedded.py")],
            env=dict({"PYTHONPATH": python_path(), "PYTHON_GIL": "1"}, **environment))

    def expect(self, done, debugged, rounds, in_subinterpreters=False):
        if in_subinterpreters and sysconfig.get_config_var("Py_GIL_DISABLED"):
            self.assertIn("does not support loading in subinterpreters", done.err)
            return
        self.assertEqual((done.status, done.err), (0, ""), done)
        self.assertEqual(done.out.count("debugged\n"), debugged, done)
        self.assertEqual(done.out.count("ended\n"), rounds, done)

    def test_scripts_one_after_another(self):
        self.expect(self.run_host("1", 2), 2, 1)

    def test_interpreter_started_again(self):
        self.expect(self.run_host("3", 2), 6, 3)

    def test_interpreter_ended_while_tracing(self):
        self.expect(self.run_host("3", 1, KEEP_TRACING="1"), 3, 3)

    def test_subinterpreters_one_after_another(self):
        self.expect(self.run_host("sub", 3), 3, 1, True)

    def test_subinterpreters_ended_while_tracing(self):
        self.expect(self.run_host("sub", 3, KEEP_TRACING="1"), 3, 1, True)


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
            code = "try:\\n import tdbgtracer\\nexcept ImportError as why:\\n print(why, flush=True)"
            run(ident, code)
            import tdbgtracer
            print("here", tdbgtracer.__name__)
        """, env={"PYTHON_GIL": "1"})
        self.assertEqual(done.status, 0, done)
        self.assertIn("tdbgtracer does not support loading in subinterpreters", done.out)
        self.assertIn("here tdbgtracer", done.out)
