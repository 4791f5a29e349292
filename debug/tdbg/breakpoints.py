"""The breakpoints of a debug session: numbers, places, conditions and counts.

The core knows breakpoints by file and line, and by ids of its own; users know them by numbers, and
change one of two on a line.  So this table is the truth, and a line of the core's is cleared and
written anew whenever one of its breakpoints changes.  Disabled ones are not written at all: in
the core they would still slow the code around them.  What the core counts is fetched from its
list of changes, and added to what was counted before the line was last written.

The core resolves files by device and inode, so a module may be imported under any name, now or
later; here every file has one spelling, its real path.
"""
from __future__ import absolute_import, division, print_function

import linecache
import os
import sys

from tdbg import codelines, compat, evaluate, private

_exists = os.path.isfile
_real_path = os.path.realpath
_abs_path = os.path.abspath
_isabs = os.path.isabs
_join = os.path.join
_folder_of = os.path.dirname
_expand_user = os.path.expanduser
_same_file = os.path.samefile
_get_folder = os.getcwd
_get_lines = linecache.getlines

kSuffixes = (".pyc", ".pyo")


class tRefused(Exception):
    """The breakpoint cannot be set or changed so; the text is one line for the user."""


class tBreakpoint(object):
    """One breakpoint.  To be read; changed by the methods of tBreakpoints only.

    number     from 1 on, never used twice
    path       real path of the file; line: the one that stops
    function   name that it was set by, or None
    condition  text of an expression, or None
    ignore     number of hits that will still not stop
    hits       how often its line was reached while it was enabled
    """

    __slots__ = ("number", "path", "line", "function", "condition", "ignore", "hits",
                 "enabled", "temporary", "core_id", "counted")

    def __init__(self, number, path, line):
        self.number, self.path, self.line = number, path, line
        self.function = self.condition = None
        self.ignore = self.hits = 0
        self.enabled, self.temporary = True, False
        self.core_id = None  # None: the core does not have it
        self.counted = 0     # hits of the core's record that are in `hits` already

    def as_settings(self):
        """What a new run needs, as plain values."""
        return {
            "number": self.number, "path": self.path, "line": self.line,
            "function": self.function, "condition": self.condition, "ignore": self.ignore,
            "enabled": self.enabled, "temporary": self.temporary}


class tHit(object):
    """A breakpoint that made a stop.  error: why its condition could not be told, or None."""

    __slots__ = ("breakpoint", "error")

    def __init__(self, breakpoint, error=None):
        self.breakpoint, self.error = breakpoint, error


class tBreakpoints(object):
    """core: the native module; folder: that the program was started in."""

    def __init__(self, core, folder=None):
        self._core = core
        self._folder = folder or _get_folder()
        self._by_number = {}
        self._next = 1
        self._live = False  # the core keeps breakpoints from its start on
        self._real_paths = {}  # file of code -> real path

    def go_live(self):
        """The core has been started: give it what was set before."""
        self._live = True
        for place in set((bp.path, bp.line) for bp in self._by_number.values()):
            self._write(*place)

    # --- looking ---

    def all(self):
        """Every breakpoint, by number, with its counts as of now."""
        self._collect()
        return [self._by_number[number] for number in sorted(self._by_number)]

    def get(self, number):
        """Breakpoint of a number; tRefused when there is none."""
        self._collect()
        if number not in self._by_number:
            raise tRefused("no breakpoint {}".format(number))
        return self._by_number[number]

    def at(self, path, line):
        """All on a line (of a path as find_file() gives it), by number."""
        return [bp for bp in self.all() if bp.path == path and bp.line == line]

    # --- setting and changing ---

    def add(self, path, line, condition=None, temporary=False, function=None, frame=None):
        """Set a breakpoint; the tBreakpoint, whose line is the first with code from `line` on.

        path      as find_file() gives it
        function  only to be remembered: find_function() tells where one begins
        frame     of the program, for files that only its import system can read
        """
        source = self.source(path, frame)
        if not 1 <= line <= source.count:
            raise tRefused(
                "{} has no line {}: it ends with line {}".format(path, line, source.count))
        found = source.line_with_code(line)
        if found is None:
            raise tRefused(
                "no code at line {} of {} or after it in the same function".format(line, path))
        check_condition(condition)
        bp = tBreakpoint(self._next, path, found)
        bp.condition, bp.temporary, bp.function = condition or None, temporary, function
        try:
            self._insert(bp)
        except Exception as why:  # a name that has no spelling in UTF-8
            self._by_number.pop(bp.number, None)
            raise tRefused("{}".format(why))
        return bp

    def remove(self, bp):
        self._collect()
        if self._by_number.pop(bp.number, None) is not None:
            self._write(bp.path, bp.line)

    def set_enabled(self, bp, enabled):
        self._change(bp, "enabled", enabled)

    def set_condition(self, bp, condition):
        """condition: text, or None for none."""
        check_condition(condition)
        self._change(bp, "condition", condition or None)

    def set_ignore(self, bp, count):
        self._change(bp, "ignore", max(count, 0))

    def _change(self, bp, name, value):
        self._collect()
        if self._by_number.get(bp.number) is not bp:
            raise tRefused("breakpoint {} is gone".format(bp.number))
        if getattr(bp, name) != value:
            setattr(bp, name, value)
            self._write(bp.path, bp.line)

    def _insert(self, bp):
        self._collect()
        self._next = max(self._next, bp.number) + 1
        self._by_number[bp.number] = bp
        self._write(bp.path, bp.line)

    # --- from one run to the next ---

    def as_settings(self):
        return [bp.as_settings() for bp in self.all()]

    def restore(self, settings):
        """Set again what as_settings() told, under the same numbers."""
        for row in settings:
            bp = tBreakpoint(row["number"], row["path"], row["line"])
            for name in ("function", "condition", "ignore", "enabled", "temporary"):
                setattr(bp, name, row[name])
            self._insert(bp)

    # --- the core's table ---

    def _write(self, path, line):
        """Bring the core's records of a line up to date.  Its changes must have been collected."""
        if not self._live:
            return
        name = compat.to_native(path)
        self._core.clear_breaks(name, line)
        on_line = [bp for bp in self._by_number.values() if bp.path == path and bp.line == line]
        for bp in sorted(on_line, key=lambda bp: bp.number):
            bp.core_id, bp.counted = None, 0
            if bp.enabled:
                bp.core_id = self._core.set_break(
                    name, "", line, 1, int(bp.temporary), compat.to_native(bp.condition), bp.ignore)

    def _collect(self):
        """Take over what the core has counted; [(tBreakpoint, new hits, ignored ones, deleted)]."""
        if not self._live:
            return []
        deleted, changed = self._core.get_changed_bps_lists()
        if not deleted and not changed:
            return []
        by_id = dict((bp.core_id, bp) for bp in self._by_number.values() if bp.core_id is not None)
        news = []
        for row in changed:
            bp = by_id.get(row[2])
            if bp is None:
                continue
            hits, ignored = row[7] - bp.counted, bp.ignore - row[6]
            bp.hits += hits
            bp.counted, bp.ignore = row[7], row[6]
            news.append((bp, hits, ignored, False))
        for core_id in deleted:
            bp = by_id.get(core_id)
            if bp is None:
                continue
            bp.hits += 1
            bp.ignore = 0
            bp.core_id = None
            del self._by_number[bp.number]
            news.append((bp, 1, 0, True))
        news.sort(key=lambda row: row[0].number)
        return news

    # --- at a stop ---

    def hits_at(self, frame):
        """[tHit] of the breakpoints that make the frame stop at its line; once per stop."""
        hits = []
        for bp, count, ignored, deleted in self._collect():
            if not self._is_at(bp, frame):
                continue
            if deleted:
                hits.append(tHit(bp))
            elif bp.condition is None:
                if count > ignored:
                    hits.append(tHit(bp))
            elif not count == ignored:
                # The core does not tell how the condition came out.
                result = evaluate.evaluate_limited(bp.condition, frame)
                if not result.ok:
                    hits.append(tHit(bp, result.error))
                elif result.value:
                    hits.append(tHit(bp))
        return hits

    def forget_event(self, frame):
        """A step has ended at the frame's return or exception, which the core counts as a hit of
        the breakpoints on that line: take that back."""
        for bp, count, ignored, deleted in self._collect():
            if not self._is_at(bp, frame) or count < 1:
                continue
            bp.hits -= 1
            if deleted:
                self._by_number[bp.number] = bp
            elif ignored < 1:
                continue
            else:
                bp.ignore += 1
            self._write(bp.path, bp.line)

    def _is_at(self, bp, frame):
        if bp.line != frame.f_lineno:
            return False
        path = self.path_of(frame)
        if path == bp.path:
            return True
        try:
            return _same_file(path, bp.path)
        except (OSError, ValueError):
            return False

    # --- files and functions ---

    def path_of(self, frame):
        """The file of a frame in this table's spelling; as it is for code that is in no file."""
        name = frame.f_code.co_filename
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
        try:
            if not _exists(path) and frame is not None and path == self.path_of(frame):
                with private.borrowed():
                    lines = _get_lines(frame.f_code.co_filename, frame.f_globals)
                if lines:
                    return codelines.tSource(path, [compat.to_text(line) for line in lines])
                raise tRefused("no source for {}".format(path))
            return codelines.read(path)
        except codelines.tNoSource as why:
            raise tRefused(str(why))

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
        if not _exists(path):
            if code.co_filename != frame.f_code.co_filename:
                raise tRefused("no source for {} ({})".format(name, code.co_filename))
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


def check_condition(text):
    """tRefused unless the text, if any, is an expression."""
    if not text:
        return
    try:
        with private.quiet():
            compile(compat.to_native(text), "<condition>", "eval", 0, True)
    except (SyntaxError, TypeError, ValueError) as why:
        reason = why.msg if isinstance(why, SyntaxError) else why
        raise tRefused("the condition is no expression: {}".format(reason))
