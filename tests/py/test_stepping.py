"""The step commands: at which line, return or exception the program stops next."""
from __future__ import absolute_import, division, print_function

import ctypes
import itertools
import sys
import unittest

from support import TestCase, debuggee, import_tracer, line_of, load_native, run_script, why_not
from support.programs import python_path
from support.tracing import Session, import_debuggee


def events_of_frame(function, name):
    """What sys.settrace sees in the frames of one function, as (event, line)."""
    seen = []

    def local(frame, event, arg):
        seen.append((event, frame.f_lineno))
        return local

    def trace(frame, event, arg):
        return local if frame.f_code.co_name == name else None

    sys.settrace(trace)
    try:
        function()
    finally:
        sys.settrace(None)
    return seen


def yields_one():
    yield 1


def for_reports_the_end_of_a_generator():
    """The frame of a `for` gets an exception event when its generator ends."""
    def loop():
        for _ in yields_one():
            pass
    return "exception" in [event for event, _ in events_of_frame(loop, "loop")]


def running_frames_count_as_suspended():
    """Then every event of another frame makes a step forget that its end is to stop."""
    native = load_native({"get_frame_suspended_generator": (ctypes.c_int, [ctypes.py_object])})
    return bool(native.get_frame_suspended_generator(sys._getframe()))


class StepCase(TestCase):
    module = "steps"

    def setUp(self):
        self.session = Session()
        self.code = import_debuggee(self.module)
        self.path = debuggee(self.module + ".py")

    def run_with(self, name, *script, **keywords):
        self.result = self.session.run(getattr(self.code, name), *script, **keywords)
        return self.session.stops

    def assert_stops(self, expected):
        self.assertEqual(self.session.stops, expected)

    def lines_of(self, run, name):
        """Line events of the function after the call of stop(), as sys.settrace gets them."""
        events = events_of_frame(lambda: getattr(self.code, run)(lambda: None), name)
        return [line for event, line in events if event == "line"][1:]

    def stop_lines(self):
        return [line_of(self.path, stop[2]) for stop in self.session.stops if stop[0] == "line"]

    def lines(self, function, *marks):
        return [("line", function, mark) for mark in marks]


class StepOverTest(StepCase):
    def test_calls_are_not_entered(self):
        self.run_with("calls", *["step_over"] * 3)
        self.assert_stops(
            self.lines("calls", "calls-add", "calls-again", "calls-last")
            + [("return", "calls", "calls-last", 10)])
        self.assertEqual(self.result, 10)

    def test_a_recursive_call_does_not_stop_in_the_inner_activation(self):
        self.session.show = lambda frame: frame.f_locals["number"]
        self.run_with("factorial", *["step_over"] * 3)
        self.assert_stops([
            ("line", "factorial", "fact-test", 3),
            ("line", "factorial", "fact-call", 3),
            ("line", "factorial", "fact-last", 3),
            ("return", "factorial", "fact-last", 6, 3),
        ])

    def test_a_loop_stops_at_each_line_event(self):
        self.run_with("loops", *["step_over"] * 9)
        self.assert_stops(
            self.lines("loops", "loop-for", "loop-body", "loop-for", "loop-body", "loop-for",
                       "loop-last")
            + [("return", "loops", "loop-last", 1)])

    def test_each_line_event_of_the_frame_is_a_stop(self):
        expected = self.lines_of("one_line", "one_line")
        self.run_with("one_line", *["step_over"] * 20)
        self.assertEqual(self.stop_lines(), expected)

    def test_generators_are_not_entered(self):
        self.run_with("consumes", *["step_over"] * 9)
        at_end = ["consumes-for"] if for_reports_the_end_of_a_generator() else []
        self.assert_stops(
            self.lines("consumes", "consumes-first", "consumes-for", "consumes-body",
                       "consumes-for", "consumes-body", "consumes-for",
                       *at_end + ["consumes-last"])
            + [("return", "consumes", "consumes-last", 3)])

    def test_next_of_a_generator_is_not_entered(self):
        self.run_with("takes_next", *["step_over"] * 5)
        self.assert_stops(
            self.lines("takes_next", "next-make", "next-one", "next-two", "next-last")
            + [("return", "takes_next", "next-last", 3)])

    def test_generator_expressions_are_not_entered(self):
        self.run_with("sums_expression", "step_over", "step_over")
        self.assert_stops(
            self.lines("sums_expression", "sum", "sum-last")
            + [("return", "sums_expression", "sum-last", 3)])

    def test_class_bodies_and_lambdas_are_not_entered(self):
        self.run_with("defines_class", *["step_over"] * 2)
        expected = self.lines("defines_class", "class-line")
        expected += self.lines("defines_class", "class-last")
        self.assert_stops(expected + [("return", "defines_class", "class-last", 3)])
        del self.session.stops[:]
        self.run_with("calls_lambda", *["step_over"] * 2)
        self.assert_stops(
            self.lines("calls_lambda", "lambda-line", "lambda-last")
            + [("return", "calls_lambda", "lambda-last", 2)])

    def test_inside_a_generator_it_stays_there_across_a_yield(self):
        self.run_with("consumes", "step_into", "step_into", *["step_over"] * 5)
        self.assert_stops(
            self.lines("consumes", "consumes-first", "consumes-for")
            + self.lines("numbers", "gen-first", "gen-yield", "gen-second", "gen-yield-again",
                         "gen-last")
            + [("return", "numbers", "gen-last", None)])
        self.assertEqual(self.result, 3)


class StepIntoTest(StepCase):
    def test_calls_are_entered_and_returns_stop(self):
        self.run_with("calls", *["step_into"] * 4)
        self.assert_stops(
            self.lines("calls", "calls-add")
            + self.lines("add", "add-first", "add-last")
            + [("return", "add", "add-last", 3)]
            + self.lines("calls", "calls-again"))

    def test_stop_is_like_it_from_the_next_event_on(self):
        self.run_with("calls", *["stop"] * 4)
        self.assert_stops(
            self.lines("calls", "calls-add")
            + self.lines("add", "add-first", "add-last")
            + [("return", "add", "add-last", 3)]
            + self.lines("calls", "calls-again"))

    def test_yields_stop_as_returns(self):
        self.run_with("consumes", *["step_into"] * 5)
        self.assert_stops(
            self.lines("consumes", "consumes-first", "consumes-for")
            + self.lines("numbers", "gen-first", "gen-yield")
            + [("return", "numbers", "gen-yield", 1)]
            + self.lines("consumes", "consumes-body"))

    def test_class_bodies_are_entered(self):
        self.run_with("defines_class", "step_into", "step_into")
        self.assertEqual(
            [stop[:2] for stop in self.session.stops],
            [("line", "defines_class"), ("line", "Made"), ("line", "Made")])


class StepOverLineTest(StepCase):
    def test_a_loop_on_one_line_is_left_at_once(self):
        self.run_with("one_line", "step_over_line", "step_over_line")
        self.assert_stops(
            self.lines("one_line", "one-line", "one-last")
            + [("return", "one_line", "one-last", 2)])

    def test_in_a_loop_it_stops_at_the_next_line_not_on_its_own(self):
        self.run_with("loops", *["step_over_line"] * 3)
        self.assert_stops(self.lines("loops", "loop-for", "loop-body", "loop-for", "loop-body"))

    def test_calls_are_not_entered(self):
        self.run_with("calls", *["step_over_line"] * 3)
        self.assert_stops(
            self.lines("calls", "calls-add", "calls-again", "calls-last")
            + [("return", "calls", "calls-last", 10)])

    def test_an_inner_activation_on_the_same_line_does_not_stop(self):
        self.session.show = lambda frame: frame.f_locals["number"]
        self.run_with("factorial", "step_over_line", "step_over_line")
        self.assert_stops([
            ("line", "factorial", "fact-test", 3),
            ("line", "factorial", "fact-call", 3),
            ("line", "factorial", "fact-last", 3),
        ])


class StepOverLineRangeTest(StepCase):
    def over(self, first, last):
        return ("step_over_line_range", line_of(self.path, first), line_of(self.path, last))

    def test_both_ends_belong_to_the_range(self):
        self.run_with("straight", self.over("range-first", "range-end"))
        self.assert_stops(self.lines("straight", "range-first", "range-after"))

    def test_a_range_without_the_next_line_stops_there(self):
        self.run_with("straight", self.over("range-after", "range-last"))
        self.assertEqual(self.session.stops[1][2], line_of(self.path, "range-first") + 1)

    def test_a_loop_inside_the_range_is_left(self):
        self.run_with("goes_back", self.over("back-first", "back-body"), "step_over")
        self.assert_stops(
            self.lines("goes_back", "back-first", "back-last")
            + [("return", "goes_back", "back-last", 2)])

    def test_a_range_to_the_end_stops_at_the_return(self):
        self.run_with("straight", self.over("range-first", "range-last"))
        self.assert_stops(
            self.lines("straight", "range-first") + [("return", "straight", "range-last", 4)])

    def test_other_frames_are_not_in_the_range(self):
        """The range is one of lines of the stop frame, not of the file."""
        self.run_with("calls", self.over("calls-add", "calls-add"), "step_into", "step_over")
        self.assert_stops(
            self.lines("calls", "calls-add", "calls-again") + self.lines("add", "add-first",
                                                                         "add-last"))

    def test_bad_arguments_are_refused(self):
        tracer = import_tracer()
        self.assertRaises(TypeError, tracer.step_over_line_range)
        self.assertRaises(TypeError, tracer.step_over_line_range, 1)
        self.assertRaises(TypeError, tracer.step_over_line_range, "1", 2)


class StepOutTest(StepCase):
    def test_the_return_stops_with_its_value_and_then_the_caller(self):
        self.run_with("calls", "step_into", "step_out", "step_out")
        self.assert_stops(
            self.lines("calls", "calls-add")
            + self.lines("add", "add-first")
            + [("return", "add", "add-last", 3)]
            + self.lines("calls", "calls-again"))

    def test_without_a_line_left_the_caller_stops_at_its_return(self):
        self.run_with("calls_passes_on", "step_into", "step_out", "step_out", "step_out")
        self.assert_stops(
            self.lines("passes_on", "passes")
            + self.lines("add", "add-first")
            + [("return", "add", "add-last", 3), ("return", "passes_on", "passes", 3)]
            + self.lines("calls_passes_on", "passed"))

    def test_calls_on_the_way_out_are_not_entered(self):
        self.run_with("calls", "step_out")
        self.assert_stops(
            self.lines("calls", "calls-add") + [("return", "calls", "calls-last", 10)])

    def test_only_the_activation_that_was_stepped_out_of_stops(self):
        self.session.show = lambda frame: frame.f_locals["number"]
        self.run_with("deep", "step_out", "step_out")
        self.assert_stops([
            ("line", "deep", "deep-bottom", 0),
            ("return", "deep", "deep-bottom", 0, 0),
            ("line", "deep", "deep-last", 1),
        ])

    def test_out_of_a_generator_stops_in_its_user(self):
        self.run_with("consumes", "step_into", "step_into", "step_out")
        self.assert_stops(
            self.lines("consumes", "consumes-first", "consumes-for")
            + self.lines("numbers", "gen-first")
            + self.lines("consumes", "consumes-body"))

    def test_out_of_a_generator_that_ends_stops_at_its_return(self):
        self.run_with("consumes", "step_into", "step_into", "step_over", "step_over",
                      "step_over", "step_over", "step_out")
        self.assertEqual(self.session.stops[-2:], [
            ("line", "numbers", "gen-last"), ("return", "numbers", "gen-last", None)])

    def test_to_a_frame_further_out(self):
        self.session.show = lambda frame: frame.f_locals["number"]
        to_frame = self.session.tracer.step_out_to_frame
        self.run_with("deep", lambda frame: to_frame(frame.f_back.f_back))
        self.assert_stops([
            ("line", "deep", "deep-bottom", 0),
            ("line", "deep", "deep-last", 2),
        ])

    def test_to_what_is_no_frame_is_refused_and_changes_nothing(self):
        to_frame = self.session.tracer.step_out_to_frame
        refused = []

        def try_all(frame):
            self.session.tracer.step_over()
            for wrong in (42, "frame", object(), type(frame), frame.f_code):
                try:
                    to_frame(wrong)
                except TypeError as why:
                    refused.append(str(why))

        self.run_with("calls", try_all)
        self.assertEqual(refused, ["step_out_to_frame needs a frame object"] * 5)
        self.assert_stops(self.lines("calls", "calls-add", "calls-again"))
        self.assertRaises(TypeError, to_frame)

    def test_to_a_frame_that_has_ended_runs_on(self):
        frames = []

        def keep(frame):
            frames.append(frame)
            self.session.tracer.step_out()

        def to_dead(frame):
            self.session.tracer.step_out_to_frame(frames[0])

        self.run_with("calls", "step_into", keep, "step_out", to_dead)
        self.assertEqual(self.session.stops[-1], ("line", "calls", "calls-again"))
        self.assertEqual(self.result, 10)


class ContinueTest(StepCase):
    def test_nothing_stops_any_more(self):
        self.run_with("calls", "continue_run")
        self.assert_stops(self.lines("calls", "calls-add"))

    def test_the_former_return_frame_does_not_stop(self):
        self.run_with("calls", "step_into", "step_over", "continue_run")
        self.assert_stops(
            self.lines("calls", "calls-add") + self.lines("add", "add-first", "add-last"))

    def test_the_program_may_stop_again(self):
        def twice(stop):
            self.code.calls(stop)
            return self.code.calls(stop)

        self.session.run(twice, "continue_run", "step_over")
        self.assert_stops(self.lines("calls", "calls-add", "calls-add", "calls-again"))


class ExceptionTest(StepCase):
    def test_one_that_a_call_raises_stops_where_it_arrives(self):
        self.run_with("catches", *["step_over"] * 9)
        self.assert_stops(
            self.lines("catches", "catches-try", "catches-call")
            + [("exception", "catches", "catches-call", "ValueError")]
            + self.lines("catches", "catches-except", "catches-caught", "catches-last")
            + [("return", "catches", "catches-last", True)])

    def test_a_frame_left_by_it_returns_none(self):
        self.run_with("catches", "step_over", "step_into", "step_over", "step_over", "step_over",
                      "step_out", "step_over")
        self.assert_stops(
            self.lines("catches", "catches-try", "catches-call")
            + self.lines("fails", "fails-first", "fails-raise")
            + [("exception", "fails", "fails-raise", "ValueError"),
               ("return", "fails", "fails-raise", None),
               ("exception", "catches", "catches-call", "ValueError")]
            + self.lines("catches", "catches-except"))

    def test_stepping_goes_on_in_the_caller_that_catches(self):
        self.run_with("catches_below", "step_over", "step_over", "step_out", "step_over",
                      "step_over")
        self.assert_stops(
            self.lines("does_not_catch", "lets-through")
            + [("exception", "does_not_catch", "lets-through", "ValueError"),
               ("return", "does_not_catch", "lets-through", None),
               ("exception", "catches_below", "below-call", "ValueError")]
            + self.lines("catches_below", "below-except", "below-last"))
        self.assertEqual(self.result, "caught")

    def test_finally_is_stepped_through_while_it_passes(self):
        self.run_with("survives_cleaning", *["step_over"] * 9)
        self.assertEqual(
            self.session.stops[:4],
            self.lines("cleans_up", "cleans-try", "cleans-call")
            + [("exception", "cleans_up", "cleans-call", "ValueError")]
            + self.lines("cleans_up", "cleans-finally"))
        # Whether the end of the block is one more line event, and where, is the compiler's choice.
        kind, function, _, value = self.session.stops[-1]
        self.assertEqual((kind, function, value), ("return", "cleans_up", None))
        self.assertEqual(
            set(stop[:2] for stop in self.session.stops[4:-1]) - set([("line", "cleans_up")]),
            set())
        self.assertEqual(self.result, ["cleaned"])

    def test_continuing_from_one_stops_nowhere(self):
        self.run_with("catches", "step_over", "step_over", "continue_run")
        self.assert_stops(
            self.lines("catches", "catches-try", "catches-call")
            + [("exception", "catches", "catches-call", "ValueError")])

    def test_the_information_is_the_programs(self):
        seen = []
        self.session.exception_cb = lambda frame, info: seen.append(
            (type(info), info[0], info[1].args, info[2].tb_frame is frame))
        self.session.init()
        self.run_with("catches", "step_over", "step_over")
        self.assertEqual(seen, [(tuple, ValueError, (1,), True)])


class AwaitTest(StepCase):
    module = "awaits"

    def setUp(self):
        reason = why_not("syntax:async def f(): [x async for x in y]")
        if reason:
            raise unittest.SkipTest(reason)
        StepCase.setUp(self)

    def test_step_over_stays_in_the_coroutine(self):
        self.run_with("run_outer", *["step_over"] * 3)
        self.assert_stops(
            self.lines("outer", "out-first", "out-second", "out-last")
            + [("return", "outer", "out-last", 30)])

    def test_step_over_line_stays_in_the_coroutine(self):
        self.run_with("run_outer", *["step_over_line"] * 3)
        self.assert_stops(
            self.lines("outer", "out-first", "out-second", "out-last")
            + [("return", "outer", "out-last", 30)])

    def test_the_awaited_coroutine_can_be_entered_and_stepped_over(self):
        self.run_with("run_outer", "step_into", "step_over", "step_over")
        self.assert_stops(
            self.lines("outer", "out-first")
            + self.lines("inner", "in-await", "in-last")
            + [("return", "inner", "in-last", 10)])

    def test_step_out_of_a_coroutine_stops_in_the_one_that_awaits_it(self):
        self.run_with("run_outer", "step_into", "step_over", "step_out", "step_out")
        self.assert_stops(
            self.lines("outer", "out-first")
            + self.lines("inner", "in-await", "in-last")
            + [("return", "inner", "in-last", 10)]
            + self.lines("outer", "out-first"))

    def test_step_out_of_a_coroutine_that_pauses_stops_where_the_other_pauses(self):
        """The end of what is awaited, a StopIteration, is a stop of its own."""
        self.run_with("run_outer", "step_into", "step_out", "step_over", "step_over")
        self.assert_stops(
            self.lines("outer", "out-first")
            + self.lines("inner", "in-await")
            + [("return", "outer", "out-first", 1)]
            + (self.lines("outer", "out-second", "out-last") if running_frames_count_as_suspended()
               else self.lines("outer", "out-first", "out-second")))

    def test_step_out_of_the_outermost_coroutine(self):
        self.run_with("run_outer", "step_over", "step_over", "step_out")
        self.assert_stops(
            self.lines("outer", "out-first", "out-second", "out-last")
            + [("return", "outer", "out-last", 30)])

    def test_async_for_is_stepped_over(self):
        expected = self.lines_of("run_uses", "uses")
        self.run_with("run_uses", *["step_over"] * 12)
        self.assertEqual(set(stop[1] for stop in self.session.stops), set(["uses"]))
        # A StopIteration that ends an await which never paused stops once more on its line.
        lines = [line for line, _ in itertools.groupby(self.stop_lines())]
        self.assertEqual(lines, expected)
        self.assertEqual(self.session.stops[-1], ("return", "uses", "uses-last", 11))

    def test_async_with_is_stepped_over(self):
        self.run_with("run_visits", *["step_over"] * 9)
        self.assertEqual(set(stop[1] for stop in self.session.stops), set(["visits"]))
        self.assertEqual([stop[2] for stop in self.session.stops if stop[2] != "visits-with"],
                         ["visits-inside", "visits-last", "visits-last"])
        self.assertEqual(self.session.stops[-1], ("return", "visits", "visits-last", 1))

    def test_yield_from_is_stepped_over(self):
        self.run_with("run_delegates", *["step_over"] * 3)
        self.assert_stops(
            self.lines("delegates", "delegates-from", "delegates-last")
            + [("return", "delegates", "delegates-last", 3)])
        self.assertEqual(self.result, [1, 2])

    def test_inside_a_part_of_yield_from_it_stays_there(self):
        self.run_with("run_delegates", "step_into", *["step_over"] * 3)
        self.assert_stops(
            self.lines("delegates", "delegates-from")
            + self.lines("parts", "part-one", "part-two", "part-last")
            + [("return", "parts", "part-last", 3)])


class OutermostFrameTest(TestCase):
    """Programs of their own, for here the outermost frame is the runner's."""

    kHead = """
from support.tracing import Session
session = Session()
session.tracer.set_autoquit({autoquit})
report = lambda: print_(session.stops)
def print_(value):
    import sys
    sys.stdout.write(repr(value))
"""

    def run_lines(self, text, autoquit=0):
        path = self.make_file("outermost.py", self.kHead.format(autoquit=autoquit) + text)
        ended = run_script(path, env={"PYTHONPATH": python_path()})
        self.assertEqual((ended.status, ended.err), (0, ""), ended)
        return eval(ended.out)

    def test_step_out_stops_at_the_next_event_anywhere(self):
        stops = self.run_lines("""
def called():
    return 1  #@ called
session.script = ["step_out", "step_out", "step_out", "step_out"]
session.tracer.start_trace()
session.tracer.stop()
one = 1  #@ one
two = called()  #@ two
session.tracer.stop_trace()  #@ three
report()
""")
        self.assertEqual(stops, [
            ("line", "<module>", "one"), ("line", "<module>", "two"),
            ("line", "called", "called"), ("return", "called", "called", 1),
            ("line", "<module>", "three")])

    def test_its_end_stops_when_the_stop_frame_was_left(self):
        stops = self.run_lines("""
import atexit
atexit.register(report)
def called():
    return 1  #@ called
session.script = ["step_into", "step_over", "step_over"]
session.tracer.start_trace()
session.tracer.stop()
two = called()  #@ two
three = called()  #@ three
""")
        self.assertEqual(stops, [
            ("line", "<module>", "two"), ("line", "called", "called"),
            ("return", "called", "called", 1), ("return", "<module>", "three", None)])

    def test_leaving_it_quits(self):
        text = """
def quit():
    print_("quit")
    session.tracer.stop_trace()
session.quit_cb = quit
session.init()
session.tracer.set_autoquit({})
session.tracer.start_trace()
def called():
    return 1
called()
"""
        self.assertEqual(self.run_lines(text.format(1)), "quit")
        path = self.make_file("stays.py", self.kHead.format(autoquit=0) + text.format(0))
        ended = run_script(path, env={"PYTHONPATH": python_path()})
        self.assertEqual((ended.status, ended.out, ended.err), (0, "", ""))

    def stops_to_the_end(self, script):
        path = self.make_file("ends.py", self.kHead.format(autoquit=1) + """
import atexit
atexit.register(report)
def quit():
    session.stops.append("quit")
    session.tracer.stop_trace()
session.quit_cb = quit
session.init()
session.script = {!r}
session.tracer.start_trace()
session.tracer.stop()
last = 1  #@ last
""".format(script))
        ended = run_script(path, env={"PYTHONPATH": python_path()})
        self.assertEqual((ended.status, ended.err), (0, ""), ended)
        return eval(ended.out)

    def test_a_stop_at_its_return_does_not_quit(self):
        line = ("line", "<module>", "last")
        self.assertEqual(self.stops_to_the_end(["continue_run"]), [line, "quit"])
        self.assertEqual(self.stops_to_the_end(["step_into", "continue_run"]),
                         [line, ("return", "<module>", "last", None)])

    def test_leaving_it_by_an_exception_quits(self):
        path = self.make_file("raises.py", self.kHead.format(autoquit=1) + """
def quit():
    print_("quit")
    session.tracer.stop_trace()
session.quit_cb = quit
session.init()
session.tracer.start_trace()
raise ValueError("last")
""")
        ended = run_script(path, env={"PYTHONPATH": python_path()})
        self.assertEqual((ended.status, ended.out), (1, "'quit'"), ended)
        self.assertIn("ValueError: last", ended.err)


class OutsideOfStopsTest(TestCase):
    kCommands = ["stop", "continue_run", "step_into", "step_over", "step_over_line",
                 ("step_over_line_range", 1, 2), "step_out"]

    def give(self, tracer, command):
        if isinstance(command, tuple):
            return getattr(tracer, command[0])(*command[1:])
        return getattr(tracer, command)()

    def test_commands_before_init_are_refused(self):
        tracer = import_tracer()
        for command in self.kCommands:
            self.assertRaises(RuntimeError, self.give, tracer, command)
        self.assertIsNone(sys.gettrace())

    def test_commands_while_not_tracing_stop_nothing(self):
        session = Session()
        for command in self.kCommands:
            self.assertIsNone(self.give(session.tracer, command))
            import_debuggee("steps").add(1, 2)
        self.assertEqual(session.stops, [])
        self.assertIsNone(sys.gettrace())

    def test_step_into_before_the_start_stops_at_once(self):
        session = Session()
        session.tracer.step_into()
        session.tracer.start_trace()
        here = 1
        session.tracer.stop_trace()
        self.assertEqual([stop[:2] for stop in session.stops],
                         [("line", "test_step_into_before_the_start_stops_at_once")] * here)

    def test_stepping_without_a_stop_stops_at_the_next_event(self):
        """There is no current frame to step over or out of."""
        add = import_debuggee("steps").add
        for command in ("stop", "step_into", "step_over", "step_over_line", "step_out"):
            session = Session()
            session.tracer.start_trace()
            getattr(session.tracer, command)(); add(1, 2)
            session.tracer.stop_trace()
            self.assertEqual(session.stops[:1], [("line", "add", "add-first")], command)

    def test_continuing_without_a_stop_runs_on(self):
        session = Session()
        session.run(lambda stop: import_debuggee("steps").calls(session.tracer.continue_run))
        self.assertEqual(session.stops, [])

    def test_extra_arguments_are_ignored_where_none_are_parsed(self):
        tracer = Session().tracer
        for name in ("step_over", "step_over_line", "step_out", "stop", "continue_run"):
            self.assertIsNone(getattr(tracer, name)(1, 2, 3))
        self.assertRaises(TypeError, tracer.step_into, 1)


if __name__ == "__main__":
    unittest.main()
