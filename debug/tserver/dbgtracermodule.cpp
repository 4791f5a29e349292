// The module's creation, init() and the method table.
#include "dbgtracermodule.h"

#include <stdio.h>

#include <utility>

#include "corelock.h"
#include "dbgtracermodule_internal.h"
#include "dprintf.h"
#include "ioops.h"
#include "threadops.h"

constinit PyObject* gModuleSelf = nullptr;
constinit PyTypeObject* gTupleType = nullptr;
constinit PyTypeObject* gFrameType = nullptr;
constinit PyTypeObject* gListType = nullptr;

static constinit bool gInitialized = false;  // init() has succeeded

bool is_initialized() {
    return gInitialized;
}

bool check_initialized() {
    if (!gInitialized) {
        gPy.PyErr_SetString(gPy.PyExc_RuntimeError,
                            "The tracer is not initialized; call init() first");
    }
    return gInitialized;
}

// ---- init() ----

enum tInitCallback : int {
    kInstallThreadHooks,
    kGetChecksum,
    kIdle,
    kLine,
    kReturn,
    kException,
    kQuit,
    kImport,
    kDefaultImport,
    kInternalModules,
    kInitObjectCount,
};

static const char* const kInitMessages[kInitObjectCount] = {
    "install_thread_hooks_cb must be callable",
    "get_checksum_cb must be callable",
    "idle_cb must be callable",
    "line_cb must be callable",
    "return_cb must be callable",
    "exception_cb must be callable",
    "quit_cb must be callable",
    "import_cb must be None or callable",
    "default_import must be callable",
    "internal_modules_map must be a dict",
};

static bool is_good_init_object(int which, PyObject* obj) {
    if (which == kInternalModules) {
        return is_instance_of(obj, gPy.PyDict_Type_ptr);
    }
    return (which == kImport && obj == gPy.Py_None) || gPy.PyCallable_Check(obj) != 0;
}

static bool check_init_objects(PyObject* const* objects) {
    for (int i = 0; i < kInitObjectCount; i += 1) {
        if (!is_good_init_object(i, objects[i])) {
            gPy.PyErr_SetString(gPy.PyExc_TypeError, kInitMessages[i]);
            return false;
        }
    }
    return true;
}

// ---- Interpreters ----
// The tracer serves one interpreter at a time: the one that called init() last.

// Its sys.modules, owned: no other interpreter has that one, while an interpreter's own address may
// be that of one that has ended. Null = none yet.
static constinit PyObject* gOwnerModules = nullptr;
static constinit PyInterpreterState* gOwner = nullptr;

static bool is_alive(const PyInterpreterState* wanted) {
    using tHead = PyInterpreterState* (*)();
    using tNext = PyInterpreterState* (*)(PyInterpreterState*);
    const auto head = reinterpret_cast<tHead>(XPy_LookupPythonFunction("PyInterpreterState_Head"));
    const auto next = reinterpret_cast<tNext>(XPy_LookupPythonFunction("PyInterpreterState_Next"));
    if (head == nullptr || next == nullptr) {
        gPy.PyErr_Clear();
        return false;
    }
    PyInterpreterState* interp = head();
    while (interp != nullptr && interp != wanted) {
        interp = next(interp);
    }
    return interp != nullptr;
}

static void begin_new_life() {
    forget_ended_interpreter();
    gOwnerModules = nullptr;
    gInitialized = false;
    gInterpreterLife += 1;
}

static void create_core() {
    init_threadops();
    init_tracercore();
}

// Before init(). False with an exception set when another interpreter is being traced.
static bool serve_this_interpreter() {
    PyInterpreterState* const interp = borrow_thread_state_interp(gPy.PyThreadState_Get());
    PyObject* const modules = gPy.PySys_GetObject("modules");
    // None at all, where the program took them away, tells nothing.
    if (modules != nullptr && gOwnerModules != nullptr && gOwnerModules != modules) {
        if (interp == gOwner || !is_alive(gOwner)) {
            begin_new_life();
            create_core();
        } else if (gSelf.tracing) {
            gPy.PyErr_SetString(gPy.PyExc_RuntimeError,
                                "The tracer is in use in another interpreter of this process");
            return false;
        } else {
            forget_code_extra_index();  // each interpreter hands out its own
        }
    }
    update_interpreter_lock();
    gOwner = interp;
    if (modules != nullptr) {
        set_owned(&gOwnerModules, new_ref(modules));
    }
    return true;
}

// The import goes on without the core when there is no memory for it. False with an exception set
// when there still is none.
static bool make_sure_of_core() {
    if (gSelf.file_ops_data != nullptr || init_tracercore() == 0) {
        return true;
    }
    gPy.PyErr_SetString(gPy.PyExc_MemoryError, "Out of memory");
    return false;
}

// A subinterpreter that imports the module gets one of its own, without a call of ours. Looked up,
// not imported: an import may be a function of the program's.
static PyObject* get_own_module() {  // new ref
    tOwnedRef module(get_imported_module("tdbgtracer"));
    const bool is_module = is_instance_of(module.borrow(), gPy.PyModule_Type_ptr);
    return is_module ? module.give_away() : new_ref(gModuleSelf);  // loaded under another name
}

static int init_core(float idle_period, int exception_mode, PyObject* const* o) {
    tOwnedRef module(get_own_module());
    return __tracer_init(module.borrow(),
                         idle_period,
                         exception_mode,
                         o[kInstallThreadHooks],
                         o[kGetChecksum],
                         o[kIdle],
                         o[kLine],
                         o[kReturn],
                         o[kException],
                         o[kQuit],
                         o[kImport],
                         o[kDefaultImport],
                         o[kInternalModules]);
}

PyObject* _tracer_init(PyObject* /*self*/, PyObject* args) {
    DPRINTF(kLogCore, "STARTING DBGTRACER INIT\n");
    fflush(stdout);
    fflush(stderr);
    float idle_period = 0;
    int exception_mode = 0;
    PyObject* o[kInitObjectCount] = {};
    if (!gPy.PyArg_ParseTuple(args,
                              "fiOOOOOOOOOO:tracer_init",
                              &idle_period,
                              &exception_mode,
                              &o[kInstallThreadHooks],
                              &o[kGetChecksum],
                              &o[kIdle],
                              &o[kLine],
                              &o[kReturn],
                              &o[kException],
                              &o[kQuit],
                              &o[kImport],
                              &o[kDefaultImport],
                              &o[kInternalModules]) ||
        !check_init_objects(o) || !serve_this_interpreter() || !make_sure_of_core() ||
        !init_core(idle_period, exception_mode, o)) {
        return nullptr;
    }
    gInitialized = true;
    DPRINTF(kLogCore, "DONE WITH INIT DBGTRACER\n");
    // An exception here is the import hook's: the tracer is initialised, but without the hook.
    return none_unless_error();
}

// ---- Method table ----

static PyObject* import_hook_after_init(PyObject* self, PyObject* args, PyObject* kw) {
    return check_initialized() ? _tracer_import_hook(self, args, kw) : nullptr;
}

// The interpreter keeps functions with keywords under the type of those without, too. A macro: a
// function could not be evaluated before load time, and nothing of ours runs then.
#define AS_CFUNCTION(function) reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(function))

// deliberate: some formats, and so the interpreter's messages, name another function than their
// own, and is_internal_frame has the doc string of get_thread_ident_for_tstate_id.
PyMethodDef TracerMethods[] = {
    {"init",
     _tracer_init,
     kMethVarArgs,
     "Initialize the tracer:  This must be called before using other\n"
     "functions in this module!  Pass in: idle period, \n"
     "exception mode (0=never stop, 1=always stop, 2=stop on unhandled only),\n"
     "install thread hooks callback, get file checksum callback, idle callback, line "
     "callback, return callback,\n"
     "and exception callback.\n"
     "Currently there is also a default_import parameter which should get\n"
     "__builtins__['__import__'] until we can access this correctly on the C side"},
    {"reset",
     after_init<_tracer_reset>,
     kMethVarArgs,
     "Reset the debug tracer core to blank initial state"},
    {"destroy",
     after_init<_tracer_destroy>,
     kMethVarArgs,
     "Clear all info from the tracer core and reset environment to initial state"},
    {"set_autoquit",
     set_field<"i:set_autoquit", int, &gSelf.autoquit>,
     kMethVarArgs,
     "Set the autoquit flag.  Set autoquit to 0 to prevent automatic\n"
     "dropping of the debug connection when the bottom frame is reached (as\n"
     "should be done in embedded scripting, where the bottom frame is\n"
     "just the end of a single script invocation)."},
    {"set_idle_period",
     _tracer_set_idle_period,
     kMethVarArgs,
     "Set the idle period (in seconds):  The idle call back is called this often"},
    {"set_debug_all_threads",
     set_field<"i:set_debug_all_threads", int, &gSelf.debug_all_threads>,
     kMethVarArgs,
     "Determine whether to debug all threads.  Set to 1 to debug all threads, or 0 to "
     "debug only\n"
     "one thread at a time and ignore all other threads entirely while one thread is "
     "stopped.\n"},
    {"set_debug_thread_cb",
     _tracer_set_debug_thread_cb,
     kMethVarArgs,
     "Set callback that determines whether or not to debug on a thread-by-thread\n"
     "basis.  Returns 0 if the thread should be ignored, 1 if it should be stopped when\n"
     "any other thread is stopped, and 2 if it should be stopped only if it reaches a\n"
     "breakpoint or exception [XXX the latter is unimplemented].\n"},
    {"set_dprintf_mask",
     call_with_int<"i:set_dprintf_mask", void, set_dprintf_mask_from_int>,
     kMethVarArgs,
     "Set the dprintf_mask flag as an integer."},
    {"get_dprintf_mask",
     _tracer_get_dprintf_mask,
     kMethVarArgs,
     "Get the dprintf_mask flag as an integer."},
    {"start_trace",
     after_init<_tracer_start_trace>,
     kMethVarArgs,
     " Set trace function to start tracing and set the trace in all frames."},
    {"stop_trace",
     after_init<_tracer_stop_trace, ":tracer_stop_trace">,
     kMethVarArgs,
     "Remove trace function and stop debugging."},
    {"step_into",
     after_init<_tracer_step_into, ":step_into">,
     kMethVarArgs,
     "Set up to step into next function or to next instruction"},
    {"step_over",
     after_init<_tracer_step_over>,
     kMethVarArgs,
     "Set up to step over the next instruction"},
    {"step_over_line",
     after_init<_tracer_step_over_line>,
     kMethVarArgs,
     "Set up to step over the next line of code"},
    {"step_over_line_range",
     after_init<_tracer_step_over_line_range, "ii">,
     kMethVarArgs,
     "Set up to step over the given range of lines"},
    {"step_out",
     after_init<_tracer_step_out>,
     kMethVarArgs,
     "Set up to step out of the current stack frame"},
    {"step_out_to_frame",
     after_init<_tracer_step_out_to_frame, "O:step_out_to_frame">,
     kMethVarArgs,
     "Set up to step out to the given stack frame; single argument is a frame object"},
    {"continue_run",
     after_init<_tracer_continue_run>,
     kMethVarArgs,
     "Set up to continue running freely until next breakpoint"},
    {"stop", after_init<_tracer_stop>, kMethVarArgs, "Set up to stop at next reached run location"},
    {"get_threads",
     _tracer_get_threads,
     kMethVarArgs,
     "Get the a list of all threads' thread ids.  These can be passed to get_curr_frame\n"
     "for access to the thread's stack, although some thread ids returned here may still\n"
     "be running if in C code and thus have no obtainable stack."},
    {"get_curr_frame",
     _tracer_get_curr_frame,
     kMethVarArgs,
     "Get the current frame for the given thread id -- this is the frame where\n"
     "the thread stopped, so the innermost aka top frame.  This may raise IndexError\n"
     "if the given thread is still running (which may happen if it's stuck in C code)."},
    {"get_thread_name",
     _tracer_get_thread_name,
     kMethVarArgs,
     "Get the name of the main function for the given thread."},
    {"is_botframe",
     _tracer_is_botframe,
     kMethVarArgs,
     "Returns whether given frame to see if it is the bottom (outermost) frame for the "
     "current thread."},
    {"get_tracing",
     _tracer_get_tracing,
     kMethVarArgs,
     "Returns whether tracing is active in any thread"},
    {"set_break",
     _tracer_set_break,
     kMethVarArgs,
     "Set a breakpoint at given file/line.  Pass in file, checksum, line, enabled flag,\n"
     "temporary flag, conditional as string (or None), and ignore count.  If\n"
     "a breakpoint exists, its values will be updated accordingly.  The new breakpoint\n"
     "id is returned as int."},
    {"clear_breaks",
     _tracer_clear_breaks,
     kMethVarArgs,
     "Clear all breakpoints at given file/line"},
    {"enable_breaks",
     _tracer_enable_breaks,
     kMethVarArgs,
     "Enable/disable all breakpoints at given file and line number"},
    {"ignore_breaks",
     _tracer_ignore_breaks,
     kMethVarArgs,
     "Ignore all breakpoints at given file and line number for a given number\n"
     "of hits"},
    {"set_breaks_cond",
     _tracer_set_breaks_cond,
     kMethVarArgs,
     "Set conditional for all breakpoints at given file and line number; empty string to "
     "set no conditional"},
    {"clear_all_breaks", _tracer_clear_all_breaks, kMethVarArgs, "Clear all defined breakpoints"},
    {"get_breaks",
     _tracer_get_breaks,
     kMethVarArgs,
     "Get all breakpoints at given file and line number: Returns sequence of\n"
     "(id, enabled, temporary, cond, ignore_count, hit_count) tuples"},
    {"get_file_breaks",
     _tracer_get_file_breaks,
     kMethVarArgs,
     "Get all breakpoints in given file: Returns sequence of (lineno, id\n"
     "enabled, temporary, cond, ignore_count, hit_count) tuples"},
    {"set_exception_mode",
     set_field<"i:tracer_set_exception_mode", int, &gSelf.exception_mode>,
     kMethVarArgs,
     "Set exception mode to use"},
    {"get_exception_mode",
     get_field<"", int, &gSelf.exception_mode>,
     kMethVarArgs,
     "Get exception mode in use"},
    {"ignore_exception_loc",
     _tracer_ignore_exception_loc,
     kMethVarArgs,
     "Ignore/un-ignore future exceptions at given file, lineno (filename must be as "
     "given\n"
     "in the reported exception)"},
    {"exception_loc_ignored",
     _tracer_exception_loc_ignored,
     kMethVarArgs,
     "Check whether exceptions at given file / line number are being ignored bythe "
     "debugger"},
    {"clear_exception_ignores",
     _tracer_clear_exception_ignores,
     kMethVarArgs,
     "Clear exception ignores list to blank"},
    {"exiting_on_exception",
     _tracer_exiting_on_exception,
     kMethVarArgs,
     "Returns true when the debugger core has seen an unhandled exception at the\n"
     "bottom frame, and thus any further stepping, etc, will cause the program\n"
     "to exit.  This is used to make sure we close the client connection cleanly\n"
     "in all cases.  Note that this always returns false when autoquit is off\n"
     "since the exception won't cause exit in an embedded environment."},
    {"set_always_stop_excepts",
     set_types<"O!:set_always_stop_excepts", &gSelf.always_stop_excepts>,
     kMethVarArgs,
     "Set the tuple of exception types to always stop on"},
    {"get_always_stop_excepts",
     get_types<":get_always_stop_excepts", &gSelf.always_stop_excepts>,
     kMethVarArgs,
     "Get the tuple of exception types to always stop on"},
    {"set_never_stop_excepts",
     set_types<"O!:set_never_stop_excepts", &gSelf.never_stop_excepts>,
     kMethVarArgs,
     "Set the tuple of exception types to never stop on"},
    {"get_never_stop_excepts",
     get_types<":get_never_stop_excepts", &gSelf.never_stop_excepts>,
     kMethVarArgs,
     "Get the tuple of exception types to never stop on"},
    {"set_exc_catch_info_list",
     _tracer_set_exc_catch_info_list,
     kMethVarArgs,
     "Set list of exception info instances.  Each instance should have co_name, "
     "module_name, prints, ignore, & parent attributes.  Class for these instances is "
     "defined in dbgserver.py."},
    {"get_new_imports",
     _tracer_get_new_imports,
     kMethVarArgs,
     "Used to obtain list of full path names for modules that have been\n"
     "loaded or reloaded since the last call to this function.  Also clears\n"
     "the table of new loaded/reloaded modules to blank."},
    {"register_module",
     after_init<_tracer_register_module, "O:register_module">,
     kMethVarArgs,
     "Register module with the debugger"},
    {"get_registered_module_count",
     get_field<":get_registered_module_count", int, &gSelf.bp_ops_data.unique_import_count>,
     kMethVarArgs,
     "Get registered module count"},
    {"register_sub_language_hook",
     after_init<_tracer_register_sub_language_hook, "O:register_sub_language_hook">,
     kMethVarArgs,
     "Register a sub-language extension with the debugger"},
    {"sub_language_get_active_hook",
     _tracer_sub_language_get_active_hook,
     kMethVarArgs,
     "Get the active sub language hook in the given thread.  Returns None\n"
     "when no sub-language implementation is active on the thread's stack."},
    {"sub_language_get_frame_category",
     _tracer_sub_language_get_frame_category,
     kMethVarArgs,
     "Get the type of the given frame:  Returns 1 if it's a key frame in the active\n"
     "sub-language implementation, 0 if it's a frame that should be hidden because it\n"
     "is part of the sub-language implementation but not a key frame, and -1 for\n"
     "unknown frames."},
    {"add_to_tstate_tracing",
     call_with_int<"i:add_to_tstate_tracing", void, add_to_current_tstate_tracing>,
     kMethVarArgs,
     "Adds given value to tracing field of the current thread state.  The trace function "
     "will be called only if tracing == 0.  value can be < 0."},
    {"get_tstate_tracing",
     _tracer_get_tstate_tracing,
     kMethVarArgs,
     "Returns current value of tracing field of the current thread state.  The trace "
     "function will be called only if tracing == 0."},
    {"set_tstate_use_tracing",
     call_with_int<"i:set_tstate_use_tracing", void, set_current_tstate_use_tracing>,
     kMethVarArgs,
     "Set value of use_tracing field of the current thread state.  The trace & profile "
     "functions will be called only if use_tracing != 0.  The field was add in Python "
     "2.3; this does nothing in Python 2.0 & 2.1."},
    {"get_tstate_use_tracing",
     _tracer_get_tstate_use_tracing,
     kMethVarArgs,
     "Returns current value of use_tracing field of the current thread state.  The trace "
     "& profile functions will be called only if use_tracing != 0. The field was add in "
     "Python 2.3; this always returns 1 in Python 2.0 & 2.1."},
    {"set_use_eval_frame",
     call_with_int<"i:set_use_eval_frame", void, tracer_set_use_eval_frame>,
     kMethVarArgs,
     "Set the use_eval_frame flag.  Note that briodb's eval_frame function is only used "
     "if the interpreter version supports it."},
    {"get_use_eval_frame",
     get_field<":get_use_eval_frame", int, &gSelf.use_eval_frame>,
     kMethVarArgs,
     "Get the use_eval_frame flag.  Note that briodb's eval_frame function is only used "
     "if the interpreter version supports it."},
    {"set_use_idle_thread",
     call_with_int<"i:set_use_idle_thread", int, tracer_set_use_idle_thread>,
     kMethVarArgs,
     "Set the use_idle_thread flag.  Note that briodb's idle_thread is only used if the "
     "interpreter version supports it."},
    {"get_use_idle_thread",
     get_field<":get_use_eval_frame", boolean, &gSelf.global_idle_thread_data.use_idle_thread>,
     kMethVarArgs,
     "Get the use_idle_thread flag.  Note that briodb's idle thread is only used if the "
     "interpreter version supports it."},
    {"set_save_and_restore_errno",
     set_field<"i:set_save_and_restore_errno", boolean, &gSelf.save_and_restore_errno>,
     kMethVarArgs,
     "Set the save_and_restore_errno flag."},
    {"get_save_and_restore_errno",
     get_field<":set_save_and_restore_errno", boolean, &gSelf.save_and_restore_errno>,
     kMethVarArgs,
     "Get the save_and_restore_errno flag."},
    {"set_use_canonical_pathnames",
     set_field<"i:set_use_canonical_pathnames", boolean, &gUseCanonicalPathnames>,
     kMethVarArgs,
     "Set the use_canonical_pathnames flag."},
    {"get_use_canonical_pathnames",
     get_field<":get_use_canonical_pathnames", boolean, &gUseCanonicalPathnames>,
     kMethVarArgs,
     "Get the use_canonical_pathnames flag."},
    {"acquire_dbgserver_mutex",
     after_init<_tracer_acquire_dbgserver_mutex, ":acquire_dbgserver_mutex">,
     kMethVarArgs,
     "Acquire the mutex used to ensure only one thread calls into the debug server."},
    {"release_dbgserver_mutex",
     after_init<_tracer_release_dbgserver_mutex, ":release_dbgserver_mutex">,
     kMethVarArgs,
     "Release the mutex used to ensure only one thread calls into the debug server."},
    {"is_dbgserver_mutex_held",
     after_init<_tracer_is_dbgserver_mutex_held, ":is_dbgserver_mutex_held">,
     kMethVarArgs,
     "Returns whether the dbgserver mutex is held by the calling thread."},
    {"raise_exception",
     raise_exception,
     kMethVarArgs,
     "Raise given exception in the thread at the next opportunity"},
    {"get_frame_file",
     _tracer_get_frame_file,
     kMethVarArgs,
     "Returns the filename associated with the given frame"},
    {"get_current_tstate_id",
     _tracer_get_current_tstate_id,
     kMethVarArgs,
     "Returns id of current thread state"},
    {"get_thread_ident_for_tstate_id",
     _tracer_get_thread_ident_for_tstate_id,
     kMethVarArgs,
     "Returns id returned by thread.get_ident for given tstate_id"},
    {"is_internal_frame",
     _tracer_is_internal_frame,
     kMethVarArgs,
     "Returns id returned by thread.get_ident for given tstate_id"},
    {"fork_ok",
     _tracer_fork_ok,
     kMethVarArgs,
     "Called to indicate that the process has forked and it should still be debugged."},
    {"getpid",
     _tracer_getpid,
     kMethVarArgs,
     "Get the process id.  This call exists to work around process jails that cause "
     "os.getpid to lie."},
    {"enable_checksums",
     call_with_int<"i:enable_checksums", void, enable_checksums>,
     kMethVarArgs,
     "Enabled or disable use of checksums in identifying files."},
    {"get_changed_bps_lists",
     _tracer_get_changed_bps_lists,
     kMethVarArgs,
     "Gets and clears the changed bp lists."},
    {"PyFile_SetEncoding",
     _tracer_PyFile_SetEncoding,
     kMethVarArgs,
     "Calls PyFile_SetEncoding C function"},
    {"PyFile_WriteObject",
     _tracer_PyFile_WriteObject,
     kMethVarArgs,
     "Calls PyFile_WriteObject C function"},
    {"GetFileBufferCount",
     _tracer_GetFileBufferCount,
     kMethVarArgs,
     "Return the number of bytes in the FILE* associated with the given file. -1 is "
     "returned if count cannot be determined"},
    {"CopyIntoBuffer",
     _tracer_CopyIntoBuffer,
     kMethVarArgs,
     "Put data into a writable buffer at given offset,  If data is longer than the "
     "remaining buffer space, it is truncated.  Returns # of bytes copied."},
    {"PyFrame_LocalsToFast",
     _tracer_PyFrame_LocalsToFast,
     kMethVarArgs,
     "Wrapper around PyFrame_LocalsToFast internal api call."},
    {"breakpointhook",
     _tracer_breakpointhook,
     kMethVarArgs,
     "Break at current line in the Brio debugger"},
    {"atexit_func",
     _tracer_atexit_func,
     kMethVarArgs,
     "Function to be called when atexit functions are called"},
    {"trace_dispatch", after_init<_tracer_trace_dispatch, "OsO">, kMethVarArgs, nullptr},
    {"bootstrap_new_thread", after_init<_tracer_bootstrap_new_thread>, kMethVarArgs, nullptr},
    {"thread_exiting", _tracer_thread_exiting, kMethVarArgs, nullptr},
    {"__import__", AS_CFUNCTION(import_hook_after_init), kMethVarArgs | kMethKeywords, nullptr},
    {"lookup_canonical_pathname",
     _tracer_lookup_canonical_pathname,
     kMethVarArgs,
     "Lookup the canonical pathname that's eqivalent to given absolute pathname"},
    {"register_canonical_pathname",
     _tracer_register_canonical_pathname,
     kMethVarArgs,
     "Register the canonical pathname for the to given absolute pathname"},
    {"set_dprintf_file",
     _tracer_set_dprintf_file,
     kMethVarArgs,
     "Set the dprintf file. Args are (file_obj, fileno, win32_handle), Invalid fileno is "
     "-1; invalid win32_handle is 0"},
    {nullptr, nullptr, 0, nullptr},
};

// ---- The table for free-threaded builds: the same functions under the core's own lock ----

static constexpr size_t kMethodCount = 87;
static constinit PyMethodDef gLockedMethods[kMethodCount + 1] = {};

template <size_t kIndex>
static PyObject* call_locked(PyObject* self, PyObject* args) {
    tCoreLock lock;
    return TracerMethods[kIndex].ml_meth(self, args);
}

static PyObject* call_import_hook_locked(PyObject* self, PyObject* args, PyObject* kw) {
    tCoreLock lock;
    return import_hook_after_init(self, args, kw);
}

template <size_t... kIndexes>
static void fill_locked_methods(std::index_sequence<kIndexes...> /*all*/) {
    ((gLockedMethods[kIndexes] = {TracerMethods[kIndexes].ml_name,
                                  call_locked<kIndexes>,
                                  TracerMethods[kIndexes].ml_flags,
                                  TracerMethods[kIndexes].ml_doc}),
     ...);
    for (PyMethodDef& method : gLockedMethods) {
        if ((method.ml_flags & kMethKeywords) != 0) {  // the import hook, and no other
            method.ml_meth = AS_CFUNCTION(call_import_hook_locked);
        }
    }
}

// Needs the binding layer.
static PyMethodDef* choose_methods() {
    static_assert(sizeof(TracerMethods) == sizeof(gLockedMethods));
    if (!is_free_threaded_build()) {
        return TracerMethods;
    }
    update_interpreter_lock();
    fill_locked_methods(std::make_index_sequence<kMethodCount>());
    return gLockedMethods;
}

// ---- Creation ----

PyObject* PyInit_tdbgtracer() {
    begin_new_life();  // of the first interpreter, or of one after its end
    const bool is_bound = gPy.initialized || XPy_Initialize() == 0;
    gModuleSelf = is_bound ? XPy_InitModule("tdbgtracer", choose_methods()) : nullptr;
    if (gModuleSelf == nullptr) {
        return nullptr;
    }
    DPRINTF(kLogCore, "Initialize dbgtracer module started\n");
    gTupleType = gPy.PyTuple_Type_ptr;
    gFrameType = gPy.PyFrame_Type_ptr;
    gListType = gPy.PyList_Type_ptr;
    if (gPy.major_version == 2 && gPy.minor_version <= 5) {
        // deliberate: the module exists already and is not released.
        gPy.PyErr_SetString(gPy.PyExc_RuntimeError, "Python 2.5 and before are not supported");
        return nullptr;
    }
    if (gPy.PyObject_SetAttrString(gModuleSelf, "kUsesSysMonitoring", gPy.Py_False) != 0) {
        return nullptr;
    }
    create_core();
    DPRINTF(kLogCore, "Initialize dbgtracer module complete\n");
    return gModuleSelf;
}

void inittdbgtracer() {
    PyInit_tdbgtracer();
}
