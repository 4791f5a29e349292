// paths_fuzz.cpp -- names of files and checksums of any form: absolute names, canonical pathnames,
// identity. The file system is really asked, for names that mostly do not exist.
#include <string.h>

#include <map>

#include "fileops.h"
#include "fuzz.h"
#include "guards.h"
#include "interpreter.h"

namespace {

// Names that exist, beside those of the input.
const char* const kKnown[] = {"/", "/etc/passwd", "/etc/../etc/passwd", ".", "/proc/self/exe", ""};

struct tState {
    tFileOpsData* data;
    std::map<std::string, std::string> absolute;  // what was answered
};

std::string read_name(tInput* input) {
    const unsigned kind = input->below(9);
    return kind < 6 ? std::string(kKnown[kind]) + (kind == 5 ? input->text() : "")
                    : (kind == 6 ? "/" : "") + input->text() + (kind == 8 ? ".PyC" : "");
}

void check_absolute(tState* state, const std::string& name) {
    const char* const found = get_absname(state->data, name.c_str());
    FUZZ_CHECK(found != nullptr);
    FUZZ_CHECK(found[0] == '/' || name.empty());
    if (!name.empty() && name[0] == '/') {
        FUZZ_CHECK(name == found);
    }
    const auto place = state->absolute.emplace(name, found).first;
    FUZZ_CHECK(place->second == found);  // for the life of the record
}

void check_pruned(std::string name) {
    const std::string before = name;
    prune_py_c_or_o(name.data());
    const size_t length = strlen(name.c_str());
    FUZZ_CHECK(length == before.size() || length + 1 == before.size());
    FUZZ_CHECK(before.compare(0, length, name.c_str()) == 0);
}

void check_identity(tState* state, const std::string& one, const std::string& other) {
    tUniqueFileno number = {77, 77};
    boolean exists = 77;
    FUZZ_CHECK(get_unique_file_number(state->data, one.c_str(), &number, &exists) == 0);
    FUZZ_CHECK(exists == 0 || exists == 1);
    FUZZ_CHECK(exists || (number.dev == 0 && number.ino == 0));
    const int same = samefile(state->data, one.c_str(), other.c_str());
    FUZZ_CHECK(same == 0 || same == 1);
    FUZZ_CHECK(samefile(state->data, one.c_str(), one.c_str()) == 1 || one.empty());
}

void check_canonical(tState* state, const std::string& name, const std::string& checksum) {
    const char* const sum = checksum.empty() ? nullptr : checksum.c_str();
    // Only looking up asks the checksum.
    XPy_DoDecRef(
        lookup_canonical_pathname_pystr(state->data, fake->str(name), fake->str(checksum)));
    gPy.PyErr_Clear();
    const char* const before = lookup_canonical_pathname(state->data, name.c_str(), nullptr);
    const std::string known = before != nullptr ? before : "";
    boolean is_new = 77;
    const char* const found = register_canonical_pathname(state->data, name.c_str(), sum, &is_new);
    FUZZ_CHECK(found != nullptr);
    FUZZ_CHECK(is_new == 0 || is_new == 1);
    FUZZ_CHECK(before == nullptr || known == found);
    const char* const after = lookup_canonical_pathname(state->data, name.c_str(), nullptr);
    FUZZ_CHECK(after != nullptr && strcmp(after, found) == 0);
}

void check_python_forms(tState* state, const std::string& name, const std::string& checksum) {
    PyObject* const path = fake->str(name);
    PyObject* const sum = checksum.empty() ? gPy.Py_None : fake->str(checksum);
    XPy_DoDecRef(register_canonical_pathname_pystr(state->data, path, sum));
    gPy.PyErr_Clear();
    XPy_DoDecRef(lookup_canonical_pathname_pystr(state->data, path, sum));
    gPy.PyErr_Clear();
    XPy_DoDecRef(get_checksum_for_pathname(state->data, path));
    gPy.PyErr_Clear();
}

void do_operation(tState* state, tInput* input) {
    const unsigned operation = input->below(5);
    const std::string name = read_name(input);
    if (operation == 0) {
        check_absolute(state, name);
    } else if (operation == 1) {
        check_pruned(name);
    } else if (operation == 2) {
        check_identity(state, name, read_name(input));
    } else if (operation == 3) {
        check_canonical(state, name, input->text());
    } else {
        check_python_forms(state, name, input->text());
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    begin_input();
    tInput input(bytes, size);
    tState state = {};
    state.data = create_file_ops_data(nullptr);
    FUZZ_CHECK(state.data != nullptr);
    while (!input.is_empty()) {
        do_operation(&state, &input);
    }
    destroy_file_ops_data(state.data);
    end_input();
    return 0;
}
