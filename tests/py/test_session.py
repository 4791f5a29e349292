"""A whole debug session in one process: start, break, step, run on, stop."""
from __future__ import absolute_import, division, print_function

import sys

from support import Session, TestCase, needs

kProgram = """\
def inner(value):
    doubled = value * 2  #@ in-inner
    return doubled  #@ inner-return


def outer():
    first = inner(1)  #@ call-one
    second = inner(2)  #@ call-two
    return first + second  #@ outer-return


total = outer()  #@ call-outer
done = total  #@ after-outer
"""


class WholeSession(TestCase):
    def setUp(self):
        self.path = self.make_file("program.py", kProgram)
        self.session = Session()
        self.addCleanup(self.session.end)

    def test_without_breakpoints_nothing_stops(self):
        events = self.session.run(self.path)
        self.assertEqual(events, [("hooks", 1), ("hooks", 0)])

    def test_stop_at_the_top_and_step_on(self):
        self.session.run(self.path, ["step_over"] * 3 + ["step_into"] * 3, start="stop")
        self.assertEqual([stop[:3] for stop in self.session.stops()], [
            ("line", "<module>", 1),
            ("line", "<module>", 6),
            ("line", "<module>", "call-outer"),
            ("line", "<module>", "after-outer"),
            ("return", "<module>", "after-outer"),
        ])

    def test_breakpoint_stops_each_time_it_is_reached(self):
        self.session.break_at(self.path, "in-inner")
        self.session.run(self.path)
        self.assertEqual(self.session.stops(), [("line", "inner", "in-inner")] * 2)

    def test_step_over_stays_in_the_function(self):
        self.session.break_at(self.path, "call-one")
        self.session.run(self.path, ["step_over", "step_over"])
        self.assertEqual(self.session.stops(), [
            ("line", "outer", "call-one"),
            ("line", "outer", "call-two"),
            ("line", "outer", "outer-return"),
        ])

    def test_step_into_enters_the_called_function(self):
        self.session.break_at(self.path, "call-two")
        self.session.run(self.path, ["step_into", "step_into"])
        self.assertEqual([stop[:3] for stop in self.session.stops()], [
            ("line", "outer", "call-two"),
            ("line", "inner", "in-inner"),
            ("line", "inner", "inner-return"),
        ])

    def test_condition_sees_the_frames_names(self):
        self.session.break_at(self.path, "in-inner", condition="value == 2")
        seen = []
        self.session.run(self.path, [lambda session, frame: (
            seen.append(frame.f_locals["value"]), session.tracer.continue_run())])
        self.assertEqual(seen, [2])

    def test_process_is_left_untraced(self):
        self.session.break_at(self.path, "in-inner")
        self.session.run(self.path)
        self.assertIsNone(sys.gettrace())
        self.assertEqual(self.session.tracer.get_tracing(), 0)

    @needs("total_refcount")
    def test_reference_counts_survive_many_stops(self):
        from support import growth_of_references

        self.session.break_at(self.path, "in-inner")

        def stop_once():
            self.session.run(self.path)
            del self.session.events[:]
            self.session.tracer.get_new_imports()  # which the tracer keeps until asked

        self.assertEqual(growth_of_references(stop_once), 0)
