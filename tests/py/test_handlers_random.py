"""Whether an exception will be caught: random programs, and all code of the standard library."""
from __future__ import absolute_import, division, print_function

import gc
import random
import types
import unittest

from support import TestCase, time_limit
from support.scans import Probe
from tdbg import handlers
from tdbg.handlers import kCaught, kUncaught, kUnknown

kOncePerVersion = True


class Writer(object):
    """Random functions out of everything that handles exceptions."""

    def __init__(self, seed):
        self.random = random.Random(seed)
        self.lines, self.functions = [], 0

    def source(self):
        for _ in range(3):
            self.functions += 1
            self.lines.append("def f{}():".format(self.functions))
            self.lines.append("    count = 0")
            self.block(1, 0, False)
        self.lines.append("def case(): f{}()".format(self.functions))
        return "\n".join(self.lines)

    def put(self, depth, text):
        self.lines.append("    " * depth + text)

    def block(self, depth, level, in_loop, in_clause=False):
        for _ in range(self.random.randint(1, 3)):
            self.statement(depth, level, in_loop, in_clause)

    def statement(self, depth, level, in_loop, in_clause):
        choices = ["boom", "boom", "call", "if"]
        if level < 2:
            choices += ["except", "except", "finally", "with", "loop", "both"]
        if in_loop:
            choices += ["break", "continue"]
        if in_clause:
            choices += ["raise"]
        choices.append("return")
        getattr(self, "put_" + self.random.choice(choices))(depth, level, in_loop, in_clause)

    def put_boom(self, depth, level, in_loop, in_clause):
        kind = self.random.choice(("ValueError", "KeyError", "Derived"))
        self.put(depth, "boom({})".format(kind))

    def put_call(self, depth, level, in_loop, in_clause):
        if self.functions > 1:
            self.put(depth, "f{}()".format(self.random.randint(1, self.functions - 1)))
        else:
            self.put(depth, "pass")

    def put_if(self, depth, level, in_loop, in_clause):
        self.put(depth, "count += 1")
        self.put(depth, "if count % 2:")
        self.put(depth + 1, self.random.choice(("pass", "boom()", "return")))

    def put_return(self, depth, level, in_loop, in_clause):
        self.put(depth, "if count == 3: return boom()")

    def put_break(self, depth, level, in_loop, in_clause):
        self.put(depth, "if count > {}: break".format(self.random.randint(0, 2)))

    def put_continue(self, depth, level, in_loop, in_clause):
        # Version 3.7 and older have no `continue` in `finally`.
        self.put(depth, "pass")

    def put_raise(self, depth, level, in_loop, in_clause):
        self.put(depth, self.random.choice(("raise", "if count: raise")))

    def put_clauses(self, depth, level, in_loop):
        for _ in range(self.random.randint(1, 2)):
            kinds = self.random.choice((
                "ValueError", "Base", "LookupError", "(KeyError, Base)", "(OSError, Derived) as e"))
            self.put(depth, "except {}:".format(kinds))
            self.block(depth + 1, level + 1, in_loop, True)
        if self.random.random() < 0.2:
            self.put(depth, "except:")
            self.block(depth + 1, level + 1, in_loop, True)

    def put_except(self, depth, level, in_loop, in_clause):
        self.put(depth, "try:")
        self.block(depth + 1, level + 1, in_loop)
        self.put_clauses(depth, level, in_loop)

    def put_both(self, depth, level, in_loop, in_clause):
        self.put_except(depth, level, in_loop, in_clause)
        self.put(depth, "finally:")
        self.block(depth + 1, level + 1, False)

    def put_finally(self, depth, level, in_loop, in_clause):
        self.put(depth, "try:")
        self.block(depth + 1, level + 1, in_loop)
        self.put(depth, "finally:")
        self.block(depth + 1, level + 1, False)

    def put_with(self, depth, level, in_loop, in_clause):
        self.put(depth, self.random.choice(("with Swallow():", "with Keep() as kept:")))
        self.block(depth + 1, level + 1, in_loop)

    def put_loop(self, depth, level, in_loop, in_clause):
        self.put(depth, self.random.choice(("for i in range(2):", "while count < 2:")))
        self.put(depth + 1, "count += 1")
        self.block(depth + 1, level + 1, True)


class Oracle(TestCase):
    """Random programs: the scan may not know, but what it says is what happens."""

    @time_limit(120)
    def test_random_programs(self):
        answers = dict.fromkeys((kUncaught, kCaught, kUnknown), 0)
        for seed in range(120):
            source = Writer(seed).source()
            for raise_at in range(1, 12):
                probe = Probe(source, raise_at=raise_at)
                try:
                    probe.run()
                except (IndexError, RuntimeError):
                    pass
                if not probe.raised:
                    break
                probe = Probe(source, raise_at=raise_at)
                verdict, escaped = probe.run()
                answers[verdict] += 1
                if verdict != kUnknown and escaped != (verdict == kUncaught):
                    self.fail("seed {}, raise {}: {}, escaped: {}\n{}".format(
                        seed, raise_at, verdict, escaped, source))
        self.assertGreater(min(answers.values()), 50, answers)

    @time_limit(120)
    def test_every_instruction_of_the_library(self):
        """No code of the standard library leads the analysis astray."""
        import argparse, decimal, inspect, subprocess, tarfile, threading, zipfile  # noqa: F401

        codes = [item.__code__ for item in gc.get_objects() if isinstance(item, types.FunctionType)]
        count = 0
        for code in codes:
            plan = handlers.tCodePlan(code)
            plan._load()
            for offset in plan.offsets:
                self.assertIn(plan.node_at(offset)[0], range(6))
                count += 1
        self.assertGreater(count, 50000)


if __name__ == "__main__":
    unittest.main()
