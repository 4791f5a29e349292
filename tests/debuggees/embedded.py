"""Debug a function in an interpreter that another program has started, perhaps again."""
import atexit
import os
import sys

import tdbgtracer as core


def none(*_):
    return None


def stop(frame):
    seen.append(frame.f_lineno)


def work(n):
    a = n
    b = a + 1
    return b


seen = []
if not hasattr(sys, "own_import"):
    sys.own_import = __import__
core.init(0.01, 2, none, none, none, stop, none, none, none, none, sys.own_import, {})
code = work.__code__
first = code.co_firstlineno
core.set_break(code.co_filename, "", first + 2, 1, 0, "n == 1", 0)
if "IDLE_THREAD" in os.environ:
    core.set_use_idle_thread(1)
    atexit.register(core.atexit_func)
core.start_trace()
work(0)
work(1)
core.step_into()
work(2)
core.continue_run()
lines = [line - first for line in seen if first < line <= first + 3]
if lines != [2, 1, 2, 3]:
    sys.exit("wrong lines: %r" % (lines,))
if "KEEP_TRACING" not in os.environ:
    core.stop_trace()
    core.reset()
sys.stdout.write("debugged\n")
sys.stdout.flush()
