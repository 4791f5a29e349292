"""tests/run.py tells passed, failed, skipped, crashed and hanging tests apart."""
from __future__ import absolute_import, division, print_function

import io
import json
import os
import sys

from support import REPOSITORY, TestCase, capability, needs, once, run_program

kAlone = """
import os, threading, unittest

left = []

class Alone(unittest.TestCase):
    def check(self):
        self.assertEqual(left, [])
        self.assertNotIn("LEFT", os.environ)
        self.assertEqual(threading.active_count(), 1)
        self.assertEqual(os.getsid(0), os.getpid())
        self.assertEqual([name for name in os.listdir(".") if name != "output"], [])
        left.append(1)
        os.environ["LEFT"] = "1"
        open("left", "w").close()
        thread = threading.Thread(target=threading.Event().wait)
        thread.daemon = True
        thread.start()

    def test_first(self):
        self.check()

    def test_second(self):
        self.check()
"""

kFatal = """
import os, sys, unittest

if "serve" in sys.argv:
    os.abort()

class Fatal(unittest.TestCase):
    def test_one(self):
        pass

    def test_two(self):
        pass
"""

kSample = """
import os, sys, unittest

class Sample(unittest.TestCase):
    def test_passes(self):
        print("not shown")

    def test_fails(self):
        print("the output")
        self.assertEqual(1, 2)

    @unittest.skip("the reason")
    def test_skips(self):
        pass

    @unittest.expectedFailure
    def test_fails_as_expected(self):
        self.fail("known")

    def test_dies(self):
        os.abort()

    def test_exits(self):
        os._exit(0)

    def test_hangs(self):
        import threading
        threading.Event().wait()
    test_hangs.tdbg_time_limit = 1

    def test_dies_afterwards(self):
        import atexit
        atexit.register(os.abort)
"""


@capability("pidfd")
def _pidfd():
    """What the runner itself needs; it starts any other interpreter."""
    return hasattr(os, "pidfd_open") and sys.version_info >= (3, 9)


@once
@needs("pidfd")
class Runner(TestCase):
    def run_sample(self, files, *options):
        folder = self.make_dir()
        for name, text in files.items():
            self.make_file(name, text, folder)
        report = os.path.join(folder, "report.json")
        self.done = run_program([
            sys.executable, os.path.join(REPOSITORY, "tests", "run.py"), "--python", sys.executable,
            "--no-lib", "--tests", folder, "--json", report, "--jobs", "2",
        ] + list(options))
        with io.open(report, encoding="utf-8") as source:
            rows = json.load(source)["results"]
        return {row["test"]: (row["status"], row["reason"]) for row in rows}

    def test_outcomes_are_told_apart(self):
        rows = self.run_sample({"test_sample.py": kSample})
        short = {name.rpartition(".")[2]: row for name, row in rows.items()}
        self.assertEqual({name: status for name, (status, _) in short.items()}, {
            "test_passes": "passed",
            "test_fails": "failed",
            "test_skips": "skipped",
            "test_fails_as_expected": "skipped",
            "test_dies": "failed",
            "test_exits": "failed",
            "test_hangs": "failed",
            "test_dies_afterwards": "failed",
        }, self.done)
        self.assertEqual(short["test_skips"][1], "the reason")
        self.assertEqual(short["test_fails_as_expected"][1], "known failure: known")
        self.assertIn("1 != 2", short["test_fails"][1])
        self.assertIn("killed by SIGABRT", short["test_dies"][1])
        self.assertIn("before the test ended", short["test_exits"][1])
        self.assertIn("timed out", short["test_hangs"][1])
        self.assertIn("killed by SIGABRT", short["test_dies_afterwards"][1])

    def test_last_line_and_status_tell_the_sum(self):
        self.run_sample({"test_sample.py": kSample})
        self.assertEqual(self.done.out.splitlines()[-1], "1 passed, 5 failed, 2 skipped")
        self.assertEqual(self.done.status, 1)
        self.assertIn("the output", self.done.out)
        self.assertNotIn("not shown", self.done.out)

    def test_what_is_left_out_to_be_quick(self):
        files = {"test_alone.py": kAlone, "test_slow.py": kAlone + "\nkNotWhenQuick = True\n",
                 "test_dear.py": kAlone + "\nkOnceWhenQuick = True\n"}
        for options, expected in ((["--quick"], {"alone", "dear"}), ([], {"alone", "dear", "slow"})):
            rows = self.run_sample(files, *options)
            self.assertEqual(set(name[len("test_"):].partition(".")[0] for name in rows), expected)

    def test_each_test_finds_a_process_without_the_others(self):
        rows = self.run_sample({"test_alone.py": kAlone})
        self.assertEqual([status for status, _ in rows.values()], ["passed"] * 2, self.done)

    def test_file_that_cannot_be_served_fails_alone(self):
        rows = self.run_sample({"test_alone.py": kAlone, "test_fatal.py": kFatal})
        statuses = {name.rpartition(".")[2]: status for name, (status, _) in rows.items()}
        self.assertEqual(statuses, {"test_first": "passed", "test_second": "passed",
                                    "test_one": "failed", "test_two": "failed"}, self.done)
        self.assertIn("killed by SIGABRT", rows["test_fatal.Fatal.test_one"][1])

    def test_file_that_cannot_be_imported_is_a_failure(self):
        rows = self.run_sample({"test_broken.py": "import no_such_module\n", "test_sample.py": ""})
        self.assertEqual([(name, row[0]) for name, row in rows.items()],
                         [("test_broken", "failed")])
        self.assertIn("no_such_module", rows["test_broken"][1])
