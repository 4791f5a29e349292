"""What is paid once: setting a breakpoint, importing a module, the first call of a function, the
memory kept for it. Seconds (bytes) for each breakpoint, import of all modules, and function."""
from __future__ import absolute_import, division, print_function

import ctypes
import gc
import resource

from children import cpu_seconds
from debuggers import Bdb, Empty, Tracer, Untraced
from program import OTHER_FILES


def time_first_calls(program):
    began = cpu_seconds()
    for function in program.many:
        function()
    return (cpu_seconds() - began) / len(program.many)


def first_calls(make_debugger, with_break):
    def case(program):
        debugger = make_debugger()
        debugger.start()
        if with_break:
            debugger.set_break(program.many_path, 2)
        return debugger.run(time_first_calls, program)
    return case


def resident_bytes():
    with open('/proc/self/statm') as source:
        return int(source.read().split()[1]) * resource.getpagesize()


def fill_free_memory():
    """Lists and integers: what the debugger keeps, and comes after them, needs new pages."""
    filling = [[None] * 4 for _ in range(200000)], [(1 << 40) + i for i in range(200000)]
    library = ctypes.CDLL(None)
    if hasattr(library, 'malloc_trim'):  # musl gives memory back by itself
        library.malloc_trim(0)
    return filling


def grow_by_first_calls(program):
    gc.disable()
    filling = fill_free_memory()
    before = resident_bytes()
    for function in program.many:
        function()
    grown = resident_bytes() - before
    del filling
    return grown / float(len(program.many))


def memory(make_debugger, with_break):
    def case(program):
        debugger = make_debugger()
        debugger.start()
        if with_break:
            debugger.set_break(program.many_path, 2)
        return debugger.run(grow_by_first_calls, program)
    return case


def time_imports(program):
    began = cpu_seconds()
    program.import_modules()
    return cpu_seconds() - began


def imports(make_debugger, count, in_missing_files=False):
    def case(program):
        debugger = make_debugger()
        debugger.start()
        for path, line in program.other_places(count):
            debugger.set_break('/not/there' + path if in_missing_files else path, line)
        return debugger.run(time_imports, program)
    return case


def time_setting(debugger, places):
    debugger.start()
    began = cpu_seconds()
    for path, line in places:
        debugger.set_break(path, line)
    return (cpu_seconds() - began) / len(places)


def set_in_others(make_debugger, count):
    return lambda program: time_setting(make_debugger(), program.other_places(count))


def set_in_loaded(make_debugger):
    return lambda program: time_setting(
        make_debugger(), [(program.many_path, 2 + i) for i in range(2000)])


CASES = [
    ('first call, untraced', first_calls(Untraced, False)),
    ('first call, empty', first_calls(Empty, False)),
    ('first call, tracer', first_calls(Tracer, False)),
    ('first call, breakpoint', first_calls(Tracer, True)),
    ('first call, bdb', first_calls(Bdb, True)),
    ('memory, empty', memory(Empty, False)),
    ('memory, breakpoint', memory(Tracer, True)),
    ('imports, untraced', imports(Untraced, 0)),
    ('imports, empty', imports(Empty, 0)),
    ('imports, 1', imports(Tracer, 1)),
    ('imports, 10000', imports(Tracer, 10000)),
    ('imports, 10000 missing', imports(Tracer, 10000, True)),
    ('imports, bdb 1', imports(Bdb, 1)),
    ('imports, bdb 10000', imports(Bdb, 10000)),
    ('set, others', set_in_others(Tracer, 10 * OTHER_FILES)),
    ('set, loaded', set_in_loaded(Tracer)),
    ('set, bdb', set_in_others(Bdb, 10 * OTHER_FILES)),
]
