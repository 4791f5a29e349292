"""The folders with the sockets of a session are gone when that is, whoever ended first."""
from __future__ import absolute_import, division, print_function

import os
import signal
import sys
import time

from support import TestCase, dapclient

kOncePerVersion = True

kProgram = """\
import os, sys
print("it is %d" % os.getpid())
sys.stdout.flush()
os.close(os.open(sys.argv[1], os.O_RDONLY))
"""


class Folders(TestCase):
    def start(self):
        """A client of an adapter that has launched a program, which waits."""
        self.folder = self.make_dir()
        self.fifo = os.path.join(self.make_dir(), "fifo")
        os.mkfifo(self.fifo)
        client = dapclient.start_adapter(
            self, env=dapclient.environment_with({"TMPDIR": self.folder}))
        client.start_session(
            {"program": self.make_file("program.py", kProgram), "python": sys.executable,
             "args": [self.fifo]},
            initialize={"supportsStartDebuggingRequest": True})
        text = client.wait_event("output", lambda body: "it is" in body["output"])["output"]
        self.pid = int(text.split()[-1])
        names = [name for folder in os.listdir(self.folder)
                 for name in os.listdir(os.path.join(self.folder, folder))]
        self.assertEqual(sorted(names), ["children", "debuggee", "launcher"])
        return client

    def check_empty(self):
        for _ in range(2000):
            if os.listdir(self.folder) == []:
                return
            time.sleep(0.005)
        self.assertEqual(os.listdir(self.folder), [])

    def let_it_end(self):
        with open(self.fifo, "w"):
            pass

    def test_program_ends(self):
        client = self.start()
        self.let_it_end()
        client.wait_event("terminated")
        self.check_empty()

    def test_program_is_killed(self):
        client = self.start()
        os.kill(self.pid, signal.SIGKILL)
        client.wait_event("terminated")
        self.check_empty()

    def test_adapter_is_killed(self):
        client = self.start()
        client.process.kill()
        self.check_empty()

    def test_both_are_killed(self):
        client = self.start()
        client.process.kill()
        try:
            os.kill(self.pid, signal.SIGKILL)
        except OSError:  # the launcher was faster
            pass
        self.check_empty()

    def test_client_hangs_up(self):
        client = self.start()
        client.close()
        self.check_empty()

    def test_program_that_outlives_its_adapter(self):
        client = self.start()
        client.request("disconnect", {"terminateDebuggee": False})
        self.assertEqual(client.wait_exit(), 0)
        self.check_empty()
        os.kill(self.pid, 0)
        self.let_it_end()

    def test_program_that_cannot_be_started(self):
        self.folder = self.make_dir()
        client = dapclient.start_adapter(
            self, env=dapclient.environment_with({"TMPDIR": self.folder}))
        client.initialize()
        client.refused("launch", {"program": "x.py", "args": "'", "python": sys.executable})
        self.check_empty()

    def test_program_without_an_adapter(self):
        self.folder = self.make_dir()
        path = self.make_file(
            "program.py", "import atexit, os\nif os.fork(): os.wait()  #@ fork\n")
        client = dapclient.debug_directly(self, path, env={"TMPDIR": self.folder})
        client.start_session(
            breakpoints={path: ["fork"]}, initialize={"supportsStartDebuggingRequest": True})
        thread = client.wait_stopped()["threadId"]
        folder, = os.listdir(self.folder)
        self.assertEqual(os.listdir(os.path.join(self.folder, folder)), ["children"])
        client.resume(thread)
        client.respond(client.wait_request("startDebugging"), success=False)
        self.assertEqual(client.wait_exit(), 0)
        self.assertEqual(os.listdir(self.folder), [])
