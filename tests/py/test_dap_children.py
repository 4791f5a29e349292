"""Children of a debugged program: sessions of their own for clients that can have them."""
from __future__ import absolute_import, division, print_function

import os
import sys
import threading
import time
import unittest

from support import dapclient
from support.case import TestCase, time_limit

kOncePerVersion = True


class Case(TestCase):

    announces = True
    env = None

    def start(self, text, child="x = 1  #@ in-child\nprint('child ran')\n", **arguments):
        """A client at a program that has launched; `child` is the path of a second program."""
        self.child = self.make_file("child.py", child)
        self.path = self.make_file("prog.py", text)
        client = dapclient.start_adapter(self, env=self.env)
        client.initialize(supportsStartDebuggingRequest=self.announces)
        client.start_session(dict({
            "program": self.path, "args": [self.child], "python": sys.executable,
            "childAttachTimeout": 120},
            **arguments))
        return client

    def attach_to_child(self, client, path, accepts=True):
        """A client, by a new adapter, at the child that the first one is told of."""
        request = client.wait_request("startDebugging")
        configuration = request["arguments"]["configuration"]
        self.assertEqual((request["arguments"]["request"], configuration["request"],
                          configuration["type"]),
                         ("attach", "attach", "tdbg"))
        client.respond(request)
        other = dapclient.start_adapter(self)
        other.initialize(supportsStartDebuggingRequest=True)
        other.start_session(configuration, "attach", {path: ["in-child"]})
        return other

    def requests_of(self, client):
        """Each child that the client is told of, until the program ends."""
        while True:
            try:
                yield client.wait_request("startDebugging")
            except dapclient.NoAnswer:
                return

    def finish(self, client):
        client.wait_event("terminated")
        text = "".join(body["output"] for body in client.seen_events("output")
                       if body["category"] == "stdout")
        return client.seen_events("exited")[0]["exitCode"], text


kCall = ("import subprocess, sys\n"
         "sys.exit(subprocess.call([sys.executable, sys.argv[1], 'a']) + 5)\n")


class Interpreters(Case):

    def test_program_of_its_own(self):
        client = self.start(kCall, "import sys\nx = sys.argv  #@ in-child\n"
                                   "print(x[1:], sys.argv == x)\nsys.exit(2)\n")
        other = self.attach_to_child(client, self.child)
        thread = other.wait_stopped("breakpoint")["threadId"]
        self.assertEqual(other.place(thread), ("<module>", "in-child"))
        other.resume(thread)
        other.wait_event("terminated")
        status, text = self.finish(client)
        self.assertEqual((status, text.replace("(", "").replace(")", "")),
                         (7, "['a'] True\n" if sys.version_info[0] > 2 else "['a'], True\n"))

    def test_client_that_refuses(self):
        client = self.start(kCall)
        client.respond(client.wait_request("startDebugging"), success=False, message="no")
        self.assertEqual(self.finish(client), (5, "child ran\n"))

    def test_client_that_does_not_come(self):
        client = self.start(kCall, childAttachTimeout=0.01)
        client.respond(client.wait_request("startDebugging"))
        self.assertEqual(self.finish(client), (5, "child ran\n"))

    def test_client_that_does_not_answer(self):
        client = self.start(kCall, childAttachTimeout=0.01)
        client.wait_request("startDebugging")
        self.assertEqual(self.finish(client), (5, "child ran\n"))

    def test_not_wanted(self):
        for value in (False, "none"):
            client = self.start(kCall, subProcess=value)
            self.assertEqual(self.finish(client), (5, "child ran\n"))
            self.assertEqual(client.requests, [])

    def test_after_the_client_has_gone_children_run_alone(self):
        gate = os.path.join(self.make_dir(), "gate")
        os.mkfifo(gate)
        result = os.path.join(self.make_dir(), "result")
        os.mkfifo(result)
        client = self.start(
            "import os, subprocess, sys\nopen({!r}).read()\n"
            "status = subprocess.call([sys.executable, sys.argv[1]])\n"
            "open({!r}, 'w').write('%d %s' % (status, 'TDBG_CHILD' in os.environ))\n".format(
                gate, result), child="")
        client.request("disconnect", {"terminateDebuggee": False})
        open(gate, "w").close()
        with open(result) as source:
            self.assertEqual(source.read(), "0 False")


class Descendants(Case):
    """Who is asked for, of the processes that the program starts by way of others."""

    kOne = "import sys\nx = 1  #@ in-child\nprint('child', sys.argv[1])\n"

    def start_all_ways(self, **arguments):
        """The children: of a shell's command line, of a shell script, of an interpreter that the
        script starts, and of a fork that nobody debugs."""
        self.make_file("inner.py", (
            "import subprocess, sys\n"
            "subprocess.call([sys.executable, sys.argv[1], 'inner'])\n"), self.folder)
        script = self.make_file("run.sh", (
            "\"$1\" \"$2\" script\n\"$1\" {}/inner.py \"$2\"\nexit 3\n").format(self.folder),
                                self.folder)
        return self.start((
            "import os, subprocess, sys\n"
            "command = ' '.join([sys.executable, sys.argv[1]])\n"
            "os.system(command + ' system; true')\n"
            "pid = os.fork()\n"
            "if pid == 0:\n"
            "    os._exit(subprocess.call(command + ' fork && true', shell=True))\n"
            "os.waitpid(pid, 0)\n"
            "sys.exit(subprocess.call(['sh', {!r}, sys.executable, sys.argv[1]]))\n").format(
                script),
            self.kOne, **arguments)

    def serve(self, client):
        """Debug all children but forks, until the program ends; what their breakpoint sees."""
        seen = []
        for request in self.requests_of(client):
            pid = request["arguments"]["configuration"]["subProcessId"]
            with open("/proc/{}/cmdline".format(pid)) as source:
                program = [word for word in source.read().split("\0") if word.endswith(".py")][0]
            client.respond(request, success=program != self.path)
            if program == self.path:  # the fork
                continue
            other = dapclient.start_adapter(self)
            other.initialize(supportsStartDebuggingRequest=True)
            other.start_session(
                request["arguments"]["configuration"], "attach", {self.child: ["in-child"]})
            server = threading.Thread(target=lambda: seen.extend(self.serve(other)))
            server.start()
            if program == self.child:
                thread = other.wait_stopped("breakpoint")["threadId"]
                seen.append(
                    str(other.evaluate("sys.argv[1]", other.stack(thread)[0]["id"])).strip("u'"))
                other.resume(thread)
            other.wait_event("terminated")
            other.request("disconnect")
            server.join()
        return seen

    def check(self, wanted, **arguments):
        self.folder = self.make_dir()
        client = self.start_all_ways(**arguments)
        found = []
        server = threading.Thread(target=lambda: found.extend(self.serve(client)))
        server.start()
        status, text = self.finish(client)
        client.request("disconnect")
        server.join()
        self.assertEqual(found, wanted)
        self.assertEqual(status, 3)
        self.assertEqual(len(text.splitlines()), 4, text)

    def test_those_that_the_program_starts(self):
        self.check(["system", "fork"])

    @time_limit(120)
    def test_all(self):
        self.check(["system", "fork", "script", "inner"], subProcess="all")


class WithoutTheClientsHelp(Case):
    """Clients that do not announce startDebugging."""

    announces = False

    def test_children_run_at_once_and_see_nothing(self):
        client = self.start(
            "import os, subprocess, sys\n"
            "print('TDBG_CHILD' in os.environ or 'TDBG_START' in os.environ)\nsys.stdout.flush()\n"
            "subprocess.call([sys.executable, sys.argv[1]])\n",
            "import os, sys\nprint(sys.gettrace(), any('tdbg' in name for name in sys.modules))\n")
        status, text = self.finish(client)
        self.assertEqual(status, 0)
        self.assertEqual(text.split()[0], "False")
        self.assertNotIn("True", text)

    @unittest.skipUnless(hasattr(os, "fork"), "no fork")
    def test_forks_run_on(self):
        client = self.start(
            "import os\npid = os.fork()\nif pid == 0:\n    os.write(1, b'forked\\n')\n"
            "    os._exit(3)\n"
            "os._exit(os.waitpid(pid, 0)[1] >> 8)\n")
        self.assertEqual(self.finish(client), (3, "forked\n"))


class Forks(Case):

    text = (
        "import os\n"
        "def work(n):\n    x = n  #@ in-child\n    os.write(1, b'forked\\n')\n    os._exit(n)\n"
        "pid = os.fork()\nif pid == 0:\n    work(3)\n"
        "os._exit(os.waitpid(pid, 0)[1] >> 8)\n")

    def test_debugged(self):
        client = self.start(self.text)
        other = self.attach_to_child(client, self.path)
        thread = other.wait_stopped("breakpoint")["threadId"]
        self.assertEqual(other.place(thread), ("work", "in-child"))
        self.assertEqual(other.step("next", thread)[0], "work")
        other.resume(thread)
        other.wait_event("terminated")
        self.assertEqual(self.finish(client), (3, "forked\n"))

    def test_nothing_is_left_of_it(self):
        """Though it ends before it can remove anything."""
        folder = self.make_dir()
        self.env = dapclient.environment_with({"TMPDIR": folder})
        client = self.start(self.text)
        other = self.attach_to_child(client, self.path)
        thread = other.wait_stopped("breakpoint")["threadId"]
        names = [name for found in os.listdir(folder)
                 for name in os.listdir(os.path.join(folder, found))]
        self.assertEqual(sorted(names), ["children", "debuggee", "launcher"])
        other.resume(thread)
        other.wait_event("terminated")
        self.assertEqual(self.finish(client), (3, "forked\n"))
        for _ in range(2000):
            if not os.listdir(folder):
                break
            time.sleep(0.005)
        self.assertEqual(os.listdir(folder), [])

    def test_refused(self):
        client = self.start(self.text)
        client.respond(client.wait_request("startDebugging"), success=False)
        self.assertEqual(self.finish(client), (3, "forked\n"))

    def test_nobody_comes(self):
        client = self.start(self.text, childAttachTimeout=0.01)
        client.respond(client.wait_request("startDebugging"))
        self.assertEqual(self.finish(client), (3, "forked\n"))


class Multiprocessing(Case):

    text = (
        "import multiprocessing, os, sys\n"
        "def work(n):\n    x = n  #@ in-child\n    os.write(1, b'worked\\n')\n    sys.exit(n)\n"
        "if __name__ == '__main__':\n"
        "    if sys.argv[2] != 'fork': multiprocessing.set_start_method(sys.argv[2])\n"
        "    child = multiprocessing.Process(target=work, args=(3,))\n"
        "    child.start()\n    child.join()\n    sys.exit(child.exitcode)\n")

    def run_method(self, method, announces):
        self.announces = announces
        client = self.start(self.text, args=["x", method])
        self.assertEqual(self.finish(client), (3, "worked\n"))

    def serve_children(self, client):
        """Debug every child, and every child's children, until all have ended."""
        threads = []
        for request in self.requests_of(client):
            threads.append(threading.Thread(target=self.debug_child, args=(client, request)))
            threads[-1].start()
        for thread in threads:
            thread.join()

    def debug_child(self, client, request):
        client.respond(request)
        other = dapclient.start_adapter(self)
        other.initialize(supportsStartDebuggingRequest=True)
        try:
            other.start_session(
                request["arguments"]["configuration"], "attach", {self.path: ["in-child"]})
            server = threading.Thread(target=self.serve_children, args=(other,))
            server.start()
            while True:
                thread = other.wait_stopped()["threadId"]
                self.seen.append(other.place(thread))
                other.resume(thread)
        except dapclient.NoAnswer:
            pass

    @time_limit(120)
    def test_debugged(self):
        for method in ["fork"] if sys.version_info[0] == 2 else ["fork", "spawn", "forkserver"]:
            self.seen = []
            policy = "all" if method == "forkserver" else True
            client = self.start(self.text, args=["x", method], subProcess=policy)
            server = threading.Thread(target=self.serve_children, args=(client,))
            server.daemon = True
            server.start()
            self.assertEqual(self.finish(client), (3, "worked\n"), method)
            client.request("disconnect")
            self.assertEqual(self.seen, [("work", "in-child")], method)

    def test_run_on_alone(self):
        for method in ["fork"] if sys.version_info[0] == 2 else ["fork", "spawn", "forkserver"]:
            self.run_method(method, False)
