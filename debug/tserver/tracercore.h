// tracercore.h -- the heart: what happens on a trace event, when the program stops, and how tracing
// is switched on and off. All state is in one record, gSelf, which owns its tables and callbacks.
// Everything here runs with the interpreter lock held. One more lock, the debug-server mutex, makes
// calls into the debug server one at a time; a thread that has to wait for it gives the interpreter
// lock away meanwhile. Order: interpreter lock first, then the server mutex.
#pragma once

#include "bpops.h"
#include "conames.h"
#include "dbgtracerhash.h"
#include "exceptops.h"
#include "fileops.h"
#include "idlethread.h"
#include "threadops.h"
#include "xpy_c_api.h"

struct tTracerData {
    int tracing;                // tracing is on; every dispatch asks again
    uint64_t idle_period;       // ticks (whole seconds) between idle calls; 0 = none
    int idling;                 // the idle callback runs
    int exception_mode;         // 0 never, 1 always, 2 unhandled; 4 and 5 also ask who prints
    int autoquit;               // call quit_cb when a bottom frame is left
    int debug_all_threads;      // 0: while one thread is stopped the others run untraced
    PyObject* debug_thread_cb;  // owned; null = debug every thread
    CUt_HashTable thread_data;  // PyThreadState* -> tThreadData*
    PyThread_type_lock mutex;   // the debug-server mutex
    long mutex_thread_id;       // its holder; -1 = free
    PyObject* install_thread_hooks_cb;  // owned
    PyObject* get_checksum_cb;          // owned
    PyObject* idle_cb;                  // owned
    PyObject* line_cb;                  // owned
    PyObject* return_cb;                // owned
    PyObject* exception_cb;             // owned
    PyObject* quit_cb;                  // owned
    PyObject* internal_modules_map;     // owned dict; keys: full paths of the debugger's own files
    PyObject* trace_module;             // owned
    PyObject* trace_function;           // owned; the trace object of threads and frames
    PyObject* sys_settrace;             // owned
    int idle_instruction_count;         // events since the last idle call
    int idle_instruction_threshold;     // events before the clock is asked
    uint64_t idle_time_threshold;       // tick from which the next idle call is due
    CUt_HashTable exception_filters;    // location number -> tExcFilter*
    PyObject* catch_all_code_objects;   // owned or null
    tFileOpsData* file_ops_data;        // owned
    tBpOpsData bp_ops_data;
    PyObject* newly_imported_module_files;  // owned list of full paths
    PyObject* import_hook;                  // owned; null = not installed
    PyObject* default_import;               // owned
    PyObject* import_cb;                    // owned, may be None
    boolean import_cb_active;
    int import_level;  // nesting depth of the import hook
    tCOPathnameTable co_pathname_table;
    PyObject* always_stop_excepts;         // owned tuple or null
    PyObject* never_stop_excepts;          // owned tuple or null
    int sub_language_hooks;                // 1 once a hook was registered
    PyObject* sub_language_pending_hooks;  // owned list or null
    PyObject* sub_language_markers;        // owned dict: marker code -> hook
    PyObject* sub_language_module_paths;   // owned dict: hook -> list of (prefix, flag)
    PyObject* sub_language_code_objects;   // owned dict: key code -> hook
    CUt_HashTable sub_language_cache;      // PyCodeObject* -> long
    int stat_instructions;                 // dispatched events
    int stat_imports;
    pid_t pid;  // process whose events count; a forked child's do not until fork_ok
    tExcData exc_data;
    int pending_exc_count;            // threads with an injected exception waiting
    int thread_f_trace_update_count;  // threads with need_f_trace_update set
    int use_eval_frame;
    tEvalFrameNoThreadState default_eval_frame_no_thread_state;  // non-null = hook installed
    tEvalFrameWithThreadState default_eval_frame_with_thread_state;
    tEvalFrameInterpreterFrame default_eval_frame_py_interpreter_frame;
    tIdleThreadPerInterpData global_idle_thread_data;
    boolean save_and_restore_errno;
};

TDBG_API tTracerData gSelf;

// One per dispatch, on the stack.
struct tDispatchCtx {
    PyFrameObject* frame;      // borrowed
    int what;                  // tTraceEvent
    PyObject* arg;             // borrowed; see tTraceEvent
    tThreadData* thread_data;  // borrowed
    int mutex_acquired;        // this dispatch took the server mutex and gives it back at its end
    int stop_trace;            // take tracing off the thread after the dispatch
    int propagate_exception;   // let the pending exception go into the program
};

// ---- Life cycle (tracercore.cpp) ----

// Before the module is created in an interpreter that the process has started after the end of
// another: leaves alone (and so leaks) what belonged to the first.
void forget_ended_interpreter();
// Once, at module creation. 0, or -1 when the file data cannot be made.
TDBG_API int init_tracercore();
// 1, or 0 with an exception set. 1 with an AssertionError pending: default_import is our own hook.
TDBG_API int __tracer_init(PyObject* module,
                           float idle_period,
                           int exception_mode,
                           PyObject* install_thread_hooks_cb,
                           PyObject* get_checksum_cb,
                           PyObject* idle_cb,
                           PyObject* line_cb,
                           PyObject* return_cb,
                           PyObject* exception_cb,
                           PyObject* quit_cb,
                           PyObject* import_cb,
                           PyObject* default_import,
                           PyObject* internal_modules_map);
TDBG_API void __tracer_reset();
TDBG_API void __tracer_destroy();
// A forked child that is to stay under the debugger.
TDBG_API void __tracer_fork_ok();
TDBG_API pid_t tracer_get_pid();
TDBG_API uint64_t get_ticks();  // whole seconds of the wall clock
TDBG_API uint64_t get_ticks_per_second();

// ---- Dispatch (tracercore_dispatch.cpp, tracercore_events.cpp) ----

// The interpreter's trace function. 0, or -1 with an exception for the program.
TDBG_API int c_dispatch(PyObject* obj, PyFrameObject* frame, int what, PyObject* arg);
TDBG_API int inner_dispatch(tDispatchCtx* ctx);
TDBG_API int time_for_idle_call(int check_line_count);
TDBG_API int ignored_top_level_exception(PyFrameObject* frame);
TDBG_API int stop_at_exception_no_filters(PyFrameObject* frame, PyObject* exc_type);
TDBG_API int do_exception_callback_if_not_filtered(PyFrameObject* frame, PyObject* exc_info);
// New ref: "Class.function" or the code's name; null (logged) on failure.
TDBG_API PyObject* __get_thread_name(PyFrameObject* frame);

// ---- Stop decision and stepping (tracercore_step.cpp) ----

// event_type: -1 exception, 0 call, 1 line, 2 return.
TDBG_API int __tracer_stop_here_without_mutex(tDispatchCtx* ctx, int event_type);
// Shows the innermost frame of the calling thread to the debug server. 0, or -1 with an exception.
TDBG_API int tracer_break_at_current_line(int obtain_mutex);

// ---- Installation (tracercore_install.cpp, tracercore_evalframe.cpp) ----

TDBG_API int __tracer_start_trace();  // 1; 0 with an exception set (interpreter not supported)
TDBG_API void __tracer_stop_trace();
TDBG_API void install_start_thread_hooks(int install);  // an exception of the callback stays set
TDBG_API void install_tracer_into_frames(PyThreadState* tstate);
TDBG_API void remove_tracer_from_frames(PyThreadState* tstate);
TDBG_API int set_tstate_trace_function(PyThreadState* tstate, tThreadData* thread_data);
TDBG_API int update_f_trace(PyFrameObject* frame, tThreadData* thread_data);
TDBG_API int update_all_f_trace_in_stack(PyFrameObject* frame, tThreadData* thread_data);
TDBG_API int update_all_f_trace_in_thread(PyThreadState* tstate, tThreadData* thread_data);
TDBG_API int schedule_f_trace_update();  // 0, or -1
TDBG_API int sync_update_f_trace_in_all_threads();
TDBG_API void update_f_trace_lines_in_other_leaf_frames();
TDBG_API PyObject* call_sys_current_frames();  // new ref, null after logging
TDBG_API void initial_module_scan();
TDBG_API void initial_frame_scan();
TDBG_API void update_eval_frame();
TDBG_API void tracer_set_use_eval_frame(int flag);
TDBG_API PyObject* briodb_eval_frame_with_thread_state(PyThreadState* tstate,
                                                       PyFrameObject* frame,
                                                       int throw_flag);
TDBG_API PyObject* briodb_eval_frame_no_thread_state(PyFrameObject* frame, int throw_flag);
TDBG_API PyObject* briodb_eval_frame_py_interpreter_frame(PyThreadState* tstate,
                                                          PyInterpreterFrame* frame,
                                                          int throw_flag);

// ---- Debug-server mutex (tracercore_mutex.cpp) ----

// 1 = held (counted), 0 = failed. May give the interpreter lock away while it waits.
TDBG_API int acquire_dbgserver_mutex(tThreadData* thread_data);
TDBG_API void release_dbgserver_mutex(tThreadData* thread_data);
TDBG_API int dbgserver_mutex_held(tThreadData* thread_data);
TDBG_API int dispatch_ctx_acquire_mutex(tDispatchCtx* ctx);
// Checksum of a file as the debug server computes it: new ref, None when there is none.
TDBG_API PyObject* call_get_checksum_cb(const char* file_name);

// ---- Threads, imports, modules (tracercore_threads.cpp, tracercore_imports.cpp) ----

TDBG_API int __should_debug_thread(tThreadData* thread_data);
// From now on the callback, any object, decides on each thread; the earlier answers are forgotten.
void set_debug_thread_cb(PyObject* callback);
// Brings the calling thread under the tracer if it is not; true when it is traced afterwards.
bool adopt_current_thread(PyThreadState* tstate);
// Full path, borrowed; null when there is none. What import_cb raised stays set.
TDBG_API const char* register_module_direct(PyObject* module);
TDBG_API void __call_import_cb(PyObject* module);  // an exception of the callback stays set
TDBG_API int __tracer_top_level_call(PyFrameObject* frame);  // 0, or -1
TDBG_API int is_internal_frame(PyFrameObject* frame);
TDBG_API int is_module_toplevel_frame(PyFrameObject* frame);

// ---- Sub-languages (tracercore_sublanguage.cpp) ----

// 1 key frame, 0 hidden implementation frame, -1 ordinary frame.
TDBG_API int __tracer_sub_language_get_frame_category(tThreadData* thread_data,
                                                      PyFrameObject* frame);
TDBG_API long __tracer_sub_language_in_impl(tThreadData* thread_data, PyFrameObject* frame);
TDBG_API int __tracer_load_sub_language_frames(PyObject* hook);

// ---- Functions of the module that belong to the core: new ref, or null with an exception ----

TDBG_API PyObject* _tracer_trace_dispatch(PyObject* self, PyObject* args);
TDBG_API PyObject* _tracer_bootstrap_new_thread(PyObject* self, PyObject* args);
TDBG_API PyObject* _tracer_thread_exiting(PyObject* self, PyObject* args);
TDBG_API PyObject* _tracer_import_hook(PyObject* self, PyObject* args, PyObject* kw);
TDBG_API PyObject* _tracer_step_over(PyObject* self, PyObject* args);
PyObject* _tracer_reset(PyObject* self, PyObject* args);
PyObject* _tracer_destroy(PyObject* self, PyObject* args);
PyObject* _tracer_start_trace(PyObject* self, PyObject* args);
PyObject* _tracer_stop_trace(PyObject* self, PyObject* args);
PyObject* _tracer_get_tracing(PyObject* self, PyObject* args);
PyObject* _tracer_step_into(PyObject* self, PyObject* args);
PyObject* _tracer_step_over_line(PyObject* self, PyObject* args);
PyObject* _tracer_step_over_line_range(PyObject* self, PyObject* args);
PyObject* _tracer_step_out(PyObject* self, PyObject* args);
PyObject* _tracer_step_out_to_frame(PyObject* self, PyObject* args);
PyObject* _tracer_continue_run(PyObject* self, PyObject* args);
PyObject* _tracer_stop(PyObject* self, PyObject* args);
PyObject* _tracer_get_threads(PyObject* self, PyObject* args);
PyObject* _tracer_get_curr_frame(PyObject* self, PyObject* args);
PyObject* _tracer_get_thread_name(PyObject* self, PyObject* args);
PyObject* _tracer_is_botframe(PyObject* self, PyObject* args);
PyObject* _tracer_acquire_dbgserver_mutex(PyObject* self, PyObject* args);
PyObject* _tracer_release_dbgserver_mutex(PyObject* self, PyObject* args);
PyObject* _tracer_is_dbgserver_mutex_held(PyObject* self, PyObject* args);
PyObject* _tracer_register_module(PyObject* self, PyObject* args);
PyObject* _tracer_get_new_imports(PyObject* self, PyObject* args);
PyObject* _tracer_register_sub_language_hook(PyObject* self, PyObject* args);
PyObject* _tracer_sub_language_get_active_hook(PyObject* self, PyObject* args);
PyObject* _tracer_sub_language_get_frame_category(PyObject* self, PyObject* args);
PyObject* _tracer_is_internal_frame(PyObject* self, PyObject* args);
