"""Random programs under the tracer against what sys.settrace sees of them, and against a model.

  differential.py SEED COUNT

Each program (randomprograms.py) runs four times (diffruns.py): alone, under a trace function in
Python, under the tracer with step_into at every stop, and under the tracer with random commands and
breakpoints. Its output is the same each time. The stops of the third run are the line and return
events of the second one and its exceptions; the calls and returns that the tracer logs are its call
and return events. Of the fourth run a model (diffmodel.py), which reads the events of the second
one, tells every stop beforehand, and the hits of every breakpoint.

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
  compared by the offset of their instruction, and from such a line on a range is what is seen.
- Until 3.12 a trace function in Python (and anybody who looks at the locals of a function) keeps
  what local variables hold alive until the next look, and a tracer keeps the frames of a step until
  the next command. So where a generator is closed because nothing holds it any more, the time of
  that differs: of such programs only the output alone and under the tracer is compared. They are
  few.
- On 3.12 (3.12.1 at least) whoever looks at the variables of a class body while a comprehension
  runs in it sets those of the comprehension to None. The trace function does, for conditions: such
  programs are compared alone and under the tracer.
- On 3.11 nothing tells that an asynchronous generator is suspended: where it is stepped out of, it
  stops when it yields.
- Until 3.7 lines whose code follows that of a later line are not found when a code object is
  searched for breakpoints (increments are read as unsigned): frames with such lines are not asked
  about.
"""
from __future__ import absolute_import, division, print_function

import collections
import gc
import io
import marshal
import os
import shutil
import signal
import sys
import tempfile
import traceback
import warnings

_tests = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
if _tests not in sys.path:
    sys.path.insert(0, _tests)
from support.diffmodel import (  # noqa: E402
    kLinesDependOnWatching, number_of_same, run_model, tEvent, without_lines)
from support.diffruns import (  # noqa: E402
    Alone, Head, Logged, Program, Settraced, Steered, tDiffSession)
from support.library import import_tracer  # noqa: E402

kShown = 12  # events around a difference
kBatch = 50
kSeconds = 100  # of a batch: what takes longer hangs
kLooksBreakClasses = sys.version_info[:2] == (3, 12)
kSettraceKeepsLocals = sys.version_info < (3, 13)
kKeptModules = frozenset([
    "__main__", "__builtin__", "builtins", "sys", "exceptions", "math", "operator",
    "_operator", "re", "io", "codecs", "encodings", "warnings", "time", "string", "_string",
    "tdbgtracer"])
kClosers = ("shut", "ashut", "drive")


# --- comparing ------------------------------------------------------------------------------


class Difference(Exception):
    pass


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
    if kLooksBreakClasses and output != alone:
        counts["broken by sys.settrace"] += 1
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
