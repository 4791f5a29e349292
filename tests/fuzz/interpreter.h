// interpreter.h -- the interpreter made of structs (tests/native/fake_python.h) for fuzz targets:
// set up once, cleaned after every input, so that millions of inputs need no more memory than one.
#pragma once

#include <unordered_map>

#include "fake_python.h"

// Never destroyed: what they refer to would count as leaked.
inline auto& kept_names = *new std::unordered_map<std::string, tFake*>;
inline auto& entries_of_code = *new std::unordered_map<PyObject*, void*>;

// Names of attributes are kept by the modules for ever; texts that look like one are made once.
inline PyObject* make_or_find_text(const char* text) {
    const std::string key(text);
    if (key.size() > 24 || key.find_first_not_of("abcdefghijklmnopqrstuvwxyz_") != key.npos) {
        return fake->str(key);
    }
    const auto found = kept_names.find(key);
    if (found != kept_names.end()) {
        return new_ref(static_cast<PyObject*>(found->second));
    }
    tFake* const made = new tFake();
    made->refcnt = 1000000;
    made->type = fake->str_type;
    made->text = key;
    kept_names[key] = made;
    return made;
}

inline void bind_for_fuzzing() {
    bind_fake_interpreter();
    bind_fake_lists();
    gPy.initialized = 1;
    gPy.PyUnicode_FromString = make_or_find_text;
    gPy.PyCode_Type_ptr = fake->make(fake->type_type, "code");
    gPy._PyEval_RequestCodeExtraIndex = [](freefunc) { return Py_ssize_t{0}; };
    gPy._PyCode_GetExtra = [](PyObject* code, Py_ssize_t, void** extra) {
        *extra = entries_of_code[code];
        return 0;
    };
    gPy._PyCode_SetExtra = [](PyObject* code, Py_ssize_t, void* extra) {
        entries_of_code[code] = extra;
        return 0;
    };
    gPy.PyObject_GetAttrString = [](PyObject* obj, const char* name) {
        return fake_get_attr(obj, make_or_find_text(name));
    };
    gPy.PyBytes_Size = [](PyObject* obj) {
        return static_cast<Py_ssize_t>(as_fake(obj)->text.size());
    };
    gPy.PyDict_New = []() -> PyObject* { return fake->make(fake->other_type, "dict"); };
    gPy.PyErr_SetString = [](PyObject*, const char* text) { fake->raise(text); };
    gPy.PyImport_ImportModule = [](const char*) -> PyObject* { return fake->str("os module"); };
    // Frames have no variables: paths that are not registered stay unknown, conditions fail.
    const auto no_variables = [](PyFrameObject*) -> PyObject* {
        fake->raise("no variables");
        return nullptr;
    };
    gPy.PyFrame_GetGlobals = no_variables;
    gPy.PyFrame_GetLocals = no_variables;
    gPy.PyFrame_GetBuiltins = no_variables;
    gPy.Py_GetRecursionLimit = [] { return 1000; };
    gPy.Py_SetRecursionLimit = [](int) {};
}

// The interpreter, made at the first input.
inline size_t first_object_of_input = 0;

inline void begin_input() {
    if (fake == nullptr) {
        fake = new tFakePython();
        bind_for_fuzzing();
        first_object_of_input = fake_objects.size();
    }
}

inline void end_input() {
    gPy.PyErr_Clear();
    entries_of_code.clear();
    fake_objects.resize(first_object_of_input);
}
