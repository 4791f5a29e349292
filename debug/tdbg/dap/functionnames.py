"""Functions that are named in a breakpoint: what a name means in a module that is loaded, and in
code that is about to run for the first time.
"""
from __future__ import absolute_import, division, print_function

import os
import sys

from tdbg import breakpoints, checksums, codelines, compat
from tdbg.dap import rules, sources
from tdbg.dap.paths import base_name

_real_path = os.path.realpath
_isabs = os.path.isabs
_join = os.path.join
_get_frame = sys._getframe

_module_type = type(os)
_function_type = type(lambda: 0)

kMaxWrapped = 100


def plain_name(name):
    """Of a function, as in codelines.tSource.functions(), perhaps behind that of a module."""
    name = compat.to_native(name).strip()
    if name.endswith("()"):
        name = name[:-2]
    return name.replace(codelines.kLocals + ".", "").replace(":", ".")


def look_up(module, name):
    """What a qualified name means in a module; nothing of the program runs.  None: nothing."""
    value = module
    for part in name.split("."):
        space = sources._own_dict(value) if value is module else getattr(value, "__dict__", None)
        if not isinstance(value, (_module_type, type)) or space is None or part not in space:
            return None
        value = space[part]
        if isinstance(value, (staticmethod, classmethod)):
            value = value.__func__
        elif isinstance(value, property):
            value = value.fget
    return value


def code_below(value):
    """Code object of a function, below its decorators; None for anything else.  Asks no object of
    the program for anything that it would compute."""
    for _ in range(kMaxWrapped):
        try:
            inner = object.__getattribute__(value, "__dict__").get("__wrapped__")
        except Exception:
            break
        if inner is None:
            break
        value = inner
    return value.__code__ if isinstance(value, _function_type) else None


class tNewCode(object):
    """What of the file at the path is about to run, for the first time.

    frame    of its code
    modules  names that the module is known by
    """

    def __init__(self, path, frame, table):
        self.path = path
        self._frame, self._table = frame, table
        self._functions = None
        name = frame.f_globals.get("__name__")
        self.modules = [name] if isinstance(name, str) and name else []
        if "__main__" in self.modules:
            self.modules.append(base_name(path).rpartition(".")[0])

    def functions(self):
        """{qualified name: first line}"""
        if self._functions is None:
            self._functions = self._find_functions()
        return self._functions

    def _find_functions(self):
        code = self._frame.f_code
        if code.co_name == "<module>":
            return codelines.functions_of(code)
        try:
            return self._table.source(self.path).functions()
        except breakpoints.tRefused:
            return {}


def find_new_code(path, table):
    """The tNewCode of the file, if it is what the calling thread is about to run; else None."""
    frame = _frame_of(path, table.folder)
    return None if frame is None else tNewCode(path, frame, table)


def _frame_of(path, folder):
    """The program's innermost frame, if it is of this file; else None."""
    frame = _get_frame()
    while frame is not None and rules.is_own_file(frame.f_code.co_filename):
        frame = frame.f_back
    if frame is None:
        return None
    for name in (frame.f_code.co_filename, frame.f_globals.get("__file__")):
        if isinstance(name, str):
            name = _real_path(name if _isabs(name) else _join(folder, name))
            if name == path or name[:-1] == path and name.endswith(checksums.kSuffixes):
                return frame
    return None
