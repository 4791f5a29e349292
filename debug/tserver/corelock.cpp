#include "corelock.h"

constinit bool gNoInterpreterLock = false;

using tSectionBegin = void (*)(void* section, PyObject* object);
using tSectionEnd = void (*)(void* section);

// Not among the functions that the system needs to run: 3.13 and later have them. Null until found.
static constinit tSectionBegin gSectionBegin = nullptr;
static constinit tSectionEnd gSectionEnd = nullptr;

// Sections are those of an object, by the mutex in its header. This one is nothing but a header: it
// outlives interpreters, and no failure to make it has to be thought of.
static constexpr size_t kHeaderSize = 64;
alignas(void*) static constinit unsigned char gLockObject[kHeaderSize] = {};

static PyObject* lock_object() {
    return reinterpret_cast<PyObject*>(gLockObject);
}

static constinit Py_tss_t* gInnermost = nullptr;  // each thread's innermost section

static bool find_functions() {
    gSectionBegin =
        reinterpret_cast<tSectionBegin>(XPy_LookupPythonFunction("PyCriticalSection_Begin"));
    gSectionEnd = reinterpret_cast<tSectionEnd>(XPy_LookupPythonFunction("PyCriticalSection_End"));
    gPy.PyErr_Clear();
    return gSectionBegin != nullptr && gSectionEnd != nullptr;
}

static bool make_key() {
    if (gInnermost == nullptr) {
        gInnermost = gPy.PyThread_tss_alloc();
    }
    return gInnermost != nullptr && gPy.PyThread_tss_create(gInnermost) == 0;
}

static bool is_interpreter_lock_on() {
    PyObject* const function = gPy.PySys_GetObject("_is_gil_enabled");  // 3.13 and later
    tOwnedRef answer(function != nullptr ? gPy.PyObject_CallObject(function, nullptr) : nullptr);
    gPy.PyErr_Clear();
    return answer.borrow() != gPy.Py_False;
}

void update_interpreter_lock() {
    if (is_free_threaded_build() && !gNoInterpreterLock) {
        tSavedError saved;
        gNoInterpreterLock = !is_interpreter_lock_on() && find_functions() && make_key();
    }
}

void begin_core_section(tCoreSection* section) {
    tSavedErrno keep_errno;
    gSectionBegin(section->interpreters_own, lock_object());
    section->outer = static_cast<tCoreSection*>(gPy.PyThread_tss_get(gInnermost));
    section->is_begun = true;
    gPy.PyThread_tss_set(gInnermost, section);
}

void end_core_section(tCoreSection* section) {
    tSavedErrno keep_errno;
    gPy.PyThread_tss_set(gInnermost, section->outer);
    gSectionEnd(section->interpreters_own);
}

tCoreSection* suspend_core_section() {
    tCoreSection* const section = static_cast<tCoreSection*>(gPy.PyThread_tss_get(gInnermost));
    if (section == nullptr || !section->is_begun) {
        return nullptr;
    }
    tSavedErrno keep_errno;
    section->is_begun = false;
    gSectionEnd(section->interpreters_own);
    return section;
}

void resume_core_section(tCoreSection* section) {
    tSavedErrno keep_errno;
    gSectionBegin(section->interpreters_own, lock_object());
    section->is_begun = true;
}
