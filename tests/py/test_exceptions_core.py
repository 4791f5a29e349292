"""Exceptions: who prints them by the server's analysis, and which ones stop the program where."""
from __future__ import absolute_import, division, print_function

import sys
import threading
import time
import types

try:
    import _thread
except ImportError:
    import thread as _thread

from support import (
    TestCase, growth_of_references, has, import_tracer, line_of, needs, run_script,
)
from support.programs import python_path
from support.tracing import Log, Session

kNever, kAlways, kUnhandled, kPrints, kPrintsToo = 0, 1, 2, 4, 5


class Empty(object):
    """An iterator written in Python."""

    def __iter__(self):
        return self

    def next(self):
        raise StopIteration

    __next__ = next


class Info(object):
    """What the server tells of a function."""

    def __init__(self, co_name, mod_name="*", containing_class="*", prints=1, parent=0):
        self.co_name, self.mod_name, self.containing_class = co_name, mod_name, containing_class
        self.prints, self.parent = prints, parent


kDebuggee = """
def raises():
    raise ValueError('deep')

def passes():
    return raises()

def prints():
    try:
        passes()
    except ValueError:
        return 'printed'

class Worker(object):
    def run(self):
        return raises()

class Other(object):
    def run(self):
        return raises()
"""


class CatchInfoCase(TestCase):
    mode = kPrints

    def setUp(self):
        self.session = Session(exception_mode=self.mode)
        self.tracer = self.session.tracer
        self.code = types.ModuleType(str("debuggee"))
        self.code.__file__ = self.make_file("debuggee.py", kDebuggee)
        exec(compile(kDebuggee, self.code.__file__, "exec", 0, True), self.code.__dict__)

    def stops(self, function, *infos):
        """Functions in which the exceptions are reported, in order."""
        self.tracer.set_exc_catch_info_list(list(infos))
        del self.session.stops[:]

        def program(stop):
            try:
                return function()
            except ValueError:
                return None

        self.session.run(program)
        return [stop[1] for stop in self.session.stops if stop[0] == "exception"]


class CatchInfoTest(CatchInfoCase):
    def test_a_frame_that_prints_stops(self):
        self.assertEqual(self.stops(self.code.prints, Info("prints")), ["prints"])
        self.assertEqual(self.stops(self.code.prints, Info("passes")), ["passes"])
        self.assertEqual(self.stops(self.code.prints, Info("prints"), Info("raises")),
                         ["raises", "prints"])

    def test_mode_5_is_like_mode_4(self):
        self.tracer.set_exception_mode(kPrintsToo)
        self.assertEqual(self.stops(self.code.prints, Info("prints")), ["prints"])

    def test_other_modes_do_not_ask(self):
        for mode in (kNever, kUnhandled, 3, 6, -1):
            self.tracer.set_exception_mode(mode)
            self.assertEqual(self.stops(self.code.prints, Info("prints")), [], mode)

    def test_an_empty_list_turns_it_off(self):
        self.assertEqual(self.stops(self.code.prints, Info("prints")), ["prints"])
        self.assertEqual(self.stops(self.code.prints), [])

    def test_one_that_does_not_print(self):
        self.assertEqual(self.stops(self.code.prints, Info("prints", prints=0)), [])
        self.assertEqual(self.stops(self.code.prints, Info("prints", prints=0, parent=1)), [])

    def test_where_the_parent_decides_it_stops_when_the_frame_is_left(self):
        self.assertEqual(self.stops(self.code.prints, Info("passes", parent=1)), ["passes"])
        self.assertEqual(self.stops(self.code.prints, Info("prints", parent=1)), [])  # caught there

    def test_the_outermost_frame_of_a_thread_decides_like_a_parent(self):
        """Its exception ends the thread, whatever the list says of other functions."""
        def outermost():
            try:
                __import__("sys")  # adopts the thread
                try:
                    self.code.raises()
                finally:
                    finally_ran.append(1)
            finally:
                done.set()

        def program():
            _thread.start_new_thread(outermost, ())
            done.wait()
            while _thread._count() > before:
                time.sleep(0)

        for infos in ([Info("elsewhere")], [Info("outermost", prints=0)], []):
            done, finally_ran, before = threading.Event(), [], _thread._count()
            self.tracer.set_exception_mode(kPrints)
            stops = self.stops(program, *infos)
            self.assertEqual((stops, finally_ran), (["outermost"], [1]))

    def test_prints_and_parent_are_truth_values(self):
        self.assertEqual(self.stops(self.code.prints, Info("prints", prints="yes", parent=[])),
                         ["prints"])
        self.assertEqual(self.stops(self.code.prints, Info("prints", prints="")), [])

    def test_the_module_is_told_apart_by_its_name(self):
        both = [Info("prints", "elsewhere", prints=1), Info("prints", "debuggee", prints=0)]
        self.assertEqual(self.stops(self.code.prints, *both), [])
        both[0].prints, both[1].prints = 0, 1
        self.assertEqual(self.stops(self.code.prints, *both), ["prints"])

    def test_the_first_match_wins(self):
        self.assertEqual(
            self.stops(self.code.prints, Info("prints", prints=0), Info("prints")), [])
        self.assertEqual(
            self.stops(self.code.prints, Info("prints"), Info("prints", prints=0)), ["prints"])

    def test_the_class_is_told_apart_by_its_name(self):
        worker = [Info("run", containing_class="Worker")]
        self.assertEqual(self.stops(self.code.Worker().run, *worker), ["run"])
        self.assertEqual(self.stops(self.code.Other().run, *worker), [])
        self.assertEqual(self.stops(self.code.raises, Info("raises", containing_class="Worker")),
                         [])

    def test_a_module_without_a_name_fails_quietly(self):
        del self.code.__name__
        self.assertEqual(self.stops(self.code.prints, Info("prints", "debuggee")), [])
        self.assertEqual(
            self.stops(self.code.prints, Info("prints", "debuggee"), Info("prints")), [])
        self.assertEqual(self.stops(self.code.prints, Info("prints")), ["prints"])

    def test_names_that_are_no_strings(self):
        self.assertEqual(self.stops(self.code.prints, Info("prints", 42), Info("prints")),
                         ["prints"])
        self.assertEqual(
            self.stops(self.code.prints, Info("prints", containing_class=42), Info("prints")), [])
        self.code.__name__ = 42
        self.assertEqual(self.stops(self.code.prints, Info("prints", "debuggee")), [])

    def test_failing_attributes_are_no_match_and_do_no_harm(self):
        class Failing(object):
            def __init__(self, fails):
                self.fails = fails

            def __getattr__(self, name):
                if name == self.fails:
                    raise RuntimeError(name)
                return {"co_name": "prints", "prints": 1, "parent": 0}.get(name, "*")

        for fails in ("mod_name", "containing_class", "prints", "parent"):
            self.assertEqual(self.stops(self.code.prints, Failing(fails)), [], fails)
        self.assertEqual(self.stops(self.code.prints, Failing(None)), ["prints"])

    def test_bad_lists_are_the_callers_error(self):
        self.assertRaises(TypeError, self.tracer.set_exc_catch_info_list, (1,))
        self.assertRaises(AttributeError, self.tracer.set_exc_catch_info_list, [42])
        self.assertRaises(TypeError, self.tracer.set_exc_catch_info_list, [Info([])])
        self.assertEqual(self.session.run(lambda stop: self.code.prints()), "printed")

    def test_an_instance_may_change_everything_while_it_is_looked_at(self):
        def operations():
            return [self.tracer.reset, self.tracer.destroy, self.session.init,
                    lambda: self.tracer.set_exc_catch_info_list([]),
                    lambda: self.tracer.set_exc_catch_info_list([Info("prints")]),
                    lambda: infos.__delitem__(slice(None))]

        class Changing(object):
            def __init__(self, when):
                self.when = when

            def __getattribute__(self, name):
                if name in ("when", "__class__"):
                    return object.__getattribute__(self, name)
                if name == self.when:
                    operation()
                raise AttributeError(name)

            def __getattr__(self, name):
                return {"co_name": "prints", "prints": 1,
                        "parent": 0}.get(name, "*" * len(name[:1]))

        for operation in operations():
            for when in ("co_name", "mod_name", "containing_class", "prints", "parent"):
                infos = [Changing(when), Changing(when)]
                self.session.init()
                self.session.run(lambda stop: self.code.prints() if stop else None)
                self.tracer.set_exc_catch_info_list(infos)
                self.session.run(lambda stop: self.code.prints())
        self.session.init()
        self.assertEqual(self.stops(self.code.prints, Info("prints")), ["prints"])

    def test_before_init_it_is_kept_or_refused(self):
        self.assertIsNone(self.tracer.set_exc_catch_info_list([]))

    @needs("total_refcount")
    def test_nothing_leaks(self):
        infos = [Info("prints"), Info("passes", parent=1)]

        def once():
            self.stops(self.code.prints, *infos)
            self.tracer.set_exc_catch_info_list([])
            self.tracer.get_new_imports()

        self.assertEqual(growth_of_references(once), 0)

    def test_records_of_frames_are_dropped_with_them(self):
        """The exception, its traceback and all the frames of that live no longer than without
        us."""
        import gc
        import weakref

        class Witness(ValueError):
            pass

        alive = []

        def leaks():
            why = Witness()
            alive.append(weakref.ref(why))
            raise why

        def middle():
            leaks()

        def catches():
            try:
                middle()
            except Witness:
                pass

        for _ in range(3):
            self.stops(catches, Info("leaks", parent=1), Info("middle", parent=1))
        gc.collect()
        self.assertEqual([ref() for ref in alive], [None] * 3)


class ModeTest(CatchInfoCase):
    """Exception events in frames that are not the bottom one."""

    def test_never(self):
        self.tracer.set_exception_mode(kNever)
        self.assertEqual(self.stops(self.code.passes), [])

    def test_always_is_each_frame(self):
        self.tracer.set_exception_mode(kAlways)
        self.assertEqual(self.stops(self.code.passes), ["raises", "passes", "program"])

    def test_unhandled_is_not_what_somebody_catches(self):
        self.tracer.set_exception_mode(kUnhandled)
        self.assertEqual(self.stops(self.code.passes), [])

    def test_always_stop_types(self):
        self.tracer.set_exception_mode(kUnhandled)
        for types_, expected in [((ValueError,), 3), ((KeyError, Exception), 3), ((KeyError,), 0),
                                 ((42,), 0), ((int, "x"), 0)]:
            self.tracer.set_always_stop_excepts(types_)
            self.assertEqual(len(self.stops(self.code.passes)), expected, types_)

    def test_never_stop_types_win_over_always_and_prints_but_not_over_mode_1(self):
        self.tracer.set_never_stop_excepts((ValueError,))
        self.tracer.set_always_stop_excepts((ValueError,))
        self.assertEqual(self.stops(self.code.prints, Info("prints")), [])
        self.tracer.set_exception_mode(kAlways)
        self.assertEqual(self.stops(self.code.passes), ["raises", "passes", "program"])

    def test_filtered_places_are_those_of_the_innermost_frame(self):
        self.tracer.set_exception_mode(kAlways)
        line = self.code.raises.__code__.co_firstlineno + 1
        self.tracer.ignore_exception_loc(self.code.__file__, line, 1)
        self.assertEqual(self.stops(self.code.passes), [])
        self.tracer.ignore_exception_loc(self.code.__file__, line, 0)
        self.tracer.ignore_exception_loc(self.code.__file__, line + 3, 1)
        self.assertEqual(self.stops(self.code.passes), ["raises", "passes", "program"])

    def test_what_the_parser_of_regular_expressions_catches_itself(self):
        for name, line, is_reported in (("sre_parse.py", 139, not has("python2")),
                                        ("sre_parse.py", 138, True), ("xre_parse.py", 139, True)):
            path = self.make_file(name, "\n" * (line - 1) + "1 // 0\n")
            session = Session(exception_mode=kAlways)

            def program(stop):
                try:
                    exec(compile("\n" * (line - 1) + "1 // 0\n", path, "exec"), {})
                except ZeroDivisionError:
                    pass

            session.run(program)
            places = [stop[1] for stop in session.stops if stop[0] == "exception"]
            self.assertEqual("<module>" in places, is_reported, (name, line, places))

    def test_a_pseudo_file_is_judged_by_the_next_real_one(self):
        self.tracer.set_exception_mode(kAlways)
        namespace = {"raises": self.code.raises}
        exec(compile("def pseudo():\n    raise ValueError(1)\n", "<made up>", "exec"), namespace)
        self.code.raises = namespace["pseudo"]
        self.assertEqual(len(self.stops(self.code.passes)), 3)
        line = self.code.passes.__code__.co_firstlineno + 1
        self.tracer.ignore_exception_loc(self.code.__file__, line, 1)
        self.assertEqual(self.stops(self.code.passes), [])

    def test_stop_iteration_is_no_stop_in_a_program_that_runs(self):
        self.tracer.set_exception_mode(kAlways)
        self.assertEqual(self.stops(lambda: list(Empty())), [])
        self.assertEqual(self.stops(lambda: [one for one in Empty()]), [])

    def test_the_end_of_an_iterator_stepped_over_is_a_line_stop(self):
        def loops(stop):
            stop()
            for one in Empty():
                pass
            return 1

        for mode in (kNever, kUnhandled):
            self.tracer.set_exception_mode(mode)
            del self.session.stops[:]
            self.session.run(loops, "step_over", "step_over", "step_over")
            self.assertEqual([stop[0] for stop in self.session.stops][-1], "return")
            self.assertNotIn("exception", [stop[0] for stop in self.session.stops])
        if not has("python2"):
            lines = [stop[2] for stop in self.session.stops if stop[0] == "line"]
            self.assertEqual(lines[0], lines[1])  # the for once more
        self.tracer.set_exception_mode(kAlways)
        del self.session.stops[:]
        self.session.run(loops, *["step_over"] * 3)
        self.assertIn("exception", [stop[0] for stop in self.session.stops])

    def test_a_failing_exception_cb_ends_tracing_and_keeps_the_exception(self):
        def fails(frame, info):
            raise RuntimeError("ours")

        self.session.exception_cb = fails
        self.session.init()
        for mode, infos in [(kAlways, []), (kPrints, [Info("raises", parent=1)])]:
            self.tracer.set_exception_mode(mode)
            self.tracer.set_exc_catch_info_list(infos)
            caught = []

            def program(stop):
                try:
                    self.code.passes()
                except ValueError as why:
                    caught.append((why.args, sys.gettrace()))

            self.session.run(program)
            self.assertEqual(caught, [(("deep",), None)], mode)

    def test_operations_inside_exception_cb(self):
        operations = [self.tracer.reset, self.tracer.destroy, self.tracer.stop_trace,
                      self.session.init, self.tracer.step_into, self.tracer.step_out]
        for operation in operations:
            for mode, infos in [(kAlways, []), (kPrints, [Info("raises", parent=1)])]:
                self.session.exception_cb = lambda frame, info: operation()
                self.session.init()
                self.tracer.set_exception_mode(mode)
                self.tracer.set_exc_catch_info_list(infos)
                self.assertEqual(self.session.run(lambda stop: self.code.prints()), "printed")

    def test_the_probes_of_the_import_system_are_ignored(self):
        self.tracer.set_exception_mode(kAlways)
        self.code.execusercustomize = self.code.passes
        namespace = {"raises": self.code.raises}
        exec("def execusercustomize():\n    raise ValueError(1)\n", namespace)

        def program():
            try:
                namespace["execusercustomize"]()
            except ValueError:
                pass

        self.assertNotIn("execusercustomize", self.stops(program))

    kProbe = """
def {name}():
    sys.settrace(session.tracer.bootstrap_new_thread)
    passes()
    try:
        raise ValueError(1)
    except ValueError:
        sys.settrace(None)
    session.tracer.thread_exiting()
    done.set()

def outer():
    {name}()
"""

    def probe(self, name, start):
        """(What is reported, what the log says) of an exception in a function of that name, in a
        thread that begins with the function `start`."""
        done, log = threading.Event(), Log()
        namespace = {"sys": sys, "session": self.session, "passes": lambda: None, "done": done}
        exec(self.kProbe.format(name=name), namespace)

        def program(stop):
            _thread.start_new_thread(namespace[start], ())
            done.wait()

        self.session.stops, self.session.exception_mode = [], kAlways
        self.session.init()
        self.tracer.set_dprintf_file(log, -1, 0)
        self.session.run(program)
        self.tracer.set_dprintf_file(None, -1, 0)
        return ([stop[1] for stop in self.session.stops if stop[1] == name],
                [line for line in log.lines if "NOT STOPPING" in line])

    def test_the_log_tells_of_ignored_probes(self):
        hook, line = "path_hook_for_FileFinder", (
            "  NOT STOPPING - single frame in path_hook_for_FileFinder\n")
        self.assertEqual(self.probe(hook, hook), ([], [line]))
        self.assertEqual(self.probe(hook, "outer"), ([hook], []))
        self.assertEqual(self.probe("execusercustomize", "outer"), ([], [line]))  # the same line


class BottomFrameTest(TestCase):
    """One exception that leaves the bottom frame is one stop there, on every version."""

    kHead = """
import atexit, sys
from support.tracing import Session

class Info(object):
    mod_name = containing_class = '*'
    def __init__(self, co_name, prints=1, parent=0):
        self.co_name, self.prints, self.parent = co_name, prints, parent

class Exiting(Session):
    def exception_cb(self, frame, info):
        self.stops.append(('exception', frame.f_code.co_name, info[0].__name__,
                           self.tracer.exiting_on_exception()))

    def quit_cb(self):
        self.stops.append(('quit',))
        self.tracer.stop_trace()

session = Exiting(exception_mode={mode})
tracer = session.tracer
def report():
    tracer.stop_trace()
    sys.stdout.write(repr(session.stops))
atexit.register(report)
{settings}
tracer.start_trace()
"""
    kBottom = ("exception", "<module>", "ValueError", 1)
    kQuit = ("quit",)
    kOneCaughtOneNot = """
try:
    raise KeyError(1)
except KeyError:
    pass
raise ValueError(1)
"""

    def run_program(self, text, mode=kUnhandled, settings="", status=1):
        path = self.make_file("bottom.py", self.kHead.format(mode=mode, settings=settings) + text)
        ended = run_script(path, env={"PYTHONPATH": python_path()})
        self.assertEqual(ended.status, status, ended)
        self.line = line_of(path, "here") if "#@" in text else None
        return eval(ended.out)

    def test_raised_in_it(self):
        for mode in (kNever, kUnhandled, kPrints, kPrintsToo):
            self.assertEqual(self.run_program("raise ValueError(1)\n", mode),
                             [self.kBottom, self.kQuit], mode)
        # In mode 1 it is a stop like any other, and not yet known to be the last.
        self.assertEqual(self.run_program("raise ValueError(1)\n", kAlways),
                         [self.kBottom[:3] + (0,), self.kQuit])

    def test_raised_further_in(self):
        text = "def inner():\n    raise ValueError(1)\ninner()\n"
        for mode in (kNever, kUnhandled, kPrints):
            self.assertEqual(self.run_program(text, mode), [self.kBottom, self.kQuit], mode)
        stops = self.run_program(text, kAlways)
        self.assertEqual([stop[1:3] for stop in stops],
                         [("inner", "ValueError"), ("<module>", "ValueError"), ()])

    def test_raised_while_stepping(self):
        stops = self.run_program("""
session.script = ["step_over"] * 9
tracer.stop()
one = 1
raise ValueError(1)
""")
        self.assertEqual([stop[0] for stop in stops].count("exception"), 1)
        self.assertEqual([stop[0] for stop in stops].count("quit"), 1)

    def test_always_stop_types(self):
        self.assertEqual(
            self.run_program("raise ValueError(1)\n", kNever,
                             "tracer.set_always_stop_excepts((ValueError,))"),
            [self.kBottom[:3] + (1 if has("frame_iblock") else 0,), self.kQuit])

    def test_never_stop_types(self):
        for mode in (kNever, kUnhandled, kPrints):
            self.assertEqual(
                self.run_program("raise ValueError(1)\n", mode,
                                 "tracer.set_never_stop_excepts((KeyError, ValueError))")[:1],
                [self.kQuit], mode)

    def test_caught_in_it(self):
        text = "try:\n    raise ValueError(1)\nexcept ValueError:\n    pass\nend = 1\n"
        for mode in (kNever, kUnhandled, kPrints):
            self.assertEqual(self.run_program(text, mode, status=0), [self.kQuit], mode)
        self.assertEqual([stop[:2] for stop in self.run_program(text, kAlways, status=0)],
                         [("exception", "<module>"), self.kQuit])

    def test_a_handler_that_does_not_match(self):
        """Before 3.11 only the block is seen, and not what it catches."""
        text = "try:\n    raise ValueError(1)\nexcept KeyError:\n    pass\n"
        expected = [] if has("frame_iblock") else [self.kBottom]
        for mode in (kNever, kUnhandled):
            self.assertEqual(self.run_program(text, mode), expected + [self.kQuit], mode)
        for mode in (kPrints, kPrintsToo):
            stops = self.run_program(text, mode)
            self.assertEqual([stop[:3] for stop in stops], [self.kBottom[:3], self.kQuit], mode)

    def test_caught_and_another_one_raised(self):
        stops = self.run_program(self.kOneCaughtOneNot)
        self.assertEqual(stops, [self.kBottom, self.kQuit])

    def test_reported_caught_and_another_one_raised(self):
        stops = self.run_program(self.kOneCaughtOneNot, kAlways)
        self.assertEqual([stop[:3] for stop in stops],
                         [("exception", "<module>", "KeyError"), self.kBottom[:3], self.kQuit])

    def test_passing_a_finally(self):
        text = "try:\n    raise ValueError(1)\nfinally:\n    done = 1\n"
        expected = [] if has("frame_iblock") else [self.kBottom]
        self.assertEqual(self.run_program(text), expected + [self.kQuit])

    def test_filtered(self):
        text = "raise ValueError(1)  #@ here\n"
        settings = "tracer.ignore_exception_loc(__file__, {}, 1)"
        self.run_program(text, settings="")
        # one line more: the settings' own
        for mode in (kUnhandled, kPrints):
            self.assertEqual(self.run_program(text, mode, settings.format(self.line)),
                             [self.kQuit], mode)

    def test_autoquit_off(self):
        self.assertEqual(
            self.run_program("raise ValueError(1)\n", settings="tracer.set_autoquit(0)"),
            [self.kBottom[:3] + (0,)])

    def test_exit_is_an_exception_like_others(self):
        stops = self.run_program("sys.exit(3)\n", settings="", status=3)
        self.assertEqual([stop[:3] for stop in stops],
                         [("exception", "<module>", "SystemExit"), self.kQuit])
        stops = self.run_program(
            "sys.exit(3)\n", settings="tracer.set_never_stop_excepts((SystemExit,))", status=3)
        self.assertEqual(stops, [self.kQuit])

    def test_a_failing_callback_does_not_change_the_end(self):
        stops = self.run_program(
            "raise ValueError(1)\n",
            settings="session.exception_cb = lambda frame, info: 1 // 0\nsession.init()")
        self.assertEqual([stop for stop in stops if stop[0] == "exception"], [])

    def test_printing_functions_and_the_bottom_frame(self):
        text = "def inner():\n    raise ValueError(1)\ninner()\n"
        one = "tracer.set_exc_catch_info_list([Info('<module>', prints=1, parent={})])"
        for parent in (0, 1):
            stops = self.run_program(text, kPrints, one.format(parent))
            self.assertEqual([stop[:3] for stop in stops], [self.kBottom[:3], self.kQuit], parent)


def start_and_wait(event, function, kind):
    """Start function(kind()) in a thread; whether the event comes and the thread ends: else what
    that still runs would be told to the session that follows.

    This thread goes on running meanwhile: in free-threaded builds what it made and another thread
    lets go of dies in this one.
    """
    before = _thread._count()
    _thread.start_new_thread(function, (kind(),))
    for _ in range(3000):
        if event.is_set() and _thread._count() <= before:
            return True
        time.sleep(0.01)  # not wait(), which raises exceptions in itself
    return False


class StopTraceTest(TestCase):
    def test_bottom_frame_is_let_go_when_the_callback_ends_tracing(self):
        session = Session(exception_mode=kAlways)
        seen, ended = [], threading.Event()

        class tLast(object):
            def __del__(self):
                ended.set()

        def bottom(last):
            sys.settrace(session.tracer.bootstrap_new_thread)
            try:
                raise ValueError(1)
            except ValueError:
                pass
            session.tracer.thread_exiting()

        def end(frame, info):
            seen.append(frame.f_code.co_name)
            session.tracer.stop_trace()

        session.exception_cb = end
        session.init()
        session.tracer.start_trace()
        self.assertTrue(start_and_wait(ended, bottom, tLast))
        self.assertIn(seen, ([], ["bottom"]))  # where nothing adopts the thread nothing is seen


class ThreadBottomTest(TestCase):
    """A thread that came under the tracer has a bottom frame of its own."""

    def run_thread(self, session, raises):
        import_tracer()
        ended = threading.Event()

        class Last(object):
            def __del__(self):
                ended.set()

        def inner():
            return raises()

        def bottom(last):
            sys.settrace(session.tracer.bootstrap_new_thread)
            inner()

        session.tracer.start_trace()
        stderr, sys.stderr = sys.stderr, open("/dev/null", "w")
        hook = getattr(sys, "unraisablehook", None)
        if hook:
            sys.unraisablehook = lambda *_: None
        try:
            self.assertTrue(start_and_wait(ended, bottom, Last))
        finally:
            sys.stderr = stderr
            session.tracer.stop_trace()
        stops = [stop[:2] + stop[3:] for stop in session.stops]
        return stops[:stops.index(("quit",)) + 1]  # what the dying thread runs is another story

    def test_an_exception_that_ends_the_thread(self):
        for mode in (kNever, kUnhandled, kPrints):
            session = Session(exception_mode=mode)
            stops = self.run_thread(session, lambda: 1 // 0)
            self.assertEqual(stops, [("exception", "bottom", "ZeroDivisionError"), ("quit",)], mode)

    def test_never_stop_types(self):
        session = Session(exception_mode=kUnhandled)
        session.tracer.set_never_stop_excepts((ZeroDivisionError,))
        self.assertEqual(self.run_thread(session, lambda: 1 // 0), [("quit",)])

    def test_a_thread_that_just_ends(self):
        session = Session(exception_mode=kUnhandled)
        self.assertEqual(self.run_thread(session, lambda: 1), [("quit",)])


if __name__ == "__main__":
    import unittest
    unittest.main()
