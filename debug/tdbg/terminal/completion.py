"""What Tab offers: commands at the start of a line, names and attributes of the frame after it."""
from __future__ import absolute_import, division, print_function

import keyword

from tdbg import compat

kPlaceCommands = ("break", "b", "tbreak", "clear", "cl")

_keywords = tuple(keyword.kwlist)
_builtin_names = tuple(dir(compat.builtins))


class tCompleter(object):
    """complete(text, state) as readline calls it.

    get_line()   the whole line so far
    get_frame()  the frame that names are looked up in
    find_places(word)  where a breakpoint can be, of what begins with the word
    """

    def __init__(self, command_names, get_line, get_frame, find_places=None):
        self._command_names = sorted(command_names)
        self._get_line, self._get_frame = get_line, get_frame
        self._find_places = find_places
        self._matches = []

    def complete(self, text, state):
        try:
            if state == 0:
                self._matches = self.find(text, self._get_line())
            return self._matches[state] if state < len(self._matches) else None
        except BaseException:
            return None  # an attribute's own code may fail

    def find(self, text, line):
        """Every completion of the word, sorted."""
        words = line.lstrip().split()
        at_start = len(words) <= 1 and line.lstrip() == text
        if at_start and "." not in text:
            commands = [name for name in self._command_names if name.startswith(text)]
            if commands or not text:
                return commands
        if words and words[0] in ("help", "h"):
            return [name for name in self._command_names if name.startswith(text)]
        if words and words[0] in kPlaceCommands and self._find_places and "," not in line:
            # readline's word may be only the end of ours: `-` and `/` separate words.
            word = "" if line[-1:].isspace() else words[-1]
            head = len(word) - len(text)
            return [place[head:] for place in self._find_places(word)]
        return self._find_attributes(text) if "." in text else self._find_names(text)

    def _find_names(self, text):
        frame = self._get_frame()
        names = set(_keywords) | set(_builtin_names) | set(frame.f_globals) | set(frame.f_locals)
        return sorted(name for name in names if name.startswith(text))

    def _find_attributes(self, text):
        parts = text.split(".")
        frame = self._get_frame()
        value = self._look_up(parts[0], frame)
        for part in parts[1:-1]:
            value = getattr(value, part)
        prefix = ".".join(parts[:-1]) + "."
        wanted = parts[-1]
        names = [name for name in dir(value) if name.startswith(wanted)]
        if not wanted.startswith("_"):
            names = [name for name in names if not name.startswith("_")]
        return [prefix + name for name in sorted(names)]

    def _look_up(self, name, frame):
        for names in (frame.f_locals, frame.f_globals, compat.builtins.__dict__):
            if name in names:
                return names[name]
        raise NameError(name)
