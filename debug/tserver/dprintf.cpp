// The lines of the log. The order inside a line is: thread state, guard, tracing counter, saved
// exception, text, file; everything is undone backwards. errno belongs to the debuggee as well.
#include "dprintf.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "dbgcommon.h"
#include "guards.h"

// The frame description that was asked for last.
static constinit char frame_str1[kDPrintfTextSize] = "";

// A sink's re-entrancy guard, up while one line is being written.
class tInDPrint : tNoCopy {
public:
    explicit tInDPrint(tSingleDPData* sink) : sink_(sink) { ++sink_->in_dprint_count; }
    ~tInDPrint() {
        if (!left_up_) {
            --sink_->in_dprint_count;
        }
    }
    void leave_up() { left_up_ = true; }

private:
    tSingleDPData* sink_;
    bool left_up_ = false;
};

static tSingleDPData* borrow_shared_sink() {
    init_dp_data(&gUnsafeGlobalDPData, 0);
    return &gUnsafeGlobalDPData.shared_single_dp_data;
}

// The thread state to log with; null when the line has to be dropped: no thread state, or the sink
// is in the middle of a line.
static PyThreadState* borrow_tstate_for_line(const tSingleDPData* sink) {
    PyThreadState* const tstate = borrow_current_thread_state();
    return sink->in_dprint_count == 0 ? tstate : nullptr;
}

// New ref or null with an exception set; for texts of ours.
static PyObject* new_line_text(const char* text) {
    if (gPy.major_version < 3) {
        return gPy.PyString_FromString(text);
    }
    return gPy.PyUnicode_FromString != nullptr ? gPy.PyUnicode_FromString(text) : nullptr;
}

static PyObject* format_line(const char* format, va_list vargs) {
    if (gPy.major_version < 3) {
        return gPy.PyString_FromFormatV(format, vargs);
    }
    if (gPy.PyUnicode_FromFormatV != nullptr) {
        return gPy.PyUnicode_FromFormatV(format, vargs);
    }
    return new_line_text("DPRINTF error: PyUnicode_FromFormatV is NULL\n");
}

// New ref; null without an exception set when no text at all can be built.
static PyObject* new_line(const char* format, va_list vargs) {
    PyObject* line = format_line(format, vargs);
    if (line != nullptr) {
        return line;
    }
    do_dlogexception();
    gPy.PyErr_Clear();
    line = new_line_text("DPRINTF error: exception while formatting string\n");
    if (line == nullptr) {
        gPy.PyErr_Clear();
        line = new_line_text("DPRINTF error: unable to create output string\n");
    }
    if (line == nullptr) {
        gPy.PyErr_Clear();
    }
    return line;
}

static void write_and_flush(PyObject* file, PyObject* line) {
    static constexpr int kPrintRaw = 1;  // the interpreter's Py_PRINT_RAW: str(), not repr()
    if (line != nullptr && gPy.PyFile_WriteObject(line, file, kPrintRaw) != 0) {
        gPy.PyErr_Clear();
    }
    tOwnedRef flushed(gPy.PyObject_CallMethod(file, "flush", nullptr));
    if (!flushed) {
        gPy.PyErr_Clear();
    }
}

static void write_line(tSingleDPData* sink, PyObject* file, const char* format, va_list vargs) {
    tSavedErrno keep_errno;
    PyThreadState* const tstate = borrow_tstate_for_line(sink);
    if (tstate == nullptr) {
        return;
    }
    tInDPrint in_dprint(sink);
    tTracingOff quiet(tstate);
    tSavedError saved;
    tOwnedRef held_file(new_ref(file));  // the file's own write() may set another log file
    tOwnedRef line(new_line(format, vargs));
    write_and_flush(file, line.borrow());
}

TDBG_API void do_dprintf(tDPrintfLogMask kind, const char* format, ...) {
    if (gDPrintfFile == nullptr || (gDPrintfMask & kind) == 0) {
        return;
    }
    va_list vargs;
    va_start(vargs, format);
    write_line(borrow_shared_sink(), gDPrintfFile, format, vargs);
    va_end(vargs);
}

TDBG_API void do_dp_v(tSingleDPData* sink, const char* format, va_list vargs) {
    if (valid_single_dp_py_file(sink)) {
        write_line(sink, sink->file_obj, format, vargs);
    }
}

TDBG_API void do_dp(tSingleDPData* sink, const char* format, ...) {
    va_list vargs;
    va_start(vargs, format);
    do_dp_v(sink, format, vargs);
    va_end(vargs);
}

// Prints the exception to file through sys.stderr, the only road that exists in every version.
// False when there is no sys.stderr to put back.
static bool display_exception(PyObject* file, PyObject* type, PyObject* value, PyObject* tb) {
    tOwnedRef old_stderr(new_ref(gPy.PySys_GetObject("stderr")));
    if (!old_stderr || old_stderr.borrow() == gPy.Py_None) {
        return false;
    }
    if (gPy.PySys_SetObject("stderr", file) != 0) {
        gPy.PyErr_Clear();
        return true;
    }
    gPy.PyErr_Display(type, value, tb);
    if (gPy.PySys_SetObject("stderr", old_stderr.borrow()) != 0) {
        gPy.PyErr_Clear();
    }
    return true;
}

static void log_exception(tSingleDPData* sink, PyObject* file) {
    static constexpr int kTooDeepInTracing = 2;
    tSavedErrno keep_errno;
    PyThreadState* const tstate = borrow_tstate_for_line(sink);
    if (tstate == nullptr || gPy.PyErr_Occurred() == nullptr ||
        get_thread_state_tracing(tstate) >= kTooDeepInTracing) {
        return;
    }
    tInDPrint in_dprint(sink);
    tTracingOff quiet(tstate);
    tOwnedRef held_file(new_ref(file));
    PyObject* type = nullptr;
    PyObject* value = nullptr;
    PyObject* tb = nullptr;
    gPy.PyErr_Fetch(&type, &value, &tb);
    // deliberate: on the shared sink the guard is up already and swallows this header; only for
    // another sink does it come through
    DPRINTF(kLogCore, "EXCEPTION IN DEBUG TRACER:\n");
    gPy.PyErr_NormalizeException(&type, &value, &tb);
    if (!display_exception(file, type, value, tb)) {
        in_dprint.leave_up();  // deliberate: from now on this sink writes no line
    }
    gPy.PyErr_Restore(type, value, tb);
}

TDBG_API void do_dlogexception() {
    if (gDPrintfFile != nullptr) {
        log_exception(borrow_shared_sink(), gDPrintfFile);
    }
}

TDBG_API void do_dp_logexception(tSingleDPData* sink) {
    if (valid_single_dp_py_file(sink)) {
        log_exception(sink, sink->file_obj);
    }
}

void log_failure_keep_error(const char* text) {
    DPRINTF(kLogInternalFailures, "%s", text);
    do_dlogexception();
}

void log_failure(const char* text) {
    log_failure_keep_error(text);
    gPy.PyErr_Clear();
}

TDBG_API void do_dprintf_repr(tDPrintfLogMask kind,
                              const char* prefix,
                              PyObject* obj,
                              const char* suffix) {
    if (gDPrintfFile == nullptr || (gDPrintfMask & kind) == 0) {
        return;
    }
    tSavedErrno keep_errno;
    tSingleDPData* const sink = borrow_shared_sink();
    PyThreadState* const tstate = borrow_tstate_for_line(sink);
    if (tstate == nullptr) {
        return;
    }
    // deliberate: the guard is up before the line is written, so the line never comes out; what
    // stays is that repr() runs and that its failure leaves no exception
    tInDPrint in_dprint(sink);
    tTracingOff quiet(tstate);
    tSavedError saved;
    tOwnedRef repr(gPy.PyObject_Repr(obj));
    if (repr) {
        do_dprintf(kind, "%s%s%s", prefix, dprint_check_pystr(repr.borrow()), suffix);
        return;
    }
    do_dprintf(kind, "%s", "exception getting repr in DPRINTF_REPR\n");
    do_dlogexception();
    gPy.PyErr_Clear();
}

// Native output.

// Bytes written; a descriptor that takes no more ends it early.
static ssize_t write_all(int fileno, const char* text) {
    tSavedErrno keep_errno;
    const size_t size = strlen(text);
    size_t done = 0;
    while (done < size) {
        const ssize_t written = write(fileno, text + done, size - done);
        if (written > 0) {
            done += static_cast<size_t>(written);
        } else if (written == 0 || errno != EINTR) {
            break;
        }
    }
    return static_cast<ssize_t>(done);
}

TDBG_API void dprint_no_tstate(tDPrintfLogMask kind, const char* text) {
    if ((gDPrintfMask & kind) != 0 && gDPrintfNativeFileno != -1) {
        write_all(gDPrintfNativeFileno, text);
    }
}

TDBG_API ssize_t write_str_to_native_file(tSingleDPData* sink, const char* text) {
    return valid_single_dp_native_file(sink) ? write_all(sink->fileno, text) : 0;
}

TDBG_API void do_dp_no_py_v(tSingleDPData* sink, const char* format, va_list vargs) {
    if (!valid_single_dp_native_file(sink)) {
        return;
    }
    tSavedErrno keep_errno;
    char* text = nullptr;
    if (vasprintf(&text, format, vargs) < 0) {
        write_str_to_native_file(sink, "sprintf_to_malloced_str() failed\n");
        return;
    }
    write_str_to_native_file(sink, text);
    free(text);
}

TDBG_API void do_dp_no_py(tSingleDPData* sink, const char* format, ...) {
    va_list vargs;
    va_start(vargs, format);
    do_dp_no_py_v(sink, format, vargs);
    va_end(vargs);
}

// Arguments for log lines.

static bool has_non_ascii(const char* str) {
    for (; *str != '\0'; ++str) {
        if ((static_cast<unsigned char>(*str) & 0x80u) != 0) {
            return true;
        }
    }
    return false;
}

TDBG_API const char* dprint_check_str(const char* str) {
    if (str == nullptr) {
        return "(NULL)";
    }
    // deliberate: without a log file nobody will write the string, so it is not looked at
    return gDPrintfFile != nullptr && has_non_ascii(str) ? "(non-ascii string)" : str;
}

TDBG_API const char* dprint_check_pystr(PyObject* obj) {
    if (obj == nullptr) {
        return "(NULL PyObject*)";
    }
    const bool is_bytes = is_instance_of(obj, gPy.PyBytes_Type_ptr);
    if (!is_bytes && !is_instance_of(obj, gPy.PyUnicode_Type_ptr)) {
        return "(non-PyString PyObject*)";
    }
    tSavedError saved;  // the exception that the line is about may be pending
    const char* const str = is_bytes ? gPy.PyBytes_AsString(obj) : gPy._PyUnicode_AsString(obj);
    if (str == nullptr) {
        gPy.PyErr_Clear();
    }
    return dprint_check_str(str);
}

// Appends to the frame description, which never grows past its limit.
__attribute__((format(printf, 1, 2))) static void append_to_frame_str1(const char* format, ...) {
    const size_t used = strlen(frame_str1);
    va_list vargs;
    va_start(vargs, format);
    vsnprintf(frame_str1 + used, kDPrintfTextSize - used, format, vargs);
    va_end(vargs);
}

static void append_code(PyCodeObject* code) {
    tOwnedRef name(get_code_name(code));
    tOwnedRef filename(get_code_filename(code));
    if (!name || !filename) {
        log_failure("Failure in append_code_static_str()\n");
        return;
    }
    const Py_ssize_t first_line = get_code_firstlineno(code);
    append_to_frame_str1("%s (%s: %zd)",
                         dprint_check_pystr(name.borrow()),
                         dprint_check_pystr(filename.borrow()),
                         first_line);
}

TDBG_API const char* get_dprintf_frame_str1(PyFrameObject* frame) {
    frame_str1[0] = '\0';
    if (frame == nullptr) {
        return "<NULL>";
    }
    tSavedErrno keep_errno;
    tSavedError saved;
    append_to_frame_str1("line %d of ", get_frame_lineno(frame));
    tOwnedCode code(get_frame_code(frame));
    if (code) {
        append_code(code.borrow());
    } else {
        append_to_frame_str1("<NULL>");
    }
    return frame_str1;
}

static void copy_text(char* buffer, const char* text) {
    const size_t length = strnlen(text, kDPrintfTextLimit);
    memcpy(buffer, text, length);
    buffer[length] = '\0';
}

static void fill_str_with_repr(tDPData* dp, char* buffer, PyObject* obj) {
    PyThreadState* const tstate = borrow_current_thread_state();
    if (tstate == nullptr) {
        copy_text(buffer, "fill_str_with_repr() failed: tstate is NULL");
        return;
    }
    if (dp->shared_single_dp_data.in_dprint_count != 0) {
        copy_text(buffer, "fill_str_with_repr() failed: in_dprint_count is not 0");
        return;
    }
    tSavedErrno keep_errno;
    tTracingOff quiet(tstate);
    tSavedError saved;
    tOwnedRef repr(gPy.PyObject_Repr(obj));
    if (!repr) {
        gPy.PyErr_Clear();
        copy_text(buffer, "exception getting repr in fill_str_with_repr()");
        return;
    }
    copy_text(buffer, dprint_check_pystr(repr.borrow()));
}

TDBG_API const char* get_dprintf_repr_str1(tDPData* dp, PyObject* obj) {
    if (dp == nullptr) {
        dp = &gUnsafeGlobalDPData;
        init_dp_data(dp, 0);
    }
    if (dp->_repr_str1 == nullptr) {
        return "get_dprintf_repr_str1() failure: _repr_str1 is NULL";
    }
    fill_str_with_repr(dp, dp->_repr_str1, obj);
    return dp->_repr_str1;
}

TDBG_API const char* get_dprintf_repr_str2(tDPData* dp, PyObject* obj) {
    if (dp->_repr_str2 == nullptr) {
        // deliberate: not the other function's text, so that a log tells which of the two it was
        return "<error generating repr: no buffer available>";
    }
    fill_str_with_repr(dp, dp->_repr_str2, obj);
    return dp->_repr_str2;
}
