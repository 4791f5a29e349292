// bpops_presence.cpp -- could any breakpoint fire in this code object? Asked when a frame starts
// and answered once per code object and set of breakpoints; a frame whose answer is no costs
// nothing more. Enabled state and conditions do not matter: only whether a line has a breakpoint.
#include <stdlib.h>
#include <string.h>

#include "bpops_internal.h"

enum tAnswer : int { kFailed = -1, kNone = 0, kMaybe = 1 };

// 3.6 and 3.7 write negative line increments as the interpreter of 3.8 does, yet readers of that
// time took them as unsigned: there a line counts under either reading.
enum tIncrement : unsigned { kUnsigned = 1u << 0, kSigned = 1u << 1 };

static unsigned get_line_increments() {
    if (gPy.major_version < 3) {
        return kUnsigned;
    }
    return version_at_least(3, 8)   ? unsigned{kSigned}
           : version_at_least(3, 6) ? kUnsigned | kSigned
                                    : unsigned{kUnsigned};
}

static tAnswer ask_line(tBpOpsData* data, int lineno, const char** codefile, PyFrameObject* frame) {
    const int answer = any_bp_on_line(data, lineno, codefile, frame);
    if (answer == 1) {
        DPRINTF(kLogBreakpoints, "  bp found on line %d\n", lineno);
    }
    return answer == 1 ? kMaybe : answer == 0 ? kNone : kFailed;
}

// ---- Line table of 3.10 and earlier ----

static tAnswer walk_lnotab(tBpOpsData* data,
                           const unsigned char* table,
                           Py_ssize_t size,
                           int first_line,
                           tIncrement increment,
                           const char** codefile,
                           PyFrameObject* frame) {
    int lineno = first_line;
    tAnswer answer = ask_line(data, lineno, codefile, frame);
    for (Py_ssize_t i = 1; i < size && answer == kNone; i += 2) {
        const int step = increment == kSigned ? static_cast<signed char>(table[i]) : table[i];
        // A made-up table may leave the range of int; the sum then wraps.
        lineno = static_cast<int>(static_cast<unsigned>(lineno) + static_cast<unsigned>(step));
        answer = ask_line(data, lineno, codefile, frame);
    }
    return answer;
}

static const unsigned char* get_bytes(PyObject* obj, Py_ssize_t* size) {
    *size = obj != nullptr ? gPy.PyBytes_Size(obj) : -1;
    return *size >= 0 ? reinterpret_cast<const unsigned char*>(gPy.PyBytes_AsString(obj)) : nullptr;
}

static tAnswer calculate_using_co_lnotab(tBpOpsData* data,
                                         PyCodeObject* code,
                                         const char** codefile,
                                         PyFrameObject* frame) {
    tOwnedRef lnotab(gPy.PyObject_GetAttrString(code, "co_lnotab"));
    Py_ssize_t size = 0;
    const unsigned char* const table = get_bytes(lnotab.borrow(), &size);
    if (table == nullptr) {
        log_failure("calculate_any_bps_using_co_lnotab failed\n");
        return kFailed;
    }
    const int first_line = get_code_firstlineno(code);
    if (first_line == -1 && gPy.PyErr_Occurred() != nullptr) {
        log_failure("calculate_any_bps_using_co_lnotab failed\n");
        return kFailed;
    }
    const unsigned increments = get_line_increments();
    tAnswer answer = kNone;
    if ((increments & kUnsigned) != 0) {
        answer = walk_lnotab(data, table, size, first_line, kUnsigned, codefile, frame);
    }
    if (answer == kNone && (increments & kSigned) != 0) {
        answer = walk_lnotab(data, table, size, first_line, kSigned, codefile, frame);
    }
    if (answer == kFailed) {
        log_failure("calculate_any_bps_using_co_lnotab failed\n");
    }
    return answer;
}

// ---- Line table of 3.11 and later ----

static tAnswer ask_line_object(tBpOpsData* data,
                               PyObject* line,
                               const char** codefile,
                               PyFrameObject* frame) {
    if (line == gPy.Py_None) {
        return kNone;  // instructions that belong to no line
    }
    const Py_ssize_t lineno = int_from_object(line);
    if (lineno == -1 && gPy.PyErr_Occurred() != nullptr) {
        return kFailed;
    }
    return ask_line(data, static_cast<int>(lineno), codefile, frame);
}

static tAnswer calculate_using_co_lines(tBpOpsData* data,
                                        PyCodeObject* code,
                                        const char** codefile,
                                        PyFrameObject* frame) {
    tOwnedRef lines(gPy.PyObject_CallMethod(code, "co_lines", nullptr));
    tOwnedRef iter(lines ? gPy.PyObject_GetIter(lines.borrow()) : nullptr);
    tAnswer answer = iter ? kNone : kFailed;
    while (answer == kNone) {
        tOwnedRef item(gPy.PyIter_Next(iter.borrow()));
        if (!item) {
            break;
        }
        if (gPy.PyErr_Occurred() != nullptr) {
            // Out of memory 3.11 gives a tuple without its line, and an exception.
            answer = kFailed;
            break;
        }
        tOwnedRef line(gPy.PySequence_GetItem(item.borrow(), 2));
        answer = line ? ask_line_object(data, line.borrow(), codefile, frame) : kFailed;
    }
    if (answer == kFailed || gPy.PyErr_Occurred() != nullptr) {
        log_failure("calculate_any_bps_using_co_lines failed\n");
        return kFailed;
    }
    return answer;
}

// ---- The answer ----

static bool has_file_bps(tBpOpsData* data, const char* codefile) {
    const char* const module_file = __tracer_find_module(data, codefile, nullptr);
    if (module_file == nullptr || !has_module_bps(data, module_file)) {
        return false;
    }
    const char* const name = dprint_check_str(module_file);
    DPRINTF(kLogBreakpoints, "modfile = %s, bp->module_filename = %s\n", name, name);
    DPRINTF(kLogBreakpoints, "  filename match\n");
    return true;
}

static tAnswer calculate_any_bps(tBpOpsData* data, PyCodeObject* code, PyFrameObject* frame) {
    if (gDPrintfFile != nullptr) {
        do_dprintf_repr(kLogBreakpoints, "calculate_any_bps: co = ", code, "\n");
    }
    const char* const borrowed = resolve_code_file(data, frame);
    if (borrowed == nullptr) {
        log_failure("calculate_any_bps failed\n");
        return kFailed;
    }
    if (!has_file_bps(data, borrowed)) {
        return kNone;
    }
    // The name is only good until the next look-up, and the walk makes many.
    char* const codefile = strdup(borrowed);
    if (codefile == nullptr) {
        return kFailed;
    }
    const char* name = codefile;
    const tAnswer answer = version_at_least(3, 11)
                               ? calculate_using_co_lines(data, code, &name, frame)
                               : calculate_using_co_lnotab(data, code, &name, frame);
    free(codefile);
    if (answer == kFailed) {
        log_failure("calculate_any_bps failed\n");
    }
    return answer;
}

static void log_question(PyCodeObject* code) {
    tOwnedRef name(get_code_name(code));
    const Py_ssize_t first_line = get_code_firstlineno(code);
    if (first_line == -1) {
        gPy.PyErr_Clear();  // logged by now
    }
    do_dprintf(kLogBreakpoints,
               "tracer_any_bps() called for name = %s, lineno = %zd\n",
               dprint_check_pystr(name.borrow()),
               first_line);
}

static int answer_and_keep(tBpOpsData* data, PyCodeObject* code, PyFrameObject* frame) {
    DPRINTF(kLogBreakpoints, "  no cached value\n");
    tRecursionHeadroom room(kRecursionHeadroom);
    tSavedError saved;
    const tAnswer answer = calculate_any_bps(data, code, frame);
    if (answer == kFailed) {
        log_failure("tracer_any_bps failed\n");
        return kFailed;
    }
    PyObject* const value = answer == kMaybe ? gPy.Py_True : gPy.Py_False;
    if (SetAnyBpsInCodeObject(data->co_pathname_table, code, value) == -1) {
        log_failure("SetAnyBpsInCodeObject failed\n");
    }
    DPRINTF(
        kLogBreakpoints, "  tracer_any_bps() returning %s\n", answer == kMaybe ? "True" : "False");
    return answer;
}

int tracer_any_bps(tBpOpsData* data, PyFrameObject* frame) {
    if (data->userbps.numEntries == 0) {
        return kNone;
    }
    tOwnedCode code(get_frame_code(frame));
    if (!code) {
        log_failure("tracer_any_bps failed\n");
        return kFailed;
    }
    if (gDPrintfFile != nullptr) {
        log_question(code.borrow());
    }
    tOwnedRef cached(GetAnyBpsInCodeObject(data->co_pathname_table, code.borrow()));
    if (cached) {
        return cached.borrow() == gPy.Py_True ? kMaybe : kNone;
    }
    return answer_and_keep(data, code.borrow(), frame);
}
