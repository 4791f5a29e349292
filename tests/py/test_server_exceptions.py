"""The server's exception stops: where, why and how often, and that the program notices nothing.

A program runs as the interpreter's own argument; the server gets in through a start-up module.  A
stop is recorded as (reason, function that raises, type name).  Most cases are functions that a
thread of their own begins with, so that one process holds many exceptions that nothing catches.
"""
from __future__ import absolute_import, division, print_function

import json
import os
import re
import sys
import textwrap
import unittest

from support import TestCase, import_tracer, library_path, needs, run_script, time_limit
from support.caught import kWays
from support.programs import python_path

kOncePerVersion = True

# The start-up module.  `settings["at"]`: {number of a stop: expression to evaluate there}.
kStartup = '''\
import json, os, sys
import tdbgtracer
from tdbg import dbgserver, exceptions, stops

settings = json.loads(os.environ.pop("TDBG_TEST"))
out = os.open(settings["result"], os.O_WRONLY | os.O_CREAT | os.O_APPEND)
exceptions.kManyCaught = settings["many"]


class FrontEnd(dbgserver.tFrontEnd):
    count = 0

    def on_stop(self, stop):
        commands = settings["commands"]
        if stop.exc_info is not None:
            frame = stop.stack[stop.index][0]
            row = [stop.reason, frame.f_code.co_name, getattr(stop.exc_info[0], "__name__", None)]
        else:
            row = [stop.reason, stop.frame.f_code.co_name, stop.stack[stop.index][1]]
        if stop.reason != "entry":
            self.tell(row)
        for text in settings["at"].get(str(self.count), ()):
            self.tell(["eval", repr(eval(text, {"server": server, "stop": stop, "sys": sys}))])
        if self.count < len(commands) and commands[self.count]:
            getattr(server, commands[self.count])()
        else:
            server.continue_run()
        self.count += 1

    def on_notice(self, text):
        self.tell(["notice", text])

    def on_internal_error(self, text):
        self.tell(["failed", text])

    def tell(self, row):
        os.write(out, (json.dumps(row) + "\\n").encode("ascii"))


server = dbgserver.tServer(tdbgtracer, FrontEnd())
server.exceptions.restore(settings["rules"])
if settings["debug"]:
    server.start_with_program()
'''

kReason, kFunction, kType = range(3)

# Runs its functions in threads: what they raise goes out of the thread's bottom frame.
# It runs while it waits: in free-threaded builds what it made dies in no other thread.
kThreads = '''import time
try:
    import _thread
except ImportError:
    import thread as _thread

def in_threads(*cases):
    for case in cases:
        gate = _thread.allocate_lock()
        gate.acquire()
        start(case, gate)
        while not gate.acquire(0): time.sleep(0.001)

def start(case, gate):
    class Opens(object):
        def __del__(self): gate.release()
    _thread.start_new_thread(case, (Opens(),))
'''


class SessionCase(TestCase):
    def debug(self, source, rules=None, at=None, commands=(), many=10 ** 9, debug=True):
        """[row] of the stops, and support.Finished as self.ended."""
        folder = self.make_dir()
        self.path = path = self.make_file("program.py", textwrap.dedent(source), folder)
        result = os.path.join(folder, "result")
        startup = self.make_dir()
        self.make_file("sitecustomize.py", kStartup, startup)
        options = {"result": result, "rules": rules or {}, "at": at or {},
                   "commands": list(commands), "many": many, "debug": debug}
        self.ended = run_script(path, env={
            "TDBG_TEST": json.dumps(options).replace("@PATH@", path),
            "PYTHONPATH": os.pathsep.join((startup, os.path.dirname(library_path()),
                                           python_path())),
            "PYTHONHASHSEED": "0", "PYTHONDONTWRITEBYTECODE": "1"})
        self.assertFalse(self.ended.timed_out, self.ended)
        with open(result) as lines:
            rows = [tuple(_plain(item) for item in json.loads(line)) for line in lines]
        self.assertEqual([row for row in rows if row[0] == "failed"], [])
        return rows

    def check(self, source, *stops, **options):
        """The stops are these, and what the program writes and how it ends is as if alone."""
        rows = self.debug(source, **options)
        self.assertEqual(rows, list(stops), self.ended)
        with_debugger = self.outcome()
        self.debug(source, debug=False)
        self.assertEqual(with_debugger, self.outcome())
        return self.ended

    def outcome(self):
        """Of the last run, without what differs from run to run."""
        folder = os.path.dirname(self.path)
        texts = [re.sub("0x[0-9a-f]+", "0x", text.replace(folder, ""))
                 for text in (self.ended.out, self.ended.err)]
        return [self.ended.status] + [re.sub(r"\^+", "^", text) for text in texts]


def _plain(item):
    return item if isinstance(item, int) or item is None else str(item)


def stops_of(reason, kind, names):
    return [(reason, name, kind) for name in names]


@time_limit(120)
class Places(SessionCase):
    """Default rules: what nothing will catch stops where it is raised, and nothing else does."""

    kUncaught = kThreads + '''
class Keep(object):
    def __enter__(self): return self
    def __exit__(self, *info): return bool(0)
class Value(object):
    def __init__(self): raise ValueError("x")
class Owner(object):
    @property
    def size(self): raise ValueError("x")
def boom(*ignored): raise ValueError("x")
def plain(gate): raise ValueError("x")
def with_finally(gate):
    try: boom()
    except KeyError: pass
    finally: print("left")
def raised_again(gate):
    try: raise ValueError("x")
    except ValueError: raise
def raised_in_place(gate):
    try: {}["x"]
    except KeyError: raise ValueError("second")
def generator(gate):
    def numbers():
        yield 1
        raise ValueError("x")
    list(numbers())
def comprehension(gate): return list(boom() for _ in (1,))
def made(gate): Value()
def asked(gate): Owner().size
def compared(gate): sorted([1, 2], key=boom)
def let_pass(gate):
    with Keep(): boom()
def passed_on(gate): let_pass(gate)
in_threads(plain, with_finally, raised_again, raised_in_place, generator, comprehension, made,
           asked, compared, passed_on)
'''

    def test_uncaught_in_every_place(self):
        rows = self.debug(self.kUncaught)
        self.assertEqual(rows, stops_of("uncaught", "ValueError", (
            "plain", "boom", "raised_again", "raised_in_place", "numbers", "boom",
            "__init__", "size", "boom", "boom")), self.ended)
        self.assertEqual((self.ended.status, self.ended.out), (0, "left\n"), self.ended)

    def test_uncaught_while_everything_stops(self):
        """One exception is one stop, whatever rules it fits."""
        rows = self.debug(self.kUncaught, {"wanted": ["raised", "uncaught", "runner"]})
        self.assertEqual([row for row in rows if row[kType] == "KeyError"],
                         [("exception", "raised_in_place", "KeyError")])
        self.assertEqual([row[1:] for row in rows if row[kType] == "ValueError"], [
            (name, "ValueError") for name in (
                "plain", "boom", "raised_again", "raised_in_place", "numbers", "boom", "__init__",
                "size", "boom", "boom")], self.ended)

    @needs("syntax:async def f(): pass")
    def test_uncaught_in_coroutines(self):
        self.check(kThreads + '''
async def inner(): raise ValueError("x")
async def outer():
    try: await inner()
    except KeyError: pass
def work(gate): outer().send(None)
in_threads(work)
''', ("uncaught", "inner", "ValueError"))

    @needs("syntax:try:\n pass\nexcept* ValueError:\n pass")
    def test_groups(self):
        rows = self.debug(kThreads + '''
def rest(gate):
    try: raise ExceptionGroup("x", [ValueError(), KeyError()])
    except* KeyError: pass
def nothing_left(gate):
    try: raise ExceptionGroup("x", [ValueError(), KeyError()])
    except* Exception: pass
in_threads(rest, nothing_left)
''')
        self.assertEqual(rows, [("uncaught", "rest", "ExceptionGroup")], self.ended)

    kCaught = kWays + '''
def raised_again():
    try:
        try: raise ValueError("x")
        except ValueError: raise
    except ValueError: pass
def generators():
    def numbers():
        try: yield 1
        finally: pass
    list(Steps())
    made = numbers()
    next(made)
    made.close()
    for i in numbers(): pass
    next(iter(()), None)
    print(hasattr(1, "x"), getattr(1, "x", None))
def missing():
    try: import no_such_module
    except ImportError: pass
def leaves():
    try: raise SystemExit(3)
    except SystemExit: pass
    try: raise KeyboardInterrupt
    except KeyboardInterrupt: pass
for case in WAYS + (raised_again, generators, missing, leaves):
    case()
'''

    def test_caught_in_every_way(self):
        self.check(self.kCaught)

    def test_every_raise_once(self):
        """Also what the import machinery raises: once, where it comes out of there.  What the
        interpreter looks up by an exception is no raise of the program's."""
        rows = self.debug(self.kCaught, {"wanted": ["raised"]})
        rows = [row for row in rows if row[kType] != "AttributeError"]
        names = ["same_frame"] + ["boom"] * 7 + ["raised_again"]
        expected = stops_of("exception", "ValueError", names)
        kind = "ImportError" if sys.version_info < (3,) else "ModuleNotFoundError"
        self.assertEqual(rows, expected + [("exception", "missing", kind)], self.ended)

    def test_start_and_end_of_the_interpreter_raise_nothing(self):
        self.assertEqual(self.debug("print(1)\n", {"wanted": ["raised", "uncaught", "runner"]}), [])

    def test_step_over_what_raises_and_catches(self):
        """The core tells every exception; those elsewhere are none of the step's business."""
        rows = self.debug('''\
            def boom(): raise ValueError("x")
            def work():
                try: boom()
                except ValueError: pass
            work()
            x = 1
        ''', commands=["step_over"] * 5)
        self.assertEqual(rows, [("step", "<module>", line) for line in (2, 5, 6)]
                         + [("return", "<module>", 6)], self.ended)


@time_limit(120)
class Ends(SessionCase):
    """What ends the program: one stop, and the interpreter's own text and status."""

    def check_end(self, source, function, kind, status=1):
        ended = self.check(source, ("uncaught", function, kind))
        self.assertEqual(ended.status, status)

    def test_raised_at_top_level(self):
        self.check_end("import sys\nraise ValueError('x')\n", "<module>", "ValueError")

    def test_blocks_of_the_bottom_frame(self):
        """Where the core cannot tell whether the block ends the exception."""
        self.check_end('''
            class Keep(object):
                def __enter__(self): return self
                def __exit__(self, *info): return bool(0)
            def boom(): raise ValueError("x")
            for i in range(2):
                with Keep():
                    try: boom()
                    finally: print("left")
        ''', "boom", "ValueError")

    def test_own_hook_runs_and_fails_as_ever(self):
        for more in ("", "    {}['x']\n"):
            source = '''\
import sys
class Keep(object):
    def __enter__(self): return self
    def __exit__(self, *info): return bool(0)
def hook(kind, value, tb):
    print("hook", kind.__name__, sys.excepthook is hook, tb.tb_lineno, tb.tb_next)
{}sys.excepthook = hook
with Keep(): raise ValueError("x")
'''.format(more)
            rows = self.debug(source)
            with_debugger = self.outcome()
            self.debug(source, debug=False)
            self.assertEqual(rows[0], ("uncaught", "<module>", "ValueError"), rows)
            self.assertEqual(len(rows), 2 if more else 1)
            self.assertEqual(with_debugger, self.outcome())

    def test_hooks_that_are_none(self):
        for hook in ("sys.excepthook = 5", "del sys.excepthook"):
            self.check("import sys\n{}\ndef boom(): raise ValueError('x')\nboom()\n".format(hook),
                       ("uncaught", "boom", "ValueError"))

    def test_import(self):
        kind = "ImportError" if sys.version_info < (3,) else "ModuleNotFoundError"
        self.check_end("import no_such_module\n", "<module>", kind)

    def test_syntax_error_of_a_module(self):
        self.check_end('''
            import os, sys
            with open(os.path.join(sys.path[0], "wrong.py"), "w") as out: out.write("1 +\\n")
            import wrong
        ''', "<module>", "SyntaxError")

    def test_recursion(self):
        kind = "RuntimeError" if sys.version_info < (3,) else "RecursionError"
        rows = self.debug("def down(): return down()\ndown()\n")
        self.assertEqual([(row[0], row[2]) for row in rows], [("uncaught", kind)], self.ended)
        self.assertEqual(self.ended.status, 1)

    def test_exits_are_no_stops(self):
        for call, status in (("sys.exit()", 0), ("sys.exit(3)", 3),
                             ("raise SystemExit('text')", 1)):
            self.assertEqual(self.check("import sys\ndef f(): {}\nf()\n".format(call)).status,
                             status)

    def test_interrupt_is_no_stop(self):
        self.check("def f(): raise KeyboardInterrupt\nf()\n")

    def test_exits_stop_where_the_user_names_them(self):
        rules = {"always": ["SystemExit", "KeyboardInterrupt"]}
        for call, row in (
                ("raise SystemExit(3)", ("uncaught", "f", "SystemExit")),
                ("raise SystemExit", None), ("raise SystemExit(0)", None), ("sys.exit()", None),
                ("raise KeyboardInterrupt", ("uncaught", "f", "KeyboardInterrupt"))):
            rows = self.debug("import sys\ndef f(): {}\nf()\n".format(call), rules)
            self.assertEqual(rows, [] if row is None else [row])
        # A base class does not name them.
        rows = self.debug("def f(): raise SystemExit(3)\nf()\n",
                          {"always": ["BaseException"], "wanted": ["raised", "uncaught"]})
        self.assertEqual(rows, [])


@time_limit(120)
class Reported(SessionCase):
    def test_threads(self):
        self.check('''
            import sys, threading
            sys.stderr = sys.stdout
            def work(): raise ValueError("x")
            def quiet(): raise SystemExit(1)
            def catches():
                try: work()
                except ValueError: pass
            for target in work, quiet, catches:
                thread = threading.Thread(target=target, name="worker")
                thread.start()
                thread.join()
        ''', ("reported", "work", "ValueError"))

    @needs("module:concurrent.futures")
    def test_futures(self):
        """The future keeps the exception: it counts where it is asked for."""
        rows = self.debug('''
            import concurrent.futures
            def work(): raise ValueError("x")
            def use():
                try: pool.submit(work).result()
                except ValueError: print("caught")
            pool = concurrent.futures.ThreadPoolExecutor(1)
            use()
            pool.submit(work).result()
        ''')
        self.assertEqual([row[0::2] for row in rows], [("uncaught", "ValueError")], self.ended)
        self.assertEqual((self.ended.status, self.ended.out), (1, "caught\n"))

    @needs("syntax:async def f(): pass")
    def test_tasks(self):
        rows = self.debug('''
            import asyncio
            async def fail(): raise ValueError("x")
            async def main():
                try: await asyncio.ensure_future(fail())
                except ValueError: print("caught")
                print(await asyncio.gather(fail(), return_exceptions=True))
                task = asyncio.ensure_future(asyncio.sleep(30))
                await asyncio.sleep(0)
                task.cancel()
                try: await task
                except asyncio.CancelledError: pass
                await asyncio.ensure_future(fail())
            loop = asyncio.new_event_loop()
            try: loop.run_until_complete(main())
            finally: loop.close()
        ''')
        self.assertEqual([row[0::2] for row in rows], [("uncaught", "ValueError")], self.ended)
        self.assertEqual(self.ended.status, 1)

    def test_callback_of_a_loop_finalizer_and_logger(self):
        rows = self.debug('''
            import logging, sys, traceback
            class Value(object):
                def __del__(self): raise ValueError("x")
            def work(): raise KeyError("x")
            def serve():
                try: work()
                except ValueError: pass
                except Exception: logging.getLogger("x").exception("oops")
            def shows():
                try: work()
                except Exception: traceback.print_exc()
            def hides():
                try: work()
                except Exception as error: str(error)
            value = Value()
            value = None
            serve(), shows(), hides()
        ''', at={"2": ["stop.catcher[0].f_code.co_name"]})
        self.assertEqual(rows, [
            ("reported", "__del__", "ValueError"), ("reported", "work", "KeyError"),
            ("eval", "'serve'"), ("reported", "work", "KeyError")], self.ended)
        rows = self.debug("import threading\ndef f(): 1 // 0\nt = threading.Thread(target=f)\n"
                          "t.start()\nt.join()\n", {"wanted": ["uncaught"]})
        self.assertEqual(rows, [])

    def test_unit_tests(self):
        rows = self.debug('''
            import unittest
            class Case(unittest.TestCase):
                def test_fails(self): self.work()
                def work(self): raise ValueError("x")
                def test_passes(self):
                    with self.assertRaises(ValueError): self.work()
                def test_skips(self): self.skipTest("not now")
            result = unittest.TestResult()
            unittest.defaultTestLoader.loadTestsFromTestCase(Case).run(result)
            print(len(result.errors), len(result.skipped))
        ''')
        self.assertEqual(rows, [("reported", "work", "ValueError")], self.ended)

    def test_steps_go_on_after_it(self):
        rows = self.debug('''\
            import traceback
            def work(): raise KeyError("x")
            def serve():
                try: work()
                except Exception: traceback.print_exc()
                return 1
            serve()
        ''', commands=["continue_run", "step_over", "step_over", "step_over", "step_over"])
        self.assertEqual(rows, [
            ("reported", "work", "KeyError"), ("exception", "serve", "KeyError"),
            ("step", "serve", 5), ("step", "serve", 6), ("return", "serve", 6)], self.ended)


@time_limit(120)
class Rules(SessionCase):
    kProgram = '''\
import errno
class MyError(LookupError): pass
class Outer(object):
    class Inner(Exception): pass
def raises(kind):
    try: raise kind("x")
    except Exception: pass
def late():
    import helper_of_test
    raises(helper_of_test.Late)
import os, sys
with open(os.path.join(sys.path[0], "helper_of_test.py"), "w") as out:
    out.write("class Late(Exception): pass\\n")
raises(KeyError)
raises(IndexError)
raises(MyError)
raises(Outer.Inner)
late()
'''

    def kinds(self, always=(), never=(), **options):
        rules = {"always": list(always), "never": list(never)}
        rules.update(options)
        return [row[kType] for row in self.debug(self.kProgram, rules)]

    def test_types_that_always_stop(self):
        self.assertEqual(self.kinds(["LookupError"]), ["KeyError", "IndexError", "MyError"])
        self.assertEqual(self.kinds(["builtins.LookupError", "exceptions.IndexError"],
                                    ["KeyError"]),
                         ["IndexError", "MyError"])
        self.assertEqual(self.kinds(["Late", "__main__.MyError", "Inner"]),
                         ["MyError", "Inner", "Late"])
        self.assertEqual(self.kinds(["helper_of_test.Late", "other.MyError"]), ["Late"])

    def test_most_derived_name_decides(self):
        self.assertEqual(self.kinds(["MyError"], ["LookupError"]), ["MyError"])
        self.assertEqual(self.kinds([], ["Exception"], wanted=["raised"]), [])
        self.assertEqual(self.kinds([], ["LookupError", "Late"], wanted=["raised"]), ["Inner"])
        self.assertEqual(self.kinds(["KeyError"], ["KeyError"]), [])

    def test_types_that_never_stop(self):
        source = "def work():\n    {}['x']\nwork()\n"
        self.check(source, rules={"never": ["LookupError"]})
        self.check(source, rules={"wanted": []})
        self.check(source, ("uncaught", "work", "KeyError"), rules={"never": ["ValueError"]})

    def test_ignored_places(self):
        """Also where a `finally` has moved the innermost frame on."""
        source = '''\
import os
def work():
    try:
        {}["x"]
    finally:
        str()
def serve():
    work()
serve()
'''
        place = [("@PATH@", 4)]
        self.check(source, rules={"places": place})
        self.check(source, rules={"places": place, "wanted": ["raised", "uncaught"]})
        self.check(source, ("uncaught", "work", "KeyError"), rules={"places": [("@PATH@", 6)]})
        self.check("import no_such_module\n", rules={"places": [("@PATH@", 1)]})

    def test_changes_while_the_program_runs(self):
        loop = "for i in range(4):\n    try: {}[i]\n    except KeyError: pass\nprint('end')\n"
        rows = self.debug(loop, {"wanted": ["raised"]},
                          at={"2": ["server.exceptions.stop_on(())"]})
        self.assertEqual(len(rows), 3, rows)  # two stops, one of them with an answer
        rows = self.debug(loop, {"wanted": ["raised"]},
                          at={"1": [
                              "server.exceptions.ignore_place(*server.place_of_exception(stop))"]})
        self.assertEqual(len(rows), 2, rows)
        rows = self.debug(loop, {"always": ["KeyError"]},
                          at={"3": ["server.exceptions.set_types(never=['KeyError'])"]})
        self.assertEqual(len(rows), 4, rows)  # three stops

    def test_many_exceptions_become_cheaper(self):
        """Then the stop is in the function that prints, and at the end."""
        source = '''\
import traceback
def work(): {}["x"]
def quiet():
    try: work()
    except KeyError: pass
def serve():
    try: work()
    except Exception: traceback.print_exc()
for i in range(20): quiet()
serve()
print("go")
work()
'''
        rows = self.debug(source, many=15)
        self.assertEqual(rows[0][0], "notice")
        self.assertEqual(rows[1:],
                         [("reported", "work", "KeyError"), ("uncaught", "work", "KeyError")])
        self.assertEqual((self.ended.status, self.ended.out), (1, "go\n"))
        rows = self.debug(source, {"always": ["ValueError"]}, many=15)
        self.assertEqual(rows, [("reported", "work", "KeyError"), ("uncaught", "work", "KeyError")])


@time_limit(120)
class PostMortem(SessionCase):
    def test_shows_a_traceback_and_goes_on(self):
        rows = self.debug('''
            import sys, tdbg
            def boom(n): raise ValueError(n)
            try: boom(7)
            except ValueError: tdbg.post_mortem()
            try: boom(8)
            except ValueError: kept = sys.exc_info()[2]
            tdbg.post_mortem(kept)
            for call in (tdbg.post_mortem, tdbg.pm):
                getattr(sys, "exc_clear", int)()
                try: call()
                except ValueError as why: print(why)
            print("on")
        ''', at={"1": ["stop.stack[stop.index][0].f_locals['n']"]}, commands=["", "step_over"])
        self.assertEqual([row[:2] for row in rows], [
            ("post-mortem", "boom"), ("eval", "7"), ("post-mortem", "boom")])
        self.assertEqual(self.ended.out, "there is no traceback: no exception is being handled\n"
                         "no exception has been printed\non\n", self.ended)


class Table(TestCase):
    """The rules by themselves."""

    def rules(self):
        from tdbg import exceptions

        return exceptions.tExceptions(import_tracer(), lambda text: None, lambda frame: False)

    def test_settings_survive(self):
        rules = self.rules()
        self.assertEqual(rules.wanted, ("uncaught", "runner"))
        rules.stop_on(["raised"])
        rules.set_types(["b.C", " A "], ["builtins.KeyError"])
        rules.ignore_place("/x.py", 3)
        rules.ignore_place("/x.py", 3)
        other = self.rules()
        other.restore(rules.as_settings())
        self.assertEqual((other.wanted, other.always, other.never, other.ignored_places()),
                         (("raised",), ("A", "b.C"), ("KeyError",), [("/x.py", 3)]))
        other.heed_place("/x.py", 3)
        self.assertEqual(other.ignored_places(), [])
        self.assertRaises(ValueError, other.heed_place, "/x.py", 3)
        rules.clear_places()
        self.assertEqual(rules.ignored_places(), [])
        self.assertRaises(ValueError, rules.stop_on, ["sometimes"])
        self.assertEqual(rules.wanted, ("raised",))

    def test_strange_types(self):
        class Meta(type):
            def __getattribute__(cls, name):
                raise RuntimeError(name)

        from tdbg import exceptions

        strange = Meta("Strange", (ValueError,), {"__module__": "m"})
        rules = self.rules()
        rules.set_types(["Strange"], ["ValueError"])
        self.assertIs(rules._wish(strange), True)
        rules.set_types([], ["m.Strange"])
        self.assertIs(rules._wish(strange), False)
        self.assertIs(rules._wish(ValueError), None)
        rules.set_types(["x"])
        odd = type("x", (Exception,), {"__module__": 5})
        self.assertIs(rules._wish(odd), True)
        self.assertTrue(exceptions.is_exception_type(odd))
        self.assertFalse(exceptions.is_exception_type(5))
        self.assertFalse(exceptions.is_exception_type(int))

    @needs("python2")
    def test_old_style_classes(self):
        namespace = {}
        exec("class Base: pass\nclass Derived(Base): pass\n", namespace)
        rules = self.rules()
        rules.set_types(["Base"])
        self.assertIs(rules._wish(namespace["Derived"]), True)

    def test_values_that_are_not_made_yet(self):
        from tdbg.exceptions import with_instance

        class Counted(Exception):
            made = []

            def __init__(self, *args):
                self.made.append(args)

        self.assertEqual(repr(with_instance((KeyError, ("x",), None))[1]), repr(KeyError("x")))
        self.assertEqual(repr(with_instance((KeyError, None, None))[1]), repr(KeyError()))
        self.assertEqual(str(with_instance((ValueError, "text", None))[1]), "text")
        self.assertEqual(with_instance((Counted, "text", None))[1], "text")
        self.assertEqual(Counted.made, [])
        error = OSError(2, "x")
        self.assertIs(with_instance((OSError, error, None))[1], error)


if __name__ == "__main__":
    unittest.main()
