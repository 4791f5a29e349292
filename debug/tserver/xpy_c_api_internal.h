// xpy_c_api_internal.h -- what only the parts of the binding layer share.
#pragma once

#include "xpy_c_api.h"

// Interpreter function by name, typed like the slot it is for.
template <class Fn>
inline bool resolve(Fn** slot, const char* name) {
    *slot = reinterpret_cast<Fn*>(XPy_LookupPythonFunction(name));
    return *slot != nullptr;
}

// Fill the record's slots and global objects for an API family (2 or 3). False when a mandatory
// one is missing, which has been reported.
bool bind_slots(int family);
bool bind_globals(int family);

// Line of the start-up trace, written to gDP's native descriptor when there is one.
void trace_start_up(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Finds gProbed. Needs the finished record; leaves no error and no reference behind.
void probe_live_objects();
