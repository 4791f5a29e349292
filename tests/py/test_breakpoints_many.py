"""Thousands of breakpoints: what they make the tracer do (counted, not timed) and keep."""
from __future__ import absolute_import, division, print_function

import io
import os
import unittest

from support import has, time_limit
from support.breaks import BreakCase, kCanonical
from support.marks import line_of

kOnceWhenQuick = True
kLogBreakpoints = 8
kFiles, kLines = 1000, 10


def resident_bytes():
    with open("/proc/self/statm") as source:
        return int(source.read().split()[1]) * os.sysconf("SC_PAGE_SIZE")


class Many(BreakCase):
    def setUp(self):
        BreakCase.setUp(self)
        self.path = self.write("program.py", """
            def hot(count):
                total = 0
                for i in range(count):
                    total += i  #@ hot
                return total  #@ last

            def calls(count):
                for i in range(count):
                    called(i)

            def called(i):
                return i  #@ called
            """)
        self.code = self.load_file(self.path)
        self.files = ["/elsewhere/folder{}/file{}.py".format(i % 7, i) for i in range(kFiles)]

    def set_all(self):
        return [self.tracer.set_break(name, "", line, 1, 0, None, 0)
                for name in self.files for line in range(1, kLines + 1)]

    def logged(self, function):
        """Lines that the breakpoints write to the log meanwhile."""
        path = os.path.join(self.make_dir(), "log")
        with io.open(path, "wb") as log:
            self.tracer.set_dprintf_mask(kLogBreakpoints)
            self.tracer.set_dprintf_file(log, log.fileno(), -1)
            try:
                function()
            finally:
                self.tracer.set_dprintf_file(None, -1, -1)
        with io.open(path, encoding="latin-1") as log:
            return log.read().splitlines()

    @time_limit(120)
    def test_set_listed_disabled_and_cleared_while_the_program_runs(self):
        tracer = self.tracer

        def program():
            ids = self.set_all()
            self.assertEqual(ids, list(range(1, kFiles * kLines + 1)))
            self.code.hot(100)
            listed = [tracer.get_file_breaks(name) for name in self.files]
            self.assertEqual(sorted(row[1] for rows in listed for row in rows), ids)
            for name in self.files:
                for line in range(1, kLines + 1):
                    tracer.enable_breaks(name, line, 0)
            self.assertEqual(
                set(row[2] for name in self.files for row in tracer.get_file_breaks(name)),
                set([0]))
            self.break_at(self.path, "hot", temporary=1)
            self.code.hot(100)
            for name in self.files[::2]:
                for line in range(1, kLines + 1):
                    tracer.clear_breaks(name, line)
            self.assertEqual([len(tracer.get_file_breaks(name)) for name in self.files[:4]],
                             [0, kLines, 0, kLines])
            tracer.clear_all_breaks()
            self.assertEqual(tracer.get_file_breaks(self.files[1]), [])
        self.run_traced(program)
        self.assertEqual(self.hits(), ["hot"])

    @time_limit(120)
    def test_those_of_other_files_are_not_looked_at_while_the_program_runs(self):
        self.set_all()
        self.break_at(self.path, "last")
        self.run_traced(lambda: self.code.hot(1))

        def program():
            self.code.hot(1000)
            self.code.calls(1000)
        lines = self.logged(lambda: self.run_traced(program))
        compared = [line for line in lines if line.startswith("modfile = ")]
        # hot's lines are below kLines, where each has a thousand breakpoints.
        self.assertLess(line_of(self.path, "hot"), kLines)
        with_one_alone = self.compared_with_one_alone(program)
        self.assertLessEqual(len(compared), 2 * with_one_alone + kFiles * kLines)

    def compared_with_one_alone(self, program):
        self.tracer.clear_all_breaks()
        self.break_at(self.path, "last")
        lines = self.logged(lambda: self.run_traced(program))
        return len([line for line in lines if line.startswith("modfile = ")])

    def test_one_more_is_not_compared_with_the_others(self):
        self.set_all()
        lines = self.logged(lambda: self.tracer.set_break(self.files[0], "", 5, 1, 0, None, 0))
        self.assertLess(len(lines), 20, lines[:30])

    def test_ten_thousand_on_one_line_of_the_program(self):
        for _ in range(10000):
            self.break_at(self.path, "last")
        self.run_traced(lambda: self.code.hot(1))
        self.assertEqual(self.hits(), ["last"])
        self.assertEqual(len(self.tracer.get_changed_bps_lists()[1]), 10000)
        self.assertEqual(self.tracer.get_changed_bps_lists(), ([], []))
        self.tracer.clear_breaks(self.path, line_of(self.path, "last"))
        self.assertEqual(self.tracer.get_file_breaks(self.path), [])

    def test_ten_thousand_temporary_ones_fire_together(self):
        ids = [self.break_at(self.path, "last", temporary=1) for _ in range(10000)]
        self.run_traced(lambda: [self.code.hot(1), self.code.hot(1)])
        self.assertEqual(self.hits(), ["last"])
        deleted, changed = self.tracer.get_changed_bps_lists()
        self.assertEqual((sorted(deleted), changed), (ids, []))


class CanonicalMany(Many):
    regime = kCanonical


class Memory(BreakCase):
    kRounds, kEach = 100, 1000  # 100,000 in all

    def assert_bounded(self, operate):
        """After a tenth of the work the process does not grow any more."""
        for number in range(self.kRounds // 10):
            operate(number)
        before = resident_bytes()
        for number in range(self.kRounds // 10, self.kRounds + self.kRounds // 10):
            operate(number)
        limit = (8 if has("total_refcount") else 2) * 1024 * 1024
        self.assertLess(resident_bytes() - before, limit)

    def test_setting_and_clearing_in_one_file(self):
        def operate(number):
            for line in range(self.kEach):
                self.tracer.set_break("/a/file.py", "sum", line, 1, 0, "x > 1", 0)
            for line in range(self.kEach):
                self.tracer.clear_breaks("/a/file.py", line)
        self.assert_bounded(operate)

    def test_setting_and_clearing_all(self):
        def operate(number):
            for line in range(self.kEach):
                self.tracer.set_break("/a/file.py", "", line, 1, 1, None, 3)
            self.tracer.clear_all_breaks()
        self.assert_bounded(operate)

    def test_hitting_temporary_ones_and_collecting_them(self):
        path = self.write("program.py", """
            def f():
                return 1  #@ f
            """)
        module = self.load_file(path)

        def operate(number):
            for _ in range(self.kEach):
                self.break_at(path, "f", "True", temporary=1)
            self.run_traced(module.f)
            self.tracer.get_changed_bps_lists()
            self.tracer.get_new_imports()
            del self.session.stops[:]
        self.assert_bounded(operate)

    def test_replacing_conditions_at_each_hit(self):
        path = self.write("program.py", """
            def f():
                return 1  #@ f
            """)
        module = self.load_file(path)
        self.break_at(path, "f")
        line = line_of(path, "f")

        def operate(number):
            def program():
                for i in range(self.kEach):
                    self.tracer.set_breaks_cond(path, line, "{} < 0".format(i))
                    module.f()
            self.run_traced(program)
            self.tracer.get_new_imports()
        self.assert_bounded(operate)


if __name__ == "__main__":
    unittest.main()
