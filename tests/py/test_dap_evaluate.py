# -*- coding: utf-8 -*-
"""Scopes, variables, evaluation and completion over the Debug Adapter Protocol."""
from __future__ import absolute_import, division, print_function

import os
import subprocess
import sys
import time
import unittest

from support import TestCase, needs
from support.dapclient import Refused, debug_directly

kOncePerVersion = True

PY2 = sys.version_info[0] == 2
kAnswered = 1.0   # seconds within which every value is answered
kSlack = 4.0      # of a loaded machine

DATA = u'''\
# -*- coding: utf-8 -*-
from __future__ import print_function
import collections
import sys

CALLS = []
total = 100
shadowed = "global"


class Thing(object):
    kind = "thing"

    def __init__(self):
        self.name = u"n\\xe9"
        self.items = [1, 2, {"k": (3,)}]
        self.__secret = 9

    @property
    def size(self):
        CALLS.append("size")
        return 3

    @size.setter
    def size(self, value):
        self.items = [value]

    @property
    def broken(self):
        raise ValueError("no\\nsize")

    def method(self):
        return self.__secret  #@ method


class Slotted(object):
    __slots__ = ("left", "right")


def outer(parameter):
    shared = ["s"]
    counter = 0

    def inner(first, *rest, **more):
        shadowed = "local"
        number = 255
        big = list(range(1000000))
        table = dict((i, i) for i in range(1000000))
        thing = Thing()
        slotted = Slotted()
        slotted.left = 1
        entries = {"a": 1, 2: [3], (1, 2): {"x": None}}
        text = "x" * 5000
        caf\\xe9 = 1  #@ first
        use = shared, counter, parameter
        thing.method()
        print("numbers", number, first, counter, parameter, total, entries["a"], slotted.left, thing.items)  #@ print
        return [number]  #@ return

    result = inner(1, 2, key=3)
    return result, counter


print(outer("p"))
'''

if PY2:
    DATA = DATA.replace(u"caf\\xe9 = 1", u"caf = 1")
else:
    DATA = DATA.replace(u"caf\\xe9 = 1", u"caf\xe9 = 1")
DATA = DATA.replace(u"\\\\xe9", u"\\xe9")

SLOW = '''\
import sys
import threading
import time


class Sleeps(object):
    def __repr__(self):
        time.sleep(60)

    @property
    def value(self):
        time.sleep(60)


class Endless(object):
    def __repr__(self):
        while True:
            pass

    @property
    def value(self):
        while True:
            pass


class Exits(object):
    def __repr__(self):
        sys.exit(7)


class Raises(object):
    def __repr__(self):
        raise RuntimeError("never")


class Recurses(object):
    def __repr__(self):
        return repr(self)


class Odd(object):
    def __repr__(self):
        return 5


class Waits(object):
    @property
    def value(self):
        with LOCK:
            return "got it"


LOCK, HELD, DONE = threading.Lock(), threading.Event(), threading.Event()


class Naps(object):
    def __init__(self):
        self.inner = threading.Lock()
        self.inner.acquire()

    def __repr__(self):
        with self.inner:
            return "awake"

    def end(self):
        self.inner.release()


NAP = Naps()


def hold():
    with LOCK:
        HELD.set()
        DONE.wait()  #@ hold


def many():
    objects = [Raises() for _ in range(100)]
    slow = [Endless() for _ in range(100)]
    return objects, slow  #@ many


def main():
    thread = threading.Thread(target=hold)
    thread.start()
    HELD.wait()
    endless, raises, exits = Endless(), Raises(), Exits()
    recurses, odd, waits = Recurses(), Odd(), Waits()
    mixed = [1, endless, 2]
    long_text = "x" * 50000000
    sleeps = Sleeps()
    zero = 0
    DONE.set()  #@ stop
    thread.join()
    return many()


main()
print("ended")
'''


class DapTest(TestCase):
    def start(self, text, mark, initialize=None, arguments=None, **options):
        self.path = self.make_file("main.py", text, os.path.realpath(self.make_dir()))
        self.client = client = debug_directly(self, self.path, **options)
        client.start_session(arguments or {}, breakpoints={self.path: [mark]},
                             initialize=initialize)
        return self.stop_here()

    def stop_here(self, reason="breakpoint"):
        self.thread = self.client.wait_stopped(reason)["threadId"]
        self.frame = self.client.stack(self.thread)[0]["id"]
        return self.client

    def scopes(self, frame=None):
        rows = self.client.request("scopes", {"frameId": frame or self.frame})["scopes"]
        return dict((row["name"], row) for row in rows)

    def rows(self, reference, **more):
        return self.client.request("variables",
                                   dict(more, variablesReference=reference))["variables"]

    def scope(self, name="Locals", frame=None):
        rows = self.rows(self.scopes(frame)[name]["variablesReference"])
        return dict((row["name"], row) for row in rows)

    def opened(self, row, **more):
        rows = self.rows(row["variablesReference"], **more)
        return dict((row["name"], row) for row in rows)

    def evaluate(self, expression, context="repl", **more):
        arguments = dict(more, expression=expression, context=context)
        arguments.setdefault("frameId", self.frame)
        return self.client.request("evaluate", arguments)

    def result(self, expression, context="repl", **more):
        return self.evaluate(expression, context, **more)["result"]

    def refused(self, expression, context="watch", **more):
        arguments = dict(more, expression=expression, context=context)
        arguments.setdefault("frameId", self.frame)
        return self.client.refused("evaluate", arguments)

    def labels(self, text, column=None, **more):
        arguments = dict(more, text=text, column=len(text) + 1 if column is None else column)
        arguments.setdefault("frameId", self.frame)
        return [row["label"] for row in self.client.request("completions", arguments)["targets"]]


class Data(DapTest):
    def test_scopes_and_variables(self):
        self.start(DATA, "print")
        scopes = self.client.request("scopes", {"frameId": self.frame})["scopes"]
        self.assertEqual([row["name"] for row in scopes], ["Locals", "Closure", "Globals"])
        self.assertEqual([row["expensive"] for row in scopes], [False, False, True])
        self.assertEqual([row.get("presentationHint") for row in scopes],
                         ["locals", None, "globals"])
        names = [row["name"] for row in self.rows(scopes[0]["variablesReference"])]
        self.assertEqual(names[:5], ["first", "rest", "more", "shadowed", "number"])
        self.assertEqual(set(self.scope("Closure")), set(["shared", "counter", "parameter"]))
        self.assertEqual(scopes[0]["namedVariables"], len(names))
        found = self.scope("Globals")
        self.assertEqual(found["shadowed"]["evaluateName"], "globals()['shadowed']")
        self.assertEqual(found["__name__"]["presentationHint"], {"visibility": "internal"})
        self.assertEqual(
            [row["name"] for row in self.rows(scopes[2]["variablesReference"])][-1][:2], "__")
        outer = self.client.stack(self.thread)[1]["id"]
        self.assertIn("parameter", self.scope(frame=outer))
        module = self.client.stack(self.thread)[2]["id"]
        self.assertEqual(self.scope(frame=module)["total"]["value"], "100")
        self.check_values()
        self.check_pages()
        self.check_every_expression()

    def check_values(self):
        found = self.scope()
        self.assertEqual((found["number"]["value"], found["number"]["type"]), ("255", "int"))
        self.assertEqual(found["number"]["variablesReference"], 0)
        self.assertEqual(found["text"]["value"][:4] + found["text"]["value"][-11:],
                         "'xxx" + ("(5000 bytes)" if PY2 else "characters)")[-11:])
        thing = self.opened(found["thing"])
        self.assertEqual(set(thing),
                         set(["name", "items", "_Thing__secret", "size", "broken", "(class)"]))
        self.assertEqual(thing["size"]["presentationHint"], {"kind": "property", "lazy": True})
        self.assertEqual(self.result("CALLS"), "[]")
        lazy = self.rows(thing["size"]["variablesReference"])
        self.assertEqual([(row["name"], row["value"], row["evaluateName"]) for row in lazy],
                         [("size", "3", "thing.size")])
        broken = self.rows(thing["broken"]["variablesReference"])
        self.assertEqual([row["value"] for row in broken], ["<ValueError: no size>"])
        hexed = dict((row["name"], row["value"]) for row in self.client.request("variables", {
            "variablesReference": self.scopes()["Locals"]["variablesReference"],
            "format": {"hex": True}})["variables"])
        self.assertEqual((hexed["number"], hexed["rest"]), ("0xff", "(0x2,)"))
        self.assertEqual(self.opened(found["slotted"])["left"]["value"], "1")
        self.assertIn("(class)", thing)
        self.assertIn("method", self.opened(thing["(class)"]))

    def check_pages(self):
        found = self.scope()
        big, table = found["big"], found["table"]
        self.assertEqual((big["indexedVariables"], big["namedVariables"]), (1000000, 0))
        rows = self.rows(big["variablesReference"], filter="indexed", start=999990, count=100)
        self.assertEqual([(row["name"], row["value"]) for row in rows[-2:]],
                         [("999998", "999998"), ("999999", "999999")])
        self.assertEqual(len(rows), 10)
        self.assertEqual(rows[0]["evaluateName"], "big[999990]")
        self.assertEqual(self.rows(big["variablesReference"], filter="named"), [])
        self.assertEqual(self.rows(big["variablesReference"], filter="indexed", start=2000000,
                                   count=5), [])
        rows = self.rows(table["variablesReference"], filter="indexed", start=500000, count=2)
        self.assertEqual([row["name"] for row in rows], ["500000", "500001"])
        groups = self.rows(big["variablesReference"])  # a client that knows no pages
        self.assertEqual((len(groups), groups[3]["name"]), (100, "[30000..39999]"))
        groups = self.rows(groups[3]["variablesReference"])
        self.assertEqual((len(groups), groups[1]["name"]), (100, "[30100..30199]"))
        rows = self.rows(groups[1]["variablesReference"])
        self.assertEqual((len(rows), rows[5]["evaluateName"]), (100, "big[30105]"))

    def check_every_expression(self):
        """What evaluateName says is the value that is shown."""
        pending = [row for row in self.scope().values() if row["name"] not in ("big", "table")]
        pending += [row for name, row in self.scope("Globals").items() if name[:2] != "__"]
        checked = 0
        for level in range(3):
            rows, pending = pending, []
            for row in rows:
                if row.get("presentationHint", {}).get("lazy"):
                    continue
                self.assertEqual(self.result(row["evaluateName"], "watch"), row["value"], row)
                checked += 1
                if row["variablesReference"] and row["name"] not in ("(class)", "sys", "collections") and level < 2:
                    pending += self.rows(row["variablesReference"])
        self.assertGreater(checked, 40)

    def test_setting(self):
        self.start(DATA, "print", initialize={"supportsInvalidatedEvent": True})
        scopes = self.scopes()

        def change(reference, name, value):
            return self.client.request(
                "setVariable", {"variablesReference": reference, "name": name, "value": value})

        local = scopes["Locals"]["variablesReference"]
        answer = change(local, "number", "first + 41")
        self.assertEqual((answer["value"], answer["type"], answer["variablesReference"]),
                         ("42", "int", 0))
        self.assertGreater(change(local, "first", "[number] * 2")["variablesReference"], 0)
        change(scopes["Closure"]["variablesReference"], "counter", "77")
        change(scopes["Globals"]["variablesReference"], "total", "counter + 1")
        found = self.scope()
        change(found["entries"]["variablesReference"], "'a'", "5")
        change(found["slotted"]["variablesReference"], "left", "6")
        thing = found["thing"]["variablesReference"]
        change(thing, "size", "7")  # through the property
        items = self.opened(found["thing"])["items"]["variablesReference"]
        change(items, "0", "8")
        outer = self.client.stack(self.thread)[1]["id"]
        change(self.scopes(outer)["Locals"]["variablesReference"], "parameter", "'new'")
        self.assertIn("cannot be changed", self.client.refused("setVariable", {
            "variablesReference": found["rest"]["variablesReference"], "name": "0", "value": "1"}))
        self.assertIn("no variable nothing", self.client.refused("setVariable", {
            "variablesReference": local, "name": "nothing", "value": "1"}))
        self.assertIn("NameError", self.client.refused("setVariable", {
            "variablesReference": local, "name": "number", "value": "nowhere"}))
        self.assertIn("999999",
                      change(found["big"]["variablesReference"], "999999", "999999 * 1")["value"])
        for expression, value in (("number", "number + 1"), ("entries[2][0]", "'set'"),
                                  ("total", "total + 1"), ("thing.name", "'renamed'"),
                                  ("counter", "counter + 1")):
            self.client.request("setExpression",
                                {"expression": expression, "value": value, "frameId": self.frame})
        self.assertIn("cannot be assigned", self.client.refused(
            "setExpression", {"expression": "f()", "value": "1", "frameId": self.frame}))
        self.assertEqual(self.client.seen_events("invalidated"), [])
        self.assertEqual(self.result("number = number + 100"), "")
        self.client.wait_event("invalidated")
        self.assertEqual(self.result("entries[2], thing.name"), "(['set'], 'renamed')")
        self.client.set_breakpoints(self.path, ["return"])
        self.client.resume(self.thread)
        self.stop_here()
        self.assertEqual(
            self.result("number, first, counter, parameter, total, entries['a'], slotted.left, "
                        "thing.items"),
            "(143, [42, 42], 78, 'new', 79, 5, 6, [8])")
        self.client.resume(self.thread)
        self.assertEqual(self.client.wait_exit(), 0)

    def test_evaluation(self):
        self.start(DATA, "print", stdout=subprocess.PIPE)
        self.check_console()
        self.check_contexts()
        self.check_completions()
        # What follows needs the program to run on.
        old = self.scopes()["Locals"]["variablesReference"]
        self.client.set_breakpoints(self.path, ["method"])
        self.client.request("disconnect", {"terminateDebuggee": False})
        output = self.client.process.stdout.read().decode("utf-8")
        self.assertIn("printed\n", output)
        self.assertIn("numbers 255 1 0 p 100 1 1", output)
        self.assertNotEqual(old, 0)

    def check_console(self):
        for text, expected in (
                ("number + first", "256"), ("sum(x * number for x in rest)", "510"),
                ("[shadowed for _ in rest]", "['local']"),
                ("(lambda: (counter, number))()", "(0, 255)"), ("made = number + 1", ""),
                ("made", "256"), ("if made:\n    made += 1\n    made = made * 2\n", ""),
                ("made", "514"), ("a = 1; b = 2\na + b", "3"),
                ("def helper(x):\n    return x + number\n\nhelper(1)", "256"), ("helper(2)", "257"),
                ("    indented = 5\n    indented + 1", "6"), ("None", "None"),
                ("print('printed')", ""), ("", ""), ("import os.path as where", ""),
                ("where.sep", "'/'"), ("total = 101", ""), ("globals()['total']", "101"),
                ("total = 100", ""), ("thing.items[0], 'x' in entries", "(1, False)"),
                ("number,full", "255"), ("for i in range(3):\n  last = i", ""), ("last", "2"),
                ("self_ = thing; self_.kind", "'thing'")):
            self.assertEqual(self.result(text), expected, text)
        self.assertEqual(self.result("text,full"), "'" + "x" * 5000 + "'")
        self.assertLess(len(self.result("text")), 1100)
        self.assertEqual(self.evaluate("255", format={"hex": True})["result"], "0xff")
        for text, error in (("1 +", "SyntaxError"),
                            ("nowhere", "NameError: name 'nowhere' is not defined"),
                            ("thing.broken", "ValueError: no size"), ("1/0", "ZeroDivisionError: "),
                            ("raise SystemExit(3)", "SystemExit: 3"),
                            ("sys.exit(4)", "SystemExit: 4"),
                            ("raise KeyboardInterrupt", "KeyboardInterrupt"),
                            ("x = (", "SyntaxError")):
            answer = self.refused(text, "repl")
            self.assertIn(error, answer)
            self.assertNotIn("\n", answer)
        row = self.evaluate("[thing]")
        self.assertEqual(self.opened(row)["0"]["evaluateName"], "([thing])[0]")
        self.assertEqual(row["type"], "list")

    def check_contexts(self):
        self.assertEqual(self.result("thing.items", "hover"), "[1, 2, {'k': (3,)}]")
        self.assertEqual(self.result("thing.items[2]['k'][0]", "hover"), "3")
        for text in ("thing.size", "thing.method()", "len(rest)", "number = 3", "thing.broken",
                     "[i for i in rest]"):
            self.refused(text, "hover")
        self.assertEqual(self.result("CALLS", "hover"), "[]")
        self.assertEqual(self.result("thing.size + 1", "watch"), "4")
        self.assertIn("SyntaxError", self.refused("number = 3", "watch"))
        self.assertEqual(len(self.result("text", "clipboard")), 5002)
        self.assertEqual(len(self.result("big", "clipboard")), 7888890)
        self.assertEqual(self.result("total", "watch", frameId=None), "100")
        self.assertEqual(self.result("number, counter", "watch", format={"hex": True}),
                         "(0xff, 0x0)")
        self.assertIn("missing", self.client.refused("evaluate", {"frameId": self.frame}))
        self.assertIn("gone", self.refused("1", frameId=12345))

    def check_completions(self):
        self.assertEqual(self.labels("numb")[0], "number")
        self.assertIn("shared", self.labels("x = sha"))
        self.assertIn("Thing", self.labels("Th"))
        self.assertIn("lambda", self.labels("lam"))
        self.assertIn("enumerate", self.labels("enum"))
        self.assertEqual(self.labels("thing.")[:5], ["broken", "items", "kind", "method", "name"])
        self.assertIn("_Thing__secret", self.labels("thing._"))
        self.assertEqual(self.labels("thing.items[2]['k'].ind"), ["index"])
        self.assertEqual(self.labels("thing.size.re"), [])
        self.assertEqual(self.labels("thing.method().x"), [])
        self.assertEqual(self.labels("'numb"), [])
        self.assertEqual(self.labels("if x:\n    thing.na\nrest", column=13, line=2), ["name"])
        rows = self.client.request("completions", {
            "frameId": self.frame, "text": u"u'\U0001f600' + thing.na", "column": 17})["targets"]
        self.assertEqual([(row["label"], row["type"], row["start"], row["length"]) for row in rows],
                         [("name", "field", 15, 2)])
        self.assertEqual(self.labels("total", frameId=None), ["total"])
        if not PY2:
            self.assertEqual(self.labels(u"caf"), [u"caf\xe9"])
            self.assertEqual(self.labels(u"caf\xe9"), [u"caf\xe9"])
        self.assertEqual(self.result("CALLS"), "['size']")  # of the watch above

    def test_returns_methods_and_handles(self):
        self.start(DATA, "method", arguments={"showReturnValue": True})
        self.assertEqual(self.result("self.__secret", "hover"), "9")
        self.assertEqual(self.result("self.__secret + 1"), "10")
        self.assertEqual(self.labels("self.it"), ["items"])
        frame = self.frame
        reference = self.scopes()["Locals"]["variablesReference"]
        self.client.request("stepOut", {"threadId": self.thread})
        self.stop_here("step")
        self.assertIn("gone", self.client.refused("variables", {"variablesReference": reference}))
        self.assertIn("gone", self.client.refused("scopes", {"frameId": frame}))
        returned = [row for name, row in self.scope().items() if name.startswith("(return)")]
        self.assertEqual([(row["name"], row["value"], row["presentationHint"]) for row in returned],
                         [
                             ("(return) method", "9",
                              {"kind": "virtual", "attributes": ["readOnly"]})])
        self.assertEqual(self.result(returned[0]["evaluateName"], "watch"), "9")


class Slow(DapTest):
    def quick(self, function, *args, **more):
        """What each request must keep to."""
        begin = time.time()
        try:
            return function(*args, **more)
        finally:
            self.assertLess(time.time() - begin, kAnswered + kSlack)

    def settled(self, found, name):
        """A row of its own, where all together have taken too long."""
        row = found[name]
        is_lazy = row.get("presentationHint", {}).get("lazy")
        return self.quick(self.opened, row)[name] if is_lazy else row

    def test_every_value_is_answered_within_its_time(self):
        self.start(SLOW, "stop", stdout=subprocess.PIPE)
        self.client.set_breakpoints(self.path, ["many"])
        found = self.quick(self.scope)
        for name, text in (
                ("endless", "<Endless object: repr takes too long>"), ("zero", "0"),
                ("raises", "<Raises object: repr failed: RuntimeError: never>"),
                ("exits", "<Exits object: repr failed: SystemExit: 7>"),
                ("sleeps", "<Sleeps object: repr takes too long>")):
            self.assertEqual(self.settled(found, name)["value"], text)
        self.assertRegex(self.settled(found, "mixed")["value"],
                         "^\\[1, <.*Endless object.*>, 2\\]$")
        self.assertIn("repr failed: ", self.settled(found, "recurses")["value"])
        self.assertIn("TypeError", self.settled(found, "odd")["value"])
        self.assertIn("50000000", found["long_text"]["value"])
        self.assertLess(len(found["long_text"]["value"]), 1100)
        self.assertEqual(self.quick(self.result, "zero + 1"), "1")
        for name in ("endless", "waits", "sleeps"):
            row = self.settled(found, name)
            lazy = self.quick(self.opened, row)["value"]
            self.assertTrue(lazy["presentationHint"]["lazy"])
            rows = self.quick(self.rows, lazy["variablesReference"])
            self.assertEqual([row["value"] for row in rows], ["<takes too long>"])
        self.assertIn("takes too long", self.quick(self.refused, "sleeps.value"))
        self.assertIn("too long", self.quick(self.refused, "endless.value").lower())
        self.assertEqual(self.quick(self.result, "zero"), "0")
        if not PY2:  # whose locks cannot be interrupted: the thread waits for itself
            self.client.resume(self.thread)
            self.stop_here()
            self.client.resume(self.thread)
            self.assertEqual(self.client.wait_exit(), 0)

    def test_many_bad_values(self):
        self.start(SLOW, "many",
                   arguments={"valueLimits": {"timeMs": 50, "items": 10, "string": 50}})
        found = self.scope()
        rows = self.quick(self.rows, found["objects"]["variablesReference"])
        self.assertEqual(set(row["value"] for row in rows),
                         set(["<Raises object: repr failed: RuntimeError: never>"]))
        rows = self.quick(self.rows, found["slow"]["variablesReference"])
        self.assertEqual(len(rows), 100)
        self.assertEqual(set(row["value"] for row in rows),
                         set(["<Endless object: repr takes too long>"]))
        lazy = [row for row in rows if row.get("presentationHint", {}).get("lazy")]
        self.assertGreater(len(lazy), 50)
        again = self.quick(self.rows, lazy[0]["variablesReference"])
        self.assertEqual([row["value"] for row in again], ["<Endless object: repr takes too long>"])
        self.assertEqual(self.result("'y' * 60"),
                         "'" + "y" * 50 + "...' (60 {})".format("bytes" if PY2 else "characters"))
        self.assertEqual(self.result("list(range(20))"), "[0, 1, 2, 3, 4, 5, 6, 7, 8, 9, ...]")


    def test_thread_that_cannot_be_interrupted(self):
        """Native code that waits in a thread other than the main one: a worker takes over."""
        self.start(SLOW, "hold", stdout=subprocess.PIPE)
        self.assertNotEqual(self.client.stack(self.thread)[-1]["name"], "<module>")
        found = self.quick(self.scope, "Globals")
        self.assertEqual(found["NAP"]["value"], "<Naps object: repr takes too long>")
        self.assertEqual(found["LOCK"]["value"][:1], "<")
        self.assertEqual(self.quick(self.result, "1 + 1", "watch"), "2")
        self.quick(self.result, "NAP.end()")
        self.client.resume(self.thread)
        self.assertEqual(self.client.wait_exit(), 0)

    def test_console_can_be_interrupted(self):
        self.start(SLOW, "stop", stdout=subprocess.PIPE)
        for text in ("while True:\n    pass", "time.sleep(60)"):
            number = self.client.send("evaluate", {"expression": text, "context": "repl",
                                                   "frameId": self.frame})
            self.assertEqual(self.quick(self.result, "1 + 1", "watch"), "2")  # by another thread
            self.client.request("cancel", {"requestId": number})
            answer = self.client.response_to(number)
            self.assertEqual((answer["success"], answer["message"]), (False, "cancelled"))
        self.assertEqual(self.result("zero"), "0")
        number = self.client.send("evaluate", {"expression": "while True: pass", "context": "repl",
                                               "frameId": self.frame})
        self.assertEqual(self.quick(self.result, "1 + 1", "watch"), "2")  # it has begun
        self.client.resume(self.thread)
        self.assertFalse(self.client.response_to(number)["success"])
        self.assertEqual(self.client.wait_exit(), 0)

    def test_values_are_let_go(self):
        self.start(FREED, "stop", stdout=subprocess.PIPE)
        found = self.scope()
        self.opened(found["thing"])
        self.evaluate("thing")
        self.evaluate("made = 5; holder = [thing]; del holder[:]")
        self.labels("thing.")
        self.client.resume(self.thread)
        self.assertEqual(self.client.process.stdout.read().decode().split(), ["None", "1"])


WAITING = '''\
from __future__ import print_function
import sys
import threading
import time
try:
    import queue
except ImportError:
    import Queue as queue

ASKED, FED, LOCK, END = [], queue.Queue(), threading.Lock(), []


def ask():
    """Only another thread can answer."""
    ASKED.append(1)
    return FED.get()


def feed():
    while not END:
        if ASKED:
            ASKED.pop()
            FED.put("fed")  #@ fed
        time.sleep(0.001)


class Asks(object):
    @property
    def value(self):
        return ask()

    def __repr__(self):
        return ask()

    @property
    def loud(self):
        print("loud")
        sys.stdout.flush()
        return ask()


def work(asks):
    here = 1  #@ stop
    there = 2  #@ next
    return here + there  #@ last


feeder = threading.Thread(target=feed, name="feeder")
feeder.daemon = True
feeder.start()
if sys.argv[1] == "main":
    work(Asks())
else:
    worker = threading.Thread(target=work, args=(Asks(),), name="worker")
    worker.daemon = True
    worker.start()
    while worker.is_alive():
        time.sleep(0.001)
while ASKED:
    time.sleep(0.001)
END.append(1)
feeder.join()
print("ended")
'''


class Waiting(DapTest):
    """What is evaluated waits for a thread that is held because the program is stopped."""

    def start_in(self, thread, mark="stop", place=None, **options):
        """Stop in `work`, in the thread "main" or "worker"."""
        self.path = self.make_file("main.py", WAITING, os.path.realpath(self.make_dir()))
        self.client = debug_directly(self, self.path, [thread], stdout=subprocess.PIPE, **options)
        self.client.start_session({}, breakpoints={self.path: [place or mark]})
        return self.stop_here() if place is None else None

    def quick(self, function, *args, **more):
        begin = time.time()
        try:
            return function(*args, **more)
        finally:
            self.assertLess(time.time() - begin, kAnswered + kSlack)

    def number_of(self, name):
        rows = self.client.request("threads")["threads"]
        return [row["id"] for row in rows if row["name"] == name][0]

    def check_end(self, stops, also=None):
        """The program ends in peace; everything was told once."""
        self.assertEqual(self.client.wait_exit(), 0)
        words = self.client.process.stdout.read().decode().split()
        self.assertEqual([word for word in words if word != also], ["ended"])
        self.assertEqual(len(self.client.seen_events("stopped")), stops)
        answers = [message["request_seq"] for message in self.client.messages
                   if message["type"] == "response"]
        self.assertEqual(sorted(set(answers)), sorted(answers))

    def check_requests(self):
        """Every kind that runs code of the program, and others afterwards."""
        row = self.quick(self.scope)["asks"]
        if row.get("presentationHint", {}).get("lazy"):
            row = self.quick(self.opened, row)["asks"]
        self.assertEqual(row["value"], "<Asks object: repr takes too long>")
        rows = self.quick(self.rows, self.opened(row)["value"]["variablesReference"])
        self.assertEqual([row["value"] for row in rows], ["<takes too long>"])
        self.assertIn("too long", self.quick(self.refused, "ask()"))
        self.quick(self.refused, "ask()", "hover")
        self.assertEqual(self.quick(self.result, "1 + 1", "watch"), "2")
        self.assertEqual(self.client.place(self.thread), ("work", "stop"))

    def test_main_thread(self):
        self.start_in("main")
        self.check_requests()
        self.client.set_breakpoints(self.path, ["fed"])
        thread = self.thread
        self.client.resume(thread)
        self.stop_here()
        self.assertEqual(self.client.place(self.thread), ("feed", "fed"))
        self.assertEqual(self.thread, self.number_of("feeder"))
        self.assertEqual(self.result("len(FED.queue)", "watch"), "0")
        self.client.set_breakpoints(self.path, [])
        self.client.resume(self.thread)
        self.check_end(2)

    def test_another_thread(self):
        self.start_in("worker")
        self.assertEqual(self.thread, self.number_of("worker"))
        # The console has no limit, but tells what can only be in vain.
        self.assertIn(
            "waits for another thread", self.quick(self.refused, "got = FED.get()", "repl"))
        self.assertEqual(self.quick(self.result, "1 + 1", "watch"), "2")
        self.client.resume(self.thread)
        text = self.client.wait_event("output", lambda body: "still" in body["output"])["output"]
        self.assertIn("`got = FED.get()` is still being evaluated in the thread worker", text)
        worker = self.thread
        # The others run: one of them can be paused, and the one that waits can be told to step.
        self.client.request("pause", {"threadId": 1})
        self.stop_here("pause")
        self.assertEqual(self.thread, 1)
        names = [frame["name"] for frame in self.client.stack(worker)]
        self.assertIn("get", names)
        self.assertIn("work", names)
        self.assertEqual(self.result("ASKED.append(1)", frameId=None), "")
        self.client.request("next", {"threadId": worker})
        self.stop_here("step")
        self.assertEqual(self.thread, worker)
        self.assertEqual(self.client.place(worker), ("work", "next"))
        self.assertEqual(self.result("got", "watch"), "'fed'")
        self.client.resume(worker)
        self.check_end(3)

    def test_step_and_leave(self):
        self.start_in("worker")
        self.assertIn("waits for another", self.quick(self.refused, "ask()", "repl"))
        self.client.request("next", {"threadId": self.thread})
        worker = self.thread
        self.stop_here("step")
        self.assertEqual((self.thread, self.client.place(worker)), (worker, ("work", "next")))
        self.client.wait_event("output", lambda body: "`ask()`: 'fed'" in body["output"])
        number = self.client.send(
            "evaluate", {"expression": "ask()", "context": "repl", "frameId": self.frame})
        self.assertEqual(self.quick(self.client.response_to, number)["success"], False)
        self.client.request("disconnect", {"terminateDebuggee": False})
        self.check_end(2)

    def test_terminate(self):
        self.start_in("worker")
        self.assertIn("too long", self.quick(self.refused, "FED.get()"))
        self.client.request("terminate")
        self.assertNotEqual(self.client.wait_exit(), 0)

    def test_condition_and_log_point(self):
        """Nobody has told the program to stop: so the others run on."""
        for thread in ("main", "worker"):
            self.start_in(thread, place={"line": "stop", "condition": "ask() == 'fed'"})
            self.stop_here()
            self.assertEqual(self.client.place(self.thread), ("work", "stop"))
            self.client.set_breakpoints(self.path, [
                {"line": "next", "logMessage": "got {ask()}"}, "last",
                {"line": "fed", "condition": "feeder is None"}])
            self.client.resume(self.thread)
            self.stop_here()
            self.assertEqual(self.client.place(self.thread), ("work", "last"))
            texts = [body["output"] for body in self.client.seen_events("output")]
            self.assertEqual([text for text in texts if text.startswith("got")], ["got fed\n"])
            self.client.resume(self.thread)
            self.check_end(2)


    def test_condition_that_the_core_evaluates(self):
        """It does not tell before it knows; but the program can be paused."""
        self.start_in("worker", place={"line": "stop", "condition": "asks.loud == 'fed'"})
        output = self.client.process.stdout
        self.assertEqual(output.readline(), b"loud\n")
        self.client.request("pause", {"threadId": 1})
        self.stop_here("pause")
        self.assertEqual(self.client.stack(1)[-1]["name"], "<module>")
        self.assertEqual(self.result("1 + 1", "watch"), "2")
        self.client.resume(1)
        self.stop_here()
        self.assertEqual(self.client.place(self.thread), ("work", "stop"))
        self.client.resume(self.thread)
        self.check_end(2, also="loud")  # where the condition was evaluated again at the stop


FREED = '''\
import weakref


class Thing(object):
    def __init__(self):
        self.items = [1]


def main():
    thing = Thing()
    reference = weakref.ref(thing)
    other = 1
    print  #@ stop
    del thing
    print(reference())
    print(other)


main()
'''

AWAIT = '''\
import asyncio


async def give(value):
    await asyncio.sleep(0)
    return value


async def main():
    here = 1
    return here  #@ inside

loop = asyncio.new_event_loop()
number = 5
print("before")  #@ before
loop.run_until_complete(main())
'''


class Awaiting(DapTest):
    @needs("!python2")
    def test_await_where_no_loop_runs(self):
        self.start(AWAIT, "before")
        self.assertEqual(self.result("await give(number)"), "5")
        self.assertEqual(self.result("made = 1 + await give(number)\nmade"), "6")
        self.assertEqual(self.result("made"), "6")
        self.assertEqual(self.result("await give(None)"), "")
        self.client.set_breakpoints(self.path, ["inside"])
        self.client.resume(self.thread)
        self.stop_here()
        self.assertIn("await is not possible here", self.refused("await give(1)", "repl"))


class FrameCode(TestCase):
    """Code in a frame, without a session."""

    class Core(object):
        """Stands in for the native module."""

        def __init__(self):
            from support import import_tracer

            self.PyFrame_LocalsToFast = import_tracer().PyFrame_LocalsToFast

    def run_all(self, rows, frame):
        from tdbg import evaluate

        core = self.Core()
        for source, expected in rows:
            result = evaluate.execute(source, frame, core)
            got = result.value if result.ok else result.error
            self.assertEqual((source, got), (source, expected))

    def test_functions_and_comprehensions_see_the_frame(self):
        factor, items = 3, [1, 2]

        def rows():
            yield "sum(x * factor for x in items)", 9
            yield "(lambda: factor)()", 3
            yield "def made(x): return x * factor\nkept = made(4)", None
            yield "kept", 12
            yield "made(5)", 15
            yield "new = 7; other = [new * factor for _ in items]", None
            yield "other", [21, 21]
            yield "factor = 10\nseen = (lambda: factor)()", None
            yield "seen", 10
            yield "class Local(object):\n    value = factor\n", None
            yield "Local.value", 10
            yield "try:\n    1/0\nexcept ZeroDivisionError as error:\n    text = str(error.__class__.__name__)", None
            yield "text", "ZeroDivisionError"

        self.run_all(rows(), sys._getframe())
        self.assertEqual((factor, items), (10, [1, 2]))

    def test_names_that_are_global(self):
        global MARK
        MARK = 1

        def reader():
            return MARK

        frame = sys._getframe()
        self.assertEqual(reader(), 1)
        self.run_all([("MARK = 2", None), ("global NEW_MARK; NEW_MARK = 3", None)], frame)
        self.assertEqual((MARK, NEW_MARK), (2, 3))  # noqa: F821
        self.run_all([("def change():\n    global MARK\n    MARK = 4\nchange()", None)], frame)
        if not PY2:  # a snapshot there
            self.assertEqual(MARK, 4)

    def test_deleting(self):
        from tdbg import compat, evaluate

        gone = 1  # noqa: F841
        result = evaluate.execute("del gone", sys._getframe(), self.Core())
        if compat.kNoLocalsToFast:
            self.assertIn("cannot be deleted", result.error)
        else:
            self.assertTrue(result.ok, result.error)
            self.assertRaises(NameError, lambda: gone)

    def test_several_sets_persist(self):
        from tdbg import framecode

        first = second = third = 0

        def reader():
            return third

        frame, core = sys._getframe(), self.Core()
        framecode.set_local(frame, "first", 1, core)
        framecode.set_local(frame, "second", 2, core)
        framecode.set_local(frame, "third", 3, core)
        self.assertEqual((first, second, third, reader()), (1, 2, 3, 3))


MARK = 0

if __name__ == "__main__":
    unittest.main()
