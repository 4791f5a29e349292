// bpops_internal.h -- what only the parts of the breakpoint module share.
#pragma once

#include "bpops.h"
#include "conames.h"
#include "corelock.h"
#include "dbgcommon.h"
#include "dprintf.h"
#include "fileops.h"
#include "guards.h"

// Longer names, terminator included, are looked up anew each time.
inline constexpr size_t kKnownFileSize = 512;

struct tModuleBps;  // the breakpoints of one module, by line

// What a table of breakpoints keeps beside its prescribed fields.
struct tBpLists {
    const tBpOpsData* owner;          // the table; null = not in use yet
    tBpLists* next;                   // of another table
    int waiting_checksums;            // unresolved breakpoints with a checksum
    CUt_HashTable waiting_files;      // user file name -> its unresolved breakpoints
    CUt_HashTable module_bps;         // module file name -> owned tModuleBps of those bound to it
    CUt_HashTable unknown_files;      // user file name -> owned: when no module was found for it
    const char* known_module;         // borrowed from loaded_modules: module of known_file, or null
    tModuleBps* known_module_bps;     // of known_module; null = none
    char known_file[kKnownFileSize];  // file name that was last found in loaded_modules
    PyObject* known_path;  // owned; path of code objects whose text is known_file, or null
};

// bpops_lists.cpp. The first table that was made, the tracer's, has lists of its own.
extern tBpLists gFirstBpLists;
tBpLists* find_or_make_bp_lists(const tBpOpsData* data);

inline tBpLists* lists_of(const tBpOpsData* data) {
    return gFirstBpLists.owner == data ? &gFirstBpLists : find_or_make_bp_lists(data);
}

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
// up that of known_module itself costs nothing.
void init_bound_bps(tBpOpsData* data);
void clear_bound_bps(tBpOpsData* data);
tModuleBps* find_module_bps(tBpOpsData* data, const char* module_filename);
bool has_module_bps(tBpOpsData* data, const char* module_filename);
// Head of the chain (next_bound, newest first) on the line; null when none.
tBp* find_bound_bps(tBpOpsData* data, const char* module_filename, int lineno);
bool enter_bound_bp(tBpOpsData* data, tBp* bp, const char* module_filename);  // false: no memory
void remove_bound_bp(tBpOpsData* data, tBp* bp);
