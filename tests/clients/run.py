#!/usr/bin/env python3
"""Test the debugger through the clients that people use: editors, and the protocol's own.

The acceptance suite runs in node, once for each version of the debugged program; editors.py and its
neighbours run once.  What a client needs and is not there is a skip with the reason.  Packages from
npm go into build/clients.

  tests/clients/run.py                          everything
  tests/clients/run.py acceptance --python 3.11
"""

import argparse
import concurrent.futures
import importlib
import json
import os
import subprocess
import sys
import time
import unittest

kHere = os.path.dirname(os.path.abspath(__file__))
kRepository = os.path.dirname(os.path.dirname(kHere))
sys.dont_write_bytecode = True
sys.path.insert(0, os.path.join(kRepository, "tools"))
sys.path.insert(0, kHere)
import interpreters as finder  # noqa: E402
import packages  # noqa: E402

kPackages = os.path.join(kRepository, "build", "clients")
kSuiteSeconds = 300
kVersions = ("2.7", "3.6", "3.9", "3.11", "3.13", "3.14")
kAtOnce = 2
kSuite = "acceptance"
kModules = tuple(sorted(
    name[:-3] for name in os.listdir(kHere) if name.startswith("test_") and name.endswith(".py")))


def row(where, test, status, reason="", output=""):
    return {"interpreter": where, "test": test, "status": status, "reason": reason,
            "output": output}


# --- the acceptance suite -----------------------------------------------------------------------


def choose(wanted):
    """{version: path or None}; wanted: versions or paths, nothing for all."""
    chosen = {name: name for name in wanted if os.sep in name}
    found = [item for item in finder.find_interpreters()
             if item.supported and item.bits == 64 and item.variant == "release"
             and not item.is_built]
    for version in kVersions:
        if not wanted or version in wanted:
            paths = [item.path for item in found if item.minor == version]
            chosen[version] = paths[0] if paths else None
    return chosen


def run_suite(version, path, library, why_not):
    where = "clients, program under " + version
    if path is None:
        why_not = why_not or "no interpreter of version {}".format(version)
    if why_not is not None:
        return [row(where, kSuite, "skipped", why_not)]
    environment = dict(
        os.environ, NODE_PATH=os.path.join(kPackages, "node_modules"), TDBG_TEST_PYTHON=path,
        TDBG_TEST_LIBRARY=library, TDBG_TEST_FILES=kHere, TDBG_TEST_ADAPTER_PYTHON=sys.executable,
        TDBG_TEST_PACKAGE=os.path.join(kRepository, "debug", "tdbg"))
    argv = ["node", "--test", "--test-reporter=" + os.path.join(kHere, "reporter.js"),
            os.path.join(kHere, kSuite + ".js")]
    try:
        done = subprocess.run(
            argv, env=environment, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT, timeout=kSuiteSeconds)
    except subprocess.TimeoutExpired:
        return [row(where, kSuite, "failed", output="took longer than {} s".format(kSuiteSeconds))]
    text = done.stdout.decode("utf-8", "replace")
    rows = []
    for line in text.splitlines():
        if line.startswith("{") and '"status"' in line:
            told = json.loads(line)
            rows.append(row(where, told["name"], told["status"], told["reason"], told["output"]))
    if not rows or done.returncode != 0 and all(one["status"] != "failed" for one in rows):
        rows.append(row(where, kSuite, "failed", output=text[-4000:]))
    return rows


def run_suites(chosen, library):
    why_not = packages.install(kHere, kPackages) if any(chosen.values()) else None
    with concurrent.futures.ThreadPoolExecutor(kAtOnce) as pool:
        running = [pool.submit(run_suite, version, path, library, why_not)
                   for version, path in chosen.items()]
        return [one for future in running for one in future.result()]


# --- other clients ------------------------------------------------------------------------------


class tRows(unittest.TestResult):
    """Results as rows."""

    def __init__(self, where):
        super().__init__()
        self.where, self.rows = where, []

    def addSuccess(self, test):
        self._add(test, "passed")

    def addSkip(self, test, reason):
        self._add(test, "skipped", reason)

    def addFailure(self, test, error):
        super().addFailure(test, error)
        self._add(test, "failed", "", self.failures[-1][1])

    def addError(self, test, error):
        super().addError(test, error)
        self._add(test, "failed", "", self.errors[-1][1])

    def _add(self, test, status, reason="", output=""):
        self.rows.append(row(self.where, test.id(), status, reason, output))


def run_module(name, library):
    os.environ["TDBG_TEST_LIBRARY"] = library
    result = tRows("clients, " + name[len("test_"):])
    unittest.defaultTestLoader.loadTestsFromModule(importlib.import_module(name)).run(result)
    return result.rows


# --- all of it ----------------------------------------------------------------------------------


def tell(rows):
    for one in rows:
        if one["status"] == "failed":
            print("FAILED {} [{}]\n{}".format(one["test"], one["interpreter"], one["output"]),
                  flush=True)
        elif one["status"] == "skipped":
            print("skipped {} [{}]: {}".format(one["test"], one["interpreter"], one["reason"]),
                  flush=True)


def main(argv):
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("parts", nargs="*", metavar="PART", help="{}, {} (default: all)".format(
        kSuite, ", ".join(name[len("test_"):] for name in kModules)))
    parser.add_argument("--python", nargs="+", default=[], metavar="VERSION",
                        help="versions or paths for the acceptance suite (default: {})".format(
                            " ".join(kVersions)))
    parser.add_argument("--lib", default=os.path.join(kRepository, "build", "64"),
                        help="folder of the library")
    parser.add_argument("--json", help="file for the results")
    arguments = parser.parse_args(argv)
    known = [kSuite] + [name[len("test_"):] for name in kModules]
    parts = arguments.parts or known
    if set(parts) - set(known):
        parser.error("no such part: " + " ".join(sorted(set(parts) - set(known))))
    library = os.path.abspath(os.path.join(arguments.lib, "tdbgtracer.so"))
    rows = []
    for part in parts:
        started = time.monotonic()
        if part == kSuite:
            got = run_suites(choose(arguments.python), library)
        else:
            got = run_module("test_" + part, library)
        tell(got)
        rows += got
        print("{:40}{:6.0f} s".format("clients, " + part, time.monotonic() - started), flush=True)
    if arguments.json:
        with open(arguments.json, "w") as out:
            json.dump({"results": rows}, out)
    counts = [sum(one["status"] == status for one in rows)
              for status in ("passed", "failed", "skipped")]
    print("{} passed, {} failed, {} skipped".format(*counts))
    return 1 if counts[1] else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
