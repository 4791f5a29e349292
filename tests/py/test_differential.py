"""Random programs: what the tracer stops at, against sys.settrace and a model (differential.py).

Every day has its own seeds. TDBG_RANDOM_SEED sets another first one, TDBG_RANDOM_PROGRAMS another
number of programs; a failure names the program's own seed, with which it is seen again.
"""
from __future__ import absolute_import, division, print_function

import datetime
import os
import re
import unittest

from support import TestCase, library_path, run_script, time_limit
from support import diffmodel
from support.programs import TESTS, python_path

kProgram = os.path.join(TESTS, "support", "differential.py")
kPrograms = 300  # they are small
kSeconds = 240  # the machine may be busy with other tests


def first_seed():
    """Of today, in steps as long as nobody runs programs by hand in one go."""
    day = int(os.environ.get("TDBG_RANDOM_SEED") or datetime.date.today().strftime("%Y%m%d"))
    return day * 1000


def number_of_programs():
    return int(os.environ.get("TDBG_RANDOM_PROGRAMS") or kPrograms)


class Differential(TestCase):
    @time_limit(kSeconds + 10)
    def test_programs(self):
        library_path()  # skips without one
        seed, count = first_seed(), number_of_programs()
        print("differential.py {} {}".format(seed, count))
        done = run_script(kProgram, str(seed), str(count), env={"PYTHONPATH": python_path()},
                          seconds=kSeconds)
        if done.status != 0:
            self.fail("differential.py {} {} ended with {}{}\n{}\n{}".format(
                seed, count, done.status, " (timed out)" if done.timed_out else "",
                done.out, done.err))
        self.assertEqual(re.findall(r"(\d+) programs", done.out), [str(count)])
        # The rest are too long, close generators by chance or have threads.
        self.assertGreater(int(re.findall(r"(\d+) compared", done.out)[0]), count * 8 // 10)
        self.assertGreater(int(re.findall(r"(\d+) steered", done.out)[0]), count * 6 // 10)


class Model(unittest.TestCase):
    """The model itself, on a list of events that is written down."""

    def run_model(self, steps, breaks=()):
        events = [
            diffmodel.tEvent("call", 1, 0, "outer", 1, 0, None, False, False, None),
            diffmodel.tEvent("line", 1, 0, "outer", 2, 2, None, False, False, None),
            diffmodel.tEvent("call", 2, 1, "inner", 5, 0, None, False, False, None),
            diffmodel.tEvent("line", 2, 1, "inner", 6, 2, None, False, False, None),
            diffmodel.tEvent("return", 2, 1, "inner", 6, 4, "7", False, False, None),
            diffmodel.tEvent("line", 1, 0, "outer", 3, 8, None, False, False, None),
            diffmodel.tEvent("return", 1, 0, "outer", 3, 9, "8", False, False, None),
        ]
        plan = diffmodel.Plan(1, [1])
        plan.breaks_at_begin, plan.exception_mode = list(breaks), 0
        plan.steps = [(step, None, None, 0) for step in steps + ["continue_run"] * 9]
        model = diffmodel.Model(plan, events, [], 1)
        model.run()
        return [(stop[0], stop[1], stop[2]) for stop in model.stops], model.counts()

    def test_commands(self):
        self.assertEqual(self.run_model(["step_over"] * 3)[0], [
            ("line", "outer", 2), ("line", "outer", 3), ("return", "outer", 3)])
        self.assertEqual(self.run_model(["step_into", "step_out"])[0], [
            ("line", "outer", 2), ("line", "inner", 6), ("return", "inner", 6)])

    def test_breakpoints(self):
        stops, counts = self.run_model([], [(6, True, False, None, 0), (3, True, True, None, 0)])
        self.assertEqual(stops, [("line", "outer", 2), ("line", "inner", 6), ("line", "outer", 3)])
        self.assertEqual(counts, [(6, 1, 0, 1)])

    def test_what_may_be_a_stop_is_taken_back_where_it_is_none(self):
        """The exception looks like the line that stops behind it."""
        def event(what, line, value=None):
            return diffmodel.tEvent(
                what, 1, 0, "all", line, 0, value, value is not None, False, None)

        events = [event("call", 1), event("line", 2), event("line", 3),
                  event("exception", 3, "StopIteration"), event("line", 4), event("line", 3),
                  event("line", 5)]
        plan = diffmodel.Plan(1, [1])
        plan.breaks_at_begin, plan.exception_mode = [(3, True, False, None, 0)], 1
        plan.steps = [("step_over_line_range", None, None, 2),
                      ("step_over_line_range", None, None, 1), ("step_into", None, None, 0),
                      ("continue_run", None, None, 0)]
        observed = [("line", "all", line, 0, None) for line in (2, 3, 3, 5)]
        self.assertEqual(diffmodel.run_model(plan, events, observed, 1).stops, observed)


if __name__ == "__main__":
    unittest.main()
