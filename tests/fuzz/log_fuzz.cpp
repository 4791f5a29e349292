// log_fuzz.cpp -- lines of the log: texts of any length and content into the Python file and into a
// native descriptor, descriptions of frames and objects, masks.
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include "dprintf.h"
#include "fuzz.h"
#include "guards.h"
#include "interpreter.h"

namespace {

int gPipe[2] = {-1, -1};

// What has come out of the native side; the pipe takes more than one line of the input has.
std::string read_native() {
    std::string text(200000, '\0');
    const ssize_t size = read(gPipe[0], text.data(), text.size());
    text.resize(size > 0 ? static_cast<size_t>(size) : 0);
    return text;
}

void check_native(const std::string& text, int number) {
    char expected[70100];
    snprintf(expected, sizeof(expected), "%s|%d\n", text.c_str(), number);
    if (strlen(expected) > 60000) {  // what a pipe holds
        return;
    }
    tSingleDPData* const sink = &gUnsafeGlobalDPData.shared_single_dp_data;
    do_dp_no_py(sink, "%s|%d\n", text.c_str(), number);
    FUZZ_CHECK(read_native() == expected);
    dprint_no_tstate(kLogCore, "x");
    FUZZ_CHECK(read_native() == ((gDPrintfMask & kLogCore) != 0 ? "x" : ""));
}

void check_line(const std::string& text, int number) {
    fake->written.clear();
    const char* const shown = dprint_check_str(text.c_str());
    do_dprintf(kLogBreakpoints, "%s: %d\n", shown, number);
    char expected[10000];
    snprintf(expected, sizeof(expected), "%s: %d\n", shown, number);
    FUZZ_CHECK(fake->written == ((gDPrintfMask & kLogBreakpoints) != 0 ? expected : ""));
    for (const char c : fake->written) {
        FUZZ_CHECK((static_cast<unsigned char>(c) & 0x80u) == 0);
    }
}

void check_frame(const std::string& name, const std::string& file, int line) {
    tFake* const code = fake->make(as_fake(gPy.PyCode_Type_ptr), "code object");
    code->attrs["co_name"] = fake->str(name);
    code->attrs["co_filename"] = fake->str(file);
    code->attrs["co_firstlineno"] = fake->num(line);
    tFake* const frame = fake->make(fake->frame_type, "frame");
    frame->attrs["f_code"] = code;
    PyObject* const obj = frame;
    const char* const text = get_dprintf_frame_str1(static_cast<PyFrameObject*>(obj));
    FUZZ_CHECK(strlen(text) <= kDPrintfTextLimit);
}

void check_repr(const std::string& text) {
    PyObject* const obj = fake->str(text);
    FUZZ_CHECK(strlen(get_dprintf_repr_str1(nullptr, obj)) <= kDPrintfTextLimit);
    FUZZ_CHECK(strlen(get_dprintf_repr_str2(&gUnsafeGlobalDPData, obj)) <= kDPrintfTextLimit);
    do_dprintf_repr(kLogCore, "prefix ", obj, "\n");
    FUZZ_CHECK(dprint_check_pystr(obj) != nullptr);
}

void do_operation(tInput* input) {
    const unsigned operation = input->below(6);
    if (operation == 0) {
        set_dprintf_mask(static_cast<tDPrintfLogMask>(input->number()));
    } else if (operation == 1) {
        check_line(input->text(), input->number());
    } else if (operation == 2) {
        check_native(input->text(), input->number());
    } else if (operation == 3) {
        const std::string name = input->text();
        check_frame(name, input->text(), input->number());
    } else if (operation == 4) {
        check_repr(input->text());
    } else {
        fake->raise(input->text());
        do_dlogexception();
        gPy.PyErr_Clear();
    }
    gPy.PyErr_Clear();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    begin_input();
    if (gPipe[0] == -1) {
        FUZZ_CHECK(pipe2(gPipe, O_NONBLOCK) == 0);  // an empty one reads as nothing
    }
    fake->sys["stderr"] = fake->make(fake->other_type, "stderr");
    set_dprintf_file(fake->make(fake->other_type, "log"), gPipe[1], nullptr);
    tInput input(bytes, size);
    while (!input.is_empty()) {
        do_operation(&input);
    }
    set_dprintf_file(nullptr, -1, nullptr);
    fake->sys.clear();
    end_input();
    return 0;
}
