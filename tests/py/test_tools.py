"""tools/fetch-interpreters and tools/interpreters.py, with an apt that is played here;
tools/matrix.py."""
from __future__ import absolute_import, division, print_function

import io
import json
import os
import subprocess
import sys

from support import REPOSITORY, TestCase, capability, needs, once, run_program


@capability("runs_tools")
def _runs_tools():
    """The tools themselves are for the version that runs the tests, not for all tested ones."""
    return sys.version_info >= (3, 9)


@once
@needs("runs_tools")
class FetchInterpreters(TestCase):
    def setUp(self):
        self.cache = self.make_dir()
        self.bin = self.make_dir()

    def fetch(self, *arguments):
        script = os.path.join(REPOSITORY, "tools", "fetch-interpreters")
        return run_program([sys.executable, script] + list(arguments), env={
            "XDG_CACHE_HOME": self.cache, "PATH": self.bin + os.pathsep + os.environ["PATH"],
        })

    def play(self, program, script):
        path = self.make_file(program, "#!/bin/sh\n" + script, self.bin)
        os.chmod(path, 0o755)

    def states(self, *names):
        rows = json.loads(self.fetch("--list", "--json", *names).out)
        return {row["name"]: (row["ok"], row.get("reason")) for row in rows}

    def test_list_of_an_empty_cache_names_all_and_fetches_nothing(self):
        self.play("apt-get", "echo called >> " + os.path.join(self.bin, "log"))
        states = self.states()
        self.assertEqual(set(states.values()), {(False, "not fetched yet")})
        self.assertLessEqual({"debian-2.7-dbg-32", "debian-3.9-32", "debian-3.14-64"}, set(states))
        self.assertFalse(os.path.exists(os.path.join(self.bin, "log")))
        self.assertEqual(os.listdir(self.cache), [])

    def test_system_without_apt_gives_the_reason_for_each(self):
        self.play("apt-get", "exit 0")  # knows no archive
        self.play("apt-config", "exit 0")
        done = self.fetch()
        self.assertEqual(done.status, 0, done)
        for ok, reason in self.states().values():
            self.assertFalse(ok)
            self.assertIn("apt's configuration names no Debian archive", reason)

    def test_nothing_at_all_is_a_failure_when_strict(self):
        self.play("apt-get", "exit 0")
        self.assertEqual(self.fetch("--strict").status, 1)

    def test_silent_archive_is_asked_once(self):
        log = os.path.join(self.bin, "log")
        self.play("apt-get", """
            case "$*" in
            *indextargets*) echo "http://127.0.0.1:9/debian/|bookworm" ;;
            *update*) echo update >> {}
                      echo "E: Failed to fetch it  Could not connect to 127.0.0.1:9"; exit 100 ;;
            esac
            """.format(log))
        done = self.fetch()
        self.assertEqual(done.status, 0, done)
        with io.open(log) as source:
            self.assertEqual(source.read(), "update\n")
        reasons = {reason for _, reason in self.states().values()}
        self.assertEqual(reasons, {
            "the archive does not answer: apt-get: E: Failed to fetch it  Could not connect to "
            "127.0.0.1:9",
        })

    def test_package_that_is_not_in_the_archive_is_not_asked_for_again_soon(self):
        log = os.path.join(self.bin, "log")
        self.play("apt-get", """
            case "$*" in
            *indextargets*) echo "http://127.0.0.1:9/debian/|bookworm" ;;
            *update*) echo update >> {} ;;
            esac
            """.format(log))
        self.play("apt-cache", "exit 0")
        for _ in range(2):
            done = self.fetch("debian-3.15-64")
            self.assertEqual(done.status, 0, done)
        self.assertEqual(self.states("debian-3.15-64")["debian-3.15-64"], (
            False,
            "forky: no package python3.15 for amd64; sid: no package python3.15 for amd64",
        ))
        with io.open(log) as source:
            # one for each suite, in the first run
            self.assertEqual(source.read(), "update\nupdate\n")

    def test_unknown_name_is_an_error(self):
        done = self.fetch("debian-1.5")
        self.assertEqual(done.status, 2)
        self.assertIn("no interpreter of that name", done.err)


@once
@needs("runs_tools")
class Interpreters(TestCase):
    def find(self, *arguments):
        script = os.path.join(REPOSITORY, "tools", "interpreters.py")
        return run_program([sys.executable, script] + list(arguments))

    def test_path_is_described_by_the_interpreter_itself(self):
        done = self.find("--json", sys.executable)
        self.assertEqual(done.status, 0, done)
        (row,) = json.loads(done.out)
        self.assertEqual(tuple(row["version"]), sys.version_info[:3])
        self.assertEqual(row["bits"], 64 if sys.maxsize > 2 ** 32 else 32)
        self.assertEqual(row["debug"], hasattr(sys, "gettotalrefcount"))

    def test_what_does_not_run_is_an_error(self):
        done = self.find("/nonexistent/python")
        self.assertEqual(done.status, 2)
        self.assertIn("/nonexistent/python: does not start", done.err)


class tPlayed(object):
    """What tools/matrix.py looks at of an interpreter."""

    is_static = False

    def __init__(self, name, minor, bits=64, variant="release"):
        self.name, self.minor, self.bits, self.variant = name, minor, bits, variant
        self.version = tuple(int(part) for part in minor.split(".")) + (1,)
        self.libc, self.path = "glibc 2.31", sys.executable


def results(*statuses):
    return [{"test": "test_x.X.test_{}".format(number), "status": status}
            for number, status in enumerate(statuses)]


@once
@needs("runs_tools")
class Matrix(TestCase):
    def setUp(self):
        tools = os.path.join(REPOSITORY, "tools")
        sys.path.insert(0, tools)
        self.addCleanup(sys.path.remove, tools)
        import matrix
        self.matrix = matrix
        self.folder = self.make_dir()
        self.tree = os.path.join(self.folder, "tree")
        os.makedirs(os.path.join(self.tree, "docs"))
        subprocess.check_call(["git", "init", "-q", self.tree])
        self.library = self.make_file("library.so", "1", self.folder)
        self.source = self.make_file("source.cpp", "1", self.tree)

    def keep(self):
        return self.matrix.tKept(self.tree, os.path.join(self.folder, "build"), [self.library])

    def store(self, kept, item, *statuses):
        self.make_file(item.name + ".json", json.dumps({"results": results(*statuses)}),
                       kept.folder)

    def test_rows_are_good_while_nothing_changes(self):
        item = tPlayed("a", "3.9")
        kept = self.keep()
        self.assertIsNone(kept.rows_of(item))
        self.store(kept, item, "passed", "skipped")
        self.assertTrue(self.keep().is_good(item))
        self.make_file("matrix.md", "the page", os.path.join(self.tree, "docs"))
        self.assertTrue(self.keep().is_good(item))
        for path in (self.library, self.source):
            self.store(self.keep(), item, "passed")
            with io.open(path, "a") as out:
                out.write(u"2")
            self.assertFalse(self.keep().is_good(item))

    def test_row_with_a_failure_runs_again(self):
        item = tPlayed("a", "3.9")
        kept = self.keep()
        self.store(kept, item, "passed", "failed")
        self.assertEqual(len(kept.rows_of(item)), 2)
        self.assertFalse(kept.is_good(item))

    def test_row_is_older_than_its_interpreter(self):
        item = tPlayed("a", "3.9")
        kept = self.keep()
        self.store(kept, item, "passed")
        os.utime(os.path.join(kept.folder, "a.json"), (1, 1))
        self.assertIsNone(kept.rows_of(item))

    def page(self, items, rows, not_built=()):
        data, tests = (os.path.join(self.tree, "tests", name) for name in ("data", "py"))
        os.makedirs(data)
        os.makedirs(tests)
        self.make_file("test_x.py", "kOncePerVersion = True\n", tests)
        self.make_file("layouts.json", json.dumps({"rows": [
            {"version": "3.12", "bits": 32, "variant": "release"}]}), data)
        self.matrix.write(self.tree, items, rows, set(not_built), [(2, "no x|y", "a")])
        with io.open(os.path.join(self.tree, "docs", "matrix.md"), encoding="utf-8") as page:
            return page.read()

    def test_page_has_no_empty_cell(self):
        items = [tPlayed("a", "3.9"), tPlayed("b", "2.7", 32, "trace_refs")]
        page = self.page(items, {"a": results("passed", "failed", "passed", "skipped")},
                         [("3.14", "trace_refs")])
        cells = {tuple(line.split(" | ")[:2]): line.strip("|\n").split(" | ")[2:]
                 for line in page.split("## C libraries")[0].splitlines()
                 if line.startswith(("| 2.", "| 3."))}
        self.assertEqual(len(cells), 2 * len(self.matrix.kVersions))
        for row in cells.values():
            self.assertEqual(len(row), len(self.matrix.kVariants))
            self.assertNotIn("", [cell.strip() for cell in row])
        self.assertEqual(cells["| 3.9", "64"][0].strip(), "2 / 1 (glibc 2.31)")
        letter, place = cells["| 2.7", "32"][1].split(None, 1)
        self.assertEqual(place, "(glibc 2.31)")
        self.assertIn("- **{}**: {}".format(letter, self.matrix.kNotFinished), page)
        self.assertEqual(cells["| 3.9", "64"][3].strip(), self.matrix.kDash)
        for letter in {cell.strip() for row in cells.values() for cell in row
                       if len(cell.strip()) == 1}:
            if letter != self.matrix.kDash:
                self.assertIn("- **{}**: ".format(letter), page)
        self.assertIn("| 2 | 1 | 1 | 4 | a |", page)
        self.assertIn("- a: test_x.X.test_1\n", page)
        self.assertIn("| 2 | no x\\|y | a |", page)

    def test_reasons_tell_what_stands_for_the_missing(self):
        why = self.matrix.why_missing
        self.assertIn("nothing but names", why("2.6", 64, "release", set(), set()))
        self.assertIn("nothing but names", why("3.4", 32, "trace_refs", set(), set()))
        self.assertIn("neighbour", why("3.12", 32, "release", set(), set()))
        self.assertNotIn("offsets", why("3.12", 32, "release", set(), set()))
        self.assertIn("offsets", why("3.12", 32, "release", {("3.12", 32, "release")}, set()))
        lock_off = why("3.14", 64, "free_threaded_no_lock", {("3.14", 64, "free_threaded")},
                       {("3.14", "free_threaded")})
        self.assertIn("source package", lock_off)
        self.assertIn("offsets", lock_off)
