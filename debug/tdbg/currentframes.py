"""What threads run at this moment.

sys._current_frames() makes objects for the frames of all interpreters of the process.  From 3.12 on
one with a lock of its own may run at that moment, and the memory of both is wrecked: then the core
is asked, which looks at the threads of this interpreter only.
"""
from __future__ import absolute_import, division, print_function

import sys

try:
    import ctypes
except Exception:  # a build without ctypes
    ctypes = None

_frames_of_all = sys._current_frames
_frames_of_this = None  # the core's function
_head = _main = None    # of the interpreters: the newest, the first


def use_core(core):
    """core: the native module, loaded."""
    global _frames_of_this, _head, _main
    if ctypes is None or sys.version_info < (3, 12) or not getattr(core, "__file__", None):
        return
    _head, _main = ctypes.pythonapi["PyInterpreterState_Head"], (
        ctypes.pythonapi["PyInterpreterState_Main"])
    _head.restype = _main.restype = ctypes.c_void_p
    _frames_of_this = ctypes.PyDLL(core.__file__)["call_sys_current_frames"]
    _frames_of_this.restype = ctypes.py_object


def current_frames():
    """{ident: innermost frame}"""
    if _frames_of_this is None or _head() == _main():
        return _frames_of_all()
    return _frames_of_this()
