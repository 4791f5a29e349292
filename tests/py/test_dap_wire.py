"""Framing of the protocol's messages, the schema, and the table of settings."""
from __future__ import absolute_import, division, print_function

import json
import os
import socket
import sys
import threading
import unittest

from support.case import TestCase
from tdbg.dap import config, wire

kOncePerVersion = True


def framed(text, header="Content-Length"):
    data = text if isinstance(text, bytes) else text.encode("utf-8")
    return "{}: {}\r\n\r\n".format(header, len(data)).encode("ascii") + data


class Framing(TestCase):

    def setUp(self):
        one, self.peer = socket.socketpair()
        self.connection = wire.tConnection(one)
        self.addCleanup(self.connection.close)
        self.addCleanup(self.peer.close)

    def read_after(self, data):
        self.peer.sendall(data)
        return self.connection.read()

    def test_split_and_merged_packets(self):
        first, second, third = (framed('{"seq": %d}' % n) for n in (1, 2, 3))
        self.assertEqual(self.read_after(first + second + third[:9]), {"seq": 1})
        self.assertEqual(self.connection.read(), {"seq": 2})
        answers = []
        reader = threading.Thread(target=lambda: answers.append(self.connection.read()))
        reader.start()
        for place in range(9, len(third)):
            self.peer.sendall(third[place:place + 1])
        reader.join(20)
        self.assertEqual(answers, [{"seq": 3}])

    def test_header_fields_in_any_case_and_order(self):
        self.assertEqual(self.read_after(framed("{}", "content-LENGTH")), {})
        self.assertEqual(self.read_after(b"Content-Type: x\r\nContent-Length: 2\r\n\r\n{}"), {})
        self.assertEqual(self.read_after(b"Content-Length: 2\r\nContent-Type: x\r\n\r\n{}"), {})

    def test_other_protocols_are_refused_at_their_first_bytes(self):
        for data in (b"POST / HTTP/1.1", b"GET", b"\x16\x03\x01", b"{", b"\r\n\r\n",
                     b"Content-Lengthy: 1"):
            with self.assertRaises(wire.tBadHeader):
                self.setUp()
                self.read_after(data)

    def test_bad_lengths_are_refused(self):
        for line in (b"Content-Length: -1", b"Content-Length: x", b"Content-Length:",
                     b"Content-Length: 1e3", b"Content-Type: a",
                     b"Content-Length: 2\r\nContent-Length: 2", b"Content-Length: 2\r\nHost: x",
                     b"Content-Length: 99999999999999"):
            with self.assertRaises(wire.tBadHeader):
                self.setUp()
                self.read_after(line + b"\r\n\r\n{}")

    def test_endless_header_is_refused(self):
        with self.assertRaises(wire.tBadHeader):
            self.read_after(b"Content-Type: " + b"a" * 5000)

    def test_bad_message_leaves_the_next_one_readable(self):
        for text in ("{", "[]", "3", "null", '"a"', "", '{"a": NaN}', '{"a": Infinity}',
                     b"\xff\xfe{}", "[" * 100000, "{'a': 1}"):
            with self.assertRaises(wire.tBadMessage):
                self.read_after_sent_whole(framed(text))
            self.assertEqual(self.read_after(framed("{}")), {})

    def read_after_sent_whole(self, data):
        sender = threading.Thread(target=self.peer.sendall, args=(data,))
        sender.start()
        try:
            return self.connection.read()
        finally:
            sender.join(20)

    def test_end_of_stream(self):
        self.peer.sendall(framed("{}")[:-1])
        self.peer.close()
        self.assertIsNone(self.connection.read())
        self.assertFalse(self.connection.is_open)
        self.assertFalse(self.connection.write({"a": 1}))

    def test_close_ends_a_waiting_read(self):
        answers = []
        reader = threading.Thread(target=lambda: answers.append(self.connection.read()))
        reader.start()
        self.connection.close()
        reader.join(20)
        self.assertEqual(answers, [None])

    def test_megabytes_both_ways(self):
        text = u"\u00e4\U0001f600x" * 500000
        message = self.read_after_sent_whole(framed(json.dumps({"text": text})))
        self.assertEqual(message, {"text": text})
        other = wire.tConnection(self.peer)
        sender = threading.Thread(target=self.connection.write, args=(message,))
        sender.start()
        self.assertEqual(other.read(), {"text": text, "seq": 1})
        sender.join(20)

    def test_texts_survive(self):
        other = wire.tConnection(self.peer)
        half = json.loads('"\\ud83d"')
        for text in (u"", u"\0", u"a\r\n\r\nContent-Length: 3\r\n\r\n", u"\u00fc\u4e2d",
                     u"\U0001f40d", half):
            self.assertTrue(self.connection.write({"text": text}))
            self.assertEqual(other.read()["text"], text)
        self.peer.sendall(framed(u'{"text": "\U0001f40d"}'))
        self.assertEqual(self.connection.read(), {"text": u"\U0001f40d"})

    def test_values_that_json_has_no_place_for(self):
        other = wire.tConnection(self.peer)
        self.connection.write({"a": float("nan"), "b": [float("inf"), 1.5], "c": b"\xff\xc3\xa4",
                               "d": (1, 2), "e": {1: None}, "f": 2 ** 70})
        self.assertEqual(other.read(), {
            "a": None, "b": [None, 1.5], "c": u"\ufffd\u00e4", "d": [1, 2], "e": {"1": None},
            "f": 2 ** 70, "seq": 1})

    def test_numbers_are_given_once(self):
        other = wire.tConnection(self.peer)

        def send():
            for _ in range(50):
                self.connection.write({"own": self.connection.next_seq()})

        senders = [threading.Thread(target=send) for _ in range(4)]
        for sender in senders:
            sender.start()
        rows = [other.read() for _ in range(200)]
        numbers = [row[name] for row in rows for name in ("own", "seq")]
        self.assertEqual(sorted(numbers), list(range(1, 401)))
        for sender in senders:
            sender.join(20)

    def test_end_reading_delivers_what_has_arrived(self):
        self.peer.sendall(framed('{"a": 1}') + framed('{"a": 2}'))
        self.connection.end_reading()
        self.assertEqual([self.connection.read() for _ in range(3)], [{"a": 1}, {"a": 2}, None])


class Configuration(TestCase):

    def launch(self, **arguments):
        arguments.setdefault("program", "a.py")
        return config.tConfig(config.kLaunch, arguments)

    def assert_refused(self, text, **arguments):
        with self.assertRaises(config.tConfigError) as caught:
            self.launch(**arguments)
        self.assertIn(text, str(caught.exception))

    def test_null_and_empty_text_are_absent(self):
        names = list(config.kKeys)
        plain = vars(self.launch())
        for nothing in (None, ""):
            given = vars(self.launch(**{name: nothing for name in names if name != "program"}))
            for name in set(plain) - {"raw"}:
                self.assertEqual(given[name], plain[name], name)

    def test_defaults(self):
        found = self.launch()
        self.assertEqual(
            (found.console, found.stop_on_entry, found.redirect_output, found.just_my_code,
             found.sub_process, found.child_attach_timeout, found.on_terminate, found.kill_timeout,
             found.step_granularity, found.limit_string, found.limit_items, found.limit_ms,
             found.args, found.warnings),
            ("internalConsole", False, True, True, "ask", 2.0, "KeyboardInterrupt", 5.0,
             "statement", 1000, 100, 200, [], []))
        self.assertFalse(self.launch(console="integratedTerminal").redirect_output)

    def test_exactly_one_program(self):
        self.assert_refused("exactly one", module="b")
        self.assert_refused("exactly one", program=None)
        self.assertEqual(self.launch(program="", code=["a", "b"]).code, "a\nb")

    def test_unknown_settings_are_told_once(self):
        found = self.launch(foo=1, bar=[2], __sessionId="x", name="n", type="t", gevent=True)
        self.assertEqual(len(found.warnings), 1)
        self.assertIn("bar, foo", found.warnings[0])

    def test_wrong_types_name_the_setting(self):
        for name, value in (
                ("program", 3), ("args", {}), ("args", [[]]), ("python", []), ("python", [1]),
                ("cwd", []), ("env", []), ("env", {"a": True}), ("env", {"a=b": "x"}),
                ("console", "x"), ("stopOnEntry", 1), ("justMyCode", 1), ("rules", [{}]),
                ("rules", [{"path": "a"}]), ("pathMappings", {}), ("killTimeout", "5"),
                ("killTimeout", -1), ("killTimeout", True), ("valueLimits", {"string": 0}),
                ("valueLimits", {"x": 1}), ("threads", {"default": "x"}),
                ("threads", {"rules": [{"name": "a"}]}), ("subProcess", "x"),
                ("exceptions", {"always": "x"}), ("onTerminate", "x"), ("token", 3),
                ("processId", "x"), ("processId", -1), ("connect", {"host": "a"}),
                ("listen", 70000), ("code", [1]), ("program", "a\0b")):
            self.assert_refused("`" + name, **{name: value})

    def test_two_spellings_of_one_thing(self):
        rules = [{"path": "**/x.py", "include": False}, {"module": "a", "include": True}]
        wanted = [("path", "**/x.py", False), ("module", "a", True)]
        self.assertEqual(self.launch(justMyCode=rules).rules, wanted)
        self.assertEqual(self.launch(rules=rules).rules, wanted)
        self.assertEqual(self.launch(pythonPath="x").python, ["x"])
        self.assertEqual(self.launch(subProcess=False).sub_process, "none")
        self.assertEqual(self.launch(jinja=True, django=True).templates, ["jinja2", "django"])
        self.assertEqual(self.launch(env={"A": None, "B": 1}).env, {"A": None, "B": "1"})

    def test_ways_to_attach(self):
        def attach(**arguments):
            return config.tConfig(config.kAttach, arguments)

        self.assertEqual(attach(connect={"host": "h", "port": "5"}).connect, ("h", 5))
        self.assertEqual(attach(connect={"port": 5}).connect, ("127.0.0.1", 5))
        self.assertEqual(attach(host="h", port=5).connect, ("h", 5))
        self.assertEqual(attach(port=5).connect, ("127.0.0.1", 5))
        self.assertEqual(attach(listen={"port": 0}).listen, ("127.0.0.1", 0))
        self.assertEqual(attach(processId="12").process_id, 12)
        with self.assertRaises(config.tConfigError):
            attach(connect={"port": 5}, processId=3)


@unittest.skipIf(sys.version_info < (3, 6), "the adapter runs on 3.6 and later")
class Schema(TestCase):

    def setUp(self):
        from tdbg.adapter import schema

        self.wrong, self.schema = schema.tWrong, schema.tSchema()

    def check(self, command, arguments=None, **more):
        request = dict({"seq": 1, "type": "request", "command": command, "arguments": arguments},
                       **more)
        self.schema.check(request)
        return request.get("arguments")

    def assert_wrong(self, text, *args, **more):
        with self.assertRaises(self.wrong) as caught:
            self.check(*args, **more)
        self.assertIn(text, str(caught.exception))

    def test_every_request_is_known(self):
        for command in ("initialize", "launch", "attach", "setBreakpoints", "stackTrace",
                        "evaluate", "locations", "breakpointLocations", "stepInTargets",
                        "tdbg/tasks"):
            self.assertTrue(self.schema.knows(command), command)
        self.assertFalse(self.schema.knows("nonsense"))
        self.assertEqual(len(self.schema._arguments), 45)

    def test_wrong_requests_are_told_by_place(self):
        source = {"path": "a"}
        self.assert_wrong("`breakpoints[1].line` must be a whole number", "setBreakpoints",
                          {"source": source, "breakpoints": [{"line": 1}, {"line": "2"}]})
        self.assert_wrong("`source` is missing", "setBreakpoints", {})
        self.assert_wrong("`source` is missing", "setBreakpoints", None)
        self.assert_wrong("`threadId` must be", "next", {"threadId": True})
        self.assert_wrong("`threadId` must be", "next", {"threadId": 1.5})
        self.assert_wrong("`arguments` must be an object", "next", [1])
        self.assert_wrong("`filter` must be one of", "variables",
                          {"variablesReference": 1, "filter": "x"})
        self.assert_wrong("`command` must be a text", 3)
        self.assert_wrong("type of the message", "next", {}, type="event")

    def test_clients_that_know_no_null_and_no_whole_numbers(self):
        self.assertEqual(
            self.check("setBreakpoints", {
                "source": {"path": "a", "name": None},
                "breakpoints": [{"line": 3.0, "condition": None}], "lines": None}),
            {"source": {"path": "a"}, "breakpoints": [{"line": 3}]})
        self.assertIsInstance(self.check("next", {"threadId": 2.0})["threadId"], int)
        self.assertIsNone(self.check("configurationDone", None))
        self.assertEqual(self.check("launch", {"env": {"A": None}, "python": None}),
                         {"env": {"A": None}, "python": None})

    def test_licence_lies_beside_the_schema(self):
        from tdbg.adapter import schema

        with open(os.path.join(os.path.dirname(schema.kFile), "protocol-license.txt")) as source:
            self.assertIn("MIT License", source.read())
