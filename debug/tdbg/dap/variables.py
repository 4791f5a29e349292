"""The requests `scopes`, `variables` and `setVariable`; what a client's expressions can name.

Numbers that the client gets for what can be opened stand for a holders.tHolder; page.py makes the
protocol's variables of its children.  Where the thread hangs in native code, on_slow() answers with
what was ready by then.
"""
from __future__ import absolute_import, division, print_function

import sys

from tdbg import compat, evaluate, framecode, stops, sublanguages
from tdbg.dap import children, values
from tdbg.dap.children import tChild
from tdbg.dap.holders import kClosure, kGlobals, kLocals, tFrameScope, tHolder
from tdbg.dap.page import is_in_hex, limits_of, one_line, tPage  # noqa: F401  two for evaluation.py
from tdbg.dap.requests import get, kStopped, tRequest, tRequestError

kReturnName, kExceptionName = "__return__", "__exception__"


def attach(session):
    session.looked_into = {}  # id -> frame whose variables have been read since the program stopped
    session.on_resume(_forget_values)


def _forget_values(session):
    frames, session.looked_into = session.looked_into, {}
    if not session.executor.is_stuck():
        for frame in frames.values():
            framecode.forget_snapshot(frame)


def find_frame(session, frame_id):
    """The tFrameRef of a number; None for None."""
    if frame_id is None:
        return None
    ref = session.frames.get(frame_id)
    if not sublanguages.is_view(ref.frame):
        session.looked_into[id(ref.frame)] = ref.frame
    return ref


def scopes(session, arguments):
    ref = find_frame(session, get(arguments, "frameId", int))
    frame = ref.frame
    core = session.server.core
    limit = tFrameScope(ref, kLocals, core, _extra_children(session, ref))
    found = [_scope(session, u"Locals", limit, hint="locals")]
    if getattr(frame.f_code, "co_freevars", ()):
        found.append(_scope(session, u"Closure", tFrameScope(ref, kClosure, core)))
    found.append(_scope(session, u"Globals", tFrameScope(ref, kGlobals, core), True, "globals"))
    return {"scopes": found}


def _scope(session, name, holder, is_expensive=False, hint=None):
    result = {"name": name, "variablesReference": session.handles.new(holder),
              "namedVariables": holder.counts()[0], "indexedVariables": 0,
              "expensive": is_expensive}
    if hint is not None:
        result["presentationHint"] = hint
    return result


def extra_names(session, ref):
    """{name: value} of what a stop has brought, as expressions can name it: what the frame, or the
    last function that a step has run through, returned; the exception."""
    return dict((child.access[1], child.value)
                for child in _extra_children(session, ref) if child.access is not None)


def _extra_children(session, ref):
    stop = session.stop_of(ref.thread_id) if ref is not None else None
    if stop is None:
        return []
    found = []
    if stop.exc_info and _is_on_the_way(stop, ref.frame):
        kind, value = stop.exc_info[:2]
        found.append(_extra_child(u"(exception)", kind if value is None else value, kExceptionName))
    returned = []
    if ref.frame is stop.frame:
        returned = list(session.return_values)
        if stop.reason == stops.kReturn:
            returned = [(compat.to_text(ref.frame.f_code.co_name), stop.value)]
    seen = {}
    for index, (name, value) in enumerate(returned):
        seen[name] = seen.get(name, 0) + 1
        shown = u"(return) " + name + (u" #{}".format(seen[name]) if seen[name] > 1 else u"")
        is_last = index == len(returned) - 1
        found.append(_extra_child(shown, value, kReturnName if is_last else None))
    return found


def _extra_child(shown, value, name):
    return tChild(shown, value, None if name is None else (u"", name), kind=children.kVirtual)


def _is_on_the_way(stop, frame):
    """Whether the exception of a stop has gone through the frame."""
    if frame is stop.frame:
        return True
    traceback = stop.exc_info[2]
    while traceback is not None:
        if traceback.tb_frame is frame:
            return True
        traceback = traceback.tb_next
    return False


_pages = {}  # id of a request's arguments -> tPage that is being made


def variables(session, arguments):
    holder = session.handles.get(get(arguments, "variablesReference", int))
    if not isinstance(holder, tHolder):
        raise tRequestError("this number has no variables")
    page = _pages[id(arguments)] = tPage(session, holder, arguments)
    try:
        return {"variables": page.make()}
    finally:
        _pages.pop(id(arguments), None)


def _slow_variables(session, arguments):
    page = _pages.get(id(arguments))
    if page is None:
        raise tRequestError("the thread is busy; try again")
    return {"variables": page.make_without_waiting()}


def frame_of(session, ref):
    """The frame of a tFrameRef; for None the main module stands in."""
    if ref is not None:
        return ref.frame
    return framecode.tGlobals(main_names())


def main_names():
    main = sys.modules.get("__main__")
    return getattr(main, "__dict__", {})


def evaluate_new(session, ref, text):
    """Value of what the client wants to assign."""
    result = evaluate.evaluate_limited(
        compat.to_text(text), frame_of(session, ref), extra_names(session, ref),
        values.kSecondsInAll)
    if not result.ok:
        raise tRequestError(one_line(compat.to_text(result.error)))
    return result.value


def set_variable(session, arguments):
    holder = session.handles.get(get(arguments, "variablesReference", int))
    name = get(arguments, "name", str)
    if not isinstance(holder, tHolder):
        raise tRequestError("this number has no variables")
    child = holder.find(name)
    if child is None:
        raise tRequestError(u"there is no variable {}".format(name))
    if child.set is None:
        raise tRequestError(u"{} cannot be changed".format(name))
    value = evaluate_new(session, holder.frame_ref, get(arguments, "value", str))
    try:
        evaluate.call_with_limit(lambda: child.set(value), values.kSecondsInAll)
    except evaluate.tTooSlow:
        raise tRequestError(u"setting {} takes too long".format(name))
    except BaseException:
        raise tRequestError(one_line(compat.to_text(evaluate.describe_error())))
    if child.get is None:
        child.value = value
    return describe_set(session, holder, arguments, value, holder.expression_of(child))


def describe_set(session, holder, arguments, value, expression):
    text, result = tPage(session, holder, arguments).describe(value, expression)
    result["value"] = text
    return result


def _slow_set(session, arguments):
    raise tRequestError("setting the value takes too long; it goes on in the program's thread")


kRequests = {
    "scopes": tRequest(scopes, kStopped),
    "variables": tRequest(variables, kStopped, on_slow=_slow_variables),
    "setVariable": tRequest(set_variable, kStopped, on_slow=_slow_set),
}
