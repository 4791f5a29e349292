"""Breakpoints over the Debug Adapter Protocol: places, conditions, hits, log points, functions."""
from __future__ import absolute_import, division, print_function

import hashlib
import os
import sys
import unittest

from support import TestCase, line_of
from support.dapclient import debug_directly
from support.dapstops import next_stop, output_of, run_to_end, value_at

kOncePerVersion = True

MAIN = '''\
"""A program."""
import os
import helper  #@ import-helper


def loop(count):

    total = 0  #@ loop-first
    for i in range(count):
        total += i  #@ loop-body
    return total  #@ loop-return
    # the end of it


def one(x): return x  #@ one


class Thing(object):
    def method(self, value):
        return value  #@ method

    def other(self):
        def inner():
            return self.method(2)  #@ inner

        return inner()  #@ other


loop(10)  #@ call-loop
one(1)  #@ call-one
Thing().other()  #@ call-other
helper.work(3)  #@ call-work
'''

HELPER = '''\
"""A module."""

LIMIT = 3  #@ limit


def work(n):

    return n + LIMIT  #@ work


def twice(function):
    def wrapper(*args):
        return function(*args)  #@ wrapper
    wrapper.__wrapped__ = function
    return wrapper


@twice
def decorated():
    return 1  #@ decorated
'''


class BreakpointTest(TestCase):
    def setUp(self):
        self.folder = os.path.realpath(self.make_dir())
        self.main = self.make_file("main.py", MAIN, self.folder)
        self.helper = self.make_file("helper.py", HELPER, self.folder)

    def line(self, mark):
        return line_of(self.main, mark)

    def start(self, arguments=None, breakpoints=None, program=None, initialize=None,
              before=None, **options):
        """A client whose program runs, or waits at its first breakpoint.  before(client): requests
        to send before configurationDone."""
        client = debug_directly(self, program or self.main, cwd=self.folder, **options)
        client.initialize(**(initialize or {}))
        started = client.send("launch", arguments or {})
        client.wait_event("initialized")
        self.answers = {}
        for path, places in (breakpoints or {}).items():
            self.answers[path] = client.set_breakpoints(path, places)
        if before is not None:
            before(client)
        client.request("configurationDone")
        self.assertTrue(client.response_to(started)["success"], client.response_to(started))
        return client

    def marks(self, stops):
        return [stop.mark for stop in stops]


class Lines(BreakpointTest):
    def test_places_conditions_and_hits(self):
        """One program, every kind of place and condition."""
        body = self.line("loop-body")
        rows = [
            {"line": "import-helper"},
            {"line": self.line("loop-first") - 1},                      # moves
            {"line": "loop-body", "condition": "i == 4"},
            {"line": "loop-return", "condition": "nothing"},            # fails: stops
            {"line": self.line("loop-return") + 1},                     # refused
            {"line": 1000},                                             # refused
            {"line": "one"},
            {"line": "method", "hitCondition": "never"},                # refused
            {"line": "inner", "condition": "1 +"},                      # refused
            {"line": "other", "logMessage": "{"},                       # refused
        ]
        client = self.start(breakpoints={self.main: rows})
        answers = self.answers[self.main]
        self.assertEqual(
            [row["verified"] for row in answers], [True] * 4 + [False] * 2 + [True] + [False] * 3)
        self.assertEqual(
            [row["line"] for row in answers][:4],
            [self.line("import-helper"), self.line("loop-first"), body, self.line("loop-return")])
        self.assertEqual(len(set(row["id"] for row in answers)), len(rows))
        for row, text in zip([answers[4], answers[5]] + answers[7:], (
                "no code at line", "it ends with line", "hit condition", "no expression",
                "without a }")):
            self.assertIn(text, row["message"])
            self.assertEqual(row["reason"], "failed")
        for row in answers:
            self.assertEqual(row["source"]["path"], self.main)
        values = []

        def look(stop):
            if stop.mark == "loop-body":
                values.append(value_at(client, stop, "i"))

        stops = run_to_end(client, look)
        self.assertEqual(
            self.marks(stops), ["import-helper", "loop-first", "loop-body", "loop-return", "one"])
        self.assertEqual([stop.ids for stop in stops],
                         [[answers[n]["id"]] for n in (0, 1, 2, 3, 6)])
        self.assertEqual([stop.reason for stop in stops], ["breakpoint"] * 5)
        self.assertEqual([stop.name for stop in stops][1:], ["loop", "loop", "loop", "one"])
        self.assertEqual(values, ["4"])
        self.assertIn("NameError", stops[3].body["text"])
        self.assertIn("`nothing`", stops[3].body["description"])
        shown = [text for text, _, _ in output_of(client, "stderr") if "`nothing`" in text]
        self.assertEqual(len(shown), 1)
        self.assertEqual(client.wait_exit(), 0)

    def test_hit_conditions(self):
        """Changed at each round, with the program stopped at the call."""
        program = self.make_file("rounds.py", (
            "def loop(count):\n"
            "    for i in range(count):\n"
            "        last = i  #@ body\n"
            "    return last\n"
            "\n"
            "for turn in range({0}):\n"
            "    turn += 0  #@ turn\n"
            "    loop(8)\n").format(9), self.folder)
        rounds = [
            ("3", None, [2]), ("==3", None, [2]), (">=7", None, [6, 7]), (">6", None, [6, 7]),
            ("<3", None, [0, 1]), ("%3", None, [2, 5]), ("%2", "i % 2", [3, 7]),
            ("2", "str(i) > '3'", [5]), (" > 2 ", "i > 3", [6, 7])]
        client = self.start(breakpoints={program: ["turn"]}, program=program)
        seen = [[] for _ in rounds]
        ids = []

        def look(stop):
            if stop.mark == "turn":
                count = len(ids)
                row = {"line": "body", "hitCondition": rounds[count][0]}
                if rounds[count][1]:
                    row["condition"] = rounds[count][1]
                answers = client.set_breakpoints(program, ["turn", row])
                self.assertEqual([answer["verified"] for answer in answers], [True, True], answers)
                ids.append(answers[1]["id"])
            else:
                seen[len(ids) - 1].append(int(value_at(client, stop, "i")))

        run_to_end(client, look)
        self.assertEqual(seen, [expected for _, _, expected in rounds])
        self.assertEqual(len(set(ids)), 1)  # the wish at this line has kept its number

    def test_replaced_per_source(self):
        client = self.start(breakpoints={self.main: ["import-helper", "loop-first"],
                                         self.helper: ["work"]})
        first = self.answers[self.main]
        stop = next_stop(client)
        self.assertEqual(stop.mark, "import-helper")
        again = client.set_breakpoints(self.main, ["call-one", "loop-first"])
        self.assertEqual(again[1]["id"], first[1]["id"])
        self.assertNotIn(again[0]["id"], [row["id"] for row in first])
        self.assertEqual(client.set_breakpoints(self.main, ["call-one"])[0]["id"], again[0]["id"])
        client.resume(stop.thread_id)
        self.assertEqual(self.marks(run_to_end(client)), ["call-one", "work"])

    def test_several_on_one_line(self):
        line = self.line("loop-first")
        client = self.start(
            breakpoints={self.main: [line, line - 1, {"line": line, "logMessage": "here"}]})
        answers = self.answers[self.main]
        self.assertEqual([row["line"] for row in answers], [line] * 3)
        stops = run_to_end(client)
        self.assertEqual([(stop.mark, stop.ids) for stop in stops], [
            ("loop-first", [answers[0]["id"], answers[1]["id"]])])
        self.assertEqual(output_of(client), [("here\n", "main.py", line)])

    def test_set_and_removed_while_the_program_runs(self):
        flag = os.path.join(self.folder, "flag")
        program = self.make_file("busy.py", (
            "import os\n"
            "def busy(flag):\n"
            "    turns = 0\n"
            "    while not os.path.exists(flag):\n"
            "        turns += 1  #@ turn\n"
            "busy({!r})\n"
            "x = 1  #@ end\n").format(flag), self.folder)
        client = self.start(program=program, breakpoints={program: ["end"]})
        for _ in range(2):
            client.set_breakpoints(program, ["turn", "end"])
            stop = next_stop(client)
            self.assertEqual(stop.mark, "turn")
            client.set_breakpoints(program, ["end"])
            client.resume(stop.thread_id)
        self.make_file("flag", "", self.folder)
        self.assertEqual(self.marks(run_to_end(client)), ["end"])

    def test_possible_lines(self):
        client = self.start({"stopOnEntry": True})
        stop = next_stop(client)

        def lines(first, last=None):
            arguments = {"source": {"path": self.main}, "line": first}
            if last is not None:
                arguments["endLine"] = last
            return [row["line"]
                    for row in client.request("breakpointLocations", arguments)["breakpoints"]]

        body = self.line("loop-body")
        self.assertEqual(lines(body), [body])
        self.assertEqual(lines(self.line("loop-first") - 1), [])
        self.assertEqual(lines(self.line("loop-first") - 1, self.line("loop-return") + 1), [
            self.line("loop-first"), body - 1, body, body + 1])
        self.assertEqual(lines(1000), [])
        missing = {"source": {"path": "/no/such/file.py"}, "line": 1}
        self.assertEqual(client.request("breakpointLocations", missing)["breakpoints"], [])
        for arguments in ({"line": 1}, {"source": {"path": self.main}}, {"source": {}, "line": 1}):
            self.assertNotEqual(client.refused("breakpointLocations", arguments), "")
        self.assertIn("`source`", client.refused("setBreakpoints", {"breakpoints": []}))
        self.assertIn("`line`", client.refused(
            "setBreakpoints", {"source": {"path": self.main}, "breakpoints": [{}]}))
        self.assertEqual(client.request(
            "setBreakpoints",
            {"source": {"path": self.main}, "lines": [body]})["breakpoints"][0]["line"], body)
        self.assertEqual(client.set_breakpoints(self.main, []), [])
        client.resume(stop.thread_id)
        self.assertEqual(run_to_end(client), [])


class Logs(BreakpointTest):
    def test_log_points(self):
        """With conditions and hits, while stepping, and without one stop of their own."""
        rows = [
            {"line": "call-loop"},
            {"line": "loop-first", "logMessage": "count={count} {{braces}} {count!r:>4} {nothing}"},
            {"line": "loop-body", "logMessage": "{i}", "condition": "i % 2", "hitCondition": "%2"},
            {"line": "one", "logMessage": u"\u00e4 {x + 1}"},
            {"line": "method", "logMessage": "broken", "condition": "1/0"},
            {"line": "other", "logMessage": "{self.method(5)}"},
        ]
        client = self.start(breakpoints={self.main: rows})
        stop = next_stop(client)
        self.assertEqual(stop.mark, "call-loop")
        marks = []
        for _ in range(3):
            place, _ = client.go("next", stop.thread_id)
            marks.append(place[1])
            if marks[-1] == "call-other":
                break
        self.assertEqual(marks, ["call-one", "call-other"])
        stops = []
        client.resume(stop.thread_id)
        stops = run_to_end(client)
        self.assertEqual(self.marks(stops), ["method"])
        self.assertIn("ZeroDivisionError", stops[0].body["text"])
        self.assertEqual(output_of(client), [
            ("count=10 {braces}   10 <NameError: name 'nothing' is not defined>\n", "main.py",
             self.line("loop-first")),
            ("3\n", "main.py", self.line("loop-body")),
            ("7\n", "main.py", self.line("loop-body")),
            (u"\u00e4 2\n", "main.py", self.line("one")),
            ("5\n", "main.py", self.line("other"))])


class Functions(BreakpointTest):
    def test_by_qualified_name(self):
        names = ["loop", "Thing.method", "helper.work", "helper.decorated", "late.later",
                 "nothing.at.all", "Thing.other.<locals>.inner", "one()", "loop"]
        self.make_file("late.py", (
            "import helper\n"
            "helper.decorated()\n"
            "def later():\n"
            "    return 1  #@ later\n"), self.folder)
        program = self.make_file("program.py", MAIN + (
            "__import__('sys').path.append('more')\n"
            "import late\n"
            "late.later()\n"), self.folder)
        answers = []

        def before(client):
            rows = [{"name": name} for name in names]
            rows[0]["condition"] = "count == 10"
            rows[1]["hitCondition"] = "1"
            rows[8]["hitCondition"] = "x"
            answers.extend(client.request("setFunctionBreakpoints",
                                          {"breakpoints": rows})["breakpoints"])

        client = self.start(program=program, before=before)
        verified = dict((name, row["verified"]) for name, row in zip(names[:-1], answers))
        self.assertEqual(
            [name for name in names if not verified[name]], ["nothing.at.all"])
        self.assertFalse(answers[8]["verified"])
        self.assertIn("hit condition", answers[8]["message"])
        self.assertEqual(answers[0]["line"], self.line("loop-first"))
        self.assertEqual(answers[0]["source"]["path"], program)
        self.assertEqual(answers[5]["reason"], "pending")
        stops = run_to_end(client)
        self.assertEqual([stop.name.rpartition(".")[2] for stop in stops], [
            "loop", "one", "inner", "method", "work", "decorated", "later"])
        self.assertEqual(set(stop.reason for stop in stops), set(["function breakpoint"]))
        self.assertEqual(
            [stop.ids for stop in stops], [[answers[n]["id"]] for n in (0, 7, 6, 1, 2, 3, 4)])

    def test_pending_until_the_import(self):
        self.make_file("hidden/late.py", (
            "def later():\n"
            "    return 1  #@ later\n"
            "\n"
            "class Thing(object):\n"
            "    def method(self):\n"
            "        return 2  #@ method\n"), self.folder)
        program = self.make_file("program.py", (
            "import sys  #@ begin\n"
            "sys.path.append('hidden')\n"
            "import late  #@ import\n"
            "late.later()\n"
            "late.Thing().method()\n"), self.folder)
        answers = []

        def before(client):
            answers.extend(client.request("setFunctionBreakpoints", {"breakpoints": [
                {"name": "late.later"}, {"name": "Thing.method"},
                {"name": "no.such"}]})["breakpoints"])

        client = self.start(program=program, breakpoints={program: ["begin"]}, before=before)
        self.assertEqual([row["verified"] for row in answers], [False] * 3)
        self.assertEqual([row["reason"] for row in answers], ["pending"] * 3)
        stop = next_stop(client)
        self.assertEqual(client.seen_events("breakpoint"), [])
        client.resume(stop.thread_id)
        stops = run_to_end(client)
        self.assertEqual([(stop.mark, stop.ids) for stop in stops], [
            ("later", [answers[0]["id"]]), ("method", [answers[1]["id"]])])
        told = [event["breakpoint"] for event in client.seen_events("breakpoint")]
        self.assertEqual([(row["id"], row["verified"], row["line"]) for row in told], [
            (answers[0]["id"], True, 2), (answers[1]["id"], True, 6)])

    def test_calls_during_the_import(self):
        """The module's own top level calls what is waited for, which nobody could find before."""
        self.make_file("hidden/late.py", (
            "class Thing(object):\n"
            "    class Inner(object):\n"
            "        def deep(self):\n"
            "            return 1  #@ deep\n"
            "    def method(self):\n"
            "        return self.Inner().deep()  #@ method\n"
            "    @staticmethod\n"
            "    def make(): return Thing()  #@ make\n"
            "def helper():\n"
            "    return Thing.make().method()  #@ helper\n"
            "helper()\n"
            "import pack.part\n"), self.folder)
        self.make_file("hidden/pack/__init__.py", (
            "def work():\n"
            "    return 2  #@ work\n"
            "work()\n"), self.folder)
        self.make_file("hidden/pack/part.py", (
            "class Part(object):\n"
            "    def __init__(self):\n"
            "        self.x = 1  #@ init\n"
            "part = Part()\n"), self.folder)
        self.make_file("hidden/script.py", (
            "class Script(object):\n"
            "    def run(self):\n"
            "        return 3  #@ run\n"
            "Script().run()\n"), self.folder)
        self.make_file("hidden/gone.py", (
            "class Gone(object):\n"
            "    def method(self):\n"
            "        return 4\n"
            "Gone().method()\n"), self.folder)
        from support.programs import run_code
        run_code("import py_compile; py_compile.compile('gone.py', cfile='gone.pyc')",
                 cwd=os.path.join(self.folder, "hidden"))
        os.remove(os.path.join(self.folder, "hidden/gone.py"))
        program = self.make_file("program.py", (
            "import sys, runpy\n"
            "sys.path.append('hidden')\n"
            "import late, gone\n"
            "runpy.run_path('hidden/script.py')\n"
            "late.pack.work()\n"), self.folder)
        names = ["helper", "Thing.make", "late.Thing.method", "Thing.Inner.deep", "pack.work",
                 "pack.part.Part.__init__", "gone.Gone.method", "Script.run", "part.work",
                 "late.work"]
        answers = []

        def before(client):
            answers.extend(client.request(
                "setFunctionBreakpoints",
                {"breakpoints": [{"name": name} for name in names]})["breakpoints"])

        client = self.start(program=program, before=before)
        self.assertEqual([row["verified"] for row in answers], [False] * len(names))
        stops = run_to_end(client)
        self.assertEqual([stop.mark for stop in stops], [
            "helper", "make", "method", "deep", "work", "init", 3, "run", "work"])
        numbers = [row["id"] for row in answers]
        self.assertEqual([numbers.index(stop.ids[0]) for stop in stops],
                         [0, 1, 2, 3, 4, 5, 6, 7, 4])
        self.assertEqual(set(stop.reason for stop in stops), set(["function breakpoint"]))
        told = [event["breakpoint"]["id"] for event in client.seen_events("breakpoint")]
        self.assertEqual(told, numbers[:8])  # each once

    def test_calls_during_an_import_that_is_stepped_into(self):
        self.make_file("late.py", (
            "class Thing(object):  #@ class\n"
            "    def method(self):\n"
            "        return 1  #@ method\n"
            "Thing().method()  #@ call\n"
            "Thing().method()\n"), self.folder)
        program = self.make_file("program.py", "import late  #@ import\n", self.folder)
        client = self.start(
            program=program, breakpoints={program: ["import"]},
            before=lambda client: client.request(
                "setFunctionBreakpoints", {"breakpoints": [{"name": "Thing.method"}]}))
        stop = next_stop(client)
        self.assertEqual(client.step("stepIn", stop.thread_id)[1], "class")
        self.assertEqual(client.step("next", stop.thread_id)[1], "call")
        place, _ = client.go("next", stop.thread_id, reason="function breakpoint")
        self.assertEqual(place[1], "method")
        client.resume(stop.thread_id)
        self.assertEqual(self.marks(run_to_end(client)), ["method"])

    def test_generic_functions(self):
        if sys.version_info < (3, 12):
            self.skipTest("type parameters are of 3.12")
        program = self.make_file("program.py", (
            "class Box[T]:\n"
            "    def get[S](self) -> S:\n"
            "        return 1  #@ get\n"
            "Box().get()\n"), self.folder)
        client = self.start(program=program, before=lambda client: client.request(
            "setFunctionBreakpoints", {"breakpoints": [{"name": "Box.get"}]}))
        self.assertEqual(self.marks(run_to_end(client)), ["get"])

    def test_function_without_source(self):
        program = self.make_file("program.py", (
            "import gone\n"
            "gone.work()  #@ work\n"), self.folder)
        self.make_file("gone.py", "def work():\n    return 1\n", self.folder)
        answers = []

        def before(client):
            answers.extend(client.request(
                "setFunctionBreakpoints", {"breakpoints": [{"name": "gone.work"}]})["breakpoints"])

        code = "import py_compile; py_compile.compile('gone.py', cfile='gone.pyc')"
        from support.programs import run_code
        run_code(code, cwd=self.folder)
        os.remove(os.path.join(self.folder, "gone.py"))
        client = self.start(program=program, before=before)
        self.assertEqual([(row["verified"], row["reason"]) for row in answers],
                         [(False, "pending")])
        stops = run_to_end(client)
        self.assertEqual([(stop.name, stop.line) for stop in stops], [("work", 2)])


class Files(BreakpointTest):
    def test_the_clients_spelling_comes_back(self):
        """The program is found through a link to its folder, the module through one of its own."""
        other = self.make_dir()
        link = os.path.join(other, "link")
        os.symlink(self.folder, link)
        hard = os.path.join(other, "hard.py")
        os.link(self.helper, hard)
        client = self.start(breakpoints={
            os.path.join(link, "main.py"): ["call-loop"], hard: ["work"],
            os.path.join("..", os.path.basename(self.folder), "nothing.py"): [1]})
        stops = run_to_end(client)
        self.assertEqual([(stop.mark, stop.path) for stop in stops], [
            ("call-loop", os.path.join(link, "main.py")), ("work", hard)])
        self.assertEqual(stops[1].frame["source"]["name"], "hard.py")

    def test_relative_path(self):
        client = self.start(breakpoints={"main.py": [{"line": self.line("call-one")}]})
        stops = run_to_end(client)
        self.assertEqual([(stop.line, stop.path) for stop in stops],
                         [(self.line("call-one"), "main.py")])

    def test_copies_by_contents(self):
        copies = os.path.realpath(self.make_dir())
        copy = self.make_file("helper.py", HELPER, copies)
        changed = self.make_file("main.py", MAIN.replace("range", "list"), copies)
        client = self.start(breakpoints={copy: ["limit", "work"], changed: ["call-loop"]})
        stops = run_to_end(client)
        self.assertEqual([(stop.mark, stop.path) for stop in stops],
                         [("limit", copy), ("work", copy)])

    def test_checksum_of_a_file_that_is_elsewhere(self):
        data = HELPER.encode("utf-8")
        path = "/far/away/helper.py"
        lines = [line_of(self.helper, "limit"), line_of(self.helper, "work") - 1]
        answers = []

        def before(client):
            for checksums in ([{"algorithm": "SHA256", "checksum": "0" * 64}], [
                    {"algorithm": "MD5", "checksum": "wrong"},
                    {"algorithm": "SHA256", "checksum": hashlib.sha256(data).hexdigest()}]):
                answers.append(client.request("setBreakpoints", {
                    "source": {"path": path, "checksums": checksums},
                    "breakpoints": [{"line": line} for line in lines]})["breakpoints"])

        client = self.start(before=before)
        for rows in answers:
            self.assertEqual([row["verified"] for row in rows], [False, False])
        stops = run_to_end(client)
        self.assertEqual([(stop.line, stop.path) for stop in stops],
                         [(lines[0], path), (lines[1] + 1, path)])
        told = [event["breakpoint"] for event in client.seen_events("breakpoint")]
        self.assertEqual([(row["verified"], row["line"]) for row in told],
                         [(True, lines[0]), (True, lines[1] + 1)])

    def test_path_mappings(self):
        for local, separator, remote in (
                ("/home/me/project", "/", self.folder), ("C:\\Work\\Project", "\\", self.folder),
                ("/home/me/project/", "/", ".")):
            path = separator.join([local.rstrip("/"), "helper.py"])
            client = self.start(
                {"pathMappings": [{"localRoot": "/other", "remoteRoot": "/nowhere"},
                                  {"localRoot": local, "remoteRoot": remote}]},
                before=lambda client: client.request("setBreakpoints", {
                    "source": {"path": path.replace("C:", "c:")},
                    "breakpoints": [{"line": line_of(self.helper, "work")}]}))
            callers = []
            stops = run_to_end(client,
                               lambda stop: callers.extend(client.stack(stop.thread_id)[1:]))
            self.assertEqual([stop.name for stop in stops], ["work"], local)
            self.assertEqual(stops[0].path, path.replace("C:", "c:"))
            self.assertEqual(
                [frame["source"]["path"] for frame in callers],
                [separator.join([local.rstrip("/"), "main.py"])], local)

    def test_file_of_the_same_name_is_named(self):
        path = "/far/away/helper.py"
        client = self.start(breakpoints={path: [7], "D:\\x\\main.py": [1],
                                         self.main: ["call-work"]})
        row = self.answers[path][0]
        self.assertEqual((row["verified"], row["reason"]), (False, "pending"))
        self.assertIn("no file " + path, row["message"])
        self.assertNotIn("loaded", row["message"])
        row = self.answers["D:\\x\\main.py"][0]
        self.assertIn("a loaded file of that name is " + self.main, row["message"])
        self.assertIn("pathMappings", row["message"])
        stop = next_stop(client)
        told = [event["breakpoint"] for event in client.seen_events("breakpoint")]
        self.assertEqual([row["verified"] for row in told], [False])
        self.assertIn("a loaded file of that name is " + self.helper, told[0]["message"])
        self.assertEqual(told[0]["source"]["path"], path)
        client.resume(stop.thread_id)
        self.assertEqual(run_to_end(client), [])

    def test_file_that_is_written_later(self):
        """Something is imported while it is empty, as open() itself does before 3.10."""
        program = self.make_file("program.py", (
            "with open('made.py', 'w') as out:\n"
            "    import other\n"
            "    out.write('\\n\\nx = 1\\ny = 2\\n')\n"
            "import made\n"
            "made.x  #@ end\n"), self.folder)
        self.make_file("other.py", "", self.folder)
        made = os.path.join(self.folder, "made.py")
        client = self.start(program=program, breakpoints={made: [1, 4], program: ["end"]})
        self.assertEqual([row["verified"] for row in self.answers[made]], [False, False])
        stops = run_to_end(client)
        self.assertEqual([stop.line for stop in stops], [3, 4, 5])
        told = [event["breakpoint"] for event in client.seen_events("breakpoint")]
        self.assertEqual([(row["verified"], row["line"]) for row in told], [(True, 3), (True, 4)])

    def test_file_that_is_written_anew(self):
        """What was refused for the contents is looked at again when they have changed."""
        program = self.make_file("program.py", (
            "import other\n"
            "with open('made.py', 'w') as out:\n"
            "    out.write('\\nx = 1\\ny = 2\\n')\n"
            "import made\n"), self.folder)
        self.make_file("other.py", "", self.folder)
        made = self.make_file("made.py", "x = 1\n", self.folder)
        rows = [{"line": 3}, {"line": 2, "condition": "1 +"}, {"line": 9}]
        client = self.start(program=program, breakpoints={made: rows})
        self.assertEqual([row["reason"] for row in self.answers[made]], ["failed"] * 3)
        stops = run_to_end(client)
        self.assertEqual([stop.line for stop in stops], [3])
        told = [event["breakpoint"] for event in client.seen_events("breakpoint")]
        self.assertEqual([(row["id"], row["verified"]) for row in told], [
            (self.answers[made][0]["id"], True), (self.answers[made][2]["id"], False)])
        self.assertIn("ends with line 3", told[1]["message"])

    def test_counting_from_zero_and_uris(self):
        program = self.make_file("main.py", MAIN, self.folder)
        spaced = os.path.join(self.folder, "a b%")
        os.mkdir(spaced)
        os.rename(program, os.path.join(spaced, "main.py"))
        path = os.path.join(spaced, "main.py")
        uri = "file://" + path.replace(" ", "%20").replace("%", "%25").replace("%2520", "%20")
        line = line_of(path, "call-one")
        client = self.start(
            program=path,
            initialize={"linesStartAt1": False, "columnsStartAt1": False, "pathFormat": "uri"},
            before=lambda client: self.assertEqual(client.request("setBreakpoints", {
                "source": {"path": uri},
                "breakpoints": [{"line": line - 1, "logMessage": "x"}, {"line": line}]
            })["breakpoints"][1]["line"], line), env={"PYTHONPATH": self.folder})
        stops = run_to_end(client)
        self.assertEqual([(stop.line, stop.path, stop.frame["column"]) for stop in stops],
                         [(line, uri, 0)])
        self.assertEqual(
            [row["line"] for row in client.seen_events("output") if row.get("output") == "x\n"],
            [line - 1])

    def test_in_code_that_is_not_the_users_own(self):
        library = self.make_file("site-packages/installed.py", (
            "def work(function):\n"
            "    return function()  #@ installed\n"), self.folder)
        program = self.make_file("program.py", (
            "import sys\n"
            "sys.path.append('site-packages')\n"
            "import installed, os\n"
            "installed.work(os.getpid)\n"), self.folder)
        stops = run_to_end(self.start(program=program, breakpoints={library: ["installed"]}))
        self.assertEqual(self.marks(stops), ["installed"])
        self.assertEqual(stops[0].frame["source"].get("presentationHint"), "deemphasize")


if __name__ == "__main__":
    unittest.main()
