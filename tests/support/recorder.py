"""Run a program as the interpreter would, and write down what a tracer sees of it.

  recorder.py MODE RESULT FILE ARGUMENT...
  recorder.py MODE RESULT -m MODULE ARGUMENT...

MODE: none      the tracer is initialised and never started
      settrace  line events as a function of sys.settrace gets them
      free      the tracer is on and never told to stop
      into      the tracer is on and steps into everything, so that every line is a stop

RESULT gets one JSON object: "threads", a list for each thread of [file, function, line], and
"returns", the number of return stops. The frames of this file are not recorded. All modes import
and initialise the same things, so that the program finds the same process in each.
"""
from __future__ import absolute_import, division, print_function

import gc
import io
import json
import os
import sys
import threading
import types

_own = set([(lambda: None).__code__.co_filename])


class Recorder(object):
    """A list of (code, line) for each thread, in the order in which the threads appeared."""

    def __init__(self):
        self.local = threading.local()
        self.threads = []
        self.returns = 0

    def is_known_thread(self):
        return hasattr(self.local, "lines")

    def add(self, frame):
        if frame.f_code.co_filename in _own:
            return
        if not self.is_known_thread():
            self.local.lines = []
            self.threads.append(self.local.lines)
        self.local.lines.append((frame.f_code, frame.f_lineno))

    def result(self):
        threads = [
            [(os.path.basename(code.co_filename), code.co_name, line) for code, line in lines]
            for lines in self.threads
        ]
        return {"threads": threads, "returns": self.returns}


def nothing(*_):
    pass


class SettraceMode(object):
    def __init__(self, tracer, recorder):
        self.recorder = recorder

    def start(self):
        threading.settrace(self.first_of_thread)
        sys.settrace(self.global_trace)

    def stop(self):
        sys.settrace(None)
        threading.settrace(None)

    def first_of_thread(self, frame, event, arg):
        # Nobody else tells a new thread's outer frames that they are traced.
        outer = frame.f_back
        while outer is not None:
            outer.f_trace = self.local_trace
            outer = outer.f_back
        sys.settrace(self.global_trace)
        return self.local_trace

    def global_trace(self, frame, event, arg):
        return self.local_trace

    def local_trace(self, frame, event, arg):
        if event == "line":
            self.recorder.add(frame)
        return self.local_trace


class TracerMode(object):
    def __init__(self, tracer, recorder):
        self.tracer, self.recorder = tracer, recorder

    def start(self):
        self.tracer.start_trace()

    def stop(self):
        self.tracer.stop_trace()

    def install_thread_hooks(self, install):
        threading.settrace(self.tracer.bootstrap_new_thread if install else None)

    def on_line(self, frame):
        self.recorder.add(frame)

    def on_return(self, frame, value):
        self.recorder.returns += 1


class IntoMode(TracerMode):
    def start(self):
        self.tracer.start_trace()
        self.tracer.step_into()

    def install_thread_hooks(self, install):
        threading.settrace(self.bootstrap if install else None)

    def bootstrap(self, frame, event, arg):
        result = self.tracer.bootstrap_new_thread(frame, event, arg)
        self.tracer.step_into()
        return result

    def on_line(self, frame):
        self.recorder.add(frame)
        self.tracer.step_into()

    def on_return(self, frame, value):
        self.recorder.returns += 1
        self.tracer.step_into()


class NoMode(TracerMode):
    def start(self):
        pass

    stop = start


def init_tracer(tracer, mode):
    builtins = sys.modules.get("builtins") or sys.modules["__builtin__"]
    tracer.init(
        0.0, 0, getattr(mode, "install_thread_hooks", nothing), nothing, nothing,
        getattr(mode, "on_line", nothing), getattr(mode, "on_return", nothing), nothing, nothing,
        None, builtins.__import__, {})


def make_runner(program, arguments):
    """A function that runs the program as `__main__`."""
    if program == "-m":
        import runpy
        name = arguments[0]
        sys.argv[:] = [name] + arguments[1:]
        sys.path[0] = os.getcwd()
        return lambda: runpy.run_module(name, run_name="__main__", alter_sys=True)
    sys.argv[:] = [program] + arguments
    sys.path[0] = os.path.dirname(os.path.abspath(program))
    module = types.ModuleType("__main__")
    module.__file__ = program
    module.__builtins__ = sys.modules.get("builtins") or sys.modules["__builtin__"]
    with io.open(program, "rb") as source:
        code = compile(source.read(), program, "exec", 0, True)
    sys.modules["__main__"] = module
    return lambda: exec_in(code, module.__dict__)


def exec_in(code, namespace):
    exec(code, namespace)


_kept = []  # the recorder's own module must outlive its name


def main(argv):
    mode_name, result_path, program = argv[:3]
    import tdbgtracer as tracer
    recorder = Recorder()
    kinds = {"none": NoMode, "settrace": SettraceMode, "free": TracerMode, "into": IntoMode}
    mode = kinds[mode_name](tracer, recorder)
    _kept.append(sys.modules["__main__"])
    run = make_runner(program, argv[3:])
    gc.collect()
    gc.disable()  # else finalizers would run wherever the recording happens to collect
    init_tracer(tracer, mode)
    mode.start()
    try:
        run()
    finally:
        mode.stop()
        with io.open(result_path, "wb") as out:
            out.write(json.dumps(recorder.result()).encode("ascii"))


if __name__ == "__main__":
    main(sys.argv[1:])
