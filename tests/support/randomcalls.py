"""Call functions of the tracer at random, with good and bad arguments, while a program is traced.

  randomcalls.py SEED CALLS JOURNAL

The program makes such calls wherever it is, and so does every callback.  Each call is written to
JOURNAL before it is made: a ring of slots in shared memory, which outlives a crash.  The same seed
gives the same calls, as far as the interpreter's own order of things (threads, ids) allows.

Left out is only what the interpreter itself does not survive or what never ends: a copy beyond the
end of a buffer, logging into any file descriptor, two milliards of enter calls, a thread that ends
with the server's mutex in its hands, and imports of what is not loaded: an exception that is raised
between two lines of the interpreter's import code leaves its lock locked.
"""
from __future__ import absolute_import, division, print_function

import io
import json
import mmap
import os
import random
import sys
import threading
import types
from time import sleep

try:
    import _thread
except ImportError:
    import thread as _thread
get_ident = _thread.get_ident

_here = os.path.dirname(os.path.abspath(__file__))
kTables = os.path.join(os.path.dirname(_here), "data", "methods.json")
kBuiltins = sys.modules.get("builtins") or sys.modules["__builtin__"]
kRealImport = kBuiltins.__import__

kSlots = 64
kSlotSize = 240
kDepth = 3  # calls within callbacks within calls
kRounds = 40  # calls of the program between two clean-ups, about
kThreads = 3


class Journal(object):
    """The last calls, in a file that is mapped into memory."""

    def __init__(self, path):
        with io.open(path, "r+b") as out:
            self.slots = mmap.mmap(out.fileno(), kSlots * kSlotSize)
        self.count = 0

    def add(self, text):
        self.count += 1
        line = "{} {}".format(self.count, text).encode("ascii", "replace")[: kSlotSize - 1]
        start = self.count % kSlots * kSlotSize
        self.slots[start:start + kSlotSize] = line.ljust(kSlotSize - 1) + b"\n"


def create_journal(path):
    with io.open(path, "wb") as out:
        out.write(b"\n".rjust(kSlotSize) * kSlots)


def read_journal(path, last=20):
    """The last calls as text, the newest at the end."""
    with io.open(path, encoding="ascii") as source:
        lines = [line.strip() for line in source if line.strip()]
    lines.sort(key=lambda line: int(line.partition(" ")[0]))
    return "\n".join(lines[-last:])


# --- a program with a bit of everything ------------------------------------------------------

kProgram = '''
def plain(poke):
    a = 1
    poke()
    b = a + 1
    return b

def looping(poke):
    total = 0
    for i in range(3):
        total += i
        poke()
    return total

def generating(poke):
    yield 1
    poke()
    yield 2

def consuming(poke):
    found = []
    for item in generating(poke):
        found.append(item)
    left = generating(poke)
    next(left)
    return left

def raising(poke):
    poke()
    raise ValueError("raised")

def catching(poke):
    try:
        raising(poke)
    except ValueError as why:
        poke()
        return why.args
    finally:
        poke()

def recursing(poke, depth=4):
    if depth:
        return recursing(poke, depth - 1) + 1
    poke()
    return 0

class Body(object):
    made = [item for item in (1, 2)]

    def method(self, poke):
        poke()
        return [self.made for _ in self.made]

def building(poke):
    class Local(Body):
        done = poke()
    return Local().method(poke)

def importing(poke):
    import colorsys
    poke()
    from xml import dom
    return colorsys, dom

kAll = [plain, looping, consuming, catching, recursing, building, importing]
'''


class Hook(object):
    """A sub-language hook whose every answer is a surprise."""

    def __init__(self, caller):
        self.caller = caller

    def _GetMarkerFrames(self):
        return self.caller.callback() or list(self.caller.codes)

    def _GetModulePaths(self):
        return self.caller.choice([None, [], [(self.caller.folder, 1)], [("", 0)], [1],
                                   [("x", "y")]])

    def _GetSubLanguageFrames(self):
        return self.caller.choice([None, [], list(self.caller.codes), [1, 2]])

    def _StopHere(self, *_):
        self.caller.callback()
        return self.caller.choice([0, 1, None, True])

    def _TranslateFrame(self, *_):
        return self.caller.choice([None, ("a.py", 1), (1, 2), ("a.py",)])

    def _GetStepOutFrame(self, frame):
        return self.caller.choice([frame, None, 1])


class Info(object):
    """One of set_exc_catch_info_list's instances, whole or not."""

    def __init__(self, **values):
        self.__dict__.update(values)


class Log(object):
    def __init__(self, caller):
        self.caller = caller

    def write(self, text):
        if self.caller.chance(0.02):
            self.caller.callback()

    def flush(self):
        pass


class Unhappy(object):
    """Raises from everything that is asked of it."""

    def __getattr__(self, name):
        raise RuntimeError(name)

    def __hash__(self):
        raise RuntimeError("hash")

    def __eq__(self, other):
        raise RuntimeError("eq")

    __call__ = __str__ = __repr__ = __hash__


def frame_of_finished_function():
    try:
        raise ValueError()
    except ValueError:
        return sys.exc_info()[2].tb_frame


def describe(value):
    """Short, and without calling anything of the value."""
    if value is None or isinstance(value, (int, float, bytes, str, type(u""))):
        text = repr(value[:24] if hasattr(value, "__len__") else value)
        if hasattr(value, "__len__") and len(value) > 24:
            text += "...({})".format(len(value))
        return text
    if isinstance(value, (tuple, list)):
        return "[" + ", ".join(describe(item) for item in value[:4]) + "]"
    if isinstance(value, types.FrameType):
        return "<frame {}>".format(value.f_code.co_name)
    return "<{}>".format(type(value).__name__)


class State(threading.local):
    depth = 0
    added = 0  # to the thread state's tracing counter
    acquired = 0  # times the server's mutex
    random = None


class Caller(object):
    """Knows the functions, has the values, makes the calls."""

    def __init__(self, tracer, seed, journal):
        self.tracer, self.journal, self.seed = tracer, journal, seed
        self.local = State()
        self.local.random = random.Random(seed)
        self.threads_made = 0
        self.failures = []
        self.folder = os.path.dirname(os.path.abspath(__file__))
        self.file = os.path.join(self.folder, "program-of-random-calls.py")
        self.program = {"__name__": "program", "__file__": self.file}
        for name in ("json", "xml.dom", "colorsys"):
            __import__(name)
        exec(compile(kProgram, self.file, "exec"), self.program)
        self.codes = [function.__code__ for function in self.program["kAll"]]
        self.ids = [tracer.get_current_tstate_id()]
        with io.open(kTables, encoding="utf-8") as source:
            self.names = [row["name"] for row in json.load(source)]
        self.sink = io.open(os.devnull, "wb")
        self.text_sink = open(os.devnull, "w")
        self.callbacks = [self.callback, lambda *_: self.callback(), lambda *_: 1 // 0, len]
        self.frames = [frame_of_finished_function()]
        self.make_values()

    # --- chance ---

    def random(self):
        if self.local.random is None:
            self.threads_made += 1
            self.local.random = random.Random(self.seed * 1000 + self.threads_made)
        return self.local.random

    def choice(self, values):
        return self.random().choice(values)

    def chance(self, share):
        return self.random().random() < share

    # --- values ---

    def make_values(self):
        self.numbers = [0, 1, -1, 2, 3, 5, 7, 100, 2 ** 31 - 1, -2 ** 31, 2 ** 31, 2 ** 63, 2 ** 70]
        self.texts = ["", "x", "<string>", "a\0b", u"\xe9", b"x", b"\xff", "x" * 40000,
                      "/" + "d/" * 20000, self.file, "program-of-random-calls.py"]
        self.others = [
            None, 1.5, float("nan"), float("inf"), (), (1,), [], [None], {}, object(), Unhappy(),
            ValueError, ValueError("x"), types.ModuleType("made"), types, Hook(self), bytearray(4),
            self.sink, self.text_sink, frame_of_finished_function, self.codes[0]]

    def frame(self):
        kind = self.random().random()
        if kind < 0.4:
            return sys._getframe(self.random().randrange(3))
        return self.choice(self.frames)

    def tstate_id(self):
        return self.choice(self.ids + [0, 1, -1, 4096, 2 ** 63, None])

    def file_name(self):
        return self.file if self.chance(0.6) else self.choice(self.texts)

    def line(self):
        return self.random().randrange(1, 60) if self.chance(0.8) else self.choice(self.numbers)

    def flag(self):
        return self.choice([0, 1, 1, 2, -1])

    def condition(self):
        return self.choice([None, None, "1", "0", "a > 0", "1 // 0", "", "poke()", "not python",
                            u"\xe9", "x" * 5000, 1])

    def exception(self):
        # A trace function that raises StopIteration as a generator is left is too much for the
        # assertions of 3.14.
        return self.choice([None, ValueError, ValueError("y"), KeyError(), object(), 1,
                            KeyError if hasattr(sys, "gettotalrefcount") else StopIteration])

    def module(self):
        return self.choice([types, os, types.ModuleType("made"), None, self.named_module()])

    def named_module(self):
        module = types.ModuleType("named")
        module.__file__ = self.choice(self.texts + [None, 1])
        return module

    def some_callable(self):
        return self.choice(self.callbacks)

    def catch_infos(self):
        return [self.choice([None, Info(), Info(co_name="catching", mod_name="program", prints=1),
                             Info(co_name="catching", mod_name=None, containing_class=None,
                                  parent=None, prints=0), Unhappy()])
                for _ in range(self.random().randrange(4))]

    def exception_types(self):
        return tuple(
            self.choice([ValueError, KeyError, Exception, StopIteration, None, 1, (ValueError,)])
            for _ in range(self.random().randrange(3)))

    def anything(self, name):
        kinds = [self.others] if name == "__import__" else [self.texts, self.others]
        if name not in ("CopyIntoBuffer", "set_dprintf_file", "add_to_tstate_tracing"):
            kinds.append(self.numbers)
        if name != "PyFrame_LocalsToFast" and self.chance(0.1):
            return self.frame()
        return self.choice(self.choice(kinds))

    # --- arguments ---

    def arguments(self, name):
        if name != "add_to_tstate_tracing" and self.chance(0.2):
            return [self.anything(name)
                    for _ in range(self.random().choice((0, 1, 1, 2, 2, 3, 4, 7)))]
        maker = getattr(self, "for_" + name, None)
        if maker is not None:
            return list(maker())
        if name.startswith("set_") or name == "enable_checksums":
            return [self.flag()]
        return []

    def for_init(self):
        period = self.choice([0.0, 1.0, -1.0, 1e30])
        mode = self.choice([0, 1, 2, 4, 5, 9])
        callbacks = [self.some_callable() for _ in range(7)]
        return [period, mode] + callbacks + [
            self.choice([None, self.callback]), self.real_import, self.choice([{}, {self.file: 1}])]

    def for_set_idle_period(self):
        return [self.choice([0.0, 1.0, -1.0])]

    def for_set_debug_thread_cb(self):
        return [self.some_callable()]

    def for_set_dprintf_mask(self):
        return [self.choice([0, 84, 255, 2 ** 31 - 1])]

    def for_set_dprintf_file(self):
        files = [None, None, None, Log(self), self.sink, self.text_sink, Unhappy(), 1]
        return [self.choice(files), self.choice([-1, -1, self.sink.fileno(), 10 ** 6]), 0]

    def for_step_over_line_range(self):
        return [self.line(), self.line()]

    def for_step_out_to_frame(self):
        return [self.frame()]

    for_is_botframe = for_get_frame_file = for_is_internal_frame = for_step_out_to_frame

    def for_get_curr_frame(self):
        return [self.tstate_id()]

    for_get_thread_name = for_sub_language_get_active_hook = for_get_curr_frame
    for_get_thread_ident_for_tstate_id = for_get_curr_frame

    def for_sub_language_get_frame_category(self):
        return [self.tstate_id(), self.frame()]

    def for_set_break(self):
        return [self.file_name(), self.choice(["", "sum"]), self.line(), self.flag(), self.flag(),
                self.condition(), self.choice([0, 0, 1, -1])]

    def for_clear_breaks(self):
        return [self.file_name(), self.line()]

    for_get_breaks = for_clear_breaks

    def for_enable_breaks(self):
        return [self.file_name(), self.line(), self.flag()]

    for_ignore_breaks = for_enable_breaks

    def for_set_breaks_cond(self):
        return [self.file_name(), self.line(), self.condition()]

    def for_get_file_breaks(self):
        return [self.file_name()]

    def for_set_exception_mode(self):
        return [self.choice([0, 1, 2, 4, 5, -7])]

    def for_ignore_exception_loc(self):
        return [self.file_name(), self.choice([self.line(), None, Unhappy(), "x", 1.5]),
                self.flag()]

    def for_exception_loc_ignored(self):
        return self.for_ignore_exception_loc()[:2]

    def for_set_always_stop_excepts(self):
        return [self.exception_types()]

    for_set_never_stop_excepts = for_set_always_stop_excepts

    def for_set_exc_catch_info_list(self):
        return [self.catch_infos()]

    def for_register_module(self):
        return [self.module()]

    def for_register_sub_language_hook(self):
        return [self.choice([Hook(self), None, object(), Unhappy()])]

    def for_add_to_tstate_tracing(self):
        if hasattr(sys, "gettotalrefcount"):
            # A frame that began untraced and is traced from its middle on is too much for the
            # assertions of 3.14: its code has not been prepared for that.
            return [0]
        value = -self.local.added if self.local.added else self.choice([0, 1, 2])
        self.local.added += value
        return [value]

    def for_set_tstate_use_tracing(self):
        return [self.choice([0, 1])]

    def for_raise_exception(self):
        return [self.tstate_id(), self.exception()]

    def for_PyFile_SetEncoding(self):
        return [self.choice([self.sink, self.text_sink, None]), "ascii"]

    def for_PyFile_WriteObject(self):
        return [self.choice(self.others), self.choice([self.text_sink, Unhappy()]), self.flag()]

    def for_GetFileBufferCount(self):
        return [self.choice([self.sink, self.text_sink, None])]

    def for_CopyIntoBuffer(self):
        return [bytearray(8), self.random().randrange(9), self.choice([b"", b"abc", b"x" * 100])]

    def for_PyFrame_LocalsToFast(self):
        if self.chance(0.5):
            return [self.frame(), 0]
        return [self.frames[0], self.flag()]

    def for_trace_dispatch(self):
        event = self.choice(["call", "line", "return", "exception", "opcode", "c_call", "", "x"])
        arg = self.choice([None, (ValueError, ValueError(), None), (), (1,), (None, None, None),
                           sys.exc_info(), 1])
        return [self.frame(), event, arg]

    for_bootstrap_new_thread = for_trace_dispatch

    def for___import__(self):
        return self.choice([("os",), ("json", None, None, ["loads"]),
                            ("xml.dom", {}, {}, [], 0), ("sys", 1, 2, 3)])

    def for_lookup_canonical_pathname(self):
        return [self.file_name()] + self.choice([[], [None], ["sum"], [""]])

    for_register_canonical_pathname = for_lookup_canonical_pathname

    # --- calls ---

    def call(self):
        name = self.choice(self.names)
        if name in ("destroy", "reset", "init", "atexit_func", "stop_trace") and self.chance(0.6):
            return  # not all the time, or nothing is ever traced
        if name == "thread_exiting":
            self.give_mutex_back()
        if name == "acquire_dbgserver_mutex":
            self.local.acquired += 1
        arguments = self.arguments(name)
        self.journal.add("{} {}({})".format(
            get_ident() % 10007, name, ", ".join(describe(item) for item in arguments)))
        try:
            getattr(self.tracer, name)(*arguments)
        except SystemError as why:
            self.fail(name, arguments, why)
        except BaseException:
            pass

    def fail(self, name, arguments, why):
        text = str(why)
        if name == "step_into" and ("NULL" in text or "error return" in text):
            return  # the one function that fails without saying why
        self.failures.append("{}({}): {}".format(name, ", ".join(map(describe, arguments)), text))

    def call_some(self, numbers):
        before, self.local.acquired = self.local.acquired, 0
        self.local.depth += 1
        try:
            for _ in range(self.choice(numbers)):
                self.call()
        finally:
            self.local.depth -= 1
            while self.local.acquired > 0:  # or the threads that wait for it never end
                self.local.acquired -= 1
                self.tracer.release_dbgserver_mutex()
            self.local.acquired = before

    def poke(self, *_):
        """What the program calls."""
        if self.local.depth > 0 and self.chance(0.5):
            return
        self.remember(sys._getframe(1))
        self.call_some((1, 1, 2, 4))

    def callback(self, *arguments):
        """What the tracer calls."""
        for item in arguments:
            if isinstance(item, types.FrameType):
                self.remember(item)
        if self.local.depth >= kDepth:
            return None
        self.call_some((0, 1, 1, 2, 3))
        self.command()
        if self.chance(0.05):
            raise self.choice([ValueError, KeyboardInterrupt, SystemExit])("from a callback")
        return self.choice([None, 0, 1, "text", []])

    def command(self):
        """Mostly on, step by step."""
        try:
            if self.chance(0.7):
                getattr(self.tracer, self.choice(["step_into", "step_over", "step_out", "stop"]))()
        except Exception:
            pass

    def remember(self, frame):
        self.frames.append(frame)
        if len(self.frames) > 12:
            del self.frames[1]

    def real_import(self, *arguments, **keywords):
        if self.chance(0.05):
            self.callback()
        return kRealImport(*arguments, **keywords)

    # --- rounds ---

    def give_mutex_back(self):
        for _ in range(100):
            try:
                if not self.tracer.is_dbgserver_mutex_held():
                    return
                self.tracer.release_dbgserver_mutex()
            except Exception:
                return

    def begin(self):
        self.tracer.init(*self.for_init())
        self.tracer.set_use_idle_thread(self.flag())
        self.tracer.start_trace()
        self.tracer.set_break(self.file, "", self.line(), 1, 0, None, 0)
        self.command()

    def run_program(self, how_often):
        functions = self.program["kAll"]
        for _ in range(how_often):
            try:
                self.choice(functions)(self.poke)
            except BaseException:
                pass

    def run_thread(self):
        try:
            self.ids.append(self.tracer.get_current_tstate_id())
            self.tracer.bootstrap_new_thread(sys._getframe(), "call", None)
            self.run_program(2)
        except BaseException:
            pass
        finally:
            self.tidy_thread()
            self.tracer.thread_exiting()

    def tidy_thread(self):
        """Nothing of this thread may keep others waiting or escape into the loop."""
        for operation in (self.tidy_counter, self.give_mutex_back,
                          lambda: self.tracer.raise_exception(0, None)):
            try:
                operation()
            except BaseException:
                pass

    def tidy_counter(self):
        self.tracer.add_to_tstate_tracing(-self.local.added)
        self.local.added = 0

    def round(self):
        self.begin()
        before = _thread._count()
        for _ in range(self.choice((0, 0, 0, kThreads))):
            # Not by `threading`: an exception raised in its own code would leave us waiting.
            _thread.start_new_thread(self.run_thread, ())
        self.run_program(kRounds)
        self.tidy_thread()
        while _thread._count() > before:
            sleep(0.0005)

    def tidy(self):
        self.tidy_thread()
        for name in ("stop_trace", "clear_all_breaks", "reset", "destroy"):
            try:
                getattr(self.tracer, name)()
            except BaseException:
                pass
        del self.frames[1:]
        del self.ids[1:]

    def run(self, calls):
        sys.settrace(None)
        while self.journal.count < calls and not self.failures:
            try:
                try:
                    self.round()
                except BaseException:
                    pass
                finally:
                    self.tidy()
            except BaseException:  # one that was waiting to be raised
                pass
        self.tidy()
        self.tracer.set_dprintf_file(None, -1, 0)


def watch_for_hangs():
    """Say where a crash or, on a signal, a hang is; nothing where there is no module for it."""
    try:
        import faulthandler
        import signal
    except ImportError:
        return
    if "asan" not in os.environ.get("LD_PRELOAD", ""):  # which tells more of a crash
        faulthandler.enable()
    faulthandler.register(signal.SIGUSR2, all_threads=True)


def main(argv):
    watch_for_hangs()
    seed, calls = int(argv[0]), int(argv[1])
    import tdbgtracer
    caller = Caller(tdbgtracer, seed, Journal(argv[2]))
    caller.run(calls)
    for text in caller.failures:
        print("FAILED", text)
    print("{} calls, seed {}".format(caller.journal.count, seed))
    sys.stdout.flush()
    return 1 if caller.failures else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
