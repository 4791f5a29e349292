"""Looking at objects without running one line of the program's code.

Attributes are found as the interpreter finds them, but by its own types' methods: no __getattr__,
no __class__ that lies, no property, no __dir__, no __iter__ of a subclass.
"""
from __future__ import absolute_import, division, print_function

import itertools
import types

from tdbg import compat

kMissing = object()

member_type = types.MemberDescriptorType
getset_type = types.GetSetDescriptorType
function_type = types.FunctionType
builtin_type = types.BuiltinFunctionType
method_type = types.MethodType
module_type = types.ModuleType
code_type = types.CodeType
wrapper_types = (type(object.__init__), type(object().__str__), type(str.join),
                 type(dict.__dict__["fromkeys"]))
old_class_type = getattr(types, "ClassType", None)  # of version 2
old_instance_type = getattr(types, "InstanceType", None)

# Values of classes that are no attributes of their instances.
kMethodTypes = (function_type, builtin_type, classmethod, staticmethod) + wrapper_types

# Modules whose native getters only read memory.
kTrustedModules = frozenset((
    "builtins", "__builtin__", "exceptions", "types", "datetime", "decimal", "_decimal",
    "re", "_sre", "collections", "_collections", "functools", "_functools", "itertools",
    "weakref", "_weakref", "array", "uuid", "struct", "_struct"))
kShownSpecial = frozenset((
    "__cause__", "__context__", "__traceback__", "__func__", "__self__", "__closure__",
    "__defaults__", "__kwdefaults__", "__code__", "__notes__"))

_get_mro = type.__dict__["__mro__"].__get__
_dict_of = type.__dict__["__dict__"].__get__
_name_of = type.__dict__["__name__"].__get__
_module_of = type.__dict__["__module__"].__get__
_qualname_of = (
    type.__dict__["__qualname__"].__get__ if "__qualname__" in type.__dict__ else _name_of)
_default_getattribute = object.__dict__["__getattribute__"]
_default_getattributes = (
    _default_getattribute, module_type.__dict__.get("__getattribute__"),
    type.__dict__["__getattribute__"], function_type.__dict__.get("__getattribute__"))

_dict_items = dict.iteritems if compat.PY2 else dict.items
_islice = itertools.islice


def mro_of(kind):
    """The classes in whose namespaces attributes are looked up."""
    return _get_mro(kind) or (kind, object)  # 2.7 has native types that are not finished


_mro_of = mro_of


def is_kind_of(kind, base):
    """issubclass() for a type of a value; nothing of the program is asked."""
    return any(entry is base for entry in _mro_of(kind))


def namespace_of(kind):
    """The dict of a class, read-only."""
    if type(kind) is old_class_type:
        return kind.__dict__
    return _dict_of(kind) or {}  # a native type that is not finished has none


def find_in_class(kind, name):
    """(what the class or one of its bases has under the name, that class), or (kMissing, None)."""
    for base in _mro_of(kind):
        names = namespace_of(base)
        if name in names:
            return names[name], base
    return kMissing, None


def class_of(value):
    """Class of a value, the instance's own one for old-style classes."""
    kind = type(value)
    return value.__class__ if kind is old_instance_type else kind


def type_name(value):
    """Name of a value's type: "dict", "Point", "module.Point" is for qualified_name()."""
    return class_name(class_of(value))


def class_name(kind):
    try:
        if type(kind) is old_class_type:
            return compat.to_text(kind.__name__)
        return compat.to_text(_name_of(kind))
    except Exception:
        return u"object"


def qualified_name(kind):
    """Name with module and enclosing classes, as repr() tells it."""
    try:
        if type(kind) is old_class_type:
            return compat.to_text(kind.__module__) + u"." + compat.to_text(kind.__name__)
        module = _module_of(kind)
        name = compat.to_text(_qualname_of(kind))
        if not isinstance(module, compat.string_types) or module in ("builtins", "__builtin__"):
            return name
        return compat.to_text(module) + u"." + name
    except Exception:
        return class_name(kind)


def module_of_class(kind):
    try:
        return compat.to_text(_module_of(kind))
    except Exception:
        return u""


def namespace_of_instance(value):
    """The __dict__ of an instance or a module: a dict of the program; None where there is none."""
    kind = type(value)
    if kind is old_instance_type:
        return value.__dict__
    for base in _mro_of(kind):
        found = namespace_of(base).get("__dict__", kMissing)
        if found is kMissing:
            continue
        if type(found) not in (getset_type, member_type):
            return None  # the class has something of its own by that name: look no further
        if base is type:
            return None
        try:
            names = found.__get__(value, kind)
        except Exception:
            return None
        return names if is_kind_of(type(names), dict) else None
    return None


def descriptors_of(kind):
    """[(name, descriptor, class that has it)] of what instances have by way of their class:
    members (__slots__), native getters, properties and the like, but no methods."""
    found, seen = [], set()
    for base in _mro_of(kind):
        for name, value in sorted_items(namespace_of(base)):
            if name in seen:
                continue
            seen.add(name)
            value_kind = type(value)
            if value_kind in (member_type, getset_type) or is_property(value):
                found.append((name, value, base))
    return found


def sorted_items(names):
    """[(name, value)] of a namespace whose names are texts, in order of definition."""
    items = [(name, names[name]) for name in list(names) if type(name) is str]
    return sorted(items, key=_first) if compat.PY2 else items


def _first(pair):
    return pair[0]


def is_property(value):
    """Whether an attribute of a class computes, in Python, an attribute of its instances."""
    kind = type(value)
    if kind is property:
        return True
    if kind in kMethodTypes or kind in (member_type, getset_type, type, old_class_type):
        return False
    if find_in_class(kind, "__get__")[0] is kMissing:
        return False
    return not is_kind_of(kind, type) and not any(is_kind_of(kind, base) for base in kMethodTypes)


def is_data_descriptor(value):
    kind = type(value)
    return (find_in_class(kind, "__set__")[0] is not kMissing
            or find_in_class(kind, "__delete__")[0] is not kMissing)


def has_own_lookup(kind):
    """Whether attribute access of the instances runs code of the program first."""
    if kind is old_instance_type:
        return False
    return not any(find_in_class(kind, "__getattribute__")[0] is known
                   for known in _default_getattributes)


def is_trusted_getter(owner):
    """Whether a native getter of this class only reads memory."""
    return module_of_class(owner) in kTrustedModules


def find_attribute(value, name):
    """The attribute without running code of the program; LookupError where that cannot be."""
    kind = type(value)
    if kind is old_class_type:
        return _find_in_old_class(value, name)
    if kind is old_instance_type:
        return _find_in_old_instance(value, name)
    if is_kind_of(kind, type):
        return _find_in_class_object(value, name)
    if has_own_lookup(kind):
        raise LookupError("looking up attributes runs code of the program")
    in_class, owner = find_in_class(kind, name)
    if type(in_class) is member_type or (
            type(in_class) is getset_type and (is_trusted_getter(owner) or name == "__dict__")):
        return in_class.__get__(value, kind)
    if in_class is not kMissing and is_data_descriptor(in_class):
        raise LookupError("a property")
    names = namespace_of_instance(value)
    if names is not None and name in names:
        return names[name]
    if in_class is kMissing:
        raise LookupError("no such attribute")
    return _bind(in_class, value, kind)


def _bind(found, value, kind):
    """What getattr() makes of an attribute of the class."""
    if type(found) is function_type:
        return method_type(found, value, kind) if compat.PY2 else method_type(found, value)
    if type(found) is staticmethod or type(found) in wrapper_types:
        return found.__get__(value, kind)
    if type(found) is classmethod:
        inner = found.__get__(value, kind)
        return inner
    if find_in_class(type(found), "__get__")[0] is not kMissing and type(found) is not builtin_type:
        raise LookupError("a property")
    return found


def _find_in_class_object(kind, name):
    meta = type(kind)
    if has_own_lookup(meta):
        raise LookupError("looking up attributes runs code of the program")
    in_meta, _ = find_in_class(meta, name)
    if in_meta is not kMissing and is_data_descriptor(in_meta):
        if type(in_meta) in (getset_type, member_type):
            return in_meta.__get__(kind, meta)
        raise LookupError("a property")
    found, _ = find_in_class(kind, name)
    if found is kMissing:
        if in_meta is kMissing:
            raise LookupError("no such attribute")
        return _bind(in_meta, kind, meta)
    if type(found) in (function_type, staticmethod, classmethod) + wrapper_types:
        return found.__get__(None, kind)
    if type(found) is property or type(found) in (getset_type, member_type):
        return found
    if find_in_class(type(found), "__get__")[0] is not kMissing and type(found) is not builtin_type:
        raise LookupError("a property")
    return found


def _find_in_old_class(kind, name):
    pending = [kind]
    while pending:
        base = pending.pop(0)
        if name in base.__dict__:
            return base.__dict__[name]
        pending[:0] = base.__bases__
    raise LookupError("no such attribute")


def _find_in_old_instance(value, name):
    if name in value.__dict__:
        return value.__dict__[name]
    found = _find_in_old_class(value.__class__, name)
    if type(found) is function_type:
        return method_type(found, value, value.__class__)
    if find_in_class(type(found), "__get__")[0] is not kMissing:
        raise LookupError("a property")
    return found


def attribute_names(value):
    """Names that `value.` can be completed with; without asking the object."""
    names = set()
    own = namespace_of_instance(value)
    if own is not None:
        names.update(name for name in list(own) if isinstance(name, compat.string_types))
    classes = []
    if type(value) is old_instance_type:
        classes.append(value.__class__)
    elif type(value) is old_class_type or is_kind_of(type(value), type):
        classes.append(value)
    classes.append(type(value))
    for kind in classes:
        for base in _old_mro(kind) if type(kind) is old_class_type else _mro_of(kind):
            names.update(name for name in list(namespace_of(base)) if type(name) is str)
    return names


def _old_mro(kind):
    found = [kind]
    for base in kind.__bases__:
        found.extend(_old_mro(base))
    return found


# --- contents of containers -------------------------------------------------------------------


def dict_items(value, start=0, stop=None):
    """[(key, value)] of a dict or an instance of a subclass, some of them."""
    if kOrderedDict is not None and is_kind_of(type(value), kOrderedDict):
        return _ordered_items(value)[start:stop]
    return list(_islice(_dict_items(value), start, stop))


def _ordered_items(value):
    """In the order of an OrderedDict; asking it for items would hash the keys."""
    items = list(_dict_items(value))
    if len(items) > kMostReordered:
        return items
    places = dict((id(key), place) for place, key in enumerate(kOrderedDict.__iter__(value)))
    return sorted(items, key=lambda item: places.get(id(item[0]), 0))


kMostReordered = 100000


def _ordered_dict():
    try:
        if compat.PY2:
            from collections import OrderedDict
        else:
            from _collections import OrderedDict
        return OrderedDict
    except ImportError:
        return None


kOrderedDict = _ordered_dict()
