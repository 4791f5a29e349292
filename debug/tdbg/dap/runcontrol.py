"""Requests that let the program run, step or stop."""
from __future__ import absolute_import, division, print_function

from tdbg import codelines, compat, currentframes, statements, sublanguages
from tdbg.dap import paths, rules, stepper
from tdbg.dap.requests import get, get_optional, kAnytime, kStopped, tRequest, tRequestError

_current_frames = currentframes.current_frames
_marker = len  # any f_trace lets f_lineno be set

kGranularities = ("statement", "line", "instruction")


def continue_(session, arguments):
    session.thread_ids.ident_of(get(arguments, "threadId", int))
    _refuse_running(session)
    session.then(session.go_on)
    return {"allThreadsContinued": True}


def next_(session, arguments):
    _step(session, arguments, stepper.tOver)


def step_out(session, arguments):
    _step(session, arguments, stepper.tOut)


def step_in(session, arguments):
    target = get_optional(arguments, "targetId", int)
    if target is None:
        return _step(session, arguments, stepper.tInto)
    found = session.handles.get(target)
    if not isinstance(found, tStepInTarget):
        raise tRequestError("{} is no target to step into".format(target))

    def make(*args):
        return stepper.tIntoTarget(found.calls, found.index, *args)
    _step(session, arguments, make)


def _step(session, arguments, make):
    ident = session.thread_ids.ident_of(get(arguments, "threadId", int))
    granularity = get_optional(arguments, "granularity", str)
    if granularity is None:
        granularity = "statement" if session.config is None else session.config.step_granularity
    if granularity not in kGranularities:
        raise tRequestError("there is no granularity {}".format(compat.to_native(granularity)))
    _refuse_running(session)
    stop = session.current_stop
    if stop is not None and stop.thread.ident == ident:
        if session.server.is_over(stop):
            return session.then(session.go_on)
        frame = stop.frame
        if sublanguages.is_view(frame):
            in_language = stepper.tInLanguage(session.server, make)
            return session.then(lambda: session.go_on(ident, in_language))
    else:
        frame = _held_frame(session, ident)
    if frame is None:
        return session.then(session.go_on)
    made = make(
        session.server, frame, frame.f_lineno,
        stepper.kStatement if granularity == "statement" else stepper.kLine,
        rules.is_user_code, lambda frame: statements_of(session, frame), session.note_return)
    session.then(lambda: session.go_on(ident, made))


def _refuse_running(session):
    if not session.is_stopped:
        raise tRequestError("the program is not stopped")


def _held_frame(session, ident):
    """The innermost frame of the user's: what is inside of it blocks, and is not stepped."""
    stop = session.server.stop_of(ident)
    if stop is not None:  # it evaluates something there, and goes on afterwards
        return sublanguages.real_frame(stop.frame)
    frame = _current_frames().get(ident)
    while frame is not None and (session.server.is_hidden(frame) or not rules.is_user_code(frame)):
        frame = frame.f_back
    return frame


def statements_of(session, frame):
    """statements.tStatements of the frame's file, or None."""
    path = session.server.breakpoints.path_of(frame)
    found = statements.of_file(path)
    if found is None and session.front_end.is_live:
        try:
            source = session.server.breakpoints.source(path, frame)
        except Exception:
            return None
        found = getattr(source, "statements", None)
        if found is None:
            text = getattr(source, "text", None)
            found = None if text is None else statements.of_text(text)
    return found


def pause(session, arguments):
    number = get(arguments, "threadId", int)
    ident = session.thread_ids.ident_of(number) if number else session.server.main_ident
    if session.is_stopped:
        return None
    if not session.is_configured:
        raise tRequestError("the program has not been started yet")
    if ident not in _current_frames():
        ident = session.server.main_ident
    session.then(lambda: session.holder.pause(ident))
    return None


# --- stepping into one of several calls ---------------------------------------------------------


class tStepInTarget(object):
    __slots__ = ("calls", "index")

    def __init__(self, calls, index):
        self.calls, self.index = calls, index


def step_in_targets(session, arguments):
    reference = session.frames.get(get(arguments, "frameId", int))
    found = statements_of(session, reference.frame)
    if found is None:
        return {"targets": []}
    calls = found.calls(reference.line)
    spelling = paths.paths_of(session)
    targets = []
    for index, call in enumerate(calls):
        if call.is_implicit:
            continue
        row = {"id": session.handles.new(tStepInTarget(calls, index)),
               "label": compat.to_text(call.label), "line": spelling.line_to_client(call.line),
               "column": spelling.column_to_client(call.column + 1)}
        if call.end_line is not None:
            row["endLine"] = spelling.line_to_client(call.end_line)
            row["endColumn"] = spelling.column_to_client(call.end_column + 1)
        targets.append(row)
    return {"targets": targets}


# --- jumping ----------------------------------------------------------------------------------


def goto_targets(session, arguments):
    """The line, where the stopped function has code for it."""
    stop = session.current_stop
    if stop is None:
        raise tRequestError("the program is not stopped")
    spelling = paths.paths_of(session)
    line = spelling.line_from_client(get(arguments, "line", int))
    path = get(arguments, "source", dict).get("path")
    if not isinstance(path, compat.string_types) or not _is_file_of(session, path, stop.frame):
        return {"targets": []}
    lines = set(codelines.lines_of(stop.frame.f_code))
    if line not in lines:
        later = [number for number in lines if number > line]
        if not later:
            return {"targets": []}
        line = min(later)
    number = session.handles.new(("goto", line))
    return {"targets": [{"id": number, "label": u"line {}".format(line),
                         "line": spelling.line_to_client(line)}]}


def _is_file_of(session, text, frame):
    path = paths.paths_of(session).from_client(text, remember=False)
    table = session.server.breakpoints
    known = table.path_of(frame)
    return path == known or table.is_same_file(path, known)


def goto(session, arguments):
    ident = session.thread_ids.ident_of(get(arguments, "threadId", int))
    target = session.handles.get(get(arguments, "targetId", int))
    if not isinstance(target, tuple) or target[0] != "goto":
        raise tRequestError("{} is no place to jump to".format(arguments["targetId"]))
    stop = session.current_stop
    if stop is None or stop.thread.ident != ident or compat.get_ident() != ident:
        raise tRequestError("only the stopped thread can jump")
    frame, line = stop.frame, target[1]
    before = frame.f_trace
    try:
        if before is None:
            frame.f_trace = _marker
        frame.f_lineno = line
    except Exception as why:
        raise tRequestError("cannot jump there: {}".format(why), True)
    finally:
        if before is None:
            frame.f_trace = None
    stop.stack[:] = [
        (entry[0], line if entry[0] is frame else entry[1]) for entry in stop.stack]

    def tell():
        session.frames.clear()
        session.handles.clear()
        session.send_event("stopped", {
            "reason": "goto", "threadId": session.thread_ids.id_of(ident),
            "allThreadsStopped": True})
    session.then(tell)


kRequests = {
    "continue": tRequest(continue_),
    "next": tRequest(next_),
    "stepIn": tRequest(step_in),
    "stepOut": tRequest(step_out),
    "pause": tRequest(pause),
    "stepInTargets": tRequest(step_in_targets, kAnytime),
    "gotoTargets": tRequest(goto_targets, kAnytime),
    "goto": tRequest(goto, kStopped),
}
