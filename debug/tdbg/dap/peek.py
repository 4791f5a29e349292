"""Expressions that can be looked at without doing anything: for hovering and for completion.

The syntax tree is walked here, and only what surely runs no code of the program is done: names,
attributes that are plain data, items of the interpreter's own containers, simple arithmetic.
"""
from __future__ import absolute_import, division, print_function

import ast
import operator

from tdbg import compat, framecode
from tdbg.dap import statics, values

kMostBits = 10000  # of the operands of a product

_plain = (int, float, complex, bool, type(None), bytes, compat.text_type, type(1 << 80))
_numbers = (int, float, complex, bool, type(1 << 80))
_texts = (bytes, compat.text_type)
_containers = (list, tuple, dict, values._deque, values._range_type, bytearray) + _texts
_binary = {ast.Add: operator.add, ast.Sub: operator.sub, ast.Mult: operator.mul}
_unary = {ast.UAdd: operator.pos, ast.USub: operator.neg, ast.Not: operator.not_}
_comparisons = {
    ast.Eq: operator.eq, ast.NotEq: operator.ne, ast.Lt: operator.lt, ast.LtE: operator.le,
    ast.Gt: operator.gt, ast.GtE: operator.ge}


class tUnsafe(Exception):
    """Evaluating this could run code of the program."""


class tUnknown(Exception):
    """There is no such name, attribute or item; the text says which."""


def peek(source, frame, extra=None):
    """Value of the expression; SyntaxError, tUnsafe or tUnknown."""
    tree = framecode.parse_expression(source, frame)
    return _tPeek(frame, extra or {}).visit(tree.body)


class _tPeek(object):
    def __init__(self, frame, extra):
        self._frame, self._extra = frame, extra
        self._locals = frame.f_locals

    def visit(self, node):
        method = getattr(self, "_visit_" + type(node).__name__, None)
        if method is None:
            raise tUnsafe("this is not evaluated here: {}".format(type(node).__name__))
        return method(node)

    def _visit_Constant(self, node):
        return node.value

    def _visit_Num(self, node):
        return node.n

    def _visit_Str(self, node):
        return node.s

    _visit_Bytes = _visit_Str

    def _visit_NameConstant(self, node):
        return node.value

    def _visit_Ellipsis(self, node):
        return Ellipsis

    def _visit_Name(self, node):
        name = node.id
        for names in (self._locals, self._extra, self._frame.f_globals, compat.builtins.__dict__):
            if statics.is_kind_of(type(names), dict) or type(names).__name__ == "FrameLocalsProxy":
                if name in names:
                    return names[name]
        raise tUnknown("name '{}' is not defined".format(name))

    def _visit_Attribute(self, node):
        value = self.visit(node.value)
        name = node.attr
        if framecode.is_private_name(name):
            owner = framecode.owner_of(self._frame, self._locals)
            name = compat.to_native(framecode.mangled(name, owner)) if owner else name
        try:
            return statics.find_attribute(value, name)
        except LookupError as why:
            text = str(why.args[0])
            if text == "no such attribute":
                raise tUnknown("{} has no attribute '{}'".format(statics.type_name(value), name))
            raise tUnsafe("'{}' is not evaluated here: {}".format(name, text))

    def _visit_Subscript(self, node):
        value = self.visit(node.value)
        kind = type(value)
        if kind not in _containers and kind not in (
                statics.kOrderedDict, values.collections.defaultdict, values.array.array):
            raise tUnsafe("items of {} are not looked up here".format(statics.type_name(value)))
        place = node.slice
        if isinstance(place, ast.Slice):
            key = slice(*[None if part is None else self.visit(part)
                          for part in (place.lower, place.upper, place.step)])
            if not all(type(part) in _plain for part in (key.start, key.stop, key.step)):
                raise tUnsafe("this slice is not evaluated here")
        else:
            key = self.visit(getattr(place, "value", place)
                             if type(place).__name__ == "Index" else place)
            if not _is_plain_key(key):
                raise tUnsafe("this key is not looked up here")
        try:
            if statics.is_kind_of(kind, dict):
                found = dict.get(value, key, statics.kMissing)  # a default is not made
                if found is statics.kMissing:
                    raise KeyError(key)
                return found
            return kind.__getitem__(value, key)
        except (LookupError, TypeError, ValueError) as why:
            raise tUnknown("{}: {}".format(type(why).__name__, why))

    def _visit_Tuple(self, node):
        return tuple(self.visit(item) for item in node.elts)

    def _visit_List(self, node):
        return [self.visit(item) for item in node.elts]

    def _visit_UnaryOp(self, node):
        value = self.visit(node.operand)
        operation = _unary.get(type(node.op))
        if operation is None or type(value) not in _plain or (
                type(value) not in _numbers and operation is not operator.not_):
            raise tUnsafe("this operator is not evaluated here")
        return operation(value)

    def _visit_BinOp(self, node):
        left, right = self.visit(node.left), self.visit(node.right)
        operation = _binary.get(type(node.op))
        if operation is None or not (_is_small(left) and _is_small(right)):
            raise tUnsafe("this operator is not evaluated here")
        return operation(left, right)

    def _visit_Compare(self, node):
        left = self.visit(node.left)
        for operator_node, right_node in zip(node.ops, node.comparators):
            right = self.visit(right_node)
            if isinstance(operator_node, (ast.Is, ast.IsNot)):
                result = (left is right) == isinstance(operator_node, ast.Is)
            elif type(operator_node) in _comparisons and type(left) in _plain and (
                    type(right) in _plain):
                try:
                    result = _comparisons[type(operator_node)](left, right)
                except TypeError as why:
                    raise tUnknown("TypeError: {}".format(why))
            else:
                raise tUnsafe("this comparison is not evaluated here")
            if not result:
                return result
            left = right
        return result


def _is_plain_key(key):
    if type(key) is tuple:
        return all(_is_plain_key(item) for item in key)
    return type(key) in _plain


def _is_small(value):
    if type(value) in values._whole_types:
        return value.bit_length() <= kMostBits
    return type(value) in _numbers
