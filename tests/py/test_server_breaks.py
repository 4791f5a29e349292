"""Breakpoints of the debug server: conditions, counts; set before, during and between."""
from __future__ import absolute_import, division, print_function

import os
import sys
import unittest

from support import line_of
from support.serverbreaks import SOURCE, BreakTest

kOncePerVersion = True


class Running(BreakTest):
    def test_line_of_a_whole_function_stops_when_it_is_called(self):
        path = self.make_file("one_{}.py".format(self.name),
                              "def f(x): return x  #@ f\ny = f(1) + f(2)\n", self.folder)
        front_end = self.debug(
            lambda table: [table.add(path, 1), table.add(path, 1, "x == 2")],
            work=lambda: __import__("one_" + self.name))
        self.assertEqual(front_end.seen,
                         [("breakpoint", "f", 1, [1]), ("breakpoint", "f", 1, [1, 2])])
        self.assertEqual(self.counts(), [(1, 2), (2, 2)])

    def test_function_that_begins_with_a_loop(self):
        path = self.make_file("loops_{}.py".format(self.name), (
            "def first(n):\n"
            "    for i in range(n):\n"
            "        i += 1\n"
            "def second(n):\n"
            "    for i in range(n): i += 1\n"
            "def third(n): return [i for i in range(n)]\n"
            "def fourth(n):\n"
            "    yield n\n"
            "def fifth(n):\n"
            "    with open('/dev/null') as null:\n"
            "        return [null for i in range(n)]\n"
            "def all(n):\n"
            "    first(n), second(n), third(n), list(fourth(n)), fifth(n)\n"), self.folder)
        names = ("first", "second", "third", "fourth", "fifth")

        def begin(table):
            for name in names:
                table.add(*table.find_function(name, None, path), function=name)

        front_end = self.debug(begin,
                               work=lambda: [__import__("loops_" + self.name).all(3) for _ in "12"])
        self.assertEqual([row[1] for row in front_end.seen], list(names) * 2)
        self.assertEqual([count for _, count in self.counts()], [2] * 5)

    def run_hits(self, hit_condition, condition=None):
        """Values of `i` at the stops, of 8 turns."""
        values = []
        look = lambda server, stop: values.append(stop.frame.f_locals["i"])  # noqa: E731
        self.debug(
            lambda table: table.add(self.path, self.line("loop-body"), condition,
                                    hit_condition=hit_condition),
            [look] * 8, lambda: self.load().loop(8))
        return values

    def test_hit_condition_in_the_core_and_in_the_server(self):
        for condition in (None, "i >= 0", "str(i) >= ''"):
            for text, expected in (("3", [2]), (">=7", [6, 7]), (">6", [6, 7]), ("<3", [0, 1]),
                                   ("%3", [2, 5])):
                self.assertEqual(self.run_hits(text, condition), expected, (text, condition))
        for condition in ("i % 2", "int(str(i)) % 2"):
            self.assertEqual(self.run_hits("%2", condition), [3, 7], condition)

    def test_condition_with_effects_is_evaluated_once(self):
        seen = []
        sys.modules["seen_" + self.name] = seen
        condition = "__import__('sys').modules['seen_{}'].append(i) or i == 1".format(self.name)
        front_end = self.debug(lambda table: table.add(self.path,
                                                       self.line("loop-body"), condition))
        self.assertEqual((seen, len(front_end.seen)), ([0, 1, 2], 1))
        self.assertEqual(self.counts(), [(1, 3)])

    def test_ignored_and_temporary_with_such_a_condition(self):
        def begin(table):
            bp = table.add(self.path, self.line("loop-body"), "str(i) > '0'", temporary=True)
            table.set_ignore(bp, 1)

        values = []
        self.debug(
            begin, [lambda server, stop: values.append(stop.frame.f_locals["i"])],
            lambda: self.load().loop(5))
        self.assertEqual((values, self.counts()), ([2], []))

    def test_such_a_condition_that_fails_stops(self):
        errors = []
        look = lambda server, stop: errors.append(stop.hits[0].error)  # noqa: E731
        self.debug(lambda table: table.add(self.path, self.line("loop-body"), "int('x')",
                                           hit_condition="100"), [look])
        self.assertEqual(len(errors), 1)
        self.assertIn("ValueError: invalid literal", errors[0])

    def test_hit_that_does_not_stop_leaves_a_step_as_it_is(self):
        seen = []
        note = lambda bp, frame: seen.append((bp.number, frame.f_lineno))  # noqa: E731
        body = self.line("loop-body")

        def begin(table):
            table.add(self.path, self.line("call-first"))
            for line in (body, self.line("inner"), self.line("call-return")):
                table.add(self.path, line, on_hit=note)
            table.add(self.path, body, "str(i) == 'x'")

        front_end = self.debug(begin, ["step_over", "step_over", "step_over"])
        self.assertEqual([row[:2] for row in front_end.seen], [
            ("breakpoint", "call"), ("step", "call"), ("return", "call"), ("return", "<lambda>")])
        self.assertEqual(seen, [(4, self.line("call-return"))] + [(2, body)] * 3
                         + [(3, self.line("inner"))])

    def test_step_over_a_line_that_is_entered_again(self):
        path = self.make_file("turn_{}.py".format(self.name), (
            "def turn(n):\n"
            "    for i in range(n): i + 1  #@ turn\n"
            "    return n\n"), self.folder)
        seen = []

        def begin(table):
            table.add(path, 2, temporary=True)
            table.add(path, 2, on_hit=lambda bp, frame: seen.append(frame.f_lineno))

        front_end = self.debug(
            begin, ["step_over", "continue_run"], lambda: __import__("turn_" + self.name).turn(3))
        self.assertEqual([row[:3] for row in front_end.seen],
                         [("breakpoint", "turn", 2), ("step", "turn", 3)])
        self.assertGreater(len(seen), 1)

    def test_copy_with_the_same_contents(self):
        from tdbg import checksums

        other = self.make_file(self.name + ".py", SOURCE, self.make_dir())
        missing = os.path.join(self.make_dir(), self.name + ".py")
        digest = "sha256:" + __import__("hashlib").sha256(open(self.path, "rb").read()).hexdigest()
        line = self.line("loop-first")

        self.assertEqual(
            self.hits(lambda table: table.add(os.path.realpath(other), line,
                                              checksum=checksums.kSameAs + other)),
            [("loop", line)])
        for checksum, expected in ((digest, [("loop", line)]), ("sha256:0", []), ("none:0", [])):
            del sys.modules[self.name]
            self.assertEqual(
                self.hits(lambda table: table.add(missing, line, checksum=checksum, exactly=True)),
                expected)

    def test_equal_files_of_other_names_are_not_the_same(self):
        from tdbg import checksums

        other = self.make_file("other.py", SOURCE, self.make_dir())
        self.assertEqual(self.hits(lambda table: table.add(
            os.path.realpath(other), self.line("loop-first"),
            checksum=checksums.kSameAs + other)), [])

    def test_set_before_the_import(self):
        self.assertNotIn(self.name, sys.modules)
        front_end = self.debug(lambda table: table.add(self.path, self.line("loop-first")))
        self.assertEqual(front_end.seen, [("breakpoint", "loop", self.line("loop-first"), [1])])
        self.assertEqual(front_end.result, 4)
        self.assertEqual(self.counts(), [(1, 1)])

    def test_set_after_the_import(self):
        self.load()
        self.assertEqual(
            self.hits(lambda table: table.add(self.path, self.line("loop-return"))),
            [("loop", self.line("loop-return"))])

    def test_set_by_another_spelling(self):
        other = self.make_dir()
        link = os.path.join(other, "linked.py")
        os.symlink(self.path, link)
        self.assertEqual(
            self.hits(lambda table: table.add(table.find_file(link), self.line("inner"))),
            [("inner", self.line("inner"))])

    def test_module_imported_through_a_link(self):
        os.mkdir(os.path.join(self.folder, "real"))
        path = self.make_file("real/linked_{}.py".format(self.name), SOURCE, self.folder)
        os.symlink(path, os.path.join(self.folder, "linked_{}.py".format(self.name)))
        seen = self.debug(
            lambda table: table.add(path, self.line("inner")),
            work=lambda: __import__("linked_" + self.name).call()).seen
        self.assertEqual(seen, [("breakpoint", "inner", self.line("inner"), [1])])

    def test_function_before_and_after_the_import(self):
        def begin(table):
            path, line = table.find_function(self.name + ".Thing.other")
            table.add(path, line, function="Thing.other")

        def add_the_other(server, stop):
            path, line = server.breakpoints.find_function("inner", stop.frame)
            server.breakpoints.add(path, line)

        first = self.line("inner") - 1
        self.assertEqual(self.hits(begin, [add_the_other]),
                         [("other", first), ("inner", self.line("inner"))])

    def test_condition(self):
        begin = lambda table: table.add(self.path, self.line("loop-body"), "i == 2")  # noqa: E731
        values = []
        front_end = self.debug(begin,
                               [lambda server, stop: values.append(stop.frame.f_locals["i"])])
        self.assertEqual((values, len(front_end.seen)), ([2], 1))
        self.assertEqual(self.counts(), [(1, 3)])  # a false condition counts

    def test_broken_condition_stops_and_says_why(self):
        errors = []
        begin = lambda table: table.add(self.path, self.line("loop-body"), "nothing")  # noqa: E731
        look = lambda server, stop: errors.append(stop.hits[0].error)  # noqa: E731
        self.debug(begin, [look])
        self.assertEqual(errors, ["NameError: name 'nothing' is not defined"])

    def test_condition_taken_away_and_changed(self):
        def begin(table):
            table.add(self.path, self.line("loop-body"), "False")
            table.set_condition(table.get(1), "i == 1")

        def drop(server, stop):
            server.breakpoints.set_condition(server.breakpoints.get(1), None)

        body = self.line("loop-body")
        self.assertEqual(self.hits(begin, [drop]), [("loop", body), ("loop", body)])
        self.assertEqual(self.counts(), [(1, 3)])

    def test_ignore(self):
        def begin(table):
            table.set_ignore(table.add(self.path, self.line("loop-body")), 2)

        values, left = [], []

        def look(server, stop):
            values.append(stop.frame.f_locals["i"])
            left.append(server.breakpoints.get(1).ignore)

        self.debug(begin, [look])
        self.assertEqual((values, left, self.counts()), ([2], [0], [(1, 3)]))

    def test_ignore_counts_only_hits_with_a_true_condition(self):
        def begin(table):
            table.set_ignore(table.add(self.path, self.line("loop-body"), "i > 0"), 1)

        values = []
        self.debug(begin, [lambda server, stop: values.append(stop.frame.f_locals["i"])])
        self.assertEqual(values, [2])

    def test_temporary_vanishes(self):
        front_end = self.debug(lambda table: table.add(self.path, self.line("loop-body"),
                                                       temporary=True))
        self.assertEqual(front_end.seen, [("breakpoint", "loop", self.line("loop-body"), [1])])
        self.assertEqual(self.counts(), [])

    def test_disabled_and_enabled(self):
        def begin(table):
            table.set_enabled(table.add(self.path, self.line("loop-first")), False)
            table.add(self.path, self.line("loop-return"))

        self.assertEqual(self.hits(begin), [("loop", self.line("loop-return"))])
        self.assertEqual(self.counts(), [(1, 0), (2, 1)])

    def test_disabled_while_running_and_enabled_again(self):
        body = self.line("loop-body")

        def begin(table):
            table.add(self.path, body)
            table.add(self.path, self.line("loop-return"))

        def switch(enabled):
            return lambda server, stop: server.breakpoints.set_enabled(
                server.breakpoints.get(1), enabled)

        work = lambda: self.load().loop(2) + self.load().loop(2)  # noqa: E731
        back = ("loop", self.line("loop-return"))
        self.assertEqual(
            self.hits(begin, [switch(False), switch(True)], work),
            [("loop", body), back, ("loop", body), ("loop", body), back])
        self.assertEqual(self.counts(), [(1, 3), (2, 2)])

    def test_removed_while_running(self):
        remove = lambda server, stop: server.breakpoints.remove(
            server.breakpoints.get(1))  # noqa: E731
        begin = lambda table: table.add(self.path, self.line("loop-body"))  # noqa: E731
        self.assertEqual(self.hits(begin, [remove]), [("loop", self.line("loop-body"))])
        self.assertEqual(self.counts(), [])

    def test_two_on_one_line(self):
        body = self.line("loop-body")

        def begin(table):
            table.add(self.path, body, "i == 1")
            table.add(self.path, body, "i >= 1")

        front_end = self.debug(begin)
        self.assertEqual([row[3] for row in front_end.seen], [[1, 2], [2]])
        self.assertEqual(self.counts(), [(1, 3), (2, 3)])

    def test_changing_one_of_two_on_a_line_leaves_the_other(self):
        body = self.line("loop-body")

        def begin(table):
            table.add(self.path, body)
            table.add(self.path, body, "i == 2")

        def switch(server, stop):
            server.breakpoints.set_enabled(server.breakpoints.get(1), False)

        front_end = self.debug(begin, [switch])
        self.assertEqual([row[3] for row in front_end.seen], [[1], [2]])
        self.assertEqual(self.counts(), [(1, 1), (2, 3)])

    def test_temporary_beside_another(self):
        body = self.line("loop-body")

        def begin(table):
            table.add(self.path, body, temporary=True)
            table.add(self.path, body)

        front_end = self.debug(begin)
        self.assertEqual([row[3] for row in front_end.seen], [[1, 2], [2], [2]])
        self.assertEqual(self.counts(), [(2, 3)])

    def test_counts_are_right_when_stepping_over_the_line(self):
        begin = lambda table: table.add(self.path, self.line("loop-return"))  # noqa: E731
        front_end = self.debug(begin, ["step_over", "step_over", "continue_run"])
        self.assertEqual([row[0] for row in front_end.seen][:2], ["breakpoint", "return"])
        self.assertEqual(self.counts(), [(1, 1)])

    def test_counts_are_right_when_stepping_out_from_the_line(self):
        begin = lambda table: table.add(self.path, self.line("loop-return"))  # noqa: E731
        front_end = self.debug(begin, ["step_out"])
        self.assertEqual([row[0] for row in front_end.seen], ["breakpoint", "return"])
        self.assertEqual(self.counts(), [(1, 1)])

    def test_counts_are_right_when_stepping_out_passes_the_line(self):
        def begin(table):
            table.add(self.path, self.line("loop-first"))
            table.add(self.path, self.line("loop-return"), "False")

        front_end = self.debug(begin, ["step_out"])
        self.assertEqual([row[0] for row in front_end.seen], ["breakpoint", "return"])
        self.assertEqual(self.counts(), [(1, 1), (2, 1)])

    def test_counts_are_right_when_the_line_raises(self):
        path = self.make_file("raise_{}.py".format(self.name), (
            "def fail():\n"
            "    raise ValueError('bad')  #@ raise\n"
            "\n"
            "def careful():\n"
            "    try:\n"
            "        fail()  #@ try\n"
            "    except ValueError:\n"
            "        return 1\n"), self.folder)

        def begin(table):
            table.add(path, line_of(path, "raise"))
            table.add(path, line_of(path, "try"))

        front_end = self.debug(begin, ["step_into"] * 9,
                               lambda: __import__("raise_" + self.name).careful())
        self.assertIn("exception", [row[0] for row in front_end.seen])
        self.assertEqual(self.counts(), [(1, 1), (2, 1)])

    def test_step_that_ends_at_a_breakpoint_is_a_hit(self):
        def begin(table):
            table.add(self.path, self.line("call-first"))
            table.add(self.path, self.line("call-return"))

        front_end = self.debug(begin, ["step_over", "continue_run"])
        self.assertEqual([(row[0], row[3]) for row in front_end.seen],
                         [("breakpoint", [1]), ("breakpoint", [2])])
        self.assertEqual(self.counts(), [(1, 1), (2, 1)])

    def test_temporary_survives_the_return_of_a_step_on_its_line(self):
        def begin(table):
            table.add(self.path, self.line("loop-return"))

        def add(server, stop):
            server.breakpoints.add(self.path, self.line("loop-return"), temporary=True)
            server.step_over()
            return True

        work = lambda: self.load().loop(1) + self.load().loop(1)  # noqa: E731
        front_end = self.debug(begin, [add], work)
        self.assertEqual([(row[0], row[3]) for row in front_end.seen], [
            ("breakpoint", [1]), ("return", []), ("breakpoint", [1, 2])])
        self.assertEqual(self.counts(), [(1, 2)])

    def test_ignored_hits_survive_the_return_of_a_step_on_its_line(self):
        def begin(table):
            table.add(self.path, self.line("loop-return"))

        def add(server, stop):
            bp = server.breakpoints.add(self.path, self.line("loop-return"))
            server.breakpoints.set_ignore(bp, 1)
            server.step_over()
            return True

        work = lambda: [self.load().loop(1) for _ in range(3)]  # noqa: E731
        front_end = self.debug(begin, [add], work)
        self.assertEqual([(row[0], row[3]) for row in front_end.seen], [
            ("breakpoint", [1]), ("return", []), ("breakpoint", [1]), ("breakpoint", [1, 2])])
        self.assertEqual(self.counts(), [(1, 3), (2, 2)])

    def test_breakpoint_in_module_code_on_its_first_import(self):
        begin = lambda table: table.add(self.path, 4)  # noqa: E731
        self.assertEqual(self.hits(begin), [("<module>", 4)])

    def test_step_over_a_call_stops_at_a_breakpoint_in_it(self):
        def begin(table):
            table.add(self.path, self.line("call-return"))
            table.add(self.path, self.line("inner"))

        self.assertEqual(self.hits(begin, ["step_over"]), [
            ("call", self.line("call-return")), ("inner", self.line("inner"))])

    def test_pending_exception_and_result_are_the_programs(self):
        def work():
            try:
                raise KeyError("mine")
            except KeyError:
                self.load().loop(2)
                return sys.exc_info()[1].args

        begin = lambda table: table.add(self.path, self.line("loop-body"), "1/0")  # noqa: E731
        front_end = self.debug(begin, work=work)
        self.assertEqual(front_end.result, ("mine",))
        self.assertEqual(len(front_end.seen), 2)

    def test_set_while_the_program_computes(self):
        """From the idle call, in a function that nothing had to be traced in."""
        path = self.make_file("busy_{}.py".format(self.name), (
            "def busy(stop):\n"
            "    turns = 0\n"
            "    while not stop:\n"
            "        turns += 1  #@ turn\n"
            "    return turns\n"), self.folder)
        stop = []

        def idle(server):
            if not server.breakpoints.all():
                server.breakpoints.add(path, line_of(path, "turn"))

        def end(server, stopped):
            stop.append(1)
            server.breakpoints.remove(server.breakpoints.get(1))

        work = lambda: __import__("busy_" + self.name).busy(stop)  # noqa: E731
        front_end = self.debug(lambda table: None, [end], work, idle)
        self.assertEqual(front_end.seen, [("breakpoint", "busy", line_of(path, "turn"), [1])])
        self.assertGreater(front_end.result, 0)

    def test_in_another_thread(self):
        import threading

        def work():
            module = self.load()
            thread = threading.Thread(target=module.loop, args=(2,))
            thread.start()
            thread.join()

        self.assertEqual(
            self.hits(lambda table: table.add(self.path, self.line("loop-return")), work=work),
            [("loop", self.line("loop-return"))])

    def test_in_a_generator_and_a_comprehension(self):
        path = self.make_file("gen_{}.py".format(self.name), (
            "def gen():\n"
            "    yield 1  #@ yield\n"
            "    yield 2\n"
            "\n"
            "def use():\n"
            "    return [\n"
            "        item * 2  #@ item\n"
            "        for item in gen()]\n"), self.folder)

        def begin(table):
            table.add(path, line_of(path, "yield"))
            table.add(path, line_of(path, "item"))

        seen = self.debug(begin, work=lambda: __import__("gen_" + self.name).use()).seen
        # How often a comprehension of several lines comes to one of them is the compiler's
        # business.
        self.assertEqual([row[3] for row in seen].count([1]), 1)
        self.assertIn([2], [row[3] for row in seen])


if __name__ == "__main__":
    unittest.main()
