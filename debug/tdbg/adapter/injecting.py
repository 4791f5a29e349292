"""Attach by process id: bring the debugger into a process that was started without it.

From 3.14 on the interpreter takes a script by itself (sys.remote_exec), when it is asked by one of
its own version.  Before, and where the main thread of a later one is blocked, gdb makes the process
run it (see gdb.py).

Whatever is in the way is named, with what helps.  Until the script begins, nothing of ours is in
the process; the script begins only while its adapter waits, and no exception leaves it.
"""
import _socket
import os
import re
import subprocess
import threading
import time

from tdbg import nativelib
from tdbg.adapter import folders, gdb, symbols
from tdbg.dap import endpoint

kPackage = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
kPtraceScope = "/proc/sys/kernel/yama/ptrace_scope"
kMayTrace = 1 << 19      # CAP_SYS_PTRACE
kToolSeconds = 30
kPatienceSeconds = 10.0  # for a script that was left for the interpreter
kBlockedSeconds = 1.0    # without a turn of the main thread
kPollSeconds = 0.01
kArrivalSeconds = 1.0    # after the script has run
kRemoteExec = (3, 14)
kLongestReason = 1000
kSupported = ((2, 7), (3, 6), (3, 14))
kNothingToRun = os.devnull

# Runs in the process; {} are its parts.  Nothing of it stays in the program's modules but `tdbg`.
kScript = """\
# coding: utf-8
import os, sys
try:
    if os.path.exists({path!r}):
        sys.path.insert(0, {folder!r})
        try:
            from tdbg import serve
        finally:
            sys.path.remove({folder!r})
        serve.attach_running({path!r}, {library!r})
except:
    try:
        with open({failure!r}, "w") as out:
            out.write("%s: %s" % (sys.exc_info()[0].__name__, sys.exc_info()[1]))
    except Exception:
        pass
    if sys.exc_info()[0] is KeyboardInterrupt:
        __import__("thread" if sys.version_info[0] == 2 else "_thread").interrupt_main()
"""
# As text, whose names must not be those of the program.
kText = "# coding: utf-8\nexec({!r}, {{}})\n"


class tProcess:
    """See attaching.tWay.  The checks are made at once: endpoint.tRefused."""

    note = None

    def __init__(self, pid, options):
        self.pid = pid
        refuse_missing_process(pid)
        refuse_other_user(pid)
        self._python = find_interpreter(pid)
        self._version = version_of(pid, self._python)
        refuse_unknown_version(pid, self._version)
        self._word_size = symbols.word_size("/proc/{}/exe".format(pid))
        self._library = library_for(pid, self._word_size, options.library)
        self._needs_gdb = self._version is None or self._version < kRemoteExec
        if self._needs_gdb:
            refuse_without_gdb(pid, self._version)
            refuse_traced(pid)
        refuse_stopped(pid)
        refuse_kernel_rules(pid)
        self._listener = self._visit = None
        self._is_closed = False
        self._connecting = None  # the thread that does
        self._over = threading.Event()

    def connect(self):
        self._connecting = threading.current_thread()
        try:
            return self._connect()
        finally:
            self._over.set()

    def _connect(self):
        if self._library is None:
            self._library = build_library()
        try:
            with folders.tFolder() as folder:
                return self._connect_in(folder)
        finally:
            self.close()

    def _connect_in(self, folder):
        path = os.path.join(folder.path, "debuggee")
        self._listener = listener = endpoint.listen_unix(path)
        script = self._write_script(folder.path, path)
        owner = user_of(self.pid)
        if owner != os.geteuid():  # we are root; nothing is written there any more
            for name in (script, path, folder.path):
                os.chown(name, owner, -1)
        connected = None
        if not self._needs_gdb and not self._is_blocked():
            connected = self._through_interpreter(listener, script, folder)
        if connected is None and not self._is_closed:
            connected = self._through_gdb(listener, folder.path)
        return connected

    def close(self):
        self._is_closed = True
        visit = self._visit
        if visit is not None:
            visit.hurry()
            visit.wait_end()
        listener, self._listener = self._listener, None
        if listener is not None:
            try:
                listener.shutdown(_socket.SHUT_RDWR)
            except OSError:
                pass
            listener.close()
        if self._connecting not in (None, threading.current_thread()):
            self._over.wait(gdb.kHurrySeconds)  # the adapter is not to end before it has cleaned up

    def _write_script(self, folder, path):
        self._text = kScript.format(
            folder=os.path.dirname(kPackage), path=path, library=self._library,
            failure=os.path.join(folder, "failure"))
        script = os.path.join(folder, "attach.py")
        with open(script, "w", encoding="utf-8", errors="surrogateescape") as out:
            out.write(self._text)
        return script

    def _through_interpreter(self, listener, script, folder):
        """The connection; None when the script has not run, and will not."""
        # The path is left in the process: nobody may put a file there that it then runs.  If we are
        # killed meanwhile, the script removes the folder (see api.serve_socket()).
        folder.leave_to_another()
        self._remote_exec(script)
        connected = self._arrived(listener, kPatienceSeconds, folder.path)
        if connected is None:
            self._remote_exec(kNothingToRun)
            connected = self._arrived(listener, 0.0, folder.path)
        folder.take_back()
        if connected is None:
            self._refuse_gdb("busy in native code")
        return connected

    def _is_blocked(self):
        """Whether the main thread waits for something, so that it could take no script.

        One that was left in it would swallow the exception of the signal handler that wakes it.
        """
        before = turns_of_main_thread(self.pid)
        end = time.monotonic() + kBlockedSeconds
        while time.monotonic() < end and not self._is_closed:
            if is_running(self.pid) or turns_of_main_thread(self.pid) != before:
                return False
            time.sleep(kPollSeconds)
        self._refuse_gdb("blocked")
        return True

    def _refuse_gdb(self, state):
        refuse_without_gdb(self.pid, self._version, ", whose main thread is {}".format(state))
        refuse_traced(self.pid)

    def _remote_exec(self, path):
        code = "import sys; sys.remote_exec(int(sys.argv[1]), sys.argv[2])"
        status, text = run_tool(
            self._python + ["-I", "-S", "-c", code, str(self.pid), path], self.pid)
        if status != 0:
            raise endpoint.tRefused(reason_of_interpreter(self.pid, text))

    def _through_gdb(self, listener, folder):
        self._visit = gdb.tVisit(self.pid, self._word_size)
        if self._is_closed:  # which may have been too early to see the visit
            self._visit.hurry()
        with folders.tFolder() as own_folder:
            self._visit.run(kText.format(self._text), own_folder)
        connected = self._arrived(listener, kArrivalSeconds, folder)
        if connected is None and not self._is_closed:
            raise endpoint.tRefused(
                "process {} does not answer: it has run the debugger's script to no effect".format(
                    self.pid))
        return connected

    def _arrived(self, listener, seconds, folder):
        """A connection from the process within that time, or None.

        endpoint.tRefused if it could not load the debugger.
        """
        connected = arrived(listener, seconds)
        try:
            failure = os.open(
                os.path.join(folder, "failure"), os.O_RDONLY | os.O_NOFOLLOW | os.O_NONBLOCK)
        except OSError:
            return connected
        with os.fdopen(failure, encoding="utf-8", errors="replace") as source:
            why = source.read(kLongestReason)
        if connected is not None:
            connected.close()
        raise endpoint.tRefused("process {} cannot load the debugger: {}".format(self.pid, why))


# --- conditions -----------------------------------------------------------------------------------


def refuse_missing_process(pid):
    if not os.path.isdir("/proc/{}".format(pid)):
        raise endpoint.tRefused(
            "there is no process {}: give the number that it has now, as seen here".format(pid))
    if status_of(pid).get("State", "").startswith("Z"):
        raise endpoint.tRefused(
            "process {} has ended: give the number of one that runs".format(pid))
    if pid == os.getpid():
        raise endpoint.tRefused(
            "process {} is the debug adapter: give the number of another one".format(pid))


def refuse_other_user(pid):
    owner = user_of(pid)
    if os.geteuid() not in (0, owner):
        raise endpoint.tRefused(
            "process {} belongs to another user ({}): start the adapter as that user, or as "
            "root".format(pid, owner))


def refuse_unknown_version(pid, version):
    if version is None or version == kSupported[0]:
        return
    if not kSupported[1] <= version <= kSupported[2]:
        raise endpoint.tRefused("process {} runs {}: 2.7 and 3.6 to 3.14 can be debugged".format(
            pid, describe(version)))


def library_for(pid, word_size, named):
    """The core that fits the process: one that was named, or else was built, or comes with us.

    None where it is still to be built.
    """
    tree = os.path.dirname(os.path.dirname(kPackage))
    file_name = nativelib.kModule + ".so"
    places = [named] if named is not None else [
        os.path.join(kPackage, file_name), os.path.join(tree, "build", str(word_size), file_name)]
    for path in places:
        if symbols.word_size(path) == word_size:
            return os.path.abspath(path)
    if named is None and word_size == nativelib.word_size() and os.path.exists(
            os.path.join(tree, "tdbg")):
        return None
    raise endpoint.tRefused(
        "process {} runs a {}-bit interpreter, for which there is no {} in {}: install tdbg for {} "
        "bits, or name its library with --library".format(
            pid, word_size, file_name, " or ".join(map(os.path.dirname, places)), word_size))


def build_library():
    try:
        nativelib.build_library(kPackage)
        return nativelib.find_library(kPackage)
    except nativelib.tNoLibrary as why:
        raise endpoint.tRefused(str(why))


def refuse_without_gdb(pid, version, more=""):
    if gdb.find() is None:
        raise endpoint.tRefused(
            "gdb is not installed, and process {} runs {}{}: install gdb, or have {} name "
            "one".format(
                pid, describe(version), more or ", which takes scripts from 3.14 on only",
                gdb.kVariable))


def refuse_traced(pid):
    tracer = status_of(pid).get("TracerPid", "0").strip()
    if tracer != "0":
        raise endpoint.tRefused(
            "process {} is being traced by process {} ({}) already: end that first".format(
                pid, tracer, status_of(tracer).get("Name", "?")))


def refuse_stopped(pid):
    if status_of(pid).get("State", "").startswith("T"):
        raise endpoint.tRefused(
            "process {0} is stopped: wake it first (kill -CONT {0})".format(pid))


def refuse_kernel_rules(pid):
    try:
        with open(kPtraceScope, encoding="utf-8") as source:
            scope = int(source.read())
    except (OSError, ValueError):
        return  # a kernel without that rule
    if scope == 3:
        raise endpoint.tRefused(
            "the kernel lets no process attach to another until the machine starts anew: "
            "ptrace_scope is 3")
    if scope and not int(status_of("self").get("CapEff", "0"), 16) & kMayTrace:
        raise endpoint.tRefused(
            "the kernel does not let one process attach to another: ptrace_scope is {} "
            "(sysctl kernel.yama.ptrace_scope=0 allows it, and so does being root)".format(scope))


def turns_of_main_thread(pid):
    """How often it has let others run; more of it tells that it runs itself."""
    return [value for name, value in status_of("{0}/task/{0}".format(pid)).items()
            if name.endswith("ctxt_switches")]


def is_running(pid):
    """Whether its main thread computes just now."""
    return status_of(pid).get("State", "").startswith("R")


def user_of(pid):
    return int(status_of(pid).get("Uid", "-1").split()[0])


def status_of(pid):
    """{field: text} of the process; empty when it has ended."""
    try:
        with open("/proc/{}/status".format(pid), encoding="utf-8", errors="replace") as source:
            return dict(line.rstrip("\n").split(":\t", 1) for line in source if ":\t" in line)
    except OSError:
        return {}


def find_interpreter(pid):
    """Words that run the process's interpreter; endpoint.tRefused for a process without one."""
    try:
        path = os.readlink("/proc/{}/exe".format(pid))
        with open("/proc/{}/cmdline".format(pid), "rb") as source:
            words = [os.fsdecode(word) for word in source.read().split(b"\0")[:-1]]
    except OSError as why:
        raise endpoint.tRefused(
            "cannot look into process {}: {}; being root helps".format(pid, why.strerror))
    if is_python(path):
        return ["/proc/{}/exe".format(pid)]
    for count, word in enumerate(words):  # run through the dynamic loader
        if count and is_python(word) and os.path.basename(path).startswith("ld"):
            last = count
            while last + 1 < len(words) and is_python(words[last + 1]):
                last += 1
            return [path] + words[1:last + 1]
    if not any(is_python(mapped.path) for mapped in symbols.mapped_files(pid)):
        raise endpoint.tRefused(
            "process {} ({}) is not a Python program: give the number of one".format(
                pid, os.path.basename(path)))
    return ["/proc/{}/exe".format(pid)]


def is_python(path):
    return re.match(r"(lib)?python[\d.]*", os.path.basename(path)) is not None


def version_of(pid, python):
    """(major, minor), or None where only the process itself knows."""
    names = [mapped.path for mapped in symbols.mapped_files(pid)]
    for name in names + [os.path.realpath(python[-1])]:
        found = re.match(r"(?:lib)?python(\d)\.(\d+)", os.path.basename(name))
        if found:
            return int(found.group(1)), int(found.group(2))
    if not is_python(os.path.realpath(python[-1])):
        return None
    _, text = run_tool(
        python + ["-E", "-S", "-c", "import sys; print('%d.%d' % sys.version_info[:2])"], pid)
    found = re.match(r"(\d+)\.(\d+)\s*$", text)
    return (int(found.group(1)), int(found.group(2))) if found else None


def describe(version):
    return "an unknown version of Python" if version is None else "Python {}.{}".format(*version)


# --- tools ----------------------------------------------------------------------------------------


def run_tool(argv, pid):
    """(status, all that it wrote) of a program that the process's user could have replaced."""
    owner, group = user_of(pid), int(status_of(pid).get("Gid", "-1").split()[0])

    def become_owner():
        if owner != os.geteuid():
            os.setgroups([])
            os.setgid(group)
            os.setuid(owner)

    try:
        done = subprocess.run(
            argv, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
            timeout=kToolSeconds, preexec_fn=become_owner)
    except subprocess.TimeoutExpired as why:
        text = (why.output or b"").decode("utf-8", "replace")
        return 1, text + "\n{} takes too long".format(argv[0])
    except OSError as why:
        return 1, "cannot run {}: {}".format(argv[0], why.strerror)
    return done.returncode, done.stdout.decode("utf-8", "replace")


def reason_of_interpreter(pid, text):
    """What sys.remote_exec() has told."""
    line = (text.strip().splitlines() or ["no reason given"])[-1]
    if re.search(r"[Rr]emote debugging (is|was) (not enabled|disabled)", line):
        return ("process {} does not allow remote debugging: start it without "
                "PYTHON_DISABLE_REMOTE_DEBUG and -X disable_remote_debug".format(pid))
    return "cannot attach to process {}: {}".format(pid, line)


def arrived(listener, seconds):
    """A connection from the process within that time, or None."""
    listener.settimeout(seconds)
    try:
        while True:
            connected = endpoint.accept(listener)
            if endpoint.peer_of_unix(connected)[1] == os.getuid() or os.geteuid() == 0:
                connected.settimeout(None)
                return connected
            connected.close()
    except OSError:  # a time-out is one
        return None
