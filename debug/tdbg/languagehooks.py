"""What the core asks about a language that is implemented in Python, and what the language answers.

The core knows a language by one tHook, which it asks at every event of a frame of the language's
functions.  The methods of a language are the program's: one that fails is told of once, and then
counts as one that is not there.
"""
from __future__ import absolute_import, division, print_function

import dis
import os

from tdbg import compat, usercode
from tdbg.languageviews import full_path, read, spellings, tSource

# Events and step modes, as the core tells them.
kException, kCall, kLine, kReturn = -1, 0, 1, 2
kModeRun, kModeStepInto, kModeAsked = -1, 0, 1  # kModeAsked: is this a place for a breakpoint?

kYieldFrom = dis.opmap.get("YIELD_FROM")
# A frame of 3.13 that yields is at the instruction that it will go on with.
kYields = frozenset((dis.opmap["YIELD_VALUE"], kYieldFrom, dis.opmap.get("RESUME")))

_get_ident = compat.get_ident
_base_name = os.path.basename
_code_type = type((lambda: 0).__code__)
_builtins = compat.builtins

_kGenerator = 0x20 | 0x80 | 0x200  # generators, coroutines, both


class tHook(object):
    """What the core asks about a language; the names of these methods are the core's."""

    def __init__(self, language, session):
        self.language = language
        self._session = session
        self.entries, self.keys, self._files = [], [], []
        self._compiled = bool(getattr(language, "compiled", False))
        self._covered = {}    # file of code -> whether it is the implementation's
        self._spellings = {}  # file as the language tells it -> full one
        self._seen = {}       # thread ident -> {id of frame: (place, instruction, line)}
        self._fresh = {}      # thread ident -> whether the event at hand comes to a new place
        self._arrived = {}    # thread ident -> id of the frame that may stop at the event at hand
        self._uncounted = set()  # idents of threads that stop without a look at breakpoints
        self._told = set()    # idents of threads whose exception is to be told

    def reload(self):
        """Ask the language for its functions."""
        self.entries = [code for code in map(code_of, self._ask("entries", ())) if code]
        # Only new ones, perhaps: the core keeps those that it has been told of.
        self.keys = [code for code in map(code_of, self._ask("functions", ())) if code] or self.keys
        files = self._ask("files", None)
        if files is None:
            files = set(code.co_filename for code in self.entries + self.keys)
        self._files = sorted(set(spelling for path in files for spelling in spellings(path)))
        self._covered = {}

    def _ask(self, method, default, *args):
        """Answer of one of the language's methods; the default where it has none or that fails."""
        function = getattr(self.language, method, None)
        if function is None:
            return default
        try:
            return function(*args)
        except BaseException as why:
            self._session.tell_failure(self.language, method, why)
            return default

    # --- for the server ---

    def place_of(self, frame, line):
        """(full path, line, ...) of the language that the frame is at; None: at none."""
        place = self._ask("place", None, frame, line)
        if not place or not place[1] or place[0] is None:
            return None
        path = compat.to_native(place[0])
        full = self._spellings.get(path)
        if full is None:
            full = self._spellings[path] = full_path(path)
        return (full,) + tuple(place[1:])

    def scope_of(self, frame):
        return self._ask("scope", frame, frame)

    def title_of(self, frame, place):
        return compat.to_native(self._ask("title", None, frame) or _base_name(place[0]))

    def variables_of(self, frame):
        names = self._ask("variables", None, frame)
        return frame.f_locals if names is None else names

    def globals_of(self, frame):
        names = self._ask("globals", None, frame)
        return {"__builtins__": _builtins} if names is None else names

    def evaluate(self, text, frame):
        function = getattr(self.language, "evaluate", None)
        if function is not None:
            return usercode.call(function, text, frame)
        code = compile(text, "<debugger>", "eval", 0, True)
        space, names = self.globals_of(frame), self.variables_of(frame)
        if any(isinstance(item, _code_type) for item in code.co_consts):
            # Comprehensions and lambdas look names up as globals.
            space = dict(space)
            space.update(names)
        return usercode.call(eval, code, space, names)

    def hides(self, frame):
        return bool(self._ask("hides", False, frame))

    def covers(self, code):
        """Whether the code is the implementation's."""
        name = code.co_filename
        known = self._covered.get(name)
        if known is None:
            full = full_path(name)
            known = any(name.startswith(path) or full.startswith(path) for path in self._files)
            self._covered[name] = known
        return known

    def source(self, path):
        lines = self._ask("lines", None, path)
        text = self._ask("source", None, path)
        if text is None and lines is not None:
            text = read(path)
        return None if text is None else tSource(path, text, lines)

    def find(self, name):
        found = self._ask("find", None, name)
        return None if found is None else full_path(compat.to_native(found))

    def has_arrived(self, frame):
        return self._arrived.get(_get_ident()) == id(frame)

    def is_uncounted(self):
        return _get_ident() in self._uncounted

    # --- for the core ---

    def _GetMarkerFrames(self):
        return self.entries

    def _GetModulePaths(self):
        return [(compat.to_native(path), 1) for path in self._files]

    def _GetSubLanguageFrames(self):
        return self.keys

    def _GetStepOutFrame(self, frame):
        return self._session.step_out_frame(frame)

    def _StopHere(self, frame, event, mode):
        ident = _get_ident()
        self._arrived.pop(ident, None)
        self._uncounted.discard(ident)
        if event == kException:
            return mode != kModeAsked and self._tells_exception(frame, mode, ident)
        self._told.discard(ident)
        if event != kLine:
            self._forget(frame, event, ident)
            return False
        if mode == kModeAsked:
            fresh = self._fresh.pop(ident, None)
            if fresh is None:
                fresh = self._arrives(frame, ident)
        else:
            fresh = self._fresh[ident] = self._arrives(frame, ident)
            if fresh and mode != kModeStepInto:
                line = self._seen[ident][id(frame)][0][1]
                if not self._session.ends_step(ident, frame, self, line):
                    return False
            if fresh:
                self._uncounted.add(ident)
        if fresh:
            self._arrived[ident] = id(frame)
        return fresh

    def _arrives(self, frame, ident):
        """Whether the frame has come to a new place of the language with this line event."""
        place = self.place_of(frame, frame.f_lineno)
        if place is None or not self._ask("arrives", True, frame, frame.f_lineno):
            return False
        seen = self._seen.setdefault(ident, {})
        before = seen.get(id(frame))
        seen[id(frame)] = (place, frame.f_lasti, frame.f_lineno)
        if before is None or before[0] != place:
            return True
        # A turn of a loop that is all on one line; where that is one of Python, too, the way back
        # need not lead to its beginning.
        return self._compiled and (frame.f_lasti < before[1] or frame.f_lineno == before[2])

    def _forget(self, frame, event, ident):
        """A frame begins or ends; one that yields will go on."""
        if event == kCall and frame.f_code.co_flags & _kGenerator:
            return
        if event == kReturn and _is_yielding(frame):
            return
        seen = self._seen.get(ident)
        if seen:
            seen.pop(id(frame), None)
            if not seen:
                del self._seen[ident]
        if event == kReturn:
            self._session.frame_left(ident, frame)

    def _tells_exception(self, frame, mode, ident):
        """The core asks twice: whether the thread stops, and then whether it shall be told."""
        if ident in self._told:
            self._told.discard(ident)
            return True
        if not (mode == kModeStepInto or self._session.tells_every_exception()
                or self._session.ends_step(ident, frame, self)):
            return False
        if not self._session.tells_every_exception():
            self._told.add(ident)
        return True

    def _TranslateFrame(self, frame, flag):
        return self.place_of(frame, frame.f_lineno)[:2]

    def _Eval(self, text, frame):
        lender = self._session.lender
        if lender is None:
            return self.evaluate(compat.to_text(text), frame)
        lender.enter()  # a condition must not hold others up for ever
        try:
            return self.evaluate(compat.to_text(text), frame)
        finally:
            lender.leave()


def _is_yielding(frame):
    if not frame.f_code.co_flags & _kGenerator or frame.f_lasti < 0:
        return False
    # `yield from` of 3.6 to 3.10 is done again when the frame goes on: there it is the next one.
    code = bytearray(frame.f_code.co_code[frame.f_lasti:frame.f_lasti + 3:2])
    return code[0] in kYields or (kYieldFrom is not None and code[-1] == kYieldFrom)


def code_of(item):
    """Code object of what a language names: a function, a method or the code object itself."""
    item = getattr(item, "__func__", item)
    item = getattr(item, "__code__", item)
    return item if isinstance(item, _code_type) else None
