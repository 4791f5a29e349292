"""Random programs, and the ways to run one: alone, under a trace function in Python, and under the
tracer.  Only differential.py uses this; what it is for is told there.
"""
from __future__ import absolute_import, division, print_function

import functools
import io
import marshal
import os
import re
import sys
import types

try:
    import _thread as thread
except ImportError:
    import thread

from support import randomprograms
from support.diffmodel import Plan
from support.tracing import Session

# From 3.11 on the offset of a call depends on how the interpreter has specialised it.
kOffsetsAreStable = sys.version_info < (3, 11)
kCore = 4  # the log's category
kMaxEvents = 3000
kReadsUnsigned = (3,) <= sys.version_info < (3, 8)
kSeesStreamsYield = sys.version_info[:2] != (3, 11)
kTextFile = "<string>"  # of a text that is given to exec

kIsStream = 0x200  # flag of asynchronous generators
kCanSuspend = 0x20 | 0x80 | kIsStream  # and of generators, coroutines


# --- programs ---


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


# --- without a tracer ---


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


def describe(value):
    """Of a returned value: without addresses."""
    if value is None or isinstance(value, (bool, int, str)):
        return repr(value)
    if isinstance(value, (tuple, list)):
        return "[" + ", ".join([describe(item) for item in value]) + "]"
    return type(value).__name__


def is_yielded(code, value):
    if not code.co_flags & kCanSuspend:
        return False
    if code.co_name == "<genexpr>":
        return value is not None
    return isinstance(value, tuple) or type(value).__name__ == "async_generator_wrapped_value"


_compiled = {}


def evaluate(text, frame):
    """1, 0, or 2 where it fails."""
    code = _compiled.get(text) or _compiled.setdefault(text, compile(text, "<condition>", "eval"))
    try:
        return 1 if eval(code, frame.f_globals, frame.f_locals) else 0
    except Exception:
        return 2


# --- under the tracer ---


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
