// Module creation. Python 3's PyModuleDef is written field by field into zeroed memory, since its
// object header differs between builds.
#include <stdio.h>
#include <stdlib.h>

#include "xpy_c_api_internal.h"
#include "xpy_c_api_layouts.h"

struct tModuleDefSlot {  // PyModuleDef_Slot
    int slot;
    void* value;
};

enum tModuleSlot : int {
    kEndOfSlots = 0,
    kSlotCreate = 1,
    kSlotExec = 2,
    kSlotMultipleInterpreters = 3,  // 3.12 on
    kSlotGil = 4,                   // 3.13 on
};

static constexpr size_t kModuleDefSize = 2048;  // more than any build's PyModuleDef
static constexpr size_t kMaxSlots = 5;          // the four kinds and the end

template <class T>
static bool store_field(void* def, const char* name, T value) {
    const Py_ssize_t offset = FindFieldOffset(name, py3_mod_def_fields);
    if (offset == -1) {
        return false;
    }
    write_field<T>(def, offset, value);
    return true;
}

static bool store_description(void* def, const XPyModuleDef* from) {
    return store_field(def, "m_name", from->m_name) && store_field(def, "m_doc", from->m_doc) &&
           store_field(def, "m_size", from->m_size) &&
           store_field(def, "m_methods", from->m_methods);
}

static bool store_functions(void* def, const XPyModuleDef* from) {
    return store_field(def, "m_traverse", from->m_traverse) &&
           store_field(def, "m_clear", from->m_clear) && store_field(def, "m_free", from->m_free);
}

static void* flag_value(int flag) {
    return reinterpret_cast<void*>(static_cast<intptr_t>(flag));
}

// Number of slots written, the end not counted. `slots` is zeroed, so the end is there already.
static size_t fill_slots(tModuleDefSlot* slots, const XPyModuleDef* from) {
    size_t count = 0;
    if (from->m_create != nullptr) {
        slots[count++] = {kSlotCreate, reinterpret_cast<void*>(from->m_create)};
    }
    if (from->m_exec != nullptr) {
        slots[count++] = {kSlotExec, reinterpret_cast<void*>(from->m_exec)};
    }
    if (from->m_no_gil_support_flag != 0 && gPy.minor_version > 12) {
        slots[count++] = {kSlotGil, flag_value(from->m_no_gil_support_flag)};
    }
    // deliberate: only beside another slot, for a definition with slots is a multi-phase one.
    if (count > 0 && gPy.minor_version > 11) {
        slots[count++] = {kSlotMultipleInterpreters, flag_value(from->m_multiple_interp_flag)};
    }
    return count;
}

static bool store_slots(void* def, tModuleDefSlot* slots, const XPyModuleDef* from) {
    return fill_slots(slots, from) == 0 || store_field(def, "m_slots", slots);
}

static bool fill_module_def(void* def, tModuleDefSlot* slots, const XPyModuleDef* from) {
    if (!store_description(def, from)) {
        return false;
    }
    if (gPy.minor_version < 5) {
        if (from->m_create != nullptr) {
            fputs("Setting multi-phase module loading functions not supported before 3.5", stderr);
        }
        return true;
    }
    return store_functions(def, from) && store_slots(def, slots, from);
}

PyModuleDef* XPy_CreatePy3ModuleDef(XPyModuleDef* xpy_mod_def) {
    // Never freed: a definition must outlive its module.
    void* const def = calloc(1, kModuleDefSize);
    tModuleDefSlot* const slots =
        static_cast<tModuleDefSlot*>(calloc(kMaxSlots, sizeof(tModuleDefSlot)));
    if (def == nullptr || slots == nullptr || !fill_module_def(def, slots, xpy_mod_def)) {
        free(def);
        free(slots);
        return nullptr;
    }
    return static_cast<PyModuleDef*>(def);
}

static bool make_sure_of_start_up() {
    return gPy.initialized || XPy_Initialize() == 0;
}

PyObject* XPy_InitModule(const char* name, PyMethodDef* methods) {
    XPyModuleDef def = {};
    def.m_name = name;
    def.m_size = -1;
    def.m_methods = methods;
    if (!make_sure_of_start_up()) {
        return nullptr;
    }
    if (gPy.major_version < 3) {
        return gPy.Py_InitModule(name, methods, nullptr, nullptr, gPy.api_version);
    }
    PyModuleDef* const py_def = XPy_CreatePy3ModuleDef(&def);
    return py_def != nullptr ? gPy.PyModule_Create2(py_def, gPy.api_version) : gPy.PyErr_NoMemory();
}

PyObject* XPyModuleDef_Init(XPyModuleDef* module_def) {
    if (!make_sure_of_start_up()) {
        return nullptr;
    }
    PyModuleDef* const py_def = XPy_CreatePy3ModuleDef(module_def);
    if (py_def == nullptr) {
        return gPy.PyErr_NoMemory();
    }
    if (gPy.PyModuleDef_Init == nullptr) {
        gPy.PyErr_SetString(gPy.PyExc_RuntimeError, "PyModuleDef_Init not available before 3.5");
        return nullptr;
    }
    return gPy.PyModuleDef_Init(py_def);
}
