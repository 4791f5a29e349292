"""The program of bench/detached: what it computes after its debugger has gone.

  leftalone.py SIZE     prints {case: seconds of processor time}
"""
from __future__ import absolute_import, division, print_function

import json
import os
import sys
import threading

import workloads
from children import cpu_seconds


def stopped_in(turns, waiting):
    """The frame that the last stop was in goes on:
    seconds beside a thread that waits, and without."""
    seconds, total = [], 0  #@ stop
    for _ in range(2):
        began = cpu_seconds()
        for i in range(turns):
            total += i
            if total > 1000000:  #@ in-loop
                total -= 1000000
        seconds.append(cpu_seconds() - began)
        waiting.finish()
    return seconds


class Waiting(object):
    """A thread that the debugger knows, in the middle of a function when it goes."""

    def __init__(self, turns):
        self.turns, self.seconds = turns, None
        self._go, self._is_there = threading.Event(), threading.Event()
        self._thread = threading.Thread(target=self._work)
        self._thread.daemon = True
        self._thread.start()
        self._is_there.wait()

    def _work(self):
        total = 0
        self._is_there.set()
        self._go.wait()
        began = cpu_seconds()
        for i in range(self.turns):
            total += i
            if total > 1000000:
                total -= 1000000
        self.seconds = cpu_seconds() - began

    def finish(self):
        self._go.set()
        self._thread.join()


def time_workload(workload, size):
    began = cpu_seconds()
    workload(size)
    return cpu_seconds() - began


def main(size):
    turns = 300000 * size
    for workload in workloads.WORKLOADS:  # the debugger sees all of the code
        workload(1)
    waiting = Waiting(turns)
    beside, stopped = stopped_in(turns, waiting)
    found = {'beside a waiting thread': beside, 'stopped frame': stopped,
             'woken thread': waiting.seconds}
    for workload in workloads.WORKLOADS:
        found[workload.__name__] = time_workload(workload, size)
    found['is_traced'] = sys.gettrace() is not None
    print(json.dumps(found))


if __name__ == '__main__':
    main(int(sys.argv[1]))
    sys.stdout.flush()
    os._exit(0)
