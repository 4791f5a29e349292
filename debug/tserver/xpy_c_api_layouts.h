// xpy_c_api_layouts.h -- where the fields of the interpreter's structures are.
// Each structure has, per version that changed it, a table of its leading fields in the
// interpreter's own order. A table names C types, so one table serves both word sizes; laying it
// out gives the offsets that start-up stores in the record. Python's headers are not needed.
#pragma once

#include "xpy_c_api.h"

struct XPy_FieldWithSize {
    const char* name;  // null ends the table
    Py_ssize_t size;   // bytes; -1 = filled in at start-up
};

template <class T>
constexpr XPy_FieldWithSize field(const char* name) {
    return {name, Py_ssize_t{sizeof(T)}};
}

inline constexpr Py_ssize_t kFilledInLater = -1;
inline constexpr XPy_FieldWithSize kEndOfFields = {nullptr, -1};

// Stand for the object header at the start of a structure. Their size follows from the discovered
// header, which a Py_TRACE_REFS or free-threaded build makes longer.
inline constexpr char kObjectHeadName[] = "<PyObject_HEAD>";
inline constexpr char kVarObjectHeadName[] = "<PyObject_VAR_HEAD>";

// The tables. The object-header ones without an end marker (two, three or four rows) may only be
// searched for names that they contain.
TDBG_API const XPy_FieldWithSize pre312_pyobject_fields[];
TDBG_API const XPy_FieldWithSize py312_13_32bit_pyobject_fields[];
TDBG_API const XPy_FieldWithSize py314_32bit_pyobject_fields[];
TDBG_API const XPy_FieldWithSize py312_13_64bit_pyobject_fields[];
TDBG_API const XPy_FieldWithSize py314_64bit_pyobject_fields[];
TDBG_API const XPy_FieldWithSize free_t_pyobject_fields[];
TDBG_API const XPy_FieldWithSize typeobject_fields[];
TDBG_API const XPy_FieldWithSize py3d6_interpreter_state_fields[];
TDBG_API const XPy_FieldWithSize py3d7_core_config_fields[];
TDBG_API const XPy_FieldWithSize py3d7_main_interpreter_config_fields[];
TDBG_API XPy_FieldWithSize py3d7_interpreter_state_fields[];
TDBG_API const XPy_FieldWithSize py3d8_pyconfig_fields[];
TDBG_API XPy_FieldWithSize py3d8_interpreter_state_fields[];
TDBG_API const XPy_FieldWithSize py2_tstate_fields[];
TDBG_API const XPy_FieldWithSize py3d0_tstate_fields[];
TDBG_API const XPy_FieldWithSize py3d4_tstate_fields[];
TDBG_API const XPy_FieldWithSize py3d7_tstate_fields[];
TDBG_API const XPy_FieldWithSize py3d10_tstate_fields[];
TDBG_API const XPy_FieldWithSize py3d11_tstate_fields[];
TDBG_API const XPy_FieldWithSize py3d12_tstate_fields[];
TDBG_API const XPy_FieldWithSize py3d13_tstate_fields[];
TDBG_API const XPy_FieldWithSize py3d14_tstate_fields[];
TDBG_API const XPy_FieldWithSize py3d10_cframe_fields[];
TDBG_API const XPy_FieldWithSize py3d12_cframe_fields[];
TDBG_API const XPy_FieldWithSize py3_mod_def_fields[];
TDBG_API const XPy_FieldWithSize frame_fields_pre_py3d4[];
TDBG_API const XPy_FieldWithSize frame_fields_py3d4[];
TDBG_API const XPy_FieldWithSize frame_fields_py3d7[];
TDBG_API const XPy_FieldWithSize frame_fields_py3d10[];

// Offset of a field; -1 when the table lacks it or cannot be laid out up to it. A null name gives
// the total size. FindFieldOffset reports -1 on standard error, the other one is silent.
TDBG_API Py_ssize_t FindFieldOffsetMissingOk(const char* name, const XPy_FieldWithSize* fields);
TDBG_API Py_ssize_t FindFieldOffset(const char* name, const XPy_FieldWithSize* fields);
TDBG_API Py_ssize_t FindSizeOfAllFields(const XPy_FieldWithSize* fields);

// Fills in the size of a field. 1 = done, 0 = no such field.
TDBG_API int SetFieldSize(XPy_FieldWithSize* fields, const char* name, Py_ssize_t size);

// Item of a sequence as a number; -1 on failure (an exception may be pending).
TDBG_API int GetItemAsInt(PyObject* val, int i);

// Steps of start-up; each writes its part of the record. The header comes first, since every other
// object's layout begins with it.
void discover_header_layout(int free_t_build);
void discover_type_layout();
void discover_frame_layout();
void discover_cframe_layout();
void discover_thread_state_layout();
void discover_interpreter_state_layout();

// Table of the running version's frame object; null from 3.11 on.
const XPy_FieldWithSize* choose_frame_table();
