"""The debug server: the part of the debugger that lives in the debugged process.

It hands the native core its callbacks, turns what arrives there into stops, and offers the
commands that end a stop.  It knows nothing of terminals, editors or protocols: there is one front
end, an object with the methods of tFrontEnd.

One thread stops at a time.  It calls the front end while it holds the core's debug-server mutex,
so the other threads wait at their next traced event; what the front end runs in that time is
not traced.  A stop ends when on_stop() returns; the last command given before decides how.

Here the server begins and ends.  Its parts are modules of their own: servercallbacks (what the
core calls), servercommands (how threads go on), serverstops (what happens at a stop) and
serverframes (which frames are shown).
"""
from __future__ import absolute_import, division, print_function

import os
import sys

import tdbg
from tdbg import (
    breakpoints, compat, currentframes, exceptions, lending, servercallbacks, servercommands,
    serverframes, serverstops, sublanguages, threads)

kIdleSeconds = 1.0  # the core counts whole seconds; less would switch idle calls off

_get_ident = compat.get_ident
_current_frames = currentframes.current_frames
_set_trace = sys.settrace


class tFrontEnd(object):
    """What the server asks of a user interface.  All calls come on the thread concerned."""

    kStopsAtLinesOnly = False  # a step does not end at a return or at an exception on its way

    def on_stop(self, stop):
        """A thread has stopped (tStop).  Give one of the server's commands, then return."""

    def on_idle(self):
        """About once a second while the program runs."""

    def on_program_end(self):
        """The program's main module has been left; exit functions are still to come, and so may
        be the stop for an exception that nobody foresaw to end it."""

    def on_import(self, module):
        """A module was imported (or was loaded when tracing began)."""

    def passes(self, stop):
        """Whether the thread is not to stop after all; it goes on as it did, stepping or not."""
        return False

    def thread_policy(self, ident):
        """Whether to debug the calling thread, which was not seen before: 1 or 0."""
        return 1

    def on_thread_end(self, ident):
        """The calling thread has done its work."""

    def on_notice(self, text):
        """Something that the user should know."""

    def on_internal_error(self, text):
        """The debugger itself failed; the program goes on."""


class tServer(
        servercallbacks.tCallbacks, servercommands.tCommands, serverstops.tStopping,
        serverframes.tFrames):
    """The debug server of this process.

    core       the native module
    front_end  object with tFrontEnd's methods

    The first stop comes at the first line of the program's main module.
    Commands that end a stop, to be called inside on_stop(): step_into, step_over, step_out,
    run_to_line, continue_run.  At any time, on the thread to be stopped: pause.
    breakpoints (tBreakpoints): to be used inside the front end's calls, on_idle() among them; what
    is set before start() waits for it.
    languages (sublanguages.tLanguages): what is shown in place of the Python that runs it.
    exceptions (exceptions.tExceptions): which exceptions stop; at any time, on any thread.
    lender (lending.tLender): frees the other threads from one that is stuck; on request.
    """

    def __init__(self, core, front_end):
        servercommands.tCommands.__init__(self)
        serverstops.tStopping.__init__(self)
        serverframes.tFrames.__init__(self)
        currentframes.use_core(core)
        self.core = core
        self.front_end = front_end
        self.lender = lending.tLender(
            core, self._tell_lent, self._condition_of, self._place_of_callback)
        self.languages = sublanguages.tLanguages(core, self._tell_language_error, self.lender)
        self.breakpoints = breakpoints.tBreakpoints(
            core, languages=self.languages, on_conditions=self.lender.watch_conditions)
        self.exceptions = exceptions.tExceptions(core, self.tell_notice, self.is_hidden)
        self._hooks = threads.tThreadHooks(core, self._thread_end_cb)
        self._told_places = set()  # (file, line) of conditions that have waited for something
        # What a front end need not have.
        self._stops_at_lines_only = getattr(front_end, "kStopsAtLinesOnly", False)
        self._policy_of = getattr(front_end, "thread_policy", lambda ident: 1)
        self._tell_thread_end = getattr(front_end, "on_thread_end", lambda ident: None)
        self._passes = getattr(front_end, "passes", lambda stop: False)
        self._main_ident = _get_ident()
        self._entered = False   # the first stop has been made
        self._main_frame = None  # frame of the program's main module while it runs
        self._first_frame = None  # outermost one, where the program has been running for a while

    # --- life ---

    def start_with_program(self):
        """Begin tracing as soon as the program's main module is entered.

        Until then the interpreter's own start-up runs, which nobody wants to debug; and the core
        takes the outermost frame that it finds as the program's bottom, which is then right.
        """
        _set_trace(self._wait_for_program)

    def _wait_for_program(self, frame, event, arg):
        """A trace function of the ordinary kind; makes way for the core's."""
        try:
            if self._is_program_start(frame):
                self.start()
        except BaseException:
            _set_trace(None)
            self.tell_internal_error("start")

    def start_in_running_program(self):
        """Begin tracing in the middle of the program; as start()."""
        frame = sys._getframe()
        while frame.f_back is not None:
            frame = frame.f_back
        self._first_frame = frame
        self.start()

    def start_unnoticed(self):
        """The same, without a first stop."""
        self.start_in_running_program()
        self._entered, self._main_frame, self._first_frame = True, self._first_frame, None

    def start(self):
        """Begin tracing; the thread stops at its next line.  Call it on the main thread."""
        self.core.init(
            kIdleSeconds, exceptions.kAtTheEnd, self._install_thread_hooks_cb,
            self._get_checksum_cb, self._idle_cb, self._line_cb, self._return_cb,
            self._exception_cb, self._quit_cb, self._import_cb, compat.default_import,
            dict.fromkeys(self._own_files, 1))
        self.core.set_debug_thread_cb(self._thread_policy_cb)
        self.breakpoints.go_live()
        self.languages.go_live()
        self.exceptions.go_live()
        tdbg.current_server = self
        self.core.start_trace()
        tdbg.set_trace = self.core.breakpointhook
        if getattr(sys, "breakpointhook", None) is getattr(sys, "__breakpointhook__", 0):
            if not os.environ.get("PYTHONBREAKPOINT"):
                # The core's function itself: it stops in the innermost Python frame.
                sys.breakpointhook = self.core.breakpointhook
        self.core.step_into()

    def leave_alone(self):
        """End tracing; the program runs on as if there had been no debugger."""
        self.core.stop_trace()
        self.core.stop_trace()  # once more: of threads that wait in native code or loop, too
        # while its hook is there, calls of 3.11 take half as long again
        self.core.set_use_eval_frame(0)
        tdbg.current_server = None

    def start_again(self):
        """After leave_alone(): trace again, every thread running on.
        Where the core may be called."""
        self.forget_all_commands()
        self.core.set_use_eval_frame(1)
        self.core.start_trace()
        self.ask_policies()

    # --- threads ---

    @property
    def main_ident(self):
        return self._main_ident

    def thread_name(self, ident):
        """Of any thread, as the program named it; the core's guess or the number where it did
        not."""
        threading = sys.modules.get("threading")
        known = getattr(threading, "_active", {})
        if ident in known:
            return known[ident].name
        if ident == self._main_ident:
            return "MainThread"
        name = None
        for tstate_id in self.core.get_threads():
            if self.core.get_thread_ident_for_tstate_id(tstate_id) == ident:
                name = self.core.get_thread_name(tstate_id)
        return "{} ({})".format(name, ident) if name else str(ident)

    def _condition_of(self, ident):
        frame = _current_frames().get(ident)
        while frame is not None and frame.f_code.co_filename not in self._own_files:
            condition = self.breakpoints.condition_at(frame)
            if condition is not None:
                return condition
            frame = frame.f_back
        return None

    # --- to the user ---

    def _tell_lent(self, place):
        if place is not None and place not in self._told_places:
            self._told_places.add(place)
            self.tell_notice(
                "what is evaluated at {}:{} takes long; the other threads run on meanwhile".format(
                    *place))

    def _place_of_callback(self, ident):
        frame = _current_frames().get(ident)
        while frame is not None and not self._is_own(frame):
            frame = frame.f_back  # of what is evaluated
        while frame is not None and self._is_own(frame):
            frame = frame.f_back
        return None if frame is None else (frame.f_code.co_filename, frame.f_lineno)

    def tell_notice(self, text):
        """To the user; on any thread."""
        self.front_end.on_notice(text)

    def _tell_language_error(self, text):
        self.front_end.on_internal_error(text)

    def tell_internal_error(self, where):
        try:
            kind, value, tb = sys.exc_info()
            while tb is not None and tb.tb_next is not None:
                tb = tb.tb_next
            place = "{}:{}".format(os.path.basename(tb.tb_frame.f_code.co_filename), tb.tb_lineno)
            self.front_end.on_internal_error(
                "{}: {}: {!r} at {}".format(where, kind.__name__, value, place))
        except BaseException:
            pass
        finally:
            tb = None
