"""The binding layer against the running interpreter, through the library's exported functions."""
from __future__ import absolute_import, division, print_function

import ctypes
import os
import sys
import unittest

from support import TestCase, has, library_path, needs, run_code
from support.record import load_record

kObject = ctypes.py_object
kPointer = ctypes.c_void_p
kInt = ctypes.c_int
kSize = ctypes.c_ssize_t
kText = ctypes.c_char_p

# Loads the library without importing it, as `native`; ends with the import.
kLoadFirst = """\
from __future__ import print_function
import ctypes, gc, os, sys
for name in ("tdbgtracer_d.so", "tdbgtracer.so"):
    path = os.path.join(os.environ["TDBG_LIB_DIR"], name)
    if os.path.exists(path):
        break
native = ctypes.PyDLL(path)
sys.path.insert(0, os.path.dirname(path))
"""


def has_trace_refs_layout():
    """Objects of builds that trace references hold two links, up to 3.12."""
    return hasattr(sys, "getobjects") and sys.version_info < (3, 13)


class StartUp(TestCase):
    def test_version_is_detected(self):
        native, record = load_record()
        self.assertEqual(
            (record.major_version, record.minor_version, record.micro_version),
            sys.version_info[:3])
        self.assertEqual(record.api_version, sys.api_version)
        self.assertEqual(native.XPy_GetMajorVersion(), sys.version_info[0])
        self.assertEqual(native.XPy_GetMinorVersion(), sys.version_info[1])
        self.assertEqual((record.initialized, record.failed_to_initialize), (1, 0))
        self.assertIsNone(record.dll_ptr)

    def test_second_start_is_a_success(self):
        native, _ = load_record()
        self.assertEqual(native.XPy_Initialize(), 0)

    def test_build_is_detected(self):
        _, record = load_record()
        self.assertEqual(record.pydebug_build, int(has_trace_refs_layout()))
        self.assertEqual(record.refcnt_is_32bit, int(sys.version_info >= (3, 12)))

    def test_counts_are_written_directly_only_where_that_is_right(self):
        _, record = load_record()
        direct = not has_trace_refs_layout() and record.pyobject.refcnt != -1
        direct = direct and not (3, 12) <= sys.version_info[:2] < (3, 14)
        self.assertEqual(record.can_update_refcount_directly, int(direct))

    @needs("total_refcount")
    def test_total_of_all_references_stays_right(self):
        native, _ = load_record({name: (None, [kObject]) for name in (
            "XPy_DoIncRef", "XPy_DoDecRef")})
        counted = object()

        def change_of_total(function):
            before = sys.gettotalrefcount()
            for _ in range(1000):
                function(counted)
            return int(round((sys.gettotalrefcount() - before) / 1000))

        self.assertEqual(change_of_total(native.XPy_DoIncRef), 1)
        self.assertEqual(change_of_total(native.XPy_DoDecRef), -1)

    def test_nothing_is_printed(self):
        library_path()
        done = run_code("import tdbgtracer")
        self.assertEqual((done.status, done.out, done.err), (0, "", ""), done)

    def test_fail_on_import_raises_import_error(self):
        library_path()
        done = run_code(kLoadFirst + """
print(native.XPy_DbgSetFailOnImport(1), native.XPy_GetMajorVersion())
try:
    import tdbgtracer
except ImportError as error:
    print(error)
print(native.XPy_DbgSetFailOnImport(0))
import tdbgtracer
print(native.XPy_GetMajorVersion() == sys.version_info[0])
""")
        self.assertEqual(done.out.splitlines(), ["0 0", "Unable to init XPy", "1", "True"], done)

    def test_import_is_not_seen_by_an_installed_trace_function(self):
        library_path()
        done = run_code(kLoadFirst + """
seen = []
def tracer(frame, event, arg):
    seen.append((frame.f_code.co_filename, event))
    return tracer
sys.settrace(tracer)
result = native.XPy_Initialize()
installed = sys.gettrace() is tracer
sys.settrace(None)
print(result, installed, [row for row in seen if row[0] == "<string>" and row[1] == "call"])
""")
        self.assertEqual(done.out.strip(), "0 True []", done)

    @needs("total_refcount")
    def test_start_up_keeps_no_reference_that_it_does_not_need(self):
        library_path()
        done = run_code(kLoadFirst + """
initialized = ctypes.c_int.in_dll(native, "global_XPy_C_API_Data")

def growth(times):
    gc.collect()
    before = sys.gettotalrefcount()
    for _ in range(times):
        initialized.value = 0
        native.XPy_Initialize()
    gc.collect()
    return sys.gettotalrefcount() - before

growth(10)
print(min(growth(50) for _ in range(5)) < 25)  # a leak would show in every round
""")
        self.assertEqual(done.out.strip(), "True", done)

    @needs("fork")
    def test_forked_child_knows_its_own_process_id(self):
        _, record = load_record()
        self.assertEqual(record.cached_pid, os.getpid())
        child = os.fork()
        if child == 0:
            os._exit(0 if record.cached_pid == os.getpid() else 1)
        self.assertEqual(os.waitpid(child, 0)[1], 0)
        self.assertEqual(record.cached_pid, os.getpid())


class ReferenceCounts(TestCase):
    def setUp(self):
        self.native, self.record = load_record({
            "XPy_DoIncRef": (None, [kObject]),
            "XPy_DoDecRef": (None, [kObject]),
            "XPy_CallIncRef": (None, [kObject]),
            "XPy_CallDecRef": (None, [kObject]),
            "XPy_GetRefCnt": (kSize, [kObject]),
            "XPy_IsImmortal": (kInt, [kObject]),
        })

    def test_counts_go_up_and_down(self):
        obj = []
        before = sys.getrefcount(obj)
        for up, down in (("XPy_DoIncRef", "XPy_DoDecRef"), ("XPy_CallIncRef", "XPy_CallDecRef")):
            getattr(self.native, up)(obj)
            getattr(self.native, up)(obj)
            self.assertEqual(sys.getrefcount(obj), before + 2)
            getattr(self.native, down)(obj)
            getattr(self.native, down)(obj)
            self.assertEqual(sys.getrefcount(obj), before)

    def test_last_reference_ends_the_object(self):
        ended = []

        class Object(object):
            def __del__(self):
                ended.append(1)

        obj = Object()
        self.native.XPy_DoIncRef(obj)
        address = id(obj)
        del obj
        self.assertEqual(ended, [])
        drop = self.native.XPy_DoDecRef
        drop.argtypes = [kPointer]
        drop(address)
        self.assertEqual(ended, [1])

    def test_immortal_objects_stay_as_they_are(self):
        # On 32-bit builds immortal counts are large, not negative: there None is counted like
        # anything else where counts are written directly.
        marked = has("64bit") and sys.version_info >= (3, 12) and self.record.pyobject.refcnt != -1
        self.assertEqual(self.native.XPy_IsImmortal(None), int(marked))
        immortal = sys.version_info >= (3, 12)
        counted = not immortal or (not marked and self.record.can_update_refcount_directly)
        before = sys.getrefcount(None)
        self.native.XPy_DoIncRef(None)
        self.assertEqual(sys.getrefcount(None) - before, int(counted))
        self.native.XPy_DoDecRef(None)
        self.assertEqual(sys.getrefcount(None), before)

    def test_count_can_be_read(self):
        obj = []
        more = [obj] * 3
        first = self.native.XPy_GetRefCnt(obj)
        if self.record.pyobject.refcnt == -1:
            self.assertEqual(first, -1)
        else:
            del more
            self.assertEqual(self.native.XPy_GetRefCnt(obj), first - 3)

    def test_null_is_ignored(self):
        for name in ("XPy_DoIncRef", "XPy_DoDecRef"):
            function = getattr(self.native, name)
            function.argtypes = [kPointer]
            function(None)


class Utilities(TestCase):
    def test_equality(self):
        class Odd(object):
            def __eq__(self, other):
                raise ValueError("cannot be compared")

            __hash__ = None

        native, _ = load_record({"XPy_PyObjectsEqual": (kInt, [kObject, kObject])})
        self.assertEqual(native.XPy_PyObjectsEqual([1], [1]), 1)
        self.assertEqual(native.XPy_PyObjectsEqual([1], [2]), 0)
        with self.assertRaisesRegex(ValueError, "cannot be compared"):
            native.XPy_PyObjectsEqual(Odd(), 1)

    def test_type_is_borrowed(self):
        class Type(object):
            pass

        native, _ = load_record({"XPy_BorrowType": (kPointer, [kObject])})
        obj = Type()
        before = sys.getrefcount(Type)
        self.assertEqual(native.XPy_BorrowType(obj), id(Type))
        self.assertEqual(sys.getrefcount(Type), before)

    def test_functions_are_found_by_name(self):
        native, _ = load_record({"XPy_LookupPythonFunction": (kPointer, [kText])})
        address = ctypes.cast(ctypes.pythonapi.PyList_New, kPointer).value
        self.assertEqual(native.XPy_LookupPythonFunction(b"PyList_New"), address)
        self.assertIsNone(native.XPy_LookupPythonFunction(b"PyList_NoSuch"))

    def test_items_of_a_sequence_as_numbers(self):
        native, _ = load_record({"GetItemAsInt": (kInt, [kObject, kInt])})
        self.assertEqual(native.GetItemAsInt((5, 6), 1), 6)
        with self.assertRaises(IndexError):
            native.GetItemAsInt((5, 6), 2)
        with self.assertRaises(TypeError):
            native.GetItemAsInt(("a",), 0)


class Fallbacks(TestCase):
    def load(self, **functions):
        self.native, self.record = load_record(functions)
        return self.native

    def test_frame_get_back(self):
        native = self.load(Backup_PyFrame_GetBack=(kObject, [kObject]))
        frame = sys._getframe()
        if self.record.frame.back == -1:
            with self.assertRaisesRegex(
                    RuntimeError, "^PyFrame_GetBack not available and frame_offsets.back not set$"):
                native.Backup_PyFrame_GetBack(frame)
            return
        before = sys.getrefcount(frame.f_back)
        back = native.Backup_PyFrame_GetBack(frame)
        self.assertIs(back, frame.f_back)
        self.assertEqual(sys.getrefcount(frame.f_back), before + 1)

    def test_frame_parts(self):
        names = ("Code", "Globals", "Builtins")
        native = self.load(**{"Backup_PyFrame_Get" + name: (kPointer, [kObject]) for name in names})
        frame = sys._getframe()
        for name in names:
            address = getattr(native, "Backup_PyFrame_Get" + name)(frame)
            known = self.record.frame.code != -1
            self.assertEqual(address, id(getattr(frame, "f_" + name.lower())) if known else None)

    def test_frame_line_number(self):
        native = self.load(Backup_PyFrame_GetLineNumber=(kInt, [kObject]))
        frame = sys._getframe()
        self.assertEqual(native.Backup_PyFrame_GetLineNumber(frame), frame.f_lineno)
        self.assertEqual(native.Backup_PyFrame_GetLineNumber(object()), -1)

    def test_calls(self):
        native = self.load(
            Backup_PyObject_CallNoArgs=(kObject, [kObject]),
            Backup_PyObject_CallOneArg=(kObject, [kObject, kObject]))
        self.assertEqual(native.Backup_PyObject_CallNoArgs(list), [])
        value = [1]
        before = sys.getrefcount(value)
        self.assertEqual(native.Backup_PyObject_CallOneArg(len, value), 1)
        self.assertEqual(sys.getrefcount(value), before)
        with self.assertRaises(TypeError):
            native.Backup_PyObject_CallOneArg(len, 1)

    def test_dict_pop(self):
        native = self.load(Backup_PyDict_Pop=(kInt, [kObject, kObject, kPointer]))
        value = [1]
        table = {"key": value}
        found = kObject()
        before = sys.getrefcount(value)
        self.assertEqual(native.Backup_PyDict_Pop(table, "key", ctypes.byref(found)), 1)
        self.assertIs(found.value, value)
        self.assertEqual(table, {})
        self.assertEqual(sys.getrefcount(value), before)  # handed over, ctypes adds none
        self.assertEqual(native.Backup_PyDict_Pop(table, "key", None), 0)
        with self.assertRaises(TypeError):
            native.Backup_PyDict_Pop(table, [], None)

    def test_dict_get_item_ref(self):
        native = self.load(Backup_PyDict_GetItemRef=(kInt, [kObject, kObject, kPointer]))
        value = [1]
        found = kObject()
        before = sys.getrefcount(value)
        self.assertEqual(native.Backup_PyDict_GetItemRef({"a": value}, "a", ctypes.byref(found)), 1)
        self.assertIs(found.value, value)
        self.assertEqual(sys.getrefcount(value), before + 1)
        missing = kPointer(1)
        self.assertEqual(native.Backup_PyDict_GetItemRef({}, "a", ctypes.byref(missing)), 0)
        self.assertIsNone(missing.value)
        with self.assertRaises(TypeError):
            native.Backup_PyDict_GetItemRef({}, [], ctypes.byref(missing))

    def test_iterator(self):
        native = self.load(Backup_PyIter_NextItem=(kInt, [kObject, kPointer]))

        def generate():
            yield 7
            raise ValueError("end")

        item = kObject()
        iterator = generate()
        self.assertEqual(native.Backup_PyIter_NextItem(iterator, ctypes.byref(item)), 1)
        self.assertEqual(item.value, 7)
        null = kPointer(1)
        with self.assertRaisesRegex(ValueError, "end"):
            native.Backup_PyIter_NextItem(iterator, ctypes.byref(null))
        self.assertEqual(native.Backup_PyIter_NextItem(iterator, ctypes.byref(null)), 0)
        self.assertIsNone(null.value)

    def test_text_of_a_string(self):
        native = self.load(Backup_PyUnicode_AsString=(kText, [kObject]))
        text = b"plain".decode("ascii")
        self.assertEqual(native.Backup_PyUnicode_AsString(text), b"plain")
        with self.assertRaises(SystemError):
            native.Backup_PyUnicode_AsString(7)

    def test_numbers(self):
        native = self.load(Backup_PyLong_AsSsize_t=(kSize, [kObject]))
        self.assertEqual(native.Backup_PyLong_AsSsize_t(-5), -5)
        self.assertEqual(native.Backup__Py_IsFinalizing(), 0)

    def test_tracing_counter(self):
        native = self.load(
            Backup_PyThreadState_EnterTracing=(None, [kPointer]),
            Backup_PyThreadState_LeaveTracing=(None, [kPointer]))
        get_state = ctypes.pythonapi.PyThreadState_Get
        get_state.restype = kPointer
        state = get_state()
        counter = kInt.from_address(state + self.record.tstate.tracing)
        step = 1 if sys.version_info < (3, 11) else 0
        native.Backup_PyThreadState_EnterTracing(state)
        self.assertEqual(counter.value, step)
        native.Backup_PyThreadState_LeaveTracing(state)
        self.assertEqual(counter.value, 0)

    def test_tracing_counter_silences_the_trace_function_and_no_more(self):
        native = self.load(
            Backup_PyThreadState_EnterTracing=(None, [kPointer]),
            Backup_PyThreadState_LeaveTracing=(None, [kPointer]))
        if sys.version_info >= (3, 11):
            self.skipTest("the interpreter has functions of its own")
        get_state = ctypes.pythonapi.PyThreadState_Get
        get_state.restype = kPointer
        state = get_state()
        seen = []

        def first():
            pass

        def second():
            pass

        def tracer(frame, event, arg):
            seen.append(frame.f_code.co_name)

        sys.settrace(tracer)
        native.Backup_PyThreadState_EnterTracing(state)
        first()
        native.Backup_PyThreadState_LeaveTracing(state)
        second()
        sys.settrace(None)
        self.assertEqual(seen, ["second"])


class EvalFrame(TestCase):
    kGenerations = ("NoThreadState", "WithThreadState", "PyInterpreterFrame")

    def load(self):
        functions = {}
        for name in self.kGenerations:
            functions["XPy_GetEvalFrameFunction" + name] = (kPointer, [])
            functions["XPy_SetEvalFrameFunction" + name] = (kInt, [kPointer])
        native, _ = load_record(functions)
        return native

    def generation(self):
        """The one that works on the running version; None from 3.12 on and before 3.6."""
        for first, last, name in (((3, 6), (3, 8), 0), ((3, 9), (3, 10), 1), ((3, 11), (3, 11), 2)):
            if first <= sys.version_info[:2] <= last:
                return self.kGenerations[name]
        return None

    def test_only_the_right_generation_works(self):
        native = self.load()
        for name in self.kGenerations:
            current = getattr(native, "XPy_GetEvalFrameFunction" + name)()
            result = getattr(native, "XPy_SetEvalFrameFunction" + name)(current)
            if name == self.generation():
                self.assertEqual(result, 0)
            else:
                self.assertEqual((current, result), (None, -1))

    def test_first_function_is_the_interpreters_own(self):
        native = self.load()
        if self.generation() is None:
            self.skipTest("no frame-evaluation function")
        default = ctypes.cast(ctypes.pythonapi._PyEval_EvalFrameDefault, kPointer).value
        get = getattr(native, "XPy_GetEvalFrameFunction" + self.generation())
        set_ = getattr(native, "XPy_SetEvalFrameFunction" + self.generation())
        self.assertEqual(set_(default), 0)
        self.assertEqual(get(), default)


if __name__ == "__main__":
    unittest.main()
