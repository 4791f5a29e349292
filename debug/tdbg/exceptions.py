"""Which exceptions stop the program: what the user wants, and what is true of each exception.

The user's rules may be changed at any time, by any thread, while the program runs or is stopped.
Where they allow it, the core tells every exception (its mode 1) and `handlers` looks at the raise
for who will catch it.  That costs some microseconds each, so a program that raises all the time
is switched to the core's own way of telling (mode 4): frames that print, and the end.
"""
from __future__ import absolute_import, division, print_function

import sys

from tdbg import catchinfo, compat, handlers, stops

# What may stop: the names that a front end uses.
kRaised = "raised"      # every exception, where it is raised
kUncaught = "uncaught"  # what nothing will catch, where it is raised
kRunner = "runner"      # what is caught only to be printed: by a test runner, a server, a thread
kAll = (kRaised, kUncaught, kRunner)
kDefault = (kUncaught, kRunner)

# Modes of the core.
kNever, kEveryEvent, kAtTheEnd, kWherePrinted = 0, 1, 2, 4
kManyCaught = 100000  # exceptions that were caught, after which it must become cheaper

# Ways of ending, no errors; they stop only where a rule names them.
kEnds = (SystemExit, KeyboardInterrupt)

_get_ident = compat.get_ident
_name_of = type.__dict__["__name__"].__get__
_module_of = type.__dict__["__module__"].__get__
_qualname_of = type.__dict__.get("__qualname__", type.__dict__["__name__"]).__get__
_flags_of = type.__dict__["__flags__"].__get__
_kHeapType = 1 << 9  # Py_TPFLAGS_HEAPTYPE: made by a `class` statement
_mro_of = type.__dict__["__mro__"].__get__
_kBuiltins = frozenset(("builtins", "exceptions", "__builtin__"))
_kUncertain = frozenset((handlers.kCaught, handlers.kUnknown))


class tExceptions(object):
    """The rules of a session, and the judge of exception events.

    core       the native module
    on_notice  function (text) for what the user should know
    is_hidden  function (frame) -> whether it is never shown: import machinery, say
    """

    def __init__(self, core, on_notice, is_hidden):
        self._core = core
        self._on_notice = on_notice
        self._is_hidden = is_hidden
        self._infos = catchinfo.CatchInfos()
        self._watch = handlers.tRaiseWatch(self._infos.reports)
        self._live = False
        self._wanted = frozenset(kDefault)
        self._always = self._never = frozenset()
        self._places = []  # (path, line), in the order in which they were added
        self._quiet = kEnds
        self._mode = kEveryEvent
        self._caught = 0
        self._inside = {}  # thread ident -> id of the value of an exception still in hidden frames

    def go_live(self):
        """The core has been initialised: tell it what it must know."""
        self._live = True
        for path, line in self._places:
            self._core.ignore_exception_loc(compat.to_native(path), line, 1)
        self._infos.add_module(sys.modules.get("__main__"))
        self._tell_infos()
        self._tell_mode()

    def pass_in(self, is_foreign):
        """is_foreign: function (frame) -> whether what is raised there stops only where it comes
        out, if everything that is raised stops."""
        self._is_hidden = is_foreign

    # --- the user's rules ---

    @property
    def wanted(self):
        """Which of kAll stop."""
        return tuple(name for name in kAll if name in self._wanted)

    def stop_on(self, names):
        """names: those of kAll that shall stop; all others do not.  ValueError for other names."""
        unknown = [name for name in names if name not in kAll]
        if unknown:
            raise ValueError("{} is none of {}".format(unknown[0], ", ".join(kAll)))
        self._wanted = frozenset(names)
        self._tell_mode()

    @property
    def always(self):
        return tuple(sorted(self._always))

    @property
    def never(self):
        return tuple(sorted(self._never))

    def set_types(self, always=(), never=()):
        """Names of types that stop wherever they are raised, and of those that never do.

        A name is `module.Type` or `Type` alone, of a type that need not exist yet; it counts
        for derived types, too.  Of several names that fit, that of the most derived type decides,
        and `never` where it is named in both.
        """
        self._always = frozenset(_clean_name(name) for name in always)
        self._never = frozenset(_clean_name(name) for name in never)
        self._tell_mode()

    def ignored_places(self):
        """[(path, line)] at which no exception stops."""
        return list(self._places)

    def is_ignored_place(self, path, line):
        """Beside the core, which looks at the line that the innermost frame is at when it asks: by
        then a `finally` may have moved on, or the import machinery be the innermost."""
        if not self._places:
            return False
        return (path, line) in self._places or bool(
            self._core.exception_loc_ignored(compat.to_native(path), line))

    def ignore_place(self, path, line):
        """Never stop on exceptions that are raised there."""
        place = (path, line)
        if place not in self._places:
            self._places.append(place)
            if self._live:
                self._core.ignore_exception_loc(compat.to_native(path), line, 1)

    def heed_place(self, path, line):
        """Stop there again; ValueError when it was not ignored."""
        self._places.remove((path, line))
        if self._live:
            self._core.ignore_exception_loc(compat.to_native(path), line, 0)

    def clear_places(self):
        del self._places[:]
        if self._live:
            self._core.clear_exception_ignores()

    def as_settings(self):
        """What a new run needs, as plain values."""
        return {"wanted": self.wanted, "always": self.always, "never": self.never,
                "places": self.ignored_places()}

    def restore(self, settings):
        """Take over what as_settings() told."""
        self.stop_on(settings.get("wanted", kDefault))
        self.set_types(settings.get("always", ()), settings.get("never", ()))
        for path, line in settings.get("places", ()):
            self.ignore_place(path, line)

    # --- what the core is told ---

    def see_module(self, module):
        """A module was imported."""
        if self._infos.add_module(module):
            self._tell_infos()
        quiet = kEnds + catchinfo.quiet_types()
        if quiet != self._quiet:
            self._quiet = quiet
            self._core.set_never_stop_excepts(quiet)

    def _tell_infos(self):
        self._core.set_exc_catch_info_list(self._infos.as_list())

    def _tell_mode(self):
        if not self._wanted and not self._always:
            mode = kNever
        elif kRaised in self._wanted or self._always or self._caught < kManyCaught:
            mode = kEveryEvent
        else:
            mode = kWherePrinted
        self._mode = mode
        if self._live:
            # In mode 1 the core asks nobody, and rules may name what else never stops.
            self._core.set_never_stop_excepts(self._quiet)
            self._core.set_exception_mode(mode)

    def _become_cheaper(self):
        before = self._mode
        self._tell_mode()
        if self._mode != before:
            self._on_notice(
                "{} exceptions have been raised and caught; from now on an exception that nothing "
                "catches stops where it is printed, not where it is raised".format(kManyCaught))

    # --- exception events ---

    def judge(self, frame, exc_info, ident, is_step):
        """(reason to stop, verdict) of an exception event, or None.

        verdict: handlers.tVerdict, or None where nothing was foreseen.
        is_step: the core tells the event because of a step, whatever the exception.
        """
        if self._mode != kEveryEvent:
            return self._judge_at_end(frame, exc_info, is_step)
        verdict = self._watch.judge(frame, exc_info, ident)
        if verdict is None:
            return self._judge_coming_out(frame, exc_info, ident) if self._inside else None
        if verdict.answer in _kUncertain:
            self._caught += 1
            if self._caught == kManyCaught:
                self._become_cheaper()
            if not self._always and kRaised not in self._wanted:
                return None
        reason = self._reason(exc_info, verdict)
        if verdict.is_new:
            self._inside.pop(ident, None)
        if reason is None:
            return None
        if reason == stops.kException and self._is_hidden(frame):
            # Most of these never come out: the import system looks names up.
            self._inside[ident] = id(exc_info[1])
            return None
        self._watch.mark_told(exc_info[2], ident)
        return reason, verdict

    def _judge_coming_out(self, frame, exc_info, ident):
        if self._inside.get(ident) != id(exc_info[1]) or self._is_hidden(frame):
            return None
        del self._inside[ident]
        self._watch.mark_told(exc_info[2], ident)
        return stops.kException, None

    def _reason(self, exc_info, verdict):
        kind = exc_info[0]
        wish = self._wish(kind)
        if wish is False or (wish and _is_success(kind, exc_info[1])):
            return None
        if verdict.answer == handlers.kUncaught and (wish or kUncaught in self._wanted):
            return stops.kUncaught
        if verdict.answer == handlers.kReported and (wish or kRunner in self._wanted):
            return stops.kReported
        if verdict.is_new and (wish or kRaised in self._wanted):
            return stops.kException
        return None

    def _judge_at_end(self, frame, exc_info, is_step):
        exiting = self._core.is_botframe(frame) and not self._infos.reports(frame, None)
        if is_step and not (exiting and self._core.exiting_on_exception()):
            return None
        wanted = kUncaught if exiting else kRunner
        if wanted not in self._wanted or self._wish(exc_info[0]) is False:
            return None
        return stops.kUncaught if exiting else stops.kReported, None

    def _wish(self, kind):
        """What the rules say of a type: True to stop, False not to; None: nothing."""
        for parent in _lineage(kind):
            if self._always or self._never:
                names = _names_of(parent)
                if names & self._never:
                    return False
                if names & self._always:
                    return True
            for quiet in self._quiet:
                if parent is quiet:
                    return False
        return None

    def wants_uncaught(self, exc_info):
        """Whether an exception that ends the program, unforeseen until then, is to be shown."""
        wish = self._wish(exc_info[0])
        return wish is not False and bool(wish or kUncaught in self._wanted)

    def forget(self, ident):
        """The thread has ended."""
        self._watch.forget(ident)
        self._inside.pop(ident, None)


def make_last_hook(show, own_thread):
    """Stand-in for sys.excepthook, for one call: then show() is called before the program's hook.

    The interpreter asks it for __call__; show() has returned when the program's own hook is called,
    so that no frame of ours is in what a failing hook prints.
    """
    original = sys.excepthook

    def __call__(hook):
        if _get_ident() == own_thread:
            if sys.excepthook is hook:
                sys.excepthook = original
            show()
        return original

    return type("excepthook", (object,), {
        "__call__": property(__call__), "__repr__": lambda hook: repr(original), "__slots__": ()})()


def with_instance(exc_info):
    """The same with an instance for the value, where making one runs no code of the program.

    Version 2 makes instances only when somebody catches the exception.
    """
    kind, value, traceback = exc_info
    if isinstance(kind, type) and not _flags_of(kind) & _kHeapType:
        if not any(parent is kind for parent in _mro_of(type(value))):
            args = value if isinstance(value, tuple) else () if value is None else (value,)
            try:
                return kind, kind(*args), traceback
            except Exception:
                pass
    return exc_info


def is_named(kind, names):
    """Whether one of the names, `module.Type` or `Type` alone, means the type or a base of it."""
    names = set(_clean_name(name) for name in names)
    return any(names & _names_of(parent) for parent in _lineage(kind))


def _clean_name(name):
    name = compat.to_native(name).strip()
    module, dot, rest = name.partition(".")
    return rest if module in _kBuiltins and dot else name


def _names_of(kind):
    """Every name by which a rule may mean the type."""
    if isinstance(kind, type):
        names, module = set((_name_of(kind), _qualname_of(kind))), None
        try:
            module = _module_of(kind)
        except AttributeError:
            pass
    else:  # an old-style class of version 2
        names, module = set((kind.__name__,)), getattr(kind, "__module__", None)
    if isinstance(module, str) and module not in _kBuiltins:
        names.update([module + "." + name for name in names])
    return names


def full_name_of(kind):
    """The name by which a rule means this type and no other."""
    name = _qualname_of(kind) if isinstance(kind, type) else kind.__name__
    module = kind.__module__
    return name if module in _kBuiltins else module + "." + name


def is_exception_type(value):
    """Whether it is a class that can be raised; old-style classes of version 2 can."""
    if isinstance(value, type):
        return any(parent is BaseException for parent in _mro_of(value))
    return isinstance(value, compat.old_style_class)


def _lineage(kind):
    """The type and its bases, the most derived first."""
    if isinstance(kind, type):
        return _mro_of(kind)
    found = [kind]
    for parent in getattr(kind, "__bases__", ()):
        found.extend(_lineage(parent))
    return found


def _is_success(kind, value):
    """Whether it is an exit with status 0.  value: of the exception, or its argument alone."""
    if not any(parent is SystemExit for parent in _lineage(kind)):
        return False
    if isinstance(value, SystemExit):
        value = value.code
    elif isinstance(value, tuple) and len(value) <= 1:
        value = value[0] if value else None
    return value is None or (isinstance(value, int) and value == 0)
