"""What any debugger of Python can be expected to do, in the words of its user: stops of commands in
functions, generators, coroutines and class bodies, and of breakpoints of every kind."""
from __future__ import absolute_import, division, print_function

import os
import sys
import unittest

from support import TestCase, marks_of, needs
from support.tracing import Session

kSource = '''
def inner(value):
    result = value + 1  #@ inner-first
    return result  #@ inner-last

def outer(stop):
    stop()
    first = inner(1)  #@ outer-call
    second = inner(first)  #@ outer-again
    return second  #@ outer-last

def falls_off(stop):
    stop()
    inner(1)  #@ off-last

def calls_falls_off(stop):
    falls_off(stop)  #@ calls-off
    return 9  #@ after-off

def looped(count):
    total = 0
    for number in range(count):
        total += number  #@ in-loop
    return total  #@ loop-end

def numbers():
    got = yield 1  #@ give-one
    yield got  #@ give-two

def sends(stop):
    generator = numbers()
    next(generator)
    stop()
    got = generator.send(5)  #@ send
    generator.close()  #@ close
    return got  #@ sent

def early(stop):
    for number in range(9):
        stop()
        if number == 0:  #@ early-test
            return inner(number)  #@ early-return

def body(stop):
    stop()
    class Made(object):  #@ class-line
        first = 1  #@ class-first
        def method(self):
            return 2  #@ in-method
    return Made().method()  #@ class-after

def guarded(stop):
    try:
        stop()
        raising()  #@ try-call
    except ValueError:  #@ except-line
        value = 1  #@ in-except
    finally:
        done = 2  #@ in-finally
    return value + done  #@ guarded-end

def raising():
    raise ValueError(1)  #@ raise

def recurse(depth):
    if depth:  #@ depth-test
        recurse(depth - 1)  #@ deeper
    return depth  #@ back
'''

kMore = '''
def imports(stop):
    stop()
    import module_of_behaviours  #@ import
    return module_of_behaviours.value  #@ imported

def numbers_up_to(count):
    for number in range(count):  #@ gen-loop
        yield number  #@ gen-yield
    done = 1  #@ gen-end

def sums(stop):
    total = 0
    stop()
    for number in numbers_up_to(2):  #@ for
        total += number  #@ for-body
    return total  #@ for-end

def catches_thrown():
    try:
        yield 1
    except ValueError:
        value = 2  #@ thrown
    yield value

def throws(stop):
    generator = catches_thrown()
    next(generator)
    stop()
    return generator.throw(ValueError())  #@ throw

def passes(function):
    return function

@passes  #@ decorator
def decorated():
    return 1  #@ decorated

double = lambda value: value * 2  #@ lambda

def calls_both(stop):
    stop()
    return decorated() + double(2)  #@ both

def untold(function):
    return function()  #@ untold

def told(stop):
    untold(lambda: stop())  #@ told
    return 1  #@ told-end

def skips(stop):
    stop()
    first = 1  #@ skip-from
    first = 2
    return first  #@ skip-to
# after the last statement  #@ after-all
'''

kDelegating = '''
def parts():
    yield 1  #@ part-one
    yield 2  #@ part-two

def whole():
    yield 0  #@ whole-first
    yield from parts()  #@ delegate
    yield 3  #@ whole-last

def uses(stop):
    found = []
    stop()
    for item in whole():  #@ uses-for
        found.append(item)  #@ uses-body
    return found  #@ uses-end
'''

kCoroutines = '''
async def answer():
    return 42  #@ answer

async def asks(stop):
    stop()
    first = await answer()  #@ ask
    return first + 1  #@ asked

def drive(stop):
    task = asks(stop)
    try:
        task.send(None)
    except StopIteration as end:
        return end.value
'''


class Behaviour(TestCase):
    source = kSource

    def setUp(self):
        self.session = Session()
        self.tracer = self.session.tracer
        self.path = self.make_file("behaving.py", self.source)
        self.code = {"__name__": "behaving", "__file__": self.path}
        exec(compile(self.source, self.path, "exec", 0, True), self.code)

    def run_function(self, name, *script):
        del self.session.stops[:]
        return self.session.run(self.code[name], *script)

    def places(self):
        return [stop[2] for stop in self.session.stops]

    def kinds(self):
        return [stop[0] for stop in self.session.stops]

    def break_at(self, mark, condition=None, enabled=1, temporary=0, ignore=0):
        return self.tracer.set_break(
            self.path, "", marks_of(self.path)[mark], enabled, temporary, condition, ignore)

    def hits(self):
        return [(row[0], row[-1]) for row in self.tracer.get_file_breaks(self.path)]

    def line(self, mark):
        return marks_of(self.path)[mark]


class Stepping(Behaviour):
    def test_over_the_last_line_ends_with_the_function_that_falls_off(self):
        self.assertEqual(self.run_function("calls_falls_off", "step_over", "step_out"), 9)
        self.assertEqual(self.session.stops[:3], [
            ("line", "falls_off", "off-last"), ("return", "falls_off", "off-last", None),
            ("line", "calls_falls_off", "after-off")])

    def test_out_of_a_loop_by_return(self):
        self.run_function("early", "step_over", "step_into", "step_out", "step_out")
        self.assertEqual(self.places(), [
            "early-test", "early-return", "inner-first", "inner-last", "early-return"])
        self.assertEqual(self.kinds(), ["line", "line", "line", "return", "return"])

    def test_until_a_greater_line_is_a_range_from_the_first_to_this_one(self):
        code = self.code["looped"].__code__

        def until(frame):
            self.tracer.step_over_line_range(code.co_firstlineno, frame.f_lineno)

        self.break_at("in-loop", temporary=1)
        self.session.script = [until]
        self.session.run(lambda stop: self.code["looped"](5), until)
        self.assertEqual(self.places(), ["in-loop", "loop-end"])

    def test_until_a_line_beyond_the_function_is_until_its_return(self):
        code = self.code["outer"].__code__
        self.run_function(
            "outer", ("step_over_line_range", code.co_firstlineno, 1000000), "step_out")
        self.assertEqual(self.session.stops[:2], [
            ("line", "outer", "outer-call"), ("return", "outer", "outer-last", 3)])

    def test_until_a_line_in_the_caller_and_its_return(self):
        """Up in the stack, then on to a line there; up again, then on to its return."""
        def to_caller(frame):
            self.tracer.step_out_to_frame(frame.f_back)

        self.break_at("inner-first")
        self.run_function("outer", "continue_run", to_caller, "step_out", "step_out", "step_out")
        self.assertEqual(self.session.stops, [
            ("line", "outer", "outer-call"), ("line", "inner", "inner-first"),
            ("line", "outer", "outer-again"), ("line", "inner", "inner-first"),
            ("return", "inner", "inner-last", 3), ("line", "outer", "outer-last"),
            ("return", "outer", "outer-last", 3)][:len(self.session.stops)])
        self.assertGreater(len(self.session.stops), 5)

    def test_over_a_return_without_a_traced_caller_goes_to_the_caller(self):
        """Tracing began below the function that called it."""
        self.break_at("inner-first")
        found = self.session.run(
            lambda stop: self.code["outer"](lambda: None), "step_over", "step_over", "step_out")
        self.assertEqual(found, 3)
        self.assertEqual(self.session.stops[:4], [
            ("line", "inner", "inner-first"), ("line", "inner", "inner-last"),
            ("return", "inner", "inner-last", 2), ("line", "outer", "outer-again")])

    def test_text_is_run_line_by_line(self):
        code = compile("stop()\nfirst = 1\nsecond = first + 1\n", "<string>", "exec")
        names = {}

        def run_text(stop):
            names["stop"] = stop
            eval(code, names)

        self.session.run(run_text, "step_over", "step_over", "step_out")
        self.assertEqual(names["second"], 2)
        self.assertEqual([stop[:2] for stop in self.session.stops[:3]], [
            ("line", "<module>"), ("line", "<module>"), ("return", "<module>")])
        del self.session.stops[:]
        self.session.run(lambda stop: eval(
            compile("[stop(), inner(1)]", "<string>", "eval"), dict(self.code, stop=stop)),
            "step_into", "continue_run")
        self.assertEqual([stop[1:3] for stop in self.session.stops], [
            ("inner", "inner-first"), ("inner", "inner-last")])

    def test_return_from_a_function_stops_with_its_value_whatever_it_calls(self):
        self.run_function("outer", "step_out")
        self.assertEqual(self.session.stops[:2], [
            ("line", "outer", "outer-call"), ("return", "outer", "outer-last", 3)])

    def test_out_of_a_recursion_is_one_level(self):
        self.break_at("depth-test", "depth == 0")
        self.session.show = lambda frame: frame.f_locals.get("depth")
        self.session.run(lambda stop: self.code["recurse"](3), "step_out", "step_into", "step_out")
        self.assertEqual([stop[1:3] + stop[-1:] for stop in self.session.stops], [
            ("recurse", "depth-test", 0), ("recurse", "back", 0), ("recurse", "back", 1),
            ("recurse", "back", 1)])

    def test_over_a_send_and_a_close_does_not_enter_the_generator(self):
        self.assertEqual(self.run_function("sends", "step_over", "step_over", "step_over"), 5)
        self.assertEqual(self.places(), ["send", "close", "sent", "sent"])

    def test_into_a_send_enters_the_generator_after_its_yield(self):
        self.run_function("sends", "step_into", "step_into")
        self.assertEqual(self.session.stops[:3], [
            ("line", "sends", "send"), ("line", "numbers", "give-two"),
            ("return", "numbers", "give-two", 5)])

    def test_over_a_call_that_raises_goes_to_the_handler_and_to_finally(self):
        self.run_function("guarded", *["step_over"] * 6)
        self.assertEqual([stop for stop in self.session.stops if stop[0] == "line"], [
            ("line", "guarded", mark)
            for mark in ("try-call", "except-line", "in-except", "in-finally", "guarded-end")])
        self.assertIn(("exception", "guarded", "try-call", "ValueError"), self.session.stops)

    def test_over_a_class_statement_and_into_it(self):
        self.run_function("body", "step_over")
        self.assertEqual(self.places()[-1], "class-after")
        self.run_function("body", *["step_into"] * 3)
        self.assertIn(("line", "Made", "class-first"), self.session.stops)

    def test_each_frame_of_the_stack_can_be_the_one_to_go_on_to(self):
        """Up in the stack, then until that frame is reached."""
        def to_caller(frame):
            self.assertEqual(frame.f_back.f_code.co_name, "outer")
            self.tracer.step_out_to_frame(frame.f_back)

        self.break_at("inner-first")
        self.run_function("outer", "continue_run", to_caller)
        self.assertEqual(self.places()[:3], ["outer-call", "inner-first", "outer-again"])

    def test_after_going_on_nothing_stops(self):
        self.assertEqual(self.run_function("outer", "step_into", "continue_run"), 3)
        self.assertEqual(self.places(), ["outer-call", "inner-first"])


class Breaks(Behaviour):
    def run_plain(self, name, *args):
        del self.session.stops[:]
        return self.session.run(lambda stop: self.code[name](*args))

    def test_each_passage_stops_and_counts(self):
        self.break_at("in-loop")
        self.run_plain("looped", 3)
        self.assertEqual(self.places(), ["in-loop"] * 3)
        self.assertEqual(self.hits(), [(self.line("in-loop"), 3)])

    def test_temporary_stops_once_and_is_gone(self):
        self.break_at("in-loop", temporary=1)
        self.run_plain("looped", 3)
        self.assertEqual(self.places(), ["in-loop"])
        self.assertEqual(self.hits(), [])
        self.run_plain("looped", 3)
        self.assertEqual(self.places(), [])

    def test_temporary_with_a_condition_waits_for_it(self):
        self.session.show = lambda frame: frame.f_locals["number"]
        self.break_at("in-loop", "number == 2", temporary=1)
        self.run_plain("looped", 4)
        self.assertEqual([stop[-1] for stop in self.session.stops], [2])
        self.assertEqual(self.hits(), [])

    def test_disabled_and_enabled_again(self):
        self.break_at("in-loop", enabled=0)
        self.run_plain("looped", 2)
        self.assertEqual((self.places(), self.hits()), ([], [(self.line("in-loop"), 0)]))
        self.tracer.enable_breaks(self.path, self.line("in-loop"), 1)
        self.run_plain("looped", 2)
        self.assertEqual(self.places(), ["in-loop"] * 2)

    def test_ignored_passages_are_counted_down(self):
        self.session.show = lambda frame: frame.f_locals["number"]
        self.break_at("in-loop", ignore=2)
        self.run_plain("looped", 4)
        self.assertEqual([stop[-1] for stop in self.session.stops], [2, 3])

    def test_a_condition_that_cannot_be_evaluated_stops(self):
        self.break_at("in-loop", "no_such_name > 1")
        self.run_plain("looped", 2)
        self.assertEqual(self.places(), ["in-loop"] * 2)

    def test_a_condition_changed_at_a_stop_holds_from_there(self):
        self.break_at("in-loop")
        self.session.run(lambda stop: self.code["looped"](9), lambda frame: (
            self.tracer.set_breaks_cond(self.path, frame.f_lineno, "number == 7"),
            self.tracer.continue_run()))
        self.assertEqual(self.places(), ["in-loop"] * 2)

    def test_cleared_at_its_own_stop(self):
        self.break_at("in-loop")
        self.session.run(lambda stop: self.code["looped"](9), lambda frame: (
            self.tracer.clear_breaks(self.path, frame.f_lineno), self.tracer.continue_run()))
        self.assertEqual(self.places(), ["in-loop"])

    def test_set_at_a_stop_in_the_function_that_runs_and_in_its_caller(self):
        self.run_function("outer", "step_into", lambda frame: (
            self.break_at("inner-last", temporary=1), self.break_at("outer-last"),
            self.tracer.continue_run()))
        self.assertEqual(self.places(), ["outer-call", "inner-first", "inner-last", "outer-last"])

    def test_in_the_body_of_a_class_a_method_and_a_handler(self):
        for function, mark in (("body", "class-first"), ("body", "in-method"),
                               ("guarded", "in-except"), ("guarded", "in-finally")):
            self.tracer.clear_all_breaks()
            self.break_at(mark)
            self.run_function(function, "continue_run")
            self.assertEqual(self.places()[1:], [mark])

    def test_in_a_generator_between_its_resumptions(self):
        self.break_at("give-two")
        self.run_function("sends", "continue_run", "step_out")
        self.assertEqual(self.places()[:2], ["send", "give-two"])

    def test_one_stop_where_a_step_and_a_breakpoint_meet(self):
        self.break_at("outer-again")
        self.run_function("outer", "step_over", "continue_run")
        self.assertEqual(self.places(), ["outer-call", "outer-again"])
        self.assertEqual(self.hits(), [(self.line("outer-again"), 1)])

    def test_during_a_step_over_in_what_is_stepped_over(self):
        self.break_at("inner-last")
        self.run_function("outer", "step_over", "step_out", "step_over")
        self.assertEqual(self.places()[:3], ["outer-call", "inner-last", "inner-last"])
        self.assertEqual(self.kinds()[:3], ["line", "line", "return"])


class More(Behaviour):
    source = kMore

    def setUp(self):
        super(More, self).setUp()
        path = self.make_file("module_of_behaviours.py",
                              "first = 1  #@ top\nvalue = first + 1  #@ next\n")
        sys.path.insert(0, os.path.dirname(path))
        self.addCleanup(sys.path.remove, os.path.dirname(path))

    def lines(self):
        return [stop[1:3] for stop in self.session.stops if stop[0] == "line"]

    def test_over_an_import_runs_the_module(self):
        self.assertEqual(self.run_function("imports", "step_over", "continue_run"), 2)
        self.assertEqual(self.places(), ["import", "imported"])

    def test_over_an_import_stops_at_a_breakpoint_in_the_module(self):
        self.tracer.set_break(os.path.join(sys.path[0], "module_of_behaviours.py"),
                              "", 2, 1, 0, None, 0)
        self.run_function("imports", "step_over", "continue_run")
        self.assertEqual(self.lines(), [("imports", "import"), ("<module>", "next")])

    def test_over_a_for_does_not_enter_its_generator(self):
        self.assertEqual(self.run_function("sums", *["step_over"] * 7), 1)
        places = [place for _, place in self.lines()]
        # Up to 3.9 the end of the generator is an event of the loop's line, too.
        places = [place for number, place in enumerate(places)
                  if places[number - 1:number] != [place]]
        self.assertEqual(places, ["for", "for-body", "for", "for-body", "for", "for-end"])

    def test_over_the_lines_of_a_generator_stays_in_it(self):
        self.break_at("gen-yield", temporary=1)
        self.session.run(lambda stop: self.code["sums"](lambda: None), *["step_over"] * 8)
        self.assertEqual(self.lines()[:5], [("numbers_up_to", place) for place in (
            "gen-yield", "gen-loop", "gen-yield", "gen-loop", "gen-end")])

    def test_over_the_last_line_of_a_generator_goes_to_its_caller(self):
        self.break_at("gen-end")
        self.session.run(lambda stop: self.code["sums"](lambda: None),
                         "step_over", "step_out", "step_over")
        found = [stop[:3] for stop in self.session.stops]
        self.assertEqual(found[:2], [("line", "numbers_up_to", "gen-end"),
                                     ("return", "numbers_up_to", "gen-end")])
        # Up to 3.9 the end of the generator is an event of the loop's line, too.
        self.assertIn(("line", "sums", "for-end"), found[2:4])
        self.assertEqual({stop[1] for stop in found[2:]}, {"sums"})

    def test_an_exception_thrown_into_a_generator_comes_to_its_handler(self):
        self.break_at("thrown")
        self.assertEqual(self.run_function("throws", "continue_run"), 2)
        self.assertEqual(self.places(), ["throw", "thrown"])

    def test_in_decorated_functions_and_lambdas_but_not_at_their_definition(self):
        for mark in ("decorator", "decorated", "lambda"):
            self.break_at(mark)
        self.run_function("calls_both", "continue_run", "continue_run")
        self.assertEqual(self.lines(), [
            ("calls_both", "both"), ("decorated", "decorated"), ("<lambda>", "lambda")])

    def test_out_of_a_stop_goes_to_the_callers_one_by_one(self):
        self.run_function("told", "step_out", "step_out", "step_out")
        self.assertEqual(self.session.stops, [
            ("return", "<lambda>", "told", None), ("return", "untold", "untold", None),
            ("line", "told", "told-end"), ("return", "told", "told-end", 1)])

    def test_a_line_can_be_jumped_to(self):
        def jump(frame):
            frame.f_lineno = self.line("skip-to")
            self.tracer.step_over()

        self.assertEqual(self.run_function("skips", lambda frame: self.tracer.step_over(), jump), 1)
        self.assertEqual(self.session.failures, [])

    def test_lines_without_statements_stop_nowhere(self):
        self.break_at("after-all")
        self.tracer.set_break(self.path, "", 1000000, 1, 0, None, 0)
        self.run_function("skips", "continue_run")
        self.assertEqual(self.places(), ["skip-from"])
        self.assertEqual(sorted(self.hits()), [(self.line("after-all"), 0), (1000000, 0)])

    def test_disabled_breakpoints_are_not_used_up(self):
        self.session.show = lambda frame: frame.f_locals.get("number")
        self.break_at("gen-yield", enabled=0, temporary=1)
        self.run_function("sums")
        self.assertEqual((self.hits(), self.kinds()[1:]), ([(self.line("gen-yield"), 0)], []))
        self.tracer.clear_all_breaks()
        self.break_at("gen-yield", enabled=0, ignore=1)
        self.run_function("sums")
        self.tracer.enable_breaks(self.path, self.line("gen-yield"), 1)
        self.run_function("sums", "continue_run")
        self.assertEqual([stop[2:] for stop in self.session.stops[1:]], [("gen-yield", 1)])

    def test_two_on_a_line_stop_once_and_are_cleared_together(self):
        self.break_at("for-body", temporary=1)
        self.break_at("for-body")
        self.run_function("sums", *["continue_run"] * 4)
        self.assertEqual(self.places(), ["for", "for-body", "for-body"])
        self.tracer.clear_breaks(self.path, self.line("for-body"))
        self.assertEqual(self.hits(), [])
        self.tracer.clear_breaks(self.path, self.line("for-body"))  # there is none
        self.run_function("sums", "continue_run")
        self.assertEqual(self.places(), ["for"])


@needs("syntax:def f(): yield from ()")
class Delegating(Behaviour):
    source = kDelegating if not hasattr(dict, "has_key") else ""

    def test_over_lines_of_the_outer_one_passes_the_inner_one(self):
        self.break_at("whole-first", temporary=1)
        found = self.session.run(
            lambda stop: self.code["uses"](lambda: None), "step_over", "step_over", "step_over")
        self.assertEqual(found, [0, 1, 2, 3])
        lines = [stop[1:3] for stop in self.session.stops if stop[0] == "line"]
        self.assertEqual(lines[:2], [("whole", "whole-first"), ("whole", "delegate")])
        self.assertIn(("whole", "whole-last"), lines)
        self.assertNotIn("parts", [stop[1] for stop in self.session.stops])

    def test_out_of_the_inner_one_goes_to_the_outer_one_that_yields(self):
        self.break_at("part-one", temporary=1)
        found = self.session.run(
            lambda stop: self.code["uses"](lambda: None), "step_out", "step_out")
        self.assertEqual(found, [0, 1, 2, 3])
        self.assertEqual([stop[:3] for stop in self.session.stops[:3]], [
            ("line", "parts", "part-one"), ("return", "whole", "delegate"),
            ("line", "uses", "uses-body")])

    def test_into_goes_on_in_the_inner_one(self):
        self.break_at("delegate", temporary=1)
        self.session.run(lambda stop: self.code["uses"](lambda: None), "step_into")
        self.assertEqual(self.session.stops[:2], [
            ("line", "whole", "delegate"), ("line", "parts", "part-one")])


@needs("syntax:async def f(): await x")
class Coroutines(Behaviour):
    source = kCoroutines if not hasattr(dict, "has_key") else ""

    def test_over_an_await_does_not_enter_it(self):
        self.assertEqual(self.run_function("drive", "step_over", "step_over"), 43)
        lines = [stop[1:3] for stop in self.session.stops if stop[0] == "line"]
        self.assertEqual(lines[0], ("asks", "ask"))
        self.assertNotIn("answer", [stop[1] for stop in self.session.stops])

    def test_into_an_await_enters_it(self):
        self.run_function("drive", "step_into", "step_into")
        self.assertEqual([stop[:3] for stop in self.session.stops[:3]], [
            ("line", "asks", "ask"), ("line", "answer", "answer"), ("return", "answer", "answer")])


if __name__ == "__main__":
    unittest.main()
