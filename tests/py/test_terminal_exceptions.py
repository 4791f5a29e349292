"""Exceptions in the terminal: what is shown, the commands on them,
and looking at them afterwards."""
from __future__ import absolute_import, division, print_function

import re
import sys
import unittest

from support import TestCase, run_program, time_limit
from support.programs import python_path, run_script
from support.terminal import PROMPT, debugger_argv, run_commands

kOncePerVersion = True

RAISING = """\
import traceback
class MyBase(LookupError): pass
class MyError(MyBase): pass
class Other(MyBase): pass

def boom(kind):
    raise kind("x")

def quiet(kind):
    try:
        boom(kind)
    except Exception:
        pass

def serve():
    try:
        boom(ValueError)
    except Exception:
        traceback.print_exc()

quiet(Other)
quiet(MyError)
serve()
boom(MyError)
"""


class TerminalCase(TestCase):
    def answers(self, source, commands, *options):
        """What each command has printed (the first one: what came before), and self.done."""
        self.path = self.make_file("prog.py", source)
        self.done = run_commands(commands, *(options + (self.path,)))
        return [text.strip("\n") for text in self.done.out.split(PROMPT)]


@time_limit(120)
class Stops(TerminalCase):
    def test_reported_and_uncaught(self):
        out = self.answers(RAISING, ["c", "w", "c", "c"])
        catcher = r"--Exception that is only printed or logged by \S+prog\.py\(\d+\)serve\(\)--\n"
        self.assertRegex(out[1],
                         catcher + r"ValueError: x\n> \S+prog\.py\(7\)boom\(\)\n-> raise kind")
        self.assertEqual(re.findall(r"\)(\S+)\(\)", out[2]), ["<module>", "serve", "boom"])
        self.assertIn("--Uncaught exception, the program ends after this--\nMyError: x\n", out[3])
        self.assertEqual(self.done.status, 1)
        alone = run_script(self.path)
        self.assertEqual((alone.status, alone.err), (self.done.status, self.done.err))

    def test_thread(self):
        out = self.answers(
            "import threading\ntry:\n    import _thread\nexcept ImportError:\n"
            "    import thread as _thread\n"
            "gate = _thread.allocate_lock()\ngate.acquire()\n"
            "class Opens(object):\n    def __del__(self): gate.release()\n"
            "def work(opens): raise ValueError(1)\n"
            "t = threading.Thread(target=work, args=(0,), name='worker')\nt.start()\nt.join()\n"
            "_thread.start_new_thread(work, (Opens(),))\n"
            "while not gate.acquire(0): __import__('time').sleep(0.001)\nprint('end')\n",
            ["c", "c", "q"])
        self.assertFalse(self.done.timed_out, self.done)
        self.assertRegex(
            out[1],
            r"\[thread worker\]\n--Exception that is only printed or logged by \S+threading\.py\(")
        self.assertIn("--Uncaught exception, the thread ends after this--\nValueError: 1\n", out[2])

    def test_shown_at_the_end_where_it_could_not_be_foreseen(self):
        source = ("class Keep(object):\n    def __enter__(self): return self\n"
                  "    def __exit__(self, *info): return bool(0)\n"
                  "def boom(value):\n    raise ValueError(value)\n\nwith Keep():\n    boom(7)\n")
        for last, status in (("c", 1), ("n", 1), ("q", 1)):
            out = self.answers(source, ["c", "p value", "u", last])
            self.assertIn("--Uncaught exception, the program ends after this--\nValueError: 7\n"
                          "> {}(5)boom()\n".format(self.path), out[1])
            self.assertEqual(out[2], "7")
            self.assertIn("(8)<module>()", out[3])
            alone = run_script(self.path)
            self.assertEqual((alone.status, alone.err), (self.done.status, self.done.err))
            self.assertEqual(self.done.status, status)


@time_limit(120)
class Commands(TerminalCase):
    def test_rules_are_made_shown_and_dropped(self):
        out = self.answers(RAISING, [
            "catch", "catch raised", "catch none", "catch uncaught runner", "until 7",
            "catch MyError, later.Error", "ignore OSError IOError", "catch", "ignore MyError",
            "catch later.Error", "catch", "forget MyError", "forget MyError", "forget all",
            "catch 5x", "catch traceback", "catch int", "ignore here",
            "ignore {}".format("prog.py:6"), "catch", "forget prog.py:6", "forget prog.py:6",
            "forget", "ignore 7", "ignore", "q"])
        default = "Exceptions that stop: uncaught, runner"
        self.assertEqual(out[1:5], [default, "Exceptions that stop: raised",
                                    "Exceptions that stop: none", default])
        mine, ioerror = "__main__.MyError", "OSError" if sys.version_info >= (3,) else "IOError"
        self.assertEqual(out[6], mine + " stops wherever it is raised.\n"
                                        "later.Error stops wherever it is raised.")
        self.assertEqual(out[7], "OSError never stops.\n{} never stops.".format(ioerror))
        never = ", ".join(sorted(set(("OSError", ioerror))))
        self.assertEqual(out[8],
                         default + "\nAlways: {}, later.Error\nNever: {}".format(mine, never))
        self.assertEqual(out[9], mine + " never stops.")
        never = ", ".join(sorted(set(("OSError", ioerror, mine))))
        self.assertEqual(out[11], default + "\nAlways: later.Error\nNever: " + never)
        self.assertEqual(out[12], "No rule on {} any more.".format(mine))
        self.assertEqual(out[13], "*** there is no rule on {}".format(mine))
        self.assertEqual(out[14], default)
        self.assertEqual(out[15:18],
                         ["*** 5x is no name of an exception", "*** traceback is no exception",
                          "*** int is no exception"])
        self.assertEqual(out[18], "*** no exception has been raised here")
        place = "{}:6".format(self.path)
        self.assertEqual(out[19], "No exception stops at {}.".format(place))
        self.assertEqual(out[20], default + "\nNot at " + place)
        self.assertEqual(out[21:24], ["Exceptions stop at {} again.".format(place),
                                      "*** exceptions are not ignored at {}".format(place),
                                      "*** forget what? `catch` lists all rules; `forget all` "
                                      "drops them"])
        self.assertEqual(out[24], "*** no breakpoint 7")
        self.assertTrue(out[25].startswith("*** ignore needs"))

    def test_types_and_places(self):
        out = self.answers(RAISING,
                           ["until 21", "catch MyBase", "c", "c", "ignore MyError", "c", "c"])
        self.assertIn("Other: x\n> {}(7)boom()".format(self.path), out[3])
        self.assertIn("MyError: x\n> {}(7)boom()".format(self.path), out[4])
        self.assertIn("only printed", out[6])
        self.assertEqual((len(out), self.done.status), (8, 1))
        out = self.answers(RAISING, ["c", "ignore here", "catch", "c"])
        self.assertEqual(out[2], "No exception stops at {}:7.".format(self.path))
        self.assertEqual((len(out), self.done.status), (5, 1), self.done)

    def test_rules_outlive_a_restart(self):
        out = self.answers(RAISING, ["until 21", "catch raised", "ignore MyError",
                                     "ignore prog.py:3", "restart", "catch", "q"])
        self.assertEqual(out[-2], "Exceptions that stop: raised\nNever: __main__.MyError\n"
                                  "Not at {}:3".format(self.path))

    def test_help(self):
        out = self.answers("x = 1\n", ["help catch", "help ignore", "help forget", "q"])
        for command, text in zip(("catch", "ignore", "forget"), out[1:]):
            self.assertTrue(text.startswith(command), text)


@time_limit(120)
class PostMortem(TerminalCase):
    def test_option(self):
        out = self.answers(RAISING, ["p kind.__name__", "catch", "c"], "--post-mortem")
        self.assertTrue(out[0].startswith("--Uncaught exception, the program ends after this--\n"
                                          "MyError: x\n"), out)
        self.assertEqual(out[1:3], ["'MyError'", "Exceptions that stop: uncaught"])
        alone = run_script(self.path)
        self.assertEqual((alone.status, alone.err), (self.done.status, self.done.err))

    def test_option_with_programs_that_end_well(self):
        for source, status in (("print('fine')\n", 0), ("import sys\nsys.exit(4)\n", 4)):
            out = self.answers(source, [], "--post-mortem")
            self.assertNotIn("(Tdb)", self.done.out)
            self.assertEqual((self.done.status, self.done.err), (status, ""), out)

    def test_option_stops_where_the_program_asks_for_it(self):
        out = self.answers("import tdbg\nx = 1\ntdbg.set_trace()\n", ["p x", "c"], "--post-mortem")
        self.assertIn("(3)<module>()\n-> tdbg.set_trace()", out[0])
        self.assertEqual((out[1], self.done.status), ("1", 0))

    def test_option_after_the_interpreter(self):
        done = run_program(debugger_argv("--post-mortem", "--python", "3.9", "x.py"))
        self.assertEqual((done.status, done.err),
                         (2, "tdbg: --python must come before the other options\n"))

    PLAIN = """\
from __future__ import print_function
import sys
import tdbgtracer
import tdbg

class Quiet(object):
    def __repr__(self): return "quiet"

def boom(value):
    other = Quiet()
    raise ValueError(value)

def handle():
    try:
        boom(7)
    except ValueError:
        tdbg.post_mortem()

handle()
print("after", sys.gettrace(), "tdbgtracer" in repr(__import__))
sys.exc_clear() if hasattr(sys, "exc_clear") else None
for call in (tdbg.post_mortem, tdbg.pm):
    try: call()
    except ValueError as why: print(why)
    getattr(sys, "exc_clear", int)()
if len(sys.argv) > 1:
    def hook(*info):
        sys.last_type, sys.last_value, sys.last_traceback = info
        tdbg.pm()
    sys.excepthook = hook
boom(8)
"""

    def test_functions_in_a_program_of_its_own(self):
        path = self.make_file("prog.py", self.PLAIN)
        for last in ("c", "q", "s", "n", "r", ""):
            done = run_program([sys.executable, path], env={"PYTHONPATH": python_path()},
                               stdin="\n".join(
                                   ["p value, other", "value = 9", "p value", "u", "w", "restart",
                                    "catch", "b 3", last] + [""] * bool(last)))
            out = [text.strip("\n") for text in done.out.split(PROMPT)]
            self.assertTrue(out[0].startswith("--Post-mortem--\nValueError: 7\n> "), done)
            self.assertIn("(11)boom()", out[0])
            self.assertEqual(out[1], "(7, quiet)")
            self.assertIn("(15)handle()", out[4])
            self.assertEqual(re.findall(r"\)(\S+)\(\)", out[5]), ["<module>", "handle", "boom"])
            self.assertIn("*** cannot restart", out[6])
            after = out[-1].splitlines()
            self.assertEqual(after[-3:], [
                "after None False", "there is no traceback: no exception is being handled",
                "no exception has been printed"], done)
            self.assertEqual((done.status, "ValueError: 8" in done.err), (1, True), done)

    def test_last_exception(self):
        path = self.make_file("prog.py", self.PLAIN)
        done = run_program([sys.executable, path, "hook"], env={"PYTHONPATH": python_path()},
                           stdin="c\np value\nc\n")
        out = done.out.split(PROMPT)
        self.assertIn("--Post-mortem--\nValueError: 8\n", out[1])
        self.assertEqual(out[2], "8\n", done)
        self.assertEqual((done.status, done.err), (1, ""))

    def test_in_a_program_under_the_debugger(self):
        out = self.answers(self.PLAIN, ["c", "p value, other", "u",
                                        "import tdbg; tdbg.post_mortem()", "n", "c"])
        self.assertTrue(out[1].startswith("--Post-mortem--\nValueError: 7\n> "), self.done)
        self.assertEqual(out[2], "(7, quiet)")
        self.assertEqual(out[4], "*** RuntimeError: the program is stopped already")
        self.assertIn("after", out[5])
        self.assertIn("--Uncaught exception", out[5])
        self.assertEqual(self.done.status, 1)


if __name__ == "__main__":
    unittest.main()
