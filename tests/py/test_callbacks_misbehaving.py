"""Callbacks of every kind that raise, return nonsense, wait for others, or are interrupted.

Each pair of a kind and a deed is a session of its own in a child process (the one that the tests of
failing calls use).  The program computes what it computes untraced, unless the deed was to raise
something in it, and a session after that one is like any other.
"""
from __future__ import absolute_import, division, print_function

import ctypes
import gc
import json
import os
import signal
import sys
import threading
import unittest

try:
    import _thread
except ImportError:
    import thread as _thread

from support import TestCase, import_tracer, needs, time_limit
from support.faults import in_child, kSeconds, scenario
from support.programs import TESTS

kOnceWhenQuick = True
kCallbacks = ("hooks", "checksum", "idle", "line", "returns", "exception", "quit",
              "imported", "policy")
kMethods = ("_GetMarkerFrames", "_GetModulePaths", "_GetSubLanguageFrames", "_StopHere",
            "_TranslateFrame", "_GetStepOutFrame", "_Eval")
kKindsWithFrames = ("line", "returns", "exception", "_StopHere", "_TranslateFrame",
                    "_GetStepOutFrame")
kKinds = kCallbacks + kMethods + ("condition", "write")


class Raised(Exception):
    pass


class Nonsense(object):
    def fail(self, *_):
        raise Raised()

    __len__ = __iter__ = __getitem__ = __int__ = __index__ = __bool__ = __nonzero__ = fail
    __call__ = __str__ = __repr__ = __eq__ = fail
    __hash__ = None


class Misbehaving(scenario.Server):
    """deed(self, arguments) is done in callbacks of the kind, at first `times`; its result is given
    unless it is None."""

    def __init__(self, tracer, kind, deed, times=3):
        super(Misbehaving, self).__init__(tracer)
        self.kind, self.deed, self.times = kind, deed, times
        self.done, self.left = 0, []
        self.children, self.is_child = [], False
        self.idle_period = 1.0 if kind == "idle" else 0.0
        if kind == "default_import":
            self.default_import = self.spoiled(kind, self.default_import)
        scenario.steps.condition = self.spoiled("condition", lambda: 1)

    def attempt(self, name, *arguments):
        """Conditions call a function that is in the program's namespace."""
        if self.kind == "condition" and name == "set_break" and arguments[0] != scenario.kTemplate:
            arguments = arguments[:5] + ("condition()",) + arguments[6:]
        return super(Misbehaving, self).attempt(name, *arguments)

    def log(self):
        """Of a session that is logged; else None."""
        if self.kind != "write":
            return None
        log = scenario.Log()
        log.write = self.spoiled("write", log.write)
        return log

    def guarded(self, callback):
        guarded = super(Misbehaving, self).guarded(callback)
        return self.spoiled(callback.__name__, guarded)

    def guarded_method(self, method):
        return self.spoiled(method.__name__, method)

    def spoiled(self, name, call):
        if name != self.kind:
            return call

        def spoil(*arguments):
            answer = call(*arguments)
            if self.done < self.times:
                self.done += 1
                result = self.deed(self, arguments)
                return answer if result is None else result
            return answer
        return spoil


# --- deeds ----------------------------------------------------------------------------------


def raises(exception):
    def deed(server, arguments):
        raise exception
    return deed


def returns(value):
    return lambda server, arguments: value


def start_thread(server, arguments):
    """A thread that does not need the mutex, for its starter waits.

    Nor does it later: on 2.7 join() does not wait for its last events, in which it may hold the
    lock of `threading` that the next one's starter wants.
    """
    lock = _thread.allocate_lock()
    lock.acquire()
    server.left.append(lock)  # the starter may be a thread that nobody waits for
    server.tracer.set_debug_all_threads(0)
    log = []
    thread = threading.Thread(target=lambda: log.append(scenario.steps.add(1, 2)))
    thread.start()
    thread.join()
    lock.release()


def start_thread_and_leave(server, arguments):
    """It waits for the mutex (Thread.start() would wait for it in turn, before 3.12)."""
    lock = _thread.allocate_lock()
    lock.acquire()
    server.left.append(lock)

    def work():
        try:
            scenario.steps.add(1, 2)
        finally:
            lock.release()

    _thread.start_new_thread(work, ())


def spoil_frames(server, arguments):
    """(Up to 3.10 the interpreter lets frames be cleared that are about to run, and then crashes;
    3.10 lets them in their exception events, too, and then they have lost their variables.)"""
    for frame in arguments:
        if hasattr(frame, "f_locals"):
            names = frame.f_locals
            server.tracer.PyFrame_LocalsToFast(frame, 0)
            del names
            try:
                if frame.f_lasti >= 0 and sys.version_info[:2] != (3, 10):
                    frame.clear()
            except (AttributeError, RuntimeError):  # it is running
                pass


kNotForAll = ("reset", "destroy", "stop_trace", "thread_exiting", "acquire_dbgserver_mutex",
              "release_dbgserver_mutex", "fork_ok", "atexit_func", "breakpointhook")


def call_all(server, arguments):
    """Every function that needs no more than nothing, and leaves the session alive."""
    for name in dir(server.tracer):
        if name not in kNotForAll:
            try:
                getattr(server.tracer, name)()
            except (TypeError, RuntimeError, IndexError):
                pass


def frames_of_program():
    frame, found = sys._getframe(), []
    while frame is not None:
        if frame.f_code.co_filename == scenario.steps.calls.__code__.co_filename:
            found.append(frame)
        frame = frame.f_back
    return found


def forget_locals(server, arguments):
    """The variables of the frames that it is told of, or of those of the program that it finds;
    from 3.13 on they cannot be deleted, but set."""
    for frame in arguments if server.kind in kKindsWithFrames else frames_of_program():
        names = getattr(frame, "f_locals", None)
        if hasattr(names, "clear"):
            names.clear()
        elif names is not None:
            for name in list(names):
                names[name] = None
        if names is not None:
            server.tracer.PyFrame_LocalsToFast(frame, 1)


kArguments = {  # of functions that need some, and of those whose turn is not in call_all()
    "set_break": ("steps.py", "", 3, 1, 1, "1 // 0", 2), "clear_breaks": ("steps.py", 3),
    "enable_breaks": ("steps.py", 3, 0), "ignore_breaks": ("steps.py", 3, 1),
    "set_breaks_cond": ("steps.py", 3, "wrong ("), "get_breaks": ("steps.py", 3),
    "get_file_breaks": ("steps.py",), "enable_checksums": (0,), "set_autoquit": (0,),
    "step_over_line_range": (1, 2), "step_out_to_frame": (None,), "raise_exception": (0, None),
    "ignore_exception_loc": ("steps.py", 3, 1), "exception_loc_ignored": ("steps.py", 3),
    "set_always_stop_excepts": ((ZeroDivisionError,),), "set_never_stop_excepts": ((OSError,),),
    "set_exc_catch_info_list": ([],), "register_module": (scenario.steps,),
    "lookup_canonical_pathname": ("steps.py",), "register_canonical_pathname": ("steps.py", None),
    "get_curr_frame": (0,), "get_thread_name": (0,), "sub_language_get_active_hook": (0,),
    "set_debug_thread_cb": (None,), "set_use_eval_frame": (0,), "is_botframe": (None,),
    "get_frame_file": (None,), "is_internal_frame": (None,), "set_dprintf_file": (None, -1, 0),
    "set_debug_all_threads": (1,), "set_dprintf_mask": (84,), "set_exception_mode": (5,),
    "set_idle_period": (1.0,), "set_save_and_restore_errno": (1,), "set_use_idle_thread": (0,),
    "set_use_canonical_pathnames": (1,), "get_thread_ident_for_tstate_id": (0,),
    "PyFrame_LocalsToFast": (None, 0), "add_to_tstate_tracing": (0,),
    "set_tstate_use_tracing": (1,), "acquire_dbgserver_mutex": (), "release_dbgserver_mutex": (),
    "fork_ok": (), "register_sub_language_hook": (Nonsense(),),
    "PyFile_WriteObject": ("", sys, 0),
    "PyFile_SetEncoding": (sys.__stdin__, "ascii"), "GetFileBufferCount": (sys.__stdin__,),
    "CopyIntoBuffer": (bytearray(3), 1, b"abc"), "trace_dispatch": (None, "line", None),
    "bootstrap_new_thread": (None, "call", None), "__import__": ("os",),
    "sub_language_get_frame_category": (0, None),
}
kOfDeeds = ("init", "reset", "destroy", "stop_trace", "thread_exiting", "breakpointhook",
            "atexit_func")  # each is one, or part of one


def call_with_arguments(server, arguments):
    """Some are refused, with an exception."""
    for name, values in sorted(kArguments.items()):
        try:
            getattr(server.tracer, name)(*values)
        except (TypeError, RuntimeError, IndexError, AttributeError):
            pass


def begin_anew(server, arguments):
    server.tracer.reset()
    server.tracer.start_trace()


def initialise(server, arguments):
    server.init(1)
    server.tracer.start_trace()


def break_here(server, arguments):
    server.tracer.breakpointhook()


def accept_fork(server):
    try:
        server.tracer.fork_ok()
    except RuntimeError:  # the log tells something before init()
        pass


def fork(server, arguments):
    """The child is accepted, computes and ends."""
    child = os.fork()
    if child == 0:
        status = 1
        try:
            accept_fork(server)
            status = 0 if scenario.steps.add(1, 2) == 3 else 2
        finally:
            os._exit(status)
    server.children.append(child)
    wait_for_children(server)


kInThreads = ("work_in_thread", "work_in_class", "whole_thread")


def waits_for_a_thread():
    frame = sys._getframe()
    while frame is not None and frame.f_code.co_name not in kInThreads:
        frame = frame.f_back
    return frame is not None


def fork_and_go_on(server, arguments):
    """Both run the rest of the program.  A child would wait in vain for what is another thread's."""
    if waits_for_a_thread():
        return
    child = os.fork()
    if child == 0:
        server.is_child, server.times, server.children = True, 0, []
        accept_fork(server)
    else:
        server.children.append(child)


def wait_for_children(server):
    while server.children:
        status = os.waitpid(server.children.pop(), 0)[1]
        if status:
            server.troubles.append("a child ended with {}".format(status))


def end_everything(server, arguments):
    server.tracer.destroy()


def call_what_exits_call(server, arguments):
    server.tracer.atexit_func()


def end_and_start(server, arguments):
    server.tracer.stop_trace()
    server.tracer.start_trace()


def end_the_thread(server, arguments):
    server.tracer.thread_exiting()


def trace_otherwise(server, arguments):
    sys.settrace(lambda *_: None)


def trace_no_more(server, arguments):
    sys.settrace(None)


def recurse(server, arguments):
    def deeper():
        return deeper() + 1

    try:
        deeper()
    except RuntimeError:  # RecursionError is one
        pass


def collect(server, arguments):
    gc.collect()


def fail_at_the_limit(server, arguments):
    def deeper():
        return deeper() + 1
    deeper()


def interrupt(server, arguments):
    """The handler runs in the callback, or in the program right after it."""
    os.kill(os.getpid(), signal.SIGINT)
    for _ in range(100):
        pass


def raise_in_own_thread(server, arguments):
    """Comes out wherever the interpreter looks next.  2.7 looks now and then: not later, for what
    runs then may be the test's own, or the end of a thread."""
    identity = ctypes.c_ulong(threading.current_thread().ident)
    ctypes.pythonapi.PyThreadState_SetAsyncExc(identity, ctypes.py_object(KeyboardInterrupt))
    for _ in range(1000):
        pass


kQuietDeeds = {
    "raises": raises(Raised("callback")),
    "raises the interpreter's way out": raises(SystemExit(3)),
    "raises an interrupt": raises(KeyboardInterrupt()),
    "raises the end of an iteration": raises(StopIteration()),
    "returns nonsense": returns(Nonsense()),
    "returns a number": returns(-1),
    "returns a huge number": returns(2 ** 70),
    "returns text": returns("text"),
    "returns a list": returns([(1,), None, ("", Nonsense()), ("/", "x"), Nonsense()]),
    "spoils frames": spoil_frames,
    "calls all functions": call_all,
    "calls functions with arguments": call_with_arguments,
    "begins anew": begin_anew,
    "initialises": initialise,
    "breaks here": break_here,
    "forks": fork,
    "forks and goes on": fork_and_go_on,
    "ends everything": end_everything,
    "ends and starts": end_and_start,
    "calls what exits call": call_what_exits_call,
    "ends the thread": end_the_thread,
    "traces otherwise": trace_otherwise,
    "traces no more": trace_no_more,
    "recurses": recurse,
    "fails at the limit": fail_at_the_limit,
    "collects": collect,
    "starts a thread": start_thread,
    "starts a thread and leaves it": start_thread_and_leave,
}
kInterruptions = {"signal": interrupt, "asynchronous exception": raise_in_own_thread}

# Where the tracer lets an exception of the callback through: to who called a module function.
kLetsThrough = ("hooks", "imported")


def run_session(kind, deed, interrupted=False):
    tracer = import_tracer()
    server = Misbehaving(tracer, kind, deed)
    interruptions = []
    try:
        run_with(server)
        if server.is_child:
            sys.stderr.write("".join(text + "\n" for text in server.troubles))
            os._exit(1 if server.troubles else 0)
        wait_for_children(server)
    except (KeyboardInterrupt, SystemExit, Raised, StopIteration) as why:
        interruptions.append(type(why).__name__)
    except RuntimeError as why:  # at the recursion limit
        interruptions.append("RuntimeError" if "recursion" in str(why) else repr(why))
    server.times = 0  # its callbacks may be called once more, by the next init
    for lock in server.left:
        lock.acquire()
    try:
        settle()
    except KeyboardInterrupt:
        pass
    again, after = scenario.run_again(tracer)
    return {"done": server.done, "troubles": server.troubles, "interruptions": interruptions,
            "again": again, "after": after}


def is_answered(kind, trouble):
    """A module function that runs the callback raises what the callback raised."""
    askers = {"_GetStepOutFrame": ("step_out",), "hooks": ("start_trace", "stop_trace", "reset"),
              "imported": ("register_module",)}
    return trouble.partition(":")[0] in askers.get(kind, ())


def settle():
    """An exception that is still on its way arrives here, once, wherever that is."""
    try:
        for _ in range(1000):
            pass
    except KeyboardInterrupt:
        pass


def run_with(server):
    originals, log = (scenario.Server, scenario.Log), server.log()
    scenario.Server = lambda tracer: server
    try:
        if log is not None:
            scenario.Log = lambda: log
        scenario.run(server.tracer, log is not None)
    finally:
        scenario.Server, scenario.Log = originals


@needs("fork")
class Callbacks(TestCase):
    def do_everywhere(self, deed, **options):
        """{kind: what became of it}, of the kinds that were called at all"""
        outcomes = {}
        for kind in kKinds:
            answer, why = in_child(lambda: run_session(kind, deed, **options))
            self.assertIsNone(answer.get("raised") or why, kind)
            outcomes[kind] = answer
        return outcomes


def _add_quiet(name, deed):
    @time_limit(120)
    def test(self):
        wrong = []
        for kind, outcome in self.do_everywhere(deed).items():
            troubles = [text for text in outcome["troubles"] if not is_answered(kind, text)]
            lets_through = kind in kLetsThrough and "raises" in name or "limit" in name
            if (troubles or outcome["again"] or not outcome["done"] or
                    outcome["interruptions"] and not lets_through):
                wrong.append((kind, outcome))
        self.assertEqual(wrong, [])
    setattr(Callbacks, "test_" + name.replace(" ", "_").replace("'", ""), test)


def _add_interruption(name, deed):
    @time_limit(120)
    def test(self):
        wrong = []
        for kind, outcome in self.do_everywhere(deed).items():
            troubles = [text for text in outcome["troubles"] if "KeyboardInterrupt" not in text]
            if (troubles or outcome["again"] or not outcome["done"] or
                    set(outcome["interruptions"]) - {"KeyboardInterrupt"}):
                wrong.append((kind, outcome))
        self.assertEqual(wrong, [])
    setattr(Callbacks, "test_interrupted_by_" + name.replace(" ", "_"), test)


class Names(TestCase):
    def test_every_function_is_called(self):
        """By some deed, with arguments that it may take."""
        with open(os.path.join(TESTS, "data", "methods.json")) as source:
            methods = json.load(source)
        without = [one["name"] for one in methods if (one["format"] or ":").startswith(":")]
        called = set(without) - set(kNotForAll) | set(kArguments) | set(kOfDeeds)
        self.assertEqual({one["name"] for one in methods} - called, set())


@needs("fork")
class Locals(TestCase):
    @time_limit(120)
    def test_forgotten(self):
        """The program misses its variables, and that is all."""
        for kind in kKinds:
            answer, why = in_child(lambda: run_session(kind, forget_locals))
            self.assertIsNone(answer.get("raised") or why, kind)
            self.assertEqual((answer["again"], answer["done"] > 0), ([], True), kind)


@needs("fork")
class Imports(TestCase):
    @time_limit(120)
    def test_by_a_function_that_misbehaves(self):
        """The program gets what the function gives or raises, and that is all."""
        for name, deed in sorted(dict(kQuietDeeds, **kInterruptions).items()):
            answer, why = in_child(lambda: run_session("default_import", deed))
            self.assertIsNone(answer.get("raised") or why, name)
            self.assertEqual((answer["again"], answer["done"] > 0), ([], True), name)


@needs("fork")
class InterruptsAtAnyTime(TestCase):
    """From outside, wherever the program, a callback or the tracer is; time only says where.

    Not in the interpreter's own code for threads and imports, which leaves locks locked then.
    """

    kTimes = 20
    kStep = 0.0015  # seconds

    def run_interrupted(self, delay):
        tracer, modules, arrived = import_tracer(), dict(sys.modules), []

        def interrupt(*_):
            arrived.append(1)
            raise KeyboardInterrupt()

        signal.alarm(0)  # there is one clock for both
        signal.signal(signal.SIGALRM, interrupt)
        troubles = []
        try:
            signal.setitimer(signal.ITIMER_REAL, delay)
            troubles = scenario.run(tracer, imports=False, threads=False)["troubles"]
            signal.setitimer(signal.ITIMER_REAL, 0)
        except KeyboardInterrupt:
            pass
        signal.signal(signal.SIGALRM, signal.SIG_DFL)
        signal.alarm(kSeconds)
        sys.modules.update(modules)
        scenario.Server(tracer).init(0)
        while tracer.is_dbgserver_mutex_held():  # it came between taking it and giving it back
            tracer.release_dbgserver_mutex()
        return {"troubles": troubles, "arrived": len(arrived), "again": scenario.run_again(tracer)}

    @time_limit(120)
    def test_interrupted(self):
        wrong, arrived = [], 0
        for number in range(1, self.kTimes + 1):
            answer, why = in_child(lambda: self.run_interrupted(number * self.kStep))
            if why or answer.get("troubles") != [] or answer["again"][0]:
                wrong.append((number, why, answer))
            arrived += answer.get("arrived", 0)
        self.assertEqual(wrong, [])
        self.assertGreater(arrived, 0)


@needs("fork")
class Exits(TestCase):
    kStatus = 7

    def end_everywhere(self, end):
        for kind in kKinds + ("default_import",):
            answer, why = in_child(lambda: run_session(kind, lambda *_: end(self.kStatus)))
            self.assertEqual((answer, why), ({}, "ended with status {}".format(self.kStatus << 8)),
                             kind)

    def test_at_once(self):
        self.end_everywhere(os._exit)

    def test_by_the_c_library(self):
        self.end_everywhere(ctypes.CDLL(None).exit)

    @time_limit(120)
    def test_with_the_interpreter(self):
        """In the main thread; another one would wait for that."""
        main = _thread.get_ident()

        def end(status):
            (ctypes.pythonapi.Py_Exit if _thread.get_ident() == main else os._exit)(status)

        self.end_everywhere(end)


for _name, _deed in kQuietDeeds.items():
    _add_quiet(_name, _deed)
for _name, _deed in kInterruptions.items():
    _add_interruption(_name, _deed)


if __name__ == "__main__":
    unittest.main()
