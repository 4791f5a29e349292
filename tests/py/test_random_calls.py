"""Random calls of the module's functions while a program is traced: nothing may crash or hang.

Every day has its own seed.  TDBG_RANDOM_SEED sets another one, TDBG_RANDOM_CALLS another number of
calls: both are in the message of a failure.
"""
from __future__ import absolute_import, division, print_function

import datetime
import os
import subprocess
import sys
import unittest

from support import TestCase, has, library_path, run_script, time_limit
from support import randomcalls
from support.programs import python_path

kProgram = os.path.join(os.path.dirname(os.path.abspath(randomcalls.__file__)), "randomcalls.py")
kCalls = 100000
kChildren = 4
kSanitizedCalls = 10000
kSeconds = 110  # the machine may be busy with other tests


def seed_of_today():
    return int(os.environ.get("TDBG_RANDOM_SEED") or datetime.date.today().strftime("%Y%m%d"))


def number_of_calls(usual):
    return int(os.environ.get("TDBG_RANDOM_CALLS") or usual)


class Calls(TestCase):
    def run_calls(self, part, calls, env):
        seed = seed_of_today() * 10 + part
        print("seed {}, {} calls".format(seed, calls))
        journal = os.path.join(self.make_dir(), "journal")
        randomcalls.create_journal(journal)
        done = run_script(kProgram, str(seed), str(calls), journal, env=env, seconds=kSeconds)
        if done.status != 0:
            self.fail("seed {}: {}\n--- the last calls\n{}\n{}".format(
                seed, "timed out" if done.timed_out else "status {}".format(done.status),
                randomcalls.read_journal(journal), done))
        self.assertIn("seed {}".format(seed), done.out)


class RandomCalls(Calls):
    def run_part(self, part):
        library_path()  # skips without one
        self.run_calls(part, number_of_calls(kCalls) // kChildren, {"PYTHONPATH": python_path()})


def make_test(part):
    @time_limit(kSeconds + 10)
    def test(self):
        self.run_part(part)
    return test


for _part in range(kChildren):
    setattr(RandomCalls, "test_part_{}".format(_part + 1), make_test(_part))


def path_of_runtime(name):
    """The sanitizer's library as the compiler names it; None when there is none."""
    try:
        path = subprocess.check_output(["gcc", "-print-file-name=lib{}.so".format(name)])
    except (OSError, subprocess.CalledProcessError):
        return None
    path = path.decode("ascii", "replace").strip()
    return path if os.path.isabs(path) else None


class Sanitized(Calls):
    """The same with a library that watches over its memory (TDBG_ASAN_LIB_DIR)."""

    @time_limit(kSeconds + 10)
    def test_sanitized(self):
        folder = os.environ.get("TDBG_ASAN_LIB_DIR")
        if not folder or not os.path.exists(os.path.join(folder, "tdbgtracer.so")):
            self.skipTest("no sanitized library (TDBG_ASAN_LIB_DIR)")
        runtimes = [path_of_runtime("asan"), path_of_runtime("ubsan")]
        if None in runtimes:
            self.skipTest("no run-time library of the sanitizers")
        self.run_calls(kChildren, number_of_calls(kSanitizedCalls), {
            "PYTHONPATH": folder, "PYTHONMALLOC": "malloc", "LD_PRELOAD": " ".join(runtimes),
            "ASAN_OPTIONS": "detect_leaks=0", "UBSAN_OPTIONS": "print_stacktrace=1"})


# One interpreter is enough, and the others are not to report a skip each.
if sys.version_info[:2] != (3, 11) or not has("64bit") or has("total_refcount"):
    del Sanitized


if __name__ == "__main__":
    unittest.main()
