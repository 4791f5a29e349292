"""bench/run and bench/chart run to their end and fill their page;
what they measure is not judged."""
from __future__ import absolute_import, division, print_function

import importlib
import io
import os
import sys
import xml.dom.minidom

from support import REPOSITORY, TestCase, capability, library_path, needs, once, run_program

kNotWhenQuick = True
kBench = os.path.join(REPOSITORY, "bench")


@capability("runs_bench")
def _runs_bench():
    """The bench itself is for the version that runs the tests, not for all measured ones."""
    return sys.version_info >= (3, 9)


def read(path):
    with io.open(path, encoding="utf-8") as source:
        return source.read()


def load_from_bench(test, name):
    sys.path.insert(0, kBench)
    test.addCleanup(sys.path.remove, kBench)
    return importlib.import_module(name)


@once
@needs("runs_bench")
class Bench(TestCase):
    def run_bench(self, script, *arguments):
        done = run_program([sys.executable, os.path.join(kBench, script), "--quick",
                            "--rounds", "1", "--lib", os.path.dirname(library_path()), "--python",
                            sys.executable]
                           + list(arguments))
        self.assertEqual(done.status, 0, done)
        return done

    def test_all_tables_are_printed_and_put_into_the_page(self):
        page = self.make_file("page.md", "above\n<!-- figures: begin -->\nstale\n"
                                         "<!-- figures: end -->\nbelow\n")
        results = os.path.join(os.path.dirname(page), "results.json")
        arguments = ["--page", page, "--results", results, "line_loop"]
        text = self.run_bench("run", *arguments).out
        self.assertEqual(text.count("\n| interpreter |"), 4, text)
        for heading in ["Workloads, ", "Breakpoints, the goals", "Hot function",
                        "What is paid once"]:
            self.assertIn("\n" + heading, "\n" + text)
        written = read(page)
        self.assertIn(text.strip(), written)
        self.assertNotIn("stale", written)
        self.assertTrue(written.startswith("above\n") and written.endswith("\nbelow\n"), written)
        again = self.run_bench("run", *arguments)  # measures nothing: all is in the results
        self.assertEqual(again.out, text)

    def test_chart_has_a_curve_for_each_debugger(self):
        picture = os.path.join(self.make_dir(), "chart.svg")
        text = self.run_bench("chart", "--svg", picture).out
        self.assertIn("tracer, breakpoints in other files:", text)
        drawn = xml.dom.minidom.parse(picture)
        self.assertEqual(len(drawn.getElementsByTagName("polyline")), 2)

    def test_program_whose_debugger_has_gone(self):
        text = self.run_bench("detached").out
        row = text.splitlines()[2]
        self.assertEqual(len(row.split(" | ")), 6, text)
        self.assertRegex(row, r"\| \d+\.\d\d \| \d+\.\d\d \|")

    def test_interpreter_that_fails_is_told_below_the_table(self):
        python = os.path.join(self.make_dir(), "version", "bin", "python")
        os.makedirs(os.path.dirname(python))
        with open(python, "w") as out:
            out.write("#!/bin/sh\n[ \"$1\" = -c ] && exec {} \"$@\"\n"
                      "echo no $1 here >&2\nexit 3\n".format(sys.executable))
        os.chmod(python, 0o755)
        done = run_program([
            sys.executable, os.path.join(kBench, "detached"), "--quick", "--lib",
            os.path.dirname(library_path()), "--python", python])
        self.assertEqual(done.status, 1, done)
        self.assertIn("FAILED version: it ended with status 3 and wrote ''\nno ", done.out)
        self.assertIn("leftalone.py here\n", done.out)

    def test_interpreter_that_is_not_there_is_an_error(self):
        done = run_program([sys.executable, os.path.join(kBench, "chart"), "--python", "no-such"])
        self.assertEqual(done.status, 1)
        self.assertIn("no such interpreter", done.err)


@once
@needs("runs_bench")
class Driver(TestCase):
    def test_name_for_debug_builds_may_appear_meanwhile(self):
        driver = load_from_bench(self, "driver")
        folder = self.make_dir()
        link = os.symlink
        looks = []

        def link_as_second(target, name):
            if not looks:
                link(target, name)  # another one has come first
            looks.append(name)
            link(target, name)

        self.addCleanup(setattr, os, "symlink", link)
        os.symlink = link_as_second
        for _ in range(2):
            driver.link_debug_name(folder)
            self.assertEqual(os.readlink(os.path.join(folder, "tdbgtracer_d.so")), "tdbgtracer.so")
        self.assertEqual(os.listdir(folder), ["tdbgtracer_d.so"])
        self.assertTrue(looks)


@once
@needs("runs_bench")
class Tables(TestCase):
    def setUp(self):
        self.tables = load_from_bench(self, "tables")

    def test_columns_without_a_value_are_left_out(self):
        table = self.tables.make_table(["a", "b", "c"], [["1", "", ""], ["2", "", "3"]])
        self.assertEqual(table, "| a | c |\n| --- | --- |\n| 1 | - |\n| 2 | 3 |\n")

    def test_missed_goal_is_bold(self):
        row = {name: 1e-8 for name in (
            "untraced", "empty", "none", "others 1", "others 100", "others 10000", "same file",
            "elsewhere", "condition", "imports, 1", "imports, 10000", "set, others", "set, loaded",
            "memory, breakpoint", "memory, empty", "stop, tracer")}
        row.update({"bdb elsewhere": 1e-6, "bdb condition": 1e-6})
        good = {name: {"min": value, "median": value} for name, value in row.items()}
        bad = dict(good, **{"others 100": {"min": 2e-8, "median": 2e-8}})
        figures = [(name, self.tables.Figures(f)) for name, f in [("good", good), ("bad", bad)]]
        lines = self.tables.goal_table(figures).splitlines()
        self.assertNotIn("**", lines[2])
        self.assertEqual(lines[3].count("**"), 2)
        self.assertIn("| bad | **2.00** | 1.00 |", lines[3])

    def test_page_without_a_place_is_an_error(self):
        page = self.make_file("page.md", "nothing\n")
        with self.assertRaises(SystemExit):
            self.tables.replace_in_page(page, "text")
        self.assertEqual(read(page), "nothing\n")
