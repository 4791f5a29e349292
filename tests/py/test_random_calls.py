"""Random calls of the module's functions while a program is traced: nothing may crash or hang.

Every day has its own seed.  TDBG_RANDOM_SEED sets another one, TDBG_RANDOM_CALLS another number of
calls (./check --quick makes fewer): both are in the message of a failure.
"""
from __future__ import absolute_import, division, print_function

import datetime
import os
import unittest

from support import TestCase, library_path, run_script, time_limit
from support import randomcalls, sanitized
from support.programs import python_path

kProgram = os.path.join(os.path.dirname(os.path.abspath(randomcalls.__file__)), "randomcalls.py")
kCalls = 100000
kChildren = 4  # each makes its share; they run side by side
kSeconds = 200  # the machine may be busy with other tests


def seed_of_today():
    return int(os.environ.get("TDBG_RANDOM_SEED") or datetime.date.today().strftime("%Y%m%d"))


def calls_of_one_child():
    return int(os.environ.get("TDBG_RANDOM_CALLS") or kCalls) // kChildren


class Calls(TestCase):
    def run_calls(self, seed, env):
        print("seed {}, {} calls".format(seed, calls_of_one_child()))
        journal = os.path.join(self.make_dir(), "journal")
        randomcalls.create_journal(journal)
        done = run_script(kProgram, str(seed), str(calls_of_one_child()), journal, env=env,
                          seconds=kSeconds)
        if done.status != 0:
            self.fail("seed {}: {}\n--- the last calls\n{}\n{}".format(
                seed, "timed out" if done.timed_out else "status {}".format(done.status),
                randomcalls.read_journal(journal), done))
        self.assertIn("seed {}".format(seed), done.out)


class RandomCalls(Calls):
    def run_part(self, part):
        library_path()  # skips without one
        self.run_calls(seed_of_today() * 10 + part, {"PYTHONPATH": python_path()})


class Sanitized(Calls):
    """The same with a library that watches over its memory."""

    def run_part(self, part):
        env = sanitized.environment()
        env["PYTHONPATH"] = env["TDBG_LIB_DIR"]
        self.run_calls(seed_of_today() * 10 + kChildren + part, env)


def make_test(part):
    @time_limit(kSeconds + 10)
    def test(self):
        self.run_part(part)
    return test


for _class in (RandomCalls, Sanitized):
    for _part in range(kChildren):
        setattr(_class, "test_part_{}".format(_part + 1), make_test(_part))

if not sanitized.is_under_test:
    del Sanitized
del _class


if __name__ == "__main__":
    unittest.main()
