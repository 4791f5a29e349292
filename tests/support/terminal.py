"""Driving the debugger's prompt: through a pseudo-terminal, or with piped commands."""
from __future__ import absolute_import, division, print_function

import errno
import fcntl
import os
import pty
import re
import select
import signal
import subprocess
import sys
import termios
import time

from .library import library_path
from .programs import REPOSITORY, environment_with, run_program

PROMPT = "(Tdb) "
LAUNCHER = os.path.join(REPOSITORY, "tdbg")
PACKAGE = os.path.join(REPOSITORY, "debug", "tdbg")

kSeconds = 30
_escapes = re.compile(r"\x1b\[[0-9;?]*[A-Za-z]|\x1b[=>]|\x07")


def debugger_argv(*arguments):
    """Command line of the debugger under the interpreter and with the library of the test."""
    main = os.path.join(PACKAGE, "__main__.py")
    return [sys.executable, main, "--library", library_path()] + list(arguments)


def run_commands(commands, *arguments, **options):
    """Debug with commands from a pipe (a list of lines); returns support.Finished."""
    return run_program(debugger_argv(*arguments),
                       stdin="".join(c + "\n" for c in commands), **options)


class Terminal(object):
    """A program on a pseudo-terminal of its own, of which it is the session leader."""

    def __init__(self, argv, env=None, cwd=None):
        self.output = ""  # all of it, without escape sequences
        self.raw = b""
        self._seen = 0  # up to where expect() has looked
        environment = environment_with(env, TERM="xterm", COLUMNS="200")
        self._master, slave = pty.openpty()
        self._child = subprocess.Popen(
            argv, stdin=slave, stdout=slave, stderr=slave, env=environment, cwd=cwd,
            close_fds=True, preexec_fn=_take_terminal)
        os.close(slave)

    def wait_until_blocked(self):
        """Wait until the program's main thread waits for something."""
        while self._child.poll() is None:
            with open("/proc/{}/stat".format(self._child.pid)) as stat:
                if stat.read().rsplit(")", 1)[1].split()[0] == "S":
                    return

    def send(self, text):
        os.write(self._master, text.encode("utf-8"))

    def send_line(self, text):
        self.send(text + "\n")

    def interrupt(self):
        """Type Ctrl-C."""
        self.send("\x03")

    def expect(self, text, seconds=kSeconds):
        """Read until the text has come; returns what came before it, since the last call."""
        end = time.time() + seconds
        while True:
            place = self.output.find(text, self._seen)
            if place >= 0:
                before = self.output[self._seen:place]
                self._seen = place + len(text)
                return before
            if not self._read(end - time.time()):
                raise AssertionError("no {!r}; output so far:\n{}".format(text, self.output))

    def comes(self, text, seconds):
        """Whether the text comes in that time."""
        try:
            self.expect(text, seconds)
        except AssertionError:
            return False
        return True

    def command(self, text):
        """Type a command at the prompt; returns its output, up to the next prompt."""
        self.send_line(text)
        self.expect(text)
        return self.expect(PROMPT).strip("\n")

    def start(self):
        """What comes before the first prompt."""
        return self.expect(PROMPT)

    def wait(self, seconds=kSeconds):
        """Read to the end; exit status (negative: the signal)."""
        end = time.time() + seconds
        while self._read(end - time.time()):
            pass
        while self._child.poll() is None:
            if time.time() > end:
                raise AssertionError("does not end; output so far:\n" + self.output)
            select.select([], [], [], 0.01)
        return self._child.returncode

    def rest(self):
        """What has come since the last expect()."""
        return self.output[self._seen:]

    def close(self):
        if self._child.poll() is None:
            self._child.send_signal(signal.SIGKILL)
            self._child.wait()
        os.close(self._master)

    def _read(self, seconds):
        """False at the end of the output or of the time."""
        ready = select.select([self._master], [], [], max(seconds, 0))[0]
        if not ready:
            return False
        try:
            data = os.read(self._master, 65536)
        except OSError as why:
            if why.errno == errno.EIO:  # the last one has closed the terminal
                return False
            raise
        self.raw += data
        self.output = _escapes.sub("", self.raw.decode("utf-8", "replace")).replace("\r", "")
        return bool(data)


def _take_terminal():
    signal.signal(signal.SIGINT, signal.SIG_DFL)  # whoever runs the tests may ignore it
    os.setsid()
    fcntl.ioctl(0, termios.TIOCSCTTY, 0)


def debug_on_terminal(test, *arguments, **options):
    """A Terminal with the debugger at its first prompt; ended after the test."""
    terminal = Terminal(debugger_argv(*arguments), **options)
    test.addCleanup(terminal.close)
    return terminal
