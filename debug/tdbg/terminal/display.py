"""How stops, source lines and values look."""
from __future__ import absolute_import, division, print_function

import linecache
import os
import types

from tdbg import compat, evaluate, private, stops, sublanguages

kAround = 5  # lines before and after the current one
kEscapes = {
    "location": "\x1b[36m", "current": "\x1b[1m", "number": "\x1b[2m", "error": "\x1b[31m",
    "note": "\x1b[33m",
}
kPlain = "\x1b[0m"

_get_lines = linecache.getlines
_check_cache = linecache.checkcache
_isabs = os.path.isabs
_join = os.path.join

kOptimized = 0x1  # CO_OPTIMIZED: the code of a function


class tDisplay(object):
    """core: names the files of frames; folder: that relative names of files were meant in."""

    def __init__(self, console, core, folder):
        self._console, self._core, self._folder = console, core, folder

    def colour(self, kind, text):
        if not self._console.can_colour:
            return text
        return kEscapes[kind] + text + kPlain

    def error(self, text):
        """A command failed."""
        self._console.write(u"{} {}\n".format(self.colour("error", u"***"), compat.to_text(text)))

    def note(self, text):
        self._console.write(self.colour("note", compat.to_text(text)) + u"\n")

    def line(self, text=u""):
        self._console.write(compat.to_text(text) + u"\n")

    # --- source ---

    def file_of(self, frame):
        name = frame.f_code.co_filename
        if _isabs(name) or name.startswith("<") or sublanguages.is_view(frame):
            return name
        full = self._core.get_frame_file(frame)
        if full and _isabs(full):
            return full
        return _join(self._folder, name)

    def source_of(self, frame):
        """All lines of the frame's file, as text with their ends; [] when there is no source."""
        path = self.file_of(frame)
        if sublanguages.is_view(frame):
            source = frame.source()
            if source is not None:
                return source.lines
        try:
            with private.borrowed():
                _check_cache(path)
                lines = _get_lines(path, frame.f_globals)
        except Exception:  # an undecodable file
            lines = []
        return [compat.to_text(line) for line in lines]

    def location(self, frame, lineno):
        """"file(line)function()"; "file(line)name" for code of another language."""
        return u"{}({}){}{}".format(
            compat.to_text(self.file_of(frame)), lineno, compat.to_text(frame.f_code.co_name),
            u"" if sublanguages.is_view(frame) else u"()")

    def source_line(self, frame, lineno):
        lines = self.source_of(frame)
        if 0 < lineno <= len(lines):
            return lines[lineno - 1].strip()
        return None

    # --- stops ---

    def show_entry(self, entry, value=None, has_value=False):
        """Where one frame of the stack is, as two lines."""
        frame, lineno = entry
        text = u"> " + self.colour("location", self.location(frame, lineno))
        if has_value:
            text += u"->" + evaluate.short_text(value)
        self.line(text)
        source = self.source_line(frame, lineno)
        if source is not None:
            self.line(u"-> " + self.colour("current", source))

    def show_stop(self, stop, thread_changed):
        if thread_changed:
            self.note(u"[thread {}]".format(compat.to_text(stop.thread.name)))
        for hit in stop.hits:
            self._show_hit(hit)
        if stop.reason == stops.kReturn:
            self.note(u"--Return--")
        elif stop.reason == stops.kPause:
            self.note(u"--Interrupted--")
        elif stop.exc_info is not None:
            self._show_exception(stop)

    def _show_exception(self, stop):
        if stop.reason == stops.kUncaught:
            self.note(u"--Uncaught exception, the {} ends after this--".format(
                u"program" if stop.thread.is_main else u"thread"))
        elif stop.reason == stops.kPostMortem:
            self.note(u"--Post-mortem--")
        elif stop.reason == stops.kReported:
            where = u""
            if stop.catcher is not None:
                frame, line = stop.catcher
                where = u" by " + self.location(frame, line or frame.f_lineno)
            self.note(u"--Exception that is only printed or logged{}--".format(where))
        if stop.exc_info[0] is not None:
            text = evaluate.describe_exception(*stop.exc_info[:2])
            self.line(self.colour("error", text))

    def _show_hit(self, hit):
        bp = hit.breakpoint
        if hit.error is not None:
            self.error(u"condition {} of breakpoint {}: {}".format(
                compat.to_text(bp.condition), bp.number, compat.to_text(hit.error)))
        elif bp.temporary:
            self.note(u"--Breakpoint {}, deleted--".format(bp.number))
        else:
            self.note(u"--Breakpoint {}--".format(bp.number))

    # --- breakpoints ---

    @staticmethod
    def place_of(bp):
        return u"{}:{}".format(compat.to_text(bp.path), bp.line)

    def show_breakpoints(self, all_of_them):
        if not all_of_them:
            return self.line(u"No breakpoints.")
        self.line(u"Num  Kind       Enabled  Hits  Where")
        for bp in all_of_them:
            place = self.place_of(bp)
            if bp.function:
                place += u" in " + compat.to_text(bp.function)
            self.line(u"{:<4} {:<10} {:<7} {:>5}  {}".format(
                bp.number, u"temporary" if bp.temporary else u"breakpoint",
                u"yes" if bp.enabled else u"no", bp.hits, place))
            if bp.condition:
                self.line(u"     stop only if {}".format(compat.to_text(bp.condition)))
            if bp.ignore:
                self.line(u"     ignore next {} hits".format(bp.ignore))

    # --- stack and source ---

    def show_stack(self, stack, current):
        for index, (frame, lineno) in enumerate(stack):
            mark = u"> " if index == current else u"  "
            self.line(mark + self.colour("location", self.location(frame, lineno)))
            source = self.source_line(frame, lineno)
            if source is not None:
                self.line(u"-> " + source)

    def show_lines(self, frame, first, last, current, raised=None):
        """Lines first..last; returns how many there were."""
        lines = self.source_of(frame)
        chosen = lines[max(first, 1) - 1:last]
        for number, text in enumerate(chosen, max(first, 1)):
            mark = u"->" if number == current else u">>" if number == raised else u"  "
            start = self.colour("number", u"{:>3}".format(number)) + u"  " + mark
            self.line((start + u"\t" + text.rstrip()).rstrip())
        return len(chosen)

    # --- values ---

    def show_named_values(self, pairs):
        for name, value in pairs:
            self.line(u"{} = {}".format(compat.to_text(name), evaluate.short_text(value)))

    def kind_of(self, value):
        """What `whatis` says."""
        if isinstance(value, types.MethodType):
            return u"Method " + compat.to_text(value.__func__.__name__)
        if isinstance(value, types.FunctionType):
            return u"Function " + compat.to_text(value.__name__)
        if isinstance(value, type):
            return u"Class {}.{}".format(
                compat.to_text(value.__module__),
                compat.to_text(getattr(value, "__qualname__", value.__name__)))
        return evaluate.full_text(type(value))


def is_function(code):
    return bool(code.co_flags & kOptimized)
