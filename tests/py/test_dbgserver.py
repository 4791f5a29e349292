"""The debug server: stops with their reasons, commands, threads; and evaluation in frames."""
from __future__ import absolute_import, division, print_function

import os
import signal
import sys
import threading
import time
import unittest

from support import TestCase, import_tracer, line_of, needs
from support.serving import run_under_server

kOncePerVersion = True


class FrontEnd(object):
    """Takes a list of commands, one for each stop, and records the stops.

    A command is the name of a method of the server, or a function that gets (server, stop).
    """

    def __init__(self, commands):
        self.commands = list(commands)
        self.server = None
        self.seen = []
        self.errors = []
        self.ended = 0
        self.idle_calls = 0
        self.imported = []
        self.first_code = None  # stops before the first one in it are stepped through, unrecorded

    def on_stop(self, stop):
        if self.first_code is not None:
            if stop.frame.f_code is not self.first_code:
                return self.server.step_into()
            self.first_code = None
        self.seen.append((stop.reason, stop.frame.f_code.co_name, stop.stack[stop.index][1]))
        command = self.commands.pop(0) if self.commands else "continue_run"
        if callable(command):
            command(self.server, stop)
        else:
            getattr(self.server, command)()

    def on_idle(self):
        self.idle_calls += 1

    def on_program_end(self):
        self.ended += 1

    def on_import(self, module):
        self.imported.append(getattr(module, "__name__", None))

    def on_internal_error(self, text):
        self.errors.append(text)


class Interrupted(FrontEnd):
    """A signal handler of the program raises an exception while a module is being reported."""

    def __init__(self, exception):
        FrontEnd.__init__(self, [])
        self.exception = exception

    def on_import(self, module):
        FrontEnd.on_import(self, module)
        if self.imported[-1] == "this_module":
            raise self.exception


class ServerTest(TestCase):
    def debug(self, function, commands, *arguments):
        """Call the function with the server at work; the first stop is at its first line.  Returns
        the front end."""
        front_end = FrontEnd(commands)
        front_end.first_code = function.__code__
        run_under_server(front_end, lambda: function(*arguments))
        self.assertEqual(front_end.errors, [])
        return front_end

    def line(self, mark):
        return line_of(os.path.abspath(__file__).replace(".pyc", ".py"), mark)


def add(a, b):
    total = a + b  #@ add-first
    return total  #@ add-return


def twice(a):
    first = add(a, a)  #@ twice-first
    return first  #@ twice-return


def fail():
    raise ValueError("bad")  #@ fail-raise


def careful():
    try:
        fail()  #@ careful-call
    except ValueError:
        return "caught"  #@ careful-handler


class Signals(ServerTest):
    def interrupt(self, exception, wait):
        """What the program gets of it."""
        self.make_file("this_module.py", "", folder=self.folder())
        front_end = Interrupted(exception)

        def work():
            try:
                import this_module  # noqa: F401
                wait()
            except type(exception) as caught:
                return caught
        run_under_server(front_end, work)
        self.assertEqual((front_end.errors, front_end.imported.count("this_module")), ([], 1))
        return front_end.result

    def folder(self):
        folder = self.make_dir()
        sys.path.insert(0, folder)
        self.addCleanup(sys.path.remove, folder)
        return folder

    def test_interrupt_in_a_callback_reaches_a_program_that_waits(self):
        self.assertIs(type(self.interrupt(KeyboardInterrupt(), lambda: time.sleep(600))),
                      KeyboardInterrupt)

    def test_interrupt_in_a_callback_reaches_a_program_that_computes(self):
        def compute():
            while True:
                pass
        self.assertIs(type(self.interrupt(KeyboardInterrupt(), compute)), KeyboardInterrupt)

    def test_exit_in_a_callback_is_the_programs(self):
        exception = SystemExit(3)
        self.assertIs(self.interrupt(exception, lambda: None), exception)

    def test_handler_of_the_program_is_not_called_twice(self):
        called = []
        before = signal.signal(signal.SIGINT, lambda *_: called.append(True))
        self.addCleanup(signal.signal, signal.SIGINT, before)
        exception = KeyboardInterrupt()
        self.assertIs(self.interrupt(exception, lambda: None), exception)
        self.assertEqual(called, [])


class Stops(ServerTest):
    def test_step_into_and_out(self):
        seen = self.debug(twice, ["step_into", "step_into", "step_out", "step_over",
                                  "continue_run"], 2).seen
        self.assertEqual(seen, [
            ("step", "twice", self.line("twice-first")),
            ("step", "add", self.line("add-first")),
            ("step", "add", self.line("add-return")),
            ("return", "add", self.line("add-return")),
            ("step", "twice", self.line("twice-return")),
        ])

    def test_step_over(self):
        seen = self.debug(twice, ["step_over", "step_over", "continue_run"], 2).seen
        self.assertEqual(seen, [
            ("step", "twice", self.line("twice-first")),
            ("step", "twice", self.line("twice-return")),
            ("return", "twice", self.line("twice-return")),
        ])

    def test_value_of_a_return(self):
        values = []
        self.debug(twice, ["step_out", lambda server, stop: values.append(stop.value)], 21)
        self.assertEqual(values, [42])

    def test_exception_while_stepping(self):
        kinds = []

        def step_to_the_exception(server, stop):
            if stop.exc_info is None:
                front_end.commands.insert(0, step_to_the_exception)
                return server.step_into()
            kinds.append((stop.exc_info[0], [frame.f_code.co_name for frame, _ in stop.stack][-1]))
            server.continue_run()

        from tdbg import dbgserver

        front_end = FrontEnd([step_to_the_exception])
        server = front_end.server = dbgserver.tServer(import_tracer(), front_end)
        server.start()
        front_end.result = careful()
        server.leave_alone()
        self.assertEqual(front_end.seen[-1], ("exception", "fail", self.line("fail-raise")))
        self.assertEqual(kinds, [(ValueError, "fail")])
        self.assertEqual(front_end.result, "caught")

    def test_exception_info_is_gone_from_elsewhere(self):
        front_end = self.debug(careful, ["step_over", "step_over", "continue_run"])
        self.assertEqual(front_end.seen[1][0], "step")
        self.assertEqual(front_end.result, "caught")

    def test_stop_without_a_command_runs_on(self):
        front_end = self.debug(twice, [lambda server, stop: None], 3)
        self.assertEqual((len(front_end.seen), front_end.result), (1, 6))

    def test_front_end_that_fails_does_not_harm_the_program(self):
        from tdbg import dbgserver

        def fail_here(server, stop):
            raise KeyError("front end")

        tracer = import_tracer()
        front_end = FrontEnd(["step_into", fail_here])
        front_end.server = dbgserver.tServer(tracer, front_end)
        front_end.server.start()
        self.assertEqual(twice(4), 8)
        front_end.server.leave_alone()
        self.assertEqual(len(front_end.errors), 1)
        self.assertIn("KeyError", front_end.errors[0])

    def test_commands_need_a_stop(self):
        from tdbg import dbgserver

        server = dbgserver.tServer(import_tracer(), FrontEnd([]))
        for command in (server.step_into, server.step_over, server.step_out):
            self.assertRaises(RuntimeError, command)

    def test_pause_from_elsewhere(self):
        def work(server):
            x = 1
            server.pause()
            x += 1
            return x

        from tdbg import dbgserver

        tracer = import_tracer()
        front_end = FrontEnd(["continue_run", "continue_run"])
        front_end.server = dbgserver.tServer(tracer, front_end)
        front_end.server.start()
        result = work(front_end.server)
        front_end.server.leave_alone()
        self.assertEqual(result, 2)
        self.assertEqual([row[:2] for row in front_end.seen if row[1] == "work"],
                         [("pause", "work")])

    def test_frames_of_the_debugger_are_not_shown(self):
        stacks = []

        def look(server, stop):
            stacks.extend(frame.f_code.co_filename for frame, _ in stop.stack)

        self.debug(twice, [look], 1)
        import tdbg

        own = os.path.dirname(os.path.abspath(tdbg.__file__))
        self.assertNotEqual(stacks, [])
        self.assertEqual([name for name in stacks if name.startswith(own)], [])

    def test_stop_is_let_go(self):
        import gc
        import weakref

        class Value(object):
            pass

        def hold():
            value = Value()
            kept.append(weakref.ref(value))
            return 1

        kept = []
        self.debug(hold, ["step_over", "step_over", "step_over", "continue_run"])
        gc.collect()
        self.assertIsNone(kept[0]())


def _low_level():
    """The module below `threading`."""
    try:
        import thread
    except ImportError:
        import _thread as thread
    return thread


class Threads(ServerTest):
    def test_thread_stops_with_its_name(self):
        names = []

        def work(server):
            server.pause()
            names.append("ran")

        def look(server, stop):
            names.append((stop.thread.name, stop.thread.is_main,
                          stop.thread.ident == threading.current_thread().ident))

        def start():
            thread = threading.Thread(target=work, args=(front_end_of[0].server,),
                                      name="the worker")
            thread.start()
            thread.join()

        from tdbg import dbgserver

        front_end = FrontEnd(["continue_run", look])
        front_end_of = [front_end]
        front_end.server = dbgserver.tServer(import_tracer(), front_end)
        front_end.server.start()
        start()
        front_end.server.leave_alone()
        self.assertEqual(names, [("the worker", False, True), "ran"])
        self.assertEqual(front_end.errors, [])

    def test_raw_threads_are_traced(self):
        from tdbg import dbgserver

        done = threading.Event()
        seen = []

        def work(server, more=None):
            server.pause()
            seen.append(more)
            done.set()

        front_end = FrontEnd(["continue_run", "continue_run"])
        server = front_end.server = dbgserver.tServer(import_tracer(), front_end)
        server.start()
        _low_level().start_new_thread(work, (server,), {"more": 5})
        done.wait(20)
        server.leave_alone()
        self.assertEqual(seen, [5])
        self.assertEqual([row[:2] for row in front_end.seen[1:]], [("pause", "work")])

    def test_hooks_are_taken_back(self):
        names = threading.Thread.__dict__
        delete = names.get("_delete") or names.get("_Thread__delete")
        hook = threading._trace_hook
        start = _low_level().start_new_thread
        self.debug(twice, [], 1)
        self.assertIs(threading._trace_hook, hook)
        self.assertIs(_low_level().start_new_thread, start)
        names = threading.Thread.__dict__
        now = names.get("_delete") or names.get("_Thread__delete")
        self.assertIs(now, delete)

    def test_trace_hook_of_the_program_has_precedence(self):
        def mine(frame, event, arg):
            return None

        threading.settrace(mine)
        try:
            hooks = []
            self.debug(lambda: hooks.append(threading._trace_hook), [])
            self.assertEqual(hooks, [mine])
            self.assertIs(threading._trace_hook, mine)
        finally:
            threading.settrace(None)


class Evaluation(TestCase):
    """No tracer is needed but for assigning local variables."""

    def evaluate(self, source):
        from tdbg import evaluate

        local = 5  # noqa: F841  looked up by the expression
        return evaluate.evaluate(source, sys._getframe())

    def test_names_of_the_frame(self):
        self.assertEqual(self.evaluate("local + 1").value, 6)
        self.assertEqual(self.evaluate("[local * i for i in (1, 2)]").value, [5, 10])
        self.assertIs(self.evaluate("unittest").value, unittest)

    def test_errors_are_results(self):
        for source, error in (("nothing", "NameError: name 'nothing' is not defined"),
                              ("1/0", "ZeroDivisionError"), ("1 +", "SyntaxError"),
                              ("sys.exit(3)", "SystemExit: 3"), ("'a", "SyntaxError")):
            result = self.evaluate(source)
            self.assertFalse(result.ok)
            self.assertTrue(result.error.startswith(error), result.error)

    def test_future_imports_of_the_file_hold(self):
        self.assertEqual(self.evaluate("7 / 2").value, 3.5)

    def test_assignment_reaches_the_local_variable(self):
        from tdbg import evaluate

        tracer = import_tracer()
        local = 1
        result = evaluate.execute("local = 'changed'", sys._getframe(), tracer)
        self.assertEqual((result.ok, result.is_expression), (True, False))
        self.assertEqual(local, "changed")

    def test_assignment_reaches_a_closure(self):
        from tdbg import evaluate

        tracer = import_tracer()
        shared = 1

        def reader():
            return shared

        evaluate.execute("shared = 2", sys._getframe(), tracer)
        self.assertEqual((shared, reader()), (2, 2))

    def test_texts_of_difficult_values(self):
        from tdbg import evaluate

        class Bad(object):
            def __repr__(self):
                raise ValueError("no")

        class Wrong(object):
            def __repr__(self):
                return 5

        class Meta(type):
            def __getattribute__(self, name):
                raise KeyError(name)

        strange = Meta("Strange", (Bad,), {})
        self.assertEqual(evaluate.full_text(Bad()), "<Bad object: repr failed: ValueError: no>")
        self.assertIn("repr failed: TypeError", evaluate.full_text(Wrong()))
        self.assertIn("repr failed", evaluate.full_text(object.__new__(strange)))
        self.assertEqual(len(evaluate.short_text(list(range(10 ** 5)))) < 300, True)
        self.assertEqual(len(evaluate.short_text("x" * 10 ** 6)) < 300, True)

    def test_slow_value_is_given_up_and_nothing_comes_after(self):
        from tdbg import evaluate

        class Endless(object):
            def __repr__(self):
                while True:
                    pass

        before = threading.active_count()
        self.assertRaises(evaluate.tTooSlow, evaluate.call_with_limit, Endless().__repr__, 0.05)
        for _ in range(200):
            self.assertEqual(evaluate.call_with_limit(lambda: 7, 0.05), 7)
        for _ in range(10 ** 5):
            pass
        self.assertEqual(threading.active_count(), before)

    def test_arguments_in_their_order(self):
        from tdbg import evaluate

        def f(a, b=2, *rest, **more):
            c = 1  # noqa: F841
            return evaluate.arguments_of(sys._getframe())

        self.assertEqual(f(1, 5, 6, k=7), [("a", 1), ("b", 5), ("rest", (6,)), ("more", {"k": 7})])


class Completion(TestCase):
    def find(self, text, line=None):
        from tdbg.terminal import completion

        variable = "text"  # noqa: F841
        frame = sys._getframe()
        completer = completion.tCompleter(["step", "source"], lambda: line or text, lambda: frame)
        return completer.find(text, line or text)

    def test_commands_at_the_start(self):
        self.assertEqual(self.find("s"), ["source", "step"])
        self.assertEqual(self.find("st", "help st"), ["step"])

    def test_names_and_attributes(self):
        self.assertIn("variable", self.find("vari", "p vari"))
        self.assertIn("variable.upper", self.find("variable.up", "p variable.up"))
        self.assertEqual(self.find("variable.", "p variable.")[0][:10], "variable.c")
        self.assertIn("variable.__len__", self.find("variable.__l", "p variable.__l"))

    @needs("library")
    def test_what_fails_gives_nothing(self):
        from tdbg.terminal import completion

        completer = completion.tCompleter([], lambda: "p nothing.x", lambda: sys._getframe())
        self.assertIsNone(completer.complete("nothing.x", 0))


if __name__ == "__main__":
    unittest.main()
