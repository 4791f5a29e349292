// breaks_fuzz.cpp -- the table of breakpoints with names, checksums, lines and conditions of any
// form, against a list; and line tables of code objects that no compiler has written.
#include <string.h>

#include <vector>

#include "bpops.h"
#include "conames.h"
#include "fileops.h"
#include "fuzz.h"
#include "guards.h"
#include "interpreter.h"
#include "threadops.h"

namespace {

constexpr char kFile[] = "/folder/module.py";

struct tModelBreak {
    int id;
    std::string file;
    int line;
    bool enabled;
    int ignore;
};

struct tState {
    tFileOpsData* files;
    tCOPathnameTable names;
    tBpOpsData table;
    tThreadData thread;
    std::vector<tModelBreak> model;  // oldest first
};

std::string read_file(tInput* input) {
    return input->below(3) != 0 ? std::string(kFile) : input->text();
}

PyObject* read_condition(tInput* input) {
    return input->below(2) != 0 ? fake->str(input->text()) : gPy.Py_None;
}

// The one text that the interpreter has no bytes for.
bool is_encodable(PyObject* condition) {
    return as_fake(condition)->text != "unencodable";
}

void set_break(tState* state, tInput* input) {
    const std::string file = read_file(input);
    const std::string checksum = input->below(4) == 0 ? input->text() : "";
    const int line = input->line();
    const int enabled = static_cast<int>(input->below(2));
    const int temporary = static_cast<int>(input->below(2));
    const int ignore = static_cast<int>(input->below(3));
    PyObject* const condition = read_condition(input);
    const int id = __tracer_set_break(
        &state->table, file.c_str(), checksum.c_str(), line, enabled, temporary, condition, ignore);
    FUZZ_CHECK((id > 0) == is_encodable(condition));
    if (id <= 0) {
        return gPy.PyErr_Clear();
    }
    state->model.push_back({id, file, line, enabled != 0, ignore});
}

void clear_breaks(tState* state, tInput* input) {
    const std::string file = read_file(input);
    const int line = input->line();
    __tracer_clear_breaks(&state->table, file.c_str(), line);
    std::erase_if(state->model,
                  [&](const tModelBreak& item) { return item.line == line && item.file == file; });
}

size_t count(const tState* state, const std::string& file, int line) {
    size_t found = 0;
    for (const tModelBreak& item : state->model) {
        found += item.line == line && item.file == file;
    }
    return found;
}

void change_breaks(tState* state, tInput* input) {
    const std::string file = read_file(input);
    const int line = input->line();
    const bool any = count(state, file, line) != 0;
    const unsigned what = input->below(3);
    if (what == 0) {
        const int enabled = static_cast<int>(input->below(2));
        const int answer = __tracer_enable_breaks(&state->table, file.c_str(), line, enabled);
        FUZZ_CHECK(answer == (any && enabled ? 1 : 0));
    } else if (what == 1) {
        const int answer =
            __tracer_ignore_breaks(&state->table, file.c_str(), line, input->number());
        FUZZ_CHECK(answer == (any ? 1 : 0));
    } else {
        __tracer_set_breaks_cond(&state->table, file.c_str(), line, read_condition(input));
        gPy.PyErr_Clear();
    }
}

void check_lists(tState* state, tInput* input) {
    const std::string file = read_file(input);
    const int line = input->line();
    PyObject* const rows = __tracer_get_breaks(&state->table, file.c_str(), line);
    FUZZ_CHECK(rows != nullptr);
    FUZZ_CHECK(as_fake(rows)->items.size() == count(state, file, line));
    PyObject* const all = __tracer_get_file_breaks(&state->table, file.c_str());
    FUZZ_CHECK(all != nullptr);
    size_t expected = 0;
    for (const tModelBreak& item : state->model) {
        expected += item.file == file;
    }
    FUZZ_CHECK(as_fake(all)->items.size() == expected);
}

PyFrameObject* make_frame(tState* state, tInput* input) {
    tFake* const code = fake->make(as_fake(gPy.PyCode_Type_ptr), "code object");
    code->attrs["co_name"] = fake->str("f");
    code->attrs["co_filename"] = fake->str(kFile);
    code->attrs["co_firstlineno"] = fake->num(input->line());
    std::string table = input->text();
    code->attrs["co_lnotab"] = fake->make(fake->bytes_type, table);
    tFake* const frame = fake->make(fake->frame_type, "frame");
    frame->attrs["f_code"] = code;
    PyObject* const code_obj = code;
    RegisterCOPathname(&state->names, static_cast<PyCodeObject*>(code_obj), kFile, nullptr, 1);
    PyObject* const obj = frame;
    return static_cast<PyFrameObject*>(obj);
}

// Hits remove temporary breakpoints, so what the table holds afterwards is asked, not known.
void run_line(tState* state, tInput* input) {
    gPy.minor_version = static_cast<int>(7 + input->below(4));  // line tables as bytes
    PyFrameObject* const frame = make_frame(state, input);
    fake->line_number = input->line();
    const int any = tracer_any_bps(&state->table, frame);
    FUZZ_CHECK(any >= -1 && any <= 1);
    const int maybe = tracer_maybe_break_here_without_mutex(&state->table, &state->thread, frame);
    const bool stops = __tracer_break_here(&state->table, 1, &state->thread, frame, 0) != 0;
    FUZZ_CHECK(!stops || maybe != 0);
    gPy.minor_version = 11;
    gPy.PyErr_Clear();
}

void do_operation(tState* state, tInput* input) {
    switch (input->below(9)) {
        case 0:
        case 1:
        case 2:
            return set_break(state, input);
        case 3:
            return clear_breaks(state, input);
        case 4:
            return change_breaks(state, input);
        case 5:
            return check_lists(state, input);
        case 6:
            return run_line(state, input);
        case 7:
            __tracer_resolve_bp_filenames(&state->table, read_file(input).c_str());
            return gPy.PyErr_Clear();
        default:
            FUZZ_CHECK(__tracer_get_changed_bps_lists(&state->table) != nullptr);
            if (input->below(8) == 0) {
                __tracer_clear_all_breaks(&state->table);
                state->model.clear();
            }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    begin_input();
    tInput input(bytes, size);
    gUseCanonicalPathnames = static_cast<boolean>(input.below(2));
    forget_code_extra_index();
    tState* const state = new tState();
    state->files = create_file_ops_data(nullptr);
    InitCOPathnameTable(&state->names, state->files);
    __tracer_init_bp_ops_data(
        &state->table, &state->names, gPy.Py_None, static_cast<int>(input.below(2)));
    while (!input.is_empty()) {
        do_operation(state, &input);
    }
    __tracer_clear_bp_ops_data(&state->table, &state->names, gPy.Py_None);
    free_co_pathname_table(&state->names);
    destroy_file_ops_data(state->files);
    forget_code_extra_index();
    delete state;
    end_input();
    gUseCanonicalPathnames = 0;
    return 0;
}
