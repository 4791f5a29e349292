"""What the debug server does at a stop: tells the front end, on the stopped thread, what has
happened, and waits there until it returns.

Some stops come from no callback of the core: a pause in the middle of a line, post-mortem
debugging, and the exception that ends the program.
"""
from __future__ import absolute_import, division, print_function

import sys

from tdbg import compat, exceptions, stops, sublanguages
from tdbg.serverframes import is_returning, kWaitingOpcodes, opcode_of

_get_ident = compat.get_ident


class tStopping(object):
    """The part of tServer that holds a thread.  The tools it uses are tServer's."""

    def __init__(self):
        self._stops = {}        # thread ident -> stop that the front end has in hand
        # ids of value and traceback of the main thread's last exception stop
        self._shown = None
        self._last_hook = None  # what stands in for sys.excepthook at the end

    def current_stop(self):
        """The stop that the calling thread is in, or None."""
        return self._stops.get(_get_ident())

    def stop_of(self, ident):
        """The stop that a thread is in, or None; it may be left behind by the program."""
        return self._stops.get(ident)

    def _current_stop(self):
        stop = self.current_stop()
        if stop is None:
            raise RuntimeError("the thread is not stopped")
        return stop

    def _present(self, stop):
        ident = stop.thread.ident
        if not stop.stack:
            return self._pass_hidden(stop.frame, ident)
        if self._passes(stop):
            return
        self.lender.end()  # the stop may last as long as the user likes
        self._goals.pop(ident, None)
        self._steppers.pop(ident, None)
        self._stops[ident] = stop
        self._asked[ident] = None
        try:
            self.front_end.on_stop(stop)
        except BaseException:
            self.tell_internal_error("on_stop")
        finally:
            if self._asked.get(ident) is None:
                self.continue_run()
            if stop.frame is self._main_frame and stop.reason == stops.kReturn:
                self._main_frame = None
                self.front_end.on_program_end()
            self._stops.pop(ident, None)
            self.lender.leave()

    def _make_stop(self, reason, frame, value=None, exc_info=None, hits=(), verdict=None):
        traceback = exc_info[2] if exc_info else None
        if exc_info:
            exc_info = exceptions.with_instance(exc_info)
        stack, index = stops.collect_stack(frame, traceback, self.without_hidden)
        stack, index = self.languages.show(stack, index)
        if stack and sublanguages.real_frame(stack[index][0]).f_code is frame.f_code:
            frame = stack[index][0]  # as it is shown
        if reason in stops.kAtTheRaise and stack:
            index = len(stack) - 1
        catcher = None
        if verdict is not None and verdict.frame is not None:
            catcher = (verdict.frame, verdict.line)
        return stops.tStop(
            self._thread(), reason, frame, stack, index, value, exc_info, hits, catcher)

    def _thread(self):
        ident = _get_ident()
        return stops.tThread(ident, self.thread_name(ident), ident == self._main_ident)

    def place_of_exception(self, stop):
        """(path, line) that `exceptions` knows as the place of a stop with an exception."""
        frame, line = stop.stack[-1]
        return self.breakpoints.path_of(frame), line

    def pause_here(self, frame):
        """Stop the calling thread where it is: in the context of a signal handler, which the
        interpreter calls also while the frame waits in native code.  The wait goes on afterwards.

        False when the frame is none of the program's, or calls nothing (in the middle of `n += 1`
        an assignment to n would be lost): then pause() stops at the next line.
        """
        if not self._entered or self.current_stop() is not None or self.is_hidden(frame):
            return False
        if opcode_of(frame) not in kWaitingOpcodes:
            return False
        if not self.core.acquire_dbgserver_mutex():  # what runs now is not traced
            return False
        try:
            stop = self._make_stop(stops.kPause, frame)
            stop.is_within_line = True
            self._present(stop)
        finally:
            self.core.release_dbgserver_mutex()
        return True

    def show_post_mortem(self, exc_info):
        """Let the user look at a traceback; for code of the program, on any thread."""
        if self.current_stop() is not None:
            raise RuntimeError("the program is stopped already")
        self._show_traceback(stops.kPostMortem, exc_info)

    def _show_traceback(self, reason, exc_info):
        if self.core.acquire_dbgserver_mutex():  # what runs now is not traced
            try:
                stop = self._make_stop(reason, exc_info[2].tb_frame, exc_info=exc_info)
                if reason == stops.kPostMortem or not self.exceptions.is_ignored_place(
                        *self.place_of_exception(stop)):
                    self._present(stop)
            finally:
                self.core.release_dbgserver_mutex()

    # --- the exception that ends the program ---

    def _watch_the_end(self):
        """The bottom frame is left: should it be by an exception that has not been shown, show it
        before the interpreter prints it.

        The core does not tell every one: whether a block in the bottom frame (`with`, up to 3.10
        any loop or `try`) ends the exception is not known where it comes.
        """
        frame = sys._getframe()
        while frame is not None and self._is_own(frame):
            frame = frame.f_back
        if frame is None or is_returning(frame) or not hasattr(sys, "excepthook"):
            return
        self._last_hook = sys.excepthook = exceptions.make_last_hook(
            self._show_the_end, self._main_ident)

    def _show_the_end(self):
        try:
            info = (sys.last_type, sys.last_value, sys.last_traceback)
            if self._was_shown(info) or not self.exceptions.wants_uncaught(info):
                return
            self._show_traceback(stops.kUncaught, info)
        except BaseException:
            self.tell_internal_error("excepthook")
        finally:
            info = None

    def _was_shown(self, info):
        if self._shown is None:
            return False
        value, traceback = self._shown
        if id(info[1]) == value:
            return True
        place = info[2]
        while place is not None and id(place) != traceback:
            place = place.tb_next
        return place is not None
