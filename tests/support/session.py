"""A debug server that follows a script: it drives the tracer in the test's own process.

    session = Session()
    session.break_at(path, "stop-here")
    events = session.run(path, ["step_over", "step_out"])

runs the debuggee and answers each stop with the next command; when the script is used up the
debuggee runs on freely.  What the tracer tells is recorded as tuples, in order, and the whole list
is what a test compares:

    ("line", function, line)            line_cb; a marked line is given as its name
    ("return", function, line, value)   return_cb
    ("exception", function, line, type name)
    ("quit",), ("idle",), ("hooks", flag)

Callbacks that fail are recorded as ("failed", callback, text), for the tracer would only log them.
Imports are not recorded unless asked for: how many there are is the interpreter's business.
"""
from __future__ import absolute_import, division, print_function

import io
import os
import traceback

from .library import import_tracer
from .marks import marks_of

try:
    import builtins
except ImportError:
    import __builtin__ as builtins

kNeverStop, kAlwaysStop, kUnhandledOnly = 0, 1, 2

_here = os.path.dirname(os.path.abspath(__file__))


class Session(object):
    """One debug session.  The tracer is process-wide: one at a time, and one per test.

    events    what was told so far
    script    commands for the stops to come, each a name of a tracer function, a tuple of a name
              and its arguments, or a callable that gets (session, frame)
    """

    def __init__(self, exception_mode=kNeverStop, idle_period=0.0, record_imports=False,
                 **callbacks):
        """callbacks: functions to call instead of those that record (line_cb=...)."""
        self.tracer = import_tracer()
        self.events, self.script = [], []
        self.record_imports = record_imports
        told = {name: callbacks.pop(name, getattr(self, name)) for name in (
            "install_thread_hooks_cb", "get_checksum_cb", "idle_cb", "line_cb", "return_cb",
            "exception_cb", "quit_cb", "import_cb",
        )}
        if callbacks:
            raise TypeError("no callbacks of the tracer: {}".format(", ".join(sorted(callbacks))))
        self.tracer.init(
            idle_period, exception_mode, told["install_thread_hooks_cb"], told["get_checksum_cb"],
            told["idle_cb"], told["line_cb"], told["return_cb"], told["exception_cb"],
            told["quit_cb"], told["import_cb"], builtins.__import__, internal_modules(),
        )
        self.tracer.set_autoquit(0)

    # --- what tests call ----------------------------------------------------------------

    def break_at(self, path, mark, condition=None, enabled=1, temporary=0, ignore_count=0):
        """Breakpoint at a marked line (or a line number); its id."""
        line = mark if isinstance(mark, int) else marks_of(path)[mark]
        return self.tracer.set_break(path, "", line, enabled, temporary, condition, ignore_count)

    def run(self, path, script=(), start="continue_run", name="__main__"):
        """Run a file as a module under the tracer;
        the events of that.  start="stop": from its top."""
        with io.open(path, "rb") as source:
            code = compile(source.read(), path, "exec", dont_inherit=True)
        namespace = {"__name__": name, "__file__": path, "__builtins__": builtins}
        return self.run_traced(lambda: builtins.eval(code, namespace), script, start)

    def run_traced(self, function, script=(), start="continue_run"):
        """Call a function under the tracer; the events of that.  Its exceptions pass through."""
        first = len(self.events)
        self.script.extend(script)
        self.tracer.start_trace()
        try:
            getattr(self.tracer, start)()
            function()
        finally:
            self.tracer.stop_trace()
        return self.events[first:]

    def stops(self):
        """Of the events, the stops alone."""
        return [event for event in self.events
                if event[0] in ("line", "return", "exception", "failed")]

    def end(self):
        """Leave the process untraced, with its own __import__."""
        self.tracer.destroy()

    # --- what the tracer calls ----------------------------------------------------------

    def line_cb(self, frame):
        if is_our_own(frame):
            self.tracer.step_into()
            return
        self.tell("line_cb", lambda: ("line", frame.f_code.co_name, line_name(frame)))
        self.answer(frame)

    def return_cb(self, frame, value):
        if is_our_own(frame):
            self.tracer.step_into()
            return
        self.tell("return_cb", lambda: ("return", frame.f_code.co_name, line_name(frame), value))
        self.answer(frame)

    def exception_cb(self, frame, exc_info):
        self.tell("exception_cb", lambda: (
            "exception", frame.f_code.co_name, line_name(frame), type_name(exc_info)
        ))
        self.answer(frame)

    def idle_cb(self):
        self.events.append(("idle",))

    def quit_cb(self):
        self.events.append(("quit",))

    def install_thread_hooks_cb(self, flag):
        self.events.append(("hooks", flag))

    def get_checksum_cb(self, path):
        return ""

    def import_cb(self, module):
        if self.record_imports:
            self.events.append(("import", getattr(module, "__name__", None)))

    def tell(self, callback, describe):
        try:
            self.events.append(describe())
        except Exception:
            self.events.append(("failed", callback, traceback.format_exc()))

    def answer(self, frame):
        """Obey the next command of the script; run on when there is none."""
        command = self.script.pop(0) if self.script else "continue_run"
        try:
            if callable(command):
                command(self, frame)
            else:
                parts = command if isinstance(command, tuple) else (command,)
                getattr(self.tracer, parts[0])(*parts[1:])
        except Exception:
            self.events.append(("failed", command, traceback.format_exc()))
            self.tracer.continue_run()


def is_our_own(frame):
    """Whether a stop is in the driver, which calls the debuggee: no test means that."""
    return frame.f_code.co_filename == is_our_own.__code__.co_filename


def internal_modules():
    """The helpers' own files: no debuggee's code."""
    names = [os.path.join(_here, name) for name in os.listdir(_here) if name.endswith(".py")]
    return {name: 1 for name in names}


def line_name(frame):
    """Name of a marked line, else its number."""
    path = frame.f_code.co_filename
    if os.path.exists(path):
        for name, number in marks_of(path).items():
            if number == frame.f_lineno:
                return str(name)
    return frame.f_lineno


def type_name(exc_info):
    kind = exc_info[0] if isinstance(exc_info, tuple) else exc_info
    return getattr(kind, "__name__", str(kind))
