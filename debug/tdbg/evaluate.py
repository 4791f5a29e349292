"""Expressions and statements in a frame of the program, and values as text.

All of this runs code of the program (properties, __repr__), which may fail in any way, never
end, or be interrupted by the user: whatever happens comes back as a result, never as an exception.
"""
from __future__ import absolute_import, division, print_function

import functools
import itertools
import os
import sys
import time

from tdbg import compat, framecode, sublanguages

try:
    import ctypes

    # By item: a function object of our own, not the one that the program shares.
    _set_async_exc = ctypes.pythonapi["PyThreadState_SetAsyncExc"]
    _set_async_exc.restype = None  # nothing: the watch ends at a true result
    _py_object = ctypes.py_object
    _thread_number = ctypes.c_ulong
except Exception:  # a build without ctypes: slow values can still be interrupted by hand
    _set_async_exc = None


def _find_thread_kill():
    """pthread_kill() with the result None, or None."""
    if not compat.PY2:
        return getattr(compat.signal, "pthread_kill", None)
    try:
        kill = ctypes.CDLL(None)["pthread_kill"]
        kill.argtypes, kill.restype = (ctypes.c_ulong, ctypes.c_int), None
        return kill
    except Exception:
        return None


_kill_thread = _find_thread_kill()
_set_handler, _get_handler = compat.signal.signal, compat.signal.getsignal
# Ignored unless a program cares, so nothing happens should one come late.
kInterrupt = compat.signal.SIGURG

kValueSeconds = 3.0
kPollSeconds = (0.001, 0.01, 0.05)  # 2.7 has no timed wait: short naps first, then longer ones
kPollsOfEach = 20
kSecondsToIgnore = 0.05  # code that catches everything is struck again so often,
kStrikes = 40            # so many times
kWithdrawSeconds = 1.0
kDeliveryTurns = 1000  # an exception set from outside is raised at the next turn of a loop

kVarArgs, kVarKeywords = 0x04, 0x08

_plain_types = (int, float, bool, type(None), compat.text_type)
_sleep = time.sleep
_get_pid = os.getpid
_clock = getattr(time, "monotonic", time.time)
_chain, _flat, _repeat = itertools.chain, itertools.chain.from_iterable, itertools.repeat
_partial = functools.partial
_call = functools.partial.__call__


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


def evaluate(source, frame, extra=None):
    """Value of an expression in the frame, as a tResult.

    extra: {name: value} of what the expression can name beside the frame's variables.
    """
    try:
        if sublanguages.is_view(frame):
            return tResult(True, frame.evaluate(source.strip()), True)
        tree = framecode.parse_expression(source, frame)
        return tResult(True, framecode.run(tree, frame, None, extra), True)
    except BaseException:
        return tResult(False, error=describe_error())


def evaluate_limited(source, frame, extra=None, seconds=kValueSeconds):
    """The same for expressions that nobody has just typed: given up when they take too long."""
    try:
        return call_with_limit(lambda: evaluate(source, frame, extra), seconds)
    except BaseException:
        return tResult(False, error=describe_error())


def execute(source, frame, core, extra=None):
    """Run a statement, or evaluate an expression, in the frame; assigned locals are kept."""
    if sublanguages.is_view(frame) and not _is_statement(source, frame):
        return evaluate(source, frame)
    try:
        try:
            tree = framecode.parse_expression(source, frame)
        except SyntaxError:
            tree = None
        if tree is not None:
            return tResult(True, framecode.run(tree, frame, core, extra), True)
        framecode.run(framecode.parse_statements(source, frame), frame, core, extra)
        return tResult(True)
    except BaseException:
        return tResult(False, error=describe_error())


def _is_statement(source, frame):
    """Whether it is a statement of Python and no expression of any language."""
    try:
        framecode.parse_expression(source, frame)
        return False
    except SyntaxError:
        pass
    try:
        framecode.parse_statements(source, frame)
        return True
    except SyntaxError:
        return False


def describe_error(call=None):
    """One line for the exception being handled.  call: as of describe_exception()."""
    kind, value = sys.exc_info()[:2]
    return describe_exception(kind, value, call)


def describe_exception(kind, value, call=None):
    """One line, "ValueError: text", for an exception whose own methods may fail.

    call: what calls those methods, call_with_limit() unless given.
    """
    if kind is tTooSlow:
        return u"it takes too long"
    try:
        name = _exception_name(kind)
        text = "" if value is None else (call or call_with_limit)(lambda: _exception_text(value))
    except BaseException:
        text = "(its text cannot be had)"
    text = compat.to_text(text).strip()
    if kind is framecode.tRefusal:
        return text
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

    Python code can be interrupted so; in the main thread, by a signal, native code too that waits
    for time to pass, for data or (version 3) for a lock.  The watch is a thread without one Python
    frame: the tracer would hold a frame of another thread while this one is stopped.
    """
    if _set_async_exc is None:
        return function()
    watch = tWatch(seconds)
    try:
        try:
            return function()
        finally:
            watch.cancel()
    except tTooSlow:
        watch.cancel()  # again: it may have struck before that was under way
        raise


class tLimiter(object):
    """Limits for many short calls: they share one watch as long as they are quick.

    seconds         what one call may take (at times it gets only half of that)
    seconds_in_all  afterwards every call fails at once with tTooSlow; None: any time

    It belongs to the thread that made it.
    """

    def __init__(self, seconds, seconds_in_all=None):
        self._seconds = seconds
        self._end = None if seconds_in_all is None else _clock() + seconds_in_all
        self._watch = None
        self._began = 0.0
        self._is_mapping = False

    def left(self):
        """Seconds left for the next call, never less than 0."""
        if self._end is None:
            return self._seconds
        return min(max(self._end - _clock(), 0.0), self._seconds)

    def call(self, function):
        """function(), or tTooSlow."""
        left = self.left()
        if not left:
            raise tTooSlow()
        self._begin(left)
        try:
            result = function()
        except BaseException:
            self._close()
            raise
        if not self._is_mapping:
            self._close()
        return result

    def map(self, function, items, on_slow, results=None):
        """[function(item)] for all; on_slow(item) in place of what takes too long.

        function makes its calls with call(), and then the watch goes on between them.
        results: list to append to: for those who want to see how far it has come.
        """
        items = list(items)
        results = [] if results is None else results
        self._is_mapping = True
        try:
            while len(results) < len(items):
                try:
                    while len(results) < len(items) and self.left():
                        results.append(function(items[len(results)]))
                except tTooSlow:
                    self._close()
                if len(results) < len(items):
                    results.append(on_slow(items[len(results)]))
            return results
        finally:
            self._is_mapping = False
            self._close()

    def _close(self):
        if self._watch is not None:
            self._watch.cancel()
            self._watch = None

    def _begin(self, seconds):
        if self._watch is not None:
            if _clock() - self._began <= seconds / 2:
                return
            self._close()
        if _set_async_exc is not None:
            self._began = _clock()
            self._watch = tWatch(seconds)


class _tStriker(object):
    """Raises `error` in the thread that has made it; again where that is ignored."""

    error = tTooSlow

    def __init__(self):
        self._strikes, self._released, self._ended = [], [], []
        self._cancelled = self._done = None  # locks, once it is launched
        self._ident = compat.get_ident()
        self._handler = self._take_signal()

    def _launch(self, seconds):
        """Begin: the first strike is after so many seconds."""
        self._cancelled, self._done = compat.allocate_lock(), compat.allocate_lock()
        self._cancelled.acquire()
        self._done.acquire()
        strike = self._strike_steps()
        steps = self._waits(seconds) + strike
        again = self._waits(kSecondsToIgnore) + strike
        # Ends at the first step with a true result: being cancelled.
        watch = _partial(any,
                         compat.lazy_map(_call, _chain(steps, _flat(_repeat(again, kStrikes)))))
        calls = [watch, self._done.release]
        _launched.append(self)
        try:
            compat.start_new_thread(list, (compat.lazy_map(_call, map(_partial, calls)),))
        except Exception:  # no more threads: no strikes
            self._done = None

    @property
    def is_vain(self):
        """Whether it cannot end a wait for a lock."""
        return compat.PY2 or self._handler is None

    def withdraw(self):
        """No more strikes, and none that is on its way.  Any other thread."""
        try:
            if not self._released:
                self._released.extend(compat.lazy_map(_call, (_partial(self._cancelled.release),)))
        except Exception:  # at the same time as the thread itself
            pass
        end = _clock() + kWithdrawSeconds
        while self._done is not None and self._done.locked() and not self._ended and _clock() < end:
            _sleep(kPollSeconds[0])
        del self._strikes[:]
        if self._handler is None:
            _set_async_exc(_thread_number(self._ident), _py_object())
            _settle_attention()

    def _strike_steps(self):
        """Calls that strike; none has a true result."""
        if self._handler is None:
            strike = _partial(_set_async_exc, _thread_number(self._ident), _py_object(self.error))
        else:
            strike = _partial(_kill_thread, self._ident, kInterrupt)
        return [_partial(self._strikes.append, True), strike]

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

    def _take_signal(self):
        """The signal's handler before, in the main thread; None elsewhere."""
        if _kill_thread is None:
            return None
        handler = _get_handler(kInterrupt)
        if handler is None:  # native code's, which cannot be put back
            return None
        try:
            _set_handler(kInterrupt, _raise_error)
        except ValueError:  # not the main thread
            return None
        _strikers.append(self)
        return handler

    def _end(self):
        """No more strikes; nothing of it may reach the program later.  May be called again."""
        while True:
            try:
                # Each lock once, and noted in one go: a strike between the two would have us do it
                # again, and so wait for ever.
                if self._cancelled is not None and not self._released:
                    self._released.extend(compat.lazy_map(_call,
                                                          (_partial(self._cancelled.release),)))
                if self._done is not None and not self._ended:
                    self._ended.extend(compat.lazy_map(_call, (_partial(self._done.acquire),)))
                # It struck, perhaps just now: take delivery here.
                # deliberate: not by setting "no exception", which leaves the interpreter's request
                # for attention standing for ever (3.11 then loops in traced code).
                if self._strikes:
                    _get_pid()  # enters the kernel: a signal that is under way arrives
                for _ in range(kDeliveryTurns if self._strikes else 0):
                    pass
                if self._handler is not None:
                    _set_handler(kInterrupt, self._handler)
                    self._handler = None
                    _strikers.remove(self)
                if self in _launched:
                    _launched.remove(self)
                return
            except self.error:
                pass


_strikers = []  # of the main thread, the innermost last
_launched = []  # of all threads


def vain_strikes(ident):
    """How often at least it was tried to raise something in the thread by means that cannot end a
    wait for a lock (0: it is only to be tried); None where there are no such."""
    strikers = [striker for striker in list(_launched) if striker._ident == ident]
    if not strikers or not all(striker.is_vain for striker in strikers):
        return None
    return min(len(striker._strikes) for striker in strikers)


def withdraw_strikes(ident):
    """Let the thread, which waits in native code, go on undisturbed when that ends; but not where
    it can be interrupted.

    Up to 3.12 what is pending for one thread demands the attention of all, and does not stop doing
    so before it is raised; 3.11 loops over that for ever in code that is traced.
    """
    for striker in list(_launched):
        if striker._ident == ident and striker.is_vain:
            striker.withdraw()


def _settle_attention():
    """What is raised here takes the demand for attention away."""
    if compat.PY2:
        return
    try:
        _set_async_exc(_thread_number(compat.get_ident()), _py_object(tTooSlow))
        for _ in range(kDeliveryTurns):
            pass
    except tTooSlow:
        pass


def _raise_error(number, frame):
    """The signal's handler while there are strikers."""
    for striker in reversed(_strikers):
        if striker._strikes:
            raise striker.error()


class tWatch(_tStriker):
    """Raises tTooSlow in the calling thread after so many seconds."""

    def __init__(self, seconds):
        _tStriker.__init__(self)
        self._launch(seconds)

    def cancel(self):
        self._end()


class tInterruptible(_tStriker):
    """Lets other threads end, by KeyboardInterrupt, what the calling thread runs until close()."""

    error = KeyboardInterrupt

    def __init__(self):
        self._is_closed = False
        self._lock = compat.allocate_lock()
        _tStriker.__init__(self)

    @property
    def has_struck(self):
        return bool(self._strikes)

    def interrupt(self):
        """Any thread."""
        with self._lock:
            if not self._is_closed and self._cancelled is None and _set_async_exc is not None:
                self._launch(0)

    def close(self):
        while not self._is_closed:
            try:
                with self._lock:
                    self._is_closed = True
            except KeyboardInterrupt:
                pass
        self._end()


# --- looking at values ----------------------------------------------------------------------


def arguments_of(frame):
    """[(name, value)] of the function's parameters, in their order."""
    code = frame.f_code
    count = code.co_argcount + getattr(code, "co_kwonlyargcount", 0)
    count += bool(code.co_flags & kVarArgs) + bool(code.co_flags & kVarKeywords)
    names = code.co_varnames[:count]
    values = frame.f_locals
    return [(name, values[name]) for name in names if name in values]
