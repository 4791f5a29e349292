"""Random programs under the tracer against what sys.settrace sees of them, and against a model.

  differential.py SEED COUNT

Each program (randomprograms.py) runs four times: alone, under a trace function in Python, under the
tracer with step_into at every stop, and under the tracer with random commands and breakpoints. Its
output is the same each time. The stops of the third run are the line and return events of the
second one and its exceptions; the calls and returns that the tracer logs are its call and return
events. Of the fourth run a model, which reads the events of the second one, tells every stop
beforehand, and the hits of every breakpoint.

The programs are compiled here and run in batches, in children of this process: the first two runs
of a batch in one that has no tracer, the others in a second one. What ends a child is run again,
program by program; so is what differs, to say whether it does so alone.

The last line is OK and what was done, or how many programs differ; of those the program, its seed
and the events around the difference are printed, and "differential.py SEED 1" shows it again.

What differs by version and is no fault:
- StopIteration does not stop where nothing is stepped over (all versions send the event from 3.6
  on); where something is, it may be shown as a line: until 3.10 whether the wish to see it has
  survived depends on which frames sent line events in between, so the model allows both.
- Until 3.9 a frame that is left by an exception, and one whose `with` has ended by one, may show
  another line than it shows to a trace function that has watched every line of it: stops are
  compared by the offset of their instruction.
- Until 3.12 a trace function in Python (and anybody who looks at the locals of a function) keeps
  what local variables hold alive until the next look, and a tracer keeps the frames of a step until
  the next command. So where a generator is closed because nothing holds it any more, the time of
  that differs: of such programs only the output alone and under the tracer is compared. They are
  few.
- On 3.11 nothing tells that an asynchronous generator is suspended: where it is stepped out of, it
  stops when it yields.
- Until 3.7 lines whose code follows that of a later line are not found when a code object is
  searched for breakpoints (increments are read as unsigned): frames with such lines are not asked
  about.
"""
from __future__ import absolute_import, division, print_function

import collections
import functools
import gc
import io
import marshal
import os
import random
import re
import shutil
import signal
import sys
import tempfile
import traceback
import types
import warnings

try:
    import _thread as thread
except ImportError:
    import thread

_tests = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
if _tests not in sys.path:
    sys.path.insert(0, _tests)
from support import randomprograms  # noqa: E402
from support.library import import_tracer  # noqa: E402
from support.tracing import Session  # noqa: E402

# From 3.11 on the offset of a call depends on how the interpreter has specialised it.
kOffsetsAreStable = sys.version_info < (3, 11)
kCore = 4  # the log's category
kShown = 12  # events around a difference
kMaxEvents = 3000
kBatch = 50
kSeconds = 100  # of a batch: what takes longer hangs
kSettraceKeepsLocals = sys.version_info < (3, 13)
kLinesDependOnWatching = sys.version_info < (3, 10)
kReadsUnsigned = (3,) <= sys.version_info < (3, 8)
kSeesStreamsYield = sys.version_info[:2] != (3, 11)
kKeptModules = frozenset([
    "__main__", "__builtin__", "builtins", "sys", "exceptions", "math", "operator",
    "_operator", "re", "io", "codecs", "encodings", "warnings", "time", "string", "_string",
    "tdbgtracer"])
kTextFile = "<string>"  # of a text that is given to exec

# What happened: one event of a frame. `frame` and `parent` are numbers of activations (0: outside).
tEvent = collections.namedtuple(
    "tEvent", "what frame parent name line offset value is_stop_iteration is_yield conditions")


def describe(value):
    """Of a returned value: without addresses."""
    if value is None or isinstance(value, (bool, int, str)):
        return repr(value)
    if isinstance(value, (tuple, list)):
        return "[" + ", ".join([describe(item) for item in value]) + "]"
    return type(value).__name__


kIsStream = 0x200  # flag of asynchronous generators
kCanSuspend = 0x20 | 0x80 | kIsStream  # and of generators, coroutines


def is_yielded(code, value):
    if not code.co_flags & kCanSuspend:
        return False
    if code.co_name == "<genexpr>":
        return value is not None
    return isinstance(value, tuple) or type(value).__name__ == "async_generator_wrapped_value"


class Head(object):
    """The file that all programs of this process share."""

    def __init__(self, folder):
        self.path = os.path.join(folder, "head.py")
        make_file(self.path)
        code = compile(randomprograms.HEAD, self.path, "exec", 0, True)
        self.marshalled = marshal.dumps(code)
        self.lines = searchable_lines(code)

    def load(self, tell):
        """A module: a tracer learns what files there are from these."""
        module = types.ModuleType("head")
        module.__dict__.update(__file__=self.path, OUT=tell)
        exec(marshal.loads(self.marshalled), module.__dict__)
        sys.modules["head"] = module
        return module


class Program(object):
    def __init__(self, seed, head):
        self.seed, self.head = seed, head
        self.path = os.path.join(os.path.dirname(head.path), "program_{}.py".format(seed))
        make_file(self.path)
        self.text, code = randomprograms.make_program(seed, self.path)
        self.marshalled = marshal.dumps(code)
        self.files = frozenset([self.path, head.path, kTextFile])
        self.has_threads = "RUN(" in self.text
        # Not so often in the head, which every program runs through again and again.
        self.plan = Plan(seed * 7 + 1, searchable_lines(code) * 2 + head.lines)

    def file_of(self, line):
        return self.head.path if line < randomprograms.kFirstLine else self.path


def make_file(path):
    """The text is not looked at; but what the file is, is."""
    os.close(os.open(path, os.O_CREAT | os.O_WRONLY, 0o600))


class Alone(object):
    """Runs a program as it is."""

    def __init__(self, program):
        self.program = program

    def run(self):
        """What the program wrote."""
        # New code objects each time: interpreters note in them how they were run.
        code = marshal.loads(self.program.marshalled)
        out = io.BytesIO() if sys.version_info < (3,) else io.StringIO()
        tell = functools.partial(print, file=out)  # has no frame
        head = self.program.head.load(tell)
        namespace = dict(head.__dict__, __name__="program", __file__=self.program.path,
                         RUN=self.run_in_thread)
        self.begin()
        try:
            try:
                exec(code, namespace)
            except (Exception, GeneratorExit) as why:  # 2.x raises the latter again with `raise`
                tell("ended by " + type(why).__name__)
                why = None
        finally:
            self.end()
        told = out.getvalue()
        if sys.version_info < (3,):
            sys.exc_clear()
        namespace.clear()
        head.__dict__.clear()
        return told

    def begin(self):
        pass

    end = begin_thread = end_thread = begin

    def run_in_thread(self, function):
        has_ended = thread.allocate_lock()
        has_ended.acquire()
        thread.start_new_thread(self.whole_thread, (function, has_ended))
        has_ended.acquire()

    def whole_thread(self, function, has_ended):
        self.begin_thread()
        self.part_of_thread(function)
        self.end_thread()
        has_ended.release()

    def part_of_thread(self, function):
        try:
            function()
        except (Exception, GeneratorExit):
            pass


class Settraced(Alone):
    """The events of a program.

    conditions: {line: [texts]}, evaluated at every event on these lines
    """

    def __init__(self, program, conditions):
        Alone.__init__(self, program)
        self.conditions = conditions
        self.events = []
        self.trace = self.make_trace()

    def is_too_long(self):
        return len(self.events) > kMaxEvents

    def begin(self):
        sys.settrace(self.trace)

    def end(self):
        sys.settrace(None)

    begin_thread, end_thread = begin, end

    def make_trace(self):
        files, conditions, events = self.program.files, self.conditions, self.events
        numbers = {}  # id of a frame that has begun and not ended -> number
        first = {}  # id of a code object -> its f_lasti at the beginning, and itself to keep it
        activations = [0]

        def trace(frame, what, arg):
            code = frame.f_code
            if code.co_filename not in files or len(events) > kMaxEvents:
                return None
            key = id(frame)
            value, is_yield, is_stop_iteration = None, False, False
            if what == "call":
                # A resumed generator keeps its number; the address alone says little, others
                # use it again.
                offset = frame.f_lasti
                if first.setdefault(id(code), (offset, code))[0] == offset or key not in numbers:
                    activations[0] += 1
                    numbers[key] = activations[0]
            number = numbers.get(key, -1)
            if what == "return":
                value = describe(arg)
                is_yield = is_yielded(code, arg)
                if not is_yield:
                    numbers.pop(key, None)
                elif not kSeesStreamsYield and code.co_flags & kIsStream:
                    is_yield = False
            elif what == "exception":
                value = arg[0].__name__
                is_stop_iteration = issubclass(arg[0], StopIteration)
            line = frame.f_lineno
            texts = conditions.get(line)
            events.append((
                what, number, numbers.get(id(frame.f_back), 0), code.co_name, line,
                frame.f_lasti if kOffsetsAreStable else 0, value, is_stop_iteration, is_yield,
                texts and dict([(text, evaluate(text, frame)) for text in texts])))
            return trace
        return trace


_compiled = {}


def evaluate(text, frame):
    """1, 0, or 2 where it fails."""
    code = _compiled.get(text) or _compiled.setdefault(text, compile(text, "<condition>", "eval"))
    try:
        return 1 if eval(code, frame.f_globals, frame.f_locals) else 0
    except Exception:
        return 2


class Traced(Alone):
    """Steps into everything, or does what obey() says."""

    exception_mode = 0

    def __init__(self, program, tracer_session):
        Alone.__init__(self, program)
        self.session = tracer_session
        self.tracer = tracer_session.tracer
        self.stops, self.problems = [], []
        self.obey = self.pass_by = self.tracer.step_into
        self.files = program.files

    def begin(self):
        self.session.handler = self
        self.tracer.set_exception_mode(self.exception_mode)
        self.tracer.start_trace()
        self.tracer.step_into()

    def end(self):
        self.pass_by = self.tracer.continue_run
        self.tracer.stop_trace()
        self.tracer.clear_all_breaks()
        self.tracer.get_changed_bps_lists()
        self.session.handler = None

    def begin_thread(self):
        sys.settrace(self.bootstrap)

    def bootstrap(self, frame, what, arg):
        result = self.tracer.bootstrap_new_thread(frame, what, arg)
        self.tracer.step_into()
        return result

    def end_thread(self):
        sys.settrace(None)
        self.tracer.thread_exiting()


class tDiffSession(Session):
    """A stop calls one function in Python, so that no more frames than this are traced and
    logged."""

    handler = None

    def __init__(self):
        self.line_cb = functools.partial(self.on_stop, "line")
        self.return_cb = functools.partial(self.on_stop, "return")
        self.exception_cb = functools.partial(self.on_stop, "exception")
        Session.__init__(self)
        self.tracer.set_autoquit(0)

    def on_stop(self, what, frame, value=None):
        handler = self.handler
        if handler is None:
            return
        try:
            code = frame.f_code
            if code.co_filename not in handler.files:
                handler.pass_by()
                return
            if what == "return":
                value = describe(value)
            elif what == "exception":
                value = value[0].__name__
            handler.stops.append((what, code.co_name, frame.f_lineno,
                                  frame.f_lasti if kOffsetsAreStable else 0, value))
            handler.obey()
        except Exception as why:
            handler.problems.append("at a stop: {!r}".format(why))


# --- random commands and breakpoints -----------------------------------------------------------

kConditions = [None, None, "TICK[0] % 2", "x > 3", "d == 2", "a and x", "1 // 0", "TICK[0] > 5"]
kCommands = ["step_into", "step_over", "step_over", "step_over_line", "step_over_line_range",
             "step_out", "continue_run", "continue_run", "stop"]


kSteps = 120


class Plan(object):
    """What is done at each stop, by its number: the same for the tracer and for the model."""

    def __init__(self, seed, lines):
        self.random = random.Random(seed).random
        self.lines = lines
        self.breaks_at_begin = [self.new_break() for _ in range(self.below(7))]
        self.exception_mode = self.below(2)
        self.use_idle_thread, self.use_eval_frame = self.below(2), self.below(2)
        self.steps = [self.new_step() for _ in range(kSteps)]

    def below(self, limit):
        return int(self.random() * limit)

    def pick(self, values):
        return values[self.below(len(values))]

    def new_break(self):
        return (self.pick(self.lines), self.random() < 0.9, self.random() < 0.2,
                self.pick(kConditions), self.pick([0, 0, 0, 1, 3]))

    def new_step(self):
        """(command, breakpoint to set or None, line to clear or None, lines of the range)"""
        return (self.pick(kCommands),
                self.new_break() if self.random() < 0.08 else None,
                self.pick(self.lines) if self.random() < 0.08 else None,
                self.below(4))

    def step(self, number):
        return self.steps[number % len(self.steps)]

    def conditions(self):
        """{line: condition texts} of every breakpoint that may be."""
        found = {}
        for row in self.breaks_at_begin + [step[1] for step in self.steps if step[1]]:
            if row[3] is not None:
                found.setdefault(row[0], set()).add(row[3])
        return found


class Steered(Traced):
    """Follows a plan."""

    def __init__(self, program, tracer_session):
        Traced.__init__(self, program, tracer_session)
        self.plan = program.plan
        self.exception_mode = self.plan.exception_mode
        self.counts = None
        self.obey, self.pass_by = self.follow, self.tracer.stop

    def set_break(self, row):
        line, enabled, temporary, condition, ignore = row
        self.tracer.set_break(
            self.program.file_of(line), "", line, enabled, temporary, condition, ignore)

    def begin(self):
        self.tracer.set_use_idle_thread(self.plan.use_idle_thread)
        self.tracer.set_use_eval_frame(self.plan.use_eval_frame)
        for row in self.plan.breaks_at_begin:
            self.set_break(row)
        Traced.begin(self)

    def end(self):
        self.tracer.stop_trace()
        rows = []
        for path in (self.program.path, self.program.head.path):
            rows.extend(self.tracer.get_file_breaks(path))
        # (line, id, enabled, temporary, condition, ignore count, hits)
        self.counts = sorted((row[0], row[1], row[5], row[6]) for row in rows)
        Traced.end(self)
        self.tracer.set_use_idle_thread(0)

    def follow(self):
        command, new_break, cleared, length = self.plan.step(len(self.stops) - 1)
        if new_break is not None:
            self.set_break(new_break)
        if cleared is not None:
            self.tracer.clear_breaks(self.program.file_of(cleared), cleared)
        if command == "step_over_line_range":
            line = self.stops[-1][2] or 0
            self.tracer.step_over_line_range(line, line + length)
        else:
            getattr(self.tracer, command)()


class tModelBreak(object):
    def __init__(self, number, row):
        self.id = number
        self.line, self.enabled, self.temporary, self.condition, self.ignore = row
        self.hits = 0


class Model(object):
    """The rules of stopping, over a list of events; `observed` decides only what may be either.

    passed: numbers of the stops at which it has decided wrongly: there was another stop like that.
    """

    def __init__(self, plan, events, observed, first_id, passed=()):
        self.plan, self.events, self.observed = plan, events, observed
        self.passed = dict(passed)  # number of a stop -> how many events are no such stop
        self.decided = []  # numbers of the stops that might have been none
        self.stops = []
        self.breaks = []
        self.next_id = first_id
        self.stop_frame, self.return_frame = "any", None
        self.range = None
        for row in plan.breaks_at_begin:
            self.add_break(row)

    def add_break(self, row):
        self.breaks.insert(0, tModelBreak(self.next_id, row))
        self.next_id += 1

    def run(self):
        for event in self.events:
            getattr(self, "on_" + event.what)(event)

    def counts(self):
        return sorted((item.line, item.id, item.ignore, item.hits) for item in self.breaks)

    # --- the rules ---

    def breaks_here(self, event):
        stop = False
        for item in [item for item in self.breaks if item.line == event.line and item.enabled]:
            item.hits += 1
            if item.condition is not None and not (event.conditions or {}).get(item.condition, 2):
                continue
            if item.condition is not None and event.conditions[item.condition] == 2:
                stop = True
                continue
            if item.ignore > 0:
                item.ignore -= 1
                continue
            if item.temporary:
                self.breaks.remove(item)
            stop = True
        return stop

    def stops_by_step(self, event):
        if self.stop_frame is None:
            return False
        if self.stop_frame == "any":
            self.breaks_here(event)
            return True
        if event.frame == self.stop_frame and not self.is_in_range(event):
            self.breaks_here(event)
            return True
        return False

    def is_in_range(self, event):
        return self.range is not None and self.range[0] <= (event.line or 0) <= self.range[1]

    def on_call(self, event):
        pass

    def on_line(self, event):
        if self.stops_by_step(event) or self.breaks_here(event):
            self.stop("line", event, None)

    def on_return(self, event):
        if self.return_frame == event.frame:
            stops = not event.is_yield
        else:
            stops = self.stops_by_step(event)
        if stops:
            self.stop("return", event, event.value)

    def on_exception(self, event):
        by_step = self.stops_by_step(event)
        if not (by_step or self.plan.exception_mode == 1):
            return
        if not event.is_stop_iteration:
            self.stop("exception", event, event.value)
        elif self.stop_frame not in ("any", None):  # either, see above
            seen = self.observed[len(self.stops)] if len(self.stops) < len(self.observed) else None
            for kind, value in (("line", None), ("exception", event.value)):
                wanted = (kind, event.name, event.line, event.offset, value)
                if seen and without_lines([seen]) == without_lines([wanted]):
                    self.decide(kind, event, value)
                    break

    def decide(self, kind, event, value):
        number = len(self.stops)
        if self.passed.get(number, 0) > 0:
            self.passed[number] -= 1
            return
        self.decided.append(number)
        self.stop(kind, event, value)

    # --- commands ---

    def stop(self, kind, event, value):
        number = len(self.stops)
        self.stops.append((kind, event.name, event.line, event.offset, value))
        command, new_break, cleared, length = self.plan.step(number)
        if new_break is not None:
            self.add_break(new_break)
        if cleared is not None:
            self.breaks = [item for item in self.breaks if item.line != cleared]
        self.range = None
        if command == "stop":
            self.stop_frame = "any"
            return
        self.stop_frame, self.return_frame = {
            "step_into": ("any", None), "continue_run": (None, None),
            "step_out": (event.parent, event.frame),
        }.get(command, (event.frame, event.frame))
        if command == "step_over_line":
            self.range = (event.line or 0, event.line or 0)
        elif command == "step_over_line_range":
            line = self.line_shown(number) or 0
            self.range = (line, line + length)

    def line_shown(self, number):
        """Of a stop: the range begins at the line that the tracer was shown."""
        own = self.stops[number]
        seen = self.observed[number] if number < len(self.observed) else own
        return (seen if without_lines([seen]) == without_lines([own]) else own)[2]


# --- comparing ------------------------------------------------------------------------------


def without_lines(stops):
    """Without them where they depend on how the frame was watched."""
    if not kLinesDependOnWatching:
        return stops
    return [stop[:2] + (0,) + stop[3:] for stop in stops]


class Difference(Exception):
    pass


def number_of_same(some, others):
    """At the beginning of both."""
    number = 0
    while number < min(len(some), len(others)) and some[number] == others[number]:
        number += 1
    return number


def compare(what, found, expected, notes=()):
    """notes: one more item for each of expected, to be printed"""
    if found == expected:
        return
    number = number_of_same(found, expected)
    first = max(0, number - kShown)
    lines = ["{}: different from number {} on".format(what, number)]
    for place in range(first, number):
        note = notes[place] if place < len(notes) else ""
        lines.append("    both      {} {}".format(found[place], note))
    lines += ["    found     {}".format(item) for item in found[number:number + 4]] or [
        "    found nothing"]
    lines += ["    expected  {}".format(item) for item in expected[number:number + 4]]
    raise Difference("\n".join(lines))


def expected_stops(events):
    """Of stepping into everything."""
    for event in events:
        if event.what in ("line", "return") or (
                event.what == "exception" and not event.is_stop_iteration):
            yield (event.what, event.name, event.line, event.offset, event.value)


kLogged = re.compile(
    r"in call: name = (.+), filename = (.+), lineno = (-?\d+)"
    r"|entering dispatch_return; frame = (.*)")


class Logged(Traced):
    """Keeps what the tracer logs."""

    def __init__(self, program, tracer_session):
        Traced.__init__(self, program, tracer_session)
        self.log = tLog()

    def begin(self):
        self.tracer.set_dprintf_mask(kCore)
        self.tracer.set_dprintf_file(self.log, -1, 0)
        Traced.begin(self)

    def end(self):
        Traced.end(self)
        self.tracer.set_dprintf_file(None, -1, 0)

    def calls_and_returns(self):
        """As ("call", name, line) and ("return",)."""
        found = []
        for text in self.log.lines:
            if not text.startswith(("in call", "entering dispatch_return")):
                continue
            name, path, line, frame = kLogged.search(text).groups()
            if name is not None and path in self.files:
                found.append(("call", name, int(line)))
            elif frame is not None and any(item in frame for item in self.files):
                found.append(("return",))
        return found


class tLog(object):
    """Runs no Python: another thread that came in between could not write,
    for one writes already."""

    flush = str

    def __init__(self):
        self.lines = []
        self.write = self.lines.append


def lines_of_one(code):
    import dis
    return [line for _, line in dis.findlinestarts(code) if line is not None]


def searchable_lines(code):
    """Of it and of all within it, without those of code objects in which they go back (see
    above)."""
    found = set()
    pending = [code]
    while pending:
        code = pending.pop()
        lines = lines_of_one(code)
        if not kReadsUnsigned or lines == sorted(lines):
            found.update(lines)
        pending.extend([item for item in code.co_consts if hasattr(item, "co_code")])
    return sorted(found)


kClosers = ("shut", "ashut", "drive")


def closes_by_chance(events):
    """Whether a generator is closed by anybody but the functions for that, or in passing."""
    names, closed = {}, set()
    for event in events:
        what, frame, parent, name = event[:4]
        names[frame] = name
        if what == "exception" and event[6] == "GeneratorExit" and name != "<genexpr>":
            if names.get(parent) not in kClosers and parent not in closed:
                return True
            closed.add(frame)
    return False


def number_of_closed(rows):
    """Of generators; rows are events or stops."""
    return sum(["GeneratorExit" in row and "<genexpr>" not in row for row in rows])


def run_without_tracer(programs):
    """For each: (output, output under sys.settrace, events, whether it was too long for these)."""
    found = []
    for program in programs:
        alone = Alone(program).run()
        plain = Settraced(program, program.plan.conditions())
        output = plain.run()
        found.append((alone, output, plain.events, plain.is_too_long()))
    return found


_modules = []


def forget_modules():
    """Whenever tracing begins the tracer looks at all modules, and there are hundreds."""
    _modules.append(dict(sys.modules))  # on 2.7 a module's variables end with it
    for name in list(sys.modules):
        if name not in kKeptModules:
            del sys.modules[name]


def run_with_tracer(programs, expected):
    """[counts, [[seed, difference]]]"""
    forget_modules()
    session = tDiffSession()
    counts, differences = collections.Counter(), []
    for program, row in zip(programs, expected):
        counts["programs"] += 1
        try:
            examine(program, session, counts, *row)
        except Difference as why:
            differences.append([program.seed, str(why)])
    return [dict(counts), differences]


def examine(program, session, counts, alone, output, events, is_too_long):
    """Raises Difference; adds up what was done."""
    if is_too_long:
        counts["too long"] += 1
        return
    into = Logged(program, session)
    output_of_into = into.run()
    compare("problems of step_into", into.problems, [])
    compare("output of step_into", output_of_into.splitlines(), alone.splitlines())
    closed = [number_of_closed(events), number_of_closed(into.stops)]
    by_chance = closes_by_chance(events) or (closed[0] != closed[1] and kSettraceKeepsLocals)
    if by_chance and kSettraceKeepsLocals:
        return
    events = [tEvent(*event) for event in events]
    compare("output under sys.settrace", output.splitlines(), alone.splitlines())
    compare("stops of step_into", into.stops, list(expected_stops(events)))
    compare("calls and returns", into.calls_and_returns(), [
        ("call", event.name, event.line) if event.what == "call" else ("return",)
        for event in events if event.what in ("call", "return")])
    counts["compared"] += 1
    counts["events"] += len(events)
    counts["with threads"] += program.has_threads
    if not by_chance and not program.has_threads:  # each thread has steps of its own
        check_commands(program, session, alone, events, counts)


kRevisions = 20


def run_model(plan, events, observed, first_id):
    """The model that tells the stops observed, if there is one."""
    passed = collections.Counter()
    for _ in range(kRevisions):
        model = Model(plan, events, observed, first_id, passed)
        model.run()
        if without_lines(model.stops) == without_lines(observed) or not model.decided:
            break
        same = number_of_same(without_lines(model.stops), without_lines(observed))
        passed[max([number for number in model.decided if number <= same] or model.decided)] += 1
    return model


def check_commands(program, session, alone, events, counts):
    first_id = session.tracer.set_break(program.path, "", 1, 0, 0, None, 0) + 1
    session.tracer.clear_all_breaks()
    steered = Steered(program, session)
    output = steered.run()
    plan = program.plan
    model = run_model(plan, events, steered.stops, first_id)
    compare("problems of random commands", steered.problems, [])
    compare("stops of random commands", without_lines(steered.stops), without_lines(model.stops),
            [plan.step(number) for number in range(len(model.stops))])
    compare("output of random commands", output.splitlines(), alone.splitlines())
    if not kLinesDependOnWatching or steered.stops == model.stops:
        compare("breakpoints (line, id, ignored, hits)", steered.counts, model.counts())
    counts["steered"] += 1
    counts["random stops"] += len(model.stops)
    counts["hits"] += sum([item.hits for item in model.breaks])


# --- processes ------------------------------------------------------------------------------


class InChild(BaseException):
    """In a child: what to do there, at the bottom of the stack (all of it is logged at every
    stop)."""


def work_in_child(out, work, arguments):
    signal.alarm(kSeconds)
    with io.open(out, "wb") as stream:
        stream.write(marshal.dumps(work(*arguments)))
    return 0


class Ended(Exception):
    """A child that did not get through."""


def in_child(work, *arguments):
    """What work(*arguments) says in a child process, which ends then; it must suit marshal."""
    sys.stdout.flush()
    result, out = os.pipe()
    child = os.fork()
    if child == 0:
        os.close(result)
        raise InChild(out, work, arguments)
    os.close(out)
    with io.open(result, "rb") as stream:
        data = stream.read()
    status = os.waitpid(child, 0)[1]
    if status != 0:
        how = "signal {}".format(status & 127) if status & 127 else "status {}".format(status >> 8)
        raise Ended("{} ended with {}".format(work.__name__, how))
    return marshal.loads(data)


def run_batch(programs):
    return in_child(run_with_tracer, programs, in_child(run_without_tracer, programs))


def check_batch(programs):
    """[counts, [[seed, difference]]]"""
    try:
        counts, differences = run_batch(programs)
    except Ended as why:
        return check_one_by_one(programs, "in a batch: {}".format(why))
    return counts, [[seed, tell_of_repetition(programs, seed, text)] for seed, text in differences]


def check_one_by_one(programs, how):
    all_counts, all_differences = collections.Counter(), []
    for program in programs:
        try:
            counts, differences = run_batch([program])
        except Ended as why:
            counts, differences = {"programs": 1}, [[program.seed, str(why)]]
        all_counts.update(counts)
        all_differences.extend(differences)
    return all_counts, all_differences or [[programs[0].seed, how + ", and no program of it alone"]]


def tell_of_repetition(programs, seed, text):
    program = [item for item in programs if item.seed == seed]
    try:
        is_repeated = bool(run_batch(program)[1])
    except Ended:
        is_repeated = True
    if is_repeated:
        return text
    return text + "\n(not alone, but in a batch that begins with {})".format(programs[0].seed)


def be_quiet():
    """Of generators that refuse to end the interpreter says so,
    and may run Python code for that."""
    if hasattr(sys, "unraisablehook"):
        sys.unraisablehook = collections.deque(maxlen=0).append
    else:
        sys.stderr = io.BytesIO() if sys.version_info < (3,) else io.StringIO()


def print_difference(program, text):
    lines = ["{:4} {}".format(number, line)
             for number, line in enumerate(program.text.splitlines(), 1) if line]
    print("{}\nseed {} on {}; the program is\n{}\n".format(
        text, program.seed, sys.version.split()[0], "\n".join(lines)))


def main(argv):
    first, count = int(argv[0]), int(argv[1])
    warnings.simplefilter("ignore")
    gc.disable()
    be_quiet()
    import_tracer()  # here, once for all children
    counts, number_of_differences = collections.Counter(), 0
    folder = tempfile.mkdtemp(prefix="tdbg-differential-")
    try:
        head = Head(folder)
        for begin in range(first, first + count, kBatch):
            programs = [Program(seed, head)
                        for seed in range(begin, min(begin + kBatch, first + count))]
            batch_counts, differences = check_batch(programs)
            counts.update(batch_counts)
            number_of_differences += len(differences)
            for seed, text in differences:
                print_difference(programs[seed - begin], text)
            for program in programs:
                os.unlink(program.path)
    except Exception:
        shutil.rmtree(folder)
        raise
    shutil.rmtree(folder)
    print("{} {}".format(
        "{} programs differ;".format(number_of_differences) if number_of_differences else "OK",
        ", ".join(["{} {}".format(counts[key], key) for key in sorted(counts)])))
    return 1 if number_of_differences else 0


if __name__ == "__main__":
    try:
        try:
            status = main(sys.argv[1:])
        except InChild as child:
            todo = child.args
            child = None
        else:
            todo = None
        if sys.version_info < (3,):
            sys.exc_clear()
        if todo:
            status = work_in_child(*todo)
    except BaseException:
        traceback.print_exc(file=sys.stdout)
        status = 2
    sys.stdout.flush()
    os._exit(status)
