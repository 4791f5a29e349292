"""What the native core calls of the debug server.

The core also reports frames that nobody wants to see (the debugger's own, the import machinery):
those are passed over here.
"""
from __future__ import absolute_import, division, print_function

import functools
import os
import sys
import time

from tdbg import compat, stops, threads
from tdbg.servercommands import kAskedNext, kAskedNoMore
from tdbg.serverframes import is_at_end_of_thread, is_returning

kNapSeconds = 0.001  # until a callback has returned, as a rule

_get_ident = compat.get_ident
_set_trace = sys.settrace
_sleep = time.sleep
_getpid, _kill = os.getpid, os.kill
_signal = compat.signal
_get_signal = _signal.getsignal
_pthread_kill = getattr(_signal, "pthread_kill", None)
_interrupt = _signal.SIGINT


def callback(method):
    """Nothing may leave a callback: the core would take tracing from the thread."""
    @functools.wraps(method)
    def guarded(self, *args):
        try:
            return method(self, *args)
        except BaseException:
            self._failed(method.__name__)
    return guarded


def event_callback(method):
    """One that may evaluate what the user has written: that must not hold others up for ever."""
    @functools.wraps(method)
    def guarded(self, *args):
        try:
            self.lender.enter(*args[:1])
            try:
                return method(self, *args)
            finally:
                self.lender.leave()
        except BaseException:
            self._failed(method.__name__)
    return guarded


class tCallbacks(object):
    """The part of tServer that the core calls.  The tools it uses are tServer's."""

    def _failed(self, where):
        """A callback has, or a signal handler of the program in the middle of it: then the program
        is to get the exception."""
        exception = sys.exc_info()[1]
        if not isinstance(exception, (KeyboardInterrupt, SystemExit)):
            return self.tell_internal_error(where)
        if isinstance(exception, KeyboardInterrupt) and _get_ident() == self._main_ident and (
                _get_signal(_interrupt) is _signal.default_int_handler):
            # By the signal, since before its next event the program may wait for long.
            threads.start_own_thread(self._interrupt_again)
        else:
            if not compat.PY2:
                exception.__traceback__ = None
            self.core.raise_exception(0, exception)

    def _interrupt_again(self):
        _sleep(kNapSeconds)
        if _pthread_kill is not None:
            _pthread_kill(self._main_ident, _interrupt)
        else:
            _kill(_getpid(), _interrupt)

    # --- events ---

    @event_callback
    def _line_cb(self, frame):
        ident = _get_ident()
        if not self._entered:
            if self._is_own(frame):
                return  # the thread still steps
            self._entered = True
            self._main_frame = self._first_frame or frame
            self._first_frame = None
            return self._present(self._make_stop(
                stops.kEntry, frame, hits=self.breakpoints.judge(frame)[0]))
        stepper = self._steppers.get(ident)
        if not self.languages.may_stop(frame):
            return self._pass_hidden(frame, ident)
        if self.is_hidden(frame):
            if self.languages.is_hidden(frame):
                self.breakpoints.forget_event(frame)  # its lines are not those of its file
            if stepper is not None and not self.languages.is_active():
                return stepper.at_foreign(frame)
            return self._pass_hidden(frame, ident)
        hits, passed = self.breakpoints.judge(
            self.languages.view_of(frame), self.languages.is_uncounted(frame))
        if passed and not hits and not self._ends_step(frame, ident):
            return  # no command: a step in progress goes on
        if not hits and self._steps_by(frame, ident):
            return  # no command: the core goes on stepping
        if hits and stepper is not None and stepper.is_within(frame):
            hits = []  # the statement that is stepped over comes back to its line
            if not self._ends_step(frame, ident):
                return
        reason = stops.kBreakpoint if hits else self._reason_of_line(ident)
        if stepper is not None and not hits:
            if not self._ends_step(frame, ident):
                reason = stops.kBreakpoint  # the program has called breakpoint()
            elif not (self.languages.is_key(frame) or stepper.at_line(frame)):
                return
        if self._asked.get(ident) == kAskedNoMore and not hits:
            return self.continue_run()
        if reason == stops.kStep and self._goals.pop(ident, None) is frame:
            self._places[ident] = id(frame.f_back)
            return self.core.step_out()
        self._present(self._make_stop(reason, frame, hits=hits))

    @event_callback
    def _return_cb(self, frame, value):
        ident = _get_ident()
        if not self._entered:
            return
        self._forget_event(frame, ident)
        if self._asked.get(ident) == kAskedNoMore:
            return self.continue_run()
        if self._steps_by(frame, ident):
            return
        stepper = self._steppers.get(ident)
        if stepper is not None and self.languages.may_stop(frame):
            return self._step_on(stepper, frame, value)
        if self.is_hidden(frame) or not self.languages.may_stop(frame):
            return self._pass_hidden(frame, ident)
        if self._stops_at_lines_only:
            if self._asked.get(ident) == kAskedNext:
                self.leave(frame)  # what a step in a language has waited for
            return  # no command: a pause comes at the next line
        if value is None and not is_returning(frame):
            return self.leave(frame)  # left by an exception, which the caller gets
        self._present(self._make_stop(stops.kReturn, frame, value=value))

    @event_callback
    def _exception_cb(self, frame, exc_info=None):
        ident = _get_ident()
        if not self._entered or not exc_info:
            return
        self._forget_event(frame, ident)
        is_step = self._is_step_event(frame, ident)
        found = self.exceptions.judge(frame, exc_info, ident, is_step)
        if found is not None:
            if ident == self._main_ident:
                self._shown = (id(exc_info[1]), id(exc_info[2]))
            stop = self._make_stop(found[0], frame, exc_info=exc_info, verdict=found[1])
            if not stop.stack or not self.exceptions.is_ignored_place(
                    *self.place_of_exception(stop)):
                return self._present(stop)
        if not is_step or self._is_no_news(exc_info) or (
                self._stops_at_lines_only or self._steps_by(frame, ident)):
            return
        if self.is_hidden(frame):
            return self._pass_hidden(frame, ident)
        self._present(self._make_stop(stops.kException, frame, exc_info=exc_info))

    def _step_on(self, stepper, frame, value):
        if frame is self._main_frame:
            self.continue_run()
            self._main_frame = None
            self.front_end.on_program_end()
        elif self.is_hidden(frame):
            stepper.at_foreign(frame)
        else:
            stepper.at_return(frame, value, value is not None or is_returning(frame))

    def _is_no_news(self, exc_info):
        """Ways of ending that are no errors: sys.exit(), loops and generators at their end."""
        kind = exc_info[0]
        if not isinstance(kind, type):
            return False  # an old-style class of version 2
        if issubclass(kind, (SystemExit, GeneratorExit)):
            return True
        return issubclass(kind, StopIteration) and exc_info[2] is None

    @callback
    def _quit_cb(self):
        ident = _get_ident()
        if ident != self._main_ident:
            self.exceptions.forget(ident)
            if is_at_end_of_thread():
                if sys.version_info < (3, 10):
                    # These count the threads that have a trace function, also those that end with
                    # it, and every thread is slow until there is none.
                    _set_trace(None)
                self._thread_end_cb()
            return
        if self._main_frame is None:
            return
        self._main_frame = None
        self._watch_the_end()
        self.front_end.on_program_end()

    # --- threads ---

    def _thread_policy_cb(self, tstate_id):
        """Comes on the thread itself."""
        try:
            ident = _get_ident()
            if threads.is_own_thread(ident):
                _set_trace(None)  # no event any more; and no import of it waits for the mutex
                return 0
            policy = self._policy_of(ident)
            strike = self._armed.get(ident)
            if strike is not None and policy:
                strike()
            elif strike is not None:
                self.disarm(ident, strike)
            return policy
        except BaseException:
            self._failed("debug_thread_cb")
            return 1

    @callback
    def _thread_end_cb(self):
        ident = _get_ident()
        self.forget_commands(ident)
        self.lender.forget_thread(ident)
        self._tell_thread_end(ident)

    @callback
    def _install_thread_hooks_cb(self, install):
        if install:
            self._hooks.install()
        else:
            self._hooks.remove()

    # --- others ---

    @callback
    def _idle_cb(self):
        self.front_end.on_idle()

    @callback
    def _import_cb(self, module):
        self._hooks.see_module(module)
        self.languages.see_module(module)
        self.exceptions.see_module(module)
        self.front_end.on_import(module)

    @callback
    def _get_checksum_cb(self, name):
        return self.breakpoints.checksum_of(name)
