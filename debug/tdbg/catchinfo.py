"""Which functions catch exceptions only to print, log or report them.

An exception that such a function catches has ended somebody's work as surely as one that ends the
program: a test fails, a request is answered with an error, a thread dies.  The core stops in such
a function before its handler runs, when it is told of it (set_exc_catch_info_list, exception
modes 4 and 5).  Known are

  kLibrary    functions of the standard library, by hand: they need no source, and cost nothing
  add_module  functions of any other module, found in its source when it is imported

A handler counts when it catches everything (`except:`, Exception, BaseException), does not raise
on all its ways, and calls one of the functions that report exceptions, or a logger with the
exception's traceback.
"""
from __future__ import absolute_import, division, print_function

import ast
import os
import sys
import zlib

from tdbg import compat

kAny = "*"

_kBroad = frozenset(("Exception", "BaseException", "StandardError"))

# Called by any object, they report the exception being handled.
_kReporters = frozenset((
    "print_exc", "print_exception", "print_last", "format_exc", "excepthook", "unraisablehook",
    "_invoke_excepthook", "call_exception_handler", "handleError", "handle_error", "log_exception",
    "report_callback_exception", "showtraceback", "captureException", "capture_exception"))
# Reporters with arguments only: futures have an exception() without any.
_kLoggers = frozenset(("exception",))
# Reporters when they are given exc_info.
_kLogLevels = frozenset((
    "debug", "info", "warning", "warn", "error", "critical", "fatal", "log", "msg"))

# A source without one of these words has no such handler.
_kWords = tuple(
    [word.encode("ascii") for word in sorted(_kReporters)] + [b".exception(", b"exc_info"])

_kTry = tuple(
    getattr(ast, name) for name in ("Try", "TryStar", "TryExcept") if hasattr(ast, name))
_kFunctions = tuple(
    getattr(ast, name) for name in ("FunctionDef", "AsyncFunctionDef") if hasattr(ast, name))
_kScopes = _kFunctions + (ast.Lambda, ast.ClassDef)
_kOnlyTree = getattr(ast, "PyCF_ONLY_AST", 0x400)
_kMaxSource = 4 << 20  # bytes; larger ones are tables

_compile = compile
_open = open
_ignore_all = ("ignore", None, Warning, None, 0)
_library_folder = os.path.dirname(os.path.realpath(os.__file__))


class ExceptionInfo(object):
    """One function, as the core's set_exc_catch_info_list wants it.

    co_name           name of the function's code
    mod_name          its module's __name__; "*": any
    containing_class  name of the class that contains the function; "*": any, or none
    prints            it prints what reaches it
    parent            only what leaves it counts: its caller, in C, prints
    handlers          lines of the `except` clauses that print; None: all of them
    """

    __slots__ = ("co_name", "mod_name", "containing_class", "prints", "parent", "handlers")

    def __init__(self, co_name, mod_name=kAny, containing_class=kAny, prints=True, parent=False,
                 handlers=None):
        self.co_name, self.mod_name, self.containing_class = co_name, mod_name, containing_class
        self.prints, self.parent, self.handlers = prints, parent, handlers

    def __repr__(self):
        return "ExceptionInfo({})".format(
            ", ".join("{}={!r}".format(name, getattr(self, name)) for name in self.__slots__))

    def __eq__(self, other):
        return isinstance(other, ExceptionInfo) and all(
            getattr(self, name) == getattr(other, name) for name in self.__slots__)

    def __ne__(self, other):
        return not self == other

    __hash__ = None


# --- the standard library -------------------------------------------------------------------

_kServers = "SocketServer" if compat.PY2 else "socketserver"

# (first version, last version, module, class, function, parent)
_kRows = (
    ((2, 6), (2, 7), "threading", kAny, "__bootstrap_inner", 0),
    ((3, 6), (9, 9), "threading", kAny, "_bootstrap_inner", 0),
    ((3, 6), (9, 9), "asyncio.events", kAny, "_run", 0),  # callbacks of a loop
    ((3, 6), (9, 9), "concurrent.futures._base", kAny, "_invoke_callbacks", 0),
    ((3, 6), (9, 9), "concurrent.futures._base", kAny, "add_done_callback", 0),
    ((3, 6), (9, 9), "concurrent.futures.thread", kAny, "_worker", 0),
    ((3, 7), (9, 9), "concurrent.futures.process", kAny, "_process_worker", 0),
    ((2, 6), (9, 9), "multiprocessing.process", kAny, "_bootstrap", 0),
    ((2, 6), (9, 9), _kServers, kAny, "_handle_request_noblock", 0),
    ((2, 6), (9, 9), _kServers, kAny, "process_request_thread", 0),
    ((2, 6), (9, 9), _kServers, "ForkingMixIn", "process_request", 0),
    ((2, 6), (9, 9), "multiprocessing.util", kAny, "_run_finalizers", 0),
    ((2, 6), (9, 9), "multiprocessing.queues", kAny, "_feed", 0),
    ((2, 6), (9, 9), "multiprocessing.managers", kAny, "serve_client", 0),
    ((2, 6), (9, 9), "multiprocessing.managers", kAny, "handle_request", 0),
    ((3, 10), (9, 9), "multiprocessing.managers", kAny, "_handle_request", 0),
    ((2, 6), (9, 9), "SimpleXMLRPCServer" if compat.PY2 else "xmlrpc.server", kAny, "do_POST", 0),
    ((2, 6), (9, 9), "wsgiref.handlers", kAny, "run", 0),
    ((2, 6), (9, 9), "atexit" if compat.PY2 else "weakref", kAny,
     "_run_exitfuncs" if compat.PY2 else "_exitfunc", 0),
    ((2, 6), (3, 11), "asyncore", kAny, "read", 0),
    ((2, 6), (3, 11), "asyncore", kAny, "write", 0),
    ((2, 6), (3, 11), "asyncore", kAny, "readwrite", 0),
    ((2, 6), (9, 9), "Tkinter" if compat.PY2 else "tkinter", kAny, "__call__", 0),
    # Test methods and fixtures; from 3.4 on a `with` block of run() catches.
    ((2, 6), (9, 9), "unittest.case", "TestCase", "run", 0),
    ((3, 8), (9, 9), "unittest.case", kAny, "doModuleCleanups", 0),
    ((2, 6), (9, 9), "unittest.suite", kAny, "_handleClassSetUp", 0),
    ((2, 6), (9, 9), "unittest.suite", kAny, "_handleModuleFixture", 0),
    ((2, 6), (9, 9), "unittest.suite", kAny, "_tearDownPreviousClass", 0),
    ((2, 6), (9, 9), "unittest.suite", kAny, "_handleModuleTearDown", 0),
    ((2, 6), (9, 9), "doctest", kAny, "__run", 0),
    ((2, 6), (9, 9), "code", kAny, "runcode", 0),
    # emit() of logging's handlers, which print to standard error through handleError().
    ((2, 6), (9, 9), "logging", kAny, "emit", 0),
    ((2, 6), (9, 9), "logging.handlers", kAny, "emit", 0),
    # Finalizers: the interpreter prints what leaves them.
    ((2, 6), (9, 9), kAny, kAny, "__del__", 1),
)


def _library(version=sys.version_info[:2]):
    return [
        ExceptionInfo(co_name, mod_name, containing_class, True, bool(parent))
        for first, last, mod_name, containing_class, co_name, parent in _kRows
        if first <= version <= last]


kLibrary = tuple(_library())

# Raised through such functions in the course of events: (module, name).
_kQuiet = (
    ("unittest.case", "SkipTest"), ("unittest.case", "_ShouldStop"),
    ("unittest.case", "_ExpectedFailure"), ("unittest.case", "_UnexpectedSuccess"),
    ("concurrent.futures._base", "CancelledError"), ("asyncio.exceptions", "CancelledError"),
    ("_pytest.outcomes", "Skipped"), ("_pytest.outcomes", "Exit"),
)


def quiet_types(modules=None):
    """Exception types that are no failures, of the modules that are loaded; for never_stop."""
    modules = sys.modules if modules is None else modules
    found = []
    for mod_name, name in _kQuiet:
        module = modules.get(mod_name)
        kind = getattr(module, "__dict__", {}).get(name)
        if isinstance(kind, type) and issubclass(kind, BaseException) and kind not in found:
            found.append(kind)
    return tuple(found)


# --- the modules of the program -------------------------------------------------------------


class CatchInfos(object):
    """What the core is to be told; as_list() after each add_module() that says so."""

    def __init__(self, with_library=True):
        self._library = list(kLibrary) if with_library else []
        self._by_module = {}  # module name -> [ExceptionInfo]
        self._by_source = {}  # checksum and length of a source -> rows found in it
        self._index = None    # co_name -> [ExceptionInfo], for reports()

    def add_module(self, module):
        """A module was imported. True when as_list() has changed. Raises nothing."""
        try:
            name = _own_dict(module).get("__name__")
            if not isinstance(name, str):
                return False
            infos = [ExceptionInfo(co_name, name, class_name, handlers=lines)
                     for co_name, class_name, lines in self._find(module)]
            if infos == self._by_module.get(name, []):
                return False
            self._by_module[name] = infos
            self._index = None
            return True
        except Exception:  # a module may be anything
            return False

    def as_list(self):
        """A new list of ExceptionInfo; the modules' own come first: the first match counts."""
        found = []
        for name in sorted(self._by_module):
            found.extend(self._by_module[name])
        return found + self._library

    def reports(self, frame, line):
        """Whether the handler of the frame whose clause starts at the line only reports.

        line None: whether the frame as a whole does, whatever the handler.
        """
        if self._index is None:
            index = {}
            for info in self.as_list():
                index.setdefault(info.co_name, []).append(info)
            self._index = index
        for info in self._index.get(frame.f_code.co_name, ()):
            if info.mod_name not in (kAny, frame.f_globals.get("__name__")) or info.parent:
                continue
            if info.handlers is None or line in info.handlers:
                return bool(info.prints)
        return False

    def _find(self, module):
        if _is_of_library(module):
            return ()
        source = _source_of(module)
        if source is None or not any(word in source for word in _kWords):
            return ()
        key = (zlib.crc32(source), len(source))
        if key not in self._by_source:
            self._by_source[key] = find_reporters(source)
        return self._by_source[key]


def _own_dict(module):
    """The module's namespace; nothing that a stand-in for a module computes."""
    try:
        return object.__getattribute__(module, "__dict__")
    except AttributeError:
        return {}


def _is_of_library(module):
    """Whether the module is one that kLibrary has been looked through for."""
    path = _own_dict(module).get("__file__")
    if not isinstance(path, compat.string_types):
        return True  # built in, or without a file
    if path.startswith("<") or not path.startswith(_library_folder + os.sep):
        return False
    return not ("site-packages" in path or "dist-packages" in path)


def _source_of(module):
    """Source text as bytes; None when there is none that is worth reading."""
    names = _own_dict(module)
    path = names.get("__file__")
    if path.endswith((".pyc", ".pyo")):
        path = path[:-1]
    if not path.endswith((".so", ".pyd")):
        source = _read(path) or _cached_lines(path) or _from_archive(names.get("__loader__"), path)
        if source is not None and len(source) <= _kMaxSource:
            return source
    return None


def _read(path):
    try:
        with _open(path, "rb") as text:
            return text.read(_kMaxSource + 1)
    except (IOError, OSError):
        return None


def _cached_lines(path):
    """Sources that exist in memory only (notebooks, templates) are put there."""
    entry = getattr(sys.modules.get("linecache"), "cache", {}).get(path)
    if not isinstance(entry, tuple) or len(entry) != 4:
        return None
    return "".join(entry[2]).encode("utf-8")


def _from_archive(loader, path):
    if type(loader).__name__ != "zipimporter":
        return None
    try:
        return loader.get_data(path)
    except (IOError, OSError):
        return None


def find_reporters(source):
    """[(co_name, class name or "*", lines of the clauses)] of a source text in bytes."""
    try:
        tree = _parse(source)
    except Exception:  # not for this version, or no Python at all
        return ()
    found, names = [], {}
    pending = [(tree, "<module>", kAny)]
    while pending:
        scope, co_name, class_name = pending.pop()
        lines = set()
        for node in _nodes_of_scope(scope):
            if isinstance(node, _kFunctions):
                inside = scope.name if isinstance(scope, ast.ClassDef) else kAny
                pending.append((node, node.name, inside))
                names[node.name] = names.get(node.name, 0) + 1
            elif isinstance(node, ast.ClassDef):
                pending.append((node, node.name, kAny))
            elif isinstance(node, _kTry):
                lines.update(
                    handler.lineno for handler in node.handlers if _is_reporting(handler))
        if lines and not isinstance(scope, ast.Lambda):
            found.append((co_name, class_name, frozenset(lines)))
    # A class is named only where it has to tell functions of one name apart: it is looked for
    # among the module's classes, where not every function is to be found.
    return tuple(
        (co_name, class_name if names.get(co_name, 0) > 1 else kAny, lines)
        for co_name, class_name, lines in sorted(found, key=lambda row: min(row[2])))


def _parse(source):
    """Syntax tree; the warnings that the compiler has are for who runs the program."""
    filters = getattr(sys.modules.get("warnings"), "filters", None)
    if isinstance(filters, list):
        filters.insert(0, _ignore_all)
    try:
        return _compile(source, "<source>", "exec", _kOnlyTree, True)
    finally:
        if isinstance(filters, list):
            filters.remove(_ignore_all)


def _nodes_of_scope(scope):
    """Nodes below it, without what is inside of other functions and classes."""
    pending = list(scope.body) if isinstance(scope.body, list) else [scope.body]
    while pending:
        node = pending.pop()
        yield node
        if not isinstance(node, _kScopes):
            pending.extend(ast.iter_child_nodes(node))


def _is_reporting(handler):
    return _is_broad(handler.type) and not _always_raises(handler.body) and any(
        isinstance(node, ast.Call) and _is_report(node) for node in _nodes_of_scope(handler))


def _is_broad(kind):
    if kind is None:
        return True
    if isinstance(kind, ast.Tuple):
        return any(_is_broad(part) for part in kind.elts)
    name = getattr(kind, "id", None) or getattr(kind, "attr", None)
    return name in _kBroad


def _always_raises(body):
    """Whether no way leads to the end of the statements, as far as can be told cheaply."""
    last = body[-1]
    if isinstance(last, ast.Raise):
        return True
    if isinstance(last, ast.If):
        return bool(last.orelse) and _always_raises(last.body) and _always_raises(last.orelse)
    return isinstance(last, ast.With) and _always_raises(last.body)


def _is_report(call):
    name = getattr(call.func, "attr", None) or getattr(call.func, "id", None)
    if name in _kReporters:
        return True
    if name in _kLoggers:
        return bool(call.args) and isinstance(call.func, ast.Attribute)
    return name in _kLogLevels and any(
        keyword.arg == "exc_info" and not _is_false(keyword.value) for keyword in call.keywords)


def _is_false(node):
    for field in ("value", "n", "id"):  # of constants, numbers and, on version 2, names
        if field in node._fields:
            return getattr(node, field) in (False, None, "False", "None")
    return False
