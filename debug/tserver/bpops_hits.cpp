// bpops_hits.cpp -- whether a line event is at a breakpoint, and whether that one stops.
#include "bpops.h"

#include <stdlib.h>
#include <string.h>

#include "bpops_internal.h"
#include "threadops.h"
#include "tracercore.h"  // upwards: the category of a frame under a sub-language hook

// ---- Is there one? ----

static bool is_bound_to(const tBp* bp, const char* module_file) {
    const bool matches = module_file != nullptr && strcmp(module_file, bp->module_filename) == 0;
    DPRINTF(kLogBreakpoints,
            "modfile = %s, bp->module_filename = %s\n",
            dprint_check_str(module_file),
            dprint_check_str(bp->module_filename));
    if (matches) {
        DPRINTF(kLogBreakpoints, "  filename match\n");
    }
    return matches;
}

// As find_bound_bps, with the log lines, which may run Python code that changes the table.
static bool is_any_bound_with_log(tBpOpsData* data, int lineno, const char* module_file) {
    tHeldBps held(data);
    held.add_chain(find_bps_on_line(data, lineno), &tBp::next_user);
    for (size_t i = 0; i < held.count(); i++) {
        if (held[i]->module_filename != nullptr && is_bound_to(held[i], module_file)) {
            return true;
        }
    }
    return false;
}

int any_bp_on_line(tBpOpsData* data, int lineno, const char** codefile, PyFrameObject* frame) {
    if (find_bps_on_line(data, lineno) == nullptr) {
        return 0;
    }
    DPRINTF(kLogBreakpoints, "breakpoints found for line %d\n", lineno);
    if (*codefile == nullptr) {
        *codefile = resolve_code_file(data, frame);
    }
    if (*codefile == nullptr) {
        return -1;
    }
    const char* const module_file = __tracer_find_module(data, *codefile, nullptr);
    if (module_file == nullptr || !has_module_bps(data, module_file)) {
        return 0;
    }
    return gDPrintfFile == nullptr ? find_bound_bps(data, module_file, lineno) != nullptr
                                   : is_any_bound_with_log(data, lineno, module_file);
}

int tracer_maybe_break_here_without_mutex(tBpOpsData* data, tThreadData* td, PyFrameObject* frame) {
    if (td->sub_language_hook != nullptr) {
        return 1;
    }
    const char* codefile = nullptr;
    return data->userbps.numEntries == 0
               ? 0
               : any_bp_on_line(data, get_frame_lineno(frame), &codefile, frame);
}

// ---- Where is the program? ----

struct tPosition {
    int lineno;
    char* codefile;        // owned; null when not known
    bool in_sub_language;  // a hook translated it
    bool only_its_own;     // no breakpoints but those of its file are looked at
};

// The hook's place for one of its key frames. False = it does not stop here, or failed (logged).
static bool translate_position(tThreadData* td,
                               PyFrameObject* frame,
                               int event_type,
                               tPosition* pos) {
    tSavedError saved;
    tOwnedRef owned_hook(new_ref(td->sub_language_hook));  // it may take itself off the thread
    PyObject* const hook = owned_hook.borrow();
    tOwnedRef stops(call_method_unlocked(hook, "_StopHere", "Oii", frame, event_type, 1));
    if (!stops) {
        DPRINTF(kLogCore, "Exception from _StopHere in __tracer_sub_language_get_frame_category\n");
        do_dlogexception();
        return false;
    }
    if (gPy.PyObject_IsTrue(stops.borrow()) != 1) {
        return false;
    }
    tOwnedRef place(call_method_unlocked(hook, "_TranslateFrame", "Oi", frame, 0));
    tOwnedRef file(place ? gPy.PySequence_GetItem(place.borrow(), 0) : nullptr);
    tOwnedRef line(file ? gPy.PySequence_GetItem(place.borrow(), 1) : nullptr);
    pos->codefile = line ? _pystring_to_c_string_copy(file.borrow()) : nullptr;
    pos->lineno = line ? static_cast<int>(int_from_object(line.borrow())) : -1;
    if (pos->codefile == nullptr || gPy.PyErr_Occurred() != nullptr) {
        DPRINTF(kLogCore,
                "Exception from _TranslateFrame in __tracer_sub_language_get_frame_category\n");
        do_dlogexception();
        return false;
    }
    pos->in_sub_language = true;
    return true;
}

static bool find_position(tThreadData* td, PyFrameObject* frame, int event_type, tPosition* pos) {
    if (td->sub_language_hook != nullptr &&
        __tracer_sub_language_get_frame_category(td, frame) == 1) {
        return translate_position(td, frame, event_type, pos);
    }
    pos->lineno = get_frame_lineno(frame);
    return true;
}

// ---- Does it stop? ----

static bool matches_file(tBpOpsData* data, const tBp* bp, const tPosition& pos) {
    if (pos.only_its_own) {
        return true;
    }
    if (!pos.in_sub_language) {
        const char* const module_file = bp->module_filename != nullptr && pos.codefile != nullptr
                                            ? __tracer_find_module(data, pos.codefile, nullptr)
                                            : nullptr;
        return module_file != nullptr && is_bound_to(bp, module_file);
    }
    DPRINTF(kLogBreakpoints,
            "sub_language bp codefile = %s, bp->user_filename = %s\n",
            dprint_check_str(pos.codefile),
            dprint_check_str(bp->user_filename));
    if (strcmp(pos.codefile, bp->user_filename) == 0) {
        DPRINTF(kLogBreakpoints, "  filename match\n");
        return true;
    }
    if (file_matches_checksum(data, bp->user_checksum, pos.codefile)) {
        DPRINTF(kLogBreakpoints, "  checksum match\n");
        return true;
    }
    return false;
}

// The condition in the sub-language's own terms.
static tCondition evaluate_by_hook(const tBp* bp, tThreadData* td, PyFrameObject* frame) {
    tSavedError saved;
    tOwnedRef hook(new_ref(td->sub_language_hook));
    tOwnedRef text(new_native_string(bp->cond));
    tOwnedRef result(
        text ? call_method_unlocked(hook.borrow(), "_Eval", "OO", text.borrow(), frame) : nullptr);
    const int truth = result ? gPy.PyObject_IsTrue(result.borrow()) : -1;
    return truth == -1 ? kConditionBroken : truth == 1 ? kConditionTrue : kConditionFalse;
}

static tCondition evaluate(tBp* bp, tThreadData* td, PyFrameObject* frame, const tPosition& pos) {
    if (bp->cond == nullptr) {
        return kConditionTrue;
    }
    return pos.in_sub_language && td->sub_language_hook != nullptr ? evaluate_by_hook(bp, td, frame)
                                                                   : evaluate_condition(bp, frame);
}

// One breakpoint on the line of the event: whether it stops. Running its condition may clear it.
static bool hit_bp(tBpOpsData* data,
                   tBp* bp,
                   tThreadData* td,
                   PyFrameObject* frame,
                   const tPosition& pos,
                   bool update) {
    const bool files_match = matches_file(data, bp, pos);
    DPRINTF(kLogBreakpoints, "files_match = %d\n", files_match ? 1 : 0);
    if (!files_match || !bp->enabled || bp->is_dropped) {
        return false;
    }
    if (update) {
        // Before the condition: a hit counts whatever the condition says.
        bp->hit_count++;
        __tracer_add_changed_bp(data, bp);
    }
    const tCondition outcome = evaluate(bp, td, frame, pos);
    if (outcome == kConditionFalse || bp->is_dropped || bp->deleted) {
        return false;  // it does not hold, or there is no such breakpoint any more
    }
    if (outcome == kConditionBroken) {
        return true;
    }
    // deliberate: a probe never consumes ignored hits, it says that the breakpoint stops
    if (bp->ignore_count > 0 && update) {
        bp->ignore_count--;
        __tracer_add_changed_bp(data, bp);
        return false;
    }
    if (bp->temporary && update) {
        bp->deleted = 1;
        __tracer_add_changed_bp(data, bp);
    }
    return true;
}

// Temporary ones that fired leave their line; they are freed once the server has heard of them.
static void remove_fired(tBpOpsData* data, const tHeldBps& held) {
    for (size_t i = 0; i < held.count(); i++) {
        if (held[i]->deleted && !held[i]->is_dropped) {
            __tracer_del_userbp(data, held[i]);
        }
    }
}

static void hold_bps_of_file(tBpOpsData* data, PyFrameObject* frame, int lineno, tHeldBps* held) {
    const char* const codefile = resolve_code_file(data, frame);
    const char* const module_file =
        codefile != nullptr ? __tracer_find_module(data, codefile, nullptr) : nullptr;
    if (module_file != nullptr) {
        held->add_chain(find_bound_bps(data, module_file, lineno), &tBp::next_bound);
    }
}

// The log and a sub-language want to see all that are on the line.
static void hold_bps_at(tBpOpsData* data, PyFrameObject* frame, tPosition* pos, tHeldBps* held) {
    pos->only_its_own = !pos->in_sub_language && gDPrintfFile == nullptr;
    if (pos->only_its_own) {
        hold_bps_of_file(data, frame, pos->lineno, held);
        return;
    }
    if (pos->codefile == nullptr) {
        const char* const codefile = resolve_code_file(data, frame);
        pos->codefile = codefile != nullptr ? strdup(codefile) : nullptr;
    }
    held->add_chain(find_bps_on_line(data, pos->lineno), &tBp::next_user);
}

static bool hit_bps_on_line(
    tBpOpsData* data, tThreadData* td, PyFrameObject* frame, tPosition* pos, bool update) {
    if (find_bps_on_line(data, pos->lineno) == nullptr) {
        return false;
    }
    DPRINTF(kLogBreakpoints, "Found bp table entry for lineno %d\n", pos->lineno);
    tHeldBps held(data);
    hold_bps_at(data, frame, pos, &held);
    bool stop = false;
    for (size_t i = 0; i < held.count(); i++) {
        stop = hit_bp(data, held[i], td, frame, *pos, update) || stop;
    }
    remove_fired(data, held);
    return stop;
}

boolean __tracer_break_here(
    tBpOpsData* data, int event_type, tThreadData* td, PyFrameObject* frame, int update_bps) {
    if (!is_frame(frame) || data->userbps.numEntries == 0) {
        return 0;
    }
    tPosition pos = {-1, nullptr, false, false};
    const bool stop = find_position(td, frame, event_type, &pos) &&
                      hit_bps_on_line(data, td, frame, &pos, update_bps != 0);
    free(pos.codefile);
    return stop;
}
