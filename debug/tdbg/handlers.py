"""Whether an exception will be caught, told at the moment it is raised.

The stack is walked outwards from the frame that raises.  For each frame the handlers around its
current instruction are read off the byte code: which `except` clauses there are, and whether a
clause or a `finally` lets the exception go on.  No source is needed, so it works for `-c`, exec()
and modules without source, and nothing of the program runs: an `except` expression is evaluated
only when it is made of plain names, attributes of modules and classes, and tuples of those.

What cannot be known counts as caught (kUnknown): a stop that is missed here is made one frame
further out, when the exception has left the frame that was thought to catch it (tRaiseWatch).

Byte code differs from version to version.  What is used of it:

  up to 3.10   SETUP_... instructions put a handler on the frame's block stack, POP_BLOCK takes it
               off; the block stack of each instruction follows from the flow of control
  up to 3.8    one copy of a `finally` body serves the normal way and the exception, and
               END_FINALLY decides where it goes on
  from 3.9     the exception has a copy of its own, which ends in RERAISE
  from 3.11    a table says which handler covers an instruction; handlers themselves are covered,
               too, by code that ends in RERAISE
"""
from __future__ import absolute_import, division, print_function

import bisect
import dis
import sys
import types

from tdbg import compat

# Answers, the first two of which are reasons to stop.
kUncaught = "uncaught"  # nothing will catch it
kReported = "reported"  # what catches it only prints or logs it
kCaught = "caught"      # a handler matches, or a `finally` drops it
kUnknown = "unknown"    # it may be caught: to be taken for caught

_kSetups = frozenset(("SETUP_FINALLY", "SETUP_EXCEPT", "SETUP_WITH", "SETUP_ASYNC_WITH"))
_kHasTable = sys.version_info >= (3, 11)
_kUnitJumps = sys.version_info >= (3, 10)  # jumps count instructions, not bytes
_kExceptionMatch = 10  # COMPARE_OP's argument, where there is no instruction of its own
_kMaxSteps = 3000      # instructions looked at in one handler
_kMaxPlans = 4096      # code objects remembered

_hasjrel, _hasjabs = frozenset(dis.hasjrel), frozenset(dis.hasjabs)
_opname = tuple(dis.opname)
_EXTENDED_ARG = dis.opmap["EXTENDED_ARG"]
_HAVE_ARGUMENT = dis.HAVE_ARGUMENT
_find_line_starts = dis.findlinestarts
_bisect = bisect.bisect_right
_get_ident = compat.get_ident
_ModuleType = types.ModuleType
_OldStyleClass = getattr(types, "ClassType", Ellipsis)
_mro_of = type.__dict__["__mro__"].__get__
_dict_of_type = type.__dict__["__dict__"].__get__
_dict_of_module = _ModuleType.__dict__["__dict__"].__get__
_BaseException = BaseException
_Group = getattr(compat.builtins, "BaseExceptionGroup", None)
_members_of = _Group.__dict__["exceptions"].__get__ if _Group else None

# How loops and generators end; never worth a stop.
kNeverNews = tuple(
    getattr(compat.builtins, name)
    for name in ("StopIteration", "GeneratorExit", "StopAsyncIteration")
    if hasattr(compat.builtins, name))

# What becomes of an exception in a frame: the `kind` of the tuples (kind, line, what, yes, no).
_kLeaves = 0   # it goes on to the caller
_kCatches = 1  # ends here; line: of the clause, or of the body of `finally`
_kMay = 2      # not to be known
_kMatch = 3    # an `except` clause; what: operations of its expression or None; yes, no: nodes
_kGroup = 4    # `except*` clauses; what: list of such operations; no: node for the rest
_kWith = 5     # what: (operations, whether their value is called) of the manager; no: behind it

_leaves = (_kLeaves, None, None, None, None)
_unknown = (_kMay, None, None, None, None)


# --- instructions ---------------------------------------------------------------------------


def _decode_2(text):
    place, extended = 0, 0
    while place < len(text):
        start, op, arg = place, ord(text[place]), None
        place += 1
        if op >= _HAVE_ARGUMENT:
            arg = ord(text[place]) + (ord(text[place + 1]) << 8) + extended
            place += 2
            extended = arg << 16 if op == _EXTENDED_ARG else 0
        if op != _EXTENDED_ARG:
            yield start, place, op, arg


def _decode_3(text):
    place, extended = 0, 0
    while place < len(text):
        start, op, arg = place, text[place], text[place + 1] | extended
        place += 2
        if op == _EXTENDED_ARG:
            extended = arg << 8
            continue
        extended = 0
        while _kHasTable and place < len(text) and text[place] == 0:  # inline caches
            place += 2
        yield start, place, op, arg


_decode = _decode_2 if compat.PY2 else _decode_3


def _jump_target(name, op, arg, end):
    """Offset that the instruction may jump to, or None."""
    if op in _hasjabs:
        return arg * 2 if _kUnitJumps else arg
    if op not in _hasjrel:
        return None
    distance = arg * 2 if _kUnitJumps else arg
    return end - distance if "BACKWARD" in name else end + distance


def _read_table(table):
    """[(start, end, handler)] in bytes, from the exception table of a code object."""
    rows, numbers, value = [], [], 0
    for byte in table:
        value = value << 6 | byte & 63
        if not byte & 64:
            numbers.append(value)
            value = 0
            if len(numbers) == 4:
                start, length, handler, _ = numbers
                rows.append((2 * start, 2 * (start + length), 2 * handler))
                numbers = []
    return rows


# --- one code object ------------------------------------------------------------------------


class tCodePlan(object):
    """What becomes of exceptions at each instruction of a code object; worked out when asked."""

    def __init__(self, code):
        self.code = code
        self.nodes = {}      # offset of an instruction -> node
        self._handlers = {}  # offset of a handler -> node
        self._loaded = False

    def node_at(self, offset):
        """Node for an exception that appears at the instruction."""
        node = self.nodes.get(offset)
        if node is None:
            if not self._loaded:
                self._load()
            node = self.nodes[offset] = self._resolve(offset)
        return node

    def op_at(self, offset):
        """Name of the instruction at the offset, which may be inside of one."""
        if not self._loaded:
            self._load()
        place = self._index_at(offset)
        if place < 0:
            return ""
        if self.names[place] == "BINARY_OP" and self.args[place] == _kSubscriptOperator:
            return "BINARY_SUBSCR"
        return self.names[place]

    def _load(self):
        self._loaded = True
        self.offsets, self.names, self.args, self.jumps = [], [], [], []
        for start, end, op, arg in _decode(self.code.co_code):
            name = _opname[op]
            self.offsets.append(start)
            self.names.append(name)
            self.args.append(arg)
            self.jumps.append(_jump_target(name, op, arg, end))
        # The first instruction's prefixes belong to it: jumps lead to them.
        self._lines = [(start, line) for start, line in _find_line_starts(self.code)]
        self._line_offsets = [start for start, _ in self._lines]
        if _kHasTable:
            self._table = _read_table(self.code.co_exceptiontable)
        else:
            self._blocks = {}
            if _kSetups.intersection(self.names):
                self._follow_blocks()
            else:
                self._blocks = None

    def _index_at(self, offset):
        return _bisect(self.offsets, offset) - 1

    def _index_of_jump(self, offset):
        """A jump may lead to the EXTENDED_ARG in front of an instruction."""
        place = bisect.bisect_left(self.offsets, offset)
        return min(place, len(self.offsets) - 1)

    def line_at(self, offset):
        place = _bisect(self._line_offsets, offset) - 1
        return self._lines[place][1] if place >= 0 else None

    # --- which handler is active ---

    def _follow_blocks(self):
        """Fill _blocks: instruction -> handlers around it, the innermost last."""
        pending = [(0, ())]
        while pending:
            place, blocks = pending.pop()
            while place < len(self.names) and place not in self._blocks:
                self._blocks[place] = blocks
                name, jump = self.names[place], self.jumps[place]
                if name in _kSetups or name == "SETUP_LOOP":
                    pending.append((self._index_of_jump(jump), blocks))
                    blocks += ((name, jump, self.offsets[place]),)
                elif name == "POP_BLOCK":
                    blocks = blocks[:-1]
                elif name == "CALL_FINALLY":
                    pass  # its target is a handler, which SETUP_FINALLY has led to
                elif jump is not None:
                    pending.append((self._index_of_jump(jump), blocks))
                if name in _kNoWayOn:
                    break
                place += 1

    def _handler_at(self, offset):
        """(instruction that set it up, offset of the handler, offset of that instruction)

        None where there is no handler.
        """
        if _kHasTable:
            for start, end, handler in self._table:
                if start <= offset < end:
                    first = min(row[0] for row in self._table if row[2] == handler)
                    return "", handler, self.offsets[self._index_at(first) - 1]
            return None
        if self._blocks is None:
            return None
        blocks = self._blocks[self._index_at(offset)]
        for block in reversed(blocks):
            if block[0] != "SETUP_LOOP":
                return block
        return None

    def _resolve(self, offset):
        try:
            found = self._handler_at(offset)
        except LookupError:  # an instruction that no way leads to
            return _unknown
        if found is None:
            return _leaves
        name, handler, setup = found
        if handler not in self._handlers:
            self._handlers[handler] = _unknown  # should code lead back to itself
            first = self._index_of_jump(handler)
            region = None
            if compat.PY2 and name == "SETUP_EXCEPT":
                region = (handler, self._end_of_clauses(first))
            self._handlers[handler] = self._explore(first, setup, region)
        return self._handlers[handler]

    # --- what a handler does ---

    def _explore(self, first, setup, region, line=None):
        """Node for an exception that arrives at a handler, or at the body of a clause.

        Every way through the code is followed.  setup: offset of what set the handler up; region:
        for `except` on version 2, outside of it the exception has been caught; line: of the clause.
        """
        if line is None:
            line = self._line_of_clause(first)
        outcomes, seen = [], set()
        # (instruction, blocks set up on the way, `finally` bodies to come, those being run)
        pending = [(first, (), (), 0)]
        while pending:
            state = pending.pop()
            while state is not None:
                if state in seen:
                    break
                seen.add(state)
                if len(seen) > _kMaxSteps:
                    return _unknown
                outcome, state, other = self._step(state, setup, region, line)
                if outcome is not None and outcome not in outcomes:
                    outcomes.append(outcome)
                if other is not None:
                    pending.append(other)
        if len(outcomes) == 1:
            return outcomes[0]
        if outcomes and all(outcome[0] == _kCatches for outcome in outcomes):
            return outcomes[0]
        return (_kMay, line, None, None, None)

    def _step(self, state, setup, region, line):
        """(outcome, next state, another next state), each may be None."""
        place, blocks, waiting, running = state
        name, offset = self.names[place], self.offsets[place]
        if region is not None and not region[0] <= offset <= region[1]:
            return (_kCatches, line, None, None, None), None, None
        if offset in waiting:  # a `finally` body, on the normal way
            waiting, running = tuple(item for item in waiting if item != offset), running + 1
        if self._is_end(place) and not (running and name in _kShared):
            return self._end(place, setup, region, line), None, None
        if name in _kShared:
            running -= name in ("END_FINALLY", "POP_FINALLY")
        jump = self.jumps[place]
        if name in _kSetups or name == "SETUP_LOOP":
            blocks, jump = blocks + ((name, jump),), None
        elif name == "POP_BLOCK" and blocks:
            if blocks[-1][0] != "SETUP_LOOP":
                waiting += (blocks[-1][1],)
            blocks = blocks[:-1]
        elif name in ("BREAK_LOOP", "CONTINUE_LOOP"):
            while blocks and blocks[-1][0] != "SETUP_LOOP":
                blocks = blocks[:-1]
            if not blocks:
                return (_kCatches, line, None, None, None), None, None
            if name == "BREAK_LOOP":
                jump, blocks = blocks[-1][1], blocks[:-1]
        elif name == "CALL_FINALLY":
            jump = None
        other = None
        if jump is not None:
            other = (self._index_of_jump(jump), blocks, waiting, running)
        if name in _kNoWayOn or place + 1 >= len(self.names):
            return None, other, None
        return None, (place + 1, blocks, waiting, running), other

    def _is_end(self, place):
        name = self.names[place]
        if name == "COMPARE_OP":
            return not _kHasTable and self.args[place] == _kExceptionMatch
        return name in _kEndings

    def _end(self, place, setup, region, line):
        """Node for an instruction that decides."""
        name, arg, offset = self.names[place], self.args[place], self.offsets[place]
        following = self.names[place + 1] if place + 1 < len(self.names) else ""
        if name in _kGoingOn or (name == "RAISE_VARARGS" and not arg):
            return self._resolve(offset)
        if name == "POP_EXCEPT" and following == "RERAISE":
            return self._resolve(self.offsets[place + 1])
        if name in _kWithEnds:
            goes_on = self._resolve(offset) if "WITH_CLEANUP" in name else self._after_with(place)
            return (_kWith, line, self._manager(setup), None, goes_on)
        if name == "CHECK_EG_MATCH":
            return self._group(place)
        if name in _kMatches:
            return self._clause(place, setup, region)
        return (_kCatches, line, None, None, None)

    def _clause(self, place, setup, region):
        line = self.line_at(self.offsets[place])
        branch = place if self.names[place] == "JUMP_IF_NOT_EXC_MATCH" else place + 1
        if self.jumps[branch] is None:
            return _unknown
        yes, no = branch + 1, self._index_of_jump(self.jumps[branch])
        if "IF_TRUE" in self.names[branch]:
            yes, no = no, yes
        return (_kMatch, line, self._expression(place),
                self._explore(yes, setup, region, line), self._explore(no, setup, region))

    def _end_of_clauses(self, place):
        """Offset of the END_FINALLY of the handler that the instruction is in."""
        depth = 0
        for position in range(place, len(self.names)):
            if self.names[position] in _kSetups:
                depth += 1
            elif self.names[position] == "END_FINALLY":
                if not depth:
                    return self.offsets[position]
                depth -= 1
        return self.offsets[-1]

    def _group(self, place):
        """The `except*` clauses from this one on."""
        expressions = []
        for position in range(place, len(self.names)):
            name = self.names[position]
            if name == "CHECK_EG_MATCH":
                expressions.append(self._expression(position))
            elif name == "PREP_RERAISE_STAR" or (
                    name == "CALL_INTRINSIC_2" and self.args[position] == 1):
                break
        for last in range(position, len(self.names)):
            if self.names[last] == "RERAISE":
                line = self.line_at(self.offsets[place])
                return (_kGroup, line, expressions, None, self._resolve(self.offsets[last]))
        return _unknown

    # --- the manager of a `with` block ---

    def _after_with(self, place):
        """Node for an exception that the block's manager lets go on."""
        for position in range(place, min(place + 6, len(self.names))):
            if self.names[position] == "RERAISE":
                return self._resolve(self.offsets[position])
        return _unknown

    def _manager(self, setup):
        """(operations, whether their value is called) of the block's expression, if it is plain."""
        place = self._index_at(setup)
        if not self.names[place].startswith(("SETUP_WITH", "BEFORE_WITH")):
            # 3.14 looks the methods up one by one, on a copy of the manager.
            copies = [at for at in range(max(place - 8, 0), place) if self.names[at] == "COPY"]
            if self.names[place] != "CALL" or not copies:
                return None
            place = copies[-1]
        first, needed = place, 1
        while needed > 0 and first > 0:
            first -= 1
            effect = _stack_effect(self.names[first], self.args[first])
            if effect is None:
                return None
            needed += effect[0] - effect[1]
        if self.names[first] == "PUSH_NULL":
            first += 1
        operations = []
        while first < place and self.names[first] in (_kAttributes if operations else _kNames):
            operations.extend(_kLoads[self.names[first]](self.code, self.args[first]))
            first += 1
        if first < place and self.names[first] == "PUSH_NULL":
            first += 1
        is_called = self.names[place - 1].startswith("CALL")
        if not operations or (first < place) != is_called:
            return None
        return tuple(operations), is_called

    def _line_of_clause(self, place):
        for position in range(place, min(place + 3, len(self.names))):
            line = self.line_at(self.offsets[position])
            if line is not None and self.names[position] != "PUSH_EXC_INFO":
                return line
        return None

    # --- the expression of a clause ---

    def _expression(self, place):
        """Operations that compute what stands behind `except`; None when that takes more."""
        first = place
        while first > 0 and self.names[first - 1] in _kLoads:
            first -= 1
        operations, depth = [], 0
        for position in range(first, place):
            name, arg = self.names[position], self.args[position]
            for operation in _kLoads[name](self.code, arg):
                operations.append(operation)
                if operation[0] == "attr":
                    depth -= 1
                elif operation[0] == "tuple":
                    depth -= operation[1]
                if depth < 0:
                    return None
                depth += 1
        return tuple(operations) if depth == 1 else None


_kGoingOn = frozenset(("END_FINALLY", "RERAISE", "END_ASYNC_FOR", "CLEANUP_THROW"))
_kWithEnds = frozenset(("WITH_CLEANUP", "WITH_CLEANUP_START", "WITH_EXCEPT_START"))
_kMatches = frozenset(("COMPARE_OP", "JUMP_IF_NOT_EXC_MATCH", "CHECK_EXC_MATCH"))
_kReturns = frozenset(("RETURN_VALUE", "RETURN_CONST"))
_kEndings = _kGoingOn | _kWithEnds | _kMatches | _kReturns | frozenset(
    ("RAISE_VARARGS", "POP_EXCEPT", "POP_FINALLY", "CHECK_EG_MATCH"))
# These are met on the normal way, too, where a `finally` body has one copy.
_kShared = frozenset(("END_FINALLY", "POP_FINALLY", "WITH_CLEANUP", "WITH_CLEANUP_START"))
_kNoWayOn = _kReturns | frozenset((
    "RAISE_VARARGS", "RERAISE", "BREAK_LOOP", "CONTINUE_LOOP", "JUMP_FORWARD", "JUMP_ABSOLUTE",
    "JUMP_BACKWARD", "JUMP_BACKWARD_NO_INTERRUPT", "JUMP_NO_INTERRUPT"))


_kAttributes = frozenset(("LOAD_ATTR", "LOAD_METHOD"))
_kNames = frozenset((
    "LOAD_GLOBAL", "LOAD_NAME", "LOAD_FAST", "LOAD_FAST_CHECK", "LOAD_FAST_BORROW", "LOAD_DEREF"))


def _stack_effect(name, arg):
    """(values taken, values put) by instructions of plain calls; None for any other."""
    if name == "LOAD_GLOBAL":
        return 0, 1 + (_kHasTable and arg & 1)
    if name in _kNames or name in ("LOAD_CONST", "LOAD_SMALL_INT", "PUSH_NULL"):
        return 0, 1
    if name == "LOAD_ATTR":
        return 1, 1 + (sys.version_info >= (3, 12) and arg & 1)
    if name == "LOAD_METHOD":
        return 1, 2
    if name in ("PRECALL", "KW_NAMES"):
        return 0, 0
    if name in ("CALL", "CALL_METHOD", "CALL_FUNCTION_KW"):
        return arg + 2, 1
    if name == "CALL_FUNCTION":  # version 2 counts pairs for keywords, too
        return (arg & 255) + 2 * (arg >> 8 if compat.PY2 else 0) + 1, 1
    if name == "CALL_KW":
        return arg + 3, 1
    if name in ("BUILD_TUPLE", "BUILD_LIST", "BUILD_STRING"):
        return arg, 1
    return None


def _load_deref(code, arg):
    if hasattr(code, "_varname_from_oparg"):
        return [("local", code._varname_from_oparg(arg))]
    return [("local", (code.co_cellvars + code.co_freevars)[arg])]


def _load_global(code, arg):
    return [("global", code.co_names[arg >> 1 if _kHasTable else arg])]


def _load_attr(code, arg):
    return [("attr", code.co_names[arg >> 1 if sys.version_info >= (3, 12) else arg])]


def _load_fast(code, arg):
    return [("local", code.co_varnames[arg])]


def _load_two(code, arg):
    return [("local", code.co_varnames[arg >> 4]), ("local", code.co_varnames[arg & 15])]


_kLoads = {
    "LOAD_GLOBAL": _load_global,
    "LOAD_NAME": lambda code, arg: [("name", code.co_names[arg])],
    "LOAD_FAST": _load_fast,
    "LOAD_FAST_CHECK": _load_fast,
    "LOAD_FAST_BORROW": _load_fast,
    "LOAD_FAST_LOAD_FAST": _load_two,
    "LOAD_FAST_BORROW_LOAD_FAST_BORROW": _load_two,
    "LOAD_DEREF": _load_deref,
    "LOAD_CLASSDEREF": _load_deref,
    "LOAD_CONST": lambda code, arg: [("const", code.co_consts[arg])],
    "LOAD_ATTR": _load_attr,
    "LOAD_METHOD": lambda code, arg: [("attr", code.co_names[arg])],
    "BUILD_TUPLE": lambda code, arg: [("tuple", arg)],
}


# --- values, without running code of the program --------------------------------------------


# Classes are compared by identity: == and isinstance() may run code of the program.


def _is_type(value):
    kind = type(value)
    return kind is type or _is_one_of(type, _mro_of(kind))


def _is_one_of(kind, kinds):
    for item in kinds:
        if item is kind:
            return True
    return False


def _derives(kind, base):
    """Whether the class is or derives from the other, as `except` sees it."""
    if _is_type(kind):
        return _is_one_of(base, _mro_of(kind))
    if kind is base:
        return True  # an old-style class of version 2
    return any(_derives(parent, base) for parent in getattr(kind, "__bases__", ()))


def _look_up(frame, kind, name):
    """Value of a name in the frame; LookupError."""
    if kind != "global":
        places = frame.f_locals
        if name in places:
            return places[name]
        if kind == "local":
            raise LookupError(name)
    if name in frame.f_globals:
        return frame.f_globals[name]
    return frame.f_builtins[name]


def _attribute(value, name):
    """What the attribute of a module or class is, where nothing but a dictionary decides that."""
    if type(value) is _ModuleType:
        return _dict_of_module(value)[name]
    if type(value) is type:
        for parent in _mro_of(value):
            if name in _dict_of_type(parent):
                return _dict_of_type(parent)[name]
    raise LookupError(name)


def _evaluate(frame, operations):
    """Value of an `except` expression; LookupError when it is not to be had."""
    stack = []
    for what, arg in operations:
        if what == "attr":
            stack[-1] = _attribute(stack[-1], arg)
        elif what == "tuple":
            parts = stack[len(stack) - arg:]
            del stack[len(stack) - arg:]
            stack.append(tuple(parts))
        elif what == "const":
            stack.append(arg)
        else:
            stack.append(_look_up(frame, what, arg))
    return stack[0]


def _matches(frame, operations, kind):
    """Whether the clause catches the exception: True, False, or None for perhaps."""
    if operations is None:
        return None
    try:
        if len(operations) == 1 and operations[0][0] != "const":
            wanted = _look_up(frame, *operations[0])
        else:
            wanted = _evaluate(frame, operations)
    except (LookupError, AttributeError):
        return None
    return _matches_value(wanted, kind)


def _matches_value(wanted, kind):
    if _derives(kind, wanted):
        return True if wanted is not object else None
    if _is_type(wanted):
        if not _is_one_of(_BaseException, _mro_of(wanted)):
            return None  # an error of its own, or ignored
        # Version 2 asks the class's metaclass.
        return None if compat.PY2 and type(wanted) is not type else False
    if _is_one_of(tuple, _mro_of(type(wanted))):
        answers = [_matches_value(part, kind) for part in tuple.__iter__(wanted)]
        return True if True in answers else None if None in answers else False
    return False if type(wanted) is _OldStyleClass else None


def _lets_pass(frame, manager):
    """Whether the manager of the `with` block never ends an exception, as far as is known."""
    if manager is None:
        return False
    operations, is_called = manager
    try:
        value = _evaluate(frame, operations)
    except (LookupError, AttributeError):
        return False
    if not is_called:
        value = type(value)
    elif any(value is function for function in _kMakers):
        return True
    if not _is_type(value) or (is_called and type(value) is not type):
        return False
    for parent in _mro_of(value):
        names = _dict_of_type(parent)
        if is_called and type(names.get("__new__")) is staticmethod:
            return False  # may make anything
        if "__exit__" in names:
            method = names["__exit__"]
            if type(method) is types.FunctionType:
                return _returns_nothing(method.__code__)
            return _is_one_of(parent, _kPassing)
    return False


_quiet_codes = {}


def _returns_nothing(code):
    """Whether all that the code returns is None or False, written down as such."""
    known = _quiet_codes.get(id(code))
    if known is None or known[0] is not code:
        if len(_quiet_codes) > _kMaxPlans:
            _quiet_codes.clear()
        known = _quiet_codes[id(code)] = (code, _find_returns(code))
    return known[1]


def _find_returns(code):
    if code.co_flags & _kGeneratorFlags:
        return False
    before = None
    for _, _, op, arg in _decode(code.co_code):
        name = _opname[op]
        value = True
        if name == "RETURN_CONST":
            value = code.co_consts[arg]
        elif name == "RETURN_VALUE" and before is not None and before[0] == "LOAD_CONST":
            value = code.co_consts[before[1]]
        elif name == "RETURN_VALUE" and before == ("LOAD_GLOBAL", "False"):
            value = False  # version 2 has no constant for it
        elif name != "RETURN_VALUE":
            value = None
        if value is not None and value is not False:
            return False
        before = (name, code.co_names[arg]) if compat.PY2 and name == "LOAD_GLOBAL" else (name, arg)
    return True


_kGeneratorFlags = 0x20 | 0x80 | 0x200


def _passing_types():
    """Types of the interpreter whose __exit__ only closes or releases."""
    found = [type(compat.allocate_lock())]
    for module, name in (("_io", "_IOBase"), ("_thread", "RLock")):
        kind = getattr(sys.modules.get(module), name, None)
        if isinstance(kind, type):
            found.append(kind)
    if compat.PY2:
        found.append(compat.builtins.file)
    return tuple(found)


_kPassing = _passing_types()
# Functions that make such objects.
_kMakers = (compat.allocate_lock,) + tuple(
    getattr(module, "open") for module in (compat.builtins, sys.modules.get("_io")) if module)


def _leaves_of(group):
    """Exceptions in a group, and in the groups in it."""
    found, pending = [], [group]
    while pending:
        value = pending.pop()
        if _is_one_of(_Group, _mro_of(type(value))):
            pending.extend(_members_of(value))
        else:
            found.append(value)
    return found


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
    if _Group is not None and _is_one_of(_Group, _mro_of(type(value))):
        parts = _leaves_of(value)
    inner = is_probe = None
    while frame is not None:
        if inner is not None:
            if is_probe is None:
                is_probe = compat.PY2 or _derives(kind, AttributeError)
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
            if node is not _leaves:
                node, parts, clause = _follow(frame, node, kind, parts)
                if node[0] != _kLeaves:
                    return _conclude(node, frame, clause, reports)
        if frame is outermost:
            break
        inner, frame = frame, frame.f_back
    return tVerdict(kUncaught)


def _conclude(node, frame, clause, reports):
    if node[0] == _kMay:
        reported = reports is not None and reports(frame, None)
        return tVerdict(kReported if reported else kUnknown, frame, node[1])
    # A clause for certain types is the program's normal course, whatever the function does else.
    if reports is not None and (clause is None or _catches_all(frame, clause)):
        if reports(frame, node[1]):
            return tVerdict(kReported, frame, node[1])
    return tVerdict(kCaught, frame, node[1])


def _catches_all(frame, clause):
    try:
        wanted = _evaluate(frame, clause)
    except (LookupError, AttributeError):
        return True
    if type(wanted) is tuple:
        return any(_is_one_of(kind, _kBroad) for kind in wanted)
    return _is_one_of(wanted, _kBroad)


_kBroad = tuple(
    getattr(compat.builtins, name)
    for name in ("BaseException", "Exception", "StandardError") if hasattr(compat.builtins, name))


def _follow(frame, node, kind, parts):
    """(the node at which the exception ends: leaves, catches or may; what is left of a group;
    operations of the clause that matches, None for a bare one)"""
    clause = None
    while node[0] >= _kMatch:
        if node[0] == _kMatch:
            answer = _matches(frame, node[2], kind)
            if answer is None:
                return (_kMay, node[1], None, None, None), parts, None
            clause = node[2] if answer else None
            node = node[3] if answer else node[4]
        elif node[0] == _kWith:
            if not _lets_pass(frame, node[2]):
                return (_kMay, node[1], None, None, None), parts, None
            node = node[4]
        else:
            answer, parts = _match_group(frame, node[2], kind, parts)
            if answer is None:
                return (_kMay, node[1], None, None, None), parts, None
            node = (_kCatches, node[1], None, None, None) if answer else node[4]
    return node, parts, clause


def _match_group(frame, clauses, kind, parts):
    """(whether `except*` clauses leave nothing of the exception, None: perhaps; what is left)"""
    if parts is None:
        answers = [_matches(frame, clause, kind) for clause in clauses]
        return (True if True in answers else None if None in answers else False), None
    for clause in clauses:
        answers = [_matches(frame, clause, type(part)) for part in parts]
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
_kSubscriptOperator = 26  # argument of BINARY_OP, from 3.14 on
_kSpecialCalls = frozenset(("__init__", "__new__", "__call__"))


def _what_lies_between(inner, outer, kind):
    """The answer when the C code through which `outer` runs `inner` ends the exception, or may."""
    code = inner.f_code
    if code.co_flags & _kCoroutine and _is_call(outer):
        # An await goes on outwards; a task of asyncio keeps the exception.
        if not _kGeneratorCalls.intersection(outer.f_code.co_names):
            return kUnknown
    if _derives(kind, AttributeError):
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
    if name == "__getitem__" and _derives(kind, IndexError):
        # How a loop over an object without __iter__ ends.
        return None if _op_of(outer).startswith(_kSubscripts) else kUnknown
    if name in ("__len__", "__length_hint__") and _derives(kind, TypeError):
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
    return any("__getattr__" in _dict_of_type(parent) for parent in _mro_of(type(first)))


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
        if not _is_type(kind):
            return False
        for parent in _mro_of(kind):
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
