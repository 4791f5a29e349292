// exceptops_catchinfo.cpp -- what the server's analysis says of functions: does one print the
// exceptions that reach it, or does its caller decide? The list of its instances is indexed by code
// name, so an exception event costs one look-up and a short scan.
// Nothing here raises into the program: an error means that nothing is known.
#include "exceptops.h"

#include <string.h>

#include "conames.h"
#include "dprintf.h"
#include "guards.h"
#include "xpy_c_api.h"

// ---- Life ----

void init_exc_data(tExcData* exc_data) {
    *exc_data = tExcData{};
}

void reset_exc_data(tExcData* exc_data) {
    set_owned<PyObject>(&exc_data->exc_info_for_frame, nullptr);
    set_owned<PyObject>(&exc_data->catch_info_dict, nullptr);
    PyObject** const names[] = {&exc_data->syms.co_name,
                                &exc_data->syms.mod_name,
                                &exc_data->syms.prints,
                                &exc_data->syms.parent,
                                &exc_data->syms.dunder_name,
                                &exc_data->syms.containing_class};
    for (PyObject** const name : names) {
        set_owned<PyObject>(name, nullptr);
    }
}

// ---- The index ----

// New ref: a reset meanwhile drops the cached one. Null with an exception set.
static PyObject* get_name(PyObject** cache, const char* text) {
    if (*cache == nullptr) {
        *cache = new_native_string(text);
    }
    return new_ref(*cache);
}

static PyObject* get_attribute(PyObject* obj, PyObject** cache, const char* name) {  // new ref
    tOwnedRef name_obj(get_name(cache, name));
    return name_obj ? gPy.PyObject_GetAttr(obj, name_obj.borrow()) : nullptr;
}

// The list of the instances with this code name, made when there is none: borrowed from the dict.
static PyObject* borrow_or_make_list(PyObject* dict, PyObject* co_name) {
    PyObject* const old = gPy.PyDict_GetItemWithError(dict, co_name);
    if (old != nullptr || gPy.PyErr_Occurred() != nullptr) {
        return old;
    }
    tOwnedRef made(gPy.PyList_New(0));
    if (!made || gPy.PyDict_SetItem(dict, co_name, made.borrow()) == -1) {
        return nullptr;
    }
    return made.borrow();  // the dict holds it
}

static int add_to_index(tExcData* exc_data, PyObject* dict, PyObject* instance) {
    tOwnedRef co_name(get_attribute(instance, &exc_data->syms.co_name, "co_name"));
    if (!co_name) {
        return -1;
    }
    tOwnedRef list(new_ref(borrow_or_make_list(dict, co_name.borrow())));
    return list ? gPy.PyList_Append(list.borrow(), instance) : -1;
}

int set_catch_info_list(tExcData* exc_data, PyObject* list) {
    set_owned<PyObject>(&exc_data->catch_info_dict, nullptr);
    if (!is_instance_of(list, gPy.PyList_Type_ptr)) {
        return 0;
    }
    const Py_ssize_t count = gPy.PyList_Size(list);
    if (count <= 0) {
        return count == 0 ? 0 : -1;
    }
    exc_data->catch_info_dict = gPy.PyDict_New();
    tOwnedRef dict(new_ref(exc_data->catch_info_dict));  // an instance's code may reset us
    if (!dict) {
        return -1;
    }
    for (Py_ssize_t i = 0; i < gPy.PyList_Size(list); i++) {
        tOwnedRef instance(new_ref(gPy.PyList_GetItem(list, i)));
        if (!instance && gPy.PyErr_Occurred() == nullptr) {
            continue;
        }
        if (!instance || add_to_index(exc_data, dict.borrow(), instance.borrow()) == -1) {
            return -1;
        }
    }
    return 0;
}

// ---- The search ----

enum tMatch : int { kMatchFailed = -1, kNoMatch = 0, kMatch = 1 };

static const char* borrow_text(PyObject* obj) {
    return is_native_string(obj) ? _pystring_to_c_string(obj) : nullptr;
}

static bool is_any(const char* text) {
    return text != nullptr && strcmp(text, "*") == 0;
}

static tMatch match_module(tExcData* exc_data, PyObject* instance, PyFrameObject* frame) {
    tOwnedRef mod_name(get_attribute(instance, &exc_data->syms.mod_name, "mod_name"));
    if (!mod_name) {
        return kMatchFailed;
    }
    const char* const wanted = borrow_text(mod_name.borrow());
    if (wanted == nullptr || is_any(wanted)) {
        return wanted == nullptr ? kNoMatch : kMatch;
    }
    tOwnedRef globals(get_frame_globals(frame));
    tOwnedRef dunder_name(get_name(&exc_data->syms.dunder_name, "__name__"));
    tOwnedRef own(globals && dunder_name
                      ? gPy.PyObject_GetItem(globals.borrow(), dunder_name.borrow())
                      : nullptr);
    if (!own) {
        return kMatchFailed;
    }
    return string_objects_equal(own.borrow(), mod_name.borrow()) ? kMatch : kNoMatch;
}

static tMatch match_class(tExcData* exc_data, PyObject* instance, PyFrameObject* frame) {
    tOwnedRef wanted(get_attribute(instance, &exc_data->syms.containing_class, "containing_class"));
    const char* const text = borrow_text(wanted.borrow());
    if (text == nullptr) {
        return kMatchFailed;
    }
    if (is_any(text)) {
        return kMatch;
    }
    tOwnedCode code(get_frame_code(frame));
    tOwnedRef globals(get_frame_globals(frame));
    tOwnedRef cls(code && globals ? GetContainingClass(code.borrow(), globals.borrow()) : nullptr);
    tOwnedRef name(cls ? GetPyClassName(cls.borrow()) : nullptr);
    return string_objects_equal(name.borrow(), wanted.borrow()) ? kMatch : kNoMatch;
}

static tMatch match_instance(tExcData* exc_data, PyObject* instance, PyFrameObject* frame) {
    const tMatch by_module = match_module(exc_data, instance, frame);
    if (by_module != kMatch) {
        return by_module;
    }
    DPRINTF(kLogExceptions, "  match1\n");
    const tMatch by_class = match_class(exc_data, instance, frame);
    if (by_class == kMatch) {
        DPRINTF(kLogExceptions, "  match2\n");
    }
    return by_class;
}

static PyObject* fail_search() {
    DPRINTF(kLogExceptions, "  failure\n");
    gPy.PyErr_Clear();
    return nullptr;
}

PyObject* find_catch_info(tExcData* exc_data, PyFrameObject* frame) {
    tOwnedRef name(get_frame_code_name(frame));
    if (!name || name.borrow() == gPy.Py_None || exc_data->catch_info_dict == nullptr) {
        return fail_search();
    }
    tOwnedRef dict(new_ref(exc_data->catch_info_dict));
    tOwnedRef list(new_ref(gPy.PyDict_GetItemWithError(dict.borrow(), name.borrow())));
    if (!list) {
        DPRINTF(kLogExceptions,
                "  null info_list; looking for %s\n",
                dprint_check_pystr(name.borrow()));
        gPy.PyErr_Clear();
        return nullptr;
    }
    if (!is_instance_of(list.borrow(), gPy.PyList_Type_ptr)) {
        DPRINTF(kLogExceptions, "  not list\n");
        return fail_search();
    }
    for (Py_ssize_t i = 0; i < gPy.PyList_Size(list.borrow()); i++) {
        tOwnedRef instance(new_ref(gPy.PyList_GetItem(list.borrow(), i)));
        if (!instance) {
            gPy.PyErr_Clear();
            continue;
        }
        const tMatch match = match_instance(exc_data, instance.borrow(), frame);
        if (match == kMatchFailed) {
            return fail_search();
        }
        if (match == kMatch) {
            return instance.give_away();
        }
    }
    return nullptr;
}

// ---- The two questions ----

struct tPrintsAndParent {
    bool prints;
    bool parent;
};

// False = failed (logged, cleared).
static bool get_prints_and_parent(tExcData* exc_data, PyObject* instance, tPrintsAndParent* out) {
    const int prints = get_bool_attrib(instance, "prints", &exc_data->syms.prints);
    const int parent =
        prints == -1 ? -1 : get_bool_attrib(instance, "parent", &exc_data->syms.parent);
    if (parent == -1) {
        DPRINTF(kLogExceptions, "get_prints_and_parent failed\n");
        gPy.PyErr_Clear();
        return false;
    }
    DPRINTF(kLogExceptions, "prints=%i, parent=%i\n", prints, parent);
    *out = {prints != 0, parent != 0};
    return true;
}

static PyObject* find_instance(tExcData* exc_data, PyFrameObject* frame) {  // new ref or null
    DPRINTF(kLogExceptions, "entering find_catch_info\n");
    if (exc_data->catch_info_dict == nullptr || !is_frame(frame)) {
        DPRINTF(kLogExceptions, "  null dict or not frame\n");
        return nullptr;
    }
    PyObject* const instance = find_catch_info(exc_data, frame);
    if (instance == nullptr) {
        DPRINTF(kLogExceptions, "catch_info == NULL\n");
    }
    return instance;
}

int frame_prints_exc(tExcData* exc_data, PyFrameObject* frame) {
    tSavedError saved;
    tOwnedRef instance(find_instance(exc_data, frame));
    tPrintsAndParent says = {};
    return instance && get_prints_and_parent(exc_data, instance.borrow(), &says) && says.prints &&
           !says.parent;
}

int parent_frame_prints_exc(tExcData* exc_data, PyFrameObject* frame) {
    tSavedError saved;
    tOwnedRef instance(find_instance(exc_data, frame));
    if (is_frame(frame) && is_outermost_frame(frame)) {
        return 1;
    }
    tPrintsAndParent says = {};
    return instance && get_prints_and_parent(exc_data, instance.borrow(), &says) && says.prints &&
           says.parent;
}
