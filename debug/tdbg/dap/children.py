"""What a value consists of: items, entries, attributes, each with the expression that yields it.

Nothing here runs code of the program but the getters of lazy children and the setters, which the
caller runs within a limit.
"""
from __future__ import absolute_import, division, print_function

import array
import operator

from tdbg import compat
from tdbg.dap import statics, values
from tdbg.dap.statics import find_in_class, is_kind_of, kMissing, namespace_of_instance

kData, kProperty, kMethod, kClass, kVirtual = "data", "property", "method", "class", "virtual"
kPublic, kPrivate, kInternal = "public", "private", "internal"
kMostLiteral = 200  # characters of a key that is written out in an expression

_islice = values._islice
_no_children = frozenset(
    [int, float, complex, bool, type(None), bytes, compat.text_type, type(Ellipsis),
     type(NotImplemented), type(1 << 80), statics.member_type, statics.getset_type]
    + list(statics.wrapper_types) + [statics.builtin_type])
_proxy_type = type(type.__dict__["__dict__"].__get__(object)) if not compat.PY2 else None
_cell_type = type((lambda value: lambda: value)(0).__closure__[0])


class tChild(object):
    """One child.

    name     as shown; unique among its siblings unless the program is odd
    value    the object; for a lazy child nothing yet
    get      lazy: function() that computes the value with code of the program; else None
    access   (before, after): the expression is before + the parent's + after; None: there is none
    set      function(new), or None where it cannot be changed
    kind, visibility    constants above
    note     for a lazy child: what computes it
    """

    __slots__ = ("name", "value", "get", "access", "set", "kind", "visibility", "note")

    def __init__(self, name, value=None, access=None, set=None, kind=None, get=None,
                 visibility=None, note=u""):
        self.name, self.value, self.get = name, value, get
        self.access, self.set = access, set
        self.kind = kind or _kind_of_value(value)
        self.visibility = visibility or kPublic
        self.note = note

    def expression(self, parent):
        """The child's expression for its parent's, or None."""
        if parent is None or self.access is None:
            return None
        return self.access[0] + parent + self.access[1]


def _kind_of_value(value):
    kind = type(value)
    if kind in (statics.function_type, statics.method_type, statics.builtin_type):
        return kMethod
    if kind is statics.old_class_type or is_kind_of(kind, type):
        return kClass
    return kData


class tChildren(object):
    """indexed_count: how many children have numbers; indexed(start, stop) -> [tChild], within
    those; named() -> [tChild], in the order to show."""

    __slots__ = ("value", "indexed_count")

    def __init__(self, value, indexed_count=0):
        self.value, self.indexed_count = value, indexed_count

    def indexed(self, start, stop):
        return []

    def named(self):
        return attributes_of(self.value)

    def has_named(self):
        return _is_of_program(type(self.value)) or bool(self.named())


def children_of(value):
    """tChildren of a value, or None where there is nothing to look into."""
    kind = type(value)
    if kind in _no_children:
        return None
    for base in statics.mro_of(kind):
        make = _makers.get(base)
        if make is not None:
            found = make(value)
            break
    else:
        found = _ndarray_children(value) if _is_ndarray(kind) else tChildren(value)
    return found if found is not None and (found.indexed_count or found.has_named()) else None


# --- items ------------------------------------------------------------------------------------


class tItems(tChildren):
    """Of a sequence.  base: the interpreter's type that keeps the items."""

    __slots__ = ("base", "_get", "_suffix")

    def __init__(self, value, base, length, get, is_mutable=True):
        tChildren.__init__(self, value, length)
        self.base, self._get = base, get
        self._suffix = is_mutable

    def indexed(self, start, stop):
        return [self._child(start + place, item)
                for place, item in enumerate(self._get(self.value, start, stop))]

    def _child(self, index, item):
        text = u"{}".format(index)
        access = (u"", u"[" + text + u"]")
        if not _is_inherited(self.value, self.base, "__getitem__"):
            access = (_name_of_base(self.base) + u".__getitem__(", u", " + text + u")")
        store = None
        if self._suffix:
            store = _item_setter(self.value, self.base, index)
        return tChild(text, item, access, store)

    def named(self):
        return attributes_of(self.value, self.base)

    def has_named(self):
        return type(self.value) is not self.base


class tListed(tItems):
    """Of something that has an order but no items by number: access through a list of all."""

    __slots__ = ()

    def _child(self, index, item):
        return tChild(u"{}".format(index), item, _access_in_list(u"", index))


def _access_in_list(method, index):
    if compat.PY2:
        return (u"list(", method + u")[{}]".format(index))
    return (u"[*", method + u"][{}]".format(index))


def _name_of_base(base):
    return compat.to_text(base.__name__)


def _is_inherited(value, base, name):
    if type(value) is base:
        return True
    return find_in_class(type(value), name)[0] is find_in_class(base, name)[0]


def _item_setter(value, base, key):
    if _is_inherited(value, base, "__setitem__"):
        return lambda new: base.__setitem__(value, key, new)
    return lambda new: operator.setitem(value, key, new)


def _slice_of(base):
    return lambda value, start, stop: base.__getitem__(value, slice(start, stop))


def _islice_of(base):
    return lambda value, start, stop: list(_islice(base.__iter__(value), start, stop))


def _list_children(value):
    return tItems(value, list, list.__len__(value), _slice_of(list))


class tFields(tChildren):
    """Of what namedtuple() makes."""

    __slots__ = ()

    def named(self):
        fields = values._fields_of_tuple(self.value)
        found = [tChild(compat.to_text(name), item, (u"", u"[{}]".format(index)))
                 for index, (name, item) in enumerate(fields)]
        known = set(name for name, _ in fields)
        return found + [child for child in attributes_of(self.value, tuple)
                        if child.name not in known]


def _tuple_children(value):
    if type(value) is not tuple:
        names, _ = find_in_class(type(value), "_fields")
        if type(names) is tuple and len(names) == tuple.__len__(value) and all(
                type(name) is str for name in names):
            return tFields(value)
    return tItems(value, tuple, tuple.__len__(value), _slice_of(tuple), False)


def _set_children(value):
    base = set if is_kind_of(type(value), set) else frozenset
    return tListed(value, base, base.__len__(value), _islice_of(base))


def _deque_children(value):
    base = values._deque
    return tItems(value, base, base.__len__(value), _islice_of(base))


def _array_children(value):
    base = array.array
    if values._array_code(value) == "u" and compat.PY2:
        return tItems(value, base, base.__len__(value), _slice_of(base))
    return tItems(value, base, base.__len__(value), lambda found, start, stop: list(
        base.__getitem__(found, slice(start, stop))))


def _bytearray_children(value):
    base = bytearray
    return tItems(value, base, base.__len__(value), lambda found, start, stop: list(
        base.__getitem__(found, slice(start, stop))))


def _range_children(value):
    base = type(value)
    try:
        length = base.__len__(value)
    except OverflowError:
        return tChildren(value)
    if compat.PY2:  # xrange has no slices
        get = lambda found, start, stop: [  # noqa: E731
            found[index] for index in range(start, stop)]
    else:
        get = lambda found, start, stop: list(  # noqa: E731
            base.__getitem__(found, slice(start, stop)))
    return tItems(value, base, length, get, False)


def _memoryview_children(value):
    try:
        if value.ndim != 1:
            return tChildren(value)
        length = len(value)
        value[0:0].tolist()
    except Exception:  # released, or of a format that has no numbers
        return tChildren(value)
    found = tItems(value, memoryview, length, lambda view, start, stop: view[start:stop].tolist(),
                   not value.readonly)
    return found


def _view_children(value):
    base = type(value)
    return tListed(value, base, base.__len__(value), _islice_of(base))


def _is_ndarray(kind):
    """By name: numpy is never imported for this."""
    return any(base.__name__ == "ndarray" and statics.module_of_class(base) == "numpy"
               for base in statics.mro_of(kind))


def _ndarray_children(value):
    """Of an array of numpy, whose methods are native."""
    kind = type(value)
    try:
        length = kind.__len__(value)
    except Exception:  # no dimensions
        return tChildren(value)
    return tItems(value, kind, length, lambda found, start, stop: [
        kind.__getitem__(found, index) for index in range(start, stop)])


# --- entries of dicts -------------------------------------------------------------------------


class tEntries(tChildren):
    """Of a dict.  Few of them are names; many have numbers, so that a client asks for some."""

    __slots__ = ()

    def __init__(self, value):
        length = dict.__len__(value)
        tChildren.__init__(self, value, length if length > values.kItems else 0)

    def indexed(self, start, stop):
        return self._entries(start, stop)

    def named(self):
        found = [] if self.indexed_count else self._entries(0, values.kItems)
        if type(self.value) in _dict_bases:
            return found
        return found + attributes_of(self.value, *_dict_bases)

    def has_named(self):
        return bool(dict.__len__(self.value)) or type(self.value) not in _dict_bases

    def _entries(self, start, stop):
        entries = statics.dict_items(self.value, start, stop)
        return [self._child(start + place, key, item)
                for place, (key, item) in enumerate(entries)]

    def _child(self, index, key, item):
        literal = literal_of(key)
        if literal is None:
            access = _access_in_list(u".values()", index)
            if type(self.value) not in _dict_bases:
                before, after = _access_in_list(u")", index)
                access = (before + u"dict.values(", after)
        elif _is_inherited(self.value, dict, "__getitem__"):
            access = (u"", u"[" + literal + u"]")
        else:
            access = (u"dict.__getitem__(", u", " + literal + u")")
        return tEntry(key, item, access, _item_setter(self.value, dict, key))


class tEntry(tChild):
    """Entry of a dict; the name waits for somebody who can make a text of any key."""

    __slots__ = ("key",)

    def __init__(self, key, value, access, set):
        tChild.__init__(self, None, value, access, set)
        self.key = key


_dict_bases = tuple(
    kind for kind in (dict, statics.kOrderedDict, values.collections.defaultdict)
    if kind is not None)


def literal_of(key):
    """Text of an expression that is equal to the key, or None."""
    kind = type(key)
    if kind in (bytes, compat.text_type):
        return compat.to_text(repr(key)) if len(key) <= kMostLiteral else None
    if kind in (bool, type(None)):
        return compat.to_text(repr(key))
    if kind in values._whole_types:
        return compat.to_text(repr(key)) if kind.bit_length(key) <= kMostLiteral else None
    if kind is float:
        return compat.to_text(repr(key)) if not (
            values.math.isnan(key) or values.math.isinf(key)) else None
    if kind is tuple and len(key) <= kMostLiteral:
        parts = [literal_of(item) for item in key]
        if None in parts or sum(map(len, parts)) > kMostLiteral:
            return None
        return u"({}{})".format(u", ".join(parts), u"," if len(parts) == 1 else u"")
    return None


# --- attributes -------------------------------------------------------------------------------


def attributes_of(value, *bases):
    """[tChild] of an object's attributes: its own, public ones first, then what its class
    computes, then the class.  bases: types whose native getters are not shown."""
    kind = type(value)
    own = namespace_of_instance(value)
    plain, computed = [], []
    descriptors = [] if kind is statics.old_instance_type else statics.descriptors_of(kind)
    hidden = set()
    for name, descriptor, owner in descriptors:
        if owner in bases or owner is object:
            continue
        if statics.is_data_descriptor(descriptor):
            hidden.add(name)
        elif own is not None and name in own:
            continue  # a property that is computed once, and has been
        child = _described_child(value, kind, name, descriptor, owner)
        if child is not None:
            (computed if child.get is not None else plain).append(child)
    if own is not None:
        plain.extend(_own_children(value, own, hidden))
    plain.sort(key=_rank)  # stable
    computed.sort(key=_rank)
    return plain + computed + _class_child(value, kind)


def _rank(child):
    name = child.name
    if name.startswith(u"__") and name.endswith(u"__"):
        return 2
    return 1 if name.startswith(u"_") else 0


def visibility_of(name):
    if name.startswith(u"__") and name.endswith(u"__"):
        return kInternal
    return kPrivate if name.startswith(u"_") else kPublic


def _own_children(value, own, hidden):
    items = statics.dict_items(own)
    if compat.PY2:
        items.sort(key=lambda item: item[0] if isinstance(item[0], compat.string_types) else "")
    for name, item in items:
        kind = type(name)
        if kind is not str and kind is not compat.text_type:
            literal = literal_of(name)
            if literal is not None:
                yield tChild(literal, item, (u"", u".__dict__[" + literal + u"]"),
                             _item_setter(own, dict, name))
            continue
        text = compat.to_text(name)
        if name in hidden or not values.is_identifier(name):
            access = (u"", u".__dict__[" + (literal_of(name) or u"") + u"]")
            yield tChild(text, item, access, _item_setter(own, dict, name))
        else:
            yield _attribute(value, name, item)


def _attribute(value, name, item):
    text = compat.to_text(name)
    return tChild(text, item, _attribute_access(value, text), _attribute_setter(value, name),
                  visibility=visibility_of(text))


def _attribute_access(value, name):
    kind = type(value)
    if kind is not statics.module_type and statics.has_own_lookup(kind):
        return (u"object.__getattribute__(", u", '" + name + u"')")
    return (u"", u"." + name)


def _attribute_setter(value, name):
    return lambda new: setattr(value, name, new)


def _described_child(value, kind, name, descriptor, owner):
    """Of a member, a native getter or a property; None where there is nothing to show."""
    text = compat.to_text(name)
    special = visibility_of(text) == kInternal
    if special and name not in statics.kShownSpecial:
        return None
    is_native = type(descriptor) in (statics.member_type, statics.getset_type)
    if type(descriptor) is statics.member_type or (is_native and statics.is_trusted_getter(owner)):
        try:
            item = descriptor.__get__(value, kind)
        except Exception:
            return None  # a slot that is not set
        if special and item is None:
            return None
        store = _attribute_setter(value, name)
        return tChild(text, item, _attribute_access(value, text), store,
                      visibility=visibility_of(text))
    return tChild(text, access=(u"", u"." + text), set=_attribute_setter(value, name),
                  kind=kProperty, get=lambda: getattr(value, name), visibility=visibility_of(text),
                  note=statics.type_name(descriptor))


def _class_child(value, kind):
    """A way to what instances of a class of the program have in common."""
    if kind is statics.old_instance_type:
        return [tChild(u"(class)", value.__class__, (u"", u".__class__"), kind=kClass)]
    if statics.module_of_class(kind) in statics.kTrustedModules or is_kind_of(kind, type):
        return []
    if kind in (statics.module_type, statics.method_type) or not _is_of_program(kind):
        return []
    return [tChild(u"(class)", kind, (u"type(", u")"), kind=kClass)]


def _is_of_program(kind):
    """Whether a class statement made it: its instances have what a native type has not."""
    return "__module__" in statics.namespace_of(kind)


class tClass(tChildren):
    """Of a class: its own namespace, then the classes above it."""

    __slots__ = ()

    def named(self):
        kind = self.value
        found = []
        simple = type(kind) in (type, statics.old_class_type)
        for name, item in statics.sorted_items(statics.namespace_of(kind)):
            text = compat.to_text(name)
            access = (u"", u"." + text)
            if not simple or not values.is_identifier(name) or _is_descriptor(item):
                access = (u"", u".__dict__[" + literal_of(name) + u"]")
            found.append(tChild(text, item, access, _attribute_setter(kind, name),
                                kind=kMethod if _is_method(item) else None,
                                visibility=visibility_of(text)))
        found.sort(key=_rank)
        bases = kind.__bases__ if type(kind) is statics.old_class_type else _bases_of(kind)
        if bases and bases != (object,):
            found.append(tChild(u"(bases)", bases, (u"", u".__bases__")))
        if not simple:
            found.append(tChild(u"(metaclass)", type(kind), (u"type(", u")")))
        return found


_bases_of = type.__dict__["__bases__"].__get__


def _is_descriptor(item):
    kind = type(item)
    if kind is statics.old_class_type or kind is statics.old_instance_type:
        return False
    return find_in_class(kind, "__get__")[0] is not kMissing


def _is_method(item):
    return type(item) in statics.kMethodTypes


class tProxy(tChildren):
    """Of a read-only view of a mapping, which may be one of the program's."""

    __slots__ = ()

    def named(self):
        view = self.value
        return [tChild(u"(copy)", access=(u"", u".copy()"), kind=kVirtual,
                       get=lambda: _proxy_type.copy(view), note=u"copy of the mapping")]


class tCell(tChildren):
    """Of a variable that functions share."""

    __slots__ = ()

    def named(self):
        cell = self.value
        try:
            content = cell.cell_contents
        except ValueError:  # empty
            return []
        return [tChild(u"cell_contents", content, (u"", u".cell_contents"),
                       lambda new: setattr(cell, "cell_contents", new))]


class tFunction(tChildren):
    """Of a function: its attributes, and the variables of the functions around it."""

    __slots__ = ()

    def named(self):
        function = self.value
        names = function.__code__.co_freevars
        found = []
        for index, (name, cell) in enumerate(zip(names, function.__closure__ or ())):
            try:
                content = cell.cell_contents
            except ValueError:
                continue
            found.append(tChild(
                u"(closure) " + compat.to_text(name), content,
                (u"", u".__closure__[{}].cell_contents".format(index)),
                lambda new, cell=cell: setattr(cell, "cell_contents", new)))
        return found + [child for child in attributes_of(function) if child.name[:5] != u"func_"]


_makers = {
    list: _list_children, tuple: _tuple_children, dict: tEntries, set: _set_children,
    frozenset: _set_children, values._deque: _deque_children, array.array: _array_children,
    bytearray: _bytearray_children, values._range_type: _range_children,
    memoryview: _memoryview_children, type: tClass, statics.function_type: tFunction,
    _cell_type: tCell,
}
if _proxy_type is not None:
    _makers[_proxy_type] = tProxy
if statics.old_class_type is not None:
    _makers[statics.old_class_type] = tClass
for _view in values._view_types:
    _makers[_view] = _view_children
