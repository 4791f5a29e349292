"""A stand-in for the native core, in Python: enough of it to drive the debugger's front end.

It keeps the stepping rules of the real one for the main thread and for threads made by
`threading`; breakpoints, idle calls and the debug-server mutex are left out.  A test that passes
with this and fails with the real core tells which side is wrong.
"""
from __future__ import absolute_import, division, print_function

import os
import sys
import threading

kUsesSysMonitoring = False


class _State(object):
    tracing = False
    callbacks = None
    pid = os.getpid()


class _Thread(object):
    def __init__(self):
        self.stop_frame = None      # None: run; True: anywhere; a frame
        self.return_frame = None
        self.lines = (-1, -1)
        self.current = None
        self.bottom = None
        self.in_callback = False
        self.exiting = False
        self.last_exception = None


_state = _State()
_local = threading.local()


def _me():
    if not hasattr(_local, "record"):
        _local.record = _Thread()
    return _local.record


def init(period, mode, hooks, checksum, idle, line, ret, exc, quit_, import_, default_import, internal):
    _state.callbacks = dict(hooks=hooks, line=line, ret=ret, exc=exc, quit=quit_, import_=import_)
    _state.internal = internal


def start_trace():
    _state.tracing = True
    for module in list(sys.modules.values()):
        if module is not None:
            _state.callbacks["import_"](module)
    sys.settrace(trace_dispatch)
    _state.callbacks["hooks"](1)


def stop_trace(*args):
    _state.tracing = False
    sys.settrace(None)
    _state.callbacks["hooks"](0)


def _ancestors(frame):
    while frame is not None:
        yield frame
        frame = frame.f_back


def _arm():
    """Every frame of this thread gets local events (own and foreign frames alike)."""
    for frame in _ancestors(sys._getframe(1)):
        if frame.f_code.co_filename != __file__:
            frame.f_trace = trace_dispatch


def _set(stop_frame, return_frame, lines=(-1, -1)):
    me = _me()
    me.stop_frame, me.return_frame, me.lines = stop_frame, return_frame, lines
    _arm()


def stop(*args):
    me = _me()
    me.stop_frame, me.lines = True, (-1, -1)
    _arm()


def continue_run(*args):
    _set(None, None)


def step_into():
    _set(True, None)


def step_over(*args):
    _set(_me().current, _me().current)


def step_over_line(*args):
    line = _me().current.f_lineno
    _set(_me().current, _me().current, (line, line))


def step_over_line_range(first, last):
    _set(_me().current, _me().current, (first, last))


def step_out(*args):
    current = _me().current
    _set(current.f_back if current.f_back is not None else True, current)


def step_out_to_frame(frame):
    _set(frame, None)


def get_threads():
    return []


def get_thread_name(ident):
    return None


def get_current_tstate_id():
    return 1


def exiting_on_exception():
    return int(_me().exiting)


def get_changed_bps_lists():
    return [], []


def is_internal_frame(frame):
    return int(frame.f_code.co_filename in _state.internal or frame.f_code.co_filename == __file__)


def get_frame_file(frame):
    return os.path.abspath(frame.f_code.co_filename)


def PyFrame_LocalsToFast(frame, clear):
    import ctypes
    if hasattr(ctypes.pythonapi, "PyFrame_LocalsToFast"):
        ctypes.pythonapi.PyFrame_LocalsToFast(ctypes.py_object(frame), clear)


def acquire_dbgserver_mutex():
    return 1


def release_dbgserver_mutex():
    pass


def breakpointhook():
    me = _me()
    me.current = sys._getframe(1)
    _call("line", me.current)


def thread_exiting(*args):
    pass


def bootstrap_new_thread(frame, event, arg):
    sys.settrace(trace_dispatch)
    return trace_dispatch(frame, event, arg)


def _call(name, *args):
    me = _me()
    me.in_callback = True
    try:
        _state.callbacks[name](*args)
    finally:
        me.in_callback = False


def _stops_here(me, frame):
    if me.stop_frame is True:
        return True
    if frame is not me.stop_frame:
        return False
    return not me.lines[0] <= frame.f_lineno <= me.lines[1]


def trace_dispatch(frame, event, arg):
    me = _me()
    if not _state.tracing or me.in_callback or os.getpid() != _state.pid:
        return trace_dispatch
    if frame.f_code.co_filename == __file__:
        return None
    before, me.current = me.current, frame
    try:
        _dispatch(me, frame, event, arg)
    finally:
        me.current = before
    return trace_dispatch


def _dispatch(me, frame, event, arg):
    if event == "call":
        if me.bottom is None:
            me.bottom = frame
            for me.bottom in _ancestors(frame):
                pass
    elif event == "line":
        me.last_exception = None
        if _stops_here(me, frame):
            _call("line", frame)
    elif event == "exception":
        me.last_exception = (frame, arg)
        if _stops_here(me, frame):
            _call("exc", frame, arg)
    elif event == "return":
        failed = me.last_exception is not None and me.last_exception[0] is frame
        if frame is me.bottom and failed:
            me.exiting = True
            _call("exc", frame, me.last_exception[1])
        is_generator = frame.f_code.co_flags & 0x20 and not failed
        if (frame is me.return_frame and not is_generator) or _stops_here(me, frame):
            _call("ret", frame, arg)
        elif frame is me.bottom:
            me.bottom = None
            _call("quit")
        if frame is me.bottom:
            me.bottom = None
