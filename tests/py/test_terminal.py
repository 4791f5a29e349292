# coding: utf-8
"""The debugger in a terminal: its commands, and what the program notices."""
from __future__ import absolute_import, division, print_function

import os
import re
import signal
import sys
import unittest

from support import TestCase, has, needs, run_program
from support.terminal import PACKAGE, PROMPT, debugger_argv, run_commands

kOncePerVersion = True

FACTORIAL = """\
def factorial(n):
    if n < 2:
        return 1  #@ innermost
    return n * factorial(n - 1)

result = factorial(4)  #@ call
print("result", result)  #@ after
"""


class Stepping(TestCase):
    def setUp(self):
        self.path = self.make_file("prog.py", FACTORIAL)

    def stops(self, commands, source=None, *arguments):
        """[(line, function)] of every stop that the commands lead to."""
        path = self.path if source is None else self.make_file("prog.py", source)
        done = run_commands(commands, path, *arguments)
        found = re.findall(r"^(?:\(Tdb\) )*> \S+\((\d+)\)(\S+)\(\)", done.out, re.M)
        return [(int(line), name) for line, name in found]

    def test_first_stop_is_at_the_first_line(self):
        done = run_commands(["c"], self.path)
        self.assertIn("> {}(1)<module>()\n-> def factorial(n):\n(Tdb) ".format(self.path), done.out)
        self.assertEqual((done.status, done.err), (0, ""), done)

    def test_step_goes_into_functions_and_next_does_not(self):
        self.assertEqual(self.stops(["n", "s", "n", "n", "q"]), [
            (1, "<module>"), (6, "<module>"), (2, "factorial"), (4, "factorial"), (4, "factorial")])
        self.assertEqual(self.stops(["next", "next", "quit"]), [
            (1, "<module>"), (6, "<module>"), (7, "<module>")])

    def test_return_shows_the_value(self):
        done = run_commands(["n", "s", "return", "retval", "next", "q"], self.path)
        self.assertIn("--Return--\n> {}(4)factorial()->24\n".format(self.path), done.out)
        self.assertIn("(Tdb) 24\n", done.out)
        self.assertIn("> {}(7)<module>()\n".format(self.path), done.out)

    def test_return_of_the_selected_frame(self):
        self.assertEqual(self.stops(["n", "s", "s", "s", "s", "up", "r", "q"])[-1],
                         (4, "factorial"))

    def test_next_in_the_selected_frame(self):
        stops = self.stops(["n", "s", "s", "s", "u", "u", "n", "q"])
        self.assertEqual(stops[-1], (7, "<module>"))

    def test_until_leaves_a_loop(self):
        source = "total = 0\nfor i in range(5):\n    total += i\nprint(total)\n"
        self.assertEqual(self.stops(["n", "n", "unt", "p total", "q"], source), [
            (1, "<module>"), (2, "<module>"), (3, "<module>"), (4, "<module>")])

    def test_until_a_line(self):
        source = "a = 1\nb = 2\nc = 3\nd = 4\n"
        self.assertEqual(self.stops(["until 3", "q"], source), [(1, "<module>"), (3, "<module>")])
        done = run_commands(["n", "until 1", "c"], self.make_file("p.py", source))
        self.assertIn("*** `until` goes forward", done.out)

    def test_end_of_the_program_is_the_end(self):
        done = run_commands(["n", "n", "n", "n", "n", "n", "n"], self.path)
        self.assertEqual(done.status, 0)
        self.assertEqual(done.out.count("--Return--"), 1, done)
        self.assertTrue(done.out.endswith("(Tdb) "), done)

    def test_stepping_into_an_import(self):
        folder = self.make_dir()
        self.make_file("other.py", "x = 1\ny = 2\n", folder)
        path = self.make_file("prog.py", "import other\nprint(other.y)\n", folder)
        done = run_commands(["s", "s", "s", "s", "q"], path)
        self.assertIn("> {}(1)<module>()".format(os.path.join(folder, "other.py")), done.out)
        self.assertIn("> {}(2)<module>()\n-> print".format(path), done.out)
        self.assertNotIn("importlib", done.out)

    def test_generator_is_stepped_through(self):
        source = "def gen():\n    yield 1\n    yield 2\n\nfor i in gen():\n    print(i)\n"
        self.assertEqual(self.stops(["n", "s", "n", "n", "q"], source)[:3], [
            (1, "<module>"), (5, "<module>"), (2, "gen")])
        self.assertEqual(self.stops(["n", "n", "n", "n", "n", "n"], source), [
            (1, "<module>"), (5, "<module>"), (6, "<module>"), (5, "<module>"), (6, "<module>"),
            (5, "<module>"), (5, "<module>")])

    FAILING = """\
def fail():
    x = 1
    raise ValueError("bad")

def middle():
    fail()

try:
    middle()
except ValueError:
    print("caught")
"""

    def test_next_over_a_call_that_raises_goes_to_the_handler(self):
        self.assertEqual(self.stops(["n"] * 5 + ["q"], self.FAILING), [
            (1, "<module>"), (5, "<module>"), (8, "<module>"), (9, "<module>"), (10, "<module>"),
            (11, "<module>")])

    def test_leaving_a_function_by_an_exception_is_no_return(self):
        path = self.make_file("prog.py", self.FAILING)
        done = run_commands(["until 9", "s", "s", "n", "n", "w", "c"], path)
        self.assertNotIn("--Return--", done.out)
        self.assertIn("ValueError: bad\n> {}(6)middle()".format(path), done.out)
        self.assertIn("caught", done.out)
        self.assertEqual((done.status, done.err), (0, ""), done)

    def test_exception_while_stepping_in_is_shown_where_it_is_raised(self):
        path = self.make_file("prog.py", self.FAILING)
        done = run_commands(["until 9", "s", "s", "s", "s", "p x", "c"], path)
        self.assertIn("ValueError: bad\n> {}(3)fail()".format(path), done.out)
        self.assertIn("(Tdb) 1\n", done.out)

    def test_empty_line_repeats_and_separator_splits(self):
        self.assertEqual(self.stops(["n", "", "q"]),
                         [(1, "<module>"), (6, "<module>"), (7, "<module>")])
        self.assertEqual(self.stops(["n ;; s", "q"]),
                         [(1, "<module>"), (6, "<module>"), (2, "factorial")])


class Commands(TestCase):
    """What the commands print."""

    def run_in(self, source, commands, **options):
        """Output after each command."""
        self.path = self.make_file("prog.py", source, self.make_dir())
        self.done = run_commands(commands, self.path, **options)
        return self.done.out.split(PROMPT)[1:]

    def test_list_goes_on_and_begins_again(self):
        source = "".join("x{} = {}\n".format(i, i) for i in range(1, 31))
        out = self.run_in(source, ["l", "l", "list .", "list 20, 22", "list 5,2", "q"])
        self.assertEqual(out[0].splitlines()[0], "  1  ->\tx1 = 1")
        self.assertEqual(len(out[0].splitlines()), 11)
        self.assertEqual(out[1].splitlines()[0], " 12    \tx12 = 12")
        self.assertEqual(out[2], out[0])
        self.assertEqual([line.split()[0] for line in out[3].splitlines()], ["20", "21", "22"])
        self.assertEqual([line.split()[0] for line in out[4].splitlines()], ["5", "6", "7"])

    def test_list_ends_with_the_file(self):
        out = self.run_in("a = 1\nb = 2\n", ["list", "q"])
        self.assertEqual(out[0], "  1  ->\ta = 1\n  2    \tb = 2\n[EOF]\n")

    def test_longlist_shows_the_function(self):
        out = self.run_in(FACTORIAL, ["n", "s", "ll", "q"])
        self.assertEqual([line.split()[0] for line in out[2].splitlines()], ["1", "2", "3", "4"])
        self.assertIn("  2  ->\t    if n < 2:", out[2])

    def test_where_up_down(self):
        out = self.run_in(FACTORIAL,
                          ["n", "s", "s", "s", "w", "u", "p n", "d", "d", "u 5", "u", "q"])
        self.assertEqual(
            re.findall(r"^(..)\S+\((\d+)\)(\S+)\(\)", out[4], re.M),
            [("  ", "6", "<module>"), ("  ", "4", "factorial"), ("> ", "2", "factorial")])
        self.assertIn("(4)factorial()", out[5])
        self.assertEqual(out[6], "4\n")
        self.assertIn("(2)factorial()", out[7])
        self.assertEqual(out[8], "*** Newest frame\n")
        self.assertIn("(6)<module>()", out[9])
        self.assertEqual(out[10], "*** Oldest frame\n")

    def test_no_frame_of_the_debugger_is_in_the_stack(self):
        out = self.run_in("import traceback\ntraceback.print_stack()\n", ["w", "n", "w", "c"])
        self.assertEqual(out[0].count("> "), 2)
        self.assertNotIn("tdbg", (out[0] + out[2]).replace(self.path, ""))
        self.assertEqual(self.done.err.count("File"), 1, self.done)

    def test_args_and_locals(self):
        source = "def f(a, b=2, *rest, **more):\n    c = a\n    return c\n\nf(1, 3, 4, k='v')\n"
        out = self.run_in(source, ["n", "s", "n", "args", "locals", "q"])
        self.assertEqual(out[3], "a = 1\nb = 3\nrest = (4,)\nmore = {'k': 'v'}\n")
        self.assertEqual(out[4], "a = 1\nb = 3\nc = 1\nmore = {'k': 'v'}\nrest = (4,)\n")

    def test_print_and_its_relatives(self):
        source = ("import collections\ndef f(x):\n    'doc'\n    return x\n"
                  "data = list(range(60))\npass\n")
        out = self.run_in(source, [
            "n", "n", "n", "p data[:3], 'x'", "pp data", "whatis f", "whatis data",
            "whatis collections.deque", "source f", "p nothing", "p 1 +", "p", "q"])
        self.assertEqual(out[3], "([0, 1, 2], 'x')\n")
        self.assertEqual(len(out[4].splitlines()), 60)
        self.assertEqual(out[5], "Function f\n")
        self.assertEqual(out[6], "<{} 'list'>\n".format("type" if has("python2") else "class"))
        self.assertEqual(out[7], "Class collections.deque\n")
        self.assertEqual(out[8].splitlines()[0], "  2  \tdef f(x):")
        self.assertEqual(out[9], "*** NameError: name 'nothing' is not defined\n")
        self.assertIn("*** SyntaxError", out[10])
        self.assertEqual(out[11], "*** p needs an expression\n")

    def test_comprehension_sees_local_variables(self):
        source = "def f(a):\n    b = 2\n    return a\n\nf(3)\n"
        out = self.run_in(source,
                          ["n", "s", "n", "p [a * i for i in range(b)]", "p (lambda: a)()", "q"])
        self.assertEqual(out[3:5], ["[0, 3]\n", "3\n"])

    def test_assigning_a_local_variable(self):
        source = "def f(a):\n    b = a\n    return a, b\n\nprint(f(1))\n"
        out = self.run_in(source, ["n", "s", "n", "!a = 77", "b = 'new'", "p a, b", "c"])
        self.assertEqual(out[5], "(77, 'new')\n")
        self.assertIn("77", out[6])
        self.assertIn("'new'", out[6])

    def test_assigning_in_an_outer_frame(self):
        source = "def g():\n    return 0\n\ndef f(a):\n    g()\n    return a\n\nprint(f(1))\n"
        out = self.run_in(source, ["n", "n", "s", "s", "u", "!a = 5", "c"])
        self.assertIn("5\n", out[6])

    def test_deleting_a_local_variable(self):
        source = "def f(a):\n    b = 1\n    return 'b' in locals()\n\nprint(f(1))\n"
        out = self.run_in(source, ["n", "s", "n", "!del b", "c"])
        if sys.version_info >= (3, 13):  # its frames refuse that
            self.assertIn("*** ", out[3])
        elif sys.version_info >= (3, 12):  # there it becomes None
            self.assertEqual(self.done.err, "")
        else:
            self.assertIn("False\n", out[4])

    def test_statement_that_looks_like_a_command(self):
        out = self.run_in("pass\n", ["n = 5", "!p = 6", "p n, p", "c"])
        self.assertEqual(out[2], "(5, 6)\n")

    def test_statement_of_several_lines(self):
        out = self.run_in("pass\n", ["for i in range(3):", "    print('turn', i)", "", "p i", "c"])
        text = "".join(out)
        self.assertEqual(text.count("turn"), 3, self.done)

    def test_statement_that_fails(self):
        out = self.run_in("pass\n",
                          ["!1/0", "!raise SystemExit(5)", "!import sys; sys.exit(4)", "p 1", "c"])
        self.assertIn("*** ZeroDivisionError: ", out[0])
        self.assertEqual(out[1:4], ["*** SystemExit: 5\n", "*** SystemExit: 4\n", "1\n"])
        self.assertEqual(self.done.status, 0)

    def test_help_names_every_command(self):
        out = self.run_in("pass\n", ["help", "h where", "help nonsense", "q"])
        for name in ("step", "next", "until", "return", "continue", "list", "longlist", "where",
                     "up", "down", "args", "locals", "p", "pp", "whatis", "source", "help",
                     "quit", "restart"):
            self.assertRegex(out[0], r"(?m)^{}\b".format(name))
        self.assertIn("Show the stack", out[1])
        self.assertEqual(out[2], "*** no command nonsense\n")


class Values(TestCase):
    SOURCE = """\
class Bad(object):
    def __repr__(self):
        raise ValueError("no text")

class Recursive(object):
    def __repr__(self):
        return repr(self)

class Leaving(object):
    def __repr__(self):
        raise SystemExit(9)

class Endless(object):
    def __repr__(self):
        while True:
            pass

class NoText(Exception):
    def __str__(self):
        raise KeyError("no str")

bad, recursive, leaving, endless = Bad(), Recursive(), Leaving(), Endless()
def f(value):
    return value
f(bad)
print("done")
"""

    def test_failing_repr(self):
        path = self.make_file("prog.py", self.SOURCE)
        done = run_commands(["until 23", "p bad", "p recursive", "p leaving", "pp [bad]", "n",
                             "s", "args", "r", "n", "!raise NoText()", "c"], path)
        out = done.out.split(PROMPT)
        self.assertEqual(out[2], "<Bad object: repr failed: ValueError: no text>\n")
        self.assertIn("<Recursive object: repr failed: R", out[3])
        self.assertEqual(out[4], "<Leaving object: repr failed: SystemExit: 9>\n")
        self.assertIn("repr failed", out[5])
        self.assertEqual(out[8], "value = <Bad object: repr failed: ValueError: no text>\n")
        self.assertIn("f()-><Bad object: repr failed", out[9])
        self.assertIn("*** NoText", out[11])
        self.assertEqual((done.status, done.err), (0, ""), done)

    def test_endless_repr_is_given_up(self):
        path = self.make_file("prog.py", self.SOURCE)
        done = run_commands(["until 23", "p endless", "p 1", "c"], path)
        out = done.out.split(PROMPT)
        self.assertEqual(out[2:4], ["<Endless object: repr takes too long>\n", "1\n"])
        self.assertIn("done\n", out[4])
        self.assertEqual((done.status, done.err), (0, ""), done)


class Transparency(TestCase):
    """The program sees what it would see without a debugger."""

    def compare(self, source, arguments=(), commands=("c", "c"), name="prog.py", target=None):
        """Run with and without; status and standard error must be the same, output too but for
        the debugger's own lines.  Returns how the plain run ended."""
        folder = self.make_dir()
        path = self.make_file(name, source, folder)
        target = list(target or [path]) + list(arguments)
        plain = run_program([sys.executable] + target, cwd=folder)
        done = run_commands(commands, *target, cwd=folder)
        self.assertEqual(done.status, plain.status, done)
        self.assertEqual(done.err, plain.err)
        own = r"(?m)^((\(Tdb\) )*(> .*|--.*--|\w+(Error|Interrupt).*)|-> .*)\n"
        self.assertEqual(re.sub(own, "", done.out).replace(PROMPT, ""), plain.out)
        return plain

    def test_names_and_path(self):
        self.compare("import sys, os\n"
                     "print(__name__, __file__, sys.argv, sys.path, sorted(globals()), sys.flags)\n"
                     "print(sys.executable, sys.excepthook, sys._getframe().f_back, "
                     "sorted(os.environ))\n"
                     "print(getattr(sys, 'orig_argv', None), sys.stdin.read(0), 'sitecustomize' "
                     "in sys.modules)\n",
                     ["one", "two words", "--option"])

    @needs("!python2")
    def test_loaded_modules(self):
        self.compare("import sys\nprint(sorted(m for m in sys.modules if 'tdbg' not in m))\n")

    def test_descriptors(self):
        self.compare("f = open(__file__)\nprint(f.fileno())\n")

    def test_uncaught_exception(self):
        plain = self.compare("def f():\n    raise ValueError('boom')\n\nf()\n")
        self.assertEqual(plain.status, 1)

    def test_chained_exception(self):
        self.compare("try:\n    {}['x']\nexcept KeyError:\n    1 / 0\n")

    def test_exception_hook(self):
        self.compare("import sys\ndef hook(kind, value, tb):\n"
                     "    print('hook', kind.__name__, tb.tb_next)\n"
                     "sys.excepthook = hook\nraise ValueError(1)\n")

    def test_exit_status(self):
        for call, status in (("sys.exit()", 0), ("sys.exit(0)", 0), ("sys.exit(3)", 3),
                             ("sys.exit('text')", 1), ("raise SystemExit(4)", 4),
                             ("os._exit(5)", 5)):
            plain = self.compare("import os, sys\n" + call + "\n", commands=["c"])
            self.assertEqual(plain.status, status)

    def test_keyboard_interrupt(self):
        self.compare("raise KeyboardInterrupt\n")

    def test_death_by_signal(self):
        plain = self.compare("import os, signal\nos.kill(os.getpid(), signal.SIGTERM)\n")
        self.assertEqual(plain.status, -signal.SIGTERM)

    def test_exit_functions(self):
        plain = self.compare("import atexit, sys\natexit.register(print, 'bye')\nsys.exit(2)\n"
                             if not has("python2")
                             else "import atexit, sys\ndef bye():\n    print('bye')\n"
                                  "atexit.register(bye)\nsys.exit(2)\n")
        self.assertEqual((plain.out, plain.status), ("bye\n", 2))

    def test_signal_handlers(self):
        self.compare("import signal\n"
                     "print(signal.getsignal(signal.SIGINT) is signal.default_int_handler)\n"
                     "print([signal.getsignal(n) for n in range(1, signal.NSIG) if n != "
                     "signal.SIGINT])\n")

    def test_recursion_error(self):
        self.compare("import sys\ndef f(n):\n    return f(n + 1)\ntry:\n    f(0)\n"
                     "except RuntimeError:\n"
                     "    print('limit', sys.getrecursionlimit())\n")

    def test_module_and_package(self):
        folder = self.make_dir()
        self.make_file("pkg/__init__.py", "print('init')\n", folder)
        self.make_file("pkg/__main__.py",
                       "import sys\nprint(__name__, sys.argv, sys.path[0])\n1 / 0\n", folder)
        self.make_file("pkg/sub.py",
                       "import sys\nprint(__name__, __package__, sys.argv)\nsys.exit(6)\n", folder)
        for target, status in ((["-m", "pkg"], 1), (["-m", "pkg.sub", "x"], 6), (["pkg"], 1)):
            plain = run_program([sys.executable] + target, cwd=folder)
            done = run_commands(["c", "c"], *target, cwd=folder)
            self.assertEqual((done.status, done.err), (plain.status, plain.err), done)
            self.assertEqual(done.status, status)
            self.assertIn(plain.out.splitlines()[-1] + "\n", done.out)

    def test_module_stops_at_its_first_line(self):
        folder = self.make_dir()
        self.make_file("mod.py", "a = 1\nb = 2\n", folder)
        done = run_commands(["w", "n", "c"], "-m", "mod", cwd=folder)
        self.assertEqual(re.findall(r"\((\d+)\)<module>", done.out), ["1", "1", "2"], done)

    def test_archive(self):
        import zipfile
        path = os.path.join(self.make_dir(), "app.zip")
        with zipfile.ZipFile(path, "w") as archive:
            archive.writestr("__main__.py", "import sys\nprint(sys.argv)\nsys.exit(7)\n")
        done = run_commands(["n", "c"], path, "x")
        self.assertEqual(done.status, 7, done)
        self.assertIn("-> print(sys.argv)", done.out)

    def test_child_by_fork_runs_free(self):
        self.compare("import os, sys\npid = os.fork()\nif pid == 0:\n    a = 1\n    os._exit(7)\n"
                     "print(os.waitpid(pid, 0)[1] >> 8)\n", commands=["n", "c", "c"])

    def test_child_process_knows_nothing(self):
        self.compare("import subprocess, sys\n"
                     "print(subprocess.call([sys.executable, '-c', 'import os, sys;"
                     "assert not [k for k in os.environ if k.startswith(\"TDBG_START\")];"
                     "assert sys.gettrace() is None; sys.exit(5)']))\n")

    def test_threads(self):
        self.compare("import threading\ndef work(n):\n"
                     "    print(threading.current_thread().name, n)\n"
                     "for i in range(3):\n"
                     "    t = threading.Thread(target=work, args=(i,), name='w%d' % i)\n"
                     "    t.start()\n    t.join()\n"
                     "print(threading.active_count(), threading.enumerate())\n"
                     .replace(", threading.enumerate()", ""))

    def test_input_after_commands(self):
        path = self.make_file("prog.py", "import sys\nprint('read', sys.stdin.readline())\n")
        done = run_commands(["n", "n", "for the program"], path)
        self.assertIn("read for the program", done.out.replace("('read', '", "read "))

    def test_redirected_and_closed_streams(self):
        source = ("import sys\nclass Sink(object):\n    def write(self, text): pass\n"
                  "    def flush(self): 1 / 0\n"
                  "sys.stdout = sys.stderr = Sink()\nsys.stdin = None\nx = 5\n{}\ny = 6\n")
        for extra in ("pass", "import os; os.close(1)", "sys.__stdout__.close()", "del sys.stdout"):
            path = self.make_file("prog.py", source.format(extra))
            done = run_commands(["until 9", "p x + 1", "c"], path)
            self.assertIn("(Tdb) 6\n", done.out, (extra, done))


class OwnModules(TestCase):
    def test_program_may_have_modules_of_the_same_name(self):
        folder = self.make_dir()
        self.make_file("display.py", "x = 1\n", folder)
        self.make_file("evaluate.py", "x = 2\n", folder)
        self.make_file("codeop.py", "x = 3\n", folder)
        names = "display, evaluate" if has("python2") else "display, evaluate, codeop"
        path = self.make_file(
            "prog.py", "import {}\nprint([m.x for m in ({},)])\n".format(names, names), folder)
        done = run_commands(["n", "p display.x", "c"], path)
        self.assertIn("[1, 2", done.out)
        self.assertEqual(done.status, 0, done)


class Uncaught(TestCase):
    SOURCE = "def inner(value):\n    return 1 / value\n\ndef outer():\n    inner(0)\n\nouter()\n"

    def test_stop_with_all_frames(self):
        path = self.make_file("prog.py", self.SOURCE)
        done = run_commands(["c", "p value", "w", "u", "u", "c"], path)
        out = done.out.split(PROMPT)
        self.assertIn("--Uncaught exception, the program ends after this--\nZeroDivisionError: ",
                      out[1])
        self.assertIn("> {}(2)inner()".format(path), out[1])
        self.assertEqual(out[2], "0\n")
        self.assertEqual(re.findall(r"prog\.py\((\d+)\)", out[3]), ["7", "5", "2"])
        self.assertEqual(done.status, 1)
        self.assertIn("Traceback (most recent call last):", done.err)

    def test_every_command_ends_the_program_the_usual_way(self):
        path = self.make_file("prog.py", self.SOURCE)
        for command in ("c", "n", "s", "r", "unt", "q"):
            done = run_commands(["c", command], path)
            self.assertEqual((command, done.status), (command, 1), done)
            self.assertIn("ZeroDivisionError", done.err)

    def test_end_of_commands_ends_the_program_the_usual_way(self):
        path = self.make_file("prog.py", self.SOURCE)
        done = run_commands(["c"], path)
        self.assertEqual(done.status, 1, done)

    def test_shown_once_when_stepping(self):
        path = self.make_file("prog.py", "x = 1\nraise ValueError(x)\n")
        done = run_commands(["n", "n", "n", "n", "n"], path)
        self.assertEqual(done.out.count("ValueError: 1"), 1, done)
        self.assertEqual(done.status, 1)

    def test_exit_is_no_error(self):
        path = self.make_file("prog.py", "import sys\ndef f():\n    sys.exit(0)\nf()\n")
        done = run_commands(["c"], path)
        self.assertEqual((done.status, done.out.count(PROMPT)), (0, 1), done)

    def test_caught_exceptions_do_not_stop(self):
        path = self.make_file("prog.py", "try:\n    1 / 0\nexcept ZeroDivisionError:\n    pass\n"
                                         "for x in iter([]):\n"
                                         "    pass\nprint('end')\n")
        done = run_commands(["c"], path)
        self.assertEqual((done.status, done.out.count(PROMPT)), (0, 1), done)


class Ending(TestCase):
    def test_quit_runs_exit_functions_and_nothing_else(self):
        source = ("import atexit, sys\ndef bye():\n    print('bye')\natexit.register(bye)\n"
                  "try:\n    x = 1\n    y = 2\nfinally:\n    print('finally')\n")
        path = self.make_file("prog.py", source)
        done = run_commands(["until 7", "q"], path)
        self.assertEqual((done.status, done.err), (0, ""), done)
        self.assertIn("bye\n", done.out)
        self.assertNotIn("finally\n", done.out)

    def test_end_of_commands_quits(self):
        path = self.make_file("prog.py", "import sys\nprint('ran')\nsys.exit(3)\n")
        done = run_commands([], path)
        self.assertEqual(done.status, 0, done)
        self.assertNotIn("ran\n", done.out)

    def test_quit_while_a_thread_runs(self):
        source = ("import threading\nevent = threading.Event()\ndef work():\n    event.wait()\n"
                  "t = threading.Thread(target=work)\nt.start()\nx = 1\nt.join()\n")
        path = self.make_file("prog.py", source)
        done = run_commands(["until 7", "q"], path)
        self.assertEqual((done.status, done.timed_out), (0, False), done)

    def test_restart(self):
        folder = self.make_dir()
        source = ("import os, sys\ncount = len(os.listdir('.'))\n"
                  "open('run%d' % count, 'w').close()\n"
                  "os.environ['LEFT'] = 'over'\nos.mkdir('sub%d' % count)\n"
                  "os.chdir('sub%d' % count)\nx = 1\n")
        path = self.make_file("prog.py", source)
        commands = ["until 7", "p sys.argv[1:], sorted(os.listdir('..'))", "restart", "n",
                    "p os.environ.get('LEFT'), len(os.listdir('.'))", "restart a 'b c'", "n",
                    "p sys.argv[1:]", "c"]
        done = run_commands(commands, path, "first", cwd=folder)
        self.assertIn("(['first'], ['run0', 'sub0'])", done.out)
        self.assertIn("(None, 2)", done.out)
        self.assertIn("['a', 'b c']", done.out)
        self.assertEqual(done.status, 0, done)


class Refusals(TestCase):
    def refused(self, *arguments):
        done = run_program(debugger_argv(*arguments), cwd=self.make_dir())
        self.assertEqual((done.status, done.out), (2, ""), done)
        self.assertEqual(len(done.err.splitlines()), 1, done)
        return done.err

    def test_missing_program(self):
        self.assertIn("cannot open nowhere.py: No such file", self.refused("nowhere.py"))

    def test_syntax_error(self):
        path = self.make_file("wrong.py", "x = 1\ndef f(:\n")
        self.assertRegex(self.refused(path), r"SyntaxError in .*wrong\.py, line 2: ")

    def test_no_source(self):
        self.assertIn("wrong.py", self.refused(self.make_file("wrong.py", b"x = 1\0\n")))

    def test_folder(self):
        self.assertIn("without a __main__.py", self.refused(self.make_dir()))

    def test_missing_modules(self):
        self.assertIn("no module named no_such_module", self.refused("-m", "no_such_module"))
        self.assertIn("no module named os.path.x", self.refused("-m", "os.path.x"))
        self.assertIn("has no __main__ module", self.refused("-m", "email"))

    def test_wrong_command_line(self):
        self.assertIn("no program given", self.refused())
        self.assertIn("unknown option --what", self.refused("--what"))

    def test_library_that_cannot_be_loaded(self):
        path = self.make_file("prog.py", "pass\n")
        library = self.make_file("lib.so", "no library")
        done = run_program([sys.executable, os.path.join(PACKAGE, "__main__.py"), "--library",
                            library, path])
        self.assertEqual((done.status, done.out), (2, ""), done)
        self.assertIn("tdbg: cannot debug here", done.err)

    def test_help(self):
        done = run_program(debugger_argv("--help"))
        self.assertEqual((done.status, done.err), (0, ""), done)
        self.assertIn("usage: tdbg", done.out)

    def test_run_as_a_module(self):
        path = self.make_file("prog.py", "print('hello')\n")
        argv = debugger_argv(path)
        argv[1:2] = ["-m", "tdbg"]
        done = run_program(argv, stdin="c\n", env={"PYTHONPATH": os.path.dirname(PACKAGE)})
        self.assertIn("hello\n", done.out)
        self.assertEqual(done.status, 0, done)


if __name__ == "__main__":
    unittest.main()
