"""The child's side of the debugging of children (the parent's is dap/subprocesses.py).

A child that the interpreter has been started for finds one environment variable, which it leaves
for its own children.  It makes itself known to its parent's debugger, listens on a socket of its
own, and waits for a client as long as it was told to, and no longer: whatever fails on the way, it
runs on alone.
"""
from __future__ import absolute_import, division, print_function

import ast
import functools
import os
import sys

kVariable = "TDBG_CHILD"
kPathVariable = "PYTHONPATH"
kFramesOfSubprocess = 6
# Processes of the library that nobody wants to debug.
kHelpers = (b"multiprocessing.resource_tracker", b"multiprocessing.semaphore_tracker")
# `sh -c COMMAND` is how a program runs a command line.
kShells = frozenset((b"sh", b"ash", b"bash", b"dash", b"fish", b"ksh", b"zsh"))
kMostAncestors = 100
kPatience = 0.1  # seconds between looks at a client that has come, but is not ready
kStartupFolder = os.path.join(os.path.dirname(os.path.abspath(__file__)), "startup")

_fork_settings = None
_hooked = False
_getpid = os.getpid


def find_client(settings):
    """A wire.tConnection with the client that wants to debug this process, or None."""
    from tdbg.dap import endpoint, wire

    folder = listener = None
    try:
        announcement = endpoint.connect_unix(settings["socket"])
        if endpoint.peer_of_unix(announcement)[1] != os.getuid():
            return None  # the parent has gone, and another has taken its address
        folder = endpoint.make_private_folder()
        path = os.path.join(folder, "child")
        listener = endpoint.listen_unix(path)
        announcement.settimeout(settings["seconds"])
        parent = wire.tConnection(announcement)
        parent.write({"pid": _getpid(), "socket": path})
        answer = parent.read()
        parent.close()
        if not answer or not answer.get("wait"):
            return None
        listener.settimeout(settings["seconds"])
        connected = endpoint.accept(listener)
        if endpoint.peer_of_unix(connected)[1] != os.getuid():
            connected.close()
            return None
        connected.settimeout(None)
        return wire.tConnection(connected)
    except Exception:  # nobody is there any more, or nobody comes
        return None
    finally:
        if listener is not None:
            listener.close()
        if folder is not None:
            _remove(folder)


def _remove(folder):
    for name in ("child", None):
        try:
            os.remove(os.path.join(folder, name)) if name else os.rmdir(folder)
        except OSError:
            pass


def start(startup_folder):
    """In a new interpreter, before the program: its debug server, or None to run alone."""
    settings = ast.literal_eval(os.environ[kVariable])
    sys.path[:] = [path for path in sys.path if path != startup_folder]
    sys.path_importer_cache.pop(startup_folder, None)
    if settings["seconds"] <= 0 or _is_helper():
        return None
    if not settings["all"] and not _is_started_by(settings["pid"]):
        return None
    try:
        from tdbg import launch, nativelib

        launch.refuse_unknown_version()
        library = _library_for(settings["library"], nativelib)
        connection = find_client(settings)
        if connection is None:
            return None
        return _make_server(nativelib.load_library(library), connection)
    except Exception:
        return None


def _is_helper():
    return any(name in word for word in _words_of("self") for name in kHelpers)


def _is_started_by(program):
    """Whether the process of that number has started this one, itself or by a shell's command line,
    or a fork of it has; and where that cannot be told."""
    between = _processes_up_to(program)
    if between is None:
        return True
    own = _words_of(program)
    return all(words == own or _is_shell(words) for words in map(_words_of, between))


def _processes_up_to(ancestor):
    """[number] of the processes between that one and this; None: one has ended meanwhile."""
    found, pid = [], os.getppid()
    while pid != ancestor:
        if pid <= 1 or len(found) == kMostAncestors:
            return None
        found.append(pid)
        pid = _parent_of(pid)
    return found


def _parent_of(pid):
    try:
        with open("/proc/{}/stat".format(pid), "rb") as source:
            return int(source.read().rpartition(b")")[2].split()[1])
    except (IOError, OSError, ValueError, IndexError):
        return 0


def _words_of(pid):
    """The command line of a process; an empty list when it is not known."""
    try:
        with open("/proc/{}/cmdline".format(pid), "rb") as source:
            return source.read().split(b"\0")
    except (IOError, OSError):
        return []


def _is_shell(words):
    return words[1:2] == [b"-c"] and words[0].rpartition(b"/")[2].lstrip(b"-") in kShells


def _library_for(path, nativelib):
    """The parent's, where it is of our word size."""
    with open(path, "rb") as source:
        word_size = {b"\x01": 32, b"\x02": 64}.get(source.read(5)[4:])
    if word_size == nativelib.word_size():
        return path
    return nativelib.find_library(os.path.dirname(os.path.abspath(__file__)))


def _make_server(core, connection):
    from tdbg import api, dbgserver
    from tdbg.dap import frontend, requests

    requests.load_modules()
    front_end = frontend.tDapFrontEnd({"launched": False, "wait": True, "child": True})
    server = dbgserver.tServer(core, front_end)
    front_end.attach(server)
    api.take_over(front_end)
    front_end.begin(connection)
    return server


# --- fork -----------------------------------------------------------------------------------------


def see_forks(settings):
    """Forked children are to make themselves known from now on; None: no longer."""
    global _fork_settings, _hooked
    _fork_settings = settings
    if settings is not None and not _hooked:
        _hooked = True
        if hasattr(os, "register_at_fork"):
            os.register_at_fork(after_in_child=_after_fork)
        else:
            os.fork = _make_fork(os.fork)


def _make_fork(original):
    @functools.wraps(original)
    def fork():
        pid = original()
        if pid == 0:
            _after_fork()
        return pid

    return fork


def _is_before_exec():
    """Whether the fork is the first half of starting another program."""
    frame = sys._getframe()
    for _ in range(kFramesOfSubprocess):
        if frame is None:
            return False
        if frame.f_code.co_name == "_execute_child":
            return True
        frame = frame.f_back
    return False


def _after_fork():
    """In the child, before it runs anything of its own.  Threads but this one are gone."""
    settings = _fork_settings
    if settings is None or settings["seconds"] <= 0 or _is_before_exec():
        return
    try:
        connection = find_client(settings)
        if connection is not None:
            _debug_forked(connection)
    except Exception:
        pass


def _debug_forked(connection):
    """The process is a copy of its parent in the middle of being debugged: begin anew."""
    from tdbg import api, dbgserver, nativelib, threads, usercode
    from tdbg.dap import frontend

    core = sys.modules[nativelib.kModule]
    threads.forget_own_threads()
    usercode.forget_other_threads()
    core.fork_ok()
    front_end = frontend.tDapFrontEnd({"launched": False, "child": True})
    server = dbgserver.tServer(core, front_end)
    front_end.attach(server)
    server.start_unnoticed()
    front_end.is_live = front_end.is_tracing = True
    front_end.leave_alone()
    api.take_over(front_end)
    front_end.begin(connection)
    while not front_end.wait_for_client(kPatience):
        if not connection.is_open:
            return
