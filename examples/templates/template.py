"""A small template language, and what a debugger must know to step through its templates.

    {{ expression }}                      the value as text
    {% for name, name in expression %}    ... {% end %}
    {% if expression %}                   ... {% else %} ... {% end %}
    {% include expression %}              another file, with the names that there are

Expressions are Python's.
"""
from __future__ import absolute_import, division, print_function

import io
import os
import re

_marks = re.compile(u"({{.*?}}|{%.*?%})", re.S)
_statement = re.compile(r"(for|if|include)\s+(.*)$|(else|end)$", re.S)
_loop = re.compile(r"([\w\s,]+?)\s+in\s+(.*)$", re.S)

kExpression = "<template expression>"  # what their code is compiled as
_loaded = {}  # path -> Template


class TemplateError(Exception):
    """The template cannot be read; the text has its path and line."""


class Template(object):
    """One file.  nodes: what it consists of; lines: those on which something begins."""

    def __init__(self, path):
        self.path = os.path.realpath(path)
        parser = _Parser(path)
        with io.open(path, encoding="utf-8") as source:
            parser.parse(source.read())
        self.nodes, self.lines = parser.nodes, parser.lines
        _loaded[self.path] = self
        tell_debugger()  # which lines there are

    def render(self, **names):
        """Text of the template with these names."""
        return self.render_with(names)

    def render_with(self, names):
        rendering = Rendering(self, names)
        rendering.run(self.nodes)
        return u"".join(rendering.out)


class Rendering(object):
    """A template being rendered.  names: of its variables; out: text so far."""

    def __init__(self, template, names):
        self.template, self.names, self.out = template, names, []

    def run(self, nodes):
        for node in nodes:
            node.run(self)

    def value(self, node):
        return eval(node.code, {}, self.names)


# --- what a template consists of; line: None for what no one wants to stop at -----------------


class Text(object):
    def __init__(self, line, text):
        self.line, self.text = line if text.strip() else None, text

    def run(self, rendering):
        rendering.out.append(self.text)


class Output(object):
    def __init__(self, line, code):
        self.line, self.code = line, code

    def run(self, rendering):
        rendering.out.append(u"{}".format(rendering.value(self)))


class For(object):
    def __init__(self, line, code, names):
        self.line, self.code, self.names, self.body = line, code, names, []

    def run(self, rendering):
        for item in rendering.value(self):
            values = [item] if len(self.names) == 1 else item
            rendering.names.update(zip(self.names, values))
            rendering.run(self.body)


class If(object):
    def __init__(self, line, code):
        self.line, self.code, self.body, self.other = line, code, [], []

    def run(self, rendering):
        rendering.run(self.body if rendering.value(self) else self.other)


class Include(object):
    def __init__(self, line, code):
        self.line, self.code = line, code

    def run(self, rendering):
        folder = os.path.dirname(rendering.template.path)
        path = os.path.join(folder, rendering.value(self))
        template = _loaded.get(os.path.realpath(path)) or Template(path)
        rendering.out.append(template.render_with(dict(rendering.names)))


class _Parser(object):
    def __init__(self, path):
        self.path, self.line, self.lines = path, 1, set()
        self.nodes = self._target = []
        self._open = []  # (For or If that has not ended, list that it is in)

    def parse(self, text):
        for part in _marks.split(text):
            if part.startswith(u"{{"):
                self._add(Output(self.line, self._compile(part[2:-2].strip())))
            elif part.startswith(u"{%"):
                self._parse_statement(part[2:-2].strip())
            else:
                for count, words in enumerate(part.splitlines(True)):
                    self._add(Text(self.line + count, words))
            self.line += part.count(u"\n")
        if self._open:
            self._refuse("a block without {% end %}")

    def _parse_statement(self, text):
        word, rest, end = (_statement.match(text) or self._refuse(text)).groups()
        if end and not self._open:
            self._refuse(text)
        if end == "else":
            self._target = self._open[-1][0].other = []
        elif end == "end":
            self._target = self._open.pop()[1]
        elif word == "include":
            self._add(Include(self.line, self._compile(rest)))
        elif word == "if":
            self._begin(If(self.line, self._compile(rest)))
        else:
            names, rest = (_loop.match(rest) or self._refuse(text)).groups()
            names = [str(name) for name in re.split(r"[\s,]+", names) if name]
            self._begin(For(self.line, self._compile(rest), names))

    def _begin(self, node):
        self._add(node)
        self._open.append((node, self._target))
        self._target = node.body

    def _add(self, node):
        self._target.append(node)
        if node.line is not None:
            self.lines.add(node.line)

    def _compile(self, text):
        try:
            return compile(text, kExpression, "eval")
        except SyntaxError:
            self._refuse(text)

    def _refuse(self, text):
        raise TemplateError("{}, line {}: {}".format(self.path, self.line, text))


# --- for debuggers ----------------------------------------------------------------------------


class Debugging(object):
    """Tells of the frames of this module which template they are in, and where."""

    def entries(self):
        return [Template.render]

    def functions(self):
        return [Rendering.run]

    def files(self):
        return [__file__, kExpression]

    def place(self, frame, line):
        node = frame.f_locals.get("node")
        if node is None or node.line is None:
            return None
        return frame.f_locals["self"].template.path, node.line

    def scope(self, frame):
        return frame.f_locals["self"]

    def variables(self, frame):
        return frame.f_locals["self"].names

    def lines(self, path):
        return _loaded[path].lines if path in _loaded else None


_debugging = Debugging()


def tell_debugger():
    try:
        import tdbg
    except ImportError:
        return
    tdbg.register_sub_language(_debugging)


tell_debugger()
