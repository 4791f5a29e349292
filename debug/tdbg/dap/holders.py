"""What the numbers stand for that a client gets for things to be opened (session.handles).

Each is a tHolder: it has children, named ones and indexed ones, and knows by which expressions the
client can reach them.
"""
from __future__ import absolute_import, division, print_function

from tdbg import compat, framecode, sublanguages
from tdbg.dap import children, values
from tdbg.dap.children import tChild

kLocals, kClosure, kGlobals = "locals", "closure", "globals"


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
