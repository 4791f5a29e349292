"""Where code is: files as the user names them and as frames have them, the lines of them that have
code, and functions by name.
"""
from __future__ import absolute_import, division, print_function

import os
import sys

from tdbg import codelines, compat, evaluate, sublanguages
from tdbg.breakrecords import tRefused
from tdbg.checksums import kSuffixes

_exists = os.path.isfile
_real_path = os.path.realpath
_isabs = os.path.isabs
_join = os.path.join
_folder_of = os.path.dirname
_expand_user = os.path.expanduser
_get_folder = os.getcwd

kPythonSuffixes = (".py", ".pyw")


class tCodePlaces(object):
    """core: the native module; folder: that the program was started in; languages: the
    sublanguages.tLanguages of the session, if there are any."""

    def __init__(self, core, folder=None, languages=None):
        self._core, self._languages = core, languages
        self._folder = folder or _get_folder()
        self._real_paths = {}  # file of code -> real path

    @property
    def folder(self):
        """That the program was started in."""
        return self._folder

    def path_of(self, frame):
        """The file of a frame in this table's spelling; as it is for code that is in no file."""
        name = frame.f_code.co_filename
        if sublanguages.is_view(frame):
            return name
        path = self._real_paths.get(name)
        if path is None:
            full = name
            if not _isabs(full) and not full.startswith("<"):
                full = self._core.get_frame_file(frame) or name
                if not _isabs(full):
                    full = _join(self._folder, full)
            path = _real_path(full) if _isabs(full) else full
            if path.endswith(kSuffixes):
                path = path[:-1]
            self._real_paths[name] = path
        return path

    def find_file(self, name, frame=None):
        """Real path of a file that the user names: by path, by module, or in part; tRefused.

        A relative name is looked for in the current folder, the one that the program was started
        in, beside the frame's file and on the module path.
        """
        text = compat.to_native(_expand_user(name))
        if text.endswith(kSuffixes):
            text = text[:-1]
        if frame is not None and text in (frame.f_code.co_filename, self.path_of(frame)):
            return self.path_of(frame)
        candidates = [text] if text.endswith(".py") else [text, text + ".py"]
        for candidate in candidates:
            for folder in self._folders(frame):
                path = _join(folder, candidate)
                if _exists(path):
                    return _real_path(path)
        path = self.find_module(text, frame)
        if path is None and self._languages is not None:
            path = self._languages.find_file(text)
        if path is None:
            raise tRefused("no file {}".format(name))
        return path

    def find_module(self, name, frame=None):
        """Real path of a module's source, whether it has been imported or not; else None."""
        parts = name.split(".")
        if not all(parts) or "/" in name:
            return None
        loaded = getattr(sys.modules.get(name), "__file__", None)
        if isinstance(loaded, compat.string_types) and loaded:
            loaded = loaded[:-1] if loaded.endswith(kSuffixes) else loaded
            if loaded.endswith(".py") and _exists(loaded):
                return _real_path(loaded)
        for folder in self._folders(frame):
            path = _join(folder, *parts)
            for candidate in (path + ".py", _join(path, "__init__.py")):
                if _exists(candidate):
                    return _real_path(candidate)
        return None

    def _folders(self, frame):
        try:
            yield _get_folder()
        except OSError:  # removed meanwhile
            pass
        yield self._folder
        if frame is not None:
            yield _folder_of(self.path_of(frame))
        for folder in list(sys.path):
            if isinstance(folder, compat.string_types):
                yield folder or self._folder

    def source(self, path, frame=None):
        """codelines.tSource of a file; tRefused with the reason."""
        known = None if self._languages is None else self._languages.source_of(path)
        if known is not None:
            return known
        try:
            if not _exists(path) and frame is not None and path == self.path_of(frame):
                lines = codelines.lines_without_file(frame.f_code.co_filename, frame.f_globals)
                if lines:
                    return codelines.tSource(path, lines)
                raise tRefused("no source for {}".format(path))
            return codelines.read(path)
        except codelines.tNoSource as why:
            # It may be of a language that the program has not told of yet.
            text = None if path.endswith(kPythonSuffixes) else sublanguages.read(path)
            if text is None:
                raise tRefused(str(why))
            return sublanguages.tSource(path, text)

    def find_function(self, name, frame=None, path=None):
        """(path, line) where a function begins; tRefused.

        name   a name or an expression in the frame; where that gives nothing, the name of a
               function of the frame's file (`f`, `Class.method`, `outer.inner`) or of a module
               (`package.module.f`), which need not have been imported
        path   look only in this file
        """
        if path is None:
            found = self._function_value(name, frame) or self._function_in_frame_file(name, frame)
            found = found or self._function_in_module(name, frame)
            if found is None:
                raise tRefused("no function {}".format(name))
            return found
        line = _only_function(self.source(path, frame), name)
        if line is None:
            raise tRefused("no function {} in {}".format(name, path))
        return path, line

    def _function_value(self, name, frame):
        if frame is None:
            return None
        result = evaluate.evaluate_limited(name, frame)
        code = code_of(result.value) if result.ok else None
        if code is None:
            return None
        path = code.co_filename
        path = _real_path(path if _isabs(path) else _join(self._folder, path))
        if not _exists(path) and code.co_filename == frame.f_code.co_filename:
            path = self.path_of(frame)
        return path, codelines.first_line_of(code)

    def _function_in_frame_file(self, name, frame):
        if frame is None:
            return None
        path = self.path_of(frame)
        try:
            source = self.source(path, frame)
        except tRefused:
            return None
        line = _only_function(source, name)
        return None if line is None else (path, line)

    def _function_in_module(self, name, frame):
        parts = name.split(".")
        for count in range(len(parts) - 1, 0, -1):
            path = self.find_module(".".join(parts[:count]), frame)
            if path is not None:
                line = _only_function(self.source(path), ".".join(parts[count:]))
                if line is not None:
                    return path, line
        return None


def place_in(source, line):
    """(line with code from `line` on, tBreakpoint.inside); tRefused when there is none."""
    path = source.path
    if not 1 <= line <= source.count:
        raise tRefused("{} has no line {}: it ends with line {}".format(path, line, source.count))
    found = source.line_with_code(line)
    if found is None:
        raise tRefused(
            "no code at line {} of {} or after it in the same function".format(line, path))
    return found, frozenset(source.one_line_functions(found))


def _only_function(source, name):
    """First line of the function of that name, or None; tRefused when several are meant."""
    found = source.find_functions(name)
    if len(found) > 1:
        raise tRefused("which one: {}?".format(", ".join(sorted(found))))
    return list(found.values())[0] if found else None


def code_of(value):
    """Code object of a function or method, below its decorators; None for anything else."""
    seen = 0
    try:
        while getattr(value, "__wrapped__", None) is not None and seen < 100:
            value, seen = value.__wrapped__, seen + 1
        value = getattr(value, "__func__", value)
        code = getattr(value, "__code__", None)
    except Exception:  # attributes are code of the program
        return None
    return code if isinstance(code, type(code_of.__code__)) else None
