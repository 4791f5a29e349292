"""Pausing a program: while it computes, sleeps, waits for anything; and going on from there."""
from __future__ import absolute_import, division, print_function

import os
import sys
import time

from support import TestCase, needs
from support.dapclient import debug_directly

kOncePerVersion = True

kPauseSeconds = 1.0


def release(fifo):
    """Let who has opened it for reading go on."""
    with open(fifo, "w"):
        pass


def wait_until(holds):
    """Whether that comes to be."""
    for _ in range(2000):
        if holds():
            return True
        time.sleep(0.005)
    return False


class Pausing(TestCase):
    def make_fifo(self):
        """Path of a pipe: opening it waits for the other side."""
        path = os.path.join(self.make_dir(), "fifo")
        os.mkfifo(path)
        return path

    def start(self, text, **options):
        """The client of a program that has announced to be where it is to be paused."""
        self.path = self.make_file("program.py", "import os, sys\n" + text)
        reading, writing = os.pipe()
        if hasattr(os, "set_inheritable"):
            os.set_inheritable(writing, True)
        client = debug_directly(self, self.path, [str(writing)], inherited=[writing], **options)
        os.close(writing)
        client.start_session({})
        self.assertEqual(os.read(reading, 1), b"x")
        os.close(reading)
        return client

    def pause(self, client, thread_id=1):
        """The place shown, as (function, mark); it comes within a second."""
        begin = time.time()
        client.request("pause", {"threadId": thread_id})
        stop = client.wait_stopped("pause")
        seconds = time.time() - begin
        self.assertLess(seconds, kPauseSeconds * self.slowness())
        self.assertEqual(stop["threadId"], thread_id)
        self.assertTrue(stop["allThreadsStopped"])
        return self.shown(client, thread_id)

    def pause_at(self, place, client, thread_id=1):
        """Pause, as often as it takes: the program may be on its way there still."""
        while self.pause(client, thread_id) != place:
            client.resume(thread_id)

    @staticmethod
    def slowness():
        return 4 if hasattr(sys, "gettotalrefcount") else 2

    def shown(self, client, thread_id):
        """Innermost place in the program's own file."""
        for frame in client.stack(thread_id):
            if frame["source"].get("path") == self.path:
                return (str(frame["name"]), client.line_name(frame))

    def test_program_that_computes(self):
        client = self.start("""\
def turn(n):
    return n + 1
go = True
n = 0
os.write(int(sys.argv[1]), b"x")
while go:  #@ loop
    n = turn(n)
print(n > 10)  #@ after
""")
        for _ in range(3):
            self.assertIn(self.pause(client)[0], ("<module>", "turn"))
            client.resume(1)
        self.pause(client)
        self.assertEqual(client.stack(1)[-1]["name"], "<module>")
        # It is a real stop: a step goes where it goes, and variables can be changed.
        client.step("next", 1)
        bottom = client.stack(1)[-1]
        client.evaluate("globals().update(go=False)", bottom["id"], "repl")
        client.resume(1)
        self.assertEqual(client.wait_exit(), 0)

    def test_program_that_sleeps(self):
        client = self.start("""\
import time
def work(x):
    local = x
    os.write(int(sys.argv[1]), b"x")
    while local:
        time.sleep(600)  #@ sleep
    return local
work(5)
""")
        self.pause_at(("work", "sleep"), client)
        frame = client.stack(1)[0]
        self.assertEqual(client.locals_of(frame["id"])["local"], "5")
        self.assertEqual(client.evaluate("local * 2", frame["id"]), "10")
        self.assertIn("gone", client.refused("scopes", {"frameId": frame["id"] + 77}))
        client.request("pause", {"threadId": 1})  # again: nothing more to be said
        client.resume(1)
        self.assertIn("not stopped", client.refused("stackTrace", {"threadId": 1}))
        self.assertEqual(self.pause(client), ("work", "sleep"))
        client.request("disconnect", {"terminateDebuggee": True})
        self.assertNotEqual(client.wait_exit(), 0)

    kWaiting = """\
os.write(int(sys.argv[1]), b"x")
def wait():
    %s  #@ wait
    got = 1  #@ got
    return got
wait()
end = 1  #@ end
"""

    def check_step(self, what, prepare, release, **options):
        """Pause while it waits; a step ends behind the wait, as soon as that is over."""
        client = self.start(prepare + self.kWaiting % what, **options)
        self.pause_at(("wait", "wait"), client)
        client.request("next", {"threadId": 1})
        release(client)
        client.wait_stopped("step")
        self.assertEqual(client.place(1), ("wait", "got"))
        self.assertEqual(client.step("stepOut", 1), ("<module>", "end"))
        client.resume(1)
        self.assertEqual(client.wait_exit(), 0)

    def test_step_from_a_wait_for_input(self):
        import subprocess

        def release(client):
            client.process.stdin.write(b"text\n")
            client.process.stdin.flush()
        self.check_step("sys.stdin.readline()", "", release, stdin=subprocess.PIPE)

    def test_step_from_a_wait_for_a_socket(self):
        import socket

        listener = socket.socket()
        self.addCleanup(listener.close)
        listener.bind(("127.0.0.1", 0))
        listener.listen(1)
        kept = []

        def release(client):
            connected, _ = listener.accept()
            kept.append(connected)
            connected.sendall(b"x")
        self.check_step(
            "connected.recv(1)",
            "import socket\nconnected = socket.create_connection(('127.0.0.1', {}))\n".format(
                listener.getsockname()[1]), release)
        kept[0].close()

    def test_step_from_a_wait_for_a_lock(self):
        path = self.make_fifo()
        # The thread that releases it is held, too, until the program goes on.
        self.check_step("lock.acquire()", """\
import threading
lock = threading.Lock()
lock.acquire()
def free():
    with open({!r}): pass
    lock.release()
thread = threading.Thread(target=free)
thread.start()
""".format(path), lambda client: release(path))

    def test_step_from_native_code(self):
        path = self.make_fifo()
        self.check_step(
            "os.close(os.open({!r}, os.O_RDONLY))".format(path), "", lambda client: release(path))

    def test_step_in_and_out_from_a_wait(self):
        path = self.make_fifo()
        client = self.start("""\
def inner():
    return 1  #@ inner
def wait():
    os.close(os.open({!r}, os.O_RDONLY)); inner()  #@ wait
    return 2
os.write(int(sys.argv[1]), b"x")
for n in range(2):
    wait()  #@ call
end = 1  #@ end
""".format(path))
        self.pause_at(("wait", "wait"), client)
        client.request("stepIn", {"threadId": 1})
        release(path)
        client.wait_stopped("step")
        self.assertEqual(client.place(1), ("inner", "inner"))
        client.resume(1)
        self.pause_at(("wait", "wait"), client)
        client.request("stepOut", {"threadId": 1})
        release(path)
        client.wait_stopped("step")
        self.assertEqual(client.place(1)[0], "<module>")
        client.resume(1)
        self.assertEqual(client.wait_exit(), 0)

    def test_breakpoint_set_while_it_waits(self):
        path = self.make_fifo()
        client = self.start(self.kWaiting % "os.close(os.open({!r}, os.O_RDONLY))".format(path))
        answer = client.set_breakpoints(self.path, ["got"])
        self.assertTrue(answer[0]["verified"])
        self.pause_at(("wait", "wait"), client)
        client.set_breakpoints(self.path, ["got", "end"])
        client.resume(1)
        release(path)
        client.wait_stopped("breakpoint")
        self.assertEqual(client.place(1), ("wait", "got"))
        client.resume(1)
        client.wait_stopped("breakpoint")
        client.resume(1)
        self.assertEqual(client.wait_exit(), 0)

    def test_another_thread_than_the_main_one(self):
        path = self.make_fifo()
        client = self.start("""\
import threading
def work():
    os.write(int(sys.argv[1]), b"x")
    os.close(os.open({!r}, os.O_RDONLY))  #@ wait
    after = 1  #@ after
thread = threading.Thread(target=work, name="worker")
thread.start()
thread.join()
""".format(path))
        rows = client.request("threads")["threads"]
        number = [row["id"] for row in rows if row["name"] == "worker"][0]
        self.pause_at(("work", "wait"), client, number)
        client.request("next", {"threadId": number})
        release(path)
        stop = client.wait_stopped("step")
        self.assertEqual(stop["threadId"], number)
        self.assertEqual(client.place(number), ("work", "after"))
        client.resume(number)
        self.assertEqual(client.wait_exit(), 0)

    @needs("module:_interpreters")
    def test_interpreters_with_locks_of_their_own_run_on(self):
        """Their frames are not to be looked at."""
        end = os.path.join(self.make_dir(), "end")
        client = self.start("""
import _interpreters, threading, time
def work():
    _interpreters.exec(_interpreters.create("isolated"), '''
import os
def compute(n):
    return n if n < 2 else compute(n - 1) + compute(n - 2)
while not os.path.exists("{0}"):
    compute(14)
''')
threads = [threading.Thread(target=work) for _ in range(2)]
for thread in threads:
    thread.start()
os.write(int(sys.argv[1]), b"x")
while not os.path.exists("{0}"):
    time.sleep(0.001)
for thread in threads:
    thread.join()
""".format(end))
        for _ in range(20):
            client.request("pause", {"threadId": 1})
            thread = client.wait_stopped("pause")["threadId"]
            for row in client.request("threads")["threads"]:
                self.assertTrue(client.stack(row["id"]))
            client.resume(thread)
        open(end, "w").close()
        self.assertEqual(client.wait_exit(), 0)

    def test_continue_leaves_no_stop_behind(self):
        """A pause that is over, wherever it has got to, stops nothing later."""
        path = os.path.join(self.make_dir(), "end")
        client = self.start("""\
import time
os.write(int(sys.argv[1]), b"x")
while not os.path.exists({!r}):
    time.sleep(0.001)
""".format(path))
        for _ in range(12):
            self.pause(client)
            client.resume(1)
        with open(path, "w"):
            pass
        self.assertEqual(client.wait_exit(), 0)
        self.assertEqual(len(client.seen_events("stopped")), 12)

    def test_stuck_evaluation_does_not_end_the_session(self):
        client = self.start("""\
import time
def slow():
    time.sleep(600)
go = True
os.write(int(sys.argv[1]), b"x")
while go:
    n = 1
""")
        self.pause(client)
        frame = client.stack(1)[-1]
        begin = time.time()
        client.send("evaluate",
                    {"expression": "slow()", "frameId": frame["id"], "context": "watch"})
        self.assertEqual(client.evaluate("go", frame["id"]), "True")
        self.assertLess(time.time() - begin, 3 * self.slowness())
        self.assertEqual(len(client.stack(1)), 1)
        client.request("disconnect", {"terminateDebuggee": True})
        self.assertNotEqual(client.wait_exit(), 0)


class HoldingThread(TestCase):
    """The thread that holds the program, without a program."""

    class Lender(object):
        def __init__(self, acquired):
            self.acquired = acquired

        def switch_on(self):
            pass

        def acquire(self):
            self.acquired.release()
            return False  # as where the interpreter ends

    class Executor(object):
        is_serving = False

        def has_waiting(self):
            return True

    class Server(object):
        core = None

    def test_it_lasts_however_early_it_begins(self):
        """It is under way before the one that has started it takes its next step."""
        import threading

        from tdbg import pausing, threads

        acquired, original = threading.Semaphore(0), threads.start_own_thread
        server, executor = self.Server(), self.Executor()
        server.lender = self.Lender(acquired)
        holder = pausing.tHolder(server, executor, self.fail, self.fail)

        def start_and_let_run(function):
            self.assertTrue(original(function))
            self.assertTrue(wait_until(lambda: holder._thread not in (None, True)))
            return True

        threads.start_own_thread = start_and_let_run
        self.addCleanup(setattr, threads, "start_own_thread", original)
        for _ in range(3):
            holder.wake()
            self.assertTrue(wait_until(lambda: acquired.acquire(False)))
