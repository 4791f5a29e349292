"""Random calls of the module's functions while a program is traced: nothing may crash or hang.

Every day has its own seed.  TDBG_RANDOM_SEED sets another one, TDBG_RANDOM_CALLS another number of
calls: both are in the message of a failure.
"""
from __future__ import absolute_import, division, print_function

import datetime
import os
import unittest

from support import TestCase, library_path, run_script, time_limit
from support import randomcalls, sanitized
from support.programs import python_path

kProgram = os.path.join(os.path.dirname(os.path.abspath(randomcalls.__file__)), "randomcalls.py")
kCalls = 20000  # as many as ten seconds allow; TDBG_RANDOM_CALLS for a longer hunt
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


class Sanitized(Calls):
    """The same with a library that watches over its memory."""

    @time_limit(kSeconds + 10)
    def test_sanitized(self):
        env = sanitized.environment()
        env["PYTHONPATH"] = env["TDBG_LIB_DIR"]
        self.run_calls(kChildren, number_of_calls(kSanitizedCalls), env)


if not sanitized.is_under_test:
    del Sanitized


if __name__ == "__main__":
    unittest.main()
