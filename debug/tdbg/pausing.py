"""Holding a program that no event of its own has stopped.

The core lets a thread stop itself only, and a thread that sleeps, waits or computes in native code
has no event for any time.  So a pause first asks the thread: when its next event comes at once, it
stops like at a breakpoint.  Else a thread of the debugger's own takes the core's debug-server
mutex: whichever thread of the program gets to an event waits there, and what they do can be looked
at, the line that blocks included.  The same thread lends the mutex to whoever wants to use the core
while the program runs.

From a hold a thread is sent on by arming it: the core's question whether to debug the thread comes
on that thread at its next event, and there the ordinary commands for steps can be given.
"""
from __future__ import absolute_import, division, print_function

import time

from tdbg import compat, currentframes, signals, threads

_current_frames = currentframes.current_frames
_sleep = time.sleep
_now = getattr(time, "monotonic", time.time)

kStrikeSeconds = 0.05    # for an event of a running thread to come
kSettleSeconds = 0.1     # at most, until a running thread has come to rest
kSettleStep = 0.002
kSettledLooks = 3        # so often a thread must be found at the same place
kMarkedFrames = 2        # innermost ones: those outside have a return event before any line
kTries = 3

_marker = len  # any f_trace makes the core look closely at a line; it is never called


class tHolder(object):
    """executor: of the requests; on_hold(ident, announce...) see tDapFrontEnd.

    on_hold(ident)       the program is held for the sake of that thread; runs with the mutex, and
                         serves requests until it returns
    on_error(where)      the debugger itself has failed

    It also frees the program from threads that are stuck while they hold it, see lending.py.
    """

    def __init__(self, server, executor, on_hold, on_error):
        self._server, self._executor = server, executor
        server.lender.switch_on()
        executor.lender, executor.on_error = server.lender, on_error
        executor.on_left_behind = self._left_behind
        self._on_hold, self._on_error = on_hold, on_error
        self._signal = signals.tSignal()
        self._stopped = signals.tSignal()
        self._wanted = None   # ident of the thread to pause
        self._struck = set()  # idents of threads that will stop at their next line
        self._marked = {}     # ident -> frames that got an f_trace
        self._thread = None   # ident of the one that holds, or True while it starts
        self._start_lock = compat.allocate_lock()
        # A thread is told what to do at its next event, or does it: what is said last counts.
        self._gate = compat.allocate_lock()

    @property
    def is_wanted(self):
        return self._wanted is not None

    def wake(self):
        """There is something to do where the core may be called, and nobody is stopped."""
        with self._start_lock:
            if self._thread is None:
                self._thread = True  # before it starts, for it puts its own number there
                if not threads.start_own_thread(self._run):
                    self._thread = None
        self._signal.set()

    def pause(self, ident):
        """Stop the thread, or hold the program for it.  Any thread."""
        self._wanted = ident
        self.wake()

    def call_off(self):
        """Whether a pause was wanted still."""
        wanted, self._wanted = self._wanted, None
        if wanted is not None:
            self.send_on(wanted)
        return wanted is not None

    def forget_wish(self):
        """Whatever stopped the program, it is stopped."""
        self._wanted = None

    def tell_stopped(self, ident):
        """A thread has stopped: no pause is needed any more."""
        self._struck.discard(ident)
        self._unmark(ident)
        wanted, self._wanted = self._wanted, None
        if wanted is not None and wanted != ident:
            self.send_on(wanted)
        self._stopped.set()

    # --- what a thread that is not stopped is to do next ---

    def plan_step(self, ident, stepper):
        """The thread, held or waiting behind the stopped one, makes a step when it goes on."""
        server = self._server
        if self._executor.redirect(ident, lambda: stepper.start(server.stop_of(ident))):
            return
        with self._gate:
            server.plan(ident, stepper)
            if ident not in self._struck:
                self._arm(ident, server.core.stop)

    def send_on(self, ident):
        """The thread just runs on."""
        if self._executor.redirect(ident, self._server.continue_run):
            return
        with self._gate:
            self._unmark(ident)
            if not self._server.disarm(ident) and ident in self._struck:
                self._server.plan_no_more(ident)
            self._struck.discard(ident)

    def forget_thread(self, ident):
        self._struck.discard(ident)
        self._marked.pop(ident, None)

    def _arm(self, ident, command):
        def strike():
            with self._gate:
                if self._server.disarm(ident, strike):
                    self._struck.add(ident)
                    self._unmark(ident)
                    command()

        self._server.arm(ident, strike)
        frame = _current_frames().get(ident)
        marked = self._marked.setdefault(ident, [])
        for _ in range(kMarkedFrames):
            if frame is None:
                break
            if frame.f_trace is None:
                marked.append(frame)
                frame.f_trace = _marker
            frame = frame.f_back

    def _unmark(self, ident):
        for frame in self._marked.pop(ident, ()):
            if frame.f_trace is _marker:
                frame.f_trace = None

    # --- the thread that holds ---

    def _left_behind(self, ident, label):
        """The program goes on, but for a thread that is in a job still."""
        server = self._server
        with self._start_lock:
            is_own = self._thread == ident
            if is_own:
                self._thread = None  # another one holds from now on
        text = "what was asked for" if label is None else "`{}`".format(compat.to_native(label))
        if is_own:
            server.tell_notice("{} is still being evaluated".format(text))
        else:
            server.tell_notice(
                "{} is still being evaluated in the thread {}, which goes on when that has "
                "ended".format(text, server.thread_name(ident)))

    def _run(self):
        own = self._thread = compat.get_ident()
        while self._thread == own:
            self._signal.wait()
            try:
                self._turn()
            except BaseException:
                self._on_error("pausing")

    def _turn(self):
        if self._wanted is not None and not self._executor.is_serving:
            self._ask(self._wanted)
        for last in range(kTries):
            if self._executor.is_serving or not self._has_work():
                return
            if self._with_mutex(last == kTries - 1):
                return

    def _has_work(self):
        return self._wanted is not None or self._executor.has_waiting()

    def _ask(self, ident):
        """Let the thread stop by itself, if it comes to an event at once."""
        if self._executor.is_behind(ident):
            return
        self._stopped.wait(0)
        with self._gate:
            self._arm(ident, lambda: self._server.pause())
        self._stopped.wait(kStrikeSeconds)

    def _with_mutex(self, is_last):
        """Whether the work is done."""
        core = self._server.core
        if not self._server.lender.acquire():
            return True
        try:
            self._executor.run_waiting()
            ident = self._wanted
            if ident is None:
                return True
            if ident not in self._struck or is_last:
                self._wanted = None
                self._settle(ident)
                self._on_hold(ident)
                return True
        finally:
            core.release_dbgserver_mutex()
        self._stopped.wait(kStrikeSeconds)  # on its way to the stop
        return False

    def _settle(self, ident):
        """Wait until the thread blocks, be it at the mutex or in what it does."""
        end = _now() + kSettleSeconds
        looks, before = 0, None
        while looks < kSettledLooks and _now() < end:
            frame = _current_frames().get(ident)
            place = None if frame is None else (id(frame), frame.f_lasti)
            frame = None
            looks = looks + 1 if place == before else 0
            before = place
            _sleep(kSettleStep)
