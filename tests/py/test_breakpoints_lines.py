"""Which lines stop: each line event on a breakpoint's line, whatever the shape of the code.

What sys.settrace gets of an interpreter says which line events there are.
"""
from __future__ import absolute_import, division, print_function

import collections
import sys
import threading
import unittest

from support import debuggee, time_limit, why_not
from support.breaks import BreakCase, kCanonical
from support.marks import line_of
from support.modules import hide_modules
from support.tracing import import_debuggee


def count_line_events(path, function):
    """{line: number of line events in the file} as a function of sys.settrace sees them."""
    counts = collections.Counter()

    def local(frame, event, arg):
        if event == "line":
            counts[frame.f_lineno] += 1
        return local

    def trace(frame, event, arg):
        return local if frame.f_code.co_filename == path else None

    sys.settrace(trace)
    try:
        function()
    finally:
        sys.settrace(None)
    return counts


class ShapeCase(BreakCase):
    module = "bp_shapes"

    def setUp(self):
        BreakCase.setUp(self)
        self.path = debuggee(self.module + ".py")
        self.code = import_debuggee(self.module)
        self.path_of_code = self.code.everything.__code__.co_filename

    def hits_with(self, mark, function):
        self.break_at(self.path, mark)
        self.run_traced(function)
        return self.hits()

    def compare_each_line(self, function):
        """A lone breakpoint on each line in turn stops as often as the line has events."""
        with open(self.path) as source:
            lines = len(source.readlines())
        expected = count_line_events(self.path_of_code, function)
        self.assertNotEqual(expected, {})
        found = collections.Counter()
        wanted = collections.Counter()
        lines_of_stops = collections.Counter()
        for line in range(1, lines + 1):
            self.tracer.set_break(self.path, "", line, 1, 0, None, 0)
            self.run_traced(function)
            found[line] = self.tracer.get_breaks(self.path, line)[0][5]
            wanted[line] = expected[line]
            lines_of_stops[line] = len(self.session.stops)
            del self.session.stops[:]
            self.tracer.clear_all_breaks()
        self.assertEqual(found, wanted)
        self.assertEqual(lines_of_stops, wanted)

    def assert_hits(self, expected):
        """{mark: (function, number of stops)}"""
        found = {}
        for mark, (function, _) in expected.items():
            found[mark] = (function, len(self.hits_with(mark, getattr(self.code, function))))
            self.tracer.clear_all_breaks()
        self.assertEqual(found, expected)


class Shapes(ShapeCase):
    @time_limit(150)
    def test_each_line_stops_as_often_as_it_has_events(self):
        hide_modules(self)
        self.compare_each_line(self.code.everything)

    def test_breakpoints_on_all_lines_stop_in_the_order_of_the_events(self):
        expected = []

        def local(frame, event, arg):
            if event == "line":
                expected.append(frame.f_lineno)
            return local
        sys.settrace(lambda frame, event, arg:
                     local if frame.f_code.co_filename == self.path_of_code else None)
        try:
            self.code.everything()
        finally:
            sys.settrace(None)
        for line in range(1, max(expected) + 1):
            self.tracer.set_break(self.path, "", line, 1, 0, None, 0)
        lines = []
        self.session.stop = lambda frame, kind, *rest: lines.append(frame.f_lineno)
        self.run_traced(self.code.everything)
        self.assertEqual(lines, expected)

    def test_module_level_lines(self):
        """The file executed from its top: def, class and decorator lines of the module."""
        with open(self.path) as source:
            code = compile(source.read(), self.path, "exec")

        def run():
            exec(code, {"__name__": "top", "__file__": self.path})
        hide_modules(self)
        self.compare_each_line(run)

    def test_lines_that_are_the_same_everywhere(self):
        self.assert_hits({
            "first": ("first_line", 1), "one-liner": ("one_liner", 1),
            "after-docstring": ("with_docstring", 1), "decorated-body": ("decorated", 1),
            "decorated-call": ("decorated", 1), "after-string": ("long_string", 1),
            "with-body": ("with_block", 1), "with-after": ("with_block", 1),
            "exit": ("with_block", 2), "try-body": ("tries", 1), "finally-body": ("tries", 1),
            "raise": ("catches", 1),
            "finally-in-flight": ("re_raises", 1), "for-body": ("for_else", 2),
            "for-else-body": ("for_else", 1), "while-body": ("while_else", 2),
            "while-else": ("while_else", 1), "class-body": ("makes_class", 1),
            "method": ("makes_class", 1), "property": ("makes_class", 1),
            "static": ("makes_class", 1), "class-made": ("makes_class", 1),
            "yield": ("generators", 20), "resumed": ("generators", 20), "thrown": ("throws", 1),
            "closure": ("closures", 2), "recursion": ("recursion", 4),
            "recursion-end": ("recursion", 1), "far": ("long_line_table", 1),
            "break": ("loop_with_break", 1), "key": ("sorts", 3), "lambda-second": ("lambdas", 1),
        })

    def test_lines_without_code_are_never_hit(self):
        self.assert_hits({
            "inside-docstring": ("with_docstring", 0), "inside-string": ("long_string", 0),
            "unreachable": ("nothing_after_return", 0), "global": ("deletes", 0),
            "except-unused": ("tries", 0),
        })

    def test_lines_outside_the_file_are_never_hit(self):
        for line in (-5, -1, 0, 10 ** 6, 2 ** 31 - 1, -2 ** 31):
            self.tracer.set_break(self.path, "", line, 1, 0, None, 0)
        self.run_traced(self.code.everything)
        self.assertEqual(self.hits(), [])

    def test_a_generator_made_before_the_breakpoint_is_set(self):
        running = self.code.numbers(20)
        for _ in range(5):
            next(running)
        self.assertEqual(self.hits_with("resumed", lambda: list(running)), ["resumed"] * 16)

    def test_a_generator_resumed_in_several_runs(self):
        running = self.code.numbers(6)
        self.break_at(self.path, "yield")
        for _ in range(3):
            self.run_traced(lambda: next(running))
            next(running)  # untraced
        self.assertEqual(self.hits(), ["yield"] * 3)

    def test_a_lambda_stops_at_its_definition_and_its_call(self):
        self.assertGreaterEqual(len(self.hits_with("lambda", self.code.lambdas)), 2)


class CanonicalShapes(ShapeCase):
    regime = kCanonical

    @time_limit(150)
    def test_each_line_stops_as_often_as_it_has_events(self):
        hide_modules(self)
        self.compare_each_line(self.code.everything)


class Coroutines(ShapeCase):
    module = "bp_coroutines"

    def setUp(self):
        reason = why_not("syntax:async def f():\n    [x async for x in y]")
        if reason is not None:
            raise unittest.SkipTest(reason)
        ShapeCase.setUp(self)

    @time_limit(150)
    def test_each_line_stops_as_often_as_it_has_events(self):
        self.compare_each_line(self.code.everything)

    def test_lines_that_are_the_same_everywhere(self):
        code = self.code

        def runs(function):
            return lambda: code.drive(function())
        code.run_simple, code.run_loops = runs(code.simple), runs(code.loops)
        code.run_contexts, code.run_comprehends = runs(code.contexts), runs(code.comprehends)
        code.run_nests = runs(code.nests)
        self.assert_hits({
            "coroutine-first": ("run_simple", 1), "await": ("run_simple", 1),
            "after-await": ("run_nests", 2), "awaited": ("run_simple", 1),
            "anext": ("run_loops", 3), "async-for-else": ("run_loops", 1),
            "aenter": ("run_contexts", 1), "async-with-body": ("run_contexts", 1),
            "async-yield": ("run_comprehends", 3),
        })


class RunningCode(BreakCase):
    """Breakpoints set while the code they are for is on a stack."""

    def setUp(self):
        BreakCase.setUp(self)
        self.path = self.write("running.py", """
            def outer():
                middle()
                after_middle = 1  #@ outer
                return after_middle

            def middle():
                inner()
                after_inner = 1  #@ middle
                return after_inner

            def inner():
                here = 1  #@ inner
                return here

            def count(stop):
                turns = 0
                while not stop.is_set():
                    turns += 1  #@ turn
                return turns

            def compute(limit):
                turns = 0
                while turns < limit and not found:
                    turns += 1  #@ compute
                return turns

            found = []
            """)
        self.code = self.load_file(self.path)

    def test_in_all_callers_of_the_frame_that_is_stopped(self):
        def more(frame):
            self.break_at(self.path, "outer")
            self.break_at(self.path, "middle")
        self.break_at(self.path, "inner")
        self.run_traced(self.code.outer, more)
        self.assertEqual(self.hits(), ["inner", "middle", "outer"])

    def test_set_by_the_program_itself_in_its_own_caller(self):
        self.code.inner = lambda: self.break_at(self.path, "outer")
        self.run_traced(self.code.outer)
        self.assertEqual(self.hits(), ["outer"])

    def test_before_tracing_starts_in_code_that_runs_already(self):
        """The frames on the stack are looked at when tracing starts."""
        self.break_at(self.path, "middle")

        def start():
            self.tracer.start_trace()
            self.tracer.continue_run()
        self.code.inner = start
        self.code.outer()
        self.tracer.stop_trace()
        self.assertEqual(self.hits(), ["middle"])

    def run_thread(self, function):
        thread = threading.Thread(target=function)
        thread.daemon = True
        self.run_traced(lambda: self.start_and_wait(thread))

    def start_and_wait(self, thread):
        thread.start()
        thread.join(30)
        self.assertFalse(thread.is_alive())

    def start_new_threads_traced(self):
        def hooks(install):
            threading.settrace(self.tracer.bootstrap_new_thread if install else None)
        self.session.thread_hooks_cb = hooks
        self.session.init()
        self.tracer.set_use_canonical_pathnames(self.regime)
        self.tracer.set_autoquit(0)

    def test_in_a_thread_that_runs_the_function_already(self):
        self.start_new_threads_traced()
        stop, running = threading.Event(), threading.Event()
        # No Event: the other thread may be held up by the stop in the midst of its Python code,
        # with the lock that set() needs.
        hit = threading.Lock()
        hit.acquire()

        class Turn(object):
            def is_set(self):
                running.set()
                return stop.is_set()

        def at_hit(frame):
            self.clear_at(self.path, "turn")
            hit.release()
        thread = threading.Thread(target=self.code.count, args=(Turn(),))
        thread.daemon = True

        def program():
            thread.start()
            running.wait(30)
            self.break_at(self.path, "turn")
            hit.acquire()
            stop.set()
            thread.join(30)
        self.run_traced(program, at_hit)
        self.assertEqual(self.hits(), ["turn"])

    def compute_until_the_idle_call_breaks(self, use_idle_thread):
        tracer = self.tracer
        session = self.session

        def idle():
            if not self.tracer.get_breaks(self.path, line_of(self.path, "compute")):
                self.break_at(self.path, "compute", temporary=1)
        session.idle_period = 1.0
        session.idle_cb = idle
        session.init()
        tracer.set_use_idle_thread(1 if use_idle_thread else 0)
        if use_idle_thread and not tracer.get_use_idle_thread():
            raise unittest.SkipTest("no idle thread on this interpreter")
        self.run_traced(lambda: self.code.compute(10 ** 9), lambda frame: self.code.found.append(1))
        self.assertEqual(self.hits(), ["compute"])

    def test_from_the_idle_callback_while_the_program_computes(self):
        self.compute_until_the_idle_call_breaks(use_idle_thread=False)

    def test_from_the_idle_thread_while_the_program_computes(self):
        self.compute_until_the_idle_call_breaks(use_idle_thread=True)


class CanonicalRunningCode(RunningCode):
    regime = kCanonical


if __name__ == "__main__":
    unittest.main()
