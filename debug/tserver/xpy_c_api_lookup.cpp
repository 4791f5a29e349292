// Symbol look-up by name. A library is named by its file, so each look-up opens it and closes it
// again: no handle is kept, and nothing has to be undone when the module goes away.
#include <stdio.h>

#include "libc_compat.h"
#include "xpy_c_api_internal.h"

// What the library (null = the process) has under this name.
static void* look_up(void* dll_ptr, const char* name) {
    void* const handle = tdbg_dlopen(static_cast<const char*>(dll_ptr), RTLD_LAZY | RTLD_GLOBAL);
    if (handle == nullptr) {
        return nullptr;  // a null handle would search the whole process
    }
    void* const symbol = tdbg_dlsym(handle, name);
    tdbg_dlclose(handle);
    return symbol;
}

void* GetPtrNullOk(void* dll_ptr, const char* name) {
    return look_up(dll_ptr, name);
}

void* GetPtr(void* dll_ptr, const char* name) {
    void* const symbol = look_up(dll_ptr, name);
    if (symbol == nullptr) {
        fprintf(stderr, "GetPtr() failed for %s\n", name);
    }
    return symbol;
}

static void* read_variable(void* symbol) {
    return symbol != nullptr ? *static_cast<void**>(symbol) : nullptr;
}

void* GetPtrVariableValue(void* dll_ptr, const char* name) {
    return read_variable(GetPtr(dll_ptr, name));
}

void* GetPtrVariableValueNullOk(void* dll_ptr, const char* name) {
    return read_variable(GetPtrNullOk(dll_ptr, name));
}

// Python 2 and 3.0 - 3.2 mangle these names with the build's text width.
void* GetUnicodeFunction(void* dll_ptr, const char* name, const char* prefix, int null_ok) {
    static constexpr const char* kInfixes[] = {"", "UCS2", "UCS4"};
    constexpr size_t kNameSize = 4096;
    char full_name[kNameSize];
    for (const char* infix : kInfixes) {
        snprintf(full_name, kNameSize, "%sPyUnicode%s%s", prefix, infix, name);
        void* const symbol = GetPtrNullOk(dll_ptr, full_name);
        if (symbol != nullptr) {
            return symbol;
        }
    }
    if (!null_ok) {
        fprintf(stderr, "GetUnicodeFunction() failed for: %s\n", name);
    }
    return nullptr;
}

void* XPy_LookupPythonFunction(const char* name) {
    return GetPtrNullOk(gPy.dll_ptr, name);
}
