"""Attach by process id: running programs, and what is in the way."""
from __future__ import absolute_import, division, print_function

import json
import os
import signal
import subprocess
import sys
import unittest

from support import dapclient
from support.case import TestCase
from support.library import library_path
from support.programs import run_program
from tdbg import api
from tdbg.dap import endpoint

kOncePerVersion = True

kHasRemoteExec = sys.version_info >= (3, 14)
kNobody = 65534
kBits = 64 if sys.maxsize > 2 ** 32 else 32
kHeaders = {32: "\x7fELF\x01", 64: "\x7fELF\x02"}  # how libraries begin
kTraceMe, kSetDumpable = 0, 4  # of ptrace() and prctl()

# Computes; naps now and then; ends when told.
kLoop = """\
from __future__ import print_function
import os, sys, time
n = 0
print('runs')
sys.stdout.flush()
while not os.path.exists({end!r}):
    n += 1  #@ count
    if n % 1000 == 0:
        time.sleep(0.001)
print('end', 'tdbg' in sys.modules)
sys.exit(4)
"""
# The main thread sleeps until a signal comes, then waits for a lock that its first worker has; the
# second one tells where it is.
kBlocked = """\
from __future__ import print_function
import os, signal, sys, threading, time
class Wake(Exception):
    pass
def wake(*_):
    raise Wake
def step(n):
    return n + 1  #@ step
def tell(mark):
    with open(__file__) as source:
        lines = [n for n, text in enumerate(source, 1) if text.rstrip().endswith('#@ ' + mark)]
    while sys._current_frames()[main].f_lineno not in lines:
        time.sleep(0.001)
    print(mark)
    sys.stdout.flush()
def work(lock, marks):
    n = 0
    with lock:
        has_lock.set()
        for mark in marks:
            tell(mark)
        while not os.path.exists({end!r}):
            n = step(n)
            time.sleep(0.001)
signal.signal(signal.SIGUSR1, wake)
lock, has_lock = threading.Lock(), threading.Event()
main = list(sys._current_frames())[0]
threading.Thread(target=work, args=(lock, ()), name='worker').start()
has_lock.wait()
threading.Thread(target=work, args=(threading.Lock(), ('sleep', 'lock')), name='worker').start()
try:
    time.sleep(1000)  #@ sleep
except Wake:
    pass
lock.acquire()  #@ lock
print('end')
sys.exit(4)
"""
# The main thread waits in native code and keeps the interpreter lock.
kStuck = """\
from __future__ import print_function
import ctypes, sys
read = ctypes.PyDLL(None).read
data = ctypes.create_string_buffer(1)
with open('/proc/self/maps') as source:
    source.read()
print('runs')
sys.stdout.flush()
count = read(0, data, 1)
print(count, 'tdbg' in sys.modules)
sys.exit(4)
"""
kTraced = """\
import ctypes, sys
ctypes.CDLL(None).ptrace({}, 0, 0, 0)
sys.stdout.write('traced\\n')
sys.stdout.flush()
sys.stdin.read()
""".format(kTraceMe)
# Afterwards its user may look into it, which is not so where a process has been another user's.
kBecomeNobody = """\
import ctypes, os
os.setgroups([])
os.setuid({})
ctypes.CDLL(None).prctl({}, 1, 0, 0, 0)
""".format(kNobody, kSetDumpable)
# Runs in the adapter's Python: what tProcess says.
kChecks = """\
import json, os, sys
package, pid, library, user, scope = json.loads(sys.argv[1])
sys.path.insert(0, os.path.dirname(package))
sys.dont_write_bytecode = True
from tdbg.adapter import injecting, main
from tdbg.dap import endpoint
options = main.tOptions()
options.library = library
if scope is not None:
    injecting.kPtraceScope = scope
if user is not None:
    os.setgroups([])
    os.setuid(user)
try:
    injecting.tProcess(pid, options)
except endpoint.tRefused as why:
    sys.stdout.write(str(why))
"""


def find_gdb():
    """gdb that the tests' packages bring, for it may be newer than the system's; else None."""
    base = os.environ.get("XDG_CACHE_HOME") or os.path.join(os.path.expanduser("~"), ".cache")
    path = os.path.join(base, "tdbg", "clients", "gdb", "gdb")
    return path if os.path.exists(path) else None


def has_gdb():
    folders = os.environ["PATH"].split(os.pathsep)
    return find_gdb() is not None or any(
        os.access(os.path.join(folder, "gdb"), os.X_OK) for folder in folders)


def tracer_of(pid):
    return status_of(pid, "TracerPid:")


def state_of(pid):
    return status_of(pid, "State:")


def status_of(pid, name):
    with open("/proc/{}/status".format(pid)) as source:
        return [line.split()[1] for line in source if line.startswith(name)][0]


def mappings_of(pid):
    """Address ranges that do not grow by themselves."""
    with open("/proc/{}/maps".format(pid)) as source:
        return [line.split()[0] for line in source if "[" not in line]


def main_thread(client):
    threads = client.request("threads")["threads"]
    return [row["id"] for row in threads if row["name"] == "MainThread"][0]


class Case(TestCase):

    def setUp(self):
        self.end_file = os.path.join(self.make_dir(), "end")

    def start(self, source, wait_for="runs\n", **more):
        """A program of the interpreter under test that has come so far; (process, path)."""
        path = self.make_file("prog.py", source.replace("{end!r}", repr(self.end_file)))
        env = dict(os.environ, **more.pop("env", {}))
        process = subprocess.Popen(
            [sys.executable, path], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
            stderr=subprocess.PIPE, env=env, **more)
        self.addCleanup(dapclient.end_process, process)
        self.assertEqual(process.stdout.readline().decode("utf-8"), wait_for)
        return process, path

    def adapter(self, *arguments, **env):
        if find_gdb():
            env.setdefault("TDBG_GDB", find_gdb())
        client = dapclient.start_adapter(self, *arguments, env=dict(os.environ, **env))
        client.initialize()
        return client

    def attach(self, process, breakpoints=None, **env):
        """A client whose session has begun."""
        client = self.adapter(**env)
        seq = client.send("attach", {"processId": str(process.pid)})
        client._wait(
            lambda: client.has_response_to(seq) or client.seen_events("initialized"),
            "answer to attach", dapclient.kSeconds)
        if client.has_response_to(seq):
            self.skip_where_gdb_is_too_old(client.response_to(seq)["message"])
        for path, marks in (breakpoints or {}).items():
            client.set_breakpoints(path, marks)
        client.request("configurationDone")
        self.assertTrue(client.response_to(seq)["success"])
        return client

    def skip_where_gdb_is_too_old(self, refused):
        self.assertIn("it is older than this processor", refused)
        self.skipTest(refused)

    def refusal(self, process, **env):
        refused = self.adapter(**env).refused("attach", {"processId": process.pid})
        if "it is older than this processor" in refused:
            self.skipTest(refused)
        return refused

    def end_of(self, process, data=b""):
        """(status, stdout, stderr)"""
        open(self.end_file, "w").close()
        out, err = process.communicate(data)
        return process.returncode, out.decode("utf-8"), err.decode("utf-8")


@unittest.skipUnless(kHasRemoteExec or has_gdb(), "gdb is not installed")
class Running(Case):

    def test_program_that_computes_is_attached_to_twice(self):
        process, path = self.start(kLoop)
        last = 0
        for _ in range(2):
            client = self.attach(process, {path: ["count"]})
            thread = client.wait_stopped("breakpoint")["threadId"]
            self.assertEqual(client.place(thread), ("<module>", "count"))
            count = int(client.evaluate("n", client.stack(thread)[0]["id"]))
            self.assertGreater(count, last)
            last = count
            client.request("disconnect")
            self.assertEqual(client.wait_exit(), 0)
        self.assertEqual(self.end_of(process), (4, "end True\n", ""))

    @unittest.skipUnless(has_gdb(), "gdb is not installed")
    def test_program_that_sleeps_and_one_that_waits_for_a_lock(self):
        process, path = self.start(kBlocked, "sleep\n")
        client = self.attach(process, {path: ["step"]})
        first = client.wait_stopped("breakpoint")["threadId"]
        self.assertEqual(client.place(first), ("step", "step"))
        threads = client.request("threads")["threads"]
        self.assertEqual(sorted(row["name"] for row in threads), ["MainThread", "worker", "worker"])
        self.assertEqual(client.place(main_thread(client)), ("<module>", "sleep"))
        client.request("disconnect")
        os.kill(process.pid, signal.SIGUSR1)
        self.assertEqual(process.stdout.readline(), b"lock\n")
        client = self.attach(process)
        client.request("pause", {"threadId": main_thread(client)})
        client.wait_stopped("pause")
        self.assertEqual(client.place(main_thread(client)), ("<module>", "lock"))
        client.request("disconnect")
        self.assertEqual(self.end_of(process), (4, "end\n", ""))


class Refused(Case):

    def checks(self, pid, library=None, user=None, scope=None):
        """What an adapter says, of another user or where the kernel's rule is another."""
        arguments = json.dumps([dapclient.PACKAGE, pid, library or library_path(), user, scope])
        done = run_program(
            [dapclient.adapter_python(), "-c", kChecks, arguments],
            env={"PATH": os.environ["PATH"], "TDBG_GDB": find_gdb() or ""})
        self.assertEqual((done.status, done.err), (0, ""), done)
        self.assertNotIn("\n", done.out)
        return done.out

    def test_wrong_processes(self):
        client = self.adapter()
        sleeper = subprocess.Popen(
            ["/bin/sh", "-c", "echo; read line"], stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        self.addCleanup(dapclient.end_process, sleeper)
        sleeper.stdout.readline()
        with open("/proc/sys/kernel/pid_max") as source:
            beyond = int(source.read())
        for pid, wanted in (
                (beyond, "there is no process {}: ".format(beyond)),
                (sleeper.pid, "is not a Python program: "),
                (client.process.pid, "is the debug adapter: ")):
            self.assertIn(wanted, client.refused("attach", {"processId": pid}))
        ended = subprocess.Popen([sys.executable, "-c", ""])
        self.addCleanup(dapclient.end_process, ended)
        if hasattr(os, "waitid"):
            os.waitid(os.P_PID, ended.pid, os.WEXITED | os.WNOWAIT)
        else:
            ended.wait()
        self.assertRegex(
            client.refused("attach", {"processId": ended.pid}),
            "there is no process|has ended: give")

    def test_stopped_process(self):
        process, _ = self.start(kLoop)
        os.kill(process.pid, signal.SIGSTOP)
        os.waitpid(process.pid, os.WUNTRACED)
        self.assertIn(
            "is stopped: wake it first (kill -CONT {})".format(process.pid), self.refusal(process))
        os.kill(process.pid, signal.SIGCONT)
        self.assertEqual(self.end_of(process), (4, "end False\n", ""))

    @unittest.skipIf(kHasRemoteExec, "needs no gdb")
    def test_traced_process(self):
        process, _ = self.start(kTraced, "traced\n")
        self.assertIn(
            "is being traced by process {} (".format(os.getpid()),
            self.refusal(process, TDBG_GDB="/bin/true"))

    @unittest.skipUnless(os.geteuid() == 0, "only root can be somebody else")
    def test_process_of_another_user(self):
        process, _ = self.start(kLoop)
        self.assertEqual(
            self.checks(process.pid, user=kNobody),
            "process {} belongs to another user (0): start the adapter as that user, or as "
            "root".format(process.pid))

    @unittest.skipUnless(has_gdb() or kHasRemoteExec, "gdb is not installed")
    def test_kernel_rule(self):
        process, _ = self.start(kLoop)
        public = self.make_dir()
        os.chmod(public, 0o755)
        library = self.make_file("tdbgtracer.so", kHeaders[kBits], public)
        rule = {scope: self.make_file("scope" + scope, scope + "\n", public) for scope in "0123"}
        root = os.geteuid() == 0
        self.assertEqual(self.checks(process.pid, scope=rule["0"]), "")
        self.assertEqual(self.checks(process.pid, scope=self.end_file), "")  # a kernel without it
        self.assertIn(
            "until the machine starts anew: ptrace_scope is 3",
            self.checks(process.pid, scope=rule["3"]))
        if root:
            self.assertEqual(self.checks(process.pid, scope=rule["2"]), "")
            process, _ = self.start(kLoop.replace("n = 0\n", kBecomeNobody + "n = 0\n"))
            self.assertEqual(self.checks(process.pid, library, kNobody, rule["0"]), "")
        for scope in "12":
            self.assertIn(
                "ptrace_scope is {} (sysctl kernel.yama.ptrace_scope=0 allows it".format(scope),
                self.checks(process.pid, library, kNobody if root else None, rule[scope]))

    def test_library_for_another_word_size(self):
        process, _ = self.start(kLoop)
        other = self.make_file("tdbgtracer.so", kHeaders[96 - kBits])
        self.assertRegex(
            self.checks(process.pid, library=other),
            r"runs a {0}-bit interpreter, for which there is no tdbgtracer\.so in .*: install tdbg "
            "for {0} bits, or name its library with --library".format(kBits))

    @unittest.skipIf(kHasRemoteExec, "needs no gdb")
    def test_without_gdb(self):
        process, _ = self.start(kLoop)
        folder = self.make_dir()
        os.symlink(dapclient.adapter_python(), os.path.join(folder, "python3"))
        self.assertRegex(
            self.refusal(process, PATH=folder, TDBG_GDB=""),
            "^gdb is not installed, and process [0-9]+ runs Python .*: install gdb, or have "
            "TDBG_GDB name one$")

    @unittest.skipIf(kHasRemoteExec, "needs no gdb")
    def test_gdb_that_cannot_do_it(self):
        process, _ = self.start(kLoop)
        self.assertIn(
            "cannot run /nowhere/gdb: No such file or directory; TDBG_GDB can name another gdb",
            self.refusal(process, TDBG_GDB="/nowhere/gdb"))
        gdb = self.make_file("gdb", "#!/bin/sh\necho 'ptrace: Operation not permitted.'\nexit 1\n")
        os.chmod(gdb, 0o755)
        self.assertRegex(
            self.refusal(process, TDBG_GDB=gdb),
            r"gdb says: ptrace: Operation not permitted\. \(.*capability SYS_PTRACE\)")
        self.assertEqual(self.end_of(process), (4, "end False\n", ""))

    @unittest.skipUnless(has_gdb(), "gdb is not installed")
    def test_native_code_that_keeps_the_lock_is_left_alone(self):
        process, _ = self.start(kStuck)
        while state_of(process.pid) != "S":
            pass
        before = mappings_of(process.pid)
        self.assertIn("its main thread is busy or waits in native code", self.refusal(process))
        self.assertEqual(mappings_of(process.pid), before)
        self.assertEqual(self.end_of(process, b"x"), (4, "1 False\n", ""))

    @unittest.skipUnless(has_gdb(), "gdb is not installed")
    def test_client_that_leaves_meanwhile(self):
        process, _ = self.start(kStuck)
        client = self.adapter()
        seq = client.send("attach", {"processId": process.pid})
        while tracer_of(process.pid) == "0" and not client.has_response_to(seq):
            pass
        client.request("disconnect")
        client.wait_exit()
        self.assertEqual(tracer_of(process.pid), "0")
        self.assertEqual(self.end_of(process, b"x"), (4, "1 False\n", ""))

    def test_adapter_that_is_killed_meanwhile(self):
        """Its folder is removed; that of gdb when gdb has ended."""
        process, _ = self.start(kStuck)
        while state_of(process.pid) != "S":
            pass
        folder, fifo = self.make_dir(), os.path.join(self.make_dir(), "fifo")
        os.mkfifo(fifo)
        gdb = self.make_file("gdb", "#!/bin/sh\npwd > {0}\nread line < {0}\n".format(fifo))
        os.chmod(gdb, 0o755)
        client = self.adapter(TDBG_GDB=gdb, TMPDIR=folder)
        client.send("attach", {"processId": process.pid})
        with open(fifo) as source:
            of_gdb = os.path.basename(source.read().rstrip())
        names = os.listdir(folder)
        self.assertEqual((len(names), of_gdb in names), (2, True))
        client.process.kill()
        while os.listdir(folder) != [of_gdb]:
            pass
        with open(fifo, "w"):
            pass
        while os.listdir(folder):
            pass
        self.assertEqual(self.end_of(process, b"x"), (4, "1 False\n", ""))

    def test_script_that_comes_after_its_adapter(self):
        """It removes what that has left; anything else that is in the way is told."""
        folder = self.make_dir()
        path = os.path.join(folder, "debuggee")
        with self.assertRaises(EnvironmentError):
            api.serve_socket(path, None)
        endpoint.listen_unix(path).close()
        api.serve_socket(path, None)
        self.assertFalse(os.path.exists(folder))

    @unittest.skipUnless(has_gdb() or kHasRemoteExec, "gdb is not installed")
    def test_debugger_that_cannot_be_loaded(self):
        process, _ = self.start(kLoop)
        with open(library_path(), "rb") as source:
            header = source.read(100)
        broken = os.path.join(self.make_dir(), "tdbgtracer.so")
        with open(broken, "wb") as out:
            out.write(header)
        client = self.adapter("--library", broken)
        refused = client.refused("attach", {"processId": process.pid})
        if "it is older than this processor" in refused:
            self.skipTest(refused)
        self.assertIn("tdbgtracer.so", refused)
        self.assertEqual(self.end_of(process), (4, "end True\n", ""))


@unittest.skipUnless(kHasRemoteExec, "only 3.14 and later take scripts")
class RemoteExecution(Case):

    def test_disabled(self):
        process, _ = self.start(kLoop, env={"PYTHON_DISABLE_REMOTE_DEBUG": "1"})
        self.assertIn(
            "does not allow remote debugging: start it without PYTHON_DISABLE_REMOTE_DEBUG",
            self.refusal(process))
        self.assertEqual(self.end_of(process), (4, "end False\n", ""))

    def test_blocked_program_forgets_the_script_that_nobody_waits_for(self):
        process, _ = self.start(kBlocked, "sleep\n")
        folder = self.make_dir()
        os.symlink(dapclient.adapter_python(), os.path.join(folder, "python3"))
        self.assertRegex(
            self.refusal(process, PATH=folder, TDBG_GDB=""),
            "gdb is not installed, .* whose main thread is blocked: install gdb")
        os.kill(process.pid, signal.SIGUSR1)
        self.assertEqual(process.stdout.readline(), b"lock\n")
        self.assertEqual(self.end_of(process), (4, "end\n", ""))

