"""What the running interpreter can do, by name.

Tests say what they need, not which versions they are for.  Where it can be, a capability is
measured (a symbol looked up, an attribute asked for) and not derived from the version.
"""
from __future__ import absolute_import, division, print_function

import functools
import importlib
import os
import struct
import sys
import unittest

kOldest = (2, 6)
kNewest = (3, 14)

_capabilities = {}
_families = {}
_answers = {}


def capability(name):
    """Declare a capability: the function answers whether it is there (measured once, when asked).

    A name that ends in ":" declares a family: "module:" answers for "module:asyncio".
    """
    def declare(function):
        table = _families if name.endswith(":") else _capabilities
        table[name.rstrip(":")] = function
        return function
    return declare


def has(name):
    """Whether the running interpreter has the capability; "!name" asks for the opposite."""
    if name.startswith("!"):
        return not has(name[1:])
    if name not in _answers:
        _answers[name] = bool(_ask(name))
    return _answers[name]


def _ask(name):
    family, colon, argument = name.partition(":")
    if colon:
        return _families[family](argument)
    return _capabilities[name]()


def why_not(*names):
    """Reason to skip for the first missing capability; None when all are there."""
    for name in names:
        if not has(name):
            return "has {}".format(name[1:]) if name.startswith("!") else "no {}".format(name)
    return None


def needs(*names):
    """Decorate a test method or a whole test class: skipped where a capability is missing.

    Measured when the test runs, not when the file is imported.
    """
    for name in names:  # a misspelt name is an error at once, not a skip for ever
        bare = name.lstrip("!")
        if bare.partition(":")[0] not in (_families if ":" in bare else _capabilities):
            raise LookupError("no capability is called {!r}".format(bare))

    def decorate(test):
        if isinstance(test, type):
            for attribute in dir(test):
                if attribute.startswith("test"):
                    method = getattr(test, attribute)
                    setattr(test, attribute, _guard(getattr(method, "__func__", method), names))
            return test
        return _guard(test, names)
    return decorate


def _guard(method, names):
    @functools.wraps(method)
    def guarded(self):
        reason = why_not(*names)
        if reason is not None:
            raise unittest.SkipTest(reason)
        return method(self)
    return guarded


def unsupported_versions(test):
    """Run this test (or class) only under interpreters outside the supported range.

    All other tests run only inside it.
    """
    test.tdbg_unsupported_versions = True
    return test


def once(test):
    """Run this test (or class) under one interpreter only: it is not about the interpreter.

    That one is 3.9 or later if any of those chosen is.
    """
    test.tdbg_once = True
    return test


# --- the build ------------------------------------------------------------------------------


@capability("supported_python")
def _supported_python():
    return kOldest <= sys.version_info[:2] <= kNewest


@capability("library")
def _library():
    return bool(os.environ.get("TDBG_LIB_DIR"))


@capability("python2")
def _python2():
    return sys.version_info[0] == 2


@capability("64bit")
def _64bit():
    return struct.calcsize("P") == 8


@capability("32bit")
def _32bit():
    return struct.calcsize("P") == 4


@capability("trace_refs")
def _trace_refs():
    return hasattr(sys, "getobjects")


@capability("total_refcount")
def _total_refcount():
    return hasattr(sys, "gettotalrefcount")


@capability("free_threaded")
def _free_threaded():
    sysconfig = importlib.import_module("sysconfig")
    return bool(sysconfig.get_config_var("Py_GIL_DISABLED"))


# --- the language and its objects -----------------------------------------------------------


@capability("interpreter_lock")
def _interpreter_lock():
    """Not where a free-threaded interpreter is told to stay without (PYTHON_GIL=0)."""
    return not has("free_threaded") or os.environ.get("PYTHON_GIL") != "0"


@capability("frame_iblock")
def _frame_iblock():
    """Frames have a block stack; later compilers write an exception table instead."""
    return not hasattr(_frame_iblock.__code__, "co_exceptiontable")


@capability("trace_opcodes")
def _trace_opcodes():
    return hasattr(sys._getframe(), "f_trace_opcodes")


@capability("code_lines")
def _code_lines():
    """Code objects tell their line ranges themselves (co_lines)."""
    return hasattr(_code_lines.__code__, "co_lines")


@capability("sys_monitoring")
def _sys_monitoring():
    return hasattr(sys, "monitoring")


@capability("immortal_objects")
def _immortal_objects():
    """Constants keep one huge reference count for ever."""
    before = sys.getrefcount(None)
    keep = [None] * 1000
    return sys.getrefcount(None) == before and len(keep) == 1000


@capability("inlined_comprehensions")
def _inlined_comprehensions():
    return [sys._getframe().f_code.co_name for _ in range(1)] == ["_inlined_comprehensions"]


@capability("walrus")
def _walrus():
    return _compiles("(y := 1)")


@capability("syntax:")
def _syntax(source):
    """"syntax:async def f(): pass": the interpreter compiles that."""
    return _compiles(source)


def _compiles(source):
    try:
        compile(source, "<capability>", "exec")
    except SyntaxError:
        return False
    return True


# --- modules and native API -----------------------------------------------------------------


@capability("module:")
def _module(name):
    try:
        importlib.import_module(name)
    except ImportError:
        return False
    return True


@capability("api:")
def _api(name):
    """"api:PyFrame_GetBack": the interpreter exports that function or object."""
    import ctypes

    return hasattr(ctypes.pythonapi, name)


@capability("eval_frame_api")
def _eval_frame_api():
    return _api("_PyInterpreterState_SetEvalFrameFunc")


@capability("fork")
def _fork():
    return hasattr(os, "fork")


@capability("subinterpreters")
def _subinterpreters():
    return any(_module(name) for name in ("_interpreters", "_xxsubinterpreters"))
