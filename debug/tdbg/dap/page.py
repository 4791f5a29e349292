"""One request's variables, as the protocol has them.

A page is made within kSecondsInAll: children that would take longer come as lazy ones, to be asked
for one by one.
"""
from __future__ import absolute_import, division, print_function

from tdbg import evaluate
from tdbg.dap import children, statics, values
from tdbg.dap.holders import tLazy, tRange, tValue
from tdbg.dap.requests import get_optional

kNotEvaluated = u"<not evaluated yet>"


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
