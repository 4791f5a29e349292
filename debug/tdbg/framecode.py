"""Running expressions and statements as if they stood in a frame of the program.

Code whose functions and comprehensions use variables of the frame is compiled as the body of a
function of its own, in which those variables are free: so they find them, and the module's globals
stay the real ones.  Version 2 has no means for that; there both come as one snapshot.
"""
from __future__ import absolute_import, division, print_function

import __future__
import ast
import itertools
import sys
import textwrap
import types

from tdbg import compat, private, statements, sublanguages, usercode

kFileName = "<debugger>"
kNested = 0x10  # of version 2: every function sees those around it
kOptimized = 0x01
kFunctionName = "debugger_evaluation"

_code_type = types.CodeType
_function_type = types.FunctionType
_scopes = tuple(
    getattr(ast, name) for name in ("FunctionDef", "AsyncFunctionDef", "ClassDef", "Lambda")
    if hasattr(ast, name))
_comprehensions = (ast.ListComp, ast.SetComp, ast.DictComp, ast.GeneratorExp)
_named = getattr(ast, "NamedExpr", ())
_awaits = tuple(
    getattr(ast, name) for name in ("Await", "AsyncFor", "AsyncWith") if hasattr(ast, name))


def _future_flags():
    """Bits of co_flags that a `from __future__ import` leaves behind."""
    flags = 0
    for name in __future__.all_feature_names:
        flags |= getattr(__future__, name).compiler_flag
    return flags & ~kNested


kFutureFlags = _future_flags()


_count_references = sys.getrefcount
# of a frame's dict in forget_snapshot(): the frame's, the variable, the argument
kOwnReferences = 3


class tRefusal(Exception):
    """What was asked for cannot be done here; the text says all."""


class tGlobals(object):
    """Stands for a frame where there is none: the main module's namespace."""

    class f_code(object):
        co_flags = 0
        co_names = co_varnames = co_cellvars = co_freevars = ()

    def __init__(self, names):
        self.f_globals = self.f_locals = names


# --- from text to a tree ----------------------------------------------------------------------


def parse_expression(source, frame):
    """ast.Expression; SyntaxError for what is none."""
    source = source.strip()
    try:
        return _parse(source, frame, "eval")
    except SyntaxError:
        if compat.PY2 or sys.version_info >= (3, 7) or "await" not in source:
            raise
        tree = _parse("async def f(): return (" + source + "\n)", frame, "exec")
        return ast.copy_location(ast.Expression(tree.body[0].body[0].value), tree)


def parse_statements(source, frame):
    """ast.Module of one or more statements, which may all be indented."""
    source = textwrap.dedent(source).strip() + "\n"
    try:
        return _parse(source, frame, "exec")
    except SyntaxError:
        if compat.PY2 or sys.version_info >= (3, 7) or "await" not in source:
            raise
        tree = _parse("async def f():\n" + textwrap.indent(source, " "), frame, "exec")
        tree.body = tree.body[0].body
        return tree


def _parse(source, frame, mode):
    # deliberate: not ast.parse(), whose flags are not the frame's.
    return _compile(source, frame, mode, ast.PyCF_ONLY_AST)


def _compile(source, frame, mode, flags=0):
    with private.quiet():
        return compile(source, kFileName, mode, frame.f_code.co_flags & kFutureFlags | flags, True)


# --- running ----------------------------------------------------------------------------------


def run(tree, frame, core=None, extra=None):
    """The value of an ast.Expression, None for an ast.Module; exceptions are the code's own.

    core   the native module: variables that are assigned are kept
    extra  {name: value} of what can be named beside the frame's variables
    """
    # One fetch: before 3.13, reading f_locals again would overwrite what the code has assigned.
    names = frame.f_locals
    _assign_globals(tree, frame, names)
    _mangle(tree, frame, names)
    _refuse_deletion(tree, frame, names)
    waits = _is_waiting(tree)
    code = None if waits else _compile(tree, frame, _mode_of(tree))
    needs_function = waits or (
        (names is not frame.f_globals or extra) and _functions_need(code, tree, names, extra))
    try:
        if needs_function and not compat.PY2:
            return _run_as_function(tree, frame, names, extra, waits)
        if needs_function:
            return _run_in_snapshot(code, frame, names, extra)
        if compat.kNoLocalsToFast and names is not frame.f_globals or (
                extra and set(code.co_names) & set(extra)):
            known = _tNames(names, extra)
            try:
                return usercode.call(eval, code, frame.f_globals, known)
            finally:
                known.give_new_names()
        return usercode.call(eval, code, frame.f_globals, names)
    finally:
        if core is not None:
            keep_locals(frame, names, core)


def keep_locals(frame, names, core):
    """Bring what was changed in the dict `names`, the frame's f_locals, into the frame."""
    if not (compat.kNoLocalsToFast or names is frame.f_globals or sublanguages.is_view(frame)):
        with private.quiet():  # 3.12 warns when a deleted variable becomes None
            core.PyFrame_LocalsToFast(frame, 1)


def set_local(frame, name, value, core):
    names = frame.f_locals
    names[name] = value
    keep_locals(frame, names, core)


def forget_snapshot(frame):
    """Before 3.13 a frame keeps the dict that f_locals has given, and so every value in it, though
    the function may have let go of them.  Take out what the frame has itself."""
    if compat.kNoLocalsToFast or not getattr(frame.f_code, "co_flags", 0) & kOptimized:
        return
    names = frame.f_locals
    if _count_references(names) > kOwnReferences:
        return  # the program has it from locals()
    code = frame.f_code
    for name in code.co_varnames + code.co_cellvars + code.co_freevars:
        names.pop(name, None)


def _mode_of(tree):
    return "eval" if isinstance(tree, ast.Expression) else "exec"


def _functions_need(code, tree, names, extra):
    """Whether a function or comprehension in the code uses a variable that is not a global."""
    inner = set()
    for item in code.co_consts:
        if isinstance(item, _code_type):
            inner |= _all_names(item)
    if not inner:
        return False
    assigned = _assigned_names(tree)
    return any(name in names or name in assigned or (extra and name in extra) for name in inner)


def _all_names(code):
    found = set(code.co_names)
    for item in code.co_consts:
        if isinstance(item, _code_type):
            found |= _all_names(item)
    return found


class _tNames(dict):
    """A frame's variables and some more, as locals of what is run.

    New names come into the frame at the end: one that is bound and deleted again, as `except ...
    as` does, could not be taken out of it since 3.13.
    """

    def __init__(self, names, extra):
        dict.__init__(self, extra or {})
        self._names, self._new = names, {}

    def __getitem__(self, name):
        if name in self._new:
            return self._new[name]
        try:
            return self._names[name]
        except KeyError:
            return dict.__getitem__(self, name)

    def __setitem__(self, name, value):
        (self._names if name in self._names else self._new)[name] = value

    def __delitem__(self, name):
        if name in self._new:
            del self._new[name]
        else:
            _delete(self._names, name)

    def give_new_names(self):
        for name, value in self._new.items():
            self._names[name] = value


def _delete(names, name):
    try:
        del names[name]
    except (TypeError, ValueError):  # since 3.13, if _refuse_deletion() has let it pass
        names[name] = None


def _refuse_deletion(tree, frame, names):
    if not compat.kNoLocalsToFast or names is frame.f_globals or isinstance(tree, ast.Expression):
        return
    for node, inner in _own_nodes(tree):
        if isinstance(node, ast.Name) and isinstance(node.ctx, ast.Del) and node.id in names:
            raise tRefusal(
                "`{}` cannot be deleted: this version of Python has no way to".format(node.id))


class _tSnapshot(dict):
    """Locals of version 2: what is assigned is also seen by functions, which have a snapshot."""

    def __init__(self, names, snapshot):
        dict.__init__(self, names)
        self._names, self._snapshot = names, snapshot

    def __setitem__(self, name, value):
        dict.__setitem__(self, name, value)
        self._names[name] = self._snapshot[name] = value

    def __delitem__(self, name):
        dict.__delitem__(self, name)
        self._names.pop(name, None)
        self._snapshot.pop(name, None)


def _run_in_snapshot(code, frame, names, extra):
    snapshot = dict(frame.f_globals)
    snapshot.update(extra or {})
    snapshot.update(names)
    before = dict(frame.f_globals)
    try:
        return usercode.call(eval, code, snapshot, _tSnapshot(names, snapshot))
    finally:
        for name in _all_names(code):  # `global x` assigns to the snapshot
            if name not in snapshot or snapshot[name] is before.get(name, code):
                continue
            if name not in names:
                frame.f_globals[name] = snapshot[name]


# --- code as the body of a function (version 3) -------------------------------------------------


def _run_as_function(tree, frame, names, extra, waits):
    is_module = names is frame.f_globals
    assigned = _assigned_names(tree)
    used = set(node.id for node in statements.walk(tree) if isinstance(node, ast.Name)) | assigned
    declared = _declared_names(tree)
    known = set(extra or ()) if is_module else set(extra or ()) | set(names)
    free = sorted((used & known) - declared) if is_module else sorted(
        ((used & known) | assigned) - declared)
    kept = assigned - declared
    code = _compile(_wrap(tree, free, kept, is_module, waits), frame, "exec")
    inner = _find_code(code)
    cells = {}
    for name in inner.co_freevars:
        if not is_module and name in names:
            cells[name] = _make_cell(names[name])
        elif extra and name in extra:
            cells[name] = _make_cell(extra[name])
        else:
            cells[name] = _make_empty_cell()
    function = _function_type(
        inner, frame.f_globals, kFunctionName, None,
        tuple(cells[name] for name in inner.co_freevars))
    try:
        return usercode.call(_wait_for, function()) if waits else usercode.call(function)
    finally:
        for name in sorted(kept & set(cells)):
            _take_back(names, name, cells[name])


def _wrap(tree, free, kept, is_module, waits):
    """Module with a function that has the tree as its body, below one that has the free names."""
    lines = ["def outer():"]
    lines += ["    {} = 0".format(name) for name in free]
    lines += ["    global " + kFunctionName]  # so it is the outermost in names of what is in it
    lines += ["    {}def {}():".format("async " if waits else "", kFunctionName)]
    if kept:
        lines += ["        {} {}".format("global" if is_module else "nonlocal",
                                         ", ".join(sorted(kept)))]
    lines += ["        return 0"]
    module = ast.parse("\n".join(lines))
    function = module.body[0].body[-1]
    if isinstance(tree, ast.Expression):
        function.body[-1].value = tree.body
    else:
        function.body[-1:] = tree.body
    return ast.fix_missing_locations(module)


def _find_code(code):
    pending = [code]
    while pending:
        code = pending.pop()
        if code.co_name == kFunctionName:
            return code
        pending.extend(item for item in code.co_consts if isinstance(item, _code_type))


def _make_cell(value):
    return (lambda: value).__closure__[0]


def _make_empty_cell():
    if False:
        value = None
    return (lambda: value).__closure__[0]  # noqa: F821


def _take_back(names, name, cell):
    try:
        value = cell.cell_contents
    except ValueError:  # deleted, or never assigned
        if name in names:
            _delete(names, name)
        return
    if name not in names or names[name] is not value:
        names[name] = value


def _wait_for(coroutine):
    """Result of a coroutine: in an event loop of its own, if the program knows of such loops."""
    asyncio = sys.modules.get("asyncio")
    running = getattr(asyncio, "_get_running_loop", lambda: None)()
    if running is not None:
        coroutine.close()
        raise tRefusal("await is not possible here: the event loop of this thread is in the "
                       "stopped code")
    if asyncio is not None:
        loop = asyncio.new_event_loop()
        try:
            return loop.run_until_complete(coroutine)
        finally:
            loop.close()
    try:
        coroutine.send(None)
    except StopIteration as end:
        return end.value
    coroutine.close()
    raise tRefusal("await is not possible here: the program has no event loop to wait in")


# --- names in a tree ----------------------------------------------------------------------------


def _own_nodes(tree):
    """Nodes of a tree's own scope; of comprehensions also, for they can assign names outside."""
    pending = [(node, False) for node in ast.iter_child_nodes(tree)]
    while pending:
        node, inner = pending.pop()
        yield node, inner
        if isinstance(node, _scopes):
            children = list(getattr(node, "decorator_list", ())) + list(getattr(node, "bases", ()))
            arguments = getattr(node, "args", None)
            if arguments is not None:
                children += list(arguments.defaults) + [
                    item for item in getattr(arguments, "kw_defaults", ()) if item is not None]
        elif isinstance(node, _comprehensions):
            pending.extend((child, True) for child in ast.iter_child_nodes(node))
            continue
        else:
            children = list(ast.iter_child_nodes(node))
        pending.extend((child, inner) for child in children)


def _assigned_names(tree):
    """Names that the code itself binds or deletes."""
    found = set()
    for node, inner in _own_nodes(tree):
        if _named and isinstance(node, _named):
            found.add(node.target.id)
        if inner:
            continue
        if isinstance(node, ast.Name) and not isinstance(node.ctx, ast.Load):
            found.add(node.id)
        elif isinstance(node, _scopes) and hasattr(node, "name"):
            found.add(node.name)
        elif isinstance(node, ast.alias) and node.name != "*":
            found.add(node.asname or node.name.split(".")[0])
        elif isinstance(node, ast.ExceptHandler) and isinstance(node.name, str):
            found.add(node.name)
        elif type(node).__name__ in ("MatchAs", "MatchStar") and node.name:
            found.add(node.name)
        elif type(node).__name__ == "MatchMapping" and node.rest:
            found.add(node.rest)
    return found


def _declared_names(tree):
    """Names that the code says are global."""
    return set(itertools.chain.from_iterable(
        node.names for node, _ in _own_nodes(tree) if isinstance(node, ast.Global)))


def _is_waiting(tree):
    """Whether the code itself, not a function in it, has an `await`."""
    if not _awaits:
        return False
    return any(
        isinstance(node, _awaits) or (isinstance(node, ast.comprehension) and node.is_async)
        for node, _ in _own_nodes(tree))


def _assign_globals(tree, frame, names):
    """A name that the frame's function knows as a global is assigned there, not made a local."""
    if isinstance(tree, ast.Expression) or names is frame.f_globals:
        return
    code = frame.f_code
    if not hasattr(code, "co_names"):
        return  # code of another language
    own = set(code.co_varnames + code.co_cellvars + code.co_freevars)
    outer = [name for name in sorted(_assigned_names(tree) - own - _declared_names(tree))
             if name in code.co_names and name in frame.f_globals and name not in names]
    if outer:
        node = ast.Global(outer)
        tree.body.insert(0, ast.copy_location(node, tree.body[0]))


def _mangle(tree, frame, names):
    """In a method, `self.__x` means what it means in the class."""
    found = [node for node in statements.walk(tree)
             if isinstance(node, ast.Attribute) and is_private_name(node.attr)]
    if not found:
        return
    owner = owner_of(frame, names)
    for node in found if owner else ():
        node.attr = compat.to_native(mangled(node.attr, owner))


def is_private_name(name):
    return name.startswith("__") and not name.endswith("__")


def mangled(name, owner):
    return "_" + owner.lstrip("_") + name


def owner_of(frame, names):
    """Name of the class that a method's frame belongs to, or None."""
    code = frame.f_code
    if not code.co_varnames[:1] or code.co_varnames[0] not in names:
        return None
    first = names[code.co_varnames[0]]
    kinds = [type(first)] + ([first] if _is_class(type(first)) else [])
    for kind in kinds:
        for base in _mro_of(kind) or ():
            if any(_code_of(item) is code for item in list(base.__dict__.values())):
                return base.__name__
    return None


_mro_of = type.__dict__["__mro__"].__get__


def _is_class(kind):
    return any(base is type for base in _mro_of(kind) or ())


def _code_of(item):
    """Code of what a class statement may make of a function."""
    if type(item) in (classmethod, staticmethod):
        item = item.__get__(0, int)
        item = getattr(item, "__func__", item) if type(item) is types.MethodType else item
    elif type(item) is property:
        item = item.fget
    return item.__code__ if type(item) is _function_type else None


def is_call(tree):
    """Whether an expression is a call, whose result None says nothing."""
    return isinstance(tree.body, (ast.Call,) + _awaits)
