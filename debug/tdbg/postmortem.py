"""tdbg.post_mortem() and tdbg.pm(): a prompt for an exception that is over.

Under the debugger its own front end shows it.  Elsewhere a terminal of its own does, and nothing is
traced: the native core is loaded only for what it knows of frames.
"""
from __future__ import absolute_import, division, print_function

import os
import sys

import tdbg
from tdbg import compat, dbgserver, exceptions, launch, nativelib, program, stops, terminal

_front_end = None  # this process has one terminal


def post_mortem(traceback=None):
    """traceback: default that of the exception being handled."""
    if isinstance(traceback, BaseException):
        value = traceback
        _show((type(value), value, getattr(value, "__traceback__", None)))
        return
    info = sys.exc_info()
    if traceback is not None and traceback is not info[2]:
        info = (None, None, traceback)
        if traceback is getattr(sys, "last_traceback", None):
            info = (sys.last_type, sys.last_value, traceback)
    _show(info)


def pm():
    if getattr(sys, "last_traceback", None) is None:
        raise ValueError("no exception has been printed")
    _show((sys.last_type, sys.last_value, sys.last_traceback))


def _show(exc_info):
    if exc_info[2] is None:
        raise ValueError("there is no traceback: no exception is being handled")
    try:
        server = tdbg.current_server
        if server is not None:
            server.show_post_mortem(exc_info)
        else:
            _prepare().show_post_mortem(exc_info)
    finally:
        exc_info = None  # frames and their traceback would hold each other


def _prepare():
    global _front_end
    launch.refuse_unknown_version()
    core = nativelib.find_and_load(os.path.dirname(os.path.abspath(__file__)))
    if _front_end is not None and _front_end.stop is not None:
        raise RuntimeError("there is a prompt already")
    if _front_end is None:
        _front_end = terminal.tTerminal(program.tProgram(None, dict(os.environ), os.getcwd()))
    server = tNoServer(core, _front_end)
    _front_end.attach(server)
    return server


class tNoServer(dbgserver.tServer):
    """The server of a process in which nothing is traced: any command ends the stop."""

    def show_post_mortem(self, exc_info):
        exc_info = exceptions.with_instance(exc_info)
        stack = _stack_of(exc_info[2])
        ident = compat.get_ident()
        thread = stops.tThread(ident, str(ident), True)
        try:
            self.front_end.on_stop(stops.tStop(
                thread, stops.kPostMortem, stack[-1][0], stack, len(stack) - 1, exc_info=exc_info))
        except Exception as why:
            self.front_end.on_internal_error("{}: {}".format(type(why).__name__, why))

    def step_into(self, *where):
        pass

    step_over = step_out = run_to_line = continue_run = leave_alone = step_into


def _stack_of(traceback):
    """[(frame, line)]: who called the first frame, should it still run, and the traceback."""
    stack = []
    frame = traceback.tb_frame.f_back
    while frame is not None:
        stack.append((frame, frame.f_lineno))
        frame = frame.f_back
    stack.reverse()
    while traceback is not None:
        stack.append((traceback.tb_frame, traceback.tb_lineno))
        traceback = traceback.tb_next
    return stack
