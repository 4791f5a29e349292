"""Whether an exception will be caught, told at the moment it is raised.

The stack is walked outwards from the frame that raises.  For each frame the handlers around its
current instruction are read off the byte code (codeplans): which `except` clauses there are, and
whether a clause or a `finally` lets the exception go on.  No source is needed, so it works for
`-c`, exec() and modules without source, and nothing of the program runs: an `except` expression is
evaluated only when it is made of plain names, attributes of modules and classes, and tuples of
those (matching).

What cannot be known counts as caught (kUnknown): a stop that is missed here is made one frame
further out, when the exception has left the frame that was thought to catch it (tRaiseWatch).
"""
from __future__ import absolute_import, division, print_function

from tdbg import compat
from tdbg.codeplans import (
    kCatches, kGoesOn, kLeaves, kMatch, kMay, kWith, tCodePlan)
from tdbg.matching import (
    Group, derives, dict_of_type, evaluate, is_one_of, is_type, leaves_of, lets_pass, matches,
    mro_of)

# Answers, the first two of which are reasons to stop.
kUncaught = "uncaught"  # nothing will catch it
kReported = "reported"  # what catches it only prints or logs it
kCaught = "caught"      # a handler matches, or a `finally` drops it
kUnknown = "unknown"    # it may be caught: to be taken for caught

_kMaxPlans = 4096  # code objects remembered

_get_ident = compat.get_ident

# How loops and generators end; never worth a stop.
kNeverNews = tuple(
    getattr(compat.builtins, name)
    for name in ("StopIteration", "GeneratorExit", "StopAsyncIteration")
    if hasattr(compat.builtins, name))


# --- the walk -------------------------------------------------------------------------------


class tVerdict(object):
    """answer: one of the constants above; frame, line: of the handler where there is one.

    is_new: of tRaiseWatch's, whether the exception has just been raised
    """

    __slots__ = ("answer", "frame", "line", "is_new")

    def __init__(self, answer, frame=None, line=None):
        self.answer, self.frame, self.line = answer, frame, line
        self.is_new = True

    def __repr__(self):
        where = self.frame.f_code.co_name if self.frame is not None else None
        return "tVerdict({}, {}, {})".format(self.answer, where, self.line)


_plans = {}  # id of a code object -> its plan, which keeps it alive


def plan_of(code):
    """The plan of the code object; remembered."""
    plan = _plans.get(id(code))
    if plan is None:
        if len(_plans) >= _kMaxPlans:
            _plans.clear()
        plan = _plans[id(code)] = tCodePlan(code)
    return plan


def scan(frame, kind, value=None, reports=None, outermost=None):
    """tVerdict for an exception that appears at the frame's current instruction.

    kind, value   as in exc_info; the value matters for groups of exceptions only
    reports       function (frame, line of the handler) -> whether that handler only prints or logs
                  what it catches; the line is None where it is not sure that a handler catches
    outermost     frame beyond which nobody looks; default: the thread's outermost one
    """
    parts = None
    if Group is not None and is_one_of(Group, mro_of(type(value))):
        parts = leaves_of(value)
    inner = is_probe = None
    while frame is not None:
        if inner is not None:
            if is_probe is None:
                is_probe = compat.PY2 or derives(kind, AttributeError)
            inner_code = inner.f_code
            if is_probe or inner_code.co_flags & _kCoroutine or inner_code.co_name[:2] == "__":
                answer = _what_lies_between(inner, frame, kind)
                if answer is not None:
                    return tVerdict(answer, inner)
        offset = frame.f_lasti
        if offset >= 0:
            code = frame.f_code
            plan = _plans.get(id(code)) or plan_of(code)
            node = plan.nodes.get(offset) or plan.node_at(offset)
            if node is not kGoesOn:
                node, parts, clause = _follow(frame, node, kind, parts)
                if node[0] != kLeaves:
                    return _conclude(node, frame, clause, reports)
        if frame is outermost:
            break
        inner, frame = frame, frame.f_back
    return tVerdict(kUncaught)


def _conclude(node, frame, clause, reports):
    if node[0] == kMay:
        reported = reports is not None and reports(frame, None)
        return tVerdict(kReported if reported else kUnknown, frame, node[1])
    # A clause for certain types is the program's normal course, whatever the function does else.
    if reports is not None and (clause is None or _catches_all(frame, clause)):
        if reports(frame, node[1]):
            return tVerdict(kReported, frame, node[1])
    return tVerdict(kCaught, frame, node[1])


def _catches_all(frame, clause):
    try:
        wanted = evaluate(frame, clause)
    except (LookupError, AttributeError):
        return True
    if type(wanted) is tuple:
        return any(is_one_of(kind, _kBroad) for kind in wanted)
    return is_one_of(wanted, _kBroad)


_kBroad = tuple(
    getattr(compat.builtins, name)
    for name in ("BaseException", "Exception", "StandardError") if hasattr(compat.builtins, name))


def _follow(frame, node, kind, parts):
    """(the node at which the exception ends: leaves, catches or may; what is left of a group;
    operations of the clause that matches, None for a bare one)"""
    clause = None
    while node[0] >= kMatch:
        if node[0] == kMatch:
            answer = matches(frame, node[2], kind)
            if answer is None:
                return (kMay, node[1], None, None, None), parts, None
            clause = node[2] if answer else None
            node = node[3] if answer else node[4]
        elif node[0] == kWith:
            if not lets_pass(frame, node[2]):
                return (kMay, node[1], None, None, None), parts, None
            node = node[4]
        else:
            answer, parts = _match_group(frame, node[2], kind, parts)
            if answer is None:
                return (kMay, node[1], None, None, None), parts, None
            node = (kCatches, node[1], None, None, None) if answer else node[4]
    return node, parts, clause


def _match_group(frame, clauses, kind, parts):
    """(whether `except*` clauses leave nothing of the exception, None: perhaps; what is left)"""
    if parts is None:
        answers = [matches(frame, clause, kind) for clause in clauses]
        return (True if True in answers else None if None in answers else False), None
    for clause in clauses:
        answers = [matches(frame, clause, type(part)) for part in parts]
        if None in answers:
            return None, parts
        parts = [part for part, found in zip(parts, answers) if not found]
    return not parts, parts


# --- code in C between two frames -----------------------------------------------------------

_kCoroutine = 0x80
_kProbes = frozenset(("getattr", "hasattr"))
_kGeneratorCalls = frozenset(("send", "throw", "close", "next", "__next__"))
# Other instructions iterate: `first[:] = second`, `first += second`.
_kSubscripts = ("BINARY_SUBSCR", "BINARY_SLICE", "SLICE")
_kSpecialCalls = frozenset(("__init__", "__new__", "__call__"))


def _what_lies_between(inner, outer, kind):
    """The answer when the C code through which `outer` runs `inner` ends the exception, or may."""
    code = inner.f_code
    if code.co_flags & _kCoroutine and _is_call(outer):
        # An await goes on outwards; a task of asyncio keeps the exception.
        if not _kGeneratorCalls.intersection(outer.f_code.co_names):
            return kUnknown
    if derives(kind, AttributeError):
        return _may_attribute_error_end(inner, outer)
    if code.co_name[:2] == "__":
        return _may_special_method_end(code.co_name, outer, kind)
    if compat.PY2 and "hasattr" in outer.f_code.co_names and _is_call(outer):
        return kUnknown
    return None


def _may_special_method_end(name, outer, kind):
    if name in outer.f_code.co_names:
        return None  # called like any function
    if name == "__del__":
        return kReported  # the interpreter prints and drops it
    if name == "__getitem__" and derives(kind, IndexError):
        # How a loop over an object without __iter__ ends.
        return None if _op_of(outer).startswith(_kSubscripts) else kUnknown
    if name in ("__len__", "__length_hint__") and derives(kind, TypeError):
        return kUnknown
    return None


def _may_attribute_error_end(inner, outer):
    """getattr() with a default, hasattr() and __getattr__ take it for an answer."""
    op, code, names = _op_of(outer), inner.f_code, outer.f_code.co_names
    if op.startswith(("LOAD_ATTR", "LOAD_METHOD", "LOAD_SUPER_ATTR")):
        return kUnknown if _has_getattr(inner) else None
    if not op.startswith(("CALL", "PRECALL", "IMPORT_FROM", "MATCH_")):
        return None
    if _kProbes.intersection(names):
        return kUnknown
    called = code.co_name in names or code.co_name in outer.f_code.co_varnames
    return None if called or code.co_name in _kSpecialCalls or code.co_name[:1] == "<" else kUnknown


def _has_getattr(frame):
    """Whether the object that the method was called on computes attributes that it has not."""
    code = frame.f_code
    if code.co_name == "__getattr__" or not code.co_argcount:
        return False
    try:
        first = frame.f_locals[code.co_varnames[0]]
    except LookupError:
        return True
    return any("__getattr__" in dict_of_type(parent) for parent in mro_of(type(first)))


def _op_of(frame):
    return plan_of(frame.f_code).op_at(frame.f_lasti)


def _is_call(frame):
    op = _op_of(frame)
    return op.startswith(("CALL", "PRECALL")) and not op.startswith("CALL_INTRINSIC")


# --- all exception events of a process ------------------------------------------------------


class tPassing(object):
    """An exception on its way: the traceback of its last event, and what was said of it."""

    __slots__ = ("traceback", "value", "told", "catcher", "passed")

    def __init__(self, traceback, value):
        self.traceback = traceback  # its id: the object must be able to die
        self.value = value          # likewise
        self.told = False
        self.catcher = None         # id of the frame that was thought to end it
        self.passed = False         # the exception has reached that frame


_kMaxNested = 8  # exceptions in progress at the same time (raised in `finally` and `except`)


class tRaiseWatch(object):
    """Sorts exception events: one answer for each exception, at the first frame that is sure.

    judge(frame, exc_info) is given every exception event, each frame that an exception passes
    sends one.  The answer is a tVerdict when the event is a raise, or when an exception has gone
    on where it was thought to end; None when it is on its way, and when it is no news.
    """

    def __init__(self, reports=None):
        self._never_news = kNeverNews
        self._reports = reports
        self._threads = {}  # thread ident -> [tPassing], the latest last

    def judge(self, frame, exc_info, ident=None):
        kind, value, traceback = exc_info
        if traceback is None:
            return None
        if ident is None:
            ident = _get_ident()
        passing = self._find(frame, traceback, value, ident)
        if passing is not None:
            if passing.told:
                return None
            if not passing.passed:
                passing.passed = passing.catcher == id(frame)
                return None
        if self._is_never_news(kind):
            return None
        verdict = scan(frame, kind, value, self._reports)
        if verdict.frame is frame and passing is None and verdict.answer == kCaught:
            return verdict  # should it go on, its next event is like a first one
        if passing is None:
            passing = self._add(traceback, value, ident)
        else:
            verdict.is_new = False
        passing.told = verdict.answer in (kUncaught, kReported)
        passing.catcher = id(verdict.frame)
        passing.passed = verdict.frame is frame
        return verdict

    def mark_told(self, traceback, ident):
        """The user has been told of the exception, whatever the answer was."""
        for passing in self._threads.get(ident, ()):
            if passing.traceback == id(traceback):
                passing.told = True

    def set_quiet(self, kinds):
        """More exception types that are no news, beside kNeverNews."""
        self._never_news = kNeverNews + tuple(kinds)

    def forget(self, ident=None):
        """The thread has ended."""
        ident = _get_ident() if ident is None else ident
        self._threads.pop(ident, None)

    def _is_never_news(self, kind):
        if not is_type(kind):
            return False
        for parent in mro_of(kind):
            for base in self._never_news:
                if parent is base:
                    return True
        return False

    def _find(self, frame, traceback, value, ident):
        """The exception of which this is not the first event, or None."""
        known = self._threads.get(ident)
        if not known:
            return None
        before, value = traceback.tb_next, id(value)
        if before is None:
            # The import system takes its own entries out of tracebacks, which may leave none.
            if compat.PY2 or known[-1].value != value or not _op_of(frame).startswith("IMPORT_"):
                # A new exception; an old one of the same number is gone.
                known[:] = [passing for passing in known if passing.value != value]
                return None
        before = id(before)
        for place in range(len(known) - 1, -1, -1):
            passing = known[place]
            if passing.traceback == before or passing.value == value:
                passing.traceback = id(traceback)
                del known[place + 1:]
                return passing
        return None

    def _add(self, traceback, value, ident):
        known = self._threads.setdefault(ident, [])
        if len(known) >= _kMaxNested:
            del known[0]
        passing = tPassing(id(traceback), id(value))
        known.append(passing)
        return passing
