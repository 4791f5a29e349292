"""How threads come under the debugger, which of them do, and what is known about each."""
from __future__ import absolute_import, division, print_function

import sys
import threading
import unittest

from support import TestCase
from support.tracing import Session, ThreadSession, import_debuggee

steps = import_debuggee("steps")

try:
    import _thread
except ImportError:
    import thread as _thread


class BootstrapTest(TestCase):
    def test_a_new_thread_can_stop(self):
        session = ThreadSession()
        session.run(lambda stop: session.run_thread(steps.calls, stop), "step_over", "step_into")
        self.assertEqual(session.stops, [
            ("line", "calls", "calls-add"), ("line", "calls", "calls-again"),
            ("line", "add", "add-first")])

    def test_each_thread_steps_for_itself(self):
        session = ThreadSession()
        session.show = lambda frame: threading.current_thread() is main
        main = threading.current_thread()

        def program(stop):
            stop()
            session.run_thread(steps.add, 1, 2); steps.add(3, 4)

        session.run(program, "step_into", "step_into")
        self.assertEqual([stop[-1] for stop in session.stops], [True] * len(session.stops))

    def test_a_thread_that_begins_while_not_tracing_is_left_alone(self):
        session = ThreadSession()
        traced = []
        threading.settrace(session.tracer.bootstrap_new_thread)
        session.run_thread(lambda: traced.append(sys.gettrace()))
        threading.settrace(None)
        self.assertEqual(traced, [None])

    def test_running_threads_are_traced_from_the_start_or_their_next_import_on(self):
        session = ThreadSession()
        ready, go = threading.Event(), threading.Event()
        traced = []

        def waits():
            ready.set()
            go.wait()
            traced.append(sys.gettrace())
            __import__("sys")
            traced.append(sys.gettrace())
            steps.calls(session.tracer.stop)

        thread = threading.Thread(target=waits)
        thread.start()
        ready.wait()
        session.script = ["step_over"]
        session.tracer.start_trace()
        go.set()
        thread.join()
        session.tracer.stop_trace()
        function = session.tracer.trace_dispatch
        self.assertEqual(traced, [function, function])
        self.assertEqual(session.stops[:2], [("line", "calls", "calls-add"),
                                             ("line", "calls", "calls-again")])

    def test_running_threads_are_left_alone_after_the_end(self):
        session = ThreadSession()
        ready, go = threading.Event(), threading.Event()
        results = []

        def waits():
            ready.set()
            go.wait()
            results.append(steps.calls(session.tracer.stop))
            results.append(steps.add(1, 2))
            results.append(sys.gettrace())

        session.tracer.start_trace()
        thread = threading.Thread(target=waits)
        thread.start()
        ready.wait()
        session.tracer.stop_trace()
        go.set()
        thread.join()
        self.assertEqual(results, [10, 3, None])
        self.assertEqual(session.stops, [])

    def test_arguments_of_bootstrap_are_checked(self):
        session = ThreadSession()
        self.assertIsNone(session.tracer.bootstrap_new_thread())  # not tracing: nothing to do
        session.tracer.start_trace()
        try:
            self.assertRaises(TypeError, session.tracer.bootstrap_new_thread)
        finally:
            session.tracer.stop_trace()

    def test_many_threads_come_and_go(self):
        session = ThreadSession()
        stopped = []
        session.line_cb = lambda frame: stopped.append(frame.f_code.co_name)
        session.init()
        session.tracer.start_trace()
        for _ in range(30):
            session.run_thread(steps.calls, session.tracer.stop)
        session.tracer.stop_trace()
        self.assertEqual(stopped.count("calls"), 30)


class PolicyTest(TestCase):
    def setUp(self):
        self.session = ThreadSession()
        self.tracer = self.session.tracer
        self.asked = []

    def answer(self, value):
        def policy(tstate_id):
            self.asked.append(tstate_id)
            return value(tstate_id) if callable(value) else value
        self.tracer.set_debug_thread_cb(policy)

    def stops_in_thread(self):
        del self.session.stops[:]
        self.session.run(lambda stop: self.session.run_thread(steps.calls, stop), "step_over")
        return len(self.session.stops)

    def test_without_one_every_thread_is_debugged(self):
        self.assertEqual(self.stops_in_thread(), 2)

    def test_the_answer_decides(self):
        for value, stops in [(0, 0), (1, 2), (2, 2), (True, 2), (False, 0), (-1, 2)]:
            self.answer(value)
            self.assertEqual(self.stops_in_thread(), stops, value)

    def test_it_is_asked_with_the_id_of_the_thread_state(self):
        seen = []
        self.answer(1)

        def thread():
            seen.append(self.tracer.get_current_tstate_id())

        self.session.run(lambda stop: self.session.run_thread(thread))
        self.assertIn(seen[0], self.asked)

    def test_it_is_asked_once_for_each_thread(self):
        self.answer(1)

        def program(stop):
            self.session.run_thread(steps.calls, stop)
            self.session.run_thread(steps.calls, stop)

        self.session.run(program, *["step_into"] * 10)
        self.assertEqual(self.asked.count(self.tracer.get_current_tstate_id()), 1)
        self.assertLessEqual(len(self.asked), 1 + 2 * 2)  # where the eval-frame hook asks, too

    def test_a_failing_one_debugs_the_thread(self):
        def fail(tstate_id):
            raise ValueError("no idea")

        self.answer(fail)
        self.assertEqual(self.stops_in_thread(), 2)
        asked = len(self.asked)
        self.assertLessEqual(asked, 4)  # the failure is remembered

    def test_what_is_no_number_debugs_the_thread(self):
        for value in ("text", None, []):
            self.answer(value)
            self.assertEqual(self.stops_in_thread(), 2, value)

    def test_a_new_one_is_asked_again(self):
        self.answer(0)
        self.assertEqual(self.stops_in_thread(), 0)
        self.answer(1)
        self.assertEqual(self.stops_in_thread(), 2)

    def test_one_that_the_callback_sets_is_asked_next(self):
        def replace_myself(tstate_id):
            self.answer(1)
            return 0

        self.answer(replace_myself)
        self.assert_the_answer_of_another_counts()

    def assert_the_answer_of_another_counts(self):
        self.session.run(steps.calls, "step_over")
        self.assertEqual(self.session.stops[0], ("line", "calls", "calls-add"))
        self.assertEqual(self.asked.count(self.tracer.get_current_tstate_id()), 2)

    def test_one_set_by_another_thread_meanwhile_is_asked_next(self):
        done = _thread.allocate_lock()
        done.acquire()
        main = self.tracer.get_current_tstate_id()

        def set_another():
            self.answer(1)
            done.release()

        def wait_for_another(tstate_id):
            if tstate_id == main:
                _thread.start_new_thread(set_another, ())
                done.acquire()
            return 0

        self.answer(wait_for_another)
        self.assert_the_answer_of_another_counts()

    def test_set_in_a_stop_it_counts_at_once(self):
        self.session.run(steps.calls, lambda frame: (self.tracer.step_over(), self.answer(0)))
        self.assertEqual(self.session.stops, [("line", "calls", "calls-add")])

    def test_what_it_executes_is_not_traced(self):
        self.answer(lambda tstate_id: steps.add(0, 1))
        self.session.run(steps.calls, "step_into")
        self.assertEqual(self.session.stops, [("line", "calls", "calls-add"),
                                              ("line", "add", "add-first")])

    def test_the_pending_exception_is_kept(self):
        def policy(tstate_id):
            try:
                raise KeyError("policy")
            except KeyError:
                return 1

        def program(stop):
            self.tracer.set_debug_thread_cb(policy)
            try:
                steps.fails()
            except ValueError:
                self.tracer.set_debug_thread_cb(policy)
                return sys.exc_info()[0]

        self.assertIs(self.session.run(program), ValueError)


class QueryTest(TestCase):
    def test_threads_are_listed_by_the_id_of_their_state(self):
        session = ThreadSession()
        found = []

        def thread():
            found.append((session.tracer.get_current_tstate_id(), session.tracer.get_threads()))

        def program(stop):
            session.run_thread(thread)
            return session.tracer.get_threads()

        after = session.run(program)
        own = session.tracer.get_current_tstate_id()
        self.assertEqual(set(found[0][1]), set([own, found[0][0]]))
        self.assertEqual(after, [own])

    def test_the_current_frame_is_that_of_the_stop(self):
        session = Session()
        seen = []
        tracer = session.tracer

        def look(frame):
            seen.append(tracer.get_curr_frame(tracer.get_current_tstate_id()) is frame)
            tracer.step_into()

        session.run(steps.calls, *[look] * 5)
        self.assertEqual(seen, [True] * 5)
        self.assertIsNone(tracer.get_curr_frame(tracer.get_current_tstate_id()))

    def test_of_an_unknown_thread_there_is_no_current_frame(self):
        tracer = Session().tracer
        self.assertRaisesRegex(
            IndexError, "^get_curr_frame called for unknown or terminated thread$",
            tracer.get_curr_frame, 4096)
        self.assertRaises(IndexError, tracer.get_curr_frame)
        self.assertRaises(TypeError, tracer.get_curr_frame, "text")

    def test_of_a_thread_that_ended_there_is_none_either(self):
        session = ThreadSession()
        ids = []
        session.run(lambda stop: session.run_thread(
            lambda: ids.append(session.tracer.get_current_tstate_id())))
        self.assertRaises(IndexError, session.tracer.get_curr_frame, ids[0])
        self.assertIsNone(session.tracer.get_thread_name(ids[0]))

    def test_the_bottom_frame(self):
        session = Session()
        seen = []

        def look(frame):
            outermost = frame
            while outermost.f_back is not None:
                outermost = outermost.f_back
            seen.append((session.tracer.is_botframe(frame),
                         session.tracer.is_botframe(outermost),
                         session.tracer.is_botframe(None)))

        session.run(steps.calls, look)
        self.assertEqual(seen, [(0, 1, 0)])
        self.assertRaises(IndexError, session.tracer.is_botframe)

    def test_a_thread_is_named_after_what_it_runs(self):
        names = []
        session = ThreadSession()

        def ask():
            names.append(session.tracer.get_thread_name(session.tracer.get_current_tstate_id()))

        def target():
            ask()

        class Own(threading.Thread):
            def run(self):
                target()

        def program(stop):
            for thread in (threading.Thread(target=target), Own()):
                thread.start()
                thread.join()

        session.run(program)
        # With its own run() the class that is found, if any, comes first.
        self.assertEqual(names[0], "target")
        self.assertIn(names[1], ("run", "Own.run"))

    def test_a_deep_stack_is_named_after_its_outermost_frame(self):
        session = Session()
        names = []

        def ask():
            names.append(session.tracer.get_thread_name(session.tracer.get_current_tstate_id()))

        session.run(lambda stop: ask())
        self.assertEqual(names, ["<module>"])

    def test_a_thread_gets_its_name_once_its_stack_is_deep(self):
        """The same functions ran on a shallow stack before, perhaps in the same frame objects."""
        session = Session()
        names, done = [], threading.Event()

        def asks():
            names.append(session.tracer.get_thread_name(session.tracer.get_current_tstate_id()))

        def inner():
            asks()

        def middle():
            inner()

        def begins():
            inner()
            middle()

        def outermost():
            sys.settrace(session.tracer.bootstrap_new_thread)
            begins()
            sys.settrace(None)
            session.tracer.thread_exiting()
            done.set()

        def program(stop):
            _thread.start_new_thread(outermost, ())
            done.wait()

        session.run(program)
        self.assertEqual(names, [None, "outermost"])

    def test_threads_of_the_low_level_module_stop_when_told_to(self):
        """Their first import, and where it can be hooked their first frame, adopts them."""
        session = Session()
        done = threading.Event()
        traced = []

        def target():
            try:
                __import__("sys")
                traced.append(sys.gettrace())
                steps.calls(session.tracer.stop)
            finally:
                done.set()

        session.run(lambda stop: (_thread.start_new_thread(target, ()), done.wait()),
                    "step_over")
        self.assertEqual(traced, [session.tracer.trace_dispatch])
        self.assertEqual(session.stops[:2], [("line", "calls", "calls-add"),
                                             ("line", "calls", "calls-again")])


class BreakpointHookTest(TestCase):
    def test_it_stops_at_the_line_of_the_call(self):
        session = Session()

        def program(stop):
            session.tracer.breakpointhook()
            return steps.add(1, 2)

        self.assertEqual(session.run(program, "step_into", "step_into"), 3)
        self.assertEqual([stop[:2] for stop in session.stops],
                         [("line", "program"), ("line", "program"), ("line", "add")])

    def test_while_not_tracing_it_still_shows_the_place(self):
        session = Session()
        session.tracer.breakpointhook()
        self.assertEqual([stop[1] for stop in session.stops],
                         ["test_while_not_tracing_it_still_shows_the_place"])
        session.tracer.continue_run()

    def test_a_failing_callback_does_not_reach_the_program(self):
        session = Session(line_cb=lambda frame: 1 // 0)
        self.assertIsNone(session.tracer.breakpointhook())
        self.assertIsNone(session.run(lambda stop: session.tracer.breakpointhook()))

    def test_it_adopts_a_thread_behind_the_debuggers_back(self):
        session = Session()
        done = threading.Event()
        session.tracer.set_use_eval_frame(0)
        stopped = []
        session.line_cb = lambda frame: stopped.append(frame.f_code.co_name)
        session.init()

        def target():
            try:
                session.tracer.breakpointhook()
                stopped.append(sys.gettrace())
            finally:
                done.set()

        session.run(lambda stop: (_thread.start_new_thread(target, ()), done.wait()))
        self.assertEqual(stopped, ["target", session.tracer.trace_dispatch])


if __name__ == "__main__":
    unittest.main()
