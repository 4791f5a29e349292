"""Where the tracer library for the running interpreter is, and ways to load it.

tests/run.py puts the library of the right word size, under the name that the interpreter looks
for, into a directory and names that in TDBG_LIB_DIR.
"""
from __future__ import absolute_import, division, print_function

import importlib
import os
import sys
import unittest

kModule = "tdbgtracer"


def library_dir():
    """Directory with the library; None when the tests run without one."""
    return os.environ.get("TDBG_LIB_DIR") or None


def library_path():
    """File name of the library; skips the test when there is none."""
    folder = library_dir()
    if folder is not None:
        for name in (kModule + "_d.so", kModule + ".so"):
            path = os.path.join(folder, name)
            if os.path.exists(path):
                return path
    raise unittest.SkipTest("runs without the library (no TDBG_LIB_DIR)")


def import_tracer():
    """The module `tdbgtracer`; skips the test when there is no library.

    An import that fails is a failure of the test: the library is there and must be importable.
    """
    folder = os.path.dirname(library_path())
    if folder not in sys.path:
        sys.path.insert(0, folder)
    return importlib.import_module(kModule)


def load_native(functions=None):
    """The library as ctypes sees it, for its exported functions; the interpreter lock stays held.

    functions: {name: (result type, [argument types])} to declare.  The library is usable natively
    once the module has been imported (which binds it to the interpreter), so that is done first.
    """
    import ctypes

    module = import_tracer()
    native = ctypes.PyDLL(module.__file__)
    for name, (result, arguments) in (functions or {}).items():
        function = getattr(native, name)
        function.restype = result
        function.argtypes = arguments
    return native
