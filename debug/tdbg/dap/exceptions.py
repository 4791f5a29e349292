"""Which exceptions stop for a client, and what it is told of the one that did.

The filters are the names of the shared rules (tdbg.exceptions).  A filter option's condition limits
a filter to types: for `raised` the shared rules know such names; the other two are limited here,
where a stop is about to be shown.
"""
from __future__ import absolute_import, division, print_function

import re

from tdbg import codelines, compat, evaluate, stops
from tdbg import exceptions as shared
from tdbg.dap import rules as user_code
from tdbg.dap import sources
from tdbg.dap.paths import paths_of
from tdbg.dap.requests import get, get_optional, kAnytime, kStopped, tRequest, tRequestError

kAliases = {"userUnhandled": shared.kRunner, "userUncaught": shared.kRunner}
kModes = {  # of exceptionOptions
    "always": shared.kRaised, "unhandled": shared.kUncaught, "userUnhandled": shared.kRunner}
kDefault = (shared.kUncaught,)
kMaxDepth = 10     # of causes of causes
kMaxMembers = 50   # of a group
kMaxFrames = 100   # of a traceback

_kTypeName = re.compile(r"^[^\W\d]\w*(\.[^\W\d]\w*)*$", re.UNICODE)
_kWords = {
    stops.kException: ("always", u"an exception was raised"),
    stops.kUncaught: ("unhandled", u"nothing will catch this exception"),
    stops.kReported: ("userUnhandled", u"what catches this exception only reports it"),
}
_kFilterOf = {stops.kUncaught: shared.kUncaught, stops.kReported: shared.kRunner}


class tFilters(object):
    """What one client has asked for."""

    def __init__(self):
        self.limits = {}   # filter -> None for all types, or a list of names
        self.always, self.never = [], []  # names of types

    def want(self, name, names=None):
        """A filter, for types of these names only, or for all."""
        if names is None or name not in self.limits:
            self.limits[name] = names
        elif self.limits[name] is not None:
            self.limits[name] = self.limits[name] + names

    def apply(self, rules):
        wanted = [name for name in self.limits if name != shared.kRaised]
        raised = self.limits.get(shared.kRaised, ())
        if raised is None:
            wanted.append(shared.kRaised)
        rules.set_types(self.always + list(raised or ()), self.never)
        rules.stop_on(wanted)

    def lets_stop(self, stop):
        """Whether one of the filters means the exception."""
        name = _kFilterOf.get(stop.reason)
        if name not in self.limits or stop.exc_info is None:
            return True  # a step, or a type that is named on its own
        for filter_name in (name, shared.kRaised):
            names = self.limits.get(filter_name, ())
            if names is None or shared.is_named(stop.exc_info[0], names):
                return True
        return shared.is_named(stop.exc_info[0], self.always)


def names_in(condition):
    """Names of types in the condition of a filter; None: all; tRequestError with the wrong one."""
    if condition is None or not condition.strip():
        return None
    names = [name.strip() for name in condition.split(",")]
    for name in names:
        if not _kTypeName.match(name):
            raise tRequestError(
                "{!r} is no name of an exception type".format(compat.to_native(name)))
    return [compat.to_native(name) for name in names]


def attach(session):
    server = session.server
    session.exception_filters = tFilters()
    server.exceptions.pass_in(
        lambda frame: server.is_hidden(frame) or not user_code.is_user_code(frame))
    session.on_configured(_configure)
    session.filter_stops(_passes)
    session.on_stop(_tell_stop)
    session.on_end(_reset)


def _configure(session):
    config, filters = session.config, session.exception_filters
    filters.always.extend(config.exceptions_always)
    filters.never.extend(config.exceptions_never)
    if not filters.limits and not getattr(session, "exceptions_were_set", False):
        for name in kDefault:
            filters.want(name)
    if not config.exceptions_runners:
        filters.limits.pop(shared.kRunner, None)
    filters.apply(session.server.exceptions)


def _reset(session):
    """The client goes: nobody is there to stop for."""
    rules = session.server.exceptions
    rules.set_types()
    rules.stop_on(())
    rules.clear_places()
    rules.pass_in(session.server.is_hidden)


def _passes(session, stop):
    return not session.exception_filters.lets_stop(stop)


def _tell_stop(session, stop):
    if stop.exc_info is None or stop.reason not in _kWords:
        return None
    return {"description": _kWords[stop.reason][1],
            "text": compat.to_text(shared.full_name_of(stop.exc_info[0]))}


# --- setExceptionBreakpoints ------------------------------------------------------------------


def set_exception_breakpoints(session, arguments):
    filters = tFilters()
    rows = []
    for name in get_optional(arguments, "filters", list, []):
        rows.append(_add_filter(filters, name, None))
    for option in _objects(arguments, "filterOptions"):
        rows.append(_add_filter(
            filters, get(option, "filterId", str), get_optional(option, "condition", str)))
    for option in _objects(arguments, "exceptionOptions"):
        rows.append(_add_option(filters, option))
    config = session.config
    if config is not None:
        filters.always.extend(config.exceptions_always)
        filters.never.extend(config.exceptions_never)
        if not config.exceptions_runners:
            filters.limits.pop(shared.kRunner, None)
    session.exceptions_were_set = True
    session.exception_filters = filters
    session.run_in_core(lambda: filters.apply(session.server.exceptions))
    return {"breakpoints": rows}


def _add_filter(filters, name, condition):
    name = kAliases.get(name, name)
    if name not in shared.kAll:
        text = "there is no filter {}".format(compat.to_native(name))
        return {"verified": False, "message": text}
    try:
        filters.want(name, names_in(condition))
    except tRequestError as why:
        return {"verified": False, "message": why.text}
    return {"verified": True}


def _add_option(filters, option):
    """An entry of exceptionOptions: a path in a tree of types, whose last names count."""
    mode = get(option, "breakMode", str)
    names = None
    for segment in _objects(option, "path"):
        names = [name for name in get_optional(segment, "names", list, [])
                 if isinstance(name, compat.string_types)]
        if get_optional(segment, "negate", bool, False):
            filters.never.extend(names)
            names = None
    if mode == "never":
        filters.never.extend(names or ())
    elif mode not in kModes:
        return {"verified": False, "message": "there is no mode {}".format(compat.to_native(mode))}
    else:
        filters.want(kModes[mode], names)
    return {"verified": True}


def _objects(arguments, name):
    rows = get_optional(arguments, name, list, [])
    if not all(isinstance(row, dict) for row in rows):
        raise tRequestError("the argument `{}` must be a list of objects".format(name))
    return rows


# --- exceptionInfo ----------------------------------------------------------------------------


def _stop_at_exception(session, arguments):
    stop = session.stop_of(get(arguments, "threadId", int))
    if stop is None or stop.exc_info is None:
        raise tRequestError("the thread has not stopped at an exception")
    return stop


def exception_info(session, arguments):
    stop = _stop_at_exception(session, arguments)
    kind, value, traceback = stop.exc_info
    details = _describe(session, kind, value, traceback, set(), 0)
    return {
        "exceptionId": details["fullTypeName"],
        "description": details["message"],
        "breakMode": _kWords.get(stop.reason, ("always",))[0],
        "details": details,
    }


def _describe(session, kind, value, traceback, seen, depth):
    """ExceptionDetails of the protocol, with causes and members of groups below."""
    seen.add(id(value))
    name = compat.to_text(shared.full_name_of(kind))
    line = compat.to_text(evaluate.describe_exception(kind, value))
    message = line.partition(u": ")[2] if u": " in line else u""
    details = {
        "message": message,
        "typeName": name.rpartition(u".")[2],
        "fullTypeName": name,
        "stackTrace": _text_of(session, traceback, line),
    }
    inner = []
    if depth < kMaxDepth:
        for other in _members(value) + _causes(value):
            if id(other) not in seen:
                traceback = getattr(other, "__traceback__", None)
                inner.append(_describe(session, type(other), other, traceback, seen, depth + 1))
    if inner:
        details["innerException"] = inner
    return details


def _members(value):
    """Exceptions in a group."""
    group = getattr(compat.builtins, "BaseExceptionGroup", None)
    if group is None or not isinstance(value, group):
        return []
    return list(group.__dict__["exceptions"].__get__(value))[:kMaxMembers]


def _causes(value):
    """What the exception was raised from, or while handling; nothing of the program is asked."""
    if compat.PY2 or not isinstance(value, BaseException):
        return []
    cause = BaseException.__dict__["__cause__"].__get__(value)
    if cause is not None:
        return [cause]
    if BaseException.__dict__["__suppress_context__"].__get__(value):
        return []
    context = BaseException.__dict__["__context__"].__get__(value)
    return [context] if context is not None else []


def _text_of(session, traceback, last):
    """The traceback as the interpreter prints it, without what is before the first frame."""
    rows = []
    while traceback is not None and len(rows) < kMaxFrames:
        frame, line = traceback.tb_frame, traceback.tb_lineno
        traceback = traceback.tb_next
        if session.server.is_hidden(frame):
            continue
        code = frame.f_code
        rows.append(u'  File "{}", line {}, in {}\n'.format(
            compat.to_text(_path_of(session, frame)), line,
            compat.to_text(getattr(code, "co_qualname", code.co_name))))
        lines = codelines.lines_without_file(code.co_filename, frame.f_globals)
        if 0 < line <= len(lines):
            rows[-1] += u"    {}\n".format(compat.to_text(lines[line - 1]).strip())
    return u"".join(rows) + last


def _path_of(session, frame):
    source = sources.source_of_frame(session, frame)
    return source.get("path") or source["name"]


# --- never stop here again --------------------------------------------------------------------


def ignore_exception(session, arguments):
    """`tdbg/ignoreException`: the place of the exception at which the thread has stopped."""
    stop = _stop_at_exception(session, arguments)
    rules = session.server.exceptions
    path, line = session.server.place_of_exception(stop)
    if path is None:
        raise tRequestError("the exception was raised by code that is in no file")
    rules.ignore_place(path, line)
    paths = paths_of(session)
    return {"source": sources.source_of_path(session, path), "line": paths.line_to_client(line)}


kRequests = {
    "setExceptionBreakpoints": tRequest(set_exception_breakpoints, kAnytime),
    "exceptionInfo": tRequest(exception_info, kStopped),
    "tdbg/ignoreException": tRequest(ignore_exception, kStopped),
}
