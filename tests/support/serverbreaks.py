"""A program, and a front end of the debug server, for tests of the server's breakpoints."""
from __future__ import absolute_import, division, print_function

import os
import sys

from support import TestCase, line_of
from support.serving import run_under_server
from tdbg.dbgserver import tFrontEnd

SOURCE = '''\
"""A module."""


def loop(count):
    # nothing here

    total = 0  #@ loop-first
    for i in range(count):
        total += i  #@ loop-body
    return total  #@ loop-return
    # the end of it


class Thing(object):
    def method(self,
               value):
        """Text."""
        return (
            value)  #@ method-end

    def other(self):
        def inner():
            return 1  #@ inner

        return inner()  #@ other-return


def call():
    thing = Thing()  #@ call-first
    return thing.method(loop(3)) + thing.other()  #@ call-return
# the end of the file
'''


class FrontEnd(tFrontEnd):
    """Stops at `enter`, where the test gives commands, and records what stops afterwards."""

    def __init__(self, code, begin, commands):
        self.code, self.begin, self.commands = code, begin, list(commands)
        self.server = None
        self.seen, self.errors = [], []
        self.idle = None
        self.began = False

    def on_stop(self, stop):
        if not self.began:
            if stop.frame.f_code is not self.code:
                return self.server.step_into()
            self.began = True
            self.begin(self.server.breakpoints)
            return self.server.continue_run()
        name = stop.frame.f_code.co_name
        self.seen.append((stop.reason, name, stop.frame.f_lineno,
                          [hit.breakpoint.number for hit in stop.hits]))
        command = self.commands.pop(0) if self.commands else "continue_run"
        if callable(command):
            if not command(self.server, stop):  # a true result: it has given one
                self.server.continue_run()
        else:
            getattr(self.server, command)()

    def on_idle(self):
        if self.idle is not None:
            self.idle(self.server)

    def on_program_end(self):
        pass

    def on_import(self, module):
        pass

    def on_internal_error(self, text):
        self.errors.append(text)


class BreakTest(TestCase):
    """The program is a module, named after the test's folder so that none is imported twice."""

    def setUp(self):
        self.folder = self.make_dir()
        self.name = "prog_" + os.path.basename(self.folder).replace("-", "_")
        self.path = self.make_file(self.name + ".py", SOURCE, self.folder)
        sys.path.insert(0, self.folder)
        self.addCleanup(sys.path.remove, self.folder)

    def line(self, mark):
        return line_of(self.path, mark)

    def load(self):
        return __import__(self.name)

    def debug(self, begin, commands=(), work=None, idle=None):
        """Run `work` (call() of the imported module) with breakpoints set by begin(table) before
        the import; the front end."""
        def enter():
            return work()

        work = work or (lambda: self.load().call())
        front_end = FrontEnd(enter.__code__, begin, commands)
        front_end.idle = idle
        self.table = run_under_server(front_end, enter).breakpoints
        self.assertEqual(front_end.errors, [])
        return front_end

    def hits(self, begin, commands=(), work=None):
        return [(name, line) for _, name, line, _ in self.debug(begin, commands, work).seen]

    def counts(self):
        return [(bp.number, bp.hits) for bp in self.table.all()]
