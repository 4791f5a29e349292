"""The part of tests/run.py that runs under the interpreter being tested.

  child.py compile                 byte-compile what the tests start again and again
  child.py list RESULT FILE...     write the tests of the files
  child.py serve FOLDER ORDERS ANSWERS
                                   fork a process for each test of the folder that is ordered

RESULT is a file that gets one JSON object, written in one go when all is done: the test's own
output may be anything, and a test that takes the process down leaves no result.

ORDERS and ANSWERS are descriptors. The server has imported what every test needs and no more, and
no test: to start an interpreter for each would take several times as long as most of them. Orders
are lines of JSON:

  {"order": "file", "path": PATH}  what follows is of this file: a fork of the server imports it and
                                   serves, until {"order": "end"} or the end of the orders
  {"order": "test", "test": TEST, "folder": FOLDER}
                                   run a test in a process of its own, in that folder, where
                                   "result" and "output" are written; answer: its process number
  {"order": "reap"}                wait for that process, and not before; answer: its status, as of
                                   waitpid, and its processor seconds with those of its children
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
    command, rest = argv[0], argv[1:]
    if command == "compile":
        compile_sources()
        return 0
    expect_signals()
    if command == "list":
        set_up_path(os.path.dirname(os.path.abspath(rest[1])))
        write_result(rest[0], list_tests(rest[1:]))
        return 0
    set_up_path(os.path.abspath(rest[0]))
    order = serve(int(rest[1]), int(rest[2]))
    if order["order"] == "test":  # in the process for it, which ends as any program does
        write_result(os.path.join(order["folder"], "result"), run_test(str(order["test"])))
    return 0


def expect_signals():
    """Whoever runs the tests in the background may ignore these; the tests send them."""
    signal.signal(signal.SIGHUP, signal.SIG_DFL)
    if signal.getsignal(signal.SIGINT) == signal.SIG_IGN:
        signal.signal(signal.SIGINT, signal.default_int_handler)


# --- compiling ------------------------------------------------------------------------------


def compile_sources():
    """Where it can be written. Of 2.7, which writes beside the sources, the debugger alone."""
    import compileall
    folders = [os.path.join(os.path.dirname(_tests), "debug")]
    if sys.version_info[0] > 2:
        folders += [os.path.join(_tests, "support"), os.path.join(_tests, "py")]
    for folder in folders:
        compileall.compile_dir(folder, quiet=1)


# --- listing --------------------------------------------------------------------------------


def list_tests(files):
    """{"tests": [{"id", "limit", "unsupported", "once", "per_version"}], "broken":
    [[module, status, text]]}"""
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
        "once_when_quick": getattr(sys.modules[module], "kOnceWhenQuick", False),
        "not_when_quick": getattr(sys.modules[module], "kNotWhenQuick", False),
    }


def is_marked(case, method, name):
    return bool(getattr(method, name, False) or getattr(case, name, False))


# --- serving --------------------------------------------------------------------------------


def serve(orders, answers):
    """Obey orders until they end; the last one. In the process for a test that is the test's."""
    import support  # noqa: F401: for the tests
    served_file = False
    pid = None
    while True:
        order = read_order(orders)
        kind = order["order"]
        if kind == "file":
            child = os.fork()
            if child == 0:
                served_file = True
                import_tests(order["path"])
            else:
                os.waitpid(child, 0)  # a file that takes it down is served from here
        elif kind == "test":
            pid = os.fork()
            if pid == 0:
                os.close(orders)
                os.close(answers)
                enter(order["folder"])
                return order
            answer(answers, str(pid))
        elif kind == "reap":
            _, status, used = os.wait4(pid, 0)
            answer(answers, "{} {}".format(status, used.ru_utime + used.ru_stime))
        elif served_file:
            os._exit(0)
        else:
            return order


def read_order(orders):
    """The next one; at their end it is "end"."""
    line = b""
    while not line.endswith(b"\n"):
        byte = os.read(orders, 1)  # no more: the rest may be for another process
        if not byte:
            return {"order": "end"}
        line += byte
    return json.loads(line.decode("utf-8"))


def answer(answers, text):
    os.write(answers, text.encode("ascii") + b"\n")


def import_tests(path):
    try:
        __import__(os.path.splitext(os.path.basename(path))[0])
    except BaseException:  # the test tells
        pass
    sys.stdout.flush()  # or each fork would write it, too
    sys.stderr.flush()


def enter(folder):
    """Make this process a session of its own, which works in the folder and writes there."""
    os.setsid()
    os.chdir(folder)
    output = os.open("output", os.O_WRONLY | os.O_CREAT | os.O_TRUNC, 0o666)
    os.dup2(output, 1)
    os.dup2(output, 2)
    os.close(output)


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
