"""The debuggers whose breakpoints are compared, with one interface.

Each has start(), set_break(path, line, cond), and run(function, *args), which calls a function with
the tracing on. start() is false where the debugger does not exist on this interpreter.
"""
from __future__ import absolute_import, division, print_function

import bdb

import variants


class Untraced(object):
    def start(self):
        return True

    def run(self, function, *args):
        return function(*args)


class Empty(Untraced):
    """An empty C trace function."""

    def start(self):
        return variants.empty()


class EmptyLinesOff(Untraced):
    def start(self):
        return variants.empty_off()


class Tracer(Untraced):
    idle_thread = False

    def start(self, line_cb=variants.nothing):
        if not variants.start_tracer(self.idle_thread, line_cb=line_cb):
            return False
        import tdbgtracer
        self.tracer = tdbgtracer
        self.tracer.continue_run()
        return True

    def set_break(self, path, line, cond=None):
        self.tracer.set_break(path, '', line, 1, 0, cond, 0)


class TracerIdle(Tracer):
    """With the idle thread, which lets the tracer switch lines off."""

    idle_thread = True


class RunningBdb(bdb.Bdb):
    def user_line(self, frame):
        self.set_continue()


class Bdb(object):
    """The standard library's debugger core."""

    options = {}

    def start(self):
        try:
            self.debugger = RunningBdb(**self.options)
        except TypeError:
            return False
        return True

    def set_break(self, path, line, cond=None):
        problem = self.debugger.set_break(path, line, cond=cond)
        if problem:
            raise RuntimeError(problem)

    def run(self, function, *args):
        return self.debugger.runcall(function, *args)


class BdbMonitoring(Bdb):
    """The same on sys.monitoring (3.14 and later)."""

    options = {'backend': 'monitoring'}
