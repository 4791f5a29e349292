"""The part of tests/run.py that runs under the interpreter being tested.

  child.py list RESULT FILE...   write the tests of the files
  child.py run RESULT FILE TEST  run one test of the file and write how it went

RESULT is a file that gets one JSON object, written in one go when all is done: the test's own
output may be anything, and a test that takes the process down leaves no result.
"""
from __future__ import absolute_import, division, print_function

import io
import json
import os
import signal
import sys
import traceback
import unittest

_here = os.path.dirname(os.path.abspath(__file__))
_tests = os.path.dirname(_here)


def set_up_path(test_dir):
    """The script's own directory is no place to import from; the tests' directories are."""
    sys.path[:] = [entry for entry in sys.path if os.path.abspath(entry or os.curdir) != _here]
    debugger = os.path.join(os.path.dirname(_tests), "debug")
    sys.path[:0] = [test_dir, _tests, debugger]


def write_result(path, result):
    part = path + ".part"
    with io.open(part, "wb") as out:
        out.write(json.dumps(result).encode("utf-8"))
    os.rename(part, path)


def main(argv):
    command, result_path, rest = argv[0], argv[1], argv[2:]
    set_up_path(os.path.dirname(os.path.abspath(rest[0])))
    expect_signals()
    result = list_tests(rest) if command == "list" else run_test(rest[1])
    write_result(result_path, result)
    return 0


def expect_signals():
    """Whoever runs the tests in the background may ignore these; the tests send them."""
    signal.signal(signal.SIGHUP, signal.SIG_DFL)
    if signal.getsignal(signal.SIGINT) == signal.SIG_IGN:
        signal.signal(signal.SIGINT, signal.default_int_handler)


# --- listing --------------------------------------------------------------------------------


def list_tests(files):
    """{"tests": [{"id", "limit", "unsupported", "once", "per_version"}], "broken": [[module, status, text]]}"""
    listed = {"tests": [], "broken": []}
    for path in files:
        module = os.path.splitext(os.path.basename(path))[0]
        try:
            __import__(module)
        except unittest.SkipTest as why:
            listed["broken"].append([module, "skipped", str(why)])
        except BaseException:  # a file that calls sys.exit() is broken, too
            listed["broken"].append([module, "failed", traceback.format_exc()])
        else:
            listed["tests"].extend(describe(module, case) for case in cases_of(sys.modules[module]))
    return listed


def cases_of(module):
    suite = unittest.defaultTestLoader.loadTestsFromModule(module)
    pending = [suite]
    while pending:
        item = pending.pop(0)
        if isinstance(item, unittest.TestSuite):
            pending[:0] = list(item)
        else:
            yield item


def describe(module, case):
    name = case.id().rpartition(".")[2]
    method = getattr(case, name, None)
    return {
        "id": "{}.{}.{}".format(module, type(case).__name__, name),
        "limit": getattr(method, "tdbg_time_limit", getattr(case, "tdbg_time_limit", None)),
        "unsupported": is_marked(case, method, "tdbg_unsupported_versions"),
        "once": is_marked(case, method, "tdbg_once"),
        "per_version": getattr(sys.modules[module], "kOncePerVersion", False),
    }


def is_marked(case, method, name):
    return bool(getattr(method, name, False) or getattr(case, name, False))


# --- running --------------------------------------------------------------------------------


class Outcome(unittest.TestResult):
    """Keeps the first thing that went wrong, or why the test was skipped."""

    def __init__(self):
        unittest.TestResult.__init__(self)
        self.failed, self.skipped_because = [], None

    def addSkip(self, test, reason):
        self.skipped_because = reason

    def addError(self, test, err):
        self.failed.append(self.text_of(test, err))

    addFailure = addError

    def addSubTest(self, test, subtest, err):
        if err is not None:
            self.failed.append("{}\n{}".format(subtest, self.text_of(test, err)))

    def addExpectedFailure(self, test, err):
        self.skipped_because = "known failure: {}".format(err[1])

    def addUnexpectedSuccess(self, test):
        self.failed.append("passed, but is marked as an expected failure\n")

    def text_of(self, test, err):
        return self._exc_info_to_string(err, test)


def run_test(test_id):
    """{"status": passed, failed or skipped, "reason": text}"""
    try:
        suite = unittest.defaultTestLoader.loadTestsFromName(test_id)
    except Exception:
        return {"status": "failed", "reason": traceback.format_exc()}
    outcome = Outcome()
    watch_for_hangs()
    suite.run(outcome)
    sys.stdout.flush()
    if outcome.failed:
        return {"status": "failed", "reason": "\n".join(outcome.failed)}
    if outcome.skipped_because is not None:
        return {"status": "skipped", "reason": outcome.skipped_because}
    if outcome.testsRun != 1:
        return {"status": "failed", "reason": "{} tests ran".format(outcome.testsRun)}
    return {"status": "passed", "reason": ""}


def watch_for_hangs():
    """Say where a crash or, on the runner's signal, a hang is; nothing where there is no module."""
    try:
        import faulthandler
    except ImportError:
        return
    faulthandler.enable()
    faulthandler.register(signal.SIGUSR2)


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
