"""A session from its first to its last message: order, refusals, the end in every way."""
from __future__ import absolute_import, division, print_function

import json
import os
import signal
import subprocess
import sys
import threading
import time
import unittest

from support import TestCase
from support.dapclient import client_of_socket, debug_directly


class Session(TestCase):
    def launch(self, text, **streams):
        self.path = self.make_file("program.py", text)
        return debug_directly(self, self.path, **streams)

    # --- beginning ---

    def test_order_of_the_beginning(self):
        client = self.launch("print('out')\n", stdout=subprocess.PIPE)
        client.initialize()
        started = client.send("launch", {"program": self.path})
        client.wait_event("initialized")
        self.assertFalse(client.has_response_to(started))
        client.request("setBreakpoints", {"source": {"path": self.path}, "breakpoints": []})
        client.request("configurationDone")
        self.assertTrue(client.response_to(started)["success"])
        process = client.wait_event("process")
        self.assertEqual(process["systemProcessId"], client.process.pid)
        self.assertEqual(process["startMethod"], "launch")
        self.assertEqual(client.process.stdout.read(), b"out\n")
        self.assertEqual(client.wait_exit(), 0)
        order = [message.get("event") or message["command"] for message in client.messages]
        self.assertEqual(order, [
            "initialize", "initialized", "setBreakpoints", "configurationDone",
            "launch", "process"])
        self.assertEqual([message["seq"] for message in client.messages],
                         list(range(1, len(client.messages) + 1)))

    def test_configuration_before_launch(self):
        client = self.launch("x = 1\n")
        client.initialize()
        client.request("configurationDone")
        self.assertIn("once", client.refused("configurationDone"))
        self.assertIn("once", client.refused("initialize", {}))
        client.request("launch", {"stopOnEntry": True})
        client.wait_stopped("entry")
        self.assertIn("already", client.refused("launch", {}))
        client.resume(1)
        self.assertEqual(client.wait_exit(), 0)

    def test_breakpoint_at_the_first_line(self):
        client = self.launch("x = 1\ny = 2\n")
        client.start_session({}, breakpoints={self.path: [1]})
        stop = client.wait_stopped("breakpoint")
        self.assertEqual(len(stop["hitBreakpointIds"]), 1)
        self.assertEqual(client.place(1), ("<module>", 1))
        self.assertEqual(client.step("next", 1), ("<module>", 2))
        client.resume(1)
        self.assertEqual(client.wait_exit(), 0)

    def test_no_debug(self):
        client = self.launch("import sys\nsys.exit(0 if sys.gettrace() is None else 1)\n")
        client.start_session({"noDebug": True, "stopOnEntry": True})
        self.assertEqual(client.wait_exit(), 0)
        self.assertEqual(client.seen_events("stopped"), [])

    def test_unknown_setting_is_told_once(self):
        client = self.launch("x = 1\n")
        client.start_session({"colour": "red", "cwd": None, "env": ""})
        self.assertEqual(client.wait_exit(), 0)
        texts = [body["output"] for body in client.seen_events("output")]
        self.assertEqual(len(texts), 1)
        self.assertIn("colour", texts[0])

    def test_wrong_setting_refuses_the_launch(self):
        client = self.launch("x = 1\n")
        client.initialize()
        self.assertIn("stopOnEntry", client.refused("launch", {"stopOnEntry": "yes"}))
        client.start_session({"stopOnEntry": True})
        client.wait_stopped("entry")
        client.resume(1)
        self.assertEqual(client.wait_exit(), 0)

    # --- robustness ---

    def test_whatever_comes_is_answered(self):
        client = self.launch("x = 1\ny = 2\n")
        self.assertIn("first request", client.refused("threads"))
        self.assertIn("unknown request", client.refused("flyToTheMoon", {"x": 1}))
        client.start_session({"stopOnEntry": True})
        client.wait_stopped("entry")
        self.assertIn("unknown request", client.refused(u"fl\u00fcgel \U0001f985"))
        self.assertIn("must be an object", client.refused("threads", [1, 2]))
        self.assertIn("must be a whole number", client.refused("scopes", {"frameId": {}}))
        self.assertIn("missing", client.refused("scopes", {"frameId": None}))
        seq = client.send_message({"type": "request"})
        self.assertFalse(client.response_to(seq)["success"])
        seq = client.send_message({"type": "request", "command": {"a": 1}})
        self.assertFalse(client.response_to(seq)["success"])
        seq = client.send_message({"type": "answer", "command": "x"})
        self.assertFalse(client.response_to(seq)["success"])
        client.send_message({"type": "response", "request_seq": [1], "success": "perhaps"})
        for body in (b"{", b"[]", b"\xff\xfe", b'{"seq": NaN}'):
            client.send_bytes(b"Content-Length: " + str(len(body)).encode() + b"\r\n\r\n" + body)
        # arguments null, and without any
        self.assertEqual(len(client.response_to(client.send_message(
            {"type": "request", "command": "threads", "arguments": None}))["body"]["threads"]), 1)
        self.assertEqual(len(client.request("threads")["threads"]), 1)
        bad = [message for message in client.messages
               if message["type"] == "response" and message["request_seq"] == 0]
        self.assertEqual([message["success"] for message in bad], [False] * 4)
        client.resume(1)
        self.assertEqual(client.wait_exit(), 0)

    def test_many_at_once_split_and_merged(self):
        client = self.launch("x = 1\ny = 2\n")
        client.start_session({"stopOnEntry": True})
        client.wait_stopped("entry")
        data = b""
        for number in range(1000, 1100):
            body = json.dumps({"seq": number, "type": "request", "command": "threads"}).encode()
            data += b"Content-Length: " + str(len(body)).encode() + b"\r\n\r\n" + body
        for start in range(0, 300, 7):
            client.send_bytes(data[start:start + 7])
        client.send_bytes(data[301:])
        for number in range(1000, 1100):
            self.assertTrue(client.response_to(number)["success"])
        client.resume(1)
        self.assertEqual(client.wait_exit(), 0)

    def test_handler_that_fails(self):
        client = self.launch("x = 1\ny = 2\n")
        client.start_session({"stopOnEntry": True})
        client.wait_stopped("entry")
        self.assertTrue(client.refused("setBreakpoints",
                                       {"source": {"path": u"\0"}, "breakpoints": [{}]}))
        self.assertTrue(client.refused("setBreakpoints", {"source": 1, "breakpoints": 2}))
        client.resume(1)
        self.assertEqual(client.wait_exit(), 0)

    def test_requests_for_a_stopped_program_while_it_runs(self):
        client = self.launch("import sys\nsys.stdin.read()\n", stdin=subprocess.PIPE)
        client.start_session({})
        for command, arguments in (
                ("next", {"threadId": 1}), ("continue", {"threadId": 1}),
                ("stackTrace", {"threadId": 1}), ("tdbg/tasks", {}),
                ("gotoTargets", {"source": {"path": self.path}, "line": 1})):
            self.assertIn("not stopped", client.refused(command, arguments))
        client.process.stdin.close()
        self.assertEqual(client.wait_exit(), 0)

    def test_cancelled_request(self):
        client = self.launch("x = 1\ny = 2\n")
        client.start_session({"stopOnEntry": True})
        client.wait_stopped("entry")
        frame = client.stack(1)[0]["id"]
        slow = client.send("evaluate", {
            "expression": "__import__('time').sleep(0.4)", "frameId": frame, "context": "repl"})
        second = client.send("evaluate",
                             {"expression": "1 + 1", "frameId": frame, "context": "repl"})
        client.request("cancel", {"requestId": second})
        self.assertIn("cancelled", client.response_to(second)["message"])
        self.assertTrue(client.response_to(slow)["success"])
        client.resume(1)
        self.assertEqual(client.wait_exit(), 0)

    # --- the end ---

    kLoop = """\
import os, sys
def turn(n):
    return n + 1
n = 0
while not os.path.exists(sys.argv[1]):
    n = turn(n)  #@ loop
sys.exit(7 if sys.gettrace() is None else 8)
"""

    def test_disconnect_leaves_the_program_alone(self):
        self.path = self.make_file("program.py", self.kLoop)
        end = os.path.join(self.make_dir(), "end")
        for stopped in (False, True):
            client = debug_directly(self, self.path, [end])
            client.start_session({}, breakpoints={self.path: ["loop"] if stopped else []})
            if stopped:
                client.wait_stopped("breakpoint")
            client.request("disconnect", {"terminateDebuggee": False})
            client.wait_end()
            open(end, "w").close()
            self.assertEqual(client.wait_exit(), 7)
            os.remove(end)

    def test_disconnect_from_a_held_program(self):
        client = self.launch(
            "import sys\ndef trace():\n    return sys.gettrace()\n"
            "sys.stdin.read()\nsys.exit(7 if trace() is None else 8)\n", stdin=subprocess.PIPE)
        client.start_session({})
        client.request("pause", {"threadId": 1})
        client.wait_stopped("pause")
        client.request("disconnect", {"terminateDebuggee": False})
        client.wait_end()
        client.process.stdin.close()
        self.assertEqual(client.wait_exit(), 7)

    def test_disconnect_ends_a_launched_program(self):
        client = self.launch("import time\nwhile True: time.sleep(0.01)\n")
        client.start_session({})
        client.request("disconnect", {})
        self.assertEqual(client.wait_exit(), -signal.SIGTERM)

    def test_launched_program_ends_with_its_client(self):
        for stopped in (False, True):
            client = self.launch("import time\nwhile True: time.sleep(0.01)\n")
            client.start_session({"stopOnEntry": stopped})
            if stopped:
                client.wait_stopped("entry")
            client.close()
            self.assertEqual(client.wait_exit(), -signal.SIGTERM)

    def test_launched_program_that_is_deaf_to_signals_ends_with_its_client(self):
        client = self.launch("""\
import signal, time
signal.signal(signal.SIGTERM, signal.SIG_IGN)
ready = 1  #@ ready
while True: time.sleep(0.01)
""")
        client.start_session({"killTimeout": 0.2}, breakpoints={self.path: ["ready"]})
        client.wait_stopped("breakpoint")
        client.close()
        self.assertEqual(client.wait_exit(), -signal.SIGKILL)

    kTidy = """\
import sys, time
try:
    ready = 1  #@ ready
    while True:
        time.sleep(600 if len(sys.argv) > 1 else 0)
except KeyboardInterrupt:
    print("tidy")  #@ tidy
    sys.exit(5)
"""

    def interrupt(self, stopped):
        self.path = self.make_file("program.py", self.kTidy)
        for arguments in ([], ["sleep"]):
            client = debug_directly(self, self.path, arguments, stdout=subprocess.PIPE)
            client.start_session({}, breakpoints={self.path: ["ready", "tidy"]})
            client.wait_stopped("breakpoint")
            if not stopped:
                client.set_breakpoints(self.path, [])
                client.resume(1)
            client.request("terminate")
            self.assertEqual(client.process.stdout.read(), b"tidy\n")
            self.assertEqual(client.wait_exit(), 5)

    def test_terminate_interrupts_the_program(self):
        self.interrupt(stopped=True)

    @unittest.skipIf(sys.version_info[0] == 2, "version 2 misses an interrupt now and then")
    def test_terminate_interrupts_the_program_while_it_runs(self):
        self.interrupt(stopped=False)

    def test_interrupt_that_a_waiting_thread_has_not_seen_is_sent_again(self):
        """Not to one that has gone on since."""
        from tdbg import compat
        from tdbg.dap import lifecycle

        main, sent, reading = compat.get_ident(), [], os.pipe()[0]

        def interrupt():
            sent.append(lifecycle.interrupt_again_at(main, (0, 0)))
            while not lifecycle.interrupt_again_at(main, lifecycle._place_of(main)):
                pass  # until it reads

        thread = threading.Thread(target=interrupt)
        with self.assertRaises(KeyboardInterrupt):
            thread.start()
            os.read(reading, 1)
        thread.join()
        self.assertEqual(sent, [False])

    def test_terminate_by_signal(self):
        client = self.launch("import time\nwhile True: time.sleep(0.01)\n")
        client.start_session({"onTerminate": "SIGTERM"})
        client.request("terminate")
        self.assertEqual(client.wait_exit(), -signal.SIGTERM)

    def test_interrupt_while_it_is_stopped_reaches_the_program(self):
        self.path = self.make_file("program.py", self.kTidy)
        client = debug_directly(self, self.path, stdout=subprocess.PIPE)
        client.start_session({}, breakpoints={self.path: ["ready"]})
        client.wait_stopped("breakpoint")
        os.kill(client.process.pid, signal.SIGINT)
        self.assertEqual(len(client.stack(1)), 1)
        client.resume(1)
        self.assertEqual(client.process.stdout.read(), b"tidy\n")
        self.assertEqual(client.wait_exit(), 5)

    def test_exit_status_and_output_are_the_programs(self):
        client = self.launch(
            "import sys\nsys.stderr.write('err\\n')\nsys.stdout.write('out\\n')\nsys.exit(3)\n",
            stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        client.start_session({})
        out, err = client.process.communicate()
        self.assertEqual((out, err, client.process.returncode), (b"out\n", b"err\n", 3))

    def test_threads_of_the_debugger_do_not_keep_the_program(self):
        """A program whose last act is to fork, to exec or to end in a thread just does it."""
        client = self.launch("""\
import os, sys, threading
child = os.fork()
if not child:
    total = sum(n for n in range(10))
    os._exit(total)
_, status = os.waitpid(child, 0)
thread = threading.Thread(target=sys.exit)
thread.start()
thread.join()
sys.exit(os.WEXITSTATUS(status))
""")
        client.start_session({}, breakpoints={self.path: [4]})
        self.assertEqual(client.wait_exit(), 45)
        self.assertEqual(client.seen_events("stopped"), [])

    # --- detach and attach again ---

    def test_attach_again(self):
        self.path = self.make_file("program.py", self.kLoop)
        end = os.path.join(self.make_dir(), "end")
        port, process = self.serve(self.path, end)
        for turn in range(3):
            client = self.connect(port)
            client.start_session({}, "attach", breakpoints={self.path: ["loop"]})
            client.wait_stopped("breakpoint")
            self.assertEqual(client.place(1), ("<module>", "loop"))
            self.assertEqual(client.step("stepIn", 1), ("turn", 3))
            if turn == 1:
                client.close()  # without a word
            else:
                client.request("disconnect", {})
                client.wait_end()
        open(end, "w").close()
        self.assertEqual(process.wait(), 7)

    def serve(self, *argv):
        from support.dapclient import PACKAGE
        from support.library import library_path

        port = self.free_port()
        process = subprocess.Popen(
            [sys.executable, PACKAGE, "serve", "--listen", str(port), "--no-token",
             "--library", library_path()] + list(argv))
        self.addCleanup(self.end, process)
        return port, process

    @staticmethod
    def free_port():
        """Below those that connections get: whoever tries one of these again and again, while
        nobody listens, is at last connected to itself."""
        import random
        import socket

        while True:
            port = random.randrange(10000, 32000)
            probe = socket.socket()
            try:
                probe.bind(("127.0.0.1", port))
                return port
            except (IOError, OSError):
                pass
            finally:
                probe.close()

    def end(self, process):
        if process.poll() is None:
            process.kill()
        process.wait()

    def connect(self, port):
        import socket

        end = time.time() + 30
        while True:
            try:
                connected = socket.create_connection(("127.0.0.1", port))
            except (IOError, OSError):
                if time.time() > end:
                    raise
                continue
            client = client_of_socket(connected)
            self.addCleanup(client.close)
            return client
