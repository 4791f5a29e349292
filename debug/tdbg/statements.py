"""Where statements begin and end, and the calls in them, from the syntax tree of a file.

Between the first lines of two neighbouring statements lies all of the former and nothing else that
runs, so first lines are enough, and every version's tree has those.  The head of a compound
statement reaches to its body; a decorated definition begins with its first decorator.
"""
from __future__ import absolute_import, division, print_function

import ast
import bisect
import dis

from tdbg import codelines, compat, private

_parse = ast.parse
_children = ast.iter_child_nodes
_opnames = tuple(dis.opname)
_have_argument = dis.HAVE_ARGUMENT
_find_line_starts = dis.findlinestarts

kCalls = frozenset((
    "CALL", "CALL_KW", "CALL_FUNCTION", "CALL_FUNCTION_KW", "CALL_FUNCTION_EX", "CALL_METHOD",
    "CALL_FUNCTION_VAR", "CALL_FUNCTION_VAR_KW"))
_k_scopes = tuple(getattr(ast, name) for name in ("Lambda",))
_k_comprehensions = tuple(
    getattr(ast, name) for name in ("ListComp", "SetComp", "DictComp", "GeneratorExp"))
kMaxLabel = 60

_cache = {}  # path -> (codelines' mark of the text, tStatements)


class tCall(object):
    """A call in the source.

    label  text of what is called;  name: its last part, which the function is probably called
    line, column, end_line, end_column   the columns in bytes from 0; ends are None before 3.8
    """

    __slots__ = ("label", "name", "line", "column", "end_line", "end_column", "is_implicit")

    def __init__(self, node, label, name, is_implicit=False):
        self.label, self.name, self.is_implicit = label, name, is_implicit
        self.line, self.column = node.lineno, node.col_offset
        self.end_line = getattr(node, "end_lineno", None)
        self.end_column = getattr(node, "end_col_offset", None)


class tStatements(object):
    """The statements of one file; ValueError or SyntaxError when its text does not compile."""

    def __init__(self, text):
        with private.quiet():
            self._tree = _parse(text)
        self._nodes = {}  # first line -> statements that begin there
        for node in walk(self._tree):
            if isinstance(node, ast.stmt) or type(node).__name__ == "ExceptHandler":
                self._nodes.setdefault(_first_line(node), []).append(node)
            elif type(node).__name__ == "match_case":
                self._nodes.setdefault(node.pattern.lineno, []).append(node)
        self._starts = sorted(self._nodes)
        self._last = _count_lines(text)

    def extent(self, line):
        """(first, last) line of the statement, or of the head of one, that the line belongs to."""
        place = bisect.bisect_right(self._starts, line)
        if place == 0:
            return line, line
        last = self._starts[place] - 1 if place < len(self._starts) else max(self._last, line)
        return self._starts[place - 1], last

    def calls(self, line):
        """[tCall] of the statement at a line, in the order in which they are made."""
        found = []
        first, _ = self.extent(line)
        for node in self._nodes.get(first, ()):
            _collect_calls(node, found, True)
        return found


def of_file(path):
    """tStatements of a file, or None where there is no readable source."""
    try:
        source = codelines.read(path)
    except codelines.tNoSource:
        return None
    known = _cache.get(path)
    if known is not None and known[0] is source:
        return known[1]
    statements = None
    try:
        with open(path, "rb") as text:
            statements = tStatements(text.read())
    except Exception:  # SyntaxError, ValueError, RecursionError, MemoryError, IOError
        pass
    _cache[path] = (source, statements)
    return statements


def of_text(text):
    """tStatements of source text, or None."""
    try:
        return tStatements(text)
    except Exception:
        return None


def walk(node):
    """Like ast.walk(), which imports when it runs."""
    todo = [node]
    while todo:
        node = todo.pop()
        todo.extend(_children(node))
        yield node


def _first_line(node):
    decorators = getattr(node, "decorator_list", None) or ()
    return min([node.lineno] + [decorator.lineno for decorator in decorators])


def _count_lines(text):
    return text.count(b"\n" if isinstance(text, bytes) else u"\n") + 1


# --- calls --------------------------------------------------------------------------------------


def _collect_calls(node, found, is_outermost=False):
    if isinstance(node, ast.stmt) and not is_outermost:
        return
    if type(node).__name__ in ("match_case", "ExceptHandler") and not is_outermost:
        return
    if isinstance(node, _k_scopes):
        return _collect_calls(node.args, found)
    if isinstance(node, _k_comprehensions):
        # Its first iterable is the outer function's; the rest runs in a function of its own, or
        # (3.12 on) in place.
        _collect_calls(node.generators[0].iter, found)
        found.append(tCall(node, "<comprehension>", None, True))
        return
    for child in _in_order(node):
        _collect_calls(child, found)
    if isinstance(node, ast.Call):
        found.append(tCall(node, *_label(node.func)))


def _in_order(node):
    """The parts of a statement or an expression in the order of their evaluation."""
    if isinstance(node, (ast.Assign, ast.AugAssign)) or type(node).__name__ == "AnnAssign":
        if isinstance(node, ast.Assign):
            return [node.value] + node.targets
        if isinstance(node, ast.AugAssign):
            return [node.target, node.value]
        return [part for part in (node.value, node.target, node.annotation) if part is not None]
    if isinstance(node, ast.For) or type(node).__name__ == "AsyncFor":
        return [node.iter]
    if isinstance(node, ast.Dict):
        parts = []
        for key, value in zip(node.keys, node.values):
            parts.extend(part for part in (key, value) if part is not None)
        return parts
    if type(node).__name__ == "IfExp":
        return [node.test, node.body, node.orelse]
    return [child for child in _children(node)
            if not isinstance(child, ast.stmt)
            and type(child).__name__ not in ("ExceptHandler", "match_case")]


def _label(function):
    """(text to show, last name)"""
    names = []
    node = function
    while isinstance(node, ast.Attribute):
        names.append(node.attr)
        node = node.value
    if isinstance(node, ast.Name):
        names.append(node.id)
    elif isinstance(node, ast.Call):
        names.append(_label(node.func)[0] + "()")
    else:
        names.append("(...)")
    label = compat.to_native(".".join(reversed(names)))
    if len(label) > kMaxLabel:
        label = "..." + label[-kMaxLabel:]
    name = names[0] if isinstance(function, (ast.Attribute, ast.Name)) else None
    return label, name


# --- from the running code to the call ------------------------------------------------------------


def call_in_progress(frame, calls, extent):
    """Index in `calls` (of the statement of that extent) of the call that the frame is in, or None.

    From 3.11 on code tells the place of every instruction; before, the calls of a statement come in
    the same order in the code as in the tree.
    """
    code, offset = frame.f_code, frame.f_lasti
    if hasattr(code, "co_positions"):
        return _call_at_position(code, offset, calls)
    offsets = [place for place, name, line in _instructions(code)
               if name in kCalls and extent[0] <= line <= extent[1]]
    if len(offsets) != len(calls) or offset not in offsets:
        return None
    return offsets.index(offset)


def _call_at_position(code, offset, calls):
    number = offset // 2
    for index, position in enumerate(code.co_positions()):
        if index == number:
            break
    else:
        return None
    line, end_line, column, end_column = position
    for index, call in enumerate(calls):
        if (call.end_line, call.end_column) == (end_line, end_column):
            # A call of a method begins, for the interpreter, with the method's name.
            if (call.line, call.column) == (line, column) or (call.line,
                                                              call.column) < (line, column):
                return index
    return None


def _instructions(code):
    """(offset, name, line) of each instruction of code before 3.11."""
    data = bytearray(code.co_code)
    starts = dict(_find_line_starts(code))
    line = code.co_firstlineno
    offset = 0
    while offset < len(data):
        line = starts.get(offset, line)
        operation = data[offset]
        yield offset, _opnames[operation], line
        if compat.PY2:
            offset += 3 if operation >= _have_argument else 1
        else:
            offset += 2
