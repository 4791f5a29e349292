"""New processes made by a program that is traced, and the end of such a program."""
from __future__ import absolute_import, division, print_function

import signal
import sys
import unittest

from support import TestCase, needs, run_code, run_script, time_limit

kOnceWhenQuick = True
kStart = """
from __future__ import print_function
import os, sys, threading
from support.tracing import Session, ThreadSession, import_debuggee
steps = import_debuggee("steps")
"""


class ForkCase(TestCase):
    def run_lines(self, source, status=0, **options):
        """What the program prints."""
        done = run_code(kStart + source, **options)
        self.assertFalse(done.timed_out, done)
        self.assertEqual(done.status, status, done)
        return done.out


class Children(ForkCase):
    """A child says how many stops it had, after it was stopped and stepped, and ends with 7."""

    kChild = """
session = Session(idle_period=1.0)
session.tracer.set_use_idle_thread(1)
def in_child(how):
    if how == "ok":
        session.tracer.fork_ok()
    del session.stops[:]
    session.script = ["step_into", "step_into"]
    result = steps.calls(session.tracer.stop)
    import bisect
    tasks = len(os.listdir("/proc/self/task"))
    print(how, len([stop for stop in session.stops if stop[0] == "line"]), result, tasks)
    sys.stdout.flush()
    os._exit(7)
"""

    def tasks(self):
        return 2 if sys.version_info >= (3, 7) else 1

    def check(self, make_child, how):
        stops, tasks = {"ok": (3, self.tasks()), "alone": (0, 1)}[how]
        out = self.run_lines(self.kChild + """
def program(stop):
    stop()
    pid = make(%r)
    status = os.waitpid(pid, 0)[1]
    return os.WEXITSTATUS(status)
def make(how):
%s
print("status", session.run(program, "step_over"))
""" % (how, make_child))
        self.assertEqual(out.split("\n")[0],
                         "{} {} {} {}".format(how, stops, out.split()[2], tasks))
        self.assertIn("status 7", out)

    @needs("fork")
    def test_fork_without_permission(self):
        self.check("    return os.fork() or in_child(how)", "alone")

    @needs("fork")
    def test_fork_with_permission(self):
        self.check("    return os.fork() or in_child(how)", "ok")

    kForkpty = """
    pid, terminal = os.forkpty()
    if pid == 0:
        in_child(how)
    text = b""
    while b"\\n" not in text:
        text += os.read(terminal, 1000)
    print(text.decode().replace("\\r", "").strip())
    return pid"""

    @needs("fork")
    def test_forkpty_without_permission(self):
        self.check(self.kForkpty, "alone")

    @needs("fork")
    def test_forkpty_with_permission(self):
        self.check(self.kForkpty, "ok")

    @needs("fork")
    def test_child_of_a_child(self):
        out = self.run_lines(self.kChild + """
def program(stop):
    pid = os.fork()
    if pid == 0:
        session.tracer.fork_ok()
        inner = os.fork()
        if inner == 0:
            in_child("ok")
        os._exit(os.WEXITSTATUS(os.waitpid(inner, 0)[1]))
    return os.WEXITSTATUS(os.waitpid(pid, 0)[1])
print("status", session.run(program))
""")
        self.assertEqual(out.split()[:2], ["ok", "3"])
        self.assertIn("status 7", out)

    @needs("fork")
    def test_fork_in_a_stop(self):
        """The child goes on from there; without permission nothing stops it any more."""
        for how, stops in (("", "0"), ("session.tracer.fork_ok()", "1")):
            out = self.run_lines("""
children = []
def in_stop(frame):
    session.tracer.step_into()
    if not children:
        children.append(os.fork())
        if children[0] == 0:
            {}
            del seen[:]
    elif children[0] == 0:
        seen.append(frame.f_code.co_name)
seen = []
session = Session(line_cb=in_stop)
steps_result = session.run(steps.calls)
if children[0] == 0:
    print(int(len(seen) > 0), steps_result)
    sys.stdout.flush()
    os._exit(3)
print("status", os.WEXITSTATUS(os.waitpid(children[0], 0)[1]), steps_result)
""".format(how))
            lines = out.splitlines()
            self.assertEqual(lines[0].split()[0], stops, (how, out))
            self.assertEqual(lines[1].split()[:2], ["status", "3"])
            self.assertEqual(lines[0].split()[1], lines[1].split()[2])

    @needs("fork")
    def test_fork_while_another_thread_is_stopped(self):
        for how, stops in (("alone", "0"), ("ok", "3")):
            # The child ends the stop: from 3.12 on a fork imports a module in the parent, and an
            # import waits for the mutex.
            out = self.run_lines(self.kChild.replace("Session(", "ThreadSession(").replace(
                "os._exit(7)", "os.write(writing, b'x'); os._exit(7)") + """
reading, writing = os.pipe()
stopped = threading.Event()
first = [True]
real_line = session.line_cb
def in_stop(frame):
    if first and threading.current_thread() is not main:
        del first[:]
        stopped.set()
        os.read(reading, 1)
        session.tracer.continue_run()
    else:
        real_line(frame)
main = threading.current_thread()
session.line_cb = in_stop
session.init()
session.tracer.set_debug_all_threads(0)  # or this thread would wait for the other one
session.tracer.set_use_idle_thread(1)
def program(stop):
    thread = threading.Thread(target=steps.calls, args=(stop,))
    thread.start()
    stopped.wait()
    pid = os.fork()
    if pid == 0:
        in_child(%r)
    thread.join()
    return os.WEXITSTATUS(os.waitpid(pid, 0)[1])
print("status", session.run(program))
""" % how)
            self.assertEqual(out.split()[:2], [how, stops])
            self.assertIn("status 7", out)

    @needs("fork")
    def test_fork_while_others_use_the_mutex(self):
        out = self.run_lines("""
session = ThreadSession()
tracer = session.tracer
go_on = [True]
def use():
    while go_on[0]:
        tracer.acquire_dbgserver_mutex()
        steps.add(1, 2)
        tracer.release_dbgserver_mutex()
def program(stop):
    threads = [threading.Thread(target=use) for _ in range(4)]
    for thread in threads: thread.start()
    statuses = set()
    for _ in range(30):
        pid = os.fork()
        if pid == 0:
            tracer.fork_ok()
            del session.stops[:]
            session.script = ["step_into"]
            steps.calls(tracer.stop)
            tracer.acquire_dbgserver_mutex()
            tracer.release_dbgserver_mutex()
            os._exit(len(session.stops))
        statuses.add(os.WEXITSTATUS(os.waitpid(pid, 0)[1]))
    go_on[0] = False
    for thread in threads: thread.join()
    return statuses
print(sorted(session.run(program)))
""")
        self.assertEqual(out, "[2]\n")


class Multiprocessing(ForkCase):
    kProgram = """
import os, sys, multiprocessing
def square(number):
    import calendar
    return number * number, os.getpid()
def work(queue):
    queue.put([square(number)[0] for number in range(5)])
    sys.exit(3)
def program(stop, context):
    stop()
    queue = context.Queue()
    process = context.Process(target=work, args=(queue,))
    process.start()
    found = queue.get()
    process.join()
    pool = context.Pool(2)
    found.append(pool.map(square, [7])[0][0])
    pool.close()
    pool.join()
    return found, process.exitcode
if __name__ == "__main__":
    from support.tracing import ThreadSession
    context = CONTEXT
    session = ThreadSession()
    session.tracer.set_autoquit(0)
    print(session.run(program, "step_over", "continue_run", context=context))
    print(len(session.stops), set(stop[1] for stop in session.stops))
"""

    def check(self, context):
        path = self.make_file("program.py", self.kProgram.replace("CONTEXT", context))
        from support.programs import python_path
        done = run_script(path, env={"PYTHONPATH": python_path()})
        self.assertEqual(done.status, 0, done)
        lines = done.out.splitlines()
        self.assertEqual(lines[0], "([0, 1, 4, 9, 16, 49], 3)", done)
        self.assertEqual(lines[1].split(" ", 1)[0].strip("(,"), "2", done)

    @needs("python2")
    def test_of_2_7(self):
        self.check("multiprocessing")

    @needs("!python2")
    def test_fork(self):
        self.check("multiprocessing.get_context('fork')")

    @needs("!python2")
    def test_forkserver(self):
        self.check("multiprocessing.get_context('forkserver')")

    @needs("!python2")
    def test_spawn(self):
        self.check("multiprocessing.get_context('spawn')")


class Subprocess(ForkCase):
    def test_programs_run_and_end_as_they_do(self):
        out = self.run_lines("""
import subprocess
session = ThreadSession()
def program(stop):
    stop()
    status = subprocess.call([sys.executable, "-c", "import sys; sys.exit(9)"])
    text = subprocess.Popen([sys.executable, "-c", "print(input if 0 else 8)"],
                            stdout=subprocess.PIPE).communicate()[0]
    return status, int(text), os.system("exit 4") >> 8
print(session.run(program, "step_over", "step_over", "step_over"))
print(len(session.stops))
""")
        self.assertEqual(out, "(9, 8, 4)\n4\n")

    def test_function_before_the_program_begins(self):
        out = self.run_lines("""
import subprocess
session = Session()
def prepare():
    steps.calls(session.tracer.stop)
def program(stop):
    return subprocess.call([sys.executable, "-c", "import sys; sys.exit(9)"], preexec_fn=prepare)
print(session.run(program), session.stops)
""")
        self.assertEqual(out, "9 []\n")

    def test_program_in_place_of_this_one(self):
        out = self.run_lines("""
session = Session()
def program(stop):
    stop()
    os.execv(sys.executable, [sys.executable, "-c", "print('new'); import sys; sys.exit(6)"])
session.run(program, "step_into")
""", status=6)
        self.assertEqual(out, "new\n")


class Ends(ForkCase):
    """The end of a process that is traced, with the status it would have had."""

    kWork = """
session.tracer.start_trace()
for _ in range(4):
    thread = threading.Thread(target=work)
    thread.daemon = True
    thread.start()
ready.wait()
sys.exit(4)
"""

    # 3.13 without its lock: a daemon thread that is ended may have been given the interpreter's own
    # lock for halting the world, for which the last collection then waits for ever.
    @needs("interpreter_lock")
    def test_with_daemon_threads_still_running(self):
        self.run_lines("""
session = ThreadSession(idle_period=1.0)
session.tracer.set_use_idle_thread(1)
ready = threading.Event()
def work():
    while True:
        ready.set()
        steps.add(1, 2)
""" + self.kWork, status=4)

    @needs("interpreter_lock")
    def test_with_daemon_threads_that_are_stepped(self):
        self.run_lines("""
class Ready(object):  # an Event's own lock may be in the hands of a thread that is held
    lock, is_set = threading.Lock(), False
    lock.acquire()
    def set(self):
        if not self.is_set:
            self.is_set = True
            self.lock.release()
    def wait(self):
        self.lock.acquire()
def in_stop(*_):
    ready.set()
    session.tracer.step_into()
session = ThreadSession(line_cb=in_stop, return_cb=in_stop, quit_cb=lambda: None)
ready = Ready()
def work():
    session.tracer.stop()
    while True:
        steps.add(1, 2)
""" + self.kWork, status=4)

    def test_with_a_thread_that_waits_in_a_stop(self):
        """Python 2 lets a daemon thread run while it ends, and may abort then: there the thread
        has to wait before anybody else runs."""
        self.run_lines("""
stopped, never = threading.Lock(), threading.Lock()
stopped.acquire()
never.acquire()
if sys.version_info < (3,):
    sys.setcheckinterval(1 << 30)
def in_stop(frame):
    stopped.release()
    never.acquire()
session = ThreadSession(line_cb=in_stop)
session.tracer.set_debug_all_threads(0)
session.tracer.start_trace()
thread = threading.Thread(target=steps.calls, args=(session.tracer.stop,))
thread.daemon = True
thread.start()
stopped.acquire()
sys.exit(4)
""", status=4)

    @needs("!python2")
    def test_with_the_mutex_in_the_hands_of_a_thread_that_the_interpreter_ends(self):
        """Python 2 ends no thread: there the end waits for that of the stop."""
        out = self.run_lines("""
stopped = threading.Event()
def in_stop(frame):
    stopped.set()
    threading.Event().wait()
class Late(object):
    def __del__(self, write=os.write, add=steps.add):
        self.set_debug_all_threads(1)  # from now on this thread waits, too
        write(1, str(add(1, 2)).encode())
session = ThreadSession(line_cb=in_stop)
session.tracer.set_debug_all_threads(0)
session.tracer.start_trace()
thread = threading.Thread(target=steps.calls, args=(session.tracer.stop,))
thread.daemon = True
thread.start()
stopped.wait()
module = sys.modules["late"] = type(sys)("late")  # not ours: the stopped frames keep that
module.late = Late()
module.late.set_debug_all_threads = session.tracer.set_debug_all_threads
del module
sys.exit(4)
""", status=4)
        self.assertEqual(out, "3")

    def test_with_other_threads_that_are_joined_at_exit(self):
        out = self.run_lines("""
session = ThreadSession(quit_cb=lambda: None)
go = threading.Event()
def work():
    go.wait()
    print(steps.add(1, 2))
session.tracer.start_trace()
threading.Thread(target=work).start()
import atexit
go.set()
sys.exit(4)
""", status=4)
        self.assertEqual(out, "3\n")

    def end_in(self, kind, action, status):
        """The callback does the action, and the program goes on if it may."""
        self.run_lines("""
def act(*_):
    {action}
session = ThreadSession({kind}=act, exception_mode=1, quit_cb=lambda: None)
session.tracer.start_trace()
try:
    steps.catches(session.tracer.stop)
    steps.calls(session.tracer.stop)
finally:
    sys.stdout.flush()
sys.exit(5)
""".format(kind=kind, action=action), status=status)

    def test_os_exit_in_a_callback(self):
        for kind in ("line_cb", "exception_cb"):
            self.end_in(kind, "os._exit(8)", 8)

    def test_exit_in_a_callback_ends_only_tracing(self):
        for kind in ("line_cb", "exception_cb", "return_cb"):
            self.end_in(kind, "sys.exit(8)", 5)
            self.end_in(kind, "raise KeyboardInterrupt", 5)

    def test_signal_in_a_callback(self):
        """A handler's exception in the callback is the callback's; by default the process ends."""
        self.end_in("line_cb", "os.kill(os.getpid(), 2); [i for i in range(1000)]", 5)
        self.end_in("line_cb", "os.kill(os.getpid(), 15)", -int(signal.SIGTERM))
        self.end_in("line_cb", "os.abort()", -int(signal.SIGABRT))

    def test_exception_that_ends_the_program(self):
        self.run_lines("""
session = Session(exception_mode=1, quit_cb=lambda: None)
session.tracer.start_trace()
steps.fails()
""", status=1)

    def test_keyboard_interrupt_that_ends_the_program(self):
        done = run_code(kStart + """
session = Session(exception_mode=2, quit_cb=lambda: None)
session.tracer.start_trace()
raise KeyboardInterrupt
""")
        self.assertIn(done.status, (1, 130, -int(signal.SIGINT)), done)
        self.assertIn("KeyboardInterrupt", done.err)

    def test_exit_functions_are_traced_and_run(self):
        out = self.run_lines("""
import atexit
session = Session(idle_period=1.0, quit_cb=lambda: None)
session.tracer.set_use_idle_thread(1)
def at_end():
    print("end", steps.add(1, 2))
atexit.register(at_end)
atexit.register(session.tracer.atexit_func)
session.tracer.start_trace()
session.tracer.stop()
sys.exit(6)
""", status=6)
        self.assertIn("end 3\n", out)

    @time_limit(120)
    @needs("interpreter_lock")
    def test_again_and_again(self):
        for _ in range(10):
            self.test_with_daemon_threads_still_running()


if __name__ == "__main__":
    unittest.main()
