#!/usr/bin/env python3
"""What breakpoints cost, in the program and when they are set; beside it what bdb's cost.

  TDBG_LIB_DIR=build/64 python3.11 bench/breakpoints.py [ROUNDS]

Runs inside the measured interpreter (2.7 and later). Every case of every round is a forked child,
the cases interleaved, and the least processor time of each counts. Of the hot function:
  elsewhere       an enabled breakpoint in it, on a line that is never run
  condition       a condition that is never true, on a line that is run in each turn
  10000 others    ten thousand breakpoints in a thousand other files
  idle            the same with the idle thread (3.7 and later)
  bdb             the standard library's debugger core with the same breakpoint
"""
from __future__ import absolute_import, division, print_function

import bdb
import os
import shutil
import sys
import tempfile
import traceback

os.environ.setdefault('TDBG_EMPTY_LIB', '')
import variants  # noqa: E402

try:
    from time import process_time as cpu_seconds
except ImportError:
    from time import clock as cpu_seconds

TURNS = 100000
LINES_A_TURN = 3.05  # line events: three, and every twentieth time a fourth
FUNCTIONS = 2000
FILES, LINES = 1000, 10
HOT_SOURCE = '''
def hot(turns):
    total = 0
    for i in range(turns):
        total += i
        if total > 1000000:
            total -= 1000000
    if turns < 0:
        total = -1
    return total
'''
HOT_LINE, NEVER_LINE = 5, 9


class Program(object):
    """The hot function in a file of its own, and a file of many small functions."""

    def __init__(self, folder):
        self.path = os.path.join(folder, 'hot.py')
        self.hot = self.load(self.path, HOT_SOURCE)['hot']
        self.many_path = os.path.join(folder, 'many.py')
        source = 'def stop():\n    return 0\n' + ''.join(
            'def f%d():\n    a = 1\n    b = 2\n    return a + b\n' % i for i in range(FUNCTIONS))
        space = self.load(self.many_path, source)
        self.many = [space['f%d' % i] for i in range(FUNCTIONS)]

    def load(self, path, source):
        with open(path, 'w') as out:
            out.write(source)
        space = {'__name__': 'program', '__file__': path}
        exec(compile(source, path, 'exec'), space)
        return space


def start(idle_thread=False):
    """The tracer, started; None where it has no idle thread but should."""
    if not variants.start_tracer(idle_thread):
        return None
    import tdbgtracer
    tdbgtracer.continue_run()
    return tdbgtracer


def time_hot(program):
    began = cpu_seconds()
    program.hot(TURNS)
    return cpu_seconds() - began


def untraced(program):
    return time_hot(program)


def traced(program):
    return time_hot(program) if start() else None


def others(program, idle_thread=False):
    tracer = start(idle_thread)
    if tracer is None:
        return None
    for i in range(FILES):
        for line in range(1, LINES + 1):
            tracer.set_break('/elsewhere/file%d.py' % i, '', line, 1, 0, None, 0)
    return time_hot(program)


def elsewhere(program, idle_thread=False):
    tracer = start(idle_thread)
    if tracer is None:
        return None
    tracer.set_break(program.path, '', NEVER_LINE, 1, 0, None, 0)
    return time_hot(program)


def condition(program, idle_thread=False):
    tracer = start(idle_thread)
    if tracer is None:
        return None
    tracer.set_break(program.path, '', HOT_LINE, 1, 0, 'i == -1', 0)
    return time_hot(program)


class RunningBdb(bdb.Bdb):
    def user_line(self, frame):
        self.set_continue()


def bdb_time(program, line, cond):
    debugger = RunningBdb()
    problem = debugger.set_break(program.path, line, cond=cond)
    if problem:
        raise RuntimeError(problem)
    return debugger.runcall(time_hot, program)


def bdb_elsewhere(program):
    return bdb_time(program, NEVER_LINE, None)


def bdb_condition(program):
    return bdb_time(program, HOT_LINE, 'i == -1')


HOT_CASES = [
    ('untraced', untraced),
    ('tracer', traced),
    ('10000 others', others),
    ('10000 others, idle', lambda program: others(program, True)),
    ('elsewhere', elsewhere),
    ('elsewhere, idle', lambda program: elsewhere(program, True)),
    ('condition', condition),
    ('bdb elsewhere', bdb_elsewhere),
    ('bdb condition', bdb_condition),
]


def time_first_calls(program):
    began = cpu_seconds()
    for function in program.many:
        function()
    return cpu_seconds() - began


def first_calls_untraced(program):
    return time_first_calls(program)


def first_calls_traced(program):
    return time_first_calls(program) if start() else None


def first_calls_with_breakpoint(program):
    """Each function's lines are looked through once, for there is a breakpoint in its file."""
    start().set_break(program.many_path, '', 2, 1, 0, None, 0)
    return time_first_calls(program)


def first_calls_bdb(program):
    debugger = RunningBdb()
    debugger.set_break(program.many_path, 2)
    return debugger.runcall(time_first_calls, program)


def set_one_known(program):
    """Per breakpoint, in a file that is loaded."""
    tracer = start()
    began = cpu_seconds()
    for i in range(FUNCTIONS):
        tracer.set_break(program.many_path, '', 2 + i, 1, 0, None, 0)
    return cpu_seconds() - began


def set_one_of_ten_thousand(program):
    """Per 1/5 breakpoint: ten thousand in a thousand files that are not loaded."""
    tracer = start()
    began = cpu_seconds()
    for i in range(FILES):
        for line in range(1, LINES + 1):
            tracer.set_break('/elsewhere/file%d.py' % i, '', line, 1, 0, None, 0)
    return (cpu_seconds() - began) * FUNCTIONS / (FILES * LINES)


def set_one_bdb(program):
    debugger = RunningBdb()
    began = cpu_seconds()
    for i in range(FUNCTIONS):
        debugger.set_break(program.many_path, 2 + i)
    return cpu_seconds() - began


ONCE_CASES = [
    ('first call, untraced', first_calls_untraced),
    ('first call, tracer', first_calls_traced),
    ('first call, a breakpoint in the file', first_calls_with_breakpoint),
    ('first call, bdb', first_calls_bdb),
    ('set one in a loaded file', set_one_known),
    ('set one of 10000 in other files', set_one_of_ten_thousand),
    ('set one, bdb', set_one_bdb),
]


def measure_in_child(case, program):
    """Seconds, or None where the case does not exist on this interpreter."""
    reader, writer = os.pipe()
    pid = os.fork()
    if pid == 0:
        status = 1
        try:
            os.write(writer, repr(case(program)).encode('ascii'))
            status = 0
        except BaseException:
            traceback.print_exc()
        finally:
            os._exit(status)
    os.close(writer)
    text = os.read(reader, 100).decode('ascii')
    os.close(reader)
    _, status = os.waitpid(pid, 0)
    if status != 0 or not text:
        raise SystemExit('a measured process failed: status %d' % status)
    return None if text == 'None' else float(text)


def measure(cases, program, rounds):
    best = {}
    for _ in range(rounds):
        for name, case in cases:
            seconds = measure_in_child(case, program)
            if seconds is not None:
                best[name] = min(best.get(name, seconds), seconds)
    return best


def print_results(hot, once):
    print('Python %d.%d.%d' % sys.version_info[:3])
    print('  %-38s%12s%14s' % ('hot function', 'ns a line', 'x untraced'))
    for name, _ in HOT_CASES:
        if name in hot:
            nanoseconds = hot[name] / (TURNS * LINES_A_TURN) * 1e9
            print('  %-38s%12.1f%14.2f' % (name, nanoseconds, hot[name] / hot['untraced']))
    print('  %-38s%12s' % ('once', 'us'))
    for name, _ in ONCE_CASES:
        if name in once:
            print('  %-38s%12.2f' % (name, once[name] / FUNCTIONS * 1e6))
    sys.stdout.flush()


def main():
    rounds = int(sys.argv[1]) if len(sys.argv) > 1 else 5
    folder = tempfile.mkdtemp(prefix='tdbg-bench-')
    try:
        program = Program(folder)
        print_results(measure(HOT_CASES, program, rounds), measure(ONCE_CASES, program, rounds))
    finally:
        shutil.rmtree(folder)


main()
