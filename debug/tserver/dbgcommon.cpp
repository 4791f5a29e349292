// Frames, code objects, tracebacks, generators, strings.
//
// A frame's trace object and its line switch are set on every call event, so they are written
// natively where start-up has proven where they are (gProbed), with the outcome of the attribute:
// - f_trace: null for None, one reference taken and one dropped, and up to 3.9 the line (see
//   line_field_follows_trace). From 3.13 on the attribute also switches opcode events on for a
//   frame that has asked for them; such a frame is left to the attribute (see
//   must_switch_opcode_events).
// - f_trace_lines: one char, which the interpreter reads at the next line in every version.
#include "dbgcommon.h"

#include <stdlib.h>
#include <string.h>

#include "corelock.h"
#include "dprintf.h"
#include "guards.h"
#include "libc_compat.h"

// Names, numbers, strings.

PyObject* new_int(Py_ssize_t value) {
    return gPy.major_version < 3 ? gPy.PyInt_FromSsize_t(value) : gPy.PyLong_FromSsize_t(value);
}

PyObject* new_native_string(const char* text) {
    return gPy.major_version < 3 ? gPy.PyString_FromString(text) : gPy.PyUnicode_FromString(text);
}

Py_ssize_t int_from_object(PyObject* obj) {
    return gPy.major_version < 3 ? gPy.PyInt_AsSsize_t(obj) : gPy.PyLong_AsSsize_t(obj);
}

static PyObject* borrow_cached_name(PyObject** cached, const char* text) {
    if (*cached == nullptr) {
        *cached = new_native_string(text);
    }
    return *cached;
}

constinit int gInterpreterLife = 0;

PyObject* borrow_name(tNameCache* cache, const char* text) {
    if (cache->life != gInterpreterLife) {
        *cache = {nullptr, gInterpreterLife};
    }
    return borrow_cached_name(&cache->obj, text);
}

// obj.text: new ref; null with the exception set, without one for a null obj, which the interpreter
// would follow.
static PyObject* get_attrib(PyObject* obj, tNameCache* cache, const char* text) {
    if (obj == nullptr) {
        return nullptr;
    }
    PyObject* const name = borrow_name(cache, text);
    return name != nullptr ? gPy.PyObject_GetAttr(obj, name) : nullptr;
}

// The same, with the failure logged and cleared.
static PyObject* get_attrib_or_log(PyObject* obj, tNameCache* cache, const char* text) {
    PyObject* const value = get_attrib(obj, cache, text);
    if (value == nullptr) {
        DPRINTF(kLogInternalFailures, "No attribute %s\n", text);
        do_dlogexception();
        gPy.PyErr_Clear();
    }
    return value;
}

// Whether somebody besides us keeps the attribute alive. Where the count cannot be read
// (free-threaded builds) the attribute is asked for again while we hold the first answer: only an
// object that its owner keeps comes twice.
static bool is_kept_by_owner(PyObject* obj, PyObject* name, PyObject* value) {
    if (gPy.pyobject_offsets.refcnt != -1) {
        return XPy_GetRefCnt(value) != 1;
    }
    tOwnedRef again(gPy.PyObject_GetAttr(obj, name));
    return again.borrow() == value;
}

// The borrow rule. deliberate: the reference is dropped and the pointer used; that is safe because
// the owner keeps the attribute, and an attribute made on the fly is refused.
static PyObject* borrow_attrib(PyObject* obj, tNameCache* cache, const char* text) {
    tOwnedRef value(get_attrib(obj, cache, text));
    if (!value || !is_kept_by_owner(obj, cache->obj, value.borrow())) {
        log_failure("borrow_attrib failed\n");
        return nullptr;
    }
    return value.borrow();
}

TDBG_API void* lookup_python_function(const char* name) {
    void* const process = tdbg_dlopen(nullptr, RTLD_LAZY | RTLD_GLOBAL);
    if (process == nullptr) {
        return nullptr;
    }
    void* const symbol = tdbg_dlsym(process, name);
    tdbg_dlclose(process);
    return symbol;
}

// Calls.

template <size_t count>
static PyObject* call_with(PyObject* callable, PyObject* const (&args)[count]) {
    tOwnedRef tuple(gPy.PyTuple_New(Py_ssize_t{count}));
    if (!tuple) {
        return nullptr;
    }
    for (size_t i = 0; i < count; ++i) {
        PyObject* const arg = args[i] != nullptr ? args[i] : gPy.Py_None;
        // steals the reference, also when it fails
        if (gPy.PyTuple_SetItem(tuple.borrow(), static_cast<Py_ssize_t>(i), new_ref(arg)) != 0) {
            return nullptr;
        }
    }
    tCoreUnlock unlocked;
    return gPy.PyObject_CallObject(callable, tuple.borrow());
}

TDBG_API PyObject* do_one_arg_call(PyObject* callable, PyObject* a) {
    return call_with(callable, {a});
}

TDBG_API PyObject* do_two_arg_call(PyObject* callable, PyObject* a, PyObject* b) {
    return call_with(callable, {a, b});
}

TDBG_API PyObject* do_three_arg_call(PyObject* callable, PyObject* a, PyObject* b, PyObject* c) {
    return call_with(callable, {a, b, c});
}

// Frames.

// Result of a slot that never answers null but by failing: its exception is logged and cleared.
template <class T>
static T* checked(T* result, const char* operation) {
    if (result == nullptr && gPy.PyErr_Occurred() != nullptr) {
        log_failure(operation);
    }
    return result;
}

// Null is an answer here, unless an exception comes with it that was not pending before: from 3.11
// on the frame object may have to be made. (One that was pending is then replaced.)
static PyFrameObject* get_real_frame_back(PyFrameObject* frame) {
    const bool was_pending = gPy.PyErr_Occurred() != nullptr;
    PyFrameObject* const back = gPy.PyFrame_GetBack(frame);
    return was_pending ? back : checked(back, "get_frame_back\n");
}

TDBG_API PyFrameObject* get_frame_back(PyFrameObject* frame) {
    static constinit tNameCache f_back = {};
    if (frame == nullptr) {
        return nullptr;
    }
    if (is_frame(frame)) {
        return get_real_frame_back(frame);
    }
    tOwnedRef back(get_attrib_or_log(frame, &f_back, "f_back"));
    if (back.borrow() == gPy.Py_None) {
        return nullptr;
    }
    return static_cast<PyFrameObject*>(back.give_away());
}

TDBG_API int is_outermost_frame(PyFrameObject* frame) {
    tOwnedFrame back(get_frame_back(frame));
    return !back;
}

TDBG_API int get_frame_lineno(PyFrameObject* frame) {
    static constinit tNameCache f_lineno = {};
    if (is_frame(frame)) {
        return gPy.PyFrame_GetLineNumber(frame);
    }
    if (frame == nullptr) {
        return -1;
    }
    tOwnedRef lineno(get_attrib_or_log(frame, &f_lineno, "f_lineno"));
    const Py_ssize_t number = lineno ? int_from_object(lineno.borrow()) : -1;
    gPy.PyErr_Clear();
    return static_cast<int>(number);
}

TDBG_API int get_frame_iblock(PyFrameObject* frame) {
    const Py_ssize_t offset = gPy.frame_offsets.iblock;
    return offset == -1 || !is_frame(frame) ? -1 : read_field<int>(frame, offset);
}

TDBG_API PyCodeObject* get_frame_code(PyFrameObject* frame) {
    return is_frame(frame) ? checked(gPy.PyFrame_GetCode(frame), "get_frame_code\n") : nullptr;
}

TDBG_API PyObject* get_frame_generator(PyFrameObject* frame) {
    if (!is_frame(frame)) {
        return nullptr;
    }
    tOwnedRef generator(gPy.PyFrame_GetGenerator(frame));
    if (generator.borrow() == gPy.Py_None) {  // 3.14 says None for a frame of a plain function
        return nullptr;
    }
    return generator.give_away();
}

TDBG_API PyObject* get_frame_builtins(PyFrameObject* frame) {
    return is_frame(frame) ? checked(gPy.PyFrame_GetBuiltins(frame), "get_frame_builtins\n")
                           : nullptr;
}

TDBG_API PyObject* get_frame_globals(PyFrameObject* frame) {
    static constinit tNameCache f_globals = {};
    if (is_frame(frame)) {
        return checked(gPy.PyFrame_GetGlobals(frame), "get_frame_globals\n");
    }
    return get_attrib_or_log(frame, &f_globals, "f_globals");
}

TDBG_API PyObject* get_frame_locals(PyFrameObject* frame) {
    static constinit tNameCache f_locals = {};
    if (is_frame(frame)) {
        return checked(gPy.PyFrame_GetLocals(frame), "get_frame_locals\n");
    }
    return get_attrib_or_log(frame, &f_locals, "f_locals");
}

// Where a real frame keeps its trace object; -1 = only the attribute knows.
static Py_ssize_t frame_trace_offset() {
    const Py_ssize_t offset = gPy.frame_offsets.trace;
    return offset != -1 ? offset : gProbed.frame_trace;
}

static PyObject* null_for_none(PyObject* obj) {
    return obj == gPy.Py_None ? nullptr : obj;
}

TDBG_API PyObject* borrow_frame_trace(PyFrameObject* frame) {
    static constinit tNameCache f_trace = {};
    const Py_ssize_t offset = frame_trace_offset();
    if (offset != -1 && is_frame(frame)) {
        return null_for_none(read_field<PyObject*>(frame, offset));
    }
    return null_for_none(borrow_attrib(frame, &f_trace, "f_trace"));
}

static void set_frame_trace_attrib(PyFrameObject* frame, PyObject* trace) {
    static constinit tNameCache f_trace = {};
    if (frame == nullptr) {
        return;
    }
    PyObject* const name = borrow_name(&f_trace, "f_trace");
    PyObject* const value = trace != nullptr ? trace : gPy.Py_None;
    if (name == nullptr || gPy.PyObject_SetAttr(frame, name, value) != 0) {
        log_failure("Exception raised when setting f_trace on frame");
    }
}

// Up to 3.9 the interpreter trusts a frame's line field while the frame has a trace object, and
// keeps it right only from then on: whoever sets the first one has to bring it up to date.
static bool line_field_follows_trace() {
    return gPy.frame_offsets.lineno != -1 && !version_at_least(3, 10);
}

static void set_frame_trace_field(PyFrameObject* frame, Py_ssize_t offset, PyObject* trace) {
    PyObject** const field = static_cast<PyObject**>(XPy_GetFieldAddress(frame, offset));
    if (*field == nullptr && line_field_follows_trace()) {
        const int lineno = gPy.PyFrame_GetLineNumber(frame);
        if (lineno != -1) {
            write_field<int>(frame, gPy.frame_offsets.lineno, lineno);
        }
    }
    set_owned(field, new_ref(trace));
}

// The frame's f_trace_opcodes, a char right behind f_trace_lines (3.7 and later).
static bool has_trace_opcodes(PyFrameObject* frame) {
    return gProbed.frame_trace_lines == -1 ||
           read_field<char>(frame, gProbed.frame_trace_lines + 1) != 0;
}

// From 3.13 on opcode events are switched on in the code, by whichever comes last, f_trace_opcodes
// or f_trace; before, the interpreter looks at the frame's flag each time.
static bool must_switch_opcode_events(PyFrameObject* frame, PyObject* trace) {
    return trace != nullptr && version_at_least(3, 13) && has_trace_opcodes(frame);
}

// Another thread of a free-threaded build may be reading the attribute right now, and only the
// attribute's own lock keeps it from using the object that we drop.
static bool can_write_trace() {
    return gPy.pyobject_offsets.refcnt != -1;
}

TDBG_API void set_frame_trace(PyFrameObject* frame, PyObject* trace) {
    PyObject* const wanted = null_for_none(trace);
    const Py_ssize_t offset = is_frame(frame) ? frame_trace_offset() : -1;
    if (offset != -1 && read_field<PyObject*>(frame, offset) == wanted) {
        return;
    }
    if (offset == -1 || !can_write_trace() || must_switch_opcode_events(frame, wanted)) {
        set_frame_trace_attrib(frame, wanted);
    } else {
        set_frame_trace_field(frame, offset, wanted);
    }
}

TDBG_API int is_frame_trace_lines_supported() {
    return gPy.major_version == 3 && gPy.minor_version >= 7;
}

TDBG_API int set_frame_trace_lines(PyFrameObject* frame, int flag) {
    static constinit tNameCache f_trace_lines = {};
    if (!is_frame_trace_lines_supported() || frame == nullptr) {
        return 0;
    }
    if (gProbed.frame_trace_lines != -1 && is_frame(frame)) {
        const char wanted = flag != 0;
        if (read_field<char>(frame, gProbed.frame_trace_lines) != wanted) {
            write_field<char>(frame, gProbed.frame_trace_lines, wanted);
        }
        return 0;
    }
    PyObject* const name = borrow_name(&f_trace_lines, "f_trace_lines");
    if (name == nullptr) {
        return -1;
    }
    return gPy.PyObject_SetAttr(frame, name, flag ? gPy.Py_True : gPy.Py_False);
}

TDBG_API PyObject* get_frame_filename(PyFrameObject* frame) {
    static constinit tNameCache co_filename = {};
    tOwnedCode code(get_frame_code(frame));
    return code ? get_attrib_or_log(code.borrow(), &co_filename, "co_filename") : nullptr;
}

TDBG_API PyObject* get_frame_code_name(PyFrameObject* frame) {
    static constinit tNameCache co_name = {};
    tOwnedCode code(get_frame_code(frame));
    return code ? get_attrib_or_log(code.borrow(), &co_name, "co_name") : new_ref(gPy.Py_None);
}

// 3.10: -1 is suspended; deliberate: 0, executing, counts as well. Not yet started is -2, finished
// is 1 and more.
static bool is_suspended_state(int8_t state) {
    return static_cast<uint8_t>(state + 1) < 2;
}

// 3.11 and later.
static int get_suspended_by_generator(PyFrameObject* frame) {
    tSavedError saved;  // an exception thrown into a generator may be pending, and is not a failure
    tOwnedRef generator(get_frame_generator(frame));
    const int suspended = generator ? get_generator_suspended(generator.borrow()) : 0;
    if (suspended != 1 && gPy.PyErr_Occurred() != nullptr) {
        log_failure("Failure in get_frame_suspended_generator()\n");
        return 0;
    }
    return suspended;
}

TDBG_API int get_frame_suspended_generator(PyFrameObject* frame) {
    if (!is_frame(frame)) {
        return 0;
    }
    if (version_at_least(3, 11)) {
        return get_suspended_by_generator(frame);
    }
    if (version_at_least(3, 10)) {
        if (gPy.frame_offsets.state == -1) {
            return 0;
        }
        const int8_t state = read_field<int8_t>(frame, gPy.frame_offsets.state);
        DPRINTF(kLogCore, "STATE OF FRAME: %i\n", state);
        return is_suspended_state(state);
    }
    if (gPy.frame_offsets.stacktop == -1) {
        return 0;
    }
    // the lower half of the address is enough to tell it from null in a log
    const uintptr_t stacktop = read_field<uintptr_t>(frame, gPy.frame_offsets.stacktop);
    DPRINTF(kLogCore, "STACKTOP OF FRAME: %x\n", static_cast<unsigned>(stacktop));
    return stacktop != 0;
}

// Tracebacks.

static bool is_traceback(PyObject* obj) {
    return is_instance_of(obj, gPy.PyTraceBack_Type_ptr);
}

TDBG_API PyFrameObject* borrow_traceback_frame(PyObject* tb) {
    static constinit tNameCache tb_frame = {};
    PyObject* const frame = borrow_attrib(tb, &tb_frame, "tb_frame");
    return is_frame(frame) ? static_cast<PyFrameObject*>(frame) : nullptr;
}

TDBG_API PyFrameObject* get_traceback_frame(PyObject* tb) {
    static constinit tNameCache tb_frame = {};
    tOwnedRef frame(get_attrib_or_log(tb, &tb_frame, "tb_frame"));
    return is_frame(frame.borrow()) ? static_cast<PyFrameObject*>(frame.give_away()) : nullptr;
}

TDBG_API PyObject* borrow_traceback_next(PyObject* tb) {
    static constinit tNameCache tb_next = {};
    PyObject* const next = borrow_attrib(tb, &tb_next, "tb_next");
    return is_traceback(next) ? next : nullptr;
}

// Code objects.

TDBG_API PyObject* borrow_code_name(PyCodeObject* co) {
    static constinit tNameCache co_name = {};
    return borrow_attrib(co, &co_name, "co_name");
}

TDBG_API PyObject* borrow_code_filename(PyCodeObject* co) {
    static constinit tNameCache co_filename = {};
    return borrow_attrib(co, &co_filename, "co_filename");
}

TDBG_API PyObject* get_code_name(PyCodeObject* co) {
    return new_ref(borrow_code_name(co));
}

TDBG_API PyObject* get_code_filename(PyCodeObject* co) {
    static constinit tNameCache co_filename = {};
    return get_attrib_or_log(co, &co_filename, "co_filename");
}

TDBG_API int get_code_firstlineno(PyCodeObject* co) {
    static constinit tNameCache co_firstlineno = {};
    tOwnedRef number(get_attrib(co, &co_firstlineno, "co_firstlineno"));
    const Py_ssize_t lineno = number ? int_from_object(number.borrow()) : -1;
    if (!number || (lineno == -1 && gPy.PyErr_Occurred() != nullptr)) {
        log_failure_keep_error("get_code_firstlineno");
        return -1;
    }
    return static_cast<int>(lineno);
}

// Generators.

TDBG_API int get_bool_attrib(PyObject* obj, const char* name, PyObject** cached_name_obj) {
    // Held: the owner of the cache may drop it while the object's own code runs.
    tOwnedRef name_obj(new_ref(borrow_cached_name(cached_name_obj, name)));
    if (!name_obj || obj == nullptr) {
        return -1;
    }
    tOwnedRef value(gPy.PyObject_GetAttr(obj, name_obj.borrow()));
    if (!value) {
        return -1;
    }
    if (value.borrow() == gPy.Py_True) {
        return 1;
    }
    return value.borrow() == gPy.Py_False ? 0 : gPy.PyObject_IsTrue(value.borrow());
}

TDBG_API int get_generator_suspended(PyObject* gen) {
    static constinit tNameCache gi_suspended = {};
    static constinit tNameCache cr_suspended = {};
    if (is_instance_of(gen, gPy.PyGen_Type_ptr)) {
        borrow_name(&gi_suspended, "gi_suspended");
        return get_bool_attrib(gen, "gi_suspended", &gi_suspended.obj);
    }
    if (is_instance_of(gen, gPy.PyCoro_Type_ptr)) {
        borrow_name(&cr_suspended, "cr_suspended");
        return get_bool_attrib(gen, "cr_suspended", &cr_suspended.obj);
    }
    return 0;
}

// Strings and objects.

static bool is_any_string(PyObject* obj) {
    return is_instance_of(obj, gPy.PyString_Type_ptr) ||
           is_instance_of(obj, gPy.PyUnicode_Type_ptr);
}

TDBG_API int string_objects_equal(PyObject* a, PyObject* b) {
    if (!is_any_string(a) || !is_any_string(b)) {
        return 0;
    }
    const char* const text_a = _pystring_to_c_string(a);
    const char* const text_b = text_a != nullptr ? _pystring_to_c_string(b) : nullptr;
    return text_b != nullptr && strcmp(text_a, text_b) == 0;
}

TDBG_API int pyobjects_equal(PyObject* a, PyObject* b) {
    return XPy_PyObjectsEqual(a, b);
}

TDBG_API PyObject* get_imported_module(const char* name) {
    tOwnedRef modules(new_ref(gPy.PySys_GetObject("modules")));
    tOwnedRef key(modules ? new_native_string(name) : nullptr);
    PyObject* const module = key ? gPy.PyObject_GetItem(modules.borrow(), key.borrow()) : nullptr;
    if (module == nullptr) {
        gPy.PyErr_Clear();  // not imported is an answer, not a failure to log
    }
    return module;
}

// Logs what could not be done with a string, its exception not being worth more; clears it.
static void log_string_failure(const char* format, PyObject* obj) {
    if (gDPrintfFile != nullptr) {
        do_dprintf(kLogFilenames, format, get_dprintf_repr_str1(nullptr, obj));
    }
    gPy.PyErr_Clear();
}

TDBG_API const char* _pystring_to_c_string(PyObject* obj) {
    if (obj == nullptr) {
        return nullptr;
    }
    const char* const text =
        gPy.major_version < 3 ? gPy.PyString_AsString(obj) : gPy._PyUnicode_AsString(obj);
    if (text == nullptr) {
        log_string_failure("FAILURE: Could not convert unicode to UTF-8: %s", obj);
    }
    return text;
}

TDBG_API char* _pystring_to_c_string_copy(PyObject* obj) {
    const char* const text = _pystring_to_c_string(obj);
    if (text == nullptr) {
        return nullptr;
    }
    char* const copy = strdup(text);
    if (copy == nullptr) {
        log_string_failure("FAILURE: Out of memory copying string: %s", obj);
    }
    return copy;
}
