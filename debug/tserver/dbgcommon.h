// dbgcommon.h -- frames, code objects, tracebacks, generators and thread states of any interpreter
// version. No other module touches their fields; the functions here choose per version between a
// field read, an interpreter function and an attribute look-up. Several also take objects that only
// look like frames (a sub-language's): for those it is always the attribute.
// get_... returns a new reference, borrow_... a pointer that is good while the owner holds it.
// Failures are answered with null, -1 or 0 after a log line; no exception is left pending except
// where a function says so.
#pragma once

#include "xpy_c_api.h"

// A program that embeds Python may end the interpreter and start it again: this counts the
// interpreters that have loaded the module. What an earlier one left is neither used nor released;
// its memory is gone.
extern int gInterpreterLife;

// An attribute name made on first use and kept for the life of the interpreter.
struct tNameCache {
    PyObject* obj;
    int life;  // of gInterpreterLife
};

// Native string for text: from the cache, made on first use. Borrowed; null with an exception set.
PyObject* borrow_name(tNameCache* cache, const char* text);

// New ref; null with an exception set.
PyObject* new_int(Py_ssize_t value);
PyObject* new_native_string(const char* text);
// The number of a Python int (a long too on Python 2); -1 with an exception set when it is none.
Py_ssize_t int_from_object(PyObject* obj);

// Symbol in the process's own namespace, whatever library the binding uses; null when absent.
TDBG_API void* lookup_python_function(const char* name);

// callable(a, ...): new ref; null with the exception set. A null argument is passed as None.
TDBG_API PyObject* do_one_arg_call(PyObject* callable, PyObject* a);
TDBG_API PyObject* do_two_arg_call(PyObject* callable, PyObject* a, PyObject* b);
TDBG_API PyObject* do_three_arg_call(PyObject* callable, PyObject* a, PyObject* b, PyObject* c);

// Frames.
TDBG_API PyFrameObject* get_frame_back(PyFrameObject* frame);  // new ref; null = outermost
TDBG_API int is_outermost_frame(PyFrameObject* frame);
TDBG_API int get_frame_lineno(PyFrameObject* frame);  // -1 = unknown
TDBG_API int get_frame_iblock(PyFrameObject* frame);  // -1 = frames have none (3.11 and later)
TDBG_API PyCodeObject* get_frame_code(PyFrameObject* frame);   // new ref or null
TDBG_API PyObject* get_frame_generator(PyFrameObject* frame);  // new ref; null = no generator
TDBG_API PyObject* get_frame_builtins(PyFrameObject* frame);   // new ref
TDBG_API PyObject* get_frame_globals(PyFrameObject* frame);    // new ref or null
TDBG_API PyObject* get_frame_locals(PyFrameObject* frame);     // new ref or null
TDBG_API PyObject* borrow_frame_trace(PyFrameObject* frame);   // borrowed; null also for None
TDBG_API void set_frame_trace(PyFrameObject* frame, PyObject* trace);  // null and None = no object
TDBG_API int is_frame_trace_lines_supported();
// 0 = done or not supported, -1 = failed with an exception set.
TDBG_API int set_frame_trace_lines(PyFrameObject* frame, int flag);
TDBG_API PyObject* get_frame_filename(PyFrameObject* frame);   // new ref or null
TDBG_API PyObject* get_frame_code_name(PyFrameObject* frame);  // new ref; None without code
// 1 when the frame belongs to a suspended generator, else 0. Up to 3.9 one not yet started counts
// as well, on 3.10 one that is running.
TDBG_API int get_frame_suspended_generator(PyFrameObject* frame);

// Tracebacks.
TDBG_API PyFrameObject* borrow_traceback_frame(PyObject* tb);  // null unless a real frame
TDBG_API PyFrameObject* get_traceback_frame(PyObject* tb);     // new ref; null unless a real frame
TDBG_API PyObject* borrow_traceback_next(PyObject* tb);        // null unless a traceback

// Code objects.
TDBG_API PyObject* borrow_code_name(PyCodeObject* co);
TDBG_API PyObject* borrow_code_filename(PyCodeObject* co);
TDBG_API PyObject* get_code_name(PyCodeObject* co);      // new ref or null
TDBG_API PyObject* get_code_filename(PyCodeObject* co);  // new ref or null
TDBG_API int get_code_firstlineno(PyCodeObject* co);     // -1 with the exception still pending

// Generators.
TDBG_API int get_generator_suspended(PyObject* gen);  // 1, 0, or -1 with the exception pending
// Truth of obj.name: 1, 0, or -1 with the exception pending. The name object lives in the cache.
TDBG_API int get_bool_attrib(PyObject* obj, const char* name, PyObject** cached_name_obj);

// Strings and objects.
TDBG_API int string_objects_equal(PyObject* a, PyObject* b);  // 0 also when one is no string
TDBG_API int pyobjects_equal(PyObject* a, PyObject* b);       // 1, 0, -1 with an exception set
TDBG_API PyObject* get_imported_module(const char* name);     // new ref; null = not in sys.modules
// UTF-8 text of a string object, borrowed from it; null (logged) when it has none.
TDBG_API const char* _pystring_to_c_string(PyObject* obj);
TDBG_API char* _pystring_to_c_string_copy(PyObject* obj);  // caller frees; null as above

// Thread states. A state other than the caller's own is only looked at while its thread cannot run.
// The running thread's state, borrowed; null, where the interpreter's own function would abort the
// process, when there is none.
PyThreadState* borrow_current_thread_state();

TDBG_API PyFrameObject* get_thread_state_frame(PyThreadState* tstate);  // new ref or null
TDBG_API int get_stack_depth(PyThreadState* tstate);                    // null = the current one
TDBG_API PyObject* borrow_thread_state_traceobj(PyThreadState* tstate);
TDBG_API PyInterpreterState* borrow_thread_state_interp(PyThreadState* tstate);
bool is_main_interpreter();  // the running thread is in no subinterpreter; true before 3.7
TDBG_API unsigned long get_thread_state_thread_id(PyThreadState* tstate);
TDBG_API int get_thread_state_use_tracing(PyThreadState* tstate);  // 1 where there is no such field
TDBG_API void set_thread_state_use_tracing(PyThreadState* tstate, int value);
TDBG_API int get_thread_state_tracing(PyThreadState* tstate);
// The tracing counter, always through the interpreter, whose bookkeeping hangs on it.
TDBG_API void increment_thread_state_tracing(PyThreadState* tstate);
TDBG_API void decrement_thread_state_tracing(PyThreadState* tstate);
TDBG_API void add_to_thread_state_tracing(PyThreadState* tstate, int n);
// C trace function of the caller's own thread or, on 3.10 - 3.12, any other. Null func removes it.
// 0 = done, -1 = this version cannot, other = what the interpreter answered (logged, cleared).
TDBG_API int set_thread_state_trace_cfunc(PyThreadState* tstate, Py_tracefunc func, PyObject* obj);
// The same for another thread before 3.10 or where there is no interpreter lock, past the
// interpreter's functions. Whether it was done: not where an audit hook refuses, the thread has
// ended, or `from` is given and not its trace object.
bool move_trace_cfunc_into_thread(PyThreadState* other,
                                  Py_tracefunc func,
                                  PyObject* obj,
                                  const PyObject* from = nullptr);
// The head of the interpreter's list. Without an interpreter lock: only while the others halt.
PyThreadState* borrow_first_thread_state();
// Number of the event being dispatched; -1 before 3.12.
TDBG_API int get_thread_state_what_event(PyThreadState* tstate);
