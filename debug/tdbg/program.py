"""The debugged program as a process: how it was started, how to end it or start it again."""
from __future__ import absolute_import, division, print_function

import ast
import os
import sys

from tdbg import compat

try:
    import fcntl
except ImportError:
    fcntl = None

_exit_process = os._exit
_execve = os.execve
_chdir = os.chdir
_listdir = os.listdir
kVariable = "TDBG_START"  # tells the process to be debugged what launch.py knows
_kDescriptors = "/proc/self/fd"


class tProgram(object):
    """argv: of the interpreter; environment and cwd: that it was started with."""

    def __init__(self, argv, environment, cwd):
        self.argv, self.environment, self.cwd = argv, environment, cwd
        self._descriptors = _open_descriptors()
        self._ignored = _ignored_signals()

    def restart(self, arguments=None, saved=None):
        """Replace the process by a new run; does not return.  OSError when that fails.

        arguments: new ones for the program (default: the old ones); saved: {name: plain value} that
        the new run's front end gets.
        """
        if self.argv is None:
            raise ValueError("it is not known how the program was started")
        argv = list(self.argv)
        if arguments is not None:
            argv[self.count_of_fixed_arguments():] = arguments
        _flush_streams()
        _stop_timers()
        _restore_signals(self._ignored)
        for descriptor in _open_descriptors() - self._descriptors:
            _close_at_exec(descriptor)
        _chdir(self.cwd)
        environment = _with_settings(self.environment, argv, saved or {})
        _execve(argv[0], argv, environment)

    def count_of_fixed_arguments(self):
        """Length of argv up to and including the program's own name."""
        count = 1
        while count < len(self.argv) and self.argv[count].startswith("-"):
            if self.argv[count] in ("-m", "-c"):
                return count + 2
            count += 2 if self.argv[count] in ("-W", "-X") else 1
        return count + 1

    def end(self, core, status):
        """End the process: the program's exit functions run, nothing else of it does."""
        core.stop_trace()
        # Other threads must be able to finish what exit functions wait for.
        core.release_dbgserver_mutex()
        try:
            _run_exit_functions()
        except BaseException:
            pass
        _flush_streams()
        _exit_process(status)


def _with_settings(environment, argv, saved):
    environment = dict(environment)
    settings = ast.literal_eval(environment.get(kVariable, "{}"))
    settings.update(saved, argv=argv)
    environment[kVariable] = compat.to_literal(settings)
    return environment


def _run_exit_functions():
    if compat.PY2:
        run = getattr(sys, "exitfunc", None)
        if run is not None:
            run()
        return
    # The program's own module: where each import makes one anew, each has functions of its own.
    atexit = sys.modules.get("atexit")
    if atexit is not None:
        atexit._run_exitfuncs()


def _flush_streams():
    for name in ("stdout", "stderr"):
        try:
            getattr(sys, name).flush()
        except BaseException:  # closed, replaced, broken: all the same
            pass


def _open_descriptors():
    try:
        return set(int(name) for name in _listdir(_kDescriptors))
    except OSError:
        return set()


def _close_at_exec(descriptor):
    try:
        fcntl.fcntl(descriptor, fcntl.F_SETFD, fcntl.FD_CLOEXEC)
    except (AttributeError, IOError, OSError):
        pass  # closed meanwhile


def _ignored_signals():
    module = compat.signal
    return set(n for n in range(1, module.NSIG) if module.getsignal(n) == module.SIG_IGN)


def _restore_signals(ignored):
    for number in _ignored_signals() - ignored:
        try:
            compat.signal.signal(number, compat.signal.SIG_DFL)
        except ValueError:  # not in the main thread
            return
    if hasattr(compat.signal, "pthread_sigmask"):
        compat.signal.pthread_sigmask(compat.signal.SIG_SETMASK, [])


def _stop_timers():
    if hasattr(compat.signal, "setitimer"):
        for name in ("ITIMER_REAL", "ITIMER_VIRTUAL", "ITIMER_PROF"):
            compat.signal.setitimer(getattr(compat.signal, name), 0)
