"""The tracer's state: init, reset, destroy, fork; and that the program does not notice tracing."""
from __future__ import absolute_import, division, print_function

import ctypes
import os
import sys
import threading
import unittest

from support import TestCase, has, import_tracer, needs
from support.tracing import (
    Session, import_debuggee, join_whole_thread, kBuiltins, kDefaultImport)

steps = import_debuggee("steps")


def nothing(*_):
    pass


def line_stops(session):
    return [stop for stop in session.stops if stop[0] == "line"]


class StateCase(TestCase):
    def assert_stops_work(self, session):
        del session.stops[:]
        self.assertEqual(session.run(steps.calls, "step_over"), 10)
        self.assertEqual(session.stops, [("line", "calls", "calls-add"),
                                         ("line", "calls", "calls-again")])


class IdleTest(StateCase):
    def spend_lines(self, session):
        session.tracer.start_trace()
        total = 0
        for number in range(500):
            total += number
        session.tracer.stop_trace()
        return session.stops.count(("idle",))

    def test_half_a_second_is_no_period(self):
        self.assertEqual(self.spend_lines(Session(idle_period=0.5)), 0)

    def test_a_period_of_no_time_is_none(self):
        for period in (0.0, -3.0, float("nan"), float("inf")):
            self.assertEqual(self.spend_lines(Session(idle_period=period)), 0, period)

    def test_the_first_call_is_due_at_once(self):
        self.assertEqual(self.spend_lines(Session(idle_period=1000.0)), 1)

    def test_an_exception_in_it_does_not_matter(self):
        session = Session(idle_period=1000.0, idle_cb=lambda: 1 // 0)
        self.assertEqual(self.spend_lines(session), 0)
        self.assert_stops_work(session)


class InitTest(StateCase):
    def test_what_is_not_callable_is_refused(self):
        tracer = import_tracer()
        good = [0.0, 0] + [nothing] * 7 + [None, kDefaultImport, {}]
        for index in [2, 3, 4, 5, 6, 7, 8, 9, 10, 11]:
            bad = list(good)
            bad[index] = 42
            self.assertRaises(TypeError, tracer.init, *bad)
        self.assertRaises(TypeError, tracer.init)

    def test_twice_in_a_row(self):
        session = Session()
        session.init()
        self.assert_stops_work(session)

    def test_while_tracing(self):
        session = Session()
        session.tracer.start_trace()
        session.init()
        self.assertEqual(session.tracer.get_tracing(), 0)
        self.assertIsNone(sys.gettrace())
        self.assert_stops_work(session)

    def test_after_stop_without_reset(self):
        """The eval-frame hook of before must not keep a function that is forgotten."""
        session = Session()
        for _ in range(3):
            self.assert_stops_work(session)
            session.init()
            self.assertEqual(steps.add(1, 2), 3)
            thread = threading.Thread(target=steps.add, args=(1, 2))
            thread.start()
            join_whole_thread(thread)  # one that still ends would be traced
        self.assert_stops_work(session)

    def test_a_second_one_keeps_one_import_hook(self):
        imported = []
        session = Session(import_cb=imported.append)
        hook = kBuiltins.__import__
        session.init()
        self.assertIs(kBuiltins.__import__, hook)
        self.assertIsNot(hook, kDefaultImport)

        def imports(stop):
            import json
            return json

        session.run(imports)
        self.assertEqual(imported.count(sys.modules["json"]), 2)  # one of the scan at the start

    def test_the_own_import_hook_as_the_default_is_refused(self):
        session = Session()
        hook = session.tracer.__dict__["__import__"]
        self.assertRaisesRegex(
            AssertionError, "^The default import hook cannot be equal to our import hook$",
            session.tracer.init, 0.0, 0, *[nothing] * 7 + [None, hook, {}])
        import json
        self.assertIs(__import__("json"), json)

    def test_the_own_import_hook_as_the_first_default(self):
        tracer = import_tracer()
        hook = tracer.__dict__["__import__"]
        self.assertRaises(
            AssertionError, tracer.init, 0.0, 0, *[nothing] * 7 + [None, hook, {}])
        self.assertIs(kBuiltins.__import__, kDefaultImport)
        import json
        self.assertIs(__import__("json"), json)
        self.assert_stops_work(Session())

    def test_the_hook_passes_for_the_builtin_function(self):
        Session()
        self.assertEqual(kBuiltins.__import__.__module__, kBuiltins.__name__)


class ResetTest(StateCase):
    def settings_survive(self, operation):
        session = Session()
        tracer = session.tracer
        policy = []

        def ignore(tstate_id):
            policy.append(tstate_id)
            return 0

        tracer.set_always_stop_excepts((ValueError,))
        tracer.set_never_stop_excepts((KeyError,))
        tracer.set_debug_thread_cb(ignore)
        session.run(steps.calls)
        self.assertEqual(session.stops, [])
        self.assertEqual(len(policy), 1)
        getattr(tracer, operation)()
        self.assertEqual(tracer.get_always_stop_excepts(), ())
        self.assertEqual(tracer.get_never_stop_excepts(), ())
        self.assert_stops_work(session)
        self.assertEqual(len(policy), 1)

    def test_reset_drops_the_settings_and_keeps_the_callbacks(self):
        self.settings_survive("reset")

    def test_destroy_drops_the_settings_and_keeps_the_callbacks(self):
        self.settings_survive("destroy")

    def test_reset_gives_autoquit_back(self):
        session = Session()
        quits = []
        ready = threading.Event()
        session.quit_cb = lambda: quits.append(1)
        session.thread_hooks_cb = lambda install: threading.settrace(
            session.tracer.bootstrap_new_thread if install else None)
        session.init()
        for autoquit in (0, 1):
            session.tracer.set_autoquit(0)
            if autoquit:
                session.tracer.reset()
            session.tracer.start_trace()
            thread = threading.Thread(target=ready.set)
            thread.start()
            join_whole_thread(thread)
            session.tracer.stop_trace()
            self.assertEqual(bool(quits), bool(autoquit))

    def test_both_stop_tracing_and_may_be_repeated(self):
        session = Session()
        for name in ("reset", "destroy", "stop_trace"):
            session.tracer.start_trace()
            self.assertEqual(session.tracer.get_tracing(), 1)
            for _ in range(3):
                self.assertIsNone(getattr(session.tracer, name)())
                self.assertEqual(session.tracer.get_tracing(), 0)
            self.assertIsNone(sys.gettrace())
        self.assert_stops_work(session)

    def test_in_a_stop_they_let_the_program_go_on(self):
        for name in ("stop_trace", "reset", "destroy"):
            session = Session()
            self.assertEqual(session.run(steps.calls, "step_over", name), 10)
            self.assertEqual(line_stops(session), [("line", "calls", "calls-add"),
                                                   ("line", "calls", "calls-again")], name)
            self.assertIsNone(sys.gettrace())
            self.assert_stops_work(session)

    def test_in_a_stop_at_a_return_or_an_exception_they_do_too(self):
        for name in ("stop_trace", "reset", "destroy"):
            session = Session()
            self.assertEqual(session.run(steps.calls, "step_out", name), 10)
            self.assertEqual(
                session.run(steps.catches, "step_over", "step_over", name), True)
            self.assertIsNone(sys.gettrace())
            self.assert_stops_work(session)

    def test_init_in_a_stop_lets_the_program_go_on(self):
        session = Session()
        self.assertEqual(
            session.run(steps.calls, "step_over", lambda frame: session.init()), 10)
        self.assertIsNone(sys.gettrace())
        self.assert_stops_work(session)

    def test_stop_and_start_in_a_stop_go_on_tracing(self):
        session = Session()

        def restart(frame):
            session.tracer.stop_trace()
            session.tracer.start_trace()
            session.tracer.step_into()

        session.run(steps.calls, restart, "step_into")
        self.assertEqual(session.stops[:3], [("line", "calls", "calls-add"),
                                             ("line", "add", "add-first"),
                                             ("line", "add", "add-last")])


class FailingCallbackTest(StateCase):
    def fail(self, *_):
        raise RuntimeError("in a callback")

    def check(self, function, *script, **callbacks):
        session = Session()
        originals = dict((name, getattr(session, name)) for name in callbacks)
        for name, callback in callbacks.items():
            setattr(session, name, callback)
        session.init()
        traced_after = []

        def program(stop):
            result = function(stop)
            traced_after.append(sys.gettrace())
            return result

        result = session.run(program, *script)
        self.assertEqual(traced_after, [None])
        for name, callback in originals.items():
            setattr(session, name, callback)
        session.init()
        self.assert_stops_work(session)
        return result

    def test_in_a_line_stop_ends_tracing_of_the_thread(self):
        self.assertEqual(self.check(steps.calls, line_cb=self.fail), 10)

    def test_in_a_return_stop_ends_tracing_of_the_thread(self):
        self.assertEqual(self.check(steps.calls, "step_out", return_cb=self.fail), 10)

    def test_in_an_exception_stop_ends_tracing_of_the_thread(self):
        result = self.check(steps.catches, "step_over", "step_over", exception_cb=self.fail)
        self.assertEqual(result, True)

    def test_other_threads_stay_traced(self):
        session = Session(line_cb=self.fail)
        session.thread_hooks_cb = lambda install: threading.settrace(
            session.tracer.bootstrap_new_thread if install else None)
        session.init()
        traced = []

        def program(stop):
            steps.calls(stop)
            thread = threading.Thread(target=lambda: traced.append(sys.gettrace()))
            thread.start()
            thread.join()
            return sys.gettrace()

        self.assertIsNone(session.run(program))
        self.assertEqual(traced, [session.tracer.trace_dispatch])


class UndisturbedTest(StateCase):
    """What the program can see of itself is the same after a stop."""

    def test_errno_is_kept(self):
        libc = ctypes.CDLL(None)
        location = getattr(libc, "__errno_location")
        location.restype = ctypes.POINTER(ctypes.c_int)
        where = location()

        def change(frame):
            where[0] = 5
            session.tracer.step_over()

        def program(stop):
            stop()
            where[0] = 77
            return where[0]

        session = Session()
        self.assertEqual(session.run(program, change, change), 77)
        session.tracer.set_save_and_restore_errno(0)
        self.assertEqual(session.run(program, change, change), 5)

    def test_the_recursion_limit_is_kept(self):
        limit = sys.getrecursionlimit()
        inside = []
        session = Session()

        def look(frame):
            inside.append(sys.getrecursionlimit())
            session.tracer.step_into()

        def program(stop):
            stop()
            seen = [sys.getrecursionlimit()]
            seen.append(sys.getrecursionlimit())
            return seen

        self.assertEqual(session.run(program, look, look, look), [limit, limit])
        self.assertEqual(sys.getrecursionlimit(), limit)
        self.assertTrue(inside)

    def depth_reached(self):
        def deeper(depth):
            try:
                return deeper(depth + 1)
            except RuntimeError:  # RecursionError is one
                return depth
        return deeper(0)

    def test_stops_work_at_the_recursion_limit(self):
        alone = self.depth_reached()
        deep_calls = []

        def nested(depth):
            return depth if depth == 0 else nested(depth - 1)

        def look(frame):
            deep_calls.append(nested(15))
            session.tracer.step_into()

        def program(stop):
            stop()
            return self.depth_reached()

        session = Session(line_cb=look)
        reached = session.run(program)
        self.assertLess(abs(reached - alone), 10)
        self.assertGreater(len(deep_calls), reached)

    def handle_own(self, frame):
        try:
            raise KeyError("the debugger's own")
        except KeyError:
            sys.exc_info()
        self.session.tracer.step_into()

    def test_the_exception_being_handled_is_kept(self):
        self.session = session = Session()

        def program(stop):
            seen = []
            try:
                raise ValueError("the program's")
            except ValueError as why:
                stop()
                seen.append(sys.exc_info()[1] is why)
                seen.append(sys.exc_info()[0])
                try:
                    raise IndexError("inner")
                except IndexError:
                    seen.append(sys.exc_info()[0])
                seen.append(sys.exc_info()[2].tb_frame is sys._getframe())
            return seen

        seen = session.run(program, *[self.handle_own] * 30)
        if has("python2"):  # there the inner exception stays the current one
            self.assertEqual(seen[:3], [True, ValueError, IndexError])
        else:
            self.assertEqual(seen, [True, ValueError, IndexError, True])
        self.assertGreater(len(session.stops), 7)

    def test_an_exception_on_its_way_is_kept(self):
        self.session = session = Session()
        result = session.run(steps.survives_cleaning, *[self.handle_own] * 40)
        self.assertEqual(result, ["cleaned"])

    def test_locals_and_results_are_kept(self):
        session = Session()
        session.show = lambda frame: sorted(frame.f_locals)
        self.assertEqual(session.run(steps.goes_back, *["step_into"] * 20), 2)
        self.assertEqual(session.run(steps.consumes, *["step_into"] * 40), 3)

    def test_settrace_none_by_the_program_ends_it_for_the_thread(self):
        session = Session()

        def program(stop):
            stop()
            sys.settrace(None)
            return steps.add(1, 2)

        self.assertEqual(session.run(program, "step_into", "step_into"), 3)
        self.assertEqual(len(session.stops), 1)
        self.assertIsNone(sys.gettrace())
        session.tracer.reset()
        self.assert_stops_work(session)

    def test_the_programs_own_trace_function_replaces_the_tracer(self):
        session = Session()
        seen = []

        def own(frame, event, arg):
            seen.append((event, frame.f_code.co_name))
            return own

        def program(stop):
            sys.settrace(own)
            try:
                return steps.add(1, 2)
            finally:
                sys.settrace(None)

        self.assertEqual(session.run(program), 3)
        self.assertEqual(session.stops, [])
        self.assertIn(("line", "add"), seen)

    def test_after_the_tracer_the_programs_own_sees_every_line(self):
        session = Session()
        session.run(steps.loops, *["step_into"] * 30)
        with_tracer = self.own_events()
        self.assertEqual([line for event, line in with_tracer if event == "line"][:2],
                         [steps.add.__code__.co_firstlineno + 1,
                          steps.add.__code__.co_firstlineno + 2])

    def own_events(self):
        seen = []

        def own(frame, event, arg):
            seen.append((event, frame.f_lineno))
            return own

        sys.settrace(own)
        try:
            steps.add(1, 2)
        finally:
            sys.settrace(None)
        return seen

    def test_frames_that_live_on_send_lines_to_the_programs_own(self):
        session = Session()
        session.tracer.set_use_idle_thread(0)
        generators = []

        def program(stop):
            generators.append(steps.numbers())
            return next(generators[0])

        self.assertEqual(session.run(program), 1)
        seen = []

        def own(frame, event, arg):
            seen.append(event)
            return own

        sys.settrace(own)
        next(generators[0])
        sys.settrace(None)
        self.assertIn("line", seen)


class ForkTest(StateCase):
    def stops_in_child(self, prepare):
        session = Session()

        def program(stop):
            child = os.fork()
            if child == 0:
                try:
                    prepare(session.tracer)
                    del session.stops[:]
                    steps.calls(stop)
                    os._exit(len(session.stops))
                finally:
                    os._exit(99)
            return os.waitpid(child, 0)[1]

        status = session.run(program, "step_over", "step_over")
        self.assertTrue(os.WIFEXITED(status), status)
        self.assert_stops_work(session)
        return os.WEXITSTATUS(status)

    @needs("fork")
    def test_a_child_has_no_stops(self):
        self.assertEqual(self.stops_in_child(nothing), 0)

    @needs("fork")
    def test_a_child_that_may_be_debugged_has_them(self):
        self.assertEqual(self.stops_in_child(lambda tracer: tracer.fork_ok()), 3)

    @needs("fork")
    def test_imports_work_in_a_child(self):
        imported = []
        session = Session(import_cb=imported.append)

        def program(stop):
            child = os.fork()
            if child == 0:
                try:
                    del imported[:]
                    import json
                    os._exit(10 + len(imported) if json else 99)
                finally:
                    os._exit(99)
            return os.waitpid(child, 0)[1]

        self.assertEqual(os.WEXITSTATUS(session.run(program)), 10)


class DispatchTest(StateCase):
    """The tracer as a Python trace function."""

    def send(self, session, event, arg=None):
        """What a made-up event does in a traced frame that waits: (stops in it, results)."""
        generator = steps.numbers()
        del session.stops[:]
        outcome = []

        def program(stop):
            send = session.tracer.trace_dispatch
            frame = generator.gi_frame
            stop(); send(frame, "call", None); outcome.append(send(frame, event, arg))
            session.tracer.continue_run()

        session.run(program, "step_into", "step_into", "step_into", "step_into")
        mine = [stop for stop in session.stops if stop[1] == "numbers"]
        return mine, outcome

    def test_the_first_letter_chooses_the_event(self):
        session = Session()
        function = session.tracer.trace_dispatch
        for event in ("line", "l", "later"):
            mine, outcome = self.send(session, event)
            self.assertEqual([stop[:2] for stop in mine], [("line", "numbers")], event)
            self.assertEqual(outcome, [function])
        for event in ("return", "rx"):
            mine, outcome = self.send(session, event, "value")
            self.assertEqual([(stop[0], stop[3]) for stop in mine], [("return", "value")], event)
        for event in ("exception", "e"):
            mine, outcome = self.send(session, event, (ValueError, ValueError(1), None))
            self.assertEqual([(stop[0], stop[3]) for stop in mine], [("exception", "ValueError")])
        for event in ("call", "c_call", "c_return", "c_exception"):
            mine, outcome = self.send(session, event)
            self.assertEqual((mine, outcome), ([], [function]), event)
        for event in ("opcode", "", "xyz", "Line"):
            mine, outcome = self.send(session, event)
            self.assertEqual((mine, outcome), ([], [function]), event)

    def test_every_event_that_begins_like_a_call_is_one(self):
        for event, is_call in [("call", True), ("c_call", True), ("c_return", True), ("cx", True),
                               ("opcode", False), ("xyz", False)]:
            session = Session()
            generator = steps.numbers()
            found = []

            def program(stop):
                stop(); session.tracer.trace_dispatch(generator.gi_frame, event, None); \
                    found.append(generator.gi_frame.f_trace)

            session.run(program)
            self.assertEqual(found, [session.tracer.trace_dispatch if is_call else None], event)

    def test_bad_arguments_are_refused(self):
        session = Session()
        self.assertRaises(TypeError, session.tracer.trace_dispatch)
        self.assertRaises(TypeError, session.tracer.trace_dispatch, sys._getframe(), 42, None)
        self.assertEqual(session.tracer.trace_dispatch(None, "line", None),
                         session.tracer.trace_dispatch)

    def test_it_works_as_a_trace_function(self):
        session = Session()

        def program(stop):
            sys.settrace(session.tracer.trace_dispatch)
            return steps.calls(stop)

        self.assertEqual(session.run(program, "step_over"), 10)
        self.assertEqual(session.stops, [("line", "calls", "calls-add"),
                                         ("line", "calls", "calls-again")])


class RaiseTest(StateCase):
    def run_with(self, *exceptions):
        session = Session()

        def inject(frame):
            for exc in exceptions:
                session.tracer.raise_exception(0, exc)

        def program(stop):
            try:
                steps.calls(stop)
            except Exception as why:
                return type(why), why.args, why in exceptions
            return None

        result = session.run(program, inject)
        self.assert_stops_work(session)
        return result

    def test_an_instance_is_raised_at_the_next_event(self):
        self.assertEqual(self.run_with(ValueError("sent")), (ValueError, ("sent",), True))

    def test_a_class_is_raised_as_its_instance(self):
        self.assertEqual(self.run_with(KeyError), (KeyError, (), False))

    def test_the_last_one_counts(self):
        self.assertEqual(self.run_with(KeyError, ValueError(1)), (ValueError, (1,), True))

    def test_none_takes_it_back(self):
        self.assertIsNone(self.run_with(ValueError("sent"), None))
        self.assertIsNone(self.run_with(None))

    def test_what_is_no_exception_raises_a_type_error(self):
        session = Session()

        def program(stop):
            try:
                steps.calls(stop)
            except Exception as why:
                return type(why).__name__
            return None

        for wrong in (42, "text", object(), int):
            result = session.run(program, lambda frame: session.tracer.raise_exception(0, wrong))
            self.assertEqual(result, "TypeError")


if __name__ == "__main__":
    unittest.main()
