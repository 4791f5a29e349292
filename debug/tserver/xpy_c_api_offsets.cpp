// Start-up's second half: from the running version to the offsets in the record.
// Which table describes a version is a list of {first version, table}; the last row that the
// running version has reached counts. None of these steps can fail: a field that is not found
// stays -1, and whoever needs it takes another road.
#include <stdio.h>

#include "xpy_c_api_internal.h"
#include "xpy_c_api_layouts.h"

struct tVersionTable {
    int major;
    int first_minor;
    const XPy_FieldWithSize* fields;  // null = no such structure, or not known
};

template <size_t count>
static const XPy_FieldWithSize* choose(const tVersionTable (&list)[count]) {
    const XPy_FieldWithSize* chosen = nullptr;
    for (const tVersionTable& row : list) {
        if (row.major == gPy.major_version && row.first_minor <= gPy.minor_version) {
            chosen = row.fields;
        }
    }
    return chosen;
}

static constexpr bool kWords64 = sizeof(void*) == 8;

// Object header.

static const XPy_FieldWithSize* choose_header_table() {
    static constexpr tVersionTable kList[] = {
        {3, 12, kWords64 ? py312_13_64bit_pyobject_fields : py312_13_32bit_pyobject_fields},
        {3, 14, kWords64 ? py314_64bit_pyobject_fields : py314_32bit_pyobject_fields},
    };
    const XPy_FieldWithSize* const fields = choose(kList);
    return fields != nullptr ? fields : pre312_pyobject_fields;
}

static void read_free_threaded_header() {
    XPyObjectOffsets& offsets = gPy.pyobject_offsets;
    offsets.type = FindFieldOffset("ob_type", free_t_pyobject_fields);
    offsets.mutex = FindFieldOffset("ob_mutex", free_t_pyobject_fields);
    offsets.flags = FindFieldOffset("ob_flags", free_t_pyobject_fields);
}

static void read_ordinary_header() {
    XPyObjectOffsets& offsets = gPy.pyobject_offsets;
    const XPy_FieldWithSize* const fields = choose_header_table();
    offsets.refcnt = FindFieldOffset("ob_refcnt", fields);
    offsets.type = FindFieldOffset("ob_type", fields);
    if (fields == py314_64bit_pyobject_fields) {
        offsets.overflow = FindFieldOffset("ob_overflow", fields);
        offsets.flags = FindFieldOffset("ob_flags", fields);
    }
}

// Py_TRACE_REFS puts two list pointers in front of every object, up to 3.12; since 3.13 such builds
// keep their objects in a hash table instead (cpython gh-108634).
static void shift_header_for_trace_refs() {
    if (!gPy.pydebug_build || version_at_least(3, 13)) {
        return;
    }
    constexpr Py_ssize_t kListPointers = 2 * sizeof(void*);
    XPyObjectOffsets& offsets = gPy.pyobject_offsets;
    Py_ssize_t* const all[] = {
        &offsets.refcnt, &offsets.type, &offsets.mutex, &offsets.overflow, &offsets.flags};
    for (Py_ssize_t* const offset : all) {
        if (*offset != -1) {
            *offset += kListPointers;
        }
    }
}

void discover_header_layout(int free_t_build) {
    XPyObjectOffsets& offsets = gPy.pyobject_offsets;
    offsets = {-1, -1, -1, -1, -1};
    if (free_t_build) {
        read_free_threaded_header();
    } else {
        read_ordinary_header();
    }
    shift_header_for_trace_refs();
    trace_start_up("pyobject_offsets: refcnt=%i type=%i mutex=%i overflow=%i flags=%i\n",
                   static_cast<int>(offsets.refcnt),
                   static_cast<int>(offsets.type),
                   static_cast<int>(offsets.mutex),
                   static_cast<int>(offsets.overflow),
                   static_cast<int>(offsets.flags));
}

// Type object.

void discover_type_layout() {
    XPyTypeObjectOffsets& offsets = gPy.typeobject_offsets;
    offsets = {-1, -1, -1, -1};
    gPy.max_align = -1;
    if (gPy.major_version < 3 || gPy.minor_version < 8) {
        return;
    }
    offsets.tp_basicsize = FindFieldOffset("tp_basicsize", typeobject_fields);
    offsets.tp_vectorcall_offset = FindFieldOffset("tp_vectorcall_offset", typeobject_fields);
    offsets.tp_flags = FindFieldOffset("tp_flags", typeobject_fields);
    offsets.tp_base = FindFieldOffset("tp_base", typeobject_fields);
    gPy.max_align = kWords64 ? 16 : 12;  // deliberate: no power of two on i386
    trace_start_up(
        "typeobject: tp_basicsize offset = %i, tp_vectorcall_offset offset = %i, max_align = %i\n",
        static_cast<int>(offsets.tp_basicsize),
        static_cast<int>(offsets.tp_vectorcall_offset),
        static_cast<int>(gPy.max_align));
}

// Frame object.

const XPy_FieldWithSize* choose_frame_table() {
    static constexpr tVersionTable kList[] = {
        {2, 0, frame_fields_pre_py3d4},
        {3, 0, frame_fields_pre_py3d4},
        {3, 4, frame_fields_py3d4},
        {3, 7, frame_fields_py3d7},
        {3, 10, frame_fields_py3d10},
        {3, 11, nullptr},  // frames are reached through the public accessors
    };
    return choose(kList);
}

void discover_frame_layout() {
    XPyFrameOffsets& offsets = gPy.frame_offsets;
    offsets = {-1, -1, -1, -1, -1, -1, -1, -1, -1, -1};
    const XPy_FieldWithSize* const fields = choose_frame_table();
    if (fields == nullptr) {
        return;
    }
    offsets.lineno = FindFieldOffset("f_lineno", fields);
    offsets.code = FindFieldOffset("f_code", fields);
    offsets.builtins = FindFieldOffset("f_builtins", fields);
    offsets.trace = FindFieldOffset("f_trace", fields);
    offsets.iblock = FindFieldOffset("f_iblock", fields);
    offsets.locals = FindFieldOffset("f_locals", fields);
    offsets.globals = FindFieldOffset("f_globals", fields);
    offsets.back = FindFieldOffset("f_back", fields);
    if (fields == frame_fields_py3d10) {
        offsets.state = FindFieldOffset("f_state", fields);
    } else {
        offsets.stacktop = FindFieldOffset("f_stacktop", fields);
    }
}

// C frame record.

void discover_cframe_layout() {
    static constexpr tVersionTable kList[] = {
        {3, 10, py3d10_cframe_fields},
        {3, 12, py3d12_cframe_fields},
        {3, 13, nullptr},
    };
    const XPy_FieldWithSize* const fields = choose(kList);
    gPy.cframe_offsets.current_frame =
        fields != nullptr ? FindFieldOffset("current_frame", fields) : -1;
}

// Thread state.

static const XPy_FieldWithSize* choose_thread_state_table() {
    static constexpr tVersionTable kList[] = {
        {2, 0, py2_tstate_fields},
        {3, 0, py3d0_tstate_fields},
        {3, 4, py3d4_tstate_fields},
        {3, 7, py3d7_tstate_fields},
        {3, 10, py3d10_tstate_fields},
        {3, 11, py3d11_tstate_fields},
        {3, 12, py3d12_tstate_fields},
        {3, 13, py3d13_tstate_fields},
        {3, 14, py3d14_tstate_fields},
        {3, 15, nullptr},  // unknown: better no offsets than wrong ones
    };
    return choose(kList);
}

// The way from a thread state to its frame.
static void read_frame_link(const XPy_FieldWithSize* fields) {
    XPyThreadStateOffsets& offsets = gPy.tstate_offsets;
    if (version_at_least(3, 13)) {
        offsets.cframe = FindFieldOffset("current_frame", fields);
    } else if (version_at_least(3, 11)) {
        offsets.cframe = FindFieldOffset("cframe", fields);
    } else {
        offsets.frame =
            FindFieldOffset("frame", fields);  // deliberate: on 3.10 too, which has both
    }
}

constinit Py_ssize_t gRecursionRemainingOffset = -1;

static constexpr XPyThreadStateOffsets kNoThreadStateOffsets = {
    -1, -1, -1, -1, -1, -1, -1, -1, -1, -1};

// Two fields at one place: nobody has filled the offsets in yet, and 0 is a valid one.
static bool are_never_filled_in(const XPyThreadStateOffsets& offsets) {
    return offsets.next == offsets.interp;
}

void discover_thread_state_layout() {
    XPyThreadStateOffsets& offsets = gPy.tstate_offsets;
    const XPy_FieldWithSize* const fields = choose_thread_state_table();
    if (fields == nullptr) {
        fputs("Cannot find tstate fields for this python version\n", stderr);
        if (are_never_filled_in(offsets)) {
            offsets = kNoThreadStateOffsets;
        }
        return;
    }
    offsets = kNoThreadStateOffsets;
    offsets.next = FindFieldOffset("next", fields);
    offsets.interp = FindFieldOffset("interp", fields);
    offsets.c_tracefunc = FindFieldOffset("c_tracefunc", fields);
    offsets.c_traceobj = FindFieldOffset("c_traceobj", fields);
    offsets.tracing = FindFieldOffset("tracing", fields);
    offsets.use_tracing = FindFieldOffsetMissingOk("use_tracing", fields);
    offsets.thread_id = FindFieldOffset("thread_id", fields);
    offsets.what_event = FindFieldOffsetMissingOk("what_event", fields);
    gRecursionRemainingOffset = FindFieldOffsetMissingOk("py_recursion_remaining", fields);
    read_frame_link(fields);
}

// Interpreter state.

// Writes the size of a configuration record into the row that stands for it.
static bool fill_in_size(XPy_FieldWithSize* fields,
                         const char* name,
                         const XPy_FieldWithSize* config_fields) {
    const Py_ssize_t size = FindSizeOfAllFields(config_fields);
    if (size == -1) {
        fputs("Unable to find size of all fields\n", stderr);
        return false;
    }
    return SetFieldSize(fields, name, size) != 0;
}

static const XPy_FieldWithSize* prepare_3_7_interpreter_state() {
    XPy_FieldWithSize* const fields = py3d7_interpreter_state_fields;
    const bool filled = fill_in_size(fields, "core_config", py3d7_core_config_fields) &&
                        fill_in_size(fields, "config", py3d7_main_interpreter_config_fields);
    return filled ? fields : nullptr;
}

static const XPy_FieldWithSize* prepare_3_8_interpreter_state() {
    XPy_FieldWithSize* const fields = py3d8_interpreter_state_fields;
    return fill_in_size(fields, "config", py3d8_pyconfig_fields) ? fields : nullptr;
}

// Before 3.6 there is no frame-evaluation function, from 3.9 on the interpreter hands it out
// itself.
static const XPy_FieldWithSize* prepare_interpreter_state_table() {
    if (gPy.major_version != 3) {
        return nullptr;
    }
    switch (gPy.minor_version) {
        case 6:
            return py3d6_interpreter_state_fields;
        case 7:
            return prepare_3_7_interpreter_state();
        case 8:
            return prepare_3_8_interpreter_state();
        default:
            return nullptr;
    }
}

void discover_interpreter_state_layout() {
    gPy.interpreter_state_offsets.eval_frame = -1;
    const XPy_FieldWithSize* const fields = prepare_interpreter_state_table();
    if (fields != nullptr) {
        gPy.interpreter_state_offsets.eval_frame = FindFieldOffset("eval_frame", fields);
    }
}
