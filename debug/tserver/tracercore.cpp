// tracercore.cpp -- the tracer's state: how the module starts it, init fills it, reset empties it.
#include "tracercore.h"

#include <sys/auxv.h>
#include <time.h>
#include <unistd.h>

#include "libc_compat.h"
#include "tracercore_internal.h"

constinit tTracerData gSelf = {};

static constexpr int kIdleInstructionThreshold = 10;

// Each line asks for the time. On 64-bit systems time() is the kernel's function that reads a word;
// on 32-bit ones the C library goes by way of the full clock, which takes 9 ns more (measured), so
// that there the kernel's is looked for.
using tTime = time_t (*)(time_t* result);

static tTime find_time_function() {
    const bool may_be_slow = sizeof(void*) == 4 && getauxval(AT_SYSINFO_EHDR) != 0;
    void* const kernel =
        may_be_slow ? tdbg_dlopen("linux-gate.so.1", RTLD_LAZY | RTLD_NOLOAD) : nullptr;
    void* const found = kernel != nullptr ? tdbg_dlsym(kernel, "__vdso_time") : nullptr;
    return found != nullptr ? reinterpret_cast<tTime>(found) : time;
}

static time_t find_and_call_time(time_t* result);
static constinit tTime gTime = find_and_call_time;

static time_t find_and_call_time(time_t* result) {
    gTime = find_time_function();
    return gTime(result);
}

uint64_t get_ticks() {
    return static_cast<uint64_t>(gTime(nullptr));
}

uint64_t get_ticks_per_second() {
    return 1;
}

pid_t tracer_get_pid() {
    return gSelf.pid;
}

// Functions of the module may be called before init; they find empty tables.
static void init_tables() {
    init_thread_table(&gSelf.thread_data);
    __tracer_init_exception_filters(&gSelf.exception_filters);
    __tracer_init_bp_ops_data(&gSelf.bp_ops_data, &gSelf.co_pathname_table, gPy.Py_None, 1);
    CU_InitHashTable(&gSelf.sub_language_cache, sizeof(void*));
    init_exc_data(&gSelf.exc_data);
    gSelf.newly_imported_module_files = gPy.PyList_New(0);
}

void forget_ended_interpreter() {
    gSelf = {};
    forget_log_files();
    forget_bp_lists();
    forget_any_last_record();
    forget_code_extra_index();
    forget_idle_threads();
    forget_mutex_depth();
}

int init_tracercore() {
    DPRINTF(kLogCore, "In init_tracercore()\n");
    gSelf.file_ops_data = create_file_ops_data(&gUnsafeGlobalDPData);
    InitCOPathnameTable(&gSelf.co_pathname_table, gSelf.file_ops_data);
    init_tables();
    gSelf.mutex = allocate_thread_mutex();
    gSelf.mutex_thread_id = -1;
    return gSelf.file_ops_data != nullptr ? 0 : -1;  // all else is there, and is empty
}

// ---- The import hook ----

static PyFrameObject* get_innermost_real_frame() {  // new ref or null
    tOwnedFrame frame(get_thread_state_frame(gPy.PyThreadState_Get()));
    while (frame && !is_frame(frame.borrow())) {
        frame.reset(get_frame_back(frame.borrow()));
    }
    return frame.give_away();
}

static void put_into_builtins(PyObject* hook) {
    tOwnedFrame frame(get_innermost_real_frame());
    if (!frame) {
        DPRINTF(kLogCore, "Did not install __import__ hook: no PyFrame found\n");
        return;
    }
    tOwnedRef builtins(get_frame_builtins(frame.borrow()));
    if (!builtins || gPy.PyDict_SetItemString(builtins.borrow(), "__import__", hook) == -1) {
        gPy.PyErr_Clear();
    }
}

static PyObject* get_import_hook() {  // new ref or null, no exception
    PyObject* const hook = gPy.PyObject_GetAttrString(gSelf.trace_module, "__import__");
    if (hook == nullptr) {
        gPy.PyErr_Clear();
    }
    return hook;
}

// The hook passes for the built-in function it stands in for.
static bool name_module_of_hook(PyObject* hook) {
    tOwnedRef name(new_native_string(gPy.major_version < 3 ? "__builtin__" : "builtins"));
    if (name && gPy.PyObject_SetAttrString(hook, "__module__", name.borrow()) == 0) {
        return true;
    }
    gPy.PyErr_Clear();
    return false;
}

static void try_to_install_import_hook(PyObject* default_import) {
    if (gSelf.import_hook != nullptr) {
        DPRINTF(kLogCore, "NOT INSTALLING TRACE HOOK\n");
        return;
    }
    tOwnedRef hook(get_import_hook());
    if (!hook || !name_module_of_hook(hook.borrow())) {
        return;
    }
    const int is_default = pyobjects_equal(hook.borrow(), default_import);
    if (is_default == -1) {
        return;
    }
    if (is_default) {
        gPy.PyErr_SetString(gPy.PyExc_AssertionError,
                            "The default import hook cannot be equal to our import hook");
        return;
    }
    gSelf.import_hook = new_ref(hook.borrow());
    put_into_builtins(hook.borrow());
}

static void install_import_hook(PyObject* default_import) {
    DPRINTF(kLogCore, "********************* INSTALLING TRACE HOOK ***********************\n");
    try_to_install_import_hook(default_import);
    DPRINTF(kLogCore, "********************* DONE INSTALLING TRACE HOOK ***********************\n");
}

// The interpreter's own import function. A second init may be handed our hook, which stands in its
// place by then: calling that would be a hook that calls itself for ever, so the old one stays.
static void keep_default_import(PyObject* default_import) {
    tOwnedRef hook(get_import_hook());
    if (hook && pyobjects_equal(hook.borrow(), default_import) == 1) {
        return;
    }
    gPy.PyErr_Clear();
    set_owned(&gSelf.default_import, new_ref(default_import));
}

// ---- init ----

// What an earlier init left: its hooks are taken out and its tables emptied, or they would be lost.
static void clear_earlier_state() {
    if (gSelf.tracing) {
        __tracer_stop_trace();
        gPy.PyErr_Clear();
        stop_trace_without_callback();  // the thread-hooks callback may have started it again
    }
    update_eval_frame();  // tracing is off: takes the eval-frame hook out
    clear_thread_table(&gSelf.thread_data);
    __tracer_clear_exception_filters(&gSelf.exception_filters);
    reset_exc_data(&gSelf.exc_data);
    sub_language_clear();
}

// The record was filled when the module was made or by an earlier init; clearing fills it anew.
static void start_without_breakpoints(PyObject* get_checksum_cb) {
    __tracer_clear_bp_ops_data(&gSelf.bp_ops_data, &gSelf.co_pathname_table, get_checksum_cb);
    gSelf.bp_ops_data.checksums_enabled = 1;
}

static bool find_sys_settrace() {
    PyObject* const settrace = gPy.PySys_GetObject("settrace");
    if (settrace == nullptr) {
        gPy.PyErr_SetString(gPy.PyExc_RuntimeError, "Missing sys attribute: settrace");
        return false;
    }
    set_owned(&gSelf.sys_settrace, new_ref(settrace));
    return true;
}

static void clear_settings() {
    set_owned<PyObject>(&gSelf.always_stop_excepts, nullptr);
    set_owned<PyObject>(&gSelf.never_stop_excepts, nullptr);
    set_owned<PyObject>(&gSelf.debug_thread_cb, nullptr);
    gSelf.autoquit = 1;
    gSelf.debug_all_threads = 1;
}

static void start_idle_counting() {
    gSelf.idle_instruction_count = 0;
    gSelf.idle_instruction_threshold = kIdleInstructionThreshold;
    gSelf.idle_time_threshold = 0;
}

static void forget_eval_frame_defaults() {
    gSelf.default_eval_frame_no_thread_state = nullptr;
    gSelf.default_eval_frame_with_thread_state = nullptr;
    gSelf.default_eval_frame_py_interpreter_frame = nullptr;
}

// Truncated to whole ticks. A period that is no time at all (negative, not a number) is none.
static uint64_t ticks_of_period(float seconds) {
    const float ticks = static_cast<float>(get_ticks_per_second()) * seconds;
    constexpr float kTooMany = 9e18f;
    return ticks >= 1 && ticks < kTooMany ? static_cast<uint64_t>(ticks) : 0;
}

int __tracer_init(PyObject* module,
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
                  PyObject* internal_modules_map) {
    DPRINTF(kLogCore, "INIT CORE\n");
    clear_earlier_state();
    gSelf.tracing = 0;
    gSelf.idle_period = ticks_of_period(idle_period);
    gSelf.idling = 0;
    gSelf.exception_mode = exception_mode;
    set_owned(&gSelf.install_thread_hooks_cb, new_ref(install_thread_hooks_cb));
    set_owned(&gSelf.get_checksum_cb, new_ref(get_checksum_cb));
    set_owned(&gSelf.idle_cb, new_ref(idle_cb));
    set_owned(&gSelf.line_cb, new_ref(line_cb));
    set_owned(&gSelf.return_cb, new_ref(return_cb));
    set_owned(&gSelf.exception_cb, new_ref(exception_cb));
    set_owned(&gSelf.quit_cb, new_ref(quit_cb));
    set_owned(&gSelf.import_cb, new_ref(import_cb));
    set_owned(&gSelf.internal_modules_map, new_ref(internal_modules_map));

    set_owned(&gSelf.trace_module, new_ref(module));
    keep_default_import(default_import);
    set_owned(&gSelf.trace_function, gPy.PyObject_GetAttrString(module, "trace_dispatch"));
    if (gSelf.trace_function == nullptr || !find_sys_settrace()) {
        return 0;
    }
    clear_settings();
    set_owned<PyObject>(&gSelf.catch_all_code_objects, nullptr);
    start_idle_counting();

    start_without_breakpoints(get_checksum_cb);
    __tracer_init_exception_filters(&gSelf.exception_filters);

    set_owned(&gSelf.newly_imported_module_files, gPy.PyList_New(0));
    if (gPy.PyErr_Occurred() != nullptr) {
        return 0;  // out of memory
    }
    gSelf.import_level = 0;
    gSelf.import_cb_active = 0;
    set_owned<PyObject>(&gSelf.import_hook, nullptr);
    install_import_hook(default_import);

    CU_InitHashTable(&gSelf.sub_language_cache, sizeof(void*));
    gSelf.sub_language_hooks = 0;
    gSelf.stat_instructions = 0;
    gSelf.stat_imports = 0;
    gSelf.pid = gPy.cached_pid;
    init_exc_data(&gSelf.exc_data);
    gSelf.pending_exc_count = 0;
    gSelf.thread_f_trace_update_count = 0;
    gSelf.use_eval_frame = 1;
    forget_eval_frame_defaults();
    init_idle_thread_data(&gSelf.global_idle_thread_data);
    gSelf.save_and_restore_errno = 1;
    return 1;
}

// ---- reset, destroy, fork ----

// deliberate: the callbacks, the trace function and the import hook stay; start_trace may follow.
void __tracer_reset() {
    __tracer_stop_trace();
    tSavedError of_callback;  // what the thread-hooks callback raised; the rest may run Python code
    DPRINTF(kLogCore, "RESET THREAD TABLE\n");
    clear_thread_table(&gSelf.thread_data);
    gSelf.thread_f_trace_update_count = 0;
    gSelf.pending_exc_count = 0;
    __tracer_clear_exception_filters(&gSelf.exception_filters);
    __tracer_clear_bp_ops_data(&gSelf.bp_ops_data, &gSelf.co_pathname_table, gSelf.get_checksum_cb);
    set_owned(&gSelf.newly_imported_module_files, gPy.PyList_New(0));
    const bool out_of_memory = gPy.PyErr_Occurred() != nullptr;
    gPy.PyErr_Clear();
    clear_settings();
    reset_exc_data(&gSelf.exc_data);
    update_eval_frame();
    if (out_of_memory && of_callback.empty()) {
        of_callback.abandon();
        gPy.PyErr_SetString(gPy.PyExc_MemoryError, "Out of memory");
    }
}

void __tracer_destroy() {
    DPRINTF(kLogCore, "DESTROY REACHED\n");
    __tracer_reset();
    set_owned<PyObject>(&gSelf.catch_all_code_objects, nullptr);
}

void __tracer_fork_ok() {
    const bool is_child = gSelf.pid != getpid();
    gSelf.idle_time_threshold = 0;
    gSelf.pid = getpid();
    if (is_child) {
        renew_mutex_after_fork();
    }
    update_idle_thread_maybe_after_fork(&gSelf.global_idle_thread_data);
}

// reset and destroy before the first init have nothing to empty.
static PyObject* run_after_init(void (*operation)()) {
    if (gSelf.trace_module != nullptr) {
        operation();
    }
    return gPy.PyErr_Occurred() != nullptr ? nullptr : new_ref(gPy.Py_None);
}

PyObject* _tracer_reset(PyObject* /*self*/, PyObject* /*args*/) {
    return run_after_init(__tracer_reset);
}

PyObject* _tracer_destroy(PyObject* /*self*/, PyObject* /*args*/) {
    return run_after_init(__tracer_destroy);
}
