"""A debugging session that uses all of the tracer, and tells what of it went wrong.

    report = run(tracer, log=False)       any call may fail meanwhile
    after = run_again(tracer)             nothing fails any more: what a user would see now

What must hold whatever fails: the program computes what it computes untraced; at most an exception
that was injected reaches it, where the tracer has to let it through; a module function answers or
raises that exception; no exception stays pending in the interpreter.
"""
from __future__ import absolute_import, division, print_function

import ctypes
import os
import sys
import threading
from time import sleep

try:
    import _thread
except ImportError:
    import thread as _thread

from support.tracing import (
    DEBUGGEES, import_debuggee, join_whole_thread, kBuiltins, kDefaultImport)

steps = import_debuggee("steps")

kLines = steps.calls.__code__.co_firstlineno
kRelative = "relative_of_scenario.py"
kTemplate = "/templates/page.html"
kModuleCode = compile("first = 1\ndef inner():\n    return first\nsecond = inner()\n",
                      kRelative, "exec")
kTextCode = compile("fail(0)", "<string>", "exec")
kManyBreaks = 10  # on a line: more than the tracer has room for without asking for memory


kCompiled = os.path.splitext(steps.__file__)[0] + ".pyc"
kSettings = (
    ("set_idle_period", (0.0,)), ("set_debug_all_threads", (1,)), ("set_exception_mode", (5,)),
    ("clear_exception_ignores", ()), ("add_to_tstate_tracing", (0,)), ("fork_ok", ()))
kNeedRecord = (
    ("step_over", ()), ("step_over_line", ()), ("step_over_line_range", (1, 2)), ("step_out", ()),
    ("step_out_to_frame", (None,)), ("stop", ()), ("continue_run", ()), ("breakpointhook", ()),
    ("raise_exception", (0, None)), ("register_module", (steps,)))


class Trouble(Exception):
    """What must not happen."""


class Info(object):
    def __init__(self, co_name, mod_name, containing_class=None, prints=(1, 2), parent=None):
        self.co_name, self.mod_name, self.containing_class = co_name, mod_name, containing_class
        self.prints, self.parent = prints, parent


def key(node):
    first = node
    return first


def raising_key(node):
    raise KeyError(node)


def marker(nodes, stop=int):
    total = 0
    stop()
    for function, node in nodes:
        total += hidden(function, node)
    return total


def hidden(function, node):
    try:
        return function(node)
    except KeyError:
        return 10


class Hook(object):
    """A sub-language: marker() interprets, key() and raising_key() are its code."""

    def __init__(self, server):
        for name in dir(self):
            if name.startswith("_") and name[1].isupper():
                setattr(self, name, server.guarded_method(getattr(self, name)))

    def _GetMarkerFrames(self):
        return [marker.__code__]

    def _GetModulePaths(self):
        return [(os.path.dirname(os.path.abspath(__file__)), 1)]

    def _GetSubLanguageFrames(self):
        return [key.__code__, raising_key.__code__]

    def _StopHere(self, frame, event, mode):
        return mode != -1 or event == -1

    def _TranslateFrame(self, frame, flag):
        return (kTemplate, frame.f_lineno)

    def _GetStepOutFrame(self, frame):
        return getattr(frame, "f_back", None)

    def _Eval(self, text, frame):
        return eval(text, {}, frame.f_locals)


def fail(depth):
    if depth == 0:
        raise KeyError("at the bottom")
    fail(depth - 1)


def caught_by_caller():
    try:
        fail(2)
    except (KeyError, ValueError) as why:
        return why.args


def with_finally(log):
    try:
        try:
            fail(1)
        finally:
            log.append("finally")
    except KeyError:
        log.append("except")
    return log


class Log(object):
    def __init__(self):
        self.lines = 0

    def write(self, text):
        self.lines += 1

    def flush(self):
        pass


def fail_in_text():
    """Raised where there is no file."""
    try:
        kBuiltins.eval(kTextCode, {"fail": fail})
    except KeyError as why:
        return why.args


class Worker(object):
    """A thread that is named after a class with functions of every kind."""

    def __init__(self):
        self.done = []

    @staticmethod
    def add():
        return steps.add(1, 2)

    @classmethod
    def made(cls):
        return cls()

    def whole_thread(self, tracer, lock):
        self.place = os.path.join("/proc", os.readlink("/proc/thread-self"))
        try:
            tracer.bootstrap_new_thread(sys._getframe(), "call", None)
            self.done.append(self.add())
            sys.settrace(None)
            tracer.thread_exiting()
        except (MemoryError, RuntimeError):  # injected, or for want of an init()
            sys.settrace(None)
        finally:
            lock.release()


kAnswers = ("Failed to schedule_f_trace_update", "Missing sys attribute: settrace",
            "The tracer is not initialized; call init() first",
            "Unable to get debugger per-thread data")


def is_answer_to_failure(error):
    """What a module function raises of its own when a call of it failed; its text may fail, too."""
    return isinstance(error, RuntimeError) and str(error) in kAnswers + ("",)


def is_interpreters_failure(error):
    """What an interpreter that is out of memory raises instead: 3.12 and later for a frame whose
    object cannot be made, importlib for its locks, the parser up to 3.8, and who forgets to
    raise."""
    return (isinstance(error, SyntaxError) and error.msg == "unexpected EOF while parsing" or
            isinstance(error, (RuntimeError, SystemError)) and str(error) in (
                "Missing frame when calling trace function.", "can't allocate lock",
                "<built-in function compile> returned NULL without setting an exception"))


def do(function, arguments):
    return function(*arguments)


class Server(object):
    """Callbacks that obey a script and let nothing out."""

    idle_period = 0.0
    default_import = staticmethod(kDefaultImport)

    def __init__(self, tracer, around_call=do, around_part=do):
        self.tracer, self.around_call, self.around_part = tracer, around_call, around_part
        self.stops, self.troubles, self.raised = [], [], []
        self.script = []
        self.own_thread = threading.current_thread()

    def attempt(self, name, *arguments):
        """The answer of a module function; None when it raised what was injected."""
        try:
            return self.around_call(getattr(self.tracer, name), arguments)
        except MemoryError:
            self.raised.append(name)
        except Exception as why:
            if not (is_answer_to_failure(why) or is_interpreters_failure(why)
                    or has_ended_meanwhile(why)):
                self.troubles.append("{}: {!r}".format(name, why))
            self.raised.append(name)

    def guarded(self, callback):
        def call(*arguments):
            try:
                return callback(*arguments)
            except MemoryError:
                self.raised.append(callback.__name__)
            except Exception as why:
                kept = self.raised if is_interpreters_failure(why) else self.troubles
                kept.append("{}: {!r}".format(callback.__name__, why))
        return call

    def init(self, mode, import_cb=True, **callbacks):
        cb = {name: self.guarded(getattr(self, name)) for name in (
            "hooks", "checksum", "idle", "line", "returns", "exception", "quit", "imported")}
        self.attempt(
            "init", self.idle_period, mode, cb["hooks"], cb["checksum"], cb["idle"], cb["line"],
            cb["returns"], cb["exception"], cb["quit"], cb["imported"] if import_cb else None,
            self.default_import, {os.path.abspath(__file__.replace(".pyc", ".py")) + "x": 1})

    def hooks(self, install):
        threading.settrace(self.tracer.bootstrap_new_thread if install else None)

    def checksum(self, name):
        return "sum of " + os.path.basename(name)

    def idle(self):
        pass

    def quit(self):
        self.stops.append("quit")

    def imported(self, module):
        pass

    def policy(self, tstate_id):
        return 1

    def failing_policy(self, tstate_id):
        """The tracer logs that, and goes on."""
        raise KeyError(tstate_id)

    def guarded_method(self, method):
        """Of a sub-language hook: its exceptions are the tracer's to deal with."""
        return method

    def line(self, frame):
        self.stop("line", frame)

    def returns(self, frame, value):
        self.stop("return", frame)

    def exception(self, frame, info):
        self.stop("exception", frame)

    def stop(self, kind, frame):
        if len(self.stops) < 400:
            self.stops.append((kind, frame.f_code.co_name, frame.f_lineno))
        command = self.script.pop(0) if self.script else "continue_run"
        if callable(command):
            command(frame)
        elif isinstance(command, tuple):
            self.attempt(*command)
        else:
            self.attempt(command)

    def start(self):
        """Start tracing while few modules are loaded:
        all are looked at, and one is like another."""
        kept = ("sys", "os", "steps", "threading", "builtins", "__builtin__", "__main__", __name__)
        hidden = {name: sys.modules.pop(name) for name in list(sys.modules) if name not in kept}
        try:
            self.attempt("start_trace")
        finally:
            sys.modules.update(hidden)

    # --- parts of the program ---

    def part(self, function, *arguments, **expected):
        """Run a part of the program; its result has to be that without a tracer."""
        try:
            check_pending()
            result = self.around_part(function, arguments)
            check_pending()
        except MemoryError as why:
            self.raised.append("program " + getattr(function, "__name__", "?") + str(why))
            return
        except Exception as why:
            kept = self.raised if is_interpreters_failure(why) else self.troubles
            kept.append("{}: {!r}".format(function.__name__, why))
            return
        if result != expected["gives"]:
            self.troubles.append("{} gave {!r}".format(function.__name__, result))

    def stop_there(self, script):
        def stop():
            self.script = list(script)
            self.attempt("stop")
        return stop


def has_ended_meanwhile(why):
    """A thread that was listed a moment ago may have ended."""
    return isinstance(why, IndexError) and "terminated thread" in str(why)


def check_pending():
    """An exception that is pending while Python code runs comes out here."""
    ctypes.pythonapi.Py_GetRecursionLimit()


def hold_mutex(server):
    if server.attempt("acquire_dbgserver_mutex") is not None:
        calls = len(server.raised)
        server.attempt("release_dbgserver_mutex")
        if len(server.raised) > calls:
            server.attempt("release_dbgserver_mutex")


def query_all(server):
    def query(frame):
        tracer_id = server.attempt("get_current_tstate_id")
        for id_of in server.attempt("get_threads") or ([] if tracer_id is None else [tracer_id]):
            server.attempt("get_curr_frame", id_of)
            server.attempt("get_thread_name", id_of)
            server.attempt("get_thread_ident_for_tstate_id", id_of)
            server.attempt("sub_language_get_active_hook", id_of)
            server.attempt("sub_language_get_frame_category", id_of, frame)
        server.attempt("is_botframe", frame)
        server.attempt("get_frame_file", frame)
        server.attempt("is_internal_frame", frame)
        server.attempt("PyFrame_LocalsToFast", frame, 0)
        for name in ("get_tracing", "get_exception_mode", "exiting_on_exception",
                     "get_dprintf_mask", "get_always_stop_excepts", "get_never_stop_excepts",
                     "get_new_imports", "get_registered_module_count", "get_tstate_tracing",
                     "get_use_eval_frame", "get_tstate_use_tracing",
                     "get_use_canonical_pathnames", "getpid", "get_changed_bps_lists",
                     "is_dbgserver_mutex_held"):
            server.attempt(name)
        if server.around_part is do:
            hold_mutex(server)
        server.attempt("lookup_canonical_pathname", __file__)
        server.attempt("register_canonical_pathname", __file__, None)
        server.attempt("step_into")
    return query


def set_breaks(server, conditions):
    for line, condition, ignore in ((1, None, 0), (2, "first == 1", 0), (3, "1 // 0", 0),
                                    (9, None, 2)):
        condition = condition if conditions else None
        server.attempt("set_break", steps.__file__, "", kLines + line, 1, 0, condition, ignore)
    server.attempt("set_break", "nowhere/scenario.py", "sum of scenario.py", 30, 1, 1, None, 0)
    server.attempt("set_break", "not/there.py", "sum", 5, 1, 0, None, 0)
    server.attempt("set_break", kRelative, "", 3, 1, 0, "first" if conditions else None, 0)
    if conditions:
        server.attempt("set_breaks_cond", steps.__file__, kLines + 3, "total > 0")
    server.attempt("enable_breaks", steps.__file__, kLines + 2, 0)
    server.attempt("enable_breaks", steps.__file__, kLines + 2, 1)
    server.attempt("ignore_breaks", steps.__file__, kLines + 9, 1)
    server.attempt("get_breaks", steps.__file__, kLines + 1)
    server.attempt("get_file_breaks", steps.__file__)
    server.attempt("get_changed_bps_lists")


def set_many_breaks(server):
    """On one line of a file that is never there, and of one that is known by its checksum alone
    or by the name of its compiled form."""
    for _ in range(kManyBreaks):
        server.attempt("set_break", "many/breaks.py", "", 7, 0, 0, None, 0)
    server.attempt("ignore_breaks", "many/breaks.py", 7, 1)
    server.attempt("set_breaks_cond", "many/breaks.py", 7, "0")
    server.attempt("get_breaks", "many/breaks.py", 7)
    server.attempt("get_file_breaks", "many/breaks.py")
    server.attempt("get_changed_bps_lists")
    server.attempt("clear_breaks", "many/breaks.py", 7)
    server.attempt("set_break", "elsewhere/steps.py", "sum of " + os.path.basename(steps.__file__),
                   1, 0, 0, None, 0)
    server.attempt("set_break", kCompiled, "", 1, 0, 0, None, 0)
    server.attempt("clear_breaks", kCompiled, 1)


def call_the_rest(server):
    """Functions that the parts do not need."""
    frame = sys._getframe()
    for name, arguments in kSettings:
        server.attempt(name, *arguments)
    for kind in ("idle_thread", "save_and_restore_errno"):
        server.attempt("set_" + ("use_" if kind == "idle_thread" else "") + kind, 0)
        server.attempt("get_" + ("use_" if kind == "idle_thread" else "") + kind)
    server.attempt("PyFile_WriteObject", "text", Log(), 0)
    server.attempt("CopyIntoBuffer", bytearray(8), 1, b"abc")
    with open(os.devnull) as stream:
        server.attempt("GetFileBufferCount", stream)
        if kBuiltins.__name__ == "__builtin__":
            server.attempt("PyFile_SetEncoding", stream, "ascii")
    server.attempt("__import__", "os")
    server.attempt("trace_dispatch", frame, "line", None)
    server.attempt("bootstrap_new_thread", frame, "call", None)


def call_without_record(server):
    """What needs a record of the thread, while there is none."""
    for name, arguments in kNeedRecord:
        server.attempt("thread_exiting")
        server.attempt(name, *arguments)
    if server.around_part is do:
        server.attempt("thread_exiting")
        hold_mutex(server)
    server.attempt("continue_run")


def set_exceptions(server):
    server.attempt("set_always_stop_excepts", (KeyError,))
    server.attempt("set_never_stop_excepts", (StopIteration,))
    server.attempt("set_exc_catch_info_list", [
        Info("caught_by_caller", __name__, parent=Info("<module>", None)),
        Info("catches_below", steps.__name__), Info("line", __name__, "Server")])
    server.attempt("ignore_exception_loc", __file__, 25, 1)
    server.attempt("exception_loc_ignored", __file__, 25)
    server.attempt("ignore_exception_loc", __file__, 26, 0)


def run_module_code():
    """A file's top level, of which only a relative name is known."""
    namespace = {"__name__": "scenario_module", "__file__": kRelative}
    kBuiltins.eval(kModuleCode, namespace)
    return namespace["second"]


def import_anew():
    for name in [name for name in sys.modules if name.partition(".")[0] == "family"]:
        del sys.modules[name]
    import family.inner.leaf
    from family import sibling
    return family.kName, sibling.__name__


def import_loaded():
    import steps as loaded
    from os import path
    return loaded.__name__, path.sep


def work_in_thread(log):
    def target():
        log.append(steps.add(1, 2))

    thread = threading.Thread(target=target)
    thread.start()
    join_whole_thread(thread)
    if not log:  # bootstrap_new_thread is the thread's trace function, and may raise in it
        raise MemoryError("injected into the thread")
    return log.pop()


def work_in_class(tracer):
    """A thread by the interpreter's own means: its outermost frame is a method of ours."""
    worker, lock, before = Worker.made(), _thread.allocate_lock(), _thread._count()
    lock.acquire()
    _thread.start_new_thread(worker.whole_thread, (tracer, lock))
    lock.acquire()
    # Its native end, too: a program that forks before that has children whose own threads may crash
    # in the C library as they end.
    while _thread._count() > before or os.path.exists(worker.place):
        sleep(0)
    if not worker.done:
        raise MemoryError("injected into the thread")
    return worker.done


def program(server, imports, threads, conditions):
    """Everything once; commands are given at the stops."""
    into, over, out = "step_into", "step_over", "step_out"
    stop = server.stop_there
    server.part(steps.calls, stop([query_all(server), into, into, over, out, over]), gives=10)
    server.part(steps.calls_passes_on, stop([over, out, over]), gives=4)
    server.part(steps.loops,
                stop(["step_over_line", ("step_over_line_range", 1, 400), over]), gives=1)
    server.part(steps.consumes, stop([over] * 6), gives=3)
    if imports:
        server.part(run_module_code, gives=1)
    server.part(import_loaded, gives=("steps", "/"))
    if imports:
        server.part(import_anew, gives=("family", "family.sibling"))
    server.part(steps.catches_below, stop([over, over, over, over]), gives="caught")
    server.part(caught_by_caller, gives=("at the bottom",))
    server.part(with_finally, [], gives=["finally", "except"])
    server.attempt("set_debug_thread_cb", server.guarded(server.policy))
    if threads:
        server.part(work_in_thread, [], gives=3)
        server.attempt("set_debug_thread_cb", server.failing_policy)
        server.part(work_in_class, server.tracer, gives=[3])
    server.attempt("register_sub_language_hook", Hook(server))
    server.attempt("set_break", kTemplate, "", key.__code__.co_firstlineno + 2, 1, 0,
                   "first == 3" if conditions else None, 0)
    server.part(marker, [(key, 1), (raising_key, 2), (key, 3)],
                stop([into, into, out, over]), gives=14)
    server.part(steps.factorial, stop([into, into, out, out]), gives=6)
    server.attempt("set_break", steps.__file__, "", kLines + 40, 1, 0, None, 0)
    server.attempt("register_module", steps)
    server.attempt("set_use_canonical_pathnames", 1)
    server.attempt("set_break", steps.__file__, "", kLines + 1, 1, 0, None, 0)
    server.part(steps.calls, stop([over]), gives=10)
    server.attempt("set_use_canonical_pathnames", 0)
    server.attempt("raise_exception", 0, None)
    server.part(fail_in_text, gives=("at the bottom",))
    set_many_breaks(server)
    call_the_rest(server)
    server.attempt("clear_breaks", steps.__file__, kLines + 1)
    server.attempt("clear_all_breaks")


def run(tracer, log=False, imports=True, threads=True, conditions=True, **around):
    """Two sessions with everything; a dictionary of what happened."""
    server = Server(tracer, **around)
    sys.argv[:1] = [os.path.join(DEBUGGEES, "steps.py")]
    if log:
        server.attempt("set_dprintf_mask", 0xffff)
        server.attempt("set_dprintf_file", Log(), -1, 0)
    for mode in (5, 1):
        server.init(mode)
        server.attempt("set_autoquit", 1)
        server.attempt("enable_checksums", 1)
        set_breaks(server, conditions)
        set_exceptions(server)
        server.attempt("set_use_eval_frame", 1)
        server.start()
        try:
            program(server, imports and mode == 5, threads, conditions)
        except MemoryError:  # between two parts
            server.raised.append("program")
        except SystemError as why:
            kept = server.raised if is_interpreters_failure(why) else server.troubles
            kept.append("program: {!r}".format(why))
        finally:
            server.attempt("stop_trace")
        call_without_record(server)
        server.attempt("reset")
    return finish(server, log)


def finish(server, log):
    if log:
        server.attempt("set_dprintf_file", None, -1, 0)
    server.attempt("destroy")
    return {"stops": server.stops, "troubles": server.troubles, "raised": server.raised}


def run_again(tracer):
    """A session without faults: [] or what is wrong."""
    sys.settrace(None)
    threading.settrace(None)
    tracer.set_use_canonical_pathnames(0)
    tracer.set_dprintf_file(None, -1, 0)
    server = Server(tracer)
    server.init(0)
    tracer.set_break(steps.__file__, "", kLines + 3, 1, 0, None, 0)
    server.start()
    server.part(steps.calls, server.stop_there(["step_into", "step_over", "step_out"]), gives=10)
    tracer.stop_trace()
    held = tracer.is_dbgserver_mutex_held()
    tracer.destroy()
    wrong = list(server.troubles) + ["raised by " + name for name in server.raised]
    if held:
        wrong.append("the mutex is held")
    if sys.gettrace() is not None:
        wrong.append("still traced")
    return wrong, server.stops
