"""The exported functions and the state, as native callers find them: by name and by field."""
from __future__ import absolute_import, division, print_function

import ctypes
import os
import sys
import unittest

from support import TestCase, import_tracer, load_native
from support.tracing import Session, import_debuggee

steps = import_debuggee("steps")


def record(name, text):
    """A structure from "field field:kind ..."; without a kind it is an int, "*" is any pointer."""
    kinds = {"": ctypes.c_int, "*": ctypes.c_void_p, "long": ctypes.c_long,
             "uint64": ctypes.c_uint64, "boolean": ctypes.c_uint16, "text": ctypes.c_char * 32001,
             "table": tHashTable, "bps": tBpOpsData, "paths": tCOPathnameTable, "exc": tExcData,
             "idle": tIdle}
    fields = [field.partition(":") for field in text.split()]
    return type(name, (ctypes.Structure,), {
        "_fields_": [(field, kinds[kind]) for field, _, kind in fields]})


tHashTable = tBpOpsData = tCOPathnameTable = tExcData = tIdle = None
tHashTable = record("tHashTable", "buckets:* slot0:* slot1:* slot2:* slot3:* numBuckets numEntries "
                    "rebuildSize downShift mask keyType findProc:* createProc:*")
tBpOpsData = record(
    "tBpOpsData", "userbps:table changed_bps:* next_bp_id loaded_modules:table co_pathname_table:* "
    "unique_import_count resolve_bp_tmpfile:text get_checksum_cb:* checksums_enabled filestring:* "
    "any_bps_cache:*")
tCOPathnameTable = record(
    "tCOPathnameTable", "filename_for_co:* collect_count file_ops_data:* codefile:text "
    "filestring:* bp_version:*")
tExcData = record("tExcData", "exc_info_for_frame:* to_be_ignored catch_info_dict:* co_name:* "
                  "mod_name:* prints:* parent:* dunder_name:* containing_class:*")
tIdle = record(
    "tIdle", "use_idle_thread:boolean initialized_for_pid initialization_failed:boolean "
    "py_finalize_called:boolean low_level_py_at_exit_called:boolean active_single_data_ptr:* "
    "mutex:* pending_call_scheduled:boolean ticks_when_pending_added:uint64")
tState = record(
    "tState", "tracing idle_period:uint64 idling exception_mode autoquit debug_all_threads "
    "debug_thread_cb:* thread_data:table mutex:* mutex_thread_id:long install_thread_hooks_cb:* "
    "get_checksum_cb:* idle_cb:* line_cb:* return_cb:* exception_cb:* quit_cb:* "
    "internal_modules_map:* trace_module:* trace_function:* sys_settrace:* idle_instruction_count "
    "idle_instruction_threshold idle_time_threshold:uint64 exception_filters:table "
    "catch_all_code_objects:* file_ops_data:* bp_ops_data:bps newly_imported_module_files:* "
    "import_hook:* default_import:* import_cb:* import_cb_active:boolean import_level "
    "co_pathname_table:paths always_stop_excepts:* never_stop_excepts:* sub_language_hooks "
    "sub_language_pending_hooks:* sub_language_markers:* sub_language_module_paths:* "
    "sub_language_code_objects:* sub_language_cache:table stat_instructions stat_imports pid "
    "exc_data:exc pending_exc_count thread_f_trace_update_count use_eval_frame no_thread_state:* "
    "with_thread_state:* py_interpreter_frame:* global_idle_thread_data:idle "
    "save_and_restore_errno:boolean")


class NativeCase(TestCase):
    def assert_stops_work(self, session):
        self.assertEqual(session.run(steps.calls, "step_over"), 10)
        self.assertEqual(session.stops, [("line", "calls", "calls-add"),
                                         ("line", "calls", "calls-again")])


class BeforeInitTest(NativeCase):
    def test_exported_functions_do_no_harm_before_init(self):
        tracer, frame = import_tracer(), sys._getframe()
        word, nothing, kept = ctypes.c_int, None, ctypes.py_object
        functions = [
            ("__tracer_stop_trace", nothing, [], ()), ("__tracer_reset", nothing, [], ()),
            ("__tracer_destroy", nothing, [], ()), ("__tracer_start_trace", word, [], ()),
            ("tracer_break_at_current_line", word, [word], (1,)),
            ("__call_import_cb", nothing, [kept], (os,)),
            ("do_exception_callback_if_not_filtered", word, [kept, kept],
             (frame, (ValueError, ValueError(), None))),
            ("schedule_f_trace_update", word, [], ()),
            ("pending_call_callback", word, [word], (0,)),
            ("check_and_call_dbgserver_idle_callback", nothing, [], ()),
            ("__tracer_fork_ok", nothing, [], ()), ("__tracer_reset", nothing, [], ()),
            ("idle_thread_atexit_func", nothing, [], ()),
            ("low_level_py_at_exit_func", nothing, [], ())]
        native = load_native(dict((name, (result, types)) for name, result, types, _ in functions))
        for name, _, _, arguments in functions:
            getattr(native, name)(*arguments)
            steps.add(1, 2)
        self.assertEqual(tracer.get_tracing(), 0)
        self.assert_stops_work(Session())


class LayoutTest(NativeCase):
    """The state in its prescribed fields, one after the other, whatever is kept beside them."""

    def setUp(self):
        self.session = Session()
        self.native = load_native()
        self.state = tState.in_dll(self.native, "gSelf")

    def test_each_part_is_where_its_fields_end(self):
        state, tracer = self.state, self.session.tracer
        address = ctypes.addressof(state)
        self.assertEqual(state.bp_ops_data.co_pathname_table,
                         address + tState.co_pathname_table.offset)
        self.assertEqual(state.co_pathname_table.file_ops_data, state.file_ops_data)
        self.assertEqual(state.bp_ops_data.next_bp_id, 1)
        tracer.set_break("a.py", "", 1, 1, 0, None, 0)
        self.assertEqual((state.bp_ops_data.next_bp_id, state.bp_ops_data.userbps.numEntries),
                         (2, 1))
        self.assertEqual(state.import_cb, id(self.session.import_cb))
        self.assertEqual(state.trace_function, id(tracer.trace_dispatch))
        self.assertEqual(state.pid, os.getpid())
        self.assertEqual(state.sub_language_cache.numBuckets, 4)
        self.assertEqual(state.global_idle_thread_data.initialized_for_pid, os.getpid())
        for name, value in (("use_eval_frame", 7), ("save_and_restore_errno", 3)):
            getattr(tracer, "set_" + name)(value)
            self.assertEqual(getattr(state, name), value)

    def test_exceptions_that_are_to_be_raised_are_counted(self):
        tracer = self.session.tracer
        before = self.state.pending_exc_count
        counts = []
        for exception in (ValueError, KeyError(), None, None, ValueError, None):
            tracer.raise_exception(0, exception)
            counts.append(self.state.pending_exc_count - before)
        self.assertEqual(counts, [1, 1, 0, 0, 1, 0])

    def test_a_callers_own_records_need_no_more_room(self):
        def guarded(kind):
            class tGuarded(ctypes.Structure):
                _fields_ = [("record", kind), ("guard", ctypes.c_ubyte * 4096)]
            made = tGuarded()
            ctypes.memset(made.guard, 0xa5, 4096)
            return made

        paths, bps, exc = guarded(tCOPathnameTable), guarded(tBpOpsData), guarded(tExcData)
        def call(name, *arguments):
            return getattr(self.native, name)(*arguments)

        none, frame = ctypes.py_object(None), ctypes.py_object(sys._getframe())
        call("InitCOPathnameTable", ctypes.byref(paths.record),
             ctypes.c_void_p(self.state.file_ops_data))
        call("__tracer_init_bp_ops_data", ctypes.byref(bps.record), ctypes.byref(paths.record),
             none, 1)
        call("init_exc_data", ctypes.byref(exc.record))
        for line in (3, 4):
            self.assertEqual(call("__tracer_set_break", ctypes.byref(bps.record), b"a.py", b"",
                                  line, 1, 0, none, 0), line - 2)
        self.assertEqual(self.session.tracer.get_file_breaks("a.py"), [])
        call("__tracer_resolve_bp_filenames", ctypes.byref(bps.record), b"/no/such/b.py")
        call("__resolve_full_path_for_frame", ctypes.byref(paths.record), frame, 0)
        call("find_frame_exc_info", ctypes.byref(exc.record), frame)
        call("__tracer_clear_bp_ops_data", ctypes.byref(bps.record), ctypes.byref(paths.record),
             none)
        self.assertEqual(bps.record.next_bp_id, 1)
        for made in (paths, bps, exc):
            self.assertEqual(set(made.guard), set([0xa5]))
        self.assert_stops_work(self.session)


class ContextTest(NativeCase):
    """A dispatch described by a caller of the exported functions, in its seven fields."""

    class tContext(ctypes.Structure):
        _fields_ = [("frame", ctypes.py_object), ("what", ctypes.c_int), ("arg", ctypes.c_void_p),
                    ("thread_data", ctypes.c_void_p), ("mutex_acquired", ctypes.c_int),
                    ("stop_trace", ctypes.c_int), ("propagate_exception", ctypes.c_int),
                    ("not_of_the_context", ctypes.c_int * 8)]

    def test_nothing_beyond_its_fields_matters(self):
        tracer, frame = Session().tracer, sys._getframe()
        native = load_native({
            "get_current_thread_data": (ctypes.c_void_p, [ctypes.c_void_p]),
            "__tracer_stop_here_without_mutex": (ctypes.c_int, [ctypes.c_void_p, ctypes.c_int])})
        state = tState.in_dll(native, "gSelf")
        context = self.tContext(frame, 2)
        context.thread_data = native.get_current_thread_data(
            ctypes.addressof(state) + tState.thread_data.offset)
        for index in range(8):
            context.not_of_the_context[index] = -1
        stop_here = getattr(native, "__tracer_stop_here_without_mutex")
        tracer.stop()
        state.tracing = 1
        try:
            for line in range(30):  # the frame's is one of these
                tracer.set_break(frame.f_code.co_filename, "",
                                 frame.f_code.co_firstlineno + line, 1, 0, None, 0)
            stops = stop_here(ctypes.addressof(context), 1)
        finally:
            state.tracing = 0
        hits = [row[6] for row in tracer.get_file_breaks(frame.f_code.co_filename)]
        self.assertEqual((stops, sum(hits)), (1, 1))


if __name__ == "__main__":
    unittest.main()
