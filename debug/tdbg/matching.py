"""What `except` and `with` name, and whether that matches: without running code of the program.

Classes are compared by identity: == and isinstance() may run code of the program.
"""
from __future__ import absolute_import, division, print_function

import sys
import types

from tdbg import compat
from tdbg.codeplans import decode, opname

_kMaxCodes = 4096  # code objects remembered

_ModuleType = types.ModuleType
_OldStyleClass = getattr(types, "ClassType", Ellipsis)
mro_of = type.__dict__["__mro__"].__get__
dict_of_type = type.__dict__["__dict__"].__get__
_dict_of_module = _ModuleType.__dict__["__dict__"].__get__
_BaseException = BaseException
Group = getattr(compat.builtins, "BaseExceptionGroup", None)
_members_of = Group.__dict__["exceptions"].__get__ if Group else None


def is_type(value):
    kind = type(value)
    return kind is type or is_one_of(type, mro_of(kind))


def is_one_of(kind, kinds):
    for item in kinds:
        if item is kind:
            return True
    return False


def derives(kind, base):
    """Whether the class is or derives from the other, as `except` sees it."""
    if is_type(kind):
        return is_one_of(base, mro_of(kind))
    if kind is base:
        return True  # an old-style class of version 2
    return any(derives(parent, base) for parent in getattr(kind, "__bases__", ()))


def _look_up(frame, kind, name):
    """Value of a name in the frame; LookupError."""
    if kind != "global":
        places = frame.f_locals
        if name in places:
            return places[name]
        if kind == "local":
            raise LookupError(name)
    if name in frame.f_globals:
        return frame.f_globals[name]
    return frame.f_builtins[name]


def _attribute(value, name):
    """What the attribute of a module or class is, where nothing but a dictionary decides that."""
    if type(value) is _ModuleType:
        return _dict_of_module(value)[name]
    if type(value) is type:
        for parent in mro_of(value):
            if name in dict_of_type(parent):
                return dict_of_type(parent)[name]
    raise LookupError(name)


def evaluate(frame, operations):
    """Value of an `except` expression; LookupError when it is not to be had."""
    stack = []
    for what, arg in operations:
        if what == "attr":
            stack[-1] = _attribute(stack[-1], arg)
        elif what == "tuple":
            parts = stack[len(stack) - arg:]
            del stack[len(stack) - arg:]
            stack.append(tuple(parts))
        elif what == "const":
            stack.append(arg)
        else:
            stack.append(_look_up(frame, what, arg))
    return stack[0]


def matches(frame, operations, kind):
    """Whether the clause catches the exception: True, False, or None for perhaps."""
    if operations is None:
        return None
    try:
        if len(operations) == 1 and operations[0][0] != "const":
            wanted = _look_up(frame, *operations[0])
        else:
            wanted = evaluate(frame, operations)
    except (LookupError, AttributeError):
        return None
    return _matches_value(wanted, kind)


def _matches_value(wanted, kind):
    if derives(kind, wanted):
        return True if wanted is not object else None
    if is_type(wanted):
        if not is_one_of(_BaseException, mro_of(wanted)):
            return None  # an error of its own, or ignored
        # Version 2 asks the class's metaclass.
        return None if compat.PY2 and type(wanted) is not type else False
    if is_one_of(tuple, mro_of(type(wanted))):
        answers = [_matches_value(part, kind) for part in tuple.__iter__(wanted)]
        return True if True in answers else None if None in answers else False
    return False if type(wanted) is _OldStyleClass else None


def lets_pass(frame, manager):
    """Whether the manager of the `with` block never ends an exception, as far as is known."""
    if manager is None:
        return False
    operations, is_called = manager
    try:
        value = evaluate(frame, operations)
    except (LookupError, AttributeError):
        return False
    if not is_called:
        value = type(value)
    elif any(value is function for function in _kMakers):
        return True
    if not is_type(value) or (is_called and type(value) is not type):
        return False
    for parent in mro_of(value):
        names = dict_of_type(parent)
        if is_called and type(names.get("__new__")) is staticmethod:
            return False  # may make anything
        if "__exit__" in names:
            method = names["__exit__"]
            if type(method) is types.FunctionType:
                return _returns_nothing(method.__code__)
            return is_one_of(parent, _kPassing)
    return False


_quiet_codes = {}


def _returns_nothing(code):
    """Whether all that the code returns is None or False, written down as such."""
    known = _quiet_codes.get(id(code))
    if known is None or known[0] is not code:
        if len(_quiet_codes) > _kMaxCodes:
            _quiet_codes.clear()
        known = _quiet_codes[id(code)] = (code, _find_returns(code))
    return known[1]


def _find_returns(code):
    if code.co_flags & _kGeneratorFlags:
        return False
    before = None
    for _, _, op, arg in decode(code.co_code):
        name = opname[op]
        value = True
        if name == "RETURN_CONST":
            value = code.co_consts[arg]
        elif name == "RETURN_VALUE" and before is not None and before[0] == "LOAD_CONST":
            value = code.co_consts[before[1]]
        elif name == "RETURN_VALUE" and before == ("LOAD_GLOBAL", "False"):
            value = False  # version 2 has no constant for it
        elif name != "RETURN_VALUE":
            value = None
        if value is not None and value is not False:
            return False
        before = (name, code.co_names[arg]) if compat.PY2 and name == "LOAD_GLOBAL" else (name, arg)
    return True


_kGeneratorFlags = 0x20 | 0x80 | 0x200


def _passing_types():
    """Types of the interpreter whose __exit__ only closes or releases."""
    found = [type(compat.allocate_lock())]
    for module, name in (("_io", "_IOBase"), ("_thread", "RLock")):
        kind = getattr(sys.modules.get(module), name, None)
        if isinstance(kind, type):
            found.append(kind)
    if compat.PY2:
        found.append(compat.builtins.file)
    return tuple(found)


_kPassing = _passing_types()
# Functions that make such objects.
_kMakers = (compat.allocate_lock,) + tuple(
    getattr(module, "open") for module in (compat.builtins, sys.modules.get("_io")) if module)


def leaves_of(group):
    """Exceptions in a group, and in the groups in it."""
    found, pending = [], [group]
    while pending:
        value = pending.pop()
        if is_one_of(Group, mro_of(type(value))):
            pending.extend(_members_of(value))
        else:
            found.append(value)
    return found
