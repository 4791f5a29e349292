#!/usr/bin/env python3
"""Run the Python tests under one or many interpreters.

Every test method runs in a process of its own, with a time limit, for tracing is process-wide; an
interpreter that has imported its file is there already and only forks.
Without arguments: all tests under every supported interpreter found, with the libraries that
./check leaves below build/.

  tests/run.py --python 3.8 --lib build/64 test_breaks
  tests/run.py --list
"""

import argparse
import collections
import concurrent.futures
import fnmatch
import glob
import json
import os
import select
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time

kHere = os.path.dirname(os.path.abspath(__file__))
kRepository = os.path.dirname(kHere)
kChild = os.path.join(kHere, "support", "child.py")
sys.path.insert(0, os.path.join(kRepository, "tools"))
import interpreters as finder  # noqa: E402

kTestSeconds = 60
kListSeconds = 120
kSlowBuildFactor = 3  # debug builds check everything twice
kLastWordsSeconds = 1  # for a hanging child to say where it hangs
kAnswerSeconds = 120  # for a server to import a file and fork
kUnitTests = 24  # tests of a file that are run in a row: enough to be worth a server
kShownOutput = 8000  # characters of a failed test's output
kModule = "tdbgtracer"

tResult = collections.namedtuple(
    "tResult", "interpreter test status reason output seconds processor", defaults=(0.0, 0.0))


# --- processes ------------------------------------------------------------------------------


class tServer:
    """child.py under one interpreter: it forks a process for each test.

    One test at a time. A server that fails is of no more use: `failed` tells why.
    """

    def __init__(self, interpreter, env, folder_of_tests, scratch):
        self.interpreter, self.env = interpreter, env
        self.path, self.failed = None, None  # path: of the file that it serves
        self.log = os.path.join(tempfile.mkdtemp(dir=scratch), "server")
        orders, self.orders = os.pipe()
        self.answers, answers = os.pipe()
        with open(self.log, "wb") as log:
            self.process = subprocess.Popen(
                [interpreter.path, kChild, "serve", folder_of_tests, str(orders), str(answers)],
                stdin=subprocess.DEVNULL, stdout=log, stderr=subprocess.STDOUT, env=env,
                pass_fds=(orders, answers), start_new_session=True,
            )
        os.close(orders)
        os.close(answers)

    def run(self, path, test, seconds, folder):
        """(how it ended, result object or None, its output, processor seconds).

        How it ended: None for a clean end, else text.
        """
        try:
            if path != self.path:
                self.end_file()
                self.order(order="file", path=path)
                self.path = path
            self.order(order="test", test=test, folder=folder)
            ended, processor = self.wait_for(int(self.answer()), seconds)
        except (OSError, ValueError) as why:
            self.failed = "the tests' server failed ({})".format(why)
            return self.failed, None, read_text(self.log), 0.0
        return ended, read_result(folder), read_text(os.path.join(folder, "output")), processor

    def wait_for(self, pid, seconds):
        """(None when the process ended well, else text; processor seconds).

        Nothing of its process group is left behind.
        """
        descriptor = os.pidfd_open(pid)
        try:
            ready, _, _ = select.select([descriptor], [], [], seconds)
            if not ready:
                signal_group(pid, signal.SIGUSR2)  # faulthandler tells where it hangs
                select.select([descriptor], [], [], kLastWordsSeconds)
        finally:
            os.close(descriptor)
        signal_group(pid, signal.SIGKILL)  # it has not been reaped: its number is ours
        self.order(order="reap")
        status, processor = self.answer().split()
        if not ready:
            return "timed out after {} s".format(seconds), float(processor)
        return how_it_ended(os.waitstatus_to_exitcode(int(status))), float(processor)

    def order(self, **order):
        os.write(self.orders, json.dumps(order).encode("utf-8") + b"\n")

    def answer(self):
        line = b""
        while not line.endswith(b"\n"):
            if not select.select([self.answers], [], [], kAnswerSeconds)[0]:
                raise ValueError("no answer in {} s".format(kAnswerSeconds))
            data = os.read(self.answers, 100)
            if not data:
                raise ValueError("it ended")
            line += data
        return line.decode("ascii")

    def end_file(self):
        if self.path is not None and self.failed is None:
            self.order(order="end")
            self.path = None

    def close(self):
        os.close(self.orders)  # their end is the server's
        os.close(self.answers)
        if self.failed is not None:
            signal_group(self.process.pid, signal.SIGKILL)
        self.process.wait()


def how_it_ended(status):
    if status < 0:
        return "killed by {}".format(signal.Signals(-status).name)
    return None if status == 0 else "ended with status {}".format(status)


def read_text(path):
    try:
        with open(path, encoding="utf-8", errors="replace") as source:
            return source.read()
    except OSError:
        return ""


def read_result(folder):
    try:
        with open(os.path.join(folder, "result"), encoding="utf-8") as source:
            return json.load(source)
    except (OSError, ValueError):
        return None


def signal_group(pid, number):
    try:
        os.killpg(pid, number)
    except (ProcessLookupError, PermissionError):
        pass


# --- the library for an interpreter ---------------------------------------------------------


def word_size_of(path):
    """32 or 64, from the file's ELF header."""
    with open(path, "rb") as source:
        head = source.read(5)
    if head[:4] != b"\x7fELF":
        raise ValueError("{} is no shared library".format(path))
    return {1: 32, 2: 64}[head[4]]


def find_libraries(folders):
    """{word size: library} in the folders given; without any, in those that ./check builds in."""
    if not folders:
        built = glob.glob(os.path.join(kRepository, "build", "[0-9][0-9]"))
        folders = [path for path in built if has_library(path)]
    libraries = {}
    for folder in folders:
        if not has_library(folder):
            raise ValueError("{} holds no {}.so".format(folder, kModule))
        path = os.path.abspath(os.path.join(folder, kModule + ".so"))
        libraries[word_size_of(path)] = path
    return libraries


def has_library(folder):
    return os.path.exists(os.path.join(folder, kModule + ".so"))


def offer_library(library, interpreter, folder):
    """Folder with the library under the name that the interpreter looks for."""
    # 2.7's debug builds look for "_d.so" first; 3.x's take the plain name.
    os.symlink(library, os.path.join(folder, kModule + interpreter.module_suffix))
    return folder


def environment_for(interpreter, lib_dir):
    env = {name: value for name, value in os.environ.items() if not name.startswith("PYTHON")}
    env["PYTHONDONTWRITEBYTECODE"] = "1"  # many children at once; see compile_for()
    env["PYTHONNOUSERSITE"] = "1"
    env["PYTHONIOENCODING"] = "utf-8"
    env.update(interpreter.environment)
    env.pop("TDBG_LIB_DIR", None)
    if lib_dir is not None:
        env["TDBG_LIB_DIR"] = lib_dir
    return env


def compile_for(interpreter, scratch):
    """Byte-compile the debugger and the tests for a version: else each of many children would."""
    argv = [interpreter.path, kChild, "compile"]
    try:
        subprocess.run(
            argv, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
            env=environment_for(interpreter, None), cwd=scratch, timeout=kListSeconds)
    except subprocess.TimeoutExpired:
        pass  # a help, no more


# --- listing --------------------------------------------------------------------------------


def find_files(folder):
    return sorted(glob.glob(os.path.join(os.path.abspath(folder), "test_*.py")))


def list_tests(interpreter, folder_of_tests, scratch):
    """(tests as child.py describes them, results of files that cannot be imported)"""
    files = find_files(folder_of_tests)
    if not files:
        raise ValueError("no test_*.py in {}".format(folder_of_tests))
    with tempfile.TemporaryDirectory(dir=scratch) as folder:
        env = environment_for(interpreter, None)
        argv = [interpreter.path, kChild, "list", os.path.join(folder, "result")] + files
        try:
            done = subprocess.run(
                argv, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                env=env, cwd=folder, start_new_session=True, timeout=kListSeconds)
            ended, output = how_it_ended(done.returncode), done.stdout.decode("utf-8", "replace")
        except subprocess.TimeoutExpired as why:
            ended, output = str(why), ""
        result = read_result(folder)
    if ended is not None or result is None:
        return [], [tResult(interpreter, "(listing)", "failed", ended or "no result", output)]
    broken = [tResult(interpreter, *row, "") for row in result["broken"]]
    tests = [test for test in result["tests"] if interpreter.supported != test["unsupported"]]
    return tests, broken if interpreter.supported else []


def is_chosen(test_id, patterns):
    """A pattern is part of a test's name, a shell pattern, or the name of a test file."""
    if not patterns:
        return True
    for pattern in patterns:
        if pattern.endswith(".py"):
            pattern = os.path.basename(pattern)[: -len(".py")] + ".*"
        if pattern in test_id or fnmatch.fnmatch(test_id, pattern):
            return True
    return False


def host_of(interpreters):
    """The interpreter for tests that are not about interpreters; what they start needs 3.9."""
    able = [item for item in interpreters
            if item.version >= (3, 9) and item.supported and not item.debug]
    return (able or interpreters)[0]


def hosts_per_version(interpreters):
    """{version: interpreter} for files of tests that say kOncePerVersion: those of the debugger's
    Python part, which knows neither word sizes nor variants of the build."""
    hosts = {}
    for item in sorted(
            interpreters,
            key=lambda item: (item.is_built, item.variant != "release", item.bits != 64)):
        hosts.setdefault(item.minor, item)
    return hosts


# --- running --------------------------------------------------------------------------------


# Tests of one file, run in a row.
tUnit = collections.namedtuple("tUnit", "interpreter env path tests")


def make_units(interpreter, env, tests, arguments):
    """All tests of an interpreter, in portions; what may take long is alone."""
    files = collections.defaultdict(list)
    for test in tests:
        path = os.path.join(os.path.abspath(arguments.tests), test["id"].partition(".")[0] + ".py")
        files[path, test["id"] if is_long(test) else None].append(test)
    return [
        tUnit(interpreter, env, path, tests[begin:begin + kUnitTests])
        for (path, _), tests in files.items() for begin in range(0, len(tests), kUnitTests)
    ]


def is_long(test):
    return (test["limit"] or 0) > kTestSeconds


def run_units(units, run, scratch):
    """What one of the runner's threads does: the next units, as long as there are any."""
    server = None
    folder_of_tests = os.path.abspath(run.arguments.tests)
    try:
        while units:
            try:
                unit = units.popleft()
            except IndexError:  # another thread was faster
                break
            for test in unit.tests:
                if run.stopped:
                    return
                if server is None or server.failed or (server.interpreter, server.env) != unit[:2]:
                    if server is not None:
                        server.close()
                    server = tServer(unit.interpreter, unit.env, folder_of_tests, scratch)
                run.add(run_test(server, unit, test, run.arguments, scratch))
                run.keep(unit.interpreter)
            server.end_file()
    finally:
        if server is not None:
            server.close()


def run_test(server, unit, test, arguments, scratch):
    interpreter = unit.interpreter
    seconds = (test["limit"] or arguments.timeout) * (kSlowBuildFactor if interpreter.debug else 1)
    started = time.monotonic()
    with tempfile.TemporaryDirectory(dir=scratch) as folder:
        ended, result, output, processor = server.run(unit.path, test["id"], seconds, folder)
    status, reason = judge(ended, result)
    taken = time.monotonic() - started
    return tResult(interpreter, test["id"], status, reason, output, taken, processor)


def judge(ended, result):
    """(status, reason) from how the process ended and what it wrote before."""
    if result is None:
        return "failed", "{} before the test ended".format(ended or "ended")
    if ended is not None and result["status"] != "failed":
        return "failed", "{}, but then the process {}".format(result["status"], ended)
    return result["status"], result["reason"]


class tRun:
    """All results, reported as they come in."""

    def __init__(self, arguments):
        self.arguments = arguments
        self.results = []
        self.lock = threading.Lock()
        self.left = collections.Counter()  # tests still to come, by interpreter
        self.stopped = False

    def add(self, result):
        with self.lock:
            self.results.append(result)
            if result.status == "failed":
                print(describe_failure(result), flush=True)
            elif self.arguments.verbose:
                note = " ({})".format(result.reason) if result.reason else ""
                print("{} {}: {}{}".format(
                    result.interpreter.name, result.test, result.status, note), flush=True)

    def keep(self, item):
        """One test less to come: write what is complete, all at once."""
        with self.lock:
            self.left[item] -= 1
            if not self.arguments.each or self.left[item] > 0:
                return
            path = os.path.join(self.arguments.each, item.name + ".json")
            own = [result for result in self.results if result.interpreter is item]
            write_json(path + ".part", [item], own)
            os.replace(path + ".part", path)


def describe_failure(result):
    output = result.output.rstrip()
    if len(output) > kShownOutput:
        half = kShownOutput // 2
        output = output[:half] + "\n[...]\n" + output[-half:]
    text = "FAILED {} under {}\n{}\n".format(
        result.test, result.interpreter.name, indent(result.reason.rstrip()))
    return text + ("  --- its output\n{}\n".format(indent(output)) if output else "")


def indent(text):
    return "\n".join("  " + line for line in text.splitlines())


def is_wanted(test, item, host, hosts, arguments):
    if not is_chosen(test["id"], arguments.pattern) or (test["once"] and item is not host):
        return False
    is_variant = item.is_built or item.variant != "release"
    if arguments.quick and test["not_when_quick"]:
        return False
    per_version = test["per_version"] or arguments.quick and test["once_when_quick"]
    return (not per_version or item is hosts.get(item.minor)
            or (arguments.everywhere and is_variant))


def run_all(interpreters, libraries, run, scratch):
    arguments = run.arguments
    with concurrent.futures.ThreadPoolExecutor(arguments.jobs) as pool:
        first = hosts_per_version(interpreters).values()
        list(pool.map(lambda item: compile_for(item, scratch), first))
        listings = list(pool.map(
            lambda item: list_tests(item, arguments.tests, scratch), interpreters))
        units = []
        usable = [item for item in interpreters if item.bits in libraries] or interpreters
        host, hosts = host_of(usable), hosts_per_version(usable)
        if arguments.quick:
            hosts = {host.minor: host}
        for item, (tests, broken) in zip(interpreters, listings):
            library = libraries.get(item.bits)
            if library is None and not arguments.no_lib:
                reason = "no {}-bit library".format(item.bits)
                run.add(tResult(item, "(all tests)", "skipped", reason, ""))
                continue
            for result in broken:
                if is_chosen(result.test, arguments.pattern):
                    run.add(result)
            lib_dir = library and offer_library(library, item, tempfile.mkdtemp(dir=scratch))
            env = environment_for(item, lib_dir)
            chosen = [test for test in tests if is_wanted(test, item, host, hosts, arguments)]
            run.left[item] = len(chosen)
            units += make_units(item, env, chosen, arguments)
        units = collections.deque(sorted(units, key=lambda unit: not is_long(unit.tests[0])))
        try:
            running = [pool.submit(run_units, units, run, scratch) for _ in range(arguments.jobs)]
            for future in running:
                future.result()
        finally:
            run.stopped = True  # after an interrupt or a mistake: no thread begins another


# --- reporting ------------------------------------------------------------------------------


def count(results):
    counts = collections.Counter(result.status for result in results)
    return counts["passed"], counts["failed"], counts["skipped"]


def print_table(interpreters, results):
    print("{:26}{:>8}{:>8}{:>8}".format("interpreter", "passed", "failed", "skipped"))
    for item in interpreters:
        own = [result for result in results if result.interpreter is item]
        print("{:26}{:>8}{:>8}{:>8}".format(item.name, *count(own)))


def print_skips(results):
    """Reasons, with how often each and where."""
    groups = collections.defaultdict(list)
    for result in results:
        if result.status == "skipped":
            groups[result.reason].append(result)
    if groups:
        print("\nskipped:")
    for reason, group in sorted(groups.items(), key=lambda item: (-len(item[1]), item[0])):
        names = sorted({result.interpreter.name for result in group})
        tests = sorted({result.test for result in group})
        where = ", ".join(names) if len(names) <= 4 else "{} interpreters".format(len(names))
        what = ", ".join(tests) if len(tests) <= 2 else "{} tests".format(len(tests))
        print("  {:5} {}  [{}; {}]".format(len(group), reason, what, where))


def print_slowest(results, how_many):
    print("\nslowest:")
    for result in sorted(results, key=lambda result: -result.seconds)[:how_many]:
        print("  {:6.1f} s {} under {}".format(
            result.seconds, result.test, result.interpreter.name))


def print_processor_seconds(interpreters, results):
    """Of each test file, the dearest first, and of each interpreter."""
    sums, tests = collections.Counter(), collections.Counter()
    for result in results:
        name = result.test.partition(".")[0]
        tests[name] += 1
        sums[name] += result.processor
    print("\n{:34}{:>8}{:>12}{:>12}".format("processor seconds", "tests", "sum", "per test"))
    for name, total in sums.most_common():
        print("  {:32}{:8}{:12.1f}{:12.2f}".format(name, tests[name], total, total / tests[name]))
    for item in interpreters:
        own = [result.processor for result in results if result.interpreter is item]
        if own:
            print("{:34}{:8}{:12.1f}{:12.2f}".format(
                item.name, len(own), sum(own), sum(own) / len(own)))
    print("{:34}{:8}{:12.1f}\n".format("all", len(results), sum(sums.values())))


def print_summary(interpreters, results, arguments):
    print_table(interpreters, results)
    print_skips(results)
    if arguments.slowest:
        print_slowest(results, arguments.slowest)
    if arguments.processor:
        print_processor_seconds(interpreters, results)
    print("{} passed, {} failed, {} skipped".format(*count(results)))


def write_json(path, interpreters, results):
    rows = [
        {"interpreter": result.interpreter.name, "test": result.test, "status": result.status,
         "reason": result.reason, "seconds": round(result.seconds, 3),
         "processor": round(result.processor, 3)}
        for result in results
    ]
    with open(path, "w") as out:
        told = {"interpreters": [item.name for item in interpreters], "results": rows}
        json.dump(told, out, indent=1)


# --- command line ---------------------------------------------------------------------------


def parse_arguments(argv):
    parser = argparse.ArgumentParser(
        description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter
    )
    parser.add_argument("--python", action="append", nargs="+", default=[], metavar="INTERPRETER",
                        help="path, or name as of tools/interpreters.py (3.8, 2.7-32)")
    parser.add_argument("--lib", action="append", default=[], metavar="DIR",
                        help="folder with the library; one for each word size")
    parser.add_argument("--no-lib", action="store_true", help="run what needs no library")
    parser.add_argument("--tests", default=os.path.join(kHere, "py"), metavar="DIR",
                        help="folder of the tests")
    parser.add_argument("--list", action="store_true", help="print the names of the tests")
    parser.add_argument("--jobs", type=int, default=(os.cpu_count() or 1) + 1,
                        help="children at a time; one more than processors, for many wait")
    parser.add_argument("--quick", action="store_true",
                        help="tests of the debugger's Python part, and what else asks for it, "
                             "under one interpreter only; leave out what takes long")
    parser.add_argument("--timeout", type=float, default=kTestSeconds, help="seconds for one test")
    parser.add_argument("--json", metavar="FILE", help="write all results there, too")
    parser.add_argument("--each", metavar="DIR",
                        help="write those of each interpreter there, once they are complete")
    parser.add_argument("--everywhere", action="store_true",
                        help="tests of the debugger's Python part under each variant, too, "
                             "not once per version")
    parser.add_argument("--slowest", type=int, default=0, metavar="N",
                        help="show the N slowest tests")
    parser.add_argument("--processor", action="store_true",
                        help="show the processor seconds of each test file")
    parser.add_argument("--no-summary", action="store_true", help="failures only")
    parser.add_argument("-v", "--verbose", action="store_true", help="every test")
    parser.add_argument("pattern", nargs="*",
                        help="part of a test's name, shell pattern or test file")
    arguments = parser.parse_args(argv)
    arguments.python = [name for names in arguments.python for name in names]
    return arguments


def split_patterns(arguments):
    """`--python 3.8 test_x` reads as two interpreters: what names a test is a pattern."""
    for name in list(arguments.python):
        if os.path.basename(name).startswith("test_"):
            arguments.python.remove(name)
            arguments.pattern.append(name)


def choose_interpreters(arguments):
    if not arguments.python and arguments.list:
        return [finder.describe_path(sys.executable)]
    if arguments.python and all(os.sep in name for name in arguments.python):
        return finder.select([], arguments.python)
    found = finder.find_interpreters()
    return finder.select(found, arguments.python) if arguments.python else found


def print_list(interpreters, arguments, scratch):
    for item in interpreters:
        tests, broken = list_tests(item, arguments.tests, scratch)
        for name in sorted({test["id"] for test in tests}):
            if is_chosen(name, arguments.pattern):
                print(name)
        for result in broken:
            reason = result.reason.strip().splitlines()[-1]
            print("{}: {}: {}".format(result.test, result.status, reason))


def main(argv):
    arguments = parse_arguments(argv)
    split_patterns(arguments)
    scratch = tempfile.mkdtemp(prefix="tdbg-run-")
    try:
        interpreters = choose_interpreters(arguments)
        if arguments.list:
            print_list(interpreters, arguments, scratch)
            return 0
        libraries = {} if arguments.no_lib else find_libraries(arguments.lib)
        if not libraries and not arguments.no_lib:
            raise ValueError(
                "no library: build one and name its folder with --lib, or say --no-lib")
        run = tRun(arguments)
        run_all(interpreters, libraries, run, scratch)
    except ValueError as why:
        print("tests/run.py: {}".format(why), file=sys.stderr)
        return 2
    finally:
        shutil.rmtree(scratch, ignore_errors=True)
    if arguments.json:
        write_json(arguments.json, interpreters, run.results)
    if not arguments.no_summary:
        print_summary(interpreters, run.results, arguments)
    return 1 if count(run.results)[1] or not run.results else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
