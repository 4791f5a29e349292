"""A threaded program under the tracer for a long time: is anything left over at the end?

  soak.py SECONDS SEED

Rounds of four threads each, which work in a module that is edited and reloaded all the time. While
they run, breakpoints of every kind are set and cleared at random, callbacks answer stops with
random commands, idle calls pause whatever runs, the process forks, and exceptions are raised;
between rounds tracing is sometimes switched off and on. Every result of the program is checked.

Now and then all is quiet (no thread, no breakpoint, garbage collected), and what the process holds
is written down. The last line is a JSON object: "samples", a list of such objects, "counts" of what
was done, "failures", and "grown": what the last third of the samples has more than the middle one.
By hand:  TDBG_LIB_DIR=BUILD python tests/support/soak.py 1800 1
"""
from __future__ import absolute_import, division, print_function

import collections
import ctypes
import gc
import io
import json
import os
import random
import shutil
import sys
import tempfile
import threading
import time
import traceback
import warnings

_tests = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
if _tests not in sys.path:
    sys.path.insert(0, _tests)
from support.tracing import ThreadSession, join_whole_thread  # noqa: E402

try:
    from importlib import reload as reload_module
except ImportError:
    try:
        from imp import reload as reload_module
    except ImportError:
        reload_module = reload  # noqa: F821

_now = getattr(time, "monotonic", time.time)
kThreads = 4
kCallsOfThread = 12
kActions = 12  # of a round
kLeastSamples = 12
kChildSeconds = 60
kHeapSlack = 256 << 10  # caches of the interpreter and of the allocator that fill late
kResidentSlack = 3 << 20
kObjectSlack = 2000

kModule = '''
def helper(number):
    try:
        if number % 3 == 0:
            raise ValueError(number)
        return number
    except ValueError as why:
        return -why.args[0]
    finally:
        number = 0


def numbers(count):
    for number in range(count):
        yield number


class Thing(object):
    def __init__(self, value):
        self.value = value

    def __enter__(self):
        return self

    def __exit__(self, *exc_info):
        return True

    def doubled(self):
        return [part for part in (self.value, self.value)]


def failing(count):
    if count:
        failing(count - 1)
    raise KeyError("at the end")


def work(count):
    total = 0
    for number in range(count):
        total += helper(number)
    for number in numbers(count):
        total += number
    with Thing(count) as thing:
        total += sum(thing.doubled())
        failing(2)
    make = lambda value: value + total
    return make(1)
'''


def expected_of(count):
    total = sum(-number if number % 3 == 0 else number for number in range(count))
    return total + sum(range(count)) + 2 * count + 1


class Measure(object):
    """What the process holds."""

    def __init__(self, tracer):
        self.tracer = tracer
        self.heap = self.find_heap()

    @staticmethod
    def find_heap():
        """Function for the bytes that malloc has handed out; None without the C library's count."""
        library = ctypes.CDLL(None)
        for name, kind in (("mallinfo2", ctypes.c_size_t), ("mallinfo", ctypes.c_uint)):
            names = "arena ordblks smblks hblks hblkhd usmblks fsmblks uordblks fordblks keepcost"
            fields = [(field, kind) for field in names.split()]
            record = type("Record", (ctypes.Structure,), {"_fields_": fields})
            function = getattr(library, name, None)
            if function is not None:
                function.restype = record
                return lambda: (lambda found: found.uordblks + found.hblkhd)(function())
        return None

    def take(self):
        for _ in range(3):
            gc.collect()
        with io.open("/proc/self/statm") as source:
            pages = int(source.read().split()[1])
        taken = {
            "resident": pages * os.sysconf("SC_PAGESIZE"),
            "descriptors": len(os.listdir("/proc/self/fd")),
            "tasks": len(os.listdir("/proc/self/task")),
            "objects": len(gc.get_objects()),
            "threads": len(self.tracer.get_threads()),
        }
        if self.heap is not None:
            taken["heap"] = self.heap()
        if hasattr(sys, "getallocatedblocks"):
            taken["blocks"] = sys.getallocatedblocks()
        return taken


class Soak(ThreadSession):
    kCommands = (["continue_run"] * 6 + ["step_into", "step_over", "step_over", "step_over_line",
                                         "step_out", "stop"])
    kConditions = [None, None, None, "number > 2", "total % 2", "no_such_name", "1 // 0"]

    def __init__(self, seed, folder):
        self.random = random.Random(seed)
        self.counts = collections.Counter()
        self.problems = []
        self.path = os.path.join(folder, "soaked.py")
        self.blank_lines = 0
        self.write_module()
        sys.path.insert(0, folder)
        import soaked
        self.module = soaked
        ThreadSession.__init__(self, idle_period=1.0)
        self.tracer.set_autoquit(0)
        self.tracer.set_use_idle_thread(1)

    # --- callbacks ---

    def stop(self, frame, kind, *details):
        self.counts[kind] += 1
        getattr(self.tracer, self.random.choice(self.kCommands))()

    def idle_cb(self):
        self.counts["pause"] += 1
        self.tracer.stop()

    def quit_cb(self):
        pass

    # --- the program ---

    def write_module(self):
        text = u"\n" * self.blank_lines + u"" + kModule
        with io.open(self.path, "wb") as out:
            out.write(text.encode("ascii"))

    def check(self, count):
        found = self.module.work(count)
        if found != expected_of(count):
            self.problems.append("work({}) gave {!r}".format(count, found))

    def thread(self, counts):
        try:
            for count in counts:
                self.check(count)
        except BaseException:
            self.problems.append(traceback.format_exc())
        finally:
            sys.settrace(None)
            self.tracer.thread_exiting()

    # --- actions ---

    def line(self):
        return self.blank_lines + self.random.randrange(1, kModule.count("\n") + 2)

    def set_break(self):
        self.tracer.set_break(
            self.path, "", self.line(), self.random.random() < 0.9, self.random.random() < 0.3,
            self.random.choice(self.kConditions), self.random.choice([0, 0, 0, 2]))

    def clear_break(self):
        rows = self.tracer.get_file_breaks(self.path)
        if rows:
            line = self.random.choice(list(rows))[0]
            self.tracer.clear_breaks(self.path, line)

    def change_break(self):
        rows = self.tracer.get_file_breaks(self.path)
        if rows:
            line = self.random.choice(list(rows))[0]
            self.tracer.enable_breaks(self.path, line, self.random.randrange(2))
            self.tracer.set_breaks_cond(self.path, line, self.random.choice(["", "1", "total"]))

    def stop_here(self):
        self.tracer.stop()
        self.check(4)

    def hold_all(self):
        self.tracer.acquire_dbgserver_mutex()
        time.sleep(0)
        self.tracer.release_dbgserver_mutex()

    def set_exceptions(self):
        self.tracer.set_exception_mode(self.random.choice([0, 1, 2, 4, 5]))
        self.tracer.ignore_exception_loc(self.path, self.line(), self.random.randrange(2))

    def reload(self):
        self.blank_lines = self.random.randrange(8)
        self.write_module()
        reload_module(self.module)
        self.tracer.get_new_imports()

    def fork(self):
        stays = self.random.randrange(2)
        child = os.fork()
        if child == 0:
            status = 1
            try:
                if stays:
                    self.tracer.fork_ok()
                    self.tracer.stop()
                status = 0 if self.module.work(5) == expected_of(5) else 2
            finally:
                os._exit(status)
        self.wait_for(child)

    def wait_for(self, child):
        deadline = _now() + kChildSeconds
        while True:
            ended, status = os.waitpid(child, os.WNOHANG)
            if ended:
                break
            if _now() > deadline:
                os.kill(child, 6)
                status = "hangs"
                os.waitpid(child, 0)
                break
            time.sleep(0.002)
        if status != 0:
            self.problems.append("a child ended with {}".format(status))

    kActions = (["set_break"] * 5 + ["clear_break"] * 3 + ["change_break", "stop_here", "hold_all",
                                                           "set_exceptions", "reload", "fork"])

    # --- rounds ---

    def round(self):
        threads = []
        for _ in range(kThreads):
            counts = [self.random.randrange(8) for _ in range(kCallsOfThread)]
            threads.append(threading.Thread(target=self.thread, args=(counts,)))
        for thread in threads:
            thread.start()
        for _ in range(kActions):
            name = self.random.choice(self.kActions)
            self.counts[name] += 1
            getattr(self, name)()
        for thread in threads:
            join_whole_thread(thread)
        self.tracer.get_changed_bps_lists()
        if self.random.random() < 0.05:
            self.counts["restart"] += 1
            self.tracer.stop_trace()
            self.tracer.start_trace()
        self.counts["round"] += 1

    def quiet(self):
        self.tracer.continue_run()
        self.tracer.clear_all_breaks()
        self.tracer.clear_exception_ignores()
        self.tracer.set_exception_mode(0)
        self.tracer.get_changed_bps_lists()
        self.tracer.get_new_imports()
        self.module.work(3)


def soak(seconds, seed, folder):
    warnings.simplefilter("ignore")  # of forks while threads run
    sys.dont_write_bytecode = True
    session = Soak(seed, folder)
    measure = Measure(session.tracer)
    samples = []
    begin = _now()
    session.tracer.start_trace()
    try:
        while not session.problems:
            session.round()
            if _now() - begin < seconds * len(samples) / (3 * kLeastSamples):
                continue
            session.quiet()
            samples.append(measure.take())
            if _now() - begin >= seconds and len(samples) >= 3 * kLeastSamples:
                break
    finally:
        session.tracer.stop_trace()
    return samples, session.counts, session.problems


def median(values):
    return sorted(values)[len(values) // 2]


def growth(samples):
    """{what: how much more the last third has than the middle one}, by the median of each."""
    third = len(samples) // 3
    middle, last = samples[third:-third], samples[-third:]
    return {name: median([row[name] for row in last]) - median([row[name] for row in middle])
            for name in samples[0]}


def main(argv):
    folder = tempfile.mkdtemp(prefix="tdbg-soak-")
    try:
        samples, counts, problems = soak(float(argv[0]), int(argv[1]), folder)
    finally:
        shutil.rmtree(folder, ignore_errors=True)
    print(json.dumps({"samples": samples, "counts": counts, "failures": problems,
                      "grown": growth(samples) if len(samples) > 2 else {}}))


if __name__ == "__main__":
    main(sys.argv[1:])
