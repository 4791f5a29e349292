"""What becomes of an exception within one code object, read off its byte code.

No source is needed, and nothing of the program runs.  For each instruction a node tells what
happens to an exception that appears there: kLeaves and so on, below.

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

from tdbg import compat

_kSetups = frozenset(("SETUP_FINALLY", "SETUP_EXCEPT", "SETUP_WITH", "SETUP_ASYNC_WITH"))
_kHasTable = sys.version_info >= (3, 11)
_kUnitJumps = sys.version_info >= (3, 10)  # jumps count instructions, not bytes
_kExceptionMatch = 10  # COMPARE_OP's argument, where there is no instruction of its own
_kMaxSteps = 3000      # instructions looked at in one handler
_kSubscriptOperator = 26  # argument of BINARY_OP, from 3.14 on

_hasjrel, _hasjabs = frozenset(dis.hasjrel), frozenset(dis.hasjabs)
opname = tuple(dis.opname)
_EXTENDED_ARG = dis.opmap["EXTENDED_ARG"]
_HAVE_ARGUMENT = dis.HAVE_ARGUMENT
_find_line_starts = dis.findlinestarts
_bisect = bisect.bisect_right

# What becomes of an exception in a frame: the `kind` of the tuples (kind, line, what, yes, no).
kLeaves = 0   # it goes on to the caller
kCatches = 1  # ends here; line: of the clause, or of the body of `finally`
kMay = 2      # not to be known
kMatch = 3    # an `except` clause; what: operations of its expression or None; yes, no: nodes
kGroup = 4    # `except*` clauses; what: list of such operations; no: node for the rest
kWith = 5     # what: (operations, whether their value is called) of the manager; no: behind it

kGoesOn = (kLeaves, None, None, None, None)
kNotKnown = (kMay, None, None, None, None)


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


decode = _decode_2 if compat.PY2 else _decode_3


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
        for start, end, op, arg in decode(self.code.co_code):
            name = opname[op]
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
            return kNotKnown
        if found is None:
            return kGoesOn
        name, handler, setup = found
        if handler not in self._handlers:
            self._handlers[handler] = kNotKnown  # should code lead back to itself
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
                    return kNotKnown
                outcome, state, other = self._step(state, setup, region, line)
                if outcome is not None and outcome not in outcomes:
                    outcomes.append(outcome)
                if other is not None:
                    pending.append(other)
        if len(outcomes) == 1:
            return outcomes[0]
        if outcomes and all(outcome[0] == kCatches for outcome in outcomes):
            return outcomes[0]
        return (kMay, line, None, None, None)

    def _step(self, state, setup, region, line):
        """(outcome, next state, another next state), each may be None."""
        place, blocks, waiting, running = state
        name, offset = self.names[place], self.offsets[place]
        if region is not None and not region[0] <= offset <= region[1]:
            return (kCatches, line, None, None, None), None, None
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
                return (kCatches, line, None, None, None), None, None
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
            return (kWith, line, self._manager(setup), None, goes_on)
        if name == "CHECK_EG_MATCH":
            return self._group(place)
        if name in _kMatches:
            return self._clause(place, setup, region)
        return (kCatches, line, None, None, None)

    def _clause(self, place, setup, region):
        line = self.line_at(self.offsets[place])
        branch = place if self.names[place] == "JUMP_IF_NOT_EXC_MATCH" else place + 1
        if self.jumps[branch] is None:
            return kNotKnown
        yes, no = branch + 1, self._index_of_jump(self.jumps[branch])
        if "IF_TRUE" in self.names[branch]:
            yes, no = no, yes
        return (kMatch, line, self._expression(place),
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
                return (kGroup, line, expressions, None, self._resolve(self.offsets[last]))
        return kNotKnown

    # --- the manager of a `with` block ---

    def _after_with(self, place):
        """Node for an exception that the block's manager lets go on."""
        for position in range(place, min(place + 6, len(self.names))):
            if self.names[position] == "RERAISE":
                return self._resolve(self.offsets[position])
        return kNotKnown

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
