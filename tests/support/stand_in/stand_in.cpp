// stand_in.cpp -- an interpreter that is nothing but names: every function and object that the
// library binds to, made from the library's own lists. A function answers 0 unless a test has told
// it otherwise; whether a name is exported at all is up to the file that the test loads (the test
// takes names out of a copy).
#include <stdarg.h>
#include <stdio.h>

#include <deque>
#include <map>
#include <string>
#include <type_traits>

#include "xpy_types.h"

#pragma GCC diagnostic ignored "-Wunused-parameter"
#pragma GCC diagnostic ignored "-Wmissing-declarations"

#define STAND_IN_API extern "C" __attribute__((visibility("default")))
#define STAND_IN_DATA __attribute__((visibility("default")))  // names of variables are not mangled

struct tAnswers {
    std::deque<long> queue;  // the last one stays
    long calls = 0;
};
static std::map<std::string, tAnswers> gAnswers;
static std::string gLastError;

// Next answers of a function, after those already given.
STAND_IN_API void stand_in_push(const char* name, long answer) {
    gAnswers[name].queue.push_back(answer);
}

// Number of calls since the last reset.
STAND_IN_API long stand_in_calls(const char* name) {
    return gAnswers[name].calls;
}

// Text of the last PyErr_Format or PyErr_SetString; "" when none.
STAND_IN_API const char* stand_in_last_error() {
    return gLastError.c_str();
}

STAND_IN_API void stand_in_reset() {
    gAnswers.clear();
    gLastError.clear();
}

static long next_answer(const char* name) {
    tAnswers& answers = gAnswers[name];
    answers.calls++;
    if (answers.queue.empty()) {
        return 0;
    }
    const long answer = answers.queue.front();
    if (answers.queue.size() > 1) {
        answers.queue.pop_front();
    }
    return answer;
}

template <class T>
static T convert(long answer) {
    if constexpr (std::is_pointer_v<T>) {
        return reinterpret_cast<T>(answer);
    } else if constexpr (!std::is_void_v<T>) {
        return static_cast<T>(answer);
    }
}

STAND_IN_API PyObject* PyErr_Format(PyObject* type, const char* format, ...) {
    gLastError = format;
    return convert<PyObject*>(next_answer("PyErr_Format"));
}

STAND_IN_API void PyErr_SetString(PyObject* type, const char* message) {
    gLastError = message;
    next_answer("PyErr_SetString");
}

// Written above; the lists' versions get a name that nobody looks up.
#define PyErr_Format listed_PyErr_Format
#define PyErr_SetString listed_PyErr_SetString
#define XPY_SLOT(rule, result, name, params, backup) \
    STAND_IN_API result name params {                \
        return convert<result>(next_answer(#name));  \
    }
#include "xpy_c_api_slots.inc"
#undef XPY_SLOT

#define OTHER_FUNCTION(name)                       \
    STAND_IN_API void* name() {                    \
        return convert<void*>(next_answer(#name)); \
    }
OTHER_FUNCTION(Py_InitModule4)
OTHER_FUNCTION(Py_InitModule4_64)
OTHER_FUNCTION(Py_InitModule4TraceRefs)
OTHER_FUNCTION(Py_InitModule4TraceRefs_64)
OTHER_FUNCTION(PyModule_Create2TraceRefs)
OTHER_FUNCTION(_Py_GetThreadLocal_Addr)
OTHER_FUNCTION(_Py_NegativeRefcount)
OTHER_FUNCTION(_Py_INCREF_IncRefTotal)
OTHER_FUNCTION(_Py_DECREF_DecRefTotal)
STAND_IN_DATA Py_ssize_t _Py_RefTotal = 1000;
OTHER_FUNCTION(Py_IsFinalizing)
OTHER_FUNCTION(PyUnstable_Code_GetExtra)
OTHER_FUNCTION(PyUnstable_Code_SetExtra)
OTHER_FUNCTION(PyUnstable_Eval_RequestCodeExtraIndex)
OTHER_FUNCTION(_PyDict_GetItemWithError)
OTHER_FUNCTION(PyUnicode_AsUTF8)
OTHER_FUNCTION(PyUnicodeUCS2_Contains)
OTHER_FUNCTION(PyUnicodeUCS4_Contains)

// Objects. Only their addresses matter.
struct tStandInObject {
    long words[64];
};
#define STAND_IN_OBJECT(name) STAND_IN_DATA tStandInObject name = {};
STAND_IN_OBJECT(_Py_NoneStruct)
STAND_IN_OBJECT(_Py_TrueStruct)
STAND_IN_OBJECT(_Py_FalseStruct)
STAND_IN_OBJECT(_Py_ZeroStruct)
STAND_IN_DATA const char* Py_FileSystemDefaultEncoding = "stand-in";

static tStandInObject gExceptionClass = {};
#define XPY_EXCEPTION(name) STAND_IN_DATA void* name = &gExceptionClass;
#define XPY_TYPE(rule, name) STAND_IN_OBJECT(name)
#include "xpy_c_api_globals.inc"
