"""Languages implemented in Python, which the user steps through as if they were source.

A template engine, a runner of notebook cells: what executes is Python, but what the user has written
is something else.  A program tells about its language by an object (docs/sublanguages.md has the
interface), in which a few functions of the implementation are named: those whose call enters the
language, and those whose frames stand at a line of it.  The core gets one tHook for each such
object; it is asked at every event of such a frame.  What the user sees of these frames are
tFrameViews, one for each activation of a template.

Stepping: the core does not know the language's lines, so a step in one is planned here, as the
activations in which it may end.  The core goes on to the nearest caller in Python.
"""
from __future__ import absolute_import, division, print_function

import dis
import importlib
import io
import os
import sys

from tdbg import compat, register_sub_language

# Events and step modes, as the core tells them.
kException, kCall, kLine, kReturn = -1, 0, 1, 2
kModeRun, kModeStepInto, kModeAsked = -1, 0, 1  # kModeAsked: is this a place for a breakpoint?

kRaiseMode = 1  # of the core's exception modes: every exception is told
kYieldFrom = dis.opmap.get("YIELD_FROM")
# A frame of 3.13 that yields is at the instruction that it will go on with.
kYields = frozenset((dis.opmap["YIELD_VALUE"], kYieldFrom, dis.opmap.get("RESUME")))
kSuffixes = (".pyc", ".pyo")

# Languages of well-known libraries: name of the library -> module with a function make(refresh),
# which gives the language once the library can be used, else None.
kReady = {"jinja2": "tdbg.languages.jinja2hook"}

_get_ident = compat.get_ident
_abs_path = os.path.abspath
_base_name = os.path.basename
_exists = os.path.isfile
_is_absolute = os.path.isabs
_open = io.open
_real_path = os.path.realpath
_code_type = type((lambda: 0).__code__)
_builtins = compat.builtins

# The standard library, and what is not part of it in the same folder.
_library = tuple(set(
    spelling(os.path.dirname(os.__file__)) + os.sep for spelling in (_abs_path, _real_path)))
_own_folder = os.path.dirname(register_sub_language.__code__.co_filename) + os.sep
kFrozen = "<frozen "
kAddedFolders = ("site-packages", "dist-packages")

_registered = []  # every language that the program has told of, in that order
_session = None   # the tLanguages of the debug session, if there is one


def register(language):
    """A program's language, or one whose functions have changed since."""
    if not any(known is language for known in _registered):
        _registered.append(language)
    if _session is not None:
        _session.add(language)


class tSource(object):
    """Lines of a file of a language.  Has what codelines.tSource has; there are no functions."""

    def __init__(self, path, text, lines=None):
        """lines: numbers of those that can stop; None: any may."""
        self.path = path
        self.lines = _split_lines(text)
        self.count = len(self.lines)
        self._stopping = None if lines is None else sorted(lines)

    def line_with_code(self, line):
        if self._stopping is None:
            return line
        following = [number for number in self._stopping if number >= line]
        return following[0] if following else None

    def lines_with_code(self, first, last):
        stopping = range(1, self.count + 1) if self._stopping is None else self._stopping
        return [line for line in stopping if first <= line <= last]

    def functions(self):
        return {}

    def find_functions(self, name):
        return {}

    def one_line_functions(self, line):
        return ()


class tCodeView(object):
    """What a code object tells of itself, for a tFrameView."""

    __slots__ = ("co_filename", "co_name", "co_qualname", "co_firstlineno")

    co_flags = co_argcount = co_kwonlyargcount = 0
    co_varnames = co_cellvars = co_freevars = co_consts = ()

    def __init__(self, path, name):
        self.co_filename, self.co_name, self.co_qualname = path, name, name
        self.co_firstlineno = 1


class tFrameView(object):
    """An activation of a template (or what the language has instead), shown as if it were a frame.

    frame  the frame of the program that stands at the place
    scope  what identifies the activation
    base   id of the outermost frame of the activation
    The rest is as a frame has it; f_back is the next frame or view outwards that is shown.
    """

    __slots__ = ("hook", "frame", "scope", "base", "f_lineno", "f_code", "f_back")

    f_trace = None

    def __init__(self, hook, frame, place, scope, base, back):
        self.hook, self.frame, self.scope, self.base = hook, frame, scope, base
        self.f_lineno, self.f_back = place[1], back
        self.f_code = tCodeView(place[0], hook.title_of(frame, place))

    @property
    def f_locals(self):
        return self.hook.variables_of(self.frame)

    @property
    def f_globals(self):
        return self.hook.globals_of(self.frame)

    def source(self):
        """tSource of its file as the language knows it; None: look for the file."""
        return self.hook.source(self.f_code.co_filename)

    def evaluate(self, text):
        """Value of an expression of the language; exceptions are the language's."""
        return self.hook.evaluate(text, self.frame)


def is_view(frame):
    return isinstance(frame, tFrameView)


def real_frame(frame):
    """The frame of the program behind what is shown."""
    return frame.frame if isinstance(frame, tFrameView) else frame


class tLanguages(object):
    """The languages of a debug session.

    core: the native module; tell_error: function (text), for languages that fail
    """

    def __init__(self, core, tell_error):
        self._core = core
        self._tell_error = tell_error
        self._hooks = []
        self._hook_by_code = {}      # of key functions
        self._entry_codes = {}       # code object -> tHook
        # thread ident -> {id of scope: (id of its outermost frame, first line to stop at)} or None:
        # all of them.
        self._plans = {}
        self._failed = set()         # (language, method) that an error has been told of
        self._library_files = {}     # file of code -> whether it is the standard library's
        self._hiding = []            # those of _hooks that hide frames
        self._off = set()            # names of kReady that the user does not want
        self._waiting = set(kReady)  # those that have not been seen yet
        self.on_change = None        # called when a language's functions have changed

    def go_live(self):
        """The core has been initialised: languages get into force."""
        global _session
        _session = self
        for language in list(_registered):
            self.add(language)
        for name in kReady:
            if name in sys.modules:
                self._begin_ready(name)

    def add(self, language):
        """A language, or one that has changed."""
        for hook in self._hooks:
            if hook.language is language:
                break
        else:
            hook = tHook(language, self)
            self._hooks.append(hook)
            if hasattr(language, "hides"):
                self._hiding.append(hook)
        hook.reload()
        self._hook_by_code.update(dict.fromkeys(hook.keys, hook))
        self._entry_codes.update(dict.fromkeys(hook.entries, hook))
        if hook.keys and hook.entries:  # otherwise the core would ask at every call
            self._core.register_sub_language_hook(hook)
        if self.on_change is not None:
            self.on_change()

    # --- languages of libraries ---

    def see_module(self, module):
        """A module was imported: it may be one of a library that we know the language of."""
        if self._waiting:
            name = getattr(module, "__name__", None)
            name = name.split(".")[0] if isinstance(name, str) else None
            if name in self._waiting:
                self._begin_ready(name)

    def set_ready(self, name, wanted):
        """Whether templates of a library of kReady are shown.  KeyError for other names, ValueError
        when it is too late to switch it off."""
        kReady[name]
        if wanted:
            self._off.discard(name)
            if name in sys.modules:
                self._begin_ready(name)
        elif name in self._waiting:
            self._off.add(name)
        else:
            raise ValueError("{} has been imported".format(name))

    def ready(self):
        """{name: whether it is in force, is wanted, or neither}, for kReady: "on", "waits", "off"."""
        return dict((name, "off" if name in self._off else "waits" if name in self._waiting else "on")
                    for name in kReady)

    def _begin_ready(self, name):
        if name in self._off or name not in self._waiting:
            return
        module = importlib.import_module(kReady[name])
        try:
            language = module.make(self.add)
        except Exception as why:  # another version of the library than we know
            self._waiting.discard(name)
            return self.tell_failure(module, "make", why)
        if language is not None:
            self._waiting.discard(name)
            self.add(language)

    def tell_failure(self, language, method, why):
        key = (id(language), method)
        if key not in self._failed:
            self._failed.add(key)
            self._tell_error("{}.{}: {}: {}".format(
                type(language).__name__, method, type(why).__name__, why))

    # --- frames ---

    def may_stop(self, frame):
        """False for a frame of an active language that is at no place of its own."""
        return not self.is_key(frame) or self._hook_by_code[frame.f_code].has_arrived(frame)

    def is_library(self, frame):
        """Whether the frame is the standard library's, called by the implementation of the active
        language (or by the debugger, to which a program has told of one): no step leads there."""
        if not self._hooks or not self._is_library_file(frame.f_code.co_filename):
            return False
        while frame is not None and self._is_library_file(frame.f_code.co_filename):
            frame = frame.f_back
        if frame is not None and frame.f_code.co_filename.startswith(_own_folder):
            return True
        return self.runs_in(frame)

    def runs_in(self, frame):
        """Whether the frame (or None) is one of the active language: no step may wait for it."""
        hook = None if frame is None or not self._hooks else self._active_hook()
        return hook is not None and (
            hook.covers(frame.f_code) or frame.f_code in self._hook_by_code)

    def _is_library_file(self, name):
        known = self._library_files.get(name)
        if known is None:
            known = name.startswith(kFrozen) or (
                name.startswith(_library) and not any(part in name for part in kAddedFolders))
            self._library_files[name] = known
        return known

    def is_key(self, frame):
        """Whether the frame is one of a language that is active."""
        return frame.f_code in self._hook_by_code and self._active_hook() is not None

    def is_hidden(self, frame):
        """Whether a language wants the frame not to be seen, wherever it is."""
        return any(hook.hides(frame) for hook in self._hiding)

    def is_uncounted(self, frame):
        """Whether the stop at hand was made before the core looked at breakpoints."""
        return self.is_key(frame) and self._hook_by_code[frame.f_code].is_uncounted()

    def view_of(self, frame):
        """What the user sees of a frame, for those who do not want the stack."""
        hook = self._hook_by_code[frame.f_code] if self.is_key(frame) else None
        place = None if hook is None else hook.place_of(frame, frame.f_lineno)
        if place is None:
            return frame
        return tFrameView(hook, frame, place, hook.scope_of(frame), id(frame), None)

    def _active_hook(self):
        return self._core.sub_language_get_active_hook(self._core.get_current_tstate_id())

    def tells_every_exception(self):
        return self._core.get_exception_mode() == kRaiseMode

    def is_active(self):
        """Whether the calling thread is in a language."""
        return bool(self._hooks) and self._active_hook() is not None

    def show(self, stack, index):
        """The stack as the user sees it, and the index of the same entry in it.

        stack: [(frame, line)], the outermost first
        """
        if not self._hook_by_code:
            return stack, index
        shown, active, position = [], None, 0
        bases = {}
        for number, (frame, line) in enumerate(stack):
            active = active or self._entry_codes.get(frame.f_code)
            hook = None if active is None else self._hook_by_code.get(frame.f_code)
            if hook is not None:
                _show_key_frame(shown, bases, hook, frame, line)
            # What the program itself has stopped in is never left out.
            elif active is None or number == index or not active.covers(frame.f_code):
                shown.append((frame, line))
            if number == index:
                position = max(len(shown) - 1, 0)
        return shown, position

    # --- stepping ---

    def plan(self, ident, views, line=0):
        """The thread's step ends at the next place of one of these activations (of the first one
        at `line` or after it), or where the core ends it."""
        plan = self._plans[ident] = {}
        for view in views:
            plan[id(view.scope)] = (view.base, line)
            line = 0

    def plan_anywhere(self, ident):
        """The thread stops at the next place of any language."""
        self._plans[ident] = None

    def forget_plan(self, ident):
        self._plans.pop(ident, None)

    def ends_step(self, ident, frame, hook=None, line=None):
        """Whether the thread's step ends with what the frame has come to, at that line of its
        language (default: any)."""
        hook = hook or self._hook_by_code.get(frame.f_code)
        plan = self._plans.get(ident, ())
        if not plan or hook is None:
            return plan is None and hook is not None
        planned = plan.get(id(hook.scope_of(frame)))
        return planned is not None and (line is None or line >= planned[1])

    def frame_left(self, ident, frame):
        """The memory of what has been left may be another activation's soon."""
        plan = self._plans.get(ident)
        if plan:
            for scope in [scope for scope in plan if plan[scope][0] == id(frame)]:
                del plan[scope]

    # --- files ---

    def source_of(self, path):
        """tSource of a file that a language knows; else None."""
        for hook in self._hooks:
            source = hook.source(path)
            if source is not None:
                return source
        return None

    def find_file(self, name):
        """A language's file by the name that the user gives; None when none knows it."""
        for hook in self._hooks:
            path = hook.find(name)
            if path is not None:
                return path
        return None

    def step_out_frame(self, frame):
        """The caller in Python that a frame of the program returns to."""
        stack = []
        while frame is not None:
            stack.append((frame, frame.f_lineno))
            frame = frame.f_back
        stack.reverse()
        shown = [entry[0] for entry in self.show(stack, len(stack) - 1)[0][:-1]]
        shown = [frame for frame in shown if not is_view(frame)]
        return shown[-1] if shown else stack[0][0]


def _show_key_frame(shown, bases, hook, frame, line):
    scope = hook.scope_of(frame)
    base = bases.setdefault(id(scope), id(frame))
    place = hook.place_of(frame, line)
    if place is None:
        return
    outer = shown[-1][0] if shown else None
    if is_view(outer) and outer.scope is scope:
        outer = outer.f_back
        shown.pop()
    view = tFrameView(hook, frame, place, scope, base, outer)
    shown.append((view, view.f_lineno))


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
        self._files = sorted(set(spelling for path in files for spelling in _spellings(path)))
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
            return function(text, frame)
        code = compile(text, "<debugger>", "eval", 0, True)
        space, names = self.globals_of(frame), self.variables_of(frame)
        if any(isinstance(item, _code_type) for item in code.co_consts):
            # Comprehensions and lambdas look names up as globals.
            space = dict(space)
            space.update(names)
        return eval(code, space, names)

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
        return self.evaluate(compat.to_text(text), frame)


def _split_lines(text):
    text = compat.to_text(text).replace(u"\r\n", u"\n").replace(u"\r", u"\n")
    lines = [line + u"\n" for line in text.split(u"\n")]
    return lines[:-1] if text[-1:] in (u"\n", u"") else lines


_kGenerator = 0x20 | 0x80 | 0x200  # generators, coroutines, both


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


def full_path(path):
    """One spelling for every file; names that are no paths stay as they are."""
    if path.startswith("<") or not (_is_absolute(path) or _exists(path)):
        return path
    return _real_path(_abs_path(path))


def read(path):
    """Contents of a file; None when it cannot be read."""
    try:
        with _open(path, "rb") as source:
            return source.read()
    except (IOError, OSError, ValueError):
        return None


def _spellings(path):
    """What a file may be called in code objects and by the core."""
    path = compat.to_native(path)
    if path.endswith(kSuffixes):
        path = path[:-1]
    if path.startswith("<"):
        return [path]
    end = "/" if path.endswith("/") else ""  # a folder
    return [path, _abs_path(path) + end, _real_path(path) + end]
