"""Long sessions keep nothing: references where they can be counted, else memory."""
from __future__ import absolute_import, division, print_function

import gc
import sys
import unittest

from support import TestCase, growth_of_references, has, needs, time_limit
from support.modules import hide_modules
from support.tracing import Session, ThreadSession, import_debuggee

kOnceWhenQuick = True

steps = import_debuggee("steps")

kStops = 10000
kCycles = 1000
# What the repetitions may add to the process after a first fifth as many, for the allocators' sake.
kMemoryBound = 512  # KB
kLifeMemoryBound = 96  # KB; few modules are scanned, so little is allocated


def resident_memory():
    """KB of the process that are in memory."""
    with open("/proc/self/status") as status:
        for line in status:
            if line.startswith("VmRSS:"):
                return int(line.split()[1])


class QuietSession(Session):
    """Keeps no list of its own."""

    command = "step_into"

    def init(self):
        self.count = 0
        Session.init(self)

    def stop(self, frame, kind, *details):
        self.count += 1
        getattr(self.tracer, self.command)()


class LeakCase(TestCase):
    memory_bound = kMemoryBound

    def assert_keeps_nothing(self, operation, times):
        """References and memory stay where they are while the operation is repeated."""
        for _ in range(times // 5):
            operation()
        # A leak shows every time; an allocator's first growth does not.
        gains = []
        while not gains or (gains[-1][1] >= self.memory_bound and len(gains) < 3):
            gains.append(self.gain(operation, times))
        references, memory = gains[-1]
        self.assertLess(references, max(times // 2, 20), "references")
        self.assertLess(memory, self.memory_bound, "KB")

    def gain(self, operation, times):
        """References (0 where they are not counted) and KB more after so many operations."""
        gc.collect()
        memory = resident_memory()
        counted = sys.gettotalrefcount() if has("total_refcount") else 0
        for _ in range(times):
            operation()
        gc.collect()
        gained = sys.gettotalrefcount() - counted if has("total_refcount") else 0
        return gained, resident_memory() - memory


@time_limit(180)
class StopTest(LeakCase):
    def stops(self, function, command="step_into"):
        session = QuietSession()
        session.command = command
        session.run(function)
        each = session.count
        self.assertGreater(each, 1)
        session.tracer.start_trace()

        def operation():
            function(session.tracer.stop)
            session.tracer.continue_run()

        try:
            self.assert_keeps_nothing(operation, kStops // each + 1)
        finally:
            session.tracer.stop_trace()
        self.assertGreater(session.count, kStops)

    def test_stepping_into_calls(self):
        self.stops(steps.calls)

    def test_stepping_into_generators(self):
        self.stops(steps.consumes)

    def test_stepping_into_exceptions(self):
        self.stops(steps.catches)

    def test_stepping_over_calls(self):
        self.stops(steps.calls, "step_over")

    def test_stepping_over_lines(self):
        self.stops(steps.one_line, "step_over_line")

    def test_stepping_out(self):
        self.stops(steps.deep, "step_out")

    def test_class_bodies(self):
        self.stops(steps.defines_class)


@time_limit(180)
class EventTest(LeakCase):
    def test_events_without_stops(self):
        session = QuietSession()

        def operation():
            steps.catches(lambda: None)
            steps.consumes(lambda: None)

        session.tracer.start_trace()
        self.assert_keeps_nothing(operation, kStops // 10)
        session.tracer.stop_trace()

    def test_injected_exceptions(self):
        session = QuietSession()
        session.stop = lambda frame, kind, *_: (
            session.tracer.raise_exception(0, ValueError("x")), session.tracer.continue_run())

        def operation():
            try:
                steps.calls(session.tracer.stop)
            except ValueError:
                pass

        session.tracer.start_trace()
        self.assert_keeps_nothing(operation, kCycles)
        session.tracer.stop_trace()

    def test_injected_exceptions_taken_back(self):
        session = QuietSession()

        def operation():
            for exc in (ValueError("a"), KeyError("b"), None, OSError("c"), None):
                session.tracer.raise_exception(0, exc)

        self.assert_keeps_nothing(operation, kCycles)

    def test_dispatching_from_python(self):
        session = QuietSession()
        session.tracer.start_trace()
        frame = sys._getframe()

        def operation():
            for event in ("call", "xyz", "return", "c_call"):
                session.tracer.trace_dispatch(frame, event, None)

        self.assert_keeps_nothing(operation, kCycles)
        session.tracer.stop_trace()


@time_limit(300)
class LifeTest(LeakCase):
    memory_bound = kLifeMemoryBound

    def cycle(self, *names):
        session = QuietSession()
        hide_modules(self)

        def operation():
            for name in names:
                if name == "init":
                    session.init()
                elif name == "run":
                    steps.add(1, 2)
                else:
                    getattr(session.tracer, name)()

        self.assert_keeps_nothing(operation, kCycles)

    def test_start_and_stop(self):
        self.cycle("start_trace", "run", "stop_trace", "get_new_imports")

    def test_the_whole_life(self):
        self.cycle("init", "start_trace", "run", "stop_trace", "reset", "destroy")

    def test_init_again_and_again(self):
        self.cycle("init")

    def test_init_while_tracing(self):
        self.cycle("init", "start_trace", "run")

    def test_reset_while_stepping(self):
        self.cycle("start_trace", "step_into", "run", "reset")

    def test_the_mutex(self):
        self.cycle("acquire_dbgserver_mutex", "acquire_dbgserver_mutex", "release_dbgserver_mutex",
                   "release_dbgserver_mutex", "release_dbgserver_mutex")

    def test_queries(self):
        self.cycle("get_threads", "get_new_imports", "get_current_tstate_id", "get_tracing",
                   "get_always_stop_excepts")


@time_limit(180)
class ThreadTest(LeakCase):
    def test_threads_that_come_and_go(self):
        session = ThreadSession()
        session.tracer.start_trace()

        def operation():
            session.run_thread(steps.calls, session.tracer.stop)
            del session.stops[:]

        self.assert_keeps_nothing(operation, kCycles // 4)
        session.tracer.stop_trace()
        self.assertEqual(len(session.tracer.get_threads()), 1)

    def test_threads_that_the_policy_ignores(self):
        session = ThreadSession()
        session.tracer.set_debug_thread_cb(lambda tstate_id: 0)
        session.tracer.start_trace()
        self.assert_keeps_nothing(
            lambda: session.run_thread(steps.add, 1, 2), kCycles // 4)
        session.tracer.stop_trace()


class ExactTest(TestCase):
    """To the last reference, on interpreters that count them."""

    @needs("total_refcount")
    def test_a_session_with_stops(self):
        session = QuietSession()

        def operation():
            session.tracer.start_trace()
            steps.catches(session.tracer.stop)
            session.tracer.continue_run()
            session.tracer.stop_trace()
            session.tracer.get_new_imports()  # each start adds the running script

        self.assertEqual(growth_of_references(operation), 0)

    @needs("total_refcount")
    def test_init_and_destroy(self):
        session = QuietSession()

        def operation():
            session.init()
            session.tracer.start_trace()
            steps.add(1, 2)
            session.tracer.destroy()

        self.assertEqual(growth_of_references(operation), 0)

    @needs("total_refcount")
    def test_refused_calls(self):
        session = QuietSession()
        tracer = session.tracer

        def operation():
            for call, arguments in [
                    (tracer.step_out_to_frame, (42,)), (tracer.step_over_line_range, ("x",)),
                    (tracer.get_curr_frame, (4096,)), (tracer.trace_dispatch, (1,)),
                    (tracer.init, (0.0, 0) + (42,) * 10), (tracer.register_module, (42,))]:
                self.assertRaises((TypeError, IndexError), call, *arguments)

        self.assertEqual(growth_of_references(operation), 0)


if __name__ == "__main__":
    unittest.main()
