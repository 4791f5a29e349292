"""The table of breakpoints, and what a hit does:
counts, ignore counts, conditions, temporary ones."""
from __future__ import absolute_import, division, print_function

import ctypes
import errno
import gc
import os
import sys
import unittest

from support import growth_of_references, needs
from support.breaks import BreakCase, kCanonical, reload_module
from support.marks import line_of

kLoop = """
    def loop(count):
        total = 0  #@ before
        for i in range(count):
            total += i  #@ body
        return total  #@ after
    """


class Table(BreakCase):
    """What the operations answer; no program runs."""

    def test_two_on_one_line_have_two_ids_and_the_newer_is_listed_first(self):
        first = self.tracer.set_break("/a/b.py", "", 3, 1, 0, None, 0)
        second = self.tracer.set_break("/a/b.py", "", 3, 0, 1, "x > 1", 7)
        self.assertEqual((first, second), (1, 2))
        self.assertEqual(self.tracer.get_breaks("/a/b.py", 3), [
            (2, 0, 1, "x > 1", 7, 0),
            (1, 1, 0, None, 0, 0),
        ])

    def test_a_line_without_breakpoints_has_an_empty_list(self):
        self.assertEqual(self.tracer.get_breaks("/a/b.py", 3), [])
        self.assertEqual(self.tracer.get_file_breaks("/a/b.py"), [])

    def test_flags_are_given_back_as_integers(self):
        self.tracer.set_break("/a/b.py", "", 3, 1, 1, None, 0)
        row = self.tracer.get_breaks("/a/b.py", 3)[0]
        self.assertEqual([type(row[1]), type(row[2])], [int, int])

    def test_file_names_are_compared_letter_by_letter(self):
        self.tracer.set_break("a/b.py", "", 3, 1, 0, None, 0)
        self.tracer.set_break("a//b.py", "", 3, 1, 0, None, 0)
        self.assertEqual([row[0] for row in self.tracer.get_breaks("a/b.py", 3)], [1])
        self.assertEqual([row[0] for row in self.tracer.get_breaks("a//b.py", 3)], [2])
        self.tracer.clear_breaks("a/b.py", 3)
        self.assertEqual(self.tracer.get_breaks("a/b.py", 3), [])
        self.assertEqual([row[0] for row in self.tracer.get_breaks("a//b.py", 3)], [2])

    def test_file_breaks_lists_all_lines_of_the_file_and_no_other(self):
        for line in (30, 10, 20, 10):
            self.tracer.set_break("/a/b.py", "", line, 1, 0, None, 0)
        self.tracer.set_break("/a/c.py", "", 10, 1, 0, "c", 0)
        rows = self.tracer.get_file_breaks("/a/b.py")
        self.assertEqual(sorted(rows), [
            (10, 2, 1, 0, None, 0, 0), (10, 4, 1, 0, None, 0, 0), (20, 3, 1, 0, None, 0, 0),
            (30, 1, 1, 0, None, 0, 0),
        ])
        tens = [row[1] for row in rows if row[0] == 10]
        self.assertEqual(tens, [4, 2])

    def test_clearing_forgets_all_of_the_file_on_the_line(self):
        for name in ("/a/b.py", "/a/c.py", "/a/b.py"):
            self.tracer.set_break(name, "", 3, 1, 0, None, 0)
        self.tracer.clear_breaks("/a/b.py", 3)
        self.assertEqual(self.tracer.get_breaks("/a/b.py", 3), [])
        self.assertEqual([row[0] for row in self.tracer.get_breaks("/a/c.py", 3)], [2])
        self.assertEqual(self.tracer.set_break("/a/b.py", "", 3, 1, 0, None, 0), 4)

    def test_clearing_what_is_not_there_does_nothing(self):
        self.tracer.clear_breaks("/a/b.py", 3)
        self.tracer.clear_all_breaks()
        self.assertEqual(self.tracer.set_break("/a/b.py", "", 3, 1, 0, None, 0), 1)

    def test_clear_all_keeps_counting_ids_and_leaves_no_changes(self):
        for line in range(100):
            self.tracer.set_break("/a/b.py", "", line, 1, 0, None, 0)
        self.tracer.clear_all_breaks()
        self.assertEqual(self.tracer.get_file_breaks("/a/b.py"), [])
        self.assertEqual(self.tracer.get_changed_bps_lists(), ([], []))
        self.assertEqual(self.tracer.set_break("/a/b.py", "", 3, 1, 0, None, 0), 101)

    def test_reset_starts_ids_anew(self):
        self.tracer.set_break("/a/b.py", "", 3, 1, 0, None, 0)
        self.tracer.reset()
        self.assertEqual(self.tracer.get_breaks("/a/b.py", 3), [])
        self.assertEqual(self.tracer.set_break("/a/b.py", "", 3, 1, 0, None, 0), 1)

    def test_enable_and_ignore_change_every_one_on_the_line(self):
        for name in ("/a/b.py", "/a/b.py", "/a/c.py"):
            self.tracer.set_break(name, "", 3, 1, 0, None, 0)
        self.assertIsNone(self.tracer.enable_breaks("/a/b.py", 3, 0))
        self.assertIsNone(self.tracer.ignore_breaks("/a/b.py", 3, 5))
        self.assertEqual(self.tracer.get_breaks("/a/b.py", 3),
                         [(2, 0, 0, None, 5, 0), (1, 0, 0, None, 5, 0)])
        self.assertEqual(self.tracer.get_breaks("/a/c.py", 3), [(3, 1, 0, None, 0, 0)])
        self.assertIsNone(self.tracer.enable_breaks("/a/b.py", 3, 1))
        self.assertEqual([row[1] for row in self.tracer.get_breaks("/a/b.py", 3)], [1, 1])

    def test_a_condition_is_set_replaced_and_removed(self):
        self.tracer.set_break("/a/b.py", "", 3, 1, 0, None, 0)
        conditions = []
        for condition in ("x", "y > 2", "", None):
            self.tracer.set_breaks_cond("/a/b.py", 3, condition)
            conditions.append(self.tracer.get_breaks("/a/b.py", 3)[0][3])
        self.assertEqual(conditions, ["x", "y > 2", "", None])

    def test_no_change_by_the_server_joins_the_changed_list(self):
        self.tracer.set_break("/a/b.py", "", 3, 1, 0, None, 0)
        self.tracer.enable_breaks("/a/b.py", 3, 0)
        self.tracer.ignore_breaks("/a/b.py", 3, 1)
        self.tracer.set_breaks_cond("/a/b.py", 3, "x")
        self.assertEqual(self.tracer.get_changed_bps_lists(), ([], []))

    def test_what_is_no_condition_is_refused(self):
        self.assertRaises(TypeError, self.tracer.set_break, "/a/b.py", "", 3, 1, 0, 5, 0)
        self.tracer.set_break("/a/b.py", "", 3, 1, 0, "x", 0)
        self.assertRaises(TypeError, self.tracer.set_breaks_cond, "/a/b.py", 3, 5)
        self.assertEqual(self.tracer.get_breaks("/a/b.py", 3), [(1, 1, 0, "x", 0, 0)])

    @needs("total_refcount")
    def test_operations_leak_no_references(self):
        def operate():
            tracer = self.tracer
            tracer.set_break("/a/b.py", "", 3, 1, 0, "x", 0)
            tracer.set_break("/a/b.py", "", 4, 1, 0, None, 0)
            tracer.set_breaks_cond("/a/b.py", 3, "y")
            tracer.get_breaks("/a/b.py", 3)
            tracer.get_file_breaks("/a/b.py")
            tracer.get_changed_bps_lists()
            tracer.clear_breaks("/a/b.py", 3)
            tracer.clear_all_breaks()
        self.assertEqual(growth_of_references(operate), 0)


class Hits(BreakCase):
    def setUp(self):
        BreakCase.setUp(self)
        self.path = self.write("looping.py", kLoop)

    def run_loop(self, count=3, *script):
        return self.run_traced(lambda: self.load_file(self.path).loop(count), *script)

    def test_each_pass_over_the_line_is_a_stop(self):
        self.break_at(self.path, "body")
        self.assertEqual(self.run_loop(3), 3)
        self.assertEqual(self.hits(), ["body"] * 3)

    def test_a_breakpoint_reports_its_hits_once(self):
        number = self.break_at(self.path, "body")
        self.run_loop(3)
        line = line_of(self.path, "body")
        self.assertEqual(self.tracer.get_changed_bps_lists(),
                         ([], [(self.path, line, number, 1, 0, None, 0, 3)]))
        self.assertEqual(self.tracer.get_changed_bps_lists(), ([], []))
        self.assertEqual(self.breaks_at(self.path, "body"), [(number, 1, 0, None, 0, 3)])

    def test_the_last_to_change_is_listed_first(self):
        body, after = self.break_at(self.path, "body"), self.break_at(self.path, "after")
        self.run_loop(1)
        self.assertEqual([row[2] for row in self.tracer.get_changed_bps_lists()[1]], [after, body])

    def test_one_set_twice_counts_twice_and_stops_once(self):
        ids = [self.break_at(self.path, "body"), self.break_at(self.path, "body")]
        self.run_loop(2)
        self.assertEqual(self.hits(), ["body", "body"])
        self.assertEqual(self.changed(), ([], {ids[0]: (0, 2), ids[1]: (0, 2)}))

    def test_disabled_ones_neither_stop_nor_count(self):
        self.break_at(self.path, "body", enabled=0)
        self.run_loop()
        self.assertEqual(self.hits(), [])
        self.assertEqual(self.changed(), ([], {}))

    def test_disabling_and_enabling_while_the_program_is_stopped(self):
        line = line_of(self.path, "body")
        self.break_at(self.path, "body")
        self.break_at(self.path, "after")
        self.run_loop(5, lambda frame: None,
                      lambda frame: self.tracer.enable_breaks(self.path, line, 0))
        self.assertEqual(self.hits(), ["body", "body", "after"])

    def test_clearing_while_the_program_is_stopped_there(self):
        self.break_at(self.path, "body")
        self.run_loop(5, lambda frame: self.clear_at(self.path, "body"))
        self.assertEqual(self.hits(), ["body"])
        self.assertEqual(self.changed(), ([], {}))

    def test_clearing_all_while_the_program_is_stopped(self):
        self.break_at(self.path, "body")
        self.break_at(self.path, "after", temporary=1)
        self.run_loop(5, lambda frame: self.tracer.clear_all_breaks())
        self.assertEqual(self.hits(), ["body"])

    def test_setting_one_in_the_running_frame_while_stopped(self):
        self.break_at(self.path, "before")
        self.run_loop(2, lambda frame: self.break_at(self.path, "after"))
        self.assertEqual(self.hits(), ["before", "after"])

    def test_ignored_hits_do_not_stop(self):
        number = self.break_at(self.path, "body", ignore_count=3)
        self.run_loop(5)
        self.assertEqual(self.hits(), ["body"] * 2)
        self.assertEqual(self.changed(), ([], {number: (0, 5)}))

    def test_a_negative_ignore_count_ignores_nothing(self):
        self.break_at(self.path, "body", ignore_count=-1)
        self.run_loop(2)
        self.assertEqual(self.hits(), ["body"] * 2)

    def test_a_temporary_one_stops_once_and_is_reported_deleted_once(self):
        number = self.break_at(self.path, "body", temporary=1)
        self.run_loop(5)
        self.assertEqual(self.hits(), ["body"])
        self.assertEqual(self.breaks_at(self.path, "body"), [])
        self.assertEqual(self.tracer.get_changed_bps_lists(), ([number], []))
        self.assertEqual(self.tracer.get_changed_bps_lists(), ([], []))

    def test_a_temporary_one_with_two_ignored_hits_fires_on_the_third(self):
        shown = []
        number = self.break_at(self.path, "body", temporary=1, ignore_count=2)
        self.run_loop(5, lambda frame: shown.append(frame.f_locals["i"]))
        self.assertEqual(shown, [2])
        self.assertEqual(self.changed(), ([number], {}))
        self.assertEqual(self.breaks_at(self.path, "body"), [])

    def test_a_temporary_one_beside_a_lasting_one(self):
        lasting = self.break_at(self.path, "body")
        temporary = self.break_at(self.path, "body", temporary=1)
        self.run_loop(3)
        self.assertEqual(self.hits(), ["body"] * 3)
        self.assertEqual(self.changed(), ([temporary], {lasting: (0, 3)}))
        self.assertEqual([row[0] for row in self.breaks_at(self.path, "body")], [lasting])

    def test_clear_all_after_a_temporary_one_fired_reports_nothing(self):
        self.break_at(self.path, "body", temporary=1)
        self.run_loop()
        self.tracer.clear_all_breaks()
        self.assertEqual(self.tracer.get_changed_bps_lists(), ([], []))

    def test_a_deleted_one_survives_a_new_one_on_its_line(self):
        fired = self.break_at(self.path, "body", temporary=1)
        self.run_loop(1)
        again = self.break_at(self.path, "body")
        self.run_loop(1)
        self.assertEqual(self.hits(), ["body"] * 2)
        self.assertEqual(self.changed(), ([fired], {again: (0, 1)}))

    def test_steps_count_the_hits_of_the_lines_they_stop_on(self):
        number = self.break_at(self.path, "body")
        self.break_at(self.path, "before")
        self.run_loop(2, *["step_over"] * 9)
        self.assertEqual(self.changed()[1][number], (0, 2))

    def test_a_breakpoint_in_another_file_on_that_line_is_none_here(self):
        other = self.write("other.py", kLoop)
        self.break_at(other, "body")
        self.load_file(other)
        self.run_loop()
        self.assertEqual(self.hits(), [])

    @needs("total_refcount")
    def test_hits_leak_no_references(self):
        module = self.load_file(self.path)
        self.break_at(self.path, "body", "i == 1")
        self.break_at(self.path, "body", "nowhere")
        self.break_at(self.path, "after", "0")

        def run():
            self.break_at(self.path, "before", temporary=1)
            self.run_traced(lambda: module.loop(3))
            self.tracer.get_changed_bps_lists()
            self.tracer.get_new_imports()  # each start of tracing adds the main program to it
            del self.session.stops[:]
        self.assertEqual(growth_of_references(run, warm_up=20), 0)


class CanonicalHits(Hits):
    regime = kCanonical


class Conditions(BreakCase):
    def setUp(self):
        BreakCase.setUp(self)
        self.path = self.write("conditions.py", """
            import errno, sys
            state = {"calls": 0}
            level = 5

            def loop(count):
                total = 0
                for i in range(count):
                    total += i  #@ body
                return total  #@ after

            def touch():
                state["calls"] += 1  #@ touched
                return state["calls"] >= 2

            def outer(start):
                kept = start
                def inner(add):
                    return kept + add  #@ inner
                return inner

            class Body(object):
                name = "body"
                size = len(name)  #@ class

            def fails():
                try:
                    raise KeyError("pending")
                except KeyError:
                    seen = sys.exc_info()[0].__name__  #@ handling
                return seen

            def watches_errno():
                error.value = errno.EDOM
                copy = 1  #@ errno
                return error.value

            def cleans():
                try:
                    raise KeyError("on its way")
                finally:
                    done = True  #@ finally
            """)
        self.code = self.load_file(self.path)

    def run_with(self, mark, condition, function, *script, **options):
        self.number = self.break_at(self.path, mark, condition, **options)
        self.result = self.run_traced(function, *script)
        return self.hits()

    def loop(self, count=3):
        return lambda: self.code.loop(count)

    def test_true_stops(self):
        self.assertEqual(self.run_with("body", "True", self.loop()), ["body"] * 3)

    def test_false_counts_but_does_not_stop(self):
        self.assertEqual(self.run_with("body", "0", self.loop()), [])
        self.assertEqual(self.changed(), ([], {self.number: (0, 3)}))

    def test_locals_decide(self):
        shown = []
        self.session.show = lambda frame: shown.append(frame.f_locals["i"])
        self.assertEqual(self.run_with("body", "i % 2 == 1", self.loop(6)), ["body"] * 3)
        self.assertEqual(shown, [1, 3, 5])

    def test_locals_are_those_of_the_moment(self):
        """Each hit sees new values, not those of the first."""
        self.assertEqual(self.run_with("body", "total == 3", self.loop(4)), ["body"])

    def test_globals_decide(self):
        self.assertEqual(self.run_with("body", "level == 5 and i == 0", self.loop()), ["body"])

    def test_closure_cells_decide(self):
        inner = self.code.outer(40)
        self.assertEqual(self.run_with("inner", "kept + add == 42", lambda: inner(2)), ["inner"])
        self.assertEqual(self.result, 42)
        self.assertEqual(self.run_traced(lambda: inner(3)), 43)
        self.assertEqual(self.hits(), [])

    def test_names_of_a_class_body_decide(self):
        condition = "name == 'body'"
        self.assertEqual(
            self.run_with("class", condition, lambda: reload_module(self.code)), ["class"])

    def test_an_error_stops(self):
        self.assertEqual(self.run_with("body", "nowhere", self.loop(2)), ["body"] * 2)

    def test_an_error_stops_even_with_hits_to_ignore(self):
        self.assertEqual(
            self.run_with("body", "nowhere", self.loop(2), ignore_count=5), ["body"] * 2)
        self.assertEqual(self.changed(), ([], {self.number: (5, 2)}))

    def test_a_syntax_error_stops(self):
        for condition in ("i ==", "x = 1", "import os", "return 1", ")"):
            self.tracer.clear_all_breaks()
            self.assertEqual(self.run_with("body", condition, self.loop(2)),
                             ["body"] * 2, condition)

    def test_an_empty_condition_stops(self):
        self.assertEqual(self.run_with("body", "", self.loop(2)), ["body"] * 2)

    def test_exits_of_a_condition_do_not_end_the_program(self):
        for condition in ("[].pop()", "__import__('sys').exit()", "1 // 0"):
            self.tracer.clear_all_breaks()
            self.assertEqual(self.run_with("body", condition, self.loop(1)), ["body"], condition)
            self.assertEqual(self.result, 0)

    def test_an_object_whose_truth_fails_stops(self):
        class Odd(object):
            def __bool__(self):
                raise ValueError("neither")
            __nonzero__ = __bool__
        self.code.odd = Odd()
        self.assertEqual(self.run_with("body", "odd", self.loop(1)), ["body"])

    def test_a_side_effect_happens_once_a_hit(self):
        self.assertEqual(self.run_with("body", "touch()", self.loop(3)), ["body"] * 2)
        self.assertEqual(self.code.state["calls"], 3)

    def test_false_and_unconditional_on_one_line(self):
        first = self.break_at(self.path, "body", "False")
        second = self.break_at(self.path, "body")
        self.run_traced(self.loop(2))
        self.assertEqual(self.hits(), ["body"] * 2)
        self.assertEqual(self.changed(), ([], {first: (0, 2), second: (0, 2)}))

    def test_ignored_hits_are_those_whose_condition_holds(self):
        self.assertEqual(
            self.run_with("body", "i >= 2", self.loop(6), ignore_count=2), ["body"] * 2)
        self.assertEqual(self.changed(), ([], {self.number: (0, 6)}))

    def test_a_temporary_one_waits_for_its_condition(self):
        self.assertEqual(self.run_with("body", "i == 2", self.loop(6), temporary=1), ["body"])
        self.assertEqual(self.changed(), ([self.number], {}))

    def test_changing_the_condition_takes_effect_at_the_next_hit(self):
        line = line_of(self.path, "body")

        def change(frame):
            self.tracer.set_breaks_cond(self.path, line, "i == 3")
        self.assertEqual(self.run_with("body", "i == 1", self.loop(5), change), ["body"] * 2)

    def test_removing_the_condition_takes_effect_at_the_next_hit(self):
        line = line_of(self.path, "body")

        def remove(frame):
            self.tracer.set_breaks_cond(self.path, line, None)
        self.assertEqual(self.run_with("body", "i == 3", self.loop(5), remove), ["body"] * 2)

    def test_a_condition_may_clear_its_own_breakpoint(self):
        self.code.clear = lambda: self.clear_at(self.path, "body")
        self.break_at(self.path, "after")
        self.assertEqual(self.run_with("body", "clear() or True", self.loop(3)), ["after"])
        self.assertEqual(self.breaks_at(self.path, "body"), [])

    def test_a_condition_may_clear_all(self):
        self.code.clear = self.tracer.clear_all_breaks
        self.break_at(self.path, "body")
        self.break_at(self.path, "body", temporary=1)
        self.break_at(self.path, "after")
        self.assertEqual(self.run_with("body", "clear() or True", self.loop(3)), [])
        self.assertEqual(self.tracer.get_changed_bps_lists(), ([], []))

    def test_a_condition_may_set_another_on_its_own_line(self):
        def more():
            if not self.added:
                self.added = self.break_at(self.path, "body", "i == 2")
        self.added = None
        self.code.more = more
        self.assertEqual(self.run_with("body", "more()", self.loop(4)), ["body"])
        self.assertEqual(self.changed()[1], {self.number: (0, 4), self.added: (0, 3)})

    def test_a_condition_may_replace_itself(self):
        line = line_of(self.path, "body")
        self.code.swap = lambda: self.tracer.set_breaks_cond(self.path, line, "i == 2")
        self.assertEqual(self.run_with("body", "swap()", self.loop(4)), ["body"])

    def test_a_condition_may_collect_the_changed_list(self):
        told = []
        self.code.collect = lambda: told.append(self.changed()) or True
        self.assertEqual(self.run_with("body", "collect()", self.loop(3), temporary=1), ["body"])
        self.assertEqual(told, [([], {self.number: (0, 1)})])
        self.assertEqual(self.changed(), ([self.number], {}))

    def test_the_condition_of_a_hit_is_not_traced(self):
        self.break_at(self.path, "touched")
        self.assertEqual(self.run_with("body", "touch()", self.loop(1)), [])

    def test_the_exception_being_handled_is_the_same_afterwards(self):
        self.assertEqual(self.run_with("handling", "nowhere", self.code.fails), ["handling"])
        self.assertEqual(self.result, "KeyError")

    def test_an_exception_on_its_way_goes_on(self):
        self.break_at(self.path, "finally", "1 // 0")
        self.assertRaisesRegex(KeyError, "on its way", self.run_traced, self.code.cleans)
        self.assertEqual(self.hits(), ["finally"])

    def test_errno_is_kept(self):
        missing = os.path.join(os.path.dirname(self.path), "missing")
        seen = []
        self.code.spoil = lambda: seen.append(os.path.exists(missing))
        self.code.error = errno_itself()
        self.code.error.value = 0
        self.assertEqual(self.run_with("errno", "spoil()", self.code.watches_errno), [])
        self.assertEqual((seen, self.result), ([False], errno.EDOM))

    def test_the_recursion_limit_is_kept(self):
        before = sys.getrecursionlimit()
        self.assertEqual(self.run_with("body", "nowhere", self.loop(1)), ["body"])
        self.assertEqual(sys.getrecursionlimit(), before)

    def test_a_recursion_limit_that_a_condition_sets_stays(self):
        before = sys.getrecursionlimit()
        self.code.deepen = lambda: sys.setrecursionlimit(before + 123)
        try:
            self.assertEqual(self.run_with("body", "deepen()", self.loop(1)), [])
            self.assertEqual(sys.getrecursionlimit(), before + 123)
        finally:
            sys.setrecursionlimit(before)

    def test_the_program_cannot_see_that_a_condition_ran(self):
        """Nothing is left behind in the namespace it ran in."""
        space = {"__name__": "space", "__file__": self.path}
        source = "\n" * (line_of(self.path, "body") - 1) + "value = 1\n"
        code = compile(source, self.path, "exec")
        self.break_at(self.path, "body", "False")
        exec(code, dict(space))
        self.run_traced(lambda: exec_in(code, space))
        self.assertEqual(sorted(key for key in space if key != "__builtins__"),
                         ["__file__", "__name__", "value"])

    @needs("!python2")
    def test_a_condition_may_hold_any_letters(self):
        self.assertEqual(
            self.run_with("body", "i == 1 and '\xe4\u20ac' == chr(228) + chr(8364)", self.loop(3)),
            ["body"])

    def test_a_long_condition(self):
        condition = "sum([" + ", ".join(["i"] * 2000) + "]) == 2000"  # long, not deep
        self.assertEqual(self.run_with("body", condition, self.loop(3)), ["body"])

    def test_garbage_made_by_a_condition_is_freed(self):
        gc.collect()
        freed = []

        class Loud(object):
            def __del__(self):
                freed.append(1)
        self.code.Loud = Loud
        self.run_with("body", "Loud() and False", self.loop(3))
        self.assertEqual(freed, [1, 1, 1])


def errno_itself():
    """The C library's variable for the calling thread, as an object whose value can be set."""
    location = getattr(ctypes.CDLL(None), "__errno_location")
    location.restype = ctypes.POINTER(ctypes.c_int)
    return location().contents


def exec_in(code, space):
    exec(code, space)


if __name__ == "__main__":
    unittest.main()
