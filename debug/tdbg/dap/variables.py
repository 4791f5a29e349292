"""The requests `scopes`, `variables`, `setVariable` and `setExpression`.

Numbers that the client gets for what can be opened (handles) stand for objects with the methods of
tHolder.  A page of variables is made within kSecondsInAll: children that would take longer come as
lazy ones, to be asked for one by one.  Where the thread hangs in native code, on_slow() answers with
what was ready by then.
"""
from __future__ import absolute_import, division, print_function

from tdbg import compat, evaluate, framecode, stops, sublanguages
from tdbg.dap import children, statics, values
from tdbg.dap.children import tChild
from tdbg.dap.requests import get, get_optional, kStopped, tRequest, tRequestError

kReturnName, kExceptionName = "__return__", "__exception__"
kLocals, kClosure, kGlobals = "locals", "closure", "globals"
kNotEvaluated = u"<not evaluated yet>"


# --- limits and renderers -----------------------------------------------------------------------


def limits_of(session):
    config = session.config
    if config is None:
        return values.tLimits()
    return values.tLimits(config.limit_string, config.limit_items, config.limit_ms)


def is_in_hex(arguments):
    return bool(get_optional(get_optional(arguments, "format", dict, {}), "hex", bool, False))


def one_line(text, limit=values.kString):
    text = u" ".join(text.split())
    return text if len(text) <= limit else text[:limit] + u"..."


# --- what numbers stand for ---------------------------------------------------------------------


class tHolder(object):
    """Something that has children.

    frame_ref   session's tFrameRef in which expressions of the client are evaluated; None: globals
    """

    __slots__ = ("frame_ref",)

    def __init__(self, frame_ref):
        self.frame_ref = frame_ref

    def counts(self):
        """(named, indexed)"""
        raise NotImplementedError

    def named(self):
        """[tChild]"""
        return []

    def indexed(self, start, stop):
        """[tChild]"""
        return []

    def expression_of(self, child):
        return None

    def find(self, name):
        """tChild, or None."""
        for child in self.named():
            if child.name == name:
                return child
        return None


class tValue(tHolder):
    """A value that can be opened.  expression: text that yields it, or None."""

    __slots__ = ("children", "expression", "_names")

    def __init__(self, found, expression, frame_ref):
        tHolder.__init__(self, frame_ref)
        self.children, self.expression = found, expression
        self._names = {}  # of entries whose names are no literals: name -> tChild

    def counts(self):
        return None, self.children.indexed_count

    def named(self):
        return self.children.named()

    def indexed(self, start, stop):
        return self.children.indexed(start, min(stop, self.children.indexed_count))

    def expression_of(self, child):
        return child.expression(self.expression)

    def note_name(self, child, name):
        self._names[name] = child

    def find(self, name):
        if name in self._names:
            return self._names[name]
        if self.children.indexed_count and name.isdigit() and (
                not isinstance(self.children, children.tEntries)):
            found = self.indexed(int(name), int(name) + 1)
            return found[0] if found else None
        for child in self.indexed(0, self.children.indexed_count) + self.named():
            if isinstance(child, children.tEntry):
                if children.literal_of(child.key) == name:
                    return child
            elif child.name == name:
                return child
        return None


class tRange(tHolder):
    """Some of the indexed children of another holder, for clients that know no pages."""

    __slots__ = ("parent", "start", "stop")

    def __init__(self, parent, start, stop):
        tHolder.__init__(self, parent.frame_ref)
        self.parent, self.start, self.stop = parent, start, stop

    def counts(self):
        return 0, self.stop - self.start

    def indexed(self, start, stop):
        return self.parent.indexed(self.start + start, min(self.start + stop, self.stop))

    def expression_of(self, child):
        return self.parent.expression_of(child)

    def note_name(self, child, name):
        self.parent.note_name(child, name)

    def find(self, name):
        return self.parent.find(name)


class tLazy(tHolder):
    """A child that is evaluated when it is asked for: has itself as its only child."""

    __slots__ = ("child", "expression")

    def __init__(self, child, expression, frame_ref):
        tHolder.__init__(self, frame_ref)
        self.child, self.expression = child, expression

    def counts(self):
        return 1, 0

    def named(self):
        return [self.child]

    def expression_of(self, child):
        return self.expression

    def find(self, name):
        return self.child


class tFrameScope(tHolder):
    """The variables of a frame.  kind: kLocals, kClosure or kGlobals.

    extra: [tChild] that come first: what the frame returns, its exception
    """

    __slots__ = ("kind", "extra", "core")

    def __init__(self, frame_ref, kind, core, extra=()):
        tHolder.__init__(self, frame_ref)
        self.kind, self.core, self.extra = kind, core, list(extra)

    def counts(self):
        return len(self.names()) + len(self.extra), 0

    def names(self):
        frame = self.frame_ref.frame
        if self.kind == kGlobals:
            return list(frame.f_globals)
        return local_names(frame, self.kind)

    def named(self):
        frame = self.frame_ref.frame
        known = frame.f_globals if self.kind == kGlobals else variables_of(frame)
        is_sorted = known is not frame.f_globals and _is_optimized(frame)
        found = []
        for name in self.names():
            try:
                found.append(self._child(name, known[name], frame))
            except (KeyError, NameError):
                pass
        if not is_sorted:
            if compat.PY2:
                found.sort(key=_name_of)
            found.sort(key=children._rank)
        return self.extra + found

    def _child(self, name, value, frame):
        text = compat.to_text(name)
        access = None
        if values.is_identifier(name):
            access = (u"", text)
            if self.kind == kGlobals and frame.f_locals is not frame.f_globals and (
                    name in frame.f_locals):
                access = (u"", u"globals()[" + children.literal_of(name) + u"]")
        return tChild(text, value, access, self._setter(name, frame),
                      visibility=children.visibility_of(text))

    def _setter(self, name, frame):
        if sublanguages.is_view(frame):
            return None
        if self.kind == kGlobals:
            return lambda new: frame.f_globals.__setitem__(name, new)
        return lambda new: framecode.set_local(frame, name, new, self.core)

    def expression_of(self, child):
        return child.expression(u"")


def _name_of(child):
    return child.name


def _is_optimized(frame):
    return bool(getattr(frame.f_code, "co_flags", 0) & 1)


def variables_of(frame):
    """{name: value} to look at; what is assigned to it is lost."""
    known = frame.f_locals
    if compat.kNoLocalsToFast and known is not frame.f_globals and _is_optimized(frame):
        return dict(known)  # each look-up would search the frame
    return known


def local_names(frame, kind=kLocals):
    """Names of a frame's variables that have values, parameters first, in order of definition."""
    code = frame.f_code
    known = variables_of(frame)
    free = list(getattr(code, "co_freevars", ()))
    if kind == kClosure:
        return [name for name in free if name in known]
    order = list(getattr(code, "co_varnames", ())) + list(getattr(code, "co_cellvars", ()))
    if not _is_optimized(frame):
        return [name for name in list(known) if isinstance(name, compat.string_types)]
    found, seen = [], set(free)
    for name in order:
        if name not in seen and name in known:
            found.append(name)
        seen.add(name)
    return found + sorted(name for name in list(known)
                          if name not in seen and isinstance(name, compat.string_types))


# --- one request's work -------------------------------------------------------------------------


class tPage(object):
    """Variables of the protocol for children.

    results grows while it is made, for on_slow().
    """

    def __init__(self, session, holder, arguments):
        self.session, self.holder = session, holder
        self._limits = limits_of(session)
        self._client = session.client or {}
        self._limiter = evaluate.tLimiter(self._limits.seconds, values.kSecondsInAll)
        self._in_hex = is_in_hex(arguments)
        self._renderer = values.tRenderer(self._limits, self._limiter, self._in_hex)
        self._arguments = arguments
        self._children = []
        self.results = []

    def make(self):
        self._children = self._choose()
        self._limiter.map(self._variable_of, self._children, self._slow_variable_of, self.results)
        return self.results

    def make_without_waiting(self):
        """What there is, while make() hangs in native code in another thread."""
        results = list(self.results)
        for child in self._children[len(results):]:
            results.append(self._slow_variable_of(child))
        return results

    def _choose(self):
        """The children that were asked for."""
        wanted = get_optional(self._arguments, "filter", str)
        start = max(get_optional(self._arguments, "start", int, 0), 0)
        count = max(get_optional(self._arguments, "count", int, 0), 0)
        indexed = self.holder.counts()[1]
        if not indexed or wanted == "named":
            found = self.holder.named()
            return found[start:start + count] if count else found[start:]
        stop = start + count if count else indexed
        if wanted == "indexed" and count:
            return self.holder.indexed(start, min(stop, start + values.kMostAtOnce))
        if not count and indexed - start > values.kUngrouped:
            return self._ranges(start, indexed) + (
                [] if wanted == "indexed" else self.holder.named())
        found = self.holder.indexed(start, stop) if start < indexed else []
        if wanted == "indexed":
            return found
        rest = self.holder.named()
        if count:
            rest = rest[max(start - indexed, 0):max(stop - indexed, 0)]
        return found + rest

    def _ranges(self, start, stop):
        """At most `items` groups of neighbours."""
        parent = self.holder
        if isinstance(parent, tRange):
            parent, start, stop = parent.parent, parent.start + start, parent.start + stop
        size = self._limits.items
        while (stop - start) > size * self._limits.items:
            size *= self._limits.items
        return [_tGroup(tRange(parent, first, min(first + size, stop)))
                for first in range(start, stop, size)]

    # --- one variable ---

    def _variable_of(self, child):
        if isinstance(child, _tGroup):
            return self._group(child)
        name = self._name_of(child)
        expression = self.holder.expression_of(child)
        if child.get is not None and not isinstance(self.holder, tLazy):
            return self._lazy(child, name, expression, kNotEvaluated, child.note)
        value = child.value
        if child.get is not None:
            try:
                value = self._limiter.call(child.get)
            except evaluate.tTooSlow:
                return self._placeholder(child, name, expression, u"<takes too long>")
            except BaseException:
                why = one_line(evaluate.describe_error(self._limiter.call))
                return self._placeholder(child, name, expression, u"<{}>".format(why))
        return self._variable(child, name, expression, value, self._renderer.text(value))

    def _variable(self, child, name, expression, value, text):
        result = {"name": name, "value": text}
        result.update(self.openable(value, expression))
        if expression is not None:
            result["evaluateName"] = expression
        if self._client.get("supportsVariableType"):
            result["type"] = statics.type_name(value)
        hint = self._hint(child)
        if hint:
            result["presentationHint"] = hint
        return result

    def _slow_variable_of(self, child):
        """The same for a child for which there is no time (left): without code of the program."""
        if isinstance(child, _tGroup):
            return self._group(child)
        renderer = values.tRenderer(self._limits, None, self._in_hex)
        name = child.name
        if name is None:
            name = children.literal_of(child.key) or renderer.text(child.key)
            self.holder.note_name(child, name)
        expression = self.holder.expression_of(child)
        is_asked_for = isinstance(self.holder, tLazy)
        if child.get is not None and is_asked_for:
            return self._placeholder(child, name, expression, u"<takes too long>")
        if child.get is not None:
            return self._lazy(child, name, expression, kNotEvaluated, child.note)
        text = renderer.text(child.value)
        if not renderer.has_skipped:
            return self._variable(child, name, expression, child.value, text)
        text = renderer.slow_text(child.value)
        if is_asked_for:
            return self._variable(child, name, expression, child.value, text)
        return self._lazy(child, name, expression, text, statics.type_name(child.value))

    def _name_of(self, child):
        if child.name is not None:
            return child.name
        name = children.literal_of(child.key)
        if name is None:
            name = self._renderer.text(child.key)
            self.holder.note_name(child, name)
        return name

    def _group(self, group):
        held = group.holder
        return {"name": u"[{}..{}]".format(held.start, held.stop - 1), "value": u"",
                "variablesReference": self.session.handles.new(held),
                "indexedVariables": held.stop - held.start, "namedVariables": 0,
                "presentationHint": {"kind": "virtual"}}

    def _lazy(self, child, name, expression, text, kind):
        result = self._placeholder(child, name, expression, text)
        result["variablesReference"] = self.session.handles.new(
            tLazy(child, expression, self.holder.frame_ref))
        result["presentationHint"]["lazy"] = True
        if self._client.get("supportsVariableType"):
            result["type"] = kind
        return result

    def _placeholder(self, child, name, expression, text):
        result = {"name": name, "value": text, "variablesReference": 0,
                  "presentationHint": self._hint(child)}
        if expression is not None:
            result["evaluateName"] = expression
        return result

    def _hint(self, child):
        hint = {}
        if child.kind != children.kData:
            hint["kind"] = child.kind
        if child.visibility != children.kPublic:
            hint["visibility"] = child.visibility
        if child.set is None:
            hint["attributes"] = ["readOnly"]
        return hint

    def openable(self, value, expression):
        """The members of a variable that say how its value is opened."""
        found = children.children_of(value)
        if found is None:
            return {"variablesReference": 0}
        holder = tValue(found, expression, self.holder.frame_ref)
        result = {"variablesReference": self.session.handles.new(holder)}
        if found.indexed_count:
            result["indexedVariables"] = found.indexed_count
            result["namedVariables"] = len(found.named()) if found.has_named() else 0
        return result

    def describe(self, value, expression=None):
        """The members of a response that has a value: (text, the others)."""
        text = self._limiter.map(self._renderer.text, [value], self._renderer.slow_text)[0]
        more = self.openable(value, expression)
        if self._client.get("supportsVariableType"):
            more["type"] = statics.type_name(value)
        return text, more


class _tGroup(object):
    """In the place of a child: a range of them."""

    __slots__ = ("holder",)

    def __init__(self, holder):
        self.holder = holder


_pages = {}  # id of a request's arguments -> tPage that is being made


def _slow_variables(session, arguments):
    page = _pages.get(id(arguments))
    if page is None:
        raise tRequestError("the thread is busy; try again")
    return {"variables": page.make_without_waiting()}


# --- requests -----------------------------------------------------------------------------------


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


def variables(session, arguments):
    holder = session.handles.get(get(arguments, "variablesReference", int))
    if not isinstance(holder, tHolder):
        raise tRequestError("this number has no variables")
    page = _pages[id(arguments)] = tPage(session, holder, arguments)
    try:
        return {"variables": page.make()}
    finally:
        _pages.pop(id(arguments), None)


def frame_of(session, ref):
    """The frame of a tFrameRef; for None the main module stands in."""
    if ref is not None:
        return ref.frame
    return framecode.tGlobals(main_names())


def main_names():
    main = evaluate.sys.modules.get("__main__")
    return getattr(main, "__dict__", {})


def evaluate_new(session, ref, text):
    """Value of what the client wants to assign."""
    result = evaluate.evaluate_limited(
        compat.to_text(text), frame_of(session, ref), extra_names(session, ref), values.kSecondsInAll)
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
