"""Have a running process execute Python code, with gdb.

gdb stops the process, and the main thread runs the code only where the interpreter allows it:
  blocked   in a system call, without the interpreter lock: the lock is taken, and given back
  else      a pending call of PyErr_CheckSignals is asked for, which does nothing, even if it comes
            late; at its first instruction, where signal handlers in Python may run, so may we
A thread that does neither in time (native code that keeps the lock) is let go unchanged.

The functions are called by address (see symbols.py), so gdb needs to read nothing.
"""
import os
import re
import shutil
import signal
import subprocess
import threading
import time

from tdbg.adapter import symbols
from tdbg.dap import endpoint

kVariable = "TDBG_GDB"
kNeeded = ("PyRun_SimpleString", "PyErr_CheckSignals", "PyErr_Occurred", "Py_AddPendingCall",
           "Py_IsInitialized", "PyGILState_Ensure", "PyGILState_Release",
           "PyGILState_GetThisThreadState", "mmap", "munmap")
# Who holds the interpreter lock: the first one that there is.
kHolders = (("PyThreadState_GetUnchecked", "((long (*)(void)){})()"),    # 3.13 and later
            ("_PyThreadState_UncheckedGet", "((long (*)(void)){})()"),
            ("_PyThreadState_Current", "*(long *){}"))                   # 2.7
kRegisters = {32: ("(int)$orig_eax", "(int)$eax"), 64: ("(long)$orig_rax", "(long)$rax")}

# A signal that means nothing to a program which did not ask for it.  It ends gdb's waiting; should
# it come too late for that, the program ignores it.
kWakeSignal = signal.SIGURG
kPatienceSeconds = 3.0   # for a place where the main thread can run code
kSlowestCall = 10.0      # of Py_AddPendingCall, which takes a lock
kToolSeconds = 60.0      # all that gdb does; it reads large programs slowly
kHurrySeconds = 10.0     # to let go of a process
kPollSeconds = 0.02
kPage = 4096

kOptions = ["--batch", "--nx", "-iex", "set auto-load no", "-iex", "set auto-solib-add off"]
kQuickOption = "--readnever"  # since 8.1

# The three lines with $mxcsr change a register and put it back: a gdb that is older than the
# processor fails there, before any harm.  After a call it could not restore the registers.
kCommands = """\
set pagination off
set confirm off
set width 0
set language c
set unwindonsignal on
handle all nostop noprint pass
handle SIGINT nostop noprint pass
handle SIGSEGV SIGBUS SIGILL SIGFPE SIGABRT stop print nopass
handle {wake} stop print nopass
thread 1
set $old = $mxcsr
set var $mxcsr = $old ^ 0x8000
set var $mxcsr = $old
set $ran = 0

define tdbg_run
  set $text = ((unsigned long (*)(long, long, int, int, int, long)){mmap})(0, {size}, 3, 34, -1, 0)
  if $text != (unsigned long)-1
    restore text binary $text
    printf "tdbg: runs\\n"
    set $ran = 1
    set $result = ((int (*)(long)){PyRun_SimpleString})($text)
    set $result = ((int (*)(long, long)){munmap})($text, {size})
    printf "tdbg: ran\\n"
  end
end

define tdbg_run_if_blocked
  # -EINTR, or what the kernel restarts a system call for
  if {call} >= 0 && ({answer} == -4 || ({answer} <= -512 && {answer} >= -516))
    set $own = ((long (*)(void)){PyGILState_GetThisThreadState})()
    set $holder = {holder}
    if $own == 0 || $holder != $own
      set $state = ((int (*)(void)){PyGILState_Ensure})()
      tdbg_run
      set $result = ((int (*)(int)){PyGILState_Release})($state)
    end
  end
end

if ((int (*)(void)){Py_IsInitialized})() == 0
  printf "tdbg: no interpreter\\n"
else
  tdbg_run_if_blocked
  if $ran == 0
    printf "tdbg: asks\\n"
    set $result = ((int (*)(long, long)){Py_AddPendingCall})({PyErr_CheckSignals}, 0)
    tbreak *{PyErr_CheckSignals} thread 1
    printf "tdbg: waits\\n"
    continue
    printf "tdbg: stopped\\n"
    delete
    thread 1
    if $pc == {PyErr_CheckSignals}
      if ((long (*)(void)){PyErr_Occurred})() == 0
        tdbg_run
      end
    else
      tdbg_run_if_blocked
    end
  end
end
detach
"""
kNoWayIn = (r"ptrace: ", r"[Cc]ould not attach", r"Couldn't write", r"Couldn't get", r"cannot run",
            r"takes too long", r"[Ee]rror")


def find():
    """gdb's path, or None."""
    return os.environ.get(kVariable) or shutil.which("gdb")


class tVisit:
    """One visit of gdb to a process; run() in one thread, the rest in any."""

    def __init__(self, pid, word_size):
        self._pid, self._word_size = pid, word_size
        self._is_hurried = False
        self._ended = threading.Event()
        self._log = ""

    def run(self, code, folder):
        """Whether the code has been executed; endpoint.tRefused.

        folder: a folders.tFolder for our files, which gdb needs to its end.
        """
        try:
            if self._is_hurried:
                return False
            self._write_files(code, folder.path)
            self._run_gdb(folder, [kQuickOption])
            if "unrecognized option" in self._log:
                self._run_gdb(folder, [])
        finally:
            self._ended.set()
        if "tdbg: runs" in self._log:
            return True
        self._refuse()

    def hurry(self):
        """Nobody waits for it any more."""
        self._is_hurried = True

    def wait_end(self):
        """Until gdb has let go of the process, after hurry()."""
        self._ended.wait(kHurrySeconds)

    # --- parts of run() ---

    def _write_files(self, code, folder):
        text = code.encode("utf-8", "surrogateescape") + b"\0"
        size = -(-len(text) // kPage) * kPage
        places = symbols.find(self._pid, kNeeded + tuple(name for name, _ in kHolders))
        missing = [name for name in kNeeded if name not in places]
        holders = [text.format(places[name]) for name, text in kHolders if name in places]
        if missing or not holders:
            raise endpoint.tRefused(
                "process {} does not show the functions of its interpreter ({}): start it with "
                "another one, or have it call tdbg.listen()".format(
                    self._pid, ", ".join(missing or ["thread state"])))
        call, answer = kRegisters[self._word_size]
        with open(os.path.join(folder, "text"), "wb") as out:
            out.write(text)
        with open(os.path.join(folder, "commands"), "w") as out:
            out.write(kCommands.format(
                size=size, call=call, answer=answer, holder=holders[0],
                wake=kWakeSignal.name, **{name: places[name] for name in kNeeded}))

    def _run_gdb(self, folder, options):
        gdb = find()
        environment = {name: value for name, value in os.environ.items()
                       if not name.startswith(("DEBUGINFOD", "LC_", "LANG", "PYTHON"))}
        log = os.path.join(folder.path, "log")
        with open(log, "wb") as out:
            try:
                # A file, and a session of its own: what ends us must not stop gdb half way.
                process = subprocess.Popen(
                    [gdb] + options + kOptions + ["-p", str(self._pid), "-x", "commands"],
                    cwd=folder.path, stdin=subprocess.DEVNULL, stdout=out, stderr=out,
                    env=environment, start_new_session=True, pass_fds=[folder.lifeline])
            except OSError as why:
                raise endpoint.tRefused("cannot run {}: {}; {} can name another gdb".format(
                    gdb, os.strerror(why.errno), kVariable))
        self._watch(process, log)

    def _watch(self, process, log):
        begin = time.monotonic()
        step_begin, wakes, step = begin, 0, None
        while not _has_ended(process):
            now = time.monotonic()
            self._log = _read(log)
            steps = re.findall(r"^tdbg: (\w+)", self._log, re.MULTILINE)
            if steps[-1:] != [step]:
                step, step_begin, wakes = (steps or [None])[-1], now, 0
            patience = 0.0 if self._is_hurried else kPatienceSeconds
            limit = {"waits": patience, "asks": kSlowestCall}.get(step)
            if limit is not None and now - step_begin > limit + wakes:
                self._wake()
                wakes += 1
            if now - begin > kToolSeconds and step != "waits":
                self._log += "\n{} takes too long".format(os.path.basename(find() or "gdb"))
                return  # it may be in the middle of a call, and goes on
        self._log = _read(log)

    def _wake(self):
        try:
            os.kill(self._pid, kWakeSignal)
        except OSError:
            pass

    def _refuse(self):
        log = self._log
        if "tdbg: no interpreter" in log:
            raise endpoint.tRefused(
                "process {} is starting or ending: try again when it runs".format(self._pid))
        if re.search(r"exited (normally|with)|terminated with signal", log):
            raise endpoint.tRefused("process {} has ended".format(self._pid))
        if "tdbg: waits" in log:
            raise endpoint.tRefused(
                "process {} runs no Python code at the moment: its main thread is busy or waits in "
                "native code; try again later".format(self._pid))
        raise endpoint.tRefused("cannot attach to process {}: {}".format(self._pid, reason_in(log)))


def _has_ended(process):
    try:
        process.wait(kPollSeconds)
    except subprocess.TimeoutExpired:
        return False
    return True


def _read(path):
    with open(path, encoding="utf-8", errors="replace") as source:
        return source.read()


def reason_in(log):
    """The line of gdb's output that tells most, and what helps."""
    lines = [line.strip() for line in log.splitlines() if line.strip()]
    for pattern in kNoWayIn:
        for line in lines:
            if re.search(pattern, line):
                return "gdb says: {}{}".format(line, _remedy(line))
    return "gdb says: {}".format(lines[-1] if lines else "nothing")


def _remedy(line):
    if re.search(r"Couldn't (write|get)", line):
        return " (it is older than this processor; {} can name a newer one)".format(kVariable)
    if "not permitted" in line:
        return (" (this machine, or the container, does not allow tracing: it takes the capability "
                "SYS_PTRACE)")
    return ""
