"""The languages of the examples under the debug server: templates, and the cells of a notebook."""
from __future__ import absolute_import, division, print_function

import io
import os
import threading
import types
import unittest

from support import TestCase, line_of, run_script
from support.dapclient import debug_directly
from support.languages import EXAMPLES, debug, use_example
from support.terminal import PROMPT, run_commands

kOncePerVersion = True

USER = """\
def double(n):
    result = 2 * n  #@ double
    return result  #@ result

def main(run):
    text = run()  #@ run
    return text  #@ after
"""

PAGE = u"""\
# {{ title }}

{% for n in numbers %}
{% include "row.tmpl" %}
{% end %}
end {{ double(3) }}
"""

ROW = u"""\
row {{ n }}
is {{ double(n) }}
"""

CELLS = u"""\
# %% first
numbers = [1, 2]
def inner(n):
    twice = double(n)
    return twice

# %% second
total = 0
for n in numbers:
    total += inner(n)
last = total
# %% third
for n in numbers: double(n)
"""


kThisFile = "test_sublanguage_examples.py"
kRunner = os.path.join(EXAMPLES, "cells", "cells.py")


class LanguageCase(TestCase):
    def setUp(self):
        self.folder = self.make_dir()
        self.path = self.make_file("user.py", USER, self.folder)
        self.user = types.ModuleType("user")
        with io.open(self.path, encoding="utf-8") as source:
            exec(compile(source.read(), self.path, "exec", 0, True), self.user.__dict__)

    def line(self, mark):
        return line_of(self.path, mark)

    def at(self, mark):
        return "user.py", self.line(mark)

    def debug(self, commands=(), begin=None, work=None, errors=()):
        """From the line marked `run` on, unless begin(server) sets other breakpoints."""
        begin = begin or (lambda server: server.breakpoints.add(self.path, self.line("run")))
        return debug(work or (lambda: self.user.main(self.run_it)), begin, commands, errors)

    def debug_at(self, *places, **keywords):
        """The same with breakpoints at (file, line) or (file, line, condition)."""
        commands = keywords.pop("commands", ())

        def begin(server):
            table = server.breakpoints
            self.set = [
                table.add(self.path if place[0] == "user.py" else self.find(server, place[0]),
                          place[1], *place[2:], **keywords)
                for place in places]
        front_end = self.debug(commands, begin)
        self.hits = [bp.hits for bp in self.set]
        return front_end


class TemplateCase(LanguageCase):
    def setUp(self):
        LanguageCase.setUp(self)
        use_example("templates")
        self.page = self.make_file("page.tmpl", PAGE, self.folder)
        self.row = self.make_file("row.tmpl", ROW, self.folder)
        self.names = {"title": u"A", "numbers": [1, 2], "double": self.user.double}

    def run_it(self):
        import template
        return template.Template(self.page).render(**self.names)

    def find(self, server, name):
        return os.path.join(self.folder, name)


class CellCase(LanguageCase):
    def setUp(self):
        LanguageCase.setUp(self)
        use_example("cells")
        import cells
        import tdbg
        self.notebook = cells.Notebook(CELLS)
        self.notebook.names["double"] = self.user.double
        tdbg.register_sub_language(self.notebook.debugging)

    def run_it(self):
        self.notebook.run()
        return self.notebook.names["total"]

    def find(self, server, name):
        return server.breakpoints.find_file(name)


class CommonTests(object):
    """What holds for both; they tell their lines in attributes."""

    def test_step_goes_everywhere(self):
        front_end = self.debug_at(self.kFirst, commands=["step_into"] * 60)
        self.assertEqual(lines_of(front_end)[:len(self.kStepped)], self.kStepped)

    def test_next_stays_in_the_activation(self):
        front_end = self.debug_at(self.kFirst, commands=["step_over"] * 20)
        self.assertEqual(lines_of(front_end)[:len(self.kOver)], self.kOver)

    def test_return_goes_to_the_outer_activation(self):
        front_end = self.debug_at(self.kInner, commands=[
            after_removing(self, "step_out"), "step_out", "step_over"])
        self.assertEqual(
            lines_of(front_end)[:3], [self.kInner, self.kOuterAfterInner, self.kAfterOuter])

    def test_next_out_of_a_function_of_python(self):
        front_end = self.debug_at(self.at("result"), commands=[
            after_removing(self, "step_over"), "step_over"])
        self.assertEqual(front_end.stops[1:], [
            ("return",) + self.at("result"), ("step",) + self.kAfterFunction])

    def test_return_out_of_a_function_of_python(self):
        front_end = self.debug_at(self.at("double"), commands=[
            after_removing(self, "step_out"), "step_into"])
        self.assertEqual(front_end.stops[1:], [
            ("return",) + self.at("result"), ("step",) + self.kAfterFunction])

    def test_the_stack(self):
        stack = self.debug_at(self.at("double")).stacks[0]
        begin = stack.index(self.at("run"))
        self.assertEqual([place for place in stack[begin:] if place[0] != kThisFile], self.kStack)

    def test_breakpoint_hits_each_time(self):
        front_end = self.debug_at(self.kLoop)
        self.assertEqual(front_end.stops, [("breakpoint",) + self.kLoop] * 2)
        self.assertEqual(self.hits, [2])

    def test_breakpoint_with_a_condition(self):
        front_end = self.debug_at(self.kLoop + ("n == 2",), self.kLoop + ("n > 5",))
        self.assertEqual(front_end.stops, [("breakpoint",) + self.kLoop])
        self.assertEqual(self.hits, [2, 2])

    def test_condition_that_only_the_server_evaluates(self):
        front_end = self.debug_at(self.kLoop + ("[m for m in numbers if m == n] == [2]",))
        self.assertEqual(front_end.stops, [("breakpoint",) + self.kLoop])

    def test_broken_condition_stops(self):
        errors = []
        front_end = self.debug_at(self.kLoop + ("nope",), commands=[
            lambda server, stop: errors.extend(hit.error for hit in stop.hits)] * 2)
        self.assertEqual(len(front_end.stops), 2)
        self.assertEqual(errors, ["NameError: name 'nope' is not defined"] * 2)

    def test_ignored_and_temporary(self):
        def begin(server):
            bp = server.breakpoints.add(self.find(server, self.kLoop[0]), self.kLoop[1],
                                        temporary=True)
            server.breakpoints.set_ignore(bp, 1)

        seen = []
        front_end = self.debug([lambda server, stop: seen.append(
            (value_of(stop, "n"), server.breakpoints.all()))], begin)
        self.assertEqual(front_end.stops, [("breakpoint",) + self.kLoop])
        self.assertEqual(seen, [(2, [])])

    def test_hit_condition(self):
        front_end = self.debug_at(self.kLoop, hit_condition="%2")
        self.assertEqual(len(front_end.stops), 1)

    def test_stepping_onto_a_breakpoint_is_one_hit(self):
        front_end = self.debug_at(self.kFirst, self.kLoop, commands=["step_into"] * 100)
        reasons = [stop[0] for stop in front_end.stops if stop[1:] == self.kLoop]
        self.assertEqual(reasons, ["breakpoint"] * 2)
        self.assertEqual(self.hits, [1, 2])

    def test_stepping_onto_breakpoints_that_do_not_stop(self):
        front_end = self.debug_at(
            self.kFirst, self.kLoop + ("n == 2",), commands=["step_into"] * 100)
        reasons = [stop[0] for stop in front_end.stops if stop[1:] == self.kLoop]
        self.assertEqual(reasons, ["step", "breakpoint"])
        self.assertEqual(self.hits, [1, 2])

    def test_stepping_onto_a_temporary_one_and_an_ignored_one(self):
        def begin(server):
            table = server.breakpoints
            table.add(self.find(server, self.kFirst[0]), self.kFirst[1])
            self.temporary = table.add(
                self.find(server, self.kLoop[0]), self.kLoop[1], temporary=True)
            self.ignored = table.add(self.find(server, self.kLoop[0]), self.kLoop[1])
            table.set_ignore(self.ignored, 1)

        hits = []

        def step(server, stop):
            hits.extend(hit.breakpoint for hit in stop.hits)
            server.step_into()
            return True

        self.debug([step] * 100, begin)
        self.assertEqual(hits[1:], [self.temporary, self.ignored])
        self.assertEqual((self.temporary.hits, self.ignored.hits, self.ignored.ignore), (1, 2, 0))

    def test_variables(self):
        seen = []
        self.debug_at(self.kLoop + ("n == 2",), commands=[
            lambda server, stop: seen.extend(
                [value_of(stop, "n * 10"), value_of(stop, "numbers[0]")])])
        self.assertEqual(seen, [20, 1])

    def test_a_statement_changes_variables(self):
        from tdbg import evaluate

        def change(server, stop):
            result = evaluate.execute("n = 50", stop.stack[stop.index][0], server.core)
            self.assertEqual((result.ok, result.error), (True, None))

        given = []
        self.set_double(lambda n: given.append(n) or n)
        self.debug_at(self.kLoop + ("n == 2",), commands=[change])
        self.assertEqual(given[:2], [1, 50])

    def test_next_in_an_outer_frame(self):
        def next_outside(server, stop):
            frames = [entry[0] for entry in stop.stack]
            server.step_over(frames[-2])
            return True

        front_end = self.debug_at(self.kInner, commands=[after_removing(self, next_outside)])
        self.assertEqual(front_end.places[1:], [self.kOuterAfterInner])

    def test_return_to_an_outer_frame_of_python(self):
        def leave(server, stop):
            frames = [entry[0] for entry in stop.stack if entry[0].f_code.co_name == "main"]
            server.step_over(frames[-1])
            return True

        front_end = self.debug_at(self.kInner, commands=[after_removing(self, leave)])
        self.assertEqual(front_end.places[1:], [self.at("after")])

    def test_until(self):
        def run_on(server, stop):
            server.run_to_line(self.kUntil[1])
            return True

        front_end = self.debug_at(self.kFirst, commands=[run_on])
        self.assertEqual(front_end.places, [self.kFirst, self.kUntil])

    def test_pause(self):
        """What asks for it is a function that the language calls."""
        def ask(n):
            if n == 1:
                self.server.pause()
            return n

        def begin(server):
            self.server = server

        self.set_double(ask)
        front_end = self.debug(["step_over"] * 2, begin)
        self.assertEqual([stop[0] for stop in front_end.stops[:3]], ["pause", "return", "step"])
        self.assertEqual(front_end.places[2], self.kAfterFunction)

    def test_an_exception_while_stepping(self):
        def fails(n):
            raise ValueError("in double")

        self.set_double(fails)
        front_end = self.debug_with_exceptions([self.kLoop], ["step_over"] * 2)
        self.assertIn(("exception",) + self.kRaises, front_end.stops)

    def debug_with_exceptions(self, places, commands):
        def work():
            try:
                self.user.main(self.run_it)
            except ValueError:
                return "caught"

        def begin(server):
            for place in places:
                server.breakpoints.add(self.find(server, place[0]), place[1])

        front_end = self.debug(commands, begin, work)
        self.assertEqual(front_end.result, "caught")
        return front_end

    def test_a_caught_exception_does_not_stop(self):
        def fails(n):
            raise ValueError("in double")

        self.set_double(fails)
        self.assertEqual(self.debug_with_exceptions([], []).stops, [])

    def test_a_language_that_fails_is_told_of_once(self):
        language = self.language()
        language.place = lambda frame, line: 1 // 0
        front_end = self.debug(["step_over"] * 2, errors=["Debugging.place: ZeroDivisionError: "])
        self.assertEqual(front_end.places[:2], [self.at("run"), self.at("after")])

    def test_two_threads(self):
        """Each one steps for itself."""
        seen = []

        def work():
            other = threading.Thread(target=self.user.main, args=(self.run_it,))
            other.start()
            other.join()
            return self.user.main(self.run_it)

        def begin(server):
            server.breakpoints.add(self.find(server, self.kLoop[0]), self.kLoop[1])

        def look(server, stop):
            seen.append((stop.thread.is_main, value_of(stop, "n")))

        self.debug([look] * 10, begin, work)
        self.assertEqual(seen, [(False, 1), (False, 2), (True, 1), (True, 2)])

    def test_it_runs_without_a_debugger(self):
        done = run_script(os.path.join(EXAMPLES, *self.kExample[0]), *[
            os.path.join(EXAMPLES, *parts) for parts in self.kExample[1:]])
        self.assertEqual((done.status, done.err), (0, ""))
        self.assertIn(self.kExampleText, done.out)


def lines_of(front_end):
    """Places of a front end's stops: lines of the program, without those of this file."""
    return [stop[1:] for stop in front_end.stops if stop[0] != "return" and stop[1] != kThisFile]


def value_of(stop, text):
    from tdbg import evaluate

    result = evaluate.evaluate(text, stop.stack[stop.index][0])
    return result.value if result.ok else result.error


def after_removing(test, command):
    """A command for after the test's breakpoints have been removed."""
    def run(server, stop):
        for bp in server.breakpoints.all():
            server.breakpoints.remove(bp)
        if callable(command):
            return command(server, stop)
        getattr(server, command)()
        return True

    return run


class TemplateTest(CommonTests, TemplateCase):
    kFirst = ("page.tmpl", 1)
    kLoop = kInner = ("row.tmpl", 2)
    kRaises = ("row.tmpl", 2)
    kUntil = ("page.tmpl", 4)
    kAfterFunction = ("page.tmpl", 4)
    kOuterAfterInner = ("page.tmpl", 4)
    kExample = (("templates", "shop.py"),)
    kExampleText = "* 2 x milk\n  makes 1.8\n"

    @property
    def kAfterOuter(self):
        return self.at("after")

    @property
    def kStepped(self):
        double = [self.at("double"), self.at("result")]
        row = [("row.tmpl", 1), ("row.tmpl", 2)] + double
        return ([("page.tmpl", 1), ("page.tmpl", 3)]
                + ([("page.tmpl", 4)] + row) * 2
                + [("page.tmpl", 6)] + double + [self.at("after")])

    @property
    def kOver(self):
        return [("page.tmpl", line) for line in (1, 3, 4, 4, 6)] + [self.at("after")]

    @property
    def kStack(self):
        return [self.at("run"), ("page.tmpl", 4), ("row.tmpl", 2), self.at("double")]

    def language(self):
        import template
        import tdbg.sublanguages
        return [language for language in tdbg.sublanguages._registered
                if isinstance(language, template.Debugging)][0]

    def set_double(self, function):
        self.names["double"] = function

    def test_a_template_that_includes_itself(self):
        self.make_file("row.tmpl",
                       u"{% if n < 4 %}\n{% for n in [n + 1] %}\n{% include 'row.tmpl' %}\n"
                       u"{% end %}\n{% end %}\nlast\n", self.folder)
        front_end = self.debug_at(("row.tmpl", 1, "n == 2"), commands=[
            after_removing(self, "step_over")] + ["step_over"] * 5)
        self.assertEqual(front_end.places[:7], [
            ("row.tmpl", 1), ("row.tmpl", 2), ("row.tmpl", 3), ("row.tmpl", 6), ("row.tmpl", 6),
            ("page.tmpl", 4), ("page.tmpl", 6)])

    def test_a_breakpoint_moves_when_the_template_is_loaded(self):
        front_end = self.debug_at(("page.tmpl", 2))
        self.assertEqual(front_end.places, [("page.tmpl", 3)])
        self.assertEqual([bp.line for bp in self.set], [3])

    def test_places_that_are_refused(self):
        from tdbg import breakpoints
        failed = []

        def begin(server):
            for name, line in [("page.tmpl", 7), ("page.tmpl", 0), ("none.tmpl", 1)]:
                try:
                    server.breakpoints.add(self.find(server, name), line)
                except breakpoints.tRefused as why:
                    failed.append(str(why).replace(self.folder, ""))

        self.debug(begin=begin)
        self.assertEqual(failed, [
            "/page.tmpl has no line 7: it ends with line 6",
            "/page.tmpl has no line 0: it ends with line 6",
            "cannot read /none.tmpl: No such file or directory"])

    def test_an_uncaught_exception_shows_the_template(self):
        folder = self.make_dir()
        program = self.make_file("prog.py", (
            "import sys\nsys.path.insert(0, {!r})\nimport template\n"
            "template.Template({!r}).render(title='x', numbers=[1], double=None)\n").format(
                os.path.join(EXAMPLES, "templates"), self.page), folder)
        done = run_commands(["continue", "where", "up", "p n", "continue"], program)
        shown = done.out.split(PROMPT)
        self.assertIn("TypeError: 'NoneType' object is not callable", shown[1])
        stack = [line for line in shown[2].splitlines() if not line.startswith("->")]
        names = [os.path.basename(line.strip("> ")).split(")")[0] for line in stack]
        self.assertEqual(names[:3], ["prog.py(4", "page.tmpl(4", "row.tmpl(2"])
        self.assertEqual(done.status, 1)

    def test_at_the_prompt(self):
        done = run_commands(
            ["break page.tmpl:5", "break page.tmpl:50", "continue", "where", "list", "p thing",
             "locals", "step", "next", "p cost", "step", "return", "break", "continue", "quit"],
            os.path.join(EXAMPLES, "templates", "shop.py"), cwd=self.make_dir())
        shown = [text.replace(os.path.join(EXAMPLES, "templates") + "/", "")
                 for text in done.out.split(PROMPT)[1:]]
        self.assertEqual(shown[0], "Breakpoint 1 at page.tmpl:5\n")
        self.assertEqual(shown[1], "*** page.tmpl has no line 50: it ends with line 10\n")
        self.assertEqual(shown[2], "--Breakpoint 1--\n> page.tmpl(5)page.tmpl\n"
                                   "-> {% include \"row.tmpl\" %}\n")
        self.assertRegex(shown[3],
                         r"main\(\)\n-> text = page.render\(.*\n> page.tmpl\(5\)page.tmpl\n")
        self.assertIn("  4    \t{% if count %}\n  5  ->\t{% include \"row.tmpl\" %}\n", shown[4])
        self.assertEqual(shown[5], "'bread'\n")
        self.assertIn("count = 3\nprice = 1.5\nthing = 'bread'\n", shown[6])
        self.assertEqual(shown[7], "> row.tmpl(1)row.tmpl\n-> * {{ count }} x {{ thing }}\n")
        self.assertEqual(shown[8], "> row.tmpl(2)row.tmpl\n-> makes {{ total(count, price) }}\n")
        self.assertEqual(shown[9], "*** NameError: name 'cost' is not defined\n")
        self.assertEqual(shown[10], "> shop.py(18)total()\n-> cost = count * price\n")
        self.assertEqual(shown[11], "--Return--\n> shop.py(19)total()->4.5\n-> return cost\n")
        self.assertIn("1    breakpoint yes         1  page.tmpl:5\n", shown[12])
        self.assertIn("> page.tmpl(5)page.tmpl\n", shown[13])


class TemplateProtocolTest(TestCase):
    """The same for a client of the debug adapter protocol."""

    kPage = os.path.join(EXAMPLES, "templates", "page.tmpl")
    kRow = os.path.join(EXAMPLES, "templates", "row.tmpl")
    kShop = os.path.join(EXAMPLES, "templates", "shop.py")

    def start(self, **breakpoints):
        client = debug_directly(self, self.kShop)
        self.answers = client.start_session(breakpoints=dict(
            (getattr(self, name), rows) for name, rows in breakpoints.items()))
        self.thread = client.wait_stopped("breakpoint")["threadId"]
        return client

    def place(self, client):
        frame = client.stack(self.thread)[0]
        return os.path.basename(frame["source"]["path"]), frame["line"]

    def steps(self, client, *commands):
        places = []
        for command in commands:
            client.request(command, {"threadId": self.thread})
            client.wait_stopped("step")
            places.append(self.place(client))
        return places

    def test_a_stop_in_a_template(self):
        client = self.start(kPage=[{"line": 5, "condition": "count == 2"}])
        self.assertTrue(self.answers[self.kPage][0]["verified"])
        stack = client.stack(self.thread)
        self.assertEqual(
            [(os.path.basename(frame["source"]["path"]), frame["line"]) for frame in stack][:2],
            [("page.tmpl", 5), ("shop.py", 25)])
        self.assertEqual(stack[0]["source"]["path"], self.kPage)
        self.assertEqual(client.locals_of(stack[0]["id"])["thing"].strip("u"), "'milk'")
        self.assertEqual(client.evaluate("count + 40", stack[0]["id"]), "42")
        client.resume(self.thread)
        self.assertEqual(client.wait_exit(), 0)

    def test_steps(self):
        client = self.start(kPage=[4])
        client.set_breakpoints(self.kPage, [])
        self.assertEqual(
            self.steps(client, "next", "stepIn", "next", "stepIn", "next", "stepOut", "next"), [
                ("page.tmpl", 5), ("row.tmpl", 1), ("row.tmpl", 2), ("shop.py", 18),
                ("shop.py", 19), ("page.tmpl", 4), ("page.tmpl", 5)])
        self.assertEqual(self.steps(client, "stepIn", "stepOut", "next", "next", "next"), [
            ("row.tmpl", 1), ("page.tmpl", 4), ("page.tmpl", 7), ("page.tmpl", 10),
            ("shop.py", 26)])
        client.resume(self.thread)
        self.assertEqual(client.wait_exit(), 0)

    def test_steps_from_python_and_back(self):
        client = self.start(kShop=[25], kRow=[2])
        client.set_breakpoints(self.kRow, [])
        self.assertEqual(self.steps(client, "stepIn", "next", "stepOut"), [
            ("page.tmpl", 1), ("page.tmpl", 3), ("shop.py", 26)])
        client.resume(self.thread)
        self.assertEqual(client.wait_exit(), 0)

    def test_a_step_over_a_function_that_a_template_calls_ends_in_the_template(self):
        client = self.start(kShop=[19])
        client.set_breakpoints(self.kShop, [])
        self.assertEqual(self.steps(client, "next"), [("page.tmpl", 4)])
        client.resume(self.thread)
        self.assertEqual(client.wait_exit(), 0)


class CellTest(CommonTests, CellCase):
    kFirst = ("cell 2", 1)
    kLoop = kRaises = ("cell 2", 3)
    kInner = kAfterFunction = ("cell 1", 4)
    kUntil = ("cell 2", 4)
    kOuterAfterInner = ("cell 2", 2)
    kAfterOuter = ("cells.py", line_of(kRunner, "next-cell"))
    kExample = (("cells", "cells.py"), ("cells", "sales.cells"))
    kExampleText = "bread 4\nmilk 2\n"

    @property
    def kStepped(self):
        inner = [("cell 1", 3), self.at("double"), self.at("result"), ("cell 1", 4)]
        return ([("cell 2", 1)] + ([("cell 2", 2), ("cell 2", 3)] + inner) * 2
                + [("cell 2", 2), ("cell 2", 4), self.kAfterOuter])

    kOver = list(("cell 2", number) for number in (1, 2, 3, 2, 3, 2, 4)) + [kAfterOuter]

    @property
    def kStack(self):
        return [self.at("run"), ("cells.py", line_of(kRunner, "run-cell")), ("cell 2", 3),
                ("cell 1", 3), self.at("double")]

    def language(self):
        return self.notebook.debugging

    def set_double(self, function):
        self.notebook.names["double"] = function

    def test_a_loop_on_one_line(self):
        front_end = self.debug_at(("cell 3", 1))
        self.assertEqual(front_end.places, [("cell 3", 1)] * 3)  # the last time it finds the end

    def test_places_that_are_refused(self):
        from tdbg import breakpoints
        failed = []

        def begin(server):
            for name, line in [("cell 3", 2), ("cell 4", 1), ("cell 0", 1), ("cell 1", 0)]:
                try:
                    server.breakpoints.add(self.find(server, name), line)
                except breakpoints.tRefused as why:
                    failed.append(str(why))

        self.debug(begin=begin)
        self.assertEqual(failed, [
            "cell 3 has no line 2: it ends with line 1", "no file cell 4", "no file cell 0",
            "cell 1 has no line 0: it ends with line 5"])

    def test_at_the_prompt(self):
        folder = os.path.join(EXAMPLES, "cells")
        done = run_commands(
            ["tbreak Notebook.run", "continue", "break cell 2:3", "break cell 9:1", "continue",
             "where", "list", "p found", "return", "p kind", "quit"],
            os.path.join(folder, "cells.py"), os.path.join(folder, "sales.cells"))
        shown = [text.replace(folder + "/", "") for text in done.out.split(PROMPT)[1:]]
        self.assertEqual(shown[2], "Breakpoint 2 at cell 2:3\n")
        self.assertEqual(shown[3], "*** no file cell 9\n")
        self.assertEqual(shown[4], "--Breakpoint 2--\n> cell 2(3)count\n-> return sum(found)\n")
        self.assertRegex(shown[5],
                         r"run\(\)\n-> self.run_cell.*\n  cell 2\(6\)all of it\n-> for kind.*\n"
                                   r"> cell 2\(3\)count\n-> return sum\(found\)\n$")
        self.assertIn("  2    \t    found = [number for kind, number in sales if kind == name]\n"
                      "  3  ->\t    return sum(found)\n", shown[6])
        self.assertEqual(shown[7], "[3, 1]\n")
        self.assertEqual(shown[8], "> cell 2(6)all of it\n"
                                   "-> for kind, _ in sales: totals[kind] = count(kind)\n")
        self.assertEqual(shown[9], "'bread'\n")  # before the next one is fetched


if __name__ == "__main__":
    unittest.main()
