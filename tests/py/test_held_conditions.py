"""Conditions that wait for another thread of the program, which the debugger holds meanwhile."""
from __future__ import absolute_import, division, print_function

import os
import re
import subprocess

from support import TestCase
from support.dapclient import debug_directly
from support.dapstops import next_stop, output_of, run_to_end, value_at
from support.marks import line_of
from support.programs import REPOSITORY
from support.terminal import run_commands
from tdbg import breakpoints, compat

kOncePerVersion = True
kTurns = 5

PROGRAM = '''\
import sys
import threading
import time
try:
    import queue
except ImportError:
    import Queue as queue

ASKED = queue.Queue()


def answer():
    """What another thread does for the one that asks."""
    while True:
        given = ASKED.get()
        if given is None:
            break
        given.put("yes")
        done = given  #@ answered


def ask():
    given = queue.Queue()
    ASKED.put(given)
    return given


class Job(object):
    count = 0

    @property
    def waits(self):
        return ask().get()

    @property
    def naps(self):
        given = ask()
        while given.empty():
            time.sleep(0.001)
        return given.get()

    @property
    def spins(self):
        given = ask()
        while given.empty():
            pass
        return given.get()

    @property
    def starts(self):
        thread = threading.Thread(target=ask)
        thread.start()
        thread.join()
        return ASKED.empty()

    def __bool__(self):
        return self.waits == "yes"

    __nonzero__ = __bool__


def work(job):
    here = 1  #@ waits
    here = 2  #@ naps
    here = 3  #@ spins
    here = 4  #@ truth
    here = 5  #@ starts
    here = 6  #@ lost
    for job.count in range(int(sys.argv[2])):
        here = 7  #@ turn
    return here


helper = threading.Thread(target=answer, name="helper")
helper.start()
try:
    if sys.argv[1] == "main":
        work(Job())
    elif sys.argv[1] == "template":
        sys.path.insert(0, sys.argv[2])
        import template
        template.Template(sys.argv[3]).render(job=Job())
    else:
        worker = threading.Thread(target=work, args=(Job(),), name="worker")
        worker.start()
        worker.join()
finally:
    ASKED.put(None)
helper.join()
print("ended")
'''


class Held(TestCase):
    def setUp(self):
        self.path = self.make_file("main.py", PROGRAM)

    def start(self, thread, conditions, turns=0):
        """thread: "main" or "worker", which comes to the conditions."""
        self.client = debug_directly(
            self, self.path, [thread, str(turns)], stdout=subprocess.PIPE)
        self.client.start_session({}, breakpoints={self.path: [
            {"line": mark, "condition": condition} for mark, condition in conditions]})

    def check_end(self):
        self.assertEqual(self.client.wait_exit(), 0)
        self.assertEqual(self.client.process.stdout.read().decode().split(), ["ended"])

    def check_conditions(self, thread, form):
        """Each ends by itself, in a stop or not as it says, and nobody has paused the program."""
        self.start(thread, [
            ("waits", form.format("job.waits == 'yes'")),
            ("naps", form.format("job.naps == 'yes'")),
            ("spins", form.format("job.spins == 'yes'")),
            ("truth", form.format("job")),
            ("lost", form.format("job.waits == 'no'")),
            ("turn", form.format("job.naps == 'no' or job.count == {}".format(kTurns - 1)))],
            kTurns)
        stops = run_to_end(self.client)
        self.assertEqual([(stop.reason, stop.name, stop.mark) for stop in stops], [
            ("breakpoint", "work", mark) for mark in ("waits", "naps", "spins", "truth", "turn")])
        self.check_end()
        # The user hears once of each place.
        told = [text for text, _, _ in output_of(self.client) if "the other threads run" in text]
        self.assertEqual(len(set(told)), len(told))
        return told

    def test_conditions_that_the_core_evaluates(self):
        told = self.check_conditions("main", "{}")
        for mark in ("waits", "lost"):
            line = line_of(self.path, mark)
            self.assertEqual(len([text for text in told if ":{} ".format(line) in text]), 1)

    def test_conditions_that_the_server_evaluates(self):
        self.check_conditions("worker", "({}) and str(1)")

    def test_thread_that_the_condition_starts(self):
        self.start("main", [("starts", "job.starts is None")])
        self.assertEqual(run_to_end(self.client), [])
        self.check_end()

    def test_condition_ends_while_another_thread_is_stopped(self):
        """Its thread waits until that one goes on, and stops then."""
        self.start("worker", [("waits", "job.waits == 'yes'"), ("answered", "given is not None")])
        stop = next_stop(self.client)
        self.assertEqual((stop.name, stop.mark), ("answer", "answered"))
        self.assertEqual(value_at(self.client, stop, "given.empty() in (True, False)"), "True")
        for _ in range(10):
            self.assertEqual(value_at(self.client, stop, "1 + 1"), "2")
        self.assertEqual(len(self.client.seen_events("stopped")), 1)
        self.client.set_breakpoints(self.path, [
            {"line": "waits", "condition": "job.waits == 'yes'"}])
        self.client.resume(stop.thread_id)
        stop = next_stop(self.client)
        self.assertEqual((stop.name, stop.mark), ("work", "waits"))
        self.client.set_breakpoints(self.path, [])
        self.client.resume(stop.thread_id)
        self.assertEqual(run_to_end(self.client), [])
        self.check_end()

    def test_without_an_interpreter_lock_the_server_evaluates(self):
        """For then nobody can look what another thread does."""
        self.addCleanup(setattr, compat, "is_gil_enabled", compat.is_gil_enabled)
        table = breakpoints.tBreakpoints(None)
        for is_enabled in (True, False):
            compat.is_gil_enabled = lambda: is_enabled
            bp = table.add(self.path, line_of(self.path, "waits"), condition="job")
            self.assertEqual(bp.by_server, not is_enabled)

    def test_terminal(self):
        """Conditions of both kinds."""
        def at(mark):
            return line_of(self.path, mark)
        done = run_commands([
            "break {}, job.waits == 'yes'".format(at("waits")), "continue",
            "break {}, str(job.spins) == 'yes'".format(at("spins")), "continue",
            "break {}, job.naps == 'no'".format(at("turn")), "continue"],
            self.path, "main", "2")
        self.assertEqual(done.status, 0, done)
        # A notice may come at any time: by the debugger's own thread.
        told = re.sub("tdbg: what is evaluated .*\n", "", done.out)
        for number, mark in ((1, "waits"), (2, "spins")):
            self.assertEqual(told.count("--Breakpoint {}--\n> {}({})work()".format(
                number, self.path, at(mark))), 1, done)
            self.assertEqual(done.out.count("tdbg: what is evaluated at {}:{} ".format(
                self.path, at(mark))), 1, done)
        self.assertIn("ended\n", done.out)

    def test_template(self):
        """The core asks the language for the value of the one, the server of the other."""
        page = self.make_file("page.tmpl", "{{ 1 }}\n{{ 2 }}\n{{ 3 }}\n{{ 4 }}\n")
        done = run_commands([
            "break {}:1, job.waits == 'yes'".format(page), "continue",
            "break {}:2, str(job.spins) == 'yes'".format(page), "continue",
            "break {}:3, job.naps == 'yes'".format(page), "continue",
            "break {}:4, job.waits == 'no'".format(page), "continue"],
            self.path, "template", os.path.join(REPOSITORY, "examples", "templates"), page)
        self.assertEqual(done.status, 0, done)
        for number in (1, 2, 3):
            shown = "--Breakpoint {0}--\n> {1}({0})page.tmpl".format(number, page)
            self.assertEqual(done.out.count(shown), 1, done)
        self.assertNotIn("--Breakpoint 4--", done.out)
        self.assertIn("ended\n", done.out)
