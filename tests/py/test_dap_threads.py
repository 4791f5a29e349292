"""Threads through the protocol: names, begin and end, stacks, steps beside others,
tasks of asyncio."""
from __future__ import absolute_import, division, print_function

import subprocess
import sys

from support import TestCase
from support.dapclient import debug_directly

kOncePerVersion = True


class Threads(TestCase):
    def start(self, text, breakpoints, streams=None, **configuration):
        self.path = self.make_file("program.py", text)
        client = debug_directly(self, self.path, **(streams or {}))
        client.start_session(configuration, breakpoints={self.path: breakpoints})
        return client

    def number_of(self, client, name):
        rows = client.request("threads")["threads"]
        return [row["id"] for row in rows if row["name"] == name][0]

    kWorkers = """\
import sys, threading
ready = threading.Event()
go = threading.Condition()
def work(n):
    local = n
    with go:
        ready.set()
        go.wait()  #@ wait
    done = local
worker = threading.Thread(target=work, args=(7,), name="worker")
worker.start()
ready.wait()
with go:
    pass  # it waits
here = 1  #@ main
names = sorted(thread.name for thread in threading.enumerate())
count = threading.active_count()
with go:
    go.notify()  #@ go
worker.join()
print(names, count)  #@ end
sys.stdin.read()
"""

    def test_all_threads_are_shown_while_one_is_stopped(self):
        client = self.start(self.kWorkers, ["main"], {"stdin": subprocess.PIPE})
        stop = client.wait_stopped("breakpoint")
        self.assertTrue(stop["allThreadsStopped"])
        self.assertEqual(
            sorted(str(row["name"]) for row in client.request("threads")["threads"]),
            ["MainThread", "worker"])
        number = self.number_of(client, "worker")
        frames = client.stack(number)
        own = [frame for frame in frames if frame["name"] == "work"][0]
        self.assertEqual(client.line_name(own), "wait")
        self.assertEqual(client.locals_of(own["id"])["local"], "7")
        self.assertEqual(client.evaluate("local + 1", own["id"]), "8")
        self.assertEqual(frames[0]["presentationHint"], "subtle")  # of threading.py
        started = [event["threadId"] for event in client.seen_events("thread")
                   if event["reason"] == "started"]
        self.assertIn(number, started)
        # The debugger's own threads are nobody's.
        for _ in range(3):
            client.step("next", stop["threadId"])
        frame = client.stack(stop["threadId"], levels=1)[0]
        text = client.evaluate("(names, count)", frame["id"])
        self.assertEqual(text.replace("u'", "'"), "(['MainThread', 'worker'], 2)")
        client.resume(stop["threadId"])
        self.assertEqual(client.wait_event("thread",
                                           lambda body: body["reason"] == "exited")["threadId"],
                         number)
        client.process.stdin.close()
        self.assertEqual(client.wait_exit(), 0)

    def test_threads_that_begin_below_threading(self):
        client = self.start("""\
try:
    import _thread
except ImportError:
    import thread as _thread
lock = _thread.allocate_lock()
lock.acquire()
def work():
    x = 1  #@ work
    lock.release()
_thread.start_new_thread(work, ())
lock.acquire()
end = 1
""", ["work"])
        stop = client.wait_stopped("breakpoint")
        self.assertNotEqual(stop["threadId"], 1)
        self.assertEqual(client.place(stop["threadId"]), ("work", "work"))
        self.assertEqual(client.stack(1)[0]["name"], "<module>")
        client.resume(stop["threadId"])
        self.assertEqual(client.wait_exit(), 0)

    def test_step_stays_in_its_thread_and_the_second_stop_waits(self):
        client = self.start("""\
import threading
def work(n):
    a = n  #@ work
    b = a
    c = b  #@ later
threads = [threading.Thread(target=work, args=(n,)) for n in range(4)]
for thread in threads: thread.start()
for thread in threads: thread.join()
""", ["work"])
        seen = {}
        steps = 0
        # Every thread stops once at the breakpoint, and ends each of its two steps itself.
        while len(seen) < 4 or any(len(places) < 3 for places in seen.values()):
            stop = client.wait_stopped()
            number = stop["threadId"]
            place = client.place(number)
            seen.setdefault(number, []).append(place[1])
            steps += 1
            if len(seen[number]) < 3:
                client.request("next", {"threadId": number})
            else:
                client.resume(number)
        self.assertEqual(sorted(seen.values(), key=str), [["work", 4, "later"]] * 4)
        self.assertEqual(steps, 12)
        self.assertEqual(client.wait_exit(), 0)

    def test_step_of_a_thread_that_is_not_the_stopped_one(self):
        client = self.start("""\
import threading
begun = threading.Event()
go = threading.Event()
def work():
    begun.set()
    go.wait()  #@ wait
    after = 1  #@ after
worker = threading.Thread(target=work, name="worker")
worker.start()
begun.wait()
go.set()  #@ go
worker.join()
""", ["go"])
        client.wait_stopped("breakpoint")
        number = self.number_of(client, "worker")
        client.request("next", {"threadId": number})
        stop = client.wait_stopped("step")
        self.assertEqual(stop["threadId"], number)
        self.assertEqual(client.place(number)[0], "work")
        client.resume(number)
        self.assertEqual(client.wait_exit(), 0)

    def test_policy_by_name(self):
        client = self.start("""\
import threading
def work():
    x = 1  #@ work
for name in ("quiet-1", "loud"):
    thread = threading.Thread(target=work, name=name)
    thread.start()
    thread.join()
""", ["work"], threads={"rules": [{"name": "quiet*", "policy": "ignore"}]})
        stop = client.wait_stopped("breakpoint")
        self.assertEqual(stop["threadId"], self.number_of(client, "loud"))
        client.resume(stop["threadId"])
        self.assertEqual(client.wait_exit(), 0)
        self.assertEqual(len(client.seen_events("stopped")), 1)

    def test_deep_recursion_comes_in_pages(self):
        depth = 20000 if sys.version_info < (3, 11) else 100000
        client = self.start("""\
import sys, threading
sys.setrecursionlimit(10 ** 6)
threading.stack_size(1024 * 1024 * 1024 - 4096 if sys.maxsize > 2 ** 32 else 256 * 1024 * 1024)
def dive(n):
    if n:
        return dive(n - 1)
    return 0  #@ bottom
thread = threading.Thread(target=dive, args=({},))
thread.start()
thread.join()
""".format(depth), ["bottom"])
        stop = client.wait_stopped("breakpoint")
        number = stop["threadId"]
        body = client.request("stackTrace", {"threadId": number, "startFrame": 0, "levels": 20})
        self.assertEqual(len(body["stackFrames"]), 20)
        self.assertGreater(body["totalFrames"], depth)
        last = client.request("stackTrace", {
            "threadId": number, "startFrame": body["totalFrames"] - 5, "levels": 20})["stackFrames"]
        self.assertEqual(len(last), 5)
        middle = client.stack(number, startFrame=depth // 2, levels=1)[0]
        self.assertEqual(client.evaluate("n", middle["id"]), str(depth // 2))
        self.assertEqual(client.stack(number, startFrame=10 * depth, levels=3), [])
        self.assertLessEqual(len(client.stack(number)), 1000)  # it did not say how many
        self.assertIn("no such frames", client.refused(
            "stackTrace", {"threadId": number, "startFrame": -1}))
        client.request("disconnect", {"terminateDebuggee": True})
        client.wait_exit()

    def test_frame_names_as_the_client_wishes(self):
        client = self.start("def f():\n    return 1  #@ f\nf()\n", ["f"])
        number = client.wait_stopped()["threadId"]
        frame = client.stack(number, format={"module": True, "line": True})[0]
        self.assertEqual(frame["name"], "__main__.f:2")
        client.resume(number)
        self.assertEqual(client.wait_exit(), 0)

    def test_unknown_thread(self):
        client = self.start("x = 1  #@ x\n", ["x"])
        client.wait_stopped()
        for command in ("continue", "next", "stackTrace", "pause"):
            self.assertIn("no thread 99", client.refused(command, {"threadId": 99}))
            self.assertIn("threadId", client.refused(command, {"threadId": "1"}))
            self.assertIn("threadId", client.refused(command, None))
        client.resume(1)
        self.assertEqual(client.wait_exit(), 0)

    def test_tasks_of_asyncio(self):
        if sys.version_info < (3, 7):
            self.skipTest("has no asyncio.run()")
        client = self.start("""\
import asyncio
async def inner(event):
    await event.wait()  #@ wait
async def outer(event):
    await inner(event)  #@ outer
async def main():
    event = asyncio.Event()
    task = asyncio.ensure_future(outer(event))
    await asyncio.sleep(0)
    here = 1  #@ here
    event.set()
    await task
asyncio.run(main())
""", ["here"])
        stop = client.wait_stopped("breakpoint")
        tasks = client.request("tdbg/tasks", {"threadId": stop["threadId"]})["tasks"]
        self.assertEqual(len(tasks), 2)
        stacks = {}
        for task in tasks:
            stacks[str(task["state"])] = [
                (str(frame["name"]), client.line_name(frame)) for frame in task["stackFrames"]]
        self.assertEqual(stacks["running"], [("main", "here")])
        self.assertEqual(stacks["waiting"][-2:], [("inner", "wait"), ("outer", "outer")])
        waiting = [task for task in tasks if task["state"] == "waiting"][0]
        self.assertEqual(waiting["threadId"], stop["threadId"])
        outer = waiting["stackFrames"][-1]
        self.assertIn("event", client.locals_of(outer["id"]))
        client.resume(stop["threadId"])
        self.assertEqual(client.wait_exit(), 0)

    def test_no_tasks_without_asyncio(self):
        client = self.start("x = 1  #@ x\n", ["x"])
        client.wait_stopped()
        self.assertEqual(client.request("tdbg/tasks", {}), {"tasks": []})
        client.resume(1)
        self.assertEqual(client.wait_exit(), 0)

    def test_other_threads_run_on_when_they_may(self):
        client = self.start("""\
import threading
done = threading.Event()
go = threading.Event()
def work():
    go.wait()
    for n in range(100):
        x = n
    done.set()
worker = threading.Thread(target=work)
worker.start()
here = 1  #@ here
go.set()
worker.join()
""", ["here"], stopAllThreads=False)
        stop = client.wait_stopped("breakpoint")
        frame = client.stack(stop["threadId"], levels=1)[0]
        self.assertEqual(client.evaluate("go.set() or done.wait(30) or done.is_set()",
                                         frame["id"], "repl"),
                         "True")
        client.resume(stop["threadId"])
        self.assertEqual(client.wait_exit(), 0)
