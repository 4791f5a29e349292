"""tools/fetch-interpreters and tools/interpreters.py, with an apt that is played here."""
from __future__ import absolute_import, division, print_function

import io
import json
import os
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
            "the archive does not answer: apt-get: E: Failed to fetch it  Could not connect to 127.0.0.1:9",
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
            self.assertEqual(source.read(), "update\nupdate\n")  # one for each suite, in the first run

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
