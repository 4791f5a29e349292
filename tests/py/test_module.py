"""The module as Python sees it: its table, init(), and the functions that belong to nobody else."""
from __future__ import absolute_import, division, print_function

import ctypes
import io
import json
import os
import struct
import sys
import threading
import types
import weakref

from support import DATA, TestCase, growth_of_references, has, import_tracer, load_native, needs

try:
    import builtins
except ImportError:
    import __builtin__ as builtins

try:
    from threading import get_ident
except ImportError:
    from thread import get_ident

kCallbacks = ["install_thread_hooks_cb", "get_checksum_cb", "idle_cb", "line_cb", "return_cb",
              "exception_cb", "quit_cb", "import_cb", "default_import", "internal_modules_map"]
kMessages = [name + " must be callable" for name in kCallbacks[:7]] + [
    "import_cb must be None or callable", "default_import must be callable",
    "internal_modules_map must be a dict"]
kDefaultImport = builtins.__import__

kNoParsing = ["reset", "start_trace", "step_over", "step_over_line", "step_out", "continue_run",
              "stop", "get_threads", "clear_all_breaks", "get_exception_mode",
              "clear_exception_ignores", "get_new_imports", "fork_ok", "getpid", "destroy"]


def read_table():
    with io.open(os.path.join(DATA, "methods.json"), encoding="utf-8") as source:
        return json.load(source)


def init_arguments(**changes):
    values = dict.fromkeys(kCallbacks, lambda *arguments: None)
    values.update(import_cb=None, default_import=kDefaultImport, internal_modules_map={})
    mode = changes.pop("mode", 2)
    period = changes.pop("period", 0.0)
    values.update(changes)
    return [period, mode] + [values[name] for name in kCallbacks]


class Log(object):
    """A log file that keeps what it gets."""

    def __init__(self):
        self.lines = []

    def write(self, text):
        self.lines.append(text)

    def flush(self):
        pass


def make_tracer(**changes):
    tracer = import_tracer()
    tracer.init(*init_arguments(**changes))
    return tracer


class Table(TestCase):
    def test_functions_are_those_of_the_table(self):
        tracer = import_tracer()
        names = [name for name in dir(tracer)
                 if isinstance(getattr(tracer, name), types.BuiltinFunctionType)]
        self.assertCountEqual(names, [row["name"] for row in read_table()])
        self.assertEqual(len(names), 87)

    def test_order_of_the_table(self):
        words = 4

        class Definition(ctypes.Structure):
            _fields_ = [("name", ctypes.c_char_p), ("function", ctypes.c_void_p),
                        ("flags", ctypes.c_int), ("doc", ctypes.c_char_p)]

        self.assertEqual(ctypes.sizeof(Definition), words * ctypes.sizeof(ctypes.c_void_p))
        table = (Definition * 88).in_dll(load_native(), "TracerMethods")
        rows = [(row.name.decode("ascii"), row.flags) for row in table[:87]]
        self.assertEqual(
            rows, [(row["name"], 3 if row["name"] == "__import__" else 1) for row in read_table()])
        self.assertEqual((table[87].name, table[87].function, table[87].doc), (None, None, None))

    def test_doc_strings(self):
        tracer = import_tracer()
        for row in read_table():
            self.assertEqual(getattr(tracer, row["name"]).__doc__, row["doc"], row["name"])

    def test_kUsesSysMonitoring_is_False(self):
        self.assertIs(import_tracer().kUsesSysMonitoring, False)

    def test_argument_errors_name_the_function_of_the_format(self):
        tracer = make_tracer()
        for row in read_table():
            arguments, colon, name = (row["format"] or "").partition(":")
            if colon and name != "CopyIntoBuffer":
                with self.assertRaisesRegex(TypeError, "^" + name + r"\(\)", msg=row["name"]):
                    getattr(tracer, row["name"])(*range(20))

    def test_argument_errors_of_formats_without_a_name(self):
        tracer = make_tracer()
        for name in ("step_over_line_range", "PyFile_SetEncoding", "PyFile_WriteObject",
                     "GetFileBufferCount", "CopyIntoBuffer"):
            with self.assertRaisesRegex(TypeError, "^function "):
                getattr(tracer, name)(*range(20))

    def test_too_few_arguments(self):
        tracer = make_tracer()
        for row in read_table():
            if (row["format"] or "").partition(":")[0]:
                self.assertRaises(TypeError, getattr(tracer, row["name"]))

    def test_get_use_idle_thread_names_another_function(self):
        with self.assertRaisesRegex(TypeError, r"^get_use_eval_frame\(\)"):
            import_tracer().get_use_idle_thread(1)

    def test_get_save_and_restore_errno_names_another_function(self):
        with self.assertRaisesRegex(TypeError, r"^set_save_and_restore_errno\(\)"):
            import_tracer().get_save_and_restore_errno(1)

    def test_functions_that_do_not_look_at_their_arguments(self):
        tracer = make_tracer()
        for name in kNoParsing:
            self.assertEqual(type(getattr(tracer, name)(1, 2, 3)), type(getattr(tracer, name)()))
        self.assertIsNone(tracer.step_over(1, 2, 3))

    def test_arguments_by_position_without_a_count(self):
        tracer = make_tracer()
        for name in ("get_curr_frame", "is_botframe", "sub_language_get_active_hook",
                     "sub_language_get_frame_category"):
            self.assertRaisesRegex(
                IndexError, "tuple index out of range", getattr(tracer, name))

    def test_get_curr_frame_of_an_unknown_thread(self):
        tracer = make_tracer()
        with self.assertRaises(IndexError) as caught:
            tracer.get_curr_frame(12345)
        self.assertEqual(str(caught.exception),
                         "get_curr_frame called for unknown or terminated thread")

    def test_no_keywords(self):
        self.assertRaises(TypeError, import_tracer().set_autoquit, flag=1)

    def test_before_init_everything_answers_or_raises(self):
        tracer = import_tracer()
        frame = sys._getframe()
        for row in read_table():
            if row["name"] in ("init", "set_dprintf_file"):
                continue
            for arguments in ((), (1,), (frame,), ("a", 1), (frame, "call", None), ("a", 1, 1),
                              ("os",), (1, None), ("a", "", 1, 1, 0, None, 0)):
                try:
                    getattr(tracer, row["name"])(*arguments)
                except Exception:
                    pass
        self.assertIsNone(sys.gettrace())

    def test_before_init_argument_errors_are_those_of_afterwards(self):
        tracer = import_tracer()
        before = [self.messages_of_argument_errors(tracer, row) for row in read_table()]
        tracer.init(*init_arguments())
        after = [self.messages_of_argument_errors(tracer, row) for row in read_table()]
        self.assertEqual(before, after)
        self.assertGreater(len([messages for messages in after if messages]), 60)

    def messages_of_argument_errors(self, tracer, row):
        """For no argument, too many and such of a wrong type; of functions that parse their own."""
        function, messages = getattr(tracer, row["name"]), []
        by_position = ("get_curr_frame", "is_botframe", "sub_language_get_active_hook",
                       "sub_language_get_frame_category")
        if row["format"] is None and row["name"] not in by_position:
            return messages
        letters = (row["format"] or "O").partition(":")[0]
        calls = [tuple(range(20))] if row["format"] else []
        calls += [()] if letters else []
        calls += [(object(),) * len(letters)] if "i" in letters else []
        for arguments in calls:
            try:
                self.fail((row["name"], function(*arguments)))
            except (TypeError, IndexError) as error:
                messages.append(str(error))
        return messages

    def test_before_init_queries_find_nothing(self):
        tracer = import_tracer()
        frame, own = sys._getframe(), tracer.get_current_tstate_id()
        for name, arguments, answer in (
                ("get_tracing", (), 0), ("get_threads", (), []), ("get_thread_name", (own,), None),
                ("is_botframe", (frame,), 0), ("is_internal_frame", (frame,), 0),
                ("get_new_imports", (), []), ("sub_language_get_active_hook", (own,), None),
                ("sub_language_get_frame_category", (own, frame), -1),
                ("thread_exiting", (), None), ("fork_ok", (), None)):
            self.assertEqual(getattr(tracer, name)(*arguments), answer, name)
        with self.assertRaisesRegex(IndexError, "unknown or terminated thread"):
            tracer.get_curr_frame(own)
        make_tracer()

    def test_before_init_the_tables_are_refused(self):
        tracer = import_tracer()
        for name, arguments in (("start_trace", ()), ("set_break", ("a", "", 1, 1, 0, None, 0)),
                                ("__import__", ("os",)), ("raise_exception", (0, None)),
                                ("ignore_exception_loc", ("a", 1, 1)), ("reset", ())):
            with self.assertRaisesRegex(RuntimeError, "not initialized", msg=name):
                getattr(tracer, name)(*arguments)

    def test_anything_as_an_argument(self):
        tracer = make_tracer()
        skipped = ("init", "set_dprintf_file", "add_to_tstate_tracing", "set_tstate_use_tracing",
                   "start_trace", "fork_ok", "trace_dispatch", "bootstrap_new_thread")
        values = (None, 0, -1, 2 ** 70, 1.5, "x", b"x", (), (1,), [], {}, object(), sys._getframe(),
                  types, Log())
        for row in read_table():
            if row["name"] in skipped:
                continue
            for one in values:
                for arguments in ((one,), (one, one), (one, 1, one), ("f", one, 1),
                                  ("f", "c", 1, 1, 0, one, 0)):
                    self.call_with_anything(tracer, row["name"], arguments)
        tracer.reset()

    def call_with_anything(self, tracer, name, arguments):
        try:
            getattr(tracer, name)(*arguments)
        except SystemError as error:
            self.fail("{}{}: {}".format(name, arguments, error))
        except Exception:
            pass


class Init(TestCase):
    def test_returns_None(self):
        self.assertIsNone(import_tracer().init(*init_arguments()))

    def test_each_check_and_its_message(self):
        tracer = import_tracer()
        for name, message in zip(kCallbacks, kMessages):
            with self.assertRaises(TypeError) as caught:
                tracer.init(*init_arguments(**{name: 5}))
            self.assertEqual(str(caught.exception), message)

    def test_only_the_first_bad_argument_is_reported(self):
        tracer = import_tracer()
        for first in range(len(kCallbacks)):
            changes = dict.fromkeys(kCallbacks[first:], 5)
            with self.assertRaises(TypeError) as caught:
                tracer.init(*init_arguments(**changes))
            self.assertEqual(str(caught.exception), kMessages[first])

    def test_nothing_is_stored_when_a_check_fails(self):
        tracer = make_tracer(mode=1)
        tracer.set_autoquit(0)
        self.assertRaises(TypeError, tracer.init,
                          *init_arguments(mode=2, internal_modules_map=[]))
        self.assertEqual(tracer.get_exception_mode(), 1)

    def test_import_cb_may_be_None(self):
        make_tracer(import_cb=None)

    def test_default_import_may_not_be_None(self):
        with self.assertRaisesRegex(TypeError, "^default_import must be callable$"):
            make_tracer(default_import=None)

    def test_internal_modules_map_may_be_a_subclass_of_dict(self):
        class Map(dict):
            pass
        make_tracer(internal_modules_map=Map())

    def test_internal_modules_map_may_not_be_a_list(self):
        with self.assertRaisesRegex(TypeError, "^internal_modules_map must be a dict$"):
            make_tracer(internal_modules_map=[])

    def test_our_own_import_as_default_import_is_an_error(self):
        tracer = import_tracer()
        with self.assertRaisesRegex(
                AssertionError, "The default import hook cannot be equal to our import hook"):
            tracer.init(*init_arguments(mode=1, default_import=tracer.__import__))
        self.assertEqual(tracer.get_exception_mode(), 1)  # initialised all the same

    def test_exception_mode_and_period_are_numbers(self):
        tracer = import_tracer()
        self.assertRaises(TypeError, tracer.init, *init_arguments(mode="2"))
        self.assertRaises(TypeError, tracer.init, *init_arguments(period="2"))

    def test_log_lines(self):
        tracer = import_tracer()
        log = Log()
        tracer.set_dprintf_file(log, -1, 0)
        self.assertRaises(TypeError, tracer.init)
        self.assertEqual(log.lines, ["STARTING DBGTRACER INIT\n"])
        tracer.init(*init_arguments())
        self.assertEqual(log.lines[1], "STARTING DBGTRACER INIT\n")
        self.assertEqual(log.lines[-1], "DONE WITH INIT DBGTRACER\n")
        tracer.set_dprintf_file(None, -1, 0)

    def test_flushes_the_standard_streams_of_c(self):
        tracer = import_tracer()
        libc = ctypes.CDLL(None)
        reading, writing = os.pipe()
        libc.fflush(None)
        kept = os.dup(1)
        os.dup2(writing, 1)
        try:
            libc.printf(b"buffered")
            self.assertRaises(TypeError, tracer.init)
            os.write(writing, b"|")
            self.assertEqual(os.read(reading, 100), b"buffered|")
        finally:
            os.dup2(kept, 1)

    def test_imports_nothing(self):
        tracer = import_tracer()
        imported = []

        def ours(name, *arguments, **keywords):
            imported.append(name)
            return kDefaultImport(name, *arguments, **keywords)

        builtins.__import__ = ours
        try:
            tracer.init(*init_arguments(default_import=ours))
            tracer.init(*init_arguments(default_import=ours))
        finally:
            builtins.__import__ = kDefaultImport
        self.assertEqual(imported, [])

    def test_second_init_brings_the_defaults_back(self):
        tracer = make_tracer()
        tracer.set_save_and_restore_errno(0)
        tracer.set_use_eval_frame(0)
        tracer.init(*init_arguments())
        self.assertEqual(tracer.get_save_and_restore_errno(), 1)
        self.assertEqual(tracer.get_use_eval_frame(), 1)


class Settings(TestCase):
    def test_exception_mode_is_kept_without_a_check(self):
        tracer = make_tracer(mode=1)
        self.assertEqual(tracer.get_exception_mode(), 1)
        for mode in (0, 5, -3, 1000):
            self.assertIsNone(tracer.set_exception_mode(mode))
            self.assertEqual(tracer.get_exception_mode(), mode)

    def test_flags_of_16_bits(self):
        tracer = make_tracer()
        for name in ("save_and_restore_errno", "use_canonical_pathnames"):
            for value, kept in ((0, 0), (1, 1), (7, 7), (65536, 0), (65537, 1), (-1, 65535)):
                self.assertIsNone(getattr(tracer, "set_" + name)(value))
                self.assertEqual(getattr(tracer, "get_" + name)(), kept)
        tracer.set_use_canonical_pathnames(0)

    def test_save_and_restore_errno_65537_is_1(self):
        tracer = make_tracer()
        tracer.set_save_and_restore_errno(65537)
        self.assertEqual(tracer.get_save_and_restore_errno(), 1)

    def test_use_eval_frame(self):
        tracer = make_tracer()
        self.assertEqual(tracer.get_use_eval_frame(), 1)
        self.assertIsNone(tracer.set_use_eval_frame(0))
        self.assertEqual(tracer.get_use_eval_frame(), 0)

    def test_use_idle_thread_needs_3_7(self):
        tracer = make_tracer()
        self.assertEqual(tracer.get_use_idle_thread(), 0)
        for flag, kept in ((1, 1), (5, 5), (65537, 1), (65536, 0), (-1, 65535), (0, 0)):
            self.assertIsNone(tracer.set_use_idle_thread(flag))
            self.assertEqual(tracer.get_use_idle_thread(),
                             kept if sys.version_info >= (3, 7) else 0)

    def test_dprintf_mask(self):
        tracer = import_tracer()
        self.assertEqual(tracer.get_dprintf_mask(), 84)
        self.assertIsNone(tracer.set_dprintf_mask(255))
        self.assertEqual(tracer.get_dprintf_mask(), 255)

    def test_idle_period_is_written_as_bits(self):
        tracer = make_tracer(period=3.7)

        class State(ctypes.Structure):
            _fields_ = [("tracing", ctypes.c_int), ("idle_period", ctypes.c_uint64)]

        state = State.in_dll(load_native(), "gSelf")
        self.assertEqual(state.idle_period, 3)
        self.assertIsNone(tracer.set_idle_period(2.5))
        self.assertEqual(state.idle_period, struct.unpack("=I", struct.pack("=f", 2.5))[0])
        state.idle_period = 0x500000000
        tracer.set_idle_period(1.0)
        self.assertEqual(state.idle_period, 0x53F800000)
        self.assertRaises(TypeError, tracer.set_idle_period, "x")
        self.assertEqual(state.idle_period, 0x53F800000)

    def test_exception_types(self):
        tracer = make_tracer()
        for name in ("always_stop_excepts", "never_stop_excepts"):
            setter, getter = getattr(tracer, "set_" + name), getattr(tracer, "get_" + name)
            self.assertEqual(getter(), ())
            chosen = (ValueError, KeyError)
            self.assertIsNone(setter(chosen))
            self.assertIs(getter(), chosen)
            self.assertRaises(TypeError, setter, [ValueError])
            self.assertIs(getter(), chosen)
            self.assertIsNone(setter(()))
            self.assertEqual(getter(), ())

    def test_exception_types_hold_one_reference(self):
        tracer = make_tracer()
        chosen = tuple([ValueError])
        before = sys.getrefcount(chosen)
        tracer.set_never_stop_excepts(chosen)
        tracer.set_never_stop_excepts(chosen)
        self.assertEqual(sys.getrefcount(chosen), before + 1)
        tracer.set_never_stop_excepts(())
        self.assertEqual(sys.getrefcount(chosen), before)

    def test_catch_info_list_must_be_a_list(self):
        tracer = make_tracer()
        self.assertIsNone(tracer.set_exc_catch_info_list([]))
        self.assertRaises(TypeError, tracer.set_exc_catch_info_list, ())

    def test_debug_thread_cb_is_kept(self):
        tracer = make_tracer()

        class Policy(object):
            def __call__(self, tstate_id):
                return 1

        first = Policy()
        there = weakref.ref(first)
        self.assertIsNone(tracer.set_debug_thread_cb(first))
        del first
        self.assertIsNotNone(there())
        tracer.set_debug_thread_cb(Policy())
        self.assertIsNone(there())

    def test_exiting_on_exception_at_rest(self):
        tracer = make_tracer()
        self.assertEqual(tracer.exiting_on_exception(), 0)
        tracer.set_autoquit(0)
        self.assertEqual(tracer.exiting_on_exception(), 0)


class IgnoredLocations(TestCase):
    def setUp(self):
        self.tracer = make_tracer()
        self.path = self.make_file("a.py", "x = 1\n")

    def test_ignoring_twice_keeps_one_filter(self):
        for _ in range(2):
            self.assertIsNone(self.tracer.ignore_exception_loc(self.path, 10, 1))
        self.assertEqual(self.tracer.exception_loc_ignored(self.path, 10), 1)
        self.assertIsNone(self.tracer.ignore_exception_loc(self.path, 10, 0))
        self.assertEqual(self.tracer.exception_loc_ignored(self.path, 10), 0)

    def test_position_matches_the_line_of_the_same_sum(self):
        self.tracer.ignore_exception_loc(self.path, (3, 4), 1)
        self.assertEqual(self.tracer.exception_loc_ignored(self.path, 7), 1)
        self.assertEqual(self.tracer.exception_loc_ignored(self.path, (6, 1, "more")), 1)
        self.assertEqual(self.tracer.exception_loc_ignored(self.path, 8), 0)

    def test_found_by_file_but_removed_by_spelling(self):
        folder, name = os.path.split(self.path)
        other = os.path.join(folder, os.pardir, os.path.basename(folder), name)
        self.tracer.ignore_exception_loc(other, 10, 1)
        self.assertEqual(self.tracer.exception_loc_ignored(self.path, 10), 1)
        self.tracer.ignore_exception_loc(self.path, 10, 0)
        self.assertEqual(self.tracer.exception_loc_ignored(self.path, 10), 1)
        self.tracer.ignore_exception_loc(other, 10, 0)
        self.assertEqual(self.tracer.exception_loc_ignored(self.path, 10), 0)

    def test_same_line_of_several_files(self):
        others = [self.make_file(name, "") for name in ("b.py", "c.py")]
        for path in [self.path] + others:
            self.tracer.ignore_exception_loc(path, 4, 1)
        self.tracer.ignore_exception_loc(others[0], 4, 0)
        kept = [self.tracer.exception_loc_ignored(path, 4) for path in [self.path] + others]
        self.assertEqual(kept, [1, 0, 1])

    def test_removing_what_does_not_exist(self):
        self.assertIsNone(self.tracer.ignore_exception_loc(self.path, 10, 0))

    def test_clearing(self):
        for line in range(50):
            self.tracer.ignore_exception_loc(self.path, line, 1)
        self.assertIsNone(self.tracer.clear_exception_ignores())
        self.assertEqual(self.tracer.exception_loc_ignored(self.path, 10), 0)

    def test_location_that_is_no_number_is_reported(self):
        for wrong in ("x", None, (1,), ("a", "b"), 2 ** 70):
            with self.assertRaises((TypeError, IndexError, OverflowError)):
                self.tracer.ignore_exception_loc(self.path, wrong, 1)
            with self.assertRaises((TypeError, IndexError, OverflowError)):
                self.tracer.exception_loc_ignored(self.path, wrong)

    def test_location_object_is_kept_as_long_as_its_filter(self):
        location = (1200, object())[:1] + (34,)  # no constant
        before = sys.getrefcount(location)
        self.tracer.ignore_exception_loc(self.path, location, 1)
        self.assertEqual(sys.getrefcount(location), before + 1)
        self.tracer.clear_exception_ignores()
        self.assertEqual(sys.getrefcount(location), before)

    @needs("total_refcount")
    def test_no_references_leak(self):
        def ignore_and_clear():
            self.tracer.ignore_exception_loc(self.path, (3000, 4), 1)
            self.tracer.exception_loc_ignored(self.path, 3004)
            self.tracer.ignore_exception_loc(self.path, 3004, 0)
            self.tracer.ignore_exception_loc(self.path, 9999, 1)
            self.tracer.clear_exception_ignores()
        self.assertEqual(growth_of_references(ignore_and_clear), 0)


class Breakpoints(TestCase):
    def test_condition_is_a_string_or_None(self):
        tracer = make_tracer()
        self.assertRaises(TypeError, tracer.set_break, "a.py", "", 1, 1, 0, 5, 0)
        self.assertRaises(TypeError, tracer.set_breaks_cond, "a.py", 1, 5)
        self.assertEqual(tracer.set_break("a.py", "", 1, 1, 0, None, 0), 1)
        self.assertIsNone(tracer.set_breaks_cond("a.py", 1, "x > 1"))
        self.assertIsNone(tracer.set_breaks_cond("a.py", 1, u"x > 1"))

    def test_results_of_the_changes(self):
        tracer = make_tracer()
        first = tracer.set_break("a.py", "", 1, 1, 0, "x", 0)
        self.assertEqual(tracer.set_break("a.py", "", 1, 1, 0, None, 0), first + 1)
        self.assertIsNone(tracer.enable_breaks("a.py", 1, 0))
        self.assertIsNone(tracer.ignore_breaks("a.py", 1, 3))
        self.assertIsNone(tracer.enable_checksums(0))
        self.assertIsNone(tracer.clear_breaks("a.py", 1))
        self.assertIsNone(tracer.clear_all_breaks())
        self.assertEqual(tracer.get_breaks("a.py", 1), [])
        self.assertEqual(tracer.get_file_breaks("a.py"), [])
        self.assertEqual(tracer.get_changed_bps_lists(), ([], []))

    def test_setting_is_logged(self):
        tracer = make_tracer()
        log = Log()
        tracer.set_dprintf_file(log, -1, 0)
        tracer.set_break("a.py", "", 12, 1, 0, None, 0)
        tracer.set_dprintf_file(None, -1, 0)
        self.assertEqual(log.lines[:2], ["SETTING BREAK\n", "  line = 12, filename = a.py\n"])


class Threads(TestCase):
    def test_thread_ident_of_the_own_thread(self):
        tracer = make_tracer()
        own = tracer.get_current_tstate_id()
        tracer.raise_exception(own, None)  # makes the thread's record
        self.assertEqual(tracer.get_thread_ident_for_tstate_id(own), get_ident())

    def test_thread_ident_of_an_unknown_thread_is_None(self):
        self.assertIsNone(make_tracer().get_thread_ident_for_tstate_id(12345))

    def test_thread_ident_before_init_is_None(self):
        self.assertIsNone(import_tracer().get_thread_ident_for_tstate_id(12345))

    def test_thread_ident_for_what_is_no_number(self):
        tracer = make_tracer()
        self.assertRaises(TypeError, tracer.get_thread_ident_for_tstate_id, "x")

    def test_tstate_ids_differ_between_threads(self):
        tracer = import_tracer()
        ids = [tracer.get_current_tstate_id()]
        thread = threading.Thread(target=lambda: ids.append(tracer.get_current_tstate_id()))
        thread.start()
        thread.join()
        self.assertEqual(tracer.get_current_tstate_id(), ids[0])
        self.assertNotEqual(ids[0], ids[1])

    def test_tracing_counter(self):
        tracer = import_tracer()
        self.assertEqual(tracer.get_tstate_tracing(), 0)
        self.assertIsNone(tracer.add_to_tstate_tracing(3))
        counter = tracer.get_tstate_tracing()
        tracer.add_to_tstate_tracing(-3)
        self.assertEqual((counter, tracer.get_tstate_tracing()), (3, 0))

    def test_use_tracing(self):
        tracer = import_tracer()
        before = tracer.get_tstate_use_tracing()
        self.assertIsNone(tracer.set_tstate_use_tracing(1))
        self.assertEqual(tracer.get_tstate_use_tracing(), 1)
        tracer.set_tstate_use_tracing(before)
        self.assertEqual(before, 1 if sys.version_info >= (3, 10) else 0)

    def test_raise_exception_keeps_and_releases(self):
        tracer = make_tracer()

        class Ours(Exception):
            pass

        first = Ours()
        there = weakref.ref(first)
        self.assertIsNone(tracer.raise_exception(0, first))
        del first
        self.assertIsNotNone(there())
        tracer.raise_exception("whatever", Ours())
        self.assertIsNone(there())
        self.assertIsNone(tracer.raise_exception(0, None))

    def test_cleared_exception_is_not_raised(self):
        tracer = make_tracer()
        tracer.raise_exception(0, ValueError("never"))
        tracer.raise_exception(0, None)
        tracer.start_trace()
        try:
            self.step_one_line()
        finally:
            tracer.stop_trace()

    def step_one_line(self):
        return None

    def test_exception_comes_at_the_next_event(self):
        tracer = make_tracer()
        def inject():
            tracer.raise_exception("whatever thread", ValueError("injected"))
            self.step_one_line()

        tracer.start_trace()
        try:
            self.assertRaisesRegex(ValueError, "injected", inject)
        finally:
            tracer.stop_trace()

    def test_raise_exception_is_logged(self):
        tracer = make_tracer()
        log = Log()
        tracer.set_dprintf_file(log, -1, 0)
        tracer.raise_exception(0, ValueError("x"))
        tracer.raise_exception(0, None)
        tracer.set_dprintf_file(None, -1, 0)
        self.assertRegex(log.lines[0], "^Setting pending exception to 0x[0-9a-f]+\n$")
        self.assertEqual(log.lines[1], "Clearing pending exception\n")


class Frames(TestCase):
    def test_frame_file(self):
        tracer = make_tracer()
        path = tracer.get_frame_file(sys._getframe())
        self.assertIsInstance(path, str)
        self.assertTrue(os.path.samefile(path, __file__.replace(".pyc", ".py")))
        self.assertTrue(os.path.isabs(path))

    def test_frame_file_wants_a_frame(self):
        self.assertRaises(TypeError, import_tracer().get_frame_file, None)

    def test_frame_file_before_init(self):
        self.assertIsInstance(import_tracer().get_frame_file(sys._getframe()), str)

    def test_locals_to_fast(self):
        tracer = import_tracer()

        def change():
            x = 1
            frame = sys._getframe()
            frame.f_locals["x"] = 2
            self.assertIsNone(tracer.PyFrame_LocalsToFast(frame, 0))
            return x

        self.assertEqual(change(), 2)
        self.assertRaises(TypeError, tracer.PyFrame_LocalsToFast, None, 0)

    def test_breakpointhook_stops_at_the_line(self):
        frames = []
        tracer = make_tracer(line_cb=frames.append)
        tracer.start_trace()
        try:
            self.assertIsNone(tracer.breakpointhook())
            here = sys._getframe()
        finally:
            tracer.stop_trace()
        self.assertIs(frames[0], here)

    def test_breakpointhook_keeps_our_errors_from_the_program(self):
        def fail(frame):
            raise ValueError("ours")
        tracer = make_tracer(line_cb=fail)
        tracer.start_trace()
        try:
            self.assertIsNone(tracer.breakpointhook())
        finally:
            tracer.stop_trace()

    def test_breakpointhook_before_init(self):
        self.assertIsNone(import_tracer().breakpointhook())


class Process(TestCase):
    def test_getpid(self):
        self.assertEqual(import_tracer().getpid(), os.getpid())

    def test_getpid_in_a_forked_child(self):
        tracer = import_tracer()
        reading, writing = os.pipe()
        child = os.fork()
        if child == 0:
            os.write(writing, str(tracer.getpid()).encode("ascii"))
            os._exit(0)
        os.waitpid(child, 0)
        self.assertEqual(os.read(reading, 100), str(child).encode("ascii"))

    def test_atexit_func_and_fork_ok(self):
        tracer = make_tracer()
        self.assertIsNone(tracer.fork_ok())
        self.assertIsNone(tracer.atexit_func())


class CanonicalPathnames(TestCase):
    def test_first_name_wins(self):
        tracer = make_tracer()
        path = self.make_file("a.py", "x = 1\n")
        link = os.path.join(os.path.dirname(path), "b.py")
        os.link(path, link)
        self.assertIsNone(tracer.lookup_canonical_pathname(path))
        self.assertEqual(tracer.register_canonical_pathname(path), (path, 1))
        self.assertEqual(tracer.register_canonical_pathname(path), (path, 0))
        self.assertEqual(tracer.register_canonical_pathname(link), (path, 1))
        self.assertEqual(tracer.lookup_canonical_pathname(link), path)

    def test_checksum_is_the_second_argument(self):
        tracer = make_tracer()
        path = self.make_file("a.py", "x = 1\n")
        tracer.register_canonical_pathname(path, "sum")
        self.assertEqual(tracer.lookup_canonical_pathname("/no/such/file.py", "sum"), path)
        self.assertIsNone(tracer.lookup_canonical_pathname("/no/such/file.py", "other"))
        self.assertIsNone(tracer.lookup_canonical_pathname("/no/such/file.py", None))

    def test_pseudo_files(self):
        tracer = make_tracer()
        self.assertEqual(tracer.lookup_canonical_pathname("<string>"), "<string>")
        self.assertEqual(tracer.register_canonical_pathname("<string>")[0], "<string>")


class CopyIntoBuffer(TestCase):
    def copy(self, buffer, offset, data):
        return import_tracer().CopyIntoBuffer(buffer, offset, data)

    def test_longer_data_is_cut(self):
        buffer = bytearray(4)
        self.assertEqual(self.copy(buffer, 2, b"abcdef"), 2)
        self.assertEqual(buffer, b"\0\0ab")

    def test_shorter_data_leaves_the_rest(self):
        buffer = bytearray(b"123456")
        self.assertEqual(self.copy(buffer, 1, b"ab"), 2)
        self.assertEqual(buffer, b"1ab456")

    def test_at_the_end_nothing_is_copied(self):
        self.assertEqual(self.copy(bytearray(4), 4, b"ab"), 0)

    def test_empty_buffer_and_data(self):
        self.assertEqual(self.copy(bytearray(), 0, b"ab"), 0)
        self.assertEqual(self.copy(bytearray(4), 0, b""), 0)

    def test_text_is_data_too(self):
        buffer = bytearray(4)
        self.assertEqual(self.copy(buffer, 0, "ab"), 2)
        self.assertEqual(buffer, b"ab\0\0")

    def test_offset_outside_of_the_buffer(self):
        for offset in (-1, 5, -2 ** 31, 2 ** 31 - 1):
            self.assertRaises(ValueError, self.copy, bytearray(4), offset, b"ab")

    def test_wrong_types(self):
        for wrong in (b"1234", u"1234", None, 5, [1]):
            self.assertRaises(TypeError, self.copy, wrong, 0, b"ab")
        for wrong in (None, 5, [1]):
            self.assertRaises(TypeError, self.copy, bytearray(4), 0, wrong)
        self.assertRaises(TypeError, self.copy, bytearray(4), "0", b"ab")

    def test_buffers_are_let_go(self):
        buffer, data = bytearray(4), bytearray(b"ab")
        for offset in (0, 9):
            try:
                self.copy(buffer, offset, data)
            except ValueError:
                pass
            buffer.append(1)  # BufferError while somebody has it
            data.append(1)
        self.assertRaises(TypeError, self.copy, buffer, 0, None)
        buffer.append(1)

    def test_buffer_and_data_may_overlap(self):
        buffer = bytearray(b"abcdef")
        self.assertEqual(self.copy(buffer, 2, memoryview(buffer)[:4]), 4)
        self.assertEqual(buffer, b"ababcd")


class Files(TestCase):
    def test_write_object(self):
        tracer = import_tracer()
        log = Log()
        self.assertIsNone(tracer.PyFile_WriteObject("a", log, 1))
        self.assertIsNone(tracer.PyFile_WriteObject("a", log, 0))
        self.assertEqual(log.lines, ["a", "'a'"])

    def test_write_object_passes_the_error_on(self):
        class Full(object):
            def write(self, text):
                raise IOError("full")
        tracer = import_tracer()
        self.assertRaisesRegex(IOError, "full", tracer.PyFile_WriteObject, "a", Full(), 1)
        self.assertRaises(AttributeError, tracer.PyFile_WriteObject, "a", object(), 1)

    @needs("python2")
    def test_set_encoding(self):
        tracer = import_tracer()
        with open(self.make_file("a", "text")) as source:
            self.assertIsNone(tracer.PyFile_SetEncoding(source, "latin-1"))
            self.assertEqual(source.encoding, "latin-1")
        self.assertRaises(TypeError, tracer.PyFile_SetEncoding, Log(), "latin-1")

    @needs("!python2")
    def test_set_encoding_is_gone(self):
        tracer = import_tracer()
        self.assertRaisesRegex(RuntimeError, "^PyFile_SetEncoding not available$",
                               tracer.PyFile_SetEncoding, sys.stdout, "latin-1")

    @needs("python2")
    def test_buffer_count(self):
        tracer = import_tracer()
        with open(self.make_file("a", "0123456789")) as source:
            self.assertEqual(tracer.GetFileBufferCount(source), 0)
            self.assertEqual(source.read(1), "0")
            self.assertEqual(tracer.GetFileBufferCount(source), 9)
            self.assertEqual(source.read(4), "1234")
            self.assertEqual(tracer.GetFileBufferCount(source), 5)
        self.assertEqual(tracer.GetFileBufferCount(source), -1)  # closed

    def test_buffer_count_of_other_objects(self):
        tracer = import_tracer()
        for other in (None, 5, Log()) if has("python2") else (None, sys.stdout):
            self.assertEqual(tracer.GetFileBufferCount(other), -1)

    def test_buffer_count_is_logged(self):
        tracer = import_tracer()
        log = Log()
        tracer.set_dprintf_file(log, -1, 0)
        tracer.GetFileBufferCount(None)
        tracer.set_dprintf_file(None, -1, 0)
        self.assertEqual(log.lines, ["Entering WrapGetFileBufferCount\n"])


class Leaks(TestCase):
    @needs("total_refcount")
    def test_no_function_leaks(self):
        tracer = make_tracer()
        frame = sys._getframe()
        buffer = bytearray(4)

        def call_all():
            tracer.get_current_tstate_id()
            tracer.get_frame_file(frame)
            tracer.CopyIntoBuffer(buffer, 2, b"abcdef")
            tracer.raise_exception(0, ValueError())
            tracer.raise_exception(0, None)
            tracer.set_always_stop_excepts((ValueError,))
            tracer.set_always_stop_excepts(())
            tracer.get_breaks("a.py", 1)
            tracer.get_changed_bps_lists()
            tracer.set_break("a.py", "", 1, 1, 0, "x", 0)
            tracer.clear_all_breaks()
            tracer.lookup_canonical_pathname("<string>")
            for name in ("init", "set_break", "get_curr_frame"):
                try:
                    getattr(tracer, name)()
                except (TypeError, IndexError):
                    pass

        self.assertEqual(growth_of_references(call_all), 0)
