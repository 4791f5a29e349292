"""Running other programs from a test: the same interpreter, with the same library."""
from __future__ import absolute_import, division, print_function

import os
import signal
import subprocess
import sys
import threading

_here = os.path.dirname(os.path.abspath(__file__))
TESTS = os.path.dirname(_here)
REPOSITORY = os.path.dirname(TESTS)
DEBUGGEES = os.path.join(TESTS, "debuggees")
DATA = os.path.join(TESTS, "data")

kSeconds = 50


class Finished(object):
    """How a program ended: status (negative: the signal), out and err as text, timed_out."""

    def __init__(self, argv, status, out, err, timed_out):
        self.argv, self.status, self.out, self.err = argv, status, out, err
        self.timed_out = timed_out

    def __repr__(self):
        how = "timed out" if self.timed_out else "ended with {}".format(self.status)
        return "{} {}\n--- stdout\n{}\n--- stderr\n{}".format(self.argv, how, self.out, self.err)


def debuggee(name):
    """Path of a file in tests/debuggees."""
    path = os.path.join(DEBUGGEES, name)
    if not os.path.exists(path):
        raise LookupError("no debuggee " + path)
    return path


def environment_with(changes, **more):
    """This process's environment with changes (a dict or None; a value None removes)."""
    environment = dict(os.environ, **more)
    for name, value in (changes or {}).items():
        if value is None:
            environment.pop(name, None)
        else:
            environment[name] = value
    return environment


def run_program(argv, stdin="", env=None, cwd=None, seconds=kSeconds):
    """Run a program to its end and collect what it wrote.  env: see environment_with()."""
    program = subprocess.Popen(
        argv, stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
        env=environment_with(env), cwd=cwd, preexec_fn=os.setsid,
    )
    timed_out = []
    timer = threading.Timer(seconds, _kill_group, (program.pid, timed_out))
    timer.daemon = True
    timer.start()
    try:
        out, err = program.communicate(stdin if isinstance(stdin, bytes) else stdin.encode("utf-8"))
    finally:
        timer.cancel()
    return Finished(argv, program.returncode, _text(out), _text(err), bool(timed_out))


def _kill_group(pid, timed_out):
    timed_out.append(True)
    try:
        os.killpg(pid, signal.SIGKILL)
    except OSError:
        pass  # it has just ended


def _text(data):
    return data.decode("utf-8", "replace")


def run_script(path, *arguments, **options):
    """Run a file under the interpreter of the test."""
    flags = options.pop("flags", [])
    return run_program([sys.executable] + list(flags) + [path] + list(arguments), **options)


def run_code(source, *arguments, **options):
    """Run source text under the interpreter of the test, which finds `support` and the library."""
    options["env"] = dict({"PYTHONPATH": python_path()}, **(options.get("env") or {}))
    flags = options.pop("flags", [])
    return run_program([sys.executable] + list(flags) + ["-c", source] + list(arguments), **options)


def python_path():
    """Value of PYTHONPATH with which children find the tests' helpers, the library,
    the debugger."""
    folders = [os.environ.get("TDBG_LIB_DIR"), TESTS, os.path.join(REPOSITORY, "debug")]
    return os.pathsep.join(folder for folder in folders if folder)
