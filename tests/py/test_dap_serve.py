"""Programs that editors attach to: `tdbg serve`, tdbg.listen() and tdbg.connect()."""
from __future__ import absolute_import, division, print_function

import os
import re
import signal
import socket
import stat
import subprocess
import sys

from support import dapclient
from support.capabilities import needs
from support.case import TestCase
from support.library import library_path
from support.programs import python_path, run_program

kOncePerVersion = True

kLoop = """\
from __future__ import print_function
import os, sys, time
n = 0
while not os.path.exists({!r}):
    n += 1  #@ count
    time.sleep(0.001)
print('end')
sys.exit(4)
"""


def serve_argv(*arguments):
    return [sys.executable, dapclient.PACKAGE, "--library", library_path(), "serve"] + list(
        arguments)


class Case(TestCase):

    def setUp(self):
        self.end_file = os.path.join(self.make_dir(), "end")
        self.token_folder = self.make_dir()

    def loop(self):
        return self.make_file("prog.py", kLoop.format(self.end_file))

    def let_end(self):
        open(self.end_file, "w").close()

    def start(self, argv, **more):
        env = dict(os.environ, XDG_RUNTIME_DIR=self.token_folder, **more.pop("env", {}))
        process = subprocess.Popen(argv, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                   env=env, **more)
        self.addCleanup(dapclient.end_process, process)
        return process

    def serve(self, path):
        """A program that waits for its client; (process, address, token)."""
        return self.serve_at_once(path, "--wait-for-client")

    def serve_at_once(self, path, *options):
        """The same, of one that does not wait."""
        process = self.start(serve_argv(*(options + (path,))))
        return (process,) + self.address_and_token(process)

    def address_and_token(self, process):
        line = process.stderr.readline().decode("utf-8")
        found = re.match(r"tdbg: listening on 127\.0\.0\.1:(\d+); the token is in (\S+)\n", line)
        self.assertTrue(found, line)
        path = found.group(2)
        self.assertEqual(os.path.dirname(path), self.token_folder)
        self.assertEqual(stat.S_IMODE(os.stat(path).st_mode), 0o600)
        with open(path) as source:
            return ("127.0.0.1", int(found.group(1))), source.read().strip()

    def client_at(self, address, process):
        while True:  # until it listens
            try:
                connected = socket.create_connection(address)
            except socket.error:
                self.assertIsNone(process.poll())
                continue
            client = dapclient.client_of_socket(connected)
            self.addCleanup(client.close)
            return client

    def attach_and_stop(self, client, path, **arguments):
        client.start_session(arguments, "attach", {path: ["count"]})
        stop = client.wait_stopped("breakpoint")
        self.assertEqual(client.place(stop["threadId"]), ("<module>", "count"))
        return stop["threadId"]

    def end_of(self, process):
        """(status, stdout, stderr); no file is left."""
        out, err = process.communicate()
        self.assertEqual(os.listdir(self.token_folder), [])
        return process.returncode, out.decode("utf-8"), err.decode("utf-8")


class Serving(Case):

    def test_client_and_adapter_reach_the_same_port(self):
        path = self.loop()
        process, address, token = self.serve(path)
        client = self.client_at(address, process)
        thread = self.attach_and_stop(client, path, token=token)
        self.assertEqual(client.evaluate("n", client.stack(thread)[0]["id"]), "0")
        client.request("disconnect")
        client = dapclient.start_adapter(self)
        client.initialize()
        self.assertIn("token",
                      client.refused("attach", {"connect": {"port": address[1]}, "token": "wrong"}))
        client.start_session({"connect": {"port": address[1]}, "token": token}, "attach")
        client.request("disconnect")
        self.assertEqual(client.wait_exit(), 0)
        self.let_end()
        self.assertEqual(self.end_of(process), (4, "end\n", ""))

    def test_output_is_shown_on_request_and_streams_are_given_back(self):
        path = self.make_file("prog.py", (
            "from __future__ import print_function\nimport os, sys, time\n"
            "for n in range(2):\n"
            "    print('turn', n)  #@ count\n"
            "    sys.stderr.writelines(['x', 'y\\n'])\n"
            "while sys.stdout is not sys.__stdout__ or sys.gettrace():\n    time.sleep(0.001)\n"
            "print('end', sys.stderr is sys.__stderr__)\n"))
        process = self.start(serve_argv("--wait-for-client", "--no-token", "--listen", "0", path))
        port = int(re.search(r":(\d+)\n", process.stderr.readline().decode("utf-8")).group(1))
        client = self.client_at(("127.0.0.1", port), process)
        thread = self.attach_and_stop(client, path, redirectOutput=True)
        client.resume(thread)
        client.wait_stopped("breakpoint")
        self.assertEqual(
            [(body["category"], body["output"]) for body in client.seen_events("output")], [
                ("stdout", "turn 0\n"), ("stderr", "xy\n")])
        client.request("disconnect")
        self.assertEqual(self.end_of(process), (0, "turn 0\nturn 1\nend True\n", "xy\nxy\n"))

    def test_bytes_are_shown_in_order_and_once(self):
        """By way of the stream's buffer, and of streams that the program makes of it."""
        path = self.make_file("prog.py", (
            "# -*- coding: utf-8 -*-\n"
            "from __future__ import print_function\n"
            "import array, io, os, sys\n"
            "n = 0  #@ count\n"
            "out = getattr(sys.stdout, 'buffer', sys.stdout)\n"
            "state = [sys.stdout.isatty(), sys.stdout.fileno(), sys.stdout.encoding, out.closed, "
            "out.fileno()]\n"
            "sys.stdout.write('a ')\n"
            "sys.stdout.flush()\n"
            "kinds = (bytes, bytes, bytes) if out is sys.stdout else (bytes, bytearray, "
            "memoryview)\n"
            "parts = (b'b \\xe2', b'\\x82', b'\\xac c\\n')\n"
            "wrote = [out.write(kind(part)) for kind, part in zip(kinds, parts)]\n"
            "out.flush()\n"
            "print('d')\n"
            "sys.stdout.flush()\n"
            "out.writelines([b'e ', b'f\\n'])\n"
            "out.flush()\n"
            "os.write(1, b'raw\\n')\n"
            "if out is not sys.stdout:\n"
            "    raw = getattr(out, 'raw', out)\n"
            "    wrote.append(raw.write(array.array('B', b'g\\n')))\n"
            "    sys.stdout = io.TextIOWrapper(sys.stdout.detach(), encoding='utf-8')\n"
            "    with sys.stdout:\n"
            "        print(u'h \\u20ac')\n"
            "        n = 1  #@ detached\n"
            "sys.stderr.write('{}\\n'.format([state, wrote]))\n"
            "sys.stderr.flush()\n"
            "out = getattr(sys.stderr, 'buffer', sys.stderr)\n"
            "out.write(b'end\\xff')\n"))
        argv = serve_argv("--wait-for-client", "--no-token", "--listen", "0", path)
        process = self.start(argv, env={"PYTHONIOENCODING": "utf-8"})
        port = int(re.search(r":(\d+)\n", process.stderr.readline().decode("utf-8")).group(1))
        client = self.client_at(("127.0.0.1", port), process)
        client.resume(self.attach_and_stop(client, path, redirectOutput=True))
        out, err = process.communicate()
        client.wait_end()
        shown = {"stdout": "", "stderr": ""}
        for body in client.seen_events("output"):
            shown[body["category"]] += body["output"]
        is_3 = sys.version_info[0] == 3
        text = u"a b \u20ac c\nd\ne f\n" + (u"g\nh \u20ac\n" if is_3 else u"")
        state = [[False, 1, "utf-8", False, 1], [3, 1, 4, 2] if is_3 else [None] * 3]
        self.assertEqual(err.decode("utf-8", "replace"), u"{}\nend\ufffd".format(state))
        self.assertEqual(shown, {"stdout": text, "stderr": u"{}\nend\ufffd".format(state)})
        self.assertEqual(out.decode("utf-8"), text.replace(u"f\n", u"f\nraw\n"))
        self.assertEqual(process.returncode, 0)

    def test_everything_is_shown_once_where_the_adapter_reads(self):
        """An editor without a terminal, which a program with redirectOutput was meant for."""
        path = self.make_file("prog.py", (
            "# -*- coding: utf-8 -*-\n"
            "from __future__ import print_function\n"
            "import os, subprocess, sys\n"
            "print('a')\n"
            "out = getattr(sys.stdout, 'buffer', sys.stdout)\n"
            "out.write(b'b \\xe2\\x82')\n"
            "out.flush()\n"
            "os.write(1, b'\\xac\\n')\n"
            "subprocess.call([sys.executable, '-c', 'print(3)'])\n"
            "print(sys.stdout is sys.__stdout__, sys.stdout.isatty(), sys.stdout.fileno(), "
            "type(sys.stdout).__name__)\n"))
        client, _ = dapclient.launch_through_adapter(
            self, path, {"console": "integratedTerminal", "redirectOutput": True})
        client.wait_event("terminated")
        shown = "".join(
            body["output"] for body in client.seen_events("output")
            if body.get("category") == "stdout")
        kind = "TextIOWrapper" if sys.version_info[0] == 3 else "file"
        self.assertEqual(shown, u"a\nb \u20ac\n3\nTrue False 1 {}\n".format(kind))

    def test_nothing_slows_the_program_between_two_sessions(self):
        """No hook is left in the interpreter, nor the trace function of threads that have ended in
        the first session; the second one sees what the first did."""
        path = self.make_file("prog.py", (
            "from __future__ import print_function\n"
            "import os, sys, threading, time\n"
            "_thread = __import__('thread' if sys.version_info[0] == 2 else '_thread')\n"
            "class Last(object):\n"
            "    def __del__(self):\n"
            "        untraced.append(sys.gettrace() is None)\n"
            "def work():\n"
            "    local.last = Last()\n"
            "def raw():\n"
            "    local.last = Last()  #@ raw\n"
            "local, untraced = threading.local(), []\n"
            "def start_threads():\n"
            "    count = len(untraced)\n"
            "    thread = threading.Thread(target=work)\n"
            "    thread.start()\n"
            "    thread.join()\n"
            "    _thread.start_new_thread(raw, ())\n"
            "    while len(untraced) < count + 2:\n"
            "        time.sleep(0.001)\n"
            "start_threads()\n"
            "hooked = sys.modules['tdbgtracer'].get_use_eval_frame\n"
            "states = [hooked()]\n"
            "states.append(sys.gettrace() is not None)  #@ count\n"
            "while sys.gettrace() is not None:\n"
            "    time.sleep(0.001)\n"
            "states.append(hooked())\n"
            # version 3 may adopt what ends once more
            "print(untraced[:sys.version_info < (3,)], states)\n"
            "sys.stdout.flush()\n"
            "while not os.path.exists({!r}):\n"
            "    time.sleep(0.001)\n"
            "start_threads()\n"
            "print(len(untraced), hooked())\n").format(self.end_file))
        process, address, token = self.serve(path)
        client = self.client_at(address, process)
        client.start_session({"token": token}, "attach", {path: ["raw", "count"]})
        for mark in ("raw", "count"):
            thread = client.wait_stopped("breakpoint")["threadId"]
            self.assertEqual(client.place(thread)[1], mark)
            if mark == "raw":
                client.resume(thread)
        client.request("disconnect")
        client.wait_end()
        self.assertEqual(process.stdout.readline().decode("ascii").rstrip(), "{} {}".format(
            [True] if sys.version_info[0] == 2 else [], [1, False, 0]))
        client = self.client_at(address, process)
        client.start_session({"token": token}, "attach", {path: ["raw"]})
        self.let_end()
        thread = client.wait_stopped("breakpoint")["threadId"]
        self.assertEqual(client.place(thread), ("raw", "raw"))
        client.resume(thread)
        self.assertEqual(self.end_of(process), (0, "4 1\n", ""))

    def test_detached_program_is_free_of_the_debugger(self):
        path = self.make_file("prog.py", (
            "from __future__ import print_function\nimport os, sys, threading, time\n"
            "def state():\n"
            "    import threading as module\n"
            "    return [str(sys.gettrace()), str(module._trace_hook), __import__.__name__, "
            "'TDBG_CHILD' in os.environ]\n"
            "def work():\n"
            "    while not os.path.exists({!r}):\n"
            "        time.sleep(0.001)  #@ count\n"
            "    states.append(state())\n"
            "states = []\n"
            "threads = [threading.Thread(target=work) for _ in range(2)]\n"
            "for thread in threads: thread.start()\n"
            "work()\n"
            "for thread in threads: thread.join()\n"
            "new = threading.Thread(target=lambda: states.append(state()))\n"
            "new.start()\nnew.join()\n"
            "print(states)\n").format(self.end_file))
        process, address, token = self.serve(path)
        for stopped in (True, False):
            client = self.client_at(address, process)
            client.initialize(supportsStartDebuggingRequest=True)
            client.start_session({"token": token}, "attach", {path: ["count"]})
            thread = client.wait_stopped("breakpoint")["threadId"]
            if not stopped:
                client.set_breakpoints(path, [])
                client.resume(thread)
            client.request("disconnect")
            client.wait_end()
        self.let_end()
        self.assertEqual(self.end_of(process), (
            0, "{}\n".format([["None", "None", "__import__", False]] * 4), ""))

    def test_what_runs_when_the_debugger_goes_is_as_fast_as_before(self):
        """Threads that wait have no trace function, the loop has no instructions of a tracer."""
        path = self.make_file("prog.py", (
            "import dis, os, sys, threading\n"
            "def wait():\n"
            "    ready.set()\n"
            "    found.append((go.acquire(), sys.gettrace())[1])\n"
            "found, ready, go = [], threading.Event(), threading.Lock()\n"
            "go.acquire()\n"
            "thread = threading.Thread(target=wait)\n"
            "thread.start()\nready.wait()\n"
            "code = sys._getframe().f_code\n"
            "def names():\n"
            "    if sys.version_info < (3, 11): return []\n"
            "    return [i.opname for i in dis.get_instructions(code, adaptive=True)]\n"
            "while not os.path.exists({!r}):\n"
            "    n = 0  #@ count\n"
            "found += [name for name in names() if 'INSTRUMENTED' in name]\n"
            "go.release()\nthread.join()\n"
            "sys.stdout.write(str(found))\n").format(self.end_file))
        process, address, token = self.serve(path)
        client = self.client_at(address, process)
        self.attach_and_stop(client, path, token=token)
        client.request("disconnect")
        client.wait_end()
        self.let_end()
        self.assertEqual(self.end_of(process), (0, "[None]", ""))

    def test_adapter_that_is_killed_leaves_the_program(self):
        path = self.loop()
        process, address, token = self.serve(path)
        client = dapclient.start_adapter(self)
        client.initialize()
        self.attach_and_stop(client, path, connect={"port": address[1]}, token=token)
        client.process.kill()
        self.let_end()
        self.assertEqual(self.end_of(process), (4, "end\n", ""))

    def test_secrets_leave_the_environment(self):
        path = self.make_file("prog.py", (
            "import os\n"
            "print(sorted(name for name in os.environ if 'TDBG_TO' in name or 'TDBG_ST' in name))\n"
            "for name in 'environ', 'cmdline':\n"
            "    with open('/proc/self/' + name, 'rb') as file: print(b'topsecret' in "
            "file.read())\n"
            "print(sorted(int(n) for n in os.listdir('/proc/self/fd') if "
            "os.path.exists('/proc/self/fd/' + n)\n"
            "      and int(n) < 100))\n"))
        plain = run_program([sys.executable, path])
        done = run_program(serve_argv("--listen", "0", path), env={"TDBG_TOKEN": "topsecret"})
        self.assertEqual((done.status, done.out), (0, plain.out), done)
        self.assertRegex(done.err, r"^tdbg: listening on 127\.0\.0\.1:\d+\n$")

    def test_silent_when_nothing_is_to_be_told(self):
        listener = socket.socket()
        listener.bind(("127.0.0.1", 0))
        port = str(listener.getsockname()[1])
        listener.close()
        path = self.make_file("prog.py", (
            "import sys\nsys.stderr.write('err')\nsys.stdout.write('out %r' % sys.argv[1:])\n"
            "sys.exit(7)\n"))
        token = self.make_file("token", "abc")
        os.chmod(token, 0o600)
        for arguments in (["--no-token"], ["--token-file", token]):
            done = run_program(serve_argv("--listen", port, *arguments + [path, "--listen", "x"]))
            self.assertEqual((done.status, done.out, done.err),
                             (7, "out ['--listen', 'x']", "err"), done)

    def test_no_client_no_tracing(self):
        path = self.make_file("prog.py", "import sys\nx = 1\nprint(sys.gettrace())\n")
        self.assertEqual(run_program(serve_argv("--no-token", path)).out, "None\n")

    def test_module_code_and_status(self):
        folder = self.make_dir()
        env = {"XDG_RUNTIME_DIR": self.token_folder}
        self.make_file("mod.py", "import sys\nprint(sys.argv[1:])\nsys.exit(5)\n", folder)
        done = run_program(serve_argv("-m", "mod", "a"), cwd=folder, env=env)
        self.assertEqual((done.status, done.out), (5, "['a']\n"), done)
        done = run_program(serve_argv("-c", "import sys; print(sys.argv)", "a"), env=env)
        self.assertEqual((done.status, done.out), (0, "['-c', 'a']\n"), done)
        self.assertEqual(os.listdir(self.token_folder), [])

    def test_token_file_outlives_forks(self):
        """Whose end is like the program's; which imports the module of the functions itself."""
        path = self.make_file("prog.py", (
            "import atexit, os, sys\n"
            "if not os.fork(): sys.exit()\n"
            "os.wait()\n"
            "print(len(os.listdir(os.environ['XDG_RUNTIME_DIR'])))\n"))
        process = self.start(serve_argv(path))
        self.address_and_token(process)
        self.assertEqual(self.end_of(process)[:2], (0, "1\n"))

    def test_token_file_goes_with_the_port(self):
        path = self.make_file("prog.py", (
            "import os, time\n"
            "while os.listdir(os.environ['XDG_RUNTIME_DIR']): time.sleep(0.001)\n"
            "print('removed')\n"))
        process, address, _ = self.serve_at_once(path)
        for _ in range(3):
            client = self.client_at(address, process)
            client.initialize()
            self.assertIn("token", client.refused("attach", {"token": "wrong"}))
        self.assertEqual(self.end_of(process), (0, "removed\n", ""))

    def test_token_file_of_a_program_that_is_ended_or_does_not_begin(self):
        path = self.loop()
        process, address, token = self.serve(path)
        client = self.client_at(address, process)
        self.attach_and_stop(client, path, token=token)
        client.request("disconnect", {"terminateDebuggee": True})
        self.assertEqual(self.end_of(process), (-signal.SIGTERM, "", ""))
        process = self.start(
            [sys.executable, dapclient.PACKAGE, "--library", path, "serve", path])
        self.address_and_token(process)
        status, out, err = self.end_of(process)
        self.assertEqual((status, out), (2, ""))
        self.assertRegex(err, "^tdbg: cannot debug here: .*\n$")

    def test_connecting_to_an_adapter_that_listens(self):
        path = self.loop()
        client = dapclient.start_adapter(self)
        client.initialize()
        seq = client.send("attach", {"listen": {"port": 0}})
        note = client.wait_event("output")["output"]
        port = re.search(r"waiting for a program at 127.0.0.1:(\d+)", note).group(1)
        process = self.start(serve_argv("--connect", "127.0.0.1:" + port,
                                        "--wait-for-client", path))
        client.wait_event("initialized")
        client.set_breakpoints(path, ["count"])
        client.request("configurationDone")
        self.assertTrue(client.response_to(seq)["success"])
        client.wait_stopped("breakpoint")
        client.request("disconnect")
        self.let_end()
        self.assertEqual(self.end_of(process), (4, "end\n", ""))

    def test_unknown_words_are_one_line(self):
        path = self.make_file("prog.py", "")
        unprotected = self.make_file("token", "abc")
        os.chmod(unprotected, 0o644)
        for arguments in (
                [], ["--nonsense", path], ["--listen"], ["--listen", "x", path],
                ["--listen", "1:2:3", path], ["--listen", "0", "--connect", "1", path],
                ["-x", path], ["--listen", "0.0.0.0:0", path],
                ["--no-token", "--allow-remote", path], ["--no-token", "--token-file", "x", path],
                ["--token-file", "/nowhere", path], ["--token-file", unprotected, path],
                ["--connect", "127.0.0.1:1", path], ["--connect", "192.0.2.1:1", path],
                ["/nowhere/prog.py"], ["-m", "nowhere_at_all"], ["--wait-for-client"]):
            done = run_program(serve_argv(*arguments))
            self.assertEqual((done.status, done.out, len(done.err.splitlines())), (2, "", 1), done)
            self.assertRegex(done.err, "^tdbg: ")


class InCode(Case):

    def test_listen_and_wait(self):
        path = self.make_file("prog.py", (
            "import sys\nimport tdbgtracer, tdbg\nprint(tdbg.listen()[0])\nprint(sys.gettrace())\n"
            "tdbg.wait_for_client()\nx = 1  #@ count\nprint(tdbg.listen())\nsys.exit(3)\n"))
        process = self.start([sys.executable, path], env=self.environment())
        address, token = self.address_and_token(process)
        client = self.client_at(address, process)
        thread = self.attach_and_stop(client, path, token=token)
        client.resume(thread)
        self.assertEqual(self.end_of(process), (3, "127.0.0.1\nNone\nNone\n", ""))

    def test_connect(self):
        client = dapclient.start_adapter(self)
        client.initialize()
        client.send("attach", {"listen": {"port": 0}})
        port = re.search(r":(\d+)\n", client.wait_event("output")["output"]).group(1)
        path = self.make_file("prog.py", (
            "import tdbgtracer, tdbg\ntdbg.connect(('127.0.0.1', %s))\ntdbg.wait_for_client()\n"
            "x = 1  #@ count\n" % port))
        process = self.start([sys.executable, path], env=self.environment())
        client.wait_event("initialized")
        client.set_breakpoints(path, ["count"])
        client.request("configurationDone")
        client.resume(client.wait_stopped("breakpoint")["threadId"])
        self.assertEqual(self.end_of(process), (0, "", ""))
        client.wait_event("terminated")

    def test_under_an_adapter_they_do_nothing(self):
        path = self.make_file("prog.py",
                              "import tdbg\nprint(tdbg.listen())\nprint(tdbg.wait_for_client())\n")
        client, _ = dapclient.launch_through_adapter(self, path)
        client.wait_event("terminated")
        text = "".join(body["output"] for body in client.seen_events("output"))
        self.assertEqual(text, "None\nTrue\n")

    def test_without_listening_nobody_is_waited_for(self):
        done = run_program([sys.executable, "-c", "import tdbg\ntdbg.wait_for_client()"],
                           env=self.environment())
        self.assertIn("RuntimeError: nobody can attach", done.err)

    def environment(self):
        return {"PYTHONPATH": python_path(), "TDBG_LIB_DIR": os.path.dirname(library_path())}
