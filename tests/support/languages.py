"""Debugging programs that implement a language, in the test's own process.

    front_end = debug(self, module.main, ["step_into", "step_over"], stop_at=(path, line))
    front_end.places      [(file, line)] of every stop after that, by base name
"""
from __future__ import absolute_import, division, print_function

import os
import sys

from .programs import REPOSITORY
from .serving import run_under_server

EXAMPLES = os.path.join(REPOSITORY, "examples")


def make_front_end(code, begin, commands):
    from tdbg import dbgserver

    class FrontEnd(dbgserver.tFrontEnd):
        """Begins where the function with this code is entered, then follows the commands: names of
        the server's, or functions (server, stop), which give one if their result is true."""

        def __init__(self):
            self.server = None
            self.commands = list(commands)
            self.began = False
            self.stops, self.places, self.errors = [], [], []
            self.stacks = []

        def on_stop(self, stop):
            if not self.began:
                if stop.frame.f_code is not code:
                    return self.server.step_into()
                self.began = True
                begin(self.server)
                return self.server.continue_run()
            self.stacks.append([place_of(*entry) for entry in stop.stack])
            self.places.append(place_of(*stop.stack[stop.index]))
            self.stops.append((stop.reason,) + self.places[-1])
            command = self.commands.pop(0) if self.commands else "continue_run"
            if not callable(command):
                getattr(self.server, command)()
            elif not command(self.server, stop):
                self.server.continue_run()

        def on_internal_error(self, text):
            self.errors.append(text)

    return FrontEnd()


def place_of(frame, line):
    return os.path.basename(frame.f_code.co_filename), line


def debug(work, begin, commands=(), errors=()):
    """Run work() under the debug server; the front end.  begin(server) sets breakpoints.

    errors: beginnings of what the debugger shall have complained of
    """
    def enter():
        return work()

    front_end = make_front_end(enter.__code__, begin, commands)
    run_under_server(front_end, enter)
    told = [text[:len(start)] for text, start in zip(front_end.errors, errors)]
    if told != list(errors) or len(front_end.errors) != len(errors):
        raise AssertionError(front_end.errors)
    return front_end


def use_example(name):
    """Make the modules of one of the examples importable."""
    sys.path.insert(0, os.path.join(EXAMPLES, name))
