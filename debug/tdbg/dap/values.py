"""Values as text, and what they consist of.

A text is made within limits of length, of items and of time.  What the interpreter's own types hold
is read by those types' own methods, so a container of a million items costs no more than the few
that are shown; only objects with a __repr__ in Python run code of the program, each within its
time, and only if the renderer was given a limiter.
"""
from __future__ import absolute_import, division, print_function

import array
import collections
import keyword
import math
import operator
import re
import types

from tdbg import compat, evaluate
from tdbg.dap import statics
from tdbg.dap.statics import find_in_class, is_kind_of, kMissing, namespace_of_instance

kString, kItems, kMs = 1000, 100, 200
kSecondsInAll = 0.6     # of one request: the rest of it goes into the answer
kLevels = 6             # containers in containers
kInnerString = 200      # characters of a text in a container
kMostBits = 10000       # decimal digits of larger numbers take a noticeable time to compute
kShownBits = 128
kWholeBits = 200000
kUngrouped = 1000       # children that are listed at once to clients that know no pages
kMostAtOnce = 10000
kFullSeconds = 3.0

_text_type = compat.text_type
_bytes_type = bytes
_whole_types = (int, type(1 << 80))
_clipped = u"..."
_is_identifier = re.compile(r"[A-Za-z_][A-Za-z_0-9]*\Z").match if compat.PY2 else None
_keywords = frozenset(keyword.kwlist)
_repr = repr
_range_type = type(range(0)) if not compat.PY2 else type(xrange(0))  # noqa: F821
_islice = statics.itertools.islice
_view_types = (
    (type({}.viewkeys()), type({}.viewvalues()), type({}.viewitems())) if compat.PY2
    else (type({}.keys()), type({}.values()), type({}.items())))
_harmless_types = frozenset(
    [float, complex, bool, type(None), type(Ellipsis), type(NotImplemented), types.FunctionType,
     types.BuiltinFunctionType, types.CodeType, statics.member_type, statics.getset_type,
     statics.getset_type, _range_type, types.FrameType, types.TracebackType, types.GeneratorType]
    + list(statics.wrapper_types))


class tLimits(object):
    """Limits of what is shown unasked: characters, items, seconds per value."""

    __slots__ = ("string", "items", "seconds")

    def __init__(self, string=kString, items=kItems, ms=kMs):
        self.string, self.items, self.seconds = string, items, ms / 1000.0


def is_identifier(name):
    """Whether `x.name` is an expression."""
    if not isinstance(name, compat.string_types) or name in _keywords:
        return False
    if compat.PY2:
        return _is_identifier(name) is not None
    return name.isidentifier()


# --- text -------------------------------------------------------------------------------------


class tRenderer(object):
    """Makes texts of values, each at most about limits.string characters long.

    limiter   evaluate.tLimiter for calls of the program's code; None: none of it is run, and
              objects are shown by their type and address
    in_hex    whole numbers in hexadecimal
    """

    def __init__(self, limits, limiter=None, in_hex=False):
        self._limits, self._limiter, self._in_hex = limits, limiter, in_hex
        self._path = []  # ids of the containers that are being written
        self.has_skipped = False  # the last value's own text would have been the program's

    def text(self, value):
        """Unicode text, one line for all but odd objects; raises nothing but evaluate.tTooSlow,
        and that only inside tLimiter.map()."""
        self.has_skipped = False
        try:
            return self._write(value, self._limits.string)
        except evaluate.tTooSlow:
            raise
        except BaseException:
            return self._failed(value, evaluate.describe_error(self._call))
        finally:
            del self._path[:]

    def slow_text(self, value):
        """What to show for a value whose text takes too long."""
        return u"<{}: repr takes too long>".format(_object_name(value))

    def _failed(self, value, why):
        return u"<{}: repr failed: {}>".format(_object_name(value), why)

    def _call(self, function):
        if self._limiter is None:
            raise evaluate.tTooSlow()
        return self._limiter.call(function)

    def _write(self, value, room):
        kind = type(value)
        write = _writers.get(kind)
        if write is None:
            if kind is statics.old_instance_type:
                return self._write_old_instance(value, room)
            found, owner = find_in_class(kind, "__repr__")
            write = _writers_by_repr.get(id(found))
            if write is None:
                write = _writer_of_generated(kind, found) or tRenderer._write_by_program
        return write(self, value, room)

    # --- simple ones ---

    def _write_whole(self, value, room):
        kind = int if is_kind_of(type(value), int) else _whole_types[1]
        if type(value) is not kind:
            value = kind.__add__(value, 0)  # of a subclass: operators may be the program's
        bits = value.bit_length()
        if bits > kMostBits:
            head = _hex(abs(value) >> (bits - kShownBits))
            return u"<int of {} bits: {}{}...>".format(bits, "-" if value < 0 else "", head)
        return compat.to_text(_hex(value) if self._in_hex else _repr(value))

    def _write_plain(self, value, room):
        return compat.to_text(_repr(value))

    def _write_default(self, value, room):
        return _default_text(value)

    def _write_text(self, value, room):
        return self._write_string(value, _text_type, room)

    def _write_bytes(self, value, room):
        return self._write_string(value, _bytes_type, room)

    def _write_bytearray(self, value, room):
        return self._write_string(value, bytearray, room)

    def _write_string(self, value, kind, room):
        length = kind.__len__(value)
        limit = min(room, kInnerString) if self._path else self._limits.string
        limit = max(limit, 1)
        text = compat.to_text(kind.__repr__(kind.__getitem__(value, slice(0, limit))))
        if length <= limit:
            return text
        tail = 2 if kind is bytearray else 1
        return text[:-tail] + _clipped + text[-tail:] + (
            u"" if self._path else u" ({} {})".format(
                length, "characters" if kind is _text_type else "bytes"))

    # --- containers ---

    def _write_list(self, value, room):
        length = list.__len__(value)
        items = list.__getitem__(value, slice(0, self._limits.items + 1))
        return self._write_items(value, items, length, u"[", u"]", room)

    def _write_tuple(self, value, room):
        length = tuple.__len__(value)
        items = tuple.__getitem__(value, slice(0, self._limits.items + 1))
        return self._write_items(value, items, length, u"(", u",)" if length == 1 else u")", room)

    def _write_set(self, value, room):
        kind = set if is_kind_of(type(value), set) else frozenset
        length = kind.__len__(value)
        items = list(_islice(kind.__iter__(value), self._limits.items + 1))
        opener, closer = u"{", u"}"
        if type(value) is not set or not length:
            opener, closer = statics.type_name(value) + u"({", u"})"
            if not length:
                opener, closer = opener[:-1], closer[1:]
        return self._write_items(value, items, length, opener, closer, room)

    def _write_deque(self, value, room):
        length = _deque.__len__(value)
        items = list(_islice(_deque.__iter__(value), self._limits.items + 1))
        maxlen = _deque_maxlen(value)
        closer = u"])" if maxlen is None else u"], maxlen={})".format(maxlen)
        return self._write_items(
            value, items, length, statics.type_name(value) + u"([", closer, room)

    def _write_dict(self, value, room):
        return self._write_entries(value, u"{", u"}", room)

    def _write_ordered_dict(self, value, room):
        name = statics.type_name(value)
        if not dict.__len__(value):
            return name + u"()"
        return self._write_entries(value, name + u"({", u"})", room)

    def _write_default_dict(self, value, room):
        factory = self._write(_default_factory(value), room)
        return self._write_entries(
            value, u"{}({}, {{".format(statics.type_name(value), factory), u"})", room)

    def _write_array(self, value, room):
        length = array.array.__len__(value)
        head = array.array.__getitem__(value, slice(0, self._limits.items + 1))
        code = _array_code(value)
        opener = u"array('{}', ".format(compat.to_text(code))
        if code in ("u", "c", "w"):
            items = array.array.tounicode(head) if code != "c" else array.array.tostring(head)
            return opener + self._write(items, room) + u")"
        items = array.array.tolist(head)
        return self._write_items(value, items, length, opener + u"[", u"])", room)

    def _write_view(self, value, room):
        kind = type(value)
        items = list(_islice(kind.__iter__(value), self._limits.items + 1))
        name = statics.type_name(value)
        return self._write_items(value, items, kind.__len__(value), name + u"([", u"])", room)

    def _write_items(self, value, items, length, opener, closer, room):
        """items: the first ones of `length`, one more than are to be shown where there are more."""
        if self._is_too_deep(value):
            return opener + (_clipped if length else u"") + closer
        self._path.append(id(value))
        room -= len(opener) + len(closer)
        parts = []
        for item in items:
            if len(parts) == self._limits.items or room <= 0:
                break
            parts.append(self._write(item, room))
            room -= len(parts[-1]) + 2
        self._path.pop()
        if len(parts) < length:
            parts.append(_clipped)
        return opener + u", ".join(parts) + closer

    def _write_entries(self, value, opener, closer, room):
        length = dict.__len__(value)
        if self._is_too_deep(value):
            return opener + (_clipped if length else u"") + closer
        self._path.append(id(value))
        room -= len(opener) + len(closer)
        parts = []
        for key, item in statics.dict_items(value, 0, self._limits.items):
            if room <= 0:
                break
            text = self._write(key, room) + u": "
            parts.append(text + self._write(item, room - len(text)))
            room -= len(parts[-1]) + 2
        self._path.pop()
        if len(parts) < length:
            parts.append(_clipped)
        return opener + u", ".join(parts) + closer

    def _write_fields(self, value, fields, room):
        """Name(field=value, ...) of what namedtuple() and @dataclass make."""
        opener = statics.type_name(value) + u"("
        if self._is_too_deep(value):
            return opener + _clipped + u")"
        self._path.append(id(value))
        room -= len(opener)
        parts = []
        for name, item in fields:
            if room <= 0:
                parts.append(_clipped)
                break
            parts.append(compat.to_text(name) + u"=" + self._write(item, room))
            room -= len(parts[-1]) + 2
        self._path.pop()
        return opener + u", ".join(parts) + u")"

    def _is_too_deep(self, value):
        return len(self._path) >= kLevels or id(value) in self._path

    # --- others ---

    def _write_class(self, value, room):
        if type(value) is not statics.old_class_type:
            return compat.to_text(type.__repr__(value))
        return u"<class '{}'>".format(statics.qualified_name(value))

    def _write_module(self, value, room):
        names = namespace_of_instance(value) or {}
        parts = [u"module " + self._write(names.get("__name__"), room)]
        if type(names.get("__file__")) in (str, _text_type):
            parts.append(u"from " + self._write(names["__file__"], room))
        return u"<{}>".format(u" ".join(parts))

    def _write_method(self, value, room):
        function = value.__func__
        name = statics.class_name(type(function))
        if type(function) is statics.function_type:
            name = compat.to_text(getattr(function, "__qualname__", function.__name__))
        if value.__self__ is None:
            return u"<unbound method {}>".format(name)
        return u"<bound method {} of {}>".format(name, self._write(value.__self__, room))

    def _write_old_instance(self, value, room):
        try:
            statics._find_in_old_class(value.__class__, "__repr__")
        except LookupError:
            if "__repr__" not in value.__dict__:
                return self._write_default(value, room)
        return self._write_by_program(value, room)

    def _write_by_program(self, value, room):
        if type(value) in _harmless_types:
            return _cut(compat.to_text(_repr(value)), self._limits.string)
        if self._limiter is None:
            self.has_skipped = self.has_skipped or not self._path
            return _default_text(value)
        try:
            return _cut(self._limiter.call(lambda: _text_of_repr(value)), self._limits.string)
        except evaluate.tTooSlow:
            return self.slow_text(value)
        except BaseException:
            return self._failed(value, evaluate.describe_error(self._call))


def _hex(value):
    return hex(value).rstrip("L")


def _cut(text, limit):
    if len(text) <= limit:
        return text
    return u"{}{} ({} characters)".format(text[:limit], _clipped, len(text))


def _text_of_repr(value):
    text = _repr(value)
    if isinstance(text, _bytes_type):
        return _bytes_type.decode(text, "utf-8", "replace")
    return _text_type.__getitem__(text, slice(None))  # not of the program's own kind of text


def _object_name(value):
    return statics.type_name(value) + u" object"


def _default_text(value):
    """As object.__repr__ has it."""
    return u"<{} object at 0x{:x}>".format(
        statics.qualified_name(statics.class_of(value)), id(value))


def whole_text(value, in_hex=False):
    """repr(value) to its end, for the clipboard; within kFullSeconds."""
    kind = type(value)
    if kind in _whole_types and (in_hex or kind.bit_length(value) > kWholeBits):
        return compat.to_text(_hex(value))
    if kind in _whole_types:
        return _decimal_text(value)
    try:
        return evaluate.call_with_limit(lambda: _text_of_repr(value), kFullSeconds)
    except evaluate.tTooSlow:
        return u"<{}: repr takes too long>".format(_object_name(value))
    except BaseException:
        return u"<{}: repr failed: {}>".format(_object_name(value), evaluate.describe_error())


def _decimal_text(value):
    try:
        return compat.to_text(_repr(value)).rstrip(u"L")
    except ValueError:  # the interpreter's limit to the number of digits
        return compat.to_text(_hex(value))


_deque = collections.deque
_deque_maxlen = (
    _deque.__dict__["maxlen"].__get__ if "maxlen" in _deque.__dict__ else lambda value: None)
_default_factory = collections.defaultdict.__dict__["default_factory"].__get__
_array_code = array.array.__dict__["typecode"].__get__

_writers = {
    int: tRenderer._write_whole,
    _whole_types[1]: tRenderer._write_whole,
    bool: tRenderer._write_plain,
    float: tRenderer._write_plain,
    complex: tRenderer._write_plain,
    type(None): tRenderer._write_plain,
    _bytes_type: tRenderer._write_bytes,
    _text_type: tRenderer._write_text,
    statics.method_type: tRenderer._write_method,
    statics.module_type: tRenderer._write_module,
    array.array: tRenderer._write_array,
}
if statics.old_class_type is not None:
    _writers[statics.old_class_type] = tRenderer._write_class
for _view in _view_types:
    _writers[_view] = tRenderer._write_view

# Subclasses that have left __repr__ as it was look as the base does.
_writers_by_repr = {}
for _kind, _write in (
        (list, tRenderer._write_list), (tuple, tRenderer._write_tuple),
        (dict, tRenderer._write_dict), (set, tRenderer._write_set),
        (frozenset, tRenderer._write_set), (_deque, tRenderer._write_deque),
        (bytearray, tRenderer._write_bytearray), (int, tRenderer._write_whole),
        (_whole_types[1], tRenderer._write_whole), (_text_type, tRenderer._write_text),
        (_bytes_type, tRenderer._write_bytes), (object, tRenderer._write_default),
        (type, tRenderer._write_class), (array.array, tRenderer._write_array),
        (collections.defaultdict, tRenderer._write_default_dict),
        (statics.kOrderedDict, tRenderer._write_ordered_dict)):
    if _kind is not None and "__repr__" in _kind.__dict__:
        _writers_by_repr[id(_kind.__dict__["__repr__"])] = _write


def _writer_of_generated(kind, found):
    """For a __repr__ that the library has made: what it would do."""
    if type(found) is not statics.function_type:
        return None
    if _is_enum(kind):
        return _write_enum
    if _is_generated(found, "namedtuple") and find_in_class(kind, "_fields")[0] is not kMissing:
        return lambda renderer, value, room: renderer._write_fields(value,
                                                                    _fields_of_tuple(value), room)
    fields, owner = find_in_class(kind, "__dataclass_fields__")
    if type(fields) is dict and _is_generated(found, "dataclass"):
        return lambda renderer, value, room: renderer._write_fields(
            value, _fields_of_dataclass(value, fields), room)
    return None


def _is_generated(function, what):
    name = function.__code__.co_filename
    if what == "dataclass":
        return name.endswith(("dataclasses.py", "reprlib.py"))
    return name.endswith("collections/__init__.py") or (
        function.__code__.co_name == "__repr__" and name in ("<string>",)
        or name.startswith("<namedtuple"))


def _fields_of_tuple(value):
    names = find_in_class(type(value), "_fields")[0]
    if type(names) is not tuple:
        return []
    return list(zip(names, tuple.__getitem__(value, slice(None))))


def _fields_of_dataclass(value, fields):
    result = []
    for name, field in list(fields.items()):
        try:
            if statics.find_attribute(field, "repr") is True:
                result.append((name, statics.find_attribute(value, name)))
        except LookupError:
            pass
    return result


def _is_enum(kind):
    module = find_in_class(kind, "__repr__")[1]
    return (statics.module_of_class(module) == "enum"
            and find_in_class(kind, "_member_map_")[0] is not kMissing)


def _write_enum(renderer, value, room):
    names = namespace_of_instance(value) or {}
    text = renderer._write(names.get("_value_"), room)
    return u"<{}.{}: {}>".format(
        statics.type_name(value), compat.to_text(names.get("_name_") or "?"), text)
