"""Many threads, of every origin, stopping and stepping at once."""
from __future__ import absolute_import, division, print_function

import ctypes
import os
import sys
import threading
import unittest
import weakref

from support import TestCase, load_native, needs, time_limit
from support.tracing import ThreadSession, import_debuggee, run_all

steps = import_debuggee("steps")

try:
    import _thread
except ImportError:
    import thread as _thread
try:
    from threading import get_ident
except ImportError:
    from thread import get_ident


def start_native_thread(function):
    """Run the function in a thread that the C library makes and Python does not know of."""
    library = ctypes.CDLL(None)
    callback = ctypes.CFUNCTYPE(ctypes.c_void_p, ctypes.c_void_p)(lambda _: function())
    handle = ctypes.c_ulong()
    if library.pthread_create(ctypes.byref(handle), None, callback, None) != 0:
        raise RuntimeError("no thread")
    return library, handle, callback


def join_native_thread(thread):
    library, handle, _ = thread
    library.pthread_join(handle, None)


class Origins(TestCase):
    """A thread that steps with three commands, whoever made it."""

    def setUp(self):
        self.session = ThreadSession()
        self.tracer = self.session.tracer

    def check_stops(self):
        self.assertEqual(self.session.stops[:3], [
            ("line", "calls", "calls-add"), ("line", "calls", "calls-again"),
            ("line", "add", "add-first")])

    def run_in(self, start_and_join):
        listed = []

        def target():
            try:
                __import__("sys")  # adopts a thread that nothing else has told of
                listed.append(self.tracer.get_current_tstate_id() in self.tracer.get_threads())
                steps.calls(self.tracer.stop)
            finally:
                sys.settrace(None)
                self.tracer.thread_exiting()

        self.session.run(lambda stop: start_and_join(target), "step_over", "step_into")
        self.assertEqual(listed, [True])
        self.check_stops()

    def test_threading(self):
        def go(target):
            thread = threading.Thread(target=target)
            thread.start()
            thread.join()

        self.run_in(go)

    def test_low_level_module(self):
        def go(target):
            def whole():
                try:
                    target()
                finally:
                    done.set()

            done = threading.Event()
            _thread.start_new_thread(whole, ())
            done.wait()

        self.run_in(go)

    @needs("module:concurrent.futures")
    def test_pool(self):
        from concurrent.futures import ThreadPoolExecutor

        def go(target):
            with ThreadPoolExecutor(1) as pool:
                pool.submit(target).result()

        self.run_in(go)

    def test_thread_of_the_c_library(self):
        self.run_in(lambda target: join_native_thread(start_native_thread(target)))

    def test_thread_of_the_c_library_that_calls_back_many_times(self):
        """Each call has a thread state of its own, often at the address of the one before."""
        seen = []

        def target():
            for _ in range(3):
                __import__("sys")
                seen.append(steps.add(1, 2))

        def go(stop):
            for _ in range(30):
                join_native_thread(start_native_thread(target))

        self.session.run(go)
        self.assertEqual(seen, [3] * 90)
        self.assertEqual(set(self.session.stops) - set([("quit",)]), set())

    def test_it_asks_with_its_own_frame(self):
        found = []

        def target():
            __import__("sys")
            found.append(self.tracer.get_thread_ident_for_tstate_id(
                self.tracer.get_current_tstate_id()) == get_ident())

        self.session.run(lambda stop: join_native_thread(start_native_thread(target)))
        self.assertEqual(found, [True])


class Running(TestCase):
    """Threads that run before start_trace."""

    def run_before(self, count):
        session = ThreadSession()
        ready = [threading.Event() for _ in range(count)]
        go, traced = threading.Event(), []

        def inner():
            return sys.gettrace() is session.tracer.trace_dispatch

        def target(event):
            event.set()
            go.wait()
            traced.append(inner())
            steps.add(1, 2)
            session.tracer.thread_exiting()

        threads = [threading.Thread(target=target, args=(event,)) for event in ready]
        for thread in threads:
            thread.start()
        for event in ready:
            event.wait()

        def program(stop):
            go.set()
            for thread in threads:
                thread.join()

        session.run(program)
        self.assertEqual(session.stops, [])
        return traced

    def test_they_are_traced_where_the_interpreter_allows(self):
        self.assertEqual(self.run_before(1), [True])

    def test_many_of_them(self):
        self.assertEqual(self.run_before(20), [True] * 20)

    def test_one_that_waits_keeps_a_function_that_the_program_has_set(self):
        """Until the tracer's replaces it; nothing of it is left behind or lost."""
        class Function(object):
            def __call__(self, frame, event, arg):
                return None

        # Plain locks: while a method of an event runs, the call of the function holds it, too.
        function, ready, go = Function(), _thread.allocate_lock(), _thread.allocate_lock()
        ready.acquire()
        go.acquire()
        gone = weakref.ref(function)

        def target(functions):
            sys.settrace(functions.pop())
            ready.release()
            go.acquire()

        thread = threading.Thread(target=target, args=([function],))
        thread.start()
        ready.acquire()
        del function
        self.assertIsNotNone(gone())
        session = ThreadSession()
        session.run(lambda stop: None)
        session.tracer.stop_trace()
        is_replaced = gone() is None
        go.release()
        thread.join()
        self.assertTrue(is_replaced)
        self.assertIsNone(gone())

    def test_one_that_waits_is_left_alone_when_tracing_is_stopped_twice(self):
        native, session = load_native(), ThreadSession()
        states, ready, go, found = [], threading.Event(), threading.Event(), []

        def target():
            states.append(session.tracer.get_current_tstate_id())
            ready.set()
            go.wait()
            found.append(sys.gettrace())

        def trace_object():
            return native.borrow_thread_state_traceobj(states[0])

        def target_of_own_function():
            sys.settrace(own)
            session.tracer.stop_trace()
            found.append(sys.gettrace())

        def own(frame, event, arg):
            return None

        native.borrow_thread_state_traceobj.restype = ctypes.c_void_p
        native.borrow_thread_state_traceobj.argtypes = [ctypes.c_void_p]
        threads = [threading.Thread(target=target)]
        threads[0].start()
        ready.wait()
        session.init()
        session.tracer.start_trace()
        with_tracer = trace_object()
        session.tracer.stop_trace()
        threads.append(threading.Thread(target=target_of_own_function))
        threads[1].start()
        threads[1].join()
        after_second = trace_object()
        go.set()
        threads[0].join()
        self.assertEqual(with_tracer, id(session.tracer.trace_dispatch))
        if sys.version_info < (3, 10) or sys.version_info >= (3, 12):
            self.assertIsNone(after_second)
        self.assertEqual(found, [own, None])

    @unittest.skipUnless(hasattr(sys, "addaudithook"), "no audit hooks")
    def test_one_that_waits_is_not_traced_where_an_audit_hook_refuses(self):
        session, ready, go, found = ThreadSession(), threading.Event(), threading.Event(), []

        def refuse(event, args):
            if event == "sys.settrace" and refusing:
                raise RuntimeError("refused")

        def target():
            ready.set()
            go.wait()
            found.append(sys.gettrace())

        thread, refusing = threading.Thread(target=target), []
        thread.start()
        ready.wait()
        session.init()
        sys.addaudithook(refuse)
        refusing.append(True)
        sys.unraisablehook = lambda *_: None
        try:
            session.tracer.start_trace()
        except RuntimeError:
            pass
        del refusing[:]
        go.set()
        thread.join()
        session.tracer.stop_trace()
        self.assertEqual((found, sys.gettrace()), ([None], None))

    def test_one_stops_at_a_breakpoint(self):
        session = ThreadSession()
        ready, go = threading.Event(), threading.Event()

        def target():
            ready.set()
            go.wait()
            __import__("sys")  # adopts it where start_trace could not
            return steps.calls(session.tracer.stop)

        thread = threading.Thread(target=target)
        thread.start()
        ready.wait()
        session.run(lambda stop: (go.set(), thread.join()), "step_into")
        self.assertEqual(session.stops[:2],
                         [("line", "calls", "calls-add"), ("line", "add", "add-first")])

    def test_starting_and_stopping_while_they_run(self):
        session = ThreadSession()
        go_on = [True]
        done = []

        def target():
            while go_on[0]:
                steps.add(1, 2)
            done.append(1)
            session.tracer.thread_exiting()

        threads = [threading.Thread(target=target) for _ in range(4)]
        for thread in threads:
            thread.start()
        for _ in range(20):
            session.tracer.start_trace()
            steps.calls(session.tracer.stop)
            session.tracer.stop_trace()
        go_on[0] = False
        for thread in threads:
            thread.join()
        self.assertEqual(done, [1] * 4)
        self.assertGreaterEqual(len(session.stops), 20)


class Stops(TestCase):
    def test_a_stop_holds_every_other_thread(self):
        """While one is stopped, no line of another runs (only those that were inside C code end
        it)."""
        session = ThreadSession()
        counts, holds = [0] * 4, []
        started = [threading.Event() for _ in counts]
        go_on = [True]

        def target(index):
            session.tracer.step_into()  # so that every line is an event
            started[index].set()
            while go_on[0]:
                counts[index] += 1

        def in_stop(frame):
            session.tracer.step_into()
            if get_ident() == own:
                before = list(counts)
                for _ in range(200):
                    threading.Event().wait(0)  # lets them go, if they can
                holds.append(sum(counts) - sum(before))

        own = get_ident()
        session.line_cb = in_stop
        session.return_cb = lambda frame, value: session.tracer.step_into()
        session.init()
        threads = [threading.Thread(target=target, args=(index,)) for index in range(len(counts))]

        def program(stop):
            for thread in threads:
                thread.start()
            for event in started:
                event.wait()
            stop()
            steps.add(1, 2)
            session.tracer.continue_run()
            go_on[0] = False
            for thread in threads:
                thread.join()

        session.run(program)
        self.assertGreater(len(holds), 3)
        self.assertLessEqual(sum(holds), len(counts))  # each may have been past its event

    def test_the_policy_decides_which_threads_stop(self):
        session = ThreadSession()
        stopped, idents = [], {}

        def policy(tstate_id):
            return idents.setdefault(get_ident(), len(idents)) % 2

        def target(index):
            steps.calls(session.tracer.stop)

        session.line_cb = lambda frame: stopped.append(get_ident())
        session.init()
        session.tracer.set_debug_thread_cb(policy)
        threads = []

        def program(stop):
            ready = threading.Event()
            for index in range(8):
                threads.append(threading.Thread(target=lambda i=index: (ready.wait(), target(i))))
                threads[-1].start()
            ready.set()
            for thread in threads:
                thread.join()

        session.run(program)
        self.assertEqual(set(idents[ident] % 2 for ident in stopped), set([1]))

    def test_stepping_stays_on_its_thread(self):
        session = ThreadSession()
        go_on = [True]
        own = get_ident()
        foreign = []

        def busy():
            while go_on[0]:
                steps.add(1, 2)

        def in_stop(frame):
            foreign.append(get_ident() != own)
            session.tracer.step_over()

        session.line_cb = in_stop
        session.return_cb = lambda frame, value: in_stop(frame)
        session.init()
        threads = [threading.Thread(target=busy) for _ in range(4)]

        def program(stop):
            for thread in threads:
                thread.start()
            stop()
            for _ in range(30):
                steps.add(1, 2)
            session.tracer.continue_run()
            go_on[0] = False
            for thread in threads:
                thread.join()

        session.run(program)
        self.assertGreater(len(foreign), 30)
        self.assertFalse(any(foreign))

    def test_threads_end_while_another_is_stopped(self):
        session = ThreadSession()
        session.tracer.set_debug_all_threads(0)  # they run on during the stop
        ended = []
        go = threading.Event()

        def target():
            go.wait()
            ended.append(steps.add(1, 2))
            sys.settrace(None)
            session.tracer.thread_exiting()

        threads = [threading.Thread(target=target) for _ in range(10)]

        def in_stop(frame):
            go.set()
            for thread in threads:
                thread.join()
            ended.append("stop ends")
            session.tracer.step_over()

        def program(stop):
            for thread in threads:
                thread.start()
            stop()
            return steps.add(1, 2)

        self.assertEqual(session.run(program, in_stop), 3)
        self.assertEqual(ended, [3] * 10 + ["stop ends"])
        self.assertEqual([stop[1] for stop in session.stops][:2], ["program", "program"])

    @time_limit(120)
    def test_two_hundred_threads_while_stepping(self):
        session = ThreadSession()
        done, stops = [], [0]
        own = get_ident()

        def target():
            try:
                done.append(steps.calls(lambda: None))
            finally:
                sys.settrace(None)
                session.tracer.thread_exiting()

        def in_stop(*_):
            stops[0] += get_ident() == own
            session.tracer.step_over()

        session.line_cb = session.return_cb = in_stop
        session.init()

        def program(stop):
            stop()
            for _ in range(10):
                threads = [threading.Thread(target=target) for _ in range(20)]
                for thread in threads:  # here, for these lines stop
                    thread.start()
                for thread in threads:
                    thread.join()

        session.run(program)
        self.assertEqual(len(done), 200)
        self.assertGreater(stops[0], 200)
        self.assertEqual(session.tracer.get_threads(), [session.tracer.get_current_tstate_id()])
        self.assertEqual(session.tracer.is_dbgserver_mutex_held(), 0)

    @time_limit(120)
    def test_every_thread_stops_at_every_line(self):
        session = ThreadSession()
        inside, overlaps = [], []

        def in_stop(frame, *_):
            inside.append(1)
            overlaps.append(len(inside))
            inside.pop()
            session.tracer.step_into()

        session.line_cb = session.return_cb = in_stop
        session.init()

        def target():
            try:
                session.tracer.stop()
                for _ in range(10):
                    steps.calls(lambda: None)
                session.tracer.continue_run()
            finally:
                sys.settrace(None)
                session.tracer.thread_exiting()

        def program(stop):
            threads = [threading.Thread(target=target) for _ in range(12)]
            run_all(threads)

        session.run(program)
        self.assertEqual(set(overlaps), set([1]))  # one at a time is in the debug server
        self.assertGreater(len(overlaps), 12 * 10 * 4)


class Mutex(TestCase):
    def contend(self, threads, times, nested=1):
        session = ThreadSession()
        tracer = session.tracer
        state = {"holders": 0, "count": 0}
        wrong = []

        def target():
            for _ in range(times):
                for _ in range(nested):
                    if tracer.acquire_dbgserver_mutex() != 1:
                        wrong.append("not acquired")
                state["holders"] += 1
                if state["holders"] != 1 or not tracer.is_dbgserver_mutex_held():
                    wrong.append("not alone")
                state["count"] += 1
                state["holders"] -= 1
                for _ in range(nested):
                    tracer.release_dbgserver_mutex()
            tracer.thread_exiting()

        workers = [threading.Thread(target=target) for _ in range(threads)]
        for worker in workers:
            worker.start()
        for worker in workers:
            worker.join()
        self.assertEqual(wrong, [])
        self.assertEqual(state, {"holders": 0, "count": threads * times})
        self.assertEqual(tracer.is_dbgserver_mutex_held(), 0)

    @time_limit(120)
    def test_sixteen_threads(self):
        self.contend(16, 2000)

    @time_limit(120)
    def test_nested(self):
        self.contend(16, 500, nested=3)

    @time_limit(120)
    def test_with_threads_that_are_traced(self):
        """Threads that acquire it and threads that wait for it in their events."""
        session = ThreadSession()
        tracer = session.tracer
        done = []

        def acquire():
            for _ in range(300):
                tracer.acquire_dbgserver_mutex()
                steps.add(1, 2)
                tracer.release_dbgserver_mutex()
            done.append(1)

        def run():
            tracer.stop()
            for _ in range(50):
                steps.add(1, 2)
            tracer.continue_run()
            done.append(1)

        session.line_cb = lambda frame: tracer.step_into()
        session.init()

        def program(stop):
            threads = [threading.Thread(target=target) for target in (acquire, run) * 8]
            run_all(threads)

        session.run(program)
        self.assertEqual(len(done), 16)
        self.assertEqual(tracer.is_dbgserver_mutex_held(), 0)

    @needs("!python2")
    def test_with_the_idle_thread(self):
        session = ThreadSession(idle_period=1.0)
        session.tracer.set_use_idle_thread(1)
        session.tracer.start_trace()
        try:
            self.assertEqual(session.tracer.get_use_idle_thread(),
                             1 if sys.version_info >= (3, 7) else 0)
            done = []

            def target():
                for _ in range(200):
                    session.tracer.acquire_dbgserver_mutex()
                    steps.add(1, 2)
                    session.tracer.release_dbgserver_mutex()
                done.append(1)

            threads = [threading.Thread(target=target) for _ in range(8)]
            run_all(threads)
            self.assertEqual(done, [1] * 8)
        finally:
            session.tracer.stop_trace()

    @needs("!python2")
    @time_limit(20)
    def test_switching_the_idle_thread_while_another_thread_starts_tracing(self):
        """No idle thread is left behind that nobody ends."""
        session = ThreadSession(idle_period=100.0)  # it would sleep long
        tracer = session.tracer
        go_on = [True]

        def start_and_stop():
            while go_on[0]:
                tracer.start_trace()
                tracer.stop_trace()
            tracer.thread_exiting()

        thread = threading.Thread(target=start_and_stop)
        thread.start()
        for number in range(100):
            tracer.set_use_idle_thread(1)
            tracer.start_trace()
            tracer.set_use_idle_thread(0)
        go_on[0] = False
        thread.join()
        tracer.set_use_idle_thread(1)
        tracer.stop_trace()
        while len(os.listdir("/proc/self/task")) > 1:  # for ever, if one is left behind
            threading.Event().wait(0)


if __name__ == "__main__":
    unittest.main()
