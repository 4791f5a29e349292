"""The debug server's commands: how a stopped thread goes on, and what any thread is asked to do.

The core's line callback brings only a frame, so it is kept here what each thread was asked to do;
that tells whether an event ends a step and the reason of a stop.
"""
from __future__ import absolute_import, division, print_function

from tdbg import compat, stops, sublanguages
from tdbg.serverframes import is_caller, shown_callers

# What a thread was last asked to do.
kAskedStep, kAskedNext, kAskedRun, kAskedPause = "step", "next", "run", "pause"
kAskedNoMore = "no more"  # to stop, which is not wanted any longer

kAnywhere = "anywhere"

_get_ident = compat.get_ident


class tCommands(object):
    """The part of tServer that says how threads go on.  core, languages and breakpoints are
    tServer's."""

    def __init__(self):
        self._asked = {}        # thread ident -> what it was asked to do
        self._places = {}       # thread ident -> id of the frame that the core steps in
        self._skipped = {}      # thread ident -> (first, last) line of it that do not end the step
        self._goals = {}        # thread ident -> frame whose return is waited for
        self._steppers = {}     # thread ident -> what decides where its step ends (see steer())
        self._armed = {}        # thread ident -> function to be called on it at its next event

    def forget_commands(self, ident):
        """The thread has ended."""
        for table in (self._asked, self._places, self._skipped, self._goals, self._steppers):
            table.pop(ident, None)

    def forget_all_commands(self):
        """No thread is asked for anything."""
        for table in (self._asked, self._places, self._steppers, self._goals, self._armed):
            table.clear()

    # --- of a stopped thread ---

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
            return self._resume_in(shown_callers(stop, frame))
        if is_caller(frame, stop.frame):
            return self._resume(kAskedNext, frame, self.core.step_out_to_frame, frame)
        if sublanguages.is_view(stop.frame):
            return self._resume_in(shown_callers(stop, stop.frame))
        if stop.reason == stops.kReturn:
            return self.leave(stop.frame)
        if stop.is_within_line:
            return self._resume(
                kAskedNext, stop.frame, self.core.step_out_to_frame, stop.frame)
        self._resume(kAskedNext, stop.frame, self.core.step_over_line)

    def run_to_line(self, line, frame=None):
        """Stop in the frame at a line greater than or equal to this one, or at its end."""
        stop = self._current_stop()
        if self.is_over(stop) or stop.reason == stops.kReturn or stop.is_within_line or is_caller(
                frame, stop.frame) or (
                sublanguages.is_view(frame) and frame is not stop.frame):
            return self.step_over(frame)
        if sublanguages.is_view(stop.frame):
            return self._resume_in(shown_callers(stop, stop.frame), line)
        self._resume(kAskedNext, stop.frame, self.core.step_over_line_range, 0, line - 1)

    def step_out(self, frame=None):
        """Stop when the frame (default: the stopped one) returns."""
        stop = self._current_stop()
        if self.is_over(stop):
            return self.continue_run()
        if sublanguages.is_view(frame) or (frame is None and sublanguages.is_view(stop.frame)):
            return self._resume_in(shown_callers(stop, frame or stop.frame)[:-1])
        if stop.is_within_line and frame is None:
            frame = stop.frame
        if stop.is_within_line or is_caller(frame, stop.frame):
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

    # --- at any time ---

    def pause(self):
        """Stop the calling thread at its next line; for signal handlers and idle calls."""
        self._asked[_get_ident()] = kAskedPause
        self._places[_get_ident()] = id(kAnywhere)
        self.languages.plan_anywhere(_get_ident())
        self.core.stop()

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
        call, a return, or a line of a frame that has an f_trace; and again until it disarms."""
        self._armed[ident] = function
        self.ask_policies()

    def ask_policies(self):
        """Which threads are debugged may have changed."""
        self.core.set_debug_thread_cb(self._thread_policy_cb)

    def disarm(self, ident, function=None):
        """Whether it was armed still; function: with that one."""
        if function is not None and self._armed.get(ident) is not function:
            return False
        return self._armed.pop(ident, None) is not None

    # --- how ---

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

    # --- what an event means for it ---

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

    def _forget_event(self, frame, ident):
        """A return or an exception at which the core's stepping ends has counted as a hit."""
        if self._places.get(ident) in (id(frame), id(kAnywhere)):
            self.breakpoints.forget_event(frame)

    def _pass_hidden(self, frame, ident):
        """A step must not end here, but where it would have ended without this frame."""
        if self._asked.get(ident) in (kAskedStep, kAskedPause):
            return  # no command: the core goes on stepping
        if self._asked.get(ident) == kAskedNext:
            return self.leave(frame)
        self._places[ident] = id(None)
        self.core.continue_run()
