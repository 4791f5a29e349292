"""Trace many threads at once: calls, exceptions, generators, steps, breakpoints that come and go.

  threadstress.py ROUNDS [THREADS]

Each thread does its work ROUNDS times and compares what comes out with what has to; at every stop
the server gives a command at random and looks whether another thread is in the server, too.
Meanwhile the main thread sets, changes and clears breakpoints, and from time to time ends tracing
and starts it again. The last line printed is a JSON object with counts; status 0 when all was
right.
"""
from __future__ import absolute_import, division, print_function

import json
import os
import random
import sys
import threading

_here = os.path.dirname(os.path.abspath(__file__))
if __name__ == "__main__":
    sys.path[:0] = [os.path.dirname(_here)]

from support.library import import_tracer  # noqa: E402
from support.marks import marks_of  # noqa: E402

get_ident = getattr(threading, "get_ident", None) or __import__("thread").get_ident
kDefaultImport = (sys.modules.get("builtins") or sys.modules["__builtin__"]).__import__
kFile = os.path.splitext(os.path.abspath(__file__))[0] + ".py"
kMarks = ["add", "fails", "caught", "yields", "deep", "sum"]
kCommands = ["step_into", "step_over", "step_out", "continue_run", "continue_run"]
kRestarts = 40  # changes of breakpoints between two times that tracing ends


# --- the work ---------------------------------------------------------------------------------


def add(first, second):
    total = first + second  #@ add
    return total


def fails(value):
    raise ValueError(value)  #@ fails


def catches(value):
    try:
        fails(value)
    except ValueError as why:
        return why.args[0]  #@ caught


def yields(count):
    for number in range(count):
        yield add(number, 1)  #@ yields


def deep(level):
    if level == 0:
        return 0
    return deep(level - 1) + 1  #@ deep


def work(seed):
    total = add(seed, 1)
    total += catches(seed)
    total += sum(yields(4))
    total += deep(12)  #@ sum
    total += len([add(item, item) for item in range(3)])
    own = {}
    exec("def made(value):\n    return value + 1\n", own)  # code that comes and goes
    return total + own["made"](0)


def right_answer(seed):
    return (seed + 1) + seed + (1 + 2 + 3 + 4) + 12 + 3 + 1


# --- the server -------------------------------------------------------------------------------


class Stress(object):
    def __init__(self, rounds, threads):
        self.rounds = rounds
        self.tracer = import_tracer()
        # only used inside the server, and by one thread outside
        self.random = random.Random(rounds)
        self.inside = None
        self.counts = dict.fromkeys(
            ["stops", "lines", "returns", "exceptions", "work", "changes", "restarts", "wrong",
             "overlaps"], 0)
        self.stopped_threads = set()
        self.problems = []
        self.done = [False] * threads
        self.lines = marks_of(kFile)
        self.tracer.init(
            0.0, 1, self.thread_hooks_cb, lambda name: "", lambda: None, self.line_cb,
            self.return_cb, self.exception_cb, lambda: None, None, kDefaultImport, {})

    def thread_hooks_cb(self, install):
        threading.settrace(self.tracer.bootstrap_new_thread if install else None)

    def line_cb(self, frame):
        self.stop("lines", frame)

    def return_cb(self, frame, value):
        self.stop("returns", frame)

    def exception_cb(self, frame, info=None):
        self.stop("exceptions", frame)

    def stop(self, kind, frame):
        """Everything here relies on one thread at a time: no count may get lost."""
        ident = get_ident()
        if self.inside is not None:
            self.counts["overlaps"] += 1
        self.inside = ident
        self.counts["stops"] += 1
        self.counts[kind] += 1
        self.stopped_threads.add(ident)
        if not self.tracer.is_dbgserver_mutex_held():
            self.problems.append("stopped without the mutex")
        names = []
        while frame is not None:  # the thread's own stack is the server's to read
            names.append(frame.f_code.co_name)
            frame = frame.f_back
        if "work" in names and names[-1] not in ("_bootstrap", "__bootstrap", "<module>"):
            self.problems.append("a stack of two threads: {}".format(names))
        getattr(self.tracer, self.random.choice(kCommands))()
        if self.inside != ident:
            self.counts["overlaps"] += 1
        self.inside = None

    # --- threads ---

    def run(self):
        threads = [threading.Thread(target=self.run_thread, args=(index,))
                   for index in range(len(self.done))]
        self.tracer.start_trace()
        for thread in threads:
            thread.start()
        chooser = random.Random(1)
        while not all(self.done):
            self.change_breakpoints(chooser)
        self.tracer.stop_trace()
        for thread in threads:
            thread.join()
        self.counts["threads"] = len(self.stopped_threads)
        self.counts["free"] = not getattr(sys, "_is_gil_enabled", lambda: True)()
        return self.counts, self.problems

    def run_thread(self, index):
        try:
            for number in range(self.rounds):
                seed = index * self.rounds + number
                __import__("sys")  # adopts a thread where start_trace could not
                if work(seed) != right_answer(seed):
                    self.problems.append("wrong result in thread {}".format(index))
                if number % 50 == 49:
                    self.run_short_thread()
        except BaseException as why:
            self.problems.append(repr(why))
            raise
        finally:
            sys.settrace(None)
            self.tracer.thread_exiting()
            self.done[index] = True

    def run_short_thread(self):
        def whole():
            add(1, 2)
            sys.settrace(None)
            self.tracer.thread_exiting()

        thread = threading.Thread(target=whole)
        thread.start()
        thread.join()

    def change_breakpoints(self, chooser):
        self.counts["changes"] += 1
        line = self.lines[chooser.choice(kMarks)]
        what = chooser.randrange(6)
        if what < 2:
            self.tracer.set_break(kFile, "", line, 1, what, None, 0)
        elif what == 2:
            self.tracer.set_break(kFile, "", line, 1, 0, "1 > 2 or None", 0)
        elif what == 3:
            self.tracer.enable_breaks(kFile, line, chooser.randrange(2))
        elif what == 4:
            self.tracer.clear_breaks(kFile, line)
        else:
            self.tracer.get_threads()
        if self.counts["changes"] % kRestarts == 0:
            self.counts["restarts"] += 1
            self.tracer.clear_all_breaks()
            self.tracer.stop_trace()
            self.tracer.start_trace()
        threading.Event().wait(0.0005)


def main(argv):
    counts, problems = Stress(int(argv[0]), int(argv[1]) if len(argv) > 1 else 8).run()
    for problem in problems[:10]:
        print(problem)
    print(json.dumps(counts, sort_keys=True))
    return 1 if problems or counts["overlaps"] else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
