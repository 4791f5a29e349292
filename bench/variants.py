"""The ways a program is traced while it is measured; run inside the measured interpreter.

A variant is a function that switches its kind of tracing on in a fresh process. The name says what:
  untraced      nothing
  empty         an empty C trace function on every thread
  empty-off     the same, which switches each frame's lines off at its call (3.7 and later)
  tracer        the tracer, nothing to stop at, idle period 1 s
  tracer-idle   the same with the idle thread (3.7 and later), which lets it switch lines off
  tracer-noeval the same as tracer without the eval-frame hook
  monitoring    sys.monitoring asking at the start of each function, and never again (3.12 and
                later): what debuggers built on it cost in code without breakpoints
"""
from __future__ import absolute_import, division, print_function

import ctypes
import os
import sys
import threading

LIBRARY_DIR = os.environ['TDBG_LIB_DIR']
EMPTY_LIBRARY = os.environ['TDBG_EMPTY_LIB']


def find_trace_lines_offset():
    """Byte of the frame object that follows f_trace_lines, or None where there is no such flag."""
    frame = sys._getframe()
    if not hasattr(frame, 'f_trace_lines'):
        return None
    memory = (ctypes.c_char * 160).from_address(id(frame))
    frame.f_trace_lines = True
    before = bytes(memory.raw)
    frame.f_trace_lines = False
    after = bytes(memory.raw)
    frame.f_trace_lines = True
    changed = [i for i in range(160) if before[i:i + 1] == b'\1' and after[i:i + 1] == b'\0']
    return changed[0] if len(changed) == 1 else None


def load_c_functions():
    return ctypes.PyDLL(EMPTY_LIBRARY)


def address_of(function):
    return ctypes.cast(function, ctypes.c_void_p).value


def set_c_trace(function, trace_object=None):
    """Installs a C trace function on this thread."""
    set_trace = ctypes.pythonapi.PyEval_SetTrace
    set_trace.argtypes = [ctypes.c_void_p, ctypes.py_object]
    set_trace.restype = None
    set_trace(address_of(function), trace_object)


def set_c_function(name):
    """Installs a function of the empty library on this thread and on each new one."""
    library = load_c_functions()
    ctypes.c_int.in_dll(library, 'trace_lines_offset').value = find_trace_lines_offset() or 0
    function = getattr(library, name)

    def first_event(frame, event, arg):
        set_c_trace(function)

    threading.settrace(first_event)
    set_c_trace(function)


def nothing(*args):
    pass


def start_tracer(idle_thread=False, eval_frame=True, line_cb=nothing):
    if LIBRARY_DIR not in sys.path:
        sys.path.insert(0, LIBRARY_DIR)
    import tdbgtracer

    def install_thread_hooks(install):
        threading.settrace(tdbgtracer.bootstrap_new_thread if install else None)

    builtins = sys.modules.get('builtins') or sys.modules['__builtin__']
    tdbgtracer.init(1.0, 2, install_thread_hooks, nothing, nothing, line_cb, nothing, nothing,
                    nothing, None, builtins.__import__, {})
    tdbgtracer.set_use_eval_frame(1 if eval_frame else 0)
    tdbgtracer.set_use_idle_thread(1 if idle_thread else 0)
    if idle_thread and not tdbgtracer.get_use_idle_thread():
        return False
    tdbgtracer.start_trace()
    return True


def untraced():
    return True


def empty():
    set_c_function('empty_trace')
    return True


def empty_off():
    if find_trace_lines_offset() is None:
        return False
    set_c_function('lines_off_trace')
    return True


def tracer():
    return start_tracer()


def tracer_idle():
    return start_tracer(idle_thread=True)


def tracer_noeval():
    if not (3, 6) <= sys.version_info < (3, 12):
        return False
    return start_tracer(eval_frame=False)


def monitoring():
    if not hasattr(sys, 'monitoring'):
        return False
    events, tool = sys.monitoring.events, sys.monitoring.DEBUGGER_ID

    def function_starts(code, offset):
        return sys.monitoring.DISABLE

    sys.monitoring.use_tool_id(tool, 'bench')
    sys.monitoring.register_callback(tool, events.PY_START, function_starts)
    sys.monitoring.set_events(tool, events.PY_START)
    return True


VARIANTS = [('untraced', untraced), ('empty', empty), ('empty-off', empty_off), ('tracer', tracer),
            ('tracer-idle', tracer_idle), ('tracer-noeval', tracer_noeval),
            ('monitoring', monitoring)]
