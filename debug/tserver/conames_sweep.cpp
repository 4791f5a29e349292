// Walks over a module's functions and classes: to register the module's file for all of its code at
// once, and to find the class a code object belongs to. No Python code of the program runs: only
// types, dictionaries and the attributes of the interpreter's own function objects are looked at.
#include "conames.h"

#include "dbgcommon.h"
#include "dprintf.h"
#include "guards.h"

static constexpr int kMaxDepth = 9;

// ---- What an object of the module is ----

static bool is_function(PyObject* obj) {
    return is_instance_of(obj, gPy.PyFunction_Type_ptr);
}

// A type, or one of Python 2's old-style classes.
static bool is_class(PyObject* obj) {
    return is_instance_of(obj, gPy.PyType_Type_ptr) ||
           (gPy.major_version < 3 && is_instance_of(obj, gPy.PyClass_Type_ptr));
}

// New ref; null after logging.
static PyObject* get_logged_attrib(PyObject* obj, PyObject* name, const char* failure) {
    PyObject* const value = name != nullptr ? gPy.PyObject_GetAttr(obj, name) : nullptr;
    if (value == nullptr) {
        log_failure(failure);
    }
    return value;
}

static PyObject* get_function_code(PyObject* func) {
    static constinit tNameCache name = {};
    return get_logged_attrib(func,
                             borrow_name(&name, gPy.major_version < 3 ? "func_code" : "__code__"),
                             "Exception in GetFunctionCode\n");
}

static PyObject* get_function_globals(PyObject* func) {
    static constinit tNameCache name = {};
    return get_logged_attrib(
        func,
        borrow_name(&name, gPy.major_version < 3 ? "func_globals" : "__globals__"),
        "Exception in GetFunctionGlobals\n");
}

static PyObject* get_method_function(PyObject* method) {
    static constinit tNameCache name = {};
    return get_logged_attrib(method,
                             borrow_name(&name, gPy.major_version < 3 ? "im_func" : "__func__"),
                             "Exception in GetMethodFunction\n");
}

static PyObject* get_code_constants(PyObject* code) {
    static constinit tNameCache name = {};
    return get_logged_attrib(
        code, borrow_name(&name, "co_consts"), "Exception in GetCodeConstants\n");
}

// Function behind a function or a method: new ref; null for anything else.
static PyObject* get_function_of(PyObject* obj) {
    if (is_function(obj)) {
        return new_ref(obj);
    }
    return is_instance_of(obj, gPy.PyMethod_Type_ptr) ? get_method_function(obj) : nullptr;
}

// An old-style class has no dict slot that the interpreter would tell the place of.
static PyObject* get_old_style_dict(PyObject* cls) {
    static constinit tNameCache name = {};
    return get_logged_attrib(
        cls, borrow_name(&name, "__dict__"), "Exception raised by _PyObject_GetDictPtr\n");
}

// Dict of names of a module's dict or of a class: new ref; null when there is none.
static PyObject* get_names_of(PyObject* obj) {
    if (is_instance_of(obj, gPy.PyDict_Type_ptr)) {
        return new_ref(obj);
    }
    if (gPy.major_version < 3 && is_instance_of(obj, gPy.PyClass_Type_ptr)) {
        return get_old_style_dict(obj);
    }
    PyObject** const dict = gPy._PyObject_GetDictPtr(obj);
    if (dict == nullptr && gPy.PyErr_Occurred() != nullptr) {
        log_failure("Exception raised by _PyObject_GetDictPtr\n");
    }
    const bool found = dict != nullptr && is_instance_of(*dict, gPy.PyDict_Type_ptr);
    return found ? new_ref(*dict) : nullptr;
}

// 1 = seen before, 0 = entered now, -1 = failed (logged).
static int enter_seen(PyObject* seen_ids, PyObject* obj) {
    tOwnedRef id(gPy.PyLong_FromVoidPtr(obj));
    const int present = id ? gPy.PyDict_Contains(seen_ids, id.borrow()) : -1;
    if (present == 1) {
        return 1;
    }
    if (present == 0 && gPy.PyDict_SetItem(seen_ids, id.borrow(), gPy.Py_None) == 0) {
        return 0;
    }
    log_failure("Failure: enter_seen()\n");
    return -1;
}

// ---- The sweep ----

// Adds the result of a step; false when that step failed.
static bool add_count(int* total, int count) {
    if (count > 0) {
        *total += count;
    }
    return count >= 0;
}

static int register_constants(tRegisterMatching* context,
                              PyObject* code,
                              PyObject* containing_class,
                              int depth) {
    tOwnedRef constants(get_code_constants(code));
    const Py_ssize_t count = constants ? gPy.PyTuple_Size(constants.borrow()) : 0;
    int total = 0;
    for (Py_ssize_t i = 0; i < count; i++) {
        PyObject* const constant = gPy.PyTuple_GetItem(constants.borrow(), i);
        if (is_instance_of(constant, gPy.PyCode_Type_ptr) &&
            !add_count(&total,
                       RegisterMatchingFunction(context, constant, containing_class, depth + 1))) {
            return -1;
        }
    }
    return total;
}

static int register_code(tRegisterMatching* context,
                         PyObject* code,
                         PyObject* containing_class,
                         int depth) {
    if (RegisterCOPathname(context->table,
                           static_cast<PyCodeObject*>(code),
                           context->pathname,
                           containing_class,
                           context->force) != 0) {
        return -1;
    }
    const int inner = register_constants(context, code, containing_class, depth);
    return inner < 0 ? -1 : inner + 1;
}

// Code of a function whose globals are the module's own, or of a constant, which comes here as the
// code object itself. New ref; null when there is nothing to register.
static PyObject* get_own_code(tRegisterMatching* context, PyObject* func) {
    if (is_instance_of(func, gPy.PyCode_Type_ptr)) {
        return new_ref(func);
    }
    tOwnedRef globals(is_function(func) ? get_function_globals(func) : nullptr);
    if (globals.borrow() != context->globals) {
        DPRINTF(kLogFilenames, "Non-function object passed to RegisterMatchingFunction\n");
        return nullptr;
    }
    return get_function_code(func);
}

static void log_function(PyObject* func, int depth) {
    tOwnedRef code(is_function(func) ? get_function_code(func) : new_ref(func));
    PyObject* const name = is_instance_of(code.borrow(), gPy.PyCode_Type_ptr)
                               ? borrow_code_name(static_cast<PyCodeObject*>(code.borrow()))
                               : nullptr;
    DPRINTF(kLogFilenames,
            "RegisterMatchingFunction called on %s; depth = %i\n",
            dprint_check_pystr(name),
            depth);
}

int RegisterMatchingFunction(tRegisterMatching* context,
                             PyObject* func,
                             PyObject* containing_class,
                             int depth) {
    if (depth > kMaxDepth) {
        return 0;
    }
    if (gDPrintfFile != nullptr) {
        log_function(func, depth);
    }
    const int seen = enter_seen(context->seen_ids, func);
    if (seen != 0) {
        if (seen == 1) {
            DPRINTF(kLogFilenames, "  Already seen obj\n");
        }
        return seen == 1 ? 0 : -1;
    }
    tOwnedRef code(get_own_code(context, func));
    return code ? register_code(context, code.borrow(), containing_class, depth) : 0;
}

static int register_value(tRegisterMatching* context,
                          PyObject* name,
                          PyObject* value,
                          PyObject* containing_class,
                          int depth) {
    if (is_class(value)) {
        DPRINTF(
            kLogFilenames, "  Recursing into type/class bound to %s\n", dprint_check_pystr(name));
        return RegisterMatchingDictValues(context, value, value, depth + 1);
    }
    tOwnedRef func(get_function_of(value));
    if (!func) {
        return 0;
    }
    return RegisterMatchingFunction(context, func.borrow(), containing_class, depth + 1);
}

static int register_names(tRegisterMatching* context,
                          PyObject* names,
                          PyObject* containing_class,
                          int depth) {
    DPRINTF(kLogFilenames,
            "  Starting iteration; dict len = %d\n",
            static_cast<int>(gPy.PyDict_Size(names)));
    int total = 0;
    Py_ssize_t pos = 0;
    PyObject* name = nullptr;
    PyObject* value = nullptr;
    while (gPy.PyDict_Next(names, &pos, &name, &value) != 0) {
        // Held: a code object freed on the way may run a callback that changes the dict.
        tOwnedRef held_name(new_ref(name));
        tOwnedRef held_value(new_ref(value));
        if (!add_count(&total, register_value(context, name, value, containing_class, depth))) {
            return -1;
        }
    }
    return total;
}

static int register_names_once(tRegisterMatching* context,
                               PyObject* obj,
                               PyObject* containing_class,
                               int depth) {
    const int seen = enter_seen(context->seen_ids, obj);
    if (seen != 0) {
        if (seen == 1) {
            DPRINTF(kLogFilenames, "  Already seen obj\n");
        }
        return seen == 1 ? 0 : -1;
    }
    tOwnedRef names(get_names_of(obj));
    return names ? register_names(context, names.borrow(), containing_class, depth) : 0;
}

int RegisterMatchingDictValues(tRegisterMatching* context,
                               PyObject* obj,
                               PyObject* containing_class,
                               int depth) {
    if (depth > kMaxDepth) {
        return 0;
    }
    DPRINTF(kLogFilenames,
            "RegisterMatchingDictValues: obj = %p; pathname = %s; globals = %p; depth = %d\n",
            static_cast<void*>(obj),
            dprint_check_str(context->pathname),
            static_cast<void*>(context->globals),
            depth);
    const int count = register_names_once(context, obj, containing_class, depth);
    DPRINTF(kLogFilenames, "Returning %i from RegisterMatchingDictValues()\n", count);
    return count;
}

int RegisterMatchingCodeValues(tCOPathnameTable* table,
                               const char* pathname,
                               PyObject* globals,
                               int force) {
    DPRINTF(
        kLogFilenames, "RegisterMatchingCodeValues: globals = %p\n", static_cast<void*>(globals));
    if (!is_instance_of(globals, gPy.PyDict_Type_ptr)) {
        return 0;
    }
    tSavedError saved;
    tOwnedRef seen_ids(gPy.PyDict_New());
    if (!seen_ids) {
        log_failure("Failure: RegisterMatchingCodeValues()\n");
        return -1;
    }
    tRegisterMatching context = {table, pathname, globals, force, seen_ids.borrow()};
    return RegisterMatchingDictValues(&context, globals, nullptr, 0);
}

// ---- The class of a code object ----

struct tClassSearch {
    PyObject* code;      // borrowed; what is looked for
    PyObject* seen_ids;  // borrowed
};

// The two wrappers that class bodies put around functions; null where the symbol is missing.
struct tWrapperTypes {
    PyTypeObject* static_method;
    PyTypeObject* class_method;
    bool looked_up;
};
static constinit tWrapperTypes gWrapperTypes = {nullptr, nullptr, false};

static bool is_wrapped_function(PyObject* obj) {
    if (!gWrapperTypes.looked_up) {
        gWrapperTypes = {
            static_cast<PyTypeObject*>(XPy_LookupPythonFunction("PyStaticMethod_Type")),
            static_cast<PyTypeObject*>(XPy_LookupPythonFunction("PyClassMethod_Type")),
            true};
    }
    return is_instance_of(obj, gWrapperTypes.static_method) ||
           is_instance_of(obj, gWrapperTypes.class_method);
}

// As get_function_of, and through static and class methods, whose frames are in the class as well.
static PyObject* get_class_function(PyObject* obj) {
    if (!is_wrapped_function(obj)) {
        return get_function_of(obj);
    }
    tOwnedRef wrapped(gPy.PyObject_GetAttrString(obj, "__func__"));
    if (!wrapped) {
        gPy.PyErr_Clear();  // 2.6 does not tell
    }
    return get_function_of(wrapped.borrow());
}

static bool is_function_with_code(PyObject* obj, PyObject* code) {
    tOwnedRef func(get_class_function(obj));
    tOwnedRef own_code(func ? get_function_code(func.borrow()) : nullptr);
    return own_code && own_code.borrow() == code;
}

static PyObject* find_class(tClassSearch* search, PyObject* obj, PyObject* cls, int depth);

// New ref to cls when value is the function looked for, or to a class inside value.
static PyObject* find_class_at(tClassSearch* search, PyObject* value, PyObject* cls, int depth) {
    if (is_class(value)) {
        return find_class(search, value, value, depth + 1);
    }
    return cls != nullptr && is_function_with_code(value, search->code) ? new_ref(cls) : nullptr;
}

// Searches the names of obj: a class, or the module's dict with a null cls.
static PyObject* find_class(tClassSearch* search, PyObject* obj, PyObject* cls, int depth) {
    if (depth > kMaxDepth || enter_seen(search->seen_ids, obj) != 0) {
        return nullptr;
    }
    tOwnedRef names(get_names_of(obj));
    Py_ssize_t pos = 0;
    PyObject* name = nullptr;
    PyObject* value = nullptr;
    while (names && gPy.PyDict_Next(names.borrow(), &pos, &name, &value) != 0) {
        tOwnedRef held_value(new_ref(value));
        PyObject* const found = find_class_at(search, value, cls, depth);
        if (found != nullptr) {
            return found;
        }
    }
    return nullptr;
}

PyObject* GetContainingClass(PyCodeObject* code, PyObject* globals) {
    if (code == nullptr || !is_instance_of(globals, gPy.PyDict_Type_ptr)) {
        return nullptr;
    }
    tSavedError saved;
    tOwnedRef seen_ids(gPy.PyDict_New());
    if (!seen_ids) {
        log_failure("Failure: GetContainingClass()\n");
        return nullptr;
    }
    tClassSearch search = {code, seen_ids.borrow()};
    return find_class(&search, globals, nullptr, 0);
}

PyObject* GetPyClassName(PyObject* cls) {
    static constinit tNameCache name = {};
    tSavedError saved;
    PyObject* const attrib = borrow_name(&name, "__name__");
    return get_logged_attrib(cls, attrib, "Exception in GetPyClassName\n");
}
