"""Jinja2's templates, stepped through as source.

Jinja2 compiles a template to a module of Python: a function for its top level and one for each
block and macro.  Each template has a table of the lines of that module at which the code of another
line of the template begins.  What is written out as it stands (text) has no lines of its own there.

New templates are seen where Jinja2 makes them of compiled code: that method is replaced.
"""
from __future__ import absolute_import, division, print_function

import bisect
import functools
import gc
import os
import re
import sys
import weakref

from tdbg import codelines, compat, sublanguages

kNoFile = "<template>"  # what Jinja2 calls the file of a template that is in none
kNumbered = "<template {}>"
kEntries = {
    "jinja2.environment": (
        "Template.render", "Template.render_async", "Template.generate", "Template.generate_async",
        "Template.make_module", "Template.make_module_async", "Template._get_default_module",
        "TemplateExpression.__call__"),
    "jinja2.runtime": ("Macro.__call__", "BlockReference.__call__"),
}
kFolders = ("jinja2", "markupsafe")
kMakers = ("from_code", "fake_traceback")  # they execute code that no one has written
_local = re.compile(r"l_([0-9]+)_(.+)$")

_base_name = os.path.basename
_folder_of = os.path.dirname
_code_type = type((lambda: 0).__code__)
_get_ident = compat.get_ident
_get_frame = sys._getframe
_get_objects = gc.get_objects
_bisect = bisect.bisect_right
_wraps, _partial = functools.wraps, functools.partial
_make_weak = weakref.ref


def make(refresh):
    """The language, when Jinja2 has been imported; None while that goes on.

    refresh: to be called with the language when there are new templates
    """
    template = _find("jinja2.environment", "Template")
    if template is None or getattr(sys.modules.get("jinja2"), "Template", None) is not template:
        return None
    return tJinja2(template, refresh)


class tJinja2(object):
    """See docs/sublanguages.md for the methods without underscore."""

    compiled = True  # a loop of the template is one of the function

    def __init__(self, template_type, refresh):
        self._refresh = refresh
        self._tables = {}      # code object -> tTable
        self._new = []         # code objects that functions() has not told of yet
        self._templates = {}   # path -> weak reference to the template
        self._texts = {}       # path -> source, of templates without a name
        self._evaluating = set()  # idents of threads that evaluate for the user
        self._undefined = _find("jinja2.runtime", "Undefined")
        self._folder = _folder_of(sys.modules["jinja2"].__file__) + os.sep
        self._numbers = weakref.WeakKeyDictionary()  # template without name and file -> its number
        self._last_number = 0
        self._hook_new_templates(template_type)
        for item in _get_objects():
            if issubclass(type(item), template_type) and hasattr(item, "root_render_func"):
                self._add(item)

    def _hook_new_templates(self, template_type):
        original = template_type.__dict__["_from_namespace"]

        @_wraps(original.__func__)
        def _from_namespace(cls, *args, **kwargs):
            template = original.__get__(None, cls)(*args, **kwargs)
            if _get_ident() not in self._evaluating:
                self._see(template, _get_frame(1))
            return template

        template_type._from_namespace = classmethod(_from_namespace)

    def _see(self, template, caller):
        try:
            self._add(template, _text_from(caller))
            self._refresh(self)
        except Exception:  # a template that is none as we know them is not shown
            pass

    def _add(self, template, text=None):
        functions = [template.root_render_func] + list(template.blocks.values())
        codes = [code for function in functions for code in _walk(function.__code__)]
        table = tTable(template.debug_info, codes)
        for code in codes:
            if code not in self._tables:
                self._new.append(code)
            self._tables[code] = table
        if template.name is None and template.filename in (None, kNoFile):
            self._last_number += 1
            self._numbers[template] = self._last_number
        path = sublanguages.full_path(self._path_of(template))
        self._templates[path] = _make_weak(template, _partial(self._forget, path))
        if text is not None and template in self._numbers:
            self._texts[path] = text

    def _forget(self, path, reference):
        if self._templates.get(path) is reference:
            del self._templates[path]
            self._texts.pop(path, None)

    def _path_of(self, template):
        if template.filename not in (None, kNoFile):
            return template.filename
        number = self._numbers.get(template, 1)
        return template.name or (kNoFile if number == 1 else kNumbered.format(number))

    # --- what the debugger asks ---

    def entries(self):
        return [
            _find(module, name) for module, names in kEntries.items() for name in names
            if _find(module, name) is not None]

    def functions(self):
        codes, self._new = self._new, []
        return codes

    def files(self):
        modules = [sys.modules.get(name) for name in kFolders]
        return [_folder_of(module.__file__) + "/" for module in modules if module is not None]

    def place(self, frame, line):
        table = self._tables.get(frame.f_code)
        template = frame.f_globals.get("__jinja_template__")
        if table is None or template is None:
            return None
        return self._path_of(template), table.line_of(line)

    def arrives(self, frame, line):
        return line in self._tables[frame.f_code].begins

    def title(self, frame):
        name = frame.f_code.co_name
        if name == "root":
            return _base_name(self._path_of(frame.f_globals["__jinja_template__"]))
        return name.replace("block_", "block ", 1)

    def variables(self, frame):
        found = frame.f_locals
        names = {}
        if found.get("context") is not None:
            known = frame.f_globals["__jinja_template__"].environment.globals
            names.update(item for item in found["context"].get_all().items()
                         if known.get(item[0], self) is not item[1])
        depths = {}
        for key, value in found.items():
            local = _local.match(key)
            if local is None or value is frame.f_globals.get("missing"):
                continue
            depth, name = int(local.group(1)), local.group(2)
            if depth >= depths.get(name, 0):
                depths[name], names[name] = depth, value
        return names

    def evaluate(self, text, frame):
        """An expression of Jinja2, or of Python where that is what it can be."""
        names = self.variables(frame)
        try:
            value = self._evaluate(text, frame, names)
            if not isinstance(value, self._undefined):
                return value
        except Exception as why:
            failure = why
        else:
            failure = None
        try:
            return eval(text, dict(names, __builtins__=compat.builtins))
        except SyntaxError:
            if failure is None:
                raise
        raise failure

    def _evaluate(self, text, frame, names):
        environment = frame.f_globals["__jinja_template__"].environment
        self._evaluating.add(_get_ident())
        try:
            return environment.compile_expression(text, undefined_to_none=False)(names)
        finally:
            self._evaluating.discard(_get_ident())

    def lines(self, path):
        template = self._known(path)
        return None if template is None else set(
            [1] + [line for line, _ in template.debug_info])

    def source(self, path):
        if path in self._texts:
            return self._texts[path]
        template = self._known(path)
        if template is None or template.name is None or template.environment.loader is None:
            return None
        return template.environment.loader.get_source(template.environment, template.name)[0]

    def find(self, name):
        for path, known in list(self._templates.items()):
            template = known()
            if template is not None and template.name == name:
                return path
        return name if name in self._templates else None

    def hides(self, frame):
        """A template's module while it is executed,
        and what Jinja2 executes to make a traceback."""
        caller = frame.f_back
        if caller is None or caller.f_code.co_name not in kMakers or (
                not caller.f_code.co_filename.startswith(self._folder)):
            return False
        current = _get_frame()
        while current is not None and current is not frame:
            current = current.f_back
        return current is frame

    def _known(self, path):
        known = self._templates.get(path)
        return None if known is None else known()


class tTable(object):
    """Where the lines of a template are in its module.

    begins: the lines of the module at which code of a line of the template begins, or a function
    """

    def __init__(self, debug_info, codes):
        pairs = sorted((line, template_line) for template_line, line in debug_info)
        self._lines = [line for line, _ in pairs]
        self._template_lines = [line for _, line in pairs]
        self.begins = set(self._lines) | set(codelines.first_line_of(code) for code in codes)

    def line_of(self, line):
        index = _bisect(self._lines, line)
        return self._template_lines[index - 1] if index else 1


def _find(module, name):
    """Something of a module that has been imported; None when there is no such thing."""
    found = sys.modules.get(module)
    for part in name.split("."):
        found = getattr(found, part, None)
    return found


def _walk(code):
    yield code
    for item in code.co_consts:
        if isinstance(item, _code_type):
            for inner in _walk(item):
                yield inner


def _text_from(frame):
    """Source of the template that a frame of Environment.from_string is making."""
    for _ in range(2):
        if frame is not None and frame.f_code.co_name == "from_string":
            text = frame.f_locals.get("source")
            return text if isinstance(text, compat.string_types) else None
        frame = None if frame is None else frame.f_back
    return None
