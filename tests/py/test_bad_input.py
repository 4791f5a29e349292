"""What nobody should pass: a Python error or the function's own answer, never a crash."""
from __future__ import absolute_import, division, print_function

import io
import itertools
import json
import os
import sys
import threading
import unittest

from support import DATA, TestCase, has, import_tracer, needs, run_code, time_limit
from support.tracing import Session, import_debuggee, join_whole_thread, kDefaultImport

kOnceWhenQuick = True

steps = import_debuggee("steps")

kLong = "/" + "d/" * 20000
kTexts = ["", "x", "a\0b", u"\xe9", b"\xff\xfe", "<string>", kLong, "relative/" * 4000, "%s%n%d"]
kNumbers = [0, 1, -1, 2 ** 31 - 1, -2 ** 31, 2 ** 31, 2 ** 32 + 1, 2 ** 63, -2 ** 63 - 1, 2 ** 70]
kOdd = [None, 1.5, float("nan"), float("inf"), (), [], {}, object(), type, ValueError, ValueError()]

# Not called with what comes: these do as told, whatever it leads to.
kDangerous = ("set_dprintf_file", "add_to_tstate_tracing")
# The one function that fails without saying why, where a thread has no record.
kSilent = ("step_into",)


def names_of_functions():
    with io.open(os.path.join(DATA, "methods.json"), encoding="utf-8") as source:
        return [row["name"] for row in json.load(source)]


class Nasty(object):
    """Raises from whatever is asked of it."""

    def fail(self, *_):
        raise RuntimeError("nasty")

    __getattr__ = __hash__ = __eq__ = __call__ = __str__ = __repr__ = __len__ = __int__ = fail
    __float__ = __index__ = __nonzero__ = __bool__ = fail


def finished_frame():
    try:
        raise ValueError()
    except ValueError:
        return sys.exc_info()[2].tb_frame


def suspended_frame():
    def generate():
        yield sys._getframe()

    generator = generate()
    return generator, next(generator)


class BadCase(TestCase):
    def setUp(self):
        self.tracer = import_tracer()

    def call(self, name, *arguments):
        """The result, or the exception's type; a SystemError is a failure."""
        try:
            return getattr(self.tracer, name)(*arguments)
        except SystemError as why:
            if name not in kSilent:
                self.fail("{}({}): {}".format(name, ", ".join(map(short, arguments)), why))
        except Exception as why:
            return type(why)


def short(value):
    return type(value).__name__ if isinstance(value, Nasty) else repr(value)[:60]


class Everything(BadCase):
    def call_all_with(self, values):
        for name in names_of_functions():
            if name in kDangerous:
                continue
            self.call(name)
            for one in values:
                for arguments in ((one,), (one, one), ("f", one), (one, 1), (one, "call", one),
                                  ("f", "", one, 1, 0, None, 0), (one,) * 12):
                    self.call(name, *arguments)

    def values(self):
        generator, frame = suspended_frame()
        return kTexts + kNumbers + kOdd + [Nasty(), sys._getframe(), finished_frame(), frame]

    @time_limit(120)
    def test_before_init(self):
        self.call_all_with(self.values())

    @time_limit(120)
    def test_after_init(self):
        Session()
        self.call_all_with(self.values())

    @time_limit(120)
    def test_after_destroy(self):
        Session().run(steps.calls, "step_into")
        self.tracer.destroy()
        self.call_all_with(self.values())

    @time_limit(120)
    def test_in_a_stop(self):
        def go(frame):
            self.call_all_with([None, "x", 2 ** 31, Nasty(), frame, finished_frame()])

        session = Session()
        session.run(steps.calls, go)
        self.assertEqual([row[0] for row in session.stops[:1]], ["line"])

    def test_too_many_arguments(self):
        Session()
        for name in names_of_functions():
            self.call(name, *range(100))

    def test_numbers_that_do_not_fit(self):
        Session()
        for name in ("set_autoquit", "set_debug_all_threads", "set_exception_mode",
                     "enable_checksums", "set_dprintf_mask", "set_use_eval_frame",
                     "set_save_and_restore_errno", "add_to_tstate_tracing",
                     "set_tstate_use_tracing"):
            for number in (2 ** 31, -2 ** 31 - 1, 2 ** 63, -2 ** 70):
                self.assertIs(self.call(name, number), OverflowError, (name, number))
        self.assertIs(self.call("set_break", "f", "", 2 ** 31, 1, 0, None, 0), OverflowError)
        self.assertIs(self.call("step_over_line_range", -2 ** 40, 1), OverflowError)


class Numbers(BadCase):
    def test_breakpoints_on_any_line(self):
        Session()
        for line in (0, -1, 2 ** 31 - 1, -2 ** 31):
            self.assertIsInstance(self.call("set_break", "f", "", line, 1, 0, None, 0), int)
            self.assertEqual(len(self.tracer.get_breaks("f", line)), 1)
            self.assertEqual(self.tracer.get_breaks("f", line)[0][3], None)
        self.assertEqual(sorted(row[0] for row in self.tracer.get_file_breaks("f")),
                         [-2 ** 31, -1, 0, 2 ** 31 - 1])

    def test_ranges_of_lines_that_hold_nothing(self):
        session = Session()
        session.run(steps.calls, ("step_over_line_range", 5, -5), "step_into")
        self.assertEqual(session.stops[1][0], "line")


class Texts(BadCase):
    def test_very_long_paths(self):
        Session()
        for path in (kLong, kLong[1:], "a" * 40000):
            self.assertIsInstance(self.call("set_break", path, path, 1, 1, 0, path, 0), int)
            self.assertEqual(self.tracer.get_breaks(path, 1)[0][3], path)
            self.assertEqual(self.tracer.get_file_breaks(path)[0][4], path)
            self.assertIsNone(self.call("lookup_canonical_pathname", path, path))
            name, is_new = self.tracer.register_canonical_pathname(path, path)
            self.assertEqual(is_new, 1)
            self.assertTrue(name.endswith(path.rstrip("/")[-100:]) or path == kLong, name[-100:])
            self.assertEqual(self.tracer.lookup_canonical_pathname(path), name)
            self.assertIsNone(self.tracer.ignore_exception_loc(path, 1, 1))
            self.assertEqual(self.tracer.exception_loc_ignored(path, 1), 1)
            self.assertIsNone(self.tracer.clear_breaks(path, 1))
            self.assertEqual(self.tracer.get_file_breaks(path), [])

    def test_code_of_a_very_long_path(self):
        session = Session()
        names = []
        space = {}
        exec(compile("def f(stop):\n  stop()\n  return 1\n", kLong + "x.py", "exec"), space)
        session.show = lambda frame: names.append(session.tracer.get_frame_file(frame))
        self.assertEqual(session.run(space["f"]), 1)
        self.assertEqual([os.path.basename(name) for name in names], ["<filename too long>"])

    def test_text_with_a_null_character_is_refused(self):
        Session()
        for name, arguments in (
                ("set_break", ("a\0b", "", 1, 1, 0, None, 0)),
                ("set_break", ("a", "\0", 1, 1, 0, None, 0)), ("clear_breaks", ("a\0", 1)),
                ("get_file_breaks", ("\0",)), ("ignore_exception_loc", ("a\0b", 1, 1)),
                ("lookup_canonical_pathname", ("a\0b",)),
                ("register_canonical_pathname", ("a", "b\0"))):
            self.assertIn(self.call(name, *arguments), (TypeError, ValueError), name)

    def test_condition_with_a_null_character_is_refused_or_fails(self):
        Session()
        self.call("set_break", "f", "", 1, 1, 0, "a\0b", 0)
        self.call("set_breaks_cond", "f", 1, u"a\0b")
        self.tracer.get_breaks("f", 1)

    def test_text_that_has_no_bytes(self):
        Session()
        self.call("set_break", u"\ud800", "", 1, 1, 0, u"\ud800", 0)
        self.call("set_break", "f", "", 1, 1, 0, u"\ud800", 0)
        self.call("get_breaks", "f", 1)
        self.call("register_canonical_pathname", u"\ud800")

    @needs("!python2")
    def test_PyFile_SetEncoding_where_there_is_none(self):
        tracer = import_tracer()
        with self.assertRaises(RuntimeError) as caught:
            tracer.PyFile_SetEncoding(sys.stdout, "ascii")
        self.assertEqual(str(caught.exception), "PyFile_SetEncoding not available")

    @needs("python2")
    def test_PyFile_SetEncoding_of_what_is_no_file(self):
        tracer = import_tracer()
        with open(os.devnull, "w") as sink:
            self.assertIsNone(tracer.PyFile_SetEncoding(sink, "ascii"))
            self.assertEqual(sink.encoding, "ascii")
        for thing in (None, 1, "x", io.open(os.devnull), Nasty()):
            self.assertIsInstance(self.call("PyFile_SetEncoding", thing, "ascii"), type)

    def test_PyFile_WriteObject_into_what_is_no_file(self):
        Session()
        for sink in (None, 1, object(), Nasty()):
            self.assertIsInstance(self.call("PyFile_WriteObject", "x", sink, 0), type)
        self.assertIsInstance(self.call("PyFile_WriteObject", Nasty(), io.StringIO(), 0), type)


class ThreadsAndFrames(BadCase):
    def dead_id(self):
        """Never traced: the end of tracing may find a thread state that is about to go."""
        def target():
            ids.append(self.tracer.get_current_tstate_id())
            self.tracer.is_dbgserver_mutex_held()  # makes the record
            self.tracer.thread_exiting()

        Session()
        ids = []
        thread = threading.Thread(target=target)
        thread.start()
        join_whole_thread(thread)
        return ids[0]

    def test_ids_of_threads_that_ended_or_never_were(self):
        dead = self.dead_id()
        for one in (dead, 0, -1, 1, 4096, 2 ** 31, -2 ** 31):
            self.assertIs(self.call("get_curr_frame", one), IndexError)
            self.assertIsNone(self.call("get_thread_name", one))
            self.assertIsNone(self.call("get_thread_ident_for_tstate_id", one))
            self.assertIsNone(self.call("sub_language_get_active_hook", one))
            self.assertEqual(self.call("sub_language_get_frame_category", one, sys._getframe()), -1)
            self.assertIsNone(self.call("raise_exception", one, None))

    def test_ids_that_are_no_ids(self):
        Session()
        for name in ("get_curr_frame", "get_thread_name", "get_thread_ident_for_tstate_id"):
            for bad in ("x", None, (), Nasty(), 2 ** 200):
                self.assertIsInstance(self.call(name, bad), type, (name, short(bad)))

    def test_frames_of_functions_that_ended(self):
        Session()
        generator, suspended = suspended_frame()
        for frame in (finished_frame(), suspended):
            self.assertTrue(self.call("get_frame_file", frame).endswith(".py"))
            self.assertEqual(self.call("is_internal_frame", frame), 0)
            self.assertEqual(self.call("is_botframe", frame), 0)
            self.assertIsNone(self.call("step_out_to_frame", frame))
            self.assertIsNone(self.call("PyFrame_LocalsToFast", frame, 0))
            self.assertEqual(self.call("sub_language_get_frame_category",
                                       self.tracer.get_current_tstate_id(), frame), -1)
        generator.close()
        self.assertIsNone(self.call("PyFrame_LocalsToFast", suspended, 1))

    def test_stepping_out_to_a_frame_that_is_gone(self):
        session = Session()
        self.assertIsNotNone(session.run(steps.calls, ("step_out_to_frame", finished_frame())))
        self.assertEqual(len(session.stops), 1)

    def test_events_of_frames_that_ended(self):
        session = Session()
        session.tracer.start_trace()
        try:
            for frame, event, arg in itertools.product(
                    (finished_frame(), suspended_frame()[1]),
                    ("call", "line", "return", "exception"),
                    (None, (), (1,), (ValueError, ValueError(), None), (1, 2, 3),
                     (ValueError, None, Nasty()), Nasty())):
                session.tracer.continue_run()
                session.tracer.set_exception_mode(1)
                self.call("trace_dispatch", frame, event, arg)
                self.call("bootstrap_new_thread", frame, event, arg)
        finally:
            session.tracer.stop_trace()


class Callbacks(BadCase):
    """Callables that do what a debug server should not."""

    def run_with(self, action, **settings):
        """Every callback does it; the program has its own result all the same."""
        def act(*_):
            if self.busy:
                return None
            self.busy = True
            try:
                return action(session.tracer)
            finally:
                self.busy = False

        self.busy = False
        session = Session(line_cb=act, return_cb=act, exception_cb=act, quit_cb=act, idle_cb=act,
                          import_cb=act, thread_hooks_cb=act, checksum_cb=act, exception_mode=1,
                          idle_period=1.0, **settings)
        session.tracer.set_break(steps.__file__, "sum", 3, 1, 0, "1 // 0", 0)
        session.tracer.set_debug_thread_cb(act)

        def program(stop):
            stop()
            __import__("string")
            return steps.catches(stop), steps.calls(stop)

        try:
            session.tracer.start_trace()
        except (Exception, KeyboardInterrupt):
            pass  # what the thread-hooks callback raised
        try:
            result = program(session.tracer.stop)
        finally:
            try:
                session.tracer.stop_trace()
            except (Exception, KeyboardInterrupt):
                pass
        self.assertEqual(result, program(lambda: None))
        return session

    def test_all_raise(self):
        def fail(tracer):
            raise ValueError("callback")

        self.run_with(fail)

    def test_all_raise_what_is_no_error(self):
        def fail(tracer):
            raise KeyboardInterrupt("callback")

        self.run_with(fail)

    def test_all_return_odd_things(self):
        for value in (Nasty(), -1, 2 ** 70, "x", ()):
            self.run_with(lambda tracer: value)

    def test_all_end_or_restart_everything(self):
        for names in (("stop_trace",), ("reset",), ("destroy",), ("start_trace",),
                      ("thread_exiting",), ("stop_trace", "start_trace"), ("reset", "start_trace"),
                      ("clear_all_breaks",), ("breakpointhook",), ("release_dbgserver_mutex",),
                      ("release_dbgserver_mutex", "thread_exiting"), ("fork_ok",),
                      ("atexit_func",)):
            def act(tracer):
                for name in names:
                    getattr(tracer, name)()

            self.run_with(act)
            self.assertEqual(self.tracer.is_dbgserver_mutex_held(), 0, names)

    def test_all_delete_frames(self):
        """Generators that were stepped into and to end while they are the frame to step out to.

        (A yield that is being told of is not cleared: 3.11 itself does not survive that.)
        """
        generators = []

        def make():
            yield 1
            yield 2

        def act(tracer):
            del generators[:]
            generators.append(make())
            tracer.step_into()
            next(generators[0])
            frame = generators[0].gi_frame
            tracer.step_out_to_frame(frame)
            generators[0].close()
            getattr(frame, "clear", int)()
            tracer.get_frame_file(frame)
            tracer.is_botframe(frame)

        self.run_with(act)
        self.assertTrue(generators)

    def test_all_initialise_anew(self):
        def act(tracer):
            nothing = lambda *_: None
            tracer.init(0.0, 0, nothing, nothing, nothing, nothing, nothing, nothing, nothing, None,
                        kDefaultImport, {})

        self.run_with(act)

    def test_one_deletes_the_locals_of_the_frame(self):
        def act(frame):
            tracer.PyFrame_LocalsToFast(frame, 0)
            frame.f_locals.clear() if hasattr(frame.f_locals, "clear") and has("python2") else None
            tracer.step_into()

        session = Session(line_cb=act)
        tracer = session.tracer
        session.run(steps.calls)

    def test_hooks_that_start_tracing_again_during_init(self):
        def hooks(install):
            if not install:
                session.tracer.start_trace()

        session = Session(thread_hooks_cb=hooks)
        session.tracer.start_trace()
        session.thread_hooks_cb = lambda install: None
        session.init()
        self.assertEqual(session.tracer.get_tracing(), 0)
        self.assertEqual(session.run(steps.calls, "step_into"), steps.calls(lambda: None))
        self.assertEqual(session.stops[0], ("line", "calls", "calls-add"))
        thread = threading.Thread(target=steps.calls, args=(lambda: None,))
        thread.start()
        thread.join()

    def test_the_mutex_given_back_after_a_reset(self):
        tracer = Session().tracer
        tracer.acquire_dbgserver_mutex()
        tracer.reset()
        self.assertEqual(tracer.is_dbgserver_mutex_held(), 1)
        tracer.release_dbgserver_mutex()
        self.assertEqual(tracer.is_dbgserver_mutex_held(), 0)
        done = []

        def other():
            done.append(tracer.acquire_dbgserver_mutex())
            tracer.release_dbgserver_mutex()

        thread = threading.Thread(target=other)
        thread.start()
        thread.join()
        self.assertEqual(done, [1])

    def test_a_checksum_callback_that_switches_the_matching_of_files(self):
        """Between two breakpoints of one file that wait for the same module."""
        asked = []

        def checksum(name):
            asked.append(name)
            self.tracer.set_use_canonical_pathnames(len(asked) % 2)
            return "other"

        session = Session(checksum_cb=checksum)
        try:
            for line in range(1, 5):
                session.tracer.set_break("nowhere/else.py", "sum", line, 1, 0, None, 0)
            session.run(steps.calls, "step_into")
        finally:
            self.tracer.set_use_canonical_pathnames(0)
        self.assertTrue(asked)

    def test_a_checksum_callback_that_ends_the_thread_for_us(self):
        asked = []

        def checksum(name):
            asked.append(name)
            self.tracer.release_dbgserver_mutex()
            self.tracer.thread_exiting()
            return "sum"

        session = Session(checksum_cb=checksum)
        session.tracer.set_break("nowhere/steps.py", "sum", 3, 1, 0, None, 0)
        session.run(steps.calls, "step_into")
        self.tracer.register_module(steps)
        self.assertTrue(asked)
        self.assertEqual(self.tracer.is_dbgserver_mutex_held(), 0)


class Programs(TestCase):
    """Callbacks that end the process: its status is what was asked for."""

    kSource = """
import os, sys
from support.tracing import Session
def act(frame):
    {action}
session = Session(line_cb=act)
def program(stop):
    stop()
    os.getpid()
session.run(program)
sys.exit(5)
"""

    def status_of(self, action, **options):
        return run_code(self.kSource.format(action=action), **options)

    def test_os_exit_in_a_stop(self):
        self.assertEqual(self.status_of("os._exit(7)").status, 7)

    def test_exceptions_end_only_the_tracing(self):
        for action in ("sys.exit(7)", "raise KeyboardInterrupt", "1 // 0"):
            done = self.status_of(action)
            self.assertEqual(done.status, 5, done)

    kEvery = """
import os, sys
from support.tracing import Session, import_debuggee
steps = import_debuggee("steps")
def act(*_):
    if os.getpid() == parent or not busy:
        busy.append(1)
        {action}
def program(stop):
    stop()
    __import__("string")
    return steps.catches(stop), steps.calls(stop)
parent, busy, statuses = os.getpid(), [], []
expected = program(lambda: None)
for kind in ("line_cb", "return_cb", "exception_cb", "import_cb", "thread_hooks_cb",
             "checksum_cb", "idle_cb", "policy"):
    del busy[:]
    {before}
    callbacks = {{}} if kind == "policy" else {{kind: act}}
    session = Session(exception_mode=1, idle_period=1.0, **callbacks)
    if kind == "policy":
        session.tracer.set_debug_thread_cb(act)
    session.tracer.enable_checksums(1)
    session.tracer.set_break(steps.__file__[:-1] + "x", "sum", 3, 1, 0, None, 0)
    result = session.run(program, *["step_into"] * 30)
    {after}
    if result != expected or not busy:
        print(kind, result, len(busy))
    session.tracer.destroy()
print(statuses)
"""

    def test_fork_in_every_callback(self):
        """The child goes on untraced; the parent is the same as before."""
        done = run_code(self.kEvery.format(
            action="pid = len(busy) == 1 and os.fork()\n"
                   "        if pid: statuses.append(os.WEXITSTATUS(os.waitpid(pid, 0)[1]))\n"
                   "        if pid == 0 and pid is not False: busy.append('child')",
            before="pass",
            after="if os.getpid() != parent: os._exit(7 if result == expected else 8)"))
        self.assertEqual((done.out, done.status), ("[7, 7, 7, 7, 7, 7, 7, 7]\n", 0), done)

    def test_exit_in_every_callback(self):
        done = run_code(self.kEvery.format(
            action="if os.getpid() != parent: os._exit(9)",
            before="pid = os.fork()\n"
                   "    if pid:\n"
                   "        statuses.append(os.WEXITSTATUS(os.waitpid(pid, 0)[1]))\n"
                   "        continue",
            after="os._exit(8)"))
        self.assertEqual((done.out, done.status), ("[9, 9, 9, 9, 9, 9, 9, 9]\n", 0), done)

    def test_fork_in_a_stop(self):
        done = self.status_of("os.fork() or os._exit(0); os.wait()")
        self.assertEqual(done.status, 5, done)


if __name__ == "__main__":
    unittest.main()
