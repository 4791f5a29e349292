"""Installing the tracer where what it needs of the program or the interpreter fails."""
from __future__ import absolute_import, division, print_function

import contextlib
import ctypes
import sys
import threading
import unittest

from support import TestCase, load_native, needs
from support.marks import marks_of
from support.record import Record
from support.tracing import Log, Session, ThreadSession, import_debuggee

steps = import_debuggee("steps")

kFailures = 64  # of the log's categories


def closed_gate():
    gate = threading.Lock()
    gate.acquire()
    return gate


def no_frames():
    raise ValueError("no frames")


@needs("interpreter_lock")  # without it each thread looks after its frames, and nobody is asked
class CurrentFramesTest(TestCase):
    """A program may replace sys._current_frames."""

    def setUp(self):
        replaced = sys._current_frames
        self.addCleanup(setattr, sys, "_current_frames", replaced)

    def log_of(self, session):
        log = Log()
        session.tracer.set_dprintf_mask(kFailures)
        session.tracer.set_dprintf_file(log, -1, 0)
        self.addCleanup(session.tracer.set_dprintf_file, None, -1, 0)
        return log.lines

    def set_break(self, session, place):
        path = steps.__file__.replace(".pyc", ".py")
        self.assertRaises(RuntimeError, session.tracer.set_break,
                          path, "", marks_of(path)[place], 1, 0, None, 0)

    def test_a_breakpoint_that_not_all_are_told_of_stops_in_frames_that_run(self):
        def set_break():
            sys._current_frames = no_frames
            self.set_break(session, "calls-again")

        session = Session()
        lines = self.log_of(session)
        session.tracer.start_trace()
        self.assertEqual(steps.calls(set_break), 10)
        session.tracer.stop_trace()
        self.assertEqual(session.stops, [("line", "calls", "calls-again")])
        self.assertIn("Failure in call_sys_current_frame()\n", lines)
        self.assertIn("Failure in sync_update_f_trace_in_all_threads()\n", lines)

    def test_it_stops_in_other_threads_too(self):
        def wait():
            waiting.release()
            go_on.acquire()

        waiting, go_on = closed_gate(), closed_gate()
        session = ThreadSession()
        session.tracer.start_trace()
        thread = threading.Thread(target=steps.calls, args=(wait,))
        thread.start()
        waiting.acquire()
        try:
            sys._current_frames = no_frames
            self.set_break(session, "calls-again")
        finally:
            go_on.release()
        thread.join()
        session.tracer.stop_trace()
        self.assertIn(("line", "calls", "calls-again"), session.stops)

    def test_the_failure_is_told_for_a_single_thread_too(self):
        session = Session()
        native = load_native({"update_f_trace_lines_in_other_leaf_frames": (None, [])})
        lines = self.log_of(session)
        sys._current_frames = no_frames
        native.update_f_trace_lines_in_other_leaf_frames()
        self.assertIn("Failure in call_sys_current_frame()\n", lines)
        self.assertIn("Failure in update_trace_lines_in_other_leaf_frames()\n", lines)


@contextlib.contextmanager
def replaced_function(native, name, function):
    """The library calls another function of the interpreter than this one."""
    record = Record.in_dll(native, "global_XPy_C_API_Data")
    own = ctypes.cast(getattr(ctypes.pythonapi, name), ctypes.c_void_p).value
    address = ctypes.addressof(record) + ctypes.sizeof(Record)
    while ctypes.c_void_p.from_address(address).value != own:
        address += ctypes.sizeof(ctypes.c_void_p)
    slot = ctypes.c_void_p.from_address(address)
    slot.value = ctypes.cast(function, ctypes.c_void_p).value
    try:
        yield
    finally:
        slot.value = own


class ThreadHooksTest(TestCase):
    def setUp(self):
        self.native = load_native({"install_start_thread_hooks": (None, [ctypes.c_int])})

    def test_before_init_nobody_is_asked(self):
        self.native.install_start_thread_hooks(1)

    def test_no_memory_for_the_arguments(self):
        asked = []
        Session(thread_hooks_cb=asked.append)
        nothing = ctypes.PYFUNCTYPE(ctypes.c_void_p, ctypes.c_ssize_t)(lambda _: None)
        number = "PyInt_FromSsize_t" if sys.version_info < (3,) else "PyLong_FromSsize_t"
        for name in (number, "PyTuple_New"):
            with replaced_function(self.native, name, nothing):
                with self.assertRaises(MemoryError) as caught:
                    self.native.install_start_thread_hooks(1)
            self.assertEqual(str(caught.exception), "Out of memory")
        self.assertEqual(asked, [])

    def test_an_exception_of_the_callback_stays_set(self):
        Session(thread_hooks_cb=lambda install: 1 // 0)
        self.assertRaises(ZeroDivisionError, self.native.install_start_thread_hooks, 1)


if __name__ == "__main__":
    unittest.main()
