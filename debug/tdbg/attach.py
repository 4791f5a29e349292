"""tdbg.set_trace() in a program that was not started by the debugger: bring the debugger in.

What is in the way is told in one line, once, and the program goes on without.
"""
from __future__ import absolute_import, division, print_function

import ast
import functools
import os
import sys

from tdbg import compat, dbgserver, launch, nativelib, program, terminal

_partial = functools.partial
_call = functools.partial.__call__  # without a frame of Python

_server = None
_refused = False


def steps_to_stop():
    """Iterator that stops the program at the caller's line when it is asked for its one item."""
    global _refused
    core = None
    if not _refused:
        try:
            core = _start().core
        except Exception as why:
            _refused = True
            text = compat.to_native(compat.to_text(str(why) or type(why).__name__))
            sys.stderr.write("tdbg: cannot debug here: {}\n".format(text))
    if core is None:
        return iter([None])
    return compat.lazy_map(_call, [_partial(core.breakpointhook)])


def _start():
    global _server
    if _server is not None:
        return _server
    launch.refuse_unknown_version()
    refuse_other_threads("the first set_trace()")
    core = nativelib.find_and_load(os.path.dirname(os.path.abspath(__file__)))
    environment = dict(os.environ)
    saved = ast.literal_eval(os.environ.pop(program.kVariable, "{}"))
    this_program = program.tProgram(_command_line(), environment, os.getcwd())
    front_end = terminal.tTerminal(this_program)
    server = dbgserver.tServer(core, front_end)
    front_end.attach(server)
    front_end.restore(saved)
    server.start_in_running_program()
    _server = server
    return server


def is_running():
    """Whether the terminal's debugger has been brought in, or has started the program."""
    import tdbg

    return _server is not None or tdbg.current_server is not None


def refuse_other_threads(what):
    threading = sys.modules.get("threading")
    for ident, thread in list(getattr(threading, "_active", {}).items()):
        if type(thread).__name__ == "_MainThread" and ident != compat.get_ident():
            raise RuntimeError(what + " must be called in the main thread")


def _command_line():
    """Words that the process was started with; the interpreter by its full path."""
    words = getattr(sys, "orig_argv", None)
    if words and sys.executable:
        return [sys.executable] + words[1:]
    try:
        with open("/proc/self/cmdline", "rb") as source:
            words = source.read().split(b"\0")[:-1]
    except (IOError, OSError):
        words = []
    if not words or not sys.executable:
        return None  # nothing to start again
    if not compat.PY2:
        words = [os.fsdecode(word) for word in words]
    if os.path.basename(words[0]).startswith("ld"):  # run through the dynamic loader
        names = [os.path.basename(word).startswith("python") for word in words]
        words = words[names.index(True):] if True in names else words
    return [sys.executable] + words[1:]
