"""Attach by process id: bring the debugger into a process that was started without it.

From 3.14 on the interpreter takes a script by itself (sys.remote_exec), when it is asked by one of
its own version.  Before, gdb makes the process run it: as a pending call where the main thread runs
Python code, so that nothing is called in the middle of a native function; and when nothing has
come of that, because the thread is blocked, with the interpreter lock taken in its place.

Whatever is in the way is named: the process, its user, the kernel's rule, the tool that is missing.
"""
import _socket
import os
import re
import shutil
import subprocess

from tdbg.dap import endpoint

kPtraceScope = "/proc/sys/kernel/yama/ptrace_scope"
kMapProt, kMapFlags, kMapSize = 3, 34, 65536  # PROT_READ|PROT_WRITE, MAP_PRIVATE|MAP_ANONYMOUS
kToolSeconds = 30
kPatienceSeconds = 2.0   # for a pending call, or a script that was left for the interpreter
kArrivalSeconds = 10.0
kRemoteExec = (3, 14)
kNoWayIn = r"ptrace: |Could not attach|No such process|Couldn't write"
# The last ones change a register and put it back: a gdb that is older than the processor fails
# there, before any harm.  After a call it could not restore them, and the program would break.
kGdbSettings = [
    "set pagination off", "set confirm off", "set unwindonsignal on",
    "set $old = $mxcsr", "set var $mxcsr = $old ^ 0x8000", "set var $mxcsr = $old"]
kSupported = ((2, 7), (3, 6), (3, 14))

# Runs in the process; {} are its parts.  Nothing of it stays in the program's modules but `tdbg`.
kScript = """\
import sys
sys.path.insert(0, {folder!r})
try:
    from tdbg import serve
finally:
    sys.path.remove({folder!r})
serve.attach_running({path!r}, {library!r})
"""


class tProcess:
    """See attaching.tWay.  The checks are made at once: endpoint.tRefused."""

    note = None

    def __init__(self, pid, options):
        self.pid, self._library = pid, options.library
        refuse_missing_process(pid)
        refuse_other_user(pid)
        self._python = find_interpreter(pid)
        self._version = version_of(pid, self._python)
        refuse_unknown_version(pid, self._version)
        self._uses_gdb = self._version is None or self._version < kRemoteExec
        if self._uses_gdb and shutil.which("gdb") is None:
            raise endpoint.tRefused(
                "gdb is not installed; without it only Python 3.14 and later can be attached to, "
                "and process {} runs {}".format(pid, describe(self._version)))
        refuse_kernel_rules(pid)
        self._listener = None

    def connect(self):
        folder = endpoint.make_private_folder()
        path = os.path.join(folder, "debuggee")
        try:
            self._listener = listener = endpoint.listen_unix(path)
            script = self._write_script(folder, path)
            owner = int(status_of(self.pid).get("Uid", "0").split()[0])
            if owner != os.geteuid():  # we are root
                for name in (script, path, folder):
                    os.chown(name, owner, -1)
            if self._uses_gdb:
                return self._through_gdb(listener, script, folder)
            return self._through_interpreter(listener, script)
        finally:
            self.close()
            shutil.rmtree(folder, ignore_errors=True)

    def close(self):
        listener, self._listener = self._listener, None
        if listener is not None:
            try:
                listener.shutdown(_socket.SHUT_RDWR)
            except OSError:
                pass
            listener.close()

    def _write_script(self, folder, path):
        package = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
        script = os.path.join(folder, "attach.py")
        with open(script, "w", encoding="utf-8") as out:
            out.write("# coding: utf-8\n" + kScript.format(
                folder=os.path.dirname(package), path=path, library=self._library))
        return script

    def _through_interpreter(self, listener, script):
        code = "import sys; sys.remote_exec(int(sys.argv[1]), sys.argv[2])"
        status, text = run_tool(self._python + ["-I", "-S", "-c", code, str(self.pid), script])
        if status != 0:
            lines = text.strip().splitlines() or ["no reason given"]
            raise endpoint.tRefused("cannot attach to process {}: {}".format(self.pid, lines[-1]))
        connected = arrived(listener, kArrivalSeconds)
        if connected is None:
            raise endpoint.tRefused(
                "process {} has been asked, but runs no Python code at the moment: its main thread is "
                "busy or waiting in native code".format(self.pid))
        return connected

    def _through_gdb(self, listener, script, folder):
        command = "exec(compile(open({0!r}).read(), {0!r}, 'exec'), {{}})".format(script)
        text = self._run_gdb(folder, pending_call_commands(command))
        connected = arrived(listener, kPatienceSeconds)
        if connected is not None:
            return connected
        text += self._run_gdb(folder, locked_call_commands(command))
        connected = arrived(listener, kArrivalSeconds)
        if connected is None:
            raise endpoint.tRefused("cannot attach to process {}: {}".format(self.pid, reason_in(text)))
        return connected

    def _run_gdb(self, folder, commands):
        # Of a file, for the first command that fails ends it.
        path = os.path.join(folder, "commands.gdb")
        with open(path, "w", encoding="utf-8") as out:
            out.write("\n".join(kGdbSettings + commands) + "\n")
        status, text = run_tool(["gdb", "--batch", "--nx", "-p", str(self.pid), "-x", path])
        if re.search(kNoWayIn, text):
            raise endpoint.tRefused("cannot attach to process {}: {}".format(self.pid, reason_in(text)))
        return text


# --- conditions -----------------------------------------------------------------------------------


def refuse_missing_process(pid):
    if not os.path.isdir("/proc/{}".format(pid)):
        raise endpoint.tRefused("there is no process {}".format(pid))
    if status_of(pid).get("State", "").startswith("Z"):
        raise endpoint.tRefused("process {} has ended".format(pid))
    if pid == os.getpid():
        raise endpoint.tRefused("process {} is the debug adapter".format(pid))


def refuse_other_user(pid):
    owner = int(status_of(pid).get("Uid", "-1").split()[0])
    if os.geteuid() not in (0, owner):
        raise endpoint.tRefused("process {} belongs to another user ({})".format(pid, owner))


def refuse_unknown_version(pid, version):
    if version is not None and version != kSupported[0] and not kSupported[1] <= version <= kSupported[2]:
        raise endpoint.tRefused("process {} runs {}: 2.7 and 3.6 to 3.14 can be debugged".format(
            pid, describe(version)))


def refuse_kernel_rules(pid):
    tracer = status_of(pid).get("TracerPid", "0").strip()
    if tracer != "0":
        raise endpoint.tRefused("process {} is being traced by process {} already".format(pid, tracer))
    try:
        with open(kPtraceScope) as source:
            scope = int(source.read())
    except (OSError, ValueError):
        return  # a kernel without that rule
    if scope == 3 or scope and os.geteuid() != 0:
        raise endpoint.tRefused(
            "the kernel does not let one process attach to another: ptrace_scope is {} "
            "(sysctl kernel.yama.ptrace_scope=0 allows it)".format(scope))


def status_of(pid):
    """{field: text} of the process; empty when it has ended."""
    try:
        with open("/proc/{}/status".format(pid)) as source:
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
        raise endpoint.tRefused("cannot look into process {}: {}".format(pid, why.strerror))
    if is_python(path):
        return ["/proc/{}/exe".format(pid)]
    for count, word in enumerate(words):  # run through the dynamic loader
        if count and is_python(word) and os.path.basename(path).startswith("ld"):
            last = count
            while last + 1 < len(words) and is_python(words[last + 1]):
                last += 1
            return [path] + words[1:last + 1]
    if not any(is_python(name) for name in mapped_files(pid)):
        raise endpoint.tRefused("process {} ({}) is not a Python program".format(pid, os.path.basename(path)))
    return ["/proc/{}/exe".format(pid)]


def is_python(path):
    return re.match(r"(lib)?python[\d.]*", os.path.basename(path)) is not None


def mapped_files(pid):
    try:
        with open("/proc/{}/maps".format(pid)) as source:
            return {line.split(None, 5)[5].strip() for line in source if "/" in line}
    except OSError:
        return set()


def version_of(pid, python):
    """(major, minor), or None where only the process itself knows."""
    for name in mapped_files(pid) | {os.path.realpath(python[-1])}:
        found = re.match(r"(?:lib)?python(\d)\.(\d+)", os.path.basename(name))
        if found:
            return int(found.group(1)), int(found.group(2))
    if not is_python(os.path.realpath(python[-1])):
        return None
    _, text = run_tool(python + ["-E", "-S", "-c", "import sys; print('%d.%d' % sys.version_info[:2])"])
    found = re.match(r"(\d+)\.(\d+)\s*$", text)
    return (int(found.group(1)), int(found.group(2))) if found else None


def describe(version):
    return "an unknown version of Python" if version is None else "Python {}.{}".format(*version)


# --- tools ------------------------------------------------------------------------------------------


def run_tool(argv):
    """(status, all that it wrote)"""
    try:
        done = subprocess.run(argv, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, timeout=kToolSeconds)
    except subprocess.TimeoutExpired as why:
        return 1, (why.output or b"").decode("utf-8", "replace") + "\n{} takes too long".format(argv[0])
    except OSError as why:
        return 1, "cannot run {}: {}".format(argv[0], why.strerror)
    return done.returncode, done.stdout.decode("utf-8", "replace")


def text_in_process(text):
    """gdb's commands that put the text where nobody else writes: $text.  No allocator is called."""
    quoted = text.replace("\\", "\\\\").replace('"', '\\"')
    size = len(text.encode("utf-8")) + 1
    return [
        "set $text = ((char *(*)(void *, unsigned long, int, int, int, long))mmap)(0, {}, {}, {}, -1, 0)".format(
            kMapSize, kMapProt, kMapFlags),
        'set *(char (*)[{}])$text = "{}"'.format(size, quoted),
    ]


def pending_call_commands(command):
    return text_in_process(command) + [
        "call ((int (*)(void *, void *))Py_AddPendingCall)((void *)PyRun_SimpleString, (void *)$text)"]


def locked_call_commands(command):
    return text_in_process(command) + [
        "set $state = ((int (*)(void))PyGILState_Ensure)()",
        "call ((int (*)(void *))PyRun_SimpleString)((void *)$text)",
        "call ((void (*)(int))PyGILState_Release)($state)"]


def reason_in(text):
    """The line of gdb's output that tells most."""
    lines = [line.strip() for line in text.splitlines() if line.strip()]
    for pattern in (r"ptrace: ", r"Could not attach", r"Couldn't write", r"No symbol", r"takes too long", r"[Ee]rror"):
        for line in lines:
            if re.search(pattern, line):
                return "gdb says: " + line
    return "the process does not answer"


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
