"""The table of the files that code objects belong to, through the library's exported functions."""
from __future__ import absolute_import, division, print_function

import ctypes
import sys

from support.case import TestCase
from support.library import load_native

kLongestName = 32000
kObject = ctypes.py_object
kPointer = ctypes.c_void_p
kText = ctypes.c_char_p


class tCOPathnameTable(ctypes.Structure):
    """The table's prescribed fields, and room for the private ones."""

    _fields_ = [
        ("filename_for_co", kPointer),
        ("collect_count", ctypes.c_int),
        ("file_ops_data", kPointer),
        ("codefile", ctypes.c_char * (kLongestName + 1)),
        ("filestring", kPointer),
        ("bp_version", kPointer),
        ("private", ctypes.c_char * 65536),
    ]


kFunctions = {
    "create_dp_data": (kPointer, []),
    "set_dp_data_mask": (None, [kPointer, ctypes.c_int]),
    "set_dp_data_file_obj": (None, [kPointer, kObject, ctypes.c_int, kPointer]),
    "set_dprintf_mask": (None, [ctypes.c_int]),
    "set_dprintf_file": (None, [kObject, ctypes.c_int, kPointer]),
    "create_file_ops_data": (kPointer, [kPointer]),
    "InitCOPathnameTable": (None, [kPointer, kPointer]),
    "LookupCOPathname": (kText, [kPointer, kObject]),
    "RegisterCOPathname": (ctypes.c_int, [kPointer, kObject, kText, kObject, ctypes.c_int]),
    "RegisterMatchingCodeValues": (ctypes.c_int, [kPointer, kText, kObject, ctypes.c_int]),
    "GetAnyBpsInCodeObject": (kPointer, [kPointer, kObject]),
    "SetAnyBpsInCodeObject": (ctypes.c_int, [kPointer, kObject, kObject]),
    "ClearAnyBpsInAllCodeObjects": (ctypes.c_int, [kPointer]),
    "CreateNewEntry": (kObject, []),
    "GetContainingClass": (kPointer, [kObject, kObject]),
    "GetPyClassName": (kPointer, [kObject]),
    "__is_special_filename": (ctypes.c_int, [kText]),
    "always_use_co_filename": (ctypes.c_int, [kObject]),
    "__tracer_get_relative_path": (kText, [kPointer, kObject, kObject]),
    "__resolve_module_full_path":
        (kText, [kPointer, kObject, kObject, kObject, ctypes.c_int]),
    "__resolve_full_path_for_frame": (kText, [kPointer, kObject, ctypes.c_int]),
    "__tracer_get_full_path": (kText, [kPointer, kObject]),
}

kShell = "x-brioide-python-shell://"


def to_text(data):
    return data if data is None or isinstance(data, str) else data.decode("utf-8")


def to_bytes(text):
    return text if isinstance(text, bytes) else text.encode("utf-8")


def compile_code(filename, source="pass"):
    return compile(source, filename, "exec")


def frame_of(filename, module_globals=None):
    """A frame of code with that file name and those globals."""
    names = module_globals if module_globals is not None else {}
    keep = []
    names["_keep_frame"] = lambda: keep.append(sys._getframe(1))
    try:
        exec(compile_code(filename, "_keep_frame()"), names)
    finally:
        del names["_keep_frame"]
    return keep[0]


class NamesCase(TestCase):
    def setUp(self):
        self.native = load_native(kFunctions)
        self.table = tCOPathnameTable()
        self.address = ctypes.addressof(self.table)
        self.call("InitCOPathnameTable", self.address, self.call("create_file_ops_data", None))

    def call(self, name, *arguments):
        return getattr(self.native, name)(*arguments)

    def new_object(self, address):
        """The object of a new reference that came as an address; None for a null."""
        if not address:
            return None
        obj = ctypes.cast(address, kObject).value
        ctypes.pythonapi.Py_DecRef(kObject(obj))
        return obj

    def relative(self, co_filename, **module_globals):
        return to_text(
            self.call("__tracer_get_relative_path", self.address, module_globals, co_filename))

    def full(self, frame):
        return to_text(self.call("__tracer_get_full_path", self.address, frame))

    def resolve(self, module_globals, co_filename, code=None, register_all=0):
        code = kObject(code) if code is not None else kObject()
        return to_text(self.call(
            "__resolve_module_full_path", self.address, module_globals, co_filename, code,
            register_all))

    def lookup(self, code):
        return to_text(self.call("LookupCOPathname", self.address, code))

    def register(self, code, pathname, force=0):
        return self.call(
            "RegisterCOPathname", self.address, code, to_bytes(pathname), kObject(), force)

    def sweep(self, module_globals, pathname="/p/m.py", force=0):
        return self.call(
            "RegisterMatchingCodeValues", self.address, to_bytes(pathname), module_globals, force)

    def any_bps(self, code):
        """The cached answer; None when there is none."""
        return self.new_object(self.call("GetAnyBpsInCodeObject", self.address, code))

    def use_canonical_pathnames(self):
        switch = ctypes.c_uint16.in_dll(self.native, "gUseCanonicalPathnames")
        switch.value = 1
        self.addCleanup(setattr, switch, "value", 0)
