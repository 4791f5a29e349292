"""A threaded program under the tracer for a minute (soak.py): nothing is left over at the end.

TDBG_SOAK_SECONDS sets another time; the seed is that of the day, or TDBG_RANDOM_SEED.
"""
from __future__ import absolute_import, division, print_function

import datetime
import json
import os
import sys
import unittest

from support import TestCase, has, library_path, needs, run_script, time_limit
from support import soak
from support.programs import TESTS, python_path

kNotWhenQuick = True
kProgram = os.path.join(TESTS, "support", "soak.py")
kSeconds = 60
kLimit = 400  # the least number of samples takes longer on a busy machine

# It takes long: one interpreter of each word size is enough.
is_under_test = not has("total_refcount") and not has("free_threaded") and (
    sys.version_info[:2] == ((3, 11) if has("64bit") else (3, 14)))


class Soak(TestCase):
    @needs("fork")
    @time_limit(kLimit + 10)
    def test_nothing_grows(self):
        library_path()  # skips without one
        seconds = os.environ.get("TDBG_SOAK_SECONDS") or str(kSeconds)
        seed = os.environ.get("TDBG_RANDOM_SEED") or datetime.date.today().strftime("%Y%m%d")
        done = run_script(kProgram, seconds, seed, env={"PYTHONPATH": python_path()},
                          seconds=kLimit)
        self.assertEqual((done.status, done.timed_out), (0, False), done)
        told = json.loads(done.out.splitlines()[-1])
        self.assertEqual(told["failures"], [], "seed " + seed)
        for name in ("line", "return", "exception", "pause", "fork", "reload", "clear_break"):
            self.assertGreater(told["counts"].get(name, 0), 0, (name, told["counts"]))
        grown = told["grown"]
        for name in ("descriptors", "tasks", "threads"):
            self.assertEqual(grown[name], 0, (name, seed, told["samples"]))
        for name, slack in (("heap", soak.kHeapSlack), ("resident", soak.kResidentSlack),
                            ("objects", soak.kObjectSlack)):
            self.assertLess(grown.get(name, 0), slack, (name, seed, told["samples"]))


class Measuring(unittest.TestCase):
    def test_growth_is_that_of_the_last_third(self):
        samples = [{"heap": number} for number in (9, 9, 9, 1, 2, 3, 11, 12, 13)]
        self.assertEqual(soak.growth(samples), {"heap": 10})


if not is_under_test:
    del Soak


if __name__ == "__main__":
    unittest.main()
