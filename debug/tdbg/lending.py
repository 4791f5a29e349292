"""Freeing the threads of a program from one that holds them up and cannot let go of them itself.

The core has one mutex, and a thread holds it as long as it is stopped, or is asked whether it has
to stop.  What it evaluates in that time may wait for another thread of the program: that one waits
in turn for the mutex, at its next event.  Then a thread of the debugger's own gives the mutex back
in the name of the one that is stuck.  When whatever that has called returns at last, it takes the
mutex again before it touches the debugger's state: so it waits while another thread is stopped.

What the server evaluates is told to the lender, for it is in a callback then.  Conditions that the
core itself evaluates are not: as long as there are such, that thread looks now and then who has the
mutex.

The core's functions for Python act on the calling thread; the ones below them do not, and the
library publishes those, too.
"""
from __future__ import absolute_import, division, print_function

import os
import sys
import time

from tdbg import compat, evaluate, signals, threads, usercode

try:
    import ctypes
except Exception:  # a build without ctypes: what is stuck keeps the others from going on
    ctypes = None

kRestSeconds = 0.05
kPatience = 0.45  # seconds; between one and two of them, then what is evaluated counts as stuck
kPatienceAfter = 0.05  # the next time; twice as long after each look that finds nothing

_get_ident = compat.get_ident
_native_id = threads.native_id
_getpid = os.getpid  # in the system's eyes the main thread's number, too
_sleep = time.sleep
kStopped = ()
kIsNumberCheap = not compat.PY2 and hasattr(compat._thread, "get_native_id")
kNoLoad = 4  # of dlopen(): only what is loaded already


class tLender(object):
    """on_lent(place): the mutex was given back for a thread that is stuck.  place: (file, line) of
    what is evaluated, or None where it is not known

    condition_of(ident)  what the core evaluates on the thread, as (place, what tells one evaluation
                         from the next); None: nothing
    place_of(ident)      where a callback of the thread is, as far as its frames tell
    """

    def __init__(self, core, on_lent=lambda place: None, condition_of=lambda ident: None,
                 place_of=lambda ident: None):
        self._core, self._on_lent = core, on_lent
        self._condition_of, self._place_of = condition_of, place_of
        self._native = None
        self._is_held = core.is_dbgserver_mutex_held
        # ident -> the callback that the thread is in, as (number, the program's frame or None);
        # or kStopped
        self._calls = {}
        self._numbers = {}  # ident -> the system's number of the thread
        self._lent = {}     # ident -> tDone: the callback goes on without the mutex
        self._gate = compat.allocate_lock()
        self._away = {}     # ident -> the system's number of a thread whose mutex was given back
        self._wanted = 0    # how often acquire() was begun that has not ended; else 0
        self._has_conditions = False  # the core may evaluate one at any time
        self._count = 0
        self._is_watching = False
        self._signal = signals.tSignal()

    def switch_on(self):
        """Watch what is evaluated from now on.  Whether that is possible."""
        if self._native is None:
            self._native = _tNative.of(self._core)
            if self._native is not None:
                threads.start_own_thread(self._watch)
        return self._native is not None

    def watch_conditions(self, exist):
        """There are conditions now.  exist: among them some that the core evaluates"""
        self.switch_on()
        if exist != self._has_conditions:
            self._has_conditions = exist
            self._wake()

    # --- callbacks of the core ---

    def enter(self, frame=None):
        """A callback begins, on the calling thread; it may call code of the program.

        frame: of the program, where it is known without looking for it
        """
        ident = _get_ident()
        self._count = number = self._count + 1
        with self._gate:
            self._calls[ident] = (number, frame)
        if ident not in self._numbers or kIsNumberCheap:
            self._numbers[ident] = _native_id()
        if not self._is_watching:
            self._wake()
        if not self._is_held():  # it was lost while the core evaluated a condition
            self.take_back()

    def leave(self):
        """The callback ends.  The thread holds the mutex, in any case."""
        ident = _get_ident()
        if self._calls.pop(ident, None) is None:
            self._come_back(ident)

    #: In a stop: what comes now may call code of the program.
    begin = enter

    def end(self):
        """From now on the callback may last as long as the user likes, who sees a stop.  The thread
        holds the mutex."""
        self.leave()
        self._calls[_get_ident()] = kStopped

    def _come_back(self, ident):
        done = self._lent.get(ident)
        if done is not None:
            done.wait()
            self.take_back()
            self._lent.pop(ident, None)

    def acquire(self):
        """For a thread of the debugger's own: take the mutex, also from a thread that is stuck
        while the core itself evaluates a condition.  False when the interpreter ends."""
        self._count += 1
        self._wanted = self._count
        self._wake()
        try:
            return self._core.acquire_dbgserver_mutex()
        finally:
            self._wanted = 0

    def _wake(self):
        if not self._is_watching:
            self._is_watching = True
            self._signal.set()

    def _watch(self):
        while True:
            self._signal.wait()
            self._is_watching = True
            self._watch_while_busy()
            self._is_watching = False
            if self._is_busy():
                self._signal.set()  # they have come meanwhile, and relied on this thread

    def _watch_while_busy(self):
        count, patience = -1, kPatience
        while self._is_busy() or count != self._count:
            count, before, wanted = self._count, self._call_numbers(), self._wanted
            condition = self._condition()
            _sleep(patience)
            patience = min(2 * patience, kPatience)
            if wanted and wanted == self._wanted:
                self._free()
            if condition is not None and condition == self._condition() and self._free():
                patience = kPatienceAfter
                self._on_lent(condition[1])
            for ident, number in before:
                if (ident, number) in self._call_numbers() and self._is_stuck(ident):
                    patience = kPatienceAfter
                    self._lend(ident, self._numbers.get(ident))
            for ident, number in list(self._away.items()):
                self._leave_alone(ident, number)

    def _call_numbers(self):
        """[(ident, number)]: without the frames, which are not to outlive their calls."""
        return [(ident, call[0]) for ident, call in list(self._calls.items()) if call]

    def _is_busy(self):
        return self._away or self._wanted or self._has_conditions or any(list(self._calls.values()))

    def _condition(self):
        """(ident, place, ...) of the condition that the core evaluates at this moment."""
        ident = self._native.holder() if self._has_conditions else None
        condition = None if ident is None or ident in self._calls else self._condition_of(ident)
        return None if condition is None else (ident,) + condition

    def _free(self):
        """Take the mutex from a thread that has it for a condition; whether there was one."""
        with self._gate:
            condition = self._condition()
            return condition is not None and self._release(condition[0])

    def _is_stuck(self, ident):
        """A thread in a callback.  Code of the debugger may take its time."""
        number = self._numbers.get(ident)
        return usercode.is_running(ident) or threads.is_at_rest(number, kRestSeconds)

    def _lend(self, ident, number):
        done = self._lent[ident] = signals.tDone()
        call = self._calls.pop(ident, None)
        if not call:  # just over
            self._lent.pop(ident, None)
            done.set()
            return
        try:
            place = self._place(ident, call[1])  # before the thread can go on
            self.give_back_for(ident, number)
        finally:
            done.set()
        self._on_lent(place)

    def _place(self, ident, frame):
        # The frame waits in an event: so it can be looked at even without an interpreter lock.
        return self._place_of(ident) if frame is None else (
            frame.f_code.co_filename, frame.f_lineno)

    # --- at any time ---

    def give_back_for(self, ident, number):
        """Give the mutex back in the name of the thread; whether it had it.  Any other thread.

        number: the system's, of the thread
        """
        if self._native is None:
            return False
        self._leave_alone(ident, number)
        self._away[ident] = number
        self._wake()
        return self._release(ident)

    def _release(self, ident):
        core = self._core
        for tstate_id in core.get_threads():
            if core.get_thread_ident_for_tstate_id(tstate_id) == ident:
                return self._native.release(tstate_id)
        return False

    def take_back(self):
        """On the thread: hold the mutex again; waits while another one is stopped."""
        core = self._core
        if self._away:
            self._away.pop(_get_ident(), None)
        # An exception of a signal handler may come between any two steps.
        while not self._is_held():
            if not core.acquire_dbgserver_mutex():
                break  # the interpreter ends

    def forget_thread(self, ident):
        for table in (self._calls, self._numbers, self._lent, self._away):
            table.pop(ident, None)
        usercode.forget_thread(ident)

    def _leave_alone(self, ident, number):
        """What waits cannot be interrupted, and is not to be when it goes on,
        much later perhaps."""
        strikes = evaluate.vain_strikes(ident)
        # A signal disturbs a wait, and has ended by then what is no wait.
        if strikes is not None and threads.is_at_rest(
                number, kRestSeconds, with_signals=number == _getpid() and strikes > 1):
            evaluate.withdraw_strikes(ident)


class _tNative(object):
    """The library's own functions."""

    @classmethod
    def of(cls, core):
        """None where there is no way to them."""
        try:
            return cls(ctypes.PyDLL(core.__file__, mode=kNoLoad))
        except Exception:
            return None

    def __init__(self, library):
        self._state = _tState.in_dll(library, "gSelf")
        self._table = ctypes.addressof(self._state.thread_data)
        pointer = ctypes.c_void_p
        self._find = library["find_thread_data"]
        self._find.argtypes, self._find.restype = (pointer, pointer), pointer
        self._is_held = library["dbgserver_mutex_held"]
        self._is_held.argtypes, self._is_held.restype = (pointer,), ctypes.c_int
        self._release = library["release_dbgserver_mutex"]
        self._release.argtypes, self._release.restype = (pointer,), None

    def holder(self):
        """Ident of the thread that has the mutex, or None."""
        ident = self._state.mutex_thread_id
        return None if ident == kNobody else ident

    def release(self, tstate_id):
        record = self._find(self._table, tstate_id % kAddresses)
        if not record or not self._is_held(record):
            return False
        self._release(record)
        return True


if ctypes is not None:
    class _tHashTable(ctypes.Structure):
        _fields_ = [
            ("buckets", ctypes.c_void_p), ("staticBuckets", ctypes.c_void_p * 4),
            ("numBuckets", ctypes.c_uint), ("numEntries", ctypes.c_uint),
            ("rebuildSize", ctypes.c_uint), ("downShift", ctypes.c_int), ("mask", ctypes.c_int),
            ("keyType", ctypes.c_uint), ("findProc", ctypes.c_void_p),
            ("createProc", ctypes.c_void_p)]

    _ident_type = ctypes.c_ulong if sys.version_info >= (3, 7) else ctypes.c_long  # as in Python
    kNobody = _ident_type(-1).value

    class _tState(ctypes.Structure):
        """The beginning of the core's state."""

        _fields_ = [
            ("tracing", ctypes.c_int), ("idle_period", ctypes.c_uint64), ("idling", ctypes.c_int),
            ("exception_mode", ctypes.c_int), ("autoquit", ctypes.c_int),
            ("debug_all_threads", ctypes.c_int), ("debug_thread_cb", ctypes.c_void_p),
            ("thread_data", _tHashTable), ("mutex", ctypes.c_void_p),
            ("mutex_thread_id", _ident_type)]

    kAddresses = 1 << (8 * ctypes.sizeof(ctypes.c_void_p))
