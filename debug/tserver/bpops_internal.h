// bpops_internal.h -- what only the parts of the breakpoint module share.
#pragma once

#include "bpops.h"
#include "conames.h"
#include "dbgcommon.h"
#include "dprintf.h"
#include "fileops.h"
#include "guards.h"

// bpops.cpp: head of the line's chain; null when no breakpoint is on the line.
tBp* find_bps_on_line(tBpOpsData* data, int lineno);
// Keeps a record from being freed while it is evaluated.
void hold_bp(tBp* bp);
void let_go_of_bp(tBpOpsData* data, tBp* bp);

// bpops_files.cpp: the lists by file, kept in step with the records.
void init_file_lists(tBpOpsData* data);
void clear_file_lists(tBpOpsData* data);
// A new record waits for its module, or was bound to one (module_filename set): both are entered
// here; a record that leaves its line is taken out.
void enter_bp_by_file(tBpOpsData* data, tBp* bp);
void remove_bp_by_file(tBpOpsData* data, tBp* bp);
// Stores a copy of the module's name in the record. False = out of memory.
bool bind_bp(tBpOpsData* data, tBp* bp, const char* module_filename);
bool has_module_bps(tBpOpsData* data, const char* module_filename);
// File that the frame runs in, its breakpoints resolved; borrowed, null when not known. A pending
// exception is kept.
const char* resolve_code_file(tBpOpsData* data, PyFrameObject* frame);

// bpops_condition.cpp: what became of a condition. The program's pending exception is kept.
enum tCondition : int { kConditionFalse = 0, kConditionTrue = 1, kConditionBroken = 2 };
tCondition evaluate_condition(tBp* bp, PyFrameObject* frame);
