"""The idle thread in real processes: threads, forks, exits, and calls from inside the callback."""
from __future__ import absolute_import, division, print_function

import ctypes
import gc
import os
import signal
import sys
import threading
import unittest

from support import TestCase, import_tracer, needs, run_code, time_limit
from support.tracing import Session, import_debuggee, run_all

try:
    import builtins
except ImportError:
    import __builtin__ as builtins

kOnceWhenQuick = True
kDefaultImport = builtins.__import__
kWait = 30  # seconds until a test that waits has failed
kStarts = 1000

# What a child program begins with.
kPrelude = """
import os, sys, threading, warnings
warnings.simplefilter('ignore')  # that processes with threads should not fork
import tdbgtracer as tracer
try:
    import builtins
except ImportError:
    import __builtin__ as builtins
def init(idle_cb, period=1.0):
    nothing = lambda *arguments: None
    tracer.init(period, 0, nothing, nothing, idle_cb, nothing, nothing, nothing, nothing, None,
                builtins.__import__, {})
    tracer.set_use_idle_thread(1)
"""


def supported():
    return sys.version_info >= (3, 7)


def needs_idle_thread(test):
    return needs("!python2", "module:contextvars")(test)  # 3.7 and later


def thread_count():
    return len(os.listdir("/proc/self/task"))


def memory_in_use():
    """Bytes that the C library has handed out."""
    gc.collect()
    names = "arena ordblks smblks hblks hblkhd usmblks fsmblks uordblks fordblks keepcost".split()
    record = type("mallinfo", (ctypes.Structure,),
                  {"_fields_": [(name, ctypes.c_int) for name in names]})
    function = getattr(ctypes.CDLL(None), "mallinfo", None)
    if function is None:
        raise unittest.SkipTest("the C library does not count its memory")
    function.restype = record
    return function().uordblks


class IdleCase(TestCase):
    def start(self, idle_cb, period=1.0, use=1):
        nothing = lambda *arguments: None  # noqa: E731
        self.tracer = import_tracer()
        self.threads_before = thread_count()
        self.tracer.init(period, 0, nothing, nothing, idle_cb, nothing, nothing, nothing, nothing,
                         None, kDefaultImport, {})
        self.tracer.set_use_idle_thread(use)
        self.addCleanup(self.tracer.stop_trace)
        self.tracer.start_trace()

    def spin_until(self, condition):
        """Runs instructions until the condition holds; an alarm, for a timer would be a thread."""
        late = []
        signal.signal(signal.SIGALRM, lambda number, frame: late.append(number))
        signal.alarm(kWait)
        while not condition() and not late: pass  # noqa: E701
        signal.alarm(0)
        self.assertTrue(condition(), "nothing happened")


@needs_idle_thread
class Thread(IdleCase):
    def test_thread_runs_while_tracing(self):
        self.start(lambda: None)
        self.assertEqual(thread_count(), self.threads_before + 1)
        self.tracer.stop_trace()
        self.spin_until(lambda: thread_count() == self.threads_before)
        self.tracer.start_trace()
        self.assertEqual(thread_count(), self.threads_before + 1)

    def test_switching_off_ends_the_thread_and_on_starts_one(self):
        self.start(lambda: None)
        self.tracer.set_use_idle_thread(0)
        self.assertEqual(self.tracer.get_use_idle_thread(), 0)
        self.spin_until(lambda: thread_count() == self.threads_before)
        self.tracer.set_use_idle_thread(1)
        self.assertEqual(thread_count(), self.threads_before + 1)

    def test_no_thread_before_start_trace(self):
        tracer = import_tracer()
        before = thread_count()
        tracer.set_use_idle_thread(1)
        self.assertEqual(thread_count(), before)

    def test_reset_and_destroy_end_the_thread(self):
        self.start(lambda: None)
        self.tracer.reset()
        self.spin_until(lambda: thread_count() == self.threads_before)
        self.tracer.start_trace()
        self.tracer.destroy()
        self.spin_until(lambda: thread_count() == self.threads_before)

    def test_atexit_func_ends_the_thread(self):
        self.start(lambda: None)
        self.tracer.atexit_func()
        self.spin_until(lambda: thread_count() == self.threads_before)

    @time_limit(180)
    def test_a_thousand_starts_and_stops_leave_nothing(self):
        self.start(lambda: None)
        before = None
        for number in range(kStarts // 2):
            self.tracer.stop_trace()
            self.tracer.start_trace()
            self.tracer.get_new_imports()  # each start adds the running script
            self.tracer.set_use_idle_thread(0)
            self.tracer.set_use_idle_thread(1)
            if number == kStarts // 10:  # until then the allocators grow
                before = memory_in_use()
        # A thread state or a lock that stayed each time would be far more than a byte.
        self.assertLess(memory_in_use() - before, kStarts * 8)
        self.tracer.stop_trace()
        self.spin_until(lambda: thread_count() == self.threads_before)

    def test_second_init_leaves_no_thread_behind(self):
        self.start(lambda: None)
        self.start(lambda: None, use=0)
        self.spin_until(lambda: thread_count() == self.threads_before - 1)


class OldVersions(IdleCase):
    def test_no_thread_before_3_7(self):
        self.start(lambda: None)
        wanted = 1 if supported() else 0
        self.assertEqual(self.tracer.get_use_idle_thread(), wanted)
        self.assertEqual(thread_count(), self.threads_before + wanted)


@needs_idle_thread
class Calls(IdleCase):
    def test_called_in_the_main_thread_while_one_instruction_loops(self):
        """A loop on one line gives events; with the frame untraced only the pending call is
        left."""
        called = []
        self.start(lambda: called.append(threading.current_thread()))
        self.spin_until(lambda: called)
        self.assertIs(called[0], threading.current_thread())

    def test_called_while_the_main_thread_is_blocked(self):
        """Two threads, none of which runs any instruction:
        the idle thread makes the call itself."""
        called = threading.Event()
        seen = []

        def idle():
            seen.append(threading.get_ident())
            if threading.get_ident() not in known:
                os.write(writing, b"x")  # ends the blocking
                called.set()

        reading, writing = os.pipe()
        blocked_reading, blocked_writing = os.pipe()
        other = threading.Thread(target=os.read, args=(blocked_reading, 1))
        self.start(idle)
        threading.settrace(self.tracer.bootstrap_new_thread)
        other.start()
        known = {threading.get_ident(), other.ident}
        signal.alarm(kWait)
        os.read(reading, 1)
        signal.alarm(0)
        self.assertTrue(called.is_set())
        self.assertEqual(self.traced_idents(), known)  # the idle thread's own record is gone
        os.write(blocked_writing, b"x")
        other.join()

    def traced_idents(self):
        return {self.tracer.get_thread_ident_for_tstate_id(one)
                for one in self.tracer.get_threads()}

    def test_idle_period_of_0_means_no_calls(self):
        called = []
        self.start(lambda: called.append(1), period=0.5)
        self.tracer.stop_trace()
        self.spin_until(lambda: thread_count() == self.threads_before)
        self.assertEqual(called, [])

    def test_exception_of_the_callback_does_not_reach_the_program(self):
        called = []

        def fail():
            called.append(1)
            raise ValueError("ours")

        self.start(fail)
        self.spin_until(lambda: called)
        self.tracer.stop_trace()

    def call_from_inside(self, operation):
        called = []

        def idle():
            operation()
            called.append(1)

        self.start(idle)
        self.spin_until(lambda: called)

    def test_stop_trace_inside_the_callback(self):
        self.call_from_inside(lambda: self.tracer.stop_trace())
        self.spin_until(lambda: thread_count() == self.threads_before)
        self.assertEqual(self.tracer.get_tracing(), 0)

    def test_stop_and_start_inside_the_callback(self):
        def restart():
            self.tracer.stop_trace()
            self.tracer.start_trace()
        self.call_from_inside(restart)
        self.assertEqual(self.tracer.get_tracing(), 1)

    def test_switch_inside_the_callback(self):
        def switch():
            self.tracer.set_use_idle_thread(0)
            self.tracer.set_use_idle_thread(1)
            self.tracer.set_use_idle_thread(0)
        self.call_from_inside(switch)
        self.spin_until(lambda: thread_count() == self.threads_before)

    def test_reset_inside_the_callback(self):
        self.call_from_inside(lambda: self.tracer.reset())
        self.spin_until(lambda: thread_count() == self.threads_before)

    def test_destroy_and_init_inside_the_callback(self):
        nothing = lambda *arguments: None  # noqa: E731

        def begin_anew():
            self.tracer.destroy()
            self.tracer.init(1.0, 0, nothing, nothing, nothing, nothing, nothing, nothing, nothing,
                             None, kDefaultImport, {})
        self.call_from_inside(begin_anew)
        self.assertEqual(self.tracer.get_tracing(), 0)

    def test_another_thread_may_stop_tracing_during_the_callback(self):
        inside, stopped = threading.Event(), threading.Event()

        def idle():
            inside.set()
            stopped.wait(0.1)  # gives the interpreter lock away

        def stop():
            inside.wait(kWait)
            self.tracer.stop_trace()
            stopped.set()

        self.start(idle)
        other = threading.Thread(target=stop)
        other.start()
        self.spin_until(stopped.is_set)
        other.join()


class Programs(TestCase):
    def run_child(self, source):
        import_tracer()
        done = run_code(kPrelude + source)
        self.assertEqual((done.status, done.err), (0, ""), done)
        return done.out

    def test_exit_while_the_thread_runs(self):
        self.assertEqual(self.run_child("""
init(lambda: None)
tracer.start_trace()
print('end')
"""), "end\n")

    def test_exit_with_the_exit_function_registered(self):
        self.assertEqual(self.run_child("""
import atexit
atexit.register(tracer.atexit_func)
init(lambda: None)
tracer.start_trace()
print('end')
"""), "end\n")

    def test_exit_right_after_stopping(self):
        self.assertEqual(self.run_child("""
init(lambda: None)
for i in range(20):
    tracer.start_trace()
    tracer.stop_trace()
print('end')
"""), "end\n")

    def test_exit_inside_the_callback(self):
        self.assertEqual(self.run_child("""
def leave():
    sys.stdout.write('end\\n')
    sys.stdout.flush()
    os._exit(0)
init(leave)
tracer.start_trace()
while os.getpid(): pass
"""), "end\n")

    @needs_idle_thread
    def test_exit_while_a_thread_that_ends_with_it_has_the_records_lock(self):
        """It gets the lock from the callback that ends, and then never the interpreter's again."""
        self.assertEqual(self.run_child("""
def stop_from_elsewhere():
    go.wait()
    stopping.append(int(os.readlink('/proc/thread-self').split('/')[-1]))
    tracer.stop_trace()
def state_of(thread):
    with open('/proc/self/task/%d/stat' % thread) as source:
        return source.read().rsplit(')', 1)[1].split()[0]
def idle():
    if called: return
    go.set()
    for _ in range(300):  # long enough for it to wait for the lock, most of the time
        threading.Event().wait(0)
        while not stopping or state_of(stopping[0]) != 'S': threading.Event().wait(0)
    sys.setswitchinterval(1000)  # this thread goes on
    called.append(1)
go, stopping, called = threading.Event(), [], []
threading.Thread(target=stop_from_elsewhere, daemon=True).start()
init(idle)
tracer.set_debug_all_threads(0)
tracer.start_trace()
sys.settrace(None)  # no events here: the idle call comes as a pending call
while not called: pass
os.write(1, b'end\\n')
"""), "end\n")

    @needs_idle_thread
    def test_forked_child_gets_a_thread_of_its_own(self):
        self.assertEqual(self.run_child("""
def count(): return len(os.listdir('/proc/self/task'))
def leave():
    os._exit(7 if os.getpid() != parent else 0)
parent = os.getpid()
called = []
init(lambda: called.append(os.getpid()))
tracer.start_trace()
child = os.fork()
if child == 0:
    alone = count()
    tracer.fork_ok()
    both = count()
    while os.getpid() not in called: pass
    tracer.stop_trace()
    os._exit(10 * alone + both)
print(os.WEXITSTATUS(os.waitpid(child, 0)[1]))
tracer.stop_trace()
"""), "12\n")

    def test_forked_child_without_fork_ok_can_do_everything(self):
        self.assertEqual(self.run_child("""
init(lambda: None)
tracer.start_trace()
for i in range(20):
    child = os.fork()
    if child == 0:
        tracer.set_use_idle_thread(0)
        tracer.set_use_idle_thread(1)
        tracer.stop_trace()
        tracer.start_trace()
        tracer.atexit_func()
        tracer.destroy()
        os._exit(5)
    assert os.WEXITSTATUS(os.waitpid(child, 0)[1]) == 5
print('end')
"""), "end\n")

    @needs_idle_thread
    def test_fork_inside_the_callback(self):
        self.assertEqual(self.run_child("""
children = []
def idle():
    if children:
        return
    child = os.fork()
    children.append(child)
    if child == 0:
        tracer.fork_ok()
init(idle)
tracer.start_trace()
while not children: pass
tracer.stop_trace()
if children[0] == 0:
    os._exit(9)
print(os.WEXITSTATUS(os.waitpid(children[0], 0)[1]))
"""), "9\n")

    @needs_idle_thread
    def test_threads_and_the_idle_thread_end_together(self):
        self.assertEqual(self.run_child("""
init(lambda: None)
tracer.start_trace()
def work():
    for i in range(2000): str(i)
threads = [threading.Thread(target=work) for i in range(8)]
for thread in threads: thread.start()
for thread in threads: thread.join()
tracer.stop_trace()
print('end')
"""), "end\n")


# A child that does one thing and prints what happened. `record_second_thread` because the idle
# thread calls by itself only where there are threads to debug besides the blocked one.
kStatePrelude = kPrelude + """
import ctypes, select, signal, time
main = threading.get_ident()
called, blocked = [], []
class Ended(Exception):
    pass
def end_blocking(number, frame):
    raise Ended
def idle():
    called.append('main' if threading.get_ident() == main else 'idle thread')
    if blocked and called[-1] == 'idle thread':
        signal.pthread_kill(main, signal.SIGUSR1)
def record_second_thread():
    running = threading.Event()
    def target():
        running.set()
        os.read(reading, 1)
    reading, writing = os.pipe()
    threading.settrace(tracer.bootstrap_new_thread)
    threading.Thread(target=target, daemon=True).start()
    running.wait()
    return writing
def blocked_in(function, *arguments):
    signal.signal(signal.SIGUSR1, end_blocking)
    init(idle)
    tracer.start_trace()
    keep_open = record_second_thread()
    try:
        blocked.append(1)
        while True:
            function(*arguments)
    except Ended:
        print(called[-1])
def lasting(seconds):
    end = time.time() + seconds
    while time.time() < end:
        time.sleep(0.05)
"""


@needs_idle_thread
class States(TestCase):
    """Each needs a few seconds, for the idle period is one at least: children, all at once."""

    kBlocked = {
        "a long sleep": "blocked_in(time.sleep, 30)",
        "select": "blocked_in(select.select, [os.pipe()[0]], [], [], 30)",
        "a wait for a lock": "lock = threading.Lock(); lock.acquire(); blocked_in(lock.acquire)",
        "a call of C that gives the interpreter lock away":
            "blocked_in(ctypes.CDLL(None).sleep, 30)",
        "a read": "blocked_in(os.read, os.pipe()[0], 1)",
        "a wait for a child": "pid = os.fork() or os.execvp('sleep', ['sleep', '40'])\n"
                              "blocked_in(os.waitpid, pid, 0)\nos.kill(pid, signal.SIGKILL)",
    }
    kExpected = {
        "a stop": ("""
def in_stop(frame):
    del called[:]
    lasting(3)
    print(called)
    tracer.continue_run()
nothing = lambda *arguments: None
tracer.init(1.0, 0, nothing, nothing, idle, in_stop, nothing, nothing, nothing, None,
            builtins.__import__, {})
tracer.set_use_idle_thread(1)
tracer.start_trace()
keep_open = record_second_thread()
tracer.stop()
os.getpid()
tracer.stop_trace()
""", "[]"),
        "a period below a second": ("""
init(idle, 0.5)
tracer.start_trace()
keep_open = record_second_thread()
lasting(3)
print(called)
""", "[]"),
        "one thread alone": ("""
init(idle)
tracer.start_trace()
sys.settrace(None)
time.sleep(3.5)
print('idle thread' in called)
""", "False"),
        "a slow exit function": ("""
import atexit
def at_end():
    lasting(2)
    os.write(1, b'end')
atexit.register(at_end)
init(lambda: None)
tracer.start_trace()
""", "end"),
        "the end of the interpreter": ("""
def idle():
    if ending: os.write(1, b'called ')
class Late(object):
    def __del__(self, lasting=lasting, time=time):
        ending.append(1)
        lasting(3)
        os.write(1, b'end')
ending = []
builtins.kept_ending = ending
init(idle)
tracer.start_trace()
module = sys.modules['kept'] = type(sys)('kept')
module.late = Late()
del module
""", "end"),
    }

    @time_limit(100)
    def test_called_wherever_a_program_waits_and_not_where_it_must_not_be(self):
        import_tracer()
        wanted = {name: (source, "idle thread") for name, source in self.kBlocked.items()}
        wanted.update(self.kExpected)
        results = {}

        def run(name, source):
            results[name] = run_code(kStatePrelude + source)

        threads = [threading.Thread(target=run, args=(name, source))
                   for name, (source, _) in wanted.items()]
        run_all(threads)
        for name, (_, expected) in sorted(wanted.items()):
            done = results[name]
            self.assertEqual((done.out.strip(), done.err, done.status), (expected, "", 0),
                             (name, done))


@needs_idle_thread
class OtherCallbacks(TestCase):
    """What a user does who detaches: from inside any callback, with the idle thread running."""

    kKinds = ("line_cb", "return_cb", "exception_cb", "quit_cb", "import_cb", "checksum_cb",
              "idle_cb", "policy")

    def setUp(self):
        self.steps = import_debuggee("steps")
        self.expected = self.program(lambda: None)

    def program(self, stop):
        stop()
        __import__("string")
        return self.steps.catches(stop), self.steps.calls(stop)

    def run_with(self, kind, operation):
        done = []

        def act(*_):
            if not done:
                done.append(kind)
                operation(session.tracer)

        settings = {} if kind == "policy" else {kind: act}
        session = Session(exception_mode=1, idle_period=1.0, **settings)
        tracer = session.tracer
        if kind == "policy":
            tracer.set_debug_thread_cb(act)
        if kind == "checksum_cb":
            tracer.enable_checksums(1)
            tracer.set_break("nowhere/else.py", "sum", 3, 1, 0, None, 0)
        tracer.set_use_idle_thread(1)
        result = session.run(self.program, *["step_into"] * 30)
        self.assertEqual(result, self.expected, kind)
        tracer.reset()
        return done

    def check(self, operation):
        before = thread_count()
        called = [self.run_with(kind, operation) for kind in self.kKinds]
        late = threading.Event()
        for _ in range(10000):
            if thread_count() == before:
                break
            late.wait(0.001)
        self.assertEqual(thread_count(), before)
        return sum(called, [])

    def test_stop_trace(self):
        called = self.check(lambda tracer: tracer.stop_trace())
        self.assertEqual(set(called) - set(self.kKinds), set())
        self.assertGreaterEqual(set(called),
                                set(("line_cb", "return_cb", "exception_cb", "policy")))

    def test_stop_and_start(self):
        self.check(lambda tracer: (tracer.stop_trace(), tracer.start_trace()))

    def test_switch_off(self):
        self.check(lambda tracer: tracer.set_use_idle_thread(0))

    def test_switch_off_and_on(self):
        self.check(lambda tracer: (tracer.set_use_idle_thread(0), tracer.set_use_idle_thread(1)))

    def test_reset(self):
        self.check(lambda tracer: tracer.reset())

    def test_reset_and_start(self):
        self.check(lambda tracer: (tracer.reset(), tracer.start_trace()))


if __name__ == "__main__":
    unittest.main()
