"""What once went wrong in the core: callbacks that begin anew, threads that end, forks, waits."""
from __future__ import absolute_import, division, print_function

import ctypes
import gc
import os
import sys
import threading
import unittest
import weakref
import warnings
from time import sleep

try:
    import _thread
except ImportError:
    import thread as _thread

from support import TestCase, load_native, needs
from support.tracing import Session, ThreadSession, import_debuggee, kDefaultImport

steps = import_debuggee("steps")

kWait = 30  # seconds until a test that waits has failed


def state_of_thread(native_id):
    """"S" when it waits in the system."""
    with open("/proc/self/task/{}/stat".format(native_id)) as stat:
        return stat.read().rpartition(")")[2].split()[0]


def native_ids():
    return set(os.listdir("/proc/self/task"))


class MutexTest(TestCase):
    def assert_free(self, session):
        """Another thread gets the mutex."""
        got = []

        def take():
            got.append(session.tracer.acquire_dbgserver_mutex())
            session.tracer.release_dbgserver_mutex()

        self.assertFalse(session.tracer.is_dbgserver_mutex_held())
        thread = threading.Thread(target=take)
        thread.daemon = True
        thread.start()
        thread.join(kWait)
        self.assertEqual(got, [1])

    def test_a_thread_that_resets_in_a_stop_does_not_wait_for_itself(self):
        session = Session()
        held = []

        def begin_anew(frame):
            session.tracer.reset()
            session.tracer.start_trace()
            session.tracer.acquire_dbgserver_mutex()
            session.tracer.release_dbgserver_mutex()
            held.append(session.tracer.is_dbgserver_mutex_held())
            __import__("json")
            session.tracer.register_module(sys.modules["json"])
            held.append(session.tracer.is_dbgserver_mutex_held())
            session.tracer.continue_run()

        session.run(steps.calls, begin_anew)
        self.assertEqual(held, [1, 1])
        self.assert_free(session)

    def test_one_acquired_by_the_new_record_is_kept_until_released(self):
        session = Session()

        def acquire(frame):
            session.tracer.reset()
            session.tracer.start_trace()
            session.tracer.acquire_dbgserver_mutex()

        session.run(lambda stop: steps.calls(stop), acquire)
        self.assertTrue(session.tracer.is_dbgserver_mutex_held())
        session.tracer.release_dbgserver_mutex()
        self.assert_free(session)

    def test_bootstrap_in_a_stop_does_not_lose_it(self):
        session = Session()

        def bootstrap(frame):
            session.tracer.bootstrap_new_thread(frame, "call", None)
            self.assertTrue(session.tracer.is_dbgserver_mutex_held())

        self.assertEqual(session.run(steps.calls, bootstrap), 10)
        self.assert_free(session)

    def test_release_without_acquire_changes_nothing(self):
        session = Session()
        session.tracer.release_dbgserver_mutex()
        self.assertEqual(session.tracer.acquire_dbgserver_mutex(), 1)
        self.assertTrue(session.tracer.is_dbgserver_mutex_held())
        session.tracer.release_dbgserver_mutex()
        session.tracer.release_dbgserver_mutex()
        self.assert_free(session)

    def wait_while_resetting(self, operation):
        """Threads wait for the mutex in `operation` while this one resets the tracer."""
        session = Session()
        for _ in range(5):
            session.tracer.acquire_dbgserver_mutex()
            before = native_ids()
            about_to = threading.Event()

            def wait():
                about_to.set()
                operation(session.tracer)

            thread = threading.Thread(target=wait)
            thread.daemon = True
            thread.start()
            about_to.wait(kWait)
            others = native_ids() - before
            for _ in range(100000):
                if all(state_of_thread(one) == "S" for one in others if one in native_ids()):
                    break
            session.tracer.reset()
            session.tracer.release_dbgserver_mutex()
            thread.join(kWait)
            self.assertFalse(thread.is_alive())
            self.assert_free(session)

    def test_a_reset_while_a_thread_waits_in_acquire(self):
        def acquire(tracer):
            tracer.acquire_dbgserver_mutex()
            tracer.release_dbgserver_mutex()
            self.assertFalse(tracer.is_dbgserver_mutex_held())

        self.wait_while_resetting(acquire)

    def test_a_reset_while_a_thread_waits_in_breakpointhook(self):
        self.wait_while_resetting(lambda tracer: tracer.breakpointhook())


class ReentryTest(TestCase):
    def test_a_frame_that_dies_in_a_step_command_may_reset(self):
        session = Session()
        for operation in (session.tracer.reset, session.tracer.destroy, session.init):
            for command in ("step_into", "continue_run", "step_over", "step_out"):
                class Last(object):
                    def __del__(self):
                        operation()

                def short(stop, last=None):
                    last = Last()
                    stop()
                    here = 1
                    return here

                session.run(short, "step_over")
                getattr(session.tracer, command)()
                session.tracer.continue_run()
        self.assertEqual(session.run(steps.calls), 10)

    def test_init_may_replace_every_callback_while_it_runs(self):
        session = Session(exception_mode=1)

        def fresh(inner):
            """A callback that nobody but the tracer holds."""
            class Callback(object):
                def __call__(self, *arguments):
                    self.data = "x" * 1000
                    inner(*arguments)
                    return self.data * 2
            return Callback()

        def renew(*arguments):
            nothing = fresh(lambda *_: None)
            session.tracer.init(1000.0, 1, nothing, nothing, nothing, nothing, nothing, nothing,
                                nothing, None, kDefaultImport, {})

        for name in ("thread_hooks_cb", "idle_cb", "line_cb", "return_cb", "exception_cb",
                     "import_cb"):
            session = Session(exception_mode=1, idle_period=1000.0)
            setattr(session, name, fresh(renew))
            session.init()
            delattr(session, name)
            for function in (steps.calls, steps.catches, lambda stop: __import__("json")):
                session.run(function, "step_out", "step_over", "step_over")

    def test_the_logs_file_may_reset_while_an_exception_is_set(self):
        session = Session()
        tracer = session.tracer

        class Log(object):
            def write(self, text):
                if text.startswith("Setting pending exception"):
                    tracer.set_dprintf_file(None, -1, 0)
                    tracer.reset()

            def flush(self):
                pass

        def program(stop):
            tracer.set_dprintf_file(Log(), -1, 0)
            tracer.raise_exception(0, ValueError("ours"))
            tracer.start_trace()
            steps.add(1, 2)

        with self.assertRaises(ValueError):
            session.run(program)
        self.assertEqual(session.run(steps.calls), 10)

    def test_import_cb_may_stop_the_start(self):
        hooks = []
        session = Session(import_cb=lambda module: session.tracer.stop_trace())
        session.thread_hooks_cb = hooks.append
        session.init()
        session.tracer.start_trace()
        self.assertEqual(session.tracer.get_tracing(), 0)
        self.assertIsNone(sys.gettrace())
        self.assertEqual(hooks[-1], 0)

    def test_checksums_may_reset_while_breakpoints_change(self):
        session = ThreadSession()
        for operation in (session.tracer.reset, session.tracer.destroy, session.tracer.stop_trace):
            session.checksum_cb = lambda name: operation() or "sum"
            session.init()
            session.tracer.enable_checksums(1)
            done, ready = threading.Event(), threading.Event()

            def other():
                ready.set()
                done.wait(kWait)

            session.tracer.start_trace()
            thread = threading.Thread(target=other)
            thread.start()
            ready.wait(kWait)
            path = self.make_file("checked.py", "one = 1\n")
            session.tracer.set_break(path, "sum", 1, 1, 0, None, 0)
            session.tracer.set_break(steps.__file__, "sum", 1, 1, 0, None, 0)
            done.set()
            thread.join(kWait)
            session.tracer.stop_trace()
        session.checksum_cb = lambda name: ""
        session.init()
        self.assertEqual(session.run(steps.calls), 10)


class MemoryTest(TestCase):
    @needs("!python2", "module:_testcapi")
    @unittest.skipIf(sys.version_info >= (3, 11), "too few allocations of the tracer's own")
    def test_no_memory_for_the_path_of_a_module_raises_in_the_program(self):
        import _testcapi

        lines = []

        class Log(object):
            def write(self, text):
                lines.append(text)

            def flush(self):
                pass

        def program(stop):
            raised = 0
            for number in range(60):  # the allocation that fails
                code = compile("a = 5", "/nowhere/file{}.py".format(number), "exec")
                del lines[:]
                try:
                    _testcapi.set_nomemory(number, number + 1)
                    try:
                        exec(code, {})
                    finally:
                        _testcapi.remove_mem_hooks()
                except MemoryError:
                    raised += "PROPAGATING EXCEPTION INTO USER CODE\n" in lines
                self.assertEqual(session.tracer.get_tracing(), 1)
                self.assertIsNotNone(sys.gettrace())
            return raised

        session = Session()
        session.tracer.set_dprintf_file(Log(), -1, 0)
        try:
            self.assertGreater(session.run(program), 0)
        finally:
            session.tracer.set_dprintf_file(None, -1, 0)


class ThreadStatesTest(TestCase):
    def end_threads_while(self, text, operation, session):
        """All other threads end, their states with them, when the tracer logs the text."""
        done, ended = threading.Event(), []
        ready = threading.Semaphore(0)

        def other():
            ready.release()
            done.wait(kWait)

        threads = [threading.Thread(target=other) for _ in range(20)]
        for thread in threads:
            thread.start()
        for _ in threads:
            ready.acquire()

        class Log(object):
            def write(self, line):
                if text in line and not ended:
                    ended.append(line)
                    done.set()
                    for thread in threads:
                        thread.join(kWait)

            def flush(self):
                pass

        mask = session.tracer.get_dprintf_mask()
        session.tracer.set_dprintf_file(Log(), -1, 0)
        try:
            operation()
        finally:
            session.tracer.set_dprintf_file(None, -1, 0)
            session.tracer.set_dprintf_mask(mask)
        self.assertEqual(len(ended), 1, text)
        done.set()
        for thread in threads:
            thread.join(kWait)

    def test_threads_that_end_while_tracing_starts(self):
        for text in ("install_tracer_into_frames()", "Setting f_trace in frame"):
            session = Session()
            self.end_threads_while(text, session.tracer.start_trace, session)
            session.tracer.stop_trace()
        self.assertEqual(session.run(steps.calls), 10)

    def test_threads_that_end_while_tracing_stops(self):
        for text in ("Setting thread_data->tracing to FALSE", "removing from thread state"):
            session = Session()
            session.tracer.start_trace()
            if "removing" in text:  # all frames are watched while it steps
                session.line_cb = lambda *_: session.tracer.step_into()
                session.return_cb = session.exception_cb = session.line_cb
                session.init()
                session.tracer.start_trace()
                session.tracer.step_into()
            self.end_threads_while(text, session.tracer.stop_trace, session)
        self.assertEqual(session.run(steps.calls), 10)

    @needs("!python2", "module:contextvars")
    def test_the_idle_thread_is_no_thread_to_trace(self):
        session = Session(idle_period=1.0, idle_cb=lambda: None)
        session.tracer.set_use_idle_thread(1)
        session.tracer.start_trace()
        lines = []

        class Log(object):
            def write(self, line):
                lines.append(line)

            def flush(self):
                pass

        session.tracer.set_dprintf_file(Log(), -1, 0)
        session.tracer.stop_trace()
        session.tracer.set_dprintf_file(None, -1, 0)
        self.assertEqual(lines.count("Setting thread_data->tracing to FALSE\n"), 1)
        self.assertEqual(len(session.tracer.get_threads()), 1)


@needs("fork")
class ForkTest(TestCase):
    """A child has the locks and flags of its parent, but only one of its threads."""

    def fork_while(self, hold, child_begins=lambda: None):
        """Forks while another thread is inside a callback. Stops in the child."""
        session, inside, leave = self.session, threading.Event(), threading.Event()

        def callback(*arguments):
            if os.getpid() == parent and threading.current_thread() is not main:
                session.tracer.add_to_tstate_tracing(1)
                inside.set()
                leave.wait(kWait)
                session.tracer.add_to_tstate_tracing(-1)

        parent, main = os.getpid(), threading.current_thread()
        hold(session, callback)
        session.init()
        session.tracer.start_trace()
        session.tracer.add_to_tstate_tracing(1)  # this thread is not to wait for the other
        thread = threading.Thread(target=self.other)
        thread.start()
        inside.wait(kWait)
        child = os.fork()
        if child == 0:
            try:
                session.line_cb = type(session).line_cb
                session.tracer.fork_ok()
                session.tracer.add_to_tstate_tracing(-1)
                del session.stops[:]
                session.script = ["step_over"]
                steps.calls(session.tracer.stop)
                os._exit(len([stop for stop in session.stops if stop[0] == "line"]))
            finally:
                os._exit(99)
        status = self.wait_for(child)
        leave.set()
        session.tracer.add_to_tstate_tracing(-1)
        thread.join(kWait)
        session.tracer.stop_trace()
        return status

    def wait_for(self, child):
        for _ in range(kWait * 100):
            pid, status = os.waitpid(child, os.WNOHANG)
            if pid:
                return os.WEXITSTATUS(status) if os.WIFEXITED(status) else status
            threading.Event().wait(0.01)
        os.kill(child, 9)
        os.waitpid(child, 0)
        return "hangs"

    def setUp(self):
        self.session = ThreadSession()
        # A fork while threads run is warned of: by Python code, which would wait for the stop's
        # end.
        warnings.simplefilter("ignore")

    def test_while_another_thread_is_stopped(self):
        session = self.session

        def hold(session, callback):
            plain = session.stop
            session.stop = lambda frame, kind, *details: (
                callback(), plain(frame, kind, *details))

        self.other = lambda: steps.calls(session.tracer.stop)
        self.assertEqual(self.fork_while(hold), 2)

    def test_while_another_thread_is_told_of_an_import(self):
        def hold(session, callback):
            session.import_cb = callback

        self.other = lambda: __import__("json")
        self.assertEqual(self.fork_while(hold), 2)

    def test_breakpointhook_in_a_child_that_is_not_to_be_debugged(self):
        session = Session()

        def program(stop):
            child = os.fork()
            if child == 0:
                try:
                    session.tracer.breakpointhook()
                    os._exit(len(session.stops))
                finally:
                    os._exit(99)
            return self.wait_for(child)

        self.assertEqual(session.run(program), 0)


class Held(object):
    pass


@needs("!free_threaded")  # where references cannot be counted
class ExceptionRecordsTest(TestCase):
    """Of frames that the tracer did not see end: nobody else knows them, so they are let go."""

    def setUp(self):
        record = [ctypes.c_void_p, ctypes.py_object]
        self.native = load_native({
            "set_frame_exc_info": (ctypes.c_int, record + [ctypes.py_object]),
            "forget_frame_exc_info": (ctypes.c_int, record)})
        self.data = ctypes.create_string_buffer(1 << 12)  # a tExcData without records

    def raise_in_new_frames(self, depth, refs):
        held = Held()
        refs.append(weakref.ref(held))
        if depth:
            self.raise_in_new_frames(depth - 1, refs)
        raise KeyError(depth)

    def record(self, depth, number, with_info=True):
        """Of the frame `number` below this one, of those that an exception left; what it holds."""
        refs = []
        try:
            self.raise_in_new_frames(depth, refs)
        except KeyError:
            info = sys.exc_info()
            entry = info[2]
            for _ in range(number):
                entry = entry.tb_next
            self.native.set_frame_exc_info(self.data, entry.tb_frame, info if with_info else None)
            del entry, info
        if hasattr(sys, "exc_clear"):
            sys.exc_clear()
        return refs[number - 1]

    def forget(self):
        """Looks at all records, to let go the one of this frame, which has none."""
        self.native.forget_frame_exc_info(self.data, sys._getframe())
        gc.collect()

    def test_of_frames_that_are_gone(self):
        for depth, number, with_info in ((0, 1, True), (2, 3, True), (2, 1, True), (2, 2, False)):
            held = self.record(depth, number, with_info)
            gc.collect()
            self.assertIsNotNone(held())
            self.forget()
            self.assertIsNone(held(), (depth, number, with_info))

    def test_of_a_frame_that_is_known_elsewhere(self):
        frame = sys._getframe()
        try:
            raise KeyError("here")
        except KeyError:
            self.native.set_frame_exc_info(self.data, frame, sys.exc_info())
        held = self.record(1, 1)
        self.assertNotEqual(self.data.raw, b"\0" * len(self.data))
        self.forget()
        self.native.forget_frame_exc_info(self.data, frame)
        gc.collect()
        self.assertIsNone(held())
        # the last one takes the table with it
        self.assertEqual(self.data.raw, b"\0" * len(self.data))


class LateExceptionTest(TestCase):
    @needs("!frame_iblock")  # elsewhere the raise is where it is told
    def test_one_that_is_under_way_when_tracing_begins_is_told_as_it_ends_the_thread(self):
        session, told = Session(exception_mode=2), threading.Event()

        def exception_cb(frame, info):
            session.stops.append((frame.f_code.co_name, info))
            told.set()

        def bottom():
            try:
                raise ValueError("raised before")
            finally:
                session.tracer.start_trace()

        session.exception_cb = exception_cb
        session.init()
        session.tracer.set_autoquit(0)
        threads = _thread._count()
        _thread.start_new_thread(bottom, ())
        self.assertTrue(told.wait(kWait))
        session.tracer.stop_trace()
        while _thread._count() > threads:  # it prints; at exit that is fatal to the interpreter
            sleep(0.001)
        # The interpreter has put the exception aside for the event, so what it was is not known.
        self.assertEqual(session.stops, [("bottom", (None, None, None))])


class EvalFrameTest(TestCase):
    @needs("api:_PyInterpreterState_SetEvalFrameFunc")
    def test_another_tool_may_put_the_hook_back_later(self):
        api = ctypes.pythonapi
        get = api._PyInterpreterState_GetEvalFrameFunc
        put = api._PyInterpreterState_SetEvalFrameFunc
        state = api.PyInterpreterState_Get
        state.restype = get.restype = ctypes.c_void_p
        get.argtypes, put.argtypes = [ctypes.c_void_p], [ctypes.c_void_p] * 2
        put.restype = None
        interp = state()
        own = get(interp)
        session = Session()
        session.tracer.start_trace()
        hook = get(interp)
        if hook == own:
            raise unittest.SkipTest("no eval-frame hook here")
        put(interp, own)  # as if that tool's function were in front
        session.init()
        put(interp, hook)
        self.assertEqual(steps.add(1, 2), 3)
        thread = threading.Thread(target=steps.add, args=(1, 2))
        thread.start()
        thread.join()
        put(interp, own)
        self.assertEqual(session.run(steps.calls), 10)


if __name__ == "__main__":
    unittest.main()
