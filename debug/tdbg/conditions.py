"""Conditions of breakpoints: expressions that are evaluated often, and which of them the core may
evaluate as often as it likes.
"""
from __future__ import absolute_import, division, print_function

import __future__
import ast
import functools
import sys

from tdbg import compat, private, statements, sublanguages, usercode
from tdbg.breakrecords import tRefused

_compile = compile
_code_type = type((lambda: 0).__code__)

# Whatever they are given, they change nothing and always answer the same.
kPlainCalls = frozenset((
    "abs", "bool", "callable", "float", "hasattr", "id", "int", "isinstance", "issubclass", "len",
    "max", "min", "ord", "round", "type"))
_kPlainNodes = (
    ast.Expression, ast.Name, ast.expr_context, ast.BoolOp, ast.boolop, ast.UnaryOp, ast.unaryop,
    ast.BinOp, ast.operator, ast.Compare, ast.cmpop, ast.IfExp, ast.Attribute, ast.Subscript,
    ast.Slice, ast.Tuple, ast.List)
if sys.version_info < (3, 9):
    _kPlainNodes += (ast.slice,)
if sys.version_info >= (3, 6):
    _kPlainNodes += (ast.Constant,)
if sys.version_info < (3, 8):  # later versions warn of these names
    _kPlainNodes += (ast.Num, ast.Str)
if (3,) <= sys.version_info < (3, 8):
    _kPlainNodes += (ast.Bytes, ast.NameConstant, ast.Ellipsis)

# Bits of co_flags that `from __future__ import` leaves behind; kNested has another meaning in them.
kNested = 0x10
kFutureFlags = ~kNested & functools.reduce(
    lambda flags, name: flags | getattr(__future__, name).compiler_flag,
    __future__.all_feature_names, 0)


def check_condition(text):
    """tRefused unless the text, if any, is an expression."""
    if not text:
        return
    try:
        tExpression(text).check()
    except (SyntaxError, TypeError, ValueError) as why:
        reason = why.msg if isinstance(why, SyntaxError) else why
        raise tRefused("the condition is no expression: {}".format(reason))


def is_plain(text):
    """Whether it does not matter how often the expression is evaluated, as far as can be seen."""
    try:
        with private.quiet():
            text = compat.to_native(text).strip()
            tree = _compile(text, "<condition>", "eval", ast.PyCF_ONLY_AST)
    except Exception:  # check_condition() says what is wrong
        return False
    for node in statements.walk(tree):
        if isinstance(node, ast.Call):
            if not isinstance(node.func, ast.Name) or node.func.id not in kPlainCalls:
                return False
        elif not isinstance(node, _kPlainNodes):
            return False
    return True


class tExpression(object):
    """An expression that is evaluated often, in frames of one function or of many."""

    def __init__(self, text):
        self.text = compat.to_native(text).strip()
        self._codes = {}  # flags of the compiler -> code object

    def check(self):
        """SyntaxError, ValueError or TypeError unless it is an expression."""
        self._compile(0)

    def value(self, frame):
        """Its value in the frame, or the exception."""
        if sublanguages.is_view(frame):
            return frame.evaluate(self.text)
        flags = frame.f_code.co_flags & kFutureFlags
        code = self._codes.get(flags) or self._compile(flags)
        names = frame.f_locals
        has_functions = any(isinstance(item, _code_type) for item in code.co_consts)
        if has_functions and names is not frame.f_globals:
            # Comprehensions and lambdas look names up as globals.
            both = dict(frame.f_globals)
            both.update(names)
            return usercode.call(eval, code, both)
        return usercode.call(eval, code, frame.f_globals, names)

    def _compile(self, flags):
        with private.quiet():
            code = _compile(self.text, "<condition>", "eval", flags, True)
        self._codes[flags] = code
        return code
