"""Languages implemented in Python, which the user steps through as if they were source.

A template engine, a runner of notebook cells: what executes is Python, but what the user has
written is something else.  A program tells about its language by an object (docs/sublanguages.md
has the interface), in which a few functions of the implementation are named: those whose call
enters the language, and those whose frames stand at a line of it.  The core gets one tHook for each
such object (languagehooks.py); it is asked at every event of such a frame.  What the user sees of
these frames are tFrameViews, one for each activation of a template (languageviews.py).

Stepping: the core does not know the language's lines, so a step in one is planned here, as the
activations in which it may end.  The core goes on to the nearest caller in Python.
"""
from __future__ import absolute_import, division, print_function

import importlib
import os
import sys

from tdbg import register_sub_language
from tdbg.languagehooks import tHook
# Not all are used here: other modules need to know this one alone.
from tdbg.languageviews import (  # noqa: F401
    full_path, is_view, read, real_frame, tFrameView, tSource,
)

kRaiseMode = 1  # of the core's exception modes: every exception is told

# Languages of well-known libraries: name of the library -> module with a function make(refresh),
# which gives the language once the library can be used, else None.
kReady = {"jinja2": "tdbg.languages.jinja2hook"}

_abs_path = os.path.abspath
_real_path = os.path.realpath

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


class tLanguages(object):
    """The languages of a debug session.

    core: the native module; tell_error: function (text), for languages that fail; lender
    (lending.tLender): to be told of what the core has them evaluate
    """

    def __init__(self, core, tell_error, lender=None):
        self._core = core
        self._tell_error = tell_error
        self.lender = lender
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
        """{name of kReady: "on" (in force), "waits" (for its library) or "off" (not wanted)}"""
        return dict((name, self._state_of(name)) for name in kReady)

    def _state_of(self, name):
        if name in self._off:
            return "off"
        return "waits" if name in self._waiting else "on"

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
