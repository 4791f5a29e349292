"""The binding layer's record of the running interpreter, read through ctypes."""
from __future__ import absolute_import, division, print_function

import ctypes

from .library import load_native


def _offsets(*names):
    class Offsets(ctypes.Structure):
        _fields_ = [(name, ctypes.c_ssize_t) for name in names]
    return Offsets


class Record(ctypes.Structure):
    """The leading part of global_XPy_C_API_Data, up to the function slots."""

    _fields_ = [
        ("initialized", ctypes.c_int),
        ("failed_to_initialize", ctypes.c_int),
        ("major_version", ctypes.c_int),
        ("minor_version", ctypes.c_int),
        ("micro_version", ctypes.c_int),
        ("api_version", ctypes.c_int),
        ("pydebug_build", ctypes.c_int),
        ("can_update_refcount_directly", ctypes.c_int),
        ("refcnt_is_32bit", ctypes.c_int),
        ("cached_pid", ctypes.c_int),
        ("dll_ptr", ctypes.c_void_p),
        ("pyobject", _offsets("refcnt", "type", "mutex", "overflow", "flags")),
        ("tstate", _offsets("next", "interp", "frame", "c_tracefunc", "c_traceobj", "thread_id",
                            "tracing", "use_tracing", "cframe", "what_event")),
        ("frame", _offsets("lineno", "code", "builtins", "trace", "iblock", "locals", "globals",
                           "back", "stacktop", "state")),
        ("interpreter_state", _offsets("eval_frame")),
        ("cframe", _offsets("current_frame")),
        ("typeobject", _offsets("tp_basicsize", "tp_vectorcall_offset", "tp_flags", "tp_base")),
        ("max_align", ctypes.c_ssize_t),
    ]


def load_record(functions=None):
    """(library, record) of the imported tracer; functions as for load_native."""
    native = load_native(functions)
    return native, Record.in_dll(native, "global_XPy_C_API_Data")
