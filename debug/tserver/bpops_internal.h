// bpops_internal.h -- what only the parts of the breakpoint module share.
#pragma once

#include "bpops.h"
#include "conames.h"
#include "corelock.h"
#include "dbgcommon.h"
#include "dprintf.h"
#include "fileops.h"
#include "guards.h"

// bpops.cpp: head of the line's chain; null when no breakpoint is on the line.
tBp* find_bps_on_line(tBpOpsData* data, int lineno);

// Records as they stood at one moment. Whoever walks over breakpoints and may run Python code on
// the way (a callback, a log line, a new object that starts the collector) walks over these: the
// table may change meanwhile, but a held record is not freed; is_dropped tells that it was cleared.
class tHeldBps : tNoCopy {
public:
    explicit tHeldBps(tBpOpsData* data) : data_(data) {}
    ~tHeldBps();  // frees those that were dropped
    // False = out of memory; those that were added stay.
    bool add(tBp* bp);
    bool add_chain(tBp* head, tBp* tBp::*next);
    size_t count() const { return count_; }
    tBp* operator[](size_t i) const { return bps_[i]; }

private:
    bool grow();

    static constexpr size_t kFew = 8;
    tBpOpsData* data_;
    tBp* few_[kFew];
    tBp** bps_ = few_;  // owned when it is not few_
    size_t count_ = 0;
    size_t room_ = kFew;
};

// bpops_files.cpp: the lists by file, kept in step with the records.
void init_file_lists(tBpOpsData* data);
void clear_file_lists(tBpOpsData* data);
// A new record waits for its module, or was bound to one (module_filename set): both are entered
// here (false = out of memory); a record that leaves its line is taken out.
bool enter_bp_by_file(tBpOpsData* data, tBp* bp);
void remove_bp_by_file(tBpOpsData* data, tBp* bp);
// Stores a copy of the module's name in the record. False = out of memory, the record as it was.
bool bind_bp(tBpOpsData* data, tBp* bp, const char* module_filename);
// File that the frame runs in, its breakpoints resolved; borrowed, null when not known. A pending
// exception is kept.
const char* resolve_code_file(tBpOpsData* data, PyFrameObject* frame);

// bpops_condition.cpp: what became of a condition. The program's pending exception is kept.
enum tCondition : int { kConditionFalse = 0, kConditionTrue = 1, kConditionBroken = 2 };
tCondition evaluate_condition(tBp* bp, PyFrameObject* frame);

// bpops_bound.cpp: the bound ones by module and line. The name is any copy of the module's; looking
// up that of data->known_module itself costs nothing.
void init_bound_bps(tBpOpsData* data);
void clear_bound_bps(tBpOpsData* data);
tModuleBps* find_module_bps(tBpOpsData* data, const char* module_filename);
bool has_module_bps(tBpOpsData* data, const char* module_filename);
// Head of the chain (next_bound, newest first) on the line; null when none.
tBp* find_bound_bps(tBpOpsData* data, const char* module_filename, int lineno);
bool enter_bound_bp(tBpOpsData* data, tBp* bp, const char* module_filename);  // false: no memory
void remove_bound_bp(tBpOpsData* data, tBp* bp);
