"""The adapter: how it starts programs, shows what they write, and ends them."""
from __future__ import absolute_import, division, print_function

import os
import random
import signal
import subprocess
import sys

from support import dapclient
from support.case import TestCase
from support.programs import run_program

kOncePerVersion = True

kAdapter = os.path.join(dapclient.PACKAGE, "adapter")
kRandomRequests = 10000
kAllRandomRequests = ((2, 7), (3, 6), (3, 11), (3, 14))
kWaits = "import sys, time\nprint('ready')\nsys.stdout.flush()\nwhile True:\n    time.sleep(0.01)\n"


def wait_for_pid_file(path):
    """Number that a program writes when it is ready."""
    while True:
        try:
            with open(path) as source:
                text = source.read()
        except IOError:
            continue
        if text.endswith("\n"):
            return int(text)


def wait_until_gone(pid):
    """Until no such process runs (one that has not been waited for has ended)."""
    while True:
        try:
            with open("/proc/{}/stat".format(pid)) as source:
                if source.read().rpartition(")")[2].split()[0] in "ZX":
                    return
        except IOError:
            return


class Case(TestCase):

    def program(self, text, name="prog.py"):
        return self.make_file(name, text)

    def adapter(self, *arguments, **options):
        client = dapclient.start_adapter(self, *arguments, **options)
        client.initialize()
        return client

    def launch(self, client, text, **arguments):
        """Start a program text; it runs when this returns."""
        if text is not None:
            arguments["program"] = self.program(text)
        arguments.setdefault("python", sys.executable)
        client.start_session(arguments)
        return client

    def finish(self, client):
        """(exit status, {category: text}) when the program has ended."""
        client.wait_event("terminated")
        status = client.seen_events("exited")
        self.assertEqual(len(status), 1)
        return status[0]["exitCode"], self.output(client)

    def output(self, client):
        texts = {}
        for body in client.seen_events("output"):
            texts[body["category"]] = texts.get(body["category"], "") + body["output"]
        return texts

    def wait_output(self, client, text):
        client.wait_event("output", lambda body: text in body["output"])

    def refusal(self, client, **arguments):
        arguments.setdefault("python", sys.executable)
        return client.refused("launch", arguments)


class WithoutDebugging(Case):
    """noDebug: the program's own business, with an adapter around it."""

    def start(self, text, **arguments):
        return self.launch(self.adapter(), text, noDebug=True, **arguments)

    def test_arguments_folder_and_environment(self):
        folder = self.make_dir()
        env_file = self.make_file("vars", "# comment\nexport A='1 $X'\nB=\"2\\n${A}\" # more\n"
                                          "C=3 # x\nnonsense\n")
        client = self.start(
            "import os, sys\n"
            "print(sys.argv[1:], os.getcwd(), [os.environ.get(n) for n in 'ABCDE'])\n"
            "print(sys.stdin.read() == '')\n",
            args=["a b", "", "--program"], cwd=folder, env={"C": "4", "D": None, "E": u"\u00e4"},
            envFile=env_file)
        status, texts = self.finish(client)
        wanted = "{!r} {} {!r}".format(
            ["a b", "", "--program"], folder,
            ["1 $X", "2\n1 $X", "4", None, "\xc3\xa4" if sys.version_info[0] == 2
             else u"\u00e4"])
        if sys.version_info[0] == 2:
            wanted = repr((["a b", "", "--program"], folder,
                           ["1 $X", "2\n1 $X", "4", None, "\xc3\xa4"]))
        self.assertEqual((status, texts["stdout"]), (0, wanted + "\nTrue\n"))

    def test_module_and_code_and_argument_text(self):
        folder = self.make_dir()
        self.make_file("mod/__main__.py", "import sys\nprint('mod', sys.argv[1:])\n", folder)
        self.make_file("mod/__init__.py", "", folder)
        client = self.start(None, module="mod", cwd=folder, args="x 'y z'")
        self.assertIn("'y z']", self.finish(client)[1]["stdout"])
        client = self.start(None, code=["import sys", "sys.exit(len(sys.argv[1]))"], args=["four"])
        self.assertEqual(self.finish(client)[0], 4)

    def test_true_exit_status(self):
        for text, status in (("", 0), ("import sys; sys.exit(3)", 3), ("1/0", 1),
                             ("import os; os._exit(255)", 255),
                             ("import os; os.kill(os.getpid(), 9)", 137),
                             ("import os; os.kill(os.getpid(), 11)", 139)):
            self.assertEqual(self.finish(self.start(text))[0], status, text)

    def test_everything_written_comes_before_the_end(self):
        client = self.start(
            "import os\nfor n in range(4000):\n    os.write(1 + n % 2, b'x' * 999 + b'\\n')\n")
        client.wait_event("terminated")
        names = [(m["event"], m.get("body", {}).get("category")) for m in client.messages
                 if m["type"] == "event"]
        self.assertEqual(names[-2:], [("exited", None), ("terminated", None)])
        texts = self.output(client)
        self.assertEqual((len(texts["stdout"]), len(texts["stderr"])), (2000000, 2000000))

    def test_characters_across_pieces_and_bytes_that_are_none(self):
        gate = os.path.join(self.make_dir(), "gate")
        os.mkfifo(gate)
        client = self.start(
            "import os\nos.write(1, b'a\\xe2')\nopen({0!r}).read()\nos.write(1, b'\\x82\\xac')\n"
            "open({0!r}).read()\n"
            "os.write(1, b'\\xff\\xfe|')\nos.write(1, u'\\U0001f40d'.encode('utf-8'))\n"
            "os.write(1, b'\\xe2')\n".format(gate))
        self.wait_output(client, "a")
        open(gate, "w").close()
        self.wait_output(client, u"\u20ac")
        open(gate, "w").close()
        status, texts = self.finish(client)
        self.assertEqual((status, texts["stdout"]), (0, u"a\u20ac\ufffd\ufffd|\U0001f40d\ufffd"))

    def test_partial_line_is_shown_at_once(self):
        client = self.start("import os, sys\nos.write(1, b'name? ')\nsys.stdin.read()\n"
                            "while True: pass\n")
        self.wait_output(client, "name? ")
        client.request("disconnect")

    def test_output_of_children_is_not_waited_for(self):
        pid_file = os.path.join(self.make_dir(), "pid")
        client = self.start(
            "import os, time\npid = os.fork()\nif pid == 0:\n    os.setpgid(0, 0)\n"
            "    while True: time.sleep(1)\n"
            "open({0!r}, 'w').write(str(pid) + '\\n')\n".format(pid_file))
        self.assertEqual(self.finish(client)[0], 0)
        os.kill(wait_for_pid_file(pid_file), signal.SIGKILL)

    def test_no_output_when_not_wanted(self):
        self.assertEqual(self.finish(self.start("print(1)", redirectOutput=False)), (0, {}))

    def test_requests_that_need_a_debugger(self):
        client = self.start(kWaits)
        self.assertEqual(client.request("threads"), {"threads": []})
        rows = client.request("setBreakpoints",
                              {"source": {"path": "/x.py"}, "breakpoints": [{"line": 1}]})
        self.assertFalse(rows["breakpoints"][0]["verified"])
        self.assertIn("without a debugger", client.refused("evaluate", {"expression": "1"}))
        self.wait_output(client, "ready")
        client.request("terminate")
        self.assertEqual(self.finish(client)[0], 130 if sys.version_info >= (3, 8) else 1)
        self.assertIn("KeyboardInterrupt", self.output(client)["stderr"])
        self.assertIn("ended", client.refused("evaluate", {"expression": "1"}))

    def test_steps_of_termination(self):
        text = ("import os, signal\n"
                "signal.signal(signal.SIGINT, lambda *a: os.write(1, b'INT\\n'))\n"
                "signal.signal(signal.SIGTERM, lambda *a: os.write(1, b'TERM\\n'))\n") + kWaits
        client = self.start(text, killTimeout=1000)
        self.wait_output(client, "ready")
        for name in ("INT", "TERM"):
            client.request("terminate")  # each one hurries
            self.wait_output(client, name)
        client.request("terminate")
        self.assertEqual(self.finish(client)[0], 137)
        for setting, shown in (("KeyboardInterrupt", ["INT", "TERM"]), ("SIGTERM", ["TERM"]),
                               ("kill", [])):
            client = self.start(text, killTimeout=0, onTerminate=setting)
            self.wait_output(client, "ready")
            client.request("terminate")
            self.assertEqual(self.finish(client)[0], 137)
            self.assertLessEqual(
                set(self.output(client)["stdout"].split()[1:]), set(shown))

    def test_disconnect_ends_a_launched_program(self):
        client = self.start("import os\nprint(os.getpid())\n" + kWaits)
        pid = int(client.wait_event("output")["output"].split()[0])
        client.request("disconnect")
        wait_until_gone(pid)
        self.assertEqual(client.wait_exit(), 0)

    def test_disconnect_that_lets_it_go_on(self):
        pid_file, gate = os.path.join(self.make_dir(), "pid"), os.path.join(self.make_dir(), "gate")
        os.mkfifo(gate)
        client = self.start(
            "import os, sys\nopen({!r}, 'w').write(str(os.getpid()) + '\\n')\nopen({!r}).read()\n"
            "for n in range(100000): print('much to write')\nsys.stdout.flush()\n"
            "open({!r}, 'w').write('written')\n".format(pid_file, gate, gate))
        pid = wait_for_pid_file(pid_file)
        client.request("disconnect", {"terminateDebuggee": False})
        self.assertEqual(client.wait_exit(), 0)
        with open(gate, "w"):
            pass
        with open(gate) as source:  # more than a pipe holds has been written, to nobody
            self.assertEqual(source.read(), "written")
        wait_until_gone(pid)

    def test_client_that_hangs_up(self):
        client = self.start("import os\nprint(os.getpid())\n" + kWaits)
        pid = int(client.wait_event("output")["output"].split()[0])
        client.close()
        wait_until_gone(pid)
        client.wait_exit()

    def test_adapter_that_is_killed(self):
        client = self.start("import os\nprint(os.getpid())\n" + kWaits)
        pid = int(client.wait_event("output")["output"].split()[0])
        client.process.kill()
        wait_until_gone(pid)

    def test_restart(self):
        client = self.start("import os\nprint('run %d' % os.getpid())\n" + kWaits)
        first = client.wait_event("output", lambda body: "run" in body["output"])["output"]
        client.request("restart")
        second = client.wait_event("output", lambda body: "run" in body["output"])["output"]
        self.assertNotEqual(first, second)
        self.assertEqual(client.seen_events("terminated"), [])
        client.request("restart", {"arguments": {
            "code": "print('other')", "noDebug": True, "python": sys.executable}})
        self.wait_output(client, "other")
        self.assertEqual(self.finish(client)[0], 0)


class Debugging(Case):
    """The same with a debugger in the program."""

    text = (
        "import os, sys\nprint(os.getpid())\nsys.stdout.flush()\n"
        "for n in range(3):\n    x = n  #@ loop\n"
        "print('done')\nsys.exit(6)  #@ exit\n")

    def start(self, text=None, places=("loop",), **arguments):
        self.path = self.program(text or self.text)
        client = self.adapter()
        self.answers = client.start_session(
            dict({"program": self.path, "python": sys.executable}, **arguments),
            breakpoints={self.path: places})
        return client

    def pid_of(self, client):
        return client.wait_event("process")["systemProcessId"]

    def test_session_from_start_to_end(self):
        client = self.start(None, ["exit"], args=["a"], foo=1)
        pid = self.pid_of(client)
        thread = client.wait_stopped("breakpoint")["threadId"]
        self.assertEqual(client.place(thread), ("<module>", "exit"))
        # What was written before the stop has been shown before it.
        kinds = [m["event"] for m in client.messages if m["type"] == "event"]
        self.assertEqual(self.output(client)["stdout"], "{}\ndone\n".format(pid))
        self.assertLess(max(i for i, k in enumerate(kinds) if k == "output"),
                        kinds.index("stopped"))
        self.assertIn("must be a whole number", client.refused("next", {"threadId": "x"}))
        self.assertIn("is missing", client.refused("stackTrace", {}))
        self.assertIn("no request", client.refused("nonsense", {}))
        client.resume(thread)
        self.assertEqual(self.finish(client)[0], 6)
        self.assertIn("ended", client.refused("threads"))
        client.request("disconnect")
        self.assertEqual(client.wait_exit(), 0)

    def test_environment_of_the_program_is_as_without(self):
        text = (
            "import os, sys\nprint(sorted(n for n in os.environ if 'TDBG_S' in n or 'TDBG_T' in n),"
            " os.environ.get('PYTHONPATH'), os.environ.get('PYTHONIOENCODING'))\n"
            "print(os.listdir('/proc/self/fd') and sys.argv[1:])\n")
        with_debugger = self.finish(self.start(text, [], args=["x y"]))
        without = self.finish(self.launch(self.adapter(), text, args=["x y"], noDebug=True))
        self.assertEqual(with_debugger, without)

    def test_restart_keeps_breakpoints(self):
        client = self.start()
        number = self.answers[self.path][0]["id"]
        first = self.pid_of(client)
        thread = client.wait_stopped("breakpoint")["threadId"]
        client.request("restart")
        self.assertNotEqual(self.pid_of(client), first)
        stop = client.wait_stopped("breakpoint")
        self.assertEqual(stop["hitBreakpointIds"], [number])
        self.assertEqual(client.place(stop["threadId"]), ("<module>", "loop"))
        wait_until_gone(first)
        # A client that sends them again moves them.
        client.set_breakpoints(self.path, ["exit"])
        client.resume(stop["threadId"])
        thread = client.wait_stopped("breakpoint")["threadId"]
        self.assertEqual(client.place(thread), ("<module>", "exit"))
        client.request("restart")
        self.assertEqual(client.place(client.wait_stopped("breakpoint")["threadId"]),
                         ("<module>", "exit"))
        self.assertEqual(client.seen_events("terminated"), [])
        self.assertEqual(len(client.seen_events("initialized")), 1)
        client.resume(1)
        self.assertEqual(self.finish(client)[0], 6)

    def test_configuration_before_launch(self):
        path = self.program(self.text)
        client = self.adapter()
        row = client.set_breakpoints(path, ["loop"])[0]
        self.assertFalse(row["verified"])
        client.request("setExceptionBreakpoints", {"filters": []})
        client.request("configurationDone")
        client.request("launch", {"program": path, "python": sys.executable})
        told = client.wait_event("breakpoint")["breakpoint"]
        self.assertEqual((told["id"], told["verified"]), (row["id"], True))
        self.assertEqual(client.wait_stopped("breakpoint")["hitBreakpointIds"], [row["id"]])
        client.request("disconnect")

    def test_terminate_runs_what_cleans_up(self):
        gate = os.path.join(self.make_dir(), "gate")
        os.mkfifo(gate)
        # deliberate: no file object, whose end warns in debug builds, where an interrupt is lost.
        text = ("import os\ntry:\n    os.close(os.open({!r}, os.O_RDONLY))\n"
                "    while True:\n        x = 1  #@ loop\n"
                "finally:\n    print('cleaned up')\n").format(gate)
        for places in (["loop"], []):  # stopped, running
            client = self.start(text, places)
            open(gate, "w").close()  # once it is at the `try`
            if places:
                client.wait_stopped("breakpoint")
            client.request("terminate")
            status, texts = self.finish(client)
            self.assertEqual(texts["stdout"], "cleaned up\n")
            self.assertIn(status, (1, 130))

    def test_terminate_a_program_that_refuses(self):
        text = ("import signal\nsignal.signal(signal.SIGINT, lambda *a: None)\nopen({!r})\n"
                "while True:\n    x = 1\n")
        gate = os.path.join(self.make_dir(), "gate")
        os.mkfifo(gate)
        client = self.start(text.format(gate), [], killTimeout=0.05)
        open(gate, "w").close()  # once it has its handler
        client.request("terminate")
        self.assertEqual(self.finish(client)[0], 128 + signal.SIGTERM)

    def test_ends_with_its_adapter_stopped_or_not(self):
        for places in (["loop"], []):
            for way in ("kill", "hang up", "disconnect"):
                client = self.start(self.text.replace("range(3)", "iter(int, 1)"), places)
                pid = self.pid_of(client)
                if places:
                    client.wait_stopped("breakpoint")
                if way == "kill":
                    client.process.kill()
                elif way == "hang up":
                    client.close()
                else:
                    client.request("disconnect")
                wait_until_gone(pid)
                client.wait_exit()

    def test_disconnect_that_lets_it_go_on(self):
        done = os.path.join(self.make_dir(), "done")
        os.mkfifo(done)
        client = self.start("x = 1  #@ loop\nopen({!r}, 'w').write('went on')\n".format(done))
        client.wait_stopped("breakpoint")
        client.request("disconnect", {"terminateDebuggee": False})
        self.assertEqual(client.wait_exit(), 0)
        with open(done) as source:
            self.assertEqual(source.read(), "went on")

    def test_many_requests_good_and_bad(self):
        client = self.start("def f(a):\n    b = [a]  #@ loop\n    return b\nwhile True:\n"
                            "    f(1)\n")
        client.wait_stopped("breakpoint")
        count = kRandomRequests
        # ./check --quick
        if "TDBG_RANDOM_CALLS" in os.environ or sys.version_info[:2] not in kAllRandomRequests:
            count //= 10
        random = RandomRequests(self.path, 20)
        sent = [client.send(*random.next()) for _ in range(count)]
        for seq in sent:
            client.response_to(seq, 300)
        client.send("pause", {"threadId": 1})
        client.set_breakpoints(self.path, ["loop"])
        kinds = [m["success"] for m in client.messages if m["type"] == "response"]
        self.assertGreater(kinds.count(True), count // 20)
        self.assertGreater(kinds.count(False), count // 20)
        client.request("disconnect")
        self.assertEqual(client.wait_exit(), 0)

    test_many_requests_good_and_bad.tdbg_time_limit = 400


class RandomRequests(object):
    """Requests of every kind, with arguments that may be right, wrong, missing or of another type.
    None of those that end the session."""

    commands = (
        "threads", "stackTrace", "scopes", "variables", "evaluate", "setVariable",
        "setExpression", "source", "continue", "next", "stepIn", "stepOut", "pause", "goto",
        "gotoTargets", "stepInTargets", "completions", "exceptionInfo", "loadedSources", "modules",
        "setBreakpoints", "setFunctionBreakpoints", "setExceptionBreakpoints",
        "breakpointLocations", "cancel", "configurationDone", "initialize", "launch",
        "attach", "nonsense", "tdbg/tasks", "tdbg/ignoreException", "tdbg/setRules",
        "dataBreakpointInfo", "restartFrame", "disassemble")

    def __init__(self, path, seed):
        self.random = random.Random(seed)
        self.path = path

    def next(self):
        choose = self.random.choice
        arguments = {
            "threadId": choose((1, 1, 1, 2, 0, -1, "1", None, 2 ** 40)),
            "frameId": choose((1, 2, 3, 50, 0, -1, None, "x", 1.5)),
            "variablesReference": choose((1, 2, 3, 4, 10, 0, -1, [], 2 ** 70)),
            "expression": choose(("a", "b", "1/0", "a +", u"'\U0001f40d'", "", None, 3,
                                  "x" * 5000)),
            "context": choose(("watch", "hover", "repl", "clipboard", "variables", None, 7)),
            "source": choose(({"path": self.path}, {"path": "/nowhere.py"}, {"sourceReference": 5},
                              {}, None, "x")),
            "breakpoints": choose(([], [{"line": 2}], [{"line": -5}], [{"line": "x"}], [{}], None,
                                   [{"name": "f"}], [
                                       {"line": 2, "condition": "a ==", "hitCondition": "%2",
                                        "logMessage": "{a"}])),
            "filters": choose(([], ["raised"], ["nonsense"], None, 4)),
            "line": choose((1, 2, 0, -1, 10 ** 9, "x", None)), "column": choose((1, 0, -3, None)),
            "text": choose(("a", "", "b.", None, 4)), "name": choose(("a", "b", "", None, 5)),
            "value": choose(("1", "", "1/0", "a +", None, 5)), "targetId": choose((1, 0, -1, "x")),
            "requestId": choose((1, 0, -1, None)), "sourceReference": choose((0, 1, -1)),
        }
        for name in list(arguments):
            if self.random.random() < 0.2:
                del arguments[name]
        return choose(self.commands), choose((arguments, arguments, arguments, arguments, None, {}))


class Refusals(Case):
    """What cannot be started is a failed response that says why, and the adapter goes on."""

    def test_all_reasons(self):
        client = self.adapter()
        good = self.program("print('ok')\n")
        old = self.make_file("python", "#!/bin/sh\nexit 7\n")
        os.chmod(old, 0o755)
        for wanted, arguments in (
                ("exactly one of", {}),
                ("exactly one of", {"program": good, "module": "x"}),
                ("No such file", {"program": "/nowhere/prog.py"}),
                ("SyntaxError in", {"program": self.program("x = (\n")}),
                ("line 2", {"program": self.program("x = 1\ny = )\n")}),
                ("no module named nowhere_at_all", {"module": "nowhere_at_all"}),
                ("SyntaxError in <string>", {"code": "x = ("}),
                ("without a __main__.py", {"program": self.make_dir()}),
                ("cannot run", {"program": good, "python": "/nowhere/python"}),
                ("status 7", {"program": good, "python": old}),
                ("-E, -I and -S", {"program": good, "pythonArgs": ["-E"]}),
                ("no folder", {"program": good, "cwd": "/nowhere"}),
                ("`envFile`", {"program": good, "envFile": "/nowhere/vars"}),
                ("`args`", {"program": good, "args": "'"}),
                ("`console` must be one of", {"program": good, "console": "x"}),
                ("`stopOnEntry` must be", {"program": good, "stopOnEntry": 1})):
            for no_debug in (True, False):
                self.assertIn(wanted, self.refusal(client, noDebug=no_debug, **arguments))
        self.launch(client, None, program=good, noDebug=True)
        self.assertEqual(self.finish(client)[1]["stdout"], "ok\n")

    def test_version_that_is_not_supported(self):
        client = self.adapter()
        version = (2, 6, 9) if sys.version_info[0] == 2 else (3, 5, 0)
        fake = self.make_file("python", (
            "#!/bin/sh\nexec {} -c 'import sys; sys.version_info = {}\n"
            "sys.argv = sys.argv[1:]; sys.path[0] = \"{}\"\nfrom tdbg import launch\n"
            "sys.exit(launch.main(sys.argv[1:], \"{}\"))' \"$@\"\n").format(
                sys.executable, version, os.path.dirname(dapclient.PACKAGE), dapclient.PACKAGE))
        os.chmod(fake, 0o755)
        self.assertEqual(self.refusal(client, program=self.program(""), python=fake),
                         "Python {}.{} is not supported: 2.7 and 3.6 to 3.14 are".format(*version))

    def test_order_and_unknown_requests(self):
        client = dapclient.start_adapter(self)
        self.assertIn("too early", client.refused("launch", {"program": "x"}))
        client.initialize()
        self.assertIn("already", client.refused("initialize", {"adapterID": "x"}))
        self.assertIn("no request `nonsense`", client.refused("nonsense"))
        self.assertIn("too early", client.refused("threads"))
        self.assertIn("no program", client.refused("terminate"))
        self.assertIn("launched", client.refused("restart"))
        self.assertIn("needs one of", client.refused("attach", {}))
        self.assertEqual(client.request("disconnect"), {})
        self.assertEqual(client.wait_exit(), 0)

    def test_unknown_settings_are_one_warning(self):
        client = self.launch(self.adapter(), "", noDebug=True, foo=1, bar=2)
        self.finish(client)
        warnings = [b for b in client.seen_events("output") if b["category"] == "console"]
        self.assertEqual(len(warnings), 1)
        self.assertIn("bar, foo", warnings[0]["output"])


class Messages(Case):

    def test_broken_messages_do_not_end_the_session(self):
        client = self.adapter()
        for text in (b"[]", b"{", b'"x"', b"\xff", b'{"type": "request"}',
                     b'{"seq": "x", "type": "request"}', b'{"seq": 5, "type": "x", "command": "y"}',
                     b"{}", b'{"type": "response", "request_seq": []}'):
            client.send_bytes("Content-Length: {}\r\n\r\n".format(len(text)).encode("ascii") + text)
        client._seq = 100
        self.assertIn("too early", client.refused("threads"))
        failed = [m for m in client.messages if m["type"] == "response" and not m["success"]]
        self.assertEqual(len(failed), 9)  # a response to nothing gets no answer

    def test_null_arguments_and_missing_ones(self):
        client = self.adapter()
        seq = client.send_message({"type": "request", "command": "disconnect", "arguments": None})
        self.assertTrue(client.response_to(seq)["success"])

    def test_bad_header_ends_it(self):
        client = self.adapter()
        client.send_bytes(b"GET / HTTP/1.1\r\n\r\n")
        client.wait_end()
        self.assertEqual(client.wait_exit(), 0)

    def test_program_ends_with_a_client_that_sends_a_bad_header(self):
        client = self.launch(self.adapter(), "import os\nprint(os.getpid())\n" + kWaits,
                             noDebug=True)
        pid = int(client.wait_event("output")["output"].split()[0])
        client.send_bytes(b"nonsense\r\n")
        client.wait_end()
        wait_until_gone(pid)


class Terminals(Case):
    """runInTerminal, by a client that runs the command itself."""

    def start(self, text, **arguments):
        client = dapclient.start_adapter(self)
        client.initialize(supportsRunInTerminalRequest=True)
        configuration = dict({
            "program": self.program(text), "python": sys.executable,
            "console": "integratedTerminal", "noDebug": True}, **arguments)
        self.seq = client.send("launch", configuration)
        return client, client.wait_request("runInTerminal")

    def run_it(self, client, request, **streams):
        arguments = request["arguments"]
        env = dict(os.environ,
                   **{k: v for k, v in arguments.get("env", {}).items() if v is not None})
        process = subprocess.Popen(arguments["args"], cwd=arguments["cwd"], env=env, **streams)
        self.addCleanup(dapclient.end_process, process)
        client.respond(request, {"processId": process.pid})
        return process

    def test_input_output_and_status_are_the_terminals(self):
        folder = self.make_dir()
        client, request = self.start(
            "import os, sys\nprint(sys.stdin.readline().strip(), os.environ['A'])\nsys.exit(5)\n",
            cwd=folder, env={"A": "b", "NOT": None})
        self.assertEqual((request["arguments"]["kind"], request["arguments"]["cwd"]),
                         ("integrated", folder))
        self.assertEqual(request["arguments"]["env"], {"A": "b", "NOT": None})
        process = self.run_it(client, request, stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        out = process.communicate(b"typed\n")[0]
        self.assertEqual((out.decode("ascii").replace("'", ""), process.returncode),
                         ("typed b\n" if sys.version_info[0] > 2 else "(typed, b)\n", 5))
        self.assertTrue(client.response_to(self.seq)["success"])
        client.wait_event("terminated")
        self.assertEqual(client.seen_events("exited"), [{"exitCode": 5}])
        self.assertEqual(client.seen_events("output"), [])

    def test_output_of_a_terminal_is_shown_in_the_editor_on_request(self):
        text = (
            "import sys\n"
            "sys.stdout.write('a')\nprint('b')  #@ stop\nsys.stderr.write('c\\n')\n"
            "sys.stdout.write(u'\\xe4\\n')\nsys.stdout.write('rest')\n")
        client, request = self.start(text, noDebug=False, redirectOutput=True,
                                     env={"PYTHONIOENCODING": "utf-8"})
        process = self.run_it(client, request, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                              stderr=subprocess.PIPE)
        client.wait_event("initialized")
        path = os.path.join(request["arguments"]["args"][-1])
        client.set_breakpoints(path, ["stop"])
        client.request("configurationDone")
        thread = client.wait_stopped("breakpoint")["threadId"]
        # What is written is told at once, and nothing of how it is done can be stepped into.
        self.assertEqual(client.step("stepIn", thread), ("<module>", 4))
        client.wait_event("output", lambda body: body == {"category": "stdout", "output": "ab\n"})
        client.resume(thread)
        out, err = process.communicate()
        self.assertEqual((out.decode("utf-8"), err.decode("utf-8"), process.returncode), (
            u"ab\n\xe4\nrest", "c\n", 0))
        client.wait_event("terminated")
        self.assertEqual(self.output(client), {"stdout": u"ab\n\xe4\nrest", "stderr": "c\n"})

    def test_external_kind_and_arguments_for_a_shell(self):
        client = dapclient.start_adapter(self)
        client.initialize(supportsRunInTerminalRequest=True,
                          supportsArgsCanBeInterpretedByShell=True)
        program = self.program("import sys\nprint(sys.argv[1:])\n", "a b.py")
        client.send("launch",
                    {"program": program, "python": sys.executable, "console": "externalTerminal",
                     "args": "$((1 + 1)) 'x y'", "noDebug": True})
        request = client.wait_request("runInTerminal")
        self.assertEqual(request["arguments"]["kind"], "external")
        self.assertTrue(request["arguments"]["argsCanBeInterpretedByShell"])
        done = run_program(["/bin/sh", "-c", " ".join(request["arguments"]["args"])])
        self.assertEqual(done.out, "['2', 'x y']\n")

    def test_terminal_that_cannot_be_had(self):
        client, request = self.start("")
        client.respond(request, success=False, message="no terminal today")
        response = client.response_to(self.seq)
        self.assertFalse(response["success"])
        self.assertIn("no terminal today", response["message"])

    def test_client_without_terminals(self):
        client = self.launch(self.adapter(), "print('here')", noDebug=True,
                             console="integratedTerminal")
        texts = self.finish(client)[1]
        self.assertEqual(texts["stdout"], "here\n")
        self.assertIn("no terminal", texts["console"])

    def test_program_that_never_comes(self):
        client, request = self.start("")
        client.request("disconnect")
        self.assertEqual(client.wait_exit(), 0)

    def test_adapter_that_is_killed(self):
        client, request = self.start("import os, sys\nprint(os.getpid())\nsys.stdout.flush()\n"
                                     + kWaits)
        process = self.run_it(client, request, stdout=subprocess.PIPE)
        pid = int(process.stdout.readline())
        client.process.kill()
        wait_until_gone(pid)
        self.assertEqual(dapclient.wait_for_process(process), 128 + signal.SIGTERM)

    def test_terminal_that_is_closed(self):
        client, request = self.start("import os, sys\nprint(os.getpid())\nsys.stdout.flush()\n"
                                     + kWaits)
        process = self.run_it(client, request, stdout=subprocess.PIPE)
        pid = int(process.stdout.readline())
        process.send_signal(signal.SIGHUP)
        os.kill(pid, signal.SIGHUP)
        client.wait_event("terminated")
        self.assertEqual(client.seen_events("exited"), [{"exitCode": 129}])


class CommandLine(Case):

    def test_unknown_words_are_one_line(self):
        for arguments in (["--nonsense"], ["x"], ["--port"], ["--port", "x"], ["--port", "70000"],
                          ["--host", "127.0.0.1"], ["--no-token=1"]):
            done = run_program(dapclient.adapter_argv(*arguments))
            self.assertEqual((done.status, done.out), (2, ""), done)
            self.assertEqual(len(done.err.splitlines()), 1, done)
            self.assertIn("usage: tdbg adapter", done.err)

    def test_ways_to_start(self):
        for argv, options in (
                ([kAdapter], {}),
                (["-m", "tdbg.adapter"], {"cwd": os.path.dirname(dapclient.PACKAGE)}),
                (["-m", "tdbg", "adapter"], {"cwd": os.path.dirname(dapclient.PACKAGE)})):
            process = subprocess.Popen([dapclient.adapter_python()] + argv, stdin=subprocess.PIPE,
                                       stdout=subprocess.PIPE, **options)
            self.addCleanup(dapclient.end_process, process)
            client = dapclient.client_of_process(process)
            self.assertTrue(client.initialize()["supportsConfigurationDoneRequest"])
            client.request("disconnect")
            self.assertEqual(client.wait_exit(), 0)

    def test_nothing_else_reaches_standard_output(self):
        """A print() within the adapter's process is no message."""
        client = self.adapter()
        self.assertEqual(os.readlink("/proc/{}/fd/1".format(client.process.pid)),
                         os.readlink("/proc/{}/fd/2".format(client.process.pid)))
        self.assertEqual(os.readlink("/proc/{}/fd/0".format(client.process.pid)), "/dev/null")
