"""What is shown of a language that is implemented in Python: activations in the place of frames,
lines of its files in the place of source."""
from __future__ import absolute_import, division, print_function

import io
import os

from tdbg import compat

kSuffixes = (".pyc", ".pyo")

_abs_path = os.path.abspath
_exists = os.path.isfile
_is_absolute = os.path.isabs
_open = io.open
_real_path = os.path.realpath


class tSource(object):
    """Lines of a file of a language.  Has what codelines.tSource has; there are no functions."""

    def __init__(self, path, text, lines=None):
        """lines: numbers of those that can stop; None: any may."""
        self.path = path
        self.lines = _split_lines(text)
        self.count = len(self.lines)
        self._stopping = None if lines is None else sorted(lines)

    def line_with_code(self, line):
        if self._stopping is None:
            return line
        following = [number for number in self._stopping if number >= line]
        return following[0] if following else None

    def lines_with_code(self, first, last):
        stopping = range(1, self.count + 1) if self._stopping is None else self._stopping
        return [line for line in stopping if first <= line <= last]

    def functions(self):
        return {}

    def find_functions(self, name):
        return {}

    def one_line_functions(self, line):
        return ()


class tCodeView(object):
    """What a code object tells of itself, for a tFrameView."""

    __slots__ = ("co_filename", "co_name", "co_qualname", "co_firstlineno")

    co_flags = co_argcount = co_kwonlyargcount = 0
    co_varnames = co_cellvars = co_freevars = co_consts = ()

    def __init__(self, path, name):
        self.co_filename, self.co_name, self.co_qualname = path, name, name
        self.co_firstlineno = 1


class tFrameView(object):
    """An activation of a template (or what the language has instead), shown as if it were a frame.

    frame  the frame of the program that stands at the place
    scope  what identifies the activation
    base   id of the outermost frame of the activation
    The rest is as a frame has it; f_back is the next frame or view outwards that is shown.
    """

    __slots__ = ("hook", "frame", "scope", "base", "f_lineno", "f_code", "f_back")

    f_trace = None

    def __init__(self, hook, frame, place, scope, base, back):
        self.hook, self.frame, self.scope, self.base = hook, frame, scope, base
        self.f_lineno, self.f_back = place[1], back
        self.f_code = tCodeView(place[0], hook.title_of(frame, place))

    @property
    def f_locals(self):
        return self.hook.variables_of(self.frame)

    @property
    def f_globals(self):
        return self.hook.globals_of(self.frame)

    def source(self):
        """tSource of its file as the language knows it; None: look for the file."""
        return self.hook.source(self.f_code.co_filename)

    def evaluate(self, text):
        """Value of an expression of the language; exceptions are the language's."""
        return self.hook.evaluate(text, self.frame)


def is_view(frame):
    return isinstance(frame, tFrameView)


def real_frame(frame):
    """The frame of the program behind what is shown."""
    return frame.frame if isinstance(frame, tFrameView) else frame


def full_path(path):
    """One spelling for every file; names that are no paths stay as they are."""
    if path.startswith("<") or not (_is_absolute(path) or _exists(path)):
        return path
    return _real_path(_abs_path(path))


def read(path):
    """Contents of a file; None when it cannot be read."""
    try:
        with _open(path, "rb") as source:
            return source.read()
    except (IOError, OSError, ValueError):
        return None


def spellings(path):
    """What a file may be called in code objects and by the core."""
    path = compat.to_native(path)
    if path.endswith(kSuffixes):
        path = path[:-1]
    if path.startswith("<"):
        return [path]
    end = "/" if path.endswith("/") else ""  # a folder
    return [path, _abs_path(path) + end, _real_path(path) + end]


def _split_lines(text):
    text = compat.to_text(text).replace(u"\r\n", u"\n").replace(u"\r", u"\n")
    lines = [line + u"\n" for line in text.split(u"\n")]
    return lines[:-1] if text[-1:] in (u"\n", u"") else lines
