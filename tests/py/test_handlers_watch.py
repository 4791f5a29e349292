"""Whether an exception will be caught: one answer for each, however many events tell of it."""
from __future__ import absolute_import, division, print_function

import gc
import sys
import unittest

from support import TestCase
from tdbg import handlers
from tdbg.handlers import kCaught, kReported, kUncaught, kUnknown

kOncePerVersion = True


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
