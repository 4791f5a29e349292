// dprintf.h -- the diagnostic log: masked lines written through the interpreter to a Python file
// object, and a plain road to a native file descriptor for code that runs without a thread state.
// Writing a line never disturbs the debuggee: its pending exception and errno are kept, no trace
// events come from the Python code that runs for the log, and a line never nests in a line.
// gDPrintfFile is the master switch: with no log file a log call costs one load and one test.
#pragma once

#include <stdarg.h>

#include "xpy_c_api.h"

enum tDPrintfLogMask : int {
    kLogOther = 1 << 0,                       // anything else
    kLogFilenames = 1 << 1,                   // file-name and path resolution
    kLogCore = 1 << 2,                        // the core's progress
    kLogBreakpoints = 1 << 3,                 // breakpoint handling
    kLogExceptions = 1 << 4,                  // exception analysis and filtering
    kLogIO = 1 << 5,                          // file and buffer helpers
    kLogInternalFailures = 1 << 6,            // a failed interpreter call, a missing record
    kLogThreading = 1 << 7,                   // thread table and idle thread
    kLogInitialMonitoringCallbacks = 1 << 8,  // first-stage event callbacks
    kLogSecondMonitoringCallbacks = 1 << 9,   // second-stage event callbacks
};

inline constexpr tDPrintfLogMask kDefaultLogMask =
    static_cast<tDPrintfLogMask>(kLogCore | kLogExceptions | kLogInternalFailures);

// Room for a frame or repr description, without and with its final zero.
inline constexpr size_t kDPrintfTextLimit = 4000;
inline constexpr size_t kDPrintfTextSize = kDPrintfTextLimit + 1;

// One log sink.
struct tSingleDPData {
    int initialized;
    PyObject* file_obj;   // owned; null or None = no Python file
    int fileno;           // native descriptor; -1 = none
    void* win32_handle;   // native handle where systems use them, only stored; 0 = none
    int in_dprint_count;  // re-entrancy guard: not 0 while a line is being written
};

// A sink set: one real sink, and a pointer to it per category that is switched on. A null category
// pointer makes do_dp a no-op, so that do_dp(dp->core, ...) writes only when it should.
struct tDPData {
    int initialized;
    tDPrintfLogMask mask;
    tSingleDPData shared_single_dp_data;
    tSingleDPData* core;  // this and the next five: &shared_single_dp_data or null
    tSingleDPData* filenames;
    tSingleDPData* internal_failures;
    tSingleDPData* threading;
    tSingleDPData* initial_monitoring_callbacks;
    tSingleDPData* second_monitoring_callbacks;
    char* _repr_str1;  // owned, kDPrintfTextSize bytes; null when out of memory
    char* _repr_str2;  // the same, for the second repr of a line
};

TDBG_API tDPrintfLogMask gDPrintfMask;  // active mask, at first kDefaultLogMask
TDBG_API PyObject* gDPrintfFile;        // owned; null = the log is off
TDBG_API int gDPrintfNativeFileno;      // -1 = none
TDBG_API tDPData gUnsafeGlobalDPData;   // the shared sink set, set up on first use, never freed

// Settings. set_dprintf_file takes its own reference; null or None switches the log off altogether,
// whatever fileno says.
TDBG_API void set_dprintf_mask(tDPrintfLogMask mask);
TDBG_API tDPrintfLogMask get_dprintf_mask();
void forget_log_files();  // they were those of an interpreter that has ended
TDBG_API void set_dprintf_file(PyObject* file, int fileno, void* win32_handle);

// Sink sets. init_dp_data does nothing to a set that is initialised unless force is not 0.
TDBG_API void init_dp_data(tDPData* dp, int force);
TDBG_API tDPData* create_dp_data();  // caller frees with free_dp_data; null when out of memory
TDBG_API void clear_dp_data(tDPData* dp);
TDBG_API void free_dp_data(tDPData* dp);  // null is ignored
TDBG_API void set_dp_data_mask(tDPData* dp, tDPrintfLogMask mask);
TDBG_API tDPrintfLogMask get_dp_data_mask(tDPData* dp);
TDBG_API void set_dp_data_file_obj(tDPData* dp, PyObject* file_obj, int fileno, void* win32_handle);

// 1 when the sink can be written to that way, else 0. Null is not valid.
TDBG_API int valid_single_dp_py_file(const tSingleDPData* sink);
TDBG_API int valid_single_dp_native_file(const tSingleDPData* sink);
TDBG_API int valid_dp_py_file(const tDPData* dp);
TDBG_API int valid_dp_native_file(const tDPData* dp);

// One log line through the interpreter; the format is the interpreter's FromFormat dialect and ends
// in "\n", kind is one bit. do_dp writes to a sink's file object when the sink is not null. Without
// a current thread state they write nothing.
TDBG_API void do_dprintf(tDPrintfLogMask kind, const char* format, ...)
    __attribute__((format(printf, 2, 3)));
TDBG_API void do_dp(tSingleDPData* sink, const char* format, ...)
    __attribute__((format(printf, 2, 3)));
TDBG_API void do_dp_v(tSingleDPData* sink, const char* format, va_list vargs);

// prefix, repr(obj), suffix as one line.
TDBG_API void do_dprintf_repr(tDPrintfLogMask kind,
                              const char* prefix,
                              PyObject* obj,
                              const char* suffix);

// The pending exception with its traceback; it stays pending.
TDBG_API void do_dlogexception();
TDBG_API void do_dp_logexception(tSingleDPData* sink);

// How every module logs: evaluates nothing while the log is off, so arguments have no side effects.
#define DPRINTF(kind, ...)                 \
    do {                                   \
        if (gDPrintfFile != nullptr) {     \
            do_dprintf(kind, __VA_ARGS__); \
        }                                  \
    } while (0)

// An internal failure: text, to the letter, under kLogInternalFailures, then the pending exception;
// log_failure clears the exception, log_failure_keep_error leaves it pending.
void log_failure(const char* text);
void log_failure_keep_error(const char* text);

// No GIL: neither thread state nor interpreter is touched, the re-entrancy guard is not looked at.
TDBG_API void dprint_no_tstate(tDPrintfLogMask kind, const char* text);
TDBG_API void do_dp_no_py(tSingleDPData* sink, const char* format, ...)
    __attribute__((format(printf, 2, 3)));
TDBG_API void do_dp_no_py_v(tSingleDPData* sink, const char* format, va_list vargs);
// Number of bytes written; 0 for a sink that is null or not a valid native one.
TDBG_API ssize_t write_str_to_native_file(tSingleDPData* sink, const char* text);

// Arguments for log lines: never null; borrowed from their object or valid until the next call.
TDBG_API const char* dprint_check_str(const char* str);
TDBG_API const char* dprint_check_pystr(PyObject* obj);
TDBG_API const char* get_dprintf_frame_str1(PyFrameObject* frame);
TDBG_API const char* get_dprintf_repr_str1(tDPData* dp, PyObject* obj);  // null dp = the shared set
TDBG_API const char* get_dprintf_repr_str2(tDPData* dp, PyObject* obj);
