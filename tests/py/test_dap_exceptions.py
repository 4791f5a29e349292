"""Exceptions over the Debug Adapter Protocol: filters, types, details, places to leave alone."""
from __future__ import absolute_import, division, print_function

import os
import sys
import unittest

from support import TestCase, line_of
from support.dapclient import debug_directly
from support.dapstops import next_stop, run_to_end, value_at

kOncePerVersion = True

MAIN = '''\
import sys
import unittest


class Bad(ValueError):
    """Has a message of its own."""


class Outer(object):
    class Inner(KeyError):
        pass


def fail(kind, *args):
    local = len(args)
    raise kind(*args)  #@ fail


def caught(kind, *args):
    try:
        fail(kind, *args)
    except Exception:
        return 1


def quiet():
    for _ in iter([]):
        pass
    next(iter([]), None)
    list(x for x in (1, 2))
    gen = (x for x in (1, 2))
    next(gen)
    gen.close()
    for kind in (SystemExit, KeyboardInterrupt):
        try:
            raise kind(0)
        except kind:
            pass


class Test(unittest.TestCase):
    def test(self):
        fail(Bad, "in a test")  #@ test


def main():
    quiet()
    for _ in range(2):
        caught(Bad, "two")
    caught(Outer.Inner, "nested")
    unittest.TextTestRunner(stream=open("/dev/null", "w")).run(Test("test"))
    try:
        {}["missing"]  #@ missing
    finally:
        sys.argv.append("left")


if __name__ == "__main__":
    main()  #@ main
'''

CHAIN = '''\
def first():
    raise ValueError("first")  #@ first


def chained():
    try:
        first()
    except ValueError as problem:
        raise RuntimeError("second") from problem  #@ second


def handled():
    try:
        chained()
    except RuntimeError:
        raise LookupError("third")  #@ third


def hidden():
    try:
        first()
    except ValueError:
        raise KeyError("alone") from None  #@ alone


def main():
    for function in (hidden, handled):
        try:
            function()
        except LookupError:
            pass


main()
'''

GROUP = '''\
raise ExceptionGroup("several", [ValueError(1), ExceptionGroup("inner", [KeyError("k")])])
'''


class ExceptionTest(TestCase):
    def setUp(self):
        self.folder = os.path.realpath(self.make_dir())
        self.main = self.make_file("main.py", MAIN, self.folder)

    def start(self, filters=(), options=(), arguments=None, program=None, breakpoints=None, **more):
        """A running program; the answer to setExceptionBreakpoints is in self.answer."""
        client = debug_directly(
            self, program or self.main, cwd=self.folder, stderr=open(os.devnull, "w"))
        client.initialize()
        started = client.send("launch", arguments or {})
        client.wait_event("initialized")
        if filters is not None:
            self.answer = client.request("setExceptionBreakpoints", dict(
                {"filters": list(filters), "filterOptions": list(options)}, **more))["breakpoints"]
        for path, places in (breakpoints or {}).items():
            client.set_breakpoints(path, places)
        client.request("configurationDone")
        self.assertTrue(client.response_to(started)["success"])
        return client

    def stops(self, *args, **more):
        """[(text, mark)] of a whole run."""
        look = more.pop("look", None)
        client = self.start(*args, **more)
        found = run_to_end(client, (lambda stop: look(client, stop)) if look else None)
        self.assertEqual(set(stop.reason for stop in found) - set(["exception"]), set())
        return [(stop.body["text"].rpartition(".")[2], stop.mark) for stop in found]


class Filters(ExceptionTest):
    def test_raised(self):
        """Once for each raise, and none for the ends of loops, generators and the program."""
        self.assertEqual(self.stops(["raised"]), [
            ("Bad", "fail"), ("Bad", "fail"), ("Inner", "fail"), ("Bad", "fail"),
            ("KeyError", "missing")])

    def test_uncaught(self):
        """At the raise: the frames are alive and nothing has been cleaned up."""
        seen = []

        def look(client, stop):
            frames = client.stack(stop.thread_id)
            seen.append([str(frame["name"]).rpartition(".")[2] for frame in frames])
            seen.append(value_at(client, stop, "__import__('sys').argv[-1] == 'left'"))
            seen.append(client.request("exceptionInfo", {"threadId": stop.thread_id})["breakMode"])

        self.assertEqual(self.stops(["uncaught"], look=look), [("KeyError", "missing")])
        self.assertEqual(seen, [["main", "<module>"], "False", "unhandled"])

    def test_runner(self):
        seen = []

        def look(client, stop):
            seen.append(client.request("exceptionInfo", {"threadId": stop.thread_id})["breakMode"])
            seen.append(value_at(client, stop, "local"))

        self.assertEqual(self.stops(["runner"], look=look), [("Bad", "fail")])
        self.assertEqual(seen, ["userUnhandled", "1"])
        self.assertEqual(self.stops(["userUnhandled"]), [("Bad", "fail")])

    def test_none_and_what_nobody_has_asked(self):
        self.assertEqual(self.stops([]), [])
        self.assertEqual(self.stops(None), [("KeyError", "missing")])
        self.assertEqual(self.stops(None, arguments={"noDebug": True}), [])

    def test_all_at_once(self):
        self.assertEqual(self.stops(["raised", "uncaught", "runner", "nonsense"]), [
            ("Bad", "fail"), ("Bad", "fail"), ("Inner", "fail"), ("Bad", "fail"),
            ("KeyError", "missing")])
        self.assertEqual([row["verified"] for row in self.answer], [True, True, True, False])
        self.assertIn("nonsense", self.answer[3]["message"])

    def rounds(self, requests):
        """Names of the types that stop in main(), with other filters each time."""
        program = self.make_file("rounds.py", MAIN.replace(
            "    main()  #@ main",
            "    for turn in range({0}):\n        turn += 0  #@ turn\n        end()".format(
                len(requests))).replace("def main():", (
                    "def end():\n"
                    "    try:\n"
                    "        main()\n"
                    "    except NameError:  #@ end\n"
                    "        pass\n"
                    "    except:\n"
                    "        import traceback\n"
                    "        traceback.print_exc()\n\n\n"
                    "def main():")), self.folder)
        found = []

        def look(stop):
            if stop.mark == "turn":
                answer = client.request("setExceptionBreakpoints",
                                        requests[len(found)])["breakpoints"]
                self.assertEqual([row["verified"] for row in answer], [True] * len(answer))
                found.append([])
            else:
                found[-1].append(str(stop.body["text"].rpartition(".")[2]))

        client = self.start([], program=program, breakpoints={program: ["turn"]})
        run_to_end(client, look)
        return found

    def test_types(self):
        """What ends main() is caught only to be reported: a runner's."""
        rows = []
        for options, expected in (
                ([{"filterId": "raised", "condition": "main.Bad, Nothing"}], []),
                ([{"filterId": "raised", "condition": " Nothing ,__main__.Bad "}],
                 ["Bad", "Bad", "Bad"]),
                ([{"filterId": "raised", "condition": "LookupError"}], ["Inner", "KeyError"]),
                ([{"filterId": "runner", "condition": "ValueError"}], ["Bad"]),
                ([{"filterId": "runner", "condition": "builtins.KeyError"}], ["KeyError"]),
                ([{"filterId": "runner", "condition": "TypeError"}], []),
                ([{"filterId": "uncaught"}], []),
                ([{"filterId": "raised", "condition": "Inner"},
                  {"filterId": "runner", "condition": "Bad"}],
                 ["Inner", "Bad"]),
                ([{"filterId": "uncaught"}, {"filterId": "raised", "condition": ""}],
                 ["Bad", "Bad", "Inner", "Bad", "KeyError"])):
            rows.append(({"filters": [], "filterOptions": options}, expected))
        names = [{"names": ["Python Exceptions"]}, {"names": ["ValueError"]}]
        for filters, options, expected in (
                ([], [{"path": names, "breakMode": "always"}], ["Bad"] * 3),
                (["raised"], [{"path": names, "breakMode": "never"}], ["Inner", "KeyError"]),
                (["raised"],
                 [{"path": [names[0], dict(names[1], negate=True)], "breakMode": "always"}],
                 ["Inner", "KeyError"]),
                ([], [{"breakMode": "userUnhandled"}], ["Bad", "KeyError"])):
            rows.append(({"filters": filters, "exceptionOptions": options}, expected))
        self.assertEqual(self.rounds([row[0] for row in rows]), [row[1] for row in rows])

    def test_types_that_nothing_catches(self):
        for condition, expected in (("ValueError", []),
                                    ("builtins.KeyError", [("KeyError", "missing")])):
            self.assertEqual(self.stops([], [{"filterId": "uncaught", "condition": condition}]),
                             expected)

    def test_raised_in_code_that_is_not_the_users(self):
        """What a library raises stops where it comes out; what it keeps to itself does not."""
        self.make_file("site-packages/installed.py", (
            "def keep():\n"
            "    try:\n"
            "        raise KeyError(1)\n"
            "    except KeyError:\n"
            "        pass\n"
            "def leak():\n"
            "    raise IndexError(2)  #@ leak\n"), self.folder)
        program = self.make_file("program.py", (
            "import sys\n"
            "sys.path.append('site-packages')\n"
            "import installed\n"
            "installed.keep()\n"
            "try:\n"
            "    installed.leak()  #@ out\n"
            "except IndexError:\n"
            "    pass\n"), self.folder)
        lines = []

        def look(client, stop):
            lines.append([frame["line"] for frame in client.stack(stop.thread_id)])

        self.assertEqual([text for text, _ in self.stops(["raised"], program=program, look=look)],
                         ["IndexError"])
        self.assertEqual(lines[0][-1], line_of(program, "out"))
        found = self.stops(["raised"], program=program, arguments={"justMyCode": False})
        self.assertEqual([text for text, _ in found][-2:], ["KeyError", "IndexError"])

    def test_wrong_types(self):
        client = self.start(None)
        next_stop(client)
        for condition in ("1x", "a b", "a,,b", "a.", "f()", ","):
            row, = client.request("setExceptionBreakpoints", {
                "filters": [],
                "filterOptions": [{"filterId": "raised", "condition": condition}]})["breakpoints"]
            self.assertEqual((row["verified"], "no name" in row["message"]), (False, True))
        self.assertIn("filterId", client.refused(
            "setExceptionBreakpoints", {"filters": [], "filterOptions": [{}]}))
        self.assertIn("filters", client.refused("setExceptionBreakpoints", {"filters": 3}))

    def test_settings_of_the_launch(self):
        for settings, filters, expected in (
                ({"always": ["Bad"]}, [], ["Bad"] * 3),
                ({"never": ["ValueError", "Inner"]}, ["raised"], ["KeyError"]),
                ({"runners": False}, ["runner"], [])):
            found = self.stops(filters, arguments={"exceptions": settings})
            self.assertEqual([text for text, _ in found], expected, settings)

    def test_exit_status_is_an_exception_unless_it_is_0(self):
        program = self.make_file("leave.py", (
            "import sys\n"
            "for status in (0, '', None, 3):\n"
            "    try:\n"
            "        sys.exit(status)\n"
            "    except SystemExit:\n"
            "        pass\n"
            "sys.exit('text')\n"), self.folder)
        self.assertEqual(self.stops(["raised", "uncaught", "runner"], program=program), [])
        program = self.make_file("leave.py", "import sys\nsys.exit(3)  #@ leave\n", self.folder)
        option = {"filterId": "raised", "condition": "SystemExit"}
        self.assertEqual(self.stops([], [option], program=program), [("SystemExit", "leave")])
        program = self.make_file("zero.py", "import sys\nsys.exit(0)\n", self.folder)
        self.assertEqual(self.stops([], [option], program=program), [])

    def test_changed_while_stopped(self):
        client = self.start(["raised"])
        stop = next_stop(client)
        self.assertEqual(stop.mark, "fail")
        client.request("setExceptionBreakpoints", {"filters": ["uncaught"]})
        client.resume(stop.thread_id)
        self.assertEqual([found.mark for found in run_to_end(client)], ["missing"])


class Details(ExceptionTest):
    def info(self, client, stop):
        return client.request("exceptionInfo", {"threadId": stop.thread_id})

    def test_one(self):
        client = self.start(["raised"])
        stop = next_stop(client)
        info = self.info(client, stop)
        self.assertEqual(info["exceptionId"], "__main__.Bad")
        self.assertEqual((info["description"], info["breakMode"]), ("two", "always"))
        details = info["details"]
        self.assertEqual((details["typeName"], details["fullTypeName"], details["message"]), (
            "Bad", "__main__.Bad", "two"))
        self.assertIn('File "{}", line {}, in fail\n'.format(self.main, line_of(self.main, "fail")),
                      details["stackTrace"])
        self.assertIn("    raise kind(*args)", details["stackTrace"])
        self.assertTrue(details["stackTrace"].endswith("Bad: two"), details["stackTrace"])
        self.assertNotIn("innerException", details)
        self.assertIn("`threadId`", client.refused("exceptionInfo", {}))
        client.request("next", {"threadId": stop.thread_id})

    def test_no_exception(self):
        client = self.start([], breakpoints={self.main: ["main"]})
        stop = next_stop(client)
        for command in ("exceptionInfo", "tdbg/ignoreException"):
            self.assertIn("not stopped at an exception",
                          client.refused(command, {"threadId": stop.thread_id}))

    @unittest.skipIf(sys.version_info[0] == 2, "version 2 knows no causes")
    def test_chain(self):
        program = self.make_file("chain.py", CHAIN, self.folder)
        client = self.start(["raised"], program=program)
        found = {}

        def look(stop):
            found[stop.mark] = self.info(client, stop)["details"]

        run_to_end(client, look)
        self.assertNotIn("innerException", found["first"])
        self.assertNotIn("innerException", found["alone"])
        inner, = found["second"]["innerException"]
        self.assertEqual((inner["typeName"], inner["message"]), ("ValueError", "first"))
        self.assertIn("in first\n", inner["stackTrace"])
        inner, = found["third"]["innerException"]
        self.assertEqual((inner["typeName"], inner["message"]), ("RuntimeError", "second"))
        self.assertEqual([row["message"] for row in inner["innerException"]], ["first"])

    @unittest.skipIf(sys.version_info < (3, 11), "there are no groups")
    def test_group(self):
        program = self.make_file("group.py", GROUP, self.folder)
        client = self.start(["uncaught"], program=program)
        stop = next_stop(client)
        details = self.info(client, stop)["details"]
        self.assertEqual(details["typeName"], "ExceptionGroup")
        self.assertIn("several", details["message"])
        first, second = details["innerException"]
        self.assertEqual((first["typeName"], first["message"]), ("ValueError", "1"))
        self.assertEqual([row["typeName"] for row in second["innerException"]], ["KeyError"])

    def test_messages_that_fail(self):
        program = self.make_file("odd.py", (
            "class Odd(Exception):\n"
            "    def __str__(self):\n"
            "        return 1 / 0\n"
            "class Slow(Exception):\n"
            "    def __str__(self):\n"
            "        while True:\n"
            "            pass\n"
            "for kind in (Odd, Slow):\n"
            "    try:\n"
            "        raise kind()\n"
            "    except Exception:\n"
            "        pass\n"), self.folder)
        client = self.start(["raised"], program=program)
        found = []

        def look(stop):
            response = client.response_to(client.send("exceptionInfo",
                                                      {"threadId": stop.thread_id}))
            found.append(response["body"]["exceptionId"]
                         if response["success"] else response["message"])

        stops = run_to_end(client, look)
        self.assertEqual([stop.body["text"] for stop in stops], ["__main__.Odd", "__main__.Slow"])
        self.assertEqual(found[0], "__main__.Odd")
        self.assertEqual(len(found), 2)


class Places(ExceptionTest):
    def test_never_here_again(self):
        client = self.start(["raised"])
        stop = next_stop(client)
        body = client.request("tdbg/ignoreException", {"threadId": stop.thread_id})
        self.assertEqual((body["source"]["path"], body["line"]),
                         (self.main, line_of(self.main, "fail")))
        client.resume(stop.thread_id)
        self.assertEqual([found.mark for found in run_to_end(client)], ["missing"])


if __name__ == "__main__":
    unittest.main()
