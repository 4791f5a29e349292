"""The debug server: the part of the debugger that lives in the debugged process.

It hands the native core its callbacks, turns what arrives there into stops, and offers the
commands that end a stop.  It knows nothing of terminals, editors or protocols: there is one front
end, an object with the methods of tFrontEnd.

One thread stops at a time.  It calls the front end while it holds the core's debug-server mutex,
so the other threads wait at their next traced event; what the front end runs in that time is
not traced.  A stop ends when on_stop() returns; the last command given before decides how.

The core's line callback brings only a frame, so the server keeps what each thread was asked to
do and tells the reason of a stop from that.  The core also reports frames that nobody wants to
see (the debugger's own, the import machinery): those are passed over here.
"""
from __future__ import absolute_import, division, print_function

import dis
import functools
import os
import sys

import tdbg
from tdbg import breakpoints, compat, exceptions, lending, stops, sublanguages, threads

kIdleSeconds = 1.0  # the core counts whole seconds; less would switch idle calls off

# What a thread was last asked to do.
kAskedStep, kAskedNext, kAskedRun, kAskedPause = "step", "next", "run", "pause"
kAskedNoMore = "no more"  # to stop, which is not wanted any longer

kAnywhere = "anywhere"

# In these a frame may wait in native code.
kWaitingOpcodes = frozenset(
    number for name, number in dis.opmap.items()
    if name.startswith("CALL")
    or name in ("FOR_ITER", "SEND", "YIELD_FROM", "IMPORT_NAME", "WITH_CLEANUP"))

kReturnOpcodes = frozenset(
    dis.opmap[name] for name in ("RETURN_VALUE", "RETURN_CONST", "YIELD_VALUE", "YIELD_FROM")
    if name in dis.opmap)

_get_ident = compat.get_ident
_current_frames = sys._current_frames
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


def _callback(method):
    """Nothing may leave a callback: the core would take tracing from the thread."""
    @functools.wraps(method)
    def guarded(self, *args):
        try:
            return method(self, *args)
        except BaseException:
            self._tell_internal_error(method.__name__)
    return guarded


def _event_callback(method):
    """One that may evaluate what the user has written: that must not hold others up for ever."""
    @functools.wraps(method)
    def guarded(self, *args):
        try:
            lender = self.lender
            if not lender.is_on:
                return method(self, *args)
            lender.enter()
            try:
                return method(self, *args)
            finally:
                lender.leave()
        except BaseException:
            self._tell_internal_error(method.__name__)
    return guarded


class tServer(object):
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
        self.core = core
        self.front_end = front_end
        self.languages = sublanguages.tLanguages(core, self._tell_language_error)
        self.breakpoints = breakpoints.tBreakpoints(core, languages=self.languages)
        self.exceptions = exceptions.tExceptions(core, self.tell_notice, self.is_hidden)
        self.lender = lending.tLender(core, self._tell_lent, self._may_free)
        self._hooks = threads.tThreadHooks(core, self._thread_end_cb)
        self._told_places = set()  # (file, line) of conditions that have waited for something
        self._steppers = {}     # thread ident -> what decides where its step ends (see steer())
        self._armed = {}        # thread ident -> function to be called on it at its next event
        # What a front end need not have.
        self._stops_at_lines_only = getattr(front_end, "kStopsAtLinesOnly", False)
        self._policy_of = getattr(front_end, "thread_policy", lambda ident: 1)
        self._tell_thread_end = getattr(front_end, "on_thread_end", lambda ident: None)
        self._passes = getattr(front_end, "passes", lambda stop: False)
        self._main_ident = _get_ident()
        self._asked = {}        # thread ident -> what it was asked to do
        self._stops = {}        # thread ident -> stop that the front end has in hand
        self._places = {}       # thread ident -> id of the frame that the core steps in
        self._skipped = {}      # thread ident -> (first, last) line of it that do not end the step
        self._goals = {}        # thread ident -> frame whose return is waited for
        # ids of value and traceback of the main thread's last exception stop
        self._shown = None
        self._last_hook = None  # what stands in for sys.excepthook at the end
        self._entered = False   # the first stop has been made
        self._main_frame = None  # frame of the program's main module while it runs
        self._first_frame = None  # outermost one, where the program has been running for a while
        self._own_files = _own_files()

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
            self._tell_internal_error("start")

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
        # while its hook is there, calls of 3.11 take half as long again
        self.core.set_use_eval_frame(0)
        if sys.version_info < (3, 12):
            _wake_leaf_frames()
        tdbg.current_server = None

    # --- commands ---

    def step_into(self):
        """Stop at the next line, wherever it is."""
        stop = self._current_stop()
        if self.is_over(stop):
            return self.continue_run()
        self._resume(kAskedStep, kAnywhere, self.core.step_into)

    def step_over(self, frame=None):
        """Stop at the next line of the frame (default: the stopped one) or its end."""
        stop = self._current_stop()
        if self.is_over(stop):
            return self.continue_run()
        if sublanguages.is_view(frame):
            return self._resume_in(_callers(stop, frame))
        if _is_caller(frame, stop.frame):
            return self._resume(kAskedNext, frame, self.core.step_out_to_frame, frame)
        if sublanguages.is_view(stop.frame):
            return self._resume_in(_callers(stop, stop.frame))
        if stop.reason == stops.kReturn:
            return self.leave(stop.frame)
        if stop.is_within_line:
            return self._resume(
                kAskedNext, stop.frame, self.core.step_out_to_frame, stop.frame)
        self._resume(kAskedNext, stop.frame, self.core.step_over_line)

    def run_to_line(self, line, frame=None):
        """Stop in the frame at a line greater than or equal to this one, or at its end."""
        stop = self._current_stop()
        if self.is_over(stop) or stop.reason == stops.kReturn or stop.is_within_line or _is_caller(
                frame, stop.frame) or (
                sublanguages.is_view(frame) and frame is not stop.frame):
            return self.step_over(frame)
        if sublanguages.is_view(stop.frame):
            return self._resume_in(_callers(stop, stop.frame), line)
        self._resume(kAskedNext, stop.frame, self.core.step_over_line_range, 0, line - 1)

    def step_out(self, frame=None):
        """Stop when the frame (default: the stopped one) returns."""
        stop = self._current_stop()
        if self.is_over(stop):
            return self.continue_run()
        if sublanguages.is_view(frame) or (frame is None and sublanguages.is_view(stop.frame)):
            return self._resume_in(_callers(stop, frame or stop.frame)[:-1])
        if stop.is_within_line and frame is None:
            frame = stop.frame
        if stop.is_within_line or _is_caller(frame, stop.frame):
            # The core waits for the return of the frame that it is in: go there first.
            self._resume(kAskedNext, frame, self.core.step_out_to_frame, frame)
            self._goals[_get_ident()] = frame
        elif stop.reason == stops.kReturn:
            self.leave(stop.frame)
        else:
            self._resume(kAskedNext, stop.frame.f_back, self.core.step_out)

    def continue_run(self):
        """Run until something stops the program."""
        self._resume(kAskedRun, None, self.core.continue_run)

    def pause(self):
        """Stop the calling thread at its next line; for signal handlers and idle calls."""
        self._asked[_get_ident()] = kAskedPause
        self._places[_get_ident()] = id(kAnywhere)
        self.languages.plan_anywhere(_get_ident())
        self.core.stop()

    def pause_here(self, frame):
        """Stop the calling thread where it is: in the context of a signal handler, which the
        interpreter calls also while the frame waits in native code.  The wait goes on afterwards.

        False when the frame is none of the program's, or calls nothing (in the middle of `n += 1`
        an assignment to n would be lost): then pause() stops at the next line.
        """
        if not self._entered or self.current_stop() is not None or self.is_hidden(frame):
            return False
        if _opcode_of(frame) not in kWaitingOpcodes:
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

    def steer(self, stepper, asked, place, command, *args):
        """Go on with a command of the core; the stepper tells where the step of the thread ends.

        stepper: at_line(frame) -> true to stop; is_within(frame): whether the line belongs to what
        is stepped over, so that its breakpoints do not stop; at_foreign(frame): at a frame that is
        not shown; at_return(frame, value, has_value): the frame is left, normally or (has_value
        false) not.
        asked, place: as of _resume().  They may call this again; who does not, lets the core go on.
        """
        ident = _get_ident()
        self._resume(asked, place, command, *args)
        self._steppers[ident] = stepper

    def plan(self, ident, stepper):
        """To be called before the thread gets from arm() to its next event: what it is to do then.

        stepper: as for steer(), or None to stop at its next line.
        """
        self._asked[ident] = kAskedPause if stepper is None else kAskedStep
        self._places[ident] = id(kAnywhere)
        self._goals.pop(ident, None)
        self.languages.forget_plan(ident)
        self._skipped[ident] = (1, 0)
        if stepper is None:
            self._steppers.pop(ident, None)
        else:
            self._steppers[ident] = stepper

    def plan_no_more(self, ident):
        """What was planned is not wanted any longer."""
        self._steppers.pop(ident, None)
        self._asked[ident] = kAskedNoMore

    def arm(self, ident, function):
        """function() is called on a thread at its next event that the core looks at closely: a
        call, a return, or a line of a frame that has an f_trace."""
        self._armed[ident] = function
        self.ask_policies()

    def ask_policies(self):
        """Which threads are debugged may have changed."""
        self.core.set_debug_thread_cb(self._thread_policy_cb)

    def disarm(self, ident):
        """Whether it was armed still."""
        return self._armed.pop(ident, None) is not None

    def start_again(self):
        """After leave_alone(): trace again, every thread running on.
        Where the core may be called."""
        for table in (self._asked, self._places, self._steppers, self._goals, self._armed):
            table.clear()
        self.core.set_use_eval_frame(1)
        can_trace_others = sys.version_info >= (3, 10) and compat.is_gil_enabled()
        if can_trace_others or not threads.call_in_main_thread(self._start_here):
            self.core.start_trace()
        self.ask_policies()

    def _start_here(self):
        """Before 3.10, and without an interpreter lock, a thread can only be traced from within."""
        try:
            if self.core.acquire_dbgserver_mutex():
                try:
                    self.core.start_trace()
                finally:
                    self.core.release_dbgserver_mutex()
        except BaseException:
            self._tell_internal_error("start_again")

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

    def _resume(self, asked, place, command, *args):
        """place: where the core stops at any event: a frame, kAnywhere, or None for nowhere."""
        ident = _get_ident()
        self._asked[ident] = asked
        self._places[ident] = id(place)
        self._goals.pop(ident, None)
        self.languages.forget_plan(ident)
        self._steppers.pop(ident, None)
        self._skipped[ident] = self._lines_skipped_by(command, args)
        command(*args)

    def _lines_skipped_by(self, command, args):
        if command == self.core.step_over_line_range:
            return args
        if command == self.core.step_over_line:
            line = self._current_stop().frame.f_lineno
            return line, line
        return 1, 0

    def _resume_in(self, callers, line=0):
        """Stop at the next place or line of the last of these frames and views, or of the next one
        outwards; line: in the last one, if it is a view, at that one or after it."""
        views = []
        while callers and sublanguages.is_view(callers[-1]):
            views.append(callers.pop())
        if callers:
            self._resume(kAskedNext, callers[-1], self.core.step_out_to_frame, callers[-1])
        else:
            self._resume(kAskedNext if views else kAskedRun, None, self.core.continue_run)
        self.languages.plan(_get_ident(), views, line)

    def leave(self, frame):
        """Stop at the next line of the nearest caller that may be shown."""
        if self.languages.is_active() and frame.f_back is not None:
            stack, _ = stops.collect_stack(frame.f_back, None, self.without_hidden)
            return self._resume_in([entry[0] for entry in self.languages.show(stack, -1)[0]])
        parent = frame.f_back
        while parent is not None and self.is_hidden(parent):
            parent = parent.f_back
        if parent is None or frame is self._main_frame:
            return self.continue_run()
        self._resume(kAskedNext, parent, self.core.step_out_to_frame, parent)

    def is_over(self, stop):
        """Whether nothing of the program is left to step through."""
        return stop.reason in (stops.kUncaught, stops.kPostMortem) or (
            stop.reason == stops.kReturn and stop.frame is self._main_frame)

    # --- callbacks of the core ---

    @_event_callback
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

    @_event_callback
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
        if value is None and not _is_returning(frame):
            return self.leave(frame)  # left by an exception, which the caller gets
        self._present(self._make_stop(stops.kReturn, frame, value=value))

    @_event_callback
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
            stepper.at_return(frame, value, value is not None or _is_returning(frame))

    def place_of_exception(self, stop):
        """(path, line) that `exceptions` knows as the place of a stop with an exception."""
        frame, line = stop.stack[-1]
        return self.breakpoints.path_of(frame), line

    def _is_step_event(self, frame, ident):
        """Whether the core would tell any event of the frame: a step ends here."""
        place = self._places.get(ident)
        if place == id(kAnywhere) or self.languages.ends_step(ident, frame):
            return True
        if place == id(frame):
            first, last = self._skipped.get(ident, (1, 0))
            return not first <= frame.f_lineno <= last
        # A step in a frame that is gone ends in the bottom frame, if nowhere before.
        return (
            self._asked.get(ident) == kAskedNext and place != id(None)
            and bool(self.core.is_botframe(frame))
        )

    @_callback
    def _quit_cb(self):
        ident = _get_ident()
        if ident != self._main_ident:
            self.exceptions.forget(ident)
            if _is_at_end_of_thread():
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
        if frame is None or _is_returning(frame) or not hasattr(sys, "excepthook"):
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
            self._tell_internal_error("excepthook")
        finally:
            info = None

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

    def _thread_policy_cb(self, tstate_id):
        """Comes on the thread itself."""
        try:
            ident = _get_ident()
            if threads.is_own_thread(ident):
                _set_trace(None)  # no event any more; and no import of it waits for the mutex
                return 0
            policy = self._policy_of(ident)
            strike = self._armed.pop(ident, None)
            if strike is not None and policy:
                strike()
            return policy
        except BaseException:
            self._tell_internal_error("debug_thread_cb")
            return 1

    @_callback
    def _thread_end_cb(self):
        ident = _get_ident()
        for table in (self._asked, self._places, self._skipped, self._goals, self._steppers):
            table.pop(ident, None)
        self.lender.forget_thread(ident)
        self._tell_thread_end(ident)

    @_callback
    def _idle_cb(self):
        self.front_end.on_idle()

    @_callback
    def _import_cb(self, module):
        self._hooks.see_module(module)
        self.languages.see_module(module)
        self.exceptions.see_module(module)
        self.front_end.on_import(module)

    @_callback
    def _install_thread_hooks_cb(self, install):
        if install:
            self._hooks.install()
        else:
            self._hooks.remove()

    @_callback
    def _get_checksum_cb(self, name):
        return self.breakpoints.checksum_of(name)

    def _forget_event(self, frame, ident):
        """A return or an exception at which the core's stepping ends has counted as a hit."""
        if self._places.get(ident) in (id(frame), id(kAnywhere)):
            self.breakpoints.forget_event(frame)

    # --- stops ---

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
            self._tell_internal_error("on_stop")
        finally:
            if self._asked.get(ident) is None:
                self.continue_run()
            if stop.frame is self._main_frame and stop.reason == stops.kReturn:
                self._main_frame = None
                self.front_end.on_program_end()
            self._stops.pop(ident, None)

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
        return tStop(self._thread(), reason, frame, stack, index, value, exc_info, hits, catcher)

    def _thread(self):
        ident = _get_ident()
        return stops.tThread(ident, self._thread_name(ident), ident == self._main_ident)

    @property
    def main_ident(self):
        return self._main_ident

    def thread_name(self, ident):
        """Of any thread."""
        return self._thread_name(ident)

    def _thread_name(self, ident):
        """As the program named it; the core's guess or the number where it did not."""
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

    def _reason_of_line(self, ident):
        asked = self._asked.get(ident)
        if asked in (None, kAskedRun):
            return stops.kBreakpoint
        return stops.kPause if asked == kAskedPause else stops.kStep

    def _steps_by(self, frame, ident):
        """Whether a step into code passes over the frame: a language's implementation calls it."""
        return self._asked.get(ident) == kAskedStep and self.languages.is_library(frame)

    def _ends_step(self, frame, ident):
        """Whether the core has stopped at the line because it was told to step there, too."""
        if self.languages.is_key(frame):
            return self.languages.is_uncounted(frame)
        place = self._places.get(ident)
        if place == id(frame):
            first, last = self._skipped.get(ident, (1, 0))
            return not first <= frame.f_lineno <= last
        return place == id(kAnywhere) or (
            place not in (None, id(None)) and bool(self.core.is_botframe(frame)))

    def _is_no_news(self, exc_info):
        """Ways of ending that are no errors: sys.exit(), loops and generators at their end."""
        kind = exc_info[0]
        if not isinstance(kind, type):
            return False  # an old-style class of version 2
        if issubclass(kind, (SystemExit, GeneratorExit)):
            return True
        return issubclass(kind, StopIteration) and exc_info[2] is None

    # --- frames that are not shown ---

    def is_hidden(self, frame):
        """Frames of the debugger and of the import machinery, which has no source."""
        if sublanguages.is_view(frame):
            return False
        return (
            self._is_own(frame)
            or bool(self.core.is_internal_frame(frame))
            or _is_of_interpreter(frame)
            or self.languages.is_hidden(frame)
        )

    def without_hidden(self, stack):
        """Of [(frame, line)], the outermost first, those that are shown."""
        shown = []
        known = {}  # code -> whether its frames are hidden wherever they are
        is_finding = False
        for entry in stack:
            code = entry[0].f_code
            if code.co_filename.startswith("<frozen importlib"):
                is_finding = _finds_module(code)
            if code not in known:
                known[code] = self._is_own(entry[0]) or bool(self.core.is_internal_frame(entry[0]))
            if not (known[code] or is_finding or self.languages.is_hidden(entry[0])):
                shown.append(entry)
        return shown

    def _is_own(self, frame):
        name = frame.f_code.co_filename
        return name in self._own_files or name.startswith("<frozen ")

    def _pass_hidden(self, frame, ident):
        """A step must not end here, but where it would have ended without this frame."""
        if self._asked.get(ident) in (kAskedStep, kAskedPause):
            return  # no command: the core goes on stepping
        if self._asked.get(ident) == kAskedNext:
            return self.leave(frame)
        self._places[ident] = id(None)
        self.core.continue_run()

    def _is_program_start(self, frame):
        main = sys.modules.get("__main__")
        return (
            main is not None
            and frame.f_globals is main.__dict__
            and frame.f_code.co_name in ("<module>", "?")
            and not self._is_own(frame)
        )

    def _may_free(self, ident):
        frame = _current_frames().get(ident)
        while frame is not None and not self._is_own(frame):
            frame = frame.f_back
        return frame is None

    def _tell_lent(self, ident):
        frame = _current_frames().get(ident)
        while frame is not None and not self._is_own(frame):
            frame = frame.f_back  # of what is evaluated
        while frame is not None and self._is_own(frame):
            frame = frame.f_back
        if frame is None:
            return
        place = (frame.f_code.co_filename, frame.f_lineno)
        if place not in self._told_places:
            self._told_places.add(place)
            self.tell_notice("tdbg: what is evaluated at {}:{} waits; the other threads run on "
                             "meanwhile".format(*place))

    def tell_notice(self, text):
        """To the user; on any thread."""
        self.front_end.on_notice(text)

    def _tell_language_error(self, text):
        self.front_end.on_internal_error(text)

    def _tell_internal_error(self, where):
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


tStop = stops.tStop


def _callers(stop, frame):
    """What is shown of a stop's stack, from the outermost frame to this one."""
    shown = [entry[0] for entry in stop.stack]
    return shown[:shown.index(frame) + 1] if frame in shown else shown[:stop.index + 1]


def _wake_leaf_frames():
    """The core leaves a thread at its next event of any kind, but for lines of frames that have no
    trace object: in a loop without calls, never."""
    own = _get_ident()
    for ident, frame in _current_frames().items():
        if ident != own and not threads.is_own_thread(ident) and frame.f_trace is None:
            frame.f_trace = max  # anything; it is never called


def _is_at_end_of_thread():
    """Whether the calling thread's outermost frame, which is being left, is that of `threading`."""
    frame = sys._getframe()
    while frame.f_back is not None:
        frame = frame.f_back
    return frame.f_code.co_name in ("_bootstrap", "__bootstrap")


def _is_caller(frame, inner):
    """Whether a frame, if one is given, is one of the other's callers."""
    if frame is inner:
        return False
    while frame is not None and inner is not None:
        inner = inner.f_back
        if inner is frame:
            return True
    return False


def _is_returning(frame):
    """Whether the frame, in its return event, has come to a return or a yield.

    Python code is not told: an exception that leaves a frame is a return event without value, too.
    """
    return _opcode_of(frame) in kReturnOpcodes


def _opcode_of(frame):
    """What the frame executes or, between two instructions, has executed last; None before that."""
    if frame.f_lasti < 0:
        return None
    code = frame.f_code.co_code[frame.f_lasti]
    return ord(code) if compat.PY2 else code


def _is_of_interpreter(frame):
    """Whether the frame belongs to an import hook (of setuptools, say) that looks for a module, or
    to the interpreter's printing of an exception, which from 3.13 on is Python."""
    importing = outer = None
    while frame is not None:
        code = frame.f_code
        if code.co_name == "_print_exception_bltin":
            return True
        if importing is None and code.co_filename.startswith("<frozen importlib"):
            importing, name = True, code.co_name
            if "find_spec" in name or "find_module" in name or "path_hook" in name:
                return True
        outer, frame = code, frame.f_back
    # An import that nothing in Python has asked for: of what is needed for the printing.
    return importing is not None and outer.co_filename.startswith("<frozen importlib")


def _finds_module(code):
    name = code.co_name
    return "find_spec" in name or "find_module" in name or "path_hook" in name


def _own_files():
    """Full paths of every source file of the package, as the core and code objects spell them."""
    files = set()
    here = os.path.dirname(os.path.abspath(__file__))
    for folder, _, names in os.walk(here):
        for name in names:
            if name.endswith(".py"):
                path = os.path.join(folder, name)
                files.update((path, os.path.realpath(path)))
    return files
