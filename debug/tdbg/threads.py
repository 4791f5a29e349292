"""Hooks that bring new threads under the tracer and tell it when they end.

The module `threading` is never imported for this: it is hooked when the program has loaded it.
"""
from __future__ import absolute_import, division, print_function

import functools
import os
import sys
import time

from tdbg import compat

try:
    import ctypes
except Exception:  # a build without it
    ctypes = None
if compat.PY2:
    import thread as _thread
    _names_of_delete = "_Thread__delete"
else:
    import _thread
    _names_of_delete = "_delete"

_get_trace, _set_trace = sys.gettrace, sys.settrace
_partial = functools.partial
_call = functools.partial.__call__


class tThreadHooks(object):
    """install() and remove() are the core's install_thread_hooks_cb; see_module() its import_cb."""

    def __init__(self, core, on_end=lambda: None):
        """on_end(): called on a thread that has done its work."""
        self._core = core
        self._on_end = on_end
        self._installed = False
        self._core_adopts = compat.kAdoptsThreads
        self._threading = None
        self._delete = None
        self._start_new_thread = None

    def install(self):
        self._installed = True
        threading = sys.modules.get("threading")
        if threading is not None:
            self._hook_threading(threading)
        if not self._core_adopts:
            self._hook_start_new_thread()

    def remove(self):
        self._installed = False
        self._core_adopts = self._core_adopts and compat.kAdoptsThreadsAgain
        threading, self._threading = self._threading, None
        if threading is not None:
            if threading._trace_hook is self._core.bootstrap_new_thread:
                threading._trace_hook = None
            setattr(threading.Thread, _names_of_delete, self._delete)
        if self._start_new_thread is not None:
            _thread.start_new_thread = _thread.start_new = self._start_new_thread
            self._start_new_thread = None

    def see_module(self, module):
        """A module was imported."""
        if self._installed and getattr(module, "__name__", None) == "threading":
            # Still being executed when a cycle of imports brings it early.
            if hasattr(module, "_trace_hook") and hasattr(module, "Thread"):
                self._hook_threading(module)

    def _hook_threading(self, threading):
        if self._threading is threading or not hasattr(threading.Thread, _names_of_delete):
            return
        self._threading = threading
        if threading._trace_hook is None:  # the program's own has precedence
            threading._trace_hook = self._core.bootstrap_new_thread
        original = threading.Thread.__dict__[_names_of_delete]
        self._delete = original
        core, on_end = self._core, self._on_end

        # At the end of _delete the thread has no more work of the program to do.
        @functools.wraps(original)
        def _delete(thread):
            try:
                return original(thread)
            finally:
                _set_trace(None)
                on_end()
                core.thread_exiting()

        setattr(threading.Thread, _names_of_delete, _delete)
        if self._start_new_thread is not None and hasattr(threading, "_start_new_thread"):
            threading._start_new_thread = self._start_new_thread  # it has the trace hook

    def _hook_start_new_thread(self):
        """Threads that are started below `threading` have no trace hook: give them ours."""
        if self._start_new_thread is not None:
            return
        original = self._start_new_thread = _thread.start_new_thread
        core = self._core

        @functools.wraps(original)
        def start_new_thread(function, args, kwargs=None):
            given = (function, args) if kwargs is None else (function, args, kwargs)
            if not (callable(function) and isinstance(args, tuple)
                    and isinstance(given[-1], (tuple, dict))):
                return original(*given)  # its own error
            return original(_make_body(core, self._on_end, function, args, kwargs or {}), ())

        _thread.start_new_thread = _thread.start_new = start_new_thread


def _make_body(core, on_end, function, args, kwargs):
    """Callable that sets the trace function and calls `function`, without a frame of its own.

    So the function's frame is the outermost one, and its exceptions reach the interpreter, which
    tells which function the thread was started with: by the text of the body.
    """
    steps = [
        _partial(_set_trace, core.bootstrap_new_thread),
        _partial(function, *args, **kwargs),
        _partial(_set_trace, None),
        on_end,
        core.thread_exiting,
    ]
    body = tThreadBody(list, compat.lazy_map(_call, map(_partial, steps)))
    body.function = function
    return body


class tThreadBody(_partial):
    """It holds the function's arguments, and so must die with the thread, without a collection."""

    def __repr__(self):
        return repr(self.function)


# --- what a thread waits for ---------------------------------------------------------------------

_kGettid = {4: 224, 8: 186}
_kFutex = (b"202 ", b"240 ", b"422 ")  # of 64 bits; of 32 bits, before and after 2038
_open, _read, _close = os.open, os.read, os.close
_sleep = time.sleep


def _find_native_id():
    if hasattr(_thread, "get_native_id"):
        return _thread.get_native_id
    try:
        call = ctypes.CDLL(None)["syscall"]
        return _partial(call, _kGettid[ctypes.sizeof(ctypes.c_void_p)])
    except Exception:
        return lambda: None


def waits_for_lock(number, seconds):
    """Whether a thread, by the system's number, has not stirred from its wait for a lock or the
    like for so long.  False where the system does not tell."""
    before = _look_at(number)
    return before is not None and before[0].startswith(_kFutex) and is_at_rest(number, seconds)


def is_at_rest(number, seconds, with_signals=False):
    """The same, whatever it waits for.  with_signals: it gets some, and waits on."""
    before = _look_at(number)
    if before is None or before[0].startswith(b"running"):
        return False
    _sleep(seconds)
    after = _look_at(number)
    return after == before or (with_signals and after is not None and after[0] == before[0])


def _look_at(number):
    """(the system call that the thread is in, how often it has run)"""
    if number is None:
        return None
    folder = "/proc/self/task/{}/".format(number)
    try:
        call, status = _content(folder + "syscall"), _content(folder + "status")
    except EnvironmentError:
        return None
    # Taking the interpreter's lock by and by, a thread that computes is found in such a wait, too.
    return call, [line for line in status.splitlines() if b"ctxt_switches" in line]


def _content(path):
    file = _open(path, os.O_RDONLY)
    try:
        return _read(file, 1 << 16)
    finally:
        _close(file)


#: The system's number of the calling thread; None where it cannot be had.
native_id = _find_native_id()


# --- threads of the debugger itself -------------------------------------------------------------

_own = set()  # idents


def start_own_thread(function):
    """Run function() in a new thread that is none of the program's.

    The tracer leaves it alone, the module `threading` does not know of it, and the process does not
    wait for it.  False when the system has no more threads, or the interpreter is ending.
    """
    # The first step is in place before there is a first frame, which the core would adopt.
    ident = compat.lazy_map(_call, [_partial(compat.get_ident)])
    announce = _partial(list, compat.lazy_map(_own.add, ident))
    try:
        compat.start_new_thread(_partial(list, compat.lazy_map(
            _call, [announce, _partial(_run_own, function)])), ())
    except Exception:
        return False
    return True


def is_own_thread(ident):
    return ident in _own


def adopt_own_thread():
    """The calling thread is the debugger's from now on."""
    _own.add(compat.get_ident())
    if _get_trace() is not None:
        _set_trace(None)


def forget_own_threads():
    """After a fork: they do not exist in the child."""
    _own.clear()


def _run_own(
        function, own=_own, any_exception=BaseException, get_trace=_get_trace, set_trace=_set_trace,
        ident=compat.get_ident):
    # The names are its own: version 2 empties the modules while threads still run.
    # setting none at the same time as another thread could undo the other
    if get_trace() is not None:
        set_trace(None)
    try:
        function()
    except any_exception:  # functions guard themselves, but for that
        pass
    finally:
        own.discard(ident())
