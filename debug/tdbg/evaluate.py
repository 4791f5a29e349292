"""Expressions and statements in a frame of the program, and values as text.

All of this runs code of the program (properties, __repr__), which may fail in any way, never
end, or be interrupted by the user: whatever happens comes back as a result, never as an exception.
"""
from __future__ import absolute_import, division, print_function

import __future__
import functools
import sys
import time

from tdbg import compat, private, sublanguages

try:
    import ctypes

    # By item: a function object of our own, not the one that the program shares.
    _set_async_exc = ctypes.pythonapi["PyThreadState_SetAsyncExc"]
    _py_object = ctypes.py_object
    _thread_number = ctypes.c_ulong
except Exception:  # a build without ctypes: slow values can still be interrupted by hand
    _set_async_exc = None

kValueSeconds = 3.0
kPollSeconds = (0.001, 0.01, 0.05)  # 2.7 has no timed wait: short naps first, then longer ones
kPollsOfEach = 20
kDeliveryTurns = 1000  # an exception set from outside is raised at the next turn of a loop

kNested, kVarArgs, kVarKeywords = 0x10, 0x04, 0x08


def _future_flags():
    """Bits of co_flags that a `from __future__ import` leaves behind."""
    flags = 0
    for name in __future__.all_feature_names:
        flags |= getattr(__future__, name).compiler_flag
    return flags & ~kNested


kFutureFlags = _future_flags()

_plain_types = (int, float, bool, type(None), compat.text_type)
_sleep = time.sleep
_partial = functools.partial
_call = functools.partial.__call__
_code_type = type(_future_flags.__code__)


class tTooSlow(BaseException):
    """A value took longer than it may; a BaseException so that `except Exception` lets it pass."""


class tResult(object):
    """What an evaluation gave.

    ok      whether there was no exception
    value   of an expression; None for statements
    is_expression
    error   for not ok: one line, "NameError: name 'x' is not defined"
    """

    __slots__ = ("ok", "value", "is_expression", "error")

    def __init__(self, ok, value=None, is_expression=False, error=None):
        self.ok, self.value = ok, value
        self.is_expression, self.error = is_expression, error


# --- running code in a frame ----------------------------------------------------------------


def evaluate(source, frame):
    """Value of an expression in the frame, as a tResult."""
    try:
        if sublanguages.is_view(frame):
            return tResult(True, frame.evaluate(source.strip()), True)
        code = _compile(source.strip(), frame, "eval")
        return tResult(True, _run_expression(code, frame), True)
    except BaseException:
        return tResult(False, error=describe_error())


def evaluate_limited(source, frame):
    """The same for expressions that nobody has just typed: given up when they take too long."""
    try:
        return call_with_limit(lambda: evaluate(source, frame))
    except BaseException:
        return tResult(False, error=describe_error())


def execute(source, frame, core):
    """Run a statement, or evaluate an expression, in the frame; assigned locals are kept."""
    if sublanguages.is_view(frame) and not _is_statement(source, frame):
        return evaluate(source, frame)
    try:
        try:
            code = _compile(source.strip(), frame, "eval")
        except SyntaxError:
            code = None
        if code is not None:
            return tResult(True, _run_expression(code, frame, core), True)
        code = _compile(source.strip() + "\n", frame, "exec")
        _run_in_frame(code, frame, core)
        return tResult(True)
    except BaseException:
        return tResult(False, error=describe_error())


def _is_statement(source, frame):
    """Whether it is a statement of Python and no expression of any language."""
    try:
        _compile(source.strip(), frame, "eval")
        return False
    except SyntaxError:
        pass
    try:
        _compile(source.strip() + "\n", frame, "exec")
        return True
    except SyntaxError:
        return False


def _compile(source, frame, mode):
    flags = frame.f_code.co_flags & kFutureFlags
    with private.quiet():
        return compile(source, "<debugger>", mode, flags, True)


def _run_expression(code, frame, core=None):
    if _has_nested_code(code) and frame.f_locals is not frame.f_globals:
        # Comprehensions and lambdas look names up as globals: give them both as one.
        names = dict(frame.f_globals)
        names.update(frame.f_locals)
        return eval(code, names)
    if core is None:
        return eval(code, frame.f_globals, frame.f_locals)
    return _run_in_frame(code, frame, core)


def _has_nested_code(code):
    return any(isinstance(item, _code_type) for item in code.co_consts)


def _run_in_frame(code, frame, core):
    # One fetch: reading f_locals again would overwrite what the code has assigned.
    names = frame.f_locals
    try:
        return eval(code, frame.f_globals, names)
    finally:
        if not (compat.kNoLocalsToFast or names is frame.f_globals or sublanguages.is_view(frame)):
            with private.quiet():  # 3.12 warns when a deleted variable becomes None
                core.PyFrame_LocalsToFast(frame, 1)


def describe_error():
    """One line for the exception being handled."""
    kind, value = sys.exc_info()[:2]
    return describe_exception(kind, value)


def describe_exception(kind, value):
    """One line, "ValueError: text", for an exception whose own methods may fail."""
    try:
        name = _exception_name(kind)
        text = "" if value is None else call_with_limit(lambda: _exception_text(value))
    except BaseException:
        text = "(its text cannot be had)"
    text = compat.to_text(text).strip()
    return u"{}: {}".format(name, text) if text else name


def _exception_name(kind):
    name = getattr(kind, "__qualname__", None) or getattr(kind, "__name__", "exception")
    name = compat.to_text(name)
    module = compat.to_text(getattr(kind, "__module__", "") or "")
    if module in ("", "__main__", "builtins", "exceptions"):
        return name
    return module + u"." + name


def _exception_text(value):
    if isinstance(value, SyntaxError) and value.msg:
        return value.msg  # the place is in the text that was typed
    return str(value)


# --- values as text -------------------------------------------------------------------------


class tShortRepr(compat.reprlib.Repr):
    """Text of bounded length for values that are shown unasked."""

    def __init__(self):
        compat.reprlib.Repr.__init__(self)
        self.maxlevel = 4
        self.maxstring = self.maxother = 200
        self.maxlong = 100
        self.maxlist = self.maxtuple = self.maxdict = self.maxset = 20
        self.maxfrozenset = self.maxdeque = self.maxarray = 20

    def repr_instance(self, value, level):
        text = repr(value)
        if len(text) <= self.maxother:
            return text
        half = (self.maxother - 3) // 2
        return text[:half] + "..." + text[-half:]


_short_repr = tShortRepr().repr


def full_text(value):
    """repr(value), or "<...>" with the reason why there is none."""
    return _text_by(repr, value)


def short_text(value):
    """The same in few characters."""
    return _text_by(_short_repr, value)


def pretty_text(value, pformat):
    """The same in lines, by pprint's pformat."""
    return _text_by(pformat, value)


def _text_by(function, value):
    if type(value) in _plain_types:
        return compat.to_text(function(value))
    try:
        text = call_with_limit(lambda: function(value))
        return compat.to_text(text)
    except tTooSlow:
        return "<{}: repr takes too long>".format(_type_name(value))
    except KeyboardInterrupt:
        return "<{}: repr interrupted>".format(_type_name(value))
    except BaseException:
        return "<{}: repr failed: {}>".format(_type_name(value), describe_error())


def _type_name(value):
    try:
        return compat.to_text(type(value).__name__) + " object"
    except BaseException:
        return "object"


# --- a limit to what code of the program may take ---------------------------------------------


def call_with_limit(function, seconds=kValueSeconds):
    """function(), which gets tTooSlow raised when it takes longer.

    Only Python code can be interrupted so.  The watch is a thread without one Python frame:
    the tracer would hold a frame of another thread while this one is stopped.
    """
    if _set_async_exc is None:
        return function()
    watch = tWatch(seconds)
    try:
        return function()
    finally:
        watch.cancel()


class tWatch(object):
    def __init__(self, seconds):
        self._cancelled = compat.allocate_lock()
        self._cancelled.acquire()
        self._done = compat.allocate_lock()
        self._done.acquire()
        self._ident = _thread_number(compat.get_ident())
        steps = self._waits(seconds)
        steps.append(_partial(_set_async_exc, self._ident, _py_object(tTooSlow)))
        # Ends at the first step with a true result: being cancelled, or having struck.
        watch = _partial(any, compat.lazy_map(_call, steps))
        self._started = self._start([watch, self._done.release])

    def _start(self, calls):
        try:
            compat.start_new_thread(list, (compat.lazy_map(_call, map(_partial, calls)),))
        except Exception:  # no more threads: no limit
            return False
        return True

    def _waits(self, seconds):
        if not compat.PY2:
            return [_partial(self._cancelled.acquire, True, seconds)]
        waits = []
        slept = 0.0
        while slept < seconds:
            step = min(len(waits) // (2 * kPollsOfEach), len(kPollSeconds) - 1)
            waits.append(_partial(_sleep, kPollSeconds[step]))
            waits.append(_partial(self._cancelled.acquire, False))
            slept += kPollSeconds[step]
        return waits

    def cancel(self):
        """End the watch; nothing of it may reach the program later."""
        self._cancelled.release()
        if not self._started:
            return
        self._done.acquire()
        if not self._cancelled.locked():  # it struck, perhaps just now: take delivery here
            # deliberate: not by setting "no exception", which leaves the interpreter's request for
            # attention standing for ever (3.11 then loops in traced code).
            try:
                for _ in range(kDeliveryTurns):
                    pass
            except tTooSlow:
                pass


# --- looking at values ----------------------------------------------------------------------


def arguments_of(frame):
    """[(name, value)] of the function's parameters, in their order."""
    code = frame.f_code
    count = code.co_argcount + getattr(code, "co_kwonlyargcount", 0)
    count += bool(code.co_flags & kVarArgs) + bool(code.co_flags & kVarKeywords)
    names = code.co_varnames[:count]
    values = frame.f_locals
    return [(name, values[name]) for name in names if name in values]
