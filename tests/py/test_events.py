"""What stepping into everything stops at, against what sys.settrace sees of the same program."""
from __future__ import absolute_import, division, print_function

import json
import os
import unittest

from support import TestCase, debuggee, needs, run_script, time_limit
from support import sanitized
from support.programs import TESTS, python_path

kRecorder = os.path.join(TESTS, "support", "recorder.py")

# Elsewhere the lines depend on how long threads wait for each other, and on when one is freed.
kFilesOfThreads = ("workers.py", "queue.py", "Queue.py")


class ProgramCase(TestCase):
    environment = {}  # of the recording process, besides the usual one

    def record(self, mode, *program):
        """(how the program ended, lines of each thread, return stops)"""
        result = os.path.join(self.make_dir(), "result.json")
        env = {"PYTHONPATH": python_path(), "PYTHONHASHSEED": "0", "PYTHONDONTWRITEBYTECODE": "1"}
        env.update(self.environment)
        ended = run_script(kRecorder, mode, result, *program, env=env)
        self.assertFalse(ended.timed_out, ended)
        self.assertTrue(os.path.exists(result), ended)
        with open(result) as source:
            found = json.load(source)
        return ended, found["threads"], found["returns"]

    def without_waiting(self, threads):
        return sorted([line for line in lines if line[0] in kFilesOfThreads] for lines in threads)

    def assert_same_lines(self, own_file, *program):
        _, expected, _ = self.record("settrace", *program)
        _, found, returns = self.record("into", *program)
        self.assertTrue(any(line[0] == own_file for line in expected[0]), "nothing was recorded")
        if len(expected) > 1:
            expected, found = self.without_waiting(expected), self.without_waiting(found)
        self.assertEqual(len(found), len(expected), "number of threads")
        for number, lines in enumerate(expected):
            self.assert_same_list(found[number], lines)
        self.assertGreater(returns, 0)

    def assert_same_list(self, found, expected):
        """assertEqual's own difference of lists this long would take minutes."""
        for number, (one, other) in enumerate(zip(found, expected)):
            if one != other:
                first = max(0, number - 5)
                self.assertEqual(found[first:number + 5], expected[first:number + 5])
        self.assertEqual(len(found), len(expected))


class StepIntoTest(ProgramCase):
    """Every line event is a stop, and nothing else is."""

    def compare(self, name):
        self.assert_same_lines(name, debuggee(name))

    def test_recursion_and_returns(self):
        self.compare("recursion.py")

    def test_generators(self):
        self.compare("generators.py")

    @needs("syntax:async def f(): [x async for x in y]")
    def test_coroutines(self):
        self.compare("coroutines.py")

    def test_exceptions(self):
        self.compare("raising.py")

    def test_decorators_comprehensions_lambdas_and_class_bodies(self):
        self.compare("shapes.py")

    @time_limit(120)
    def test_each_thread(self):
        self.compare("workers.py")

    def test_imports_of_packages(self):
        self.compare("importing.py")

    def test_leaving_with_a_status(self):
        self.compare("leaving.py")

    @time_limit(120)
    def test_the_calendar_program(self):
        self.assert_same_lines("calendar.py", "-m", "calendar", "2024")

    @time_limit(120)
    def test_the_tokenize_program(self):
        source = "".join("name{0} = [{0}, 'text']  # {0}\n".format(n) for n in range(300))
        path = self.make_file("three_hundred.py", source)
        self.assert_same_lines("tokenize.py", "-m", "tokenize", path)


class BehaviourTest(ProgramCase):
    """A program under the debugger writes and ends as it does alone."""

    def compare(self, *program):
        script = program[1:] if program[0] == "-m" else program
        flags = ["-m"] if program[0] == "-m" else []
        alone = run_script(script[0], *script[1:], flags=flags, env={"PYTHONHASHSEED": "0"})
        self.assertTrue(alone.out, alone)
        for mode in ("none", "free", "into"):
            ended, threads, _ = self.record(mode, *program)
            self.assertEqual((mode, ended.out), (mode, alone.out))
            self.assertEqual((mode, ended.status), (mode, alone.status), ended)
            self.assertEqual(mode == "into", bool(threads))
        return alone

    def test_recursion_and_returns(self):
        self.compare(debuggee("recursion.py"))

    def test_generators(self):
        self.compare(debuggee("generators.py"))

    @needs("syntax:async def f(): [x async for x in y]")
    def test_coroutines(self):
        self.compare(debuggee("coroutines.py"))

    def test_exceptions(self):
        alone = self.compare(debuggee("raising.py"))
        self.assertEqual(alone.status, 1)

    def test_decorators_comprehensions_lambdas_and_class_bodies(self):
        self.compare(debuggee("shapes.py"))

    @time_limit(120)
    def test_each_thread(self):
        self.compare(debuggee("workers.py"))

    def test_imports_of_packages(self):
        self.compare(debuggee("importing.py"))

    def test_leaving_with_a_status(self):
        alone = self.compare(debuggee("leaving.py"))
        self.assertEqual(alone.status, 3)

    @time_limit(120)
    def test_the_calendar_program(self):
        self.compare("-m", "calendar", "2024")


class SanitizedTest(ProgramCase):
    """The same with a library that watches over its memory: it ends the process at a fault."""

    def setUp(self):
        ProgramCase.setUp(self)
        self.environment = sanitized.environment()

    def test_stepping_through_whole_programs(self):
        for name in ("recursion.py", "generators.py", "raising.py", "shapes.py", "workers.py"):
            self.assert_same_lines(name, debuggee(name))


if not sanitized.is_under_test:
    del SanitizedTest


if __name__ == "__main__":
    unittest.main()
