"""The hook in front of the interpreter's frame evaluation, and interpreters without one."""
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

# Each generation from 3.6 to 3.11 evaluates frames through a function that can be replaced; 2.7 has
# none, and from 3.12 on the hook is no use.
kHasHook = (3, 6) <= sys.version_info[:2] <= (3, 11)


class HookTest(TestCase):
    def trace_function_in_thread(self, session, then=lambda: None):
        """sys.gettrace() at the beginning of a thread started behind the debugger's back."""
        done = threading.Event()
        traced = []

        def target():
            traced.append(sys.gettrace())
            try:
                then()
            finally:
                done.set()

        _thread.start_new_thread(target, ())
        done.wait()
        return traced[0]

    def in_session(self, session, **options):
        return session.run(lambda stop: self.trace_function_in_thread(session, **options))

    def expected(self, session):
        return session.tracer.trace_dispatch if kHasHook else None

    def test_an_unknown_thread_is_adopted_at_its_first_frame(self):
        session = Session()
        self.assertEqual(self.in_session(session), self.expected(session))

    def test_an_adopted_thread_can_stop(self):
        session = Session()
        session.script = ["step_over"]

        def program(stop):
            session.script = ["step_over"]
            self.trace_function_in_thread(session, then=lambda: steps.calls(stop))

        session.run(program)
        expected = [("line", "calls", "calls-add"), ("line", "calls", "calls-again")]
        self.assertEqual(session.stops[:2], expected if kHasHook else [])

    def test_when_switched_off_nobody_is_adopted(self):
        session = Session()
        self.assertEqual(session.tracer.get_use_eval_frame(), 1)
        session.tracer.set_use_eval_frame(0)
        self.assertEqual(session.tracer.get_use_eval_frame(), 0)
        self.assertIsNone(self.in_session(session))

    def test_it_can_be_switched_while_tracing(self):
        session = Session()

        def program(stop):
            seen = []
            for flag in (0, 1, 1, 0, 0):
                session.tracer.set_use_eval_frame(flag)
                seen.append(self.trace_function_in_thread(session) is not None)
            return seen

        seen = session.run(program)
        self.assertEqual([seen[0]] + seen[3:], [False] * 3)
        if not kHasHook:
            self.assertEqual(seen, [False] * 5)
        else:  # on 3.11 it is not installed a second time
            self.assertEqual(seen[1:3], [sys.version_info[:2] != (3, 11)] * 2)

    def test_after_the_end_nobody_is_adopted(self):
        session = Session()
        session.run(lambda stop: None)
        self.assertIsNone(self.trace_function_in_thread(session))
        session.tracer.reset()
        self.assertIsNone(self.trace_function_in_thread(session))

    def test_a_thread_that_is_not_to_be_debugged_is_left_alone(self):
        session = Session()
        main = session.tracer.get_current_tstate_id()
        session.tracer.set_debug_thread_cb(lambda tstate_id: tstate_id == main)
        self.assertIsNone(self.in_session(session))

    def test_a_policy_that_fails_debugs_the_thread(self):
        session = Session()

        def policy(tstate_id):
            raise ValueError("no idea")

        session.tracer.set_debug_thread_cb(policy)
        self.assertEqual(self.in_session(session), self.expected(session))

    def test_threads_of_the_threading_module_get_their_own_start(self):
        session = ThreadSession()
        session.run(lambda stop: session.run_thread(steps.calls, stop), "step_over")
        self.assertEqual(session.stops[:2], [("line", "calls", "calls-add"),
                                             ("line", "calls", "calls-again")])

    def test_generators_and_deep_calls_pass_through_it(self):
        session = Session()

        def program(stop):
            def deep(level):
                return 0 if level == 0 else 1 + deep(level - 1)

            numbers = steps.numbers()
            try:
                numbers.throw(KeyError("thrown"))
            except KeyError as why:
                return list(steps.numbers()), deep(200), why.args

        self.assertEqual(session.run(program), ([1, 2], 200, ("thrown",)))

    def test_init_after_init_keeps_the_interpreter_working(self):
        """The interpreter's own function must not be forgotten, nor ours be taken for it."""
        session = Session()
        for stop in (True, False, True, False):
            session.tracer.start_trace()
            if stop:
                session.tracer.stop_trace()
            session.init()
            self.assertIsNone(self.trace_function_in_thread(session))
            self.assertEqual(list(steps.numbers()), [1, 2])
        session.tracer.destroy()
        self.assertIsNone(self.trace_function_in_thread(session))


if __name__ == "__main__":
    unittest.main()
