"""How long a line with a breakpoint waits: from the arrival of its event at the trace function to
the first line of the debugger's callback. Seconds, the reading of two clocks included.

A C function in front of the trace function notes when each line event comes. It is put into the
thread's record itself, whose field is found by trial, so that nobody sees another trace object.
"""
from __future__ import absolute_import, division, print_function

import ctypes
import sys

import variants
from debuggers import Bdb, RunningBdb, Tracer
from program import HOT_LINE

try:
    from time import perf_counter as now
    CLOCK = 1  # CLOCK_MONOTONIC
except ImportError:
    from time import time as now
    CLOCK = 0  # CLOCK_REALTIME, which 2.7 reads in microseconds

STOPS = 4000
THREAD_RECORD_SIZE = 1024


def load_library():
    library = variants.load_c_functions()
    ctypes.c_int.in_dll(library, 'stamp_clock').value = CLOCK
    library.arrival_time = ctypes.c_double.in_dll(library, 'arrival')
    return library


def find_trace_field(library):
    """The field of this thread's record that holds its C trace function."""
    get = ctypes.pythonapi.PyThreadState_Get
    get.restype = ctypes.c_void_p
    record = get()
    variants.set_c_trace(library.empty_trace)
    words = (ctypes.c_void_p * (THREAD_RECORD_SIZE // ctypes.sizeof(ctypes.c_void_p)))
    fields = words.from_address(record)
    wanted = variants.address_of(library.empty_trace)
    found = [i for i, value in enumerate(fields) if value == wanted]
    sys.settrace(None)
    if len(found) != 1:
        raise SystemExit('the trace function is not in the thread record')
    return ctypes.c_void_p.from_address(
        record + found[0] * ctypes.sizeof(ctypes.c_void_p))


def stand_in_front(library, field):
    ctypes.c_void_p.in_dll(library, 'stamped').value = field.value
    field.value = variants.address_of(library.stamping_trace)


def typical(times):
    """Mean without the slowest hundredth: the clock of 2.7 has too coarse steps for a median."""
    kept = sorted(times)[:len(times) - len(times) // 100]
    return sum(kept) / len(kept)


def make_callback(library, times):
    arrival = library.arrival_time

    def line_cb(frame):
        end = now()
        if arrival.value != 0:  # bdb stops in the caller as well, before the front is there
            times.append(end - arrival.value)
    return line_cb


def hot_with_front(library, field, program):
    stand_in_front(library, field)
    program.hot(STOPS // program.haste)


def stop_floor(program):
    """An empty C trace function that calls a Python function at each line."""
    library, times = load_library(), []
    ctypes.c_void_p.in_dll(library, 'call_with_objects').value = variants.address_of(
        ctypes.pythonapi.PyObject_CallFunctionObjArgs)
    variants.set_c_trace(library.calling_trace, make_callback(library, times))
    program.hot(STOPS // program.haste)
    sys.settrace(None)
    return typical(times)


def stop_tracer(program):
    library, times = load_library(), []
    field = find_trace_field(library)
    debugger = Tracer()
    debugger.start(make_callback(library, times))
    debugger.set_break(program.hot_path, HOT_LINE)
    hot_with_front(library, field, program)
    check_count(times, program)
    return typical(times)


def stop_bdb(program):
    library, times = load_library(), []
    field = find_trace_field(library)
    callback = make_callback(library, times)

    class Stopping(RunningBdb):
        def user_line(self, frame):
            callback(frame)
            self.set_continue()

    debugger = Bdb()
    debugger.debugger = Stopping()
    debugger.set_break(program.hot_path, HOT_LINE)
    debugger.run(hot_with_front, library, field, program)
    check_count(times, program)
    return typical(times)


def check_count(times, program):
    if len(times) < STOPS // program.haste:
        raise SystemExit('stopped %d times only' % len(times))


CASES = [('stop, floor', stop_floor), ('stop, tracer', stop_tracer), ('stop, bdb', stop_bdb)]
