"""Exceptions through the tracer: where it stops in each mode, and that the program notices nothing.

A program runs as it would alone, as the interpreter's own argument: the debugger gets in through a
start-up module.  Stops are (function, exception type, what the scan said or "").
"""
from __future__ import absolute_import, division, print_function

import json
import os
import re
import sys
import textwrap
import unittest

from support import TestCase, library_path, needs, run_script, time_limit
from support.caught import kWays
from support.programs import python_path

kOncePerVersion = True  # by way of the debugger's Python part
kOnceWhenQuick = True
kAlways, kUnhandled, kPrinted, kPrintedToo = 1, 2, 4, 5

# The start-up module.  It begins with the program's first frame, as the debugger does.
kStartup = '''\
import json, os, sys
from tdbg import catchinfo, compat, handlers, threads
import tdbgtracer as core

settings = json.loads(os.environ.pop("TDBG_TEST"))
mode, result = settings["mode"], os.open(settings["result"], os.O_WRONLY | os.O_CREAT | os.O_APPEND)


class Server(object):
    def __init__(self):
        self.infos = catchinfo.CatchInfos()
        self.watch = handlers.tRaiseWatch(self.infos.reports)
        self.hooks = threads.tThreadHooks(core)

    def start(self):
        core.init(0.0, mode, self.hooks_cb, self.nothing, self.nothing, self.line_cb, self.nothing,
                  self.exception_cb, self.nothing, self.import_cb, compat.default_import, {})
        core.start_trace()
        for setting in settings["settings"]:
            getattr(core, setting[0])(*[self.value_of(item) for item in setting[1:]])
        if mode >= 4:
            self.infos.add_module(sys.modules["__main__"])
            self.tell_infos()
        core.continue_run()

    def value_of(self, item):
        if not isinstance(item, list):
            return str(item) if not isinstance(item, int) else item
        return tuple(getattr(compat.builtins, name) for name in item)

    def tell_infos(self):
        core.set_exc_catch_info_list(self.infos.as_list())
        core.set_never_stop_excepts(self.quiet())

    def quiet(self):
        return (SystemExit, KeyboardInterrupt) + catchinfo.quiet_types()

    def hooks_cb(self, flag):
        self.hooks.install() if flag else self.hooks.remove()

    def nothing(self, *ignored):
        return ""

    def import_cb(self, module):
        self.hooks.see_module(module)
        if self.infos.add_module(module) and mode >= 4:
            self.tell_infos()

    def line_cb(self, frame):
        self.tell("line", frame.f_code.co_name, "")

    def exception_cb(self, frame, exc_info=None):
        try:
            answer = ""
            if mode >= 4 and issubclass(exc_info[0], self.quiet()):
                return
            if mode == 1 and not settings["raw"]:
                self.watch.set_quiet(catchinfo.quiet_types())
                verdict = self.watch.judge(frame, exc_info)
                if verdict is None or verdict.answer in (handlers.kCaught, handlers.kUnknown):
                    return
                answer = verdict.answer
            self.tell(frame.f_code.co_name, exc_info[0].__name__, answer)
        except BaseException as error:
            self.tell("failed", repr(error), "")
        core.continue_run()

    def tell(self, *row):
        os.write(result, (json.dumps(row) + "\\n").encode("ascii"))


server = Server()


def wait(frame, event, arg):
    main = sys.modules.get("__main__")
    if frame.f_globals is getattr(main, "__dict__", None) and frame.f_code.co_name == "<module>":
        if mode:
            server.start()
        else:
            sys.settrace(None)


sys.settrace(wait)
'''


class ModesCase(TestCase):
    def run_in_mode(self, path, mode, settings=(), raw=False):
        """([stop], support.Finished)"""
        folder = self.make_dir()
        result = os.path.join(folder, "result")
        self.make_file("sitecustomize.py", kStartup, folder)
        options = {"mode": mode, "result": result, "settings": settings, "raw": raw}
        ended = run_script(path, env={
            "TDBG_TEST": json.dumps(options),
            "PYTHONPATH": os.pathsep.join((folder, os.path.dirname(library_path()), python_path())),
            "PYTHONHASHSEED": "0", "PYTHONDONTWRITEBYTECODE": "1"})
        self.assertFalse(ended.timed_out, ended)
        with open(result) as lines:
            return [tuple(str(item) for item in json.loads(line)) for line in lines], ended

    def check(self, source, raised=(), unhandled=(), printed=None, status=None):
        """Stops at the raise (mode 1), at the end of the program (2), where it prints (4 and 5)."""
        path = self.make_file("program.py", textwrap.dedent(source))
        _, alone = self.run_in_mode(path, 0)
        if status is not None:
            self.assertEqual(alone.status, status, alone)
        expected = {kAlways: raised, kUnhandled: unhandled,
                    kPrinted: unhandled if printed is None else printed}
        expected[kPrintedToo] = expected[kPrinted]
        for mode in sorted(expected):
            stops, ended = self.run_in_mode(path, mode)
            self.assertEqual((mode, stops), (mode, [
                row + ("",) * (3 - len(row)) for row in expected[mode]]), ended)
            self.assertEqual(
                (mode, ended.status, ended.out, without_addresses(ended.err)),
                (mode, alone.status, alone.out, without_addresses(alone.err)))


def without_addresses(text):
    return re.sub("0x[0-9a-f]+", "0x", text)


@time_limit(180)
class Uncaught(ModesCase):
    def test_nothing_raised(self):
        """The interpreter's own start-up and its end raise, but never stop."""
        self.check("import json, re\nprint(json.dumps([1]), re.match('a', 'b'))\n", status=0)

    def test_at_top_level(self):
        self.check("raise ValueError('x')\n",
                   [("<module>", "ValueError", "uncaught")], [("<module>", "ValueError")], status=1)

    def test_in_a_function(self):
        self.check("""
            def inner():
                return {}['x']
            def outer():
                try:
                    inner()
                except ValueError:
                    pass
                finally:
                    print('left')
            outer()
        """, [("inner", "KeyError", "uncaught")], [("<module>", "KeyError")], status=1)

    def test_in_an_import(self):
        folder = self.make_dir()
        self.make_file("broken_module.py", "def f():\n    raise OSError('x')\nf()\n", folder)
        self.check("import sys\nsys.path.insert(0, {!r})\nimport broken_module\n".format(folder),
                   [("f", "OSError", "uncaught")],
                   [("<module>", "OSError")], status=1)

    def test_missing_module(self):
        name = "ImportError" if sys.version_info < (3, 6) else "ModuleNotFoundError"
        where = "<module>" if sys.version_info[0] == 2 else "_find_and_load_unlocked"
        self.check("import no_such_module\n", [(where, name, "uncaught")],
                   [("<module>", name)], status=1)

    def test_in_places_of_all_kinds(self):
        for place, text in (
                ("<lambda>", "sorted([1, 2], key=lambda value: 1 // 0)"),
                ("__init__", "class C(object):\n    def __init__(self): 1 // 0\nC()"),
                ("size", "class C(object):\n    @property\n    def size(self): 1 // 0\nC().size"),
                ("numbers", "def numbers():\n    yield 1\n    1 // 0\nlist(numbers())"),
                ("<genexpr>", "list(1 // 0 for _ in (1,))"),
                ("C", "class C(object):\n    1 // 0")):
            self.check(text, [(place, "ZeroDivisionError", "uncaught")],
                       [("<module>", "ZeroDivisionError")], status=1)

    @needs("syntax:async def f(): pass")
    def test_in_a_coroutine(self):
        self.check("""
            async def inner(): raise ValueError('x')
            async def outer(): await inner()
            outer().send(None)
        """, [("inner", "ValueError", "uncaught")], [("<module>", "ValueError")], status=1)

    def test_chained(self):
        self.check("""
            def work():
                try: {}['x']
                except KeyError: raise ValueError('second')
            work()
        """, [("work", "ValueError", "uncaught")], [("<module>", "ValueError")], status=1)

    def test_raised_again(self):
        self.check("""
            def work():
                try: {}['x']
                except KeyError: raise
            work()
        """, [("work", "KeyError", "uncaught")], [("<module>", "KeyError")], status=1)

    @needs("syntax:try:\n pass\nexcept* ValueError:\n pass")
    def test_rest_of_a_group(self):
        self.check("""
            def work():
                try: raise ExceptionGroup('x', [ValueError(), KeyError()])
                except* KeyError: pass
            work()
        """, [("work", "ExceptionGroup", "uncaught")], [("<module>", "ExceptionGroup")], status=1)


@time_limit(180)
class Caught(ModesCase):
    def check_caught(self, source):
        self.check(kWays + textwrap.dedent(source), status=0)

    def test_every_way(self):
        self.check_caught("""
            import os
            def breaks():
                while True:
                    try: boom()
                    finally: break
            def module():
                try: os.stat('/no/such/file')
                except os.error: pass
            for case in WAYS + (breaks, module):
                case()
            try: import no_such_module
            except ImportError: pass
            print(hasattr(1, 'x'), getattr(1, 'x', None), next(iter(()), 3), list(map(str, [1])))
        """)

    def test_ends_of_loops_and_generators(self):
        self.check_caught("""
            def numbers():
                try: yield 1
                finally: print('closed')
            print(list(Steps()), [step for step in Steps()])
            made = numbers()
            next(made)
            made.close()
            for i in numbers(): pass
        """)

    @needs("syntax:async def f(): pass")
    def test_coroutines_and_loops(self):
        self.check_caught("""
            import asyncio
            class Steps(object):
                left = 3
                def __aiter__(self): return self
                async def __anext__(self):
                    self.left -= 1
                    if not self.left: raise StopAsyncIteration
                    return self.left
            async def fail(): raise ValueError('x')
            async def main():
                async for step in Steps(): print(step)
                try: await fail()
                except ValueError: print('caught')
                print(await asyncio.gather(fail(), return_exceptions=True))
            loop = asyncio.new_event_loop()
            loop.run_until_complete(main())
            loop.close()
        """)

    @needs("syntax:try:\n pass\nexcept* ValueError:\n pass")
    def test_groups(self):
        self.check_caught("""
            try: raise ExceptionGroup('x', [ValueError(), KeyError()])
            except* KeyError: print('one')
            except* Exception: print('other')
        """)


@time_limit(180)
class Ending(ModesCase):
    """sys.exit() and Ctrl-C get honest answers: whether to show them is for the server."""

    def test_exit(self):
        path = self.make_file("program.py", "import sys\ndef work(): sys.exit(3)\nwork()\n")
        _, alone = self.run_in_mode(path, 0)
        for mode, expected in ((kAlways, [("work", "SystemExit", "uncaught")]), (kPrinted, [])):
            stops, ended = self.run_in_mode(path, mode)
            self.assertEqual((stops, ended.status, ended.err), (expected, 3, alone.err))

    def test_interrupt(self):
        path = self.make_file("program.py", "def work(): raise KeyboardInterrupt\nwork()\n")
        _, alone = self.run_in_mode(path, 0)
        raised = [("work", "KeyboardInterrupt", "uncaught")]
        for mode, expected in ((kAlways, raised), (kPrinted, [])):
            stops, ended = self.run_in_mode(path, mode)
            self.assertEqual((stops, ended.status, ended.err), (expected, alone.status, alone.err))


@time_limit(180)
class Reported(ModesCase):
    """Caught, but only to be printed."""

    def test_own_function(self):
        self.check("""
            import sys, traceback
            def work(): raise ValueError('x')
            def serve():
                try: work()
                except KeyError: pass
                except Exception: traceback.print_exc(file=sys.stdout)
            serve()
        """, [("work", "ValueError", "reported")], [], [("serve", "ValueError")], status=0)

    def test_thread(self):
        name = "__bootstrap_inner" if sys.version_info[0] == 2 else "_bootstrap_inner"
        self.check("""
            import threading
            def work(): raise ValueError('x')
            thread = threading.Thread(target=work, name='worker')
            thread.start()
            thread.join()
        """, [("work", "ValueError", "reported")], [], [(name, "ValueError")], status=0)

    def test_finalizer(self):
        self.check("""
            class Value(object):
                def __del__(self): raise ValueError('x')
            value = Value()
            value = None
            print('on')
        """, [("__del__", "ValueError", "reported")], [], [("__del__", "ValueError")], status=0)

    def test_unit_test(self):
        self.check("""
            import sys, unittest
            class Case(unittest.TestCase):
                def test_fails(self): self.work()
                def work(self): raise ValueError('x')
                def test_passes(self):
                    with self.assertRaises(ValueError): self.work()
                @unittest.skip('not now')
                def test_skipped(self): pass
                def test_skips(self): self.skipTest('not now')
            result = unittest.TestResult()
            unittest.defaultTestLoader.loadTestsFromTestCase(Case).run(result)
            print(len(result.errors), len(result.skipped))
        """, [("work", "ValueError", "reported")], [], [("run", "ValueError")], status=0)


@time_limit(180)
class Settings(ModesCase):
    kProgram = "def work():\n    {}['x']\ntry: work()\nexcept KeyError: print('caught')\n"

    def test_always_stop(self):
        path = self.make_file("program.py", self.kProgram)
        for mode in (kUnhandled, kPrinted):
            stops, ended = self.run_in_mode(
                path, mode, [("set_always_stop_excepts", ["LookupError"])])
            self.assertEqual([stop[:2] for stop in stops],
                             [("work", "KeyError"), ("<module>", "KeyError")])
            self.assertEqual((ended.out, ended.status), ("caught\n", 0))

    def test_never_stop(self):
        path = self.make_file("program.py", "def work():\n    {}['x']\nwork()\n")
        stops, ended = self.run_in_mode(
            path, kUnhandled, [("set_never_stop_excepts", ["LookupError"])])
        self.assertEqual((stops, ended.status), ([], 1))

    def test_ignored_location(self):
        path = self.make_file("program.py", "def work():\n    {}['x']\nwork()\n")
        for mode in (kAlways, kUnhandled):
            stops, ended = self.run_in_mode(path, mode, [("ignore_exception_loc", path, 2, 1)])
            self.assertEqual((mode, stops, ended.status), (mode, [], 1))

    def test_every_event_of_the_always_mode(self):
        path = self.make_file("program.py", self.kProgram)
        stops, _ = self.run_in_mode(path, kAlways, raw=True)
        self.assertEqual(stops, [("work", "KeyError", ""), ("<module>", "KeyError", "")])


if __name__ == "__main__":
    unittest.main()
