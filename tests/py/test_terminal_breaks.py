# coding: utf-8
"""Breakpoints at the prompt, and programs that stop themselves."""
from __future__ import absolute_import, division, print_function

import os
import re
import shutil
import sys
import unittest

from support import TestCase, has, library_path, needs, run_program
from support.programs import python_path
from support.terminal import PACKAGE, PROMPT, Terminal, debug_on_terminal, run_commands

kOncePerVersion = True

PROGRAM = """\
import helper_module

def factorial(n):
    # by recursion

    if n < 2:
        return 1
    return n * factorial(n - 1)

class Thing(object):
    def method(self):
        return 5

for i in range(3):
    factorial(i)
helper_module.help_out(Thing())
print("end")
"""

HELPER = """\
def help_out(thing):
    value = thing.method()
    return value
"""

_numbers = re.compile(r"^(\d+)\s+(\w+)\s+(yes|no)\s+(\d+)\s+(.*)$", re.M)


class BreakTest(TestCase):
    def setUp(self):
        self.folder = self.make_dir()
        self.path = self.make_file("prog.py", PROGRAM, self.folder)
        self.helper = self.make_file("helper_module.py", HELPER, self.folder)

    def run_in(self, commands, path=None, **options):
        """What each command brought; the run itself is self.done."""
        options.setdefault("cwd", self.folder)
        self.done = run_commands(commands, path or self.path, **options)
        return self.done.out.split(PROMPT)[1:]

    def listed(self, text):
        """[(number, kind, enabled, hits, place)] of what `break` shows."""
        return [(int(row[0]), row[1], row[2], int(row[3]), row[4])
                for row in _numbers.findall(text)]

    def at(self, line, path=None):
        return "{}:{}".format(path or self.path, line)


class Setting(BreakTest):
    def test_by_line(self):
        out = self.run_in(["b 6", "break", "c", "c", "b", "q"])
        self.assertEqual(out[0], "Breakpoint 1 at {}\n".format(self.at(6)))
        self.assertEqual(self.listed(out[1]), [(1, "breakpoint", "yes", 0, self.at(6))])
        self.assertIn("--Breakpoint 1--\n> {}(6)factorial()\n-> if n < 2:\n".format(self.path),
                      out[2])
        self.assertEqual(self.listed(out[4]), [(1, "breakpoint", "yes", 2, self.at(6))])

    def test_line_without_code(self):
        out = self.run_in(["b 4", "b 5", "tbreak 13", "q"])
        self.assertEqual(out[0],
                         "Breakpoint 1 at {} (there is no code at line 4)\n".format(self.at(6)))
        self.assertEqual(out[1],
                         "Breakpoint 2 at {} (there is no code at line 5)\n".format(self.at(6)))
        self.assertEqual(out[2],
                         "Temporary breakpoint 3 at {} (there is no code at line 13)\n".format(
                             self.at(14)))

    def test_refusals(self):
        bad = [
            ("b 99", "has no line 99: it ends with line 17"), ("b 0", "has no line 0"),
            ("b nothing.py:3", "no file nothing.py"), ("b nothing", "no function nothing"),
            ("b prog.py:nothing", "no function nothing in "), ("b prog.py:", "is no place"),
            ("b :3", "is no place"), ("b 6,", "no condition after the comma"),
            ("b 6, n =", "is no expression"), ("tbreak", "needs a place"),
            ("condition", "needs a breakpoint's number"), ("condition 5 x", "no breakpoint 5"),
            ("condition x", "x is no breakpoint's number"), ("ignore", "needs"),
            ("ignore 1 2 3", "needs"), ("enable", "which one?"), ("disable 7", "no breakpoint 7"),
            ("clear 3", "no breakpoint 3"), ("clear prog.py:6", "no breakpoint at prog.py:6"),
            ("commands", "no breakpoint has been set"), ("commands 4", "no breakpoint 4"),
            ("b 1/0", "no function 1/0"), ("b", "No breakpoints.")]
        out = self.run_in([command for command, _ in bad] + ["c"])
        for (command, text), answer in zip(bad, out):
            self.assertIn(text, answer, command)
            self.assertEqual(answer.count("\n"), 1, answer)
            self.assertEqual(answer.startswith("*** "), command != "b", answer)
        self.assertEqual((self.done.status, self.done.err), (0, ""), self.done)

    def test_by_file_and_line_before_the_import(self):
        for name in ("helper_module.py", "helper_module", self.helper, "./helper_module.py"):
            out = self.run_in(["b {}:3".format(name), "c", "p value", "c"])
            self.assertEqual(out[0], "Breakpoint 1 at {}\n".format(self.at(3, self.helper)), name)
            self.assertIn("> {}(3)help_out()".format(self.helper), out[1])
            self.assertEqual(out[2], "5\n")
            self.assertEqual(self.done.status, 0)

    def test_by_function_before_the_import_and_before_it_is_defined(self):
        out = self.run_in(["b helper_module.help_out", "b factorial", "b Thing.method",
                           "b helper_module.py:help_out", "b", "c", "q"])
        self.assertEqual([row[4] for row in self.listed(out[4])], [
            self.at(2, self.helper) + " in helper_module.help_out", self.at(6) + " in factorial",
            self.at(12) + " in Thing.method", self.at(2, self.helper) + " in help_out"])
        self.assertIn("--Breakpoint 2--", out[5])

    def test_by_function_that_is_there(self):
        out = self.run_in(["until 14", "b factorial", "b Thing().method",
                           "b helper_module.help_out", "c", "q"])
        self.assertIn(self.at(6), out[1])
        self.assertIn(self.at(12), out[2])
        self.assertIn(self.at(2, self.helper), out[3])
        self.assertIn("(6)factorial()", out[4])

    def test_condition_at_once(self):
        out = self.run_in(["b factorial, n == 2", "c", "p n", "c"])
        self.assertEqual(out[2], "2\n")
        self.assertIn("end\n", out[3])

    def test_condition_with_a_comma(self):
        out = self.run_in(["b factorial, n in (2, 3)", "c", "p n", "b", "q"])
        self.assertEqual(out[2], "2\n")
        self.assertIn("     stop only if n in (2, 3)\n", out[3])

    def test_broken_condition(self):
        out = self.run_in(["b 6, nothing", "c", "condition 1", "c", "q"])
        self.assertIn("*** condition nothing of breakpoint 1: NameError: name 'nothing' is not "
                      "defined\n"
                      "> {}(6)factorial()".format(self.path), out[1])
        self.assertEqual(out[2], "Breakpoint 1 is now unconditional.\n")
        self.assertIn("--Breakpoint 1--\n", out[3])

    def test_program_elsewhere_than_its_folder(self):
        for name in ("helper_module.py:2", "prog.py:6"):
            out = self.run_in(["b " + name, "q"], cwd="/")
            self.assertIn("Breakpoint 1 at " + self.folder, out[0])

    @needs("!python2")
    def test_names_that_are_not_ascii(self):
        path = self.make_file(u"prögram.py", u"größe = 1\nx = 'ä'\nprint(x)\n", self.folder)
        out = self.run_in(["b 3, größe == 1", "b", "c", "c"], path)
        self.assertIn("--Breakpoint 1--", out[2])
        self.assertEqual(self.done.status, 0, self.done)

    def test_module_in_an_archive(self):
        import zipfile

        archive = os.path.join(self.folder, "archive.zip")
        with zipfile.ZipFile(archive, "w") as out:
            out.writestr("__main__.py", "x = 1\n\ny = 2\nprint('end')\n")
        out = self.run_in(["b 2", "c", "q"], archive)
        self.assertIn("(there is no code at line 2)", out[0])
        self.assertIn("(3)<module>()", out[1])


    def test_help_tells_all_of_them(self):
        out = self.run_in(["help", "h tbreak", "h cl", "q"])
        for name in ("break, b", "tbreak", "condition", "ignore", "enable", "disable", "clear, cl",
                     "commands"):
            self.assertRegex(out[0], r"(?m)^{}( |$)".format(name))
        self.assertIn("Stop there once.", out[1])
        self.assertIn("Delete these breakpoints", out[2])

    def test_place_in_the_selected_frame(self):
        out = self.run_in(["b help_out", "b helper_module:2", "c", "up", "b 17", "q"])
        self.assertEqual(out[0], "*** no function help_out\n")
        self.assertEqual(out[4], "Breakpoint 2 at {}\n".format(self.at(17)))


class Changing(BreakTest):
    def test_temporary(self):
        out = self.run_in(["tbreak factorial", "b", "c", "b", "c"])
        self.assertEqual(self.listed(out[1]),
                         [(1, "temporary", "yes", 0, self.at(6) + " in factorial")])
        self.assertIn("--Breakpoint 1, deleted--\n", out[2])
        self.assertEqual(out[3], "No breakpoints.\n")
        self.assertIn("end\n", out[4])

    def test_condition(self):
        out = self.run_in(["b 6", "condition 1 n == 2", "c", "p n", "condition 1", "c", "p n", "q"])
        self.assertEqual(out[1], "New condition set for breakpoint 1.\n")
        self.assertEqual((out[3], out[6]), ("2\n", "1\n"))

    def test_ignore(self):
        out = self.run_in(["b 6", "ignore 1 2", "b", "c", "p n", "ignore 1 1", "ignore 1",
                           "c", "b", "q"])
        self.assertEqual(out[1], "The next 2 hits of breakpoint 1 will not stop.\n")
        self.assertIn("     ignore next 2 hits\n", out[2])
        self.assertEqual(out[4:7], ["2\n", "The next 1 hit of breakpoint 1 will not stop.\n",
                                    "The next hit of breakpoint 1 will stop.\n"])
        self.assertEqual(self.listed(out[8])[0][3], 4)

    def test_disable_and_enable(self):
        out = self.run_in(["b 6", "b 12", "disable 1", "b", "c", "enable 1", "disable 1 2", "c"])
        self.assertEqual([row[2] for row in self.listed(out[3])], ["no", "yes"])
        self.assertIn("(12)method()", out[4])
        self.assertEqual(out[5], "Enabled breakpoint 1 at {}\n".format(self.at(6)))
        self.assertEqual(out[6].count("Disabled"), 2)
        self.assertIn("end\n", out[7])

    def test_nothing_is_changed_when_one_of_the_numbers_is_wrong(self):
        out = self.run_in(["b 6", "disable 1 9", "b", "q"])
        self.assertEqual(out[1], "*** no breakpoint 9\n")
        self.assertEqual(self.listed(out[2])[0][2], "yes")

    def test_clear(self):
        out = self.run_in(["b 6", "b 7", "b 7", "b 12", "clear 1", "cl prog.py:7", "b", "clear",
                           "n", "b", "clear", "y", "c"])
        self.assertEqual(out[4], "Deleted breakpoint 1 at {}\n".format(self.at(6)))
        self.assertEqual(out[5].count("Deleted"), 2)
        self.assertEqual([row[0] for row in self.listed(out[6])], [4])
        text = "".join(out[7:])
        self.assertEqual(text.count("Clear all breakpoints? "), 2)
        self.assertEqual(text.count("Deleted breakpoint 4"), 1)
        self.assertIn("end\n", out[-1])

    def test_two_on_one_line(self):
        out = self.run_in(["b 6, n == 1", "b 6", "c", "c", "disable 2", "c", "b", "q"])
        self.assertIn("--Breakpoint 2--\n>", out[2])
        self.assertIn("--Breakpoint 1--\n--Breakpoint 2--\n>", out[3])
        self.assertEqual([row[3] for row in self.listed(out[6])], [4, 2])

    def test_until_stops_at_a_breakpoint_before(self):
        out = self.run_in(["b factorial", "until 17", "q"])
        self.assertIn("(6)factorial()", out[1])

    def test_restart_keeps_them(self):
        out = self.run_in(["b 6, n == 1", "b 12", "tbreak helper_module:3", "b 7", "disable 2",
                           "clear 4", "ignore 1 1", "commands 1", "p 'here', n", "end", "c",
                           "restart", "b", "c", "b 16", "q"])
        rows = self.listed("".join(out[10:]))
        self.assertEqual([(row[0], row[1], row[2]) for row in rows][-3:], [
            (1, "breakpoint", "yes"), (2, "breakpoint", "no"), (3, "temporary", "yes")])
        text = "".join(out)
        self.assertIn("     stop only if n == 1\n", text)
        self.assertIn("('here', 1)\n", text)
        self.assertIn("Breakpoint 4 at " + self.at(16), text)


class Lists(BreakTest):
    def test_commands_are_run(self):
        out = self.run_in(["b factorial", "commands", "p 'n is', n", "end", "c", "p 'prompt'", "q"])
        text = "".join(out)
        self.assertIn("(com) (com) ", text)
        self.assertRegex(text, r"(?s)--Breakpoint 1--.*\('n is', 0\)\n.*'prompt'\n")

    def test_several_commands_in_a_line(self):
        done = run_commands(["b 16", "commands", "p 'one' ;; p 'two'", "p 'three' ;; c", "c"],
                            self.path)
        self.assertIn("'one'\n'two'\n'three'\n", done.out)
        self.assertIn("end\n", done.out)

    def test_silent_and_running_on(self):
        out = "".join(self.run_in(
            ["b factorial", "commands 1", "silent", "p 'n is', n", "c", "c"]))
        self.assertEqual(re.findall(r"'n is', (\d)", out), ["0", "1", "2", "1"])
        self.assertNotIn("--Breakpoint", out)
        self.assertIn("end\n", out)
        self.assertEqual(self.done.status, 0)

    def test_a_command_that_fails_does_not_end_the_list(self):
        out = "".join(self.run_in(["b 6", "commands", "p nothing", "p 'still'", "end", "c", "q"]))
        self.assertIn("*** NameError", out)
        self.assertIn("'still'\n", out)

    def test_list_is_taken_away(self):
        out = "".join(
            self.run_in(["b 6", "commands", "p 'gone'", "end", "commands 1", "end", "c", "q"]))
        self.assertNotIn("gone'\n", out)
        out = "".join(
            self.run_in(["b 6", "commands", "p 'gone'", "end", "clear 1", "b 6", "c", "q"]))
        self.assertNotIn("gone'\n", out)

    def test_list_of_a_temporary_breakpoint(self):
        out = "".join(self.run_in(["tbreak 6", "commands", "p 'once'", "c", "c"]))
        self.assertEqual(out.count("'once'\n"), 1)

    def test_broken_condition_is_shown_though_silent(self):
        out = "".join(self.run_in(["b 6, nothing", "commands", "silent", "end", "c", "q"]))
        self.assertIn("*** condition nothing of breakpoint 1", out)

    def test_end_of_the_input(self):
        out = "".join(self.run_in(["b 6", "commands", "p 5"]))
        self.assertEqual(self.done.status, 0, out)


class Programs(BreakTest):
    """Programs that stop themselves."""

    STOPPING = """\
def work(a):
    b = a
    STOP
    b += 1
    return b

for i in range(2):
    print(work(i))
print("end")
"""

    def script(self, stop):
        return self.make_file("stopping.py", self.STOPPING.replace("STOP", stop), self.folder)

    def run_plainly(self, commands, path):
        """Under the interpreter alone, with the debugger's package on the path."""
        with open(path) as source:  # loading the core before the program tells which one is meant
            start = "import tdbgtracer; exec(compile({!r}, {!r}, 'exec'))".format(
                source.read(), path)
        self.done = run_program(
            [sys.executable, "-c", start], stdin="".join(c + "\n" for c in commands),
            env={"PYTHONPATH": python_path()})
        return self.done.out.split(PROMPT)

    @needs("!python2")
    def test_breakpoint_function(self):
        if not hasattr(sys, "breakpointhook"):
            self.skipTest("no breakpoint()")
        out = self.run_in(["c", "n", "p b", "c", "c"], self.script("breakpoint()"))
        self.assertIn("> {}(3)work()\n-> breakpoint()\n".format(
            os.path.join(self.folder, "stopping.py")), out[0])
        self.assertIn("(4)work()", out[1])
        self.assertEqual(out[2], "0\n")
        self.assertIn("(3)work()", out[3])
        self.assertEqual((self.done.status, self.done.err), (0, ""))

    @needs("!python2")
    def test_variable_that_turns_breakpoint_off(self):
        if not hasattr(sys, "breakpointhook"):
            self.skipTest("no breakpoint()")
        out = self.run_in(["c"], self.script("breakpoint()"), env={"PYTHONBREAKPOINT": "0"})
        self.assertEqual(out[0], "1\n2\nend\n")
        out = self.run_in(["c"], self.script("breakpoint()"), env={"PYTHONBREAKPOINT": "os.getpid"})
        self.assertEqual(out[0], "1\n2\nend\n")

    def test_set_trace_under_the_debugger(self):
        for stop in ("import tdbg; tdbg.set_trace()", "from tdbg import set_trace; set_trace()"):
            out = self.run_in(["c", "n", "r", "c", "c"], self.script(stop))
            self.assertIn("(3)work()\n-> {}\n".format(stop), out[0])
            self.assertIn("(4)work()", out[1])
            self.assertIn("--Return--", out[2])
            self.assertIn("(3)work()", out[3])
            self.assertEqual((self.done.status, self.done.err), (0, ""))

    def test_set_trace_in_a_plain_program(self):
        path = self.script("import tdbg; tdbg.set_trace()")
        out = self.run_plainly(["w", "n", "p b", "s", "r", "c", "b 9", "c", "c"], path)
        self.assertEqual(out[0], "> {}(3)work()\n-> import tdbg; tdbg.set_trace()\n".format(path))
        self.assertIn("(8)<module>()", out[1])
        self.assertEqual(len(re.findall(r"(?m)^[ >] \S+\(\d+\)", out[1])), 3, out[1])
        self.assertNotIn("attach", out[1])
        self.assertIn("(4)work()", out[2])
        self.assertEqual(out[3], "0\n")
        self.assertIn("--Return--", out[5])
        self.assertIn("1\n> {}(3)work()".format(path), out[6])
        self.assertIn("--Breakpoint 1--", out[8])
        self.assertEqual((self.done.status, self.done.err, out[9]), (0, "", "end\n"))

    def test_name_taken_before_the_first_call(self):
        path = self.make_file("taken.py", "from tdbg import set_trace\nset_trace()\nx = 1\n"
                                          "set_trace()\nprint('end')\n")
        out = self.run_plainly(["c", "n", "c"], path)
        self.assertIn("(2)", out[0])
        self.assertIn("(4)", out[1])
        self.assertIn("(5)", out[2])
        self.assertEqual((out[3], self.done.err), ("end\n", ""))

    def test_importing_does_nothing(self):
        path = self.make_file("importing.py", (
            "import sys\nbefore = set(sys.modules)\nimport tdbg\n"
            "print(sorted(name for name in set(sys.modules) - before if name.startswith('tdbg')), "
            "sys.gettrace())\n"))
        out = self.run_plainly([], path)
        self.assertIn("['tdbg']", out[0])
        self.assertIn("None", out[0])

    def test_ending_of_a_plain_program(self):
        path = self.make_file("ending.py",
                              "import tdbg\ntdbg.set_trace()\nraise ValueError('mine')\n")
        out = self.run_plainly(["c", "c"], path)
        self.assertIn("--Uncaught exception", out[1])
        self.assertIn("ValueError: mine", self.done.err)
        self.assertEqual(self.done.status, 1)
        out = self.run_plainly(["q"], path)
        self.assertEqual((self.done.status, self.done.err), (0, ""))

    def plain_tree(self, script=None):
        """A copy of the package without a library; script: text of the tree's `tdbg`."""
        tree = self.make_dir()
        shutil.copytree(PACKAGE, os.path.join(tree, "debug", "tdbg"),
                        ignore=shutil.ignore_patterns("__pycache__"))
        if script is not None:
            self.make_file("tdbg", script, tree)
        return tree

    def run_in_tree(self, tree, commands):
        path = self.script("import tdbg; tdbg.set_trace()")
        self.done = run_program(
            [sys.executable, path], stdin="".join(c + "\n" for c in commands),
            env={"PYTHONPATH": os.path.join(tree, "debug")})
        return self.done.out.split(PROMPT)

    def test_library_is_built_when_there_is_none(self):
        if not has("library"):
            self.skipTest("no library")
        # What the real script does takes half a minute.
        tree = self.plain_tree((
            'test "$1" = --python && test -n "$2" && test "$3" = --build || exit 9\n'
            'here=$(dirname "$0")\n'
            'mkdir -p "$here/build/32" "$here/build/64"\n'
            'ln -s "{0}" "$here/build/32/tdbgtracer.so"\n'
            'ln -s "{0}" "$here/build/64/tdbgtracer.so"\n').format(
                os.path.realpath(library_path())))
        out = self.run_in_tree(tree, ["n", "c", "c"])
        self.assertIn("(3)work()", out[0])
        self.assertIn("(4)work()", out[1])
        self.assertEqual((self.done.status, self.done.err), (0, ""))

    def test_restart_of_a_plain_program(self):
        tree = self.plain_tree()
        os.symlink(os.path.realpath(library_path()),
                   os.path.join(tree, "debug", "tdbg", "tdbgtracer.so"))
        out = self.run_in_tree(tree, ["b 9", "restart", "b", "c", "c", "c"])
        self.assertEqual([row[0] for row in self.listed(out[3])], [1])
        self.assertIn("--Breakpoint 1--", out[5])
        self.assertEqual((self.done.status, self.done.err), (0, ""), self.done)

    def test_one_line_when_there_is_no_library(self):
        for script, text in ((None, "nor the tree"), ("exit 3\n", "cannot be built")):
            self.run_in_tree(self.plain_tree(script), [])
            self.assertEqual((self.done.status, self.done.out), (0, "1\n2\nend\n"))
            self.assertRegex(self.done.err, r"\Atdbg: cannot debug here: .*{}.*\n\Z".format(text))

    def test_one_line_when_the_first_call_is_in_another_thread(self):
        path = self.make_file("threads.py", (
            "import threading\nimport tdbg\n"
            "t = threading.Thread(target=lambda: tdbg.set_trace())\nt.start()\nt.join()\n"
            "print('end')\n"))
        out = self.run_plainly([], path)
        self.assertEqual((out, self.done.status), (["end\n"], 0))
        self.assertEqual(self.done.err, (
            "tdbg: cannot debug here: the first set_trace() must be called in the main thread\n"))


class OnATerminal(BreakTest):
    def debug(self, *arguments):
        return debug_on_terminal(self, *arguments, env={"HOME": self.make_dir()}, cwd=self.folder)

    def test_session(self):
        terminal = self.debug(self.path)
        terminal.start()
        self.assertEqual(terminal.command("b factorial, n == 2"), "Breakpoint 1 at " + self.at(6))
        self.assertIn("--Breakpoint 1--", terminal.command("c"))
        self.assertEqual(terminal.command("p n"), "2")
        self.assertEqual(self.listed(terminal.command("b"))[0][3], 3)
        terminal.send_line("clear")
        terminal.expect("Clear all breakpoints? ")
        terminal.send_line("y")
        self.assertIn("Deleted breakpoint 1", terminal.expect(PROMPT))
        terminal.send_line("c")
        self.assertEqual(terminal.wait(), 0)
        self.assertIn("end", terminal.rest())

    def test_interrupt_leaves_the_commands_as_they_were(self):
        terminal = self.debug(self.path)
        terminal.start()
        terminal.command("b 6")
        terminal.send_line("commands")
        terminal.expect("(com) ")
        terminal.send_line("p 'first'")
        terminal.expect("(com) ")
        terminal.send("half a line")
        terminal.expect("half a line")
        for _ in range(10):  # readline itself can miss one
            terminal.interrupt()
            if terminal.comes(PROMPT, 2):
                break
        self.assertNotIn("first", terminal.command("c").replace("p 'first'", ""))
        terminal.send_line("q")
        self.assertEqual(terminal.wait(), 0)

    def test_set_after_an_interrupt(self):
        path = self.make_file("busy.py", (
            "turns = 0\n"
            "def turn():\n"
            "    global turns\n"
            "    turns += 1\n"
            "print('begins')\n"
            "while turns >= 0:\n"
            "    turn()\n"
            "print('end')\n"))
        terminal = self.debug(path)
        terminal.start()
        terminal.send_line("c")
        terminal.expect("begins")
        terminal.interrupt()
        terminal.expect(PROMPT)
        self.assertIn("busy.py:4", terminal.command("b turn"))
        self.assertIn("--Breakpoint 1--", terminal.command("c"))
        terminal.command("clear 1")
        terminal.command("!import __main__; __main__.turns = -5")
        terminal.send_line("c")
        self.assertEqual(terminal.wait(), 0)

    @needs("module:readline")
    def test_completion(self):
        self.make_file("helper_two-b.py", "def second():\n    return 1\n", self.folder)
        self.make_file("sub/deep.py", "x = 1\n", self.folder)
        terminal = self.debug(self.path)
        terminal.start()
        for typed, whole in (("b fact\t\n", "b factorial"), ("b Thing.m\t\n", "b Thing.method"),
                             ("b helper_m\t3\n", "b helper_module.py:3"),
                             ("b helper_module.py:he\t\n", "b helper_module.py:help_out"),
                             ("tb\t helper_two-\tsec\t\n", "tbreak helper_two-b.py:second"),
                             ("b ./su\tde\t1\n", "b ./sub/deep.py:1")):
            terminal.send(typed)
            terminal.expect(whole)
            self.assertIn("reakpoint", terminal.expect(PROMPT))
        terminal.send("b 6, isinst\t\n")  # in a condition: names
        terminal.expect("b 6, isinstance")
        terminal.expect(PROMPT)
        terminal.send_line("q")
        self.assertEqual(terminal.wait(), 0)

    def test_set_trace_of_a_plain_program(self):
        tree = self.make_dir()
        shutil.copytree(PACKAGE, os.path.join(tree, "tdbg"),
                        ignore=shutil.ignore_patterns("__pycache__"))
        os.symlink(os.path.realpath(library_path()), os.path.join(tree, "tdbg", "tdbgtracer.so"))
        path = self.make_file("asks.py", "import tdbg\ntdbg.set_trace()\nprint('begins')\n"
                                         "while True:\n    pass\n", self.folder)
        terminal = Terminal([sys.executable, path],
                            env={"HOME": self.make_dir(), "PYTHONPATH": tree})
        self.addCleanup(terminal.close)
        self.assertIn("(2)<module>()", terminal.start())
        terminal.send_line("c")
        terminal.expect("begins")
        terminal.interrupt()
        self.assertIn("asks.py(", terminal.expect(PROMPT))
        terminal.send_line("q")
        self.assertEqual(terminal.wait(), 0)


if __name__ == "__main__":
    unittest.main()
