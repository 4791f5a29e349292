"""Random programs under the tracer against what sys.settrace sees of them, and against a model.

  differential.py SEED COUNT

Each program (randomprograms.py) runs four times: alone, under a trace function in Python, under the
tracer with step_into at every stop, and under the tracer with random commands and breakpoints. Its
output is the same each time. The stops of the third run are the line and return events of the second
one and its exceptions; the calls and returns that the tracer logs are its call and return events. Of
the fourth run a model, which reads the events of the second one, tells every stop beforehand, and the
hits of every breakpoint.

The last line is OK and what was done. A difference ends the run with status 1; the program, its seed
and the events around the difference are printed, and "differential.py SEED 1" shows it again.

What differs by version and is no fault:
- StopIteration does not stop where nothing is stepped over (all versions send the event from 3.6 on);
  where something is, it may be shown as a line: until 3.10 whether the wish to see it has survived
  depends on which frames sent line events in between, so the model allows both.
- Until 3.9 a frame that is left by an exception, and one whose `with` has ended by one, may show
  another line than it shows to a trace function that has watched every line of it: stops are
  compared by the offset of their instruction.
- Until 3.12 a trace function in Python (and anybody who looks at the locals of a function) keeps what
  local variables hold alive until the next look, and a tracer keeps the frames of a step until the
  next command. So where a generator is closed because nothing holds it any more, the time of that
  differs: of such programs only the output alone and under the tracer is compared.
- Until 3.7 lines whose code follows that of a later line are not found when a code object is searched
  for breakpoints (increments are read as unsigned): frames with such lines are not asked about.
"""
from __future__ import absolute_import, division, print_function

import collections
import gc
import io
import os
import random
import re
import sys
import tempfile
import traceback
import warnings

_tests = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
if _tests not in sys.path:
    sys.path.insert(0, _tests)
from support import randomprograms  # noqa: E402
from support.tracing import Session  # noqa: E402

# From 3.11 on the offset of a call depends on how the interpreter has specialised it.
kOffsetsAreStable = sys.version_info < (3, 11)
_own = (lambda: None).__code__.co_filename
kCore = 4  # the log's category
kShown = 12  # events around a difference
kMaxEvents = 6000
kSettraceKeepsLocals = sys.version_info < (3, 13)
kLinesDependOnWatching = sys.version_info < (3, 10)
kReadsUnsigned = (3,) <= sys.version_info < (3, 8)

# What happened: one event of a frame. `frame` and `parent` are numbers of activations; 0 is outside.
tEvent = collections.namedtuple(
    "tEvent", "what frame parent name line offset value is_stop_iteration is_yield conditions")


def offset_of(frame):
    return frame.f_lasti if kOffsetsAreStable else 0


def describe(value):
    """Of a returned value: without addresses."""
    if value is None or isinstance(value, (bool, int, str)):
        return repr(value)
    if isinstance(value, (tuple, list)):
        return "[" + ", ".join(describe(item) for item in value) + "]"
    return type(value).__name__


kCanSuspend = 0x20 | 0x80 | 0x200  # flags of generators, coroutines, asynchronous generators


def is_yielded(frame, value):
    if not frame.f_code.co_flags & kCanSuspend:
        return False
    if frame.f_code.co_name == "<genexpr>":
        return value is not None
    return isinstance(value, tuple) or type(value).__name__ == "async_generator_wrapped_value"


class Program(object):
    def __init__(self, seed, folder):
        self.seed = seed
        self.text = randomprograms.make_program(seed)
        self.path = os.path.join(folder, "program_{}.py".format(seed))
        with io.open(self.path, "wb") as out:
            out.write(self.text.encode("ascii"))

    def compile(self):
        """New code objects each time: interpreters note in them how they were run."""
        return compile(self.text, self.path, "exec", 0, True)


class Alone(object):
    """Runs a program as it is."""

    def __init__(self, program):
        self.program, self.path = program, program.path
        self.output = []
        self.globals = {"__name__": "program", "__file__": self.path, "OUT": self.tell}

    def tell(self, *values):
        self.output.append(describe(values))

    def run(self):
        code = self.program.compile()
        self.begin()
        try:
            try:
                exec(code, self.globals)
            except Exception as why:
                self.output.append("ended by " + type(why).__name__)
                why = None
        finally:
            self.end()
        told = list(self.output)
        if sys.version_info < (3,):
            sys.exc_clear()
        self.globals.clear()
        gc.collect()
        return told

    def begin(self):
        pass

    end = begin


class Settraced(Alone):
    """conditions: {line: [texts]}, evaluated at every event on these lines."""

    def __init__(self, program, conditions):
        Alone.__init__(self, program)
        self.conditions = conditions
        self.events = []
        self.numbers = {}  # id of a frame that has begun and not ended -> number
        self.first = {}    # code -> f_lasti of its beginning
        self.activations = 0
        self.too_long = False

    def begin(self):
        sys.settrace(self.trace)

    def end(self):
        sys.settrace(None)

    def trace(self, frame, what, arg):
        if frame.f_code.co_filename != self.path:
            return None
        if len(self.events) > kMaxEvents:
            self.too_long = True
            return None
        number = self.number_of(frame, what)
        parent = self.numbers.get(id(frame.f_back), 0)
        is_yield = what == "return" and is_yielded(frame, arg)
        value, is_stop_iteration = None, False
        if what == "return":
            value = describe(arg)
            if not is_yield:
                self.numbers.pop(id(frame), None)
        elif what == "exception":
            value = arg[0].__name__
            is_stop_iteration = issubclass(arg[0], StopIteration)
        self.events.append(tEvent(
            what, number, parent, frame.f_code.co_name, frame.f_lineno, offset_of(frame), value,
            is_stop_iteration, is_yield, self.answers(frame)))
        return self.trace

    def number_of(self, frame, what):
        """A resumed generator keeps its number; the address alone says little, it is used again."""
        key = id(frame)
        if what == "call":
            first = self.first.setdefault(frame.f_code, frame.f_lasti)
            if frame.f_lasti == first or key not in self.numbers:
                self.activations += 1
                self.numbers[key] = self.activations
        return self.numbers.get(key, -1)

    def answers(self, frame):
        texts = self.conditions.get(frame.f_lineno)
        if not texts:
            return None
        return dict((text, evaluate(text, frame)) for text in texts)


def evaluate(text, frame):
    """1, 0, or 2 where it fails."""
    try:
        return 1 if eval(text, frame.f_globals, frame.f_locals) else 0
    except Exception:
        return 2


class Traced(Alone):
    """Steps into everything, or does what choose(number of the stop) says."""

    def __init__(self, program, tracer_session, exception_mode=0):
        Alone.__init__(self, program)
        self.session = tracer_session
        self.tracer = tracer_session.tracer
        self.exception_mode = exception_mode
        self.stops, self.problems = [], []
        self.has_ended = False

    def begin(self):
        self.session.handler = self
        self.tracer.set_exception_mode(self.exception_mode)
        self.tracer.start_trace()
        self.tracer.step_into()

    def end(self):
        self.has_ended = True
        self.tracer.stop_trace()
        self.tracer.clear_all_breaks()
        self.tracer.get_changed_bps_lists()
        self.session.handler = None

    def on_stop(self, what, frame, value):
        try:
            if frame.f_code.co_filename != self.path:
                if frame.f_code.co_filename != _own:
                    self.problems.append("stop in " + frame.f_code.co_filename)
                # In tell(): stop() is the one command that leaves the return frame as it is.
                self.tracer.continue_run() if self.has_ended else self.tracer.stop()
                return
            self.stops.append((what, frame.f_code.co_name, frame.f_lineno, offset_of(frame), value))
            self.command(len(self.stops) - 1)
        except Exception as why:
            self.problems.append("at a stop: {!r}".format(why))

    def command(self, number):
        self.tracer.step_into()


class tDiffSession(Session):
    handler = None

    def line_cb(self, frame):
        if self.handler is not None:
            self.handler.on_stop("line", frame, None)

    def return_cb(self, frame, value):
        if self.handler is not None:
            self.handler.on_stop("return", frame, describe(value))

    def exception_cb(self, frame, info):
        if self.handler is not None:
            self.handler.on_stop("exception", frame, info[0].__name__)


# --- random commands and breakpoints -----------------------------------------------------------

kConditions = [None, None, "TICK[0] % 2", "x > 3", "d == 2", "a and x", "1 // 0", "TICK[0] > 5"]
kCommands = ["step_into", "step_over", "step_over", "step_over_line", "step_over_line_range",
             "step_out", "continue_run", "continue_run", "stop"]


class Plan(object):
    """What is done at each stop, by its number: the same for the tracer and for the model."""

    def __init__(self, seed, lines):
        self.random = random.Random(seed).random
        self.lines = lines
        self.breaks_at_begin = [self.new_break() for _ in range(self.below(7))]
        self.exception_mode = self.below(2)
        self.use_idle_thread, self.use_eval_frame = self.below(2), self.below(2)
        self.steps = [self.new_step() for _ in range(400)]

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

    def __init__(self, program, tracer_session, plan):
        Traced.__init__(self, program, tracer_session, plan.exception_mode)
        self.plan = plan
        self.counts = None

    def set_break(self, row):
        line, enabled, temporary, condition, ignore = row
        self.tracer.set_break(self.path, "", line, enabled, temporary, condition, ignore)

    def begin(self):
        self.tracer.set_use_idle_thread(self.plan.use_idle_thread)
        self.tracer.set_use_eval_frame(self.plan.use_eval_frame)
        for row in self.plan.breaks_at_begin:
            self.set_break(row)
        Traced.begin(self)

    def end(self):
        rows = self.tracer.get_file_breaks(self.path)
        # (line, id, enabled, temporary, condition, ignore count, hits)
        self.counts = sorted((row[0], row[1], row[5], row[6]) for row in rows)
        Traced.end(self)
        self.tracer.set_use_idle_thread(0)

    def command(self, number):
        command, new_break, cleared, length = self.plan.step(number)
        if new_break is not None:
            self.set_break(new_break)
        if cleared is not None:
            self.tracer.clear_breaks(self.path, cleared)
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
    """The rules of stopping, over a list of events; `observed` decides only what may be either."""

    def __init__(self, plan, events, observed, first_id):
        self.plan, self.events, self.observed = plan, events, observed
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
                if seen == (kind, event.name, event.line, event.offset, value):
                    self.stop(kind, event, value)
                    break

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
            self.range = (event.line or 0, (event.line or 0) + length)


# --- comparing ------------------------------------------------------------------------------


def without_lines(stops):
    """Without them where they depend on how the frame was watched."""
    if not kLinesDependOnWatching:
        return stops
    return [stop[:2] + (0,) + stop[3:] for stop in stops]


class Difference(Exception):
    pass


def compare(what, found, expected, notes=()):
    """notes: one more item for each of expected, to be printed"""
    if found == expected:
        return
    number = 0
    while number < min(len(found), len(expected)) and found[number] == expected[number]:
        number += 1
    first = max(0, number - kShown)
    lines = ["{}: different from number {} on".format(what, number)]
    for place in range(first, number):
        note = notes[place] if place < len(notes) else ""
        lines.append("    both      {} {}".format(found[place], note))
    lines += ["    found     {}".format(item) for item in found[number:number + 4]] or ["    found nothing"]
    lines += ["    expected  {}".format(item) for item in expected[number:number + 4]]
    raise Difference("\n".join(lines))


def expected_stops(events):
    """Of stepping into everything."""
    for event in events:
        if event.what in ("line", "return") or (
                event.what == "exception" and not event.is_stop_iteration):
            yield (event.what, event.name, event.line, event.offset, event.value)


kLogged = re.compile(
    r"in call: name = (.+), filename = (\S+), lineno = (-?\d+)|entering dispatch_return; frame = (.*)")


class tLog(object):
    """What the tracer logs of calls and returns in one file, as ("call", name, line) and ("return",)."""

    def __init__(self, tracer, path):
        self.tracer, self.path = tracer, path
        self.lines = []

    def write(self, text):
        self.lines.append(text)

    def flush(self):
        pass

    def begin(self):
        self.tracer.set_dprintf_mask(kCore)
        self.tracer.set_dprintf_file(self, -1, 0)

    def end(self):
        self.tracer.set_dprintf_file(None, -1, 0)

    def calls_and_returns(self):
        found = []
        for text in self.lines:
            match = kLogged.search(text)
            if match is None:
                continue
            name, path, line, frame = match.groups()
            if name is not None and path == self.path:
                found.append(("call", name, int(line)))
            elif frame is not None and self.path in frame:
                found.append(("return",))
        return found


class Logged(Traced):
    def __init__(self, program, tracer_session):
        Traced.__init__(self, program, tracer_session)
        self.log = tLog(self.tracer, self.path)

    def begin(self):
        self.log.begin()
        Traced.begin(self)

    def end(self):
        Traced.end(self)
        self.log.end()


def lines_of(code):
    """Numbers of lines with code, of it and of all within it."""
    found = set()
    pending = [code]
    while pending:
        code = pending.pop()
        found.update(lines_of_one(code))
        pending.extend(item for item in code.co_consts if hasattr(item, "co_code"))
    return found


def lines_of_one(code):
    import dis
    return [line for _, line in dis.findlinestarts(code) if line is not None]


def searchable_lines(code):
    """Without those of code objects in which line numbers go back (see above)."""
    found = set()
    pending = [code]
    while pending:
        code = pending.pop()
        lines = lines_of_one(code)
        if not kReadsUnsigned or lines == sorted(lines):
            found.update(lines)
        pending.extend(item for item in code.co_consts if hasattr(item, "co_code"))
    return sorted(found)


def closes_by_chance(events):
    """Whether a generator is closed by anybody but `shut`, the function for that, or in passing."""
    names, shut = {}, set()
    for event in events:
        names[event.frame] = event.name
        if event.what == "exception" and event.value == "GeneratorExit" and event.name != "<genexpr>":
            if names.get(event.parent) != "shut" and event.parent not in shut:
                return True
            shut.add(event.frame)
    return False


def number_of_closed(rows):
    """Of generators; rows are events or stops."""
    return sum("GeneratorExit" in row and "<genexpr>" not in row for row in rows)


def examine(seed, folder, session, counts):
    """Raises Difference; adds up what was done."""
    program = Program(seed, folder)
    alone = Alone(program).run()
    plain = Settraced(program, {})
    output = plain.run()
    counts["programs"] += 1
    if plain.too_long:
        counts["too long"] += 1
        return
    into = Logged(program, session)
    output_of_into = into.run()
    compare("problems of step_into", into.problems, [])
    compare("output of step_into", output_of_into, alone)
    closed = [number_of_closed(plain.events), number_of_closed(into.stops)]
    by_chance = closes_by_chance(plain.events) or (closed[0] != closed[1] and kSettraceKeepsLocals)
    is_comparable = not (by_chance and kSettraceKeepsLocals)
    if is_comparable:
        compare("output under sys.settrace", output, alone)
        compare("stops of step_into", into.stops, list(expected_stops(plain.events)))
        compare("calls and returns", into.log.calls_and_returns(), [
            ("call", event.name, event.line) if event.what == "call" else ("return",)
            for event in plain.events if event.what in ("call", "return")])
    counts["compared"] += is_comparable
    counts["events"] += len(plain.events)
    if not by_chance:
        check_commands(program, session, alone, plain.events, counts)
    os.unlink(program.path)


def check_commands(program, session, alone, events, counts):
    plan = Plan(program.seed * 7 + 1, searchable_lines(program.compile()))
    asked = Settraced(program, plan.conditions())
    asked.run()
    compare("events when conditions are evaluated", [event[:-1] for event in asked.events],
            [event[:-1] for event in events])
    first_id = session.tracer.set_break(program.path, "", 1, 0, 0, None, 0) + 1
    session.tracer.clear_all_breaks()
    steered = Steered(program, session, plan)
    output = steered.run()
    model = Model(plan, asked.events, steered.stops, first_id)
    model.run()
    compare("problems of random commands", steered.problems, [])
    compare("stops of random commands", without_lines(steered.stops), without_lines(model.stops),
            [plan.step(number) for number in range(len(model.stops))])
    compare("output of random commands", output, alone)
    if not kLinesDependOnWatching or steered.stops == model.stops:
        compare("breakpoints (line, id, ignored, hits)", steered.counts, model.counts())
    counts["steered"] += 1
    counts["random stops"] += len(model.stops)
    counts["hits"] += sum(item.hits for item in model.breaks)


def be_quiet():
    """Of generators that refuse to end the interpreter says so, and may run Python code for that."""
    if hasattr(sys, "unraisablehook"):
        sys.unraisablehook = collections.deque(maxlen=0).append
    else:
        sys.stderr = io.BytesIO() if sys.version_info < (3,) else io.StringIO()


def main(argv):
    first, count = int(argv[0]), int(argv[1])
    warnings.simplefilter("ignore")
    gc.disable()
    session = tDiffSession()
    be_quiet()
    session.tracer.set_autoquit(0)
    counts = collections.Counter()
    folder = tempfile.mkdtemp(prefix="tdbg-differential-")
    for seed in range(first, first + count):
        try:
            examine(seed, folder, session, counts)
        except Difference as why:
            with io.open(os.path.join(folder, "program_{}.py".format(seed))) as source:
                numbered = "".join("{:4} {}".format(*row) for row in enumerate(source, 1))
            print("{}\nseed {} on {}; the program is\n{}".format(
                why, seed, sys.version.split()[0], numbered))
            return 1
        finally:
            for name in os.listdir(folder):
                os.unlink(os.path.join(folder, name))
    os.rmdir(folder)
    print("OK " + ", ".join("{} {}".format(counts[key], key) for key in sorted(counts)))
    return 0


if __name__ == "__main__":
    try:
        status = main(sys.argv[1:])
    except BaseException:
        traceback.print_exc(file=sys.stdout)
        status = 2
    sys.stdout.flush()
    os._exit(status)
