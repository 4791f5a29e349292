"""Values that take long, and what waits for a thread that is held, in a session with a client."""
from __future__ import absolute_import, division, print_function

import os
import subprocess
import sys
import unittest

from support.dapclient import debug_directly
from support.dapframe import DapFrameTest

kOncePerVersion = True

PY2 = sys.version_info[0] == 2

SLOW = '''\
import sys
import threading
import time


class Sleeps(object):
    def __repr__(self):
        time.sleep(60)

    @property
    def value(self):
        time.sleep(60)


class Endless(object):
    def __repr__(self):
        while True:
            pass

    @property
    def value(self):
        while True:
            pass


class Exits(object):
    def __repr__(self):
        sys.exit(7)


class Raises(object):
    def __repr__(self):
        raise RuntimeError("never")


class Recurses(object):
    def __repr__(self):
        return repr(self)


class Odd(object):
    def __repr__(self):
        return 5


class Waits(object):
    @property
    def value(self):
        with LOCK:
            return "got it"


LOCK, HELD, DONE = threading.Lock(), threading.Event(), threading.Event()


class Naps(object):
    def __init__(self):
        self.inner = threading.Lock()
        self.inner.acquire()

    def __repr__(self):
        with self.inner:
            return "awake"

    def end(self):
        self.inner.release()


NAP = Naps()


def hold():
    with LOCK:
        HELD.set()
        DONE.wait()  #@ hold


def many():
    objects = [Raises() for _ in range(100)]
    slow = [Endless() for _ in range(100)]
    return objects, slow  #@ many


def main():
    thread = threading.Thread(target=hold)
    thread.start()
    HELD.wait()
    endless, raises, exits = Endless(), Raises(), Exits()
    recurses, odd, waits = Recurses(), Odd(), Waits()
    mixed = [1, endless, 2]
    long_text = "x" * 50000000
    sleeps = Sleeps()
    zero = 0
    DONE.set()  #@ stop
    thread.join()
    return many()


main()
print("ended")
'''


class Slow(DapFrameTest):
    def settled(self, found, name):
        """A row of its own, where all together have taken too long."""
        row = found[name]
        is_lazy = row.get("presentationHint", {}).get("lazy")
        return self.quick(self.opened, row)[name] if is_lazy else row

    def test_every_value_is_answered_within_its_time(self):
        self.start(SLOW, "stop", stdout=subprocess.PIPE)
        self.client.set_breakpoints(self.path, ["many"])
        found = self.quick(self.scope)
        for name, text in (
                ("endless", "<Endless object: repr takes too long>"), ("zero", "0"),
                ("raises", "<Raises object: repr failed: RuntimeError: never>"),
                ("exits", "<Exits object: repr failed: SystemExit: 7>"),
                ("sleeps", "<Sleeps object: repr takes too long>")):
            self.assertEqual(self.settled(found, name)["value"], text)
        self.assertRegex(self.settled(found, "mixed")["value"],
                         "^\\[1, <.*Endless object.*>, 2\\]$")
        self.assertIn("repr failed: ", self.settled(found, "recurses")["value"])
        self.assertIn("TypeError", self.settled(found, "odd")["value"])
        self.assertIn("50000000", found["long_text"]["value"])
        self.assertLess(len(found["long_text"]["value"]), 1100)
        self.assertEqual(self.quick(self.result, "zero + 1"), "1")
        for name in ("endless", "waits", "sleeps"):
            row = self.settled(found, name)
            lazy = self.quick(self.opened, row)["value"]
            self.assertTrue(lazy["presentationHint"]["lazy"])
            rows = self.quick(self.rows, lazy["variablesReference"])
            self.assertEqual([row["value"] for row in rows], ["<takes too long>"])
        self.assertIn("takes too long", self.quick(self.refused, "sleeps.value"))
        self.assertIn("too long", self.quick(self.refused, "endless.value").lower())
        self.assertEqual(self.quick(self.result, "zero"), "0")
        if not PY2:  # whose locks cannot be interrupted: the thread waits for itself
            self.client.resume(self.thread)
            self.stop_here()
            self.client.resume(self.thread)
            self.assertEqual(self.client.wait_exit(), 0)

    def test_many_bad_values(self):
        self.start(SLOW, "many",
                   arguments={"valueLimits": {"timeMs": 50, "items": 10, "string": 50}})
        found = self.scope()
        rows = self.quick(self.rows, found["objects"]["variablesReference"])
        self.assertEqual(set(row["value"] for row in rows),
                         set(["<Raises object: repr failed: RuntimeError: never>"]))
        rows = self.quick(self.rows, found["slow"]["variablesReference"])
        self.assertEqual(len(rows), 100)
        self.assertEqual(set(row["value"] for row in rows),
                         set(["<Endless object: repr takes too long>"]))
        lazy = [row for row in rows if row.get("presentationHint", {}).get("lazy")]
        self.assertGreater(len(lazy), 50)
        again = self.quick(self.rows, lazy[0]["variablesReference"])
        self.assertEqual([row["value"] for row in again], ["<Endless object: repr takes too long>"])
        self.assertEqual(self.result("'y' * 60"),
                         "'" + "y" * 50 + "...' (60 {})".format("bytes" if PY2 else "characters"))
        self.assertEqual(self.result("list(range(20))"), "[0, 1, 2, 3, 4, 5, 6, 7, 8, 9, ...]")

    def test_thread_that_cannot_be_interrupted(self):
        """Native code that waits in a thread other than the main one: a worker takes over."""
        self.start(SLOW, "hold", stdout=subprocess.PIPE)
        self.assertNotEqual(self.client.stack(self.thread)[-1]["name"], "<module>")
        found = self.quick(self.scope, "Globals")
        self.assertEqual(found["NAP"]["value"], "<Naps object: repr takes too long>")
        self.assertEqual(found["LOCK"]["value"][:1], "<")
        self.assertEqual(self.quick(self.result, "1 + 1", "watch"), "2")
        self.quick(self.result, "NAP.end()")
        self.client.resume(self.thread)
        self.assertEqual(self.client.wait_exit(), 0)

    def test_console_can_be_interrupted(self):
        self.start(SLOW, "stop", stdout=subprocess.PIPE)
        for text in ("while True:\n    pass", "time.sleep(60)"):
            number = self.client.send("evaluate", {"expression": text, "context": "repl",
                                                   "frameId": self.frame})
            self.assertEqual(self.quick(self.result, "1 + 1", "watch"), "2")  # by another thread
            self.client.request("cancel", {"requestId": number})
            answer = self.client.response_to(number)
            self.assertEqual((answer["success"], answer["message"]), (False, "cancelled"))
        self.assertEqual(self.result("zero"), "0")
        number = self.client.send("evaluate", {"expression": "while True: pass", "context": "repl",
                                               "frameId": self.frame})
        self.assertEqual(self.quick(self.result, "1 + 1", "watch"), "2")  # it has begun
        self.client.resume(self.thread)
        self.assertFalse(self.client.response_to(number)["success"])
        self.assertEqual(self.client.wait_exit(), 0)


WAITING = '''\
from __future__ import print_function
import sys
import threading
import time
try:
    import queue
except ImportError:
    import Queue as queue

ASKED, FED, LOCK, END = [], queue.Queue(), threading.Lock(), []


def ask():
    """Only another thread can answer."""
    ASKED.append(1)
    return FED.get()


def feed():
    while not END:
        if ASKED:
            ASKED.pop()
            FED.put("fed")  #@ fed
        time.sleep(0.001)


class Asks(object):
    @property
    def value(self):
        return ask()

    def __repr__(self):
        return ask()

    @property
    def loud(self):
        print("loud")
        sys.stdout.flush()
        if sys.argv.pop() != "fed":  # the first time
            open(sys.argv[0] + ".fifo").close()
        sys.argv.append("fed")
        return "fed"


def work(asks):
    here = 1  #@ stop
    there = 2  #@ next
    return here + there  #@ last


feeder = threading.Thread(target=feed, name="feeder")
feeder.daemon = True
feeder.start()
if sys.argv[1] == "main":
    work(Asks())
else:
    worker = threading.Thread(target=work, args=(Asks(),), name="worker")
    worker.daemon = True
    worker.start()
    while worker.is_alive():
        time.sleep(0.001)
while ASKED:
    time.sleep(0.001)
END.append(1)
feeder.join()
print("ended")
'''


class Waiting(DapFrameTest):
    """What is evaluated waits for a thread that is held because the program is stopped."""

    def start_in(self, thread, mark="stop", place=None, **options):
        """Stop in `work`, in the thread "main" or "worker"."""
        self.path = self.make_file("main.py", WAITING, os.path.realpath(self.make_dir()))
        os.mkfifo(self.path + ".fifo")
        self.client = debug_directly(self, self.path, [thread], stdout=subprocess.PIPE, **options)
        self.client.start_session({}, breakpoints={self.path: [place or mark]})
        return self.stop_here() if place is None else None

    def number_of(self, name):
        rows = self.client.request("threads")["threads"]
        return [row["id"] for row in rows if row["name"] == name][0]

    def check_end(self, stops, also=None):
        """The program ends in peace; everything was told once."""
        self.assertEqual(self.client.wait_exit(), 0)
        words = self.client.process.stdout.read().decode().split()
        self.assertEqual([word for word in words if word != also], ["ended"])
        self.assertEqual(len(self.client.seen_events("stopped")), stops)
        answers = [message["request_seq"] for message in self.client.messages
                   if message["type"] == "response"]
        self.assertEqual(sorted(set(answers)), sorted(answers))

    def check_requests(self):
        """Every kind that runs code of the program, and others afterwards."""
        row = self.quick(self.scope)["asks"]
        if row.get("presentationHint", {}).get("lazy"):
            row = self.quick(self.opened, row)["asks"]
        self.assertEqual(row["value"], "<Asks object: repr takes too long>")
        rows = self.quick(self.rows, self.opened(row)["value"]["variablesReference"])
        self.assertEqual([row["value"] for row in rows], ["<takes too long>"])
        self.assertIn("too long", self.quick(self.refused, "ask()"))
        self.quick(self.refused, "ask()", "hover")
        self.assertEqual(self.quick(self.result, "1 + 1", "watch"), "2")
        self.assertEqual(self.client.place(self.thread), ("work", "stop"))

    def test_main_thread(self):
        self.start_in("main")
        self.check_requests()
        self.client.set_breakpoints(self.path, ["fed"])
        thread = self.thread
        self.client.resume(thread)
        self.stop_here()
        self.assertEqual(self.client.place(self.thread), ("feed", "fed"))
        self.assertEqual(self.thread, self.number_of("feeder"))
        self.assertEqual(self.result("len(FED.queue)", "watch"), "0")
        self.client.set_breakpoints(self.path, [])
        self.client.resume(self.thread)
        self.check_end(2)

    def test_another_thread(self):
        self.start_in("worker")
        self.assertEqual(self.thread, self.number_of("worker"))
        # The console has no limit, but tells what can only be in vain.
        self.assertIn(
            "waits for another thread", self.quick(self.refused, "got = FED.get()", "repl"))
        self.assertEqual(self.quick(self.result, "1 + 1", "watch"), "2")
        self.client.resume(self.thread)
        text = self.client.wait_event("output", lambda body: "still" in body["output"])["output"]
        self.assertIn("`got = FED.get()` is still being evaluated in the thread worker", text)
        worker = self.thread
        # The others run: one of them can be paused, and the one that waits can be told to step.
        self.client.request("pause", {"threadId": 1})
        self.stop_here("pause")
        self.assertEqual(self.thread, 1)
        names = [frame["name"] for frame in self.client.stack(worker)]
        self.assertIn("get", names)
        self.assertIn("work", names)
        self.assertEqual(self.result("ASKED.append(1)", frameId=None), "")
        self.client.request("next", {"threadId": worker})
        self.stop_here("step")
        self.assertEqual(self.thread, worker)
        self.assertEqual(self.client.place(worker), ("work", "next"))
        self.assertEqual(self.result("got", "watch"), "'fed'")
        self.client.resume(worker)
        self.check_end(3)

    def test_step_and_leave(self):
        self.start_in("worker")
        self.assertIn("waits for another", self.quick(self.refused, "ask()", "repl"))
        self.client.request("next", {"threadId": self.thread})
        worker = self.thread
        self.stop_here("step")
        self.assertEqual((self.thread, self.client.place(worker)), (worker, ("work", "next")))
        self.client.wait_event("output", lambda body: "`ask()`: 'fed'" in body["output"])
        number = self.client.send(
            "evaluate", {"expression": "ask()", "context": "repl", "frameId": self.frame})
        self.assertEqual(self.quick(self.client.response_to, number)["success"], False)
        self.client.request("disconnect", {"terminateDebuggee": False})
        self.check_end(2)

    def test_terminate(self):
        self.start_in("worker")
        self.assertIn("too long", self.quick(self.refused, "FED.get()"))
        self.client.request("terminate")
        self.assertNotEqual(self.client.wait_exit(), 0)

    def test_condition_and_log_point(self):
        """Nobody has told the program to stop: so the others run on."""
        for thread in ("main", "worker"):
            self.start_in(thread, place={"line": "stop", "condition": "ask() == 'fed'"})
            self.stop_here()
            self.assertEqual(self.client.place(self.thread), ("work", "stop"))
            self.client.set_breakpoints(self.path, [
                {"line": "next", "logMessage": "got {ask()}"}, "last",
                {"line": "fed", "condition": "feeder is None"}])
            self.client.resume(self.thread)
            self.stop_here()
            self.assertEqual(self.client.place(self.thread), ("work", "last"))
            texts = [body["output"] for body in self.client.seen_events("output")]
            self.assertEqual([text for text in texts if text.startswith("got")], ["got fed\n"])
            self.client.resume(self.thread)
            self.check_end(2)

    def test_condition_that_the_core_evaluates(self):
        """It does not tell before it knows; but the program can be paused."""
        self.start_in("worker", place={"line": "stop", "condition": "asks.loud == 'fed'"})
        output = self.client.process.stdout
        self.assertEqual(output.readline(), b"loud\n")
        self.client.request("pause", {"threadId": 1})
        self.stop_here("pause")
        self.assertEqual(self.client.stack(1)[-1]["name"], "<module>")
        self.assertEqual(self.result("1 + 1", "watch"), "2")
        self.client.resume(1)
        open(self.path + ".fifo", "w").close()
        self.stop_here()
        self.assertEqual(self.client.place(self.thread), ("work", "stop"))
        self.client.resume(self.thread)
        self.check_end(2, also="loud")  # where the condition was evaluated again at the stop


if __name__ == "__main__":
    unittest.main()
