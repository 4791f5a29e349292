#include "dprintf.h"

#include <stdlib.h>

#include "guards.h"

constinit tDPrintfLogMask gDPrintfMask = kDefaultLogMask;
constinit PyObject* gDPrintfFile = nullptr;
constinit int gDPrintfNativeFileno = -1;
constinit tDPData gUnsafeGlobalDPData = {.initialized = 0,
                                         .mask = kDefaultLogMask,
                                         .shared_single_dp_data = {},
                                         .core = nullptr,
                                         .filenames = nullptr,
                                         .internal_failures = nullptr,
                                         .threading = nullptr,
                                         .initial_monitoring_callbacks = nullptr,
                                         .second_monitoring_callbacks = nullptr,
                                         ._repr_str1 = nullptr,
                                         ._repr_str2 = nullptr};

void forget_log_files() {
    gDPrintfFile = nullptr;
    gDPrintfNativeFileno = -1;
    gDP = {};
    gUnsafeGlobalDPData = {};
    gUnsafeGlobalDPData.mask = kDefaultLogMask;
}

// Which category pointer a bit of the mask switches on. The categories that are missing here are
// only used through the mask.
struct tCategoryPointer {
    tDPrintfLogMask kind;
    tSingleDPData* tDPData::*pointer;
};

static constexpr tCategoryPointer kCategoryPointers[] = {
    {kLogCore, &tDPData::core},
    {kLogFilenames, &tDPData::filenames},
    {kLogInternalFailures, &tDPData::internal_failures},
    {kLogThreading, &tDPData::threading},
    {kLogInitialMonitoringCallbacks, &tDPData::initial_monitoring_callbacks},
    {kLogSecondMonitoringCallbacks, &tDPData::second_monitoring_callbacks},
};

static bool is_given(PyObject* file_obj) {
    return file_obj != nullptr && file_obj != gPy.Py_None;
}

TDBG_API int valid_single_dp_py_file(const tSingleDPData* sink) {
    return sink != nullptr && sink->initialized && is_given(sink->file_obj);
}

TDBG_API int valid_single_dp_native_file(const tSingleDPData* sink) {
    return sink != nullptr && sink->initialized && sink->fileno != -1;
}

TDBG_API int valid_dp_py_file(const tDPData* dp) {
    return dp != nullptr && dp->initialized && valid_single_dp_py_file(&dp->shared_single_dp_data);
}

TDBG_API int valid_dp_native_file(const tDPData* dp) {
    return dp != nullptr && dp->initialized &&
           valid_single_dp_native_file(&dp->shared_single_dp_data);
}

static void recompute_category_pointers(tDPData* dp) {
    const bool valid = valid_dp_py_file(dp) || valid_dp_native_file(dp);
    for (const tCategoryPointer& category : kCategoryPointers) {
        const bool on = valid && (dp->mask & category.kind) != 0;
        dp->*category.pointer = on ? &dp->shared_single_dp_data : nullptr;
    }
}

// Empties the buffer, allocating it first where there is none.
static void empty_repr_buffer(char** buffer) {
    if (*buffer == nullptr) {
        *buffer = static_cast<char*>(malloc(kDPrintfTextSize));
    }
    if (*buffer != nullptr) {
        **buffer = '\0';
    }
}

TDBG_API void init_dp_data(tDPData* dp, int force) {
    if (dp->initialized && !force) {
        return;
    }
    tSingleDPData* const sink = &dp->shared_single_dp_data;
    // Only a set that has been in use owns something; the fields of a new one mean nothing yet.
    PyObject* const old_file = dp->initialized ? sink->file_obj : nullptr;
    if (!dp->initialized) {
        dp->_repr_str1 = nullptr;
        dp->_repr_str2 = nullptr;
    }
    *sink = {.initialized = 0,
             .file_obj = nullptr,
             .fileno = -1,
             .win32_handle = nullptr,
             .in_dprint_count = 0};
    dp->mask = kDefaultLogMask;
    recompute_category_pointers(dp);
    empty_repr_buffer(&dp->_repr_str1);
    empty_repr_buffer(&dp->_repr_str2);
    dp->initialized = 1;
    sink->initialized = 1;
    XPy_DoDecRef(old_file);
}

TDBG_API tDPData* create_dp_data() {
    tDPData* const dp = static_cast<tDPData*>(calloc(1, sizeof(tDPData)));
    if (dp != nullptr) {
        init_dp_data(dp, 1);
    }
    return dp;
}

TDBG_API void clear_dp_data(tDPData* dp) {
    tSingleDPData* const sink = &dp->shared_single_dp_data;
    PyObject* const old_file = sink->file_obj;
    sink->file_obj = nullptr;
    sink->fileno = -1;
    sink->win32_handle = nullptr;
    recompute_category_pointers(dp);
    free(dp->_repr_str1);
    free(dp->_repr_str2);
    dp->_repr_str1 = nullptr;
    dp->_repr_str2 = nullptr;
    XPy_DoDecRef(old_file);
}

TDBG_API void free_dp_data(tDPData* dp) {
    if (dp != nullptr) {
        clear_dp_data(dp);
        free(dp);
    }
}

TDBG_API void set_dp_data_mask(tDPData* dp, tDPrintfLogMask mask) {
    dp->mask = mask;
    recompute_category_pointers(dp);
}

TDBG_API tDPrintfLogMask get_dp_data_mask(tDPData* dp) {
    return dp->mask;
}

TDBG_API void set_dp_data_file_obj(tDPData* dp,
                                   PyObject* file_obj,
                                   int fileno,
                                   void* win32_handle) {
    tSingleDPData* const sink = &dp->shared_single_dp_data;
    PyObject* const old_file = sink->file_obj;
    sink->file_obj = new_ref(file_obj);
    sink->fileno = fileno;
    sink->win32_handle = win32_handle;
    recompute_category_pointers(dp);
    XPy_DoDecRef(old_file);  // last: it may run Python code, which may log
}

TDBG_API void set_dprintf_mask(tDPrintfLogMask mask) {
    gDPrintfMask = mask;
    init_dp_data(&gUnsafeGlobalDPData, 0);
    set_dp_data_mask(&gUnsafeGlobalDPData, mask);
}

TDBG_API tDPrintfLogMask get_dprintf_mask() {
    return gDPrintfMask;
}

TDBG_API void set_dprintf_file(PyObject* file, int fileno, void* win32_handle) {
    tOwnedRef old_file(gDPrintfFile);
    const bool given = is_given(file);
    // deliberate: a descriptor alone does not switch the log on
    gDPrintfFile = given ? new_ref(file) : nullptr;
    gDPrintfNativeFileno = given ? fileno : -1;
    init_dp_data(&gUnsafeGlobalDPData, 0);
    set_dp_data_file_obj(&gUnsafeGlobalDPData, file, fileno, win32_handle);
}
