"""Where a step ends: after whole statements, in code that is the user's.

A stepper is asked by the server at each event at which the core would end the step (see
tServer.steer).
"""
from __future__ import absolute_import, division, print_function

from tdbg import statements
from tdbg.servercommands import kAnywhere, kAskedNext, kAskedStep

kStatement, kLine = "statement", "line"
kForeignEvents = 3000  # so many of foreign code are looked through for code that it calls back
kInPlace = frozenset(("<listcomp>", "<setcomp>", "<dictcomp>", "<genexpr>"))


class tStepper(object):
    """base: the frame that the step starts in;  line: of it.

    is_user(frame)             whether a step may end there
    statements_of(frame)       statements.tStatements of the frame's file, or None
    on_return(frame, value)    a function of the user's has returned
    """

    def __init__(self, server, base, line, granularity, is_user, statements_of, on_return):
        self._server, self._core = server, server.core
        self._base, self._line = base, line
        self._granularity, self._is_user = granularity, is_user
        self._statements_of, self._on_return = statements_of, on_return
        self._extent = self._extent_of(base, line)
        self._events = 0
        self._goal = None  # (caller's frame, extent of the statement that called)

    def start(self, stop):
        """Give the first command, on the stopped thread."""
        raise NotImplementedError

    def at_line(self, frame):
        """Whether the step ends at the frame's line; else a command has been given, if needed."""
        raise NotImplementedError

    def is_within(self, frame):
        """Whether breakpoints of the line have had their turn: a statement comes back to its lines,
        but those behind the one where the step began are yet to come."""
        return frame.f_lineno <= self._line and self._is_in_statement(frame)

    def _is_in_statement(self, frame):
        """Whether the line belongs to the statement that the step began in."""
        first, last = self._extent
        return first <= frame.f_lineno <= last and (frame is self._base or self._is_part(frame))

    def _is_part(self, frame):
        """Whether the frame is of a comprehension in the statement."""
        code = frame.f_code
        return (
            self._granularity == kStatement and code.co_name in kInPlace
            and code.co_filename == self._base.f_code.co_filename
            and self._extent[0] <= frame.f_lineno <= self._extent[1])

    def at_foreign(self, frame):
        """At an event of a frame that is never shown."""
        self._pass_foreign(frame)

    def at_return(self, frame, value, has_value):
        raise NotImplementedError

    # --- what they share ---

    def _extent_of(self, frame, line):
        if self._granularity == kStatement:
            found = self._statements_of(frame)
            if found is not None:
                return found.extent(line)
        return line, line

    def _may_end_in(self, frame):
        return frame is self._base or self._is_user(frame)

    def _over(self, frame, extent):
        self._server.steer(
            self, kAskedNext, frame, self._core.step_over_line_range, *extent)

    def _into(self):
        self._server.steer(self, kAskedStep, kAnywhere, self._core.step_into)

    def _to_frame(self, frame):
        self._server.steer(self, kAskedNext, frame, self._core.step_out_to_frame, frame)

    def _note(self, frame, value, has_value):
        if has_value and self._is_user(frame):
            self._on_return(frame, value)

    def _pass_foreign(self, frame):
        """Look for the user's code that foreign code calls or goes back to; not for ever."""
        self._events += 1
        if self._events < kForeignEvents:
            return self._into()
        self._up_from(frame)

    def _up_from(self, frame):
        """To the nearest caller that the step may end in."""
        parent = frame.f_back
        while parent is not None and (self._server.is_hidden(parent)
                                      or not self._may_end_in(parent)):
            if self._server.languages.runs_in(parent):
                break
            parent = parent.f_back
        if self._server.languages.runs_in(parent):
            self._server.leave(frame)
        elif parent is None:
            self._server.continue_run()
        else:
            self._to_frame(parent)

    def _leave(self, frame):
        """The frame ends: go on in its caller."""
        parent = frame.f_back
        if parent is None:
            return self._server.continue_run()
        if self._server.languages.runs_in(parent):
            return self._server.leave(frame)
        if self._server.is_hidden(parent) or not self._may_end_in(parent):
            return self._pass_foreign(frame)
        # The statement that has called is not a new one.
        self._goal = (parent, self._extent_of(parent, parent.f_lineno))
        self._to_frame(parent)

    def _ends_in_goal(self, frame):
        """Whether the line is one of another statement than the one that has called."""
        goal, self._goal = self._goal, None
        if goal is None or goal[0] is not frame or self._granularity != kStatement:
            return True
        first, last = goal[1]
        if not first <= frame.f_lineno <= last or first == last:
            return True
        self._over(frame, goal[1])
        return False


class tOver(tStepper):
    """To the next statement of the frame, or of the caller that it returns to."""

    def start(self, stop):
        self._over(self._base, self._extent)

    def at_line(self, frame):
        if frame is self._base:
            first, last = self._extent
            if first <= frame.f_lineno <= last:
                self._over(frame, self._extent)
                return False
            return True
        if _is_caller(self._base, frame):
            self._to_frame(self._base)
            return False
        if not self._may_end_in(frame):
            self._pass_foreign(frame)
            return False
        return self._ends_in_goal(frame)

    def at_return(self, frame, value, has_value):
        if frame is not self._base and _is_caller(self._base, frame):
            return self._to_frame(self._base)
        self._note(frame, value, has_value)
        self._leave(frame)


class tOut(tStepper):
    """To the caller, as soon as it goes on."""

    def __init__(self, *args):
        tStepper.__init__(self, *args)
        caller = self._base.f_back
        self._caller = None
        if caller is not None:
            line = caller.f_lineno
            self._caller = caller, self._extent_of(caller, line)[0], line

    def start(self, stop):
        self._out()

    def is_within(self, frame):
        """Also in the statement that has called, up to the line that did."""
        if self._caller is None or frame is not self._caller[0]:
            return tStepper.is_within(self, frame)
        return self._caller[1] <= frame.f_lineno <= self._caller[2]

    def _out(self):
        self._server.steer(self, kAskedNext, self._base.f_back or kAnywhere, self._core.step_out)

    def at_line(self, frame):
        if frame is self._base:
            self._out()
            return False
        if _is_caller(self._base, frame):
            self._to_frame(self._base)
            return False
        if not self._may_end_in(frame):
            self._up_from(frame)
            return False
        return True

    def at_foreign(self, frame):
        self._up_from(frame)

    def at_return(self, frame, value, has_value):
        if frame is not self._base and _is_caller(self._base, frame):
            return self._to_frame(self._base)
        self._note(frame, value, has_value)
        self._up_from(frame)


class tInto(tStepper):
    """To the first line of a function that the statement calls, else as tOver."""

    def start(self, stop):
        self._into()

    def at_line(self, frame):
        if self._is_in_statement(frame):
            self._into()
            return False
        if not self._may_end_in(frame):
            self._pass_foreign(frame)
            return False
        return True

    def at_return(self, frame, value, has_value):
        self._note(frame, value, has_value)
        self._into()


class tIntoTarget(tInto):
    """To the first line of one of the functions that the statement calls.

    calls: [statements.tCall] of the statement;  target: index of the wanted one
    """

    def __init__(self, calls, target, *args):
        tInto.__init__(self, *args)
        self._calls, self._target = calls, target
        self._passing = None  # frame of another one, whose return is waited for

    def at_line(self, frame):
        if frame is self._base:
            return tInto.at_line(self, frame)
        if self._passing is not None or frame.f_back is not self._base:
            return False
        if self._is_target(frame):
            return True
        return self._pass(frame)

    def at_foreign(self, frame):
        if frame.f_back is self._base and self._passing is None:
            self._pass(frame)

    def at_return(self, frame, value, has_value):
        if frame is self._passing:
            self._passing = None
            self._into()
        elif frame is self._base:
            self._note(frame, value, has_value)
            self._leave(frame)

    def _pass(self, frame):
        self._passing = frame
        self._server.steer(self, kAskedNext, self._base, self._core.step_out)
        return False

    def _is_target(self, frame):
        index = statements.call_in_progress(self._base, self._calls, self._extent)
        if index is not None:
            return index == self._target
        wanted = self._calls[self._target].name
        name = frame.f_code.co_name
        return name == wanted or (name in ("__init__", "__new__", "__call__") and all(
            call.name != name for call in self._calls))


class tInLanguage(object):
    """A step in a language that the program implements: one of the server's own.

    make: the stepper that would do it in Python
    """

    def __init__(self, server, make):
        self._command = {tOver: server.step_over, tOut: server.step_out}.get(make, server.step_into)

    def start(self, stop):
        self._command()


def _is_caller(frame, inner):
    """Whether a frame is one of the other's callers."""
    while inner is not None:
        inner = inner.f_back
        if inner is frame:
            return True
    return False
