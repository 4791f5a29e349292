"""Whether an exception will be caught: what the scan says at the raise, against what happens."""
from __future__ import absolute_import, division, print_function

import gc
import random
import sys
import textwrap
import types
import unittest

from support import TestCase, needs, time_limit
from tdbg import handlers
from tdbg.handlers import kCaught, kReported, kUncaught, kUnknown

kOncePerVersion = True

kProbe = """\
import sys
class Base(Exception): pass
class Derived(Base): pass
class Swallow(object):
    def __enter__(self): return self
    def __exit__(self, *info): return True
class Keep(Swallow):
    def __exit__(self, *info): return None
"""


class Probe(object):
    """Runs source that calls boom(kind): that asks for the verdict, then raises."""

    def __init__(self, source, reports=None, raise_at=1):
        self.verdicts, self.raised = [], []
        self.reports, self.raise_at = reports, raise_at
        self.calls = 0
        self.names = {"boom": self.boom, "group": self.group, "__name__": "probed"}
        exec(compile(kProbe + textwrap.dedent(source), "<probed>", "exec"), self.names)

    def boom(self, kind=ValueError, value=None):
        self.calls += 1
        if self.calls < self.raise_at:
            return
        value = kind("boom") if value is None else value
        if not self.raised:
            verdict = handlers.scan(
                sys._getframe(), value.__class__, value, self.reports, self.outermost)
            self.verdicts.append(verdict.answer)
            self.raised.append(value)
            raise value

    def group(self, *kinds):
        compound = getattr(handlers.compat.builtins, "ExceptionGroup")
        self.boom(value=compound("several", [kind("part") for kind in kinds]))

    def enter(self):
        self.outermost = sys._getframe()
        case = self.names["case"]
        case()

    def run(self):
        """The verdict, and whether the exception came out."""
        try:
            self.enter()
        except BaseException as error:
            if not self.raised:
                raise
            escaped = error is self.raised[0]
        else:
            escaped = False
        return self.verdicts[0], escaped


class ScanCase(TestCase):
    def check(self, expected, source, escapes=None, **options):
        """The verdict is `expected`; what the program does agrees with it."""
        verdict, escaped = Probe(source, **options).run()
        self.assertEqual(verdict, expected)
        if escapes is None:
            escapes = expected == kUncaught
        self.assertEqual(escaped, escapes)


class OneFrame(ScanCase):
    def test_nothing_around_it(self):
        self.check(kUncaught, "def case(): boom()")

    def test_matching_clause(self):
        self.check(kCaught, """
            def case():
                try: boom()
                except ValueError: pass
        """)

    def test_clause_for_another_type(self):
        self.check(kUncaught, """
            def case():
                try: boom()
                except KeyError: pass
                except (OSError, IndexError): pass
        """)

    def test_clause_for_a_base_class(self):
        self.check(kCaught, """
            def case():
                try: boom(Derived)
                except KeyError: pass
                except Base: pass
        """)
        self.check(kUncaught, """
            def case():
                try: boom(Base)
                except Derived: pass
        """)

    def test_bare_except(self):
        self.check(kCaught, """
            def case():
                try: boom()
                except: pass
        """)

    def test_bare_except_after_a_clause(self):
        self.check(kCaught, """
            def case():
                try: boom()
                except KeyError: raise
                except: pass
        """)

    def test_tuple_in_a_variable(self):
        self.check(kCaught, """
            kinds = (KeyError, ValueError)
            def case():
                try: boom()
                except kinds: pass
        """)
        self.check(kUncaught, """
            def case():
                kinds = (KeyError, Base)
                try: boom()
                except kinds as error: pass
        """)

    def test_name_of_an_enclosing_function(self):
        self.check(kCaught, """
            def outer(kind):
                def inner():
                    try: boom()
                    except kind: pass
                inner()
            def case(): outer(ValueError)
        """)

    def test_dotted_name(self):
        self.check(kCaught, """
            import socket
            def case():
                try: boom(OSError if sys.version_info >= (3,) else socket.error)
                except socket.error: pass
        """)
        self.check(kUncaught, """
            import socket
            def case():
                try: boom()
                except socket.timeout: pass
        """)

    def test_attribute_of_a_class(self):
        self.check(kUncaught, """
            class Model(object):
                class Missing(Exception): pass
            def case():
                try: boom()
                except Model.Missing: pass
        """)

    def test_computed_expression_may_catch(self):
        self.check(kUnknown, """
            def kinds(): return KeyError
            def case():
                try: boom()
                except kinds(): pass
        """, escapes=True)

    def test_attribute_of_an_instance_is_not_computed(self):
        self.check(kUnknown, """
            class Owner(object):
                @property
                def kind(self): raise AssertionError('evaluated by the debugger')
            owner = Owner()
            def case():
                try: boom()
                except owner.kind: pass
        """, escapes=False)

    def test_comparing_classes_runs_no_code_of_the_program(self):
        self.check(kUncaught, """
            class Meta(type):
                def __eq__(self, other): raise AssertionError('run by the debugger')
                __hash__ = type.__hash__
            Odd = Meta('Odd', (Exception,), {})
            def case():
                try: boom(Odd)
                except KeyError: pass
        """)

    def test_name_that_is_not_there_may_catch(self):
        self.check(kUnknown, """
            def case():
                try: boom()
                except missing: pass
        """, escapes=False)

    def test_else_and_handler_are_outside_of_the_try(self):
        self.check(kUncaught, """
            def case():
                try: pass
                except ValueError: pass
                else: boom()
        """)
        self.check(kUncaught, """
            def case():
                try: {}['x']
                except KeyError: boom()
                except ValueError: pass
        """)

    def test_module_level(self):
        self.check(kCaught, """
            text = compile('try: boom()\\nexcept ValueError: pass', '<module>', 'exec')
            def case(): exec(text, globals())
        """)

    def test_type_and_value_of_an_old_style_class(self):
        if sys.version_info[0] > 2:
            return self.skipTest("no old-style classes")
        self.check(kCaught, """
            class Old: pass
            class Older(Old): pass
            def case():
                try: boom(lambda text: Older())
                except Old: pass
        """)


class Raising(ScanCase):
    """Clauses that let the exception go on."""

    def test_bare_raise(self):
        self.check(kUncaught, """
            def case():
                try: boom()
                except ValueError: raise
        """)

    def test_bare_raise_after_other_work(self):
        self.check(kUncaught, """
            def case():
                try: boom()
                except ValueError as error:
                    for i in range(3):
                        if i: str(error)
                    try: {}['x']
                    except KeyError: pass
                    raise
        """, escapes=sys.version_info[0] > 2)  # version 2 raises the latest one, the KeyError

    def test_bare_raise_on_some_ways_only(self):
        self.check(kUnknown, """
            def case():
                try: boom()
                except ValueError:
                    if len(sys.argv) > 1000: raise
        """, escapes=False)

    def test_bare_raise_into_an_outer_clause(self):
        self.check(kCaught, """
            def case():
                try:
                    try: boom()
                    except ValueError as error: raise
                except ValueError: pass
        """)

    def test_another_exception_in_its_place(self):
        self.check(kCaught, """
            def case():
                try: boom()
                except ValueError: raise KeyError('instead')
        """)

    def test_return_in_the_clause(self):
        self.check(kCaught, """
            def case():
                try: boom()
                except ValueError as error: return str(error)
        """)

    def test_break_and_continue_in_the_clause(self):
        for word in ("break", "continue"):
            self.check(kCaught, """
                def case():
                    for i in range(2):
                        try: boom()
                        except ValueError: {}
            """.format(word))


class Finally(ScanCase):
    def test_goes_on(self):
        self.check(kUncaught, """
            def case():
                try: boom()
                finally: str()
        """)

    def test_goes_on_into_a_clause(self):
        self.check(kCaught, """
            def case():
                try:
                    try: boom()
                    finally: str()
                except ValueError: pass
        """)

    def test_returns(self):
        self.check(kCaught, """
            def case():
                try: boom()
                finally: return 1
        """)

    def test_breaks(self):
        self.check(kCaught, """
            def case():
                while True:
                    try: boom()
                    finally: break
        """)

    @needs("syntax:while 1:\n try: pass\n finally: continue")
    def test_continues(self):
        self.check(kCaught, """
            def case():
                for i in (1, 2):
                    try: boom()
                    finally: continue
        """)

    def test_own_loop_in_it(self):
        self.check(kUncaught, """
            def case():
                try: boom()
                finally:
                    for i in range(3):
                        if i == 1: continue
                        if i == 2: break
                    while i:
                        i = 0
        """)

    def test_own_handlers_in_it(self):
        self.check(kUncaught, """
            def case():
                try: boom()
                finally:
                    try: {}['x']
                    except KeyError: pass
                    finally: str()
                    with Swallow(): pass
        """)

    def test_return_from_the_try_passes_it(self):
        self.check(kUncaught, """
            def case():
                for i in range(2):
                    try:
                        if i: return boom()
                        continue
                    finally: str()
        """)

    def test_raises_in_it(self):
        self.check(kUncaught, """
            def case():
                try:
                    try: str()
                    finally: boom()
                except KeyError: pass
        """)


class With(ScanCase):
    def test_may_swallow(self):
        self.check(kUnknown, """
            def case():
                with Swallow(): boom()
        """, escapes=False)

    def test_may_swallow_several(self):
        self.check(kUnknown, """
            def case():
                with Swallow() as one, Keep() as two: boom()
        """, escapes=False)

    def test_passes_on_what_it_is_known_to(self):
        for manager in (
                "Keep()", "open('/dev/null')", "open('/dev/null', mode='r') as f", "lock",
                "threading.Lock()", "io.open('/dev/null') as f, lock", "Keep() as kept"):
            self.check(kUncaught, """
                import io, threading
                lock = threading.Lock()
                def case():
                    with {}: boom()
            """.format(manager))

    def test_passes_on_into_a_clause(self):
        self.check(kCaught, """
            def case():
                try:
                    with Keep(): boom()
                except ValueError: pass
        """)

    def test_manager_that_is_not_to_be_foreseen(self):
        for manager in ("make()", "Sometimes()", "Odd()", "keeps[0]", "Keep() if boom else None",
                        "(lambda: Swallow())()"):
            self.check(kUnknown, """
                class Sometimes(Keep):
                    def __exit__(self, kind, value, tb): return kind is ValueError
                class Odd(Keep):
                    def __new__(cls): return Swallow()
                keeps = [Swallow()]
                def make(): return Swallow()
                def case():
                    with {}: boom()
            """.format(manager), escapes="if boom" in manager)

    def test_its_own_expression_is_outside(self):
        self.check(kUncaught, """
            def case():
                with boom(): pass
        """)

    def test_behind_it(self):
        self.check(kUncaught, """
            def case():
                with Swallow(): pass
                boom()
        """)


class Frames(ScanCase):
    def test_outer_frame(self):
        self.check(kCaught, """
            def inner(): boom()
            def middle():
                try: inner()
                except KeyError: pass
                finally: str()
            def case():
                try: middle()
                except ValueError: pass
        """)

    def test_handler_inside_of_the_caller_s_handler(self):
        self.check(kUncaught, """
            def inner(): boom()
            def case():
                try: {}['x']
                except KeyError: inner()
        """)

    def test_lambda_comprehension_and_generator(self):
        for expression in (
                "(lambda: boom())()", "[boom() for _ in (1,)]", "list(boom() for _ in (1,))",
                "sorted([1, 2], key=lambda value: boom())", "dict((boom(), 1) for _ in (1,))",
                "next(boom() for _ in (1,))", "min([2, 1], key=lambda value: boom())"):
            self.check(kUncaught, "def case(): return {}".format(expression))
            self.check(kCaught, """
                def case():
                    try: return {}
                    except ValueError: pass
            """.format(expression))

    def test_generator_that_catches(self):
        self.check(kCaught, """
            def numbers():
                try: yield boom()
                except ValueError: yield 1
            def case(): list(numbers())
        """)

    def test_thrown_into_a_generator(self):
        self.check(kUncaught, """
            def numbers():
                try: yield 1
                finally: boom()
            def case():
                made = numbers()
                next(made)
                made.close()
        """)

    def test_init_property_and_operator(self):
        self.check(kUncaught, """
            class Value(object):
                def __init__(self): boom()
            def case(): Value()
        """)
        self.check(kUncaught, """
            class Value(object):
                @property
                def size(self): boom()
            def case(): Value().size
        """)
        self.check(kUncaught, """
            class Value(object):
                def __add__(self, other): boom()
            def case(): Value() + 1
        """)

    @needs("syntax:async def f(): pass")
    def test_coroutine(self):
        self.check(kUncaught, """
            async def inner(): boom()
            async def outer(): await inner()
            def case(): outer().send(None)
        """)
        self.check(kCaught, """
            async def inner(): boom()
            async def outer():
                try: await inner()
                except ValueError: pass
            def case():
                try: outer().send(None)
                except StopIteration: pass
        """)

    @needs("syntax:async def f(): pass")
    def test_loop_and_with_of_a_coroutine(self):
        self.check(kUncaught, """
            class Steps(object):
                def __aiter__(self): return self
                async def __anext__(self): boom()
            async def outer():
                async for step in Steps(): pass
            def case(): outer().send(None)
        """)
        self.check(kUnknown, """
            class Guard(object):
                async def __aenter__(self): pass
                async def __aexit__(self, *info): return True
            async def outer():
                async with Guard(): boom()
            def case():
                try: outer().send(None)
                except StopIteration: pass
        """, escapes=False)

    @needs("syntax:def f(): yield from g()")
    def test_generator_that_delegates(self):
        self.check(kUncaught, """
            def inner(): yield boom()
            def outer(): yield from inner()
            def case(): list(outer())
        """)

    def test_deep_recursion(self):
        self.check(kCaught, """
            def down(depth):
                if depth: down(depth - 1)
                else: boom()
            def case():
                try: down(300)
                except Exception: pass
        """)

    def test_reporting_handler(self):
        seen = []

        def reports(frame, line):
            seen.append((frame.f_code.co_name, line - kProbe.count("\n")))
            return frame.f_code.co_name == "outer"

        self.check(kReported, """
            def outer():
                try: boom()
                except KeyError: pass
                except Exception:
                    str()
            def case(): outer()
        """, escapes=False, reports=reports)
        self.assertEqual(seen, [("outer", 5)])

    def test_clause_for_certain_types_reports_nothing(self):
        for clause, answer in (("ValueError", kCaught), ("(KeyError, ValueError)", kCaught),
                               ("(KeyError, Exception)", kReported), ("BaseException", kReported)):
            self.check(answer, """
                def case():
                    try: boom()
                    except {}: str()
            """.format(clause), escapes=False, reports=lambda frame, line: True)


class CodeInC(ScanCase):
    """What C code may do with an exception of the Python code that it calls."""

    def test_attribute_error_under_getattr(self):
        for probe in ("getattr(value, 'size', 1)", "hasattr(value, 'size')"):
            self.check(kUnknown, """
                class Value(object):
                    @property
                    def size(self): boom(AttributeError)
                value = Value()
                def case(): {}
            """.format(probe), escapes=False)

    def test_attribute_error_of_a_function(self):
        self.check(kUncaught, """
            def work(): boom(AttributeError)
            def case(): work()
        """)

    def test_attribute_error_of_a_property(self):
        self.check(kUncaught, """
            class Value(object):
                @property
                def size(self): boom(AttributeError)
            value = Value()
            def case(): return value.size
        """)

    def test_attribute_error_before_getattr_of_the_class(self):
        self.check(kUnknown, """
            class Value(object):
                @property
                def size(self): boom(AttributeError)
                def __getattr__(self, name): return 1
            value = Value()
            def case(): return value.size
        """, escapes=False)

    def test_index_error_ends_a_loop(self):
        self.check(kUnknown, """
            class Row(object):
                def __getitem__(self, index): boom(IndexError)
            row = Row()
            def case():
                for item in row: pass
        """, escapes=False)

    def test_index_error_ends_what_iterates_otherwise(self):
        for statement in ("[][:] = row", "items += row", "list(row)", "1 in row"):
            source = """
                class Row(object):
                    def __getitem__(self, index): boom(IndexError)
                row, items = Row(), []
                def case():
                    global items
                    try: {}
                    except ZeroDivisionError: pass
            """.format(statement)
            self.assertEqual(Probe(source).run(), (kUnknown, False), statement)

    def test_index_error_of_a_subscript(self):
        self.check(kUncaught, """
            class Row(object):
                def __getitem__(self, index): boom(IndexError)
            row = Row()
            def case(): row[1]
        """)

    def test_finalizer(self):
        stderr, sys.stderr = sys.stderr, Quiet()
        self.addCleanup(setattr, sys, "stderr", stderr)
        self.check(kReported, """
            class Value(object):
                def __del__(self): boom()
            def case():
                value = Value()
                value = None
        """, escapes=False)

    @needs("syntax:async def f(): pass")
    def test_task_keeps_the_exception(self):
        self.check(kUnknown, """
            import asyncio
            async def work(): boom()
            async def main(): await asyncio.gather(work(), return_exceptions=True)
            def case():
                loop = asyncio.new_event_loop()
                loop.run_until_complete(main())
                loop.close()
        """, escapes=False)


class Quiet(object):
    def write(self, text):
        pass

    def flush(self):
        pass


@needs("syntax:try:\n pass\nexcept* ValueError:\n pass")
class Groups(ScanCase):
    def test_all_parts_are_caught(self):
        self.check(kCaught, """
            def case():
                try: group(ValueError, KeyError)
                except* ValueError: pass
                except* (KeyError, OSError): pass
        """)

    def test_a_part_remains(self):
        verdict, _ = Probe("""
            def case():
                try: group(ValueError, KeyError)
                except* ValueError: pass
        """).run()
        self.assertEqual(verdict, kUncaught)

    def test_the_rest_is_caught_further_out(self):
        self.check(kCaught, """
            def inner():
                try: group(ValueError, KeyError)
                except* ValueError: pass
            def case():
                try: inner()
                except* LookupError: pass
        """)

    def test_plain_exception(self):
        self.check(kCaught, """
            def case():
                try: boom()
                except* ValueError: pass
        """)
        self.check(kUncaught, """
            def case():
                try: boom()
                except* KeyError: pass
        """)

    def test_computed_expression(self):
        self.check(kUnknown, """
            def kinds(): return ValueError
            def case():
                try: boom()
                except* kinds(): pass
        """, escapes=False)

    def test_group_in_a_plain_clause(self):
        self.check(kCaught, """
            def case():
                try: group(ValueError)
                except ExceptionGroup: pass
        """)
        self.check(kUncaught, """
            def case():
                try: group(ValueError)
                except ValueError: pass
        """)

    def test_nested_groups(self):
        self.check(kCaught, """
            def case():
                inner = ExceptionGroup('inner', [KeyError(), OSError()])
                try: boom(value=ExceptionGroup('outer', [inner, ValueError()]))
                except* (ValueError, KeyError): pass
                except* OSError: pass
        """)


# --- against what really happens ----------------------------------------------------------------


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


class Watch(TestCase):
    """One answer for each exception."""

    def setUp(self):
        self.watch = handlers.tRaiseWatch()

    def events(self, function):
        """[(function, answer)] of the exception events that got one."""
        found = []

        def trace(frame, event, arg):
            if event == "exception":
                verdict = self.watch.judge(frame, arg)
                if verdict is not None:
                    found.append((frame.f_code.co_name, verdict.answer))
            return trace

        sys.settrace(trace)
        try:
            function()
        except BaseException:
            pass
        finally:
            sys.settrace(None)
        return [row for row in found if row[0] != "events"]

    def test_tells_once(self):
        def inner():
            raise ValueError("once")

        def outer():
            try:
                inner()
            finally:
                str()

        watched = self.watch_outermost(outer)
        self.assertEqual(watched, [("inner", kUncaught)])

    def watch_outermost(self, function):
        """events(), with the test's own handlers out of the way."""
        scan = handlers.scan
        edge = []

        def scan_to_edge(frame, kind, value=None, reports=None, outermost=None):
            place = frame
            while place is not None and place.f_code is not function.__code__:
                place = place.f_back
            edge.append(place)
            return scan(frame, kind, value, reports, place)

        handlers.scan = scan_to_edge
        try:
            return self.events(function)
        finally:
            handlers.scan = scan

    def test_raised_anew_from_a_handler(self):
        def inner():
            raise ValueError("first")

        def outer():
            try:
                inner()
            except ValueError as error:
                if str(error):
                    raise

        def case():
            outer()

        self.assertEqual(self.watch_outermost(case), [("inner", kUnknown), ("case", kUncaught)])

    def test_chained(self):
        def case():
            try:
                raise ValueError("first")
            except ValueError:
                raise KeyError("second")

        self.assertEqual(self.watch_outermost(case), [("case", kCaught), ("case", kUncaught)])

    def test_another_one_caught_in_between(self):
        def case():
            try:
                raise ValueError("goes out")
            finally:
                quiet()

        def quiet():
            try:
                raise KeyError("stays")
            except KeyError:
                pass

        def outer():
            case()

        self.assertEqual(self.watch_outermost(outer), [("case", kUncaught), ("quiet", kCaught)])

    def test_raised_from_a_store(self):
        stored = []

        def first():
            try:
                raise ValueError("kept")
            except ValueError as error:
                stored.append(error)

        def second():
            raise stored[0]

        def case():
            first()
            second()

        self.assertEqual(self.watch_outermost(case), [("first", kCaught), ("second", kUncaught)])

    def test_ends_of_loops_and_generators_are_no_news(self):
        class Steps(object):
            def __iter__(self):
                return self

            def __next__(self):
                raise StopIteration

            next = __next__

        def numbers():
            yield 1
            yield 2

        def case():
            for step in Steps():
                pass
            made = numbers()
            next(made)
            made.close()
            list(numbers())
            next(iter(()), None)
            raise StopIteration

        self.assertEqual(self.watch_outermost(case), [])

    def test_new_exception_at_an_old_ones_address(self):
        """Told of the one, nothing is kept from the other."""
        watch = handlers.tRaiseWatch(lambda frame, line: True)
        self.watch = watch

        def inner():
            raise ValueError("x")

        def case():
            for _ in range(100):
                try:
                    inner()
                except Exception:
                    pass

        self.assertEqual(self.events(case), [("inner", kReported)] * 100)

    def test_with_block_that_does_not_swallow(self):
        class Keep(object):
            def __enter__(self):
                return self

            def __exit__(self, *info):
                return bool(0)

        def inner():
            with Keep():
                raise ValueError("on")

        def case():
            inner()

        self.assertEqual(self.watch_outermost(case), [("inner", kUnknown), ("case", kUncaught)])

    def test_state_is_bounded(self):
        def case():
            for _ in range(1000):
                try:
                    raise ValueError("caught")
                except ValueError:
                    pass

        self.assertEqual(self.watch_outermost(case), [("case", kCaught)] * 1000)

        def deep():
            for _ in range(1000):
                try:
                    inner()
                except ValueError:
                    pass

        def inner():
            raise ValueError("caught outside")

        self.assertEqual(self.watch_outermost(deep), [("inner", kCaught)] * 1000)
        for known in self.watch._threads.values():
            self.assertLess(len(known), 10)

    def test_exceptions_are_not_kept_alive(self):
        class Noted(Exception):
            dead = []

            def __del__(self):
                self.dead.append(1)

        def case():
            try:
                raise Noted("short-lived")
            except Noted:
                pass

        self.events(case)
        if sys.version_info[0] == 2:
            sys.exc_clear()
        gc.collect()
        self.assertEqual(Noted.dead, [1])


if __name__ == "__main__":
    unittest.main()
