"""Which lines of a source file have code, and where its functions begin.

The source is compiled, never run; lines come from the tables of the code objects, nested ones
included, so they are exactly those that the interpreter reports.
"""
from __future__ import absolute_import, division, print_function

import dis
import inspect
import io
import linecache
import os
import sys

from tdbg import compat, private

_find_line_starts = dis.findlinestarts
_find_labels = dis.findlabels
_get_block = inspect.getblock
_get_lines = linecache.getlines
_open = io.open
_stat = os.stat
_code_type = type(_get_block.__code__)

kLocals = "<locals>"
kTypeParameters = "<generic parameters of "  # `def f[T]()` is made inside a function of that name
_cache = {}  # path -> ((modification time, size), tSource)


class tNoSource(Exception):
    """The file cannot be read or compiled; the text is for the user."""


class tSource(object):
    """One source file.  text: bytes, or lines of text that need no decoding any more."""

    def __init__(self, path, text):
        self.path = path
        self._lines = _split_lines(text)
        self.count = len(self._lines)
        self._code = _compile(path, text)
        self._lines_with_code = set()
        self._one_line_functions = None  # {line: ...}, when they are known
        for code in _walk(self._code):
            self._lines_with_code.update(lines_of(code))

    def line_with_code(self, line):
        """The line, or the next one with code in the same function, class or module; else None."""
        if line in self._lines_with_code:
            return line
        scope = self._innermost_scope(line)
        lines = set(lines_of(scope))
        for code in _children(scope):
            if _is_part(code):  # a comprehension is the function's own text
                for inner in _walk(code):
                    lines.update(lines_of(inner))
            else:
                lines.add(code.co_firstlineno)  # the statement that makes the function
        own = self._lines_with_code
        if scope is not self._code:  # its `def` is not in it
            lines.discard(scope.co_firstlineno)
        following = [number for number in lines if number > line and number in own]
        return min(following) if following else None

    def lines_with_code(self, first=1, last=None):
        """Every line from `first` to `last` that a breakpoint can stop at, in order."""
        return sorted(
            line for line in self._lines_with_code
            if line >= first and (last is None or line <= last))

    def one_line_functions(self, line):
        """{(name, first line)} of the code objects of functions whose whole body is on the line of
        their `def`: who stops there wants to see them called, not made."""
        if self._one_line_functions is None:
            self._one_line_functions = self._find_one_line_functions()
        return self._one_line_functions.get(line, ())

    def _find_one_line_functions(self):
        found = {}
        for scope in _walk(self._code):
            lines = None
            for code in _children(scope):
                line = _only_line_of_function(code)
                if line is None:
                    continue
                lines = set(lines_of(scope)) if lines is None else lines
                if line in lines:
                    found.setdefault(line, set()).add((code.co_name, code.co_firstlineno))
        return found

    def functions(self):
        """{qualified name: first line of the body} of functions; nested ones as `outer.inner`."""
        return functions_of(self._code)

    def find_functions(self, name):
        """{qualified name: first line} of the function of that name, else of those that it ends."""
        return functions_named(self.functions(), name.replace(kLocals + ".", ""))

    def _innermost_scope(self, line):
        scope, inner = self._code, self._code
        while inner is not None:
            scope = inner
            inner = None
            for code in _children(scope):
                if not _is_part(code) and code.co_firstlineno <= line <= self._last_line(code):
                    inner = code
        return scope

    def _last_line(self, code):
        last = max([max(list(lines_of(inner)) or [0]) for inner in _walk(code)])
        try:
            # The text goes further than the code: closing brackets, comments.
            block = _get_block(self._lines[code.co_firstlineno - 1:])
            last = max(last, code.co_firstlineno + len(block) - 1)
        except Exception:  # the tokenizer, at text that is no block
            pass
        return self._with_comments(code.co_firstlineno, last)

    def _with_comments(self, first, last):
        """Last line of the comments behind a block that are indented as what is in it; older
        versions do not take them for a part of it."""
        depth = _indent_of(self._lines[first - 1])
        for number in range(last + 1, self.count + 1):
            line = self._lines[number - 1]
            if line.lstrip().startswith("#") and _indent_of(line) > depth:
                last = number
            elif line.strip():
                break
        return last


def read(path):
    """The tSource of a file; tNoSource with the reason."""
    try:
        status = _stat(path)
        mark = (status.st_mtime, status.st_size)
        known = _cache.get(path)
        if known is not None and known[0] == mark:
            return known[1]
        with _open(path, "rb") as source:
            text = source.read()
    except (IOError, OSError) as why:
        raise tNoSource("cannot read {}: {}".format(path, why.strerror))
    source = tSource(path, text)
    _cache[path] = (mark, source)
    return source


def functions_of(code):
    """tSource.functions() of a module's code object."""
    found = {}
    _find_functions(code, "", found)
    return found


def functions_named(functions, name):
    """Those of {qualified name: line} that the name is meant for, in full or as the end."""
    if name in functions:
        return {name: functions[name]}
    return dict(item for item in functions.items() if item[0].endswith("." + name))


def _find_functions(code, prefix, found):
    for child in _children(code):
        if child.co_name.startswith(kTypeParameters):
            _find_functions(child, prefix, found)
        if _is_part(child):
            continue
        name = prefix + child.co_name
        if child.co_flags & inspect.CO_OPTIMIZED:
            found.setdefault(name, first_line_of(child))
        _find_functions(child, name + ".", found)


def lines_without_file(name, space):
    """Lines of text of code that is in no file, as tracebacks show them; an empty list: not known.

    name: as code objects have it; space: globals of the code
    """
    # The program's own module: that is where it puts what it has made.
    cache = getattr(sys.modules.get("linecache"), "cache", None)
    entry = cache.get(name) if isinstance(cache, dict) else None
    if isinstance(entry, tuple) and len(entry) == 4:
        return [compat.to_text(line) for line in entry[2]]
    with private.borrowed():
        return [compat.to_text(line) for line in _get_lines(name, space)]


def lines_of(code):
    """Every line that the code object has code for."""
    return [line for _, line in _find_line_starts(code) if line]


def first_line_of(code):
    """Line that the function stops at first: that of its body, where it is not all on one line."""
    lines = lines_of(code)
    for line in lines:
        if line != code.co_firstlineno:
            return line
    return lines[0] if lines else code.co_firstlineno


def is_entry(code, offset, line):
    """Whether a line event at the offset is the first that the call makes on the line, as far as
    can be told: a loop comes to its own line again."""
    starts = sorted(start for start, number in _find_line_starts(code) if number == line)
    if not starts:
        return True
    again = [place for place in _find_labels(code.co_code) if place > starts[0]]
    return offset < min(starts[1:2] + again + [len(code.co_code)])


def _compile(path, text):
    if not isinstance(text, bytes):
        text = u"".join(text)
    try:
        with private.quiet():
            return compile(text, path, "exec", 0, True)
    except SyntaxError as why:
        raise tNoSource("{} does not compile: {}, line {}".format(path, why.msg, why.lineno))
    except (TypeError, ValueError, OverflowError, MemoryError, RuntimeError) as why:
        raise tNoSource("{} is no Python source: {}".format(path, why))


def _split_lines(text):
    if isinstance(text, bytes):
        text = text.decode("utf-8", "replace") if not compat.PY2 else text
        text = text.replace("\r\n", "\n").replace("\r", "\n")
        lines = [line + "\n" for line in text.split("\n")]
        return lines[:-1] if text[-1:] in ("\n", "") else lines
    return list(text)


def _indent_of(line):
    return len(line) - len(line.lstrip())


def _children(code):
    return [item for item in code.co_consts if isinstance(item, _code_type)]


def _walk(code):
    yield code
    for child in _children(code):
        for inner in _walk(child):
            yield inner


def _only_line_of_function(code):
    """The line of a function that has one beside that of its `def`, at most; else None."""
    if not code.co_flags & inspect.CO_OPTIMIZED or _is_part(code):
        return None
    body = set(lines_of(code))
    body = body - {code.co_firstlineno} or body
    return body.pop() if len(body) == 1 else None


def _is_part(code):
    """Whether it is a lambda or a comprehension, which has no block of its own."""
    return code.co_name.startswith("<")
