"""Lines of debuggees by name.

A line is marked with a comment, `x = 1  #@ stop-here`; several names are separated by commas.
Tests never mention line numbers, so that debuggees can be edited.
"""
from __future__ import absolute_import, division, print_function

import io
import re

kMark = re.compile(r"#@\s*([\w.-]+(?:\s*,\s*[\w.-]+)*)\s*$")

_marks = {}


def marks_of(path):
    """{name: line number} of a source file.  A name used twice is a LookupError."""
    if path not in _marks:
        _marks[path] = _read_marks(path)
    return _marks[path]


def _read_marks(path):
    marks = {}
    for number, name in _marks_in(path):
        if name in marks:
            raise LookupError("{}: two lines are marked {!r}".format(path, name))
        marks[name] = number
    return marks


def _marks_in(path):
    # Latin-1 takes any bytes, and marks are plain ASCII whatever the file's encoding.
    with io.open(path, encoding="latin-1", newline=None) as source:
        for number, line in enumerate(source, 1):
            found = kMark.search(line)
            for name in re.split(r"\s*,\s*", found.group(1)) if found else ():
                yield number, name


def line_of(path, name):
    """Number of the marked line; LookupError names the marks that there are."""
    marks = marks_of(path)
    if name not in marks:
        raise LookupError("{}: no line is marked {!r}; marks: {}".format(
            path, name, ", ".join(sorted(marks))))
    return marks[name]
