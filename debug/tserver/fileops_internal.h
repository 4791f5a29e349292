// fileops_internal.h -- what the parts of fileops share.
#pragma once

#include "dprintf.h"
#include "fileops.h"

inline tSingleDPData* borrow_filenames_sink(const tFileOpsData* data) {
    return data != nullptr && data->dp != nullptr ? data->dp->filenames : nullptr;
}

inline tSingleDPData* borrow_failures_sink(const tFileOpsData* data) {
    return data != nullptr && data->dp != nullptr ? data->dp->internal_failures : nullptr;
}

// The text, then the pending exception, which stays pending.
inline void log_file_failure(const tFileOpsData* data, const char* text) {
    tSingleDPData* const sink = borrow_failures_sink(data);
    if (sink != nullptr) {
        do_dp(sink, "%s", text);
        do_dp_logexception(sink);
    }
}
