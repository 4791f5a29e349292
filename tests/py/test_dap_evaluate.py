# -*- coding: utf-8 -*-
"""Scopes, variables, evaluation and completion over the Debug Adapter Protocol."""
from __future__ import absolute_import, division, print_function

import subprocess
import sys
import unittest

from support import needs
from support.dapframe import DapFrameTest

kOncePerVersion = True

PY2 = sys.version_info[0] == 2

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
        print("numbers", number, first, counter, parameter, total, entries["a"])  #@ print
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


class Data(DapFrameTest):
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
                if row["variablesReference"] and level < 2 and (
                        row["name"] not in ("(class)", "sys", "collections")):
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
        self.assertIn("numbers 255 1 0 p 100 1\n", output)
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

    def test_values_are_let_go(self):
        self.start(FREED, "stop", stdout=subprocess.PIPE)
        found = self.scope()
        self.opened(found["thing"])
        self.evaluate("thing")
        self.evaluate("made = 5; holder = [thing]; del holder[:]")
        self.labels("thing.")
        self.client.resume(self.thread)
        self.assertEqual(self.client.process.stdout.read().decode().split(), ["None", "1"])


class Awaiting(DapFrameTest):
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


if __name__ == "__main__":
    unittest.main()
