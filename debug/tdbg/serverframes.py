"""What the debug server knows of frames: which of them the user gets to see, who calls whom, and
what a frame is doing.
"""
from __future__ import absolute_import, division, print_function

import dis
import os
import sys

from tdbg import compat, sublanguages

# In these a frame may wait in native code.
kWaitingOpcodes = frozenset(
    number for name, number in dis.opmap.items()
    if name.startswith("CALL")
    or name in ("FOR_ITER", "SEND", "YIELD_FROM", "IMPORT_NAME", "WITH_CLEANUP"))

kReturnOpcodes = frozenset(
    dis.opmap[name] for name in ("RETURN_VALUE", "RETURN_CONST", "YIELD_VALUE", "YIELD_FROM")
    if name in dis.opmap)


class tFrames(object):
    """The part of tServer that tells which frames are shown.  core and languages are tServer's."""

    def __init__(self):
        self._own_files = _own_files()

    def is_hidden(self, frame):
        """Frames of the debugger and of the import machinery, which has no source."""
        if sublanguages.is_view(frame):
            return False
        return (
            self._is_own(frame)
            or bool(self.core.is_internal_frame(frame))
            or _is_of_interpreter(frame)
            or self.languages.is_hidden(frame)
        )

    def without_hidden(self, stack):
        """Of [(frame, line)], the outermost first, those that are shown."""
        shown = []
        known = {}  # code -> whether its frames are hidden wherever they are
        is_finding = False
        for entry in stack:
            code = entry[0].f_code
            if code.co_filename.startswith("<frozen importlib"):
                is_finding = _finds_module(code)
            if code not in known:
                known[code] = self._is_own(entry[0]) or bool(self.core.is_internal_frame(entry[0]))
            if not (known[code] or is_finding or self.languages.is_hidden(entry[0])):
                shown.append(entry)
        return shown

    def _is_own(self, frame):
        name = frame.f_code.co_filename
        return name in self._own_files or name.startswith("<frozen ")

    def _is_program_start(self, frame):
        main = sys.modules.get("__main__")
        return (
            main is not None
            and frame.f_globals is main.__dict__
            and frame.f_code.co_name in ("<module>", "?")
            and not self._is_own(frame)
        )


def is_returning(frame):
    """Whether the frame, in its return event, has come to a return or a yield.

    Python code is not told: an exception that leaves a frame is a return event without value, too.
    """
    return opcode_of(frame) in kReturnOpcodes


def opcode_of(frame):
    """What the frame executes or, between two instructions, has executed last; None before that."""
    if frame.f_lasti < 0:
        return None
    code = frame.f_code.co_code[frame.f_lasti]
    return ord(code) if compat.PY2 else code


def is_caller(frame, inner):
    """Whether a frame, if one is given, is one of the other's callers."""
    if frame is inner:
        return False
    while frame is not None and inner is not None:
        inner = inner.f_back
        if inner is frame:
            return True
    return False


def shown_callers(stop, frame):
    """What is shown of a stop's stack, from the outermost frame to this one."""
    shown = [entry[0] for entry in stop.stack]
    return shown[:shown.index(frame) + 1] if frame in shown else shown[:stop.index + 1]


def is_at_end_of_thread():
    """Whether the calling thread's outermost frame, which is being left, is that of `threading`."""
    frame = sys._getframe()
    while frame.f_back is not None:
        frame = frame.f_back
    return frame.f_code.co_name in ("_bootstrap", "__bootstrap")


def _is_of_interpreter(frame):
    """Whether the frame belongs to an import hook (of setuptools, say) that looks for a module, or
    to the interpreter's printing of an exception, which from 3.13 on is Python."""
    importing = outer = None
    while frame is not None:
        code = frame.f_code
        if code.co_name == "_print_exception_bltin":
            return True
        if importing is None and code.co_filename.startswith("<frozen importlib"):
            importing = True
            if _finds_module(code):
                return True
        outer, frame = code, frame.f_back
    # An import that nothing in Python has asked for: of what is needed for the printing.
    return importing is not None and outer.co_filename.startswith("<frozen importlib")


def _finds_module(code):
    name = code.co_name
    return "find_spec" in name or "find_module" in name or "path_hook" in name


def _own_files():
    """Full paths of every source file of the package, as the core and code objects spell them."""
    files = set()
    here = os.path.dirname(os.path.abspath(__file__))
    for folder, _, names in os.walk(here):
        for name in names:
            if name.endswith(".py"):
                path = os.path.join(folder, name)
                files.update((path, os.path.realpath(path)))
    return files
