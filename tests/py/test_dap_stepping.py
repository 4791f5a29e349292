"""Steps through the protocol: by statement, into chosen calls,
through generators and coroutines."""
from __future__ import absolute_import, division, print_function

import sys

from support import TestCase, needs
from support.dapclient import debug_directly

kOncePerVersion = True

kHasAsync = sys.version_info >= (3, 7)


class Stepping(TestCase):
    def start(self, text, breakpoints=(), **configuration):
        """The client, stopped at the first of the breakpoints (marks), else at the first line."""
        self.path = self.make_file("program.py", text)
        client = debug_directly(self, self.path)
        if not breakpoints:
            configuration["stopOnEntry"] = True
        client.start_session(configuration, breakpoints={self.path: breakpoints})
        stop = client.wait_stopped("breakpoint" if breakpoints else "entry")
        self.thread = stop["threadId"]
        return client

    def steps(self, client, *commands):
        """[(function, place)] after each; a command is a name or (name, more arguments)."""
        places = []
        for command in commands:
            name, more = command if isinstance(command, tuple) else (command, {})
            places.append(client.step(name, self.thread, **more))
        return places

    def finish(self, client, status=0):
        client.set_breakpoints(self.path, [])
        client.resume(self.thread)
        self.assertEqual(client.wait_exit(), status)

    # --- statements ---

    kStatements = """\
def add(a, b):
    return a + b

total = add(  #@ call
    1,  #@ argument
    add(2,
        3))
if (total and  #@ head
        total > 1):
    total = 0  #@ body
for item in (1,):  #@ loop
    total += item  #@ sum
end = 1  #@ end
"""

    def test_next_goes_over_whole_statements(self):
        client = self.start(self.kStatements)
        self.assertEqual(self.steps(client, *["next"] * 7), [
            ("<module>", name) for name in ("call", "head", "body", "loop", "sum", "loop", "end")])
        self.finish(client)

    kLines = """\
def add(a, b):
    return a + b  #@ add

for turn in (1, 2):  #@ loop
    total = add(  #@ call
        add(1, 1),  #@ first
        add(2,  #@ second
            3))
    turn += 1  #@ end
"""

    def test_breakpoints_on_further_lines_of_the_statement_stop_once(self):
        client = self.start(self.kLines, ["call", "first", "second", "end"])
        for turn in range(2):
            for place, reason in (("first", "breakpoint"), ("second", "breakpoint"),
                                  ("end", "breakpoint"), ("loop", "step")):
                self.assertEqual(client.step("next", self.thread, reason=reason),
                                 ("<module>", place))
            if turn == 0:
                self.assertEqual(client.step("next", self.thread, reason="breakpoint"),
                                 ("<module>", "call"))
        self.finish(client)

    def test_breakpoint_behind_the_call_that_a_step_out_leaves(self):
        client = self.start(self.kLines, ["first", "second"])
        self.assertEqual(client.step("stepIn", self.thread), ("add", "add"))
        self.assertEqual(client.step("stepOut", self.thread, reason="breakpoint"),
                         ("<module>", "second"))
        self.assertEqual(client.step("stepIn", self.thread), ("add", "add"))
        self.finish(client)

    def test_line_granularity_on_request(self):
        client = self.start(self.kStatements, ["call"])
        place = client.step("next", self.thread, granularity="line")
        self.assertEqual(place, ("<module>", "argument"))
        # From the middle of the statement the rest of it is one step again.
        self.assertEqual(client.step("next", self.thread), ("<module>", "head"))
        self.finish(client)

    def test_line_granularity_as_configured(self):
        client = self.start(self.kStatements, ["call"], stepGranularity="line")
        self.assertEqual(client.step("next", self.thread), ("<module>", "argument"))
        self.assertEqual(client.step("next", self.thread, granularity="statement"),
                         ("<module>", "head"))
        self.assertIn("no granularity", client.refused(
            "next", {"threadId": self.thread, "granularity": "chapter"}))
        self.finish(client)

    def test_step_in_enters_calls_on_later_lines_of_the_statement(self):
        client = self.start(self.kStatements, ["call"])
        self.assertEqual(client.step("stepIn", self.thread), ("add", 2))
        # Later compilers come back to the first line for the outer call.
        self.assertIn(client.step("stepOut", self.thread),
                      [("<module>", "call"), ("<module>", "head")])
        self.finish(client)

    kOneLine = """\
def f(x):
    return x

values = [f(n) for n in (1, 2)]  #@ comprehension
f(f(1)); f(2)  #@ two
last = 1  #@ last
"""

    def test_comprehension_is_part_of_its_statement(self):
        client = self.start(self.kOneLine, ["comprehension"])
        self.assertEqual(client.step("next", self.thread), ("<module>", "two"))
        self.finish(client)

    def test_step_into_a_comprehension_enters_what_it_calls(self):
        client = self.start(self.kOneLine, ["comprehension"])
        self.assertEqual(client.step("stepIn", self.thread), ("f", 2))
        self.finish(client)

    def test_end_of_a_function_leads_to_its_caller(self):
        client = self.start(self.kOneLine, ["two"])
        self.assertEqual(self.steps(client, "stepIn", "next"), [("f", 2), ("<module>", "last")])
        self.finish(client)

    def test_end_of_the_program(self):
        client = self.start("a = 1\nimport atexit\natexit.register(len, '')\n")
        self.assertEqual(self.steps(client, "next", "next"), [("<module>", 2), ("<module>", 3)])
        client.request("next", {"threadId": self.thread})
        self.assertEqual(client.wait_exit(), 0)
        self.assertEqual(client.seen_events("output"), [])

    def test_exception_on_the_way_does_not_end_a_step(self):
        client = self.start("""\
def fail():
    raise ValueError(1)  #@ raise
def middle():
    fail()
try:
    middle()  #@ middle
except ValueError:  #@ handler
    done = 1
""", ["middle"])
        self.assertEqual(self.steps(client, "stepIn", "stepIn", "next"), [
            ("middle", 4), ("fail", "raise"), ("<module>", "handler")])
        self.finish(client)

    def test_breakpoint_ends_a_step(self):
        client = self.start("""\
def inner():
    x = 1  #@ inner
    return x
inner()  #@ call
y = 2  #@ after
""", ["call", "inner"])
        self.assertEqual(client.step("next", self.thread, reason="breakpoint"), ("inner", "inner"))
        self.assertEqual(client.step("stepOut", self.thread), ("<module>", "after"))
        self.finish(client)

    @needs("!python2")
    def test_breakpoint_of_the_program_ends_a_step(self):
        if sys.version_info < (3, 7):
            self.skipTest("has no breakpoint()")
        client = self.start("""\
def inner():
    breakpoint()  #@ inner
inner()  #@ call
""", ["call"])
        self.assertEqual(client.step("next", self.thread, reason="breakpoint"), ("inner", "inner"))
        self.finish(client)

    # --- into chosen calls ---

    kTargets = """\
class Thing(object):
    def __init__(self, value):
        self.value = value  #@ init

    def method(self, other):
        return other  #@ method

def f(x):
    return x  #@ f

def g(x):
    return x  #@ g

f(0)
thing = Thing(f(1)).method(g(f(2)))  #@ targets
end = 1  #@ end
"""

    def targets(self, client):
        frame = client.stack(self.thread, levels=1)[0]
        return client.request("stepInTargets", {"frameId": frame["id"]})["targets"]

    def test_step_in_targets(self):
        client = self.start(self.kTargets, ["targets"])
        targets = self.targets(client)
        self.assertEqual([str(target["label"]) for target in targets],
                         ["f", "Thing", "f", "g", "Thing().method"])
        for index, place in ((3, ("g", "g")), (4, ("method", "method"))):
            with_id = self.targets(client)[index]["id"]
            self.assertEqual(client.step("stepIn", self.thread, targetId=with_id), place)
            self.assertIn("gone", client.refused(
                "stepIn", {"threadId": self.thread, "targetId": with_id}))
            break
        self.assertEqual(client.step("stepOut", self.thread), ("<module>", "end"))
        self.finish(client)

    def test_step_into_the_last_call_and_into_a_class(self):
        for index, place in ((4, ("method", "method")), (1, ("__init__", "init"))):
            client = self.start(self.kTargets, ["targets"])
            target = self.targets(client)[index]["id"]
            self.assertEqual(client.step("stepIn", self.thread, targetId=target), place)
            self.finish(client)

    def test_step_into_the_second_of_two_calls_of_one_function(self):
        client = self.start(self.kTargets, ["targets"])
        target = self.targets(client)[2]["id"]
        client.step("stepIn", self.thread, targetId=target)
        frame = client.stack(self.thread, levels=1)[0]
        self.assertEqual(client.locals_of(frame["id"])["x"], "2")
        self.finish(client)

    def test_target_that_is_never_called(self):
        client = self.start("""\
def f():
    return 0
f() and f()  #@ call
end = 1  #@ end
""", ["call"])
        target = self.targets(client)[1]["id"]
        self.assertEqual(client.step("stepIn", self.thread, targetId=target), ("<module>", "end"))
        self.assertIn("no target", client.refused("stepIn", {
            "threadId": self.thread, "targetId": self.scope_of(client)}))
        self.finish(client)

    def scope_of(self, client):
        frame = client.stack(self.thread, levels=1)[0]
        return client.request("scopes", {"frameId": frame["id"]})["scopes"][0]["variablesReference"]

    # --- generators and coroutines ---

    def test_step_over_yield_stays_in_the_generator(self):
        client = self.start("""\
def numbers():
    first = 1
    yield first  #@ yield
    second = 2  #@ second
    yield second
    third = 3  #@ third

def use():
    for number in numbers():
        seen = number
use()
end = 1  #@ end
""", ["yield"])
        self.assertEqual(self.steps(client, *["next"] * 4), [
            ("numbers", "second"), ("numbers", 5), ("numbers", "third"), ("<module>", "end")])
        self.finish(client)

    def test_step_out_of_a_generator_leads_to_who_asked_it(self):
        client = self.start("""\
def numbers():
    yield 1  #@ yield

for number in numbers():
    seen = number  #@ seen
""", ["yield"])
        self.assertEqual(client.step("stepOut", self.thread), ("<module>", "seen"))
        self.finish(client)

    def test_step_over_await_stays_in_the_coroutine(self):
        if not kHasAsync:
            self.skipTest("has no asyncio.run()")
        client = self.start("""\
import asyncio
async def other():
    for n in range(5):
        await asyncio.sleep(0)
async def work(n):
    a = n  #@ before
    await asyncio.sleep(0.01)  #@ await
    b = n  #@ after
    return b
async def main():
    result = await asyncio.gather(work(1), other(), work(2))  #@ gather
    end = 1  #@ end
asyncio.run(main())
""", ["before"])
        client.set_breakpoints(self.path, [])
        self.assertEqual(self.steps(client, "next", "next"), [("work", "await"), ("work", "after")])
        frame = client.stack(self.thread, levels=1)[0]
        self.assertEqual(client.locals_of(frame["id"])["n"], "1")
        self.finish(client)

    def test_step_out_of_a_coroutine_leads_to_who_awaits_it(self):
        if not kHasAsync:
            self.skipTest("has no asyncio.run()")
        client = self.start("""\
import asyncio
async def inner():
    await asyncio.sleep(0)
    return 1  #@ inner
async def main():
    x = await inner()
    y = 2  #@ after
asyncio.run(main())
""", ["inner"])
        self.assertEqual(client.step("stepOut", self.thread), ("main", "after"))
        self.finish(client)

    # --- the user's code ---

    kCallbacks = """\
import functools
def key(a, b):
    return a - b  #@ key
class Thing(functools.partial):
    pass
import bisect, json.decoder
def hook(pairs):
    return len(pairs)  #@ hook
json.decoder.JSONDecoder(object_pairs_hook=hook).decode('1')
text = json.decoder.JSONDecoder(object_pairs_hook=hook).decode('{"a": 1}')  #@ foreign
end = 1  #@ end
"""

    def test_step_in_passes_foreign_code_up_to_what_it_calls_back(self):
        client = self.start(self.kCallbacks, ["foreign"])
        self.assertEqual(self.steps(client, "stepIn", "next"),
                         [("hook", "hook"), ("<module>", "end")])
        self.finish(client)

    def test_step_in_enters_foreign_code_when_it_is_the_users(self):
        client = self.start(self.kCallbacks, ["foreign"], justMyCode=False)
        name, _ = client.step("stepIn", self.thread)
        self.assertEqual(name, "__init__")
        frame = client.stack(self.thread, levels=1)[0]
        self.assertNotIn("presentationHint", frame)
        self.finish(client)

    def test_steps_in_foreign_code_from_a_breakpoint_there(self):
        import json.decoder

        path = json.decoder.__file__.replace(".pyc", ".py")
        with open(path) as source:
            lines = source.read().split("\n")
        line = next(number for number, text in enumerate(lines, 1)
                    if "obj, end = self.raw_decode" in text)
        self.path = self.make_file("program.py", self.kCallbacks)
        client = debug_directly(self, self.path)
        client.start_session({}, breakpoints={path: [line]})
        self.thread = client.wait_stopped("breakpoint")["threadId"]
        frames = client.stack(self.thread)
        self.assertEqual([frame.get("presentationHint") for frame in frames], ["subtle", None])
        self.assertEqual(self.steps(client, "next"), [("decode", line + 1)])
        client.set_breakpoints(path, [])
        self.assertEqual(client.step("stepOut", self.thread), ("<module>", "foreign"))
        self.finish(client)

    # --- returned values ---

    def test_returned_values_are_shown(self):
        client = self.start("""\
def f():
    return [1, 2]  #@ f
x = f()
end = 1  #@ end
""", ["f"], showReturnValue=True)
        client.step("stepOut", self.thread)
        frame = client.stack(self.thread, levels=1)[0]
        self.assertEqual(client.locals_of(frame["id"]).get("(return) f"), "[1, 2]")
        self.finish(client)

    # --- jumps ---

    def test_goto(self):
        client = self.start("""\
a = 1
b = 2  #@ b
a = 5  #@ skipped
c = a  #@ c
print(c)
""", ["b"])
        targets = client.request("gotoTargets",
                                 {"source": {"path": self.path}, "line": 4})["targets"]
        self.assertEqual([target["line"] for target in targets], [4])
        client.request("goto", {"threadId": self.thread, "targetId": targets[0]["id"]})
        client.wait_stopped("goto")
        self.assertEqual(client.place(self.thread), ("<module>", "c"))
        self.assertEqual(client.step("next", self.thread), ("<module>", 5))
        frame = client.stack(self.thread, levels=1)[0]
        self.assertEqual(client.locals_of(frame["id"])["c"], "1")
        self.assertEqual(client.request(
            "gotoTargets", {"source": {"path": self.path + "x"}, "line": 4})["targets"], [])
        self.finish(client)

    def test_goto_that_the_interpreter_refuses(self):
        client = self.start("""\
a = 1  #@ a
for x in (1, 2):
    b = x
""", ["a"])
        target = client.request("gotoTargets",
                                {"source": {"path": self.path}, "line": 3})["targets"][0]
        self.assertIn("cannot jump", client.refused(
            "goto", {"threadId": self.thread, "targetId": target["id"]}))
        self.assertEqual(client.place(self.thread), ("<module>", "a"))
        self.finish(client)
