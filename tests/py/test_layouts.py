"""What start-up finds out about the running interpreter's structures is true."""
from __future__ import absolute_import, division, print_function

import ctypes
import json
import os
import struct
import sys
import threading
import unittest

from support import DATA, TestCase, needs
from support.record import load_record

kWord = struct.calcsize("P")


def variant():
    """Build of the running interpreter, as layouts.json calls it."""
    import sysconfig
    if sysconfig.get_config_var("Py_GIL_DISABLED"):
        return "free_threaded"
    if hasattr(sys, "getobjects"):
        return "trace_refs"
    return "pydebug" if hasattr(sys, "gettotalrefcount") else "release"


def measured_rows():
    """The offsets measured with the running interpreter's headers; skips when there are none."""
    with open(os.path.join(DATA, "layouts.json")) as source:
        data = json.load(source)
    key = ("%d.%d" % sys.version_info[:2], 8 * kWord, variant())
    rows = [row["offsets"] for row in data["rows"]
            if (row["version"], row["bits"], row["variant"]) == key]
    if not rows:
        raise unittest.SkipTest("nothing was measured for %s, %d bits, %s" % key)
    return rows


# Structure of the headers, record of the library, prefix of the headers' field names.
kStructures = [
    ("PyFrameObject", "frame", "f_"),
    ("PyThreadState", "tstate", ""),
    ("PyTypeObject", "typeobject", ""),
    ("CFrame", "cframe", ""),
    ("PyInterpreterState", "interpreter_state", ""),
    ("PyObject", "pyobject", "ob_"),
]


def expected_offset(offsets, structure, record, name, field):
    if record == "typeobject" and sys.version_info < (3, 8):
        return -1
    if (record, name) == ("tstate", "cframe"):
        if sys.version_info >= (3, 13):
            field = "current_frame"
        elif sys.version_info < (3, 11):
            return -1
    if record == "cframe" and sys.version_info[:2] == (3, 10):
        return kWord  # of 3.11's record, which 3.10 shares; nothing reads it there
    found = (offsets.get(structure) or {}).get(field)
    return -1 if found is None else found


class Layouts(TestCase):
    def test_offsets_agree_with_the_interpreters_headers(self):
        rows = measured_rows()
        _, record = load_record()
        found, expected = {}, {}
        for structure, part, prefix in kStructures:
            for name, _ in getattr(record, part)._fields_:
                found[part, name] = getattr(getattr(record, part), name)
                expected[part, name] = {
                    expected_offset(row, structure, part, name, prefix + name) for row in rows}
        wrong = {key: (found[key], expected[key]) for key in found if {found[key]} != expected[key]}
        self.assertEqual(wrong, {})

    def test_alignment_of_instance_data(self):
        _, record = load_record()
        expected = {4: 12, 8: 16}[kWord] if sys.version_info >= (3, 8) else -1
        self.assertEqual(record.max_align, expected)

    def test_module_definition_agrees_with_the_headers(self):
        rows = measured_rows()
        if sys.version_info < (3,):
            self.skipTest("Python 2 has no module definitions")
        native, _ = load_record(
            {"FindFieldOffset": (ctypes.c_ssize_t, [ctypes.c_char_p, ctypes.c_void_p])})
        table = ctypes.addressof(ctypes.c_char.in_dll(native, "py3_mod_def_fields"))
        for row in rows:
            for name, offset in row["PyModuleDef"].items():
                self.assertEqual(native.FindFieldOffset(name.encode(), table), offset, name)

    def test_type_of_an_object_is_where_it_should_be(self):
        _, record = load_record()
        for obj in ([], 7, "text", type, None, sys._getframe()):
            field = ctypes.c_void_p.from_address(id(obj) + record.pyobject.type)
            self.assertEqual(field.value, id(type(obj)))

    @needs("!free_threaded")
    def test_reference_count_is_where_it_should_be(self):
        _, record = load_record()
        obj = object()
        field = ctypes.c_int32.from_address(id(obj) + record.pyobject.refcnt)
        before = field.value
        holders = [obj] * 5
        self.assertEqual(field.value - before, len(holders))

    def test_frame_fields_hold_what_the_attributes_say(self):
        _, record = load_record()
        if record.frame.code == -1:
            self.skipTest("frames are not read directly on this version")
        frame = sys._getframe()
        for name in ("back", "code", "builtins", "globals"):
            offset = getattr(record.frame, name)
            value = ctypes.c_void_p.from_address(id(frame) + offset).value
            self.assertEqual(value, id(getattr(frame, "f_" + name)), name)

    def test_trace_field_of_frames(self):
        _, record = load_record()
        if record.frame.trace == -1:
            self.skipTest("frames are not read directly on this version")
        frame, marker = sys._getframe(), []
        field = ctypes.c_void_p.from_address(id(frame) + record.frame.trace)
        self.assertIsNone(field.value)
        frame.f_trace = marker
        self.assertEqual(field.value, id(marker))
        del frame.f_trace
        self.assertIsNone(field.value)

    @needs("!free_threaded")
    def test_type_fields_hold_what_the_attributes_say(self):
        _, record = load_record()
        if record.typeobject.tp_basicsize == -1:
            self.skipTest("types are not read directly on this version")

        class Derived(dict):
            pass

        read = lambda offset: ctypes.c_ssize_t.from_address(id(Derived) + offset).value
        self.assertEqual(read(record.typeobject.tp_basicsize), Derived.__basicsize__)
        self.assertEqual(read(record.typeobject.tp_base), id(dict))
        flags = ctypes.c_ulong.from_address(id(Derived) + record.typeobject.tp_flags).value
        self.assertEqual(flags, Derived.__flags__)

    def test_thread_state_is_read_at_the_right_places(self):
        _, record = load_record()
        get_state = ctypes.pythonapi.PyThreadState_Get
        get_state.restype = ctypes.c_void_p
        state = get_state()
        ident = ctypes.c_ulong.from_address(state + record.tstate.thread_id).value
        mask = (1 << 8 * kWord) - 1  # Python 2 gives a signed number
        self.assertEqual(ident, threading.current_thread().ident & mask)
        trace_obj = ctypes.c_void_p.from_address(state + record.tstate.c_traceobj)
        tracing = ctypes.c_int.from_address(state + record.tstate.tracing)
        self.assertIsNone(trace_obj.value)
        self.assertEqual(tracing.value, 0)
        seen = []

        def tracer(frame, event, arg):
            seen.append((trace_obj.value, tracing.value))

        sys.settrace(tracer)
        (lambda: None)()
        sys.settrace(None)
        self.assertEqual(seen[0], (id(tracer), 1))


if __name__ == "__main__":
    unittest.main()
