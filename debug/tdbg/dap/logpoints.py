"""What log points write: a text with expressions in braces.

`{{` and `}}` stand for braces.  A conversion (`!r`) and a format (`:>8`) may follow an expression,
as in the interpreter's own format strings.  What goes wrong with one expression is written in its
place.
"""
from __future__ import absolute_import, division, print_function

from tdbg import breakpoints, compat, conditions, evaluate

kMaxText = 10000  # characters of one value

_plain = (int, float, bool, type(None), compat.text_type, bytes)
_format = format
_repr = repr
_str = str


class tLogMessage(object):
    """breakpoints.tRefused when the text cannot be read."""

    def __init__(self, text):
        self.text = compat.to_text(text)
        self._parts = list(_parse(self.text))  # texts and tField

    def write(self, frame):
        """The text in a frame of the program."""
        return u"".join(
            part if isinstance(part, compat.text_type) else part.write(frame)
            for part in self._parts)


class tField(object):
    """expression: conditions.tExpression; conversion: r, s, a or nothing; form: the format"""

    def __init__(self, expression, conversion="", form=""):
        self.expression, self.conversion, self.form = expression, conversion, form

    def write(self, frame):
        try:
            value = self.expression.value(frame)
            if type(value) in _plain:
                text = self._convert(value)
            else:
                text = evaluate.call_with_limit(lambda: self._convert(value))
        except BaseException:
            return u"<{}>".format(compat.to_text(evaluate.describe_error()))
        return text if len(text) <= kMaxText else text[:kMaxText] + u"..."

    def _convert(self, value):
        if self.conversion == "a":
            value = compat.to_text(compat.to_literal(value))
        elif self.conversion == "r":
            value = compat.to_text(_repr(value))
        elif self.conversion == "s" or not self.form:
            value = value if isinstance(value, compat.text_type) else compat.to_text(_str(value))
        return compat.to_text(_format(value, compat.to_text(self.form))) if self.form else value


def _parse(text):
    position, plain = 0, []
    while position < len(text):
        char = text[position]
        if text.startswith((u"{{", u"}}"), position):
            plain.append(char)
            position += 2
        elif char == u"{":
            if plain:
                yield u"".join(plain)
                plain = []
            field, position = _read_field(text, position + 1)
            yield field
        else:
            plain.append(char)
            position += 1
    if plain:
        yield u"".join(plain)


def _read_field(text, start):
    """(tField, position behind its brace): the shortest text that makes one."""
    problem = None
    end = text.find(u"}", start)
    while end >= 0:
        try:
            return _make_field(text[start:end]), end + 1
        except (SyntaxError, TypeError, ValueError) as why:
            problem = problem or (text[start:end], why)
        end = text.find(u"}", end + 1)
    if problem is None:
        raise breakpoints.tRefused("the log message has a { without a }")
    inside, why = problem
    raise breakpoints.tRefused("in the log message, {} is no expression: {}".format(
        "{" + compat.to_native(inside) + "}", why.msg if isinstance(why, SyntaxError) else why))


def _make_field(text):
    try:
        return _checked(text)
    except (SyntaxError, TypeError, ValueError):
        # From the left: what is before a colon of the expression's own is no expression.
        for place, char in enumerate(text):
            if char == u":" or (char == u"!" and text[place + 1:place + 2] in (u"r", u"s", u"a")):
                conversion, rest = u"", text[place:]
                if char == u"!":
                    conversion, rest = text[place + 1], text[place + 2:]
                if rest and not rest.startswith(u":"):
                    continue
                try:
                    return _checked(text[:place], str(conversion), rest[1:])
                except (SyntaxError, TypeError, ValueError):
                    continue
        raise


def _checked(text, conversion="", form=""):
    expression = conditions.tExpression(text)
    expression.check()
    return tField(expression, conversion, form)
