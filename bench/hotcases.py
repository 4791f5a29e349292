"""A hot function, with breakpoints here and there. Seconds for each line that is run."""
from __future__ import absolute_import, division, print_function

from children import cpu_seconds
from debuggers import Bdb, BdbMonitoring, Empty, EmptyLinesOff, Tracer, TracerIdle, Untraced
from program import HOT_LINE, LINES_A_TURN, NEVER_LINE, OTHER_LINE

TURNS = 100000
REPEATS = 3


def time_hot(program, turns):
    """After a call that lets the debugger and the interpreter get to know the function."""
    program.hot(turns // 20)
    times = []
    for _ in range(REPEATS):
        began = cpu_seconds()
        program.hot(turns)
        times.append(cpu_seconds() - began)
    return min(times) / (turns * LINES_A_TURN)


def others(count):
    return lambda program: [place + (None,) for place in program.other_places(count)]


# Name of the case, and the (file, line, condition) of its breakpoints.
PLACES = [
    ('none', lambda program: []),
    ('others 1', others(1)),
    ('others 100', others(100)),
    ('others 10000', others(10000)),
    ('same file', lambda program: [(program.hot_path, OTHER_LINE, None)]),
    ('elsewhere', lambda program: [(program.hot_path, NEVER_LINE, None)]),
    ('elsewhere, others', lambda program: others(10000)(program) + [
        (program.hot_path, NEVER_LINE, None)]),
    ('condition', lambda program: [(program.hot_path, HOT_LINE, 'i == -1')]),
]


def make_case(make_debugger, places, turns):
    def case(program):
        debugger = make_debugger()
        if not debugger.start():
            return None
        for path, line, cond in places(program):
            debugger.set_break(path, line, cond)
        return debugger.run(time_hot, program, turns // program.haste)
    return case


def make_cases():
    cases = [('untraced', make_case(Untraced, others(0), TURNS)),
             ('empty', make_case(Empty, others(0), TURNS)),
             ('empty-off', make_case(EmptyLinesOff, others(0), TURNS))]
    for name, places in PLACES:
        cases.append((name, make_case(Tracer, places, TURNS)))
        cases.append(('idle ' + name, make_case(TracerIdle, places, TURNS)))
        cases.append(('bdb ' + name, make_case(Bdb, places, TURNS // 10)))
        cases.append(('bdb-mon ' + name, make_case(BdbMonitoring, places, TURNS // 10)))
    return cases


def counting_cases(counts):
    """The hot function with that many breakpoints in other files, for the chart."""
    cases = [('untraced', make_case(Untraced, others(0), TURNS))]
    for count in counts:
        cases.append(('tracer %d' % count, make_case(Tracer, others(count), TURNS)))
        cases.append(('bdb %d' % count, make_case(Bdb, others(count), TURNS)))
    return cases
