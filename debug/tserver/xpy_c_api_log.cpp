// The binding layer's own log: a sink set of its own, since start-up runs before any Python file
// can be written to.
#include "dprintf.h"
#include "xpy_c_api_internal.h"

constinit tDPData gDP = {};

void trace_start_up(const char* format, ...) {
    if (!valid_dp_native_file(&gDP)) {
        return;
    }
    va_list args;
    va_start(args, format);
    do_dp_no_py_v(&gDP.shared_single_dp_data, format, args);
    va_end(args);
}

int XPy_SetDPrintfFile(PyObject* py_file, int fileno, void* win32_handle) {
    if (!gPy.initialized) {
        trace_start_up(
            "XPy_SetDPrintfFile() called when global_XPy_C_API_Data.initialized is false\n");
        return 0;
    }
    init_dp_data(&gDP, 0);
    set_dp_data_file_obj(&gDP, py_file, fileno, win32_handle);
    return 1;
}

int XPy_SetDPrintfNativeFile(int fileno, void* win32_handle) {
    init_dp_data(&gDP, 0);
    set_dp_data_file_obj(&gDP, nullptr, fileno, win32_handle);
    return 1;
}

long XPy_SetDPrintfMask(long mask) {
    init_dp_data(&gDP, 0);
    const tDPrintfLogMask old_mask = get_dp_data_mask(&gDP);
    set_dp_data_mask(&gDP, static_cast<tDPrintfLogMask>(mask));
    return old_mask;
}
