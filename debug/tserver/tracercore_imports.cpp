// tracercore_imports.cpp -- the import hook, and what becomes of a module that was imported: its
// breakpoints are bound, the debug server hears of it, and its file joins the list of new imports.
#include "tracercore.h"

#include <string.h>

#include "tracercore_internal.h"

// ---- Telling of a module ----

void __call_import_cb(PyObject* module) {
    if (gSelf.import_cb_active || gSelf.import_cb == nullptr || gSelf.import_cb == gPy.Py_None) {
        return;
    }
    tOwnedRef callback(new_ref(gSelf.import_cb));
    gSelf.import_cb_active = 1;
    tOwnedRef result(do_one_arg_call(callback.borrow(), module));
    tThreadData* const thread_data = gSelf.sub_language_hooks ? current_thread_data() : nullptr;
    if (thread_data != nullptr && thread_data->sub_language_hook != nullptr) {
        tOwnedRef hook(new_ref(thread_data->sub_language_hook));
        __tracer_load_sub_language_frames(hook.borrow());
    }
    gSelf.import_cb_active = 0;
}

const char* register_module_direct(PyObject* module) {
    DPRINTF(kLogCore, "Entering register_module_direct()\n");
    __call_import_cb(module);
    tSavedError left_by_callback;
    PyObject* const dict = gPy.PyModule_GetDict(module);
    const char* const path = __resolve_module_full_path(path_table(), dict, nullptr, nullptr, 1);
    __tracer_xfer_module_bps(&gSelf.bp_ops_data, module);
    DPRINTF(kLogCore, "Leaving register_module_direct()\n");
    return path;
}

PyObject* _tracer_register_module(PyObject* /*self*/, PyObject* args) {
    PyObject* module = nullptr;
    if (!gPy.PyArg_ParseTuple(args, "O:register_module", &module)) {
        return nullptr;
    }
    if (!is_instance_of(module, gPy.PyModule_Type_ptr)) {
        gPy.PyErr_SetString(gPy.PyExc_TypeError, "object is not a module instance");
        return nullptr;
    }
    const char* const path = register_module_direct(module);
    if (gPy.PyErr_Occurred() != nullptr) {
        return nullptr;  // what import_cb raised
    }
    return path != nullptr ? new_native_string(path) : new_ref(gPy.Py_None);
}

// ---- The hook ----

static PyObject* call_import(PyObject* import, PyObject* args, PyObject* kw) {
    tCoreUnlock unlocked;
    return gPy.PyObject_Call(import, args, kw);
}

static PyObject* call_default_import(PyObject* args, PyObject* kw) {
    if (gSelf.default_import == nullptr) {
        gPy.PyErr_SetString(gPy.PyExc_ImportError, "init must be called first");
        return nullptr;
    }
    tOwnedRef import(new_ref(gSelf.default_import));
    gSelf.stat_imports++;
    gSelf.import_level++;
    PyObject* const module = call_import(import.borrow(), args, kw);
    gSelf.import_level--;
    return module;
}

// Runs for the program: what goes wrong here is ours, and the import stands.
static void process_imported_module(PyThreadState* tstate, PyObject* module) {
    tThreadData* const thread_data = current_thread_data();
    tHeldThreadData held(thread_data);
    tSavedError saved;
    tServerLock lock(thread_data);
    if (!lock.held()) {
        DPRINTF(kLogInternalFailures, "Failed to acquire mutex in process_imported_module!");
    }
    tTracingOff quiet(tstate);
    tRecursionHeadroom room(kRecursionHeadroom);
    __tracer_xfer_module_bps(&gSelf.bp_ops_data, module);
    __call_import_cb(module);
    if (gPy.PyErr_Occurred() != nullptr) {
        log_failure("Exception raised by import callback\n");
    }
}

PyObject* _tracer_import_hook(PyObject* /*self*/, PyObject* args, PyObject* kw) {
    tSavedErrno keep_errno;
    PyThreadState* const tstate = gPy.PyThreadState_Get();
    const bool is_traced = gSelf.tracing && adopt_current_thread(tstate);
    PyObject* const module = call_default_import(args, kw);
    if (module == nullptr) {
        DPRINTF(kLogCore, "IMPORT HOOK returning NULL\n");
        do_dlogexception();
        return nullptr;
    }
    if (gSelf.tracing && is_traced && gPy.cached_pid == gSelf.pid) {
        process_imported_module(tstate, module);
    }
    return module;
}

// ---- Modules that begin to execute ----

static bool is_pseudo_filename(const char* path) {
    const size_t length = strlen(path);
    return length == 0 || (path[0] == '<' && path[length - 1] == '>');
}

static bool is_module_code_name(PyObject* name) {
    const char* const text = is_native_string(name) ? _pystring_to_c_string(name) : nullptr;
    if (text != nullptr && (strcmp(text, "<module>") == 0 || strcmp(text, "?") == 0)) {
        return true;
    }
    DPRINTF(kLogCore, "NON-BLANK/UNKNOWN CODE NAME: %s\n", dprint_check_str(text));
    return false;
}

static bool is_path_of_module_file(const char* path) {
    const char* const objection = path == nullptr               ? "NULL FILE NAME\n"
                                  : is_pseudo_filename(path)    ? "PSEUDO FILE NAME\n"
                                  : __is_special_filename(path) ? "SPECIAL FILE NAME\n"
                                                                : nullptr;
    if (objection != nullptr) {
        DPRINTF(kLogCore, "%s", objection);
    }
    return objection == nullptr;
}

static bool append_to_new_imports(const char* path) {
    tOwnedRef name(new_native_string(path));
    return name && gSelf.newly_imported_module_files != nullptr &&
           gPy.PyList_Append(gSelf.newly_imported_module_files, name.borrow()) == 0;
}

int __tracer_top_level_call(PyFrameObject* frame) {
    if (!is_frame(frame)) {
        return 0;
    }
    tOwnedCode code(get_frame_code(frame));
    if (!code) {
        return -1;
    }
    if (LookupCOPathname(path_table(), code.borrow()) == nullptr &&
        gPy.PyErr_Occurred() == nullptr) {
        __resolve_full_path_for_frame(path_table(), frame, 1);
    }
    const char* const path = LookupCOPathname(path_table(), code.borrow());
    DPRINTF(kLogCore, "MODULE RELOAD DETECTION: %s\n", dprint_check_str(path));
    if (gPy.PyErr_Occurred() != nullptr) {
        log_failure_keep_error("Exception occurred in __tracer_detect_module_reloads\n");
        return -1;
    }
    tOwnedRef name(get_code_name(code.borrow()));
    if (!is_module_code_name(name.borrow()) || !is_path_of_module_file(path)) {
        return 0;
    }
    if (!append_to_new_imports(path)) {
        return -1;
    }
    DPRINTF(kLogCore, "ADDED TO MODULE LIST\n");
    return 0;
}

PyObject* _tracer_get_new_imports(PyObject* /*self*/, PyObject* /*args*/) {
    PyObject* const fresh = gPy.PyList_New(0);
    if (fresh == nullptr) {
        return nullptr;
    }
    PyObject* const files = gSelf.newly_imported_module_files;
    gSelf.newly_imported_module_files = fresh;
    return files != nullptr ? files : gPy.PyList_New(0);
}
