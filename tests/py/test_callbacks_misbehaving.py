"""Callbacks of every kind that raise, return nonsense, wait for others, or are interrupted.

Each pair of a kind and a deed is a session of its own in a child process (the one that the tests of
failing calls use).  The program computes what it computes untraced, unless the deed was to raise
something in it, and a session after that one is like any other.
"""
from __future__ import absolute_import, division, print_function

import ctypes
import gc
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
from support.faults import in_child, scenario

kCallbacks = ("hooks", "checksum", "idle", "line", "returns", "exception", "quit", "imported", "policy")
kMethods = ("_GetMarkerFrames", "_GetModulePaths", "_GetSubLanguageFrames", "_StopHere",
            "_TranslateFrame", "_GetStepOutFrame", "_Eval")
kKinds = kCallbacks + kMethods


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
        self.idle_period = 1.0 if kind == "idle" else 0.0

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
    """A thread that does not need the mutex, for its starter waits."""
    server.tracer.set_debug_all_threads(0)
    log = []
    thread = threading.Thread(target=lambda: log.append(scenario.steps.add(1, 2)))
    thread.start()
    thread.join()
    server.tracer.set_debug_all_threads(1)


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


def call_all(server, arguments):
    """Every function that needs no more than nothing, and leaves the session alive."""
    for name in dir(server.tracer):
        if name not in ("reset", "destroy", "stop_trace", "thread_exiting", "acquire_dbgserver_mutex",
                        "release_dbgserver_mutex", "fork_ok", "atexit_func", "breakpointhook"):
            try:
                getattr(server.tracer, name)()
            except (TypeError, RuntimeError, IndexError):
                pass


def end_everything(server, arguments):
    server.tracer.destroy()


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
    """Comes out wherever the interpreter looks next, here or in the program."""
    identity = ctypes.c_ulong(threading.current_thread().ident)
    ctypes.pythonapi.PyThreadState_SetAsyncExc(identity, ctypes.py_object(KeyboardInterrupt))


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
    "ends everything": end_everything,
    "ends and starts": end_and_start,
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
    except (KeyboardInterrupt, SystemExit, Raised, StopIteration) as why:
        interruptions.append(type(why).__name__)
    except RuntimeError as why:  # at the recursion limit
        interruptions.append("RuntimeError" if "recursion" in str(why) else repr(why))
    for lock in server.left:
        lock.acquire()
    try:
        settle()
    except KeyboardInterrupt:
        pass
    server.times = 0  # its callbacks may be called once more, by the next init
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
    original = scenario.Server
    scenario.Server = lambda tracer: server
    try:
        scenario.run(server.tracer)
    finally:
        scenario.Server = original


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


for _name, _deed in kQuietDeeds.items():
    _add_quiet(_name, _deed)
for _name, _deed in kInterruptions.items():
    _add_interruption(_name, _deed)


if __name__ == "__main__":
    unittest.main()
