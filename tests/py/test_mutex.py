"""The debug-server mutex: one thread at a time is in the debug server."""
from __future__ import absolute_import, division, print_function

import threading
import unittest

from support import TestCase, import_tracer
from support.tracing import Session, ThreadSession, import_debuggee

steps = import_debuggee("steps")


def closed_gate():
    """A lock that one thread releases and another waits for.

    Not an Event: its wait() is Python code in which a traced thread may be held, with the lock of
    the event in its hands.
    """
    lock = threading.Lock()
    lock.acquire()
    return lock


class MutexTest(TestCase):
    def setUp(self):
        self.tracer = Session().tracer

    def held(self):
        return self.tracer.is_dbgserver_mutex_held()

    def is_free(self):
        """Another thread can have it."""
        def take():
            found.append(self.tracer.acquire_dbgserver_mutex())
            self.tracer.release_dbgserver_mutex()
            self.tracer.thread_exiting()

        found = []
        thread = threading.Thread(target=take)
        thread.start()
        thread.join()
        return found == [1]

    def test_it_is_free_at_first(self):
        self.assertEqual(self.held(), 0)
        self.assertTrue(self.is_free())

    def test_acquiring_and_releasing(self):
        self.assertEqual(self.tracer.acquire_dbgserver_mutex(), 1)
        self.assertEqual(self.held(), 1)
        self.assertIsNone(self.tracer.release_dbgserver_mutex())
        self.assertEqual(self.held(), 0)
        self.assertTrue(self.is_free())

    def test_nested_it_is_kept_to_the_outermost_release(self):
        for _ in range(3):
            self.assertEqual(self.tracer.acquire_dbgserver_mutex(), 1)
        for _ in range(2):
            self.tracer.release_dbgserver_mutex()
            self.assertEqual(self.held(), 1)
        self.tracer.release_dbgserver_mutex()
        self.assertEqual(self.held(), 0)
        self.assertTrue(self.is_free())

    def test_releasing_what_was_not_acquired_changes_nothing(self):
        for _ in range(3):
            self.assertIsNone(self.tracer.release_dbgserver_mutex())
        self.assertEqual(self.held(), 0)
        self.tracer.acquire_dbgserver_mutex()
        self.assertEqual(self.held(), 1)
        self.tracer.release_dbgserver_mutex()
        self.assertEqual(self.held(), 0)
        self.assertTrue(self.is_free())

    def test_another_thread_does_not_hold_it_nor_give_it_back(self):
        def other():
            seen.append(self.held())
            self.tracer.release_dbgserver_mutex()

        seen = []
        self.tracer.acquire_dbgserver_mutex()
        thread = threading.Thread(target=other)
        thread.start()
        thread.join()
        self.assertEqual(seen, [0])
        self.assertEqual(self.held(), 1)
        self.tracer.release_dbgserver_mutex()

    def test_another_thread_waits_for_it_and_lets_others_run(self):
        def wait():
            about_to_wait.set()
            self.tracer.acquire_dbgserver_mutex()
            order.append("other")
            self.tracer.release_dbgserver_mutex()

        order = []
        about_to_wait = threading.Event()
        self.tracer.acquire_dbgserver_mutex()
        thread = threading.Thread(target=wait)
        thread.start()
        about_to_wait.wait()
        order.append("first")  # never, if the waiting thread kept the interpreter
        self.tracer.release_dbgserver_mutex()
        thread.join()
        self.assertEqual(order, ["first", "other"])

    def test_a_thread_may_end_while_it_holds_it(self):
        def take():
            self.tracer.acquire_dbgserver_mutex()
            self.tracer.acquire_dbgserver_mutex()
            self.tracer.thread_exiting()

        def take_and_give():
            self.tracer.acquire_dbgserver_mutex()
            self.tracer.release_dbgserver_mutex()
            self.tracer.thread_exiting()
            seen.append(self.held())

        seen = []
        thread = threading.Thread(target=take_and_give)
        thread.start()
        thread.join()
        self.assertEqual(seen, [0])
        self.assertTrue(self.is_free())
        thread = threading.Thread(target=take)
        thread.start()
        thread.join()
        self.assertEqual(self.held(), 0)

    def test_arguments_are_refused(self):
        for name in ("acquire_dbgserver_mutex", "release_dbgserver_mutex",
                     "is_dbgserver_mutex_held"):
            self.assertRaises(TypeError, getattr(self.tracer, name), 1)


class StopTest(TestCase):
    def test_it_is_held_in_every_callback(self):
        held = []

        def look(*_):
            held.append(session.tracer.is_dbgserver_mutex_held())
            session.tracer.step_into()

        session = Session(line_cb=look, return_cb=look, exception_cb=look, import_cb=None)
        session.run(steps.catches)
        self.assertEqual(set(held), set([1]))
        self.assertGreater(len(held), 8)
        self.assertEqual(session.tracer.is_dbgserver_mutex_held(), 0)

    def test_it_is_free_after_a_callback_failed(self):
        session = Session(line_cb=lambda frame: 1 // 0)
        session.run(steps.calls)
        self.assertEqual(session.tracer.is_dbgserver_mutex_held(), 0)
        session.tracer.acquire_dbgserver_mutex()
        session.tracer.release_dbgserver_mutex()

    def test_what_a_callback_executes_is_not_dispatched(self):
        session = Session()
        session.run(steps.calls, lambda frame: (session.tracer.step_into(), steps.add(1, 2)),
                    "continue_run")
        self.assertEqual(session.stops, [("line", "calls", "calls-add"),
                                         ("line", "add", "add-first")])

    def order_of_threads(self, debug_all_threads, wait_in_stop):
        """What happens first: the end of a stop, or a line of another traced thread."""
        order = []
        go, ready = closed_gate(), closed_gate()

        def other():
            ready.release()
            go.acquire()
            order.append("other")

        def in_stop(frame):
            go.release()
            if wait_in_stop:
                thread.join()
            order.append("stop ends")

        session = ThreadSession()
        session.tracer.set_debug_all_threads(debug_all_threads)
        thread = threading.Thread(target=other)

        def program(stop):
            thread.start()
            ready.acquire()
            stop()
            order.append("main")
            thread.join()

        session.run(program, in_stop)
        return order

    def test_other_threads_wait_while_one_is_stopped(self):
        self.assertEqual(self.order_of_threads(1, False)[0], "stop ends")

    def test_other_threads_run_untraced_if_only_one_is_to_be_debugged(self):
        self.assertEqual(self.order_of_threads(0, True), ["other", "stop ends", "main"])

    def test_a_waiting_thread_does_not_call_back_when_tracing_ended(self):
        ready, go = closed_gate(), closed_gate()
        done = []

        def other():
            session.tracer.step_into()
            ready.release()
            go.acquire()
            done.append(1)

        session = ThreadSession()
        stops = session.stops
        session.tracer.start_trace()
        thread = threading.Thread(target=other)
        session.script = [lambda frame: session.tracer.continue_run()]
        thread.start()
        ready.acquire()
        session.tracer.acquire_dbgserver_mutex()
        before = len(stops)
        go.release()
        session.tracer.stop_trace()
        session.tracer.release_dbgserver_mutex()
        thread.join()
        self.assertEqual(len(stops), before)
        self.assertEqual(done, [1])
        session.tracer.acquire_dbgserver_mutex()
        self.assertEqual(session.tracer.is_dbgserver_mutex_held(), 1)
        session.tracer.release_dbgserver_mutex()


class BeforeInitTest(TestCase):
    def test_it_is_refused(self):
        tracer = import_tracer()
        self.assertRaises(RuntimeError, tracer.acquire_dbgserver_mutex)
        self.assertRaises(RuntimeError, tracer.release_dbgserver_mutex)


if __name__ == "__main__":
    unittest.main()
