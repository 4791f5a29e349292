// Offsets that start-up proves on live objects of its own.
// Frame and code objects have fields that the tracer reads on every event, and for which the newer
// versions publish nothing cheap. Their places are guessed from the tables and from a list of
// candidates, then tried out: an attribute is set from Python and must be seen to change in memory.
// What cannot be proven stays -1 and the slow road through the attribute is taken.
#include "guards.h"
#include "xpy_c_api_internal.h"
#include "xpy_c_api_layouts.h"

constinit tProbedOffsets gProbed = {-1, -1, -1};

static constexpr Py_ssize_t kWord = sizeof(void*);

// An attempt that failed leaves no exception: the next one must not begin with it.
static bool drop_error_unless(bool succeeded) {
    if (!succeeded) {
        gPy.PyErr_Clear();
    }
    return succeeded;
}

// Value of an expression that sees nothing but the builtins. New ref; null when it failed.
static PyObject* evaluate(const char* expression) {
    constexpr int kEvalInput = 258;                       // Py_eval_input
    PyObject* const builtins = gPy.PyEval_GetBuiltins();  // borrowed
    tOwnedRef globals(builtins != nullptr ? gPy.PyDict_New() : nullptr);
    if (!globals || gPy.PyDict_SetItemString(globals.borrow(), "__builtins__", builtins) == -1) {
        gPy.PyErr_Clear();
        return nullptr;
    }
    PyObject* const value =
        gPy.PyRun_String(expression, kEvalInput, globals.borrow(), globals.borrow());
    drop_error_unless(value != nullptr);
    return value;
}

// Size of the header that every object begins with.
static Py_ssize_t get_header_size() {
    return gPy.pyobject_offsets.type + kWord;
}

// Frame objects.

static bool set_attribute(PyObject* obj, const char* name, PyObject* value) {
    return drop_error_unless(gPy.PyObject_SetAttrString(obj, name, value) == 0);
}

// The field is empty, holds exactly the object once the attribute is set, and is empty again once
// it is deleted.
static bool is_trace_field(PyObject* frame, Py_ssize_t offset, PyObject* marker) {
    if (read_field<PyObject*>(frame, offset) != nullptr ||
        !set_attribute(frame, "f_trace", marker)) {
        return false;
    }
    const bool seen = read_field<PyObject*>(frame, offset) == marker;
    const bool cleared = set_attribute(frame, "f_trace", gPy.Py_None);
    PyObject* const left = read_field<PyObject*>(frame, offset);
    return seen && cleared && (left == nullptr || left == gPy.Py_None);
}

// Up to 3.10 the frame tables know. From 3.11 on the object is {header, f_back, the frame proper,
// f_trace, ...}; a pointer more has room for a version that adds a field.
static Py_ssize_t find_trace_field(PyObject* frame, PyObject* marker) {
    if (gPy.frame_offsets.trace != -1) {
        return is_trace_field(frame, gPy.frame_offsets.trace, marker) ? gPy.frame_offsets.trace
                                                                      : -1;
    }
    static constexpr Py_ssize_t kPointersBefore[] = {2, 3};
    for (const Py_ssize_t pointers : kPointersBefore) {
        const Py_ssize_t offset = get_header_size() + pointers * kWord;
        if (is_trace_field(frame, offset, marker)) {
            return offset;
        }
    }
    return -1;
}

static bool is_trace_lines_field(PyObject* frame, Py_ssize_t offset) {
    const bool set_at_first = read_field<char>(frame, offset) == 1;
    const bool off =
        set_attribute(frame, "f_trace_lines", gPy.Py_False) && read_field<char>(frame, offset) == 0;
    const bool on =
        set_attribute(frame, "f_trace_lines", gPy.Py_True) && read_field<char>(frame, offset) == 1;
    return set_at_first && off && on;
}

// Up to 3.10 from the frame tables (-1 before 3.7); from 3.11 on behind f_trace and the line
// number.
static Py_ssize_t find_trace_lines_field(PyObject* frame, Py_ssize_t trace_offset) {
    const XPy_FieldWithSize* const fields = choose_frame_table();
    Py_ssize_t offset = -1;
    if (fields != nullptr) {
        offset = FindFieldOffsetMissingOk("f_trace_lines", fields);
    } else if (trace_offset != -1) {
        offset = trace_offset + kWord + Py_ssize_t{sizeof(int)};
    }
    return offset != -1 && is_trace_lines_field(frame, offset) ? offset : -1;
}

static void probe_frame_object() {
    tOwnedRef frame(evaluate("(lambda: __import__('sys')._getframe())()"));
    tOwnedRef marker(gPy.PyList_New(0));
    if (!is_frame(frame.borrow()) || !marker) {
        return;
    }
    gProbed.frame_trace = find_trace_field(frame.borrow(), marker.borrow());
    gProbed.frame_trace_lines = find_trace_lines_field(frame.borrow(), gProbed.frame_trace);
}

// Code objects.

// Where the flags are, counted from the end of the object header.
struct tFlagsPlace {
    int major;
    int first_minor;
    Py_ssize_t ints;   // ints before them
    Py_ssize_t words;  // words before them
};

static constexpr tFlagsPlace kFlagsPlaces[] = {
    {2, 0, 3, 0},   // argcount, nlocals, stacksize
    {3, 0, 4, 0},   // + kwonlyargcount
    {3, 8, 5, 0},   // + posonlyargcount
    {3, 11, 0, 4},  // item count, constants, names, exception table
};

static Py_ssize_t guess_flags_offset() {
    Py_ssize_t offset = -1;
    for (const tFlagsPlace& row : kFlagsPlaces) {
        if (row.major == gPy.major_version && row.first_minor <= gPy.minor_version) {
            offset = get_header_size() + row.ints * Py_ssize_t{sizeof(int)} + row.words * kWord;
        }
    }
    return offset;
}

// Do the attribute and the memory agree? `flags` receives the value.
static bool flags_are_at(PyObject* code, Py_ssize_t offset, int* flags) {
    tOwnedRef attribute(gPy.PyObject_GetAttrString(code, "co_flags"));
    if (!attribute) {
        return false;
    }
    *flags = static_cast<int>(gPy.PyLong_AsLongLong(attribute.borrow()));
    return gPy.PyErr_Occurred() == nullptr && read_field<int>(code, offset) == *flags;
}

// Two code objects whose flags differ must both agree.
static void probe_code_object() {
    const Py_ssize_t offset = guess_flags_offset();
    tOwnedRef plain(evaluate("(lambda: 0).__code__"));
    tOwnedRef generator(evaluate("(lambda *args, **kw: (yield)).__code__"));
    if (offset == -1 || !is_instance_of(plain.borrow(), gPy.PyCode_Type_ptr) ||
        !is_instance_of(generator.borrow(), gPy.PyCode_Type_ptr)) {
        return;
    }
    int plain_flags = 0;
    int generator_flags = 0;
    if (flags_are_at(plain.borrow(), offset, &plain_flags) &&
        flags_are_at(generator.borrow(), offset, &generator_flags) &&
        plain_flags != generator_flags) {
        gProbed.code_flags = offset;
    }
}

static bool can_probe() {
    return gPy.pyobject_offsets.type != -1 && gPy.PyErr_Occurred() == nullptr;
}

// A trace function that is already installed must not see our expressions, and an error of theirs
// is nobody's business.
void probe_live_objects() {
    gProbed = {-1, -1, -1};
    if (!can_probe()) {
        return;
    }
    PyThreadState* const tstate = gPy.PyThreadState_Get();
    if (tstate == nullptr) {
        return;
    }
    tTracingOff quiet(tstate);
    tSavedError none;
    probe_frame_object();
    probe_code_object();
}
