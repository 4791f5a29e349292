"""Whether an exception will be caught: frames further out, and the C code between them."""
from __future__ import absolute_import, division, print_function

import sys
import unittest

from support import needs
from support.scans import kProbe, Probe, ScanCase
from tdbg.handlers import kCaught, kReported, kUncaught, kUnknown

kOncePerVersion = True


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


if __name__ == "__main__":
    unittest.main()
