"""Free-threaded builds: many threads traced at once, with the interpreter's lock on and off."""
from __future__ import absolute_import, division, print_function

import json
import os
import sys
import threading

from support import TestCase, needs, time_limit
from support.dapclient import debug_directly, launch_through_adapter
from support.programs import run_script
from support.terminal import run_commands
from support.tracing import Session, ThreadSession, import_debuggee

steps = import_debuggee("steps")
kStress = os.path.join(os.path.dirname(os.path.dirname(os.path.abspath(__file__))), "support",
                       "threadstress.py")
kRounds = 20000  # a minute and more

LOCK = """\
import sys
lock = sys._is_gil_enabled()  #@ asked
sys.exit(3 + lock)
"""

CROWD = """\
import threading

def meet(number, turn):
    return number * 100 + turn  #@ meeting

def work(number):
    for turn in range(kTurns):
        results[number].append(meet(number, turn))

kThreads, kTurns = 8, 3
results = [[] for _ in range(kThreads)]
threads = [threading.Thread(target=work, args=(number,)) for number in range(kThreads)]
for thread in threads:
    thread.start()
for thread in threads:
    thread.join()
assert results == [[number * 100 + turn for turn in range(kTurns)] for number in range(kThreads)]
"""


def is_lock_on():
    return getattr(sys, "_is_gil_enabled", lambda: True)()


class Lock(TestCase):
    @needs("free_threaded")
    def test_importing_the_library_switches_it_on_unless_that_is_forbidden(self):
        Session()
        self.assertEqual(is_lock_on(), os.environ.get("PYTHON_GIL") != "0")


class RecursionLimit(TestCase):
    @needs("free_threaded")
    def test_without_the_lock_no_other_thread_sees_the_debuggers_headroom(self):
        limit, inside, depths = sys.getrecursionlimit(), [], []

        def depth_reached(depth=0):
            try:
                return depth_reached(depth + 1)
            except RecursionError:
                return depth

        def look(frame):
            inside.append(sys.getrecursionlimit())
            depths.append(depth_reached())
            session.tracer.step_into()

        def program(stop):
            depths.append(depth_reached())
            stop()
            return depth_reached()

        session = Session()
        after = session.run(program, look)
        self.assertEqual(inside, [limit + (50 if is_lock_on() else 0)])
        self.assertGreater(depths[1], depths[0] + 20)
        self.assertEqual((after, sys.getrecursionlimit()), (depths[0], limit))


def reach(session, reached):
    """Some events of a traced thread."""
    steps.add(1, 2)
    reached.append(1)
    sys.settrace(None)
    session.tracer.thread_exiting()


class Threads(TestCase):
    def test_a_call_of_the_server_does_not_keep_others_from_their_events(self):
        """A callback that waits for another thread without ever leaving Python code to wait in."""
        session = ThreadSession()
        session.tracer.set_debug_all_threads(0)
        reached = []
        thread = threading.Thread(target=reach, args=(session, reached))

        def in_stop(frame):
            thread.start()
            while not reached:
                pass
            thread.join()

        def program(stop):
            stop()
            return steps.add(1, 2)

        self.assertEqual(session.run(program, in_stop), 3)
        self.assertEqual(reached, [1])

    def test_an_import_does_not_keep_others_from_their_events(self):
        session = ThreadSession()
        reached = []

        def imports(*_, **__):
            thread.start()
            while not reached:
                pass
            return sys

        thread = threading.Thread(target=reach, args=(session, reached))
        tracer = session.tracer
        builtins = sys.modules.get("builtins") or sys.modules["__builtin__"]
        real = builtins.__import__

        def program(stop):
            tracer.init(0.0, 0, session.thread_hooks_cb, session.checksum_cb, session.idle_cb,
                        session.line_cb, session.return_cb, session.exception_cb, session.quit_cb,
                        None, imports, {})
            tracer.__import__("anything")

        try:
            session.run(program)
        finally:
            builtins.__import__ = real
        thread.join()
        self.assertEqual(reached, [1])

    def test_the_list_of_threads_holds_the_living(self):
        session = ThreadSession()
        ready, go = threading.Event(), threading.Event()
        ids = []

        def target():
            ids.append(session.tracer.get_current_tstate_id())
            ready.set()
            go.wait()
            steps.add(1, 2)

        thread = threading.Thread(target=target)
        tracer = session.tracer

        def program(stop):
            thread.start()
            ready.wait()
            during = tracer.get_threads()
            tracer.get_curr_frame(ids[0])
            go.set()
            thread.join()
            return during

        during = session.run(program)
        self.assertIn(ids[0], during)
        self.assertIn(tracer.get_current_tstate_id(), during)
        while thread.ident in sys._current_frames():
            pass
        self.assertNotIn(ids[0], tracer.get_threads())
        self.assertRaises(IndexError, tracer.get_curr_frame, ids[0])


class Stress(TestCase):
    @needs("free_threaded")
    @time_limit(900)
    def test_eight_threads_at_once(self):
        ended = run_script(kStress, str(kRounds), seconds=850)
        self.assertEqual(ended.status, 0, ended)
        counts = json.loads(ended.out.splitlines()[-1])
        self.assertEqual(counts["overlaps"], 0)
        self.assertGreaterEqual(counts["threads"], 8)
        self.assertGreater(counts["stops"], 100)
        self.assertEqual(counts["free"], os.environ.get("PYTHON_GIL") == "0")


@needs("free_threaded")
class FrontEnds(TestCase):
    """Who forbids the lock gets no lock from the debugger either."""

    def test_adapter_hands_on_how_the_lock_is(self):
        path = self.make_file("prog.py", LOCK)
        for more, lock in (
                ({"env": {"PYTHON_GIL": "0"}}, 0),
                ({"pythonArgs": ["-X", "gil=0"], "env": {"PYTHON_GIL": None}}, 0),
                ({"pythonArgs": ["-X", "gil=1"], "env": {"PYTHON_GIL": None}}, 1)):
            client, _ = launch_through_adapter(self, path, more, breakpoints={path: ["asked"]})
            thread = client.wait_stopped("breakpoint")["threadId"]
            frame = client.stack(thread)[0]["id"]
            self.assertEqual(client.evaluate("int(sys._is_gil_enabled())", frame), str(lock))
            self.assertEqual(client.step("next", thread), ("<module>", 3))
            client.resume(thread)
            self.assertEqual(client.wait_event("exited")["exitCode"], 3 + lock)

    def test_terminal_hands_on_how_the_lock_is(self):
        path = self.make_file("prog.py", LOCK)
        for number in "01":
            done = run_commands(["next", "p lock", "continue"], path, env={"PYTHON_GIL": number})
            self.assertEqual(done.status, 3 + int(number), done)

    def test_stops_of_many_threads_come_one_at_a_time(self):
        path = self.make_file("prog.py", CROWD)
        client = debug_directly(self, path)
        client.start_session(breakpoints={path: ["meeting"]})
        seen = []
        for number in range(8 * 3):
            stop = client.wait_stopped("breakpoint")
            frame = client.stack(stop["threadId"])[0]
            values = client.locals_of(frame["id"])
            seen.append((values["number"], values["turn"]))
            # no second one meanwhile
            self.assertEqual(len(client.seen_events("stopped")), number + 1)
            client.resume(stop["threadId"])
        self.assertEqual(client.wait_exit(), 0)
        self.assertEqual(sorted(seen),
                         [(str(number), str(turn)) for number in range(8) for turn in range(3)])


if __name__ == "__main__":
    import unittest
    unittest.main()
