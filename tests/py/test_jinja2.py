"""Jinja2's templates under the debugger: the hook that comes with it."""
from __future__ import absolute_import, division, print_function

import os
import re
import sys
import unittest

from support import TestCase, line_of
from support.dapclient import debug_directly
from support.languages import debug
from support.programs import python_path
from support.terminal import PROMPT, run_commands

kOncePerVersion = True

kFolders = [
    os.path.join(os.environ.get("XDG_CACHE_HOME") or os.path.expanduser("~/.cache"), "tdbg",
                 "libraries"),
    "/usr/lib/python3/dist-packages",
]

TEMPLATES = {
    "base.html": u"""\
<title>{{ title }}</title>
{% block body %}
{% endblock %}
{% include "foot.html" %}
""",
    "page.html": u"""\
{% extends "base.html" %}
{% from "macros.html" import item %}
{% block body %}
<ul>
{% for n in numbers %}
  {% if n > 1 %}
    {{ item(n) }}
  {% endif %}
{% endfor %}
</ul>
{{ title|loud }}
{% endblock %}
""",
    "macros.html": u"""\
{% macro item(value) %}
  <li>
  {{ value }}</li>
{% endmacro %}
""",
    "foot.html": u"""\
{% set year = 2020 %}
{{ year }} {{ title }}
""",
    "loop.html": u"{% for n in numbers %}{{ n }}{% endfor %}\n{{ numbers|length }}\n",
    "wait.html": u"{% set turn = job %}\n" * 5,
    "broken.html": u"fine\n{{ nothing.at_all }}\n",
}

USER = """\
import jinja2

def loud(text):
    result = text.upper()  #@ loud
    return result + "!"  #@ loud-end

def environment(loader):
    made = jinja2.Environment(loader=loader)
    made.filters["loud"] = loud
    return made

def main(loader, name):
    template = environment(loader).get_template(name)
    text = template.render(numbers=[1, 2, 3], title="hello")  #@ render
    return text  #@ after
"""

# Another thread answers whoever asks.
ASKING = """\
import queue
import sys
import threading
import time
import jinja2

class Job:
    def ask(self):
        given = queue.Queue()
        asked.put(given)
        return given

    @property
    def waits(self):
        return self.ask().get()

    @property
    def naps(self):
        given = self.ask()
        while given.empty():
            time.sleep(0.001)
        return given.get()

    @property
    def spins(self):
        given = self.ask()
        while given.empty():
            pass
        return given.get()

def answer():
    for given in iter(asked.get, None):
        given.put("yes")

asked = queue.Queue()
helper = threading.Thread(target=answer)
helper.start()
try:
    text = jinja2.Environment(loader=jinja2.FileSystemLoader(sys.argv[1])).get_template(
        "wait.html").render(job=Job())
finally:
    asked.put(None)
print("ended", repr(text))
"""


def find_jinja2():
    """Folder to put on the path, or why there is none."""
    if sys.version_info < (3, 7):
        return None, "Jinja2 3 needs Python 3.7"
    for folder in kFolders:
        if os.path.isdir(os.path.join(folder, "jinja2")):
            return folder, None
    return None, "no Jinja2 (tools/fetch-libraries gets it)"


class JinjaCase(TestCase):
    def setUp(self):
        self.library, reason = find_jinja2()
        if reason is not None:
            raise unittest.SkipTest(reason)
        self.folder = self.make_dir()
        self.templates = os.path.join(self.folder, "templates")
        for name, text in TEMPLATES.items():
            self.make_file(name, text, self.templates)
        self.path = self.make_file("user.py", USER, self.folder)

    def template(self, name):
        return os.path.join(self.templates, name)


class ServerTest(JinjaCase):
    def setUp(self):
        JinjaCase.setUp(self)
        sys.path.append(self.library)
        sys.path.insert(0, self.folder)

    def debug(self, commands=(), name="page.html", places=(("user.py", "render"),), begin=None,
              loader=None):
        """From breakpoints at (file, line or mark, more arguments of add()) on."""
        def set_all(server):
            if begin is not None:
                begin(server)
            self.set = []
            for place in places:
                path = self.path if place[0] == "user.py" else self.template(place[0])
                line = place[1] if isinstance(place[1], int) else line_of(path, place[1])
                self.set.append(server.breakpoints.add(path, line, *place[2:]))

        def work():
            import jinja2
            import user
            return user.main(loader or jinja2.FileSystemLoader(self.templates), name)

        return debug(work, set_all, commands)

    def user(self, mark):
        return "user.py", line_of(self.path, mark)

    def value(self, text, stop, server):
        from tdbg import evaluate

        result = evaluate.evaluate(text, stop.stack[stop.index][0])
        self.values.append(str(result.value) if result.ok else result.error)

    def values_of(self, place, *texts, **keywords):
        self.values = []

        def look(server, stop):
            for text in texts:
                self.value(text, stop, server)

        self.debug([look], places=[place], **keywords)
        return self.values

    def test_step_goes_through_all_templates(self):
        front_end = self.debug(["step_into"] * 60)
        places = [stop[1:] for stop in front_end.stops if stop[0] != "return"]
        end = places.index(self.user("after"))
        loop = [("page.html", 5), ("page.html", 6)]
        item = [("page.html", 7), ("macros.html", 1), ("macros.html", 3)]
        self.assertEqual(places[:end], [
            self.user("render"), ("page.html", 1), ("page.html", 2), ("macros.html", 1),
            ("base.html", 1), ("base.html", 2), ("page.html", 3)]
            + loop + loop + item + loop + item + loop[:1]
            + [("page.html", 11), self.user("loud"), self.user("loud-end"), ("base.html", 4),
               ("foot.html", 1), ("foot.html", 2)])

    def test_next_stays_in_its_template_or_block(self):
        front_end = self.debug(["step_over"] * 20, places=[("page.html", 5), ("base.html", 4)])
        self.assertEqual(front_end.places[:11], [
            ("page.html", line) for line in (5, 6, 5, 6, 7, 5, 6, 7, 5, 11)] + [("base.html", 4)])
        self.assertEqual(front_end.places[11], self.user("after"))

    def test_return_leads_out(self):
        def leave(server, stop):
            server.breakpoints.remove(self.set[0])
            server.step_out()
            return True

        front_end = self.debug([leave, "step_out", "step_out"], places=[("macros.html", 3)])
        self.assertEqual(front_end.places, [
            ("macros.html", 3), ("page.html", 5), ("base.html", 4), self.user("after")])

    def test_breakpoints_with_conditions_of_both_languages(self):
        front_end = self.debug(places=[
            ("page.html", 6, "n == 2"), ("page.html", 6, "numbers|length > 5"),
            ("page.html", 7, "[m for m in numbers if m == n] == [3]"), ("foot.html", 2)])
        self.assertEqual(front_end.stops, [
            ("breakpoint", "page.html", 6), ("breakpoint", "page.html", 7),
            ("breakpoint", "foot.html", 2)])
        self.assertEqual([bp.hits for bp in self.set], [3, 3, 2, 1])

    def test_a_breakpoint_moves_to_a_line_with_code(self):
        front_end = self.debug(places=[("page.html", 4)])
        self.assertEqual(front_end.places, [("page.html", 5)] * 4)
        self.assertEqual(self.set[0].line, 5)

    def test_a_loop_on_one_line(self):
        front_end = self.debug(name="loop.html",
                               places=[("loop.html", 1, "n == 2"), ("loop.html", 2)])
        self.assertEqual(front_end.places, [("loop.html", 1), ("loop.html", 2)])

    def test_the_stack(self):
        stack = self.debug(places=[("macros.html", 3)]).stacks[0]
        begin = stack.index(self.user("render"))
        self.assertEqual(stack[begin + 1:], [
            ("page.html", 2), ("base.html", 2), ("page.html", 7), ("macros.html", 3)])

    def test_expressions(self):
        self.assertEqual(self.values_of(
            ("page.html", 7), "n", "numbers|length", "n is divisibleby 2", "title|loud",
            "len(numbers)",
            "[m * n for m in numbers]", "nope", "1 +", "loop"), [
            "2", "3", "True", "HELLO!", "3", "[2, 4, 6]", "NameError: name 'nope' is not defined"]
            + self.values[7:])
        self.assertIn("SyntaxError", self.values[7])
        self.assertEqual(self.values[8], "NameError: name 'loop' is not defined")

    def test_variables(self):
        seen = []
        self.debug([lambda server, stop: seen.append(
            (stop.frame.f_locals, stop.frame.f_code.co_name))], places=[("page.html", 7)])
        names, title = seen[0]
        self.assertEqual(sorted(names), ["item", "n", "numbers", "title"])
        self.assertEqual((names["n"], names["title"], title), (2, "hello", "block body"))

    def test_templates_that_are_in_no_file(self):
        import jinja2

        def look(server, stop):
            server.breakpoints.add(server.breakpoints.find_file("page.html"), 11)
            self.assertEqual(u"".join(stop.frame.source().lines), TEMPLATES["page.html"])

        front_end = self.debug(["step_into", look], loader=jinja2.DictLoader(TEMPLATES))
        self.assertEqual(front_end.places,
                         [self.user("render"), ("page.html", 1), ("page.html", 11)])

    def test_a_template_of_a_text(self):
        import jinja2

        seen = []

        def look(server, stop):
            seen.append((stop.frame.f_code.co_filename, stop.frame.f_lineno,
                         stop.frame.source().lines[stop.frame.f_lineno - 1]))
            server.step_over()
            return True

        def work():
            first = jinja2.Template("{{ 1 }}\n{{ one }}")
            second = jinja2.Template("\n{{ two }}")
            return self.render(first) + self.render(second)

        def begin(server):
            code = type(self).render.__code__
            server.breakpoints.add(os.path.abspath(code.co_filename), code.co_firstlineno + 1)

        def into(server, stop):
            server.step_into()
            return True

        front_end = debug(work, begin, [into, look, "continue_run", into, look])
        self.assertEqual(front_end.result, "1\n1\n2")
        self.assertEqual(seen, [("<template>", 1, u"{{ 1 }}\n"), ("<template 2>", 1, u"\n")])

    def render(self, template):
        return template.render(one=1, two=2)

    def test_templates_of_before_tracing(self):
        import jinja2
        import user
        loader = jinja2.FileSystemLoader(self.templates)
        template = user.environment(loader).get_template("loop.html")
        front_end = debug(
            lambda: template.render(numbers=[1, 2]),
            lambda server: server.breakpoints.add(self.template("loop.html"), 2))
        self.assertEqual(front_end.places, [("loop.html", 2)])

    def test_it_can_be_switched_off(self):
        front_end = self.debug(places=[("user.py", "loud")], begin=(
            lambda server: server.languages.set_ready("jinja2", False)))
        self.assertIn("environment.py", [place[0] for place in front_end.stacks[0]])
        self.assertEqual(front_end.server.languages.ready(), {"jinja2": "off"})
        self.assertRaises(KeyError, front_end.server.languages.set_ready, "nope", True)

    def test_nothing_of_it_is_noticed(self):
        import jinja2
        import user
        loader = jinja2.FileSystemLoader(self.templates)
        plain = user.main(loader, "page.html")
        self.assertEqual(self.debug(["step_into"] * 100).result, plain)
        self.assertEqual(self.debug(places=[("foot.html", 1)]).result, plain)


class PromptTest(JinjaCase):
    def run_in(self, commands, template="page.html"):
        program = self.make_file("prog.py", (
            "import jinja2\nimport user\n"
            "user.main(jinja2.FileSystemLoader({!r}), {!r})\n").format(self.templates, template),
                                 self.folder)
        path = os.pathsep.join([python_path(), self.library])
        self.done = run_commands(commands, program, env={"PYTHONPATH": path}, cwd=self.folder)
        return [text.replace(self.folder + "/", "") for text in self.done.out.split(PROMPT)[1:]]

    def test_a_session(self):
        shown = self.run_in([
            "break templates/page.html:7", "continue", "where", "list 5, 7", "p n",
            "p numbers|length", "step", "continue", "next", "quit"])
        self.assertEqual(shown[0], "Breakpoint 1 at templates/page.html:7\n")
        self.assertEqual(shown[1], "--Breakpoint 1--\n> templates/page.html(7)block body\n"
                                   "-> {{ item(n) }}\n")
        self.assertRegex(shown[2], r"user.py\(\d+\)main\(\)\n-> text = .*\n"
                                   r"(.*\n)*  templates/base.html\(2\)base.html\n"
                                   r"-> {% block body %}\n"
                                   r"> templates/page.html\(7\)block body\n-> {{ item\(n\) }}\n$")
        self.assertIn("  6    \t  {% if n > 1 %}\n  7  ->\t    {{ item(n) }}\n", shown[3])
        self.assertEqual(shown[4:6], ["2\n", "3\n"])
        self.assertEqual(shown[6], "> templates/macros.html(1)macro\n-> {% macro item(value) %}\n")
        self.assertIn("--Breakpoint 1--", shown[7])
        self.assertEqual(shown[8],
                         "> templates/page.html(5)block body\n-> {% for n in numbers %}\n")

    def test_switching(self):
        shown = self.run_in([
            "languages", "languages jinja2 off", "languages", "languages jinja2", "languages x on",
            "next", "languages jinja2 on", "languages jinja2 off", "languages",
            "break templates/foot.html:1", "continue", "quit"])
        self.assertEqual(shown[:5] + shown[6:9], [
            "jinja2: waits\n", "", "jinja2: off\n",
            "*** languages needs a name and `on` or `off`\n", "*** no language x\n", "",
            "*** jinja2 has been imported\n", "jinja2: on\n"])
        self.assertIn("> templates/foot.html(1)foot.html\n", shown[10])

    def test_an_error_in_a_template(self):
        shown = self.run_in(["continue", "where", "continue"], "broken.html")
        self.assertIn("UndefinedError: 'nothing' is undefined", shown[0])
        self.assertIn("templates/broken.html(2)", shown[1])
        self.assertEqual(self.done.status, 1)
        self.assertIn("jinja2.exceptions.UndefinedError: 'nothing' is undefined", self.done.err)

    def test_conditions_that_wait_for_another_thread(self):
        """The core has most of them evaluated, the server those with a filter; the other thread is
        let go meanwhile, whatever the one that evaluates does."""
        program = self.make_file("asking.py", ASKING, self.folder)
        wait = self.template("wait.html")
        conditions = ["job.naps == 'yes'", "job.spins == 'yes'", "job.spins|length == 3",
                      "job.waits == 'no'", "job.naps == 'no'"]
        commands = []
        for line, condition in enumerate(conditions, 1):
            commands += ["break {}:{}, {}".format(wait, line, condition), "continue"]
        done = run_commands(
            commands, program, self.templates, cwd=self.folder,
            env={"PYTHONPATH": os.pathsep.join([python_path(), self.library])})
        self.assertEqual(done.status, 0, done)
        stops = re.findall(r"--Breakpoint (\d)--\n> .*/wait.html\((\d)\)", done.out)
        self.assertEqual(stops, [("1", "1"), ("2", "2"), ("3", "3")], done)
        self.assertIn("ended", done.out)


class ProtocolTest(JinjaCase):
    def test_a_session(self):
        program = self.make_file("prog.py", (
            "import jinja2\nimport user\n"
            "user.main(jinja2.FileSystemLoader({!r}), 'page.html')\n").format(self.templates),
                                 self.folder)
        path = os.pathsep.join([python_path(), self.library])
        client = debug_directly(self, program, env={"PYTHONPATH": path})
        page = self.template("page.html")
        client.start_session(breakpoints={page: [{"line": 7, "condition": "n > 2"}]})
        stop = client.wait_stopped("breakpoint")
        frames = client.stack(stop["threadId"])
        self.assertEqual((frames[0]["source"]["path"], frames[0]["line"]), (page, 7))
        self.assertEqual(client.evaluate("numbers|length", frames[0]["id"]), "3")
        self.assertEqual(client.locals_of(frames[0]["id"])["n"], "3")
        for command, name, line in [("stepIn", "macros.html", 1), ("stepOut", "page.html", 5),
                                    ("next", "page.html", 11), ("stepIn", "user.py", 4)]:
            client.request(command, {"threadId": stop["threadId"]})
            client.wait_stopped("step")
            frame = client.stack(stop["threadId"])[0]
            self.assertEqual((os.path.basename(frame["source"]["path"]), frame["line"]),
                             (name, line))
        client.resume(stop["threadId"])
        self.assertEqual(client.wait_exit(), 0)


if __name__ == "__main__":
    unittest.main()
