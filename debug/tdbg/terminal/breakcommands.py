"""The commands on breakpoints, and the lists of commands that are run when one stops."""
from __future__ import absolute_import, division, print_function

import os

from tdbg import breakpoints, compat
from tdbg.terminal.usage import number, tUsage

kListPrompt = "(com) "
kSeparator = ";;"  # of commands in one line
kEnd, kSilent = "end", "silent"
# Commands after which a list cannot go on: the stop is over.
kLast = frozenset((
    "do_step", "do_next", "do_until", "do_return", "do_continue", "do_restart", "do_quit"))

_list_folder = os.listdir
_is_folder = os.path.isdir
_join = os.path.join
_split_path = os.path.split
_is_absolute = os.path.isabs


class tBreakCommands(object):
    """Part of tCommands; lists: {number of a breakpoint: lines to run}."""

    def __init__(self, terminal):
        self._terminal = terminal
        self._display = terminal.display
        self.lists = {}
        self._last_set = None  # number of the breakpoint that `commands` means

    @property
    def _table(self):
        return self._terminal.server.breakpoints

    # --- setting ---

    def do_break(self, text):
        if text:
            self._set(text, temporary=False)
        else:
            self._display.show_breakpoints(self._table.all())

    def do_tbreak(self, text):
        if not text:
            raise tUsage("tbreak needs a place")
        self._set(text, temporary=True)

    def _set(self, text, temporary):
        place, comma, condition = text.partition(",")
        if comma and not condition.strip():
            raise tUsage("there is no condition after the comma")
        path, line, function = self._find_place(place.strip())
        frame = self._terminal.frame
        bp = self._table.add(path, line, condition.strip() or None, temporary, function, frame)
        self._last_set = bp.number
        kind = u"Temporary breakpoint" if temporary else u"Breakpoint"
        moved = u"" if bp.line == line else u" (there is no code at line {})".format(line)
        self._display.line(u"{} {} at {}{}".format(
            kind, bp.number, self._display.place_of(bp), moved))

    def _find_place(self, text):
        """(path, line, function or None) of [FILE:]LINE or [FILE:]FUNCTION."""
        frame = self._terminal.frame
        name, colon, place = text.rpartition(":")
        name, place = name.strip(), place.strip()
        if not place or (colon and not name):
            raise tUsage(
                "{} is no place: LINE, FUNCTION, FILE:LINE and FILE:FUNCTION are".format(text))
        path = self._table.find_file(name, frame) if colon else None
        if _is_number(place):
            return path or self._table.path_of(frame), int(place), None
        path, line = self._table.find_function(place, frame, path)
        return path, line, place

    # --- changing ---

    def do_clear(self, text):
        if not text:
            chosen = self._table.all()
            if chosen and not self._confirms("Clear all breakpoints? "):
                return
        elif ":" in text:
            path, line, _ = self._find_place(text)
            chosen = self._table.at(path, line)
            if not chosen:
                raise tUsage("no breakpoint at {}".format(text))
        else:
            chosen = self._numbered(text)
        for bp in chosen:
            self._table.remove(bp)
            self.lists.pop(bp.number, None)
            self._display.line(u"Deleted breakpoint {} at {}".format(
                bp.number, self._display.place_of(bp)))

    def do_enable(self, text):
        self._switch(text, True)

    def do_disable(self, text):
        self._switch(text, False)

    def _switch(self, text, enabled):
        chosen = self._numbered(text)
        for bp in chosen:
            self._table.set_enabled(bp, enabled)
            self._display.line(u"{} breakpoint {} at {}".format(
                u"Enabled" if enabled else u"Disabled", bp.number, self._display.place_of(bp)))

    def do_ignore(self, text):
        words = text.split()
        if words and not _is_number(words[0]):
            return self.ignore_exceptions(text)
        if len(words) not in (1, 2):
            raise tUsage(
                "ignore needs a breakpoint's number and a count, an exception, a place or `here`")
        bp = self._numbered(words[0])[0]
        self._table.set_ignore(bp, number(words[1], "count") if len(words) == 2 else 0)
        if bp.ignore > 0:
            self._display.line(u"The next {} of breakpoint {} will not stop.".format(
                _counted(bp.ignore, u"hit"), bp.number))
        else:
            self._display.line(u"The next hit of breakpoint {} will stop.".format(bp.number))

    def do_condition(self, text):
        word, _, condition = text.partition(" ")
        if not word:
            raise tUsage("condition needs a breakpoint's number")
        bp = self._numbered(word)[0]
        self._table.set_condition(bp, condition.strip() or None)
        if bp.condition:
            self._display.line(u"New condition set for breakpoint {}.".format(bp.number))
        else:
            self._display.line(u"Breakpoint {} is now unconditional.".format(bp.number))

    def _numbered(self, text):
        """Breakpoints whose numbers the text has; all of them exist, or none is returned."""
        words = text.replace(",", " ").split()
        if not words:
            raise tUsage("which one? `break` lists all breakpoints")
        return [self._table.get(number(word, "breakpoint's number")) for word in words]

    def _confirms(self, question):
        try:
            answer = self._terminal.console.read_line(question)
        except EOFError:
            return False
        return answer.strip().lower() in ("y", "yes")

    # --- commands to run at a breakpoint ---

    def do_commands(self, text):
        if not text and self._last_set is None:
            raise tUsage("no breakpoint has been set")
        bp = self._numbered(text or str(self._last_set))[0]
        lines = []
        while True:
            try:
                line = self._terminal.read_more(kListPrompt).strip()
            except EOFError:
                break
            if line == kEnd:
                break
            parts = [compat.to_native(part.strip()) for part in line.split(kSeparator)]
            lines.extend(part for part in parts if part)
            if lines and self._is_last(lines[-1]):
                break
        if lines:
            self.lists[bp.number] = lines
        else:
            self.lists.pop(bp.number, None)

    def _is_last(self, line):
        method = self.find(line.split(None, 1)[0])
        return method is not None and method.__name__ in kLast

    def take_lists(self, hits):
        """(lines to run at a stop, whether it is not to be shown)"""
        lines, silent = [], False
        for hit in hits:
            own = self.lists.get(hit.breakpoint.number, [])
            if hit.breakpoint.temporary and hit.error is None:
                self.lists.pop(hit.breakpoint.number, None)
            silent = silent or kSilent in own
            lines.extend(line for line in own if line != kSilent)
        return lines, silent and not any(hit.error for hit in hits)

    # --- completion ---

    def complete_place(self, word):
        """Every place that begins with the word: files, functions, functions of a file."""
        frame = self._terminal.frame
        name, colon, start = word.rpartition(":")
        if colon:
            path = self._table.find_file(name, frame)
            functions = self._table.source(path, frame).functions()
            return sorted(name + ":" + item for item in functions if item.startswith(start))
        return sorted(set(self._functions_here(word) + self._files(word)))

    def _functions_here(self, start):
        frame = self._terminal.frame
        try:
            functions = self._table.source(self._table.path_of(frame), frame).functions()
        except breakpoints.tRefused:
            return []
        return [name for name in functions if name.startswith(start)]

    def _files(self, word):
        folder, start = _split_path(word)
        found = []
        for base in [folder] if _is_absolute(folder) else self._folders(folder):
            try:
                names = _list_folder(base)
            except OSError:
                continue
            for name in names:
                if not name.startswith(start) or (name.startswith(".") and not start):
                    continue
                if _is_folder(_join(base, name)):
                    found.append(_join(folder, name) + "/")
                elif name.endswith(".py"):
                    found.append(_join(folder, name) + ":")
        return found

    def _folders(self, folder):
        beside = _split_path(self._table.path_of(self._terminal.frame))[0]
        return [_join(".", folder), _join(beside, folder)]


def _is_number(text):
    return text.lstrip("+-").isdigit()


def _counted(count, noun):
    return u"{} {}{}".format(count, noun, u"" if count == 1 else u"s")
