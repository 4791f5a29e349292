"""A debug server for tests, in the test's own process: it writes down each stop and obeys a script.

    session = Session()
    session.run(function, "step_over", "step_out")
    self.assertEqual(session.stops, [("line", "function", "mark"), ...])

Stops are ("line", function, place), ("return", function, place, value) and ("exception", function,
place, name of the type); a place is the mark of the line, or its number when it has none. At each
stop the next command of the script is given, and "continue_run" when there is none left.
"""
from __future__ import absolute_import, division, print_function

import os
import sys
import threading
import time

from .library import import_tracer
from .marks import marks_of
from .programs import DEBUGGEES


kBuiltins = sys.modules.get("builtins") or sys.modules["__builtin__"]
kDefaultImport = kBuiltins.__import__  # taken before any tracer puts its own there


def join_whole_thread(thread):
    """Wait until nothing of the thread is left: join() alone returns, on 2.7, while its outermost
    Python frame still runs."""
    ident = thread.ident
    thread.join()
    while ident in sys._current_frames():
        time.sleep(0)  # lets the other thread run


def import_debuggee(name):
    """A module of tests/debuggees."""
    if DEBUGGEES not in sys.path:
        sys.path.append(DEBUGGEES)
    return __import__(name)


def place_of(frame, line=None):
    path = os.path.splitext(frame.f_code.co_filename)[0] + ".py"
    line = frame.f_lineno if line is None else line
    try:
        names = [name for name, number in marks_of(path).items() if number == line]
    except (LookupError, IOError):  # no source of a debuggee
        return line
    return names[0] if names else line


class Log(object):
    """A file for set_dprintf_file()."""

    def __init__(self):
        self.lines = []
        # Native: while one in Python is at work, the lines of other threads are lost.
        self.write = self.lines.append


class Session(object):
    """The callbacks may be replaced by methods of a subclass or by attributes before init()."""

    exception_mode = 0
    idle_period = 0.0
    import_cb = None

    def __init__(self, **settings):
        self.tracer = import_tracer()
        self.stops = []  # what happened, in order
        self.failures = []  # exceptions raised by a command, which must not leave a callback
        self.script = []
        self.show = None  # function of the frame: one more item for each stop
        self.internal_modules_map = {}
        for name, value in settings.items():
            setattr(self, name, value)
        self.init()

    def init(self):
        self.tracer.init(
            self.idle_period, self.exception_mode, self.thread_hooks_cb, self.checksum_cb,
            self.idle_cb, self.line_cb, self.return_cb, self.exception_cb, self.quit_cb,
            self.import_cb, kDefaultImport, self.internal_modules_map)

    # --- callbacks ---

    def thread_hooks_cb(self, install):
        pass

    def checksum_cb(self, name):
        return ""

    def idle_cb(self):
        self.stops.append(("idle",))

    def quit_cb(self):
        self.stops.append(("quit",))

    def line_cb(self, frame):
        self.stop(frame, "line")

    def return_cb(self, frame, value):
        self.stop(frame, "return", value)

    def exception_cb(self, frame, info):
        self.stop(frame, "exception", info[0].__name__)

    def stop(self, frame, kind, *details):
        row = (kind, frame.f_code.co_name, place_of(frame)) + details
        self.stops.append(row + (self.show(frame),) if self.show else row)
        try:
            self.obey(self.script.pop(0) if self.script else "continue_run", frame)
        except Exception as why:
            self.failures.append(why)

    def obey(self, command, frame):
        """A method's name, a tuple of it and its arguments, or a function of the frame."""
        if callable(command):
            command(frame)
        elif isinstance(command, tuple):
            getattr(self.tracer, command[0])(*command[1:])
        else:
            getattr(self.tracer, command)()

    # --- running ---

    def run(self, function, *script, **keywords):
        """Call function(stop) under the tracer, where stop() stops at the next line. Its result."""
        self.script = list(script)
        self.tracer.start_trace()
        try:
            return function(self.tracer.stop, **keywords)
        finally:
            self.tracer.stop_trace()
            if self.failures:
                raise self.failures[0]


def run_all(threads):
    """From their beginnings to their ends."""
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()


class ThreadSession(Session):
    """Brings the threads of the module `threading` under the tracer, as a debug server does."""

    def thread_hooks_cb(self, install):
        threading.settrace(self.tracer.bootstrap_new_thread if install else None)

    def run_thread(self, function, *args):
        """Run the function in a new thread, which tells the tracer of its end."""
        def whole_thread():
            try:
                function(*args)
            finally:
                sys.settrace(None)
                self.tracer.thread_exiting()

        thread = threading.Thread(target=whole_thread)
        thread.start()
        join_whole_thread(thread)
