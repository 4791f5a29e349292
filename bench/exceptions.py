"""What 100,000 exceptions that the program catches cost under the debug server.

    PYTHONPATH=<folder of tdbgtracer.so>:debug python bench/exceptions.py [COUNT]

Prints one row: processor time in seconds, best of three, of exceptions that are caught in the frame
that raises them and two frames further out, for each way of looking at them.
"""
from __future__ import absolute_import, division, print_function

import platform
import sys
import time

import tdbgtracer

from tdbg import dbgserver, exceptions

kCount = int(sys.argv[1]) if len(sys.argv) > 1 else 100000
kRepeats = 3

_clock = getattr(time, "process_time", None) or time.clock


class tQuiet(dbgserver.tFrontEnd):
    server = None

    def on_stop(self, stop):
        self.server.continue_run()


def same_frame(count):
    for _ in range(count):
        try:
            raise ValueError("caught")
        except ValueError:
            pass


def inner():
    raise ValueError("caught")


def middle():
    inner()


def further_out(count):
    for _ in range(count):
        try:
            middle()
        except ValueError:
            pass


def measure(work, prepare):
    """prepare: function (server) that chooses the way; None: without the debugger."""
    best = None
    for _ in range(kRepeats):
        server = None
        if prepare is not None:
            front_end = tQuiet()
            server = front_end.server = dbgserver.tServer(tdbgtracer, front_end)
            server.start()
            prepare(server)
        began = _clock()
        work(kCount)
        spent = _clock() - began
        if server is not None:
            server.leave_alone()
        best = spent if best is None else min(best, spent)
    return best


def never(server):
    server.exceptions.stop_on(())


def in_mode(mode):
    def prepare(server):
        tdbgtracer.set_exception_mode(mode)
        server.exceptions._mode = mode  # the rules would choose another one
    return prepare


def at_the_raise(server):
    exceptions.kManyCaught = 10 ** 12


kWays = (("untraced", None), ("mode 0", never), ("mode 2", in_mode(2)), ("mode 4", in_mode(4)),
         ("mode 1", at_the_raise))


def main():
    cells = [platform.python_version()]
    for _, prepare in kWays:
        cells.append("{:.2f} / {:.2f}".format(
            measure(same_frame, prepare), measure(further_out, prepare)))
    print("| version |", " | ".join(name for name, _ in kWays), "|")
    print("|", " | ".join(cells), "|")


if __name__ == "__main__":
    main()
